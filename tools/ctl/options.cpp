#include "ctl/options.h"

#include <CLI/CLI.hpp>
#include <charconv>

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

namespace {

// What the parser fills in before it is put into the options.
struct raw_options {
    ctl_options options;
    std::string color = "auto";
    std::string progress = "auto";
    std::string memory = "64M";
};

}  // namespace

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

static std::string volume_problem(const std::string& path) {
    return path.empty() || path[0] != '/' ? "'" + path + "' is no absolute path" : "";
}

static std::string memory_problem(const std::string& size) {
    return parse_size(size) == 0 ? "'" + size + "' is no size from 1M to 64G" : "";
}

static CLI::App* add_check(CLI::App* app, raw_options* raw) {
    CLI::App* check = app->add_subcommand("check", "Look at the whole server, and write nothing");
    check_request* request = &raw->options.check;
    check->add_option("--volume", request->volumes, "Look at this volume only; may be repeated")
        ->type_name("PATH")
        ->allow_extra_args(false)
        ->check(CLI::Validator(volume_problem, ""));
    check->add_flag("--raw", request->raw, "Leave out the replay of the journal, into memory");
    check->add_option("--memory", raw->memory, "Memory for counting, 1M to 64G; 64M if not given")
        ->type_name("SIZE")
        ->check(CLI::Validator(memory_problem, ""));
    CLI::Option* quick =
        check->add_flag("--quick", request->quick, "Headers, tables and lists, without the maps");
    check->add_flag("--data-holes", request->data_holes, "Report mapped extents that are holes too")
        ->excludes(quick);
    check->add_flag("--all", request->all, "List consequences, and more than 100 of a code");
    check->footer(
        "Exit status: 0 clean; 3 lost space or wrong counts only; 4 damage; 5 urgent, the service\n"
        "must not write; 6 not everything could be looked at; 8 could not run; 16 usage.");
    return check;
}

static CLI::App* add_explain(CLI::App* app, raw_options* raw) {
    CLI::App* explain =
        app->add_subcommand("explain", "Say what a code of a finding or a line of the log means");
    explain->add_option("words", raw->options.words,
                        "A code, a line of the log, or - for a log on standard input; nothing "
                        "lists the codes");
    return explain;
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
        parsed.err = "tarnctl: " + std::string(end.what()) + "\nTry: tarnctl --help\n";
    }
    return parsed;
}

parsed_options parse_options(int argc, const char* const* argv) {
    raw_options raw;
    CLI::App app(
        "Sees a whole server of tarn and says what is wrong, whose data it touches and what "
        "to do next. It reads only.",
        "tarnctl");
    CLI::App* check = add_check(&app, &raw);
    CLI::App* explain = add_explain(&app, &raw);
    for (CLI::App* each : {&app, check, explain}) {
        add_common(each, &raw);
    }
    app.require_subcommand(1);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& end) {
        return ended(app, end);
    }
    raw.options.command = check->parsed() ? ctl_command::check : ctl_command::explain;
    raw.options.color = when_of(raw.color);
    raw.options.progress = when_of(raw.progress);
    raw.options.check.memory = parse_size(raw.memory);
    return {std::move(raw.options), EXIT_CLEAN, "", ""};
}
