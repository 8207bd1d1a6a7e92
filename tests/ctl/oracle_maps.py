"""The maps of a volume: which files they are, what is wrong in them, what they refer to."""
import os
import struct
import types

from metadata_bytes import *  # noqa: F403 - the names of the format
from oracle_headers import judge_header

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
    return types.SimpleNamespace(path=path, place=place, kind=kind, uuid=None)


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
        behind += [lea for lea in words if lea >= one.end]
        words = {lea: word for lea, word in words.items() if lea < one.end}
        if number >= nodes:
            continue
        stored = struct.unpack_from('<I', block, 508)[0]
        if stored == 0:
            if words and one.size >= block_offset(number + 1):
                volume.say('M02', '%s node %d' % (one.place, number))
        elif stored != block_sum(block):
            volume.say('M01', '%s node %d' % (one.place, number))
            one.bad.add(number)
            volume.complete = False  # what its entries were is unknown
        one.words.update(words)
    return behind


def _end(volume, one):
    """The entries that the map has."""
    held = (max(one.size - BLOCKS_AT, 0) + BLOCK - 1) // BLOCK * MAP_SLOTS
    end = held if one.total is None else one.total
    if one.kind == 'copy' and volume.shift is not None:
        end = max(end, held, ((1 << 30 - volume.shift) + 32) * 512)
    return end


def _judge_rows(volume, one, pools):
    """Rows that entries use and that mean nothing. `pools` is None when not all are known."""
    if one.row_count > POOL_ROWS_MAX:
        volume.say('H03', one.place)
        return
    table = read_at(one.path, POOL_TABLE_AT, 16 * one.row_count)
    broken = one.row_count > 0 and crc32c(table) != one.row_sum
    if broken:
        volume.say('M06', one.place)
    for lea, word in one.words.items():
        row = word >> ROW_SHIFT & ROW_MASK
        unknown = pools is not None and table[16 * row:16 * row + 16] not in pools
        if row >= one.row_count or unknown:
            volume.say('M07', '%s row %d' % (one.place, row),
                       broken or lea // MAP_SLOTS in one.bad)


def _cut_at_blank(volume, one):
    """The unmap buffer ends at its first blank entry; what follows is no reference."""
    end = 0
    while end in one.words:
        end += 1
    for lea in [lea for lea in one.words if lea > end]:
        volume.say('M08', '%s lea %d' % (one.place, lea))
        volume.doubtful.add(one.words.pop(lea) & LPA)


def _count(volume, one):
    for lea, word in one.words.items():
        lpa = word & LPA
        bad = lea // MAP_SLOTS in one.bad
        if bad:
            volume.doubtful.add(lpa)
        if lpa < volume.end:
            volume.references[lpa] += 1
            continue
        volume.far = volume.far or not bad
        if lpa >= EXTENTS_MAX:
            volume.say('R07', '%s lea %d' % (one.place, lea), bad)
        elif volume.data_files:
            volume.say('R06', '%s lea %d' % (one.place, lea), bad)


def _judge_count(volume, one, nodes, counts):
    """The mapped count against what may be counted: what a check with --repair would write, or
    all mapped entries."""
    short = (one.kind != 'copy' and one.size < block_offset(nodes)
             and one.mapped > max(counts))
    if short:
        volume.say('M05', one.place)
        volume.complete = False
    if one.mapped not in counts:
        volume.say('M03', one.place, short or bool(one.bad))


def _read_fields(one, nodes):
    """What of the header can be believed."""
    one.uuid = nodes[0][20:36] if nodes[0] else None
    one.total = struct.unpack_from('<Q', nodes[1], 12)[0] if nodes[1] else None
    one.mapped = struct.unpack_from('<Q', nodes[2], 4)[0] if nodes[2] else None
    one.row_sum, one.row_count = (struct.unpack_from('<II', nodes[3], 4) if nodes[3]
                                  else (None, None))
    one.size = os.path.getsize(one.path)


def _judge_map(volume, one, pools):
    one.end = _end(volume, one)
    nodes = (one.end + MAP_SLOTS - 1) // MAP_SLOTS
    behind = _judge_nodes(volume, one, nodes)
    for lea in behind:
        volume.say('M04', '%s lea %d' % (one.place, lea))
    counts = {len(one.words)}
    counts.add(len(one.words) + sum(1 for lea in behind if lea < nodes * MAP_SLOTS))
    if one.kind == 'buffer':
        _cut_at_blank(volume, one)
        counts.add(len(one.words))
    if one.row_count is not None:
        _judge_rows(volume, one, pools)
    if one.mapped is not None and one.total is not None:
        _judge_count(volume, one, nodes, counts)
    _count(volume, one)


def judge_maps(volume, pools):
    for one in volume.maps:
        nodes, is_map = judge_header(volume, one.path, MAP)
        if None in nodes or not is_map:
            volume.complete = False
        if is_map:
            _read_fields(one, nodes)
            _judge_map(volume, one, pools)
