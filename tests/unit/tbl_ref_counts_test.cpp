#include "tbl/tbl_ref_counts.h"

#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <vector>

// References as a scan brings them, and what a map of counters makes of the same.
class reference_counts : public testing::Test {
protected:
    ~reference_counts() override { ref_counts_close(counts_); }

    void add(uint64_t lpa, uint32_t times = 1) {
        references_.insert(references_.end(), times, lpa);
        expected_[lpa] += times;
    }
    // Scans as often as the counts want it, and collects what each window gives.
    std::map<uint64_t, uint32_t> count() {
        std::map<uint64_t, uint32_t> found;
        scans_ = 0;
        while (ref_counts_begin_scan(counts_)) {
            scans_++;
            for (const uint64_t lpa : references_) {
                EXPECT_TRUE(ref_counts_add(counts_, lpa));
            }
            ref_counts_end_scan(counts_);
            collect(&found);
        }
        return found;
    }
    // Most counters are 0.
    static constexpr uint32_t AT_ONCE = 512;
    static_assert(TBL_GROUP_ENTRIES % AT_ONCE == 0);
    static constexpr uint16_t NOTHING[AT_ONCE] = {};
    static void collect_of(uint64_t lpa, const uint16_t* counts,
                           std::map<uint64_t, uint32_t>* found) {
        for (uint32_t i = 0; i < AT_ONCE; i++) {
            if (counts[i] != 0) {
                const size_t before = found->size();
                found->emplace_hint(found->end(), lpa + i, counts[i]);
                EXPECT_GT(found->size(), before) << lpa + i;
            }
        }
    }
    void collect(std::map<uint64_t, uint32_t>* found) {
        uint64_t next = 0;
        for (uint64_t group = 0; ref_counts_next_group(counts_, &group); group++) {
            EXPECT_GE(group, next);
            next = group + 1;
            uint16_t group_counts[TBL_GROUP_ENTRIES];
            ref_counts_get_group(counts_, group, group_counts);
            bool any = false;
            for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset += AT_ONCE) {
                if (memcmp(group_counts + offset, NOTHING, sizeof NOTHING) != 0) {
                    any = true;
                    collect_of(tbl_lpa_of(group, offset), group_counts + offset, found);
                }
            }
            EXPECT_TRUE(any) << group;
        }
        EXPECT_LE(ref_counts_group_end(counts_), ref_counts_group_limit(counts_));
    }

    ref_counts* counts_ = ref_counts_open();
    std::vector<uint64_t> references_;
    std::map<uint64_t, uint32_t> expected_;
    unsigned scans_ = 0;
};

TEST_F(reference_counts, without_references_have_no_group) {
    EXPECT_TRUE(count().empty());
    EXPECT_EQ(scans_, 1u);
    EXPECT_EQ(ref_counts_group_end(counts_), 0u);
}

TEST_F(reference_counts, are_exact_at_the_edges_of_counters_groups_parts_and_regions) {
    for (const uint64_t lpa : {0u, 1u, 4095u, 4096u, 65535u, 65536u, (1u << 20) - 1, 1u << 20}) {
        add(lpa, 1 + static_cast<uint32_t>(lpa % 3));
    }
    add(TBL_TOTAL_COUNT - 1);
    EXPECT_EQ(count(), expected_);
    EXPECT_EQ(scans_, 1u);
    EXPECT_EQ(ref_counts_group_end(counts_), TBL_GROUP_COUNT);
    EXPECT_FALSE(ref_counts_add(counts_, TBL_TOTAL_COUNT));
}

TEST_F(reference_counts, above_15_are_exact_up_to_4095) {
    for (uint32_t times : {14u, 15u, 16u, 17u, 255u, 4094u, 4095u}) {
        add(times * 2, times);
        add(times * 2 + 1, times);  // both counters of a byte
    }
    add(0, 100);  // the extent whose number is 0
    EXPECT_EQ(count(), expected_);
    EXPECT_FALSE(ref_counts_is_past_max(counts_));
}

TEST_F(reference_counts, of_4096_are_past_what_an_entry_counts) {
    add(77, 4095);
    (void)count();
    EXPECT_FALSE(ref_counts_is_past_max(counts_));
    ref_counts_restart(counts_);
    add(77);
    (void)count();
    EXPECT_TRUE(ref_counts_is_past_max(counts_));
}

// Full buckets are counted on the way, the rest at the end.
TEST_F(reference_counts, in_no_order_are_exact) {
    std::mt19937_64 random(7);
    for (unsigned i = 0; i < 300000; i++) {
        add(random() % (3u << 20));
    }
    EXPECT_EQ(count(), expected_);
    EXPECT_EQ(scans_, 1u);
}

// 102 regions fit in a window: 640 KiB and a head of 64 bytes each, in 64 MiB.
TEST_F(reference_counts, of_more_regions_than_fit_take_a_second_scan) {
    for (uint64_t region = 0; region < 102; region++) {
        add((200 - region) << 20 | region);
    }
    EXPECT_EQ(count(), expected_);
    EXPECT_EQ(scans_, 1u);
    ref_counts_restart(counts_);
    for (uint64_t region = 300; region < 340; region++) {
        add(region << 20 | 5, 20000);  // too many to be kept as they come
        add(region << 20 | 6);
        expected_[region << 20 | 5] = 20000;
    }
    (void)count();
    EXPECT_EQ(scans_, 2u);
    EXPECT_TRUE(ref_counts_is_past_max(counts_));
}

TEST_F(reference_counts, spread_over_every_region_take_two_scans_more_at_the_most) {
    std::mt19937_64 random(3);
    for (unsigned i = 0; i < 1000000; i++) {
        add(random() % TBL_TOTAL_COUNT);
    }
    EXPECT_EQ(count(), expected_);
    EXPECT_LE(scans_, 3u);
}

TEST_F(reference_counts, of_a_far_region_are_kept_as_they_come_or_counted) {
    for (uint64_t region = 0; region < 102; region++) {
        add(region << 20);  // the window is full
    }
    for (uint32_t i = 0; i < 16384; i++) {
        add(uint64_t{110} << 20 | i % 5000, 1);
    }
    for (uint32_t i = 0; i < 16385; i++) {
        add(uint64_t{111} << 20 | i % 5000, 1);
    }
    EXPECT_EQ(count(), expected_);
    EXPECT_EQ(scans_, 2u);
}

TEST_F(reference_counts, of_a_far_region_past_4095_are_noticed_in_either_form) {
    for (const uint32_t others : {0u, 20000u}) {
        ref_counts_restart(counts_);
        references_.clear();
        for (uint64_t region = 0; region < 102; region++) {
            add(region << 20);
        }
        for (uint32_t i = 0; i < others; i++) {
            add(uint64_t{110} << 20 | (1000 + i));
        }
        add(uint64_t{110} << 20 | 9, 4095);
        (void)count();
        EXPECT_FALSE(ref_counts_is_past_max(counts_)) << others;
        ref_counts_restart(counts_);
        add(uint64_t{110} << 20 | 9);
        (void)count();
        EXPECT_TRUE(ref_counts_is_past_max(counts_)) << others;
    }
}

// 3 * 2^16 extents have room for what is above 15; one more, and their region is counted again.
TEST_F(reference_counts, of_which_too_many_are_above_15_take_a_scan_with_wide_counters) {
    for (uint32_t i = 0; i < 3 * 65536 + 1; i++) {
        add(5 + i, 16 + i % 3);
    }
    add(uint64_t{9} << 20, 1);
    EXPECT_EQ(count(), expected_);
    EXPECT_EQ(scans_, 2u);
    EXPECT_FALSE(ref_counts_is_past_max(counts_));
    ref_counts_restart(counts_);
    add(6, 4096);
    (void)count();
    EXPECT_TRUE(ref_counts_is_past_max(counts_));
}

TEST_F(reference_counts, know_the_regions_that_were_met_and_those_of_the_window) {
    for (uint64_t region = 0; region < 104; region++) {
        add(region << 20);
    }
    ASSERT_TRUE(ref_counts_begin_scan(counts_));
    for (const uint64_t lpa : references_) {
        (void)ref_counts_add(counts_, lpa);
    }
    ref_counts_end_scan(counts_);
    EXPECT_TRUE(ref_counts_has_region(counts_, 0));
    EXPECT_TRUE(ref_counts_has_region(counts_, 101));
    EXPECT_FALSE(ref_counts_has_region(counts_, 103));
    EXPECT_FALSE(ref_counts_has_region(counts_, 104));
    EXPECT_TRUE(ref_counts_met_region(counts_, 103));
    EXPECT_FALSE(ref_counts_met_region(counts_, 104));
    EXPECT_TRUE(ref_counts_begin_scan(counts_));  // for the others
}

// Nodes of a map, and the same entries one by one.
class references_of_nodes : public reference_counts {
protected:
    static data_node node_of(const std::vector<uint64_t>& words) {
        data_node node = {};
        memcpy(node.payload, words.data(), words.size() * sizeof words[0]);
        return node;
    }
    static std::vector<uint64_t> run_from(uint64_t lpa) {
        std::vector<uint64_t> words;
        for (uint64_t i = 0; i < 63; i++) {
            words.push_back(MAP_MAPPED_BIT | (lpa + i));
        }
        return words;
    }
    void add_node(const std::vector<uint64_t>& words, uint32_t entries, uint32_t mapped) {
        const data_node node = node_of(words);
        const node_references found = ref_counts_add_node(counts_, &node, entries);
        EXPECT_EQ(found.mapped, mapped);
        EXPECT_FALSE(found.past_end);
        for (uint32_t i = 0; i < entries; i++) {
            if ((words[i] & MAP_MAPPED_BIT) != 0) {
                expected_[words[i] & MAP_LPA_MASK]++;
            }
        }
    }
    void expect_counts() {
        std::map<uint64_t, uint32_t> found;
        ref_counts_end_scan(counts_);
        collect(&found);
        EXPECT_EQ(found, expected_);
    }
};

TEST_F(references_of_nodes, that_are_runs_count_as_their_entries) {
    ASSERT_TRUE(ref_counts_begin_scan(counts_));
    std::mt19937_64 random(5);
    for (unsigned i = 0; i < 3000; i++) {
        add_node(run_from(random() % 70000 + (i % 2 << 20) - (i % 2) * 100), 63, 63);
    }
    for (const uint64_t edge : {65536u - 63, 65536u - 62, (1u << 20) - 63, (1u << 20) - 62}) {
        add_node(run_from(edge), 63, 63);
    }
    expect_counts();
}

TEST_F(references_of_nodes, that_are_runs_stay_exact_above_15) {
    ASSERT_TRUE(ref_counts_begin_scan(counts_));
    for (unsigned i = 0; i < 40; i++) {
        add_node(run_from(1000 + i % 2), 63, 63);
    }
    expect_counts();
}

TEST_F(references_of_nodes, count_the_mapped_entries_that_are_asked_for) {
    ASSERT_TRUE(ref_counts_begin_scan(counts_));
    std::vector<uint64_t> words = run_from(5000);
    words[3] = 77;                                 // not mapped
    words[4] |= uint64_t{9} << 48 | MAP_FLAG_BIT;  // pool and flags are no part of the lpa
    words[5] = MAP_MAPPED_BIT | (TBL_TOTAL_COUNT - 1);
    add_node(words, 63, 62);
    add_node(words, 4, 3);
    add_node(words, 0, 0);
    expect_counts();
}

TEST_F(references_of_nodes, past_the_table_are_said_and_not_counted) {
    ASSERT_TRUE(ref_counts_begin_scan(counts_));
    std::vector<uint64_t> words = run_from(TBL_TOTAL_COUNT - 62);  // the last one is past it
    const data_node node = node_of(words);
    const node_references found = ref_counts_add_node(counts_, &node, 63);
    EXPECT_EQ(found.mapped, 63u);
    EXPECT_TRUE(found.past_end);
    words.pop_back();
    for (const uint64_t word : words) {
        expected_[word & MAP_LPA_MASK]++;
    }
    expect_counts();
}

// 150 regions: in each scan some entries of a node have no place. Full nodes take another way than
// those with an unmapped entry or a reference past 2^40.
TEST_F(references_of_nodes, of_more_regions_than_fit_are_exact) {
    std::mt19937_64 random(11);
    std::vector<std::vector<uint64_t>> nodes;
    for (unsigned i = 0; i < 2000; i++) {
        std::vector<uint64_t> words;
        for (unsigned slot = 0; slot < 63; slot++) {
            const uint64_t region = random() % 150;
            words.push_back(MAP_MAPPED_BIT | (region << 20) | random() % 1000);
        }
        if (i % 3 == 0) {
            words[random() % 63] &= ~MAP_MAPPED_BIT;
        }
        if (i % 500 == 0) {
            words[random() % 63] = MAP_MAPPED_BIT | ((uint64_t{1} << 40) + random() % 4);
        }
        nodes.push_back(words);
    }
    std::map<uint64_t, uint32_t> found;
    unsigned scans = 0;
    for (; ref_counts_begin_scan(counts_); scans++) {
        for (const std::vector<uint64_t>& words : nodes) {
            const data_node node = node_of(words);
            EXPECT_FALSE(ref_counts_add_node(counts_, &node, 63).past_end);
            for (const uint64_t word : words) {
                expected_[word & MAP_LPA_MASK] +=
                    scans == 0 && (word & MAP_MAPPED_BIT) != 0 ? 1 : 0;
            }
        }
        ref_counts_end_scan(counts_);
        collect(&found);
    }
    EXPECT_EQ(scans, 2u);
    std::erase_if(expected_, [](const auto& count) { return count.second == 0; });
    EXPECT_EQ(found, expected_);
}
