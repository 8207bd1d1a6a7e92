// Findings and reports made by hand, and what is printed of them.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "ctl/check/print.h"

inline finding found(finding_code code, const std::string& volume = "/volume1",
                     const std::string& file = "") {
    finding made;
    made.code = code;
    made.level = finding_row_of(code)->level;
    made.volume = volume;
    made.file = file;
    return made;
}

inline finding run_of(finding_code code, uint64_t first, uint64_t count,
                      const std::string& volume = "/volume1") {
    finding made = found(code, volume);
    made.place = place_kind::lpa;
    made.first = first;
    made.count = count;
    made.extent_size = 1048576;
    return made;
}

inline finding_owner lun_7(uint64_t lea, uint64_t count) {
    return {"LUN_7", "lun", "@iSCSITrg/LUN_7/LUN_7_Extent_0", {{lea, count}}, 0};
}

inline check_report report_of(std::vector<finding> findings) {
    check_report report;
    report.server = "box";
    report.journal_path = "/journal/EP_JNL";
    report.journal_status = "success";
    report.journal_last_id = 2000;
    report.volumes = {"/volume1"};
    report.findings = std::move(findings);
    report.seconds = 0.5;
    return report;
}

using printer = bool (*)(FILE*, const check_report&, const print_style&);

inline std::string printed(printer print, const check_report& report, const print_style& style) {
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    const bool done = print(out, report, style);
    (void)fclose(out);
    std::string result = done ? std::string(text, size) : "not printed";
    free(text);
    return result;
}

inline std::string text_of(const check_report& report, const print_style& style = {}) {
    return printed(print_check_text, report, style);
}

inline std::string json_of(const check_report& report, const print_style& style = {}) {
    return printed(print_check_json, report, style);
}
