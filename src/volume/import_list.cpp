#include "volume/import_list.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>

#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "fri/fri_window.h"
#include "print.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "tbl/tbl_file.h"
#include "tbl/tbl_ref_write.h"
#include "volume/import.h"
#include "volume/map_walk.h"
#include "volume/reference_scan.h"

// The import of a list, under way.
struct listed_import {
    const import_job* job;
    reference_scan scan;
    uint64_t group_count;  // of the index, before
    uint64_t first_uses;   // extents that got their first reference
    bool written;          // something was written
    int live_fd;           // a table to be compared with, or 0
    bool agrees;           // it does so far
    uint64_t group_end;    // after the highest group with a reference
};

static int import_by_entries(const import_job* job) {
    return for_each_entry(job->maps, [job](const path_entry* map) {
        return job->import_one(job->context, map, nullptr) < 0 ? -1 : 0;
    });
}

static uint64_t lea_of(const listed_import* run, uint64_t group) {
    uint64_t lea = 0;
    (void)find_reference(&run->scan, group, &lea);  // 0 if no map can be read any more
    return lea;
}

// The init bit of every group that has a reference in this window. A group that gets it raises the
// number of groups; the header is saved when everything is imported.
static int mark_groups(listed_import* run) {
    const ref_counts* counts = run->scan.counts;
    fri_header* header = &current_fri.header;
    fri_writer writer = {};
    uint64_t failed = 0;
    bool done = true;
    for (uint64_t group = 0; done && ref_counts_next_group(counts, &group); group++) {
        fri_entry entry{};
        done = fri_writer_get(&writer, group, &entry, &failed);
        if (done && !fri_entry_is_init(&entry)) {
            fri_entry_set_init(&entry);
            header->fri_group_count = std::max<uint64_t>(header->fri_group_count, group + 1);
            done = fri_writer_put(&writer, group, &entry, &failed);
        }
    }
    if (done && fri_writer_flush(&writer, &failed)) {
        return 0;
    }
    log_err_as("import_map", "Fail to init fri group, lea %llu\n", ull(lea_of(run, failed)));
    return -1;
}

// With `only_looks` nothing is written.
static ref_write_result write_window(const listed_import* run, bool only_looks) {
    const import_job* job = run->job;
    const bool is_first = job->is_new && !run->written;
    return write_ref_counts(run->scan.counts, {current_tbl.fd, job->is_new, is_first,
                                               only_looks ? nullptr : job->linked, only_looks});
}

// 0; -1, logged.
static int commit_window(listed_import* run) {
    const int marked = mark_groups(run);
    const ref_write_result result = marked == 0 ? write_window(run, false) : ref_write_result{};
    run->written = true;
    if (marked != 0) {
        return -1;  // logged there
    }
    run->first_uses += result.first_uses;
    if (result.failed) {
        report_lost_mapping(lea_of(run, result.failed_group));
        return -1;
    }
    return 0;
}

static void forget_linked(const import_job* job) {
    if (job->linked != nullptr) {
        job->linked->count = 0;
    }
}

// Counts again, up to `end`, and writes every window. 0; -1, logged.
static int commit_up_to(listed_import* run, reference_place end) {
    reference_scan_restart(&run->scan, end);
    run->first_uses = 0;
    forget_linked(run->job);
    while (reference_scan_next(&run->scan)) {
        if (run->scan.unread || ref_counts_is_past_max(run->scan.counts)) {
            log_keep_as("import_map", keep_reason::unread, "Fail to read the maps again\n");
            return -1;
        }
        if (commit_window(run) != 0) {
            return -1;
        }
    }
    return 0;
}

static void save_index(const listed_import* run, uint64_t group_count) {
    current_fri.header.fri_group_count = group_count;
    fri_take_free(run->first_uses);
    (void)save_fri();  // deliberate: a failure is logged and counted
}

static void print_import(const import_job* job, const counted_map* map) {
    if (job->title != nullptr) {
        printf("TARN_INFO: %s(%s)\n", job->title, map->path);
    }
    printf("TARN_INFO: Try to import %llu/%llu mappings\n", ull(map->mapped), ull(map->count));
    scan_progress progress = scan_progress_of(map->count);
    scan_progress_pass(&progress, 0, map->looked_at);
    scan_progress_end(&progress);
}

static int finish(const listed_import* run) {
    for (size_t number = 0; number < run->scan.map_count; number++) {
        print_import(run->job, &run->scan.maps[number]);
    }
    if (run->scan.map_count != 0) {
        save_index(run, current_fri.header.fri_group_count);
    }
    return 0;
}

// What a walk over the maps accepted.
struct accepted_maps {
    int result;                // 0: all
    reference_place end;       // everything before it
    bool saved;                // an import would have saved the index's header,
    reference_place saved_at;  // for the last time here
    uint64_t group_count;
};

static accepted_maps accept_maps(const listed_import* run) {
    accepted_maps accepted = {0, {0, 0}, false, {0, 0}, run->group_count};
    size_t number = 0;
    accepted.result = for_each_entry(run->job->maps, [&](const path_entry* map) {
        import_tally tally = {0, accepted.group_count, 0, false};
        const int result = run->job->import_one(run->job->context, map, &tally);
        accepted.group_count = tally.group_count;
        if (tally.raised) {
            accepted.saved = true;
            accepted.saved_at = {number, tally.raised_at};
        }
        if (result < 0) {
            accepted.end = {number, tally.lea};
            return -1;
        }
        number++;
        accepted.end = {number, 0};
        accepted.saved = true;
        accepted.saved_at = accepted.end;
        return 0;
    });
    return accepted;
}

// The index's header as it was saved last before a failure.
static void save_index_before(listed_import* run, const accepted_maps* accepted) {
    reference_scan_restart(&run->scan, accepted->saved_at);
    run->first_uses = 0;
    while (reference_scan_next(&run->scan)) {
        run->first_uses += write_window(run, true).first_uses;
    }
    const fri_header before = current_fri.header;
    save_index(run, accepted->group_count);
    current_fri.header = before;
}

// Through the documented procedure, which reports what is unusual; then what it accepted is
// counted.
static int import_accepted(listed_import* run) {
    current_fri.header.fri_group_count = run->group_count;
    const accepted_maps accepted = accept_maps(run);
    if (accepted.result != 0 && accepted.saved) {
        save_index_before(run, &accepted);
    }
    if (commit_up_to(run, accepted.end) != 0 || accepted.result != 0) {
        return -1;
    }
    if (run->scan.map_count != 0) {
        save_index(run, current_fri.header.fri_group_count);
    }
    return 0;
}

// Whether the counts cannot be written as they are. A table in place may hold references: then the
// sums are tried before anything is written.
static bool needs_entries(const listed_import* run) {
    if (ref_counts_is_past_max(run->scan.counts)) {
        return true;
    }
    if (run->job->is_new) {
        return false;
    }
    const ref_write_result looked = write_window(run, true);
    return looked.past_max || looked.failed;
}

// Empties table and index again.
static bool take_back(const listed_import* run) {
    const int fds[] = {current_tbl.fd, current_fri.fd};
    for (const int fd : fds) {
        const int64_t size = io_size(fd);
        if (size < 0 || io_truncate(fd, METADATA_DATA_OFFSET) != 0 ||
            io_truncate(fd, static_cast<uint64_t>(size)) != 0) {
            log_keep_as("import_map", keep_reason::failed_write, "Fail to empty the new table\n");
            return false;
        }
    }
    current_fri.header.fri_group_count = run->group_count;
    forget_linked(run->job);
    return true;
}

static int import_one_by_one(const listed_import* run) {
    current_fri.header.fri_group_count = run->group_count;
    return !run->written || take_back(run) ? import_by_entries(run->job) : -1;
}

static void compare_window(listed_import* run) {
    const ref_counts* counts = run->scan.counts;
    run->group_end = std::max(run->group_end, ref_counts_group_end(counts));
    run->agrees = run->agrees && ref_counts_agree(counts, run->live_fd);
}

enum class count_end { sound, unusual, by_entries, failed };

// The first count, in which everything is found out: with `write`, the windows of sound maps are
// written on the way.
static count_end count_all(listed_import* run, bool write) {
    while (reference_scan_next(&run->scan)) {
        if (needs_entries(run)) {
            return count_end::by_entries;
        }
        if (run->scan.unread) {
            return count_end::unusual;
        }
        if (run->live_fd != 0) {
            compare_window(run);
        }
        if (write && !run->scan.unusual && commit_window(run) != 0) {
            return count_end::failed;
        }
    }
    return run->scan.unusual ? count_end::unusual : count_end::sound;
}

// `in_hand`: the counts of the last window are those of the whole list.
static int import_sound(listed_import* run, bool in_hand) {
    if (!run->written && (in_hand ? commit_window(run) : commit_up_to(run, REFERENCE_END)) != 0) {
        return -1;
    }
    return finish(run);
}

static int import_counted(listed_import* run, count_end end, bool in_hand) {
    switch (end) {
        case count_end::sound:
            return run->job->changes_maps ? import_accepted(run) : import_sound(run, in_hand);
        case count_end::unusual:
            return import_accepted(run);
        case count_end::by_entries:
            return import_one_by_one(run);
        default:
            return -1;
    }
}

static int count_and_import(listed_import* run) {
    const count_end end = count_all(run, run->job->is_new && !run->job->changes_maps);
    return import_counted(run, end, run->scan.scans == 1);
}

int import_listed(const import_job& job) {
    listed_import run = {&job, {}, current_fri.header.fri_group_count, 0, false, 0, false, 0};
    if (!reference_scan_open(&run.scan, job.maps, job.only_map, job.root)) {
        return import_by_entries(&job);
    }
    const int result = count_and_import(&run);
    if (job.linked != nullptr) {  // the windows came in another order
        std::sort(job.linked->at, job.linked->at + job.linked->count,
                  [](const linked_group& a, const linked_group& b) { return a.group < b.group; });
    }
    reference_scan_close(&run.scan);
    return result;
}

// The lines and the headers of an import whose entries nobody needs.
static void finish_without_entries(const listed_import* run) {
    current_fri.header.fri_group_count = run->group_end;
    (void)finish(run);
}

static int count_and_compare(listed_import* run, int (*confirm)(void* context), bool* agrees) {
    const import_job* job = run->job;
    const count_end end = count_all(run, false);
    const bool agree = end == count_end::sound && !job->changes_maps && run->agrees &&
                       unmet_regions_are_free(run->scan.counts, run->live_fd, run->group_end);
    const bool in_hand = run->scan.scans == 1;
    if (!agree) {
        return import_counted(run, end, in_hand);
    }
    finish_without_entries(run);
    *agrees = confirm(job->context) == 0;
    if (*agrees) {
        return 0;
    }
    current_fri.header.fri_group_count = run->group_count;
    (void)(in_hand ? commit_window(run) : commit_up_to(run, REFERENCE_END));
    return -1;  // logged where it was not confirmed
}

int import_to_compare(const import_job& job, const char* live_table, int (*confirm)(void* context),
                      bool* agrees) {
    *agrees = false;
    listed_import run = {&job, {}, current_fri.header.fri_group_count, 0, false, 0, true, 0};
    if (!reference_scan_open(&run.scan, job.maps, job.only_map, job.root)) {
        return import_by_entries(&job);
    }
    const int fd = io_open(live_table, O_RDONLY, 0);
    run.live_fd = fd > 0 ? fd : 0;
    run.agrees = fd > 0;
    const int result = count_and_compare(&run, confirm, agrees);
    io_close(run.live_fd);
    reference_scan_close(&run.scan);
    return result;
}
