// --ckjnl, --rpjnl, --ckvjnl and --rpvjnl: which files they use, in which order, and their output.
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/sample_maps.h"
#include "system/support/sample_server.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

static const std::string fri1 = "/volume1/@EP/EP_FRI";
static const std::string tbl1 = "/volume1/@EP/EP_TBL";
static const std::string map1 = "/volume1/@iSCSITrg/LUN/x_Extent_1";

// Printed by every walk of a journal whose last transaction, of one block, is number `id`.
static std::string found_lines(unsigned id) {
    const std::string block = std::to_string(id - 1);
    const std::string number = std::to_string(id);
    return "TARN_INFO: jnl_last_record_start = " + block +
           "\nTARN_INFO: JOURNAL-LAST-COMMIT from " + block + " (id=" + number + ") to " + block +
           " (id=" + number + ")\n";
}

static size_t count_of(const std::string& text, const std::string& part) {
    size_t found = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        found++;
    }
    return found;
}

class journal_drivers : public testing::Test {
protected:
    journal_drivers() {
        make_volumes(box);
        make_lun(box, 1, "x_Extent_1", 0xA1);
        make_jnl(box.journal(), 0xFFFFFFFF,
                 {tbl_block(uuid_of(0x11), 5, 0x8003), xcopy_block(uuid_of(0xA1), 300, 0x8002)});
    }
    run_result run(std::vector<std::string> words) {
        const std::vector<std::string> paths = {"--fripath", fri1, "--tblpath", tbl1,
                                                "--mappath", map1, "--jnlpath", JOURNAL};
        words.insert(words.end(), paths.begin(), paths.end());
        return box.run(words);
    }
    sandbox box;
};

TEST_F(journal_drivers, a_check_of_each_kind_names_the_file_before_and_after) {
    set_tbl_word(box.volume(1) + "/@EP/EP_TBL", 5, 0x8003);
    const run_result fri = run({"--ckjnl", "fri"});
    EXPECT_EQ(fri.status, 0);
    EXPECT_EQ(fri.out, "TARN_INFO: CHECK FRI " + fri1 + "\n" + found_lines(2) + "TARN_INFO: FRI " +
                           fri1 + " check successfully\n");
    const run_result map = run({"--ckjnl", "map"});
    EXPECT_EQ(map.status, 0);
    EXPECT_EQ(map.out, "TARN_INFO: CHECK VAAI-LUN " + map1 + "\n" + found_lines(2) +
                           "TARN_INFO: MAP " + map1 + " check successfully\n");
    const run_result tbl = run({"--ckjnl", "tbl"});
    EXPECT_EQ(tbl.status, 0);
    EXPECT_EQ(tbl.out.rfind("TARN_INFO: CHECK TBL " + tbl1 + "\n" + found_lines(2), 0), 0U);
    EXPECT_EQ(count_of(tbl.out, "TARN_INFO: TBL " + tbl1 + " check successfully\n"), 1U);
}

TEST_F(journal_drivers, a_table_that_lacks_a_recorded_change_does_not_match) {
    const auto before = tree_of(box.volume(1));
    const run_result got = run({"--ckjnl", "tbl"});
    EXPECT_EQ(got.status, 255);
    ASSERT_FALSE(got.log.empty());
    EXPECT_EQ(got.log.back(),
              "ERR: check_tbl_journal(#) TBL " + tbl1 + " is not match with JNL " + JOURNAL + "\n");
    EXPECT_TRUE(got.logged("check 1 type file not match, block_num 0 entry 0\n"));
    EXPECT_EQ(count_of(got.out, "successfully"), 0U);
    EXPECT_EQ(tree_of(box.volume(1)), before);
}

TEST_F(journal_drivers, replays_of_index_and_table_report_success_and_that_of_a_map_does_not) {
    const run_result fri = run({"--rpjnl", "fri"});
    EXPECT_EQ(fri.status, 0);
    EXPECT_EQ(fri.out, "TARN_INFO: REPLAY FRI " + fri1 + "\n" + found_lines(2) + "TARN_INFO: FRI " +
                           fri1 + " replay successfully\n");
    const run_result tbl = run({"--rpjnl", "tbl"});
    EXPECT_EQ(tbl.status, 0);
    EXPECT_EQ(tbl.out, "TARN_INFO: REPLAY TBL " + tbl1 + "\n" + found_lines(2) + "TARN_INFO: TBL " +
                           tbl1 + " replay successfully\n");
    const run_result map = run({"--rpjnl", "map"});
    EXPECT_EQ(map.status, 0);
    EXPECT_EQ(map.out, "TARN_INFO: REPLAY VAAI-LUN " + map1 + "\n" + found_lines(2));
    EXPECT_EQ(tbl_word_of(box.volume(1) + "/@EP/EP_TBL", 5), 0x8003);
    EXPECT_EQ(map_word_of(box.volume(1) + "/@iSCSITrg/LUN/x_Extent_1", 0), 0x800000000000012CU);
}

TEST_F(journal_drivers, a_table_replayed_alone_skips_what_only_a_map_resolves) {
    EXPECT_EQ(run({"--rpjnl", "tbl"}).status, 0);
    EXPECT_EQ(tbl_word_of(box.volume(1) + "/@EP/EP_TBL", 300), 0);
    const run_result volume = box.run({"--rpjnl", "vol", "--volpath", "/volume1"});
    EXPECT_EQ(volume.status, 0);
    EXPECT_EQ(tbl_word_of(box.volume(1) + "/@EP/EP_TBL", 300), 0x8002);
}

TEST_F(journal_drivers, the_file_drivers_do_not_look_for_the_configured_journal) {
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"--ckjnl", "fri", "--fripath", fri1},
             {"--ckjnl", "tbl", "--tblpath", tbl1},
             {"--ckjnl", "map", "--mappath", map1},
             {"--rpjnl", "fri", "--fripath", fri1, "--tblpath", tbl1},
             {"--rpjnl", "tbl", "--tblpath", tbl1},
             {"--rpjnl", "map", "--mappath", map1}}) {
        const run_result got = box.run(words);
        SCOPED_TRACE(words[0] + " " + words[1]);
        EXPECT_EQ(got.status, 255);
        EXPECT_TRUE(got.logged("_journal(#) Fail to load JNL \n"));
    }
}

TEST_F(journal_drivers, files_are_loaded_in_order_and_the_first_missing_one_is_logged) {
    struct {
        const char* command;
        const char* type;
        const char* option;
        std::string line;
    } const rows[] = {
        {"--ckjnl", "fri", "--fripath", "ERR: check_fri_journal(#) Fail to load FRI /none\n"},
        {"--ckjnl", "tbl", "--tblpath", "ERR: check_tbl_journal(#) Fail to load TBL /none\n"},
        {"--ckjnl", "map", "--mappath", "ERR: check_map_journal(#) Fail to load MAP /none\n"},
        {"--ckjnl", "fri", "--jnlpath", "ERR: check_fri_journal(#) Fail to load JNL /none\n"},
        {"--rpjnl", "fri", "--fripath", "ERR: replay_fri_journal(#) Fail to load FRI /none\n"},
        {"--rpjnl", "fri", "--tblpath", "ERR: replay_fri_journal(#) Fail to load TBL /none\n"},
        {"--rpjnl", "tbl", "--tblpath", "ERR: replay_tbl_journal(#) Fail to load TBL /none\n"},
        {"--rpjnl", "map", "--mappath", "ERR: replay_map_journal(#) Fail to load MAP /none\n"},
        {"--rpjnl", "map", "--jnlpath", "ERR: replay_map_journal(#) Fail to load JNL /none\n"}};
    for (const auto& row : rows) {
        const run_result got =
            box.run({row.command, row.type, "--fripath", fri1, "--tblpath", tbl1, "--mappath", map1,
                     "--jnlpath", JOURNAL, row.option, "/none"});
        EXPECT_EQ(got.status, 255) << row.line;
        ASSERT_FALSE(got.log.empty()) << row.line;
        EXPECT_EQ(got.log.back(), row.line);
    }
}

TEST_F(journal_drivers, a_volume_without_table_and_index_is_skipped) {
    fs::remove(box.volume(1) + "/@EP/EP_TBL");
    fs::remove(box.volume(1) + "/@EP/EP_FRI");
    const run_result check = box.run({"--ckjnl", "vol", "--volpath", "/volume1"});
    EXPECT_EQ(check.status, 0);
    EXPECT_EQ(check.out,
              "TARN_INFO: CHECK volume /volume1\n"
              "TARN_INFO: FRI /volume1/@EP/EP_FRI fripath doesn't exist\n"
              "TARN_INFO: TBL /volume1/@EP/EP_TBL tblpath doesn't exist\n"
              "TARN_INFO: Skip CHECK volume /volume1\n");
    const run_result replay = box.run({"--rpjnl", "vol", "--volpath", "/volume1"});
    EXPECT_EQ(replay.status, 0);
    EXPECT_EQ(replay.out,
              "TARN_INFO: REPLAY volume /volume1\n"
              "TARN_INFO: FRI /volume1/@EP/EP_FRI fripath isn't exist\n"
              "TARN_INFO: TBL /volume1/@EP/EP_TBL tblpath isn't exist\n");
    EXPECT_EQ(check.log, lines{});
    EXPECT_EQ(replay.log, lines{});
}

TEST_F(journal_drivers, a_volume_with_a_table_and_no_index_fails) {
    fs::remove(box.volume(1) + "/@EP/EP_FRI");
    for (const char* command : {"--ckjnl", "--rpjnl"}) {
        const run_result got = box.run({command, "vol", "--volpath", "/volume1"});
        EXPECT_EQ(got.status, 255);
        EXPECT_TRUE(got.logged("Fail to load FRI /volume1/@EP/EP_FRI\n"));
    }
}

TEST_F(journal_drivers, a_journal_path_that_is_not_a_file_is_reported_and_fails_to_load) {
    fs::remove(box.journal());
    const run_result got = box.run({"--ckjnl", "vol", "--volpath", "/volume1"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out,
              "TARN_INFO: CHECK volume /volume1\n"
              "TARN_INFO: REPLAY jnlPath doesn't exist /var/lib/tarn/EP_JNL\n"
              "TARN_INFO: CHECK FRI /volume1/@EP/EP_FRI\n");
    EXPECT_TRUE(got.logged("ERR: check_fri_journal(#) Fail to load JNL /var/lib/tarn/EP_JNL\n"));
}

TEST_F(journal_drivers, the_check_of_all_volumes_stops_at_the_first_that_fails) {
    const run_result got = box.run({"--ckvjnl"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(count_of(got.out, "CHECK volume /volume1\n"), 1U);
    EXPECT_EQ(count_of(got.out, "/volume2"), 0U);
}

TEST_F(journal_drivers, all_volumes_match_after_their_replay) {
    const run_result replay = box.run({"--rpvjnl"});
    EXPECT_EQ(replay.status, 0);
    EXPECT_EQ(count_of(replay.out, "TARN_INFO: REPLAY volume /volume"), 2U);
    const auto before = tree_of(fs::path(box.volume(1)).parent_path());
    const run_result check = box.run({"--ckvjnl"});
    EXPECT_EQ(check.status, 0);
    EXPECT_EQ(count_of(check.out, "check successfully\n"), 5U);  // 2 indices, 2 tables, 1 map
    EXPECT_EQ(box.run({"--rpvjnl"}).status, 0);
    EXPECT_EQ(tree_of(fs::path(box.volume(1)).parent_path()), before);
    EXPECT_EQ(jnl_status_of(box.journal()), 0xFFFFFFFFU);  // only start-up replay changes it
}

TEST_F(journal_drivers, a_path_that_is_not_a_volume_exits_255) {
    for (const std::string path : {"/scratch", "", "/volume3"}) {
        const run_result got = box.run({"--rpjnl", "vol", "--volpath", path});
        EXPECT_EQ(got.status, 255);
        const std::string reported = path == "/volume3" ? path + "/@EP" : path;
        EXPECT_EQ(got.out, "TARN_INFO: " + reported + " is not a VAAI volume\n");
    }
}

static void make_maps(const sandbox& box, uint32_t count) {
    const std::string directory = box.volume(1) + "/@iSCSITrg/LUN";
    make_directories(directory);
    for (uint32_t i = 0; i < count; i++) {
        make_map(directory + "/" + std::to_string(i) + "_Extent_", uuid_of_number(i),
                 uuid_of(0x11));
    }
    sync();  // all at once: otherwise each close of the program would wait for one of them
}

TEST(journal_drivers_batches, the_table_is_replayed_after_256_maps_and_once_at_the_end) {
    struct {
        unsigned maps;
        size_t replays;
    } const rows[] = {{0, 1}, {256, 2}, {257, 2}};
    for (const auto& row : rows) {
        const sandbox box;
        make_volumes(box);
        make_jnl(box.journal(), 0xFFFFFFFF, {});
        make_maps(box, row.maps);
        const run_result got = box.run({"--rpjnl", "vol", "--volpath", "/volume1"});
        EXPECT_EQ(got.status, 0) << row.maps;
        EXPECT_EQ(count_of(got.out, "TARN_INFO: REPLAY TBL /volume1/@EP/EP_TBL\n"), row.replays)
            << row.maps;
        EXPECT_EQ(count_of(got.out, "TARN_INFO: REPLAY VAAI-LUN "), row.maps);
        EXPECT_EQ(got.log, lines{});
    }
}

// The number in the name of the map that the `nth` "REPLAY VAAI-LUN" line of `out` names.
static uint32_t nth_map(const std::string& out, size_t nth) {
    const std::string word = "TARN_INFO: REPLAY VAAI-LUN /volume1/@iSCSITrg/LUN/";
    size_t at = out.find(word);
    for (; nth > 0 && at != std::string::npos; nth--) {
        at = out.find(word, at + 1);
    }
    EXPECT_NE(at, std::string::npos);
    return at == std::string::npos
               ? 0
               : static_cast<uint32_t>(std::stoul(out.substr(at + word.size())));
}

TEST(journal_drivers_batches, an_older_image_of_a_later_batch_never_overwrites_a_newer_one) {
    const sandbox box;
    make_volumes(box);
    make_maps(box, 257);
    make_jnl(box.journal(), 0xFFFFFFFF, {});
    const std::string order = box.run({"--rpjnl", "vol", "--volpath", "/volume1"}).out;
    make_jnl(box.journal(), 0xFFFFFFFF,
             {xcopy_block(uuid_of_number(nth_map(order, 256)), 77, 0x8001),
              xcopy_block(uuid_of_number(nth_map(order, 0)), 77, 0x8002)});
    EXPECT_EQ(box.run({"--rpjnl", "vol", "--volpath", "/volume1"}).status, 0);
    EXPECT_EQ(tbl_word_of(box.volume(1) + "/@EP/EP_TBL", 77), 0x8002);
}
