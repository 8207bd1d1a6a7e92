#include "tbl/tbl_ref_write.h"

#include <algorithm>
#include <memory>
#include <new>

#include "store/crc32c.h"
#include "store/descriptor.h"
#include "store/file.h"
#include "store/keep_journal.h"
#include "tbl/tbl_entries.h"

// Blocks of one transfer: 256 KiB.
constexpr uint32_t RUN_BLOCKS = 512;
constexpr uint32_t GROUP_BLOCKS_MAX = 18;  // 4096 entries begin anywhere in a block of 252

// Consecutive blocks in memory. The groups in them are consecutive, too; the last block may be
// shared with the next one.
struct block_run {
    ref_write_plan plan;
    uint64_t first;       // block
    uint32_t count;       // blocks
    uint64_t next_group;  // that would continue the run
    ref_write_result result;
    bool changed[RUN_BLOCKS];
    data_node blocks[RUN_BLOCKS];
    uint32_t checksums[RUN_BLOCKS];
};

static uint64_t first_block_of(uint64_t group) {
    return tbl_block_of(tbl_lpa_of(group, 0));
}

static uint64_t last_block_of(uint64_t group) {
    return tbl_block_of(tbl_lpa_of(group, TBL_GROUP_ENTRIES - 1));
}

// The entries of one group, piece by piece: `visit`(block, slot, offset, count) for each block.
template <class Visit>
static void for_each_piece(uint64_t group, Visit visit) {
    uint32_t offset = 0;
    while (offset < TBL_GROUP_ENTRIES) {
        const uint64_t lpa = tbl_lpa_of(group, offset);
        const auto slot = static_cast<uint32_t>(lpa % TBL_BLOCK_ENTRIES);
        const uint32_t count =
            std::min(static_cast<uint32_t>(TBL_BLOCK_ENTRIES) - slot, TBL_GROUP_ENTRIES - offset);
        visit(tbl_block_of(lpa), slot, offset, count);
        offset += count;
    }
}

// Writes the changed blocks, in as few transfers as they take. False: one failed, nothing logged.
static bool store_blocks(block_run* run, uint32_t count) {
    tarn_crc32c_blocks(run->blocks, count, run->checksums);
    for (uint32_t i = 0; i < count; i++) {
        if (run->changed[i]) {
            run->blocks[i].checksum = run->checksums[i];
        }
    }
    uint32_t from = 0;
    while (from < count) {
        uint32_t to = from;
        while (to < count && run->changed[to]) {
            to++;
        }
        if (to > from &&
            !write_fd_run(run->plan.fd, run->blocks + from, data_node_offset(run->first + from),
                          (to - from) * sizeof(data_node))) {
            return false;
        }
        from = to + 1;
    }
    return true;
}

// The entries of one block, one by one. False at the first that cannot be written, logged.
static bool write_entries(block_run* run, uint32_t block) {
    const uint64_t failed_before = keep_journal_failures().count;
    for (uint32_t slot = 0; slot < TBL_BLOCK_ENTRIES; slot++) {
        const uint64_t lpa = (run->first + block) * TBL_BLOCK_ENTRIES + slot;
        tbl_entry wanted;
        memcpy(&wanted, run->blocks[block].payload + slot * sizeof wanted, sizeof wanted);
        tbl_entry present{};
        if (tbl_entry_read(&present, lpa) >= 0 && present.word == wanted.word) {
            continue;
        }
        (void)tbl_entry_write(&wanted, lpa);  // always 0
        if (keep_journal_failures().count != failed_before) {
            run->result.failed = true;
            run->result.failed_group = tbl_group_of(lpa);
            return false;
        }
    }
    return true;
}

static void write_by_entries(block_run* run, uint32_t count) {
    for (uint32_t i = 0; i < count; i++) {
        if (run->changed[i] && !write_entries(run, i)) {
            return;
        }
    }
}

// Writes the run but for its last `keep` blocks (0 or 1), with which it begins afterwards.
static void flush(block_run* run, uint32_t keep) {
    const uint32_t count = run->count - keep;
    if (!run->plan.only_looks && count > 0 && !store_blocks(run, count)) {
        write_by_entries(run, count);
    }
    if (keep != 0) {
        run->blocks[0] = run->blocks[count];
        run->changed[0] = run->changed[count];
    }
    run->first += count;
    run->count = keep;
}

// What is in the blocks `from` and on before the group is added. The blocks of a new table are
// empty, but for the edges, which another window may have written.
static bool load_blocks(block_run* run, uint32_t from) {
    const uint32_t count = run->count - from;
    data_node* blocks = run->blocks + from;
    std::fill_n(run->changed + from, count, false);
    if (!run->plan.is_new) {
        return read_fd_run(run->plan.fd, blocks, data_node_offset(run->first + from),
                           count * sizeof(data_node));
    }
    memset(static_cast<void*>(blocks), 0, count * sizeof(data_node));
    if (run->plan.is_first) {
        return true;
    }
    if (from == 0 &&
        !read_fd_run(run->plan.fd, blocks, data_node_offset(run->first), sizeof(data_node))) {
        return false;
    }
    return read_fd_run(run->plan.fd, blocks + count - 1,
                       data_node_offset(run->first + run->count - 1), sizeof(data_node));
}

// Makes room for the blocks of `group` at the end of the run. False: what they hold cannot be read.
static bool extend(block_run* run, uint64_t group) {
    const uint64_t first = first_block_of(group);
    const uint64_t end = last_block_of(group) + 1;
    const bool continues = run->count != 0 && group == run->next_group;
    const bool shares = continues && first < run->first + run->count;
    if (!continues || end - run->first > RUN_BLOCKS) {
        flush(run, shares ? 1 : 0);
        if (run->result.failed) {
            return false;
        }
        if (run->count == 0) {
            run->first = first;
        }
    }
    const uint32_t from = run->count;
    run->count = static_cast<uint32_t>(end - run->first);
    run->next_group = group + 1;
    if (!load_blocks(run, from)) {
        run->count = from;
        return false;
    }
    return true;
}

// Adds the counts of a group to the entries as they are. Marks the blocks that change.
static void add_counts(block_run* run, uint64_t group, const uint16_t* counts) {
    for_each_piece(group, [&](uint64_t block, uint32_t slot, uint32_t offset, uint32_t count) {
        const auto i = static_cast<uint32_t>(block - run->first);
        uint8_t* at = run->blocks[i].payload + slot * sizeof(tbl_entry);
        for (uint32_t k = 0; k < count; k++, at += sizeof(tbl_entry)) {
            const uint32_t added = counts[offset + k];
            if (added == 0) {
                continue;
            }
            tbl_entry entry;
            memcpy(&entry, at, sizeof entry);
            const uint32_t before = tbl_entry_count(&entry);
            if (before + added > TBL_COUNT_MAX) {
                run->result.past_max = true;
            }
            if (before == 0) {
                tbl_entry_set_used(&entry);
                run->result.first_uses++;
            }
            tbl_entry_set_count(&entry, before + added);
            memcpy(at, &entry, sizeof entry);
            run->changed[i] = true;
        }
    });
}

// The entries of a group that had none, from its counts. Returns how many are used.
static uint32_t form_words(const uint16_t* counts, uint16_t* words) {
    uint32_t used = 0;
    for (uint32_t i = 0; i < TBL_GROUP_ENTRIES; i++) {
        const unsigned is_used = counts[i] != 0 ? 1 : 0;
        words[i] = static_cast<uint16_t>(counts[i] | is_used * TBL_USED_BIT);
        used += is_used;
    }
    return used;
}

// Links the free entries in ascending order. Returns the first one's offset, 0 without any.
static uint16_t link_words(uint16_t* words) {
    uint16_t next = TBL_TAIL_BIT;
    for (uint32_t i = TBL_GROUP_ENTRIES; i-- > 0;) {
        const bool is_free = words[i] == 0;
        words[i] = is_free ? next : words[i];
        next = is_free ? static_cast<uint16_t>(i) : next;
    }
    return next & TBL_COUNT_MASK;
}

static void remember(linked_groups* linked, const linked_group& group) {
    if (linked->count < linked->room) {
        linked->at[linked->count++] = group;
    }
}

static void put_words(block_run* run, uint64_t group, const uint16_t* words) {
    for_each_piece(group, [&](uint64_t block, uint32_t slot, uint32_t offset, uint32_t count) {
        const auto i = static_cast<uint32_t>(block - run->first);
        memcpy(run->blocks[i].payload + slot * sizeof(tbl_entry), words + offset,
               count * sizeof(tbl_entry));
        unsigned any = 0;
        for (uint32_t k = 0; k < count; k++) {
            any |= words[offset + k];
        }
        run->changed[i] = run->changed[i] || any != 0;
    });
}

static void add_group(block_run* run, uint64_t group, const uint16_t* counts) {
    if (!run->plan.is_new) {
        add_counts(run, group, counts);
        return;
    }
    uint16_t words[TBL_GROUP_ENTRIES];
    const uint32_t used = form_words(counts, words);
    run->result.first_uses += used;
    if (run->plan.linked != nullptr) {
        const uint16_t head = used != TBL_GROUP_ENTRIES ? link_words(words) : uint16_t{0};
        remember(run->plan.linked, {group, head, static_cast<uint16_t>(TBL_GROUP_ENTRIES - used)});
    }
    put_words(run, group, words);
}

// A group whose blocks cannot be read together: entry by entry.
static void add_by_entries(block_run* run, uint64_t group, const uint16_t* counts) {
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES && !run->result.failed; offset++) {
        const uint64_t lpa = tbl_lpa_of(group, offset);
        const uint64_t failed_before = keep_journal_failures().count;
        tbl_entry entry{};
        if (counts[offset] == 0) {
            continue;
        }
        bool done = !run->plan.only_looks && tbl_entry_read(&entry, lpa) >= 0;
        if (done) {
            const uint32_t before = tbl_entry_count(&entry);
            if (before == 0) {
                tbl_entry_set_used(&entry);
                run->result.first_uses++;
            }
            tbl_entry_set_count(&entry, before + counts[offset]);
            (void)tbl_entry_write(&entry, lpa);  // always 0
            done = keep_journal_failures().count == failed_before;
        }
        run->result.failed = !done;
        run->result.failed_group = group;
    }
}

ref_write_result write_ref_counts(const ref_counts* counts, const ref_write_plan& plan) {
    const std::unique_ptr<block_run> run(new (std::nothrow) block_run);
    if (run == nullptr) {
        return {0, false, true, 0};
    }
    run->plan = plan;
    run->count = 0;
    run->next_group = 0;
    run->result = {};
    uint16_t group_counts[TBL_GROUP_ENTRIES];
    for (uint64_t group = 0; !run->result.failed && ref_counts_next_group(counts, &group);
         group++) {
        ref_counts_get_group(counts, group, group_counts);
        if (extend(run.get(), group)) {
            add_group(run.get(), group, group_counts);
        } else if (!run->result.failed) {
            flush(run.get(), 0);
            add_by_entries(run.get(), group, group_counts);
        }
    }
    if (!run->result.failed) {
        flush(run.get(), 0);
    }
    return run->result;
}

// Groups whose blocks fit in one transfer.
constexpr uint64_t RUN_GROUPS = (RUN_BLOCKS - 1) * TBL_BLOCK_ENTRIES / TBL_GROUP_ENTRIES;

// Consecutive groups of a table, to be compared.
struct group_run {
    uint64_t first_block;
    data_node blocks[RUN_BLOCKS];
};

static bool load_groups(group_run* run, int fd, uint64_t from, uint64_t to) {
    run->first_block = first_block_of(from);
    const uint64_t count = last_block_of(to - 1) + 1 - run->first_block;
    return read_fd_run(fd, run->blocks, data_node_offset(run->first_block),
                       count * sizeof(data_node));
}

// Whether the table has each extent of the group as often as `counts` says; 0: it is free.
static bool has_counts(const group_run* run, uint64_t group, const uint16_t* counts) {
    uint16_t words[TBL_GROUP_ENTRIES];
    for_each_piece(group, [&](uint64_t block, uint32_t slot, uint32_t offset, uint32_t count) {
        memcpy(words + offset,
               run->blocks[block - run->first_block].payload + slot * sizeof(tbl_entry),
               count * sizeof(tbl_entry));
    });
    unsigned differences = 0;
    for (uint32_t i = 0; i < TBL_GROUP_ENTRIES; i++) {
        const auto is_used = static_cast<uint16_t>(counts[i] != 0 ? TBL_USED_BIT : 0);
        const auto wanted = static_cast<uint16_t>(counts[i] | is_used);
        differences |= static_cast<uint16_t>(tbl_word_meaning(words[i]) ^ wanted);
    }
    return differences == 0;
}

// `counts` null: every extent is free.
static bool range_agrees(const ref_counts* counts, group_run* run, int fd, uint64_t from,
                         uint64_t to) {
    uint16_t group_counts[TBL_GROUP_ENTRIES] = {};
    while (from < to) {
        const uint64_t end = std::min(to, from + RUN_GROUPS);
        if (!load_groups(run, fd, from, end)) {
            return false;
        }
        for (uint64_t group = from; group < end; group++) {
            if (counts != nullptr) {
                ref_counts_get_group(counts, group, group_counts);
            }
            if (!has_counts(run, group, group_counts)) {
                return false;
            }
        }
        from = end;
    }
    return true;
}

bool ref_counts_agree(const ref_counts* counts, int fd) {
    const std::unique_ptr<group_run> run(new (std::nothrow) group_run);
    const uint64_t group_count = ref_counts_group_limit(counts);
    for (uint64_t from = 0; from < group_count; from += REF_REGION_GROUPS) {
        const auto region = static_cast<uint32_t>(from / REF_REGION_GROUPS);
        const uint64_t to = std::min(group_count, from + REF_REGION_GROUPS);
        if (ref_counts_has_region(counts, region) &&
            (run == nullptr || !range_agrees(counts, run.get(), fd, from, to))) {
            return false;
        }
    }
    return true;
}

// Groups `from` up to `to`: from the first one on that has bytes in the file.
static bool range_is_free(group_run* run, int fd, uint64_t from, uint64_t to) {
    const uint64_t begin = data_node_offset(first_block_of(from));
    const uint64_t end = data_node_offset(last_block_of(to - 1) + 1);
    const uint64_t data = io_next_data(fd, begin, end);
    if (data >= end) {
        return true;
    }
    const uint64_t block = data / DATA_NODE_SIZE - DATA_NODE_BASE;
    return range_agrees(nullptr, run, fd, std::max(from, tbl_group_of(block * TBL_BLOCK_ENTRIES)),
                        to);
}

bool unmet_regions_are_free(const ref_counts* counts, int fd, uint64_t group_count) {
    const std::unique_ptr<group_run> run(new (std::nothrow) group_run);
    for (uint64_t from = 0; from < group_count; from += REF_REGION_GROUPS) {
        const auto region = static_cast<uint32_t>(from / REF_REGION_GROUPS);
        const uint64_t to = std::min(group_count, from + REF_REGION_GROUPS);
        if (!ref_counts_met_region(counts, region) &&
            (run == nullptr || !range_is_free(run.get(), fd, from, to))) {
            return false;
        }
    }
    return true;
}
