#include "lab/sample.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "journal_status.h"
#include "lab/crash.h"
#include "lab/extents.h"
#include "lab/fill.h"
#include "lab/maps.h"
#include "lab/workload.h"

namespace lab {

constexpr uint64_t STREAM_WORK = 1;

static void add_volume(model* m, size_t number) {
    volume vol = {};
    vol.root = "volume" + std::to_string(number);
    vol.pool = new_uuid(m);
    vol.extent_size = 1u << 20;
    vol.free_count = FRI_NEW_FREE_COUNT;
    vol.noise = random_next(&m->work);
    m->volumes.push_back(vol);
}

static void add_maps(model* m, size_t volume_index) {
    const uint64_t snapshots = random_between(&m->work, 1, 2);
    const uint64_t trashed = random_below(&m->work, 3);
    for (uint64_t i = 0; i < m->sample.luns; i++) {
        (void)add_map(m, volume_index, map_role::lun);
    }
    for (uint64_t i = 0; i < snapshots; i++) {
        (void)add_map(m, volume_index, map_role::snapshot);
    }
    for (uint64_t i = 0; i < trashed; i++) {
        (void)add_map(m, volume_index, map_role::trash);
    }
    (void)add_map(m, volume_index, map_role::buffer);
    (void)add_map(m, volume_index, map_role::rod);
}

// The budget is usually small, so that old writes leave it. The ring has room for more than the
// budget's number of largest transactions and the torn one.
static void make_journal(model* m) {
    constexpr uint32_t SYNC_COUNTS[] = {0, 1, 1, 2, 2, 3, 4, 5, 8, 16};
    ring& journal = m->journal;
    memset(&journal.header, 0, sizeof journal.header);
    const uint32_t sync_count = SYNC_COUNTS[random_below(&m->work, std::size(SYNC_COUNTS))];
    journal.budget = sync_count == 0 ? 128 : uint64_t{2} * sync_count;
    journal.largest = random_between(&m->work, 1, 10);
    const uint64_t total = (journal.budget + 1) * journal.largest + random_between(&m->work, 1, 40);
    journal.blocks.resize(total);
    memset(journal.blocks.data(), 0, total * sizeof(jnl_block));
    journal.header.head.magic_code = METADATA_MAGIC_CODE;
    const uuid id = new_uuid(m);
    memcpy(journal.header.head.uuid, id.data(), id.size());
    journal.header.jnl_total_count = total;
    journal.header.jnl_sync_count = sync_count;
    journal.next_id = 1;
    journal.next_block = 0;
    if (random_chance(&m->work, 15)) {  // this is not the service's first journal
        journal.next_id = static_cast<uint32_t>(random_below(&m->work, uint64_t{1} << 31));
        journal.next_block = random_below(&m->work, total);
    }
}

// For most seeds the burst begins within the last `budget` commits.
static uint64_t plan_burst(model* m) {
    const uint64_t length = random_between(&m->work, 1, m->journal.budget + 1);
    if (random_chance(&m->work, 30)) {
        return NO_BURST;
    }
    return m->sample.transactions - std::min(length, m->sample.transactions);
}

static void run_transactions(model* m, uint64_t count, progress* bar) {
    progress_start(bar, "transactions", count);
    for (uint64_t i = 0; i < count; i++) {
        transaction t = next_transaction(m);
        if (i + 1 == m->sample.transactions && m->plan.torn != torn_kind::none) {
            tear(m, &t);
        } else {
            commit(m, &t);
            change_maps(m);
        }
        progress_step(bar);
    }
    progress_end(bar);
}

static model before_transactions(const parameters& sample) {
    model m = {};
    m.sample = sample;
    m.work = random_of(sample.seed, STREAM_WORK);
    for (size_t i = 0; i < sample.volumes; i++) {
        add_volume(&m, i + 1);
    }
    for (size_t i = 0; i < sample.volumes; i++) {
        add_maps(&m, i);
        fill_volume(&m, i);
    }
    make_journal(&m);
    if (sample.crash) {
        m.plan = plan_crash(sample.seed);
    }
    m.burst_from = plan_burst(&m);
    m.logging = true;
    return m;
}

// Sets the group counts as after a full relink or, if unfinalized, as the service counts them. The
// service makes its count durable before a group's first record.
static void count_groups(model* m) {
    for (volume& vol : m->volumes) {
        vol.group_count = m->sample.unfinalized ? end_group(vol) : uint64_t{FRI_GROUP_CAPACITY};
    }
}

model make_sample(const parameters& sample, progress* bar) {
    model m = before_transactions(sample);
    run_transactions(&m, sample.transactions, bar);
    count_groups(&m);
    m.crashed = sample.crash;
    m.journal.header.jnl_shutdown_tag = sample.crash ? JNL_STATUS_ABNORMAL : JNL_STATUS_SUCCESS;
    return m;
}

model make_past(const parameters& sample, uint64_t transactions) {
    progress none = {};
    model m = before_transactions(sample);
    run_transactions(&m, transactions, &none);
    count_groups(&m);
    return m;
}

uint64_t commits_of_make(const model& m) {
    return std::min(m.journal.commits, m.sample.transactions);
}

}  // namespace lab
