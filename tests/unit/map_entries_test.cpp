#include "map/map_entries.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>

#include "map/map_file.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"

namespace {

constexpr uint64_t MAPPED = uint64_t{1} << 63;

// The current map: 200 entries, of which leas 62 and 63 are mapped, to lpas 1000 and 2000.
class map_entries : public testing::Test {
protected:
    map_entries() : path_(dir_.file("EP_MAP")) {
        make_filled_map(path_, 200, 2, {{62, 1000}, {63, 2000}});
        EXPECT_EQ(load_map(path_.c_str()), 0);
    }
    ~map_entries() override { close_map(); }
    std::string bytes(uint64_t at, size_t len) { return hex_of(file_bytes(path_, at, len)); }

    scratch_dir dir_;
    std::string path_;
    log_capture log_;
};

const std::string NO_MAP = "map file descriptor is invalid\n";

}  // namespace

TEST(map_entry, its_bits_are_lpa_row_sync_and_mapped) {
    const uint8_t first[8] = {1, 0, 0, 0, 0, 0, 0x05, 0x80};
    map_entry entry;
    memcpy(&entry, first, sizeof entry);
    EXPECT_EQ(map_entry_get_lpa(&entry), 1u);
    EXPECT_EQ(map_entry_get_poolnum(&entry), 5u);
    EXPECT_EQ(map_entry_is_mapped(&entry), 1);
    EXPECT_EQ(map_entry_is_sync(&entry), 0);

    const uint8_t second[8] = {1, 0, 0, 0, 0, 0, 0x05, 0x9F};
    memcpy(&entry, second, sizeof entry);
    EXPECT_EQ(map_entry_get_lpa(&entry), 1u);
    EXPECT_EQ(map_entry_get_poolnum(&entry), 0xF05u);
    EXPECT_EQ(map_entry_is_mapped(&entry), 1);
    EXPECT_EQ(map_entry_is_sync(&entry), 1);
}

TEST(map_entry, sync_is_bit_60_and_the_replay_flag_bit_62_and_the_others_stay) {
    map_entry entry{0x2000000000000001};  // bit 61 is reserved
    map_entry_set_sync(&entry);
    EXPECT_EQ(hex_of(entry), "01 00 00 00 00 00 00 30 ");
    map_entry_set_flag(&entry);
    EXPECT_EQ(hex_of(entry), "01 00 00 00 00 00 00 70 ");
}

TEST_F(map_entries, lea_62_ends_node_0_and_lea_63_begins_node_1) {
    const map_entry a{0x11};
    const map_entry b{0x22};
    EXPECT_EQ(map_entry_write(&a, 62), 0);
    EXPECT_EQ(map_entry_write(&b, 63), 0);
    EXPECT_EQ(bytes(1048576 + 496, 8), "11 00 00 00 00 00 00 00 ");
    EXPECT_EQ(bytes(1048576 + 512, 8), "22 00 00 00 00 00 00 00 ");
    map_entry entry{~uint64_t{0}};
    EXPECT_EQ(map_entry_read(&entry, 62), 0);
    EXPECT_EQ(entry.word, 0x11u);
}

TEST_F(map_entries, the_mapped_lpa_need_not_be_stored) {
    uint64_t lpa = 7;
    EXPECT_EQ(tarn_get_mapped_lpa(62, &lpa), 1);
    EXPECT_EQ(lpa, 1000u);
    EXPECT_EQ(tarn_get_mapped_lpa(61, &lpa), 0);
    EXPECT_EQ(lpa, 0u);
    EXPECT_EQ(tarn_get_mapped_lpa(63, nullptr), 1);
    EXPECT_EQ(tarn_get_mapped_lpa(64, nullptr), 0);
}

TEST_F(map_entries, check_compares_all_eight_bytes) {
    const map_entry stored{MAPPED | 1000};
    const map_entry flagged{MAPPED | 1000 | uint64_t{1} << 62};
    const map_entry empty{};
    EXPECT_EQ(map_entry_check(&stored, 62), 1);
    EXPECT_EQ(map_entry_check(&flagged, 62), 0);
    EXPECT_EQ(map_entry_check(&empty, 100000), 1);  // past the end of the file
    EXPECT_EQ(map_entry_check(&stored, 100000), 0);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(map_entries, operations_without_a_map_are_logged) {
    close_map();
    map_entry entry{5};
    uint64_t lpa = 7;
    const uint64_t failed = keep_journal_reasons().count;
    EXPECT_EQ(map_entry_read(&entry, 0), -1);
    EXPECT_EQ(tarn_get_mapped_lpa(0, &lpa), -1);
    EXPECT_EQ(lpa, 7u);
    EXPECT_EQ(map_entry_check(&entry, 9), -1);
    EXPECT_LT(map_entry_write(&entry, 0), 0);
    EXPECT_EQ(map_entry_replay(&entry, 9), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: map_entry_read(#) " + NO_MAP, "ERR: map_entry_read(#) " + NO_MAP,
                         "ERR: map_entry_read(#) " + NO_MAP,
                         "ERR: map_entry_check(#) map entry check fail, lea 9\n",
                         "ERR: map_entry_write(#) " + NO_MAP, "ERR: map_entry_write(#) " + NO_MAP,
                         "ERR: map_entry_replay(#) map entry replay fail, lea 9\n"}));
    EXPECT_EQ(keep_journal_reasons().count,
              failed + 2);  // the journal that holds their records must stay
    stdout_capture out;
    EXPECT_EQ(dump_map_entry(0), -1);
    EXPECT_EQ(out.text(), "");
}

TEST_F(map_entries, an_entry_past_both_the_count_and_the_file_is_not_written) {
    std::filesystem::resize_file(path_, 1048576 + 2 * 512);
    const map_entry entry{MAPPED | 5};
    const uint64_t failed = keep_journal_reasons().count;
    EXPECT_EQ(map_entry_replay(&entry, 199), 0);  // the count reaches it, the file did not
    EXPECT_EQ(map_entry_replay(&entry, 251), 0);  // its node is in the file now
    EXPECT_EQ(map_entry_replay(&entry, 252), -1);
    EXPECT_EQ(map_entry_replay(&entry, ~uint64_t{0}), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: map_entry_write(#) no entry in this map, lea 252\n",
                                       "ERR: map_entry_replay(#) map entry replay fail, lea 252\n",
                                       "ERR: map_entry_write(#) no entry in this map, lea "
                                       "18446744073709551615\n",
                                       "ERR: map_entry_replay(#) map entry replay fail, lea "
                                       "18446744073709551615\n"}));
    EXPECT_EQ(keep_journal_reasons().count, failed + 2);
    EXPECT_EQ(bytes(1048576 + 4 * 512, 8), "00 00 00 00 00 00 00 00 ");
}

TEST_F(map_entries, are_read_and_written_in_a_mismatched_node_as_they_are_stored) {
    spoil_node(path_, 0);  // byte 503: bit 56 of lea 62
    map_entry entry{};
    EXPECT_EQ(map_entry_read(&entry, 62), 0);
    EXPECT_EQ(entry.word, (MAPPED | 1000) ^ uint64_t{1} << 56);
    EXPECT_EQ(log_.count("data chksum mismatched"), 1u);
    const map_entry other{MAPPED | 1};
    EXPECT_EQ(map_entry_write(&other, 0), 0);
    EXPECT_EQ(bytes(1048576, 8), "01 00 00 00 00 00 00 80 ");
    EXPECT_EQ(map_word_of(path_, 62), (MAPPED | 1000) ^ uint64_t{1} << 56);
}

TEST_F(map_entries, a_replay_fails_at_whichever_call_fails) {
    const map_entry entry{MAPPED | 9};
    failed_calls failed;
    uint64_t n = 1;
    for (bool fired = true; fired; n++) {
        tarn_cache_node_init(&current_map.cache);
        log_.clear();
        const io_fault_at fault(n, EIO);
        const int result = map_entry_replay(&entry, 0);
        fired = failed.add(fault);
        EXPECT_EQ(result, fired ? -1 : 0) << n;
        EXPECT_EQ(log_.last(),
                  fired ? "ERR: map_entry_replay(#) map entry replay fail, lea 0\n" : "");
    }
    EXPECT_EQ(failed.in_order(), "seek read seek write");
}

TEST_F(map_entries, the_count_of_the_header_is_compared_and_replayed_alone) {
    EXPECT_EQ(map_count_check(2), 1);
    EXPECT_EQ(map_count_check(3), 0);
    const std::string const_nodes = bytes(0, 4096);
    const std::string after = bytes(4096 + 64, 8192 - 64 + 16);
    {
        const io_fault_at count(0, 0, {io_call::write});
        EXPECT_EQ(map_count_replay(0x0102030405060708), 0);
        EXPECT_EQ(count.calls(), 5u);  // all five header nodes
    }
    EXPECT_EQ(bytes(4100, 8), "08 07 06 05 04 03 02 01 ");
    EXPECT_EQ(bytes(0, 4096), const_nodes);
    EXPECT_EQ(bytes(4096 + 64, 8192 - 64 + 16), after);
    EXPECT_EQ(map_count_check(0x0102030405060708), 1);
    for (uint64_t n = 1; n <= 5; n++) {
        const io_fault_at fault(n, EIO, {io_call::write});
        EXPECT_EQ(map_count_replay(4), -1) << n;
    }
    close_map();
    EXPECT_EQ(map_count_replay(4), -1);
    EXPECT_EQ(log_.last(), "ERR: save_map(#) map file descriptor is invalid\n");
}

TEST_F(map_entries, are_shown_in_one_line_and_dumped_in_two) {
    stdout_capture out;
    const map_entry entry{0x9F05FFFFFFFFFFFF};
    show_map_entry(&entry);
    show_map_entry(nullptr);
    EXPECT_EQ(dump_map_entry(63), 0);
    EXPECT_EQ(out.text(),
              "TARN_INFO: poolnum[3845] mapped[1] sync[1] lpa 281474976710655\n"
              "TARN_INFO: LEA [63] MAP-Entry:\n"
              "TARN_INFO: poolnum[0] mapped[1] sync[0] lpa 2000\n");
    EXPECT_EQ(log_.lines(), log_lines({"ERR: show_map_entry(#) NULL pointer of map\n"}));
}
