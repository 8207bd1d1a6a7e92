#include "ctl/explain/explain.h"

#include "ctl/check/check.h"
#include "ctl/explain/answers.h"
#include "ctl/explain/recognise.h"
#include "ctl/explain/whole_log.h"

// One run: what is asked, what is known, and where answers go.
struct explanation {
    const explain_request& request;
    const message_book& book;
    answer_printer* printer;
};

static std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

static bool equal_but_case(std::string_view one, std::string_view other) {
    const auto small = [](char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : int{c}; };
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [small](char a, char b) { return small(a) == small(b); });
}

// The row with that code or slug, whatever the case; null if there is none.
static const finding_row* row_named(std::span<const finding_row> catalogue, std::string_view name) {
    for (const finding_row& row : catalogue) {
        if (equal_but_case(name, row.name) || equal_but_case(name, row.slug)) {
            return &row;
        }
    }
    return nullptr;
}

static int refuse(const explanation& run, std::string_view text) {
    const auto nearest = run.book.nearest(text);
    run.printer->unknown(text, nearest);
    return EXIT_USAGE;
}

// The message, and the one that it quotes.
static void print_message(const explanation& run, const message_answer& answer,
                          std::string_view text) {
    run.printer->message(answer);
    const std::string_view quoted = quoted_text(text);
    if (quoted.empty()) {
        return;
    }
    const recognised found = run.book.recognise(parse_log_line(quoted));
    if (found.row != nullptr) {
        run.printer->message({answer_role::quoted, found.row, quoted});
    }
}

static int explain_line(const explanation& run, std::string_view given) {
    const log_line line = parse_log_line(given);
    const recognised found = run.book.recognise(line);
    if (found.row == nullptr) {
        return refuse(run, line.text);
    }
    const std::string shown = clean_line(given);
    print_message(run, {answer_role::asked, found.row, shown}, line.text);
    return EXIT_CLEAN;
}

static void print_tally(const explanation& run, answer_role role, const log_tally& tally) {
    print_message(run, {role, tally.row, tally.first_shown, tally.first_line, tally.count},
                  role == answer_role::cause ? tally.first_text : "");
}

static int print_report(const explanation& run, const log_report& report) {
    const log_tally* cause = cause_of(report);
    if (cause != nullptr) {
        print_tally(run, answer_role::cause, *cause);
    }
    for (const log_tally& tally : report.messages) {
        if (&tally != cause) {
            print_tally(run, tally.harmless ? answer_role::harmless : answer_role::error, tally);
        }
    }
    if (report.messages.empty() && report.unknown != 0) {
        (void)refuse(run, report.first_unknown_text);
    }
    run.printer->log(report);
    return report.messages.empty() ? EXIT_USAGE : EXIT_CLEAN;
}

static int explain_log(const explanation& run, FILE* in) {
    log_reader reader(run.book);
    if (!read_log(in, &reader)) {
        return EXIT_COULD_NOT_RUN;
    }
    return print_report(run, reader.report());
}

// Several lines that were pasted together.
static int explain_lines(const explanation& run, std::string_view text) {
    log_reader reader(run.book);
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        reader.add_line(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return print_report(run, reader.report());
}

static int answer(const explanation& run) {
    const std::vector<std::string>& words = run.request.words;
    if (words.empty()) {
        run.printer->catalogue(run.request.catalogue);
        return EXIT_CLEAN;
    }
    std::string text = joined(words);
    if (text == "-") {
        return explain_log(run, run.request.in);
    }
    while (text.ends_with('\n')) {
        text.pop_back();
    }
    const finding_row* row = row_named(run.request.catalogue, text);
    if (row != nullptr) {
        run.printer->code(*row);
        return EXIT_CLEAN;
    }
    return text.find('\n') == std::string::npos ? explain_line(run, text)
                                                : explain_lines(run, text);
}

int explain(const explain_request& request) {
    const message_book book;
    const std::unique_ptr<answer_printer> printer =
        request.json ? json_printer(request.out) : text_printer(request.out);
    printer->start();
    const int exit_status = answer({request, book, printer.get()});
    return printer->end(exit_status) ? exit_status : EXIT_COULD_NOT_RUN;
}
