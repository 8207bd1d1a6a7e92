#include "volume/run_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <unistd.h>

#include "options.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/sample_volumes.h"

namespace fs = std::filesystem;

class run_lock_of_directories : public testing::Test {
protected:
    run_lock_of_directories() {
        for (const unsigned number : {1u, 2u}) {
            make_sample_volume(volumes_.volume(number), 0x11);
        }
    }
    // Whether another open file, like that of another process, gets the lock.
    static bool is_free(const std::string& directory) {
        const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const bool got = flock(fd, LOCK_EX | LOCK_NB) == 0;
        close(fd);
        return got;
    }
    std::string volume(unsigned number) const { return volumes_.volume(number); }
    std::string file(const std::string& name) const { return volume(1) + "/@EP/" + name; }

    sample_volumes volumes_;
    log_capture log_;
};

TEST_F(run_lock_of_directories, is_held_until_it_is_released) {
    run_lock lock = {};
    int fd = -1;
    EXPECT_EQ(run_lock_add(&lock, volume(1).c_str(), &fd), 0);
    EXPECT_GT(fd, 0);
    EXPECT_FALSE(is_free(volume(1)));
    EXPECT_TRUE(is_free(volume(2)));
    run_lock_release(&lock);
    EXPECT_TRUE(is_free(volume(1)));
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(run_lock_of_directories, is_taken_once_whatever_the_directory_is_called) {
    fs::create_directory_symlink(volume(1), volumes_.root() + "/link");
    run_lock_scope held;
    int first = 0;
    int second = 0;
    EXPECT_EQ(run_lock_add(&held.lock, volume(1).c_str(), &first), 0);
    EXPECT_EQ(run_lock_add(&held.lock, (volumes_.root() + "/link/.").c_str(), &second), 0);
    EXPECT_EQ(first, second);
    EXPECT_EQ(held.lock.count, 1u);
    EXPECT_FALSE(is_free(volume(1)));  // closing the second descriptor released nothing
}

TEST_F(run_lock_of_directories, that_another_run_holds_is_refused) {
    run_lock_scope other;
    EXPECT_EQ(run_lock_add(&other.lock, volume(1).c_str(), nullptr), 0);
    run_lock_scope held;
    EXPECT_EQ(run_lock_add(&held.lock, volume(1).c_str(), nullptr), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: run_lock(#) " + volume(1) + " is in use by another run of tarn\n"}));
}

TEST_F(run_lock_of_directories, without_locks_on_the_file_system_is_logged_and_not_refused) {
    for (const int error : {ENOLCK, ENOSYS, EOPNOTSUPP, EINVAL, EBADF}) {
        log_.clear();
        const io_fault_at fault(1, error, {io_call::lock});
        run_lock_scope held;
        EXPECT_EQ(run_lock_add(&held.lock, volume(1).c_str(), nullptr), 0);
        EXPECT_EQ(log_.lines().size(), 1u);
        EXPECT_TRUE(log_.has(volume(1) + " cannot be locked, continuing without: "));
    }
}

TEST_F(run_lock_of_directories, that_fails_otherwise_is_refused) {
    for (const io_call kind : {io_call::lock, io_call::open}) {
        log_.clear();
        const io_fault_at fault(1, EIO, {kind});
        run_lock_scope held;
        EXPECT_EQ(run_lock_add(&held.lock, volume(1).c_str(), nullptr), -1);
        EXPECT_EQ(log_.lines().size(), 1u);
        EXPECT_TRUE(log_.has("Input/output error"));
    }
}

TEST_F(run_lock_of_directories, that_are_missing_locks_nothing) {
    run_lock_scope held;
    EXPECT_EQ(run_lock_add(&held.lock, (volume(1) + "/none").c_str(), nullptr), 0);
    EXPECT_EQ(run_lock_add(&held.lock, file("EP_TBL").c_str(), nullptr), 0);
    EXPECT_EQ(run_lock_add(&held.lock, "", nullptr), 0);
    EXPECT_EQ(run_lock_journal(&held.lock, "", nullptr), 0);
    EXPECT_EQ(run_lock_file(&held.lock, nullptr), 0);
    EXPECT_EQ(run_lock_file(&held.lock, ""), 0);
    EXPECT_EQ(held.lock.count, 0u);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(run_lock_of_directories, of_a_file_is_its_volumes) {
    for (const std::string& path : {file("EP_TBL"), file("EP_NEW"), volume(1) + "/@EP/../x"}) {
        run_lock_scope held;
        EXPECT_EQ(run_lock_file(&held.lock, path.c_str()), 0);
        EXPECT_FALSE(is_free(volume(1))) << path;
        EXPECT_EQ(held.lock.count, 1u);
    }
}

TEST_F(run_lock_of_directories, of_a_link_is_that_of_the_volume_that_it_leads_to) {
    fs::create_symlink(file("EP_TBL"), volume(2) + "/table");
    run_lock_scope held;
    EXPECT_EQ(run_lock_file(&held.lock, (volume(2) + "/table").c_str()), 0);
    EXPECT_FALSE(is_free(volume(1)));
    EXPECT_TRUE(is_free(volume(2)));
}

TEST_F(run_lock_of_directories, of_a_file_outside_of_volumes_is_not_taken) {
    make_empty_file(volumes_.other() + "/EP_TBL");
    run_lock_scope held;
    EXPECT_EQ(run_lock_file(&held.lock, (volumes_.other() + "/EP_TBL").c_str()), 0);
    EXPECT_EQ(held.lock.count, 0u);
}

TEST_F(run_lock_of_directories, of_a_file_whose_volume_cannot_be_determined_is_refused) {
    const io_fault_at fault(1, EIO, {io_call::stat});
    run_lock_scope held;
    EXPECT_EQ(run_lock_file(&held.lock, file("EP_TBL").c_str()), -1);
    EXPECT_TRUE(log_.has("Fail to find the volume of " + file("EP_TBL") + ": Input/output error"));
}

TEST_F(run_lock_of_directories, of_a_journal_is_on_its_directory) {
    run_lock_scope held;
    int fd = 0;
    EXPECT_EQ(run_lock_journal(&held.lock, volumes_.journal().c_str(), &fd), 0);
    EXPECT_GT(fd, 0);
    EXPECT_FALSE(is_free(volumes_.root() + "/journal"));
}

TEST_F(run_lock_of_directories, of_a_journal_that_is_a_link_is_where_the_link_leads) {
    make_empty_file(volumes_.other() + "/EP_JNL");
    make_directories(volumes_.root() + "/journal");
    fs::remove(volumes_.journal());
    fs::create_symlink(volumes_.other() + "/EP_JNL", volumes_.journal());
    run_lock_scope held;
    EXPECT_EQ(run_lock_journal(&held.lock, volumes_.journal().c_str(), nullptr), 0);
    EXPECT_FALSE(is_free(volumes_.other()));
    EXPECT_TRUE(is_free(volumes_.root() + "/journal"));
}

TEST_F(run_lock_of_directories, of_a_file_in_a_volume_that_is_a_link_is_where_the_link_leads) {
    fs::rename(volume(2), volumes_.root() + "/disk");
    fs::create_directory_symlink(volumes_.root() + "/disk", volume(2));
    run_lock_scope held;
    EXPECT_EQ(run_lock_file(&held.lock, (volume(2) + "/@EP/EP_TBL").c_str()), 0);
    EXPECT_FALSE(is_free(volumes_.root() + "/disk"));
}

TEST_F(run_lock_of_directories, of_all_volumes_skips_what_is_not_a_volume) {
    make_directories(volumes_.other() + "/@EP");
    run_lock_scope held;
    EXPECT_EQ(run_lock_all_volumes(&held.lock), 0);
    EXPECT_FALSE(is_free(volume(1)));
    EXPECT_FALSE(is_free(volume(2)));
    EXPECT_TRUE(is_free(volumes_.other()));
    EXPECT_EQ(held.lock.count, 2u);
}

TEST_F(run_lock_of_directories, of_all_volumes_is_refused_when_one_is_in_use) {
    run_lock_scope other;
    EXPECT_EQ(run_lock_add(&other.lock, volume(2).c_str(), nullptr), 0);
    run_lock_scope held;
    EXPECT_EQ(run_lock_all_volumes(&held.lock), -1);
}

TEST_F(run_lock_of_directories, grows_past_its_initial_room) {
    run_lock_scope held;
    for (int i = 0; i < 20; i++) {
        const std::string directory = volumes_.root() + "/many" + std::to_string(i);
        make_directories(directory);
        EXPECT_EQ(run_lock_add(&held.lock, directory.c_str(), nullptr), 0);
    }
    EXPECT_EQ(held.lock.count, 20u);
    EXPECT_FALSE(is_free(volumes_.root() + "/many0"));
    EXPECT_FALSE(is_free(volumes_.root() + "/many19"));
}
