// Notes every operation that changes files or makes changes durable, and ends the process before a
// chosen one. Below: own_io.h, recording.h. Above: calls.cpp.
#pragma once

#include "campaign/recording.h"

bool is_recording();
// To be called before an operation that record() will note if it succeeds: the process may end.
void before_operation();
// `head` without its lengths; null texts are empty.
void record(op_head head, const char* path, const char* other, const void* bytes, size_t len);
void record_on_descriptor(op_kind kind, int fd, uint64_t number, const void* bytes, size_t len);
