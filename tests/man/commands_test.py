"""tarn(8), tarnctl(8) and tarn-lab(1) have every command, option and exit status of the programs,
and no other."""
import os
import re
import unittest

from pages import items, main, options, page, plain, read, run, section


def entries(text):
    """Command -> what its entries say, heads included."""
    found = {}
    for head, below in items(text):
        name = re.match(r"Fl -([\w-]+)", head)
        if name:
            found[name.group(1)] = found.get(name.group(1), "") + ".It " + head + "\n" + below
    return found


def rows(source, table):
    """The rows of a table in C++: pairs of the first word and the rest."""
    body = re.search(rf"{table}\[\] = \{{(.*?)\n\}};", source, re.S).group(1)
    return re.findall(r'\{"([\w-]+)",([^{}]*)', body)


def usage_blocks():
    """Command -> its lines in the usage texts."""
    source = read("src/cli/usage.cpp")
    text = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', source)).replace("\\n", "\n")
    blocks = re.split(r"^ {4}--(?=[\w-]+)", text, flags=re.M)[1:]
    return {re.match(r"[\w-]+", block).group(): block for block in blocks}


TARN = page("tarn.8")
COMMANDS = {**entries(section(TARN, "EVERYDAY COMMANDS")),
            **entries(section(TARN, "ADVANCED COMMANDS"))}
ROWS = [name for name, _ in rows(read("src/cli/commands.cpp"), "commands")]
SUB_OPTIONS = {"--" + name: "required_argument" in rest
               for name, rest in rows(read("src/cli/sub_options.cpp"), "sub_options")}
SINGLE_LETTERS = ("search", "punch")  # these commands read their own options


def synopsis_options(text, command):
    """The options of a command in the synopsis; none, if it is not there."""
    entry = re.search(rf"^\.Cm {command}$(.*?)(?=^\.Nm|\Z)", section(text, "SYNOPSIS"), re.M | re.S)
    words = " ".join(re.findall(r"Fl (-[^\n]*)", plain(entry.group(1)) if entry else ""))
    return {"-" + name for name in re.findall(r"(?<![\w-])-[\w-]+", words)}


class tarn_page(unittest.TestCase):
    def test_has_every_command_and_no_other(self):
        self.assertEqual(len(ROWS), 25)
        self.assertEqual(sorted(COMMANDS), sorted(ROWS))

    def test_has_the_words_of_every_command(self):
        tables = read("src/cli/type_words.cpp")
        for command, table in (("ckjnl", "ckjnl_funs"), ("rpjnl", "rpjnl_funs"),
                               ("create", "create_funs"), ("change-uuid", "chuuid_funs"),
                               ("search", "search_funs")):
            words = [word for word, _ in rows(tables, table)]
            heads = re.findall(rf"^\.It Fl -{command} Cm (.*)$", COMMANDS[command], re.M)
            self.assertEqual(sorted(words), sorted(" | ".join(heads).split(" | ")), command)
        status = rows(read("src/cli/status_commands.cpp"), "status_words")
        for command, words in (("set-status", [word for word, _ in status]),
                               ("vaaick", ["log", "nolog"])):
            self.assertIn(f"Cm {' | '.join(words)}\n", COMMANDS[command])

    def test_has_the_options_of_the_usage_text_for_each_command(self):
        blocks = usage_blocks()
        self.assertEqual(sorted(blocks), sorted(ROWS))
        for command, block in blocks.items():
            if command in SINGLE_LETTERS:
                continue
            named = {"--" + name for name in re.findall(r"(?<=--)[\w-]+", block)}
            for option in named:
                self.assertIn(option, options(COMMANDS[command]), command)

    def test_knows_no_option_that_the_program_does_not_read(self):
        seen = set()
        for command in ROWS:
            if command not in SINGLE_LETTERS:
                found = options(COMMANDS[command])
                del found["--" + command]
                seen |= set(found)
                for option, argument in found.items():
                    self.assertEqual(SUB_OPTIONS.get(option), argument, f"{command} {option}")
        self.assertEqual(seen, set(SUB_OPTIONS))

    def test_has_the_letters_of_search_and_punch(self):
        source = read("src/cli/search.cpp")
        letters = {kind.lower(): text for kind, text in
                   re.findall(r'KIND_(\w+), \{__func__, "([a-z:]+)"', source)}
        self.assertEqual(sorted(letters), ["fri", "jnl", "map", "tbl"])
        entry = {head.split()[-1]: below for head, below in
                 items(section(TARN, "EVERYDAY COMMANDS")) if head.startswith("Fl -search")}
        letters["punch"] = re.search(r'getopt\(argc, argv, "([a-z:]+)"',
                                     read("src/cli/punch_command.cpp")).group(1)
        entry["punch"] = COMMANDS["punch"].split("\n", 1)[1]
        for kind, text in letters.items():
            wanted = {"-" + letter: argument == ":"
                      for letter, argument in re.findall("([a-z])(:?)", text)}
            self.assertEqual(options(entry[kind]), wanted, kind)

    def test_has_the_exit_status_of_every_command(self):
        heads = [plain(head) for head, _ in items(section(TARN, "EXIT STATUS"))]
        named = {name for head in heads for name in re.findall(r"(?<![\w-])-([\w-]+)", head)}
        self.assertEqual(sorted(named), sorted(ROWS))

    def test_calls_the_same_statuses_odd_as_the_page_on_exit_statuses(self):
        marked = {name for line in read("docs/exit-status.md").split("\n")
                  if line.startswith("| `--") and "**!**" in line
                  for name in re.findall(r"`--([\w-]+)", line.split(" | ")[0])}
        odd = {name for head, _ in items(section(TARN, "EXIT STATUS")) if "Sy odd" in head
               for name in re.findall(r"(?<![\w-])-([\w-]+)", head)}
        # These two are in the table above the others.
        self.assertEqual(odd, marked | {"rpjnl", "rpvjnl"})

    def test_has_a_caveat_for_every_harmful_line(self):
        text = read("docs/situations.md").split("## ")[1]
        first = [re.search(r"--([\w-]+)(?: (fri|tbl|map))?", line) for line in text.split("\n")
                 if line.startswith("| `tarn")]
        self.assertGreater(len(first), 15)
        caveats = [re.match(r"Fl -([\w-]+)(?: Cm (fri|tbl|map)\b)?", head)
                   for head, _ in items(section(TARN, "CAVEATS"))]
        self.assertEqual([found.group(1) for found in caveats], [found.group(1) for found in first])
        self.assertEqual([found.group(2) for found in caveats if found.group(2)],
                         ["map", "tbl", "fri", "tbl"])


class tarnctl_page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.program = os.environ.get("TARNCTL", "")
        if not cls.program:
            raise unittest.SkipTest("tarnctl was not built")
        cls.text = page("tarnctl.8")
        text = run(cls.program, "--help").stdout
        cls.common = cls.options_of(text.split("Common options:")[1].split("\n\n")[0])
        cls.commands = re.findall(r"^  (\w+) ", text.split("Subcommands:")[1], re.M)

    @staticmethod
    def options_of(text):
        """Option -> whether it has an argument, of a help text."""
        return {name: bool(argument) for name, argument in
                re.findall(r"^ +(--[\w-]+)(?: ([A-Z]+)(?![a-z]))?", text, re.M)}

    def test_has_every_command_and_no_other(self):
        self.assertGreaterEqual(len(self.commands), 8)
        headings = re.findall(r"^\.Ss (\w+)$", self.text.split(".Sh ENVIRONMENT")[0], re.M)
        self.assertEqual(headings, self.commands)

    def test_has_the_common_options(self):
        text = section(self.text, "DESCRIPTION").split(".Ss ")[0]
        self.assertEqual(options(text), self.common)

    def test_has_the_options_of_every_command_and_no_other(self):
        for command in self.commands:
            wanted = self.options_of(run(self.program, command, "--help").stdout)
            for option in self.common:
                del wanted[option]
            self.assertEqual(options(section(self.text, command, "Ss")), wanted, command)

    def test_names_the_options_in_its_synopsis(self):
        for command in self.commands:
            wanted = set(options(section(self.text, command, "Ss")))
            self.assertEqual(synopsis_options(self.text, command), wanted, command)

    def test_has_the_exit_statuses_of_every_command(self):
        for command in self.commands:
            help_text = " ".join(run(self.program, command, "--help").stdout.split())
            footer = help_text.partition("Exit status: ")[2].split(". With")[0]
            wanted = set(re.findall(r"(?:^|; )(\d+) ", footer))
            self.assertTrue(wanted or command == "explain", command)
            named = set(re.findall(r"^\.It (\d+)$", section(self.text, command, "Ss"), re.M))
            self.assertLessEqual(wanted, named, command)

    def test_has_every_exit_status_that_exists(self):
        table = re.search(r"enum ctl_exit : int \{(.*?)\}", read("tools/ctl/output.h"), re.S)
        wanted = re.findall(r"= (\d+)", table.group(1))
        named = [head for head, _ in items(section(self.text, "EXIT STATUS"))]
        self.assertEqual(named, wanted)
        used = set(re.findall(r"^\.It (\d+)$", self.text, re.M))
        self.assertEqual(used, set(wanted))


class tarn_lab_page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.text = page("tarn-lab.1")
        cls.help = run(os.environ["TARN_LAB"], "--help").stdout
        entry = items(section(cls.text, "DESCRIPTION").split(".Ss ")[0])
        cls.entries = {head.split()[1]: below for head, below in entry}

    def test_has_every_command_and_its_options(self):
        synopsis = re.findall(r"^  tarn-lab (\w+) (.*(?:\n {20}.*)*)", self.help, re.M)
        self.assertGreater(len(synopsis), 6)
        self.assertEqual(sorted([command for command, _ in synopsis] + ["-help", "-version"]),
                         sorted(self.entries))
        for command, text in synopsis:
            wanted = {name: bool(argument)
                      for name, argument in re.findall(r"(--[a-z]+)( [A-Z])?", text)}
            self.assertEqual(options(self.entries[command]), wanted, command)

    def test_names_the_options_in_its_synopsis(self):
        for command, below in self.entries.items():
            self.assertEqual(synopsis_options(self.text, command), set(options(below)), command)

    def test_has_every_kind_of_damage_and_no_other(self):
        wanted = re.findall(r"^  ([\w-]+) ", self.help.split("Kinds of damage:")[1], re.M)
        self.assertGreater(len(wanted), 40)
        kinds = [head for head, _ in items(section(self.text, "Kinds of damage", "Ss"))]
        self.assertEqual(kinds, ["Cm " + kind for kind in wanted])

    def test_has_every_exit_status(self):
        line = re.search(r"^Exit status: (.*)$", self.help, re.M).group(1)
        self.assertEqual([head for head, _ in items(section(self.text, "EXIT STATUS"))],
                         re.findall(r"\d+", line))


class examples(unittest.TestCase):
    def test_use_options_that_exist(self):
        texts = {name: page(name) for name in ("tarn.8", "tarnctl.8", "tarn-lab.1")}
        known = {name.rpartition(".")[0]: set(options(text)) for name, text in texts.items()}
        seen = 0
        for text in [*texts.values(), page("tarn-platform.conf.5"), page("tarn-format.5")]:
            for line in plain(section(text, "EXAMPLES")).replace("\\\n", " ").split("\n"):
                used = re.match(r"(?:\.Dl )?(?:\w+=\S+ )?(tarn|tarnctl|tarn-lab) (.*)", line)
                if used:
                    wanted = set(re.findall(r"(?<!\S)--?[a-z][\w-]*", used.group(2)))
                    self.assertLessEqual(wanted, known[used.group(1)], line)
                    seen += 1
        self.assertGreater(seen, 15)


if __name__ == "__main__":
    main()
