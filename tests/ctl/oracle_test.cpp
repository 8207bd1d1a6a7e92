// `tarnctl check` held against the oracle, which is written in Python and shares nothing with it:
// both name the same findings, one place at a time, on small random servers.
#include <gtest/gtest.h>
#include <string>

#include "system/support/shell.h"

// The servers with seeds `first` to `end` - 1.
static ran compare(const std::string& program, int first, int end) {
    return shell("python3 " TARN_ORACLE " --tarnctl " + program + " " + std::to_string(first) +
                 " " + std::to_string(end));
}

TEST(oracle, agrees_with_tarnctl_on_60_servers) {
    const ran compared = compare(TARN_CTL_PROGRAM, 0, 60);
    EXPECT_EQ(compared.status, 0) << compared.text;
    EXPECT_NE(compared.text.find("\nequal 60 of 60\n"), std::string::npos) << compared.text;
}

// An unmap buffer with entries after its first blank one, and the count of those before it; a map
// with a damaged node beside a volume whose free count is wrong; a damaged node and a cut data
// file.
TEST(oracle, agrees_with_tarnctl_on_servers_that_it_once_misjudged) {
    for (const int seed : {295, 1086, 1430}) {
        const ran compared = compare(TARN_CTL_PROGRAM, seed, seed + 1);
        EXPECT_EQ(compared.status, 0) << compared.text;
    }
}

TEST(oracle, says_what_a_program_leaves_out) {
    const ran compared = compare("/bin/true", 1, 2);
    EXPECT_EQ(compared.status, 1);
    EXPECT_NE(compared.text.find("only the oracle: "), std::string::npos) << compared.text;
}
