#include "ctl/support/check_run.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/scratch_file.h"
#include "system/support/shell.h"

using nlohmann::json;

bool seen_finding::names(const std::string& map) const {
    return std::any_of(owners.begin(), owners.end(),
                       [&](const seen_owner& owner) { return owner.file == map; });
}

bool seen_finding::names(const std::string& map, uint64_t lea) const {
    return std::any_of(owners.begin(), owners.end(), [&](const seen_owner& owner) {
        return owner.file == map &&
               std::any_of(owner.ranges.begin(), owner.ranges.end(), [&](const auto& range) {
                   return lea >= range.first && lea - range.first < range.second;
               });
    });
}

std::string check_run::codes() const {
    std::string words;
    for (const seen_finding& at : findings) {
        words += (words.empty() ? "" : " ") + at.code;
        if (at.because != 0) {
            words += "<" + findings[static_cast<size_t>(at.because) - 1].code;
        }
    }
    return words;
}

bool check_run::has(const std::string& code) const {
    return std::any_of(findings.begin(), findings.end(),
                       [&](const seen_finding& at) { return at.code == code; });
}

bool check_run::has_only_notes() const {
    return std::all_of(findings.begin(), findings.end(),
                       [](const seen_finding& at) { return at.severity == "note"; });
}

static std::string text_of(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

check_run run_limited(const std::string& command) {
    const scratch_dir place;
    const std::string err = place.file("err");
    const ran done = shell("( timeout -s KILL 20 " + command + " 2>" + err + " )");
    check_run result;
    result.status = done.status;
    result.out = done.text;
    result.err = text_of(err);
    return result;
}

// Byte positions, and numbers past 2^53, are strings.
static uint64_t number_of(const json& value) {
    return value.is_string() ? std::stoull(value.get<std::string>()) : value.get<uint64_t>();
}

static seen_owner owner_of(const json& record) {
    seen_owner owner = {record.at("file"), {}};
    for (const json& range : record.at("ranges")) {
        owner.ranges.emplace_back(number_of(range.at("lea")), number_of(range.at("count")));
    }
    return owner;
}

static seen_finding finding_of(const json& record) {
    static constexpr const char* PLACES[] = {"lpa", "group",         "block", "node",
                                             "lea", "journal_block", "byte"};
    seen_finding seen;
    seen.number = record.at("number");
    seen.code = record.at("code");
    seen.severity = record.at("severity");
    seen.volume = record.value("volume", "");
    seen.file = record.value("file", "");
    seen.was = record.value("was", "");
    seen.ought = record.value("ought", "");
    seen.because = record.at("because").is_null() ? 0 : record.at("because").get<int>();
    for (const char* place : PLACES) {
        if (record.contains(place)) {
            seen.place = place;
            seen.first = number_of(record.at(place).at("first"));
            seen.count = number_of(record.at(place).at("count"));
        }
    }
    for (const json& owner : record.at("owners")) {
        seen.owners.push_back(owner_of(owner));
    }
    return seen;
}

static void take(check_run* run, const json& record) {
    const std::string kind = record.at("record");
    if (kind == "start") {
        run->mode = record.at("mode");
    } else if (kind == "finding") {
        run->findings.push_back(finding_of(record));
    } else {
        run->verdict = record.at("verdict");
        run->complete = record.at("complete");
        run->left_out = record.at("left_out");
        EXPECT_EQ(record.at("exit"), run->status);
    }
}

// Names that are no UTF-8 appear as lone halves of surrogate pairs, which this parser refuses:
// here a name's bytes do not matter.
static std::string without_lone_halves(std::string line) {
    for (size_t at = line.find("\\udc"); at != std::string::npos; at = line.find("\\udc", at)) {
        line.replace(at, strlen("\\udcXX"), "?");
    }
    return line;
}

std::string check_command(const std::string& sample, const std::string& more) {
    return std::string("env TARN_PLATFORM_CONF=") + sample + "/platform.conf " + TARN_CTL_PROGRAM +
           " check --json --all " + more;
}

check_run check_sample(const std::string& sample, const std::string& more) {
    check_run run = run_limited(check_command(sample, more));
    EXPECT_EQ(run.err, "");
    std::istringstream lines(run.out);
    for (std::string line; std::getline(lines, line);) {
        const json record = json::parse(without_lone_halves(line), nullptr, false);
        if (record.is_discarded()) {
            ADD_FAILURE() << "exit " << run.status << ", no JSON: " << line.substr(0, 300);
            return run;
        }
        take(&run, record);
    }
    EXPECT_NE(run.verdict, "") << "exit " << run.status << ", no summary: " << run.out;
    return run;
}

bool is_verdict(int status) {
    return status == 0 || (status >= 3 && status <= 6);
}

std::string schema_problem(const std::string& lines) {
    const scratch_dir place;
    std::ofstream(place.file("lines"), std::ios::binary) << lines;
    const ran done = shell("python3 " TARN_VALIDATE " " TARN_DOCS "/schema/tarnctl-1.json <" +
                           place.file("lines"));
    return done.status == 0 ? "" : done.text + " exit " + std::to_string(done.status);
}
