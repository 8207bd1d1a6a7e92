// The command line: what is accepted, and what is a usage error.
#include "ctl/options.h"

#include <gtest/gtest.h>
#include <vector>

static parsed_options parse(std::vector<const char*> words) {
    words.insert(words.begin(), "tarnctl");
    return parse_options(static_cast<int>(words.size()), words.data());
}

TEST(options, of_check_have_their_usual_values) {
    const ctl_options options = parse({"check"}).options;
    EXPECT_EQ(options.command, ctl_command::check);
    EXPECT_EQ(options.conf, "");
    EXPECT_EQ(options.color, when::automatic);
    EXPECT_EQ(options.progress, when::automatic);
    EXPECT_EQ(options.check.memory, 67108864u);
    EXPECT_TRUE(options.check.volumes.empty());
    EXPECT_FALSE(options.json || options.quiet || options.check.raw || options.check.quick ||
                 options.check.data_holes || options.check.all);
}

TEST(options, of_check_are_taken) {
    const ctl_options options = parse({"check", "--volume", "/a", "--volume=/b c", "--raw",
                                       "--memory", "16M", "--all", "--data-holes"})
                                    .options;
    EXPECT_EQ(options.check.volumes, (std::vector<std::string>{"/a", "/b c"}));
    EXPECT_EQ(options.check.memory, 16777216u);
    EXPECT_TRUE(options.check.raw && options.check.all && options.check.data_holes);
    EXPECT_FALSE(options.check.quick);
    EXPECT_TRUE(parse({"check", "--quick"}).options.check.quick);
}

static void expect_common(const parsed_options& parsed) {
    EXPECT_EQ(parsed.options.command, ctl_command::check) << parsed.err;
    EXPECT_EQ(parsed.options.conf, "/c");
    EXPECT_TRUE(parsed.options.json);
    EXPECT_TRUE(parsed.options.quiet);
    EXPECT_EQ(parsed.options.color, when::never);
    EXPECT_EQ(parsed.options.progress, when::never);
}

TEST(options, that_are_common_stand_before_or_after_the_command) {
    expect_common(parse(
        {"--conf", "/c", "--json", "--quiet", "--color", "never", "--progress", "never", "check"}));
    expect_common(parse(
        {"check", "--conf", "/c", "--json", "--quiet", "--color", "never", "--progress", "never"}));
    expect_common(
        parse({"--conf=/c", "--json", "check", "--quiet", "--color=never", "--progress=never"}));
    EXPECT_EQ(parse({"check", "--color", "always"}).options.color, when::always);
}

TEST(options, of_explain_are_words) {
    const ctl_options options = parse({"--json", "explain", "R01"}).options;
    EXPECT_EQ(options.command, ctl_command::explain);
    EXPECT_EQ(options.words, (std::vector<std::string>{"R01"}));
    EXPECT_TRUE(options.json);
    EXPECT_EQ(parse({"explain", "-"}).options.words, (std::vector<std::string>{"-"}));
    EXPECT_TRUE(parse({"explain"}).options.words.empty());
    EXPECT_EQ(parse({"explain", "ERR: x(1) no -1 here", "b"}).options.words.size(), 2u);
}

TEST(options, that_are_wrong_are_usage_errors) {
    const std::vector<std::vector<const char*>> wrong = {
        {},
        {"chec"},
        {"rehearse"},
        {"check", "stray"},
        {"check", "--dry-run"},
        {"check", "--al"},
        {"check", "--threads", "2"},
        {"check", "--volume"},
        {"check", "--volume", ""},
        {"check", "--volume", "volume1"},
        {"check", "--memory"},
        {"check", "--memory", "0"},
        {"check", "--memory", "1023K"},
        {"check", "--memory", "16X"},
        {"check", "--memory", "1M", "--memory", "2M"},
        {"check", "--quick", "--data-holes"},
        {"check", "--state", "s", "--quick"},
        {"check", "--state", "s", "--raw"},
        {"check", "--raw", "--state", "s"},
        {"check", "--state", "s", "--volume", "/v"},
        {"check", "--state", ""},
        {"health", "--format", "xml"},
        {"health", "--state", ""},
        {"check", "--raw=maybe"},
        {"--color", "blue", "check"},
        {"--progress", "always", "check"},
        {"--conf"},
        {"check", "--conf"},
        {"check", "explain"},
        {"explain", "--raw"},
    };
    for (const std::vector<const char*>& words : wrong) {
        const parsed_options parsed = parse(words);
        SCOPED_TRACE(words.empty() ? "nothing" : words.back());
        EXPECT_EQ(parsed.options.command, ctl_command::none);
        EXPECT_EQ(parsed.status, 16);
        EXPECT_EQ(parsed.out, "");
        EXPECT_TRUE(parsed.err.starts_with("tarnctl: ")) << parsed.err;
        EXPECT_TRUE(parsed.err.ends_with("\nTry: tarnctl --help\n")) << parsed.err;
    }
}

TEST(options, an_unknown_command_is_named) {
    EXPECT_EQ(parse({"--json", "chec\n"}).err,
              "tarnctl: unknown command: chec\\n\nTry: tarnctl --help\n");
    EXPECT_EQ(parse({"--json"}).err, "tarnctl: A subcommand is required\nTry: tarnctl --help\n");
}

TEST(options, sizes_are_from_1M_to_64G) {
    EXPECT_EQ(parse_size("1M"), 1048576u);
    EXPECT_EQ(parse_size("1024K"), 1048576u);
    EXPECT_EQ(parse_size("1048576"), 1048576u);
    EXPECT_EQ(parse_size("64G"), uint64_t{68719476736});
    for (const char* wrong :
         {"", "M", "-1M", "+1M", " 1M", "1m", "1MB", "1 M", "1.5M", "0x10M", "1048575", "65G",
          "68719476737", "18446744073709551616", "17592186044417M", "99999999999999999999G"}) {
        EXPECT_EQ(parse_size(wrong), 0u) << wrong;
    }
}

// The words at the beginning of the lines that list commands.
TEST(options, help_names_only_what_exists) {
    const parsed_options help = parse({"--help"});
    EXPECT_EQ(help.options.command, ctl_command::none);
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.err, "");
    const size_t commands = help.out.find("\nSubcommands:\n");
    ASSERT_NE(commands, std::string::npos) << help.out;
    for (const char* word :
         {"check", "explain", "space", "punch", "export", "inventory", "guard", "health"}) {
        EXPECT_NE(help.out.find(std::string("\n  ") + word + " ", commands), std::string::npos)
            << word;
    }
    for (const char* word : {"capture", "restore", "rehearse", "apply", "undo", "salvage",
                             "journal", "diff", "report", "--from", "--threads"}) {
        for (const std::string& text : {help.out, parse({"check", "--help"}).out}) {
            EXPECT_EQ(text.find(std::string("\n  ") + word), std::string::npos) << word;
        }
    }
}

TEST(options, help_of_a_command_lists_its_options) {
    for (const auto& words :
         std::vector<std::vector<const char*>>{{"check", "--help"}, {"--help", "check"}}) {
        const parsed_options help = parse(words);
        EXPECT_EQ(help.status, 0);
        for (const char* option : {"--volume PATH", "--raw", "--memory SIZE", "--quick",
                                   "--data-holes", "--all", "--conf FILE", "--json", "--color WHEN",
                                   "--quiet", "--progress WHEN", "--help", "--version"}) {
            EXPECT_NE(help.out.find(std::string("  ") + option), std::string::npos) << option;
        }
    }
}

TEST(options, version_names_the_program) {
    EXPECT_EQ(parse({"--version"}).out, "tarnctl " TARN_VERSION "\n");
    EXPECT_EQ(parse({"check", "--version"}).out, "tarnctl " TARN_VERSION "\n");
    EXPECT_EQ(parse({"--version"}).status, 0);
}
