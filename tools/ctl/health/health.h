// `tarnctl health`: cheap facts of now, and the last full check with its age, for a monitoring
// system. Below: check/. Above: main.
#pragma once

#include <string>

#include "ctl/output.h"

enum class health_format { text, prometheus, checkmk, nagios };

constexpr const char* HEALTH_STATE = "/var/lib/tarn/health.json";

struct health_request {
    std::string state = HEALTH_STATE;  // file that a check wrote
    health_format format = health_format::text;
};

int run_health(const health_request& request, const output_style& style);
