// What a server was made of at some moment: plain values, as an inventory file holds them.
// Below: sealed_file.h. Above: whoever takes an inventory, and whoever compares with one.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "ctl/known/sealed_file.h"
#include "metadata.h"

using uuid_bytes = std::array<uint8_t, UUID_SIZE>;

inline uuid_bytes uuid_bytes_of(const uint8_t* uuid) {
    uuid_bytes bytes;
    std::copy_n(uuid, UUID_SIZE, bytes.begin());
    return bytes;
}

struct known_map {
    std::string below;  // path below the volume's root
    std::string lun;    // as people call it
    std::string kind;   // "lun", "snapshot", "trash", ...
    uuid_bytes uuid;
    uint64_t entries;   // that is its size
    uint64_t mapped;    // of them
    uint64_t end;       // after the highest mapped one
    uint64_t contents;  // a number that depends on every mapped entry
};

struct known_data_file {
    uint64_t number;
    uint64_t size;  // bytes
};

struct known_volume {
    std::string root;
    std::string device;  // "MAJOR:MINOR" of its file system
    uuid_bytes table;    // uuid; zero: no table
    uuid_bytes index;
    uint64_t extent_size;  // bytes
    std::vector<known_map> maps;
    std::vector<known_data_file> data_files;
};

std::string device_words(uint64_t device);  // as known_volume has it

struct inventory {
    std::string server;   // host name
    std::string written;  // "2026-11-22T09:15:00Z"
    std::string tool;
    std::string journal_status;  // empty: none, or not readable
    uint64_t journal_last_id = 0;
    std::vector<uuid_bytes> journal_names;  // files that the journal's window has records for
    std::vector<known_volume> volumes;
};

// Unless `read`, `problem` says why.
kept_end read_inventory(const std::string& path, inventory* out, std::string* problem);
// The last eight are kept. False: `problem` says why, and the file is what it was.
bool write_inventory(const std::string& path, const inventory& content, std::string* problem);
