#include "lab/run.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

#include "lab/continued.h"
#include "lab/disk.h"
#include "lab/live_disk.h"
#include "lab/verify.h"
#include "lab/workload.h"
#include "print.h"

namespace lab {

static volatile sig_atomic_t stop_asked = 0;

static void ask_to_stop(int /*signal*/) {
    stop_asked = 1;
}

static void catch_signals() {
    struct sigaction action = {};
    action.sa_handler = ask_to_stop;
    (void)sigemptyset(&action.sa_mask);
    (void)sigaction(SIGTERM, &action, nullptr);
    (void)sigaction(SIGINT, &action, nullptr);
}

static bool make_transaction(live_disk* disk, model* m) {
    if (!write_oldest(disk, *m)) {
        return false;
    }
    const uint64_t start = m->journal.next_block;
    transaction t = next_transaction(m);
    commit(m, &t);
    return extend_data_files(*disk, *m) && write_data(disk, *m) &&
           write_record(disk, *m, t, start) && write_some(disk, *m);
}

static bool pause_between(live_disk* disk, model* m) {
    const map_paths before = paths_of(*m);
    change_maps(m);
    return change_files(*disk, *m, before);
}

static bool make_step(live_disk* disk, model* m, run_notes* notes) {
    notes->begun++;
    if (!write_notes(disk->directory, *notes) ||
        !(notes->begun % 2 == 1 ? make_transaction(disk, m) : pause_between(disk, m))) {
        return false;
    }
    notes->done++;
    return write_notes(disk->directory, *notes);
}

bool starts_from(const std::string& directory, model* m, progress* bar) {
    parameters sample;
    if (!read_parameters(directory, &sample)) {
        return false;
    }
    *m = make_sample(sample, bar);
    if (m->sample.crash || m->sample.unfinalized) {
        return complain_of(directory, "only a sample without --crash and --unfinalized can run");
    }
    run_notes old;
    if (read_notes(directory, &old) != notes_state::none) {
        return complain_of(directory, "has run before");
    }
    const std::string difference = verify_sample(m, truth::recovered, directory, bar);
    return difference.empty() || complain_of(directory, ("is not as made: " + difference).c_str());
}

static bool make_steps(live_disk* disk, model* m, run_notes* notes, const run_order& order) {
    using clock = std::chrono::steady_clock;
    const auto begin = clock::now();
    const auto end = begin + std::chrono::seconds(order.seconds);
    const auto step =
        std::chrono::nanoseconds(std::chrono::seconds(1)) / static_cast<int64_t>(order.rate);
    for (auto due = begin; stop_asked == 0 && clock::now() < end; due += step) {
        if (!make_step(disk, m, notes)) {
            return false;
        }
        std::this_thread::sleep_until(std::min(due + step, end));
    }
    return true;
}

bool run_service(const run_order& order, progress* bar) {
    constexpr uint64_t STREAM_ORDER = 5;
    model m = {};
    if (!starts_from(order.directory, &m, bar)) {
        return false;
    }
    catch_signals();
    start_service(&m, order.seed);
    live_disk disk = start_disk(order.directory, m, random_of(order.seed, STREAM_ORDER));
    run_notes notes = {order.seed, 0, 0, NOTES_RAN};
    if (!create_notes(order.directory, notes) || !write_status(disk, m) ||
        !make_steps(&disk, &m, &notes, order)) {
        return false;
    }
    (void)printf("%s: %llu transactions, the newest has id %u; the journal's status is abnormal.\n",
                 order.directory.c_str(), ull((notes.done + 1) / 2),
                 m.journal.header.jnl_last_trans_id);
    return true;
}

}  // namespace lab
