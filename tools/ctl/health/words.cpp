// What several formats say of a server's health.
#include "ctl/check/listing.h"
#include "ctl/check/place_words.h"
#include "ctl/health/print.h"

constexpr size_t FINDINGS_NAMED = 3;

int plugin_status(const health_report& report) {
    switch (report.status) {
        case EXIT_CLEAN:
            return 0;
        case EXIT_COUNTS:
            return 1;
        case EXIT_DAMAGE:
        case EXIT_URGENT:
            return 2;
        default:
            return 3;
    }
}

const char* health_advice(const health_report& report) {
    switch (report.status) {
        case EXIT_URGENT:
            return "Urgent: the service must not write. Keep it stopped until this is settled.";
        case EXIT_DAMAGE:
            return "Damage: something must be repaired.";
        case EXIT_COUNTS:
            return "Only lost space or wrong counts: no data are at risk.";
        case EXIT_CLEAN:
            return "Healthy: nothing is known to be wrong.";
        default:
            return "Unknown: nobody can say that all is well.";
    }
}

std::string health_verdict(const health_report& report) {
    return report.status == EXIT_INCOMPLETE ? "unknown" : verdict_word(report.status);
}

static std::string sentence_of(const finding& of) {
    const finding_row* row = finding_row_of(of.code);
    return std::string(row->name) + ", " + subject_words(of) + ": " + row->sentence;
}

static void add_findings(const check_report& report, std::vector<std::string>* sentences) {
    size_t more = 0;
    for (const finding& one : report.findings) {
        if (one.level == severity::note && one.code != finding_code::X01) {
            continue;
        }
        if (sentences->size() < FINDINGS_NAMED) {
            sentences->push_back(sentence_of(one));
        } else {
            more++;
        }
    }
    if (more > 0) {
        sentences->push_back(count_words(more, "more finding") + ".");
    }
}

std::vector<std::string> health_sentences(const health_report& report) {
    std::vector<std::string> sentences;
    add_findings(report.facts.report, &sentences);
    const std::string last = last_check_words(report);
    sentences.push_back(last);
    for (const std::string& reason : report.unknown) {
        if (reason != last) {
            sentences.push_back(reason);
        }
    }
    return sentences;
}

std::optional<uint64_t> bytes_of_extents(const std::optional<uint64_t>& extents,
                                         uint64_t extent_size) {
    return extents && extent_size != 0 ? std::optional(bytes_of(*extents, extent_size))
                                       : std::nullopt;
}
