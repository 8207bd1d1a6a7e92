// Handles of every kind can be opened read-only.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>

#include "fri/fri_file.h"
#include "map/map_handle.h"
#include "support/log_capture.h"
#include "support/open_files.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "tbl/tbl_file.h"

// Opens `path` with and without the argument, and closes it.
template <class handle_type>
static void expect_access(int (*load)(handle_type*, const char*, file_access),
                          int (*close)(handle_type*), const std::string& path) {
    const size_t before = open_files();
    for (const file_access access : {file_access::read_write, file_access::read_only}) {
        auto handle = std::make_unique<handle_type>();
        ASSERT_EQ(load(handle.get(), path.c_str(), access), 0);
        const int expected = access == file_access::read_only ? O_RDONLY : O_RDWR;
        EXPECT_EQ(fcntl(handle->fd, F_GETFL) & O_ACCMODE, expected) << path;
        EXPECT_EQ(handle->path, path);
        EXPECT_EQ(close(handle.get()), 0);
    }
    EXPECT_EQ(open_files(), before);
}

TEST(handle_access, is_read_only_when_asked_for_and_for_every_kind) {
    const scratch_dir dir;
    const log_capture log;
    for (const char* name : {"tbl", "fri", "map"}) {
        make_empty_file(dir.file(name));
    }
    make_tbl(dir.file("tbl"), uuid_of(0xA1));
    make_fri(dir.file("fri"), uuid_of(0xA1), 0);
    make_map(dir.file("map"), uuid_of(0xA2), uuid_of(0xA1));
    expect_access<tbl_handle>(load_tbl_handle, close_tbl_handle, dir.file("tbl"));
    expect_access<fri_handle>(load_fri_handle, close_fri_handle, dir.file("fri"));
    expect_access<map_handle>(load_map_handle, close_map_handle, dir.file("map"));
    EXPECT_EQ(log.lines(), log_lines({}));
}

TEST(handle_access, is_for_writing_by_default) {
    const scratch_dir dir;
    make_empty_file(dir.file("tbl"));
    make_tbl(dir.file("tbl"), uuid_of(0xA1));
    auto handle = std::make_unique<tbl_handle>();
    ASSERT_EQ(load_tbl_handle(handle.get(), dir.file("tbl").c_str()), 0);
    EXPECT_EQ(fcntl(handle->fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(close_tbl_handle(handle.get()), 0);
}
