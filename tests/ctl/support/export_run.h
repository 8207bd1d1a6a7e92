// `tarnctl export` on a sample, the bytes that tarn-lab's model expects of a LUN, and how the two
// files differ. Below: shell.h, tree.h. Above: the tests of the export.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/support/check_run.h"

// Runs it with these words after "export"; out, err and status are those of the program.
check_run export_on(const std::string& sample, const std::string& words);

// The maps of LUNs, snapshots and trash of a sample: paths below it, sorted.
std::vector<std::string> luns_of(const std::string& sample);

// Writes what the model expects of a LUN into a new sparse file. Fails the test if it cannot.
void write_model(const std::string& sample, const std::string& lun, const std::string& file);

// Bytes of a file.
struct byte_span {
    uint64_t begin;
    uint64_t bytes;
    bool operator==(const byte_span&) const = default;
};
// The ranges of a mapfile with this status. Fails the test if the file is not one, or if its ranges
// do not lie one after the other.
std::vector<byte_span> spans_in(const std::string& mapfile, char status);

// "" or the first difference of two files, in size or bytes; holes read as zeros. In the `zero`
// spans the second one is taken as zeros.
std::string difference(const std::string& one, const std::string& other,
                       const std::vector<byte_span>& zero = {});
uint64_t bytes_on_disk(const std::string& file);  // without its holes
