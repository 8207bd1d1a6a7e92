#include <cstdlib>
#include <map>

#include "ctl/check/place_words.h"
#include "ctl/check/print.h"
#include "ctl/punch/report.h"
#include "ctl/text/escape.h"
#include "ctl/text/paragraph.h"

constexpr size_t PLACES_LISTED = 10;  // of a code, in a refusal

static bool put(FILE* out, const std::string& text) {
    return fwrite(text.data(), 1, text.size(), out) == text.size();
}

// tarn has to see the configuration that was looked at.
std::string punch_line(const punch_volume& volume, const free_range& range) {
    const char* conf = getenv("TARN_PLATFORM_CONF");
    const std::string before =
        conf == nullptr ? "" : std::string("TARN_PLATFORM_CONF=") + shell_word(conf) + " ";
    return before + "tarn --punch -p " + shell_word(volume.root) + " -o " +
           std::to_string(range.first) + " -l " + std::to_string(range.count);
}

static std::string lines_of(const punch_volume& volume, const char* indent) {
    std::string text;
    for (const free_range& range : volume.space.ranges) {
        text += indent + punch_line(volume, range) + "\n";
    }
    return text;
}

static std::string volume_text(const punch_volume& volume) {
    const free_space& space = volume.space;
    std::string words = shown(volume.root) + ": " + count_words(space.extents, "free extent") +
                        " of " + size_words(volume.extent_size) + ". ";
    words += space.ranges.empty() ? "Nothing to give back: all of that is holes already."
                                  : "To be given back: " + size_words(space.data) + " (" +
                                        count_words(space.data, "byte") +
                                        "). Holes already: " + size_words(space.holes) + ".";
    return paragraph("", words) + lines_of(volume, "    ") + "\n";
}

// "    R01  LUN_0, bytes ...", at most PLACES_LISTED of a code.
static std::string refusal_text(const punch_report& report) {
    std::string text = "tarnctl: refused: it is not safe to punch holes now.\n";
    std::map<std::string, size_t> listed;
    for (const punch_refusal& refusal : report.refusals) {
        if (refusal.code.empty() || ++listed[refusal.code] <= PLACES_LISTED) {
            std::string head = "    " + refusal.code;
            head.resize(9, ' ');
            text += paragraph(head, refusal.words);
        }
    }
    for (const auto& [code, count] : listed) {
        if (count > PLACES_LISTED) {
            text += "    " + code + "  " + count_words(count - PLACES_LISTED, "more place") + "\n";
        }
    }
    return text + "Run: tarnctl check\n";
}

static std::string closing(const punch_report& report) {
    uint64_t lines = 0;
    for (const punch_volume& volume : report.volumes) {
        lines += volume.space.ranges.size();
    }
    if (report.volumes.empty()) {
        return "There is no volume to look at.\n";
    }
    return lines == 0
               ? "Nothing to do.\n"
               : paragraph("", "Nothing was punched. " +
                                   std::string(lines == 1 ? "This line is" : "These lines are") +
                                   " right for this moment only: keep the service stopped "
                                   "until the last one has run, and run this command again "
                                   "after anything else. Each asks for confirmation: the "
                                   "answer is YES.");
}

bool print_punch_text(FILE* out, FILE* err, const punch_report& report, bool quiet) {
    if (!report.refusals.empty()) {
        return put(err, refusal_text(report));
    }
    std::string text = quiet ? "" : opening_text(report.opening);
    for (const punch_volume& volume : report.volumes) {
        text += quiet ? lines_of(volume, "") : volume_text(volume);
    }
    return put(out, text + (quiet ? "" : closing(report))) && fflush(out) == 0;
}
