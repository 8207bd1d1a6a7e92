// The damages that misplace a sound file, cut a data file, or remove a map: the contents of the
// files afterwards, on clean samples and on crashed ones.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>

#include "support/sample_maps.h"
#include "system/support/lab_sample.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

static constexpr uint64_t NODES = 1048576;  // where the entries of every kind of file begin
static constexpr uint64_t ENTRIES = SAMPLE_ENTRIES;
static constexpr uint64_t MAPPED = uint64_t{1} << 63;

static uint64_t count_in_header(const std::string& map) {
    uint64_t count = 0;
    memcpy(&count, file_bytes(map, 4100, 8).data(), 8);
    return count;
}

// The checksums of the header and of all blocks that are not empty are right, and the count is that
// of the entries with bit 63.
static void expect_sound(const std::string& map) {
    for (const uint64_t node : {0, 64, 4096, 4160}) {
        EXPECT_TRUE(checksum_is_right(node_of(node), file_bytes(map, node, 64))) << node;
    }
    for (uint64_t at = NODES; at < fs::file_size(map); at += 512) {
        const std::vector<uint8_t> node = file_bytes(map, at, 512);
        EXPECT_TRUE(node == std::vector<uint8_t>(512) || checksum_is_right(node_of(at), node))
            << at;
    }
    uint64_t mapped = 0;
    for (const uint64_t word : entries_of(map)) {
        mapped += (word & MAPPED) != 0 ? 1 : 0;
    }
    EXPECT_EQ(count_in_header(map), mapped);
}

// "entries that differ: 2, the first is lea 5: 0000000000000000 -> 80000000000004f7"
static std::string difference_of(const std::vector<uint64_t>& from,
                                 const std::vector<uint64_t>& to) {
    uint64_t count = 0;
    uint64_t first = 0;
    for (uint64_t lea = ENTRIES; lea-- > 0;) {
        if (from[lea] != to[lea]) {
            count++;
            first = lea;
        }
    }
    char text[160];
    (void)snprintf(
        text, sizeof text, "entries that differ: %llu, the first is lea %llu: %016llx -> %016llx\n",
        static_cast<unsigned long long>(count), static_cast<unsigned long long>(first),
        static_cast<unsigned long long>(from[first]), static_cast<unsigned long long>(to[first]));
    return text;
}

TEST(damage_misplaced, swapped_maps_hold_each_other_byte_for_byte) {
    for (unsigned seed = 1; seed <= 4; seed++) {
        const scratch_dir place;
        const std::string was = make_sample(place, "was");
        const std::string is = make_sample(place, "is");
        const auto before = tree_of(is);
        const ran done = damage(is, "maps-swapped", seed);
        ASSERT_EQ(done.status, 0) << done.text;
        const auto after = tree_of(is);
        const std::vector<std::string> changed = changed_files(before, after);
        ASSERT_EQ(changed.size(), 2u);
        EXPECT_EQ(after.at(changed[0]), before.at(changed[1]));
        EXPECT_EQ(after.at(changed[1]), before.at(changed[0]));
        EXPECT_EQ(done.text, changed[0] + ": exchanged with " + changed[1] + "; " +
                                 difference_of(entries_of(was + "/" + changed[0]),
                                               entries_of(was + "/" + changed[1])));
    }
}

// What no transaction changes stays: uuid, size, pool table, the bytes after the entries.
static void expect_same_map(const std::string& was, const std::string& is) {
    EXPECT_EQ(fs::file_size(is), fs::file_size(was));
    EXPECT_EQ(file_bytes(is, 0, 128), file_bytes(was, 0, 128));
    EXPECT_EQ(file_bytes(is, 8192, 80), file_bytes(was, 8192, 80));
    EXPECT_EQ(file_bytes(is, NODES + 504, 4), file_bytes(was, NODES + 504, 4));
}

TEST(damage_misplaced, an_old_map_is_sound_and_differs_as_reported) {
    for (const char* crash : {"", " --crash"}) {
        for (unsigned seed = 1; seed <= 6; seed++) {
            SCOPED_TRACE(seed);
            const scratch_dir place;
            const std::string was = make_sample(place, "was", seed, crash);
            const std::string is = make_sample(place, "is", seed, crash);
            const ran done = damage(is, "map-old", seed);
            ASSERT_EQ(done.status, 0) << done.text;
            const std::string file = file_named_first(done.text);
            const uint64_t after = number_after(done.text, "as it was after transaction ");
            const uint64_t of = number_after(done.text, std::to_string(after) + " of ");
            EXPECT_LT(after, of);
            expect_same_map(was + "/" + file, is + "/" + file);
            expect_sound(is + "/" + file);
            EXPECT_EQ(done.text,
                      file + ": as it was after transaction " + std::to_string(after) + " of " +
                          std::to_string(of) +
                          "; mapped count: " + std::to_string(count_in_header(was + "/" + file)) +
                          " -> " + std::to_string(count_in_header(is + "/" + file)) + "; " +
                          difference_of(entries_of(was + "/" + file), entries_of(is + "/" + file)));
        }
    }
}

// The state of a sample before its first transaction does not depend on how many follow: a sample
// without any is the earlier state of another one.
TEST(damage_misplaced, an_old_map_is_an_earlier_state_of_the_map) {
    const scratch_dir place;
    const std::string first = make_sample(place, "first", 5, " --transactions 0");
    const std::string is = make_sample(place, "is", 5, " --transactions 1");
    const ran done = damage(is, "map-old", 1);
    ASSERT_EQ(done.status, 0) << done.text;
    EXPECT_NE(done.text.find(": as it was after transaction 0 of 1; "), std::string::npos);
    const std::string file = file_named_first(done.text);
    EXPECT_EQ(tree_of(is).at(file), tree_of(first).at(file));
}

TEST(damage_misplaced, an_old_map_survives_the_replay_of_a_crashed_sample) {
    for (unsigned seed = 1; seed <= 8; seed++) {
        SCOPED_TRACE(seed);
        const scratch_dir place;
        const std::string sample = make_sample(place, "s", seed, " --crash");
        ASSERT_EQ(damage(sample, "map-old", seed).status, 0);
        (void)tarn_on(sample, "--startup-replay");
        const ran verify = tarn_lab("verify " + sample);
        EXPECT_EQ(verify.status, 1) << verify.text;
    }
}

// All transactions of these samples are within the journal's budget: a replay repeats them.
TEST(damage_misplaced, a_crashed_sample_may_have_no_old_entries_that_survive_the_replay) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 3, " --crash --transactions 2");
    const auto before = tree_of(sample);
    const ran done = damage(sample, "map-old", 1);
    EXPECT_EQ(done.status, 1);
    EXPECT_EQ(done.text,
              "tarn-lab: nothing was damaged: no map of the volume has old entries that would "
              "outlive a replay\n");
    EXPECT_EQ(tree_of(sample), before);
}

static size_t maps_named_in(const std::string& sample, const std::vector<uint8_t>& journal) {
    size_t named = 0;
    for (const auto& entry : fs::recursive_directory_iterator(sample)) {
        const std::string path = entry.path();
        if (entry.is_regular_file() && entry.file_size() > NODES && !path.ends_with("EP_JNL")) {
            const std::vector<uint8_t> uuid = file_bytes(path, 20, 16);
            named += std::search(journal.begin(), journal.end(), uuid.begin(), uuid.end()) !=
                             journal.end()
                         ? 1
                         : 0;
        }
    }
    return named;
}

TEST(damage_misplaced, a_foreign_journal_is_sound_and_names_nothing_of_this_server) {
    for (const char* crash : {"", " --crash"}) {
        const scratch_dir place;
        const std::string sample = make_sample(place, "s", 5, crash);
        const std::string path = sample + "/journal/EP_JNL";
        const std::vector<uint8_t> own = file_bytes(path, 0, fs::file_size(path));
        ASSERT_EQ(damage(sample, "journal-foreign", 1).status, 0);
        const std::vector<uint8_t> foreign = file_bytes(path, 0, fs::file_size(path));
        EXPECT_GT(maps_named_in(sample, own), 3u);
        EXPECT_EQ(maps_named_in(sample, foreign), 0u);
        EXPECT_EQ(file_bytes(path, 4100, 4), (std::vector<uint8_t>{&own[4100], &own[4104]}));
        for (const uint64_t node : {0, 64, 4096, 4160}) {
            EXPECT_TRUE(checksum_is_right(node_of(node), file_bytes(path, node, 64))) << node;
        }
        for (uint64_t at = NODES; at < foreign.size(); at += 512) {
            EXPECT_TRUE(checksum_is_right(node_of(at), file_bytes(path, at, 512))) << at;
        }
    }
}

TEST(damage_misplaced, a_data_file_is_cut_at_an_extent_boundary_and_loses_a_used_extent) {
    for (unsigned seed = 1; seed <= 6; seed++) {
        const scratch_dir place;
        const std::string sample = make_sample(place, "s");
        const ran done = damage(sample, "data-file-cut", seed);
        ASSERT_EQ(done.status, 0) << done.text;
        const uint64_t size = fs::file_size(sample + "/volume1/@EP/EP_DAT_00000");
        EXPECT_EQ(size % 1048576, 0u);
        const uint64_t lpa = number_after(done.text, ", lpa ");
        EXPECT_LE(size, 1048576 + lpa * 1048576);
        const std::string table = sample + "/volume1/@EP/EP_TBL";
        const uint8_t high = file_bytes(table, NODES + lpa / 252 * 512 + lpa % 252 * 2 + 1, 1)[0];
        EXPECT_EQ(high & 0x80, 0x80) << "bit 15: in use";
    }
}

TEST(damage_misplaced, the_data_files_of_a_sample_hold_every_extent_in_use) {
    unsigned large = 0;  // samples that use more than the smallest data file
    for (unsigned seed = 1; seed <= 5; seed++) {
        const scratch_dir place;
        const std::string sample = make_sample(place, "s", seed, " --crash");
        const uint64_t extents = fs::file_size(sample + "/volume1/@EP/EP_DAT_00000") / 1048576 - 1;
        const std::string table = sample + "/volume1/@EP/EP_TBL";
        uint64_t last = 0;
        for (uint64_t lpa = 0; lpa < 40960; lpa++) {
            const uint64_t at = NODES + lpa / 252 * 512 + lpa % 252 * 2 + 1;
            last = (file_bytes(table, at, 1)[0] & 0x80) != 0 ? lpa : last;
        }
        EXPECT_LT(last, extents);
        large += last >= 1024 ? 1 : 0;
    }
    EXPECT_GE(large, 3u);
}

// Exactly the maps of LUNs, snapshots and the trash can be lost.
TEST(damage_misplaced, a_lost_map_belongs_to_a_LUN_a_snapshot_or_the_trash) {
    for (unsigned seed = 1; seed <= 12; seed++) {
        const scratch_dir place;
        const std::string sample = make_sample(place, "s", seed);
        const ran done = damage(sample, "map-lost", seed);
        ASSERT_EQ(done.status, 0) << done.text;
        EXPECT_EQ(done.text.find("volume1/@EP/"), std::string::npos) << done.text;
    }
}
