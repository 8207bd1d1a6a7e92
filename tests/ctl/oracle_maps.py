"""The maps of a volume: which files they are, what is wrong in them, what they refer to."""
import os
import struct
import types

from metadata_bytes import *  # noqa: F403 - the names of the format

PATH_MAX = 127  # characters of a map's path in the main program's lists


def _kept(directory, name):
    return (directory == '@iSCSITrg' and '_Extent_' in name or directory == '@EP_trash'
            or directory == '@Snapshot' and name.startswith('FAMILY_'))


def _is_map(path):
    head = read_at(path, 0, 64)
    return struct.unpack_from('<QI', head, 8) == (MAGIC, MAP)


def _found(volume, path, kind):
    place = os.path.relpath(path, volume.root)
    if len(path) > PATH_MAX:
        volume.say('M11', place)
    return types.SimpleNamespace(path=path, place=place, kind=kind, header=None)


def find_maps(volume):
    maps = []
    for directory in ('@iSCSITrg', '@EP_trash', '@Snapshot'):
        for parent, _, names in os.walk(os.path.join(volume.root, directory)):
            for name in names:
                path = os.path.join(parent, name)
                if _kept(directory, name):
                    maps.append(_found(volume, path, 'lun'))
                elif _is_map(path):
                    volume.say('M10', os.path.relpath(path, volume.root))
    for name in os.listdir(os.path.join(volume.root, '@EP')):
        path = os.path.join(volume.root, '@EP', name)
        if name in ('EP_BUF', 'EP_ROD'):
            maps.append(_found(volume, path, 'buffer' if name == 'EP_BUF' else 'copy'))
        elif name not in ('EP_TBL', 'EP_FRI') and not name.endswith('.bkp'):
            if not name.startswith('EP_DAT_') and _is_map(path):
                volume.say('M10', os.path.relpath(path, volume.root))
    return maps


def _node_words(block):
    return struct.unpack_from('<63Q', block)


def _judge_nodes(volume, one, nodes):
    """Node sums. Adds the words of each node that counts, and of those behind the end."""
    one.words, one.bad, behind = {}, set(), []
    for number, block in sorted(blocks_of(one.path).items()):
        words = {number * MAP_SLOTS + slot: word
                 for slot, word in enumerate(_node_words(block)) if word & MAPPED}
        if number >= nodes:
            behind += words
            continue
        stored = struct.unpack_from('<I', block, 508)[0]
        if stored == 0:
            if words:
                volume.say('M02', '%s node %d' % (one.place, number))
        elif stored != block_sum(block):
            volume.say('M01', '%s node %d' % (one.place, number))
            one.bad.add(number)
        one.words.update(words)
    return behind


def _ends(volume, one):
    """(entries that the map has, nodes that are scanned)."""
    entries = one.total
    if one.kind == 'copy' and volume.shift is not None:
        held = (max(one.size - BLOCKS_AT, 0) + BLOCK - 1) // BLOCK * MAP_SLOTS
        entries = max(entries, held, ((1 << 30 - volume.shift) + 32) * 512)
    return entries, (entries + MAP_SLOTS - 1) // MAP_SLOTS


def _judge_rows(volume, one, pools):
    """The pool numbers whose rows mean nothing."""
    if one.row_count > POOL_ROWS_MAX:
        volume.say('H03', one.place)
        return
    table = read_at(one.path, POOL_TABLE_AT, 16 * one.row_count)
    broken = one.row_count > 0 and crc32c(table) != one.row_sum
    if broken:
        volume.say('M06', one.place)
    for lea, word in one.words.items():
        row = word >> ROW_SHIFT & ROW_MASK
        if row >= one.row_count or table[16 * row:16 * row + 16] not in pools:
            volume.say('M07', '%s lea %d' % (one.place, lea),
                       broken or lea // MAP_SLOTS in one.bad)


def _cut_at_blank(volume, one):
    """The unmap buffer ends at its first blank entry; what follows is no reference."""
    end = 0
    while end in one.words:
        end += 1
    for lea in [lea for lea in one.words if lea > end]:
        volume.say('M08', '%s lea %d' % (one.place, lea), lea // MAP_SLOTS in one.bad)
        del one.words[lea]


def _count(volume, one):
    for lea, word in one.words.items():
        lpa = word & LPA
        volume.references[lpa] += 1
        bad = lea // MAP_SLOTS in one.bad
        if bad:
            volume.doubtful.add(lpa)
        if lpa >= EXTENTS_MAX:
            volume.say('R07', 'lpa %d' % lpa, bad)
        elif volume.end and lpa >= volume.end:
            volume.say('R06', 'lpa %d' % lpa, bad)


def _judge_map(volume, one, pools):
    one.total = struct.unpack_from('<Q', one.header[1], 12)[0]
    mapped = struct.unpack_from('<Q', one.header[2], 4)[0]
    one.row_sum, one.row_count = struct.unpack_from('<II', one.header[3], 4)
    one.size = os.path.getsize(one.path)
    entries, nodes = _ends(volume, one)
    behind = _judge_nodes(volume, one, nodes)
    for lea in behind + [lea for lea in one.words if lea >= entries]:
        volume.say('M04', '%s lea %d' % (one.place, lea), lea // MAP_SLOTS in one.bad)
    if one.kind == 'buffer':
        _cut_at_blank(volume, one)
    _judge_rows(volume, one, pools)
    short = one.kind != 'copy' and one.size < block_offset(nodes) and mapped > len(one.words)
    if short:
        volume.say('M05', one.place)
        volume.complete = False
    if mapped != len(one.words):
        volume.say('M03', one.place, short or bool(one.bad))
    _count(volume, one)


def judge_maps(volume, pools):
    from oracle import judge_header
    for one in volume.maps:
        one.header = judge_header(volume, one.path, MAP)
        if one.header is None:
            volume.complete = False
        else:
            _judge_map(volume, one, pools)
