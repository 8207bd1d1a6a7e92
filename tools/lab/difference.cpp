#include "lab/difference.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "lab/bytes.h"
#include "print.h"

namespace lab {

constexpr size_t ENTRY_BYTES = 504;  // of a block; four bytes and the checksum follow

static std::string in_words(content kind, const uint8_t* bytes) {
    char text[128];
    if (kind == content::tbl_blocks) {
        tbl_entry entry;
        memcpy(&entry, bytes, sizeof entry);
        (void)snprintf(text, sizeof text, "used %d tail %d count/next %u (%04x)",
                       tbl_entry_is_used(&entry) ? 1 : 0, tbl_entry_is_tail(&entry) ? 1 : 0,
                       tbl_entry_count(&entry), entry.word);
    } else if (kind == content::fri_blocks) {
        fri_entry entry;
        memcpy(&entry, bytes, sizeof entry);
        (void)snprintf(text, sizeof text, "init %d next %llu head %u free %u attribute %04x",
                       fri_entry_is_init(&entry) ? 1 : 0, ull(fri_entry_next(&entry)),
                       fri_entry_head(&entry), fri_entry_count(&entry), entry.ef_count_attr);
    } else {
        map_entry entry;
        memcpy(&entry, bytes, sizeof entry);
        (void)snprintf(text, sizeof text, "mapped %d lpa %llu pool row %u (%016llx)",
                       map_entry_is_mapped(&entry), ull(map_entry_get_lpa(&entry)),
                       map_entry_get_poolnum(&entry), ull(entry.word));
    }
    return text;
}

static std::string mismatch(const std::string& what, const std::string& expected,
                            const std::string& found) {
    return what + ": expected " + expected + ", found " + found;
}

struct block_shape {
    const char* entry;  // name of an index into the entries
    size_t entry_size;
};

static block_shape shape_of(content kind) {
    switch (kind) {
        case content::tbl_blocks:
            return {"lpa", sizeof(tbl_entry)};
        case content::fri_blocks:
            return {"group", sizeof(fri_entry)};
        default:
            return {"lea", sizeof(map_entry)};
    }
}

static std::string describe_block(const chunk& expected, const std::vector<uint8_t>& found,
                                  size_t at) {
    const block_shape shape = shape_of(expected.kind);
    const size_t block = at / DATA_NODE_SIZE;
    const size_t in_block = at % DATA_NODE_SIZE;
    if (in_block >= ENTRY_BYTES) {
        const size_t start = at - at % sizeof(uint32_t);
        const char* what = in_block < ENTRY_BYTES + 4 ? "bytes 504 to 507" : "checksum";
        return mismatch("block " + std::to_string(block) + ", " + what,
                        hex_of(&expected.bytes[start], sizeof(uint32_t)),
                        hex_of(&found[start], sizeof(uint32_t)));
    }
    const size_t slot = in_block / shape.entry_size;
    const size_t start = block * DATA_NODE_SIZE + slot * shape.entry_size;
    const size_t index = block * (ENTRY_BYTES / shape.entry_size) + slot;
    return mismatch(std::string(shape.entry) + " " + std::to_string(index),
                    in_words(expected.kind, &expected.bytes[start]),
                    in_words(expected.kind, &found[start]));
}

struct header_field {
    content kind;
    size_t offset;  // in the file
    size_t width;   // bytes
    const char* name;
};
constexpr size_t IN_VAR_AREA = META_VAR_NODE_BASE * META_NODE_SIZE;
constexpr header_field HEADER_FIELDS[] = {
    {content::fri_header, 72, 8, "group count"},
    {content::fri_header, IN_VAR_AREA + 4, 8, "free count"},
    {content::fri_header, IN_VAR_AREA + 12, 8, "group head"},
    {content::map_header, 76, 8, "total count"},
    {content::map_header, IN_VAR_AREA + 4, 8, "mapped count"},
    {content::jnl_header, IN_VAR_AREA + 4, 4, "status"},
};

// If a node's checksum and its other bytes differ, skips the checksum: the other difference is
// reported instead.
static std::string describe_header(const chunk& expected, const std::vector<uint8_t>& found,
                                   size_t at) {
    while (at % META_NODE_SIZE < sizeof(uint32_t) && at + 1 < found.size() &&
           memcmp(&expected.bytes[at - at % META_NODE_SIZE + sizeof(uint32_t)],
                  &found[at - at % META_NODE_SIZE + sizeof(uint32_t)],
                  META_NODE_SIZE - sizeof(uint32_t)) != 0) {
        at++;
        while (at < found.size() && expected.bytes[at] == found[at]) {
            at++;
        }
    }
    for (const header_field& field : HEADER_FIELDS) {
        const size_t offset = expected.offset + at;
        if (field.kind == expected.kind && offset >= field.offset &&
            offset < field.offset + field.width) {
            uint64_t expected_value = 0;
            uint64_t found_value = 0;
            memcpy(&expected_value, &expected.bytes[field.offset - expected.offset], field.width);
            memcpy(&found_value, &found[field.offset - expected.offset], field.width);
            return mismatch(field.name, std::to_string(expected_value),
                            std::to_string(found_value));
        }
    }
    return mismatch("header byte " + std::to_string(expected.offset + at),
                    hex_of(&expected.bytes[at], 1), hex_of(&found[at], 1));
}

std::string describe_difference(const chunk& expected, const std::vector<uint8_t>& found,
                                size_t at) {
    switch (expected.kind) {
        case content::tbl_blocks:
        case content::fri_blocks:
        case content::map_nodes:
            return describe_block(expected, found, at);
        case content::bytes:
            return mismatch("byte " + std::to_string(expected.offset + at),
                            hex_of(&expected.bytes[at], 1), hex_of(&found[at], 1));
        default:
            return describe_header(expected, found, at);
    }
}

}  // namespace lab
