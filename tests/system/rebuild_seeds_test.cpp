// Rebuilt tables: a sample loses its index and the entries of its table, is rebuilt by the one-key
// repair, and must then match its maps; and the comparison that checks this notices every other
// content of the two files.
#include <gtest/gtest.h>
#include <string>

#include "jnl/jnl_format.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "system/support/shell.h"

static constexpr unsigned SEEDS_A_TEST = 25;

static void expect_success(const ran& run) {
    EXPECT_EQ(run.status, 0) << run.text;
}

static std::string volume_of(const std::string& sample) {
    return sample + "/volume1";
}
static std::string index_of(const std::string& sample) {
    return sample + "/volume1/@EP/EP_FRI";
}
static std::string table_of(const std::string& sample) {
    return sample + "/volume1/@EP/EP_TBL";
}

static ran check_lists(const std::string& sample) {
    return tarn_on(sample,
                   "--freeck --fripath " + index_of(sample) + " --tblpath " + table_of(sample));
}

static ran repair(const std::string& sample) {
    return tarn_on(sample, "--onekeyrepair --volpath " + volume_of(sample));
}

static ran verify_rebuilt(const std::string& sample) {
    return tarn_lab("verify " + sample + " --rebuilt");
}

static void make_and_break(const std::string& sample, const std::string& words, unsigned seed) {
    const std::string number = std::to_string(seed);
    expect_success(tarn_lab("make " + sample + " --seed " + number + " " + words));
    expect_success(tarn_lab("damage " + sample + " index-lost --seed " + number));
    expect_success(tarn_lab("damage " + sample + " table-noise --seed " + number));
}

class lost_index_and_noisy_table : public testing::TestWithParam<unsigned> {};

TEST_P(lost_index_and_noisy_table, are_rebuilt_exactly) {
    for (unsigned seed = GetParam(); seed < GetParam() + SEEDS_A_TEST && !HasFailure(); seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const scratch_dir place;
        const std::string sample = place.file("sample");
        make_and_break(sample, "--volumes 1 --transactions 80", seed);
        EXPECT_EQ(verify_rebuilt(sample).status, 1);
        expect_success(repair(sample));
        expect_success(tarn_on(sample, "--fullck --volpath " + volume_of(sample)));
        expect_success(check_lists(sample));
        expect_success(verify_rebuilt(sample));
    }
}

// 200 seeds in all.
// Sanitizers look at code, of which a few seeds reach as much as many.
#ifdef __SANITIZE_ADDRESS__
static constexpr unsigned SEEDS_END = 76;
#else
static constexpr unsigned SEEDS_END = 201;
#endif
INSTANTIATE_TEST_SUITE_P(seeds_from, lost_index_and_noisy_table,
                         testing::Range(1u, SEEDS_END, SEEDS_A_TEST));

TEST(verify_rebuilt, accepts_a_volume_that_was_never_damaged) {
    for (unsigned seed = 1; seed <= 5; seed++) {
        const scratch_dir place;
        const std::string sample = place.file("s");
        expect_success(tarn_lab("make " + sample + " --seed " + std::to_string(seed)));
        const ran verify = verify_rebuilt(sample);
        EXPECT_EQ(verify.status, 0);
        EXPECT_EQ(verify.text, sample +
                                   ": every map is as expected, and index and table agree with "
                                   "the maps.\n");
    }
}

// A volume whose index and table were rebuilt; four of its groups have free extents.
class rebuilt_volume : public testing::Test {
protected:
    rebuilt_volume() : sample_(place_.file("s")) {
        make_and_break(sample_, "--volumes 1", 4);
        expect_success(repair(sample_));
        expect_success(verify_rebuilt(sample_));
    }

    // Offsets in that group.
    uint32_t second_on_list() const { return next_of(first_on_list()); }
    uint32_t first_on_list() const {
        const fri_entry entry = index_entry(group());
        return fri_entry_head(&entry);
    }
    uint32_t next_of(uint32_t offset) const {
        return tbl_word_of(table_of(sample_), tbl_lpa_of(group(), offset)) & TBL_COUNT_MASK;
    }
    uint64_t head_group() const { return fri_group_head_of(index_of(sample_)); }
    uint64_t end_of_groups() const {  // the first one that is not initialised
        uint64_t end = head_group();
        for (fri_entry entry = index_entry(end); fri_entry_is_init(&entry);
             entry = index_entry(end)) {
            end++;
        }
        return end;
    }
    uint64_t group() const { return end_of_groups() - 1; }  // the last one, with a long list
    fri_entry index_entry(uint64_t group) const {
        const uint64_t word = fri_word_of(index_of(sample_), group);
        fri_entry entry{};
        memcpy(&entry, &word, sizeof entry);
        return entry;
    }
    void set_index_entry(uint64_t group, const fri_entry& entry) const {
        uint64_t word = 0;
        memcpy(&word, &entry, sizeof word);
        set_fri_word(index_of(sample_), group, word);
    }
    void set_word(uint32_t offset, unsigned word) const {
        set_tbl_word(table_of(sample_), tbl_lpa_of(group(), offset), static_cast<uint16_t>(word));
    }
    void expect_difference(const std::string& text) const {
        const ran verify = verify_rebuilt(sample_);
        EXPECT_EQ(verify.status, 1);
        EXPECT_EQ(verify.text, text + "\n");
    }
    std::string in_group() const { return "group " + std::to_string(group()) + ": "; }

    scratch_dir place_;
    std::string sample_;
    const std::string INDEX = "volume1/@EP/EP_FRI: ";
    const std::string TABLE = "volume1/@EP/EP_TBL: ";
};

TEST_F(rebuilt_volume, with_any_damage_to_its_index_or_table_is_detected) {
    for (const char* kind :
         {"reference-count", "list-loop", "list-used", "list-tail", "list-count", "group-loop",
          "free-count", "index-header-bit", "table-header-bit", "index-block-bit",
          "table-block-bit", "table-noise", "mapped-count", "map-truncated"}) {
        for (unsigned seed = 1; seed <= 3; seed++) {
            const scratch_dir place;
            const std::string copy = place.file("copy");
            expect_success(shell("cp -a --sparse=always " + sample_ + " " + copy));
            const ran done =
                tarn_lab("damage " + copy + " " + kind + " --seed " + std::to_string(seed));
            ASSERT_EQ(done.status, 0) << done.text;
            EXPECT_EQ(verify_rebuilt(copy).status, 1) << done.text;
        }
    }
}

TEST_F(rebuilt_volume, whose_list_lacks_a_free_extent_is_detected) {
    const uint32_t missing = second_on_list();
    set_word(first_on_list(), next_of(missing));
    expect_difference(TABLE + in_group() + "free offset " + std::to_string(missing) +
                      " is not on the free list");
}

TEST_F(rebuilt_volume, whose_list_holds_a_used_extent_is_detected) {
    const uint32_t next = second_on_list();
    uint32_t used = 0;
    while (used < TBL_GROUP_ENTRIES &&
           (tbl_word_of(table_of(sample_), tbl_lpa_of(group(), used)) & TBL_USED_BIT) == 0) {
        used++;
    }
    ASSERT_LT(used, TBL_GROUP_ENTRIES);
    ASSERT_NE(next, 0u);
    set_word(first_on_list(), used);
    expect_difference(TABLE + in_group() + "the free list leads to offset " + std::to_string(used) +
                      ", which is in use");
}

TEST_F(rebuilt_volume, that_counts_one_reference_too_many_is_detected) {
    uint64_t lpa = 0;
    while (lpa < TBL_GROUP_ENTRIES && (tbl_word_of(table_of(sample_), lpa) & TBL_USED_BIT) == 0) {
        lpa++;
    }
    ASSERT_LT(lpa, TBL_GROUP_ENTRIES);
    const unsigned count = tbl_word_of(table_of(sample_), lpa) & TBL_COUNT_MASK;
    set_tbl_word(table_of(sample_), lpa, static_cast<uint16_t>(TBL_USED_BIT | (count + 1)));
    expect_difference(TABLE + "lpa " + std::to_string(lpa) + ": expected used with " +
                      std::to_string(count) + " references, found used with " +
                      std::to_string(count + 1) + " references");
}

TEST_F(rebuilt_volume, whose_list_loops_is_detected) {
    const uint32_t first = first_on_list();
    set_word(second_on_list(), first);
    expect_difference(TABLE + in_group() + "the free list loops at offset " +
                      std::to_string(first));
}

TEST_F(rebuilt_volume, whose_list_ends_early_is_detected) {
    const uint32_t first = first_on_list();
    const uint32_t second = second_on_list();
    set_word(first, TBL_TAIL_BIT);
    expect_difference(TABLE + in_group() + "free offset " + std::to_string(second) +
                      " is not on the free list");
    set_word(first, TBL_TAIL_BIT | second);
    expect_difference(TABLE + in_group() + "the tail at offset " + std::to_string(first) +
                      " has a next link");
}

TEST_F(rebuilt_volume, with_a_wrong_count_of_a_group_is_detected) {
    fri_entry entry = index_entry(group());
    const unsigned count = fri_entry_count(&entry);
    fri_entry_set_count(&entry, count - 1);
    set_index_entry(group(), entry);
    expect_difference(INDEX + in_group() + "free count: expected " + std::to_string(count) +
                      ", found " + std::to_string(count - 1));
}

TEST_F(rebuilt_volume, with_a_wrong_count_in_the_header_is_detected) {
    const uint64_t count = fri_free_count_of(index_of(sample_));
    set_header_u64(index_of(sample_), 4096, 4100, count + 1);
    expect_difference(INDEX + "free count: expected " + std::to_string(count) + ", found " +
                      std::to_string(count + 1));
}

TEST_F(rebuilt_volume, whose_list_of_groups_skips_one_is_detected) {
    const fri_entry first = index_entry(head_group());
    set_header_u64(index_of(sample_), 4096, 4108, fri_entry_next(&first));
    const uint64_t end = group() + 1;
    expect_difference(INDEX + "the list of groups leads to group " + std::to_string(end) +
                      ", which is not initialised, before naming all groups");
}

TEST_F(rebuilt_volume, whose_list_of_groups_loops_is_detected) {
    fri_entry first = index_entry(head_group());
    fri_entry_set_next(&first, head_group());
    set_index_entry(head_group(), first);
    expect_difference(INDEX + "the list of groups leads to group " + std::to_string(head_group()) +
                      ", which it has already named");
}

TEST_F(rebuilt_volume, whose_list_of_groups_does_not_end_after_the_last_is_detected) {
    const uint64_t end = group() + 1;
    fri_entry last = index_entry(group());
    ASSERT_EQ(fri_entry_next(&last), end);
    fri_entry_set_next(&last, end + 1);
    set_index_entry(group(), last);
    expect_difference(INDEX + "the list of groups ends at group " + std::to_string(end + 1) +
                      ", expected " + std::to_string(end));
}

TEST_F(rebuilt_volume, with_an_entry_outside_its_groups_is_detected) {
    const uint64_t group = 125;  // in the blocks that are read, after all groups
    set_tbl_word(table_of(sample_), group * 4096, 1);
    expect_difference(TABLE + "lpa 512000: expected 0 outside initialised groups");
    set_tbl_word(table_of(sample_), group * 4096, 0);
    expect_success(verify_rebuilt(sample_));
    set_fri_word(index_of(sample_), group, 7);
    expect_difference(INDEX + "group 125: expected 0, the group is not initialised");
}

TEST_F(rebuilt_volume, with_a_wrong_uuid_or_a_stale_checksum_is_detected) {
    const std::vector<uint8_t> byte = file_bytes(table_of(sample_), 1048576 + 505, 1);
    const uint8_t other = byte[0] ^ 1;
    write_file_bytes(table_of(sample_), 1048576 + 505, &other, 1);
    expect_difference(TABLE + "block 0: its checksum is wrong");
    write_file_bytes(table_of(sample_), 1048576 + 505, byte.data(), 1);
    set_header_u64(table_of(sample_), 0, 20, 0);
    const ran verify = verify_rebuilt(sample_);
    EXPECT_EQ(verify.status, 1);
    EXPECT_EQ(verify.text.rfind(TABLE + "header byte 20: expected ", 0), 0u) << verify.text;
}
