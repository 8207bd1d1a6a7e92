// The bytes of a LUN through a map made by hand: extents of 4 KiB, three nodes, one data file; and
// the copy of such a LUN if reads or writes fail.
#include "view/lun_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "ctl/export/copy.h"
#include "ctl/export/mapfile.h"
#include "support/scratch_file.h"

using kind = lun_stretch_kind;

static constexpr uint64_t EXTENT = 4096;
static constexpr uint64_t MAPPED = uint64_t{1} << 63;

class lun_readers : public testing::Test {
protected:
    ~lun_readers() override { io_fault = nullptr; }

    // Puts words into a node and seals it.
    void put_node(uint64_t number, const std::vector<std::pair<size_t, uint64_t>>& words) {
        data_node node = {};
        for (const auto& [slot, word] : words) {
            memcpy(node.payload + slot * 8, &word, 8);
        }
        data_node_seal(&node);
        map_.write_bytes(1048576 + number * 512, &node, sizeof node);
    }
    void put_data(uint64_t lpa, char filled_with) {
        data_.write_bytes(1048576 + lpa * EXTENT, std::string(EXTENT, filled_with).data(), EXTENT);
    }
    [[nodiscard]] lun_layout layout(uint64_t entries = 130) const {
        return {map_.path(), entries, 12, 3, {}, {0}, {{{0, data_.path()}}}};
    }
    // "data 8192 @1069056, unmapped 4096, ..." of the whole LUN.
    static std::string stretches(const lun_layout& of) {
        static constexpr const char* WORDS[] = {"data",    "unmapped", "unwritten",
                                                "past",    "bad_node", "bad_row",
                                                "bad_lpa", "no_file",  "unread"};
        lun_reader reader(of);
        EXPECT_EQ(reader.open(), 0);
        std::string text;
        for (uint64_t at = 0; at < reader.size();) {
            const lun_stretch one = reader.stretch_at(at, reader.size() - at);
            text += (text.empty() ? "" : ", ") + std::string(WORDS[static_cast<size_t>(one.kind)]) +
                    " " + std::to_string(one.bytes);
            text += one.kind == kind::data ? " @" + std::to_string(one.at) : "";
            at += one.bytes;
        }
        return text;
    }

    scratch_file map_{1048576 + 3 * 512};
    scratch_file data_{1048576 + 16 * EXTENT};
};

TEST_F(lun_readers, show_neighbours_in_the_data_file_as_one_stretch) {
    put_node(0, {{0, MAPPED | 5}, {1, MAPPED | 6}, {2, MAPPED | 8}, {62, MAPPED | 7}});
    for (const uint64_t lpa : {5, 6, 7, 8}) {
        put_data(lpa, 'a');
    }
    // 130 entries: 63 of node 0, then 67 that are blank. lpa 5 lies at 1048576 + 5 * 4096.
    EXPECT_EQ(stretches(layout()),
              "data 8192 @1069056, data 4096 @1081344, unmapped 241664, data 4096 @1077248, "
              "unmapped 274432");
}

TEST_F(lun_readers, find_a_node_right_behind_blank_ones) {
    put_node(1, {{0, MAPPED | 5}});
    put_data(5, 'a');
    EXPECT_EQ(stretches(layout()), "unmapped 258048, data 4096 @1069056, unmapped 270336");
}

TEST_F(lun_readers, tell_why_bytes_are_not_there) {
    put_node(0, {{0, MAPPED | 1},                      // a hole of the data file
                 {1, MAPPED | 16},                     // past its end
                 {2, MAPPED | uint64_t{1} << 48 | 1},  // row 1
                 {3, MAPPED | 0x000001F800000000},     // the first extent that no table has
                 {4, MAPPED | uint64_t{1} << 30}});    // data file 1
    put_node(1, {{0, MAPPED | 5}});
    put_node(2, {{0, MAPPED | 5}});
    put_data(5, 'a');
    EXPECT_EQ(stretches(layout(5)),
              "unwritten 4096, past 4096, bad_row 4096, bad_lpa 4096, "
              "no_file 4096");
    const uint8_t other = 7;
    map_.write_bytes(1048576 + 512 + 100, &other, 1);  // node 1: 63 extents
    EXPECT_EQ(stretches(layout(127)),
              "unwritten 4096, past 4096, bad_row 4096, bad_lpa 4096, "
              "no_file 4096, unmapped 237568, bad_node 258048, "
              "data 4096 @1069056");
}

TEST_F(lun_readers, believe_what_the_layout_says_of_nodes) {
    put_node(0, {{0, MAPPED | 5}});
    put_node(1, {{0, MAPPED | 5}});
    put_data(5, 'a');
    lun_layout of = layout();
    of.bad_nodes = {0};
    of.nodes_end = 1;
    EXPECT_EQ(stretches(of), "bad_node 532480");
    of.nodes_end = 2;
    EXPECT_EQ(stretches(of),
              "bad_node 258048, data 4096 @1069056, unmapped 253952, "
              "bad_node 16384");
}

TEST_F(lun_readers, take_limits_and_places_inside_an_extent) {
    put_node(0, {{1, MAPPED | 5}, {2, MAPPED | 6}});
    put_data(5, 'a');
    put_data(6, 'b');
    lun_reader reader(layout());
    ASSERT_EQ(reader.open(), 0);
    const lun_stretch before = reader.stretch_at(100, 1000);
    EXPECT_TRUE(before.kind == kind::unmapped && before.bytes == 1000);
    const lun_stretch data = reader.stretch_at(4096 + 100, 5000);
    EXPECT_TRUE(data.kind == kind::data && data.bytes == 5000 && data.at == 1069056 + 100);
    const lun_stretch last = reader.stretch_at(8192 + 4095, 100000);
    EXPECT_TRUE(last.kind == kind::data && last.bytes == 1);
}

TEST_F(lun_readers, report_a_map_that_is_not_there) {
    lun_layout of = layout();
    of.map += ".none";
    EXPECT_EQ(lun_reader(of).open(), ENOENT);
}

// Copies a LUN of four extents into a new file. The first one is unmapped, the last one holds
// zeros.
class lun_copies : public lun_readers {
protected:
    copy_end copy(bool missing_zero) {
        put_node(0, {{1, MAPPED | 5}, {2, MAPPED | 6}, {3, MAPPED | 7}});
        put_data(5, 'a');
        put_data(6, 'b');
        put_data(7, 0);
        lun_reader reader(layout(4));
        EXPECT_EQ(reader.open(), 0);
        io_fault = hook_;
        const copy_end end = copy_lun({&reader, 0, 4 * EXTENT, missing_zero, false, ""},
                                      {out_.fd(), true}, &totals_);
        io_fault = nullptr;
        return end;
    }
    [[nodiscard]] std::string extents() const {  // the first byte of each; a dot for zero
        std::string text;
        for (uint64_t i = 0; i < 4; i++) {
            const uint8_t byte = out_.bytes(i * EXTENT + 4095, 1)[0];
            text += byte == 0 ? '.' : static_cast<char>(byte);
        }
        return text;
    }

    scratch_file out_{4 * EXTENT};
    export_totals totals_;
    io_fault_hook hook_ = nullptr;
};

TEST_F(lun_copies, are_the_same_whether_the_system_shares_bytes_or_not) {
    EXPECT_EQ(copy(false), copy_end::done);
    EXPECT_EQ(extents(), ".ab.");
    EXPECT_EQ(totals_.of(kind::data), 3 * EXTENT);
    static int writes;
    writes = 0;
    hook_ = [](io_call call, size_t wanted) -> io_verdict {
        return {call == io_call::write && ++writes == 1 ? EXDEV : 0, wanted};
    };
    totals_ = {};
    out_.write_bytes(0, std::string(4 * EXTENT, 'x').data(), 4 * EXTENT);
    EXPECT_EQ(copy(false), copy_end::done);
    EXPECT_EQ(extents(), "xabx");  // holes and zeros are left out
    EXPECT_EQ(writes, 2);
    EXPECT_EQ(totals_.of(kind::data), 3 * EXTENT);
}

// No sharing, no read of all extents, and the block at byte 1069056 cannot be read.
static int block_reads;
static int block_writes;
static io_verdict fail_the_first_block(io_call call, size_t wanted) {
    if (call == io_call::write) {
        return {block_writes++ == 0 ? EXDEV : 0, wanted};
    }
    if (call != io_call::read || (wanted != 3 * EXTENT && wanted != EXTENT)) {
        return {0, wanted};
    }
    return {wanted == 3 * EXTENT || ++block_reads == 1 ? EIO : 0, wanted};
}

TEST_F(lun_copies, find_the_block_that_cannot_be_read) {
    hook_ = fail_the_first_block;
    block_reads = block_writes = 0;
    EXPECT_EQ(copy(true), copy_end::done);
    EXPECT_EQ(extents(), "..b.");
    ASSERT_EQ(totals_.missing.size(), 1u);
    EXPECT_EQ(totals_.missing[0].begin, EXTENT);
    EXPECT_EQ(totals_.missing[0].bytes, EXTENT);
    EXPECT_EQ(totals_.missing[0].why, kind::unread);
    block_reads = block_writes = 0;
    totals_ = {};
    EXPECT_EQ(copy(false), copy_end::missing);
}

TEST_F(lun_copies, end_where_a_write_fails) {
    hook_ = [](io_call call, size_t wanted) -> io_verdict {
        return {call == io_call::write ? ENOSPC : 0, wanted};
    };
    EXPECT_EQ(copy(false), copy_end::write_failed);
}

TEST(mapfiles, list_what_was_read_and_what_was_not) {
    const std::string head =
        "# Mapfile. Created by tarnctl 1.0.0\n"
        "# current_pos  current_status  current_pass\n"
        "0x00000000     +               1\n"
        "#      pos        size  status\n";
    EXPECT_EQ(mapfile_text({}, 0), head);
    EXPECT_EQ(mapfile_text({}, 0x123456789A), head + "0x00000000  0x123456789A  +\n");
    export_totals totals;
    totals.add(0, 16, kind::bad_node);
    totals.add(16, 16, kind::no_file);
    totals.add(32, 32, kind::data);
    totals.add(64, 16, kind::unread);
    totals.add(80, 16, kind::unread);
    EXPECT_EQ(totals.missing.size(), 3u);
    EXPECT_EQ(mapfile_text(totals, 96), head +
                                            "0x00000000  0x00000020  -\n"
                                            "0x00000020  0x00000020  +\n"
                                            "0x00000040  0x00000020  -\n");
}
