// Runs one command of tarnctl. Writes nothing but standard output and standard error.
// Below: options.h and the commands.
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unistd.h>

#include "ctl/check/print.h"
#include "ctl/explain/explain.h"
#include "ctl/options.h"

static int complain(const std::string& problem) {
    fprintf(stderr, "tarnctl: %s\n", problem.c_str());
    return EXIT_COULD_NOT_RUN;
}

static int cannot_write() {
    return complain(std::string("cannot write the result: ") + strerror(errno));
}

static bool wants_color(when color) {
    if (color != when::automatic) {
        return color == when::always;
    }
    const char* terminal = getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && getenv("NO_COLOR") == nullptr && terminal != nullptr &&
           strcmp(terminal, "dumb") != 0;
}

static int run_check(const ctl_options& options) {
    check_request request = options.check;
    request.progress = options.progress == when::automatic && isatty(STDERR_FILENO) == 1;
    check_report report;
    std::string problem;
    if (!check_server(request, &report, &problem)) {
        return complain(problem);
    }
    const print_style style = {wants_color(options.color), request.all, options.quiet};
    const bool printed = options.json ? print_check_json(stdout, report, style)
                                      : print_check_text(stdout, report, style);
    // What nobody could read is no verdict.
    return printed ? exit_of(report) : cannot_write();
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
    return options.command == ctl_command::check ? run_check(options) : run_explain(options);
}

int main(int argc, char** argv) {
    (void)signal(SIGPIPE, SIG_IGN);  // a closed pipe is a write that fails
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
