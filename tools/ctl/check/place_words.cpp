#include "ctl/check/place_words.h"

#include <array>
#include <iterator>

#include "ctl/text/escape.h"
#include "tbl/tbl_format.h"
#include "volume_layout.h"

constexpr size_t OWNERS_NAMED = 3;  // a line of text stays readable

std::string size_words(uint64_t bytes) {
    constexpr std::array UNITS = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) {
        return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    }
    size_t unit = 0;
    uint64_t size = 1024;
    while (bytes / size >= 1024) {
        unit++;
        size *= 1024;
    }
    std::string words = std::to_string(bytes / size);
    const uint64_t tenths = bytes % size / (size / 1024) * 10 / 1024;
    if (tenths != 0) {
        words += "." + std::to_string(tenths);
    }
    return words + " " + UNITS[unit];
}

std::string count_words(uint64_t count, const char* thing) {
    return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

uint64_t bytes_of(uint64_t extents, uint64_t extent_size) {
    uint64_t bytes = 0;
    return __builtin_mul_overflow(extents, extent_size, &bytes) ? UINT64_MAX : bytes;
}

struct place_noun {
    const char* one;
    const char* several;
};

// In the order of place_kind.
constexpr place_noun PLACE_NOUNS[] = {
    {"", ""},
    {"extent", "extents"},
    {"group", "groups"},
    {"block", "blocks"},
    {"node", "nodes"},
    {"entry", "entries"},
    {"journal block", "journal blocks"},
    {"byte", "bytes"},
};
static_assert(std::size(PLACE_NOUNS) == static_cast<size_t>(place_kind::byte) + 1);

static uint64_t last_of(uint64_t first, uint64_t count) {
    uint64_t last = 0;
    const uint64_t rest = count > 1 ? count - 1 : 0;
    return __builtin_add_overflow(first, rest, &last) ? UINT64_MAX : last;
}

// "extent 8", "extents 8-9".
static std::string run_words(place_kind kind, uint64_t first, uint64_t count) {
    const place_noun& noun = PLACE_NOUNS[static_cast<size_t>(kind)];
    const uint64_t last = last_of(first, count);
    return std::string(last == first ? noun.one : noun.several) + " " + std::to_string(first) +
           (last == first ? "" : "-" + std::to_string(last));
}

static std::string range_words(const lea_range& range, uint64_t extent_size) {
    if (extent_size == 0) {
        return run_words(place_kind::lea, range.lea, range.count);
    }
    const uint64_t at = bytes_of(range.lea, extent_size);
    const uint64_t bytes = bytes_of(range.count, extent_size);
    return "bytes " + std::to_string(at) + " to " + std::to_string(last_of(at, bytes)) + " (" +
           size_words(bytes) + " at " + size_words(at) + ")";
}

static uint64_t extents_of(const finding_owner& owner) {
    uint64_t extents = 0;
    for (const lea_range& range : owner.ranges) {
        extents += range.count;
    }
    return extents;
}

static std::string owner_words(const finding_owner& owner, uint64_t extent_size) {
    std::string words = shown(owner.lun.empty() ? owner.file : owner.lun);
    if (owner.ranges.empty()) {
        return words;
    }
    words += ", " + range_words(owner.ranges[0], extent_size);
    const uint64_t more = owner.ranges.size() - 1 + owner.ranges_left_out;
    if (more > 0) {
        words += " and " + count_words(more, "more range");
        if (extent_size != 0 && owner.ranges_left_out == 0) {
            words += ", " + size_words(bytes_of(extents_of(owner), extent_size)) + " in all";
        }
    }
    return words;
}

static std::string owners_words(const finding& of) {
    std::string words;
    for (size_t i = 0; i < of.owners.size() && i < OWNERS_NAMED; i++) {
        words += (i == 0 ? "" : "; ") + owner_words(of.owners[i], of.extent_size);
    }
    if (of.owners.size() > OWNERS_NAMED) {
        words += "; and " + count_words(of.owners.size() - OWNERS_NAMED, "more map");
    }
    return words;
}

static std::string file_words(const finding& of) {
    if (of.volume.empty() && of.file == JOURNAL_NAME) {
        return "the journal";
    }
    if (of.volume.empty() && of.file.empty()) {
        return "the server";
    }
    const bool both = !of.volume.empty() && !of.file.empty();
    return shown(of.volume + (both ? "/" : "") + of.file);
}

static std::string groups_words(const finding& of) {
    const uint64_t first = of.first / TBL_GROUP_ENTRIES;
    const uint64_t last = last_of(of.first, of.count) / TBL_GROUP_ENTRIES;
    return run_words(place_kind::group, first, last - first + 1);
}

// Extents belong to a volume, whatever file names them; a place of any other kind lies in the file.
static std::string home_words(const finding& of) {
    return of.place == place_kind::lpa && !of.volume.empty() ? shown(of.volume) : file_words(of);
}

std::string subject_words(const finding& of) {
    if (!of.owners.empty()) {
        return owners_words(of);
    }
    std::string words = home_words(of);
    if (of.place != place_kind::none) {
        words += ", " + run_words(of.place, of.first, of.count);
    }
    if (of.place == place_kind::lpa && of.extent_size != 0) {
        words += " (" + size_words(bytes_of(of.count, of.extent_size)) + ")";
    }
    return words;
}

std::string place_sentence(const finding& of) {
    if (of.owners.empty() || of.place == place_kind::none) {
        return "";
    }
    std::string words = run_words(of.place, of.first, of.count);
    words[0] = static_cast<char>(words[0] - 'a' + 'A');
    words += " of " + home_words(of);
    if (of.place == place_kind::lpa) {
        words += ", " + groups_words(of);
    }
    return words + ".";
}
