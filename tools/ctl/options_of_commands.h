// What each command adds to the command line. Below: CLI11, options.h. Above: options.cpp.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "ctl/options.h"

// What the parser fills in before it is put into the options.
struct raw_options {
    ctl_options options;
    std::string color = "auto";
    std::string progress = "auto";
    std::string memory = "64M";
    std::string order = "exclusive";
    std::string format = "text";
    std::string offset = "0";
    std::string length = "0";
    std::string missing = "fail";
    std::vector<std::string> accepts;
};

struct command_app {
    ctl_command command;
    CLI::App* app;
};
std::vector<command_app> add_commands(CLI::App* app, raw_options* raw);
// After the parser is done: its words become values.
void take_raw(raw_options* raw);
