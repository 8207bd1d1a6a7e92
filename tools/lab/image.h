// The bytes of each file of a sample, computed from the model with only the on-disk formats.
// Below: model.h, the format headers, the checksum. Above: the writer and the comparison.
#pragma once

#include <string>
#include <vector>

#include "lab/model.h"

namespace lab {

// The kind of data in a chunk, for the description of a difference.
enum class content {
    bytes,
    tbl_header,
    fri_header,
    map_header,
    jnl_header,
    tbl_blocks,
    fri_blocks,
    map_nodes
};

struct chunk {
    uint64_t offset;  // in the file
    content kind;
    std::vector<uint8_t> bytes;
    bool may_be_zero = false;  // on the disk: the data of a free extent
};

// Bytes outside all chunks are zero.
struct file_image {
    std::string path;  // below the sample's directory
    uint64_t size;
    std::vector<chunk> chunks;   // ascending, without overlap
    bool may_be_longer = false;  // a running service extends the file ahead of its use
};

enum class file_kind { fri, tbl, data, decoy, map, journal };
struct file_ref {
    file_kind kind;
    size_t index;   // volume or map
    size_t number;  // of the data file, of the decoy
};

constexpr const char* JOURNAL_PATH = "journal/EP_JNL";

constexpr size_t DATA_FILES = 2;  // of each volume

// Every file of the sample except its two configuration files. The journal comes last.
std::vector<file_ref> list_files(const model& m);
file_image image_of(const model& m, const file_ref& file);

}  // namespace lab
