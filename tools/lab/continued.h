// The model of a sample whose service went on running: the same steps as the run made, without the
// disk. Below: sample.h, workload.h, run_notes.h. Above: run.h and the commands.
#pragma once

#include "lab/run_notes.h"
#include "lab/sample.h"

namespace lab {

// Turns the model of a cleanly shut down sample into that of a service that is starting.
void start_service(model* m, uint64_t seed);
// Step number `step` of the run. Steps follow one another from 1.
void repeat_step(model* m, uint64_t step);

// The state in which start-up replay leaves the sample; `also` is the second possible one. A run
// that was killed during a step has done it or not.
struct expected_states {
    model first;
    bool two;  // false: only the first is possible
    model also;
};
// Returns false if the sample's two files cannot be read, and prints the reason.
bool expect_states(const std::string& directory, progress* bar, expected_states* out);

}  // namespace lab
