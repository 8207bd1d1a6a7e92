// `tarnctl export` with each of its system calls failing once: it ends by itself, and a file that
// has its final name is the LUN, whatever failed.
#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <sys/wait.h>
#include <unistd.h>

#include "ctl/export/export.h"
#include "ctl/support/everything.h"
#include "ctl/support/export_run.h"
#include "store/descriptor.h"
#include "system/support/lab_sample.h"

namespace fs = std::filesystem;

static uint64_t calls_left;

static io_verdict fail_one(io_call call, size_t wanted) {
    if (--calls_left > 0) {
        return {0, wanted};
    }
    return {call == io_call::write ? ENOSPC : EIO, wanted};
}

// The exit status of an export in a process of its own, whose n-th call fails; more than 128 if a
// signal ended it. `fired`: that call was made.
static int export_with_fault(const std::string& sample, const std::string& to, uint64_t n,
                             bool* fired) {
    constexpr int NOT_FIRED = 100;  // added to the status
    const pid_t child = fork();
    if (child == 0) {
        (void)setenv("TARN_PLATFORM_CONF", (sample + "/platform.conf").c_str(), 1);
        (void)freopen("/dev/null", "w", stdout);
        (void)freopen("/dev/null", "w", stderr);
        export_request request;
        request.lun = "LUN_0";
        request.to = to;
        calls_left = n;
        io_fault = fail_one;
        const int status = run_export(request, {});
        const bool made = calls_left == 0 || calls_left > n;
        _exit(status + (made ? 0 : NOT_FIRED));
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    if (!WIFEXITED(status)) {
        return 128 + WTERMSIG(status);
    }
    *fired = WEXITSTATUS(status) < NOT_FIRED;
    return WEXITSTATUS(status) % NOT_FIRED;
}

class export_with_a_failing_call : public testing::Test {
protected:
    // Whether the n-th call was made.
    bool try_call(uint64_t n) {
        const std::string to = place_.file("x");
        bool fired = false;
        const int status = export_with_fault(sample_, to, n, &fired);
        statuses_[status]++;
        EXPECT_TRUE(status == 0 || status == 4 || status == 8 || status == 32) << n << status;
        EXPECT_TRUE(status != 0 || fs::exists(to)) << n;
        if (fs::exists(to)) {  // status 8: its directory could not be synced
            EXPECT_TRUE(status == 0 || status == 8) << n << status;
            EXPECT_EQ(difference(to, place_.file("model")), "") << n;
            EXPECT_TRUE(fs::exists(to + ".map")) << n;
        }
        EXPECT_TRUE(status == 8 || !fs::exists(to + ".part")) << n << status;
        for (const char* more : {"", ".part", ".map", ".map.part"}) {
            fs::remove(to + more);
        }
        return fired;
    }

    scratch_dir place_;
    std::string sample_;
    std::map<int, unsigned> statuses_;
};

// Some of the calls that look at the server, and every one of those that write.
TEST_F(export_with_a_failing_call, makes_the_whole_file_or_none) {
    constexpr uint64_t STEP = 41;
    constexpr uint64_t LAST = 25;  // more than those
    sample_ = make_sample(place_, "s", 3,
                          " --volumes 1 --luns 1 --extents 130 --transactions 20 --crash");
    ASSERT_EQ(tarn_lab("expect " + sample_).text, "recovers\n");
    write_model(sample_, "volume1:LUN_0", place_.file("model"));
    ASSERT_GT(bytes_on_disk(place_.file("model")), 0u);
    const auto before = everything(sample_);
    uint64_t n = 1;
    while (try_call(n)) {
        n += STEP;
        ASSERT_LT(n, 5000u);
    }
    uint64_t last = n - 1;
    while (!try_call(last)) {
        last--;
    }
    for (uint64_t i = 1; i < LAST; i++) {
        (void)try_call(last - i);
    }
    EXPECT_GT(statuses_[8], 3u);
    EXPECT_GT(statuses_[32], 3u);
    EXPECT_GT(statuses_[0], 0u);
    EXPECT_EQ(everything(sample_), before);
}
