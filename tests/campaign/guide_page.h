// The repair page as a robot reads it: steps with commands and a table, and recipes. The page's
// form is fixed: a step is a heading "## Step NAME: ...", commands are in ```sh blocks, the table
// has the columns of GUIDE_COLUMNS. Below: nothing. Above: guide_robot.h.
#pragma once

#include <map>
#include <string>
#include <vector>

constexpr const char* GUIDE_COLUMNS = "| you see | it means | do | lost | next |";

struct guide_row {
    std::vector<std::string> patterns;  // all of them must be seen; none: anything else
    std::string commands;               // to be typed, may be empty
    std::string recipe;                 // name of a recipe, may be empty
    std::string lost;
    std::string next;  // "step NAME" or "stop", "mend", "done"
    std::string text;  // the line of the page
};

struct guide_step {
    std::string commands;
    std::vector<guide_row> rows;
};

struct guide {
    std::map<std::string, guide_step> steps;     // by name: "0", "2a"
    std::map<std::string, std::string> recipes;  // commands by name
};

// A page of another form fails the test, as does a row that leads to no step or no recipe.
guide read_guide(const std::string& text);
guide read_guide_page();  // docs/repair.md
