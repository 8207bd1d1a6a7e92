// `tarnctl check` writes nothing, and shows the same whatever it has for counting: a trace of its
// system calls, a server that is mounted read-only, windows of several sizes, and the rules for
// what it may claim.
#include <algorithm>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>

#include "ctl/support/check_run.h"
#include "ctl/support/everything.h"
#include "ctl/support/sealed.h"
#include "system/support/private_root.h"

// One line "PID call(arguments) = result" that may change something; "" if it does not.
static std::string write_in(const std::string& line) {
    static const std::regex open_call("open(at)?\\(.*O_(WRONLY|RDWR|CREAT|TRUNC|APPEND|TMPFILE)");
    static const std::regex write_call("p?writev?(64|2)?\\((\\d+)");
    static const std::regex other(
        "\\b(creat|rename|renameat|renameat2|link|linkat|symlink|"
        "symlinkat|unlink|unlinkat|mkdir|mkdirat|rmdir|mknod|mknodat|"
        "truncate|ftruncate|fallocate|chmod|fchmod|fchmodat|chown|fchown|"
        "fchownat|lchown|utimensat|utime|utimes|setxattr|fsetxattr|"
        "copy_file_range|sendfile|mount|umount2)\\(");
    std::smatch found;
    if (std::regex_search(line, open_call)) {
        return line.find("\"/dev/null\"") == std::string::npos ? line : "";
    }
    if (std::regex_search(line, found, write_call)) {
        return found[2] == "1" || found[2] == "2" ? "" : line;
    }
    return std::regex_search(line, other) ? line : "";
}

// The calls of a run that may change something, and how many calls were seen.
struct call_trace {
    std::string writes;
    size_t calls = 0;
};

static call_trace trace_of(const std::string& sample, const std::string& more) {
    const scratch_dir place;
    const ran done = shell("strace -f -s 256 -o " + place.file("calls") + " " +
                           check_command(sample, more) + " >/dev/null");
    EXPECT_TRUE(is_verdict(done.status)) << done.text;
    call_trace trace;
    std::istringstream lines(shell("cat " + place.file("calls")).text);
    for (std::string line; std::getline(lines, line); trace.calls++) {
        const std::string write = write_in(line);
        trace.writes += write.empty() ? "" : write + "\n";
    }
    return trace;
}

TEST(check_calls, open_nothing_for_writing) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a sanitizer's runtime writes itself, and refuses to be traced";
#endif
    if (shell("strace -o /dev/null true").status != 0 &&
        getenv("TARN_TESTS_SKIP_NOTHING") == nullptr) {
        GTEST_SKIP() << "strace is missing, or may not trace";
    }
    const scratch_dir place;
    const std::string sound = make_sample(place, "sound", 5);
    const std::string crashed = make_sample(place, "crashed", 21, " --crash");
    const std::string refused = make_sample(place, "refused", 23, " --crash");
    const std::pair<std::string, std::string> runs[] = {{sound, ""},
                                                        {sound, "--raw"},
                                                        {sound, "--quick"},
                                                        {sound, "--data-holes"},
                                                        {sound, "--memory 1M"},
                                                        {crashed, ""},
                                                        {crashed, "--raw"},
                                                        {refused, ""},
                                                        {sound, "--volume " + sound + "/volume1"}};
    for (const auto& [sample, more] : runs) {
        const call_trace trace = trace_of(sample, more);
        EXPECT_EQ(trace.writes, "") << sample << " " << more;
        EXPECT_GT(trace.calls, 100u);
    }
}

TEST(check_calls, would_show_a_write) {
    EXPECT_NE(write_in("7 openat(AT_FDCWD, \"/v/EP_TBL\", O_RDWR|O_CLOEXEC) = 3"), "");
    EXPECT_NE(write_in("7 pwrite64(4, \"x\", 1, 0) = 1"), "");
    EXPECT_NE(write_in("7 unlink(\"/v/EP_TBL\") = -1 EROFS"), "");
    EXPECT_EQ(write_in("7 openat(AT_FDCWD, \"/dev/null\", O_WRONLY|O_CLOEXEC) = 3"), "");
    EXPECT_EQ(write_in("7 openat(AT_FDCWD, \"/v/EP_TBL\", O_RDONLY|O_CLOEXEC) = 3"), "");
    EXPECT_EQ(write_in("7 write(1, \"x\", 1) = 1"), "");
}

// Clean but for the note that says so; a crash is replayed in memory all the same.
TEST(check_read_only, works_where_everything_is_mounted_read_only) {
    const std::string reason = why_no_private_root();
    if (!reason.empty() && getenv("TARN_TESTS_SKIP_NOTHING") == nullptr) {
        GTEST_SKIP() << reason;
    }
    const scratch_dir place;
    for (const std::string more : {"", " --crash"}) {
        const std::string sample = make_sample(place, more.empty() ? "sound" : "crashed", 5, more);
        const auto before = everything(sample);
        const scratch_dir root;
        const std::string program = TARN_CTL_PROGRAM;
        const std::string directory = program.substr(0, program.rfind('/'));
        const std::string found = in_a_process_of_its_own([&]() -> std::string {
            const std::string problem = enter_private_root(
                root.path(), {{sample, sample, true}, {directory, directory, true}});
            if (!problem.empty()) {
                return problem;
            }
            const check_run run = check_sample(sample);
            return run.mode + " " + std::to_string(run.status) +
                   (run.has("S01") && run.has_only_notes() ? " notes" : " " + run.codes());
        });
        EXPECT_EQ(found, more.empty() ? "as-found 0 notes" : "as-if-replayed 0 notes");
        EXPECT_EQ(everything(sample), before);
    }
}

// What it prints but for the time that it took.
static std::string without_seconds(const std::string& out) {
    static const std::regex seconds("\"seconds\":[0-9.e-]+");
    return std::regex_replace(out, seconds, "");
}

static void point_at(const std::string& map, uint64_t lea, uint64_t lpa) {
    const uint64_t word = uint64_t{1} << 63 | lpa;  // the first row of the pool table
    put_sealed(map, byte_of_lea(lea), &word, sizeof word);
}

// Damage far apart in the 8,388,608 extents of a sample's two data files: with 1 MiB for the
// counters it lies in different windows.
TEST(check_windows, show_the_same_lines) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 5);
    const std::string map = sample + "/volume1/@iSCSITrg/LUN_0/LUN_0_Extent_0";
    constexpr uint64_t FAR[] = {4000000, 40000, 1048575, 1048576, 2097153, 4194303, 3000000};
    for (size_t i = 0; i < std::size(FAR); i++) {
        point_at(map, 100 + i, FAR[i]);
    }
    EXPECT_EQ(damage(sample, "map-node-bit", 3, " --volume 2").status, 0);
    EXPECT_EQ(damage(sample, "table-block-bit", 3).status, 0);
    const check_run one = check_sample(sample, "--memory 1M");
    for (size_t i = 0; i < std::size(FAR); i++) {
        EXPECT_TRUE(std::any_of(one.findings.begin(), one.findings.end(),
                                [&](const seen_finding& seen) {
                                    return seen.code == "R01" && seen.covers("lpa", FAR[i]) &&
                                           seen.names("@iSCSITrg/LUN_0/LUN_0_Extent_0", 100 + i);
                                }))
            << FAR[i] << ": " << one.codes();
    }
    for (const char* more : {"--memory 4M", "--memory 64M"}) {
        EXPECT_EQ(without_seconds(check_sample(sample, more).out), without_seconds(one.out))
            << more;
    }
    EXPECT_EQ(schema_problem(one.out), "");
}

// While a map cannot be read, an extent that seems to be leaked may be its own.
TEST(check_evidence, absence_is_not_claimed_while_a_map_cannot_be_read) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 5);
    const std::string map = sample + "/volume1/@iSCSITrg/LUN_0/LUN_0_Extent_0";
    ASSERT_EQ(damage(sample, "leak", 1).status, 0);
    EXPECT_TRUE(check_sample(sample).has("R04"));
    ASSERT_EQ(shell("mv " + map + " " + place.file("kept") + "; mkdir " + map).status, 0);
    const check_run run = check_sample(sample);
    EXPECT_EQ(run.codes(), "X01");
    EXPECT_EQ(run.status, 6);
    EXPECT_FALSE(run.complete);
    ASSERT_EQ(run.left_out.size(), 1u);
    EXPECT_NE(run.left_out[0].find("cannot tell"), std::string::npos) << run.left_out[0];
}

// The node's checksum shows that its entry is wrong: that it names a free extent follows from it.
TEST(check_evidence, a_reference_from_a_damaged_node_names_the_node) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 5);
    const std::string map = sample + "/volume1/@iSCSITrg/LUN_0/LUN_0_Extent_0";
    constexpr uint64_t FREE = 4000000;
    const uint64_t word = uint64_t{1} << 63 | FREE;
    write_file_bytes(map, byte_of_lea(100), &word, sizeof word);
    const check_run run = check_sample(sample);
    ASSERT_EQ(run.codes().substr(0, 11), "M01 R01<M01") << run.codes();
    EXPECT_TRUE(run.findings[0].covers("node", 1));
    EXPECT_TRUE(run.findings[1].covers("lpa", FREE));
    EXPECT_EQ(run.status, 5);
}

// What follows from a damaged block says so, and is not listed without --all.
TEST(check_evidence, consequences_name_their_cause) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 5);
    ASSERT_EQ(damage(sample, "table-noise", 1).status, 0);
    const check_run run = check_sample(sample);
    ASSERT_FALSE(run.findings.empty());
    EXPECT_EQ(run.findings[0].code, "T01");
    EXPECT_GT(run.findings.size(), 100u);
    for (size_t i = 1; i < run.findings.size(); i++) {
        EXPECT_EQ(run.findings[i].because, 1) << run.findings[i].code;
    }
    const ran listed = shell("TARN_PLATFORM_CONF=" + sample + "/platform.conf " + TARN_CTL_PROGRAM +
                             " check --json | grep -c '\"record\":\"finding\"'");
    EXPECT_EQ(listed.text, "1\n");
}
