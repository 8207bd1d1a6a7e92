#include "tbl/tbl_file.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/open_files.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_entries.h"

// A sound header of 1 MiB extents: uuid 00 01 .. 0f, created at 01020304. Checksums of the two
// nodes, from another program: 55b26279 and 9ad7959a.
static const uint8_t HEADER[128] = {
    0x79, 0x62, 0xb2, 0x55, 0x00, 0x00, 0x01, 0x00, 0x33, 0x06, 0x14, 0x18, 0x52, 0x25,
    0x86, 0x08, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
    0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x04, 0x03, 0x02, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x9a, 0x95, 0xd7, 0x9a, 0x00, 0x00,
    0x10, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xf8, 0x01, 0x00, 0x00};

class table_file : public testing::Test {
protected:
    table_file() : old_(1048576) { old_.write_at(0, HEADER); }
    ~table_file() override { close_tbl(); }

    scratch_file old_;
    scratch_dir dir_;
};

TEST_F(table_file, a_sound_header_loads_and_saves_back_as_the_same_bytes) {
    ASSERT_EQ(load_tbl(old_.path()), 0);
    EXPECT_EQ(hex_of(current_tbl.header), hex_of(HEADER));
    EXPECT_EQ(get_tbl_extent_size(), 1048576u);
    old_.write_at(0, metadata_head{});
    EXPECT_EQ(save_tbl(), 0);
    EXPECT_EQ(hex_of(old_.bytes(0, 128)), hex_of(HEADER));
    EXPECT_EQ(hex_of(old_.bytes(4096, 64)), hex_of(std::vector<uint8_t>(64, 0)));
    close_tbl();
    EXPECT_EQ(current_tbl.fd, 0);
}

TEST_F(table_file, a_new_table_has_its_full_length_no_space_and_the_old_uuid_and_extent_size) {
    const std::string path = dir_.file("EP_TBL");
    const auto before = static_cast<uint32_t>(time(nullptr));
    ASSERT_EQ(create_tbl(path.c_str(), old_.path()), 0);
    EXPECT_EQ(save_tbl(), 0);
    close_tbl();
    const auto after = static_cast<uint32_t>(time(nullptr));

    struct stat status = {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 0x40000100000);
    EXPECT_LE(status.st_blocks * 512, 8192);  // the header's
    std::vector<uint8_t> header = file_bytes(path, 0, 128);
    uint32_t created = 0;
    memcpy(&created, header.data() + 44, sizeof created);
    EXPECT_GE(created, before);
    EXPECT_LE(created, after);
    for (const size_t its_own : {0, 1, 2, 3, 44, 45, 46, 47}) {  // checksum, creation time
        header[its_own] = HEADER[its_own];
    }
    EXPECT_EQ(hex_of(header), hex_of(HEADER));

    ASSERT_EQ(load_tbl(path.c_str()), 0);
    for (const uint64_t lpa : {uint64_t{0}, uint64_t{252}, uint64_t{0x1F7FFFFFFFF}}) {
        tbl_entry entry{0xFFFF};
        EXPECT_EQ(tbl_entry_read(&entry, lpa), 2);
        EXPECT_EQ(entry.word, 0);
    }
}

TEST_F(table_file, without_a_sound_old_table_nothing_is_created) {
    const std::string path = dir_.file("EP_TBL");
    old_.write_at(100, uint8_t{1});  // breaks the second node's checksum
    const size_t before = open_files();
    {
        const stdout_capture ignored;
        EXPECT_EQ(create_tbl(path.c_str(), old_.path()), -1);
    }
    EXPECT_EQ(open_files(), before);
    stdout_capture out;
    EXPECT_EQ(create_tbl(path.c_str(), old_.path()), -1);
    EXPECT_EQ(create_tbl(path.c_str(), nullptr), -1);
    EXPECT_EQ(out.text(), "TARN_INFO: Fail to load TBL " + std::string(old_.path()) +
                              "\nTARN_INFO: Fail to load TBL (null)\n");
    EXPECT_FALSE(file_exists(path));
}

TEST_F(table_file, a_close_after_a_creation_that_failed_touches_no_other_file) {
    old_.write_at(100, uint8_t{1});
    {
        stdout_capture out;
        EXPECT_EQ(create_tbl(dir_.file("EP_TBL").c_str(), old_.path()), -1);
    }
    const int other = open("/dev/null", O_RDWR);  // takes the number that was closed
    const uint64_t failed = keep_journal_reasons().count;
    close_tbl();
    EXPECT_EQ(keep_journal_reasons().count, failed);
    EXPECT_NE(fcntl(other, F_GETFD), -1);
    close(other);
}

// The byte lies where an index has its third node: the old uuid cannot be read.
TEST_F(table_file, creating_a_table_without_a_uuid_leaves_none_open) {
    old_.write_at(4100, uint8_t{1});
    const log_capture log;
    const size_t before = open_files();
    const io_fault_at fault(1, EAGAIN, {io_call::spawn});
    EXPECT_EQ(create_tbl(dir_.file("EP_TBL").c_str(), old_.path()), -1);
    EXPECT_EQ(current_tbl.fd, 0);
    EXPECT_EQ(open_files(), before);
    EXPECT_EQ(log.last(), "ERR: uuid_gen(#) fail to OLIBCPopen '/usr/bin/uuidgen'\n");
}

TEST_F(table_file, a_table_is_never_emptied_to_create_itself) {
    log_capture log;
    EXPECT_EQ(create_tbl(old_.path(), old_.path()), -1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: create_tbl(#) " + std::string(old_.path()) +
                                      " cannot be created from itself\n"}));
    EXPECT_EQ(hex_of(old_.bytes(0, 128)), hex_of(HEADER));
}

TEST_F(table_file, a_new_table_that_cannot_be_created_is_logged) {
    log_capture log;
    EXPECT_EQ(create_tbl(dir_.file("no/such").c_str(), old_.path()), -1);
    EXPECT_EQ(create_tbl(nullptr, old_.path()), -1);
    EXPECT_EQ(log.count("ERR: create_tbl(#) tbl file descriptor is invalid\n"), 2u);
    EXPECT_EQ(current_tbl.fd, 0);
}

TEST_F(table_file, whichever_call_of_a_creation_fails_it_is_logged_or_counted) {
    failed_calls failed;
    uint64_t n = 1;
    for (bool fired = true; fired; n++) {
        scratch_dir dir;
        const uint64_t counted = keep_journal_reasons().count;
        log_capture log;
        stdout_capture out;
        const io_fault_at fault(n, EIO);
        const bool done =
            create_tbl(dir.file("EP_TBL").c_str(), old_.path()) == 0 && save_tbl() == 0;
        close_tbl();
        fired = failed.add(fault);
        if (fired) {
            // The uuid that cannot be read is replaced by a fresh one, and the reason is logged.
            EXPECT_TRUE(!log.lines().empty() || keep_journal_reasons().count > counted) << n;
        } else {
            EXPECT_TRUE(done);
            EXPECT_TRUE(log.lines().empty());
        }
        EXPECT_EQ(hex_of(old_.bytes(0, 128)), hex_of(HEADER));
    }
    // Reading the old header and its uuid, comparing the two paths, creating, saving, closing.
    EXPECT_EQ(failed.kinds(), "open read write seek sync truncate stat");
}

TEST_F(table_file, a_damaged_header_or_a_wrong_magic_code_does_not_load) {
    old_.write_at(70, uint8_t{0xFF});
    EXPECT_EQ(load_tbl(old_.path()), -1);
    EXPECT_NE(current_tbl.fd, 0);  // the caller closes
    old_.write_at(0, HEADER);
    EXPECT_EQ(load_tbl(old_.path()), 0);
    scratch_file blank(1048576);
    log_capture log;
    EXPECT_EQ(load_tbl(blank.path()), -1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: meta_hdr_d2m(#) mismatched MAGIC_CODE, "
                                      "hdr->magic_code(0000000000000000)\n"}));
}

TEST_F(table_file, operations_without_an_open_table_are_logged) {
    log_capture log;
    EXPECT_EQ(load_tbl("/no-such-file"), -1);
    EXPECT_EQ(save_tbl(), -1);
    EXPECT_EQ(dump_tbl_meta(), -1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: open_fd(#) open file /no-such-file fail\n",
                                      "ERR: load_tbl(#) tbl file descriptor is invalid\n",
                                      "ERR: save_tbl(#) tbl file descriptor is invalid\n",
                                      "ERR: dump_tbl_meta(#) tbl file descriptor is invalid\n"}));
}

TEST_F(table_file, closing_has_no_result_and_a_failed_sync_is_a_reason_to_keep_the_journal) {
    ASSERT_EQ(load_tbl(old_.path()), 0);
    ASSERT_EQ(save_tbl(), 0);
    const uint64_t failed = keep_journal_reasons().count;
    log_capture log;
    const io_fault_at fault(1, EIO, {io_call::sync});
    close_tbl();
    close_tbl();
    EXPECT_EQ(fault.calls(), 1u);
    EXPECT_EQ(keep_journal_reasons().count, failed + 1);
    EXPECT_EQ(log.lines(), log_lines({std::string("ERR: close_synced(#) Fail to sync ") +
                                      old_.path() + ": Input/output error\n"}));
}

TEST_F(table_file, the_header_prints_line_by_line) {
    ASSERT_EQ(load_tbl(old_.path()), 0);
    stdout_capture out;
    EXPECT_EQ(dump_tbl_meta(), 0);
    EXPECT_EQ(out.text(),
              "TARN_INFO: tbl_version     65536\n"
              "TARN_INFO: tbl_magic_code  0x18140633\n"
              "TARN_INFO: tbl_type        1\n"
              "TARN_INFO: tbl_uuid         0 1 2 3- 4 5- 6 7- 8 9- a b c d e f\n"
              "TARN_INFO: tbl_data_offset 1048576\n"
              "TARN_INFO: tbl_create_time 16909060\n"
              "TARN_INFO: tbl_extent_size 1048576\n"
              "TARN_INFO: tbl_entry_size  2\n"
              "TARN_INFO: tbl_total_count 2164663517184\n");
}

TEST_F(table_file, uuid_and_extent_size_change_in_memory_and_are_printed_before_and_after) {
    ASSERT_EQ(load_tbl(old_.path()), 0);
    const uint8_t uuid[16] = {0xff, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 0xab};
    stdout_capture out;
    set_tbl_uuid(uuid);
    set_tbl_extent_size(4096);
    EXPECT_EQ(out.text(),
              "TARN_INFO: chagne TBL uuid:\n"
              "TARN_INFO: from [000102030405060708090a0b0c0d0e0f]\n"
              "TARN_INFO: to   [ff0102030405060708090a0b0c0d0eab]\n"
              "TARN_INFO: chagne TBL extent size:\n"
              "TARN_INFO: from 1048576\n"
              "TARN_INFO: to 4096\n");
    EXPECT_EQ(hex_of(old_.bytes(0, 128)), hex_of(HEADER));
    EXPECT_EQ(save_tbl(), 0);
    EXPECT_EQ(old_.read_at<uint8_t>(20), 0xff);
    EXPECT_EQ(old_.read_at<uint8_t>(35), 0xab);
    EXPECT_EQ(old_.read_at<uint32_t>(68), 4096u);
    EXPECT_EQ(load_tbl(old_.path()), 0);
}

TEST_F(table_file, a_handle_loads_a_wrong_magic_code_and_only_logs_it) {
    scratch_file blank(1048576);
    auto handle = std::make_unique<tbl_handle>();
    log_capture log;
    EXPECT_EQ(load_tbl_handle(handle.get(), blank.path()), 0);
    EXPECT_EQ(log.count("mismatched MAGIC_CODE"), 1u);
    EXPECT_STREQ(handle->path, blank.path());
    EXPECT_NE(handle->fd, 0);
    handle->buffer = new uint8_t[10];  // released by the close
    EXPECT_EQ(close_tbl_handle(handle.get()), 0);
    EXPECT_EQ(handle->fd, 0);
    EXPECT_EQ(handle->buffer, nullptr);
}

TEST_F(table_file, a_handle_holds_the_header) {
    auto handle = std::make_unique<tbl_handle>();
    ASSERT_EQ(load_tbl_handle(handle.get(), old_.path()), 0);
    EXPECT_EQ(hex_of(handle->header), hex_of(HEADER));
    EXPECT_EQ(close_tbl_handle(handle.get()), 0);
    EXPECT_EQ(close_tbl_handle(handle.get()), 0);  // closed already
}

TEST_F(table_file, a_handle_that_cannot_load_is_left_closed) {
    auto handle = std::make_unique<tbl_handle>();
    old_.write_at(100, uint8_t{1});
    log_capture log;
    EXPECT_EQ(load_tbl_handle(handle.get(), old_.path()), -1);
    EXPECT_EQ(handle->fd, 0);
    log.clear();
    EXPECT_EQ(load_tbl_handle(handle.get(), "/no-such-file"), -1);
    EXPECT_EQ(load_tbl_handle(handle.get(), nullptr), -1);
    EXPECT_EQ(load_tbl_handle(nullptr, nullptr), -1);
    EXPECT_EQ(load_tbl_handle(nullptr, old_.path()), -1);
    EXPECT_EQ(close_tbl_handle(nullptr), -1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: open_fd(#) open file /no-such-file fail\n",
                                      "ERR: load_tbl_handle(#) tbl file descriptor is invalid\n",
                                      "ERR: load_tbl_handle(#) name NULL pointer\n",
                                      "ERR: load_tbl_handle(#) name NULL pointer\n",
                                      "ERR: load_tbl_handle(#) handle NULL pointer\n",
                                      "ERR: close_tbl_handle(#) handle NULL pointer\n"}));
}

TEST_F(table_file, loading_another_table_closes_the_previous_one) {
    ASSERT_EQ(load_tbl(old_.path()), 0);
    const int first = current_tbl.fd;
    ASSERT_EQ(save_tbl(), 0);
    const io_fault_at count_syncs(0, 0, {io_call::sync});
    ASSERT_EQ(load_tbl(old_.path()), 0);
    EXPECT_EQ(count_syncs.calls(), 1u);
    EXPECT_EQ(current_tbl.fd, first);  // its number was free again
}
