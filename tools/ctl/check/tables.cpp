#include "ctl/check/tables.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "ctl/check/data_holes.h"
#include "ctl/check/table_groups.h"
#include "fri/fri_window.h"
#include "view/free_list.h"
#include "volume/dat_file.h"

// A pass over groups: the open files, and what was read of them.
struct group_pass {
    check_state* state;
    volume_check* volume;
    progress_part* progress;
    const ref_counts* counts;  // null: references are not looked at
    int table;
    int index;  // 0: no index to judge
    fri_window window;
    tbl_group_image image;
    uint32_t checksums[TBL_GROUP_BLOCKS_MAX];  // of its blocks, as they should be
    uint64_t hole_begin;  // groups of a hole of the table: all their extents are free
    uint64_t hole_end;
    hole_look data;  // for mapped extents that are holes
};

// One group in hand.
struct group_case {
    uint64_t group;
    const uint16_t* words;
    const uint16_t* references;  // null: none, or not known
    fri_entry entry;
    uint32_t bad_blocks;  // bit i: block i of the image is damaged
    int list_cause;       // what explains whatever is wrong with its list
};

static void add_extent(group_pass* pass, finding_code code, uint64_t lpa, uint32_t was,
                       uint32_t ought, int because) {
    add_place(&pass->volume->runs[code], {lpa, 1, was, ought, because});
}

// The finding that explains what is wrong with a word of the table: its block is damaged.
static int cause_of_word(const group_pass* pass, const group_case& at, uint32_t offset) {
    const uint32_t block =
        (pass->image.first_slot + offset) / static_cast<uint32_t>(TBL_BLOCK_ENTRIES);
    return (at.bad_blocks >> block & 1) == 0
               ? NO_CAUSE
               : cause_of_block(pass->volume->bad_table_blocks, pass->image.first_block + block);
}

// The finding that explains why word and references differ: that of the word, or of a place that
// is wrong itself and refers to the extent.
static int cause_of(const group_pass* pass, const group_case& at, uint32_t offset) {
    const int word = cause_of_word(pass, at, offset);
    const auto suspect = pass->volume->suspects.find(tbl_lpa_of(at.group, offset));
    return word != NO_CAUSE || suspect == pass->volume->suspects.end() ? word : suspect->second;
}

static void judge_used(group_pass* pass, const group_case& at, uint32_t offset, uint32_t counted,
                       uint32_t references) {
    const uint64_t lpa = tbl_lpa_of(at.group, offset);
    const int because = cause_of(pass, at, offset);
    const uint32_t word = at.words[offset];
    if (counted == 0) {
        add_extent(pass, finding_code::T02, lpa, word, NO_VALUE, cause_of_word(pass, at, offset));
    }
    if (pass->counts == nullptr || (lpa >= pass->volume->extents && pass->volume->has_far)) {
        return;  // its references are not known
    }
    if (references > counted) {
        add_extent(pass, finding_code::R02, lpa, counted, references, because);
    } else if (references < counted) {
        add_extent(pass, references == 0 ? finding_code::R04 : finding_code::R03, lpa, counted,
                   references, because);
    } else if (counted == TBL_COUNT_MAX) {
        add_extent(pass, finding_code::R05, lpa, counted, NO_VALUE, because);
    }
}

static void judge_extent(group_pass* pass, const group_case& at, uint32_t offset) {
    const uint32_t word = at.words[offset];
    const uint32_t references = at.references != nullptr ? at.references[offset] : 0;
    if ((word & TBL_USED_BIT) != 0) {
        judge_used(pass, at, offset, word & TBL_COUNT_MASK, references);
    } else if (references > 0) {
        add_extent(pass, finding_code::R01, tbl_lpa_of(at.group, offset), NO_VALUE, references,
                   cause_of(pass, at, offset));
    }
}

static uint32_t expected_word(uint32_t references) {
    return references == 0 ? 0 : TBL_USED_BIT | references;
}

// Whether every entry is what the references make of it, and none has the highest count.
static bool is_as_expected(const group_pass* pass, const group_case& at) {
    static constexpr uint16_t none[TBL_GROUP_ENTRIES] = {};
    const uint16_t* references = at.references != nullptr ? at.references : none;
    unsigned differing = 0;
    unsigned highest = 0;
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        differing |= tbl_word_meaning(at.words[offset]) ^ expected_word(references[offset]);
        highest |= references[offset] == TBL_COUNT_MAX ? 1u : 0u;
    }
    return pass->counts != nullptr && differing == 0 && highest == 0;
}

static uint32_t count_free(const uint16_t* words) {
    uint32_t used = 0;
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        used += words[offset] >> 15;
    }
    return TBL_GROUP_ENTRIES - used;
}

static finding_code code_of(list_end end) {
    return end == list_end::used   ? finding_code::F02
           : end == list_end::loop ? finding_code::F03
                                   : finding_code::F04;
}

// The free list of an initialised group, which has `free_extents`.
static void judge_list(group_pass* pass, const group_case& at, uint32_t free_extents) {
    auto* runs = &pass->volume->runs;
    const uint32_t counted = fri_entry_count(&at.entry);
    free_list_walk walk = {list_end::tail, 0, 0};
    if (counted > 0) {
        walk = walk_free_list(at.words, fri_entry_head(&at.entry), free_extents);
    }
    if (walk.end != list_end::tail) {
        add_place(&(*runs)[code_of(walk.end)], {at.group, 1, walk.length, counted, at.list_cause});
        return;  // where it ends says nothing about what is on it
    }
    if (walk.length != counted) {
        add_place(&(*runs)[finding_code::F05], {at.group, 1, counted, walk.length, at.list_cause});
    }
    if (walk.length < free_extents) {
        add_place(&(*runs)[finding_code::F06],
                  {at.group, 1, walk.length, free_extents, at.list_cause});
    }
}

static void judge_index_entry(group_pass* pass, const group_case& at, uint32_t free_extents) {
    if (pass->index == 0) {
        return;
    }
    if (fri_entry_is_init(&at.entry)) {
        judge_list(pass, at, free_extents);
    } else if (free_extents < TBL_GROUP_ENTRIES) {
        add_place(&pass->volume->runs[finding_code::T03],
                  {at.group, 1, TBL_GROUP_ENTRIES - free_extents, NO_VALUE, at.list_cause});
    }
}

// Extents in use past the end of their data file. Most groups lie wholly before it.
static void judge_data_end(group_pass* pass, const group_case& at) {
    const volume_check* volume = pass->volume;
    if (volume->shift == 0 || volume->files->data_files.empty()) {
        return;
    }
    const uint64_t number = dat_file_number(tbl_lpa_of(at.group, 0), volume->shift);
    const auto& files = volume->files->data_files;
    const auto file =
        std::lower_bound(files.begin(), files.end(), number,
                         [](const auto& one, uint64_t wanted) { return one.number < wanted; });
    if (file == files.end() || file->number != number) {
        return;
    }
    const uint64_t last = tbl_lpa_of(at.group, TBL_GROUP_ENTRIES - 1);
    if (dat_byte_in_file(last, volume->shift) + extent_bytes(volume) <= file->size) {
        return;
    }
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        const uint64_t lpa = tbl_lpa_of(at.group, offset);
        if ((at.words[offset] & TBL_USED_BIT) != 0 &&
            dat_byte_in_file(lpa, volume->shift) + extent_bytes(volume) > file->size) {
            add_extent(pass, finding_code::D02, lpa, NO_VALUE, NO_VALUE,
                       cause_of_word(pass, at, offset));
        }
    }
}

static void judge_data_holes(group_pass* pass, const group_case& at) {
    const volume_check* volume = pass->volume;
    if (!pass->state->request->data_holes || volume->shift == 0 || at.references == nullptr) {
        return;
    }
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        const uint64_t lpa = tbl_lpa_of(at.group, offset);
        if (at.references[offset] > 0 && is_data_hole(volume, &pass->data, lpa)) {
            add_extent(pass, finding_code::D04, lpa, NO_VALUE, NO_VALUE, NO_CAUSE);
        }
    }
}

// Returns the number of the finding.
static int report_block(group_pass* pass, uint64_t block) {
    volume_check* volume = pass->volume;
    const bool known = cause_of_block(volume->bad_table_blocks, block) != NO_CAUSE;
    const int number = add_damaged_block(pass->state, volume, &volume->bad_table_blocks,
                                         finding_code::T01, volume->files->table, block);
    if (!known) {
        add_place(&volume->runs[finding_code::T01],
                  {block * TBL_BLOCK_ENTRIES, TBL_BLOCK_ENTRIES, NO_VALUE, NO_VALUE, number});
    }
    return number;
}

// The checksums of the group's blocks. A block that begins in an earlier group was reported there.
static void judge_blocks(group_pass* pass, group_case* at) {
    const tbl_group_image& image = pass->image;
    for (uint32_t i = 0; i < image.block_count; i++) {
        const data_node* block = &image.blocks[i];
        if (block->checksum == pass->checksums[i]) {
            continue;
        }
        if (block->checksum != 0) {
            at->bad_blocks |= 1u << i;
            const int number = report_block(pass, image.first_block + i);
            at->list_cause = at->list_cause == NO_CAUSE ? number : at->list_cause;
        } else if (!data_node_is_blank(block) && (i > 0 || image.first_slot == 0)) {
            add_place(&pass->volume->runs[finding_code::T04],
                      {image.first_block + i, 1, NO_VALUE, NO_VALUE, NO_CAUSE});
        }
    }
}

static bool index_entry(group_pass* pass, uint64_t group, fri_entry* entry) {
    *entry = {};
    if (pass->index == 0) {
        return true;
    }
    if (group < pass->volume->near_groups.size()) {
        *entry = pass->volume->near_groups[group];
        return true;
    }
    return fri_window_read(pass->index, &pass->window, group, entry);
}

static void report_unread_group(group_pass* pass, uint64_t group, const std::string& path) {
    const int error = errno;
    pass->volume->table_read = false;
    add_unread(pass->state, pass->volume, path, error != 0 ? error : EIO);
    finding* added = &pass->state->findings.back();
    added->place = place_kind::group;
    added->first = group;
    added->count = 1;
}

// Whether the group lies in a hole of the table.
static bool is_in_hole(group_pass* pass, uint64_t group) {
    if (group < pass->hole_begin || group >= pass->hole_end) {
        pass->hole_begin = group;
        pass->hole_end = next_table_group(pass->table, group, TBL_GROUP_COUNT);
    }
    return group < pass->hole_end;
}

static bool is_counted(const group_pass* pass, uint64_t group) {
    return pass->counts != nullptr &&
           ref_counts_has_region(pass->counts, static_cast<uint32_t>(group / REF_REGION_GROUPS));
}

// A group without a reference in a hole of the table: only its entry of the index is left to judge.
static bool check_group_in_hole(group_pass* pass, group_case* at) {
    static constexpr uint16_t all_free[TBL_GROUP_ENTRIES] = {};
    at->words = all_free;
    judge_index_entry(pass, *at, TBL_GROUP_ENTRIES);
    return fri_entry_is_init(&at->entry);
}

// True: there was something in the group.
static bool check_group(group_pass* pass, uint64_t group) {
    group_case at = {group, pass->image.words, nullptr, {}, 0, NO_CAUSE};
    uint16_t references[TBL_GROUP_ENTRIES];
    if (!index_entry(pass, group, &at.entry)) {
        report_unread_group(pass, group, pass->volume->files->index);
        return true;
    }
    if (!is_counted(pass, group) && is_in_hole(pass, group)) {
        at.list_cause = cause_of_block(pass->volume->bad_index_blocks, fri_block_of(group));
        return check_group_in_hole(pass, &at);
    }
    if (!load_table_group(pass->table, group, &pass->image, pass->checksums)) {
        report_unread_group(pass, group, pass->volume->files->table);
        return true;
    }
    at.list_cause = cause_of_block(pass->volume->bad_index_blocks, fri_block_of(group));
    judge_blocks(pass, &at);
    if (is_counted(pass, group)) {
        ref_counts_get_group(pass->counts, group, references);
        at.references = references;
    }
    const uint32_t free_extents = count_free(at.words);
    pass->volume->used_extents += TBL_GROUP_ENTRIES - free_extents;
    if (!is_as_expected(pass, at)) {
        for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
            judge_extent(pass, at, offset);
        }
    }
    judge_index_entry(pass, at, free_extents);
    judge_data_end(pass, at);
    judge_data_holes(pass, at);
    return free_extents < TBL_GROUP_ENTRIES || at.references != nullptr ||
           fri_entry_is_init(&at.entry) || at.bad_blocks != 0;
}

static uint64_t next_index_group(const group_pass* pass, uint64_t group, uint64_t end) {
    return pass->index == 0 ? end : fri_next_group_with_data(pass->index, group, end);
}

// The groups `begin` to `end` - 1. `counted` are those whose references are known: every one of
// them is looked at, the others only where table or index have data.
static void check_range(group_pass* pass, uint64_t begin, uint64_t end) {
    for (uint64_t group = begin; group < end; group++) {
        pass->progress->reached(tbl_block_of(tbl_lpa_of(group, 0)));
        if (check_group(pass, group)) {
            continue;
        }
        uint64_t next = std::min(next_table_group(pass->table, group + 1, end),
                                 next_index_group(pass, group + 1, end));
        uint64_t referenced = group + 1;
        if (pass->counts != nullptr && ref_counts_next_group(pass->counts, &referenced)) {
            next = std::min(next, referenced);
        }
        group = std::max(next, group + 1) - 1;
    }
}

static bool open_pass(group_pass* pass) {
    const volume_files* files = pass->volume->files;
    pass->table = io_open(files->table.c_str(), O_RDONLY | O_NONBLOCK, 0);
    pass->index =
        pass->volume->has_index ? io_open(files->index.c_str(), O_RDONLY | O_NONBLOCK, 0) : 0;
    if (pass->table <= 0 || pass->index < 0) {
        add_unread(pass->state, pass->volume, pass->table <= 0 ? files->table : files->index,
                   errno);
        pass->volume->table_read = false;
        return false;
    }
    return true;
}

static void close_pass(group_pass* pass) {
    close_hole_look(&pass->data);
    if (pass->table > 0) {
        io_close(pass->table);
    }
    if (pass->index > 0) {
        io_close(pass->index);
    }
}

// The regions of the table, those of this pass: a window's own, or, at the end, those that no
// window had.
static void check_regions(group_pass* pass, bool rest) {
    const uint64_t groups = rest ? TBL_GROUP_COUNT : ref_counts_group_end(pass->counts);
    for (uint64_t begin = 0; begin < groups;) {
        if (rest) {
            begin = std::min(next_table_group(pass->table, begin, groups),
                             next_index_group(pass, begin, groups));
        }
        const auto region = static_cast<uint32_t>(begin / REF_REGION_GROUPS);
        const uint64_t end = std::min(TBL_GROUP_COUNT, (uint64_t{region} + 1) * REF_REGION_GROUPS);
        if (begin < groups && (rest ? !ref_counts_met_region(pass->counts, region)
                                    : ref_counts_has_region(pass->counts, region))) {
            check_range(pass, begin, end);
        }
        begin = end;
    }
}

uint64_t table_blocks(const volume_check& volume) {
    return volume.has_table ? tbl_block_of(volume.extents) + 1 : 0;
}

void check_groups(check_state* state, volume_check* volume, const ref_counts* counts, bool rest,
                  progress_part* progress) {
    auto pass = std::make_unique<group_pass>();
    pass->state = state;
    pass->volume = volume;
    pass->counts = counts;
    pass->progress = progress;
    if (open_pass(pass.get())) {
        check_regions(pass.get(), rest);
    }
    close_pass(pass.get());
}

void check_groups_alone(check_state* state, volume_check* volume, progress_part* progress) {
    auto pass = std::make_unique<group_pass>();
    pass->state = state;
    pass->volume = volume;
    pass->progress = progress;
    if (open_pass(pass.get())) {
        check_range(pass.get(), 0, TBL_GROUP_COUNT);
    }
    close_pass(pass.get());
}
