#include "volume/discovery.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "options.h"
#include "support/log_capture.h"
#include "support/sample_volumes.h"
#include "support/stdout_capture.h"
#include "volume/path_list.h"

class discovery : public testing::Test {
protected:
    discovery() {
        init_path_list(&list_);
        snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", volume().c_str());
    }
    ~discovery() override { free_path_list(&list_); }

    std::string volume() const { return volumes_.volume(1); }

    // "type name", the volume's root left out.
    std::vector<std::string> entries() const {
        std::vector<std::string> found;
        for (const path_entry* entry = list_.next; entry != &list_; entry = entry->next) {
            std::string name = entry->name;
            if (name.starts_with(volume())) {
                name = name.substr(volume().size());
            }
            found.push_back(std::to_string(entry->type) + " " + name);
        }
        return found;
    }

    std::string no_buffers() const {
        return "TARN_INFO: UNMAP " + volume() + "/@EP/EP_BUF doesn't exist\n" + "TARN_INFO: ROD " +
               volume() + "/@EP/EP_ROD doesn't exist\n";
    }

    sample_volumes volumes_;
    path_entry list_ = {};
    stdout_capture out_;
    log_capture log_;
};

using names = std::vector<std::string>;

TEST_F(discovery, appends_the_volumes_in_order_and_notes_the_other_spaces) {
    make_directories(volumes_.volume(1) + "/@EP");
    make_directories(volumes_.volume(1) + "/@iSCSITrg");
    make_directories(volumes_.volume(2) + "/@EP");
    make_directories(volumes_.volume(2) + "/@iSCSITrg");
    make_directories(volumes_.other() + "/@EP");
    make_directories(volumes_.other() + "/@iSCSITrg");
    EXPECT_EQ(enum_all_volumes(&list_), 0);
    EXPECT_EQ(entries(), (names{"0 ", "0 " + volumes_.volume(2)}));
    EXPECT_EQ(out_.text(), "TARN_INFO: " + volumes_.other() + " is not a VAAI volume\n");
}

TEST_F(discovery, runs_the_tests_without_a_list_too) {
    make_directories(volumes_.volume(2) + "/@EP");
    EXPECT_EQ(enum_all_volumes(nullptr), 0);
    EXPECT_EQ(out_.text(), "TARN_INFO: " + volumes_.volume(1) + "/@EP is not a VAAI volume\n" +
                               "TARN_INFO: " + volumes_.other() + " is not a VAAI volume\n" +
                               "TARN_INFO: " + volumes_.volume(2) +
                               "/@iSCSITrg is not a VAAI volume\n");
}

TEST_F(discovery, a_volume_with_no_directory_at_all_has_no_maps) {
    EXPECT_EQ(enum_all_vaai_luns(&list_), 0);
    EXPECT_EQ(entries(), names{});
    EXPECT_EQ(out_.text(), no_buffers());
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(discovery, lists_files_named_extent_below_the_luns) {
    make_empty_file(volume() + "/@iSCSITrg/lun/deep/LUN_Extent_1");
    make_empty_file(volume() + "/@iSCSITrg/lun/LUN_extent_1");
    make_empty_file(volume() + "/@iSCSITrg/LUN_Extent_dir_Extent_/config");
    make_directories(volume() + "/@iSCSITrg/lun/a_Extent_directory");
    EXPECT_EQ(enum_all_vaai_luns(&list_), 0);
    EXPECT_EQ(entries(), (names{"0 /@iSCSITrg/lun/deep/LUN_Extent_1"}));
}

TEST_F(discovery, lists_every_file_in_the_trash) {
    make_empty_file(volume() + "/@EP_trash/whatever");
    make_directories(volume() + "/@EP_trash/directory");
    EXPECT_EQ(enum_all_vaai_luns(&list_), 0);
    EXPECT_EQ(entries(), (names{"0 /@EP_trash/whatever"}));
}

TEST_F(discovery, lists_every_snapshot_entry_of_a_family_directories_too) {
    make_empty_file(volume() + "/@Snapshot/below/FAMILY_2");
    make_empty_file(volume() + "/@Snapshot/below/MYFAMILY_3");
    make_empty_file(volume() + "/@Snapshot/below/FAMILY");
    EXPECT_EQ(enum_all_vaai_luns(&list_), 0);
    EXPECT_EQ(entries(), (names{"0 /@Snapshot/below/FAMILY_2"}));
    free_path_list(&list_);

    make_directories(volume() + "/@Snapshot/FAMILY_1");
    EXPECT_EQ(enum_all_vaai_luns(&list_), 0);
    const names found = entries();
    EXPECT_EQ(found.size(), 2u);
    EXPECT_EQ(std::count(found.begin(), found.end(), "0 /@Snapshot/FAMILY_1"), 1);
}

TEST_F(discovery, ends_with_the_unmap_buffer_and_the_rod_map) {
    make_empty_file(volume() + "/@EP/EP_ROD");
    make_empty_file(volume() + "/@EP/EP_BUF");
    make_empty_file(volume() + "/@iSCSITrg/LUN_Extent_1");
    make_empty_file(volume() + "/@EP_trash/t");
    make_empty_file(volume() + "/@Snapshot/FAMILY_1");
    EXPECT_EQ(enum_all_vaai_luns(&list_), 0);
    EXPECT_EQ(entries(), (names{"0 /@iSCSITrg/LUN_Extent_1", "0 /@EP_trash/t",
                                "0 /@Snapshot/FAMILY_1", "1 /@EP/EP_BUF", "2 /@EP/EP_ROD"}));
    EXPECT_EQ(out_.text(), "TARN_INFO: UNMAP " + volume() + "/@EP/EP_BUF exists\n" +
                               "TARN_INFO: ROD " + volume() + "/@EP/EP_ROD exists\n");
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(discovery, without_a_list_the_maps_are_not_searched) {
    EXPECT_EQ(enum_all_vaai_luns(nullptr), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: enum_all_vaai_luns(#) NULL pointer\n"}));
    EXPECT_EQ(out_.text(), "");
}

// Goes down `depth` directories of 250 characters each and leaves a file there.
static void make_deep_file(const std::string& top, int depth, const char* name) {
    const std::string step(250, 'd');
    make_directories(top);
    const int here = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(chdir(top.c_str()), 0);
    for (int i = 0; i < depth; i++) {
        ASSERT_EQ(mkdir(step.c_str(), 0700), 0);
        ASSERT_EQ(chdir(step.c_str()), 0);
    }
    const int fd = open(name, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_GT(fd, 0);
    close(fd);
    ASSERT_EQ(fchdir(here), 0);
    close(here);
}

TEST_F(discovery, a_line_that_does_not_fit_its_buffer_ends_the_search) {
    make_deep_file(volume() + "/@EP_trash", 17, "file");  // more than 17 * 251 characters
    EXPECT_EQ(enum_all_vaai_luns(&list_), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: add_found_lines(#) snprintf error 4095\n"}));
    EXPECT_EQ(entries(), names{});
}

TEST_F(discovery, a_directory_that_cannot_be_read_ends_the_search) {
    make_empty_file(volume() + "/@iSCSITrg");  // below a file there is nothing to list
    EXPECT_EQ(enum_all_vaai_luns(&list_), -1);
    EXPECT_EQ(log_.lines().size(), 1u);
    EXPECT_TRUE(log_.has("'/usr/bin/find " + volume() + "/@iSCSITrg/' did not list everything"));
}

TEST_F(discovery, a_failing_enumeration_is_told_without_a_line_end) {
    volumes_.let_platform_fail();
    EXPECT_EQ(enum_all_volumes(&list_), -1);
    EXPECT_EQ(log_.last(), "ERR: enum_all_volumes(#) failed to enum volume info");
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(entries(), names{});
}
