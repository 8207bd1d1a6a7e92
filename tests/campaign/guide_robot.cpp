#include "campaign/guide_robot.h"

#include <regex>

static constexpr size_t MOVES_MAX = 60;

// "..." is any text within a line, "$MAP" a path in it.
static std::regex expression_of(const std::string& pattern) {
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    std::string text = std::regex_replace(pattern, special, R"(\$&)");
    text = std::regex_replace(text, std::regex(R"((\\\.){3})"), ".*");
    text = std::regex_replace(text, std::regex(R"(\\\$MAP)"), "(/[^\n]*)");
    return std::regex(text);
}

// The path after the last "== " before `position`.
static std::string header_above(const std::string& seen, size_t position) {
    const size_t header = seen.rfind("== /", position);
    return header == std::string::npos
               ? ""
               : seen.substr(header + 3, seen.find('\n', header) - header - 3);
}

static bool fits(const guide_row& row, const std::string& seen, std::string* about) {
    for (size_t i = 0; i < row.patterns.size(); i++) {
        std::smatch match;
        if (!std::regex_search(seen, match, expression_of(row.patterns[i]))) {
            return false;
        }
        if (i == 0) {
            *about = match.size() > 1 ? match[1].str()
                                      : header_above(seen, static_cast<size_t>(match.position()));
        }
    }
    return true;
}

size_t find_row(const guide_step& step, const std::string& seen, std::string* about) {
    size_t row = 0;
    while (row < step.rows.size() && !fits(step.rows[row], seen, about)) {
        row++;
    }
    return row;
}

// "/volume1", or a path on it.
static void name_it(guide_server* server, const std::string& about) {
    if (about.empty()) {
        return;
    }
    const size_t end = about.find('/', 1);
    server->set("V", about.substr(0, end));
    if (end != std::string::npos) {
        server->set("MAP", about);
    }
}

static void do_row(const guide& page, const guide_move& move, guide_server* server) {
    name_it(server, move.about);
    if (!move.row->commands.empty()) {
        (void)server->type(move.row->commands);
    }
    if (!move.row->recipe.empty()) {
        (void)server->type(page.recipes.at(move.row->recipe));
    }
}

guide_walk follow(const guide& page, guide_server* server) {
    guide_walk walk;
    std::string name = "0";
    while (walk.moves.size() < MOVES_MAX) {
        const guide_step& step = page.steps.at(name);
        guide_move move = {name, nullptr, server->type(step.commands), ""};
        const size_t row = find_row(step, move.seen, &move.about);
        if (row == step.rows.size()) {
            walk.end = "no row of step " + name + " fits";
            walk.moves.push_back(move);
            return walk;
        }
        move.row = &step.rows[row];
        do_row(page, move, server);
        walk.moves.push_back(move);
        const std::string& next = move.row->next;
        if (next == "mend") {
            server->mend();
        } else if (!next.starts_with("step ")) {
            walk.end = next;
            return walk;
        }
        name = next == "mend" ? "0" : next.substr(5);
    }
    walk.end = "no end";
    return walk;
}
