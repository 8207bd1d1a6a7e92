#include "store/header_file.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>

#include "store/descriptor.h"
#include "store/meta_node.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/scratch_file.h"

constexpr header_kind KIND = {"tbl", 2, 0};

// A file of two constant nodes, the first word of each its number.
class header_file : public testing::Test {
protected:
    header_file() {
        for (uint32_t i = 0; i < 2; i++) {
            nodes_[i] = {};
            memcpy(&nodes_[i], &i, sizeof i);
            EXPECT_GT(tarn_write_const_meta_node(file_.fd(), &nodes_[i], i), 0);
        }
    }
    meta_node nodes_[2];
    scratch_file file_{1 << 20};
    log_capture log_;
};

TEST_F(header_file, is_left_open_with_its_header_read) {
    meta_node header[2] = {};
    const scoped_fd fd(open_with_header("load_it", KIND, file_.path(), header));
    ASSERT_GT(fd.get(), 0);
    EXPECT_EQ(memcmp(header, nodes_, sizeof header), 0);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(header_file, can_be_opened_read_only) {
    for (const file_access access : {file_access::read_write, file_access::read_only}) {
        meta_node header[2] = {};
        const scoped_fd fd(open_with_header("load_it", KIND, file_.path(), header, access));
        ASSERT_GT(fd.get(), 0);
        EXPECT_EQ(memcmp(header, nodes_, sizeof header), 0);
        const bool writes = access == file_access::read_write;
        EXPECT_EQ(fcntl(fd.get(), F_GETFL) & O_ACCMODE, writes ? O_RDWR : O_RDONLY);
        EXPECT_EQ(io_write(fd.get(), "x", 1), writes ? 1 : -1);
    }
}

TEST_F(header_file, that_is_missing_is_logged_under_the_name_of_the_caller) {
    const scratch_dir dir;
    meta_node header[2] = {};
    EXPECT_EQ(open_with_header("load_it", KIND, dir.file("none").c_str(), header), 0);
    EXPECT_EQ(log_.last(), "ERR: load_it(#) tbl file descriptor is invalid\n");
}

TEST_F(header_file, that_cannot_be_read_stays_not_open) {
    meta_node header[2] = {};
    const int next = dup(file_.fd());  // the number that the next open takes
    close(next);
    const io_fault_at fault(1, EIO, {io_call::read});
    EXPECT_EQ(open_with_header("load_it", KIND, file_.path(), header), 0);
    EXPECT_EQ(fcntl(next, F_GETFD), -1);
    EXPECT_TRUE(log_.has("const meta node[0] read fail\n"));
}

TEST_F(header_file, is_synced_at_its_end_unless_it_is_dropped) {
    for (const bool dropped : {false, true}) {
        int fd = io_open(file_.path(), O_RDWR, 0);
        const int number = fd;
        EXPECT_EQ(io_write(fd, "x", 1), 1);
        auto* buffer = new uint8_t[8];
        const io_fault_at syncs(0, 0, {io_call::sync});
        if (dropped) {
            EXPECT_EQ(drop_handle(&fd, &buffer), -1);
        } else {
            end_handle(&fd, &buffer);
        }
        EXPECT_EQ(syncs.calls(), dropped ? 0u : 1u);
        EXPECT_EQ(fd, 0);
        EXPECT_EQ(buffer, nullptr);
        EXPECT_EQ(fcntl(number, F_GETFD), -1);
    }
}
