// The damages of tarn-lab: each changes what it reports and nothing else, the same seed does the
// same damage, and the tool's own checks find the damages that they are meant to find.
#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/sample_maps.h"
#include "support/scratch_file.h"
#include "system/support/lab_sample.h"
#include "system/support/test_name.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

enum class change_kind {
    bit,       // one bit of a header node or block; its checksum becomes wrong
    pool_bit,  // one bit of a pool table
    entry,     // an entry or a field; its checksum is right before and after
    noise,     // blocks from the first one on
    shorter,   // the end of a file is cut off
    file_gone,
    misplaced,  // whole files, whose contents damage_misplaced_test.cpp compares
    places,     // what `parts` says, at the places in the order of the report
    renamed,
    created,
};
// Of one place: bytes, 0 for all up to the end of the block, and whether the checksum is right.
struct part_row {
    size_t width;
    bool sealed;
};
struct kind_row {
    const char* word;
    const char* file;  // part of the path of every file that it may change
    change_kind change;
    size_t width;  // bytes of the entry or field
    part_row parts[3] = {};
};
static void PrintTo(const kind_row& row, std::ostream* out) {  // the test framework's name for it
    *out << row.word;
}
static constexpr kind_row KINDS[] = {
    {"index-header-bit", "volume1/@EP/EP_FRI", change_kind::bit, 0},
    {"table-header-bit", "volume1/@EP/EP_TBL", change_kind::bit, 0},
    {"map-header-bit", "volume1/@", change_kind::bit, 0},
    {"index-block-bit", "volume1/@EP/EP_FRI", change_kind::bit, 0},
    {"table-block-bit", "volume1/@EP/EP_TBL", change_kind::bit, 0},
    {"map-node-bit", "volume1/@", change_kind::bit, 0},
    {"journal-block", "journal/EP_JNL", change_kind::bit, 0},
    {"pool-table", "volume1/@", change_kind::pool_bit, 0},
    {"index-lost", "volume1/@EP/EP_FRI", change_kind::file_gone, 0},
    {"table-lost", "volume1/@EP/EP_TBL", change_kind::file_gone, 0},
    {"both-lost", "volume1/@EP/EP_", change_kind::file_gone, 0},
    {"table-noise", "volume1/@EP/EP_TBL", change_kind::noise, 0},
    {"map-truncated", "volume1/@", change_kind::shorter, 0},
    {"reference-count", "volume1/@EP/EP_TBL", change_kind::entry, 2},
    {"list-loop", "volume1/@EP/EP_TBL", change_kind::entry, 2},
    {"list-used", "volume1/@EP/EP_TBL", change_kind::entry, 2},
    {"list-tail", "volume1/@EP/EP_TBL", change_kind::entry, 2},
    {"list-count", "volume1/@EP/EP_FRI", change_kind::entry, 8},
    {"group-loop", "volume1/@EP/EP_FRI", change_kind::entry, 8},
    {"free-count", "volume1/@EP/EP_FRI", change_kind::entry, 8},
    {"mapped-count", "volume1/@", change_kind::entry, 8},
    {"map-lost", "volume1/@", change_kind::file_gone, 0},
    {"maps-swapped", "volume1/@iSCSITrg/LUN_", change_kind::misplaced, 0},
    {"map-old", "volume1/@", change_kind::misplaced, 0},
    {"journal-foreign", "journal/EP_JNL", change_kind::misplaced, 0},
    {"data-file-cut", "volume1/@EP/EP_DAT_00000", change_kind::shorter, 0},
    {"alias", "volume1/@iSCSITrg/LUN_", change_kind::entry, 8},
    {"dangling", "volume1/@", change_kind::entry, 8},
    {"far-lpa", "volume1/@", change_kind::entry, 8},
    {"uuid-twice", "volume1/@", change_kind::entry, 16},
    {"foreign-pool-row", "volume1/@", change_kind::entry, 8},
    {"entry-behind-end", "volume1/@", change_kind::entry, 8},
    {"index-open-end", "volume1/@EP/EP_FRI", change_kind::entry, 8},
    {"leak", "volume1/@EP/EP_", change_kind::places, 0, {{8, true}, {8, true}, {2, true}}},
    {"pool-uuid", "volume1/@", change_kind::places, 0, {{16, false}, {4, true}}},
    {"unsummed-node", "volume1/@", change_kind::places, 0, {{4, false}}},
    {"two-bits", "volume1/@", change_kind::places, 0, {{1, false}, {1, false}}},
    {"three-entries", "volume1/@", change_kind::places, 0, {{8, false}, {8, false}, {8, false}}},
    {"torn-node", "volume1/@", change_kind::places, 0, {{0, false}}},
    {"journal-block-in-window", "journal/", change_kind::places, 0, {{1, false}, {4, true}}},
    {"data-file-gap", "volume1/@EP/EP_DAT_0000", change_kind::renamed, 0},
    {"orphan-map", "volume1/@", change_kind::created, 0},
};

// "FILE: byte N, ...": N.
static uint64_t byte_in(const std::string& line) {
    const size_t at = line.find(": byte ");
    EXPECT_NE(at, std::string::npos) << line;
    return std::stoull(line.substr(at + 7));
}

static unsigned different_bits(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    unsigned bits = 0;
    for (size_t i = 0; i < a.size(); i++) {
        bits += static_cast<unsigned>(__builtin_popcount(static_cast<unsigned>(a[i] ^ b[i])));
    }
    return bits;
}

// Two samples were the same; the file of one of them was damaged. `file` is below either.
struct damaged_pair {
    std::string was;
    std::string is;
    std::string file;
    std::string line;  // the report of the damage
    [[nodiscard]] std::vector<uint8_t> old_bytes(uint64_t at, size_t length) const {
        return file_bytes(was + "/" + file, at, length);
    }
    [[nodiscard]] std::vector<uint8_t> new_bytes(uint64_t at, size_t length) const {
        return file_bytes(is + "/" + file, at, length);
    }
    void put_back(uint64_t at, size_t length) const {
        write_file_bytes(is + "/" + file, at, old_bytes(at, length).data(), length);
    }
};

static void expect_bit(const damaged_pair& pair, bool sealed) {
    const uint64_t byte = byte_in(pair.line);
    EXPECT_EQ(different_bits(pair.old_bytes(byte, 1), pair.new_bytes(byte, 1)), 1u);
    const node_place place = node_of(byte);
    const std::vector<uint8_t> found = pair.new_bytes(place.start, place.length);
    EXPECT_TRUE(!sealed || checksum_is_right(place, pair.old_bytes(place.start, place.length)));
    EXPECT_TRUE(!sealed || !checksum_is_right(place, found));
    pair.put_back(byte, 1);
}

static void expect_entry(const damaged_pair& pair, size_t width) {
    const uint64_t byte = byte_in(pair.line);
    const node_place place = node_of(byte);
    EXPECT_NE(pair.old_bytes(byte, width), pair.new_bytes(byte, width));
    EXPECT_TRUE(checksum_is_right(place, pair.new_bytes(place.start, place.length)));
    pair.put_back(byte, width);
    pair.put_back(place.start + place.checksum, sizeof(uint32_t));
}

static void expect_noise(const damaged_pair& pair) {
    constexpr uint64_t FIRST = 1048576;
    const std::string to = pair.line.substr(pair.line.find(" to ") + 4);
    const size_t length = std::stoull(to) + 1 - FIRST;
    ASSERT_EQ(length % 512, 0u);
    for (uint64_t at = FIRST; at < FIRST + length; at += 512) {
        ASSERT_FALSE(checksum_is_right(node_of(at), pair.new_bytes(at, 512))) << at;
    }
    pair.put_back(FIRST, length);
}

static void expect_shorter(const damaged_pair& pair) {
    const uint64_t was = fs::file_size(pair.was + "/" + pair.file);
    const uint64_t is = fs::file_size(pair.is + "/" + pair.file);
    EXPECT_GE(is, 1048576u);
    ASSERT_LT(is, was);
    EXPECT_NE(pair.line.find("size " + std::to_string(was) + " -> " + std::to_string(is)),
              std::string::npos);
    fs::resize_file(pair.is + "/" + pair.file, was);
    constexpr uint64_t WITH_DATA = 8 << 20;  // after that, samples are holes
    pair.put_back(is, is < WITH_DATA ? std::min(was, WITH_DATA) - is : 0);
}

static void expect_gone(const damaged_pair& pair) {
    EXPECT_FALSE(file_exists(pair.is + "/" + pair.file));
    fs::rename(pair.was + "/" + pair.file, pair.is + "/" + pair.file);
}

// Two of the places may be the same byte.
static void expect_places(const damaged_pair& pair, const part_row* parts) {
    const std::vector<reported_place> places = places_in(pair.line);
    ASSERT_LE(places.size(), 3u);
    for (const bool comparing : {true, false}) {
        for (size_t i = 0; i < places.size(); i++) {
            const node_place node = node_of(places[i].byte);
            const uint64_t end = node.start + node.length;
            const size_t width = parts[i].width != 0 ? parts[i].width : end - places[i].byte;
            if (places[i].file != pair.file) {
                continue;
            }
            if (comparing) {
                EXPECT_NE(pair.old_bytes(places[i].byte, width),
                          pair.new_bytes(places[i].byte, width));
                EXPECT_TRUE(!parts[i].sealed ||
                            checksum_is_right(node, pair.new_bytes(node.start, node.length)));
                continue;
            }
            pair.put_back(places[i].byte, width);
            pair.put_back(node.start + node.checksum, parts[i].sealed ? sizeof(uint32_t) : 0);
        }
    }
}

// Of the two names, the report names the old one first.
static void expect_renamed(const damaged_pair& pair) {
    const std::string to = pair.line.substr(pair.line.find(" to ") + 4);
    if (pair.file == file_named_first(pair.line)) {
        ASSERT_FALSE(file_exists(pair.is + "/" + pair.file));
        fs::rename(pair.is + "/" + to.substr(0, to.size() - 1), pair.is + "/" + pair.file);
    }
}

// Checks the change of the file and restores it.
static void expect_change(const kind_row& row, const damaged_pair& pair) {
    switch (row.change) {
        case change_kind::bit:
        case change_kind::pool_bit:
            expect_bit(pair, row.change == change_kind::bit);
            break;
        case change_kind::entry:
            expect_entry(pair, row.width);
            break;
        case change_kind::noise:
            expect_noise(pair);
            break;
        case change_kind::shorter:
            expect_shorter(pair);
            break;
        case change_kind::file_gone:
            expect_gone(pair);
            break;
        case change_kind::places:
            expect_places(pair, row.parts);
            break;
        case change_kind::renamed:
            expect_renamed(pair);
            break;
        case change_kind::created:
            EXPECT_FALSE(file_exists(pair.was + "/" + pair.file));
            fs::remove(pair.is + "/" + pair.file);
            break;
        case change_kind::misplaced:
            fs::copy_file(pair.was + "/" + pair.file, pair.is + "/" + pair.file,
                          fs::copy_options::overwrite_existing);
            break;
    }
}

static size_t files_changed_by(const std::string& kind) {
    const std::set<std::string> two = {"both-lost", "maps-swapped", "leak", "data-file-gap"};
    return two.count(kind) == 1 ? 2 : 1;
}

// A new file is no difference to the other ones: then the only line begins with the directory.
static void expect_difference(const std::string& sample, const std::string& begins) {
    const ran verify = tarn_lab("verify " + sample);
    EXPECT_EQ(verify.status, begins == sample ? 0 : 1);
    EXPECT_TRUE(verify.text.starts_with(begins + ": ")) << verify.text;
}

static unsigned seeds_for(change_kind change) {
    switch (change) {
        case change_kind::file_gone:
        case change_kind::renamed:
        case change_kind::created:
            return 1;
        case change_kind::places:
            return 2;
        default:
            return 4;
    }
}

class damage_kinds : public testing::TestWithParam<kind_row> {};

TEST_P(damage_kinds, change_what_they_report_and_nothing_else) {
    const kind_row row = GetParam();
    const scratch_dir place;
    // What is cut off a data file comes back as zeros.
    const std::string shape = row.word == std::string("data-file-cut") ? " --data 0" : "";
    const std::string was = make_sample(place, "was", 5, shape);
    const std::string is = make_sample(place, "is", 5, shape);
    const auto before = tree_of(is);
    const unsigned seeds = seeds_for(row.change);
    for (unsigned seed = 1; seed <= seeds; seed++) {
        SCOPED_TRACE(seed);
        const ran done = damage(is, row.word, seed);
        ASSERT_EQ(done.status, 0) << done.text;
        EXPECT_EQ(done.text.find('\n'), done.text.size() - 1);
        const std::vector<std::string> changed = changed_files(before, tree_of(is));
        ASSERT_EQ(changed.size(), files_changed_by(row.word));
        expect_difference(is, row.change == change_kind::created ? is : changed[0]);
        EXPECT_TRUE(done.text.starts_with(changed[0] + ": ")) << done.text;
        for (const std::string& file : changed) {
            EXPECT_TRUE(file.starts_with(row.file)) << file;
            expect_change(row, {was, is, file, done.text});
        }
        EXPECT_EQ(tree_of(is), before);
    }
}

TEST_P(damage_kinds, do_the_same_for_the_same_seed) {
    const kind_row row = GetParam();
    const scratch_dir place;
    std::string first;
    std::map<std::string, std::string> tree;
    for (const char* name : {"a", "b"}) {
        const std::string sample = make_sample(place, name);
        fs::remove(sample + "/platform.conf");  // the one file that names the directory
        const ran done = damage(sample, row.word, 7);
        ASSERT_EQ(done.status, 0) << done.text;
        EXPECT_TRUE(first.empty() || first == done.text) << first << done.text;
        EXPECT_TRUE(tree.empty() || tree == tree_of(sample));
        first = done.text;
        tree = tree_of(sample);
    }
}

static std::string name_of(const testing::TestParamInfo<kind_row>& info) {
    return test_name(info.param.word);
}
INSTANTIATE_TEST_SUITE_P(of, damage_kinds, testing::ValuesIn(KINDS), name_of);

TEST(damage, picks_places_by_the_seed) {
    const scratch_dir place;
    std::map<std::string, unsigned> lines;
    for (unsigned seed = 1; seed <= 8; seed++) {
        const std::string sample = make_sample(place, std::to_string(seed));
        lines[damage(sample, "reference-count", seed).text]++;
    }
    EXPECT_GE(lines.size(), 7u);
}

TEST(damage, damages_the_requested_volume) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    const ran done = damage(sample, "table-lost", 1, " --volume 2");
    EXPECT_EQ(done.text, "volume2/@EP/EP_TBL: removed\n");
    EXPECT_FALSE(file_exists(sample + "/volume2/@EP/EP_TBL"));
    EXPECT_TRUE(file_exists(sample + "/volume1/@EP/EP_TBL"));
}

TEST(damage, refuses_what_it_cannot_do_and_changes_nothing) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    const auto before = tree_of(sample);
    const ran unknown = damage(sample, "list-lop", 1);
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.text, "tarn-lab: no such kind of damage: list-lop\ntry 'tarn-lab --help'\n");
    EXPECT_EQ(tarn_lab("damage " + sample).status, 2);
    EXPECT_EQ(tarn_lab("damage " + sample + " list-loop list-loop").status, 2);
    EXPECT_EQ(damage(sample, "list-loop", 1, " --volume 0").status, 2);
    const ran volume = damage(sample, "list-loop", 1, " --volume 3");
    EXPECT_EQ(volume.status, 1);
    EXPECT_EQ(volume.text, "tarn-lab: nothing was damaged: the sample has no volume 3\n");
    EXPECT_EQ(tree_of(sample), before);
}

TEST(damage, refuses_a_missing_file) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    ASSERT_EQ(damage(sample, "index-lost", 1).status, 0);
    const auto before = tree_of(sample);
    for (const char* kind : {"index-lost", "both-lost", "list-loop", "index-header-bit"}) {
        const ran again = damage(sample, kind, 1);
        EXPECT_EQ(again.status, 1) << kind;
        EXPECT_EQ(again.text,
                  "tarn-lab: " + sample + "/volume1/@EP/EP_FRI: No such file or directory\n");
    }
    EXPECT_EQ(tree_of(sample), before);
}

// One entry a map, no transaction: this seed leaves the volume as it was made.
TEST(damage, reports_that_there_is_nothing_suitable_to_damage) {
    const scratch_dir place;
    const std::string sample = place.file("s");
    ASSERT_EQ(tarn_lab("make " + sample + " --seed 1 --luns 1 --extents 1 --transactions 0").status,
              0);
    const auto before = tree_of(sample);
    const std::pair<const char*, const char*> rows[] = {
        {"reference-count", "no extent is in use"},
        {"table-block-bit", "no extent is in use"},
        {"list-tail", "no listed group has free entries"},
        {"list-used", "no listed group has both free and used entries"},
        {"group-loop", "no initialised group is on the list of groups"},
        {"index-block-bit", "no initialised group is on the list of groups"},
        {"map-node-bit", "no map of the volume has a mapped entry"},
        {"map-truncated", "no map of the volume has a mapped entry"},
        {"journal-block", "the journal holds no block that check or replay reads"},
        {"journal-foreign", "the journal holds no block that check or replay reads"},
        {"map-lost", "no LUN, snapshot or trash map of the volume has a mapped entry"},
        {"maps-swapped", "no two LUN maps of the volume hold different entries"},
        {"map-old", "no map of the volume has ever had different entries"},
        {"data-file-cut", "no extent in use lies in a data file"},
        {"alias", "no LUN map of the volume has a mapped entry"},
        {"dangling", "no LUN, snapshot or trash map of the volume has a mapped entry"},
        {"leak", "no listed group has two free entries"},
        {"pool-uuid", "no map of the volume has a mapped entry"},
        {"index-open-end", "no initialised group is on the list of groups"},
        {"torn-node", "no map of the volume has a mapped entry"},
        {"journal-block-in-window", "the journal's window holds no block of an older transaction"},
    };
    for (const auto& [kind, why] : rows) {
        const ran done = damage(sample, kind, 1);
        EXPECT_EQ(done.status, 1) << kind;
        EXPECT_EQ(done.text, std::string("tarn-lab: nothing was damaged: ") + why + "\n");
    }
    EXPECT_EQ(tree_of(sample), before);
}

static ran check_lists(const std::string& sample) {
    const std::string files = sample + "/volume1/@EP/EP_";
    return tarn_on(sample, "--freeck --fripath " + files + "FRI --tblpath " + files + "TBL");
}

TEST(damage, of_lists_is_found_by_the_check_of_free_lists) {
    for (const char* kind : {"list-loop", "list-used", "list-tail", "list-count", "group-loop",
                             "index-block-bit", "table-noise"}) {
        for (unsigned seed = 1; seed <= 3; seed++) {
            const scratch_dir place;
            const std::string sample = make_sample(place, "s", seed);
            EXPECT_EQ(check_lists(sample).status, 0);
            ASSERT_EQ(damage(sample, kind, seed).status, 0);
            EXPECT_EQ(check_lists(sample).status, 255) << kind << " " << seed;
        }
    }
}

TEST(damage, of_references_is_found_by_the_full_check) {
    for (const char* kind : {"reference-count", "table-block-bit", "table-noise"}) {
        for (unsigned seed = 1; seed <= 3; seed++) {
            const scratch_dir place;
            const std::string sample = make_sample(place, "s", seed);
            ASSERT_EQ(damage(sample, kind, seed).status, 0);
            EXPECT_EQ(tarn_on(sample, "--fullck --volpath " + sample + "/volume1").status, 255)
                << kind << " " << seed;
        }
    }
}
