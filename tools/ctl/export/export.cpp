// The command `tarnctl export`.
#include "ctl/export/export.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <unistd.h>

#include "ctl/check/place_words.h"
#include "ctl/export/copy.h"
#include "ctl/export/mapfile.h"
#include "ctl/export/report.h"
#include "ctl/export/source.h"
#include "ctl/export/target.h"
#include "ctl/text/escape.h"

namespace {

class exporter {
public:
    exporter(const export_request& request, const output_style& style)
        : request_(request), style_(style), to_stdout_(request.to == "-") {}
    int run();

private:
    int choose_range();
    int prepare();
    int copy_out();
    int to_pipe();
    int make_part();
    int failed_write(copy_end end, int error);
    int moved();
    int print();

    const export_request& request_;
    const output_style& style_;
    bool to_stdout_;
    lun_source source_;
    export_target target_;
    export_report report_;
    copy_order order_ = {};
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

int answer_of(const lun_answer& answer) {
    if (answer.status == EXIT_REFUSED) {
        return refuse(answer.reason);
    }
    (void)complain(answer.reason);
    return answer.status;
}

int usage(const std::string& words) {
    (void)complain(words);
    return EXIT_USAGE;
}

int exporter::choose_range() {
    const uint64_t size = source_.reader->size();
    const uint64_t rest = size - std::min(size, request_.offset);
    if (request_.offset > size || request_.length > rest) {
        return usage("the LUN has " + std::to_string(size) +
                     " bytes: --offset and --length reach "
                     "past its end");
    }
    report_.offset = request_.offset;
    report_.length = request_.length == 0 ? rest : request_.length;
    order_ = {source_.reader.get(),  report_.offset,  report_.length,
              request_.missing_zero, style_.progress, shown(request_.lun)};
    return EXIT_CLEAN;
}

// Everything that can refuse, before a byte is written.
int exporter::prepare() {
    if (to_stdout_ && style_.json) {
        return usage("--json and --to - both want standard output");
    }
    const lun_answer answer = open_lun(request_.lun, request_.inconsistent, &source_);
    if (answer.status != EXIT_CLEAN) {
        return answer_of(answer);
    }
    report_.volume = source_.volume;
    report_.map = source_.map;
    report_.mode = source_.look->mode;
    report_.lun_bytes = source_.reader->size();
    report_.warnings = source_.warnings;
    const int status = choose_range();
    if (status != EXIT_CLEAN) {
        return status;
    }
    target_.file = request_.to;
    const std::string problem =
        to_stdout_ ? "" : target_problem(source_.look->state.server, target_, request_.force);
    return problem.empty() ? EXIT_CLEAN : refuse(problem);
}

int exporter::print() {
    report_.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count();
    for (const std::string& warning : report_.warnings) {
        fprintf(stderr, "tarnctl: %s\n", warning.c_str());
    }
    FILE* out = to_stdout_ ? stderr : stdout;
    const bool printed = style_.json ? print_export_json(out, report_, style_.quiet)
                                     : print_export_text(out, report_, style_.quiet);
    return printed ? report_.status : cannot_write();
}

// The service wrote while the bytes were copied.
int exporter::moved() {
    if (!request_.inconsistent) {
        return refuse(
            "the service wrote while the LUN was copied: the copy would be of different "
            "moments" +
            std::string(to_stdout_ ? "; what was printed is no copy" : ""));
    }
    report_.warnings.emplace_back("Not of one moment: the service wrote while the LUN was copied.");
    return EXIT_CLEAN;
}

int exporter::failed_write(copy_end end, int error) {
    if (end == copy_end::missing) {
        report_.status = EXIT_DAMAGE;
        return print();
    }
    if (to_stdout_) {
        errno = error;
        return cannot_write();
    }
    if (target_.is_named) {
        return complain(shown(target_.file) +
                        " is whole, but its name is not synced: " + strerror(error));
    }
    return complain(shown(target_.part()) + ": " + strerror(error) +
                    "; the part that was written is left there");
}

int exporter::to_pipe() {
    const copy_end end = copy_lun(order_, {STDOUT_FILENO, false}, &report_.totals);
    if (end != copy_end::done) {
        return failed_write(end, errno);
    }
    report_.to = "standard output";
    return was_written_meanwhile(source_) ? moved() : EXIT_CLEAN;
}

int exporter::make_part() {
    const io_overlay_pause on_disk;
    if (!open_part(&target_, report_.length, request_.force)) {
        return complain("cannot make " + shown(target_.part()) + ": " + strerror(errno));
    }
    return EXIT_CLEAN;
}

int exporter::copy_out() {
    int status = make_part();
    if (status != EXIT_CLEAN) {
        return status;
    }
    const copy_end end = copy_lun(order_, {target_.fd, true}, &report_.totals);
    const int error = errno;
    const io_overlay_pause on_disk;
    if (end == copy_end::write_failed) {
        leave_part(&target_);
        return failed_write(end, error);
    }
    if (end == copy_end::missing) {
        drop_part(&target_);
        return failed_write(end, error);
    }
    status = was_written_meanwhile(source_) ? moved() : EXIT_CLEAN;
    if (status != EXIT_CLEAN) {
        drop_part(&target_);
        return status;
    }
    if (!finish_part(&target_, mapfile_text(report_.totals, report_.length))) {
        return failed_write(copy_end::write_failed, errno);
    }
    report_.to = target_.file;
    report_.map_file = target_.map();
    return EXIT_CLEAN;
}

int exporter::run() {
    int status = prepare();
    if (status != EXIT_CLEAN) {
        return status;
    }
    export_totals found;
    survey(order_, &found);
    if (!found.missing.empty() && !request_.missing_zero) {
        report_.totals = std::move(found);
        report_.status = EXIT_DAMAGE;
        return print();
    }
    status = to_stdout_ ? to_pipe() : copy_out();
    if (status != EXIT_CLEAN || report_.status != EXIT_CLEAN) {
        return status;
    }
    report_.status = report_.totals.missing.empty() ? EXIT_CLEAN : EXIT_DAMAGE;
    return print();
}

}  // namespace

int run_export(const export_request& request, const output_style& style) {
    return exporter(request, style).run();
}
