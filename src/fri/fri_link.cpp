#include "fri/fri_link.h"

#include <cstdio>
#include <numeric>

#include "fri/fri_entries.h"
#include "fri/fri_window.h"
#include "print.h"
#include "store/log.h"
#include "tbl/tbl_format.h"
#include "tbl/tbl_freelist.h"

static_assert(FRI_GROUP_CAPACITY == TBL_GROUP_COUNT, "one index entry for each group of the table");

constexpr uint64_t NO_GROUP = ~uint64_t{0};

// From the window, or entry by entry where the window cannot be read.
static int read_ahead(fri_window* window, fri_entry* entry, uint64_t group) {
    return fri_window_read(current_fri.fd, window, group, entry) ? 0 : fri_entry_read(entry, group);
}

// The relink under way.
struct relink {
    fri_writer writer;
    const linked_groups* linked;
    size_t next_linked;
};

static void log_unset(const relink* run, uint64_t group) {
    fri_entry entry = {};
    memcpy(&entry, run->writer.node.payload + fri_byte_in_block(group), sizeof entry);
    log_err_as("set_fri_entry", "Fail to write fri entry, group_num %llu\n", ull(group));
    log_err_as("tarn_link_fri_group",
               "Fail to link free tbl entry, group_num %llu, head %llu free_count %d\n", ull(group),
               ull(fri_entry_head(&entry)), static_cast<int>(fri_entry_count(&entry)));
}

// What is known of the group's list, or null. Groups come in ascending order.
static const linked_group* known_list(relink* run, uint64_t group) {
    const linked_groups* linked = run->linked;
    if (linked == nullptr) {
        return nullptr;
    }
    while (run->next_linked < linked->count && linked->at[run->next_linked].group < group) {
        run->next_linked++;
    }
    const linked_group* at = linked->at + run->next_linked;
    return run->next_linked < linked->count && at->group == group ? at : nullptr;
}

static int recount_group(relink* run, fri_entry* entry, uint64_t group) {
    const linked_group* known = known_list(run, group);
    uint16_t head = known != nullptr ? known->head : 0;
    const int free_count =
        known != nullptr ? known->free_count : link_free_tbl_entry_in_group(group, &head);
    if (free_count < 0) {
        log_err_as("tarn_link_fri_group", "Fail to link free tbl entry, group_num %llu\n",
                   ull(group));
        return -1;
    }
    fri_entry_set_head(entry, head);
    fri_entry_set_count(entry, static_cast<uint32_t>(free_count));
    uint64_t failed = 0;
    if (!fri_writer_put(&run->writer, group, entry, &failed)) {
        log_unset(run, failed);
        return -1;
    }
    return 0;
}

// The progress lines: one at each group whose hundredfold the number of groups divides.
struct link_progress {
    uint64_t group_count;
    uint64_t step;  // groups from one line to the next
    uint64_t next;  // group of the next line
};

static void show_progress_up_to(link_progress* progress, uint64_t group) {
    for (; progress->next <= group; progress->next += progress->step) {
        printf("TARN_INFO: Processing %llu/100\n",
               ull(progress->next * 100 / progress->group_count));
    }
}

// The first half: head and count of every initialised group below `group_count`, from the table.
// *last becomes the highest of them, NO_GROUP when there is none. Holes of the index are passed
// over: a finalized index costs what its groups cost, not its capacity.
static int recount_groups(relink* run, uint64_t group_count, uint64_t* last) {
    *last = NO_GROUP;
    if (group_count == 0) {
        return 0;
    }
    fri_window window{};
    link_progress progress = {group_count, group_count / std::gcd(group_count, uint64_t{100}), 0};
    for (uint64_t group = 0; group < group_count; group++) {
        if (group % FRI_BLOCK_ENTRIES == 0) {
            group = fri_next_group_with_data(current_fri.fd, group, group_count);
        }
        if (group == group_count) {
            break;
        }
        fri_entry entry{};
        if (group > 0) {
            show_progress_up_to(&progress, group - 1);
        }
        if (read_ahead(&window, &entry, group) < 0) {
            log_err_as("tarn_link_fri_group", "Fail to read fri entry, group_num %llu\n",
                       ull(group));
            return -1;
        }
        show_progress_up_to(&progress, group);
        if (!fri_entry_is_init(&entry)) {
            continue;
        }
        if (recount_group(run, &entry, group) != 0) {
            return -1;  // logged there
        }
        *last = group;
    }
    uint64_t failed = 0;
    if (!fri_writer_flush(&run->writer, &failed)) {
        log_unset(run, failed);
        return -1;
    }
    show_progress_up_to(&progress, group_count - 1);
    return 0;
}

// A group of the list, with its entry as it was when the scan came by.
struct listed_group {
    uint64_t group;
    fri_entry entry;
};

// A group below the limit that was never initialised: wholly free, its list from offset 0 on.
static int init_as_free(relink* run, listed_group* at) {
    fri_entry_set_head(&at->entry, 0);
    fri_entry_set_count(&at->entry, TBL_GROUP_ENTRIES);
    fri_entry_set_init(&at->entry);
    uint64_t failed = 0;
    if (!fri_writer_put(&run->writer, at->group, &at->entry, &failed)) {
        log_err_as("find_none_empty_entry", "Fail to write fri entry, group_num %llu\n",
                   ull(failed));
        return -1;
    }
    uint16_t head = 0;
    if (link_free_tbl_entry_in_group(at->group, &head) < 0) {  // deliberate: what it found stays
        log_err_as("find_none_empty_entry", "Fail to link free tbl entry, group_num %llu\n",
                   ull(at->group));
        return -1;
    }
    return 0;
}

// Moves `at` up to the first group, below `limit`, that belongs in the list. Its group is `limit`
// when there is none. 0, or -1, logged, at the group that failed.
static int find_none_empty_entry(relink* run, fri_window* window, listed_group* at,
                                 uint64_t limit) {
    for (; at->group < limit; at->group++) {
        if (read_ahead(window, &at->entry, at->group) < 0) {
            log_err("Fail to read fri entry, group_num %llu\n", ull(at->group));
            return -1;
        }
        if (!fri_entry_is_init(&at->entry)) {
            return init_as_free(run, at);
        }
        if (fri_entry_count(&at->entry) != 0) {
            return 0;
        }
    }
    return 0;
}

static int log_unlinked(const relink* run, uint64_t group) {
    fri_entry entry = {};
    memcpy(&entry, run->writer.node.payload + fri_byte_in_block(group), sizeof entry);
    log_err_as("set_next_entry", "Fail to write fri entry, group_num %llu\n", ull(group));
    log_err_as("tarn_link_fri_group", "Fail to link fri entry, prev %llu next %llu\n", ull(group),
               ull(fri_entry_next(&entry)));
    return -1;
}

static int set_next_entry(relink* run, listed_group* prev, uint64_t next) {
    uint64_t failed = 0;
    fri_entry_set_next(&prev->entry, next);
    return fri_writer_put(&run->writer, prev->group, &prev->entry, &failed)
               ? 0
               : log_unlinked(run, failed);
}

// The second half: chains the groups below `limit` that have free extents, in ascending order.
// The last initialised group, when it is one of them, points at the first uninitialised one; when
// it is full, the last listed group keeps the link it had, deliberate.
static int chain_groups(relink* run, uint64_t last, uint64_t limit) {
    fri_window window{};
    listed_group prev = {NO_GROUP, {}};
    listed_group at = {0, {}};
    for (;;) {
        if (find_none_empty_entry(run, &window, &at, limit) != 0) {
            log_err_as("tarn_link_fri_group", "Fail to find free fri entry, stop group_num %llu\n",
                       ull(at.group));
            return -1;
        }
        if (prev.group == NO_GROUP) {
            current_fri.header.fri_group_head = at.group;
        } else if (at.group < limit && set_next_entry(run, &prev, at.group) != 0) {
            return -1;  // logged there
        }
        if (at.group == last) {
            (void)set_next_entry(run, &at, limit);  // deliberate: logged there, the relink goes on
        }
        if (at.group >= limit || at.group == last) {
            return 0;
        }
        prev = at;
        at.group++;
    }
}

int tarn_link_fri_group(const linked_groups* linked) {
    const uint64_t group_count = current_fri.header.fri_group_count;
    if (group_count > FRI_GROUP_CAPACITY) {
        log_err("fri_group_count %llu exceeds the capacity %llu\n", ull(group_count),
                ull(FRI_GROUP_CAPACITY));
        return -1;
    }
    current_fri.header.fri_group_count = FRI_GROUP_CAPACITY;
    uint64_t last = NO_GROUP;
    relink run = {{}, linked, 0};
    if (recount_groups(&run, group_count, &last) != 0) {
        return -1;  // logged there
    }
    const uint64_t limit = last + 1;  // 0 for NO_GROUP
    if (chain_groups(&run, last, limit) != 0) {
        return -1;  // logged there
    }
    uint64_t failed = 0;
    if (!fri_writer_flush(&run.writer, &failed)) {
        (void)log_unlinked(&run, failed);  // deliberate, if it is the last one: see chain_groups
        if (failed != last) {
            return -1;
        }
    }
    (void)save_fri();  // deliberate: logged there
    return 0;
}
