#include "ctl/text/terminal.h"

#include <sys/ioctl.h>

size_t terminal_columns(int fd, size_t otherwise) {
    winsize size = {};
    const bool known = ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : otherwise;
}
