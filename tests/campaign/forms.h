// Every form of every command that the campaign of faults runs. Below: samples.h.
#pragma once

#include <span>

#include "campaign/samples.h"

// In `words`: {w} the sample's place, {v} its first volume, {t} and {f} table and index of that
// volume, {j} the journal, {m} a LUN's map, {x} the work directory @EP_FIX of the volume.
constexpr int ANY = -1;
constexpr unsigned PLAIN = 0;
constexpr unsigned FIXED_SHIFT = 1;  // the configuration says how large an extent is
constexpr unsigned OUTPUT = 2;       // its output is its result or part of it
constexpr unsigned OFTEN = 4;        // has three turns for each one of the others
struct command_form {
    const char* name;
    sample_kind sample;
    const char* words;
    int status;         // of the undisturbed run; ANY: it depends on the sample
    unsigned traits;    // of the constants below
    const char* input;  // standard input
};
std::span<const command_form> command_forms();
