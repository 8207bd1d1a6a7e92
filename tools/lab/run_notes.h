// What a run, or age, has done: DIR/lab.run. Together with the parameters of the sample it gives
// the expected contents. Below: settings.h, disk.h. Above: continued.h, run.h.
#pragma once

#include <cstdint>
#include <string>

namespace lab {

// Step s is a transaction if s is odd, else what the service does between two transactions. The
// first step has number 1. A killed run leaves begun == done or begun == done + 1.
struct run_notes {
    uint64_t seed = 0;
    uint64_t begun = 0;
    uint64_t done = 0;
    uint64_t kind = 0;
};
constexpr uint64_t NOTES_RAN = 0;
constexpr uint64_t NOTES_AGED = 1;  // and crashed; every step is a transaction
constexpr uint64_t NOTES_AGED_CLEANLY = 2;

enum class notes_state { none, found, unreadable };

// If the file cannot be read or has no valid numbers, prints the reason.
notes_state read_notes(const std::string& directory, run_notes* out);
// Return false if the file cannot be written, and print the reason. It must not exist for the
// first. The second overwrites it in one piece.
bool create_notes(const std::string& directory, const run_notes& notes);
bool write_notes(const std::string& directory, const run_notes& notes);

}  // namespace lab
