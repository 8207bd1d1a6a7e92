"""Damages of a random server, one field at a time, named after what is hit.

Each takes the dice and the server and returns False when the server has no such place. `hit` applies
some of them. Blocks and nodes are sealed again unless the damage is the checksum.
"""
import os
import shutil
import struct

from metadata_bytes import *  # noqa: F403 - the names of the format
from random_server import (COPY_MAP, UNMAP_BUFFER, data_file, index_entry, random_uuid,
                           write_journal)

DAMAGES = []


def damage(function):
    DAMAGES.append(function)
    return function


def _change_block(path, number, at, data, seal=True):
    block = bytearray(read_at(path, block_offset(number), BLOCK))
    block[at:at + len(data)] = data
    if seal:
        block = seal_block(block[:508])
    write_at(path, block_offset(number), block)


def _change_node(path, kind, number, at, data, seal=True):
    node = bytearray(read_at(path, node_offset(kind, number), 64))
    node[at:at + len(data)] = data
    if seal:
        node = seal_node(node[4:])
    write_at(path, node_offset(kind, number), node)


def _set_word(volume, lpa, word):
    _change_block(volume.table, lpa // TABLE_SLOTS, lpa % TABLE_SLOTS * 2, struct.pack('<H', word))


def _word(volume, lpa):
    block = read_at(volume.table, block_offset(lpa // TABLE_SLOTS), BLOCK)
    return struct.unpack_from('<H', block, lpa % TABLE_SLOTS * 2)[0]


def _set_map_word(one, lea, word):
    _change_block(one.path, lea // MAP_SLOTS, lea % MAP_SLOTS * 8, struct.pack('<Q', word))


def _set_index(volume, group, **fields):
    """Replaces `next_group`, `head` or `count` of an entry, or all of it by `raw`."""
    head, count = volume.lists[group]
    entry = {'next_group': volume.next.get(group, 0), 'head': head, 'count': count, **fields}
    raw = entry.pop('raw', None) or index_entry(**entry)
    _change_block(volume.index, group // INDEX_SLOTS, group % INDEX_SLOTS * 8, raw)


def _volume(dice, server, **wants):
    """A volume that has what is wanted: `used`, `listed` extents or groups, `maps` with entries."""
    fit = [volume for volume in server.volumes
           if (not wants.get('used') or volume.references)
           and len(volume.next) >= wants.get('listed', 0)
           and (not wants.get('entries') or any(one.entries for one in volume.maps))]
    return dice.choice(fit) if fit else None


def _used(dice, server):
    volume = _volume(dice, server, used=True)
    return (volume, dice.choice(sorted(volume.references))) if volume else (None, None)


def _entry(dice, server, *kinds):
    """A map with entries, and one of its leas."""
    maps = [(volume, one) for volume in server.volumes for one in volume.maps
            if one.entries and (not kinds or one.kind in kinds)]
    if not maps:
        return None, None, None
    volume, one = dice.choice(maps)
    return volume, one, dice.choice(sorted(one.entries))


def _free(volume, dice):
    group = dice.choice(sorted(volume.next))
    return dice.choice([lpa for lpa in range(group * GROUP, (group + 1) * GROUP)
                        if lpa not in volume.references])


# The table.
@damage
def table_block_sum(dice, server):
    volume = dice.choice(server.volumes)
    lpa = dice.choice(volume.groups) * GROUP + dice.randrange(GROUP)
    place = dice.randrange(508)
    block = read_at(volume.table, block_offset(lpa // TABLE_SLOTS), BLOCK)
    _change_block(volume.table, lpa // TABLE_SLOTS, place,
                  bytes([block[place] ^ 1 << dice.randrange(8)]), seal=False)


@damage
def table_block_unsummed(dice, server):
    volume = dice.choice(server.volumes)
    lpa = dice.choice(volume.groups) * GROUP + dice.randrange(GROUP)
    _change_block(volume.table, lpa // TABLE_SLOTS, 508, bytes(4), seal=False)


@damage
def used_word(dice, server):
    volume, lpa = _used(dice, server)
    if volume is None:
        return False
    count = volume.references[lpa]
    _set_word(volume, lpa, dice.choice((USED | count + 1, USED | count + 1, USED | count - 1,
                                        USED | count + 700, USED, USED | 4095, count, TAIL, 0)))


@damage
def free_word(dice, server):
    volume = _volume(dice, server, listed=1)
    if volume is None:
        return False
    lpa = _free(volume, dice)
    word = volume.words[lpa]
    _set_word(volume, lpa, dice.choice((USED | 1, USED, USED | 4095, word ^ TAIL, word & LOW,
                                        dice.randrange(GROUP), TAIL, lpa & LOW,
                                        word | 0x6000)))


@damage
def missing_tail(dice, server):
    volume = _volume(dice, server, listed=1)
    if volume is None:
        return False
    group = dice.choice(sorted(volume.next))
    tail = [lpa for lpa in range(group * GROUP, (group + 1) * GROUP)
            if volume.words.get(lpa) == TAIL]
    _set_word(volume, tail[0], dice.choice((0, volume.lists[group][0], dice.randrange(GROUP))))


@damage
def word_outside(dice, server):
    volume = dice.choice(server.volumes)
    group = next(group for group in range(20) if group not in volume.groups)
    if (group + 1) * GROUP > volume.data_files << 42 - volume.shift:
        return False
    _set_word(volume, group * GROUP + dice.randrange(GROUP),
              dice.choice((USED | 1, USED, USED | 4095, TAIL, 5)))


# The index.
@damage
def index_block_sum(dice, server):
    volume = dice.choice(server.volumes)
    place = dice.choice((dice.choice(volume.groups) * 8 + dice.randrange(8), dice.randrange(508)))
    block = read_at(volume.index, block_offset(0), BLOCK)
    _change_block(volume.index, 0, place,
                  dice.choice((bytes([block[place] ^ 1 << dice.randrange(8)]), b'')) or
                  bytes([block[place] ^ 0x80]), seal=False)


@damage
def index_count(dice, server):
    volume = dice.choice(server.volumes)
    group = dice.choice(volume.groups)
    count = volume.lists[group][1]
    _set_index(volume, group, count=dice.choice((count + 1, max(count - 1, 0), 0, 4096, 4097,
                                                 16383, dice.randrange(GROUP))))


@damage
def index_head(dice, server):
    volume = _volume(dice, server, listed=1)
    if volume is None:
        return False
    _set_index(volume, dice.choice(sorted(volume.next)), head=dice.randrange(GROUP))


@damage
def index_entry_gone(dice, server):
    volume = dice.choice(server.volumes)
    _set_index(volume, dice.choice(volume.groups), raw=bytes(8))


@damage
def index_entry_more(dice, server):
    """A group that was never initialised gets an entry."""
    volume = dice.choice(server.volumes)
    group = next(group for group in range(20) if group not in volume.groups)
    volume.lists[group] = (0, 0)
    volume.groups = sorted(volume.groups + [group])
    _set_index(volume, group, count=dice.choice((0, 7, 4096)), head=dice.randrange(GROUP))


@damage
def index_link(dice, server):
    volume = _volume(dice, server, listed=1)
    if volume is None:
        return False
    order = list(volume.next)
    group = dice.choice(order)
    full = [other for other in volume.groups if volume.lists[other][1] == 0]
    _set_index(volume, group, next_group=dice.choice(
        (group, order[0], order[-1], dice.choice(order), dice.randrange(12), GROUPS_MAX,
         GROUPS_MAX + 1, (1 << 36) - 1) + tuple(full)))


@damage
def index_last_link(dice, server):
    volume = _volume(dice, server, listed=1)
    if volume is None:
        return False
    order = list(volume.next)
    _set_index(volume, order[-1], next_group=dice.choice(order + [GROUPS_MAX + 5]))


@damage
def full_group_listed(dice, server):
    volumes = [volume for volume in server.volumes if volume.next and len(volume.next) < len(volume.groups)]
    if not volumes:
        return False
    volume = dice.choice(volumes)
    full = dice.choice([group for group in volume.groups if group not in volume.next])
    before = dice.choice(list(volume.next))
    _set_index(volume, full, next_group=volume.next[before])
    _set_index(volume, before, next_group=full)


@damage
def index_header(dice, server):
    volume = dice.choice(server.volumes)
    choice = dice.randrange(3)
    if choice == 0:
        count = dice.choice((0, max(volume.groups[-1], 1), volume.groups[-1] + 3))
        _change_node(volume.index, INDEX, 1, 8, struct.pack('<Q', count))
    elif choice == 1:
        free = volume.free + dice.choice((1, -1, 5000, -volume.free))
        _change_node(volume.index, INDEX, 2, 4, struct.pack('<Q', free))
    else:
        head = dice.choice((dice.choice(volume.groups), GROUPS_MAX, GROUPS_MAX + 1, 1 << 35, 15))
        _change_node(volume.index, INDEX, 2, 12, struct.pack('<Q', head))


# Maps.
@damage
def map_node_sum(dice, server):
    _, one, lea = _entry(dice, server)
    if one is None:
        return False
    number, place = lea // MAP_SLOTS, dice.choice((lea % MAP_SLOTS * 8 + dice.randrange(8),
                                                   dice.randrange(512)))
    block = read_at(one.path, block_offset(number), BLOCK)
    _change_block(one.path, number, place, bytes([block[place] ^ 1 << dice.randrange(8)]),
                  seal=False)


@damage
def map_node_unsummed(dice, server):
    _, one, lea = _entry(dice, server)
    if one is None:
        return False
    _change_block(one.path, lea // MAP_SLOTS, 508, bytes(4), seal=False)


@damage
def mapped_count(dice, server):
    one = dice.choice(dice.choice(server.volumes).maps)
    count = max(len(one.entries) + dice.choice((-1, 1, 7)), 0)
    _change_node(one.path, MAP, 2, 4, struct.pack('<Q', count))


@damage
def entry_elsewhere(dice, server):
    """An entry names another extent: one of another entry, a free one, one far away."""
    volume, one, lea = _entry(dice, server)
    if one is None:
        return False
    end = volume.data_files << 42 - volume.shift
    choices = [dice.choice(sorted(volume.references)), dice.choice(volume.groups) * GROUP + 5,
               dice.randrange(9 * GROUP), end, end + dice.randrange(1 << 20), EXTENTS_MAX - 1,
               EXTENTS_MAX, LPA]
    if volume.next:
        choices += [_free(volume, dice)] * 2
    _set_map_word(one, lea, MAPPED | one.row << ROW_SHIFT | dice.choice(choices))


@damage
def entry_bits(dice, server):
    volume, one, lea = _entry(dice, server)
    if one is None:
        return False
    lpa = one.entries[lea]
    word = MAPPED | one.row << ROW_SHIFT | lpa
    _set_map_word(one, lea, dice.choice((0, lpa, word | 1 << 60, word | 1 << 61 | 1 << 62,
                                         MAPPED | lpa | dice.randrange(4096) << ROW_SHIFT)))


@damage
def entry_behind_end(dice, server):
    volume, one, lea = _entry(dice, server)
    if one is None or one.total % MAP_SLOTS == 0:
        return False
    _set_map_word(one, one.total + dice.randrange(MAP_SLOTS - one.total % MAP_SLOTS),
                  MAPPED | one.row << ROW_SHIFT | one.entries[lea])


@damage
def node_behind_end(dice, server):
    volume, one, lea = _entry(dice, server)
    if one is None:
        return False
    nodes = (one.total + MAP_SLOTS - 1) // MAP_SLOTS + dice.randrange(3)
    _set_map_word(one, nodes * MAP_SLOTS + dice.randrange(MAP_SLOTS),
                  MAPPED | one.row << ROW_SHIFT | one.entries[lea])
    os.truncate(one.path, block_offset(nodes + 1))


@damage
def buffer_after_blank(dice, server):
    volume, one, _ = _entry(dice, server, UNMAP_BUFFER)
    if one is None or len(one.entries) + 1 >= one.total:
        return False
    lea = dice.randrange(len(one.entries) + 1, one.total)
    _set_map_word(one, lea, MAPPED | one.row << ROW_SHIFT | dice.choice(sorted(volume.references)))


@damage
def map_total(dice, server):
    one = dice.choice(dice.choice(server.volumes).maps)
    total = max(one.total + dice.choice((-60, -5, 5, 63, 200, 1 << 20)), 0)
    _change_node(one.path, MAP, 1, 12, struct.pack('<Q', total))


@damage
def map_cut(dice, server):
    _, one, lea = _entry(dice, server)
    if one is None:
        return False
    os.truncate(one.path, dice.choice((block_offset(lea // MAP_SLOTS),
                                       block_offset(lea // MAP_SLOTS) + 100, BLOCKS_AT,
                                       block_offset(max(one.entries) // MAP_SLOTS + 1))))


@damage
def pool_table(dice, server):
    _, one, _ = _entry(dice, server)
    if one is None:
        return False
    rows = list(one.rows)
    row = dice.randrange(len(rows))
    rows[row] = random_uuid(dice)
    write_at(one.path, POOL_TABLE_AT + 16 * row, rows[row])
    if dice.random() < 0.7:
        _change_node(one.path, MAP, 3, 4, struct.pack('<I', crc32c(b''.join(rows))))


@damage
def pool_count(dice, server):
    one = dice.choice(dice.choice(server.volumes).maps)
    count = dice.choice((0, len(one.rows) + 1, POOL_ROWS_MAX + 1, 1 << 31))
    rows = read_at(one.path, POOL_TABLE_AT, 16 * min(count, POOL_ROWS_MAX))
    _change_node(one.path, MAP, 3, 4, struct.pack('<II', crc32c(rows), count))


@damage
def map_gone(dice, server):
    os.remove(dice.choice(dice.choice(server.volumes).maps).path)


@damage
def map_elsewhere(dice, server):
    """A map under a name that no listing keeps, or in a path that is too long."""
    volume = dice.choice(server.volumes)
    maps = [one for one in volume.maps if os.path.exists(one.path)]
    if not maps:
        return False
    one = dice.choice(maps)
    target = dice.choice(('@iSCSITrg/LUN_7/LUN_7_Extend_0', '@iSCSITrg/kept', '@EP/EP_OLD',
                          '@Snapshot/of_1/family_1', '@Snapshot/' + 'long/' * 30 + 'FAMILY_9',
                          '@iSCSITrg/' + 'n' * 130 + '/LUN_9_Extent_0',
                          '@EP_trash/' + 'd' * 120 + '/gone'))
    path = os.path.join(volume.root, target)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    os.rename(one.path, path)
    one.path = path


# Headers, of any file.
def _any_file(dice, server):
    """Path and kind."""
    volume = dice.choice(server.volumes)
    files = [(volume.table, TABLE), (volume.index, INDEX)]
    files += [(one.path, MAP) for one in volume.maps if os.path.exists(one.path)]
    if dice.random() < 0.2:
        return data_file(volume, dice.randrange(volume.data_files)), DATA
    return dice.choice(files)


@damage
def header_sum(dice, server):
    path, kind = _any_file(dice, server)
    if not os.path.exists(path):
        return False
    number = dice.randrange(sum(NODES[kind]))
    place = dice.randrange(64)
    byte = read_at(path, node_offset(kind, number) + place, 1)[0] ^ 1 << dice.randrange(8)
    _change_node(path, kind, number, place, bytes([byte]), seal=False)


@damage
def header_word(dice, server):
    path, kind = _any_file(dice, server)
    if not os.path.exists(path):
        return False
    at, data = dice.choice(((8, b'\x32'), (16, struct.pack('<I', dice.choice((1, 2, 4, 5, 9)))),
                            (4, b'\x02'), (20, bytes(16)), (20, random_uuid(dice))))
    _change_node(path, kind, 0, at, data)


@damage
def header_field(dice, server):
    volume = dice.choice(server.volumes)
    path, kind, number, at, data = dice.choice((
        (volume.table, TABLE, 1, 4, struct.pack('<I', dice.choice((0, 3000, 256, 1 << 31)))),
        (volume.table, TABLE, 1, 8, b'\x04'), (volume.index, INDEX, 1, 4, b'\x10'),
        (volume.table, TABLE, 0, 36, b'\x01'), (volume.index, INDEX, 0, 36, b'\x01'),
        (volume.index, INDEX, 1, 8, struct.pack('<Q', GROUPS_MAX + 1)),
        (volume.index, INDEX, 2, 4, struct.pack('<Q', EXTENTS_MAX + 1))))
    if not os.path.exists(path):
        return False
    _change_node(path, kind, number, at, data)


@damage
def twin_uuid(dice, server):
    maps = [one for volume in server.volumes for one in volume.maps if os.path.exists(one.path)]
    if len(maps) < 2:
        return False
    one, other = dice.sample(maps, 2)
    _change_node(one.path, MAP, 0, 20, other.uuid)


@damage
def twin_pool(dice, server):
    if len(server.volumes) < 2:
        return False
    one, other = dice.sample(server.volumes, 2)
    path, kind = dice.choice(((one.table, TABLE), (one.index, INDEX)))
    if not os.path.exists(path):
        return False
    _change_node(path, kind, 0, 20, other.uuid)


@damage
def table_or_index_gone(dice, server):
    volume = dice.choice(server.volumes)
    path = dice.choice((volume.table, volume.index))
    if not os.path.exists(path):
        return False
    os.remove(path)


# Data files, names, the server.
@damage
def data_file_gone(dice, server):
    volume = dice.choice(server.volumes)
    path = data_file(volume, dice.randrange(volume.data_files))
    if not os.path.exists(path):
        return False
    os.remove(path)


@damage
def all_data_files_gone(dice, server):
    volume = dice.choice(server.volumes)
    for number in range(volume.data_files):
        if os.path.exists(data_file(volume, number)):
            os.remove(data_file(volume, number))


@damage
def data_file_cut(dice, server):
    volume, lpa = _used(dice, server)
    if volume is None:
        return False
    shift = 42 - volume.shift
    path = data_file(volume, lpa >> shift)
    if not os.path.exists(path):
        return False
    extent = lpa & (1 << shift) - 1
    os.truncate(path, BLOCKS_AT + (extent << volume.shift) + dice.choice((0, 512, 1 << volume.shift)))


@damage
def journal_status(dice, server):
    write_journal(server.journal, dice.choice(('init', 'abnormal', 'bad', 'read-only')))


@damage
def work_directory(dice, server):
    os.makedirs(os.path.join(dice.choice(server.volumes).root, dice.choice(('@EP_CHK', '@EP_FIX'))),
                exist_ok=True)


@damage
def volume_gone(dice, server):
    if dice.random() < 0.6 or not server.volumes:
        return False
    volume = server.volumes.pop()
    shutil.rmtree(volume.root)
    if dice.random() < 0.5:
        os.mkdir(volume.root)



def hit(dice, server, count):
    """Applies `count` damages. Returns their names."""
    names = []
    while len(names) < count and server.volumes:
        one = dice.choice(DAMAGES)
        try:
            done = one(dice, server)
        except FileNotFoundError:  # an earlier damage took the file away
            continue
        if done is not False:
            names.append(one.__name__)
    return names
