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
from oracle_maps import find_maps, judge_maps
from oracle_lists import judge_lists


class Server:
    """What a server's bytes amount to: `found` maps (code, volume, place) to whether another
    finding explains it."""

    def __init__(self):
        self.found = {}
        self.volumes = []

    def say(self, code, volume, place, explained=False):
        key = (code, volume.name if volume else '', place)
        self.found[key] = self.found.get(key, True) and explained


class Volume:
    def __init__(self, server, root):
        self.server, self.root, self.name = server, root, os.path.basename(root)
        self.table = self.index = None     # headers that can be believed
        self.words, self.entries = {}, {}  # lpa: table word; group: (next, head, count, initialised)
        self.bad_table_blocks, self.bad_index_blocks = set(), set()
        self.references = collections.Counter()
        self.doubtful = set()  # extents that an entry of a damaged node names
        self.complete = True   # every map was read to its end
        self.shift, self.end = None, 0

    def say(self, code, place, explained=False):
        self.server.say(code, self, place, explained)


def read_header(path, kind):
    """The nodes' payloads, None for one with a wrong checksum."""
    nodes = []
    for number in range(sum(NODES[kind])):
        node = read_at(path, node_offset(kind, number), 64)
        stored = struct.unpack_from('<I', node)[0]
        nodes.append(node if not any(node) or stored == node_sum(node) else None)
    return nodes


def judge_header(volume, path, kind):
    """The nodes of a header that can be believed, else None."""
    place = os.path.relpath(path, volume.root)
    nodes = read_header(path, kind)
    if None in nodes:
        volume.say('H01', place)
    if nodes[0] is not None:
        version, magic, word = struct.unpack_from('<IQI', nodes[0], 4)
        if magic != MAGIC or word != kind:
            volume.say('H02', place)
            return None
        if kind != MAP and version != VERSION:
            volume.say('H04', place)
    return None if None in nodes else nodes


def judge_table_header(volume, path):
    nodes = judge_header(volume, path, TABLE)
    if nodes is None:
        return
    offset = struct.unpack_from('<Q', nodes[0], 36)[0]
    extent, entry, total = struct.unpack_from('<IIQ', nodes[1], 4)
    power = extent.bit_length() - 1
    right = extent == 1 << max(power, 0) and 9 <= power <= 30
    if not right or entry != 2 or offset != BLOCKS_AT or total > EXTENTS_MAX:
        volume.say('H03', '@EP/EP_TBL')
    if right:
        volume.shift = power
    volume.table = nodes


def judge_index_header(volume, path):
    nodes = judge_header(volume, path, INDEX)
    if nodes is None:
        return
    offset = struct.unpack_from('<Q', nodes[0], 36)[0]
    entry, volume.group_count = struct.unpack_from('<IQ', nodes[1], 4)
    volume.free, volume.head = struct.unpack_from('<QQ', nodes[2], 4)
    if (entry != 8 or offset != BLOCKS_AT or volume.group_count > GROUPS_MAX
            or volume.free > EXTENTS_MAX):
        volume.say('H03', '@EP/EP_FRI')
    volume.index = nodes


def judge_blocks(volume, path, code, unsummed):
    """The blocks of a table or an index, and the numbers of those with a wrong checksum."""
    blocks, bad = blocks_of(path), set()
    for number, block in blocks.items():
        stored = struct.unpack_from('<I', block, 508)[0]
        if stored == 0:
            if unsummed and any(block[:504]):
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
    names = sorted(name for name in os.listdir(directory) if name.startswith('EP_DAT_'))
    numbers = [int(name[7:]) for name in names]
    volume.data_files = {}
    if not numbers:
        volume.say('D05', '')
    elif numbers[-1] != len(numbers) - 1:
        volume.say('D01', '')
    for number, name in zip(numbers, names):
        path = os.path.join(directory, name)
        volume.data_files[number] = os.path.getsize(path)
        nodes = read_header(path, DATA)
        if nodes[0] is None or struct.unpack_from('<Q', nodes[0], 8)[0] != MAGIC:
            volume.say('D03', '@EP/' + name)
        else:
            volume.pools['@EP/' + name] = nodes[0][20:36]
    if volume.shift is not None and numbers:
        volume.end = min((numbers[-1] + 1) << 42 - volume.shift, EXTENTS_MAX)


def judge_volume(volume):
    table, index = (os.path.join(volume.root, '@EP', name) for name in ('EP_TBL', 'EP_FRI'))
    volume.maps = find_maps(volume)
    volume.pools = {}
    for path, judge, read in ((table, judge_table_header, read_table),
                              (index, judge_index_header, read_index)):
        if os.path.isfile(path):
            judge(volume, path)
            read(volume, path)
        elif volume.maps:
            volume.say('H05', os.path.relpath(path, volume.root))
    for nodes, place in ((volume.table, '@EP/EP_TBL'), (volume.index, '@EP/EP_FRI')):
        if nodes is not None:
            volume.pools[place] = nodes[0][20:36]
    judge_data_files(volume)
    for name in ('@EP_CHK', '@EP_FIX'):
        if os.path.isdir(os.path.join(volume.root, name)):
            volume.say('S02', name)


def judge_identities(server):
    """One uuid on two maps, or on tables or indexes of two volumes; disagreement; no uuid."""
    owners = collections.defaultdict(set)
    for volume in server.volumes:
        for one in volume.maps:
            if one.header is not None:
                owners['map', one.header[0][20:36]].add((volume, one.place))
        for place in ('@EP/EP_TBL', '@EP/EP_FRI'):
            if place in volume.pools:
                owners['pool', volume.pools[place]].add((volume, place))
        known = set(volume.pools.values()) - {bytes(16)}
        if len(set(volume.pools.values())) > 1 and known:
            volume.say('P02', '')
    for (kind, uuid), places in owners.items():
        for volume, place in places:
            if not any(uuid):
                volume.say('P03', place)
            elif len(places) > 1 and (kind == 'map' or len({other for other, _ in places}) > 1):
                volume.say('P01', place)


def judge_reference(volume, lpa):
    """What the table says of one extent against what the maps say."""
    word, named = volume.words.get(lpa, 0), volume.references[lpa]
    hidden = lpa // TABLE_SLOTS in volume.bad_table_blocks
    place = 'lpa %d' % lpa
    counted = word & LOW
    if not word & USED:
        if named:
            volume.say('R01', place, hidden or lpa in volume.doubtful)
        return
    if counted == 0:
        volume.say('T02', place, hidden)
    if counted == LOW:
        volume.say('R05', place, hidden)
    if named > counted:
        volume.say('R02', place, hidden or lpa in volume.doubtful)
    elif named < counted and volume.complete:
        volume.say('R03' if named else 'R04', place, hidden)


def judge_extents(volume):
    per_file = 42 - volume.shift
    used = {lpa for lpa, word in volume.words.items() if word & USED and lpa < volume.end}
    for lpa in sorted(used | {lpa for lpa in volume.references if lpa < volume.end}):
        judge_reference(volume, lpa)
    for lpa in used:
        hidden = lpa // TABLE_SLOTS in volume.bad_table_blocks
        size = volume.data_files.get(lpa >> per_file)
        end = BLOCKS_AT + ((lpa & (1 << per_file) - 1) + 1 << volume.shift)
        if size is not None and size < end:
            volume.say('D02', 'lpa %d' % lpa, hidden)
        group = lpa // GROUP
        if volume.index is not None and not volume.entries.get(group, (0, 0, 0, False))[3]:
            volume.say('T03', 'group %d' % group,
                       hidden or group // INDEX_SLOTS in volume.bad_index_blocks)


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
    for volume in server.volumes:
        judge_maps(volume, {uuid for other in server.volumes for uuid in other.pools.values()})
        if volume.table is not None and volume.shift is not None:
            judge_extents(volume)
            if volume.index is not None:
                judge_lists(volume)
    judge_identities(server)
    judge_journal(server, os.path.join(values['journal_root'], 'EP_JNL'))
    return server.found


if __name__ == '__main__':
    for finding, explained in sorted(judge(sys.argv[1]).items()):
        if not explained:
            print(' '.join(finding))
