#include "system/support/sandbox.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/mount.h>
#include <unistd.h>

#include "system/support/mounts.h"
#include "system/support/private_root.h"

namespace fs = std::filesystem;

static run_result shell(const sandbox& box, const std::string& text,
                        const run_conditions& conditions = {}) {
    return box.run_program("/bin/sh", {"-c", text}, conditions);
}

TEST(sandbox, carries_output_errors_and_the_exit_status_out) {
    const sandbox box;
    const run_result got = shell(box, "echo to the output; echo to the errors >&2; exit 7");
    EXPECT_EQ(got.out, "to the output\n");
    EXPECT_EQ(got.err, "to the errors\n");
    EXPECT_EQ(got.status, 7);
    EXPECT_EQ(got.signal, 0);
    EXPECT_EQ(got.log, std::vector<std::string>{});
}

TEST(sandbox, reports_the_signal_that_ended_a_program) {
    const sandbox box;
    const run_result got = shell(box, "kill -9 $$");
    EXPECT_EQ(got.status, -1);
    EXPECT_EQ(got.signal, 9);
}

TEST(sandbox, reads_log_lines_from_its_own_dev_log) {
    const sandbox box;
    const run_result got = shell(box, "logger -p user.err -t tarn 'ERR: name(123) rest 4(5)'");
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(got.log, (std::vector<std::string>{"ERR: name(#) rest 4(5)"}));
    EXPECT_TRUE(got.logged("rest"));
    EXPECT_FALSE(got.logged("123"));
}

TEST(sandbox, volumes_are_mounts_that_keep_what_the_program_writes) {
    const sandbox box;
    const run_result got = shell(box,
                                 "grep -c ' /volume[12] ' /proc/self/mountinfo;"
                                 "echo one >/volume1/a; echo two >/volume2/b;"
                                 "echo three >/var/lib/tarn/EP_JNL");
    EXPECT_EQ(got.out, "2\n");
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(fs::file_size(box.volume(1) + "/a"), 4U);
    EXPECT_EQ(fs::file_size(box.volume(2) + "/b"), 4U);
    EXPECT_EQ(fs::file_size(box.journal()), 6U);
}

TEST(sandbox, a_read_only_volume_refuses_writes) {
    const sandbox box;
    run_conditions conditions;
    conditions.read_only[1] = true;
    const run_result got =
        shell(box, "echo >/volume1/a; echo >/volume2/b 2>/dev/null || echo refused", conditions);
    EXPECT_EQ(got.out, "refused\n");
    EXPECT_TRUE(fs::exists(box.volume(1) + "/a"));
    EXPECT_FALSE(fs::exists(box.volume(2) + "/b"));
}

TEST(sandbox, standard_input_is_empty_or_a_text_or_closed) {
    const sandbox box;
    EXPECT_EQ(shell(box, "cat").out, "");
    run_conditions text;
    text.input = input_kind::text;
    text.input_text = "Y\n";
    EXPECT_EQ(shell(box, "cat", text).out, "Y\n");
    run_conditions closed;
    closed.input = input_kind::closed;
    EXPECT_EQ(shell(box, "test -e /dev/fd/0 || echo closed", closed).out, "closed\n");
}

TEST(sandbox, output_may_be_closed_or_a_broken_pipe) {
    const sandbox box;
    run_conditions closed;
    closed.output = output_kind::closed;
    EXPECT_EQ(shell(box, "test -e /dev/fd/1 || echo closed >&2", closed).err, "closed\n");
    run_conditions broken;
    broken.output = output_kind::broken_pipe;
    EXPECT_EQ(shell(box, "/bin/echo x", broken).status, 128 + 13);  // SIGPIPE
}

TEST(sandbox, leaves_no_mount_and_no_file_behind) {
    std::ifstream before("/proc/self/mountinfo");
    const std::string mounts_before{std::istreambuf_iterator<char>(before), {}};
    std::string volume;
    {
        const sandbox box;
        volume = box.volume(1);
        EXPECT_EQ(shell(box, "mkdir -p /volume1/d; echo x >/volume1/d/f; echo y >/tmp/f").status,
                  0);
        EXPECT_TRUE(fs::exists(volume + "/d/f"));
    }
    EXPECT_FALSE(fs::exists(fs::path(volume).parent_path()));
    std::ifstream after("/proc/self/mountinfo");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(after), {}), mounts_before);
}

static std::string mounts_now() {
    std::ifstream file("/proc/self/mountinfo");
    return {std::istreambuf_iterator<char>(file), {}};
}

static bool mount_at(const std::string& from, const std::string& to) {
    return mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

// The outer namespace: a shared mount, as on most servers, with a directory as root that is not a
// mount point and has /proc, as in a build root.
static std::string make_surroundings(const std::string& top) {
    const std::string problem = leave_mount_namespace(top);
    const bool made = mount_at(top, top) &&
                      mount(nullptr, top.c_str(), nullptr, MS_SHARED, nullptr) == 0 &&
                      mount_at("/proc", top + "/root/proc");
    return made ? problem : problem + failed("the namespace around");
}

static std::string make_in_chroot(const std::string& root) {
    if (chroot(root.c_str()) != 0 || chdir("/") != 0) {
        return failed("a chroot");
    }
    const std::string problem = enter_private_root("/inner", {});
    return problem + (fs::exists("/proc/self") ? "" : "no /proc there");
}

TEST(sandbox, is_made_in_a_plain_chroot_and_leaves_no_mount_outside) {
    const sandbox box;
    const scratch_dir place;
    for (const char* below : {"root/proc", "root/inner"}) {
        fs::create_directories(place.file(below));
    }
    EXPECT_EQ(in_a_process_of_its_own([&place] {
                  const std::string problem = make_surroundings(place.path());
                  const std::string before = mounts_now();
                  const std::string made = in_a_process_of_its_own(
                      [&place] { return make_in_chroot(place.file("root")); });
                  return problem + made + (before == mounts_now() ? "" : "a mount got out");
              }),
              "");
}
