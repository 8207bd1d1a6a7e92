// Samples of tarn-lab outside the sandbox: how to make one, how to damage it, which files differ
// afterwards, and the checksums of their nodes. Below: shell.h, tree.h.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "support/scratch_file.h"
#include "system/support/shell.h"

// The sample's directory. Fails the test where it cannot be made.
std::string make_sample(const scratch_dir& place, const std::string& name, unsigned seed = 5,
                        const std::string& more = "");
ran damage(const std::string& sample, const std::string& kind, unsigned seed,
           const std::string& more = "");

// The paths, ascending, in which two results of tree_of differ.
std::vector<std::string> changed_files(const std::map<std::string, std::string>& before,
                                       const std::map<std::string, std::string>& after);

// The header node or block in which a byte of a metadata file lies.
struct node_place {
    uint64_t start;
    size_t length;
    size_t checksum;  // its byte in the node
};
node_place node_of(uint64_t byte);
bool checksum_is_right(const node_place& place, std::vector<uint8_t> node);

constexpr uint64_t SAMPLE_ENTRIES = 3000;  // of each map, if the sample is made without --extents
std::vector<uint64_t> entries_of(const std::string& map);

std::string uuid_digits_in(const std::string& metadata_file);  // as 32 digits

// The reports of damages: "FILE: ...", and numbers in them. Fails the test where the words are
// missing.
std::string file_named_first(const std::string& line);
uint64_t number_after(const std::string& line, const std::string& words);

// A place that a report names: "FILE: byte N, ...; byte M, ...; OTHER: byte O, ...".
struct reported_place {
    std::string file;
    uint64_t byte;
    std::string rest;  // of the report, after the number
};
std::vector<reported_place> places_in(const std::string& line);
