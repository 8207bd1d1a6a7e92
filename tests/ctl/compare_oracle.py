"""Holds `tarnctl check` against the oracle.

    compare_oracle.py [--tarnctl PROGRAM] FROM TO [DIRECTORY]

makes the random servers with seeds FROM to TO - 1 below DIRECTORY (/dev/shm), a part of them damaged,
and prints every finding that only one of the two has, and how often each code came up. Fails if they
differ. `--keep` leaves the last server where it is.
"""
import argparse
import collections
import json
import os
import random
import shutil
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True  # the tests stay as they are

import damages  # noqa: E402
import random_server  # noqa: E402
from oracle import judge  # noqa: E402

SKIPPED = {'J02', 'J03', 'J04', 'J05', 'J06', 'J08', 'S07', 'X01', 'D04'}
PLACES = ('lpa', 'group', 'block', 'node', 'lea')
IN_FILE = {'M01', 'M02', 'M04', 'M08', 'R06', 'R07'}  # file and place
BY_VOLUME = {'F07', 'F10', 'F11', 'F12', 'S01', 'J01', 'D05'}


def expand(text, first, count):
    return [text % place for place in range(int(first), int(first) + int(count))]


def places_of(record):
    """The single places that a finding stands for, as the oracle writes them."""
    code, file = record['code'], record.get('file', '')
    if code in BY_VOLUME:
        return ['']
    if code == 'M07':
        return ['%s row %s' % (file, record['was'])]
    if code in IN_FILE and code not in ('M01', 'M02'):  # entries: every range of the one owner
        return [place for run in record['owners'][0]['ranges']
                for place in expand(file + ' lea %d', run['lea'], run['count'])]
    if code == 'M02':
        return [file + ' node %d' % (lea // 63) for run in record['owners'][0]['ranges']
                for lea in range(int(run['lea']), int(run['lea']) + int(run['count']), 63)]
    for kind in PLACES:
        if kind in record:
            text = file + ' ' + kind if code in IN_FILE else kind
            return expand(text + ' %d', record[kind]['first'], record[kind]['count'])
    return [file]


def findings_of(output):
    found = {}
    for line in output.splitlines():
        record = json.loads(line)
        if record['record'] != 'finding' or record['code'] in SKIPPED:
            continue
        volume = os.path.basename(record.get('volume') or '')
        explained = record['because'] is not None
        if record['code'] == 'P01':  # one finding for each file but the first
            found['P01', '', record['was']] = False
            continue
        for place in places_of(record):
            key = record['code'], volume, place
            found[key] = found.get(key, True) and explained
    return found


def make_server(directory, seed):
    """Three of four servers are damaged. Returns the server and the damages' names."""
    dice = random.Random(seed)
    server = random_server.make(directory, dice)
    count = 0 if seed % 4 == 0 else dice.randint(1, 3)
    return server, damages.hit(dice, server, count)


def check(program, configuration, options):
    """What the program finds, or what went wrong with it."""
    try:
        run = subprocess.run([program, 'check', '--json', '--all', *options], capture_output=True,
                             text=True, timeout=20, check=False,
                             env={**os.environ, 'TARN_PLATFORM_CONF': configuration})
    except subprocess.TimeoutExpired:
        return None, 'does not end'
    if run.stderr or run.returncode not in (0, 3, 4, 5, 6):
        return None, 'status %d: %s' % (run.returncode, run.stderr.strip())
    return findings_of(run.stdout), None


def differences(program, server, expected):
    """What only one of the two says, of the files as they stand."""
    clean = ('J01', '', '') not in expected
    ways = [['--raw'], ['--memory', '1M'] if clean else ['--raw', '--memory', '1M']]
    wrong = []
    for way in ways:
        found, problem = check(program, server.configuration, way)
        if problem:
            return [' '.join(way) + ' ' + problem]
        for names, left, right in (('only tarnctl', found, expected),
                                   ('only the oracle', expected, found)):
            for key in sorted(left):
                if not left[key] and key not in right:
                    wrong.append('%s: %s' % (names, ' '.join(key)))
                elif not left[key] and right[key]:
                    wrong.append('%s, the other explains it: %s' % (names, ' '.join(key)))
        if wrong:
            return wrong
    return []


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--tarnctl', default='tarnctl')
    parser.add_argument('--keep', action='store_true')
    parser.add_argument('first', type=int)
    parser.add_argument('end', type=int)
    parser.add_argument('directory', nargs='?', default='/dev/shm')
    options = parser.parse_args()
    codes, equal = collections.Counter(), 0
    directory = tempfile.mkdtemp(prefix='o', dir=options.directory)
    for seed in range(options.first, options.end):
        shutil.rmtree(directory)
        os.mkdir(directory)
        server, names = make_server(directory, seed)
        expected = judge(server.configuration)
        codes.update({key[0] for key in expected})
        wrong = differences(options.tarnctl, server, expected)
        equal += not wrong
        if not wrong and not names and set(codes_of(expected)) - {'F11', 'F12', 'R05'}:
            wrong = ['a sound server with findings']
        for line in wrong[:12]:
            print('seed %d (%s): %s' % (seed, ' '.join(names), line))
    if options.keep:
        print(directory)
    else:
        shutil.rmtree(directory)
    for code in sorted(codes):
        print('code %s %d' % (code, codes[code]))
    print('equal %d of %d' % (equal, options.end - options.first))
    return 0 if equal == options.end - options.first else 1


def codes_of(expected):
    return [key[0] for key in expected]


if __name__ == '__main__':
    sys.exit(main())
