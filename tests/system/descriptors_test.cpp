// Standard descriptors that the caller closed or broke: no line of output is ever written into a
// file, and a failing output never stops a repair.
#include <filesystem>
#include <gtest/gtest.h>

#include "support/sample_maps.h"
#include "system/support/sample_server.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

static void make_crashed(const sandbox& box) {
    make_volumes(box);
    (void)make_lun(box, 1, "x_Extent_1", 0xA1);
    make_jnl(box.journal(), 0xFFFFFFFF,
             {xcopy_block(uuid_of(0xA1), 300, 0x8002), tbl_block(uuid_of(0x22), 5, 0x8003)});
}

// All files of the volumes after a start-up replay under `conditions`.
static std::map<std::string, std::string> replayed(const run_conditions& conditions) {
    const sandbox box;
    make_crashed(box);
    const run_result got = box.run({"--startup-replay"}, conditions);
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.signal, 0);
    EXPECT_TRUE(got.logged("Journal Consistent, Remove /var/lib/tarn/EP_JNL\n"));
    EXPECT_FALSE(fs::exists(box.journal()));
    return tree_of(fs::path(box.volume(1)).parent_path());
}

static std::map<std::string, std::string> with_output(output_kind output, output_kind errors) {
    run_conditions conditions;
    conditions.output = output;
    conditions.errors = errors;
    return replayed(conditions);
}

TEST(descriptors, that_are_closed_in_any_combination_change_no_byte_of_the_result) {
    const auto expected = replayed({});
    const output_kind kinds[] = {output_kind::captured, output_kind::closed,
                                 output_kind::broken_pipe};
    for (const output_kind output : kinds) {
        for (const output_kind errors : kinds) {
            EXPECT_EQ(with_output(output, errors), expected)
                << "output " << static_cast<int>(output) << " errors " << static_cast<int>(errors);
        }
    }
}

TEST(descriptors, checks_with_closed_outputs_change_nothing) {
    run_conditions closed;
    closed.output = output_kind::closed;
    closed.errors = output_kind::closed;
    const sandbox box;
    make_volumes(box);
    make_jnl(box.journal(), 0x25521814, {});
    const auto before = tree_of(fs::path(box.volume(1)).parent_path());
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"--metack", "--fripath", "/volume1/@EP/EP_FRI", "--tblpath", "/volume1/@EP/EP_TBL",
              "--jnlpath", JOURNAL},
             {"--freeck", "--fripath", "/volume1/@EP/EP_FRI", "--tblpath", "/volume1/@EP/EP_TBL"},
             {"--ckvjnl"},
             {"--vaaick", "log"},
             {"--help"}}) {
        EXPECT_EQ(box.run(words, closed).status, 0) << words[0];
        EXPECT_EQ(tree_of(fs::path(box.volume(1)).parent_path()), before) << words[0];
    }
}

// A closed input reads as an empty one: no file gets descriptor 0, which means "no file".
TEST(descriptors, make_no_difference_between_a_closed_input_and_an_empty_one) {
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"--startup-replay"},
             {"--rpvjnl"},
             {"--ckvjnl"},
             {"--set-status", "bad"},
             {"--metack", "--fripath", "/volume1/@EP/EP_FRI", "--tblpath", "/volume1/@EP/EP_TBL",
              "--jnlpath", JOURNAL}}) {
        const sandbox empty_box;
        const sandbox box;
        make_crashed(empty_box);
        make_crashed(box);
        run_conditions closed;
        closed.input = input_kind::closed;
        const run_result expected = empty_box.run(words);
        const run_result got = box.run(words, closed);
        EXPECT_EQ(got.status, expected.status) << words[0];
        EXPECT_EQ(got.out, expected.out) << words[0];
        EXPECT_EQ(got.log, expected.log) << words[0];
        for (const unsigned number : {1u, 2u}) {
            EXPECT_EQ(tree_of(box.volume(number)), tree_of(empty_box.volume(number))) << words[0];
        }
        EXPECT_EQ(file_exists(box.journal()), file_exists(empty_box.journal())) << words[0];
    }
}
