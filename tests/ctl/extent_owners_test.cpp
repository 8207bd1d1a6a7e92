// The owners of extents in windows of several sizes against sets.
#include "ctl/space/extent_owners.h"

#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "map/map_format.h"
#include "tbl/tbl_format.h"

constexpr uint64_t REGION = uint64_t{1} << OWNER_REGION_SHIFT;

using references = std::map<uint32_t, std::vector<uint64_t>>;  // map's number to lpas

static void add(extent_owners* owners, const std::vector<uint64_t>& lpas) {
    for (size_t at = 0; at < lpas.size(); at += MAP_NODE_ENTRIES) {
        data_node node = {};
        const size_t count = std::min<size_t>(MAP_NODE_ENTRIES, lpas.size() - at);
        for (size_t slot = 0; slot < count; slot++) {
            const map_entry entry = {MAP_MAPPED_BIT | lpas[at + slot]};
            memcpy(node.payload + slot * sizeof entry, &entry, sizeof entry);
        }
        owners->add_node(&node, MAP_NODE_ENTRIES);  // the rest is not mapped
    }
}

struct owned_groups {
    std::set<uint64_t> extents;
    std::map<uint64_t, unsigned> settled;  // region to the number of scans that settled it
    unsigned scans = 0;
};

static owned_groups scan(extent_owners* owners, const references& all, uint64_t regions) {
    owned_groups seen;
    while (owners->begin_scan()) {
        for (const auto& [number, lpas] : all) {
            owners->begin_map(number);
            add(owners, lpas);
        }
        owners->end_scan();
        seen.scans++;
        bool owned[TBL_GROUP_ENTRIES];
        for (uint64_t region = 0; region < regions; region++) {
            seen.settled[region] += owners->settled(region) ? 1 : 0;
            for (uint64_t group = region * 128;
                 owners->settled(region) && group < (region + 1) * 128; group++) {
                if (owners->owned_in_group(group, owned)) {
                    for (uint64_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
                        if (owned[offset]) {
                            seen.extents.insert(group * TBL_GROUP_ENTRIES + offset);
                        }
                    }
                }
            }
        }
    }
    return seen;
}

// Holds the figures of one run against sets.
static unsigned compare(const references& all, const owners_wanted& wanted, uint64_t regions) {
    const auto owners = count_owners(wanted);
    EXPECT_NE(owners, nullptr);
    const owned_groups seen = scan(owners.get(), all, regions);
    std::map<uint64_t, std::set<uint32_t>> by_extent;
    for (const auto& [number, lpas] : all) {
        uint64_t past = 0;
        for (const uint64_t lpa : lpas) {
            if (lpa < wanted.extents) {
                by_extent[lpa].insert(number);
            } else {
                past++;
            }
        }
        EXPECT_EQ(owners->mapped(number), lpas.size());
        EXPECT_EQ(owners->past_end(number), past);
    }
    std::map<uint32_t, owner_figures> expected;
    uint64_t shared = 0;
    uint64_t of_set = 0;
    std::set<uint64_t> extents;
    for (const auto& [lpa, maps] : by_extent) {
        extents.insert(lpa);
        shared += maps.size() > 1 ? 1 : 0;
        of_set += *maps.rbegin() <= wanted.set ? 1 : 0;
        for (const uint32_t number : maps) {
            expected[number].referred++;
            expected[number].exclusive += maps.size() == 1 ? 1 : 0;
        }
    }
    EXPECT_EQ(owners->shared(), shared);
    EXPECT_EQ(owners->of_set(), of_set);
    for (const auto& [number, figures] : expected) {
        EXPECT_EQ(owners->of_map(number).referred, figures.referred) << number;
        EXPECT_EQ(owners->of_map(number).exclusive, figures.exclusive) << number;
    }
    EXPECT_EQ(seen.extents, extents);
    for (const auto& [region, times] : seen.settled) {
        EXPECT_EQ(times, 1u) << region;
    }
    return seen.scans;
}

// Maps that share a lot, in regions far apart.
static references random_references(uint64_t regions, const std::vector<uint32_t>& numbers) {
    std::mt19937_64 random(7);
    references all;
    for (const uint32_t number : numbers) {
        for (int i = 0; i < 2000; i++) {
            const uint64_t region = random() % regions;
            all[number].push_back(region * REGION + random() % 700);
        }
        all[number].push_back(regions * REGION + 5);  // past the end
    }
    return all;
}

TEST(extent_owners, are_exact_in_windows_of_any_size) {
    const references all = random_references(5, {1, 2, 3, 4, 5, 6});
    for (const uint32_t set : {0u, 1u, 3u, 6u}) {
        EXPECT_EQ(compare(all, {6, set, 5 * REGION, uint64_t{1} << 20}, 7), 5u);
        EXPECT_EQ(compare(all, {6, set, 5 * REGION, uint64_t{2} << 20}, 7), 3u);
        EXPECT_EQ(compare(all, {6, set, 5 * REGION, uint64_t{64} << 20}, 7), 1u);
    }
}

TEST(extent_owners, are_exact_with_more_maps_than_a_short_word_can_name) {
    const references all = random_references(3, {1, 2, 32767, 32768, 40000});
    EXPECT_EQ(compare(all, {40000, 2, 3 * REGION, uint64_t{1} << 20}, 4), 3u);
    EXPECT_EQ(compare(all, {40000, 32767, 3 * REGION, uint64_t{64} << 20}, 4), 1u);
}

TEST(extent_owners, need_no_region_for_maps_without_entries) {
    EXPECT_EQ(compare({{1, {}}, {2, {}}}, {2, 1, 0, uint64_t{1} << 20}, 2), 1u);
}
