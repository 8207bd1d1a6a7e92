#include "fri/fri_fix.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <set>

#include "fri/fri_file.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/pool_files.h"
#include "support/stdout_capture.h"

class fri_fix : public testing::Test {
protected:
    // Group 0: its list is offset 5 alone, offset 9 is free and on no list. Group 1: its list is
    // shorter than its count. Group 2: no free extent. Group 3 was never initialised.
    fri_fix() {
        pool_.fill_group(0, 0x8001);
        restore_group_0();
        pool_.fill_group(1, 0x8001);
        pool_.set_tbl(4096 + 4, 0x1000);
        pool_.set_fri(1, 78, 4 << 4, 0x8002);
        pool_.fill_group(2, 0x8001);
        pool_.set_tbl(8192, 0x9000);  // used, and a tail: a list of no extents
        pool_.set_fri(2, 79, 0, 0x8000);
        current_fri.header.fri_group_head = 2;
        EXPECT_EQ(save_fri(), 0);
    }

    void restore_group_0() {
        pool_.set_tbl(5, 0x1000);
        pool_.set_tbl(9, 0x0000);
        pool_.set_fri(0, 77, 5 << 4, 0xC001);
    }

    pool_files pool_;
};

static std::string counters_of(const std::string& text) {
    return text.substr(text.find("TARN_INFO: Fix FRI from fri_free_count"));
}

TEST_F(fri_fix, sound_groups_are_recounted_and_the_lowest_becomes_the_head) {
    stdout_capture out;
    EXPECT_EQ(fix_fri_group_head(), 0);
    EXPECT_EQ(counters_of(out.text()),
              "TARN_INFO: Fix FRI from fri_free_count 1000000\n"
              "TARN_INFO: Fix FRI to fri_free_count 1000001\n"
              "TARN_INFO: Fix FRI from fri_group_head 2\n"
              "TARN_INFO: Fix FRI to fri_group_head 0\n");
    EXPECT_EQ(pool_.fri(0), "4d 00 00 00 50 00 02 c0 ");  // head 5, count 2, link and bit 14 stay
    EXPECT_EQ(pool_.tbl(5), 9);
    EXPECT_EQ(pool_.tbl(9), 0x1000);
    EXPECT_EQ(pool_.fri(1), "4e 00 00 00 40 00 02 80 ");  // untouched
    EXPECT_EQ(pool_.tbl(4096 + 4), 0x1000);
    EXPECT_EQ(pool_.fri(2), "4f 00 00 00 50 00 00 80 ");  // the head of the group before it
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4100), 1000001u);
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4108), 0u);
}

TEST_F(fri_fix, a_second_repair_finds_nothing) {
    stdout_capture out;
    ASSERT_EQ(fix_fri_group_head(), 0);
    const std::string entry = pool_.fri(0);
    EXPECT_EQ(fix_fri_group_head(), 0);
    EXPECT_EQ(pool_.fri(0), entry);
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4100), 1000001u);
}

TEST_F(fri_fix, the_head_is_the_lowest_sound_group) {
    pool_.set_fri(0, 77, 5 << 4, 0xC003);
    stdout_capture out;
    EXPECT_EQ(fix_fri_group_head(), 0);
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4108), 2u);
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4100), 1000000u);
}

TEST_F(fri_fix, without_a_sound_group_the_head_is_0) {
    pool_.set_fri(0, 77, 5 << 4, 0xC003);
    pool_.set_fri(2, 79, 0, 0x8001);
    stdout_capture out;
    EXPECT_EQ(fix_fri_group_head(), 0);
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4108), 0u);
    EXPECT_EQ(pool_.tbl(9), 0);
}

TEST_F(fri_fix, without_an_index_it_fails) {
    close_fri();
    log_capture log;
    EXPECT_EQ(fix_fri_group_head(), -1);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: fix_fri_group_head(#) fri file descriptor is invalid\n"}));
}

TEST_F(fri_fix, an_entry_or_header_that_cannot_be_written_ends_it) {
    const single_entry_path path;
    // Writes: the two links of group 0, its entry, the entry of group 2, the header.
    const char* const lines[] = {
        "ERR: fix_fri_group_head(#) Stop fix FRI and TBL Link List @group_num 0, free_head 5 "
        "free_count "
        "2\n",
        "ERR: fix_fri_group_head(#) Stop fix FRI and TBL Link List @group_num 2, free_head 5 "
        "free_count "
        "0\n",
        "ERR: fix_fri_group_head(#) Fail to save_fri\n"};
    for (uint64_t n = 3; n <= 5; n++) {
        log_capture log;
        stdout_capture out;
        const io_fault_at fault(n, EIO, {io_call::write});
        restore_group_0();
        EXPECT_EQ(fix_fri_group_head(), -1) << n;
        EXPECT_EQ(log.lines().back(), lines[n - 3]) << n;
        EXPECT_EQ(fault.calls(), n);
    }
}

TEST_F(fri_fix, a_repair_reads_each_entry_of_a_sound_group_once) {
    const single_entry_path path;
    pool_.set_tbl(4 * 4096, 0);  // no file ends inside a block that is read
    pool_.set_fri(2 * 63, 0, 0, 0);
    const io_fault_at reads(0, 0, {io_call::read});
    {
        const stdout_capture out;
        EXPECT_EQ(fix_fri_group_head(), 0);
    }
    // The entries of the table in groups 0 and 2. Beside them the entries of groups 0 to 3 in the
    // index, three free lists, and the blocks before a write: two of links, two of the index.
    EXPECT_EQ(reads.calls(), 2 * 4096u + 4 + 3 + 2 + 2);
}

// The lines of everything that the repair reads.
static const std::set<std::string> read_failures = {
    "ERR: fri_entry_read(#) fri read error",
    "tbl_check_group_free_count(#) tbl_check_group_free_count read error",
    "ERR: link_free_tbl_entry_in_group(#) Fail to link free tbl entry",
    "ERR: tbl_entry_write(#) read tbl error before write tbl entry",
    "ERR: fri_entry_write(#) read fri error before write fri entry"};

TEST_F(fri_fix, whichever_read_fails_the_repair_ends_or_skips_the_group) {
    const single_entry_path path;
    uint64_t calls = 0;
    {
        const stdout_capture out;
        const io_fault_at undisturbed(0, 0, {io_call::read});
        EXPECT_EQ(fix_fri_group_head(), 0);
        calls = undisturbed.calls();
    }
    // Every read at the beginning, at the end and in the middle, between the two large groups, and
    // every 97th of the reads inside these groups.
    const auto step = [calls](uint64_t n) {
        const uint64_t to_middle = n > calls / 2 ? n - calls / 2 : calls / 2 - n;
        return n < 10 || to_middle < 16 + 97 || n + 16 + 97 > calls ? 1 : 97;
    };
    std::set<std::string> seen;
    bool fired = true;
    for (uint64_t n = 1; fired; n += step(n)) {
        restore_group_0();
        pool_.reload();
        const uint64_t counted = keep_journal_reasons().count;
        log_capture log;
        stdout_capture out;
        const io_fault_at fault(n, EIO, {io_call::read});
        const int result = fix_fri_group_head();
        fired = fault.fired();
        bool logged = false;
        for (const std::string& line : read_failures) {
            if (log.has(line)) {
                seen.insert(line);
                logged = true;
            }
        }
        EXPECT_EQ(logged, fired) << n;
        if (fired) {
            EXPECT_TRUE(result == -1 || keep_journal_reasons().count > counted ||
                        log.has("tbl_check_group_free_count read error"))
                << n;
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(pool_.fri(0), "4d 00 00 00 50 00 02 c0 ");  // head 5, count 2
        }
        EXPECT_EQ(pool_.fri(1), "4e 00 00 00 40 00 02 80 ");
    }
    EXPECT_EQ(seen, read_failures);
}
