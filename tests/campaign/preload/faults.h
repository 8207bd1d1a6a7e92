// Counts the calls of each kind and makes the chosen one fail. Below: own_io.h. Above: calls.cpp.
#pragma once

#include <cstddef>

#include "campaign/preload/call_kinds.h"

// True in the program under test. The programs that it starts inherit the library, and in them it
// does nothing.
bool in_program_under_test();

// What a call is made on: a path, or a descriptor when `path` is null.
struct call_subject {
    const char* path;
    int fd;
};
// A file or directory, and not one that belongs to the machine: /proc, /dev/null, the platform
// configuration. Pipes, sockets and the three standard descriptors are not.
bool is_counted(const call_subject& subject);

struct fault_verdict {
    int error;      // errno of the call that fails; 0: the call is made
    bool half_way;  // read, write: only half of the bytes, at least 1
};
// Counts the call, errno untouched.
fault_verdict next_fault(call_kind kind, const call_subject& subject);
