#include "lab/continued.h"

#include "journal_status.h"
#include "lab/aging.h"
#include "lab/disk.h"
#include "lab/workload.h"

namespace lab {

void start_service(model* m, uint64_t seed) {
    constexpr uint64_t STREAM_RUN = 4;
    m->work = random_of(seed, STREAM_RUN);
    m->burst_from = NO_BURST;
    m->ran = true;
    m->journal.header.jnl_shutdown_tag = JNL_STATUS_ABNORMAL;
}

void repeat_step(model* m, uint64_t step) {
    if (step % 2 == 0) {
        change_maps(m);
        return;
    }
    transaction t = next_transaction(m);
    commit(m, &t);
}

bool expect_states(const std::string& directory, progress* bar, expected_states* out) {
    parameters sample;
    run_notes notes;
    if (!read_parameters(directory, &sample)) {
        return false;
    }
    const notes_state state = read_notes(directory, &notes);
    if (state == notes_state::unreadable) {
        return false;
    }
    out->first = make_sample(sample, bar);
    out->two = notes.begun > notes.done;
    if (state == notes_state::found && notes.kind != NOTES_RAN) {
        age_model(&out->first, notes);
        return true;
    }
    if (state == notes_state::found) {
        start_service(&out->first, notes.seed);
    }
    for (uint64_t step = 1; step <= notes.done; step++) {
        repeat_step(&out->first, step);
    }
    if (out->two) {
        out->also = out->first;
        repeat_step(&out->also, notes.begun);
        for (size_t i = 0; i < out->first.volumes.size(); i++) {  // data comes before its record
            out->first.volumes[i].taken = out->also.volumes[i].taken;
        }
    }
    return true;
}

}  // namespace lab
