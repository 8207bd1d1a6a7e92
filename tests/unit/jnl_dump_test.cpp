#include "jnl/jnl_dump.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <random>

#include "jnl/jnl_file.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/raw_journal.h"
#include "support/stdout_capture.h"

namespace {

// Block types, at byte 32.
constexpr uint32_t XCOPY = 5;
constexpr uint32_t MOVES = 6;
constexpr uint32_t UNMAP = 7;
constexpr uint32_t ALLOC = 8;
constexpr uint16_t MORE = 0;  // flags, at byte 6
constexpr uint16_t LAST = 1;
constexpr uint64_t MAPPED = 0x8000000000000000;
constexpr uint16_t USED = 0x8000;

const std::string SEPARATOR = "TARN_INFO: -------------------------\n";

std::string number(uint64_t value) {
    return std::to_string(value);
}

// The lines before the contents of a block.
std::string header_text(uint32_t trans_id, uint16_t seq, uint16_t flags, unsigned count) {
    return "TARN_INFO: jnl_transid      " + number(trans_id) + "\nTARN_INFO: jnl_seq_num      " +
           number(seq) + "\nTARN_INFO: jnl_flags        " + number(flags) +
           "\nTARN_INFO: jnl_commit_time  0\nTARN_INFO: jnl_entry_count  " + number(count) + "\n" +
           SEPARATOR;
}

std::string mapped_text(uint64_t lpa) {
    return "TARN_INFO: poolnum[0] mapped[1] sync[0] lpa " + number(lpa) + "\n";
}

std::string used_text(unsigned count) {
    return "TARN_INFO: used[1] tail[0] count/next " + number(count) + "\n";
}

class jnl_dump : public testing::Test {
protected:
    ~jnl_dump() override { close_jnl(); }

    static std::string block_text(raw_journal& journal, const raw_block& block, int detail) {
        journal.put(0, block);
        EXPECT_EQ(load_jnl(journal.path()), 0);
        stdout_capture out;
        EXPECT_EQ(dump_jnl_block(0, detail), 0);
        std::string text = out.text();
        close_jnl();
        return text;
    }

    // A journal with the tag alone: what is printed differs in the tag line only.
    static std::string meta_text(uint32_t tag) {
        raw_journal journal(64);
        journal.set_meta(4100, &tag, sizeof tag);
        EXPECT_EQ(load_jnl(journal.path()), 0);
        stdout_capture out;
        EXPECT_EQ(dump_jnl_meta(), 0);
        std::string text = out.text();
        close_jnl();
        return text;
    }
};

const std::string META_BEGIN = "TARN_INFO: jnl_total_count                 64\n";
const std::string META_END =
    "TARN_INFO: jnl_sync_count                  0\n"
    "TARN_INFO: jnl_last_trans_id               0\n"
    "TARN_INFO: jnl_last_record_start           0\n"
    "TARN_INFO: jnl_last_flush_errno            0\n"
    "TARN_INFO: jnl_last_recovery_error         0\n"
    "TARN_INFO: jnl_empty_record_start          0\n";

}  // namespace

TEST_F(jnl_dump, the_meta_nodes_are_printed_field_by_field) {
    raw_journal journal(0x123456789A);
    const uint32_t tag = 0x25521814, sync = 64, trans_id = 4000000000;
    const uint64_t record = 5000000000, empty = 5000000003;
    const int32_t flush = -5, recovery = -117;
    journal.set_meta(4100, &tag, 4);
    journal.set_meta(4104, &sync, 4);
    journal.set_meta(4164, &trans_id, 4);
    journal.set_meta(4168, &record, 8);
    journal.set_meta(4176, &flush, 4);
    journal.set_meta(4180, &recovery, 4);
    journal.set_meta(4184, &empty, 8);
    ASSERT_EQ(load_jnl(journal.path()), 0);

    stdout_capture out;
    EXPECT_EQ(dump_jnl_meta(), 0);

    EXPECT_EQ(out.text(),
              "TARN_INFO: jnl_total_count                 78187493530\n"
              "TARN_INFO: jnl_shutdown_tag                Shutdown Successfully\n"
              "TARN_INFO: jnl_sync_count                  64\n"
              "TARN_INFO: jnl_last_trans_id               4000000000\n"
              "TARN_INFO: jnl_last_record_start           5000000000\n"
              "TARN_INFO: jnl_last_flush_errno            -5\n"
              "TARN_INFO: jnl_last_recovery_error         -117\n"
              "TARN_INFO: jnl_empty_record_start          5000000003\n");
}

TEST_F(jnl_dump, every_known_tag_has_its_line) {
    const std::string tag = "TARN_INFO: jnl_shutdown_tag                ";
    EXPECT_EQ(meta_text(0), META_BEGIN + tag + "Not Initialized\n" + META_END);
    EXPECT_EQ(meta_text(0x25521814), META_BEGIN + tag + "Shutdown Successfully\n" + META_END);
    EXPECT_EQ(meta_text(0xFFFFFFFF), META_BEGIN + tag + "Abnormal Shutdown\n" + META_END);
    EXPECT_EQ(meta_text(0x66656800), META_BEGIN + tag + "Status Bad, Inconsistent\n" + META_END);
    EXPECT_EQ(meta_text(0x77777777), META_BEGIN + tag + "Status Read-Only Bad\n" + META_END);
}

TEST_F(jnl_dump, an_unknown_tag_has_no_line) {
    EXPECT_EQ(meta_text(1), META_BEGIN + META_END);
}

TEST_F(jnl_dump, without_a_journal_every_dump_fails) {
    log_capture log;
    stdout_capture out;
    EXPECT_EQ(dump_jnl_meta(), -1);
    EXPECT_EQ(dump_jnl_block(0, 0), -1);
    EXPECT_EQ(dump_jnl_transaction(7, 0, 1, 1, 1), -1);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: dump_jnl_meta(#) jnl file descriptor is invalid\n",
                         "ERR: dump_jnl_block(#) jnl file descriptor is invalid\n",
                         "ERR: dump_jnl_transaction(#) jnl file descriptor is invalid\n"}));
    EXPECT_EQ(out.text(), "TARN_INFO: NO TRANSACTION 7 in JOURNAL\n");
}

TEST_F(jnl_dump, the_header_of_a_block_is_printed_in_decimal) {
    raw_journal journal(64);
    raw_block block(4294967295, 65535, 65534);
    block.u32(8, 1700000000);
    EXPECT_EQ(block_text(journal, block, 1),
              "TARN_INFO: jnl_transid      4294967295\n"
              "TARN_INFO: jnl_seq_num      65535\n"
              "TARN_INFO: jnl_flags        65534\n"
              "TARN_INFO: jnl_commit_time  1700000000\n"
              "TARN_INFO: jnl_entry_count  0\n"
              "TARN_INFO: -------------------------\n");  // an empty FILE block
}

static raw_block xcopy_block(uint8_t count) {
    raw_block block(9, 0, LAST);
    block.u32(32, XCOPY).uuid(36, 0x00).uuid(52, 0xA0).u64(68, 200).u64(76, 100);
    block.u8(84, count).u64(88, 4096);
    for (unsigned i = 0; i < 40; i++) {
        block.u64(96 + 8 * i, MAPPED | (1000 + i));
        block.u16(416 + 2 * i, static_cast<uint16_t>(USED | (i + 1)));
    }
    return block;
}

static std::string xcopy_text(unsigned count) {
    return header_text(9, 0, 1, 0) +
           "TARN_INFO: [5] XCOPY TYPE\n"
           "TARN_INFO: dst_uuid          0 1 2 3- 4 5- 6 7- 8 9- a b c d e f\n"
           "TARN_INFO: src_uuid         a0a1a2a3-a4a5-a6a7-a8a9-aaabacadaeaf\n"
           "TARN_INFO: DST LEA 200\n"
           "TARN_INFO: SRC LEA 100\n"
           "TARN_INFO: count " +
           number(count) + "\nTARN_INFO: mapped_count_new 4096\n";
}

static std::string xcopy_slots(unsigned count) {
    std::string text = "TARN_INFO: XCOPY DETAIL\n";
    for (unsigned i = 0; i < count; i++) {
        text += "TARN_INFO: [" + number(i) + "] src LEA " + number(100 + i) + " dst LEA " +
                number(200 + i) + "\n" + mapped_text(1000 + i) + used_text(i + 1);
    }
    return text;
}

TEST_F(jnl_dump, an_xcopy_block_lists_its_slots_only_with_detail) {
    raw_journal journal(64);
    EXPECT_EQ(block_text(journal, xcopy_block(2), 0), xcopy_text(2) + SEPARATOR);
    EXPECT_EQ(block_text(journal, xcopy_block(2), 1), xcopy_text(2) + xcopy_slots(2) + SEPARATOR);
    EXPECT_EQ(block_text(journal, xcopy_block(0), 1), xcopy_text(0) + xcopy_slots(0) + SEPARATOR);
}

TEST_F(jnl_dump, an_xcopy_block_of_count_60_lists_slots_0_to_39) {
    raw_journal journal(64);
    log_capture log;
    EXPECT_EQ(block_text(journal, xcopy_block(60), 1),
              xcopy_text(60) + xcopy_slots(40) + SEPARATOR);
    EXPECT_EQ(log.lines(), log_lines({"ERR: tarn_jnl_block_d2m(#) "
                                      "blk->ej_block_history_xcopy.count 60 is overflow\n"}));
}

static raw_block moves_block(uint8_t dst_count, uint8_t src_count) {
    raw_block block(10, 1, MORE);
    block.u32(32, MOVES).uuid(36, 0x10).uuid(52, 0x08).u64(68, 7000000000).u64(76, 30);
    block.u8(84, dst_count).u8(85, src_count).u64(88, 11).u64(96, 12);
    for (unsigned i = 0; i < 50; i++) {
        block.u64(104 + 8 * i, MAPPED | (500 + i));
    }
    return block;
}

static std::string moves_text(unsigned dst_count, unsigned src_count) {
    return header_text(10, 1, 0, 0) +
           "TARN_INFO: [6] MOVES TYPE\n"
           "TARN_INFO: dst_uuid         10111213-1415-1617-1819-1a1b1c1d1e1f\n"
           "TARN_INFO: src_uuid          8 9 a b- c d- e f-1011-121314151617\n"
           "TARN_INFO: DST LEA_START 7000000000\n"
           "TARN_INFO: SRC LEA_START 30\n"
           "TARN_INFO: dst_count " +
           number(dst_count) + "\nTARN_INFO: src_count " + number(src_count) +
           "\nTARN_INFO: dst_mapped_count_new 11\n"
           "TARN_INFO: src_mapped_count_new 12\n";
}

static std::string moves_slots(unsigned count) {
    std::string text = "TARN_INFO: MOVES DETAIL\n";
    for (unsigned i = 0; i < count; i++) {
        text += "TARN_INFO: [" + number(i) + "] src LEA " + number(30 + i) + " dst LEA " +
                number(7000000000 + i) + "\n" + mapped_text(500 + i);
    }
    return text;
}

TEST_F(jnl_dump, a_moves_block_lists_as_many_slots_as_its_destination_has) {
    raw_journal journal(64);
    EXPECT_EQ(block_text(journal, moves_block(2, 3), 0), moves_text(2, 3) + SEPARATOR);
    EXPECT_EQ(block_text(journal, moves_block(2, 3), 1),
              moves_text(2, 3) + moves_slots(2) + SEPARATOR);
    log_capture log;
    EXPECT_EQ(block_text(journal, moves_block(60, 60), 1),
              moves_text(60, 60) + moves_slots(50) + SEPARATOR);
    EXPECT_EQ(log.lines().size(), 2u);  // both counts
}

static raw_block unmap_block(uint8_t count) {
    raw_block block(11, 2, MORE);
    block.u32(32, UNMAP).uuid(36, 0x10).u64(52, 40).u8(60, count).u64(64, 13);
    for (unsigned i = 0; i < 43; i++) {
        block.u64(72 + 8 * i, MAPPED | (600 + i));
        block.u16(416 + 2 * i, static_cast<uint16_t>(USED | (i + 1)));
    }
    return block;
}

static std::string unmap_text(unsigned count) {
    return header_text(11, 2, 0, 0) +
           "TARN_INFO: [7] UNMAP TYPE\n"
           "TARN_INFO: dst_uuid         10111213-1415-1617-1819-1a1b1c1d1e1f\n"
           "TARN_INFO: DST LEA_START 40\n"
           "TARN_INFO: count " +
           number(count) + "\nTARN_INFO: mapped_count_new 13\n";
}

static std::string unmap_slots(unsigned count) {
    std::string text = "TARN_INFO: UNMAP DETAIL\n";
    for (unsigned i = 0; i < count; i++) {
        text += "TARN_INFO: [" + number(i) + "] dst LEA " + number(40 + i) + "\n" +
                mapped_text(600 + i) + used_text(i + 1);
    }
    return text;
}

TEST_F(jnl_dump, an_unmap_block_lists_43_slots_at_most) {
    raw_journal journal(64);
    EXPECT_EQ(block_text(journal, unmap_block(1), 0), unmap_text(1) + SEPARATOR);
    EXPECT_EQ(block_text(journal, unmap_block(1), 1), unmap_text(1) + unmap_slots(1) + SEPARATOR);
    log_capture log;
    EXPECT_EQ(block_text(journal, unmap_block(255), 1),
              unmap_text(255) + unmap_slots(43) + SEPARATOR);
}

static raw_block alloc_block(uint8_t count) {
    raw_block block(12, 3, MORE);
    block.u32(32, ALLOC).uuid(36, 0x10).u64(52, 50).u8(60, count).u64(64, 14).uuid(72, 0xF0);
    block.u64(88, 77);
    block.u32(96, 7).u16(100, 0x0000).u16(102, 0x9000);   // initialised, all 4096 free
    block.u32(104, 8).u16(108, 0x0051).u16(110, 0x0003);  // next 2^32 + 8, head 5, not initialised
    block.u64(112, 99).u64(120, 3);
    for (unsigned i = 0; i < 47; i++) {
        block.u64(128 + 8 * i, MAPPED | (700 + i));
    }
    return block;
}

static std::string alloc_text(unsigned count) {
    return header_text(12, 3, 0, 0) +
           "TARN_INFO: [8] ALLOC TYPE\n"
           "TARN_INFO: dst_uuid        10111213-1415-1617-1819-1a1b1c1d1e1f\n"
           "TARN_INFO: DST LEA_START 50\n"
           "TARN_INFO: count " +
           number(count) +
           "\nTARN_INFO: mapped_count_new 14\n"
           "TARN_INFO: pool_uuid        f0f1f2f3-f4f5-f6f7-f8f9-fafbfcfdfeff\n"
           "TARN_INFO: group_num 77\n"
           "TARN_INFO: ef_old:\n"
           "TARN_INFO: init[1] next 7 freelisthead 0 free_count 4096\n"
           "TARN_INFO: ef_new:\n"
           "TARN_INFO: init[0] next 4294967304 freelisthead 5 free_count 3\n"
           "TARN_INFO: total_free_count 99\n"
           "TARN_INFO: group_head 3\n";
}

static std::string alloc_slots(unsigned count) {
    std::string text = "TARN_INFO: ALLOC DETAIL\n";
    for (unsigned i = 0; i < count; i++) {
        text += "TARN_INFO: [" + number(i) + "] dst LEA " + number(50 + i) + "\n" +
                mapped_text(700 + i);
    }
    return text;
}

TEST_F(jnl_dump, an_alloc_block_shows_its_group_before_and_after) {
    raw_journal journal(64);
    EXPECT_EQ(block_text(journal, alloc_block(1), 0), alloc_text(1) + SEPARATOR);
    EXPECT_EQ(block_text(journal, alloc_block(1), 1), alloc_text(1) + alloc_slots(1) + SEPARATOR);
    log_capture log;
    EXPECT_EQ(block_text(journal, alloc_block(48), 1),
              alloc_text(48) + alloc_slots(47) + SEPARATOR);
}

// Entries of every type, one unknown; each 64 bytes from byte 32 on.
static raw_block file_block(uint8_t count) {
    raw_block block(13, 0, LAST);
    block.u8(12, count);
    block.u32(32, 1).u64(32 + 20, 5000000000).u16(32 + 28, 0x1000).u16(32 + 30, 0x8002);
    block.u32(96, 2).u64(96 + 20, 6).u32(96 + 28, 7).u16(96 + 32, 0x0010).u16(96 + 34, 0x8FFF);
    block.u32(96 + 36, 9).u16(96 + 40, 0x0020).u16(96 + 42, 0xC001);
    block.u32(160, 3).u64(160 + 20, 21).u64(160 + 28, 22).u64(160 + 36, 23).u64(160 + 44, 24);
    block.u32(224, 4).u64(224 + 20, 31).u64(224 + 28, 0).u64(224 + 36, 0x9F05000000000001);
    block.u64(224 + 44, 32).u64(224 + 52, 33);
    block.u32(288, 1234);
    return block;
}

static const std::string TBL_TEXT =
    "TARN_INFO: [0] TBL - lpa 5000000000\n"
    "TARN_INFO: OLD TBL\n"
    "TARN_INFO: used[0] tail[1] count/next 0\n"
    "TARN_INFO: NEW TBL\n"
    "TARN_INFO: used[1] tail[0] count/next 2\n";
static const std::string FILE_TEXT =
    TBL_TEXT + SEPARATOR +
    "TARN_INFO: [1] FRI - group_num 6\n"
    "TARN_INFO: OLD FRI\n"
    "TARN_INFO: init[1] next 7 freelisthead 1 free_count 4095\n"
    "TARN_INFO: NEW FRI\n"
    "TARN_INFO: init[1] next 9 freelisthead 2 free_count 1\n" +
    SEPARATOR +
    "TARN_INFO: [2] FRI_VAR0\n"
    "TARN_INFO: OLD FRI index_head 23 free_count 21\n"
    "TARN_INFO: NEW FRI index_head 24 free_count 22\n" +
    SEPARATOR +
    "TARN_INFO: [3] MAP - lea 31 old_mapped_count 32 new_mapped_count 33\n"
    "TARN_INFO: OLD MAP\n"
    "TARN_INFO: poolnum[0] mapped[0] sync[0] lpa 0\n"
    "TARN_INFO: NEW MAP\n"
    "TARN_INFO: poolnum[3845] mapped[1] sync[1] lpa 1\n" +
    SEPARATOR + "TARN_INFO: [4] UNKNOWN TYPE\n";

TEST_F(jnl_dump, file_entries_are_separated_by_a_line_and_none_follows_the_last) {
    raw_journal journal(64);
    log_capture log;
    const std::string header = header_text(13, 0, 1, 5);
    EXPECT_EQ(block_text(journal, file_block(5), 1), header + FILE_TEXT);
    EXPECT_EQ(log.lines(), log_lines({"ERR: tarn_jnl_block_entry_d2m(#) "
                                      "jnl block type 1234 isn't reconginzed\n"}));
    EXPECT_EQ(block_text(journal, file_block(5), 0), header + FILE_TEXT);  // always in full
    EXPECT_EQ(block_text(journal, file_block(1), 0), header_text(13, 0, 1, 1) + TBL_TEXT);
    EXPECT_EQ(block_text(journal, file_block(0), 0), header_text(13, 0, 1, 0));
}

TEST_F(jnl_dump, an_entry_count_of_9_is_printed_in_red_and_entries_0_to_6_follow) {
    raw_journal journal(64);
    log_capture log;
    std::string header = header_text(13, 0, 1, 9);
    header.insert(header.find(SEPARATOR), "\x1b[31mTARN_RPT: Invalid entry count\n\x1b[0m");
    EXPECT_EQ(block_text(journal, file_block(9), 1),
              header + FILE_TEXT + SEPARATOR + "TARN_INFO: [5] UNKNOWN TYPE\n" + SEPARATOR +
                  "TARN_INFO: [6] UNKNOWN TYPE\n");
    EXPECT_TRUE(log.has("tarn_jnl_block_d2m(#) blk->ej_header.entry_count 9 is overflow\n"));
}

TEST_F(jnl_dump, a_history_block_with_a_wrong_entry_count_is_still_dumped) {
    raw_journal journal(64);
    raw_block block = xcopy_block(0);
    block.u8(12, 8);
    const std::string text = block_text(journal, block, 0);
    EXPECT_NE(text.find("TARN_INFO: jnl_entry_count  8\n"
                        "\x1b[31mTARN_RPT: Invalid entry count\n\x1b[0m" +
                        SEPARATOR + "TARN_INFO: [5] XCOPY TYPE\n"),
              std::string::npos)
        << text;
}

TEST_F(jnl_dump, a_block_that_cannot_be_read_prints_nothing) {
    raw_journal journal(64);
    journal.put_damaged(0, xcopy_block(1));
    ASSERT_EQ(load_jnl(journal.path()), 0);
    log_capture log;
    stdout_capture out;
    EXPECT_EQ(dump_jnl_block(0, 1), -1);   // its checksum differs
    EXPECT_EQ(dump_jnl_block(63, 1), -1);  // never written
    EXPECT_EQ(dump_jnl_block(UINT64_MAX, 1), -1);
    EXPECT_EQ(out.text(), "");
    EXPECT_TRUE(log.has("jnl checksum error @block 0\n"));
    EXPECT_TRUE(log.has("jnl block all zero value @block 63\n"));
    EXPECT_TRUE(log.has("@block 18446744073709551615\n"));
}

TEST_F(jnl_dump, any_bytes_with_a_sound_checksum_are_dumped_to_the_end) {
    raw_journal journal(64);
    std::mt19937 random(1);
    log_capture log;
    for (uint32_t round = 0; round < 500; round++) {
        raw_block block(0, 0, 0);
        for (size_t at = 0; at < 508; at += 4) {
            block.u32(at, static_cast<uint32_t>(random()));
        }
        block.u32(32, round % 10);  // every type, in use or not
        const std::string text = block_text(journal, block, 1);
        const bool is_history = round % 10 >= XCOPY && round % 10 <= ALLOC;
        EXPECT_EQ(text.ends_with(SEPARATOR), is_history || block.data()[12] == 0) << text;
    }
}

namespace {

class jnl_dump_transaction : public jnl_dump {
protected:
    // Result and text of one dump.
    static int dump(raw_journal& journal, uint32_t trans_id, uint64_t from, int dump_blocks,
                    int trace_seq, int detail, std::string* text) {
        EXPECT_EQ(load_jnl(journal.path()), 0);
        stdout_capture out;
        const int result = dump_jnl_transaction(trans_id, from, dump_blocks, trace_seq, detail);
        *text = out.text();
        close_jnl();
        return result;
    }
    // Without any of the three switches.
    static int search(raw_journal& journal, uint32_t trans_id, uint64_t from, std::string* text) {
        return dump(journal, trans_id, from, 0, 0, 0, text);
    }

    std::string text;
};

}  // namespace

TEST_F(jnl_dump_transaction, of_one_block_shows_start_and_last_and_dumps_the_block_once) {
    raw_journal journal(4);
    journal.put(0, raw_block(8, 0, LAST));
    journal.put(1, xcopy_block(1));
    EXPECT_EQ(search(journal, 9, 0, &text), 0);
    EXPECT_EQ(text,
              "TARN_INFO: SEARCH TRANSACTION 9 START @block 1\n"
              "TARN_INFO: SEARCH TRANSACTION 9 LAST @block 1\n");
    EXPECT_EQ(dump(journal, 9, 0, 1, 1, 0, &text), 0);
    EXPECT_EQ(text, "TARN_INFO: SEARCH TRANSACTION 9 START @block 1\n" + xcopy_text(1) + SEPARATOR +
                        "TARN_INFO: SEARCH TRANSACTION 9 LAST @block 1\n");
    EXPECT_EQ(dump(journal, 9, 1, 1, 0, 1, &text), 0);
    EXPECT_EQ(text, "TARN_INFO: SEARCH TRANSACTION 9 START @block 1\n" + xcopy_text(1) +
                        xcopy_slots(1) + SEPARATOR +
                        "TARN_INFO: SEARCH TRANSACTION 9 LAST @block 1\n");
}

TEST_F(jnl_dump_transaction, wraps_and_shows_its_middle_blocks_only_when_asked) {
    raw_journal journal(4);
    journal.put(0, raw_block(20, 2, LAST));
    journal.put(1, raw_block(19, 0, LAST));
    journal.put(2, raw_block(20, 0, MORE));
    journal.put(3, raw_block(20, 1, 2));  // only 1 marks the last block
    const std::string start = "TARN_INFO: SEARCH TRANSACTION 20 START @block 2\n";
    const std::string middle = "TARN_INFO: SEARCH TRANSACTION 20 SEQ 1 @block 3\n";
    const std::string last = "TARN_INFO: SEARCH TRANSACTION 20 LAST @block 0\n";
    EXPECT_EQ(dump(journal, 20, 0, 0, 0, 1, &text), 0);
    EXPECT_EQ(text, start + last);
    EXPECT_EQ(dump(journal, 20, 0, 0, 1, 0, &text), 0);
    EXPECT_EQ(text, start + middle + last);
    EXPECT_EQ(dump(journal, 20, 3, 1, 0, 0, &text), 0);  // begins after the first block
    EXPECT_EQ(text, start + header_text(20, 0, 0, 0) + header_text(20, 1, 2, 0) + last +
                        header_text(20, 2, 1, 0));
    EXPECT_EQ(dump(journal, 20, 2, 1, 1, 0, &text), 0);
    EXPECT_EQ(text, start + header_text(20, 0, 0, 0) + middle + header_text(20, 1, 2, 0) + last +
                        header_text(20, 2, 1, 0));
}

TEST_F(jnl_dump_transaction, whose_first_block_is_overwritten_is_not_found_after_a_lap) {
    raw_journal journal(4);
    journal.put(0, raw_block(21, 1, MORE));
    journal.put(1, raw_block(21, 2, LAST));
    journal.put(2, raw_block(22, 0, LAST));
    journal.put(3, raw_block(23, 0, LAST));
    log_capture log;
    for (const uint64_t from : {0u, 1u, 2u, 3u}) {
        EXPECT_EQ(search(journal, 21, from, &text), -1);
        EXPECT_EQ(text, "TARN_INFO: NO TRANSACTION 21 in JOURNAL\n");
    }
    EXPECT_EQ(log.lines(), log_lines({}));
}

TEST_F(jnl_dump_transaction, after_a_bad_block_there_is_no_transaction) {
    raw_journal journal(4);
    journal.put(0, raw_block(21, 0, LAST));
    journal.put_damaged(1, raw_block(22, 0, LAST));
    journal.put(2, raw_block(23, 0, LAST));
    log_capture log;
    EXPECT_EQ(search(journal, 23, 0, &text), -1);
    EXPECT_EQ(text, "TARN_INFO: NO TRANSACTION 23 in JOURNAL\n");
    EXPECT_EQ(log.lines(), log_lines({"ERR: jnl_block_read(#) jnl checksum error @block 1\n"}));
    EXPECT_EQ(search(journal, 23, 2, &text), 0);
}

TEST_F(jnl_dump_transaction, stops_at_another_id) {
    raw_journal journal(4);
    journal.put(0, raw_block(21, 0, MORE));
    journal.put(1, raw_block(22, 0, LAST));
    EXPECT_EQ(search(journal, 21, 0, &text), -1);
    EXPECT_EQ(text,
              "TARN_INFO: SEARCH TRANSACTION 21 START @block 0\n"
              "TARN_INFO: STOP SEARCH TRANSACTION 21 DIFF ID 22 @block 1\n");
}

TEST_F(jnl_dump_transaction, stops_at_a_gap_in_its_sequence) {
    raw_journal journal(4);
    journal.put(0, raw_block(21, 0, MORE));
    journal.put(1, raw_block(21, 1, MORE));
    journal.put(2, raw_block(21, 3, LAST));
    EXPECT_EQ(search(journal, 21, 0, &text), -1);
    EXPECT_EQ(text,
              "TARN_INFO: SEARCH TRANSACTION 21 START @block 0\n"
              "TARN_INFO: STOP SEARCH TRANSACTION 21 SEQ 2 DIFF SEQ 3 @block 2, \n");
}

TEST_F(jnl_dump_transaction, ends_silently_at_a_bad_block_inside_it) {
    raw_journal journal(4);
    journal.put(0, raw_block(21, 0, MORE));
    journal.put_damaged(1, raw_block(21, 1, LAST));
    log_capture log;
    EXPECT_EQ(search(journal, 21, 0, &text), -1);
    EXPECT_EQ(text, "TARN_INFO: SEARCH TRANSACTION 21 START @block 0\n");
    EXPECT_EQ(log.lines(), log_lines({"ERR: jnl_block_read(#) jnl checksum error @block 1\n"}));
}

// Sequence numbers have 16 bits: only a ring of up to that many blocks can be walked around.
TEST_F(jnl_dump_transaction, that_fills_the_whole_ring_unfinished_ends_after_a_lap) {
    raw_journal journal(65536);
    for (uint32_t n = 0; n < 65536; n++) {
        journal.put(n, raw_block(21, static_cast<uint16_t>(n), MORE));
    }
    EXPECT_EQ(search(journal, 21, 0, &text), 0);
    EXPECT_EQ(text, "TARN_INFO: SEARCH TRANSACTION 21 START @block 0\n");
    EXPECT_EQ(dump(journal, 21, 0, 0, 1, 0, &text), 0);
    EXPECT_TRUE(
        text.ends_with("TARN_INFO: SEARCH TRANSACTION 21 SEQ 65535 @block 65535\n"
                       "TARN_INFO: SEARCH TRANSACTION 21 SEQ 0 @block 0\n"));
}

TEST_F(jnl_dump_transaction, in_a_ring_without_blocks_is_not_found) {
    raw_journal journal(0);
    journal.put(0, raw_block(21, 0, LAST));
    log_capture log;
    EXPECT_EQ(search(journal, 21, 0, &text), -1);
    EXPECT_EQ(text, "TARN_INFO: NO TRANSACTION 21 in JOURNAL\n");
    EXPECT_EQ(log.lines(), log_lines({"ERR: dump_jnl_transaction(#) jnl_total_count is 0\n"}));
}

TEST_F(jnl_dump_transaction, searched_from_outside_the_ring_is_not_found) {
    raw_journal journal(4);
    journal.put(0, raw_block(21, 0, LAST));
    log_capture log;
    for (const uint64_t from : {uint64_t{1000}, UINT64_MAX, UINT64_MAX / 512}) {
        EXPECT_EQ(search(journal, 21, from, &text), -1);
        EXPECT_EQ(text, "TARN_INFO: NO TRANSACTION 21 in JOURNAL\n");
    }
    EXPECT_EQ(log.count("jnl block all zero value @block "), 3u);
    EXPECT_EQ(log.count("jnl read error, block_num["), 2u);  // past the largest offset of a file
}

TEST_F(jnl_dump_transaction, in_a_ring_of_absurd_size_is_searched_as_far_as_the_file_goes) {
    raw_journal journal(UINT64_MAX);
    journal.put(0, raw_block(20, 0, LAST));
    journal.put(1, raw_block(21, 0, LAST));
    log_capture log;
    EXPECT_EQ(search(journal, 21, 0, &text), 0);
    EXPECT_EQ(search(journal, 22, 0, &text), -1);
    EXPECT_EQ(text, "TARN_INFO: NO TRANSACTION 22 in JOURNAL\n");
}

TEST_F(jnl_dump_transaction, logs_every_read_that_fails) {
    raw_journal journal(4);
    journal.put(0, raw_block(20, 0, LAST));
    journal.put(1, raw_block(21, 0, MORE));
    journal.put(2, raw_block(21, 1, LAST));
    ASSERT_EQ(load_jnl(journal.path()), 0);
    // Block 0, block 1, its dump, block 2, its dump.
    const int results[] = {-1, -1, 0, -1, 0, 0};
    for (uint64_t n = 1; n <= 6; n++) {
        log_capture log;
        stdout_capture out;
        io_fault_at fault(n, EIO, {io_call::read});
        EXPECT_EQ(dump_jnl_transaction(21, 0, 1, 0, 0), results[n - 1]) << n;
        EXPECT_EQ(fault.fired(), n < 6);
        EXPECT_EQ(log.count("jnl read error, block_num["), n < 6 ? 1u : 0u) << n;
    }
}
