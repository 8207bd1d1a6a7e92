"""Completion: what a shell answers for a line that is typed, and that its words are those of the
programs' help."""
import re
import shlex

from installed import PROGRAMS, SOURCES, VALUE, main, needs, run, scratch_test

COMPLETION = SOURCES / "completion"
# Calls the function as bash does when the last word is completed.
ASK = """
source {file}
COMP_WORDS=({words}) COMP_CWORD={last}
{function} 2>/dev/null
printf '%s\\n' "${{COMPREPLY[@]}}"
"""
ZSH = """
zmodload zsh/zpty
zpty -b shell zsh -f -i
zpty -w shell "PS1= TERM=dumb TARN_COMPLETION={directory}; fpath=({directory} \\$fpath)"
zpty -w shell "autoload -Uz compinit; compinit -u -D; LISTMAX=10000 LINES=1000; bindkey '^I' list-choices; print READY"
until zpty -r shell text '*READY*READY*'; do :; done
zpty -n -w shell {line}$'\\t'
sleep 1
zpty -n -w shell $'\\C-u'"print D''ONE"$'\\n'
shown=
until [[ $shown == *DONE* ]]; do zpty -r shell text; shown+=$text; done
print -r -- "$shown"
"""


class completion(scratch_test):
    def setUp(self):
        super().setUp()
        for path in ("v1/@iSCSITrg/LUN_1", "v1/@iSCSITrg/LUN_2", "v1/@iSCSITrg/other",
                     "v2/@iSCSITrg/LUN_1", "v2/@iSCSITrg/LUN_30", "v2/@Snapshot/S1"):
            (self.place / path).mkdir(parents=True)
        self.write("v1/@iSCSITrg/LUN_file", "not a LUN")
        self.write("a file", "")
        self.volumes = [str(self.place / "v1"), str(self.place / "v2")]
        self.conf = self.write("conf", "volumes = " + " ".join(self.volumes))

    def environment(self):
        return {"TARN_PLATFORM_CONF": str(self.conf), "TARN_PLATFORM_VALUE": str(VALUE)}

    def answers(self, line):
        """What completes the last word of the line, sorted."""
        words = line.split(" ")
        name = words[0]
        words[0] = PROGRAMS[name]  # tarn-lab asks the program for the kinds of damage
        text = ASK.format(file=COMPLETION / name, words=" ".join(shlex.quote(each) for each in words),
                          last=len(words) - 1, function="_" + name.replace("-", "_"))
        got = run(["bash", "--norc", "-c", text], **self.environment())
        return sorted(each for each in got.stdout.splitlines() if each)

    def test_commands_of_tarn(self):
        self.assertEqual(self.answers("tarn --on"), ["--onekeycheck", "--onekeyrepair"])
        self.assertEqual(self.answers("tarn --st"), ["--startup-replay"])
        self.assertEqual(self.answers("tarn x"), [])

    def test_type_words_of_tarn(self):
        self.assertEqual(self.answers("tarn --rpjnl "), ["fri", "map", "tbl", "vol"])
        self.assertEqual(self.answers("tarn --set-status a"), ["abnormal"])
        self.assertEqual(self.answers("tarn --change-uuid "), ["fri", "tbl"])
        self.assertEqual(self.answers("tarn --vaaick n"), ["nolog"])

    def test_options_of_tarn(self):
        self.assertEqual(self.answers("tarn --freeck "), ["--fripath", "--tblpath"])
        self.assertEqual(self.answers("tarn --ckjnl map --m"), ["--mappath"])
        self.assertEqual(self.answers("tarn --check-map --r"), ["--repair", "--rod"])
        self.assertEqual(self.answers("tarn --no-command "), [])

    def test_volumes_come_from_the_configuration(self):
        self.assertEqual(self.answers("tarn --fullck --volpath "), self.volumes)
        self.assertEqual(self.answers(f"tarn --fullck --volpath {self.place}/v2"), self.volumes[1:])
        self.assertEqual(self.answers("tarn --punch -p "), self.volumes)
        self.assertEqual(self.answers("tarnctl check --volume "), self.volumes)

    def test_files_may_have_blanks(self):
        self.assertEqual(self.answers(f"tarn --metack --fripath {self.place}/a"),
                         [f"{self.place}/a file"])
        self.assertEqual(self.answers(f"tarnctl inventory --write {self.place}/a"),
                         [f"{self.place}/a file"])
        self.assertEqual(self.answers(f"tarn --search map -p {self.place}/a"),
                         [f"{self.place}/a file"])

    def test_a_number_is_not_guessed_and_a_flag_is_no_number(self):
        self.assertEqual(self.answers("tarn --search tbl -a "), [])
        self.assertEqual(self.answers("tarn --punch -a "), ["-a", "-l", "-o", "-p"])

    def test_commands_and_options_of_tarnctl(self):
        self.assertEqual(self.answers("tarnctl he"), ["health"])
        self.assertEqual(self.answers("tarnctl --conf /x gu"), ["guard"])
        self.assertEqual(self.answers("tarnctl check --da"), ["--data-holes"])
        self.assertEqual(self.answers("tarnctl health --format c"), ["checkmk"])
        self.assertEqual(self.answers("tarnctl export LUN_1 --missing "), ["fail", "zero"])

    def test_lun_names_are_directories_of_every_volume_and_stand_once(self):
        self.assertEqual(self.answers("tarnctl export LUN_"), ["LUN_1", "LUN_2", "LUN_30"])
        self.assertEqual(self.answers("tarnctl space --if-deleted o"), ["other"])

    def test_without_luns_there_is_no_answer(self):
        self.write("conf", f"volumes = {self.place}/empty")
        (self.place / "empty/@iSCSITrg").mkdir(parents=True)
        self.assertEqual(self.answers("tarnctl export "), [])

    def test_kinds_of_damage_and_options_of_tarn_lab(self):
        self.assertEqual(self.answers("tarn-lab damage DIR maps"), ["maps-swapped"])
        self.assertEqual(len(self.answers("tarn-lab damage DIR ")), 42)
        self.assertEqual(self.answers("tarn-lab make DIR --c"), ["--crash"])

    def test_every_command_of_tarn_is_there(self):
        shown = "".join(run([PROGRAMS["tarn"], each]).stdout for each in ("--help", "--advhelp"))
        commands = sorted(set(re.findall(r"^    (--[\w-]+)", shown, re.M)))
        self.assertEqual(len(commands), 25)
        self.assertEqual(self.answers("tarn "), commands)

    def test_every_option_of_tarn_stands_with_its_command(self):
        shown = "".join(run([PROGRAMS["tarn"], each]).stdout for each in ("--help", "--advhelp"))
        parts = re.split(r"^    (--[\w-]+)", shown, flags=re.M)[1:]
        for command, text in zip(parts[::2], parts[1::2]):
            types = self.answers(f"tarn {command} ")
            first = f"tarn {command} {types[0]} " if types and types[0][0] != "-" else f"tarn {command} "
            options = set(re.findall(r"(?<=[\[ ])(--[a-z]*path|--uuid|--unmap|--rod|--repair|-[a-z])(?=[\] ])", text))
            self.assertLessEqual(options, set(self.answers(first)), command)

    def test_every_option_of_tarnctl_is_there(self):
        shown = run([PROGRAMS["tarnctl"], "--help"]).stdout
        commands = re.findall(r"^  ([a-z]+) ", shown[shown.index("Subcommands"):], re.M)
        self.assertEqual(len(commands), 8)
        self.assertLessEqual(set(commands), set(self.answers("tarnctl ")))
        for command in commands:
            options = set(re.findall(r"^ +(?:-\w,)?(--[\w-]+)",
                                     run([PROGRAMS["tarnctl"], command, "--help"]).stdout, re.M))
            self.assertEqual(options, set(self.answers(f"tarnctl {command} -")), command)

    def test_every_option_of_tarn_lab_is_there(self):
        shown = run([PROGRAMS["tarn-lab"], "--help"]).stdout
        parts = re.split(r"^  tarn-lab (\w+)", shown, flags=re.M)[1:]
        self.assertEqual(sorted(parts[::2] + ["--help", "--version"]), self.answers("tarn-lab "))
        for command, text in zip(parts[::2], parts[1::2]):
            usage = text[:re.search(r"^      \w", text, re.M).start()]
            self.assertEqual(sorted(re.findall(r"--[a-z]+", usage)),
                             self.answers(f"tarn-lab {command} DIR -"), command)

    @needs("zsh")
    def test_zsh_completes_by_the_same_functions(self):
        for line, wanted in (("tarn --onekeyr", "--onekeyrepair"), ("tarn --set-status abn", "abnormal"),
                             ("tarnctl export LUN_3", "LUN_30"), ("tarn-lab age DIR --c", "--clean")):
            text = ZSH.format(directory=COMPLETION, line=shlex.quote(line))
            got = run(["timeout", "30", "zsh", "-f", "-c", text], **self.environment())
            self.assertRegex(got.stdout, rf"\n{wanted}\W")


if __name__ == "__main__":
    main()
