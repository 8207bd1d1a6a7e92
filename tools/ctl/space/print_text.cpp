#include <algorithm>
#include <array>

#include "ctl/check/place_words.h"
#include "ctl/check/print.h"
#include "ctl/space/report.h"
#include "ctl/text/escape.h"
#include "ctl/text/paragraph.h"

constexpr size_t NAME_COLUMNS = 36;  // a longer name gets a line of its own
constexpr const char* INDENT = "  ";

static bool put(FILE* out, const std::string& text) {
    return fwrite(text.data(), 1, text.size(), out) == text.size();
}

static const char* mark_of(figure_worth worth) {
    switch (worth) {
        case figure_worth::at_least:
            return ">= ";
        case figure_worth::at_most:
            return "<= ";
        case figure_worth::unsure:
            return "~ ";
        case figure_worth::exact:
            break;
    }
    return "";
}

// In a table, where the heading says what is counted.
static std::string plain_words(uint64_t extents, uint64_t extent_size) {
    return extent_size == 0 ? std::to_string(extents) : extents_words(extents, extent_size);
}

static std::string figure_cell(const map_space& map, const space_figure& figure,
                               uint64_t extent_size) {
    return map.known ? mark_of(figure.worth) + plain_words(figure.extents, extent_size) : "unknown";
}

static std::string name_of(const map_space& map) {
    return shown(map.name) + (map.kind == "unmap buffer" ? " (being freed)" : "");
}

using table_row = std::array<std::string, 5>;  // the name and its figures

static table_row row_of(const volume_space& space, const map_space& map) {
    const uint64_t size = space.extent_size;
    return {name_of(map), map.size_known ? plain_words(map.entries, size) : "unknown",
            figure_cell(map, map.mapped, size), figure_cell(map, map.exclusive, size),
            figure_cell(map, map.shared, size)};
}

// Columns as wide as what is in them. A name that is longer than most gets a line of its own.
static std::string table_text(const std::vector<table_row>& rows) {
    size_t names = 0;
    std::array<size_t, 5> widths = {};
    for (const table_row& row : rows) {
        names = std::max(names, std::min(columns_of(row[0]), NAME_COLUMNS));
        for (size_t i = 1; i < row.size(); i++) {
            widths[i] = std::max(widths[i], row[i].size() + 2);
        }
    }
    std::string text;
    for (const table_row& row : rows) {
        const size_t columns = columns_of(row[0]);
        text += INDENT + row[0] + (columns > names ? "\n" + std::string(INDENT) : "");
        text.append(columns > names ? names : names - columns, ' ');
        for (size_t i = 1; i < row.size(); i++) {
            text += std::string(widths[i] - row[i].size(), ' ') + row[i];
        }
        text += '\n';
    }
    return text;
}

static std::string table_of(const volume_space& space) {
    std::vector<table_row> rows = {{"NAME", "SIZE", "MAPPED", "EXCLUSIVE", "SHARED"}};
    for (const map_space& map : space.maps) {
        rows.push_back(row_of(space, map));
    }
    return space.maps.empty() ? INDENT + std::string("no maps\n") : table_text(rows);
}

// "In use 3.9 GiB: 3.1 GiB in one map each, 0.8 GiB in several. Free ..."
static std::string totals_of(const volume_space& space) {
    const uint64_t size = space.extent_size;
    std::string words =
        "In use: " + (space.table_known ? extents_words(space.in_use, size) : "unknown") + ". ";
    words += "In one map each: " + std::string(space.complete ? "" : "about ") +
             extents_words(space.in_one_map, size) +
             ". In several: " + (space.complete ? "" : "at least ") +
             extents_words(space.in_several, size) + ". ";
    if (space.table_known && space.in_no_map > 0) {
        words += "In no map: " + std::string(space.complete ? "" : "at most ") +
                 extents_words(space.in_no_map, size) + ". ";
    }
    words += "Free: " + (space.free_known ? extents_words(space.free, size) : "unknown") + ". ";
    return paragraph(INDENT, words + "Data files: " + size_words(space.data_bytes) + ".");
}

static std::string volume_text(const volume_space& space) {
    return shown(space.root) + ", " +
           (space.extent_size == 0 ? "extents of unknown size, counted one by one"
                                   : "extents of " + size_words(space.extent_size)) +
           "\n" + table_of(space) + totals_of(space);
}

// "LUN_0, LUN_1 and LUN_2".
static std::string names_of(const std::vector<std::string>& names) {
    std::string words;
    for (size_t i = 0; i < names.size(); i++) {
        words += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + shown(names[i]);
    }
    return words;
}

static bool has_deleted(const volume_space& space) {
    return std::any_of(space.maps.begin(), space.maps.end(),
                       [](const map_space& map) { return map.in_set; });
}

static std::string freed_words(const volume_space& space) {
    static constexpr const char* BOUNDS[] = {"", "at least ", "at most ", "perhaps "};
    return BOUNDS[static_cast<size_t>(space.freed.worth)] +
           extents_words(space.freed.extents, space.extent_size) + " of " + shown(space.root) +
           " would be freed" +
           (space.extent_size == 0 ? "" : ", " + count_words(space.freed.extents, "extent"));
}

static std::string deleted_text(const space_report& report) {
    std::string words = "If " + names_of(report.to_delete) +
                        (report.to_delete.size() == 1 ? " was deleted: " : " were deleted: ");
    bool first = true;
    for (const volume_space& space : report.volumes) {
        if (has_deleted(space)) {
            words += (first ? "" : "; ") + freed_words(space);
            first = false;
        }
    }
    return first ? "" : paragraph("", words + ".");
}

static std::string legend_of(const space_report& report) {
    const bool exact = std::all_of(report.volumes.begin(), report.volumes.end(),
                                   [](const volume_space& space) { return space.complete; });
    return paragraph("", std::string("EXCLUSIVE is what becomes free if this one alone is deleted; "
                                     "SHARED is in other maps too.") +
                             (exact ? "" : " >= means at least, <= at most, ~ not sure at all."));
}

// The command at the end of a sentence stays on one line.
static std::string sentence_text(const std::string& head, const std::string& sentence) {
    const size_t command = sentence.rfind(" Run: ");
    std::string text = paragraph(head, sentence.substr(0, command));
    if (command != std::string::npos) {
        append_unbroken(&text, sentence.substr(command + 1), head.size());
    }
    return text;
}

static bool put_all(FILE* out, const char* head, const std::vector<std::string>& sentences) {
    return std::all_of(sentences.begin(), sentences.end(), [&](const std::string& sentence) {
        return put(out, sentence_text(head, sentence));
    });
}

static std::string text_of(const space_report& report, bool quiet) {
    std::string text = quiet ? "" : opening_text(report.opening);
    for (const volume_space& space : report.volumes) {
        text += volume_text(space) + (quiet ? "" : "\n");
    }
    if (quiet) {
        return text;
    }
    return text + (report.volumes.empty() ? "There is no volume to look at.\n" : legend_of(report));
}

bool print_space_text(FILE* out, const space_report& report, bool quiet) {
    const std::string deleted = report.to_delete.empty() ? "" : deleted_text(report);
    const bool answer_only = quiet && !deleted.empty();
    const bool printed = (answer_only || put(out, text_of(report, quiet))) &&
                         (quiet || put_all(out, "Note: ", report.notes)) &&
                         put_all(out, "Not exact: ", report.doubts);
    return printed && put(out, (quiet || deleted.empty() ? "" : "\n") + deleted) &&
           fflush(out) == 0;
}
