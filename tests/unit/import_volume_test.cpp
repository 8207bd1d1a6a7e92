#include "volume/import_volume.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

#include "cli/operations.h"
#include "fri/fri_file.h"
#include "map/map_file.h"
#include "options.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/lost_map.h"
#include "support/paths.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"
#include "volume/volume_paths.h"

namespace fs = std::filesystem;

class import_volume : public testing::Test {
protected:
    import_volume() {
        make_sample_volume(root(), 0x11);
        snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", root().c_str());
    }

    std::string root() const { return volumes_.volume(1); }
    std::string fix(const std::string& name) const { return root() + "/@EP_FIX" + name; }
    std::string lun(const std::string& name) const { return root() + "/@iSCSITrg/" + name; }
    static void expect_all_closed() {
        EXPECT_EQ(current_tbl.fd, 0);
        EXPECT_EQ(current_fri.fd, 0);
        EXPECT_EQ(current_map.fd, 0);
    }

    sample_volumes volumes_;
    log_capture log_;
};

TEST_F(import_volume, rebuilds_from_maps_of_every_kind_in_their_order) {
    make_filled_map(lun("LUN_Extent_1"), 100, 2, {{0, 5}, {64, 6}});
    make_filled_map(root() + "/@EP/EP_BUF", 100, 1, {{0, 5}, {2, 7}});
    stdout_capture out;
    EXPECT_EQ(do_import_volume(FIX_DIR), 0);
    EXPECT_EQ(out.text(),
              "TARN_INFO: import volume " + root() + "\n" +                               //
                  "TARN_INFO: UNMAP " + root() + "/@EP/EP_BUF exists\n" +                 //
                  "TARN_INFO: ROD " + root() + "/@EP/EP_ROD doesn't exist\n" +            //
                  "TARN_INFO: import MAP(" + lun("LUN_Extent_1") + ")\n" +                //
                  "TARN_INFO: Try to import 2/100 mappings\n" + progress_lines(0, 100) +  //
                  "TARN_INFO: import MAP(" + root() + "/@EP/EP_BUF)\n" +                  //
                  "TARN_INFO: Try to import 1/100 mappings\n" + progress_lines(0, 2) +    //
                  "TARN_INFO: Rebuild EP_TBL: (" + fix("/EP_TBL") + ")\n" +               //
                  "TARN_INFO: Rebuild EP_FRI: (" + fix("/EP_FRI") + ")\n");
    EXPECT_EQ(tbl_word_of(fix("/EP_TBL"), 5), 0x8002);
    EXPECT_EQ(tbl_word_of(fix("/EP_TBL"), 6), 0x8001);
    EXPECT_EQ(tbl_word_of(fix("/EP_TBL"), 7), 0);
    EXPECT_EQ(fri_word_of(fix("/EP_FRI"), 0), uint64_t{1} << 63);
    EXPECT_EQ(fri_group_count_of(fix("/EP_FRI")), 1u);
    EXPECT_EQ(fri_free_count_of(fix("/EP_FRI")), 0x1F800000000u - 2);
    EXPECT_EQ(uuid_in(fix("/EP_TBL")), uuid_of(0x11));
    EXPECT_EQ(uuid_in(fix("/EP_FRI")), uuid_of(0x11));
    EXPECT_EQ(tbl_word_of(root() + "/@EP/EP_TBL", 5), 0);  // the live one is not written
    expect_all_closed();
}

TEST_F(import_volume, makes_its_directory_for_the_owner_alone) {
    stdout_capture out;
    EXPECT_EQ(do_import_volume(CHECK_DIR), 0);
    struct stat64 status = {};
    ASSERT_EQ(stat64((root() + "/@EP_CHK").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, unsigned{S_IFDIR | 0700});
}

// Files first: table and index; then the work directory, then the volume's root.
TEST_F(import_volume, puts_the_names_of_its_files_on_the_disk) {
    uint64_t syncs = 0;
    {
        stdout_capture out;
        const io_fault_at count(0, 0, {io_call::sync});
        EXPECT_EQ(do_import_volume(FIX_DIR), 0);
        syncs = count.calls();
    }
    EXPECT_EQ(syncs, 4u);
    for (uint64_t n = 1; n <= syncs; n++) {
        fs::remove_all(fix(""));
        log_.clear();
        stdout_capture out;
        const io_fault_at fault(n, EIO, {io_call::sync});
        EXPECT_EQ(do_import_volume(FIX_DIR), -1) << n;
        EXPECT_EQ(log_.lines().size(), 1u) << n;
    }
    EXPECT_EQ(log_.lines(), log_lines({"ERR: sync_directory(#) Fail to sync directory " + root() +
                                       ": Input/output error\n"}));
}

TEST_F(import_volume, a_lost_index_is_only_one_that_is_certainly_not_there) {
    unlink((root() + "/@EP/EP_FRI").c_str());
    uint64_t stats = 0;
    {
        stdout_capture out;
        const io_fault_at count(0, 0, {io_call::stat});
        EXPECT_EQ(do_import_volume(FIX_DIR), 0);
        stats = count.calls();
    }
    bool asked = false;
    for (uint64_t n = 1; n <= stats; n++) {
        fs::remove_all(fix(""));
        log_.clear();
        stdout_capture out;
        const io_fault_at fault(n, EACCES, {io_call::stat});
        const int result = do_import_volume(FIX_DIR);
        if (log_.has("Fail to get the status of " + root() + "/@EP/EP_FRI: Permission denied")) {
            EXPECT_EQ(result, -1);
            EXPECT_TRUE(log_.has("ERR: do_import_volume(#) Fail to create FRI "));
            asked = true;
        }
    }
    EXPECT_TRUE(asked);
}

TEST_F(import_volume, an_existing_directory_is_refused_before_any_file_is_made) {
    make_directories(fix(""));
    stdout_capture out;
    EXPECT_EQ(do_import_volume(FIX_DIR), -1);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: do_import_volume(#) Fail to mkdir(" + fix("") + ")\n"}));
    EXPECT_TRUE(fs::is_empty(fix("")));
}

TEST_F(import_volume, a_link_of_that_name_is_not_followed) {
    make_directories(volumes_.root() + "/elsewhere");
    fs::create_directory_symlink(volumes_.root() + "/elsewhere", fix(""));
    stdout_capture out;
    EXPECT_EQ(do_import_volume(FIX_DIR), -1);
    EXPECT_TRUE(fs::is_empty(volumes_.root() + "/elsewhere"));
    EXPECT_TRUE(fs::is_symlink(fix("")));
}

TEST_F(import_volume, a_path_that_is_no_volume_is_refused) {
    fs::remove_all(root() + "/@iSCSITrg");
    stdout_capture out;
    EXPECT_EQ(do_import_volume(FIX_DIR), -1);
    EXPECT_EQ(out.text(), "TARN_INFO: " + root() + "/@iSCSITrg is not a VAAI volume\n");
    EXPECT_FALSE(file_exists(fix("")));
}

TEST_F(import_volume, a_volume_path_that_would_be_cut_creates_nothing) {
    const std::string deep = root() + "/" + std::string(60, 'd');
    make_sample_volume(deep, 0x11);
    snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", deep.c_str());
    stdout_capture out;
    EXPECT_EQ(do_import_volume(FIX_DIR), -1);
    EXPECT_TRUE(log_.has("path does not fit"));
    EXPECT_FALSE(file_exists(deep + "/@EP_FIX"));
}

TEST_F(import_volume, a_lost_table_leaves_the_directory_for_the_caller) {
    const std::string live = root() + "/@EP/EP_TBL";
    unlink(live.c_str());
    stdout_capture out;
    EXPECT_EQ(do_import_volume(FIX_DIR), -1);
    EXPECT_TRUE(log_.has("ERR: do_import_volume(#) Fail to create TBL " + fix("/EP_TBL") +
                         " from " + live + "\n"));
    EXPECT_TRUE(fs::is_empty(fix("")));
    expect_all_closed();
}

// What is written first: the two nodes of the table's header, and the three of the index's.
TEST_F(import_volume, a_header_that_cannot_be_saved_leaves_the_directory_for_the_caller) {
    const struct {
        const char* node;
        const char* kind;
    } writes[] = {{"const meta node[0]", "TBL"},
                  {"const meta node[1]", "TBL"},
                  {"const meta node[0]", "FRI"},
                  {"const meta node[1]", "FRI"},
                  {"var meta node[0]", "FRI"}};
    for (uint64_t n = 1; n <= 5; n++) {
        const auto& [node, kind] = writes[n - 1];
        fs::remove_all(fix(""));
        log_.clear();
        stdout_capture out;
        const io_fault_at fault(n, ENOSPC, {io_call::write});
        EXPECT_EQ(do_import_volume(FIX_DIR), -1);
        EXPECT_EQ(log_.lines(),
                  log_lines({"ERR: tarn_write_meta_node(#) tarn_write_meta_node(-1)\n",
                             std::string("ERR: tarn_save_meta_nodes(#) ") + node + " save fail\n",
                             std::string("ERR: do_import_volume(#) Fail to save ") + kind + " " +
                                 fix("/EP_") + kind + "\n"}));
        EXPECT_EQ(out.text(), "TARN_INFO: import volume " + root() + "\n");
        EXPECT_TRUE(file_exists(fix("/EP_TBL")));
        EXPECT_EQ(file_exists(fix("/EP_FRI")), n > 2);
        expect_all_closed();
    }
}

TEST_F(import_volume, a_lost_index_is_replaced_by_one_with_a_uuid_of_its_own) {
    unlink((root() + "/@EP/EP_FRI").c_str());
    stdout_capture out;
    EXPECT_EQ(do_import_volume(FIX_DIR), 0);
    EXPECT_NE(uuid_in(fix("/EP_FRI")), uuid_of(0x11));
    EXPECT_NE(uuid_in(fix("/EP_FRI")), uuid_of(0));
}

TEST_F(import_volume, stops_at_the_first_map_that_does_not_load) {
    make_empty_file(lun("LUN_Extent_1"));
    make_filled_map(root() + "/@EP/EP_BUF", 100, 1, {{0, 5}});
    write_file_bytes(lun("LUN_Extent_1"), 10, "x", 1);
    stdout_capture out;
    EXPECT_EQ(do_import_volume(FIX_DIR), -1);
    EXPECT_TRUE(
        log_.has("ERR: do_import_volume(#) Fail to load MAP " + lun("LUN_Extent_1") + "\n"));
    EXPECT_EQ(out.text().find("import MAP("), std::string::npos);
    expect_all_closed();
}

TEST_F(import_volume, repairs_each_map_before_it_is_imported) {
    make_filled_map(lun("LUN_Extent_1"), 126, 2, {{0, 5}, {63, 6}});
    spoil_node(lun("LUN_Extent_1"), 0);
    opt_ctx.repair = 1;
    stdout_capture out;
    EXPECT_EQ(do_import_volume(FIX_DIR), 0);
    const std::string text = out.text();
    const size_t repaired = text.find("TARN_INFO: check and repair MAP(" + lun("LUN_Extent_1"));
    const size_t imported = text.find("TARN_INFO: import MAP(" + lun("LUN_Extent_1"));
    EXPECT_LT(repaired, imported);
    EXPECT_NE(imported, std::string::npos);
    EXPECT_EQ(tbl_word_of(fix("/EP_TBL"), 5), 0);
    EXPECT_EQ(tbl_word_of(fix("/EP_TBL"), 6), 0x8001);
    EXPECT_EQ(mapped_count_of(lun("LUN_Extent_1")), 1u);
}

// Its check ends with 1, the result of a node that was repaired.
TEST_F(import_volume, imports_no_map_whose_check_ended_early) {
    const single_entry_path path;
    make_filled_map(lun("LUN_Extent_1"), 63, 2, {{0, 5}, {1, 6}});
    spoil_node(lun("LUN_Extent_1"), 0);
    opt_ctx.repair = 1;
    {
        stdout_capture out;
        const lost_map lost(1, io_call::write);
        EXPECT_EQ(do_import_volume(FIX_DIR), -1);
        EXPECT_EQ(out.text().find("import MAP("), std::string::npos);
    }
    close_map();
    expect_all_closed();
}
