// One line for Nagios and what understands its plug-ins, and one for a local check of Checkmk.
#include <algorithm>
#include <cctype>

#include "ctl/health/print.h"
#include "ctl/text/escape.h"

namespace {

struct metric {
    std::string volume;  // root as shown; empty: of the server
    std::string name;
    uint64_t value;
    const char* unit;
    uint64_t limit;  // 0: none
};

}  // namespace

static void add_metric(std::vector<metric>* all, const volume_health& volume, const char* name,
                       const std::optional<uint64_t>& value, const char* unit) {
    if (value) {
        all->push_back({shown(volume.now.root), name, *value, unit, 0});
    }
}

static std::vector<metric> metrics_of(const health_report& report) {
    std::vector<metric> all;
    if (report.last.kind == state_kind::known) {
        all.push_back({"", "check_age", report.age, "s", CHECK_AGE_MAX});
        for (const auto& [severity, count] : report.last.record.severities) {
            all.push_back({"", "findings_" + severity, count, "", 0});
        }
    }
    for (const volume_health& volume : report.volumes) {
        const volume_figures last = volume.last.value_or(volume_figures());
        add_metric(&all, volume, "used", bytes_of_extents(last.used, last.extent_size), "B");
        add_metric(&all, volume, "leaked", bytes_of_extents(last.leaked, last.extent_size), "B");
        add_metric(&all, volume, "room", volume.now.room, "B");
        if (volume.full.kind == forecast_kind::filling) {
            add_metric(&all, volume, "full_in", volume.full.seconds, "s");
        }
    }
    return all;
}

static std::string with_replaced(std::string text, const char* characters, char by) {
    for (char& one : text) {
        one = std::string_view(characters).find(one) != std::string_view::npos ? by : one;
    }
    return text;
}

static std::string number_words(const metric& one) {
    const std::string limit = one.limit == 0 ? "" : std::to_string(one.limit);
    return ";" + limit + ";" + limit + ";0";
}

// 'label'=value[unit];warn;crit;min, between blanks. A quote in a label is written twice.
static std::string performance_data(const health_report& report) {
    std::string text;
    for (const metric& one : metrics_of(report)) {
        const std::string name = (one.volume.empty() ? "" : one.volume + " ") + one.name;
        std::string quoted;
        for (const char letter : with_replaced(name, "=|", '_')) {
            quoted += letter == '\'' ? "''" : std::string(1, letter);
        }
        text += (text.empty() ? "'" : " '") + quoted + "'=" + std::to_string(one.value) + one.unit +
                number_words(one);
    }
    return text;
}

static std::string joined(const health_report& report) {
    std::string text;
    for (const std::string& sentence : health_sentences(report)) {
        text += (text.empty() ? "" : " ") + sentence;
    }
    return text;
}

bool print_health_nagios(FILE* out, const health_report& report) {
    static constexpr const char* WORDS[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
    const std::string data = performance_data(report);
    const std::string line = std::string("TARN ") + WORDS[plugin_status(report)] + " - " +
                             with_replaced(joined(report), "|", '!') +
                             (data.empty() ? "" : " | " + data) + "\n";
    return fwrite(line.data(), 1, line.size(), out) == line.size() && fflush(out) == 0;
}

// Letters, digits and underscores. The metrics of two volumes must not have one name.
static std::string metric_name(const metric& one, std::vector<std::string>* taken) {
    std::string name = one.name;
    for (const char letter : one.volume) {
        name += isalnum(static_cast<unsigned char>(letter)) != 0 ? letter : '_';
    }
    const std::string plain = name;
    for (int number = 2; std::count(taken->begin(), taken->end(), name) > 0; number++) {
        name = plain + "_" + std::to_string(number);
    }
    taken->push_back(name);
    return name;
}

bool print_health_checkmk(FILE* out, const health_report& report) {
    std::vector<std::string> taken;
    std::string data;
    for (const metric& one : metrics_of(report)) {
        data += (data.empty() ? "" : "|") + metric_name(one, &taken) + "=" +
                std::to_string(one.value) + number_words(one);
    }
    // Two characters, backslash and n, would begin the details: no name may bring them.
    const std::string line = std::to_string(plugin_status(report)) + " \"Tarn metadata\" " +
                             (data.empty() ? "-" : data) + " " +
                             with_replaced(joined(report), "\\", '?') + "\n";
    return fwrite(line.data(), 1, line.size(), out) == line.size() && fflush(out) == 0;
}
