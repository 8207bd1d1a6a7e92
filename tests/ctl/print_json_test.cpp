// What a program reads. Every line of every test is validated against the published schema.
#include <gtest/gtest.h>

#include "ctl/json_line.h"
#include "ctl/reports.h"
#include "support/scratch_file.h"
#include "system/support/shell.h"

using enum finding_code;

constexpr const char* START =
    "{\"record\":\"start\",\"schema\":1,\"tool\":\"tarnctl " TARN_VERSION
    "\",\"command\":\"check\",\"server\":\"box\",\"volumes\":[\"/volume1\"],\"journal\":{\"path\":"
    "\"/journal/EP_JNL\",\"status\":\"success\",\"last_id\":2000},\"mode\":\"as-found\"}\n";

// The lines, if the schema allows them.
static std::string valid(const std::string& lines) {
    char path[] = "/tmp/tarnctl-json-XXXXXX";
    const int file = mkstemp(path);
    const bool written =
        write(file, lines.data(), lines.size()) == static_cast<ssize_t>(lines.size());
    (void)close(file);
    const ran judged = shell(std::string("python3 " TARN_VALIDATE " " TARN_SCHEMA " <") + path);
    (void)unlink(path);
    return written && judged.status == 0 ? lines : "not valid: " + judged.text;
}

// Between the first record and the last.
static std::string findings_of(const std::string& lines) {
    const size_t begin = lines.find('\n') + 1;
    return lines.substr(begin, lines.rfind('\n', lines.size() - 2) + 1 - begin);
}

TEST(check_json, of_a_sound_server_is_two_records) {
    EXPECT_EQ(
        valid(json_of(report_of({}))),
        std::string(START) +
            "{\"record\":\"summary\",\"verdict\":\"clean\",\"exit\":0,\"complete\":true,"
            "\"codes\":{},\"consequences\":0,\"listed\":0,\"left_out\":[],\"seconds\":0.5}\n");
}

TEST(check_json, has_every_field_of_a_finding) {
    finding urgent = run_of(R01, 1688012, 3);
    urgent.number = 3;
    urgent.owners = {lun_7(8123, 3)};
    urgent.next = "tarn --onekeyrepair --volpath /volume1";
    EXPECT_EQ(
        findings_of(valid(json_of(report_of({urgent})))),
        "{\"record\":\"finding\",\"number\":1,\"code\":\"R01\",\"slug\":\"mapped-free\","
        "\"severity\":\"urgent\",\"volume\":\"/volume1\",\"lpa\":{\"first\":1688012,\"count\":"
        "3},\"owners\":[{\"lun\":\"LUN_7\",\"kind\":\"lun\",\"file\":\"@iSCSITrg/LUN_7/"
        "LUN_7_Extent_0\",\"ranges\":[{\"lea\":8123,\"count\":3,\"byte\":\"8517582848\","
        "\"bytes\":\"3145728\"}]}],\"because\":null,\"sentence\":\"mapped to extents that the "
        "table calls free.\",\"risk\":\"The next allocation may overwrite them. Do not start "
        "the service.\",\"next\":\"tarn --onekeyrepair --volpath /volume1\"}\n");
}

TEST(check_json, has_the_particulars_of_a_finding) {
    finding odd = found(T01, "/volume1", "@EP/EP_TBL");
    odd.was = "d815f320";
    odd.ought = "00000001";
    odd.detail = "Odd.";
    odd.number = 7;
    odd.log = {"ERR: \"x\"\t\\"};
    odd.next = "tarnctl check";
    const std::string line = findings_of(valid(json_of(report_of({odd}))));
    EXPECT_NE(line.find("\"file\":\"@EP/EP_TBL\",\"owners\":[],\"was\":\"d815f320\",\"ought\":"
                        "\"00000001\",\"detail\":\"Odd.\",\"places\":7,\"log\":[\"ERR: \\\"x\\\""
                        "\\u0009\\\\\"],\"because\":null,"),
              std::string::npos)
        << line;
}

TEST(check_json, names_every_kind_of_place) {
    const struct {
        place_kind kind;
        const char* field;
    } places[] = {{place_kind::lpa, "\"lpa\":{\"first\":5,\"count\":2}"},
                  {place_kind::group, "\"group\":{\"first\":5,\"count\":2}"},
                  {place_kind::block, "\"block\":{\"first\":5,\"count\":2}"},
                  {place_kind::node, "\"node\":{\"first\":5,\"count\":2}"},
                  {place_kind::lea, "\"lea\":{\"first\":5,\"count\":2}"},
                  {place_kind::journal_block, "\"journal_block\":{\"first\":5,\"count\":2}"},
                  {place_kind::byte, "\"byte\":{\"first\":\"5\",\"count\":\"2\"}"}};
    check_report report = report_of({});
    for (const auto& place : places) {
        report.findings.push_back(run_of(M01, 5, 2));
        report.findings.back().place = place.kind;
        report.findings.back().next = "tarnctl check";
    }
    const std::string lines = valid(json_of(report));
    for (const auto& place : places) {
        EXPECT_NE(lines.find(place.field), std::string::npos) << place.field;
    }
}

TEST(check_json, gives_numbers_above_2_to_the_53_as_strings) {
    finding at = run_of(R06, (uint64_t{1} << 53) + 1, uint64_t{1} << 53);
    at.next = "tarnctl check";
    EXPECT_NE(valid(json_of(report_of({at})))
                  .find("\"lpa\":{\"first\":\"9007199254740993\",\"count\":9007199254740992}"),
              std::string::npos);
}

TEST(check_json, gives_names_that_are_no_utf_8_as_half_pairs_and_in_hexadecimal) {
    finding odd = found(M11, "/volume1", "a\xff\xc3\xa4\n\xed\xa0\x80");
    odd.owners = {{"\x80", "lun", "\x80", {}, 0}};
    odd.next = "tarnctl check";
    const std::string line = findings_of(valid(json_of(report_of({odd}))));
    EXPECT_NE(line.find("\"file\":\"a\\udcff\xc3\xa4\\u000a\\udced\\udca0\\udc80\",\"file_hex\":"
                        "\"61ffc3a40aeda080\""),
              std::string::npos)
        << line;
    EXPECT_NE(line.find("\"lun\":\"\\udc80\",\"kind\":\"lun\",\"file\":\"\\udc80\",\"file_hex\":"
                        "\"80\",\"ranges\":[]"),
              std::string::npos)
        << line;
}

TEST(check_json, counts_consequences_under_their_cause_and_lists_them_with_all) {
    finding consequence = run_of(R01, 7, 10);
    consequence.number = 10;
    consequence.because = 0;
    consequence.next = "tarnctl check";
    finding cause = found(T01);
    cause.next = "tarnctl check";
    const check_report report = report_of({cause, consequence});
    const std::string lines = valid(json_of(report));
    EXPECT_NE(lines.find("\"explains\":{\"R01\":10}"), std::string::npos);
    EXPECT_EQ(lines.find("\"number\":2"), std::string::npos);
    EXPECT_NE(
        lines.find("\"verdict\":\"urgent\",\"exit\":5,\"complete\":true,\"codes\":{\"T01\":1},"
                   "\"consequences\":10,\"listed\":1,"),
        std::string::npos)
        << lines;
    const std::string all = valid(json_of(report, {false, true, false}));
    EXPECT_NE(all.find("\"number\":2,\"code\":\"R01\""), std::string::npos);
    EXPECT_NE(all.find("\"because\":1,"), std::string::npos);
}

TEST(check_json, lists_at_most_100_of_a_code_and_100_ranges_of_an_owner) {
    check_report report = report_of({});
    for (uint64_t i = 0; i < 101; i++) {
        report.findings.push_back(run_of(R01, 10 * i, 1));
        report.findings.back().next = "tarnctl check";
    }
    finding_owner scattered = lun_7(0, 1);
    for (uint64_t i = 1; i < 103; i++) {
        scattered.ranges.push_back({2 * i, 1});
    }
    report.findings[0].owners = {scattered};
    const std::string lines = valid(json_of(report));
    EXPECT_NE(lines.find("\"number\":100,\"code\":\"R01\""), std::string::npos);
    EXPECT_EQ(lines.find("\"number\":101"), std::string::npos);
    EXPECT_NE(lines.find("\"left_out\":1,"), std::string::npos);
    EXPECT_NE(lines.find("\"codes\":{\"R01\":101}"), std::string::npos);
    EXPECT_NE(lines.find("{\"lea\":198,\"count\":1,\"byte\":\"207618048\",\"bytes\":\"1048576\"}],"
                         "\"ranges_left_out\":3}"),
              std::string::npos)
        << lines.substr(0, 9000);
    const std::string all = valid(json_of(report, {false, true, false}));
    EXPECT_NE(all.find("\"number\":101"), std::string::npos);
    EXPECT_EQ(all.find("left_out\":3"), std::string::npos);
}

TEST(check_json, says_what_was_not_looked_at) {
    check_report report = report_of({found(X01, "", "/j")});
    report.findings[0].next = "tarnctl check";
    report.left_out = {"The maps."};
    report.journal_status = "";
    report.mode = check_mode::raw;
    const std::string lines = valid(json_of(report));
    EXPECT_NE(lines.find("\"status\":null,\"last_id\":2000},\"mode\":\"raw\"}"), std::string::npos);
    EXPECT_NE(
        lines.find("\"verdict\":\"incomplete\",\"exit\":6,\"complete\":false,\"codes\":{"
                   "\"X01\":1},\"consequences\":0,\"listed\":1,\"left_out\":[\"The maps.\"],"),
        std::string::npos);
    report.journal_path = "";
    report.mode = check_mode::as_if_replayed;
    EXPECT_NE(valid(json_of(report)).find("\"journal\":null,\"mode\":\"as-if-replayed\"}"),
              std::string::npos);
}

TEST(check_json, of_every_code_is_valid) {
    check_report report = report_of({});
    for (size_t i = 0; i < FINDING_ROW_COUNT; i++) {
        report.findings.push_back(found(FINDING_ROWS[i].code));
        report.findings.back().next = FINDING_ROWS[i].next;
    }
    EXPECT_NE(valid(json_of(report)).find("\"listed\":62,"), std::string::npos);
}

TEST(check_json, when_quiet_has_no_findings) {
    const std::string lines = valid(json_of(report_of({found(R01)}), {false, false, true}));
    EXPECT_EQ(findings_of(lines), "");
    EXPECT_NE(lines.find("\"codes\":{\"R01\":1}"), std::string::npos);
}

TEST(check_json, that_cannot_be_written_is_a_failure) {
    FILE* full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    EXPECT_FALSE(print_check_json(full, report_of({found(R01)}), {}));
    (void)fclose(full);
}

// The judge of the other tests: it refuses what the schema does not allow.
TEST(check_json, is_refused_by_the_schema_if_a_field_is_wrong) {
    const std::string lines = json_of(report_of({}));
    const auto changed = [&](const std::string& what, const std::string& by) {
        std::string text = lines;
        return text.replace(text.find(what), what.size(), by);
    };
    EXPECT_EQ(valid(lines), lines);
    EXPECT_NE(valid(changed("\"schema\":1", "\"schema\":2")).find("not valid"), std::string::npos);
    EXPECT_NE(valid(changed("\"exit\":0", "\"exit\":7")).find("not valid"), std::string::npos);
    EXPECT_NE(valid(changed("\"exit\":0", "\"exito\":0")).find("not valid"), std::string::npos);
    EXPECT_NE(valid("{\n").find("not valid"), std::string::npos);
}
