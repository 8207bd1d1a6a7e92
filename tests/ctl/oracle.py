"""A second opinion on a server: which findings its bytes amount to.

    oracle.py PLATFORM_CONF

prints `CODE volume place` for each finding that no other one explains, one place a line. It is meant
for small servers: everything is held in dictionaries, and nothing is clever. It is written from
docs/formats.md and the catalogue of findings alone, and shares no file with tarnctl.
"""
import collections
import os
import struct
import sys

from metadata_bytes import *  # noqa: F403 - the names of the format
from oracle_headers import judge_header, read_header
from oracle_maps import find_maps, judge_maps
from oracle_lists import in_damaged_block, judge_lists


class Server:
    """What a server's bytes amount to: `found` maps (code, volume, place) to whether another
    finding explains it."""

    def __init__(self):
        self.found = {}
        self.volumes = []

    def say(self, code, volume, place, explained=False):
        key = (code, volume.name if volume else '', place)
        self.found[key] = self.found.get(key, True) and explained

    def found_any(self, code):
        return any(key[0] == code for key in self.found)


class Volume:
    def __init__(self, server, root):
        self.server, self.root, self.name = server, root, os.path.basename(root)
        self.has_table = self.has_index = False
        self.uuid = None  # the table's, when its node can be believed
        self.words, self.entries = {}, {}  # lpa: table word; group: (next, head, count, initialised)
        self.bad_table_blocks, self.bad_index_blocks = set(), set()
        self.references = collections.Counter()
        self.doubtful = set()  # extents that an entry names which is itself a finding
        self.complete = True   # every map was read to its end
        self.far = False       # an entry names an extent past the end
        self.shift, self.end = None, EXTENTS_MAX

    def say(self, code, place, explained=False):
        self.server.say(code, self, place, explained)


def judge_table_header(volume, path):
    nodes, volume.has_table = judge_header(volume, path, TABLE)
    wrong = False
    if nodes[0] is not None:
        wrong = struct.unpack_from('<Q', nodes[0], 36)[0] != BLOCKS_AT
        volume.uuid = nodes[0][20:36]
    if nodes[1] is not None:
        extent, entry, total = struct.unpack_from('<IIQ', nodes[1], 4)
        power = extent.bit_length() - 1
        if power in range(9, 31) and extent == 1 << power:
            volume.shift = power
        wrong = wrong or volume.shift is None or entry != 2 or total > EXTENTS_MAX
    if wrong:
        volume.say('H03', '@EP/EP_TBL')
    return nodes[0] if volume.has_table else None


def judge_index_header(volume, path):
    nodes, volume.has_index = judge_header(volume, path, INDEX)
    volume.group_count = volume.free = volume.head = None
    wrong = nodes[0] is not None and struct.unpack_from('<Q', nodes[0], 36)[0] != BLOCKS_AT
    if nodes[1] is not None:
        entry, volume.group_count = struct.unpack_from('<IQ', nodes[1], 4)
        wrong = wrong or entry != 8 or volume.group_count > GROUPS_MAX
    if nodes[2] is not None:
        volume.free, volume.head = struct.unpack_from('<QQ', nodes[2], 4)
        wrong = wrong or volume.free > EXTENTS_MAX
    if wrong:
        volume.say('H03', '@EP/EP_FRI')
    return nodes[0] if volume.has_index else None


def judge_blocks(volume, path, code, unsummed):
    """The blocks of a table or an index, and the numbers of those with a wrong checksum."""
    blocks, bad = blocks_of(path), set()
    for number, block in blocks.items():
        stored = struct.unpack_from('<I', block, 508)[0]
        if stored == 0:
            if unsummed:
                volume.say(unsummed, 'block %d' % number)
        elif stored != block_sum(block):
            volume.say(code, 'block %d' % number)
            bad.add(number)
    return blocks, bad


def read_table(volume, path):
    blocks, volume.bad_table_blocks = judge_blocks(volume, path, 'T01', 'T04')
    for number, block in blocks.items():
        for slot, word in enumerate(struct.unpack_from('<252H', block)):
            if word:
                volume.words[number * TABLE_SLOTS + slot] = word


def read_index(volume, path):
    blocks, volume.bad_index_blocks = judge_blocks(volume, path, 'F01', None)
    for number, block in blocks.items():
        for slot in range(INDEX_SLOTS):
            low, middle, last = struct.unpack_from('<IHH', block, slot * 8)
            if low or middle or last:
                volume.entries[number * INDEX_SLOTS + slot] = (
                    low | (middle & 15) << 32, middle >> 4, last & COUNT, bool(last & INITIALISED))


def judge_data_files(volume):
    directory = os.path.join(volume.root, '@EP')
    volume.data_files = {int(name[7:]): os.path.join(directory, name)
                         for name in os.listdir(directory) if name.startswith('EP_DAT_')}
    numbers = sorted(volume.data_files)
    if not numbers:
        volume.say('D05', '')
    elif volume.shift is not None:
        volume.end = min((numbers[-1] + 1) << 42 - volume.shift, EXTENTS_MAX)
    for before, number in zip([-1] + numbers, numbers):
        if before + 1 < number:
            volume.say('D01', '@EP/EP_DAT_%05d' % (before + 1))
    for number in numbers:
        place = '@EP/EP_DAT_%05d' % number
        node = read_header(volume.data_files[number], DATA)[0]
        if node is None or struct.unpack_from('<Q', node, 8)[0] != MAGIC:
            volume.say('D03', place)
        else:
            volume.pools[place] = node[20:36]


def judge_volume(volume):
    volume.maps = find_maps(volume)
    volume.pools = {}  # by file, the table first
    for name, judge_file, read in (('EP_TBL', judge_table_header, read_table),
                                   ('EP_FRI', judge_index_header, read_index)):
        place = '@EP/' + name
        path = os.path.join(volume.root, place)
        if os.path.isfile(path):
            head = judge_file(volume, path)
            read(volume, path)
            if head is not None:
                volume.pools[place] = head[20:36]
        elif volume.maps:
            volume.say('H05', place)
    judge_data_files(volume)
    for name in ('@EP_CHK', '@EP_FIX'):
        if os.path.isdir(os.path.join(volume.root, name)):
            volume.say('S02', name)


def judge_identities(server):
    """One uuid on two maps, or on tables or indexes of two volumes; disagreement; no uuid."""
    owners = collections.defaultdict(list)
    for volume in server.volumes:
        for one in volume.maps:
            if one.uuid is not None:
                owners['map', one.uuid].append((volume, one.place))
        for place, uuid in volume.pools.items():
            if place in ('@EP/EP_TBL', '@EP/EP_FRI'):
                owners['pool', uuid].append((volume, place))
            if uuid != next(iter(volume.pools.values())):
                volume.say('P02', place)
    for (kind, uuid), places in owners.items():
        if not any(uuid):
            for volume, place in places:
                volume.say('P03', place)
        elif len(places if kind == 'map' else {volume for volume, _ in places}) > 1:
            server.say('P01', None, uuid.hex())


def judge_reference(volume, lpa):
    """What the table says of one extent against what the maps say."""
    word, named = volume.words.get(lpa, 0), volume.references[lpa]
    hidden = lpa // TABLE_SLOTS in volume.bad_table_blocks
    explained = hidden or lpa in volume.doubtful
    place = 'lpa %d' % lpa
    counted = word & LOW
    if not word & USED:
        if named:
            volume.say('R01', place, explained)
        return
    if counted == 0:
        volume.say('T02', place, hidden)
    if lpa >= volume.end and volume.far:
        return
    if named > counted:
        volume.say('R02', place, explained)
    elif named == counted == LOW:
        volume.say('R05', place, explained)
    elif named < counted and volume.complete:
        volume.say('R03' if named else 'R04', place, explained)


def judge_place(volume, lpa):
    """An extent in use: does its data file reach so far, and does its group exist?"""
    hidden = lpa // TABLE_SLOTS in volume.bad_table_blocks
    if volume.shift is not None and volume.data_files:
        per_file = 42 - volume.shift
        path = volume.data_files.get(lpa >> per_file)
        end = BLOCKS_AT + ((lpa & (1 << per_file) - 1) + 1 << volume.shift)
        if path is not None and os.path.getsize(path) < end:
            volume.say('D02', 'lpa %d' % lpa, hidden)
    group = lpa // GROUP
    if volume.has_index and not volume.entries.get(group, (0, 0, 0, False))[3]:
        volume.say('T03', 'group %d' % group, in_damaged_block(volume, group))


def judge_extents(volume):
    used = {lpa for lpa, word in volume.words.items() if word & USED}
    for lpa in used | set(volume.references):
        judge_reference(volume, lpa)
    for lpa in used:
        judge_place(volume, lpa)


def read_configuration(path):
    values = {}
    with open(path, encoding='utf-8') as file:
        for line in file:
            if '=' in line:
                key, value = line.split('=', 1)
                values[key.strip()] = value.strip()
    return values


def judge_journal(server, path):
    if not os.path.exists(path):
        return
    nodes = read_header(path, JOURNAL)
    status = struct.unpack_from('<I', nodes[2], 4)[0] if nodes[2] else None
    if status != STATUS['success']:
        server.say('J01', None, '')


def judge(configuration):
    server = Server()
    values = read_configuration(configuration)
    for root in values['volumes'].split():
        if not os.path.isdir(root) or not os.listdir(root):
            server.say('S01', Volume(server, root), '')
        else:
            server.volumes.append(Volume(server, root))
    for volume in server.volumes:
        judge_volume(volume)
    known = None not in [volume.uuid for volume in server.volumes] and not server.found_any('S01')
    pools = {volume.uuid for volume in server.volumes} if known else None
    for volume in server.volumes:
        judge_maps(volume, pools)
        if volume.has_table:
            judge_extents(volume)
            if volume.has_index:
                judge_lists(volume)
    judge_identities(server)
    judge_journal(server, os.path.join(values['journal_root'], 'EP_JNL'))
    return server.found


if __name__ == '__main__':
    for finding, explained in sorted(judge(sys.argv[1]).items()):
        if not explained:
            print(' '.join(finding))
