// The bytes of a LUN, found through its map: which stretch of which data file, or why not. Nothing
// is written, printed or logged; what cannot be known is part of the answer. With an overlay that
// is on, the map is the one that a replay would leave.
// Below: the seam, data_node.h, map_format.h. Above: whoever copies or serves a LUN.
#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "map/map_format.h"
#include "store/data_node.h"
#include "store/descriptor.h"

// A data file of a volume.
struct lun_data_file {
    uint64_t number;
    std::string path;
};

// What a LUN is read through. Whoever fills this has looked at the headers.
struct lun_layout {
    std::string map;                  // path
    uint64_t entries;                 // of the map
    uint32_t shift;                   // an extent has 2^shift bytes
    uint64_t nodes_end;               // nodes from here on are lost: the map's file was cut
    std::vector<uint64_t> bad_nodes;  // known to be bad, whatever their checksum is; ascending
    std::vector<int> volume_of_row;   // of the pool table: a number in `volumes`; -1: none
    std::vector<std::vector<lun_data_file>> volumes;  // by number of the file
};

enum class lun_stretch_kind {
    data,
    unmapped,
    unwritten,  // mapped, but a hole of the data file
    past_end,   // mapped, but past the end of the last data file: never written, or it was cut
    bad_node,   // of the map: damaged, cut off, or it cannot be read
    bad_row,    // the entry names a row of the pool table that leads to no volume
    bad_lpa,    // the entry names an extent that no table has
    no_file,    // the data file is missing, or cannot be opened
    unread,     // the data cannot be read; never an answer of lun_reader
};
constexpr size_t LUN_STRETCH_KINDS = 9;
// Its bytes are zero, and known to be.
constexpr bool is_lun_hole(lun_stretch_kind kind) {
    return kind == lun_stretch_kind::unmapped || kind == lun_stretch_kind::unwritten ||
           kind == lun_stretch_kind::past_end;
}
constexpr bool is_lun_missing(lun_stretch_kind kind) {
    return kind >= lun_stretch_kind::bad_node;
}

// Bytes of a LUN that are all of one kind.
struct lun_stretch {
    lun_stretch_kind kind;
    uint64_t bytes;
    int fd;       // of the data file, for data
    uint64_t at;  // byte there
};

// Reads bytes of a data file. False: one of them cannot be read; errno is ENODATA if the file ends
// before it.
bool read_lun_data(int fd, void* to, uint64_t bytes, uint64_t at);

class lun_reader {
public:
    explicit lun_reader(lun_layout layout) : layout_(std::move(layout)) {}
    ~lun_reader() { io_close(map_); }
    lun_reader(const lun_reader&) = delete;
    lun_reader& operator=(const lun_reader&) = delete;

    // Opens the map and every data file, once. Returns 0, or the errno of the map. A data file that
    // cannot be opened is one that is missing.
    int open();

    [[nodiscard]] uint64_t size() const { return layout_.entries << layout_.shift; }
    // What begins at byte `offset`, at most `limit` bytes of it; both lie in the LUN. The stretch
    // after it may be of the same kind. One call at a time.
    lun_stretch stretch_at(uint64_t offset, uint64_t limit);

private:
    // Where an extent lies.
    struct place {
        lun_stretch_kind kind = lun_stretch_kind::unmapped;
        int fd = 0;
        uint64_t at = 0;
        uint64_t file_size = 0;
        bool operator==(const place&) const = default;
    };
    struct opened_file {
        uint64_t number;
        scoped_fd fd;
        uint64_t size;  // bytes, when it was opened
    };
    // Neighbours in the LUN that are neighbours in a data file.
    struct mapped_run {
        uint64_t begin = 0;  // bytes of the LUN
        uint64_t end = 0;
        place where;  // of its begin
    };
    static constexpr uint64_t CACHED = 64;  // nodes, one after the other

    const data_node* node_of(uint64_t number);  // null: it is bad
    void load(uint64_t first);
    bool read_alone(uint64_t number);
    place place_of(uint64_t lea);
    [[nodiscard]] place place_of_word(uint64_t word) const;
    uint64_t end_of_blank(uint64_t lea);
    uint64_t step(lun_stretch_kind kind, uint64_t lea);
    uint64_t end_of_alike(const place& where, uint64_t lea, uint64_t end);
    void find_run(uint64_t offset, uint64_t end);

    lun_layout layout_;
    int map_ = 0;
    std::vector<std::vector<opened_file>> files_;  // as layout_.volumes
    std::array<data_node, CACHED> nodes_ = {};
    std::bitset<CACHED> good_;
    uint64_t cached_ = ~uint64_t{0};  // number of the first node
    mapped_run run_;
};
