// Maps with entries, tables with entries, data files, and the lines that a scan of a map prints.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "jnl/jnl_format.h"

struct sample_entry {
    uint64_t lea;
    uint64_t lpa;
};

// A map of `total` entries whose header counts `mapped`, with those entries in sealed nodes.
void make_filled_map(const std::string& path, uint64_t total, uint64_t mapped,
                     const std::vector<sample_entry>& entries);

// Maps lea 0 of a new LUN to extent 300 of a sound volume, counted in its table. Returns the blocks
// of a journal that records one change of each kind of file; group 0 has `free_count` extents left.
std::vector<jnl_block> put_mapped_lun(const std::string& root, uint16_t free_count);

// A run of entries: lea 0 to count - 1, the lpa counting up from `lpa`.
std::vector<sample_entry> run_of_entries(uint64_t count, uint64_t lpa);
uint64_t mapped_count_of(const std::string& map_path);

// Flips bit 0 of the last byte of data node `node`'s entries (byte 503); the checksum stays.
void spoil_node(const std::string& path, uint64_t node);
// All 512 bytes of a node.
std::vector<uint8_t> node_bytes(const std::string& path, uint64_t node);

// Sets the word of one entry in a table, or in an index, in a sealed block.
void set_tbl_word(const std::string& path, uint64_t lpa, uint16_t word);
void set_fri_word(const std::string& path, uint64_t group, uint64_t word);
uint64_t fri_word_of(const std::string& path, uint64_t group);
// The header fields of an index.
uint64_t fri_group_count_of(const std::string& path);
uint64_t fri_free_count_of(const std::string& path);
uint64_t fri_group_head_of(const std::string& path);
std::vector<uint8_t> uuid_in(const std::string& path);  // of any metadata file

// Sets eight bytes of a header at byte `offset`, in the node that begins at byte `node`.
void set_header_u64(const std::string& path, uint64_t node, uint64_t offset, uint64_t value);

// A data file of that uuid: its header area, then `extents` mebibytes of bytes 0xd5.
void make_dat(const std::string& path, uint8_t uuid_byte, uint64_t extents);

// "TARN_INFO: Processing mapping <p>/100\n" for p from `first` to `last`.
std::string progress_lines(unsigned first, unsigned last);
