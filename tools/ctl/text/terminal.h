// How wide the terminal is. Below: nothing. Above: paragraph.h, progress.h, main.
#pragma once

#include <cstddef>

// The columns of the terminal that the descriptor is open on; `otherwise` if it is none, or does
// not know.
size_t terminal_columns(int fd, size_t otherwise);
