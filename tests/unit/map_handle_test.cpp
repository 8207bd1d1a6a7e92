#include "map/map_handle.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>

#include "store/crc32c.h"
#include "store/meta_node.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/scratch_file.h"

namespace {

// A map whose pool table has `rows` rows of bytes 0x33 and whose header says `count`.
void make_pools(scratch_file* file, uint32_t count, size_t rows) {
    const std::vector<uint8_t> table(rows * 16, 0x33);
    map_header header{};
    header.map_magic_code = 0x0886255218140633;
    header.map_type = 4;
    header.map_pool_cnt = count;
    uint32_t checksum = 0;
    tarn_crc32c(table.data(), static_cast<uint32_t>(table.size()), &checksum);
    header.map_pool_cksum = checksum;
    ASSERT_EQ(tarn_save_meta_nodes(file->fd(), &header, 2, 3), 0);
    file->write_bytes(8192, table.data(), table.size());
}

class map_handle_of : public testing::Test {
protected:
    ~map_handle_of() override {
        if (loaded_) {
            close_map_handle(handle_.get());
        }
    }
    int load() {
        const int result = load_map_handle(handle_.get(), file_.path());
        loaded_ = result == 0;
        return result;
    }
    std::string logged(const std::string& message) {
        return "ERR: load_map_handle(#) " + message + " for MAP " + file_.path() + "\n";
    }
    // Nothing of a failed load stays open or allocated.
    void expect_let_go() {
        EXPECT_EQ(handle_->pools, nullptr);
        EXPECT_EQ(fcntl(handle_->fd, F_GETFD), -1);
    }

    scratch_file file_;
    log_capture log_;
    std::unique_ptr<map_handle> handle_ = std::make_unique<map_handle>();
    bool loaded_ = false;
};

}  // namespace

TEST_F(map_handle_of, a_sound_map_has_header_path_pools_and_an_empty_cache) {
    make_pools(&file_, 2, 2);
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(log_.lines(), log_lines({}));
    EXPECT_STREQ(handle_->path, file_.path());
    EXPECT_EQ(hex_of(handle_->header).substr(3 * 8, 24), "33 06 14 18 52 25 86 08\n");
    EXPECT_EQ(hex_of_bytes(handle_->pools[1], 16),
              "33 33 33 33 33 33 33 33 33 33 33 33 33 33 33 33\n");
    EXPECT_EQ(handle_->cache.node_num, 0xFFFFFFFFFFFFFFFFu);
}

TEST_F(map_handle_of, a_map_with_a_wrong_magic_code_loads_and_is_logged) {
    map_header wrong{};
    wrong.map_magic_code = 0x1122334455667788;
    ASSERT_EQ(tarn_save_meta_nodes(file_.fd(), &wrong, 2, 3), 0);
    EXPECT_EQ(load(), 0);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: meta_hdr_d2m(#) mismatched MAGIC_CODE, "
                                       "hdr->magic_code(1122334455667788)\n"}));
}

TEST_F(map_handle_of, a_map_without_pools_has_no_table) {
    make_pools(&file_, 0, 0);
    EXPECT_EQ(load(), 0);
    EXPECT_EQ(handle_->pools, nullptr);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(map_handle_of, 1024_pools_are_fine_and_1025_are_logged_read_and_checked) {
    make_pools(&file_, 1024, 1024);
    EXPECT_EQ(load(), 0);
    EXPECT_EQ(log_.lines(), log_lines({}));
    close_map_handle(handle_.get());
    const std::string warning =
        "ERR: load_map_handle(#) map_pool_cnt 1025 exceed EC_MAX_VOL_NUM (1024)\n";
    make_pools(&file_, 1025, 1025);
    EXPECT_EQ(load(), 0);
    EXPECT_EQ(log_.lines(), log_lines({warning}));
    EXPECT_EQ(handle_->pools[1024][15], 0x33);
    close_map_handle(handle_.get());
    log_.clear();
    file_.write_at(8192 + 16399, uint8_t{0x34});  // the last byte of the table
    EXPECT_EQ(load(), -1);
    EXPECT_EQ(log_.lines(), log_lines({warning, logged("cksum error, 1025 pools")}));
    expect_let_go();
}

TEST_F(map_handle_of, a_pool_table_with_a_wrong_checksum_fails) {
    make_pools(&file_, 1, 1);
    file_.write_at(8192, uint8_t{0});
    EXPECT_EQ(load(), -1);
    EXPECT_EQ(log_.lines(), log_lines({logged("cksum error, 1 pool")}));
    expect_let_go();
}

TEST_F(map_handle_of, a_pool_table_that_cannot_be_read_in_full_fails) {
    make_pools(&file_, 2, 2);
    for (const int error : {EIO, 0}) {  // 0: it stops short
        log_.clear();
        const io_fault_at fault(2, error, {io_call::read});  // after the header
        EXPECT_EQ(load(), -1);
        EXPECT_EQ(log_.lines(), log_lines({logged("Fail to load 2 pools")}));
        expect_let_go();
    }
}

TEST_F(map_handle_of, a_pool_table_that_the_file_cuts_fails) {
    make_pools(&file_, 3, 2);
    EXPECT_EQ(load(), -1);
    EXPECT_EQ(log_.lines(), log_lines({logged("Fail to load 3 pools")}));
    expect_let_go();
}

TEST_F(map_handle_of, a_pool_table_past_the_first_mebibyte_fails_before_it_is_read) {
    // 65024 rows of 16 bytes from byte 8192 on end at byte 1048576.
    make_pools(&file_, 65024, 65024);
    EXPECT_EQ(load(), 0);
    close_map_handle(handle_.get());
    const struct {
        uint32_t count;
        const char* shown;
    } rows[] = {{65025, "65025"}, {0x10000001, "268435457"}, {0xFFFFFFFF, "-1"}};
    for (const auto& [count, shown] : rows) {
        log_.clear();
        make_pools(&file_, count, 65025);
        const io_fault_at reads(0, 0, {io_call::read});
        EXPECT_EQ(load(), -1) << count;
        EXPECT_EQ(reads.calls(), 1u);  // the header alone
        EXPECT_EQ(log_.last(), logged(std::string("Fail to load ") + shown + " pools"));
        EXPECT_EQ(log_.count("exceed EC_MAX_VOL_NUM (1024)"), 1u);
        expect_let_go();
    }
}

TEST_F(map_handle_of, missing_arguments_and_files_are_logged) {
    EXPECT_EQ(load_map_handle(handle_.get(), nullptr), -1);
    EXPECT_EQ(load_map_handle(nullptr, nullptr), -1);
    EXPECT_EQ(load_map_handle(nullptr, file_.path()), -1);
    EXPECT_EQ(close_map_handle(nullptr), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: load_map_handle(#) name NULL pointer\n",
                                       "ERR: load_map_handle(#) name NULL pointer\n",
                                       "ERR: load_map_handle(#) handle NULL pointer\n",
                                       "ERR: close_map_handle(#) handle NULL pointer\n"}));
    EXPECT_EQ(load_map_handle(handle_.get(), "/nonexistent"), -1);
    EXPECT_EQ(log_.last(), "ERR: load_map_handle(#) map file descriptor is invalid\n");
}

TEST_F(map_handle_of, a_damaged_header_node_fails) {
    make_pools(&file_, 1, 1);
    file_.write_at(4096 + 130, uint8_t{1});  // in variable node 2
    EXPECT_EQ(load(), -1);
    EXPECT_EQ(log_.last(), "ERR: tarn_load_meta_nodes(#) var meta node[2] read fail\n");
    expect_let_go();
}

TEST_F(map_handle_of, closing_empties_the_cache_and_does_not_sync_an_unwritten_file) {
    make_pools(&file_, 1, 1);
    ASSERT_EQ(load(), 0);
    ASSERT_EQ(tarn_cache_node_load(&handle_->cache, handle_->fd, 3), 0);
    const int fd = handle_->fd;
    const io_fault_at syncs(0, 0, {io_call::sync});
    EXPECT_EQ(close_map_handle(handle_.get()), 0);
    EXPECT_EQ(syncs.calls(), 0u);  // nothing was written
    EXPECT_EQ(handle_->fd, 0);
    EXPECT_EQ(handle_->cache.node_num, 0xFFFFFFFFFFFFFFFFu);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(close_map_handle(handle_.get()), 0);  // closed already
}

TEST_F(map_handle_of, a_load_fails_at_whichever_call_fails_and_releases_everything) {
    make_pools(&file_, 2, 2);
    failed_calls failed;
    uint64_t n = 1;
    for (bool fired = true; fired; n++) {
        log_.clear();
        const io_fault_at fault(n, EIO);
        const int result = load();
        fired = failed.add(fault);
        EXPECT_EQ(result, fired ? -1 : 0) << n;
        EXPECT_EQ(log_.lines().empty(), !fired) << n;
        EXPECT_EQ(handle_->pools == nullptr, fired) << n;
    }
    EXPECT_EQ(failed.in_order(), "open seek read seek read");  // the header, the pool table
}
