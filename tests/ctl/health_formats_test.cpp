// The formats of `tarnctl health`: the words of each, and its grammar whatever a name holds.
#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>

#include "ctl/health/print.h"
#include "ctl/support/check_run.h"
#include "support/scratch_file.h"
#include "system/support/shell.h"

constexpr uint64_t NOW = 1700000000;

// A check 6 days ago that found what the status says; one volume, 2 MiB in use, 1 MiB leaked.
static health_report report_of(int exit, const std::string& root = "/volume1") {
    server_facts facts;
    facts.report.server = "alpha";
    facts.report.journal_path = "/j/EP_JNL";
    facts.report.journal_status = "success";
    facts.volumes = {{root, 1048576, 100, 5242880}};
    state_reading last = {state_kind::known, "", {}};
    last.record.exit = exit;
    last.record.verdict = verdict_word(exit);
    last.record.complete = exit != 6;
    last.record.journal = "success";
    last.record.severities = {
        {"count", 0}, {"damage", 0}, {"note", 2}, {"unreadable", 0}, {"urgent", exit == 5 ? 1 : 0}};
    last.record.codes = {{"S02", 2}};
    last.record.last = {NOW - 6 * 86400, {{root, 1048576, 2, 100, 1, 6291456}}};
    return judge_health(facts, last, "/s", NOW);
}

static health_report unknown_report() {
    server_facts facts;
    facts.report.server = "alpha";
    facts.volumes = {{"/volume1", 0, {}, {}}};
    return judge_health(facts, {state_kind::missing, "there is no such file", {}}, "/s", NOW);
}

static void add_finding_of_now(health_report* report) {
    finding found;
    found.code = finding_code::S01;
    found.level = severity::damage;
    found.volume = report->volumes[0].now.root;
    found.next = "tarnctl check";
    report->facts.report.findings.push_back(found);
    report->status = EXIT_DAMAGE;
}

template <typename Print>
static std::string printed(const Print& print) {
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    EXPECT_TRUE(print(out));
    (void)fclose(out);
    std::string result(text, size);
    free(text);
    return result;
}

static std::string text_of(const health_report& report, const output_style& style = {}) {
    return printed([&](FILE* out) { return print_health_text(out, report, style); });
}

static std::string json_of(const health_report& report, const output_style& style = {}) {
    return printed([&](FILE* out) { return print_health_json(out, report, style); });
}

static std::string nagios_of(const health_report& report) {
    return printed([&](FILE* out) { return print_health_nagios(out, report); });
}

static std::string checkmk_of(const health_report& report) {
    return printed([&](FILE* out) { return print_health_checkmk(out, report); });
}

static std::string prometheus_of(const health_report& report) {
    return printed([&](FILE* out) { return print_health_prometheus(out, report); });
}

// 1 MiB of 5 MiB goes in 6 days: full in 30.
TEST(health_text, of_a_sound_server) {
    EXPECT_EQ(text_of(report_of(0)),
              "alpha: journal success.\n"
              "The last full check, 6 days ago, was clean. Findings: 2 notes.\n"
              "\n"
              "volume     in use   leaked   room left   full in\n"
              "/volume1   2 MiB    1 MiB    5 MiB       about 30 days\n"
              "\n"
              "Healthy: nothing is known to be wrong. Exit status 0.\n");
}

TEST(health_text, of_an_unknown_server) {
    EXPECT_EQ(text_of(unknown_report()),
              "alpha: no journal.\n"
              "The last full check is not known: /s: there is no such file.\n"
              "\n"
              "volume     in use    leaked    room left   full in\n"
              "/volume1   unknown   unknown   unknown     unknown\n"
              "\n"
              "Unknown: nobody can say that all is well. Exit status 6.   Next: tarnctl check "
              "--state /s\n");
}

TEST(health_text, names_what_is_wrong_now) {
    health_report report = report_of(0);
    add_finding_of_now(&report);
    const std::string text = text_of(report);
    EXPECT_NE(text.find("\nDAMAGE S01  /volume1: named in the configuration, but not ready for "
                        "use.\n"),
              std::string::npos)
        << text;
    EXPECT_TRUE(
        text.ends_with("\n\nDamage: something must be repaired. Exit status 4.   Next: "
                       "tarnctl check\n"))
        << text;
}

TEST(health_text, when_quiet_is_one_line) {
    EXPECT_EQ(text_of(report_of(5), {false, true, false, false}),
              "Urgent: the service must not write. Keep it stopped until this is settled. Exit "
              "status 5. Next: tarnctl check\n");
}

TEST(health_text, shows_no_bytes_of_a_name_as_they_are) {
    const std::string text = text_of(report_of(0, "/a\x1b[2J\n\xff"));
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
    EXPECT_NE(text.find("\n/a\\x1b[2J\\n\\xff   2 MiB"), std::string::npos) << text;
}

TEST(health_nagios, has_a_word_a_text_and_performance_data) {
    EXPECT_EQ(nagios_of(report_of(0)),
              "TARN OK - The last full check, 6 days ago, was clean. | "
              "'check_age'=518400s;864000;864000;0 'findings_count'=0;;;0 'findings_damage'=0;;;0 "
              "'findings_note'=2;;;0 'findings_unreadable'=0;;;0 'findings_urgent'=0;;;0 "
              "'/volume1 used'=2097152B;;;0 '/volume1 leaked'=1048576B;;;0 "
              "'/volume1 room'=5242880B;;;0 '/volume1 full_in'=2592000s;;;0\n");
    EXPECT_EQ(nagios_of(unknown_report()),
              "TARN UNKNOWN - The last full check is not known: /s: there is no such file.\n");
    EXPECT_TRUE(nagios_of(report_of(3)).starts_with("TARN WARNING - "));
    EXPECT_TRUE(nagios_of(report_of(4)).starts_with("TARN CRITICAL - "));
    EXPECT_TRUE(nagios_of(report_of(5)).starts_with("TARN CRITICAL - "));
    EXPECT_TRUE(nagios_of(report_of(6)).starts_with("TARN UNKNOWN - "));
}

TEST(health_checkmk, has_a_state_a_service_metrics_and_a_text) {
    EXPECT_EQ(checkmk_of(report_of(5)),
              "2 \"Tarn metadata\" check_age=518400;864000;864000;0|findings_count=0;;;0|"
              "findings_damage=0;;;0|findings_note=2;;;0|findings_unreadable=0;;;0|"
              "findings_urgent=1;;;0|used_volume1=2097152;;;0|leaked_volume1=1048576;;;0|"
              "room_volume1=5242880;;;0|full_in_volume1=2592000;;;0 The last full check, 6 days "
              "ago, found something urgent.\n");
    EXPECT_EQ(checkmk_of(unknown_report()),
              "3 \"Tarn metadata\" - The last full check is not known: /s: there is no such "
              "file.\n");
}

TEST(health_checkmk, has_no_metric_twice) {
    health_report report = report_of(0, "/a-b");
    report.volumes.push_back(report.volumes[0]);
    report.volumes.back().now.root = "/a_b";
    const std::string line = checkmk_of(report);
    EXPECT_NE(line.find("|used_a_b=2097152;"), std::string::npos) << line;
    EXPECT_NE(line.find("|used_a_b_2=2097152;"), std::string::npos) << line;
}

// Names with every character that means something in one of the formats.
static const char* const ODD_NAMES[] = {"/v",           "/a b",      "/a'b''", "/a|b",  "/a=b",
                                        "/a\"b",        "/a\\nb",    "/a\nb",  "/a;b,", "/\xff\xfe",
                                        "/{x=\"1\"} 5", "/\xc3\xa4", "/a\\",   "/'"};

static std::vector<health_report> odd_reports() {
    std::vector<health_report> reports = {unknown_report()};
    for (const int exit : {0, 3, 4, 5, 6}) {
        reports.push_back(report_of(exit));
    }
    for (const char* name : ODD_NAMES) {
        reports.push_back(report_of(0, name));
        add_finding_of_now(&reports.back());
    }
    return reports;
}

// The plug-in guidelines: text, a bar, then 'label'=value[unit];[warn];[crit];[min];[max] between
// blanks; a label holds no equals sign, and a quote only doubled.
TEST(health_nagios, keeps_its_grammar) {
    const std::regex line(
        "TARN (OK|WARNING|CRITICAL|UNKNOWN) - [^|\n]+"
        "( \\|( '([^'=|\n]|'')+'=[0-9]+(s|B)?;[0-9]*;[0-9]*;0)+)?\n");
    for (const health_report& report : odd_reports()) {
        const std::string text = nagios_of(report);
        EXPECT_TRUE(std::regex_match(text, line)) << text;
    }
}

// A local check: state, quoted service, metrics or a dash, text; one line, no backslash.
TEST(health_checkmk, keeps_its_grammar) {
    const std::string metric = "[a-z][A-Za-z0-9_]*=[0-9]+;[0-9]*;[0-9]*;0";
    const std::regex line("[0-3] \"Tarn metadata\" (-|" + metric + "(\\|" + metric +
                          ")*) [^\n\\\\]+\n");
    for (const health_report& report : odd_reports()) {
        const std::string text = checkmk_of(report);
        EXPECT_TRUE(std::regex_match(text, line)) << text;
    }
}

// HELP, TYPE and at least one sample of each metric, each series once, the metrics one after
// another.
static void expect_exposition(const std::string& text) {
    const std::regex head("# HELP ([a-z_]+) [^\\\\\n]+");
    const std::string label = "[a-z]+=\"([^\"\\\\\n]|\\\\[\\\\\"n])*\"";
    const std::regex sample("([a-z_]+)(\\{" + label + "(," + label +
                            ")*\\})? ([0-9]+(\\.[0-9]+)?|\\+Inf)");
    ASSERT_TRUE(text.ends_with("\n"));
    std::istringstream lines(text);
    std::set<std::string> names;
    std::set<std::string> series;
    std::string name;
    bool has_sample = true;
    for (std::string line; std::getline(lines, line);) {
        std::smatch parts;
        if (std::regex_match(line, parts, head)) {
            EXPECT_TRUE(has_sample) << name;
            name = parts[1];
            EXPECT_TRUE(names.insert(name).second) << name;
            std::getline(lines, line);
            EXPECT_EQ(line, "# TYPE " + name + " gauge");
            has_sample = false;
        } else {
            ASSERT_TRUE(std::regex_match(line, parts, sample)) << line;
            EXPECT_EQ(parts[1], name);
            EXPECT_TRUE(series.insert(line.substr(0, line.rfind(' '))).second) << line;
            has_sample = true;
        }
    }
    EXPECT_TRUE(has_sample) << name;
}

TEST(health_prometheus, keeps_its_grammar) {
    for (const health_report& report : odd_reports()) {
        expect_exposition(prometheus_of(report));
    }
}

TEST(health_prometheus, has_these_samples) {
    const std::string text = prometheus_of(report_of(5));
    for (const char* line :
         {"tarn_configuration_readable 1", "tarn_health_status 5",
          "tarn_journal_status{status=\"success\"} 1", "tarn_journal_status{status=\"abnormal\"} 0",
          "tarn_check_known 1", "tarn_check_completed_timestamp_seconds 1699481600",
          "tarn_check_exit_status 5", "tarn_check_complete 1",
          "tarn_check_findings{code=\"S02\"} 2",
          "tarn_findings{source=\"check\",severity=\"urgent\"} 1",
          "tarn_findings{source=\"check\",severity=\"unreadable\"} 0",
          "tarn_findings{source=\"now\",severity=\"urgent\"} 0",
          "tarn_extents{volume=\"/volume1\",state=\"free\"} 100",
          "tarn_extents{volume=\"/volume1\",state=\"used\"} 2",
          "tarn_extents{volume=\"/volume1\",state=\"leaked\"} 1",
          "tarn_extent_size_bytes{volume=\"/volume1\"} 1048576",
          "tarn_volume_room_bytes{volume=\"/volume1\"} 5242880",
          "tarn_volume_full_seconds{volume=\"/volume1\"} 2592000"}) {
        EXPECT_NE(text.find("\n" + std::string(line) + "\n"), std::string::npos) << line << text;
    }
}

TEST(health_prometheus, leaves_out_what_is_not_known) {
    const std::string text = prometheus_of(unknown_report());
    EXPECT_NE(text.find("\ntarn_check_known 0\n"), std::string::npos);
    EXPECT_NE(text.find("\ntarn_health_status 6\n"), std::string::npos);
    for (const char* name : {"tarn_check_completed", "tarn_check_exit", "source=\"check\"",
                             "tarn_extents", "tarn_volume"}) {
        EXPECT_EQ(text.find(name), std::string::npos) << name;
    }
}

TEST(health_prometheus, says_that_a_volume_does_not_fill_up) {
    health_report report = report_of(0);
    report.volumes[0].full.kind = forecast_kind::not_filling;
    EXPECT_NE(prometheus_of(report).find("\ntarn_volume_full_seconds{volume=\"/volume1\"} +Inf\n"),
              std::string::npos);
}

TEST(health_prometheus, passes_its_own_tool) {
    if (shell("command -v promtool").status != 0) {
        GTEST_SKIP() << "promtool is not installed (package prometheus)";
    }
    const scratch_dir place;
    for (const health_report& report : odd_reports()) {
        std::ofstream(place.file("m"), std::ios::binary | std::ios::trunc) << prometheus_of(report);
        const ran checked = shell("promtool check metrics <" + place.file("m"));
        EXPECT_EQ(checked.status, 0) << checked.text << prometheus_of(report);
    }
}

TEST(health_json, is_valid) {
    std::string lines;
    for (const health_report& report : odd_reports()) {
        lines += json_of(report) + json_of(report, {true, true, false, false});
    }
    EXPECT_EQ(schema_problem(lines), "");
}

TEST(health_json, has_these_records) {
    const std::string lines = json_of(report_of(3));
    EXPECT_NE(lines.find("\"command\":\"health\",\"server\":"), std::string::npos);
    EXPECT_NE(lines.find("\"state_file\":\"/s\",\"journal\":{\"path\":\"/j/EP_JNL\",\"status\":"
                         "\"success\"}}\n"),
              std::string::npos)
        << lines;
    EXPECT_NE(lines.find("{\"record\":\"volume\",\"volume\":\"/volume1\",\"extent_size\":1048576,"
                         "\"used\":2,\"leaked\":1,\"free\":100,\"room\":5242880,"
                         "\"forecast\":\"filling\",\"full_in_seconds\":2592000}\n"),
              std::string::npos)
        << lines;
    EXPECT_NE(lines.find("{\"record\":\"last_check\",\"counts\":true,\"completed\":1699481600,"
                         "\"age_seconds\":518400,\"verdict\":\"counts\",\"exit\":3,"
                         "\"complete\":true,\"severities\":{\"count\":0,\"damage\":0,\"note\":2,"
                         "\"unreadable\":0,\"urgent\":0},\"codes\":{\"S02\":2}}\n"),
              std::string::npos)
        << lines;
    EXPECT_TRUE(
        lines.ends_with("{\"record\":\"summary\",\"verdict\":\"counts\",\"exit\":3,"
                        "\"findings\":0,\"unknown\":[]}\n"))
        << lines;
    EXPECT_TRUE(json_of(unknown_report())
                    .ends_with("{\"record\":\"last_check\",\"counts\":false,\"reason\":\"there is "
                               "no such file\"}\n{\"record\":\"summary\",\"verdict\":\"unknown\","
                               "\"exit\":6,\"findings\":0,\"unknown\":[\"The last full check is "
                               "not known: /s: there is no such file.\"]}\n"));
}

TEST(health_formats, that_cannot_be_written_are_failures) {
    const health_report report = report_of(0);
    FILE* full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    EXPECT_FALSE(print_health_text(full, report, {}));
    EXPECT_FALSE(print_health_json(full, report, {}));
    EXPECT_FALSE(print_health_nagios(full, report));
    EXPECT_FALSE(print_health_checkmk(full, report));
    EXPECT_FALSE(print_health_prometheus(full, report));
    (void)fclose(full);
}
