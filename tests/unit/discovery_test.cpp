#include "volume/discovery.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "cli/operations.h"
#include "options.h"
#include "store/keep_journal.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/open_files.h"
#include "support/sample_volumes.h"
#include "support/stdout_capture.h"

class discovery : public testing::Test {
protected:
    discovery() {
        init_path_list(&list_);
        snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", volume().c_str());
    }
    ~discovery() override { free_path_list(&list_); }

    std::string volume() const { return volumes_.volume(1); }

    // "type name", without the volume's root.
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

TEST_F(discovery, appends_the_volumes_in_order_and_reports_the_other_spaces) {
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

TEST_F(discovery, runs_the_tests_even_without_a_list) {
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

TEST_F(discovery, lists_every_entry_of_a_snapshot_family_including_directories) {
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
    EXPECT_EQ(log_.lines(), log_lines({"ERR: enum_all_vaai_luns(#) snprintf error 4095\n"}));
    EXPECT_EQ(entries(), names{});
}

TEST_F(discovery, a_directory_that_cannot_be_read_ends_the_search) {
    make_empty_file(volume() + "/@iSCSITrg");  // a file has no entries to list
    EXPECT_EQ(enum_all_vaai_luns(&list_), -1);
    EXPECT_EQ(log_.lines().size(), 1u);
    EXPECT_TRUE(log_.has("'/usr/bin/find " + volume() + "/@iSCSITrg/' did not list everything"));
}

TEST_F(discovery, a_failing_enumeration_is_logged_without_a_newline) {
    volumes_.let_platform_fail();
    EXPECT_EQ(enum_all_volumes(&list_), -1);
    EXPECT_EQ(log_.last(), "ERR: enum_all_volumes(#) failed to enum volume info");
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(entries(), names{});
}

TEST_F(discovery, a_program_that_cannot_be_started_ends_the_search) {
    make_directories(volume() + "/@Snapshot");
    for (const uint64_t n : {1, 2, 3}) {
        log_.clear();
        const char* const searched[] = {"@iSCSITrg", "@EP_trash", "@Snapshot"};
        const io_fault_at fault(n, EAGAIN, {io_call::spawn});
        EXPECT_EQ(enum_all_vaai_luns(&list_), -1);
        EXPECT_EQ(log_.lines(),
                  log_lines({"ERR: enum_all_vaai_luns(#) fail to OLIBCPopen '/usr/bin/find " +
                             volume() + "/" + searched[n - 1] + "/ -type f'\n"}));
    }
    const io_fault_at fault(4, EAGAIN, {io_call::spawn});
    EXPECT_EQ(enum_all_vaai_luns(&list_), 0);
}

static struct {
    size_t before;
    size_t at_last_stat;
} descriptors;

static io_verdict count_descriptors(io_call call, size_t wanted) {
    if (call == io_call::stat) {
        descriptors.at_last_stat = open_files();
    }
    return {0, wanted};
}

TEST_F(discovery, the_snapshot_search_is_open_during_the_search_for_buffer_and_rod_map) {
    make_directories(volume() + "/@Snapshot");
    descriptors = {open_files(), 0};
    io_fault = count_descriptors;
    EXPECT_EQ(enum_all_vaai_luns(&list_), 0);
    io_fault = nullptr;
    EXPECT_EQ(descriptors.at_last_stat, descriptors.before + 1);
    EXPECT_EQ(open_files(), descriptors.before);
}

class names_in_a_volume : public discovery {
protected:
    names_in_a_volume() { make_empty_file(outside() + "/LUN_Extent_9"); }

    // Next to the volumes; its name begins with that of the volume.
    std::string outside() const { return volume() + "0"; }
    void link(const std::string& to, const std::string& path) const {
        make_directories(std::filesystem::path(path).parent_path());
        std::filesystem::create_symlink(to, path);
    }
    std::vector<std::string> refusal(const std::string& path, const std::string& to) const {
        return log_lines({"ERR: enum_all_vaai_luns(#) " + volume() + path +
                          " leads out of the volume, to " + to + "\n"});
    }
};

TEST_F(names_in_a_volume, a_name_with_a_line_end_fails_the_listing) {
    const std::string search = "ERR: enum_all_vaai_luns(#) '/usr/bin/find " + volume();
    // The second line of each is the name of a file outside.
    make_empty_file(volume() + "/@iSCSITrg/a\n" + outside() + "/LUN_Extent_9");
    EXPECT_EQ(enum_all_vaai_luns(&list_), -1);
    EXPECT_EQ(log_.lines(), log_lines({search + "/@iSCSITrg/' printed " + outside() +
                                       "/LUN_Extent_9, which is not below it\n"}));
    EXPECT_EQ(entries(), names{});
    std::filesystem::remove_all(volume() + "/@iSCSITrg");

    log_.clear();
    make_empty_file(volume() + "/@iSCSITrg/b\n../x_Extent_");
    EXPECT_EQ(enum_all_vaai_luns(&list_), -1);
    EXPECT_EQ(log_.lines(), log_lines({search + "/@iSCSITrg/' printed ../x_Extent_, which "
                                                "is not below it\n"}));
    std::filesystem::remove_all(volume() + "/@iSCSITrg");

    // A line that is not kept fails the listing too.
    log_.clear();
    make_empty_file(volume() + "/@Snapshot/FAMILY_1\nplain\ttext");
    EXPECT_EQ(enum_all_vaai_luns(&list_), -1);
    EXPECT_EQ(log_.lines(), log_lines({search + "/@Snapshot/' printed plain\\x09text, which "
                                                "is not below it\n"}));
}

TEST_F(names_in_a_volume, a_path_with_a_dot_dot_component_fails_the_listing) {
    make_empty_file(volume() + "/@Snapshot/.../FAMILY_1");
    make_empty_file(volume() + "/@Snapshot/..FAMILY_2");
    EXPECT_EQ(enum_all_vaai_luns(&list_), 0);  // neither goes up
    EXPECT_EQ(entries(), (names{"0 /@Snapshot/.../FAMILY_1"}));
    std::filesystem::remove_all(volume() + "/@Snapshot");

    make_empty_file(volume() + "/@Snapshot/..\nFAMILY_3");
    EXPECT_EQ(enum_all_vaai_luns(&list_), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: enum_all_vaai_luns(#) '/usr/bin/find " + volume() +
                                       "/@Snapshot/' printed " + volume() +
                                       "/@Snapshot/.., which is not below it\n"}));
}

TEST_F(names_in_a_volume, a_link_to_a_file_outside_fails_the_listing) {
    link(outside() + "/LUN_Extent_9", volume() + "/@Snapshot/FAMILY_9");
    EXPECT_EQ(enum_all_vaai_luns(&list_), -1);
    EXPECT_EQ(log_.lines(), refusal("/@Snapshot/FAMILY_9", outside() + "/LUN_Extent_9"));
}

TEST_F(names_in_a_volume, a_linked_directory_fails_the_listing) {
    link(outside(), volume() + "/@iSCSITrg");
    EXPECT_EQ(enum_all_vaai_luns(&list_), -1);
    EXPECT_EQ(log_.lines(), refusal("/@iSCSITrg/LUN_Extent_9", outside() + "/LUN_Extent_9"));
}

TEST_F(names_in_a_volume, a_buffer_or_rod_map_that_leads_out_fails_the_listing) {
    for (const char* name : {"EP_BUF", "EP_ROD"}) {
        log_.clear();
        const std::string path = std::string("/@EP/") + name;
        link(outside() + "/LUN_Extent_9", volume() + path);
        EXPECT_EQ(enum_all_vaai_luns(&list_), -1);
        std::vector<std::string> expected = refusal(path, outside() + "/LUN_Extent_9");
        expected.push_back("ERR: enum_all_vaai_luns(#) fail to add " + volume() + path + "\n");
        EXPECT_EQ(log_.lines(), expected);
        std::filesystem::remove(volume() + path);
    }
}

TEST_F(names_in_a_volume, links_inside_a_volume_and_a_linked_volume_are_accepted) {
    make_empty_file(volume() + "/@iSCSITrg/LUN_Extent_1");
    link("../@iSCSITrg/LUN_Extent_1", volume() + "/@Snapshot/FAMILY_1");
    const std::string linked = volumes_.root() + "/volume7";
    std::filesystem::create_directory_symlink(volume(), linked);
    snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", linked.c_str());
    EXPECT_EQ(enum_all_vaai_luns(&list_), 0);
    EXPECT_EQ(entries(), (names{"0 " + linked + "/@iSCSITrg/LUN_Extent_1",
                                "0 " + linked + "/@Snapshot/FAMILY_1"}));
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(names_in_a_volume, a_dangling_link_is_listed) {
    link(outside() + "/absent", volume() + "/@Snapshot/FAMILY_1");
    EXPECT_EQ(enum_all_vaai_luns(&list_), 0);
    EXPECT_EQ(entries(), (names{"0 /@Snapshot/FAMILY_1"}));
}

TEST_F(names_in_a_volume, a_link_that_cannot_be_followed_fails_the_listing) {
    link("FAMILY_1", volume() + "/@Snapshot/FAMILY_1");
    EXPECT_EQ(enum_all_vaai_luns(&list_), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: enum_all_vaai_luns(#) Fail to get the real path of " + volume() +
                         "/@Snapshot/FAMILY_1: Too many levels of symbolic links\n"}));
}

// Without the ROD map, or the buffer, a rebuilt table would lack its references.
TEST_F(names_in_a_volume, a_buffer_or_rod_map_of_unknown_status_fails_the_listing) {
    for (const char* directory : {"@iSCSITrg", "@EP_trash", "@Snapshot"}) {
        make_directories(volume() + "/" + directory);
    }
    make_empty_file(volume() + "/@EP/EP_BUF");
    make_empty_file(volume() + "/@EP/EP_ROD");
    const std::string failed = "ERR: enum_all_vaai_luns(#) Fail to get the status of " + volume();
    // The real path of the volume; the status of the buffer and its real path; the ROD map's
    // status.
    const uint64_t of_buffer = 2;
    const uint64_t of_rod = 4;
    for (const uint64_t n : {of_buffer, of_rod}) {
        log_.clear();
        keep_journal_forget();
        const io_fault_at fault(n, EIO, {io_call::stat});
        EXPECT_EQ(enum_all_vaai_luns(&list_), -1);
        EXPECT_EQ(log_.lines(),
                  log_lines({failed + (n == of_buffer ? "/@EP/EP_BUF" : "/@EP/EP_ROD") +
                             ": Input/output error\n"}));
        EXPECT_EQ(keep_journal_failures().count, 1u);
    }
}
