#include "jnl/jnl_file.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "journal_status.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/jnl_builder.h"
#include "support/log_capture.h"

static std::string no_journal(const std::string& name) {
    return "ERR: " + name + "(#) jnl file descriptor is invalid\n";
}

class jnl_file_test : public testing::Test {
protected:
    jnl_file_test() { keep_journal_forget(); }
    ~jnl_file_test() override { close_jnl(); }

    std::string meta_bytes() const {
        return hex_of(file_bytes(journal_.path(), 0, 128)) +
               hex_of(file_bytes(journal_.path(), 4096, 128));
    }
    void set_tag(uint32_t tag) { journal_.set_meta(4100, &tag, sizeof tag); }

    raw_journal journal_{64};
    log_capture log_;
};

TEST_F(jnl_file_test, every_field_is_read_from_its_byte) {
    const uint64_t record = 0x1122334455667788;
    const uint64_t unused = 0x99aabbccddeeff00;
    const uint32_t words[] = {JNL_STATUS_SUCCESS, 5, 4711};
    const int32_t errors[] = {-5, -28};
    journal_.set_meta(4100, &words[0], 4);
    journal_.set_meta(4104, &words[1], 4);
    journal_.set_meta(4164, &words[2], 4);
    journal_.set_meta(4168, &record, 8);
    journal_.set_meta(4176, &errors[0], 4);
    journal_.set_meta(4180, &errors[1], 4);
    journal_.set_meta(4184, &unused, 8);
    ASSERT_EQ(load_jnl(journal_.path()), 0);
    const jnl_header header = current_jnl.header;
    EXPECT_EQ(uint64_t{header.jnl_total_count}, 64u);
    EXPECT_EQ(uint32_t{header.jnl_shutdown_tag}, 0x25521814u);
    EXPECT_EQ(uint32_t{header.jnl_sync_count}, 5u);
    EXPECT_EQ(uint32_t{header.jnl_last_trans_id}, 4711u);
    EXPECT_EQ(uint64_t{header.jnl_last_record_start}, record);
    EXPECT_EQ(int32_t{header.jnl_last_flush_errno}, -5);
    EXPECT_EQ(int32_t{header.jnl_last_recovery_error}, -28);
    EXPECT_EQ(uint64_t{header.jnl_empty_record_start}, unused);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(jnl_file_test, a_load_that_fails_leaves_the_header_and_a_descriptor_to_close) {
    ASSERT_EQ(load_jnl(journal_.path()), 0);
    const std::string before = hex_of(current_jnl.header);
    close_jnl();
    const uint64_t magic = 1;
    journal_.set_meta(8, &magic, sizeof magic);
    EXPECT_EQ(load_jnl(journal_.path()), -1);
    EXPECT_GT(current_jnl.fd, 0);
    EXPECT_EQ(hex_of(current_jnl.header), before);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: meta_hdr_d2m(#) mismatched MAGIC_CODE, "
                                       "hdr->magic_code(0000000000000001)\n"}));
    close_jnl();
    EXPECT_EQ(current_jnl.fd, 0);
}

TEST_F(jnl_file_test, a_node_with_a_wrong_checksum_fails_the_load) {
    write_file_bytes(journal_.path(), 4164, "\xff", 1);
    EXPECT_EQ(load_jnl(journal_.path()), -1);
    EXPECT_GT(current_jnl.fd, 0);
}

TEST_F(jnl_file_test, a_path_that_is_null_or_does_not_exist_fails) {
    EXPECT_EQ(load_jnl(nullptr), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: load_jnl(#) name NULL pointer\n"}));
    log_.clear();
    EXPECT_EQ(load_jnl("/nowhere/EP_JNL"), -1);
    EXPECT_EQ(log_.lines().back(), no_journal("load_jnl"));
    EXPECT_EQ(current_jnl.fd, 0);
}

TEST_F(jnl_file_test, without_a_journal_there_is_no_status) {
    close_jnl();  // nothing to do
    EXPECT_EQ(journal_status(), -1);
    EXPECT_EQ(set_journal_status(JNL_STATUS_BAD), -1);
    EXPECT_EQ(journal_sync_count(), 0u);
    EXPECT_EQ(log_.lines(),
              log_lines({no_journal("journal_status"), no_journal("set_journal_status"),
                         no_journal("journal_sync_count")}));
}

TEST_F(jnl_file_test, the_status_is_the_tag_as_a_signed_value) {
    const std::pair<uint32_t, int32_t> cases[] = {{0, 0},
                                                  {0x25521814, 626137108},
                                                  {0xFFFFFFFF, -1},
                                                  {0x66656800, 1717921792},
                                                  {0x77777777, 2004318071}};
    for (const auto& [tag, status] : cases) {
        set_tag(tag);
        ASSERT_EQ(load_jnl(journal_.path()), 0);
        EXPECT_EQ(journal_status(), status);
        close_jnl();
    }
}

TEST_F(jnl_file_test, setting_the_status_changes_the_tag_and_its_nodes_checksum_only) {
    for (uint64_t at : {uint64_t{36}, uint64_t{100}, uint64_t{4150}, uint64_t{4200}}) {
        journal_.set_meta(at, "carried", 7);  // bytes that have no meaning
    }
    for (const uint32_t known : {0u, 0x25521814u, 0xFFFFFFFFu, 0x66656800u, 0x77777777u}) {
        set_tag(known);
        ASSERT_EQ(load_jnl(journal_.path()), 0);
        EXPECT_EQ(set_journal_status(JNL_STATUS_BAD), 0);
        EXPECT_EQ(journal_status(), 1717921792);
        close_jnl();
        const std::string got = meta_bytes();
        set_tag(0x66656800);  // the expected bytes, with the checksum computed by the test
        EXPECT_EQ(got, meta_bytes());
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(jnl_file_test, an_unknown_tag_is_not_replaced_and_any_value_may_replace_a_known_one) {
    set_tag(1);
    const std::string before = meta_bytes();
    ASSERT_EQ(load_jnl(journal_.path()), 0);
    EXPECT_EQ(set_journal_status(JNL_STATUS_SUCCESS), -1);
    EXPECT_EQ(journal_status(), 1);
    EXPECT_EQ(meta_bytes(), before);
    close_jnl();
    set_tag(0);
    ASSERT_EQ(load_jnl(journal_.path()), 0);
    EXPECT_EQ(set_journal_status(7), 0);
    EXPECT_EQ(journal_status(), 7);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(jnl_file_test, a_status_that_cannot_be_written_still_returns_0_and_is_counted) {
    set_tag(JNL_STATUS_ABNORMAL);
    journal_.set_meta(4164, "id", 2);  // every node has its checksum
    const std::string before = meta_bytes();
    ASSERT_EQ(load_jnl(journal_.path()), 0);
    for (const int error : {EIO, 0}) {  // 0: half of the bytes
        keep_journal_forget();
        io_fault_at fault(1, error, {io_call::write});
        EXPECT_EQ(set_journal_status(JNL_STATUS_ABNORMAL), 0);
        EXPECT_TRUE(fault.fired());
        EXPECT_EQ(keep_journal_reasons().count, 1u);
    }
    {
        io_fault_at fault(1, EIO, {io_call::write});
        EXPECT_EQ(set_journal_status(JNL_STATUS_BAD), 0);
    }
    EXPECT_EQ(journal_status(), 1717921792);
    EXPECT_EQ(meta_bytes(), before);
}

TEST_F(jnl_file_test, the_budget_is_twice_the_sync_count_and_does_not_wrap) {
    const std::pair<uint32_t, uint32_t> cases[] = {{0, 128},
                                                   {1, 2},
                                                   {5, 10},
                                                   {0x7FFFFFFF, 0xFFFFFFFE},
                                                   {0x80000000, 0xFFFFFFFF},
                                                   {0xFFFFFFFF, 0xFFFFFFFF}};
    for (const auto& [count, budget] : cases) {
        journal_.set_meta(4104, &count, sizeof count);
        ASSERT_EQ(load_jnl(journal_.path()), 0);
        EXPECT_EQ(journal_sync_count(), budget);
        close_jnl();
    }
}

TEST_F(jnl_file_test, closing_syncs_a_written_status_and_a_sync_that_fails_is_counted) {
    set_tag(JNL_STATUS_ABNORMAL);
    ASSERT_EQ(load_jnl(journal_.path()), 0);
    EXPECT_EQ(set_journal_status(JNL_STATUS_BAD), 0);
    io_fault_at fault(1, EIO, {io_call::sync});
    close_jnl();
    EXPECT_TRUE(fault.fired());
    EXPECT_EQ(keep_journal_reasons().count, 1u);
    EXPECT_EQ(current_jnl.fd, 0);
}
