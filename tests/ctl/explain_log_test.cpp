// Whole logs: the cause, the counts, and input that is no log.
#include <chrono>
#include <gtest/gtest.h>
#include <random>

#include "ctl/explain/whole_log.h"
#include "explained.h"

static const message_book& book() {
    static const message_book made;
    return made;
}

static log_report report_of(const std::string& log) {
    FILE* in = tmpfile();
    fwrite(log.data(), 1, log.size(), in);
    rewind(in);
    log_reader reader(book());
    EXPECT_TRUE(read_log(in, &reader));
    fclose(in);
    return reader.report();
}

static std::string cause_in(const std::string& log) {
    const log_report report = report_of(log);
    const log_tally* cause = cause_of(report);
    return cause == nullptr ? "(none)"
                            : std::to_string(cause->first_line) + ": " + cause->row->format;
}

// A start-up replay that was refused, among lines of other programs.
static constexpr const char* REFUSED =
    "-- Boot 1 --\n"
    "Nov 22 03:11:07 nas1 kernel: EXT4-fs (sda1): recovery complete\n"
    "Nov 22 03:11:08 nas1 tarn[47]: vaai_startup_replay(195) Start to replaying Journal\n"
    "Nov 22 03:11:08 nas1 tarn[47]: jnl_block_read(79) jnl block all zero value @block 9\n"
    "Nov 22 03:11:08 nas1 tarn[47]: ERR: jnl_block_read(81) jnl checksum error @block 8\n"
    "Nov 22 03:11:08 nas1 tarn[47]: ERR: last_complete_commit(181) Can't read last jnl commit\n"
    "Nov 22 03:11:08 nas1 tarn[47]: ERR: jnl_file_type_replay(48) Can't determine the last "
    "complete commit\n"
    "Nov 22 03:11:08 nas1 tarn[47]: ERR: replay_fri_journal(49) Fail to replay FRI /volume1/@EP/"
    "EP_FRI with JNL /j/EP_JNL\n";

TEST(explain_log, the_first_line_that_sound_volumes_do_not_cause_is_the_cause) {
    EXPECT_EQ(cause_in(REFUSED), "5: jnl checksum error @block %llu");
}

TEST(explain_log, lines_that_also_occur_where_nothing_is_wrong_are_no_cause) {
    EXPECT_EQ(cause_in("ERR: last_complete_commit(207) JOURNAL-CONFLICT trans_id 41 @block 9 is "
                       "not equal to jnl_last_trans_id 42 @jnl_last_record_start 9\n"
                       "ERR: jnl_unmap_type_replay(56) tarn_map_get_pool_uuid error occurs 3 "
                       "times\n"
                       "ERR: open_fd(16) open file /j/EP_JNL fail\n"
                       "vaai_startup_replay(180) Journal Consistent, Remove /j/EP_JNL\n"),
              "(none)");
}

TEST(explain_log, the_form_of_a_line_decides_whether_it_is_harmless) {
    EXPECT_EQ(cause_in("ERR: open_fd(16) open file /volume1/@EP/EP_DAT_00002 fail\n"), "(none)");
    EXPECT_EQ(cause_in("ERR: open_fd(16) open file /volume1/@EP/EP_TBL fail\n"),
              "1: open file %s fail");
    EXPECT_EQ(cause_in("ERR: f(1) USED entry in TBL freelist, group_num 3 offset 0 (lpa 12288)\n"
                       "ERR: f(1) USED entry in TBL freelist, group_num 3 offset 5 (lpa 12293)\n"),
              "2: USED entry in TBL freelist, group_num %llu offset %llu (lpa %llu)");
    EXPECT_EQ(cause_in("ERR: f(1) NOT TAIL last entry in TBL freelist, group_num 3 offset 0 (lpa "
                       "12288) count 0 check_free_count 0\n"),
              "(none)");
    EXPECT_EQ(cause_in("ERR: f(1) NOT TAIL last entry in TBL freelist, group_num 3 offset 0 (lpa "
                       "12288) count 0 check_free_count 7\n"),
              "1: NOT TAIL last entry in TBL freelist, group_num %llu offset %llu (lpa %llu) count "
              "%u check_free_count %u");
}

TEST(explain_log, every_message_is_counted_with_its_first_line) {
    const log_report report = report_of(
        "ERR: f(1) read_fd(-1)\n"
        "nas1 sshd[3]: hello\n"
        "ERR: f(1) read_fd(-5)\n"
        "ERR: f(1) Journal In-Consistent\n"
        "ERR: f(1) never heard of\n"
        "tarn: nor of this\n");
    EXPECT_EQ(report.lines, 6u);
    EXPECT_EQ(report.foreign, 1u);
    EXPECT_EQ(report.unknown, 2u);
    EXPECT_EQ(report.first_unknown, 5u);
    EXPECT_EQ(report.first_unknown_text, "never heard of");
    ASSERT_EQ(report.messages.size(), 2u);
    EXPECT_EQ(report.messages[0].count, 2u);
    EXPECT_EQ(report.messages[0].first_line, 1u);
    EXPECT_EQ(report.messages[1].count, 1u);
    EXPECT_EQ(report.messages[1].first_line, 4u);
}

TEST(explain_log, the_runs_that_have_errors_are_counted) {
    const log_report report = report_of(
        "a tarn[7]: ERR: f(1) read_fd(-1)\n"
        "a tarn[7]: ERR: f(1) Journal In-Consistent\n"
        "a tarn[8]: jnl_block_read(79) jnl block all zero value "
        "@block 12\n"
        "a tarn[9]: ERR: f(1) read_fd(-1)\n"
        "ERR: f(1) read_fd(-1)\n");
    EXPECT_EQ(report.runs_with_errors, 2u);
    EXPECT_EQ(report.last_run, "9");
}

TEST(explain_log, a_last_line_without_an_end_counts) {
    EXPECT_EQ(cause_in("\nERR: f(1) Journal In-Consistent"), "2: Journal In-Consistent");
    EXPECT_EQ(report_of("").lines, 0u);
    EXPECT_EQ(report_of("\n").lines, 1u);
}

TEST(explain_log, a_line_across_two_blocks_of_the_input_is_one_line) {
    std::string log((1 << 16) - 20, 'x');
    log.append("\nERR: f(1) Journal In-Consistent\n");
    EXPECT_EQ(cause_in(log), "2: Journal In-Consistent");
}

TEST(explain_log, zero_bytes_and_long_lines_hide_no_other_line) {
    const std::string zeros(100, '\0');
    const std::string far(3 * LOG_LINE_MAX, 'y');
    std::string log = zeros;
    log.append("\n").append(far).append("\nERR: f(1)").push_back('\0');
    log.append("Journal In-Consistent\n");
    EXPECT_EQ(cause_in(log), "3: Journal In-Consistent");
}

TEST(explain_log, any_bytes_are_read) {
    std::mt19937 dice(11);
    std::string bytes;
    for (int i = 0; i < 300000; i++) {
        bytes.push_back(static_cast<char>(dice()));
    }
    const log_report report = report_of(bytes);
    EXPECT_EQ(report.lines, static_cast<uint64_t>(std::count(bytes.begin(), bytes.end(), '\n')) +
                                (bytes.back() == '\n' ? 0 : 1));
    EXPECT_TRUE(report.messages.empty());
}

// Damaged copies of real lines: nothing but a crash or a sanitizer's report can go wrong.
TEST(explain_log, damaged_lines_are_read) {
    std::mt19937 dice(12);
    for (int run = 0; run < 3000; run++) {
        std::string log = REFUSED;
        for (int i = 0; i < 5; i++) {
            log[dice() % log.size()] = static_cast<char>(dice());
        }
        EXPECT_GE(report_of(log).lines, 1u);
    }
}

static double seconds_for(const std::string& log) {
    const auto begin = std::chrono::steady_clock::now();
    (void)report_of(log);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

static std::string repeated(const std::string& text, size_t size) {
    std::string all;
    while (all.size() < size) {
        all += text;
    }
    return all;
}

// The limit is a hundred times what it takes; a time that grows with the square would be minutes.
TEST(explain_log, megabytes_take_seconds_whatever_they_hold) {
    constexpr size_t SIZE = 4 << 20;
    const std::string front = "\nERR: f(1) ";
    for (const std::string& log :
         {repeated(REFUSED, SIZE), repeated("ERR: ", SIZE), repeated("tarn[1]: ", SIZE),
          repeated("a(1) ", SIZE), repeated(front + "x", SIZE),
          repeated(front + repeated("(1, 1) line 1: ", 16000), SIZE),
          repeated(front + repeated("is ", 16000), SIZE), std::string(SIZE, '\n'),
          repeated(front + std::string(16000, '7'), SIZE), std::string(SIZE, 'x')}) {
        EXPECT_LT(seconds_for(log), 60.0) << log.substr(0, 40);
    }
}
