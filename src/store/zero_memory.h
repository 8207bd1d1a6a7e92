// Large memory that begins as zeros and costs nothing until it is touched: whole pages from the
// system, large ones if it has them, since the accesses are in random order. Below: the system.
// Above: reference counts.
#pragma once

#include <cstddef>

// Returns `size` bytes (above 0), all zero; null without memory, not logged. The caller owns them
// and frees them with zero_memory_free of the same size.
void* zero_memory(size_t size);
// Null is ignored.
void zero_memory_free(void* memory, size_t size);
