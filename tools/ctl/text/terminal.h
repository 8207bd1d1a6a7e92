// How wide the terminal is. Below: nothing. Above: paragraph.h, progress.h, main.
#pragma once

#include <cstddef>

// The columns of the terminal behind the descriptor; `otherwise` if it is not a terminal, or its
// width is unknown.
size_t terminal_columns(int fd, size_t otherwise);
