#include "lab/options.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace lab {

const char* usage_text() {
    return "tarn-lab: sample volumes with known contents\n"
           "\n"
           "  tarn-lab make DIR [--volumes N] [--luns N] [--extents N] [--transactions N]\n"
           "                    [--data N] [--seed S] [--crash] [--unfinalized]\n"
           "      makes DIR/volume1.., DIR/journal/EP_JNL, DIR/platform.conf and DIR/lab.conf: N\n"
           "      volumes (2) with N LUNs each (3) of N extents (3000), after N transactions "
           "(200).\n"
           "      Of 1000 extents that were ever in use, N (2) hold data.\n"
           "      With --crash the sample is as a power failure leaves it; otherwise it was shut\n"
           "      down cleanly. With --unfinalized the indexes count the groups in use; otherwise\n"
           "      they count all groups that an index can have. The same options give the same\n"
           "      bytes. DIR must be new or empty.\n"
           "  tarn-lab expect DIR\n"
           "      prints whether start-up replay recovers the sample: \"recovers\" or\n"
           "      \"refuses: REASON\".\n"
           "  tarn-lab verify DIR [--refused | --rebuilt]\n"
           "      compares every file with its expected contents after recovery or, with\n"
           "      --refused, with its contents before, and prints the first difference. With\n"
           "      --rebuilt index and table may have been rebuilt from the maps: references,\n"
           "      lists and counts must be exact, lists may be in any order, and the journal may\n"
           "      have been set aside.\n"
           "  tarn-lab damage DIR KIND [--volume N] [--seed S]\n"
           "      damages one place in the files of volume N (1), picked by the seed (1) among\n"
           "      the suitable places, and prints what it changed, or why no place is suitable.\n"
           "  tarn-lab run DIR [--seconds N] [--seed S] [--rate N]\n"
           "      makes transactions as the running service does, for N seconds (10) or until\n"
           "      SIGTERM or SIGINT, N a second (50) at most, and leaves what a killed service\n"
           "      leaves: start-up replay recovers it, and verify knows its contents. It may be\n"
           "      killed at any time. The sample must be as it was made, without --crash and\n"
           "      --unfinalized.\n"
           "  tarn-lab age DIR [--seed S] [--transactions N] [--clean]\n"
           "      goes on for N transactions (1000) in which LUNs are deleted, recreated under "
           "the\n"
           "      same name, trimmed, written and snapshotted, and leaves the sample as a power\n"
           "      failure does or, with --clean, shut down. The same numbers give the same bytes.\n"
           "      The sample must be as it was made, without --crash and --unfinalized.\n"
           "  tarn-lab image DIR LUN FILE\n"
           "      writes the expected bytes of a LUN to a new sparse file: the data of its mapped\n"
           "      extents, zeros elsewhere. LUN is the path of a map below DIR, of any kind, or\n"
           "      VOLUME:LUN as in volume1:LUN_0. Only lab.conf and lab.run are read.\n"
           "  tarn-lab maps DIR\n"
           "      prints a line for each map as it is expected to be: VOLUME PATH KIND UUID TOTAL\n"
           "      MAPPED EXCLUSIVE SHARED. KIND is lun, snapshot, trash, buffer or copy. "
           "EXCLUSIVE\n"
           "      are the extents that only this map refers to, SHARED those of other maps too.\n"
           "  tarn-lab --help | --version\n"
           "\n"
           "Exit status: 0 done, or no difference; 1 a difference, or a failure; 2 usage.\n"
           "Run the tool on a sample with TARN_PLATFORM_CONF=DIR/platform.conf.\n";
}

static bool complain(const char* what, const char* word) {
    (void)fprintf(stderr, "tarn-lab: %s%s\n", what, word);
    return false;
}

// A numeric option: its name, where its value is stored, and its bounds.
struct number_row {
    const char* name;
    uint64_t* value;
    uint64_t least;
    uint64_t most;
};

static bool parse_number(const number_row& row, const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return complain("not a decimal number: ", text.c_str());
    }
    errno = 0;
    const uint64_t value = strtoull(text.c_str(), nullptr, 10);
    if (errno != 0 || value < row.least || value > row.most) {
        return complain("out of range: ", (std::string(row.name) + " " + text).c_str());
    }
    *row.value = value;
    return true;
}

static number_row number_of(const parameter_row& row, parameters* out) {
    return {row.name, &(out->*row.value), row.least, row.most};
}

bool parse_parameter(const parameter_row& row, const std::string& text, parameters* out) {
    return parse_number(number_of(row, out), text);
}

// The numeric options of the command.
static std::vector<number_row> numbers_of(options* out) {
    std::vector<number_row> rows;
    if (out->what == command::make) {
        for (const parameter_row& row : PARAMETER_ROWS) {
            rows.push_back(number_of(row, &out->sample));
        }
    } else if (out->what == command::run) {
        rows = {{"seconds", &out->seconds, 1, 1000000},
                {"seed", &out->seed, 0, UINT64_MAX},
                {"rate", &out->rate, 1, 1000000}};
    } else if (out->what == command::age) {
        rows = {{"seed", &out->seed, 0, UINT64_MAX},
                {"transactions", &out->transactions, 1, 10000000}};
    } else if (out->what == command::damage) {
        rows = {{"volume", &out->volume, 1, 64}, {"seed", &out->seed, 0, UINT64_MAX}};
    }
    return rows;
}

static bool command_of(const char* word, options* out) {
    constexpr struct {
        const char* word;
        command what;
    } rows[] = {
        {"make", command::make},         {"verify", command::verify}, {"expect", command::expect},
        {"age", command::age},           {"damage", command::damage}, {"run", command::run},
        {"image", command::image},       {"maps", command::maps},     {"--help", command::help},
        {"--version", command::version},
    };
    for (const auto& row : rows) {
        if (strcmp(row.word, word) == 0) {
            out->what = row.what;
            return true;
        }
    }
    return complain("no such command: ", word);
}

// Parses an option without a value. Returns false and prints nothing if the word is not one of
// them.
static bool parse_flag(const std::string& word, options* out) {
    for (const flag_row& row : FLAG_ROWS) {
        if (out->what == command::make && word == row.name) {
            out->sample.*row.value = true;
            return true;
        }
    }
    if (word == "help") {
        out->what = command::help;
        return true;
    }
    const struct {
        command what;
        const char* word;
        bool* value;
    } flags[] = {
        {command::verify, "refused", &out->refused},
        {command::verify, "rebuilt", &out->rebuilt},
        {command::age, "clean", &out->clean},
    };
    for (const auto& flag : flags) {
        if (out->what == flag.what && word == flag.word) {
            *flag.value = true;
            return true;
        }
    }
    return false;
}

// Parses the option at argv[*i]. Its value follows "=" or is the next word, which is then consumed.
static bool parse_option(int argc, char** argv, int* i, options* out) {
    const std::string word = argv[*i] + 2;
    if (parse_flag(word, out)) {
        return true;
    }
    const size_t equals = word.find('=');
    const std::string name = word.substr(0, equals);
    for (const number_row& row : numbers_of(out)) {
        if (name != row.name) {
            continue;
        }
        if (equals != std::string::npos) {
            return parse_number(row, word.substr(equals + 1));
        }
        *i += 1;
        return *i < argc ? parse_number(row, argv[*i])
                         : complain("a number is missing after --", row.name);
    }
    return complain("no such option here: ", argv[*i]);
}

// If true, all further arguments are ignored.
static bool is_help_or_version(const options& asked) {
    return asked.what == command::help || asked.what == command::version;
}

// An argument that is no option: its name, and where its value is stored.
struct argument_row {
    const char* missing;
    std::string* value;
};

static std::vector<argument_row> arguments_of(options* out) {
    std::vector<argument_row> rows = {{"a directory is missing", &out->directory}};
    if (out->what == command::damage) {
        rows.push_back({"a kind of damage is missing", &out->kind});
    } else if (out->what == command::image) {
        rows.push_back({"a LUN is missing", &out->lun});
        rows.push_back({"a file is missing", &out->file});
    }
    return rows;
}

static bool parse_argument(const char* word, options* out) {
    for (const argument_row& row : arguments_of(out)) {
        if (row.value->empty()) {
            *row.value = word;
            return true;
        }
    }
    return complain("unexpected argument: ", word);
}

// Checks that the command has all its arguments, and no contradictory options.
static bool is_complete(options* asked) {
    if (is_help_or_version(*asked)) {
        return true;
    }
    for (const argument_row& row : arguments_of(asked)) {
        if (row.value->empty()) {
            return complain(row.missing, "");
        }
    }
    return !asked->refused || !asked->rebuilt || complain("not both: --refused and --rebuilt", "");
}

bool parse_options(int argc, char** argv, options* out) {
    if (argc < 2) {
        return complain("a command is missing", "");
    }
    if (!command_of(argv[1], out)) {
        return false;
    }
    for (int i = 2; i < argc && !is_help_or_version(*out); i++) {
        const bool option = strncmp(argv[i], "--", 2) == 0;
        if (!(option ? parse_option(argc, argv, &i, out) : parse_argument(argv[i], out))) {
            return false;
        }
    }
    return is_complete(out);
}

}  // namespace lab
