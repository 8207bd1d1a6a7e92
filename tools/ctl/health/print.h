// A health report on standard output. Below: judge.h. Above: health.cpp.
#pragma once

#include <cstdio>

#include "ctl/health/judge.h"
#include "ctl/output.h"

// Each returns false if not everything could be written, errno says why.
bool print_health_text(FILE* out, const health_report& report, const output_style& style);
bool print_health_json(FILE* out, const health_report& report, const output_style& style);
bool print_health_prometheus(FILE* out, const health_report& report);
bool print_health_checkmk(FILE* out, const health_report& report);
bool print_health_nagios(FILE* out, const health_report& report);

// 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN: what monitoring plug-ins answer.
int plugin_status(const health_report& report);

// "Damage: something must be repaired."
const char* health_advice(const health_report& report);
// Sentences: the findings of now that are no notes, what is known of the last full check, and why
// more is not known. They may hold any character.
std::vector<std::string> health_sentences(const health_report& report);
// "unknown", or the word of a check's verdict.
std::string health_verdict(const health_report& report);
// "/volume1" as bytes of a kind that may be unknown: extents times their size.
std::optional<uint64_t> bytes_of_extents(const std::optional<uint64_t>& extents,
                                         uint64_t extent_size);
