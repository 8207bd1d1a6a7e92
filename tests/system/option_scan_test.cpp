// Options that are scanned by the first procedure that needs them, and not by the command: the
// effect of each one on --onekeycheck, --rpvjnl and --startup-replay, with two volumes.
#include <gtest/gtest.h>

#include "support/sample_maps.h"
#include "system/support/sample_server.h"

namespace {

constexpr const char* UUID_TEXT = "000102030405060708090a0b0c0d0e0f";
const std::string uuid_line = "Input UUID[" + std::string(UUID_TEXT) + "]\n";

size_t count_of(const std::string& text, const std::string& part) {
    size_t found = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        found++;
    }
    return found;
}

// Two sound volumes without maps, and a journal without a transaction.
class option_scan : public testing::Test {
protected:
    option_scan() {
        make_volumes(box);
        make_jnl(box.journal(), 0xFFFFFFFF, {});
    }
    // The output of --onekeycheck after the replay of volume 1.
    std::string after_first_replay() const {
        const run_result plain = box.run({"--onekeycheck"});
        EXPECT_EQ(plain.status, 0);
        EXPECT_TRUE(plain.out.starts_with(replay_lines(1)));
        EXPECT_EQ(count_of(plain.out, replay_lines(2)), 1u);
        EXPECT_EQ(plain.log, lines{});
        return plain.out.substr(replay_lines(1).size());
    }
    // With an option that names no file, the replay into volume 1 ends at `index` with that line.
    // Everything after it is as without the option.
    void expect_first_replay_to_end(const std::string& option, const std::string& index,
                                    const std::string& line) const {
        const std::string rest = after_first_replay();
        const run_result got = box.run({"--onekeycheck", option, "/nonexistent"});
        EXPECT_EQ(got.status, 0);
        EXPECT_EQ(got.out,
                  "TARN_INFO: REPLAY volume /volume1\n"
                  "TARN_INFO: REPLAY FRI " +
                      index + "\n" + rest);
        ASSERT_FALSE(got.log.empty());
        EXPECT_EQ(got.log.back(), "ERR: replay_fri_journal(#) " + line);
    }
    sandbox box;
};

// Options that every procedure overrides, or that none of them reads.
const std::vector<std::vector<std::string>> without_effect = {
    {"--path", "/none"}, {"--oldpath", "/none"}, {"--mappath", "/none"}, {"--unmap"}, {"--rod"},
    {"--repair"}};

TEST_F(option_scan, the_check_of_all_volumes_prints_the_same_with_unused_options) {
    const std::string rest = after_first_replay();
    for (const std::vector<std::string>& option : without_effect) {
        std::vector<std::string> words = {"--onekeycheck"};
        words.insert(words.end(), option.begin(), option.end());
        const run_result got = box.run(words);
        EXPECT_EQ(got.status, 0) << option[0];
        EXPECT_EQ(got.out, replay_lines(1) + rest) << option[0];
        EXPECT_EQ(got.log, lines{}) << option[0];
    }
}

TEST_F(option_scan, an_index_given_to_the_check_is_the_target_of_the_first_replay) {
    expect_first_replay_to_end("--fripath", "/nonexistent", "Fail to load FRI /nonexistent\n");
}

TEST_F(option_scan, a_table_given_to_the_check_is_loaded_by_the_first_replay) {
    expect_first_replay_to_end("--tblpath", "/volume1/@EP/EP_FRI",
                               "Fail to load TBL /nonexistent\n");
}

TEST_F(option_scan, a_journal_given_to_the_check_is_used_for_the_first_volume_only) {
    expect_first_replay_to_end("--jnlpath", "/volume1/@EP/EP_FRI",
                               "Fail to load JNL /nonexistent\n");
}

// The index and the table were chosen before the scan, the maps are listed after it.
TEST_F(option_scan, a_volume_given_to_the_check_provides_the_maps_of_the_first_replay) {
    make_lun(box, 2, "x_Extent_1", 0xA2);
    const std::string rest = after_first_replay();
    const run_result got = box.run({"--onekeycheck", "--volpath", "/volume2"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out,
              "TARN_INFO: REPLAY volume /volume1\n"
              "TARN_INFO: REPLAY FRI /volume1/@EP/EP_FRI\n"
              "TARN_INFO: FRI /volume1/@EP/EP_FRI replay successfully\n"
              "TARN_INFO: UNMAP /volume2/@EP/EP_BUF doesn't exist\n"
              "TARN_INFO: ROD /volume2/@EP/EP_ROD doesn't exist\n"
              "TARN_INFO: REPLAY TBL /volume1/@EP/EP_TBL\n"
              "TARN_INFO: TBL /volume1/@EP/EP_TBL replay successfully\n"
              "TARN_INFO: REPLAY VAAI-LUN /volume2/@iSCSITrg/LUN/x_Extent_1\n" +
                  rest);
    EXPECT_EQ(got.log, lines{});
}

TEST_F(option_scan, a_uuid_given_to_the_check_is_printed_when_the_first_replay_scans_the_options) {
    const std::string rest = after_first_replay();
    const run_result got = box.run({"--onekeycheck", "--uuid", UUID_TEXT});
    EXPECT_EQ(got.status, 0);
    const std::string title = "TARN_INFO: REPLAY volume /volume1\n";
    EXPECT_EQ(got.out, title + uuid_line + replay_lines(1).substr(title.size()) + rest);
}

// The scan comes before the first map is checked, so both volumes are repaired.
TEST_F(option_scan, the_check_repairs_the_maps_of_both_volumes) {
    for (const unsigned number : {1u, 2u}) {
        set_tbl_word(box.volume(number) + "/@EP/EP_TBL", 5, 0x8001);
        make_filled_map(box.volume(number) + "/@iSCSITrg/x_Extent_1", 63, 2, {{0, 5}});
    }
    const run_result got = box.run({"--onekeycheck", "--repair"});
    EXPECT_EQ(got.status, 0);
    for (const unsigned number : {1u, 2u}) {
        EXPECT_EQ(mapped_count_of(box.volume(number) + "/@iSCSITrg/x_Extent_1"), 1u) << number;
    }
    EXPECT_EQ(count_of(got.out, "TARN_INFO: mapped_cnt repair: (1), on-disk(1)\n"), 2u);
}

// Every scan finds the word again, so the volumes are checked without the replay.
TEST_F(option_scan, a_stray_word_keeps_the_check_from_replaying) {
    const std::string rest = after_first_replay();
    const std::string refused = "none-option argv element:word \n";
    const std::string title = "TARN_INFO: REPLAY volume /volume";
    const run_result got = box.run({"--onekeycheck", "word"});
    EXPECT_EQ(got.status, 0);
    const size_t second = rest.find(replay_lines(2));
    EXPECT_EQ(got.out, title + "1\n" + refused + rest.substr(0, second) + title + "2\n" + refused +
                           rest.substr(second + replay_lines(2).size()));
}

// --rpvjnl scans before its first volume: only the journal is not set for each volume.
TEST_F(option_scan, the_replay_of_all_volumes_sets_every_path_but_the_journal) {
    const std::string expected = replay_lines(1) + replay_lines(2);
    std::vector<std::vector<std::string>> options = without_effect;
    options.push_back({"--fripath", "/nonexistent"});
    options.push_back({"--tblpath", "/nonexistent"});
    options.push_back({"--volpath", "/volume2"});
    for (const std::vector<std::string>& option : options) {
        std::vector<std::string> words = {"--rpvjnl"};
        words.insert(words.end(), option.begin(), option.end());
        const run_result got = box.run(words);
        EXPECT_EQ(got.status, 0) << option[0];
        EXPECT_EQ(got.out, expected) << option[0];
        EXPECT_EQ(got.log, lines{}) << option[0];
    }
    EXPECT_EQ(box.run({"--rpvjnl", "--uuid", UUID_TEXT}).out, uuid_line + expected);
    const run_result word = box.run({"--rpvjnl", "word"});
    EXPECT_EQ(word.status, 255);
    EXPECT_EQ(word.out, "none-option argv element:word \n");
}

TEST_F(option_scan, the_replay_of_all_volumes_uses_the_given_journal) {
    const run_result got = box.run({"--rpvjnl", "--jnlpath", "/nonexistent"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out,
              "TARN_INFO: REPLAY volume /volume1\n"
              "TARN_INFO: REPLAY jnlPath doesn't exist /nonexistent\n"
              "TARN_INFO: REPLAY FRI /volume1/@EP/EP_FRI\n");
    EXPECT_TRUE(got.logged("ERR: replay_fri_journal(#) Fail to load JNL /nonexistent\n"));
}

// Each run deletes the journal, so each starts with a new one.
TEST_F(option_scan, start_up_replay_sets_every_path_but_the_journal) {
    const std::string path_line = "TARN_INFO: jnlPath=/var/lib/tarn/EP_JNL\n";
    const std::string expected =
        replay_lines(1) + replay_lines(2) + consistent_lines(1) + consistent_lines(2);
    std::vector<std::vector<std::string>> options = without_effect;
    options.push_back({"--fripath", "/nonexistent"});
    options.push_back({"--tblpath", "/nonexistent"});
    options.push_back({"--volpath", "/volume2"});
    for (const std::vector<std::string>& option : options) {
        make_jnl(box.journal(), 0xFFFFFFFF, {});
        std::vector<std::string> words = {"--startup-replay"};
        words.insert(words.end(), option.begin(), option.end());
        const run_result got = box.run(words);
        EXPECT_EQ(got.status, 0) << option[0];
        EXPECT_EQ(got.out, path_line + expected) << option[0];
        EXPECT_FALSE(file_exists(box.journal())) << option[0];
    }
    make_jnl(box.journal(), 0xFFFFFFFF, {});
    const run_result uuid = box.run({"--startup-replay", "--uuid", UUID_TEXT});
    EXPECT_EQ(uuid.status, 0);
    EXPECT_EQ(uuid.out, uuid_line + path_line + expected);
}

TEST_F(option_scan, start_up_replay_deletes_the_given_journal) {
    make_jnl(box.scratch() + "/journal", 0xFFFFFFFF, {});
    const run_result got = box.run({"--startup-replay", "--jnlpath", "/scratch/journal"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out,
              replay_lines(1) + replay_lines(2) + consistent_lines(1) + consistent_lines(2));
    EXPECT_FALSE(file_exists(box.scratch() + "/journal"));
    EXPECT_TRUE(file_exists(box.journal()));
}

TEST_F(option_scan, start_up_replay_with_a_stray_word_touches_nothing) {
    const run_result got = box.run({"--startup-replay", "word"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, "none-option argv element:word \n");
    EXPECT_EQ(jnl_status_of(box.journal()), 0xFFFFFFFFu);
}

}  // namespace
