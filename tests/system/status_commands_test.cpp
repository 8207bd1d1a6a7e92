// --vaaick and --set-status: their exit status, their log lines and the bytes that they change.
#include <filesystem>
#include <gtest/gtest.h>

#include "system/support/sample_server.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

struct status_row {
    const char* name;
    uint32_t value;
};
static constexpr status_row all_statuses[] = {
    {"init", 0},         {"success", 0x25521814}, {"abnormal", 0xFFFFFFFF},
    {"bad", 0x66656800}, {"ro", 0x77777777},      {"unknown", 5}};

TEST(status_commands, vaaick_exits_255_only_for_a_bad_journal_and_nolog_keeps_it_silent) {
    for (const status_row& row : all_statuses) {
        for (const std::string mode : {"log", "nolog", "NOLOG", "NoLog", "nologs", ""}) {
            SCOPED_TRACE(std::string(row.name) + " " + mode);
            const sandbox box;
            make_jnl(box.journal(), row.value, {});
            const auto before = tree_of(fs::path(box.journal()).parent_path());
            const bool bad = row.value == 0x66656800;
            const bool quiet = mode == "nolog" || mode == "NOLOG" || mode == "NoLog";

            const run_result got = box.run({"--vaaick", mode});

            EXPECT_EQ(got.status, bad ? 255 : 0);
            EXPECT_EQ(got.out, "");
            EXPECT_EQ(got.log,
                      bad && !quiet ? lines{"ERR: vaai_status_check(#) BAD JOURNAL\n"} : lines{});
            EXPECT_EQ(tree_of(fs::path(box.journal()).parent_path()), before);
        }
    }
}

TEST(status_commands, vaaick_without_a_journal_says_so_and_exits_0) {
    const sandbox box;
    const run_result got = box.run({"--vaaick", "log"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "TARN_INFO: REPLAY jnlPath doesn't exist /var/lib/tarn/EP_JNL\n");
    EXPECT_EQ(got.log, lines{});
    EXPECT_FALSE(fs::exists(box.journal()));
}

TEST(status_commands, vaaick_treats_a_directory_as_a_missing_journal) {
    const sandbox box;
    const run_result got = box.run({"--vaaick", "log", "--jnlpath", "/volume1"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "TARN_INFO: REPLAY jnlPath doesn't exist /volume1\n");
}

TEST(status_commands, vaaick_without_a_journal_root_exits_255) {
    const sandbox box;
    box.configure("journal_root =\n");
    const run_result got = box.run({"--vaaick", "log"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, "");
}

TEST(status_commands, vaaick_of_a_journal_that_cannot_be_loaded_exits_255) {
    const sandbox box;
    const std::string text(4224, 'x');
    write_file_bytes(box.journal(), 0, text.data(), text.size());
    const run_result got = box.run({"--vaaick", "nolog"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, "");
    EXPECT_TRUE(got.logged("ERR: vaai_status_check(#) Fail to load JNL /var/lib/tarn/EP_JNL\n"));
    EXPECT_EQ(file_bytes(box.journal(), 0, text.size()),
              std::vector<uint8_t>(text.begin(), text.end()));
}

TEST(status_commands, vaaick_reads_the_given_journal) {
    const sandbox box;
    make_jnl(box.journal(), 0x66656800, {});
    make_jnl(box.scratch() + "/other", 0x25521814, {});
    EXPECT_EQ(box.run({"--vaaick", "nolog", "--jnlpath", "/scratch/other"}).status, 0);
    EXPECT_EQ(box.run({"--vaaick", "nolog"}).status, 255);
}

TEST(status_commands, set_status_stores_the_word_s_value_in_any_case_and_always_exits_255) {
    struct {
        const char* word;
        uint32_t value;
    } const rows[] = {{"bad", 0x66656800},     {"BAD", 0x66656800},      {"ro", 0x77777777},
                      {"Ro", 0x77777777},      {"abnormal", 0xFFFFFFFF}, {"AbNormal", 0xFFFFFFFF},
                      {"success", 0x25521814}, {"SUCCESS", 0x25521814},  {"init", 0},
                      {"successful", 0},       {"0x66656800", 0},        {"", 0}};
    for (const auto& row : rows) {
        for (const status_row& from : {all_statuses[0], all_statuses[3], all_statuses[4]}) {
            SCOPED_TRACE(std::string(row.word) + " from " + from.name);
            const sandbox box;
            make_jnl(box.journal(), from.value, {});
            const run_result got = box.run({std::string("--set-status=") + row.word});
            EXPECT_EQ(got.status, 255);
            EXPECT_EQ(got.out, "");
            EXPECT_EQ(got.log, lines{});
            EXPECT_EQ(jnl_status_of(box.journal()), row.value);
        }
    }
}

TEST(status_commands, set_status_changes_the_status_node_and_no_other_byte) {
    const sandbox box;
    make_jnl(box.journal(), 0x25521814, {tbl_block(uuid_of(0x11), 5, 0x8001)});
    constexpr size_t size = 1048576 + 64 * 512;
    const std::vector<uint8_t> before = file_bytes(box.journal(), 0, size);
    (void)box.run({"--set-status", "ro"});
    std::vector<uint8_t> after = file_bytes(box.journal(), 0, size);
    EXPECT_EQ(fs::file_size(box.journal()), size);
    EXPECT_EQ((std::vector<uint8_t>{&after[4100], &after[4104]}),
              (std::vector<uint8_t>{0x77, 0x77, 0x77, 0x77}));
    EXPECT_NE(std::vector<uint8_t>(&after[4096], &after[4100]),
              std::vector<uint8_t>(&before[4096], &before[4100]));  // the node's checksum
    std::copy(&before[4096], &before[4104], &after[4096]);
    EXPECT_EQ(after, before);
    EXPECT_EQ(box.run({"--vaaick", "log"}).log, lines{});  // and the new checksum holds
}

TEST(status_commands, set_status_leaves_a_journal_of_an_unknown_status_alone) {
    const sandbox box;
    make_jnl(box.journal(), 5, {});
    const auto before = tree_of(fs::path(box.journal()).parent_path());
    const run_result got = box.run({"--set-status", "success"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log,
              (lines{"ERR: tarn_set_journal_status(#) Fail to set journal "
                     "/var/lib/tarn/EP_JNL BAD\n",
                     "ERR: vaai_status_set(#) Fail to set journal /var/lib/tarn/EP_JNL BAD\n"}));
    EXPECT_EQ(tree_of(fs::path(box.journal()).parent_path()), before);
}

TEST(status_commands, set_status_without_a_journal_does_not_create_one) {
    const sandbox box;
    const run_result got = box.run({"--set-status", "bad"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, "TARN_INFO: REPLAY jnlPath doesn't exist /var/lib/tarn/EP_JNL\n");
    EXPECT_TRUE(
        got.logged("ERR: tarn_set_journal_status(#) Fail to load JNL /var/lib/tarn/EP_JNL\n"));
    EXPECT_TRUE(
        got.logged("ERR: vaai_status_set(#) Fail to set journal /var/lib/tarn/EP_JNL BAD\n"));
    EXPECT_FALSE(fs::exists(box.journal()));
}
