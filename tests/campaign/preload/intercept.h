// How a call of the C library is replaced. Below: faults.h, recorder.h. Above: calls_*.cpp.
#pragma once

#include <cerrno>
#include <dlfcn.h>
#include <type_traits>

#include "campaign/preload/faults.h"
#include "campaign/preload/recorder.h"

// The functions have their own names, and those of the C library only for the linker, so that they
// need not repeat how its headers declare and inline them.
#define REPLACES(name) __asm__(#name) __attribute__((visibility("default")))
// The same function under another of its names: offsets have 64 bits in both.
#define ALSO_KNOWN_AS(function, name) \
    __asm__(#name) __attribute__((visibility("default"), alias(function)))

template <class Function>
Function* next_of(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Makes the call unless it is the one to fail, which returns `failed`.
template <class Call>
auto guarded(call_kind kind, const call_subject& subject, std::invoke_result_t<Call> failed,
             Call call) -> std::invoke_result_t<Call> {
    const fault_verdict verdict = next_fault(kind, subject);
    if (verdict.error != 0) {
        errno = verdict.error;
        return failed;
    }
    return call();
}

// The same for an operation that changes something; `note` records it when its result is 0.
template <class Call, class Note>
int guarded_change(call_kind kind, const call_subject& subject, Call call, Note note) {
    return guarded(kind, subject, -1, [&] {
        const bool noted = is_recording() && is_counted(subject);
        if (noted) {
            before_operation();
        }
        const int result = call();
        if (noted && result == 0) {
            note();
        }
        return result;
    });
}
