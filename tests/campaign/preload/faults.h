// Counts the calls of each kind and makes the chosen one fail. Below: own_io.h. Above: calls.cpp.
#pragma once

#include <cstddef>

#include "campaign/preload/call_kinds.h"

// True in the program under test. The library does nothing in the programs that this one starts,
// which inherit it.
bool in_program_under_test();

// The target of a call: a path, or a descriptor if `path` is null.
struct call_subject {
    const char* path;
    int fd;
};
// True for a file or directory other than those of the machine (/proc, /dev/null, the platform
// configuration). False for pipes, sockets and the three standard descriptors.
bool is_counted(const call_subject& subject);

struct fault_verdict {
    int error;      // errno of the call that fails; 0: the call is made
    bool half_way;  // read, write: only half of the bytes, at least 1
};
// Counts the call and leaves errno alone.
fault_verdict next_fault(call_kind kind, const call_subject& subject);
