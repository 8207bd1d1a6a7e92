// The preload library itself: it replaces every call of the program on files, and a fault is
// injected at the call that it names.
#include <algorithm>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

#include "campaign/recording.h"
#include "campaign/samples.h"
#include "campaign/workshop.h"
#include "system/support/shell.h"

// Calls that reach files, without the endings of their other versions.
static const std::vector<std::string> calls_on_files = {"open",
                                                        "openat",
                                                        "creat",
                                                        "read",
                                                        "pread",
                                                        "readv",
                                                        "preadv",
                                                        "write",
                                                        "pwrite",
                                                        "writev",
                                                        "pwritev",
                                                        "lseek",
                                                        "fsync",
                                                        "fdatasync",
                                                        "sync",
                                                        "syncfs",
                                                        "sync_file_range",
                                                        "truncate",
                                                        "ftruncate",
                                                        "fallocate",
                                                        "posix_fallocate",
                                                        "stat",
                                                        "lstat",
                                                        "fstat",
                                                        "fstatat",
                                                        "statx",
                                                        "statvfs",
                                                        "fstatvfs",
                                                        "rename",
                                                        "renameat",
                                                        "renameat2",
                                                        "link",
                                                        "linkat",
                                                        "symlink",
                                                        "unlink",
                                                        "unlinkat",
                                                        "remove",
                                                        "rmdir",
                                                        "mkdir",
                                                        "mkdirat",
                                                        "opendir",
                                                        "fdopendir",
                                                        "readdir",
                                                        "scandir",
                                                        "nftw",
                                                        "realpath",
                                                        "readlink",
                                                        "readlinkat",
                                                        "flock",
                                                        "lockf",
                                                        "chmod",
                                                        "fchmod",
                                                        "fchmodat",
                                                        "chown",
                                                        "lchown",
                                                        "fchown",
                                                        "fchownat",
                                                        "posix_spawn",
                                                        "posix_spawnp",
                                                        "execv",
                                                        "fork",
                                                        "vfork",
                                                        "system",
                                                        "popen",
                                                        "sendfile",
                                                        "copy_file_range",
                                                        "splice",
                                                        "futimens",
                                                        "utimensat"};

static std::string without(std::string name, const std::string& end) {
    const bool ends =
        name.size() > end.size() && name.compare(name.size() - end.size(), end.size(), end) == 0;
    return ends ? name.substr(0, name.size() - end.size()) : name;
}

// "__pread64_chk" -> "pread"
static std::string plain(const std::string& name) {
    const std::string bare = name.rfind("__", 0) == 0 ? name.substr(2) : name;
    return without(without(without(bare, "_chk"), "_2"), "64");
}

static std::vector<std::string> symbols(const std::string& which, const std::string& file) {
    const ran listed = shell("nm -D " + which + " " + file);
    EXPECT_EQ(listed.status, 0) << listed.text;
    std::vector<std::string> names;
    std::istringstream lines(listed.text);
    for (std::string line; std::getline(lines, line);) {
        const std::string name = line.substr(line.rfind(' ') + 1);
        names.push_back(name.substr(0, name.find('@')));
    }
    return names;
}

static bool holds(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

TEST(preload, replaces_every_call_on_files_that_the_program_makes) {
    const std::vector<std::string> replaced = symbols("--defined-only", TARN_PRELOAD);
    size_t found = 0;
    for (const std::string& name : symbols("--undefined-only", TARN_PROGRAM)) {
        if (holds(calls_on_files, plain(name))) {
            EXPECT_TRUE(holds(replaced, name)) << name;
            found++;
        }
    }
    EXPECT_GT(found, 10u);
}

class injected : public testing::Test {
protected:
    injected() : samples_(shop_) {}
    program_run run(const std::string& words, const std::string& fault) {
        shop_.put_on_bench(samples_.get(sample_kind::clean, 1).tree);
        return shop_.run({words, "", "", fault, "", 0});
    }
    workshop shop_;
    sample_store samples_;
};

TEST_F(injected, the_nth_call_fails_and_is_recorded) {
    const std::string journal = shop_.bench() + "/journal/EP_JNL";
    const program_run undisturbed = run("--vaaick log", "");
    EXPECT_EQ(undisturbed.status, 0);
    EXPECT_EQ(undisturbed.hit, "");
    EXPECT_EQ(undisturbed.calls[static_cast<size_t>(call_kind::open)], 1u);
    EXPECT_GT(undisturbed.calls[static_cast<size_t>(call_kind::read)], 0u);

    const program_run failed = run("--vaaick log", "open:1:5:once");
    EXPECT_EQ(failed.status, 255);
    EXPECT_EQ(failed.hit, "open " + journal);
    EXPECT_FALSE(failed.log.empty());
    EXPECT_EQ(run("--vaaick log", "open:2:5:once").hit, "");
}

TEST_F(injected, a_permanent_fault_fails_all_later_calls_too) {
    const std::string words =
        "--freeck --fripath {w}/volume1/@EP/EP_FRI --tblpath "
        "{w}/volume1/@EP/EP_TBL";
    const size_t seeks = static_cast<size_t>(call_kind::seek);
    const program_run undisturbed = run(words, "");
    EXPECT_EQ(undisturbed.status, 0);
    EXPECT_GT(undisturbed.calls[seeks], 2u);
    EXPECT_EQ(run(words, "seek:1:5:forever").status, 255);
    EXPECT_EQ(run(words, "seek:1:5:once").status, 255);
}

TEST_F(injected, a_short_write_moves_half_of_the_bytes) {
    const auto first_write = [&](const std::string& fault) {
        shop_.put_on_bench(samples_.get(sample_kind::clean, 1).tree);
        const std::string recording = shop_.path("recording");
        (void)shop_.run({"--set-status bad", "", "", fault, recording, 0});
        for (const operation& op : read_recording(recording)) {
            if (op.kind == op_kind::write) {
                return op.bytes.size();
            }
        }
        return size_t{0};
    };
    const size_t all = first_write("");
    EXPECT_GT(all, 1u);
    EXPECT_EQ(first_write("write:1:short:once"), all / 2);
}
