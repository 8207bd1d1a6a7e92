// The text format of Prometheus, for the textfile collector of its node exporter.
#include "ctl/check/listing.h"
#include "ctl/health/print.h"
#include "ctl/text/escape.h"

// A label's value: any text in UTF-8, with three characters escaped.
static std::string label_value(const std::string& text) {
    std::string value;
    for (const char one : text) {
        value += one == '\n'                 ? "\\n"
                 : one == '\\' || one == '"' ? std::string("\\") + one
                                             : std::string(1, one);
    }
    return value;
}

namespace {

// The samples of one metric after another; a metric without samples is left out.
class metrics {
public:
    void begin(const std::string& name, const std::string& help) {
        name_ = name;
        head_ = "# HELP " + name + " " + help + "\n# TYPE " + name + " gauge\n";
    }
    void add(const std::string& labels, const std::string& value) {
        text_ += head_ + name_ + (labels.empty() ? "" : "{" + labels + "}") + " " + value + "\n";
        head_.clear();
    }
    void add(const std::string& labels, uint64_t value) { add(labels, std::to_string(value)); }
    [[nodiscard]] const std::string& text() const { return text_; }

private:
    std::string text_;
    std::string name_;
    std::string head_;  // until the first sample
};

}  // namespace

static std::string label(const char* name, const std::string& value) {
    return std::string(name) + "=\"" + label_value(value) + "\"";
}

static std::string volume_label(const volume_health& volume) {
    return label("volume", shown(volume.now.root));
}

static void add_status(const health_report& report, metrics* all) {
    all->begin("tarn_configuration_readable", "Whether the server's configuration can be read.");
    all->add("", report.facts.problem.empty() ? 1 : 0);
    all->begin("tarn_health_status",
               "0 healthy, 3 lost space or counts, 4 damage, 5 urgent, 6 unknown.");
    all->add("", static_cast<uint64_t>(report.status));
    if (!report.facts.problem.empty()) {
        return;
    }
    all->begin("tarn_journal_status", "1 for the status that the journal has.");
    const std::string& status = report.facts.report.journal_status;
    for (const char* word :
         {"init", "success", "abnormal", "bad", "read-only", "none", "unreadable"}) {
        const bool is_it = status.empty() ? std::string(word) == "unreadable" : status == word;
        all->add(label("status", word), is_it ? 1 : 0);
    }
}

static void add_findings(const health_report& report, metrics* all) {
    all->begin("tarn_findings",
               "Findings by severity: of the last full check, and of a quick look now.");
    if (report.last.kind == state_kind::known) {
        for (const auto& [severity, count] : report.last.record.severities) {
            all->add("source=\"check\"," + label("severity", severity), count);
        }
    }
    if (report.facts.problem.empty()) {
        const finding_totals totals = totals_of(report.facts.report);
        for (const severity level :
             {severity::count, severity::damage, severity::note, severity::urgent}) {
            all->add("source=\"now\"," + label("severity", severity_word(level)),
                     totals.levels[static_cast<size_t>(level)]);
        }
        all->add("source=\"now\"," + label("severity", "unreadable"), totals.unreadable);
    }
}

static void add_last_check(const health_report& report, metrics* all) {
    all->begin("tarn_check_known",
               "1 if a full check of this server is known and at most 10 days old.");
    all->add("", report.last_counts ? 1 : 0);
    if (report.last.kind != state_kind::known) {
        return;
    }
    const state_record& last = report.last.record;
    all->begin("tarn_check_completed_timestamp_seconds", "When the last full check ended.");
    all->add("", last.last.completed);
    all->begin("tarn_check_exit_status", "Exit status of the last full check.");
    all->add("", static_cast<uint64_t>(last.exit));
    all->begin("tarn_check_complete", "1 if the last full check could read everything.");
    all->add("", last.complete ? 1 : 0);
    all->begin("tarn_check_findings", "Findings of the last full check by code.");
    for (const auto& [code, count] : last.codes) {
        all->add(label("code", code), count);
    }
}

static void add_extents(const volume_health& volume, const char* state,
                        const std::optional<uint64_t>& extents, metrics* all) {
    if (extents) {
        all->add(volume_label(volume) + "," + label("state", state), *extents);
    }
}

static void add_volumes(const health_report& report, metrics* all) {
    all->begin("tarn_extents", "Extents: free now; used and leaked at the last full check.");
    for (const volume_health& volume : report.volumes) {
        const volume_figures last = volume.last.value_or(volume_figures());
        add_extents(volume, "free", volume.now.free, all);
        add_extents(volume, "used", last.used, all);
        add_extents(volume, "leaked", last.leaked, all);
    }
    all->begin("tarn_extent_size_bytes", "Bytes of an extent.");
    for (const volume_health& volume : report.volumes) {
        if (volume.now.extent_size != 0) {
            all->add(volume_label(volume), volume.now.extent_size);
        }
    }
    all->begin("tarn_volume_room_bytes", "Bytes that the file system of the volume has left.");
    for (const volume_health& volume : report.volumes) {
        if (volume.now.room) {
            all->add(volume_label(volume), *volume.now.room);
        }
    }
    all->begin("tarn_volume_full_seconds",
               "Seconds until no room is left, if it shrinks as it did; +Inf if it does not.");
    for (const volume_health& volume : report.volumes) {
        if (volume.full.kind == forecast_kind::filling) {
            all->add(volume_label(volume), volume.full.seconds);
        } else if (volume.full.kind == forecast_kind::not_filling) {
            all->add(volume_label(volume), "+Inf");
        }
    }
}

bool print_health_prometheus(FILE* out, const health_report& report) {
    metrics all;
    add_status(report, &all);
    add_last_check(report, &all);
    add_findings(report, &all);
    add_volumes(report, &all);
    return fwrite(all.text().data(), 1, all.text().size(), out) == all.text().size() &&
           fflush(out) == 0;
}
