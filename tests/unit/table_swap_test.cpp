#include "volume/table_swap.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

#include "cli/operations.h"
#include "support/io_faults.h"
#include "support/swap_fixture.h"

namespace fs = std::filesystem;

class table_swap_of_a_volume : public swap_fixture {
protected:
    std::string marker() const {
        std::ifstream file(fix("swap"));
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void write_marker(const std::string& text) const {
        std::ofstream(fix("swap"), std::ios::trunc) << text;
    }
    swap_found find() {
        EXPECT_EQ(table_swap_form(&swap_, root().c_str()), 0);
        return table_swap_find(&swap_);
    }
};

TEST_F(table_swap_of_a_volume, leaves_the_rebuilt_files_live_and_the_originals_as_backups) {
    EXPECT_EQ(begin_and_finish(), 0);
    expect_swapped();
    EXPECT_EQ(log_.lines(), log_lines({}));
}

// Its sizes: one mebibyte and 64 blocks of 512 bytes. The checksums are from another program.
TEST_F(table_swap_of_a_volume, names_the_four_files_in_its_marker) {
    unlink(live("EP_FRI").c_str());
    const timespec times[2] = {{1000000000, 5}, {1000000000, 5}};
    ASSERT_EQ(utimensat(AT_FDCWD, live("EP_TBL").c_str(), times, 0), 0);
    ASSERT_EQ(table_swap_begin(&swap_), 0);
    EXPECT_EQ(marker(),
              "tarn swap 1\n"
              "@EP/EP_TBL 1081344 11111111111111111111111111111111 995a904a\n"
              "@EP/EP_TBL written 1000000000.000000005\n"
              "@EP_FIX/EP_TBL 1081344 22222222222222222222222222222222 8c65bd87\n"
              "@EP/EP_FRI absent\n"
              "@EP_FIX/EP_FRI 1081344 33333333333333333333333333333333 5850539f\n"
              "end f68bd444\n");
}

TEST_F(table_swap_of_a_volume, treats_a_cut_or_changed_marker_as_missing) {
    EXPECT_EQ(find(), swap_found::nothing);
    ASSERT_EQ(table_swap_begin(&swap_), 0);
    const std::string whole = marker();
    for (size_t length = 0; length < whole.size(); length++) {
        write_marker(whole.substr(0, length));
        EXPECT_EQ(find(), swap_found::nothing) << length;
    }
    for (size_t at = 0; at < whole.size(); at++) {
        std::string changed = whole;
        changed[at] = static_cast<char>(changed[at] ^ 1);
        write_marker(changed);
        EXPECT_EQ(find(), swap_found::nothing) << at;
    }
    write_marker(whole + "x");
    EXPECT_EQ(find(), swap_found::nothing);
    write_marker(whole + std::string(4096, 'x'));
    EXPECT_EQ(find(), swap_found::nothing);
    write_marker(whole);
    EXPECT_EQ(find(), swap_found::marker);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(table_swap_of_a_volume, does_not_guess_about_a_marker_that_cannot_be_read) {
    ASSERT_EQ(table_swap_begin(&swap_), 0);
    for (const io_call kind : {io_call::stat, io_call::open, io_call::read}) {
        log_.clear();
        const io_fault_at fault(1, EIO, {kind});
        EXPECT_EQ(find(), swap_found::unknown);
        EXPECT_TRUE(fault.fired());
        EXPECT_EQ(log_.lines().size(), 1u);
        EXPECT_TRUE(log_.has("Input/output error"));
    }
    expect_nothing_lost();
    EXPECT_EQ(find(), swap_found::marker);
}

TEST_F(table_swap_of_a_volume, follows_no_link_in_place_of_the_work_directory_or_the_marker) {
    ASSERT_EQ(table_swap_begin(&swap_), 0);
    fs::rename(fix("swap"), fix("elsewhere"));
    fs::create_symlink("elsewhere", fix("swap"));
    EXPECT_EQ(find(), swap_found::unknown);
    fs::rename(fix("elsewhere"), fix("swap"));
    fs::rename(root() + "/@EP_FIX", root() + "/elsewhere");
    fs::create_directory_symlink(root() + "/elsewhere", root() + "/@EP_FIX");
    EXPECT_EQ(find(), swap_found::nothing);
}

TEST_F(table_swap_of_a_volume, replaces_an_older_backup_and_an_unfinished_new_one) {
    make_tbl(live("EP_TBL.bkp"), uuid_of(0x55));
    fs::create_hard_link(live("EP_TBL"), live("EP_TBL.bkp.new"));
    fs::create_hard_link(live("EP_FRI"), live("EP_FRI.bkp"));
    make_empty_file(live("EP_FRI.bkp.new"));
    EXPECT_EQ(begin_and_finish(), 0);
    expect_swapped();
}

TEST_F(table_swap_of_a_volume, without_a_live_index_keeps_the_older_backup) {
    unlink(live("EP_FRI").c_str());
    make_empty_file(live("EP_FRI.bkp"));
    EXPECT_EQ(begin_and_finish(), 0);
    EXPECT_EQ(inode_of(live("EP_FRI")), rebuilt_[1]);
    EXPECT_TRUE(fs::is_empty(live("EP_FRI.bkp")));
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(table_swap_of_a_volume, gives_the_rebuilt_files_owner_and_mode_of_the_live_ones) {
    fs::permissions(live("EP_TBL"), fs::perms(0640));
    fs::permissions(fix("EP_TBL"), fs::perms(0666));
    fs::permissions(live("EP_FRI"), fs::perms(0604));
    const bool is_root = geteuid() == 0;
    if (is_root) {
        EXPECT_EQ(chown(live("EP_TBL").c_str(), 12, 34), 0);
    }
    EXPECT_EQ(begin_and_finish(), 0);
    struct stat64 status = {};
    ASSERT_EQ(stat64(live("EP_TBL").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(status.st_uid, is_root ? 12 : geteuid());
    EXPECT_EQ(status.st_gid, is_root ? 34 : getegid());
    ASSERT_EQ(stat64(live("EP_FRI").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0604u);
    expect_swapped();
}

TEST_F(table_swap_of_a_volume, gives_an_index_without_a_live_one_owner_and_mode_of_the_table) {
    unlink(live("EP_FRI").c_str());
    fs::permissions(live("EP_TBL"), fs::perms(0640));
    fs::permissions(fix("EP_FRI"), fs::perms(0666));
    EXPECT_EQ(begin_and_finish(), 0);
    EXPECT_EQ(fs::status(live("EP_FRI")).permissions(), fs::perms(0640));
}

TEST_F(table_swap_of_a_volume, gives_a_table_without_a_live_one_owner_and_mode_of_the_index) {
    unlink(live("EP_TBL").c_str());
    fs::permissions(live("EP_FRI"), fs::perms(0604));
    fs::permissions(fix("EP_TBL"), fs::perms(0666));
    EXPECT_EQ(begin_and_finish(), 0);
    EXPECT_EQ(fs::status(live("EP_TBL")).permissions(), fs::perms(0604));
}

TEST_F(table_swap_of_a_volume, that_has_not_begun_is_outdated_once_a_live_file_is_written) {
    for (const char* name : {"EP_TBL", "EP_FRI"}) {
        const fs::file_time_type before = fs::last_write_time(live(name));
        fs::remove(fix("swap"));
        ASSERT_EQ(table_swap_begin(&swap_), 0);
        EXPECT_EQ(find(), swap_found::marker);
        fs::last_write_time(live(name), before + std::chrono::nanoseconds(1));
        EXPECT_EQ(find(), swap_found::outdated) << name;
        EXPECT_EQ(table_swap_expect_pair(root().c_str()), 0);
        EXPECT_EQ(table_swap_expect_none(root().c_str()), 0);
        fs::last_write_time(live(name), before);
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(table_swap_of_a_volume, that_began_to_move_files_is_never_outdated) {
    ASSERT_EQ(table_swap_begin(&swap_), 0);
    fs::rename(live("EP_TBL"), live("EP_TBL.bkp"));
    fs::last_write_time(live("EP_FRI"), fs::file_time_type::clock::now() + std::chrono::hours(1));
    fs::rename(fix("EP_TBL"), live("EP_TBL"));
    EXPECT_EQ(find_and_finish(), 0);
    expect_swapped();
}

TEST_F(table_swap_of_a_volume, leaves_a_pair_except_between_its_two_files) {
    const std::string line = "ERR: one_key_repair(#) " + root() +
                             ": table and index do not match until --onekeyrepair is run again\n";
    EXPECT_EQ(table_swap_expect_pair(root().c_str()), 0);
    ASSERT_EQ(table_swap_begin(&swap_), 0);
    EXPECT_EQ(table_swap_expect_pair(root().c_str()), 0);
    EXPECT_EQ(log_.lines(), log_lines({}));
    fs::rename(live("EP_TBL"), live("EP_TBL.bkp"));  // no live table
    EXPECT_EQ(table_swap_expect_pair(root().c_str()), -1);
    fs::rename(fix("EP_TBL"), live("EP_TBL"));  // another one
    EXPECT_EQ(table_swap_expect_pair(root().c_str()), -1);
    EXPECT_EQ(log_.lines(), log_lines({line, line}));
    log_.clear();
    fs::rename(live("EP_FRI"), live("EP_FRI.bkp"));
    fs::rename(fix("EP_FRI"), live("EP_FRI"));
    EXPECT_EQ(table_swap_expect_pair(root().c_str()), 0);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(table_swap_of_a_volume, of_unknown_state_passes_neither_check) {
    ASSERT_EQ(table_swap_begin(&swap_), 0);
    for (uint64_t n = 1; n <= 5; n++) {  // the directory and four files
        log_.clear();
        const io_fault_at fault(n, EIO, {io_call::stat});
        EXPECT_EQ(table_swap_expect_none(root().c_str()), -1);
        EXPECT_TRUE(fault.fired());
        EXPECT_EQ(log_.lines().size(), 1u);
    }
    uint64_t n = 1;
    for (bool fired = true; fired; n++) {
        const io_fault_at fault(n, EIO, {io_call::stat});
        const int result = table_swap_expect_pair(root().c_str());
        fired = fault.fired();
        EXPECT_EQ(result, fired ? -1 : 0) << n;
    }
}

TEST_F(table_swap_of_a_volume, keeps_its_work_directory_until_it_is_done) {
    EXPECT_EQ(table_swap_expect_none(root().c_str()), 0);
    ASSERT_EQ(table_swap_begin(&swap_), 0);
    EXPECT_EQ(table_swap_expect_none(root().c_str()), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: one_key_repair(#) " + root() +
                         "/@EP_FIX belongs to an interrupted repair: run --onekeyrepair again\n"}));
}

TEST_F(table_swap_of_a_volume, that_stops_at_a_directory_in_place_of_a_backup_loses_nothing) {
    make_directories(live("EP_TBL.bkp/deep"));
    EXPECT_EQ(begin_and_finish(), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: one_key_repair(#) Fail to rename to " +
                                       live("EP_TBL.bkp") + ": Is a directory\n"}));
    expect_nothing_lost();
    fs::remove_all(live("EP_TBL.bkp"));
    EXPECT_EQ(find_and_finish(), 0);
    expect_swapped();
}

// The service is resumed even after a failure: it must not find a table and an index of different
// ages.
TEST_F(table_swap_of_a_volume, that_stops_at_the_index_makes_the_original_table_live_again) {
    make_directories(live("EP_FRI.bkp/deep"));
    EXPECT_EQ(begin_and_finish(), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: one_key_repair(#) Fail to rename to " +
                                       live("EP_FRI.bkp") + ": Is a directory\n"}));
    EXPECT_EQ(inode_of(live("EP_TBL")), original_[0]);
    EXPECT_EQ(inode_of(live("EP_TBL.bkp")), original_[0]);
    EXPECT_EQ(inode_of(live("EP_FRI")), original_[1]);
    EXPECT_EQ(inode_of(fix("EP_TBL")), rebuilt_[0]);
    EXPECT_EQ(inode_of(fix("EP_FRI")), rebuilt_[1]);
    fs::remove_all(live("EP_FRI.bkp"));
    EXPECT_EQ(find_and_finish(), 0);
    expect_swapped();
}

static uint64_t links;

// The index cannot be linked to its backup, nor the table to its name in the work directory again.
static io_verdict fail_all_links_but_the_first(io_call call, size_t wanted) {
    const bool fails = call == io_call::link && ++links >= 2;
    return {fails ? EIO : 0, wanted};
}

TEST_F(table_swap_of_a_volume, that_cannot_be_undone_logs_which_step_failed) {
    links = 0;
    io_fault = fail_all_links_but_the_first;
    EXPECT_EQ(begin_and_finish(), -1);
    io_fault = nullptr;
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: one_key_repair(#) Fail to link to " + live("EP_FRI.bkp.new") +
                             ": Input/output error\n",
                         "ERR: one_key_repair(#) Fail to link to " + fix("EP_TBL") +
                             ": Input/output error\n",
                         "ERR: one_key_repair(#) " + live("EP_TBL") +
                             " is rebuilt and the index is not: do not start the service\n"}));
    expect_nothing_lost();
    EXPECT_EQ(find_and_finish(), 0);
    expect_swapped();
}

// Of each kind of call, the first one fails, then the second, and so on.
TEST_F(table_swap_of_a_volume, whichever_call_fails_nothing_is_lost_and_the_next_run_finishes) {
    const fs::path kept = volumes_.root() + "/kept";
    fs::copy(root(), kept, fs::copy_options::recursive | fs::copy_options::create_hard_links);
    for (const io_call kind : {io_call::stat, io_call::rename, io_call::link, io_call::unlink,
                               io_call::open, io_call::write, io_call::sync, io_call::seek}) {
        bool fired = true;
        uint64_t failed_runs = 0;
        for (uint64_t n = 1; fired; n++) {
            fs::remove_all(root());
            fs::copy(kept, root(),
                     fs::copy_options::recursive | fs::copy_options::create_hard_links);
            log_.clear();
            ASSERT_EQ(table_swap_form(&swap_, root().c_str()), 0);
            int result = 0;
            {
                const io_fault_at fault(n, EIO, {kind});
                result = begin_and_finish();
                fired = fault.fired();
            }
            expect_nothing_lost();
            EXPECT_EQ(inode_of(live("EP_TBL")) == rebuilt_[0],
                      inode_of(live("EP_FRI")) == rebuilt_[1])
                << n;
            failed_runs += result != 0 ? 1 : 0;
            EXPECT_EQ(log_.lines().empty(), !fired) << n;
            if (find() == swap_found::marker) {
                EXPECT_EQ(find_and_finish(), 0) << n;
                expect_swapped();
            } else if (inode_of(live("EP_TBL")) == rebuilt_[0]) {
                expect_swapped();  // the last sync failed, or nothing
            } else {
                EXPECT_EQ(inode_of(live("EP_FRI")), original_[1]) << n;  // never begun
            }
        }
        EXPECT_NE(failed_runs, 0u) << "no failing call of kind " << static_cast<int>(kind);
    }
}

TEST_F(table_swap_of_a_volume, moves_the_live_files_if_links_are_not_supported) {
    for (const int error : {EPERM, EOPNOTSUPP, ENOSYS, EMLINK, EXDEV}) {
        const io_fault_at fault(1, error, {io_call::link});
        EXPECT_EQ(begin_and_finish(), 0);
        EXPECT_TRUE(fault.fired());
        expect_swapped();
        fs::rename(live("EP_TBL"), fix("EP_TBL"));
        fs::rename(live("EP_FRI"), fix("EP_FRI"));
        fs::rename(live("EP_TBL.bkp"), live("EP_TBL"));
        fs::rename(live("EP_FRI.bkp"), live("EP_FRI"));
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
}

static uint64_t renames;
static uint64_t failing_rename;

static io_verdict without_links(io_call call, size_t wanted) {
    if (call == io_call::link) {
        return {EPERM, wanted};
    }
    const bool fails = call == io_call::rename && ++renames == failing_rename;
    return {fails ? EIO : 0, wanted};
}

TEST_F(table_swap_of_a_volume, undoes_a_move_if_the_rebuilt_file_cannot_follow) {
    for (const uint64_t n : {1, 2, 3, 4}) {
        renames = 0;
        failing_rename = n;
        io_fault = without_links;
        fs::remove(fix("swap"));
        EXPECT_EQ(begin_and_finish(), -1);
        io_fault = nullptr;
        EXPECT_EQ(inode_of(live("EP_TBL")), original_[0]) << n;
        EXPECT_EQ(inode_of(live("EP_TBL.bkp")), 0u) << n;
        expect_nothing_lost();
    }
    EXPECT_EQ(find_and_finish(), 0);
    expect_swapped();
}

TEST_F(table_swap_of_a_volume, finishes_an_interrupted_move_and_keeps_owner_and_mode) {
    fs::permissions(live("EP_TBL"), fs::perms(0640));
    ASSERT_EQ(table_swap_begin(&swap_), 0);
    fs::rename(live("EP_TBL"), live("EP_TBL.bkp"));
    EXPECT_EQ(find_and_finish(), 0);
    expect_swapped();
    EXPECT_EQ(fs::status(live("EP_TBL")).permissions(), fs::perms(0640));
}

TEST_F(table_swap_of_a_volume, never_overwrites_a_kept_original_with_the_rebuilt_file) {
    ASSERT_EQ(table_swap_begin(&swap_), 0);
    fs::rename(live("EP_TBL"), live("EP_TBL.bkp"));
    fs::rename(fix("EP_TBL"), live("EP_TBL"));
    EXPECT_EQ(find_and_finish(), 0);
    expect_swapped();
}

// A rename that was cut between its two directories leaves both names.
TEST_F(table_swap_of_a_volume, treats_a_rebuilt_file_with_two_names_as_swapped_in) {
    ASSERT_EQ(table_swap_begin(&swap_), 0);
    fs::rename(live("EP_TBL"), live("EP_TBL.bkp"));
    fs::create_hard_link(fix("EP_TBL"), live("EP_TBL"));
    EXPECT_EQ(find_and_finish(), 0);
    expect_swapped();
}

TEST_F(table_swap_of_a_volume, refuses_a_file_that_the_marker_does_not_name) {
    ASSERT_EQ(table_swap_begin(&swap_), 0);
    const std::string refusal =
        " is not the rebuilt file that " + fix("swap") + " names and stays as it is\n";
    fs::rename(fix("EP_TBL"), fix("right"));
    make_tbl(fix("EP_TBL"), uuid_of(0x44));  // another uuid
    EXPECT_EQ(find_and_finish(), -1);
    EXPECT_EQ(log_.last(), "ERR: one_key_repair(#) " + fix("EP_TBL") + refusal);

    make_tbl(fix("EP_TBL"), uuid_of(0x22));
    fs::resize_file(fix("EP_TBL"), 1081343);  // another size
    EXPECT_EQ(find_and_finish(), -1);
    EXPECT_EQ(log_.last(), "ERR: one_key_repair(#) " + fix("EP_TBL") + refusal);

    fs::remove(fix("EP_TBL"));  // missing, and the live one is another file
    EXPECT_EQ(find_and_finish(), -1);
    EXPECT_EQ(log_.last(), "ERR: one_key_repair(#) " + live("EP_TBL") + refusal);
    EXPECT_EQ(log_.lines().size(), 3u);

    make_tbl(fix("EP_TBL"), uuid_of(0x22));  // with another creation time
    const int fd = open(fix("EP_TBL").c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(pwrite(fd, "\1\2\3\4", 4, 0), 4);  // the checksum of its header
    close(fd);
    EXPECT_EQ(find_and_finish(), -1);
    EXPECT_EQ(log_.last(), "ERR: one_key_repair(#) " + fix("EP_TBL") + refusal);
    fs::remove(fix("EP_TBL"));

    fs::create_directory(fix("EP_TBL"));
    EXPECT_EQ(find_and_finish(), -1);
    EXPECT_EQ(inode_of(live("EP_TBL")), original_[0]);
    EXPECT_FALSE(file_exists(live("EP_TBL.bkp")));
    EXPECT_TRUE(file_exists(fix("swap")));
    fs::remove(fix("EP_TBL"));
    fs::rename(fix("right"), fix("EP_TBL"));
    EXPECT_EQ(find_and_finish(), 0);
    expect_swapped();
}

TEST_F(table_swap_of_a_volume, is_not_stopped_by_a_live_file_that_cannot_be_read) {
    const io_fault_at fault(1, EIO, {io_call::read});
    EXPECT_EQ(begin_and_finish(), 0);
    EXPECT_TRUE(fault.fired());
    expect_swapped();
}

TEST_F(table_swap_of_a_volume, refuses_a_root_whose_paths_would_be_cut) {
    const std::string longest(256 - sizeof "/@EP/EP_TBL.bkp.new", 'v');
    EXPECT_EQ(table_swap_form(&swap_, longest.c_str()), 0);
    EXPECT_EQ(table_swap_form(&swap_, (longest + "v").c_str()), -1);
    EXPECT_TRUE(log_.has("path does not fit"));
}
