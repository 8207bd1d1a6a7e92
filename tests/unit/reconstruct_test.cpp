#include "volume/reconstruct.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "cli/operations.h"
#include "fri/fri_file.h"
#include "options.h"
#include "store/keep_journal.h"
#include "support/io_faults.h"
#include "support/io_outage.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"

namespace fs = std::filesystem;

// A volume of one map: lea 0 in extent 1, lea 1 in extent 4095. Its data file has another uuid
// than its table and its index.
class reconstruct : public testing::Test {
protected:
    reconstruct() {
        make_sample_volume(root(), 0x11);
        make_dat(dat(), 0x77, 0);
        make_filled_map(map(), 63, 2, {{0, 1}, {1, 4095}});
        snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", root().c_str());
    }
    ~reconstruct() override {
        EXPECT_EQ(current_tbl.fd, 0);
        EXPECT_EQ(current_fri.fd, 0);
    }

    std::string root() const { return volumes_.volume(1); }
    std::string live(const std::string& name) const { return root() + "/@EP/" + name; }
    std::string fix(const std::string& name) const { return root() + "/@EP_FIX/" + name; }
    std::string dat() const { return live("EP_DAT_00000"); }
    std::string map() const { return root() + "/@iSCSITrg/LUN_Extent_1"; }

    sample_volumes volumes_;
    log_capture log_;
};

TEST_F(reconstruct, leaves_a_complete_table_and_index_in_the_work_directory) {
    stdout_capture out;
    EXPECT_EQ(do_reconstruct_volume(), 0);
    EXPECT_TRUE(out.text().starts_with("TARN_INFO: CHECK volume '" + root() + "'\n" +
                                       "TARN_INFO: import volume " + root() + "\n"));
    // Free list: 0, 2, 3, ... 4094.
    EXPECT_EQ(tbl_word_of(fix("EP_TBL"), 0), 2);
    EXPECT_EQ(tbl_word_of(fix("EP_TBL"), 1), 0x8001);
    EXPECT_EQ(tbl_word_of(fix("EP_TBL"), 2), 3);
    EXPECT_EQ(tbl_word_of(fix("EP_TBL"), 4093), 4094);
    EXPECT_EQ(tbl_word_of(fix("EP_TBL"), 4094), 0x1000);
    EXPECT_EQ(tbl_word_of(fix("EP_TBL"), 4095), 0x8001);
    // Initialised, 4094 free, head 0, next group 1.
    EXPECT_EQ(fri_word_of(fix("EP_FRI"), 0), 0x8ffe000000000001);
    EXPECT_EQ(fri_group_head_of(fix("EP_FRI")), 0u);
    EXPECT_EQ(fri_free_count_of(fix("EP_FRI")), 0x1F800000000u - 2);
    EXPECT_EQ(fri_group_count_of(fix("EP_FRI")), 0x1F800000u);
    EXPECT_EQ(tbl_word_of(live("EP_TBL"), 1), 0);
}

TEST_F(reconstruct, keeps_the_uuid_where_the_live_files_stand) {
    stdout_capture out;
    EXPECT_EQ(do_reconstruct_volume(), 0);
    EXPECT_EQ(uuid_in(fix("EP_TBL")), uuid_of(0x11));
    EXPECT_EQ(uuid_in(fix("EP_FRI")), uuid_of(0x11));
    EXPECT_EQ(out.text().find("uuid:"), std::string::npos);
}

TEST_F(reconstruct, gives_a_lost_index_the_uuid_of_the_data_file) {
    unlink(live("EP_FRI").c_str());
    stdout_capture out;
    EXPECT_EQ(do_reconstruct_volume(), 0);
    EXPECT_EQ(uuid_in(fix("EP_FRI")), uuid_of(0x77));
    EXPECT_EQ(uuid_in(fix("EP_TBL")), uuid_of(0x11));
    EXPECT_NE(out.text().find("TARN_INFO: to   [77777777777777777777777777777777]\n"),
              std::string::npos);
}

// The place of an index's third node: unused in a table, and read with its uuid.
TEST_F(reconstruct, keeps_the_uuid_of_a_table_with_damage_in_its_unused_bytes) {
    write_file_bytes(live("EP_TBL"), 4100, "x", 1);
    stdout_capture out;
    EXPECT_EQ(do_reconstruct_volume(), 0);
    EXPECT_EQ(uuid_in(fix("EP_TBL")), uuid_of(0x11));
    EXPECT_EQ(uuid_in(fix("EP_FRI")), uuid_of(0x11));
    EXPECT_EQ(out.text().find("uuid:"), std::string::npos);
}

TEST_F(reconstruct, gives_a_damaged_index_the_uuid_of_the_table) {
    write_file_bytes(live("EP_FRI"), 30, "x", 1);
    stdout_capture out;
    EXPECT_EQ(do_reconstruct_volume(), 0);
    EXPECT_EQ(uuid_in(fix("EP_TBL")), uuid_of(0x11));
    EXPECT_EQ(uuid_in(fix("EP_FRI")), uuid_of(0x11));
    EXPECT_EQ(out.text().find("uuid:"), std::string::npos);
}

// Whichever it is: the rebuild fails, or both files have the volume's uuid.
TEST_F(reconstruct, makes_up_no_uuid_after_a_single_failing_call) {
    for (const io_call kind : {io_call::read, io_call::open, io_call::stat, io_call::seek}) {
        uint64_t rebuilt = 0;
        for (uint64_t n = 1; n <= 30; n++) {
            fs::remove_all(root() + "/@EP_FIX");
            stdout_capture out;
            const io_fault_at fault(n, EIO, {kind});
            if (do_reconstruct_volume() != 0) {
                EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
                continue;
            }
            rebuilt++;
            EXPECT_EQ(uuid_in(fix("EP_TBL")), uuid_of(0x11)) << n;
            EXPECT_EQ(uuid_in(fix("EP_FRI")), uuid_of(0x11)) << n;
        }
        EXPECT_GT(rebuilt, 0u) << static_cast<int>(kind);
    }
}

TEST_F(reconstruct, takes_no_file_for_lost_that_the_system_does_not_speak_of) {
    uint64_t stats = 0;
    {
        stdout_capture out;
        const io_fault_at count(0, 0, {io_call::stat});
        ASSERT_EQ(do_reconstruct_volume(), 0);
        stats = count.calls();
    }
    // The last two: whether the live index, and the live table, are gone.
    for (const uint64_t n : {stats - 1, stats}) {
        fs::remove_all(root() + "/@EP_FIX");
        log_.clear();
        stdout_capture out;
        const io_fault_at fault(n, EIO, {io_call::stat});
        EXPECT_EQ(do_reconstruct_volume(), -1);
        EXPECT_TRUE(log_.has("ERR: do_reconstruct_volume(#) Fail to get the status of " +
                             live(n == stats ? "EP_TBL" : "EP_FRI") + ": Input/output error\n"));
        EXPECT_EQ(out.text().find("uuid:"), std::string::npos);
    }
}

// A live table that goes away after the import has read it.
static struct {
    std::string path;
    uint64_t status;  // the status that finds it gone
    uint64_t asked;
    int write_error;  // of every write from then on
} lost_table;

static io_verdict lose_table(io_call call, size_t wanted) {
    if (call == io_call::stat && ++lost_table.asked == lost_table.status) {
        unlink(lost_table.path.c_str());
    }
    const bool gone = lost_table.asked >= lost_table.status;
    return {call == io_call::write && gone ? lost_table.write_error : 0, wanted};
}

class reconstruct_of_a_lost_table : public reconstruct {
protected:
    // The last status that a rebuild asks for is the live table's.
    int run(int write_error) {
        {
            const stdout_capture ignored;
            const io_fault_at count(0, 0, {io_call::stat});
            EXPECT_EQ(do_reconstruct_volume(), 0);
            lost_table = {live("EP_TBL"), count.calls(), 0, write_error};
        }
        fs::remove_all(root() + "/@EP_FIX");
        stdout_capture out;
        io_fault = lose_table;
        const int result = do_reconstruct_volume();
        io_fault = nullptr;
        text_ = out.text();
        EXPECT_FALSE(file_exists(live("EP_TBL")));
        return result;
    }
    std::string text_;
};

TEST_F(reconstruct_of_a_lost_table, gives_the_rebuilt_one_the_uuid_of_the_data_file) {
    EXPECT_EQ(run(0), 0);
    EXPECT_EQ(uuid_in(fix("EP_TBL")), uuid_of(0x77));
    EXPECT_EQ(uuid_in(fix("EP_FRI")), uuid_of(0x11));
    EXPECT_NE(text_.find("TARN_INFO: chagne TBL uuid:\n"
                         "TARN_INFO: from [11111111111111111111111111111111]\n"
                         "TARN_INFO: to   [77777777777777777777777777777777]\n"),
              std::string::npos);
    EXPECT_EQ(text_.find("chagne FRI uuid"), std::string::npos);
}

TEST_F(reconstruct_of_a_lost_table, that_cannot_be_saved_leaves_no_work_directory) {
    EXPECT_EQ(run(ENOSPC), -1);
    EXPECT_TRUE(text_.ends_with("TARN_INFO: Fail to save TBL " + fix("EP_TBL") + "\n")) << text_;
    EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
}

TEST_F(reconstruct, without_the_first_data_file_creates_nothing) {
    unlink(dat().c_str());
    make_dat(live("EP_DAT_00001"), 0x77, 0);
    stdout_capture out;
    EXPECT_EQ(do_reconstruct_volume(), -1);
    EXPECT_EQ(out.text(), "TARN_INFO: CHECK volume '" + root() +
                              "'\nTARN_INFO: Fail to reconstruct '" + root() +
                              "', dat metadata files missing (" + dat() + ")\n");
    EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
}

TEST_F(reconstruct, with_a_data_file_that_does_not_load_touches_nothing) {
    write_file_bytes(dat(), 30, "x", 1);
    make_empty_file(fix("EP_TBL"));
    stdout_capture out;
    EXPECT_EQ(do_reconstruct_volume(), -1);
    EXPECT_TRUE(log_.has("ERR: do_reconstruct_volume(#) Fail to load DAT (" + dat() + ")\n"));
    EXPECT_TRUE(file_exists(fix("EP_TBL")));
}

TEST_F(reconstruct, a_failed_import_leaves_no_work_directory) {
    make_filled_map(map(), 63, 1, {{0, 1}, {1, 4095}});
    stdout_capture out;
    EXPECT_EQ(do_reconstruct_volume(), -1);
    EXPECT_TRUE(log_.has("mapped_cnt is wrong"));
    EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
}

TEST_F(reconstruct, more_references_than_an_entry_counts_leave_no_work_directory) {
    std::vector<sample_entry> entries;
    for (uint64_t lea = 0; lea < 4096; lea++) {
        entries.push_back({lea, 9});
    }
    make_filled_map(map(), 4096, 4096, entries);
    stdout_capture out;
    EXPECT_EQ(do_reconstruct_volume(), -1);
    EXPECT_TRUE(log_.has("lpa 9 has more than 4095 references"));
    EXPECT_TRUE(log_.has("Fail to increase mapping, lea 4095\n"));
    EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
}

TEST_F(reconstruct, removes_a_work_directory_that_was_there_before) {
    make_empty_file(fix("EP_TBL"));
    stdout_capture out;
    EXPECT_EQ(do_reconstruct_volume(), -1);
    EXPECT_TRUE(log_.has("Fail to mkdir(" + root() + "/@EP_FIX)\n"));
    EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
}

TEST_F(reconstruct, never_enters_a_work_directory_that_is_a_link) {
    make_empty_file(volumes_.root() + "/elsewhere/EP_TBL");
    fs::create_directory_symlink(volumes_.root() + "/elsewhere", root() + "/@EP_FIX");
    stdout_capture out;
    EXPECT_EQ(do_reconstruct_volume(), -1);
    EXPECT_TRUE(file_exists(volumes_.root() + "/elsewhere/EP_TBL"));
}

TEST_F(reconstruct, a_write_that_fails_without_a_result_leaves_no_work_directory) {
    const single_entry_path path;
    uint64_t writes = 0;
    {
        stdout_capture out;
        const io_fault_at count(0, 0, {io_call::write, io_call::sync});
        ASSERT_EQ(do_reconstruct_volume(), 0);
        writes = count.calls();
        fs::remove_all(root() + "/@EP_FIX");
    }
    // The last calls sync index, table and data file; before them stand the index header's three
    // nodes, its entry, and the free list's links, from the tail at extent 4094 backwards.
    for (const uint64_t n : {writes, writes - 1, writes - 2, writes - 3, writes - 9, writes - 60}) {
        stdout_capture out;
        const io_fault_at fault(n, ENOSPC, {io_call::write, io_call::sync});
        EXPECT_EQ(do_reconstruct_volume(), -1) << n;
        EXPECT_TRUE(fault.fired()) << n;
        EXPECT_FALSE(file_exists(root() + "/@EP_FIX")) << n;
    }
    EXPECT_TRUE(log_.has("1 reads, writes or syncs of " + root() + " failed\n"));
}

TEST_F(reconstruct, whichever_file_does_not_open_nothing_half_done_is_left) {
    bool no_index = false;
    bool no_table = false;
    bool fired = true;
    for (uint64_t n = 1; fired; n++) {
        fs::remove_all(root() + "/@EP_FIX");
        stdout_capture out;
        const io_fault_at fault(n, EIO, {io_call::open});
        const int result = do_reconstruct_volume();
        fired = fault.fired();
        EXPECT_EQ(file_exists(root() + "/@EP_FIX"), result == 0) << n;
        no_index |= out.text().find("TARN_INFO: Fail to load FRI " + fix("EP_FRI") + "\n") !=
                    std::string::npos;
        no_table |= out.text().find("TARN_INFO: Fail to load TBL " + fix("EP_TBL") + "\n") !=
                    std::string::npos;
    }
    EXPECT_TRUE(no_index);
    EXPECT_TRUE(no_table);
}

TEST_F(reconstruct, whichever_write_fails_no_work_directory_is_left) {
    fs::remove(live("EP_FRI"));  // the rebuilt index gets its uuid, and is saved, on its own
    bool not_saved = false;
    bool not_linked = false;
    bool fired = true;
    for (uint64_t n = 1; fired; n++) {
        fs::remove_all(root() + "/@EP_FIX");
        stdout_capture out;
        const io_outage outage(io_call::write,
                               n);  // for good: one failing run of blocks is made good
        const int result = do_reconstruct_volume();
        fired = io_outage::came();
        EXPECT_EQ(result, fired ? -1 : 0) << n;
        EXPECT_EQ(file_exists(root() + "/@EP_FIX"), !fired) << n;
        not_saved |= out.text().find("TARN_INFO: Fail to save FRI " + fix("EP_FRI") + "\n") !=
                     std::string::npos;
        not_linked |= log_.last().starts_with(
            "ERR: do_reconstruct_volume(#) Fail to finalize the link process\n");
        keep_journal_forget();
    }
    EXPECT_TRUE(not_saved);
    EXPECT_TRUE(not_linked);
}

// A run of blocks that cannot be written at once is written entry by entry.
TEST_F(reconstruct, a_write_in_bulk_that_is_made_good_is_no_reason_to_keep_a_journal) {
    uint64_t made_good = 0;
    bool fired = true;
    for (uint64_t n = 1; fired; n++) {
        fs::remove_all(root() + "/@EP_FIX");
        keep_journal_forget();
        stdout_capture out;
        const io_fault_at fault(n, EIO, {io_call::write});
        const int result = do_reconstruct_volume();
        fired = fault.fired();
        EXPECT_EQ(result == 0, keep_journal_reasons().count == 0) << n;
        made_good += fired && result == 0 ? 1 : 0;
    }
    EXPECT_GE(made_good, 2u);  // the counts of a group, and its free list
}

TEST_F(reconstruct, a_path_that_would_be_cut_creates_nothing) {
    const std::string before = root();
    const std::string longer = root() + "/" + std::string(250, '/');
    snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", longer.c_str());
    stdout_capture out;
    EXPECT_EQ(do_reconstruct_volume(), -1);
    EXPECT_FALSE(file_exists(before + "/@EP_FIX"));
}
