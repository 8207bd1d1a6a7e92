// tarn-lab age: a server whose LUNs are deleted and recreated, and whose maps are removed while the
// journal still names them. Start-up replay recovers it, and verify knows its contents.
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/scratch_file.h"
#include "system/support/lab_sample.h"
#include "system/support/tree.h"

static const char* const SMALL = " --extents 300 --transactions 50";

static ran age(const std::string& sample, unsigned seed, const std::string& more = "") {
    return tarn_lab("age " + sample + " --seed " + std::to_string(seed) + more);
}

static ran verify(const std::string& sample, const std::string& more = "") {
    return tarn_lab("verify " + sample + more);
}

static void expect_recovery(const std::string& sample) {
    const ran replay = tarn_on(sample, "--startup-replay");
    EXPECT_EQ(replay.status, 0) << replay.text;
    EXPECT_EQ(verify(sample).text, sample + ": every file is as expected.\n");
    EXPECT_EQ(verify(sample, " --rebuilt").status, 0) << "table and maps differ";
    EXPECT_FALSE(file_exists(sample + "/journal/EP_JNL"));
}

// A crash that replay must refuse leaves every file as it was.
static void expect_refusal(const std::string& sample) {
    EXPECT_NE(tarn_on(sample, "--startup-replay").status, 0);
    EXPECT_EQ(verify(sample, " --refused").status, 0);
}

TEST(age, is_recovered_although_the_journal_names_maps_that_are_gone) {
    unsigned incomplete = 0;
    uint64_t named = 0;
    unsigned recovered = 0;
    for (unsigned seed = 1; seed <= 16; seed++) {
        SCOPED_TRACE(seed);
        const scratch_dir place;
        const std::string sample = make_sample(place, "s", seed, SMALL);
        const ran aged = age(sample, seed, " --transactions 500");
        ASSERT_EQ(aged.status, 0) << aged.text;
        if (tarn_lab("expect " + sample).text != "recovers\n") {
            expect_refusal(sample);
            continue;
        }
        named += number_after(aged.text, "500 transactions, ");
        incomplete += verify(sample).status == 1 ? 1 : 0;
        expect_recovery(sample);
        recovered++;
    }
    EXPECT_GE(recovered, 14u);
    EXPECT_GE(incomplete, 6u);
    EXPECT_GE(named, 2u);
}

TEST(age, a_crash_that_must_be_refused_is_expected) {
    for (unsigned seed = 1;; seed++) {
        const scratch_dir place;
        const std::string sample = make_sample(place, "s", 3, SMALL);
        ASSERT_EQ(age(sample, seed, " --transactions 20").status, 0);
        if (tarn_lab("expect " + sample).text != "recovers\n") {
            EXPECT_EQ(
                tarn_lab("expect " + sample).text,
                "refuses: the first block of the newest transaction is present but damaged\n");
            expect_refusal(sample);
            return;
        }
        ASSERT_LT(seed, 300u) << "no such crash";
    }
}

// The uuid of each LUN by its path, as `tarn-lab maps` prints it.
static std::map<std::string, std::string> luns_of(const std::string& sample) {
    std::istringstream lines(tarn_lab("maps " + sample).text);
    std::map<std::string, std::string> luns;
    std::string volume, path, kind, uuid, numbers;
    while (lines >> volume >> path >> kind >> uuid && std::getline(lines, numbers)) {
        if (kind == "lun") {
            luns[path] = uuid;
        }
    }
    return luns;
}

TEST(age, shut_down_cleanly_leaves_luns_with_new_uuids_under_their_old_names) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 5, SMALL);
    const auto before = luns_of(sample);
    const ran aged = age(sample, 7, " --clean");
    ASSERT_EQ(aged.status, 0) << aged.text;
    EXPECT_EQ(aged.text.find(sample + ": aged by 1000 transactions, "), 0u);
    EXPECT_EQ(verify(sample).text, sample + ": every file is as expected.\n");
    unsigned recreated = 0;
    for (const auto& [path, uuid] : luns_of(sample)) {
        ASSERT_EQ(before.count(path), 1u) << path;
        recreated += before.at(path) != uuid ? 1 : 0;
        EXPECT_EQ(uuid_digits_in(sample + "/" + path), uuid) << path;
    }
    EXPECT_GE(recreated, 3u);
    EXPECT_EQ(tarn_on(sample, "--startup-replay").status, 0);
    EXPECT_EQ(verify(sample).status, 0);
    for (const char* volume : {"/volume1", "/volume2"}) {
        EXPECT_EQ(tarn_on(sample, "--fullck --volpath " + sample + volume).status, 0) << volume;
    }
}

TEST(age, the_same_numbers_give_the_same_bytes) {
    const scratch_dir place;
    const std::string one = make_sample(place, "1", 5, SMALL);
    const std::string two = make_sample(place, "2", 5, SMALL);
    const std::string other = make_sample(place, "3", 5, SMALL);
    ASSERT_EQ(age(one, 2).status, 0);
    ASSERT_EQ(age(two, 2).status, 0);
    ASSERT_EQ(age(other, 3).status, 0);
    const auto platform = std::vector<std::string>{"platform.conf"};
    EXPECT_EQ(changed_files(tree_of(one), tree_of(two)), platform);
    EXPECT_GT(changed_files(tree_of(one), tree_of(other)).size(), 5u);
}

TEST(age, refuses_what_it_does_not_know_and_changes_nothing) {
    const struct {
        const char* options;  // of make
        bool twice;
        const char* reason;
    } rows[] = {
        {" --crash", false, "only a sample without --crash and --unfinalized can run\n"},
        {" --unfinalized", false, "only a sample without --crash and --unfinalized can run\n"},
        {"", true, "has run before\n"},
    };
    for (const auto& row : rows) {
        const scratch_dir place;
        const std::string sample = make_sample(place, "s", 5, SMALL + std::string(row.options));
        ASSERT_TRUE(!row.twice || age(sample, 1).status == 0);
        const auto before = tree_of(sample);
        const ran aged = age(sample, 1);
        EXPECT_EQ(aged.status, 1);
        EXPECT_EQ(aged.text, "tarn-lab: " + sample + ": " + row.reason);
        EXPECT_EQ(tree_of(sample), before);
    }
}
