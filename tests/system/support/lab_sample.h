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
