// Results that are accepted although a system call failed: each is documented, and listed here
// with its reason. Below: faults_judge.h. Above: faults_judge.cpp.
#pragma once

#include <string>

#include "campaign/faults_judge.h"

// The reason, or null: the result is a violation. `result` as in verdict.
const char* known_reason(const command_form& form, const std::string& result,
                         const observed& undisturbed, const observed& got);
