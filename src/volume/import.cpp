#include "volume/import.h"

#include <algorithm>
#include <cstdio>

#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "map/map_entries.h"
#include "map/map_file.h"
#include "map/map_scan.h"
#include "print.h"
#include "store/keep_journal.h"
#include "tbl/tbl_entries.h"
#include "tbl/tbl_file.h"
#include "tbl/tbl_ref_counts.h"
#include "volume/map_walk.h"
#include "volume/metadata_files.h"

// One map's import under way.
struct import_state {
    int32_t kind;
    uint64_t count;          // entries to look at
    uint64_t remaining;      // mapped entries that the header still allows
    tbl_ref_counts* counts;  // null: references go to the table one by one
    scan_progress progress;
};

enum class import_step { go_on, finished, failed };

// Refuses what tbl_entry_ref_inc would lose without a result: an extent past the table, a count
// that would wrap to 0, a write that failed.
static int add_single_reference(uint64_t lpa) {
    tbl_entry entry{};
    if (lpa >= TBL_TOTAL_COUNT) {
        log_err_as("add_reference", "lpa %llu is past the table\n", ull(lpa));
        return -1;
    }
    if (tbl_entry_read(&entry, lpa) < 0) {
        return -1;
    }
    if (tbl_entry_count(&entry) == TBL_COUNT_MAX) {
        log_err_as("add_reference", "lpa %llu has more than %u references\n", ull(lpa),
                   TBL_COUNT_MAX);
        return -1;
    }
    const uint64_t failed_before = keep_journal_failures().count;
    return tbl_entry_ref_inc(lpa) == 0 && keep_journal_failures().count == failed_before ? 0 : -1;
}

// Marks the group and adds the reference, in memory where that can be.
static ref_result add_reference(tbl_ref_counts* counts, uint64_t lpa, uint64_t lea) {
    if (counts == nullptr) {
        return tarn_fri_set_init_bit(tbl_group_of(lpa)) != 0 ? ref_result::touch_failed
                                                             : ref_result::no_entry;
    }
    const ref_result result = tbl_ref_counts_add(counts, lpa, lea);
    if (result == ref_result::full) {
        log_err("lpa %llu has more than %u references\n", ull(lpa), TBL_COUNT_MAX);
    }
    return result;
}

static void report_lost_mapping(uint64_t lea) {
    log_err_as("import_map", "Fail to increase mapping, lea %llu\n", ull(lea));
}

static int import_entry(import_state* state, uint64_t lea, uint64_t lpa) {
    if (state->remaining == 0) {
        log_err_as("import_map", "mapped_cnt is wrong\n");
        return -1;
    }
    const ref_result added = add_reference(state->counts, lpa, lea);
    if (added == ref_result::touch_failed) {
        log_err_as("import_map", "Fail to init fri group, lea %llu\n", ull(lea));
        return -1;
    }
    if (added == ref_result::lost) {
        report_lost_mapping(state->counts->lost_lea);
        return -1;
    }
    if (added == ref_result::full ||
        (added == ref_result::no_entry && add_single_reference(lpa) != 0)) {
        report_lost_mapping(lea);
        return -1;
    }
    state->remaining--;
    return 0;
}

// One entry, read through the map's cache.
static import_step import_lea(import_state* state, uint64_t lea) {
    uint64_t lpa = 0;
    const int is_mapped = tarn_get_mapped_lpa(lea, &lpa);
    if (is_mapped < 0) {
        log_err_as("import_map", "Fail to import map, lea %llu\n", ull(lea));
        return import_step::failed;
    }
    scan_progress_pass(&state->progress, lea, lea + 1);
    if (is_mapped == 1) {
        return import_entry(state, lea, lpa) != 0 ? import_step::failed : import_step::go_on;
    }
    return state->kind == MAP_KIND_UNMAP_BUFFER ? import_step::finished : import_step::go_on;
}

// Entry by entry, from `lea` on.
static import_step import_from(import_state* state, uint64_t lea) {
    const uint64_t blank_begin = map_stored_nodes() * MAP_NODE_ENTRIES;
    const uint64_t reachable = map_blank_nodes_end(map_node_count(state->count)) * MAP_NODE_ENTRIES;
    const uint64_t blank_end = std::min(state->count, reachable);
    for (; lea < state->count; lea++) {
        if (lea == blank_begin && lea < blank_end && state->kind != MAP_KIND_UNMAP_BUFFER) {
            scan_progress_pass(&state->progress, lea, blank_end);
            lea = blank_end - 1;
            continue;
        }
        const import_step step = import_lea(state, lea);
        if (step != import_step::go_on) {
            return step;
        }
    }
    return import_step::finished;
}

// The entries `lea` to `end` - 1, all of one node, through the map's cache, which tells when the
// node's checksum does not match.
static import_step import_bad_node(import_state* state, uint64_t lea, uint64_t end) {
    import_step step = import_step::go_on;
    for (; lea < end && step == import_step::go_on; lea++) {
        step = import_lea(state, lea);
    }
    return step;
}

// Counts the entries of a node from `slot` on, as long as each is unmapped or needs no more than
// its counter in memory. Returns the first slot that needs more, `end` when none does.
static uint64_t count_quickly(import_state* state, const data_node* node, uint64_t slot,
                              uint64_t end) {
    tbl_ref_counts* const counts = state->counts;
    const uint64_t most = state->remaining;
    uint64_t references = 0;
    uint64_t taken = 0;  // of extents that were free
    for (; slot < end; slot++) {
        const map_entry entry = map_scan_entry(node, slot);
        if (map_entry_is_mapped(&entry) == 0) {
            continue;
        }
        uint8_t* counter = tbl_ref_counts_counter(counts, map_entry_get_lpa(&entry));
        if (counter == nullptr || !ref_counter_has_room(*counter) || references == most) {
            break;
        }
        taken += *counter == REF_COUNTER_ZERO ? 1 : 0;
        ++*counter;
        references++;
    }
    state->remaining -= references;
    tbl_ref_counts_take_free(taken);
    return slot;
}

// The same of a node in memory whose checksum is right.
static import_step import_good_node(import_state* state, const data_node* node, uint64_t lea,
                                    uint64_t end) {
    const bool quick = state->counts != nullptr && state->kind != MAP_KIND_UNMAP_BUFFER;
    const bool progress_due = state->progress.due < end;
    for (uint64_t slot = 0; lea + slot < end; slot++) {
        if (quick && !progress_due) {
            slot = count_quickly(state, node, slot, end - lea);
            if (lea + slot == end) {
                break;
            }
        }
        const map_entry entry = map_scan_entry(node, slot);
        if (progress_due) {
            scan_progress_pass(&state->progress, lea + slot, lea + slot + 1);
        }
        if (map_entry_is_mapped(&entry) != 0) {
            if (import_entry(state, lea + slot, map_entry_get_lpa(&entry)) != 0) {
                return import_step::failed;
            }
        } else if (state->kind == MAP_KIND_UNMAP_BUFFER) {
            return import_step::finished;
        }
    }
    return import_step::go_on;
}

static import_step import_hole(import_state* state, uint64_t lea, uint64_t end) {
    const bool stops = state->kind == MAP_KIND_UNMAP_BUFFER;
    scan_progress_pass(&state->progress, lea, stops ? lea + 1 : end);
    return stops ? import_step::finished : import_step::go_on;
}

static import_step import_run(import_state* state, const map_scan_run* run) {
    const uint64_t first = run->first * MAP_NODE_ENTRIES;
    if (run->nodes == nullptr) {
        const uint64_t end = (run->first + run->count) * MAP_NODE_ENTRIES;
        return import_hole(state, first, std::min(end, state->count));
    }
    import_step step = import_step::go_on;
    for (uint64_t i = 0; i < run->count && step == import_step::go_on; i++) {
        const uint64_t lea = first + i * MAP_NODE_ENTRIES;
        const uint64_t end = std::min(lea + MAP_NODE_ENTRIES, state->count);
        step = map_scan_mismatched(run, i) ? import_bad_node(state, lea, end)
                                           : import_good_node(state, &run->nodes[i], lea, end);
    }
    return step;
}

// In runs of nodes as far as they can be had, entry by entry from there.
static import_step import_entries(import_state* state) {
    map_scan* runs = map_scan_open(current_map.fd, map_node_count(state->count));
    if (runs == nullptr) {
        return import_from(state, 0);
    }
    map_scan_run run{};
    import_step step = import_step::go_on;
    map_scan_result got = map_scan_next(runs, &run);
    while (got == map_scan_result::run && step == import_step::go_on) {
        step = import_run(state, &run);
        if (step == import_step::go_on) {
            got = map_scan_next(runs, &run);
        }
    }
    const uint64_t next = runs->next;
    map_scan_close(runs);
    return step == import_step::go_on ? import_from(state, next * MAP_NODE_ENTRIES) : step;
}

int import_map(int32_t kind, const char* root, tbl_ref_counts* counts) {
    uint64_t count = 0;
    uint64_t mapped = 0;
    uint32_t shift = 0;
    if (map_scan_total(&count) != 0 || get_extent_shift(root, &shift) != 0) {
        return -1;
    }
    if (kind == MAP_KIND_ROD) {
        count = rod_entry_count(shift);
    }
    if (map_scan_mapped(&mapped) != 0) {
        return -1;
    }
    printf("TARN_INFO: Try to import %llu/%llu mappings\n", ull(mapped), ull(count));

    import_state state{kind, count, mapped, counts, scan_progress_of(count)};
    if (import_entries(&state) == import_step::failed) {
        return -1;
    }
    scan_progress_end(&state.progress);
    (void)save_fri();  // deliberate: a failure is logged and counted
    return 0;
}

int finish_import(tbl_ref_counts* counts) {
    if (counts == nullptr) {
        return 0;
    }
    const bool reported = counts->lost;
    const bool written = tbl_ref_counts_write(counts);
    if (!written && !reported) {
        report_lost_mapping(counts->lost_lea);
    }
    tbl_ref_counts_drop(counts);
    return written ? 0 : -1;
}

int import(const volume_paths* paths, int32_t kind) {
    char root[PATH_TEXT_SIZE] = {};
    if (parse_volume_path(paths->table, root) < 0) {
        log_err("Fail to parse volume path from %s\n", paths->table);
        return -1;
    }
    return with_files(__func__, paths, {KIND_FRI, KIND_TBL, KIND_MAP}, [&] {
        tbl_ref_counts* counts = tbl_ref_counts_open(tarn_fri_set_init_bit);
        const int result = import_map(kind, root, counts);
        return finish_import(counts) == 0 ? result : -1;
    });
}
