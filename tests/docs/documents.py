"""The documents, and the command lines that they show.

A command line runs tarn, tarnctl, tarn-lab or nbdkit. It is an indented line, a line of a ```sh block,
an example of a manual page, or stands in backticks (.Ql in a manual page). Left out is what other
tests run: the sessions, whose commands begin with "$ " (tests/ctl/session_test.cpp), and the blocks of
docs/repair.md, which a robot types (tests/campaign/guide_test.cpp)."""
import re

from installed import SOURCES

# The program stands first, or after an operator, a word of the shell, an assignment or a path.
COMMAND = re.compile(r"(?:^(?:\$ )?|[|;&(='/{!] *|\b(?:exec|sudo|do|then|if|while|root|Next:) |\b[A-Z_]+=\S+ )"
                     r"(?:tarn|tarnctl|tarn-lab|nbdkit) \S")
SESSION = "    $ "


def pages():
    """The pages for readers, without docs/messages.md: tests/ctl/explain_messages_test.cpp has that one."""
    top = [SOURCES / name for name in ("README.md", "CONTRIBUTING.md", "SECURITY.md")]
    return [each for each in top + sorted((SOURCES / "docs").glob("*.md"))
            if each.exists() and each.name != "messages.md"]


def manuals():
    return sorted((SOURCES / "man").glob("*.[158]"))


def without_sessions(lines):
    """The lines, blank where a session is: from its first command up to the next text."""
    inside = False
    for line in lines:
        inside = line.startswith(SESSION) or (inside and (not line or line.startswith("    ")))
        yield "" if inside else line


def split(text, robot_types_blocks):
    """The lines of code, and the lines of text; each list is blank where the other has a line."""
    code, prose, fenced = [], [], False
    for line in without_sessions(text.split("\n")):
        fence = line.startswith("```")
        fenced = fenced != fence
        is_code = fence or fenced or line.startswith("    ")
        code.append(line if is_code and not (fence or fenced and robot_types_blocks) else "")
        prose.append("" if is_code else line)
    return code, prose


def joined(lines):
    """(number, line) of each line; one that ends with a backslash goes on in the next one."""
    begun = ""
    for number, line in enumerate(lines, 1):
        if line.endswith("\\"):
            begun += line[:-1]
            continue
        yield number, begun + line
        begun = ""


def plain(line):
    """A command line without its comment and the blanks around it."""
    return " ".join(re.sub(r"  +# .*", "", line).split())


def of_markdown(text, robot_types_blocks):
    code, prose = split(text, robot_types_blocks)
    for number, line in joined(code):
        yield number, plain(line)
    body = "\n".join(prose)
    for found in re.finditer(r"`([^`]+)`", body):
        yield body[:found.start()].count("\n") + 1, plain(found.group(1).replace("\\|", "|"))


def of_manual(text):
    text = re.sub(r"\\&", "", text).replace("\\-", "-").replace("\\(aq", "'").replace("\\e", "\\")
    literal = False
    for number, line in joined(text.split("\n")):
        literal = (literal or line.startswith(".Bd -literal")) and line != ".Ed"
        inline = re.match(r"\.(?:Dl|Ql) (.*?)(?: [.,;)])?$", line)
        if literal or inline:
            yield number, plain(inline.group(1) if inline else line)


def lines_of(page):
    """(number, command line) of each command line of a page."""
    text = page.read_text(encoding="utf-8")
    found = of_manual(text) if page.suffix != ".md" else of_markdown(text, page.name == "repair.md")
    return [(number, line) for number, line in found if COMMAND.search(line)]
