#include "ctl/explain/whole_log.h"

#include <algorithm>

void log_reader::add_line(std::string_view line) {
    report_.lines++;
    const log_line parsed = parse_log_line(line);
    if (!parsed.from_program) {
        report_.foreign++;
        return;
    }
    const recognised found = book_.recognise(parsed);
    if (found.row == nullptr) {
        if (report_.unknown++ == 0) {
            report_.first_unknown = report_.lines;
            report_.first_unknown_text = parsed.text;
        }
        return;
    }
    count(found, parsed, line);
    if (!found.harmless && !parsed.process.empty()) {
        note_run(parsed.process);
    }
}

void log_reader::count(const recognised& found, const log_line& parsed, std::string_view line) {
    const auto known = std::find_if(
        report_.messages.begin(), report_.messages.end(), [&found](const log_tally& one) {
            return one.row == found.row && one.harmless == found.harmless;
        });
    if (known != report_.messages.end()) {
        known->count++;
    } else {
        report_.messages.push_back(
            {found.row, found.harmless, 1, report_.lines, clean_line(line), parsed.text});
    }
}

void log_reader::note_run(const std::string& process) {
    if (process != report_.last_run) {
        report_.runs_with_errors++;
        report_.last_run = process;
    }
}

// The line under way, when a block of the input ends inside it.
struct line_rest {
    std::string text;
    bool begun = false;

    void add(std::string_view part) {
        begun = true;
        text += part.substr(0, LOG_LINE_MAX - std::min(LOG_LINE_MAX, text.size()));
    }
    void end(log_reader* reader) {
        reader->add_line(text);
        text.clear();
        begun = false;
    }
};

bool read_log(FILE* in, log_reader* reader) {
    std::vector<char> block(1 << 16);
    line_rest line;
    size_t got;
    while ((got = fread(block.data(), 1, block.size(), in)) > 0) {
        std::string_view rest(block.data(), got);
        for (size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
            line.add(rest.substr(0, end));
            line.end(reader);
            rest.remove_prefix(end + 1);
        }
        if (!rest.empty()) {
            line.add(rest);
        }
    }
    if (line.begun) {
        line.end(reader);
    }
    return ferror(in) == 0;
}

const log_tally* cause_of(const log_report& report) {
    const auto found = std::find_if(report.messages.begin(), report.messages.end(),
                                    [](const log_tally& one) { return !one.harmless; });
    return found == report.messages.end() ? nullptr : &*found;
}
