// Large memory that begins as zeros and costs nothing until it is touched: whole pages from the
// system, in large ones where it has them, since what lies there is reached in no order. Below: the
// platform's memory. Above: reference counts.
#pragma once

#include <cstddef>

// `size` bytes, above 0, all zero. Null: no memory; nothing is logged. The caller owns it and gives
// it back with zero_memory_free of the same size.
void* zero_memory(size_t size);
// Null is let pass.
void zero_memory_free(void* memory, size_t size);
