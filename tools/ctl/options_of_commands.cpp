#include "ctl/options_of_commands.h"

static std::string volume_problem(const std::string& path) {
    return path.empty() || path[0] != '/' ? "'" + path + "' is no absolute path" : "";
}

static std::string memory_problem(const std::string& size) {
    return parse_size(size) == 0 ? "'" + size + "' is no size from 1M to 64G" : "";
}

static std::string number_problem(const std::string& text) {
    uint64_t number = 0;
    return parse_number(text, &number) ? "" : "'" + text + "' is no number of bytes";
}

static std::string code_problem(const std::string& code) {
    return finding_row_named(code.c_str()) == nullptr ? "'" + code + "' is no code of a finding"
                                                      : "";
}

static std::string file_problem(const std::string& path) {
    return path.empty() ? "no file is named" : "";
}

static CLI::Option* add_volumes(CLI::App* command, std::vector<std::string>* volumes) {
    return command->add_option("--volume", *volumes, "Look at this volume only; may be repeated")
        ->type_name("PATH")
        ->allow_extra_args(false)
        ->check(CLI::Validator(volume_problem, ""));
}

static void add_memory(CLI::App* command, std::string* memory) {
    command->add_option("--memory", *memory, "Memory for counting, 1M to 64G; 64M if not given")
        ->type_name("SIZE")
        ->check(CLI::Validator(memory_problem, ""));
}

static CLI::Option* add_file(CLI::App* command, const char* name, std::string* file,
                             const char* words) {
    return command->add_option(name, *file, words)
        ->type_name("FILE")
        ->check(CLI::Validator(file_problem, ""));
}

static CLI::Option* add_word(CLI::App* command, const char* name, std::string* word,
                             const std::vector<std::string>& words, const char* type,
                             const char* help) {
    return command->add_option(name, *word, help)
        ->type_name(type)
        ->check(CLI::IsMember(words).description(""));
}

static CLI::App* add_check(CLI::App* app, raw_options* raw) {
    CLI::App* check = app->add_subcommand("check", "Look at the whole server, and write nothing");
    check_request* request = &raw->options.check;
    CLI::Option* volumes = add_volumes(check, &request->volumes);
    CLI::Option* raw_files =
        check->add_flag("--raw", request->raw, "Leave out the replay of the journal, into memory");
    add_memory(check, &raw->memory);
    CLI::Option* quick =
        check->add_flag("--quick", request->quick, "Headers, tables and lists, without the maps");
    check->add_flag("--data-holes", request->data_holes, "Report mapped extents that are holes too")
        ->excludes(quick);
    check->add_flag("--all", request->all, "List consequences, and more than 100 of a code");
    add_file(check, "--inventory", &request->inventory,
             "Compare with this inventory too: what is missing, swapped or new")
        ->excludes(quick)
        ->excludes(volumes);
    add_file(check, "--state", &request->state, "Note the verdict in this file, for health")
        ->excludes(quick)
        ->excludes(volumes)
        ->excludes(raw_files);
    check->footer(
        "Exit status: 0 clean; 3 lost space or wrong counts only; 4 damage; 5 urgent, the service\n"
        "must not write; 6 not everything could be looked at; 8 could not run; 16 usage; 32 the\n"
        "inventory or the state file is not one of this server.");
    return check;
}

static CLI::App* add_explain(CLI::App* app, raw_options* raw) {
    CLI::App* explain =
        app->add_subcommand("explain", "Say what a code or a line of the log means");
    explain->add_option("words", raw->options.words,
                        "A code, a line of the log, or - for standard input; none: all codes");
    explain->footer("Exit status: 0 explained; 8 could not be written; 16 unknown, or usage.");
    return explain;
}

static CLI::App* add_space(CLI::App* app, raw_options* raw) {
    CLI::App* space =
        app->add_subcommand("space", "Say how much space each LUN and snapshot holds");
    space_request* request = &raw->options.space;
    add_volumes(space, &request->volumes);
    space
        ->add_option("--if-deleted", request->if_deleted,
                     "What would be freed if all of these LUNs were deleted")
        ->type_name("LUN...");
    add_word(space, "--sort", &raw->order, {"exclusive", "shared", "name"}, "ORDER",
             "Sort by exclusive, shared or name");
    add_memory(space, &raw->memory);
    space->footer(
        "Exit status: 0 done; 6 a figure is not exact, or missing; 8 could not run; 16 usage;\n"
        "32 a name that fits no map, or two.");
    return space;
}

static CLI::App* add_health(CLI::App* app, raw_options* raw) {
    CLI::App* health =
        app->add_subcommand("health", "What can be seen at once, and the last full check");
    add_file(health, "--state", &raw->options.health.state,
             "What a full check wrote (/var/lib/tarn/health.json)");
    add_word(health, "--format", &raw->format, {"text", "prometheus", "checkmk", "nagios"},
             "FORMAT", "text, prometheus, checkmk or nagios");
    health->footer(
        "Exit status: as that of check; 6 if no check is known, or the last one is older than 10\n"
        "days. With --format nagios 0, 1, 2 or 3, as that interface says.");
    return health;
}

static CLI::App* add_punch(CLI::App* app, raw_options* raw) {
    CLI::App* punch =
        app->add_subcommand("punch", "Say what could be given back; give nothing back");
    add_volumes(punch, &raw->options.punch.volumes);
    punch->footer(
        "Keep the service stopped from before this command until the last line that it prints has\n"
        "run: the lines are true for that moment only.\n"
        "Exit status: 0 done, or nothing to do; 8 could not run; 16 usage; 32 refused: it is not "
        "safe now.");
    return punch;
}

static CLI::App* add_inventory(CLI::App* app, raw_options* raw) {
    CLI::App* inventory =
        app->add_subcommand("inventory", "Note what the server is made of, or compare");
    inventory_request* request = &raw->options.inventory;
    CLI::Option* write =
        add_file(inventory, "--write", &request->write, "Write it; the last eight are kept");
    add_file(inventory, "--compare", &request->compare, "Say what is missing, swapped or new")
        ->excludes(write);
    inventory->callback([request] {
        if (request->write.empty() && request->compare.empty()) {
            throw CLI::RequiredError("--write or --compare");
        }
    });
    inventory->footer(
        "Exit status: 0 done, or no difference; 4 something is missing; 5 urgent; 6 not "
        "everything\n"
        "could be looked at; 8 could not run; 16 usage; 32 refused: not an inventory of this\n"
        "server, or a run of tarn works on it.");
    return inventory;
}

static CLI::App* add_guard(CLI::App* app, raw_options* raw) {
    CLI::App* guard = app->add_subcommand("guard", "Say whether start-up replay may begin");
    add_file(guard, "--inventory", &raw->options.guard.inventory,
             "Compare with this inventory too");
    guard->add_option("--accept", raw->accepts, "Let this code pass; may be repeated")
        ->type_name("CODE")
        ->allow_extra_args(false)
        ->check(CLI::Validator(code_problem, ""));
    guard->footer(
        "Exit status: 0 the replay may begin; 32 it must not; 8 could not run; 16 usage.");
    return guard;
}

static CLI::App* add_export(CLI::App* app, raw_options* raw) {
    CLI::App* command =
        app->add_subcommand("export", "Copy a LUN's bytes from its map and data files");
    export_request* request = &raw->options.export_lun;
    command->add_option("lun", request->lun, "Its name, or the path of its map")
        ->type_name("LUN")
        ->required();
    command->add_option("--to", request->to, "Where to: a file, or - for standard output")
        ->type_name("FILE")
        ->check(CLI::Validator(file_problem, ""))
        ->required();
    const struct {
        const char* name;
        std::string* value;
        const char* help;
    } numbers[] = {{"--offset", &raw->offset, "First byte of the LUN"},
                   {"--length", &raw->length, "Bytes; 0 means up to its end"}};
    for (const auto& number : numbers) {
        command->add_option(number.name, *number.value, number.help)
            ->type_name("N")
            ->check(CLI::Validator(number_problem, ""));
    }
    add_word(command, "--missing", &raw->missing, {"fail", "zero"}, "HOW",
             "What cannot be read: fail, or zero");
    command->add_flag("--force", request->force, "Replace the file, its mapfile and a part of it");
    command->add_flag("--inconsistent", request->inconsistent,
                      "Even if the service writes, or the journal cannot be replayed");
    command->footer(
        "Exit status: 0 done; 4 a part of the LUN cannot be read; 8 could not run; 16 usage;\n"
        "32 refused.");
    return command;
}

std::vector<command_app> add_commands(CLI::App* app, raw_options* raw) {
    return {{ctl_command::check, add_check(app, raw)},
            {ctl_command::explain, add_explain(app, raw)},
            {ctl_command::space, add_space(app, raw)},
            {ctl_command::punch, add_punch(app, raw)},
            {ctl_command::export_lun, add_export(app, raw)},
            {ctl_command::inventory, add_inventory(app, raw)},
            {ctl_command::guard, add_guard(app, raw)},
            {ctl_command::health, add_health(app, raw)}};
}

static space_order order_of(const std::string& word) {
    return word == "name"     ? space_order::name
           : word == "shared" ? space_order::shared
                              : space_order::exclusive;
}

static health_format format_of(const std::string& word) {
    return word == "prometheus" ? health_format::prometheus
           : word == "checkmk"  ? health_format::checkmk
           : word == "nagios"   ? health_format::nagios
                                : health_format::text;
}

void take_raw(raw_options* raw) {
    ctl_options* options = &raw->options;
    options->check.memory = parse_size(raw->memory);
    options->space.memory = options->check.memory;
    options->space.order = order_of(raw->order);
    options->health.format = format_of(raw->format);
    (void)parse_number(raw->offset, &options->export_lun.offset);
    (void)parse_number(raw->length, &options->export_lun.length);
    options->export_lun.missing_zero = raw->missing == "zero";
    for (const std::string& code : raw->accepts) {
        options->guard.accepts.insert(finding_row_named(code.c_str())->code);
    }
}
