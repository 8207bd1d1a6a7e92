// The damages of single entries, blocks and identities: what the bytes mean afterwards, worked out
// from the formats.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>

#include "store/crc32c.h"
#include "support/sample_maps.h"
#include "system/support/lab_sample.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

static constexpr uint64_t NODES = 1048576;  // where the entries of every kind of file begin
static constexpr uint64_t MAPPED = uint64_t{1} << 63;
static constexpr uint64_t LPA = (uint64_t{1} << 48) - 1;
static constexpr uint64_t GROUPS = 16;  // more than a sample ever uses

template <class Number>
static Number number_at(const std::string& path, uint64_t offset) {
    Number number = 0;
    memcpy(&number, file_bytes(path, offset, sizeof number).data(), sizeof number);
    return number;
}

// A sample, and one damage to it.
struct damaged_sample {
    scratch_dir place;
    std::string sample;
    std::string line;
    reported_place first;  // its file below the sample

    explicit damaged_sample(const std::string& kind) : sample(make_sample(place, "s")) {
        damage_again(kind, 1);
    }
    void damage_again(const std::string& kind, unsigned seed) {
        line = damage(sample, kind, seed).text;
        const std::vector<reported_place> places = places_in(line);
        EXPECT_FALSE(places.empty()) << line;
        first = places.empty() ? reported_place{} : places[0];
    }
    [[nodiscard]] std::string file() const { return sample + "/" + first.file; }
    [[nodiscard]] std::string index() const { return sample + "/volume1/@EP/EP_FRI"; }
    [[nodiscard]] std::string table() const { return sample + "/volume1/@EP/EP_TBL"; }
};

// "lea L: OLD -> NEW", both hexadecimal.
struct changed_entry {
    uint64_t lea;
    uint64_t from;
    uint64_t to;
};

static changed_entry entry_in(const reported_place& place) {
    const uint64_t lea = number_after(place.rest, ", lea ");
    const size_t value = place.rest.find(": ") + 2;
    const size_t arrow = place.rest.find(" -> ") + 4;
    EXPECT_EQ(place.byte, NODES + lea / 63 * 512 + lea % 63 * 8);
    return {lea, std::stoull(place.rest.substr(value, 16), nullptr, 16),
            std::stoull(place.rest.substr(arrow, 16), nullptr, 16)};
}

// The changed entry, which is on the disk now.
static changed_entry entry_of(const damaged_sample& damaged) {
    const changed_entry entry = entry_in(damaged.first);
    EXPECT_EQ(number_at<uint64_t>(damaged.file(), damaged.first.byte), entry.to);
    return entry;
}

static uint16_t table_word(const std::string& table, uint64_t lpa) {
    return number_at<uint16_t>(table, NODES + lpa / 252 * 512 + lpa % 252 * 2);
}

// The extents that the map's entries name.
static std::set<uint64_t> extents_of(const std::vector<uint64_t>& words) {
    std::set<uint64_t> lpas;
    for (const uint64_t word : words) {
        if ((word & MAPPED) != 0) {
            lpas.insert(word & LPA);
        }
    }
    return lpas;
}

static std::string full_check_of(const std::string& sample) {
    return "--fullck --volpath " + sample + "/volume1";
}

static std::string list_check_of(const std::string& sample) {
    const std::string files = sample + "/volume1/@EP/EP_";
    return "--freeck --fripath " + files + "FRI --tblpath " + files + "TBL";
}

TEST(damage_entries, an_alias_names_an_extent_of_another_LUN_alone) {
    const damaged_sample damaged("alias");
    const changed_entry entry = entry_of(damaged);
    EXPECT_EQ(entry.from & ~LPA, entry.to & ~LPA);
    const size_t other = damaged.line.find("the extent of ") + 14;
    const std::string path = damaged.line.substr(other, damaged.line.find(" lea ", other) - other);
    EXPECT_NE(path, damaged.first.file);
    const uint64_t lea = number_after(damaged.line.substr(other), " lea ");
    EXPECT_EQ(entries_of(damaged.sample + "/" + path)[lea] & LPA, entry.to & LPA);
    std::vector<uint64_t> own = entries_of(damaged.file());
    own[entry.lea] = entry.from;
    EXPECT_EQ(extents_of(own).count(entry.to & LPA), 0u);
    EXPECT_EQ(tarn_on(damaged.sample, list_check_of(damaged.sample)).status, 0);
    EXPECT_EQ(tarn_on(damaged.sample, full_check_of(damaged.sample)).status, 255);
}

TEST(damage_entries, a_dangling_entry_names_a_free_extent) {
    const damaged_sample damaged("dangling");
    const changed_entry entry = entry_of(damaged);
    EXPECT_EQ(entry.from & ~LPA, entry.to & ~LPA);
    EXPECT_EQ(table_word(damaged.table(), entry.from & LPA) & 0x8000, 0x8000);
    EXPECT_EQ(table_word(damaged.table(), entry.to & LPA) & 0x8000, 0);
}

// Four tebibytes a data file, of one mebibyte each: 2^22. There are two.
TEST(damage_entries, a_far_address_is_past_the_data_files_and_sometimes_past_the_table) {
    constexpr uint64_t TABLE_END = 0x000001F800000000;
    std::set<std::string> places;
    damaged_sample damaged("far-lpa");
    for (unsigned seed = 2; seed <= 12; seed++) {
        damaged.damage_again("far-lpa", seed);
        const uint64_t lpa = entry_of(damaged).to & LPA;
        EXPECT_GE(lpa, 8388608u);
        places.insert(lpa < 8388608 + 4096 ? "close" : lpa < TABLE_END ? "far" : "past the table");
    }
    EXPECT_EQ(places.size(), 3u);
}

static std::set<uint64_t> mapped_extents(const std::string& volume) {
    std::set<uint64_t> all;
    for (const auto& file : fs::recursive_directory_iterator(volume)) {
        const std::string path = file.path();
        if (file.is_regular_file() && file.file_size() > NODES &&
            number_at<uint32_t>(path, 16) == 4) {
            all.merge(extents_of(entries_of(path)));
        }
    }
    return all;
}

TEST(damage_entries, a_leaked_extent_is_in_use_and_no_map_names_it) {
    const damaged_sample damaged("leak");
    const scratch_dir place;
    const std::string was = make_sample(place, "was");
    const uint64_t lpa = number_after(damaged.line, "lpa ");
    EXPECT_EQ(table_word(damaged.table(), lpa), 0x8001);
    EXPECT_EQ(mapped_extents(damaged.sample + "/volume1").count(lpa), 0u);
    EXPECT_GT(mapped_extents(damaged.sample + "/volume1").size(), 1000u);
    const uint64_t group = lpa / 4096;
    const uint64_t before = fri_word_of(was + "/volume1/@EP/EP_FRI", group);
    EXPECT_EQ(before >> 36 & 0xFFF, lpa % 4096) << "it was the head of its list";
    const uint64_t head = table_word(was + "/volume1/@EP/EP_TBL", lpa) & 0x0FFF;
    const uint64_t kept = before & 0xC000000FFFFFFFFF;
    EXPECT_EQ(fri_word_of(damaged.index(), group),
              kept | head << 36 | ((before >> 48 & 0x3FFF) - 1) << 48);
    EXPECT_EQ(fri_free_count_of(damaged.index()),
              fri_free_count_of(was + "/volume1/@EP/EP_FRI") - 1);
    EXPECT_EQ(tarn_on(damaged.sample, list_check_of(damaged.sample)).status, 0);
}

TEST(damage_entries, two_maps_have_one_uuid) {
    const damaged_sample damaged("uuid-twice");
    EXPECT_EQ(damaged.first.byte, 20u);
    const size_t other = damaged.line.find("that of ") + 8;
    const std::string path = damaged.line.substr(other, damaged.line.size() - other - 1);
    EXPECT_NE(path, damaged.first.file);
    EXPECT_EQ(uuid_in(damaged.file()), uuid_in(damaged.sample + "/" + path));
}

TEST(damage_entries, a_row_that_an_entry_uses_names_no_volume) {
    const damaged_sample damaged("pool-uuid");
    const uint64_t row = (damaged.first.byte - 8192) / 16;
    const std::vector<uint64_t> words = entries_of(damaged.file());
    EXPECT_TRUE(std::any_of(words.begin(), words.end(), [row](uint64_t word) {
        return (word & MAPPED) != 0 && (word >> 48 & 0xFFF) == row;
    }));
    const std::vector<uint8_t> uuid = file_bytes(damaged.file(), damaged.first.byte, 16);
    EXPECT_NE(uuid, uuid_in(damaged.table()));
    EXPECT_NE(uuid, uuid_in(damaged.sample + "/volume2/@EP/EP_TBL"));
    const std::vector<uint8_t> rows =
        file_bytes(damaged.file(), 8192, number_at<uint32_t>(damaged.file(), 4168) * 16);
    uint32_t checksum = 0;
    tarn_crc32c(rows.data(), static_cast<uint32_t>(rows.size()), &checksum);
    EXPECT_EQ(number_at<uint32_t>(damaged.file(), 4164), checksum);
}

TEST(damage_entries, a_foreign_row_is_not_in_the_pool_table) {
    const damaged_sample damaged("foreign-pool-row");
    const changed_entry entry = entry_of(damaged);
    constexpr uint64_t ROW = 0x0FFF000000000000;
    EXPECT_EQ(entry.from & ~ROW, entry.to & ~ROW);
    const uint32_t rows = number_at<uint32_t>(damaged.file(), 4168);
    EXPECT_LT(entry.from >> 48 & 0xFFF, rows);
    EXPECT_GE(entry.to >> 48 & 0xFFF, rows);
}

// 3000 entries are 47 nodes and 39 entries: the last node has room for leas up to 3023.
TEST(damage_entries, an_entry_lies_behind_the_end_in_the_last_node) {
    const damaged_sample damaged("entry-behind-end");
    const changed_entry entry = entry_of(damaged);
    EXPECT_GE(entry.lea, 3000u);
    EXPECT_LE(entry.lea, 3023u);
    EXPECT_EQ(entry.from, 0u);
    EXPECT_EQ(entry.to & MAPPED, MAPPED);
    EXPECT_EQ(extents_of(entries_of(damaged.file())).count(entry.to & LPA), 1u);
}

TEST(damage_entries, a_node_with_entries_has_no_checksum) {
    const damaged_sample damaged("unsummed-node");
    EXPECT_EQ(damaged.first.byte % 512, 508u);
    EXPECT_EQ(number_at<uint32_t>(damaged.file(), damaged.first.byte), 0u);
    unsigned mapped = 0;
    for (uint64_t at = damaged.first.byte - 508; at < damaged.first.byte - 4; at += 8) {
        mapped += (number_at<uint64_t>(damaged.file(), at) & MAPPED) != 0 ? 1 : 0;
    }
    EXPECT_GT(mapped, 0u);
}

// An entry of the index: bits 0 to 35 next, bits 48 to 61 the free count, bit 63 initialised.
TEST(damage_entries, the_list_of_groups_goes_on_after_it_has_passed_every_group) {
    const damaged_sample damaged("index-open-end");
    std::set<uint64_t> initialised;
    std::set<uint64_t> left;
    for (uint64_t group = 0; group < GROUPS; group++) {
        const uint64_t word = fri_word_of(damaged.index(), group);
        if ((word & MAPPED) != 0) {
            initialised.insert(group);
        }
        if ((word & MAPPED) != 0 && (word >> 48 & 0x3FFF) != 0) {
            left.insert(group);
        }
    }
    ASSERT_GT(left.size(), 1u);
    uint64_t group = fri_group_head_of(damaged.index());
    for (size_t steps = left.size(); steps > 0; steps--) {
        EXPECT_EQ(left.erase(group), 1u) << group;
        EXPECT_EQ(group == number_after(damaged.line, "group "), left.empty());
        group = fri_word_of(damaged.index(), group) & 0xFFFFFFFFF;
    }
    EXPECT_EQ(initialised.count(group), 1u);
}

TEST(damage_entries, an_orphan_is_a_sound_map_that_no_check_finds) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    const auto before = tree_of(sample);
    std::set<std::string> places;
    for (unsigned seed = 1; seed <= 12; seed++) {
        const std::string file = file_named_first(damage(sample, "orphan-map", seed).text);
        const std::string path = sample + "/" + file;
        EXPECT_EQ(number_at<uint64_t>(path, 8), 0x0886255218140633u);
        EXPECT_EQ(number_at<uint32_t>(path, 16), 4u);
        EXPECT_EQ(fs::file_size(path), NODES + 48 * 512);
        for (const uint64_t node : {0, 64, 4096, 4160, 4224}) {
            EXPECT_TRUE(checksum_is_right(node_of(node), file_bytes(path, node, 64))) << node;
        }
        EXPECT_EQ(file.find("_Extent_"), std::string::npos);
        EXPECT_EQ(file.find("/FAMILY_"), std::string::npos);
        places.insert(file.substr(0, file.rfind('_')));
        EXPECT_TRUE(fs::remove(path));
    }
    EXPECT_EQ(places.size(), 3u);
    EXPECT_EQ(tree_of(sample), before);
}

// The check of the counts visits every map that the tool finds, and prints each.
TEST(damage_entries, an_orphan_is_not_found_by_the_full_check) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    const ran before = tarn_on(sample, full_check_of(sample));
    EXPECT_EQ(before.status, 0);
    ASSERT_EQ(damage(sample, "orphan-map", 1).status, 0);
    const ran after = tarn_on(sample, full_check_of(sample));
    EXPECT_EQ(after.status, 0);
    EXPECT_EQ(after.text, before.text);
}

TEST(damage_entries, a_data_file_is_missing_between_two_others) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    const std::string data = sample + "/volume1/@EP/EP_DAT_0000";
    const std::string last = tree_of(sample).at("volume1/@EP/EP_DAT_00001");
    EXPECT_EQ(damage(sample, "data-file-gap", 1).status, 0);
    EXPECT_TRUE(file_exists(data + "0"));
    EXPECT_FALSE(file_exists(data + "1"));
    EXPECT_EQ(tree_of(sample).at("volume1/@EP/EP_DAT_00002"), last);
    const ran again = damage(sample, "data-file-gap", 1);
    EXPECT_EQ(again.text, "tarn-lab: nothing was damaged: the volume has no second data file\n");
}

TEST(damage_entries, two_bits_are_flipped_in_one_block_of_any_of_the_three_files) {
    std::set<std::string> files;
    damaged_sample damaged("two-bits");
    for (unsigned seed = 2; seed <= 12; seed++) {
        const std::vector<reported_place> places = places_in(damaged.line);
        ASSERT_EQ(places.size(), 2u);
        const node_place node = node_of(places[0].byte);
        EXPECT_EQ(node.length, 512u);
        EXPECT_EQ(node_of(places[1].byte).start, node.start);
        std::vector<uint8_t> block = file_bytes(damaged.file(), node.start, 512);
        EXPECT_FALSE(checksum_is_right(node, block));
        for (const reported_place& place : places) {
            const uint64_t bit = number_after(place.rest, ": bit ");
            block[place.byte - node.start] =
                static_cast<uint8_t>(block[place.byte - node.start] ^ 1u << bit);
        }
        EXPECT_TRUE(checksum_is_right(node, block));
        files.insert(damaged.first.file.ends_with("EP_TBL")   ? "table"
                     : damaged.first.file.ends_with("EP_FRI") ? "index"
                                                              : "map");
        write_file_bytes(damaged.file(), node.start, block.data(), block.size());
        damaged.damage_again("two-bits", seed);
    }
    EXPECT_EQ(files.size(), 3u);
}

TEST(damage_entries, one_to_three_entries_of_one_node_are_garbled) {
    std::set<size_t> counts;
    damaged_sample damaged("three-entries");
    for (unsigned seed = 2; seed <= 12; seed++) {
        const std::vector<reported_place> places = places_in(damaged.line);
        const node_place node = node_of(places[0].byte);
        std::vector<uint8_t> block = file_bytes(damaged.file(), node.start, 512);
        EXPECT_FALSE(checksum_is_right(node, block));
        std::set<uint64_t> leas;
        for (const reported_place& place : places) {
            EXPECT_EQ(node_of(place.byte).start, node.start);
            const changed_entry entry = entry_in(place);
            leas.insert(entry.lea);
            memcpy(&block[place.byte - node.start], &entry.from, 8);
        }
        EXPECT_TRUE(checksum_is_right(node, block));
        EXPECT_EQ(leas.size(), places.size());
        counts.insert(places.size());
        write_file_bytes(damaged.file(), node.start, block.data(), block.size());
        damaged.damage_again("three-entries", seed);
    }
    EXPECT_EQ(counts, (std::set<size_t>{1, 2, 3}));
}

// The only transaction of these samples makes the earlier time that before it, which a sample
// without any transaction shows.
TEST(damage_entries, a_torn_node_ends_with_what_it_held_earlier_or_with_zeros) {
    const scratch_dir place;
    const std::string first = make_sample(place, "first", 5, " --transactions 0");
    const std::string was = make_sample(place, "was", 5, " --transactions 1");
    const std::string is = make_sample(place, "is", 5, " --transactions 1");
    unsigned old = 0;
    unsigned zero = 0;
    for (unsigned seed = 1; seed <= 40 && (old == 0 || zero == 0); seed++) {
        const ran done = damage(is, "torn-node", seed);
        ASSERT_EQ(done.status, 0) << done.text;
        const reported_place cut = places_in(done.text)[0];
        const uint64_t start = cut.byte / 512 * 512;
        const size_t kept = cut.byte - start;
        const bool is_old =
            done.text.find("bytes are as after transaction 0, ") != std::string::npos;
        std::vector<uint8_t> expected = file_bytes(was + "/" + cut.file, start, 512);
        const std::vector<uint8_t> whole = expected;
        const std::vector<uint8_t> before =
            is_old ? file_bytes(first + "/" + cut.file, start, 512) : std::vector<uint8_t>(512);
        std::copy(before.begin() + static_cast<std::ptrdiff_t>(kept), before.end(),
                  expected.begin() + static_cast<std::ptrdiff_t>(kept));
        EXPECT_EQ(file_bytes(is + "/" + cut.file, start, 512), expected);
        EXPECT_NE(expected, before) << "the first part is new";
        EXPECT_NE(expected, whole);
        EXPECT_LE(kept, 508u) << "the checksum is in the last part";
        write_file_bytes(is + "/" + cut.file, start, whole.data(), whole.size());
        (is_old ? old : zero)++;
    }
    EXPECT_GT(old, 0u);
    EXPECT_GT(zero, 0u);
}

// The header of the journal: the status at byte 4100, the sync count at 4104, the newest id at
// 4164.
TEST(damage_entries, a_block_inside_the_window_is_damaged_and_the_status_is_abnormal) {
    const scratch_dir place;
    const std::string was = make_sample(place, "was") + "/journal/EP_JNL";
    const uint32_t sync_count = number_at<uint32_t>(was, 4104);
    const uint32_t window = sync_count == 0 ? 128 : 2 * sync_count;
    damaged_sample damaged("journal-block-in-window");
    for (unsigned seed = 2; seed <= 6; seed++) {
        EXPECT_EQ(number_at<uint32_t>(damaged.file(), 4100), 0xFFFFFFFFu);
        const node_place block = node_of(damaged.first.byte);
        EXPECT_FALSE(checksum_is_right(block, file_bytes(damaged.file(), block.start, 512)));
        const uint32_t age = number_at<uint32_t>(was, 4164) - number_at<uint32_t>(was, block.start);
        EXPECT_GE(age, 1u);
        EXPECT_LT(age, window);
        const std::vector<uint8_t> whole = file_bytes(was, block.start, 512);
        write_file_bytes(damaged.file(), block.start, whole.data(), whole.size());
        damaged.damage_again("journal-block-in-window", seed);
    }
}

// A replay takes the block for the end of the history.
TEST(damage_entries, a_damaged_block_inside_the_window_is_not_refused) {
    const damaged_sample damaged("journal-block-in-window");
    EXPECT_EQ(tarn_on(damaged.sample, "--startup-replay").status, 0);
    EXPECT_FALSE(file_exists(damaged.file()));
}
