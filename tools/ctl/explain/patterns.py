#!/usr/bin/env python3
"""Collects every message that the program can log or print, and joins each one with its words.

    patterns.py --list SRC              prints the messages, one a line
    patterns.py SRC MESSAGES OUT        writes the table that `tarnctl explain` is built with

SRC is the directory of the program's sources, MESSAGES the page docs/messages.md. The messages are
read from the calls themselves, so none can be forgotten: a message without words, words without a
message, and a call that this script does not understand end the build.
"""
import re
import sys
from pathlib import Path

# Calls that make a message: the argument that holds its format, and where the name in front of it
# comes from: an argument's number, FUNC (the function around it) or NOBODY.
FUNC, NOBODY = 'func', 'nobody'
CALLS = {
    'log_err': ('log', 0, FUNC), 'log_err_as': ('log', 1, 0), 'log_note_as': ('log', 1, 0),
    'log_keep': ('log', 1, FUNC), 'log_keep_as': ('log', 2, 0), 'log_service': ('log', 0, NOBODY),
    'tarn_log': ('log', 0, NOBODY), 'platform_report': ('log', 0, NOBODY),
    'keep_journal': ('reason', 1, NOBODY),  # only quoted, behind "the first: "
    'printf': ('output', 0, NOBODY), 'puts': ('output', 0, NOBODY), 'trace': ('output', 0, NOBODY),
}
# Pieces of a line that another call begins: the value behind a label, the digits of a uuid.
CONTINUATIONS = {
    'store/field_rows.cpp': {'%llu', '%d', '0x%X', '0x%08x', '%08x', '%s'},
    'cli/sub_options.cpp': {'%02x', ']', '%s', ''},
}
# Formats whose words come from a table or an argument, with the lines that they make. Each word
# here must stand in a literal of the sources.
MADE_OF_TABLES = {
    ('volume/metadata_files.cpp', '%s %s'): [
        'Fail to load FRI %s', 'Fail to load TBL %s', 'Fail to load MAP %s', 'Fail to load JNL %s'],
    ('volume/full_check.cpp', '%s (%s)'): ['Fail to load TBL (%s)', 'Fail to load FRI (%s)'],
    ('volume/discovery.cpp', 'TARN_INFO: %s %s %s'): [
        'TARN_INFO: UNMAP %s exists', "TARN_INFO: UNMAP %s doesn't exist",
        'TARN_INFO: ROD %s exists', "TARN_INFO: ROD %s doesn't exist"],
    ('volume/import_list.cpp', 'TARN_INFO: %s(%s)'): ['TARN_INFO: import MAP(%s)'],
    ('store/field_rows.cpp', 'TARN_INFO: %s'): [],  # the labels of FIELD_ROW
    ('jnl/jnl_dump.cpp', 'TARN_INFO: %s%s'): [],
    ('jnl/jnl_dump.cpp', 'TARN_INFO: %s'): [],
    ('cli/sub_options.cpp', 'Input UUID['): ['Input UUID[%s]'],
    ('cli/sub_options.cpp', 'none-option argv element:'): ['none-option argv element:%s'],
    ('cli/punch_command.cpp', 'Do you wants to PUCH the data?(YES/NO) [NO]:'): [
        'Do you wants to PUCH the data?(YES/NO) [NO]: %s'],
}
# How print_fields writes the value behind a label.
FIELD_VALUES = {
    'number': '%llu', 'signed_number': '%d', 'low_hex': '0x%X', 'hex': '0x%08x',
    'bare_hex': '%08x', 'uuid': '%s', 'blank_uuid': '%s', 'words': '%s', 'image': '',
}
CONVERSION = re.compile(r'%(?:%|[-0-9.*]*(?:ll|l|z|h)?[a-zA-Z])')
TOKEN = re.compile(r'''"(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])*'|[A-Za-z_]\w*|->|::|\.\.\.|\S''')
COMMENT = re.compile(r'//[^\n]*|/\*.*?\*/|("(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\')', re.S)
# Deliberate: functions begin in the first column, as the formatter puts them.
FUNCTION = re.compile(r'^(?:static |template |inline )*[A-Za-z_][\w:<>,*& ]*?[ *&:]([a-z_]\w*)\(')
ESCAPES = {'n': '\n', 't': '\t', 'r': '\r', '0': '\0'}  # any other character is itself


class Wrong(Exception):
    """What ends the build, in words."""


def unescape(literal):
    """The bytes of a string literal, without colours."""
    text = re.sub(r'\\x1b\[\d+m|\\033\[\d+m', '', literal[1:-1])
    return re.sub(r'\\(.)', lambda found: ESCAPES.get(found.group(1), found.group(1)),
                  text)


def normal(text):
    """The first line of a format, every run of blanks one blank."""
    for prefix in ('ERR: %s(%d) ', '%s(%d) ', '%s:%d'):
        text = text.removeprefix(prefix)
    return re.sub(r'\s+', ' ', text.strip('\n').split('\n')[0]).strip()


def words_of(text):
    return re.findall(r'[A-Za-z]+', CONVERSION.sub(' ', text))


def is_weak(text):
    """Whether nothing but conversions would be left to recognise the line by."""
    own = CONVERSION.sub('', text.removeprefix('TARN_INFO:').removeprefix('TARN_RPT:'))
    return not own.strip(' ():,[]')


class Source:
    """One file: its tokens with their lines, and the names that stand for literals in it."""

    def __init__(self, path, root):
        self.name = path.relative_to(root).as_posix()
        text = COMMENT.sub(lambda found: found.group(1) or
                           '\n' * found.group(0).count('\n'), path.read_text())
        self.macros = dict(re.findall(r'^#define (\w+) ("[^\n]*")$', text, re.M))
        text = re.sub(r'^#(?:[^\n]*\\\n)*[^\n]*', lambda found: '\n' * found.group(0).count('\n'),
                      text, flags=re.M)
        self.functions = self.find_functions(text)
        self.tokens, self.lines, line, at = [], [], 1, 0
        for found in TOKEN.finditer(text):
            line += text.count('\n', at, found.start())
            at = found.start()
            self.tokens.append(found.group(0))
            self.lines.append(line)
        self.constants = self.find_constants()

    @staticmethod
    def find_functions(text):
        lines = text.split('\n')
        found = [(0, '')]
        for number, line in enumerate(lines, 1):
            match = FUNCTION.match(re.sub(r'\[\[.*?\]\] *', '', line))
            end = next((one for one in lines[number - 1:] if one.rstrip()[-1:] in ('{', ';', '}')),
                       ';')
            if match and not end.rstrip().endswith(';'):
                found.append((number, match.group(1)))
        return found

    def function_at(self, line):
        return [one for one in self.functions if one[0] <= line][-1]

    def find_constants(self):
        """[name, first line of its scope, line, tokens] of what is set to one literal or __func__."""
        found = []
        for i, token in enumerate(self.tokens):
            if token != '=' or not self.tokens[i + 1].startswith(('"', '__func__')):
                continue
            name = self.tokens[i - 1] if self.tokens[i - 1] != ']' else \
                self.tokens[i - 2 if self.tokens[i - 2] != '[' else i - 3]
            end = self.tokens.index(';', i)
            scope, in_function = self.function_at(self.lines[i])[0], self.is_inside(i)
            found.append((name, scope if in_function else 0, self.lines[i],
                          self.tokens[i + 1:end]))
        return found

    def is_inside(self, index):
        return self.tokens[:index].count('{') > self.tokens[:index].count('}')

    def constant(self, name, line):
        start = self.function_at(line)[0]
        for known, scope, at, tokens in reversed(self.constants):
            if known == name and at <= line and scope in (0, start):
                return tokens
        return None


def arguments(tokens, at):
    """The arguments of the call whose '(' is at `at`, each a list of tokens."""
    depth, found = 0, [[]]
    for token in tokens[at:]:
        if token in '([{':
            depth += 1
            if depth == 1:
                continue
        elif token in ')]}':
            depth -= 1
            if depth == 0:
                return found
        if token == ',' and depth == 1:
            found.append([])
        else:
            found[-1].append(token)
    raise Wrong('a call does not end')


class Collector:
    """The messages of all files: format -> {kinds, functions, places}."""

    def __init__(self, root):
        paths = sorted(list(root.rglob('*.cpp')) + list(root.rglob('*.h')))
        paths += sorted((root.parent / 'include').glob('*.h'))
        self.sources = [Source(path, root if path.is_relative_to(root) else root.parent)
                        for path in paths]
        self.macros = {}
        self.globals = {}
        self.words = set()
        for source in self.sources:
            self.macros.update(source.macros)
            self.globals.update({c[0]: c[3] for c in source.constants if c[1] == 0})
            for token in source.tokens:
                if token.startswith('"'):
                    self.words.update(words_of(unescape(token)))
        for name in [name for name in self.macros if name.startswith('UUID_')]:
            self.macros[name] = '"%s"'
        self.messages = {}
        for source in self.sources:
            self.collect(source)

    def literals(self, source, tokens, line):
        """The texts that an argument can have; none if it is no literal."""
        texts, run = [], []
        for token in tokens + ['?']:
            known = source.constant(token, line) or self.globals.get(token)
            if token.startswith('"'):
                run.append(unescape(token))
            elif token in self.macros:
                run.append(unescape(self.macros[token]))
            elif known and known[0].startswith('"'):
                run.append(''.join(unescape(one) for one in known))
            elif run:
                texts.append(''.join(run))
                run = []
        return texts

    def name_of(self, source, tokens, line):
        """The function that the log names, '' if it is known only at run time."""
        function = source.function_at(line)[1]
        if tokens == ['__func__']:
            return function
        known = source.constant(tokens[0], line) or self.globals.get(tokens[0]) or tokens
        return function if known == ['__func__'] else \
            unescape(known[0]) if known[0].startswith('"') else ''

    def collect(self, source):
        for i, token in enumerate(source.tokens[:-1]):
            if source.tokens[i + 1] != '(':
                continue
            line = source.lines[i]
            if token == 'FIELD_ROW':
                self.add_field(source, arguments(source.tokens, i + 1))
            elif token in CALLS:
                self.add_call(source, CALLS[token], arguments(source.tokens, i + 1), line)

    def add_field(self, source, given):
        label = self.literals(source, given[2], 0)
        if label:
            text = 'TARN_INFO: ' + label[0].rstrip(' ') + ' ' + FIELD_VALUES[given[3][0]]
            self.add(source, 0, normal(text), 'output', '')

    def add_call(self, source, call, given, line):
        kind, at, name = call
        if len(given) <= at or 'const' in given[at] or given[at] in (['format'], ['message']):
            return  # a declaration, or the call that a wrapper is made of
        if any(len(one) > 1 and one[-2] == '*' and one[-1].isidentifier() and 'const' in one
               for one in given):
            return
        texts = self.literals(source, given[at], line)
        if not texts:
            raise Wrong(f'{source.name}:{line}: the format is no literal')
        function = '' if name == NOBODY else source.function_at(line)[1] if name == FUNC \
            else self.name_of(source, given[name], line)
        for text in texts:
            for made in self.made(source, normal(text), given[at + 1:], line):
                self.add(source, line, made, kind, function)

    def made(self, source, text, values, line):
        """The messages of one format: itself, or what tables and arguments make of it."""
        if text in CONTINUATIONS.get(source.name, ()):
            return []
        table = MADE_OF_TABLES.get((source.name, text))
        if table is not None:
            for missing in {word for made in table for word in words_of(made)} - self.words - \
                    {'TARN', 'INFO'}:
                raise Wrong(f'{source.name}:{line}: no literal has the word {missing}')
            return table
        if not is_weak(text):
            return [text]
        for value in values:
            literal = self.literals(source, value, line)
            if literal:
                return [normal(text.replace('%s', literal[0].strip('\n'), 1))]
        raise Wrong(f'{source.name}:{line}: nothing to recognise "{text}" by')

    def add(self, source, line, text, kind, function):
        message = self.messages.setdefault(text, {'kinds': set(), 'functions': set(),
                                                  'places': []})
        message['kinds'].add(kind)
        message['places'].append(f'{source.name}:{line}')
        message['functions'].add(function)


FIELDS = ('Means', 'Risk', 'Normal', 'Next')
MORE_FIELDS = ('Harmless', 'Example')  # of one entry only, each as often as needed
RISKS, NORMALS = ('none', 'possible', 'yes'), ('yes', 'no')


def read_page(path):
    """literal -> {field: text} of the page; a group's own fields hold for its entries."""
    entries, group, current, field = {}, {}, {}, None
    for number, line in enumerate(path.read_text().split('\n'), 1):
        found = re.match(r'- (\w+): (.*)$', line)
        heading = re.match(r'### `(.*)`$', line)
        if line.startswith('## '):
            group = current = {'group': line[3:]}
        elif heading:
            if heading.group(1) in entries:
                raise Wrong(f'{path}:{number}: a second entry of {heading.group(1)}')
            current = entries[heading.group(1)] = dict(group, line=number)
        elif line.startswith('###'):
            raise Wrong(f'{path}:{number}: a heading that is no message')
        elif found:
            field = found.group(1)
            if field not in FIELDS + MORE_FIELDS:
                raise Wrong(f'{path}:{number}: unknown field {field}')
            if field in MORE_FIELDS:
                current.setdefault(field, []).append(found.group(2))
                field = None
            else:
                current[field] = found.group(2)
            continue
        elif line.startswith('  ') and field:
            current[field] += ' ' + line.strip()
            continue
        field = None
    for text, entry in entries.items():
        check_entry(path, text, entry)
    return entries


def check_entry(path, text, entry):
    for field in FIELDS:
        if not entry.get(field):
            raise Wrong(f'{path}:{entry["line"]}: `{text}` has no field {field}')
    for field, words in (('Risk', RISKS), ('Normal', NORMALS)):
        if entry[field].split()[0].strip('.,') not in words:
            raise Wrong(f'{path}:{entry["line"]}: {field} begins with none of {words}')


def quoted(text):
    return '"' + text.replace('\\', '\\\\').replace('"', '\\"') + '"'


def row(text, message, entry):
    harmless = '\\n'.join(quoted(form.strip('`'))[1:-1] for form in entry.get('Harmless', []))
    kinds = [kind for kind in ('log', 'output', 'reason') if kind in message['kinds']]
    names = '' if '' in message['functions'] else ' '.join(sorted(message['functions']))
    plain = {field: entry[field].replace('`', "'").replace('**', '') for field in FIELDS}
    return (f'    {{{quoted(text)}, message_kind::{kinds[0]}, {quoted(names)},\n'
            f'     message_risk::{entry["Risk"].split()[0].strip(".,")}, '
            f'{"true" if entry["Normal"].startswith("yes") else "false"}, "{harmless}",\n     ' +
            ',\n     '.join(quoted(plain[field]) for field in FIELDS) + '},\n')


def write_table(messages, entries, out):
    rows = ''.join(row(text, messages[text], entries[text]) for text in sorted(messages))
    out.parent.mkdir(parents=True, exist_ok=True)
    out.write_text('// Made by patterns.py from the messages of the program and docs/messages.md.\n'
                   '#include "ctl/explain/messages.h"\n\n'
                   'static constexpr message_row rows[] = {\n' + rows + '};\n\n'
                   'std::span<const message_row> all_messages() {\n    return rows;\n}\n')


def complain(messages, entries, page):
    missing = sorted(set(messages) - set(entries))
    extra = sorted(set(entries) - set(messages))
    for text in missing:
        print(f'{messages[text]["places"][0]}: no entry in {page}: {text}', file=sys.stderr)
    for text in extra:
        print(f'{page}:{entries[text]["line"]}: no message reads: {text}', file=sys.stderr)
    return bool(missing or extra)


def main(given):
    if len(given) == 2 and given[0] == '--list':
        for text, message in sorted(Collector(Path(given[1])).messages.items()):
            print('/'.join(sorted(message['kinds'])), text, sep='\t')
        return 0
    if len(given) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    messages = Collector(Path(given[0])).messages
    entries = read_page(Path(given[1]))
    if complain(messages, entries, given[1]):
        return 1
    write_table(messages, entries, Path(given[2]))
    return 0


if __name__ == '__main__':
    try:
        sys.exit(main(sys.argv[1:]))
    except Wrong as wrong:
        sys.exit(f'patterns.py: {wrong}')
