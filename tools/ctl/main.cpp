// Runs one command of tarnctl. Below: options.h and the commands.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <unistd.h>

#include "ctl/explain/explain.h"
#include "ctl/options.h"
#include "ctl/text/paragraph.h"
#include "ctl/text/terminal.h"

static bool wants_color(when color) {
    if (color != when::automatic) {
        return color == when::always;
    }
    const char* terminal = getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && getenv("NO_COLOR") == nullptr && terminal != nullptr &&
           strcmp(terminal, "dumb") != 0;
}

static output_style style_of(const ctl_options& options) {
    return {options.json, options.quiet, wants_color(options.color),
            options.progress == when::automatic && isatty(STDERR_FILENO) == 1};
}

static int run_explain(const ctl_options& options) {
    explain_request request;
    request.words = options.words;
    request.json = options.json;
    request.catalogue = {FINDING_ROWS, FINDING_ROW_COUNT};
    return explain(request);
}

static int run(const ctl_options& options) {
    if (!options.conf.empty() && setenv("TARN_PLATFORM_CONF", options.conf.c_str(), 1) != 0) {
        return complain("no memory");
    }
    const output_style style = style_of(options);
    set_text_columns(terminal_columns(STDOUT_FILENO, TEXT_COLUMNS));
    switch (options.command) {
        case ctl_command::check:
            return run_check(options.check, style);
        case ctl_command::space:
            return run_space(options.space, style);
        case ctl_command::health:
            return run_health(options.health, style);
        case ctl_command::punch:
            return run_punch(options.punch, style);
        case ctl_command::inventory:
            return run_inventory(options.inventory, style);
        case ctl_command::guard:
            return run_guard(options.guard, style);
        case ctl_command::export_lun:
            return run_export(options.export_lun, style);
        case ctl_command::explain:
        case ctl_command::none:
            break;
    }
    return run_explain(options);
}

// A standard descriptor that is closed becomes one on which every write fails: otherwise the next
// file that is opened would get its number, and what is printed.
static bool keep_standard_descriptors() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) == -1 && open("/dev/null", O_RDONLY) != fd) {
            return false;
        }
    }
    return true;
}

int main(int argc, char** argv) {
    if (!keep_standard_descriptors()) {
        return EXIT_COULD_NOT_RUN;
    }
    (void)signal(SIGPIPE, SIG_IGN);  // a closed pipe is a write that fails
    (void)signal(SIGXFSZ, SIG_IGN);  // and so is a file that must not grow
    try {
        const parsed_options parsed = parse_options(argc, argv);
        if (parsed.options.command == ctl_command::none) {
            fputs(parsed.out.c_str(), stdout);
            fputs(parsed.err.c_str(), stderr);
            return fflush(stdout) == 0 ? parsed.status : cannot_write();
        }
        return run(parsed.options);
    } catch (const std::bad_alloc&) {
        return complain("no memory");
    }
}
