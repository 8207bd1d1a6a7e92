#include "lab/run_notes.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include "lab/disk.h"
#include "lab/file_bytes.h"
#include "lab/settings.h"
#include "print.h"

namespace lab {

constexpr const char* NOTES_PATH = "lab.run";

struct note_row {
    const char* name;
    uint64_t run_notes::*value;
};
constexpr note_row NOTE_ROWS[] = {
    {"seed", &run_notes::seed},
    {"begun", &run_notes::begun},
    {"done", &run_notes::done},
    {"kind", &run_notes::kind},
};

static bool parse(const std::string& text, uint64_t* value) {
    char* end = nullptr;
    errno = 0;
    *value = strtoull(text.c_str(), &end, 10);
    return errno == 0 && !text.empty() && *end == '\0';
}

static bool are_valid(const run_notes& notes) {
    return notes.begun == notes.done || (notes.kind == NOTES_RAN && notes.begun == notes.done + 1);
}

notes_state read_notes(const std::string& directory, run_notes* out) {
    const std::string path = directory + "/" + NOTES_PATH;
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0 && errno == ENOENT) {
        return notes_state::none;
    }
    std::vector<setting> lines;
    bool good = read_settings(path, &lines);
    for (const note_row& row : NOTE_ROWS) {
        const std::string* value = find_setting(lines, row.name);
        good = good && value != nullptr && parse(*value, &(out->*row.value));
    }
    if (!good || !are_valid(*out)) {
        (void)complain_of(path, "cannot be read, or is not what a run leaves");
        return notes_state::unreadable;
    }
    return notes_state::found;
}

// Always of the same length.
static std::string text_of(const run_notes& notes) {
    std::string text =
        "# What the service has done: steps, alternately a transaction and a pause (kind 0, run),\n"
        "# or transactions only (kind 1, age; kind 2, age --clean).\n";
    for (const note_row& row : NOTE_ROWS) {
        char line[64];
        (void)snprintf(line, sizeof line, "%s = %020llu\n", row.name, ull(notes.*row.value));
        text += line;
    }
    return text;
}

bool create_notes(const std::string& directory, const run_notes& notes) {
    return create_text(directory, NOTES_PATH, text_of(notes));
}

bool write_notes(const std::string& directory, const run_notes& notes) {
    const std::string text = text_of(notes);
    return put_bytes({directory, NOTES_PATH}, 0, text.data(), text.size());
}

}  // namespace lab
