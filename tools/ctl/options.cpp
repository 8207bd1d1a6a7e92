#include "ctl/options.h"

#include <CLI/CLI.hpp>
#include <charconv>

#include "ctl/options_of_commands.h"
#include "ctl/text/escape.h"

constexpr uint64_t MEMORY_MIN = uint64_t{1} << 20;
constexpr uint64_t MEMORY_MAX = uint64_t{64} << 30;

static unsigned shift_of(const std::string& unit) {
    return unit == "K" ? 10 : unit == "M" ? 20 : unit == "G" ? 30 : 0;
}

uint64_t parse_size(const std::string& text) {
    uint64_t size = 0;
    const char* end = text.data() + text.size();
    const auto number = std::from_chars(text.data(), end, size);
    const std::string unit(number.ptr, end);
    if (number.ec != std::errc() || (!unit.empty() && shift_of(unit) == 0) || size > MEMORY_MAX) {
        return 0;
    }
    if (size > MEMORY_MAX >> shift_of(unit)) {
        return 0;
    }
    size <<= shift_of(unit);
    return size >= MEMORY_MIN ? size : 0;
}

bool parse_number(const std::string& text, uint64_t* number) {
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, *number);
    return parsed.ec == std::errc() && parsed.ptr == end;
}

static void add_common(CLI::App* app, raw_options* raw) {
    const std::string group = "Common options";
    app->set_help_flag("--help", "Print this help")->group(group);
    app->set_version_flag("--version", "tarnctl " TARN_VERSION, "Print the version")->group(group);
    app->add_option("--conf", raw->options.conf, "Use this configuration for the run")
        ->type_name("FILE")
        ->group(group);
    app->add_flag("--json", raw->options.json, "Print JSON Lines")->group(group);
    app->add_option("--color", raw->color, "Color the text: auto, always, never")
        ->type_name("WHEN")
        ->check(CLI::IsMember({"auto", "always", "never"}).description(""))
        ->group(group);
    app->add_flag("--quiet", raw->options.quiet, "Print the verdict only")->group(group);
    app->add_option("--progress", raw->progress, "Show progress on a terminal: auto, never")
        ->type_name("WHEN")
        ->check(CLI::IsMember({"auto", "never"}).description(""))
        ->group(group);
}

static when when_of(const std::string& word) {
    return word == "always" ? when::always : word == "never" ? when::never : when::automatic;
}

static parsed_options ended(const CLI::App& app, const CLI::ParseError& end) {
    std::ostringstream out;
    std::ostringstream err;
    const bool is_wrong = app.exit(end, out, err) != 0;
    parsed_options parsed;
    parsed.status = is_wrong ? EXIT_USAGE : EXIT_CLEAN;
    parsed.out = out.str();
    if (is_wrong) {
        const std::vector<std::string> unknown = app.remaining();
        const bool no_command = app.get_subcommands().empty() && !unknown.empty();
        const std::string reason =
            no_command ? "unknown command: " + shown(unknown.front()) : std::string(end.what());
        parsed.err = "tarnctl: " + reason + "\nTry: tarnctl --help\n";
    }
    return parsed;
}

parsed_options parse_options(int argc, const char* const* argv) {
    raw_options raw;
    CLI::App app(
        "Says what is wrong with a server, whose data it touches and what to do next.\n"
        "It never writes to a volume or a journal.",
        "tarnctl");
    const std::vector<command_app> commands = add_commands(&app, &raw);
    add_common(&app, &raw);
    for (const command_app& each : commands) {
        add_common(each.app, &raw);
    }
    app.require_subcommand(1);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& end) {
        return ended(app, end);
    }
    for (const command_app& each : commands) {
        if (each.app->parsed()) {
            raw.options.command = each.command;
        }
    }
    raw.options.color = when_of(raw.color);
    raw.options.progress = when_of(raw.progress);
    take_raw(&raw);
    return {std::move(raw.options), EXIT_CLEAN, "", ""};
}
