// What a recorded run did to the files of a tree up to some moment: every value that each block,
// size, permission and name has had, and how much of it a sync made durable. The rules are in
// power_cut.h. Below: recording.h. Above: power_cut.cpp.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "campaign/recording.h"

struct cut_run {
    std::string before;                    // a copy of the tree as it was before the run
    std::string root;                      // where the tree was during the run
    std::map<file_id, std::string> files;  // identities_of(root) before the run
    std::vector<operation> operations;
};

constexpr size_t DISK_BLOCK = 512;
using disk_block = std::array<uint8_t, DISK_BLOCK>;

// The values that one datum has had since the start: `values[i]` after operation `changes[i]`.
template <class Value>
struct history {
    std::vector<size_t> changes;
    std::vector<Value> values;
    size_t covered = 0;  // this many of them are durable
    size_t kept = 0;     // this many of them are on the disk; set by the caller's decision

    void add(size_t op, const Value& value) {
        changes.push_back(op);
        values.push_back(value);
    }
    // The value after all of them, and the one on the disk; `first`: before the run.
    [[nodiscard]] Value now(const Value& first) const {
        return values.empty() ? first : values.back();
    }
    [[nodiscard]] Value left(const Value& first) const {
        return kept == 0 ? first : values[kept - 1];
    }
};

// A file or directory, independent of its names.
struct disk_node {
    disk_node() = default;
    ~disk_node();
    disk_node(const disk_node&) = delete;
    disk_node& operator=(const disk_node&) = delete;

    std::string base;  // the file before the run, empty: made in it
    int base_fd = -1;  // reads it
    std::string file;  // its first name
    uint64_t base_size = 0;
    uint64_t base_mode = 0600;
    bool is_directory = false;
    history<uint64_t> size;
    history<uint64_t> mode;
    std::map<uint64_t, history<disk_block>> blocks;  // by their number in the file
};
using node_ref = std::shared_ptr<disk_node>;
using name_map = std::map<std::string, node_ref>;  // below the root; directories too

constexpr size_t NO_CHANGE = SIZE_MAX;

struct name_change {
    op_kind kind;
    size_t op;
    std::string path;
    std::string other;  // of a rename or link
    node_ref made;      // by a create or mkdir
    size_t needs;       // the change that gave the file the name `path`, or NO_CHANGE
    bool covered;
    bool kept;                            // set by the caller's decision
    std::map<std::string, bool> removed;  // of a tree: its names, and which of them are gone
};

struct disk_past {
    name_map before;
    name_map now;  // as the program saw it
    std::vector<name_change> changes;
    std::vector<node_ref> nodes;
    std::map<file_id, node_ref> by_id;
    std::map<std::string, size_t> makers;  // name -> the change that made it
};

// Everything before operation `at` of the run (operations.size(): to its end). A recording that
// makes no sense fails the test.
disk_past past_of(const cut_run& run, size_t at);
// Makes one change of a name. Returns false if there is nothing to change.
bool change_name(name_map* names, const name_change& change);
// Removes, from the leaves on, the names of the tree that are marked so and have nothing below
// them.
void remove_tree(name_map* names, const std::map<std::string, bool>& removed);
// What a block of the file held before the run.
disk_block block_before(const disk_node& file, uint64_t number);
