"""Damages of maps."""
import os
import struct

from damaging import *  # noqa: F403 - fields and places
from metadata_bytes import *  # noqa: F403 - the names of the format
from random_server import UNMAP_BUFFER, random_uuid


@damage
def map_node_sum(dice, server):
    _, one, lea = pick_entry(dice, server)
    if one is None:
        return False
    number, place = lea // MAP_SLOTS, dice.choice((lea % MAP_SLOTS * 8 + dice.randrange(8),
                                                   dice.randrange(512)))
    block = read_at(one.path, block_offset(number), BLOCK)
    change_block(one.path, number, place, bytes([block[place] ^ 1 << dice.randrange(8)]),
                  seal=False)


@damage
def map_node_unsummed(dice, server):
    _, one, lea = pick_entry(dice, server)
    if one is None:
        return False
    change_block(one.path, lea // MAP_SLOTS, 508, bytes(4), seal=False)


@damage
def mapped_count(dice, server):
    one = dice.choice(dice.choice(server.volumes).maps)
    count = max(len(one.entries) + dice.choice((-1, 1, 7)), 0)
    change_node(one.path, MAP, 2, 4, struct.pack('<Q', count))


@damage
def entry_elsewhere(dice, server):
    """An entry names another extent: one of another entry, a free one, one far away."""
    volume, one, lea = pick_entry(dice, server)
    if one is None:
        return False
    end = volume.data_files << 42 - volume.shift
    choices = [dice.choice(sorted(volume.references)), dice.choice(volume.groups) * GROUP + 5,
               dice.randrange(9 * GROUP), end, end + dice.randrange(1 << 20), EXTENTS_MAX - 1,
               EXTENTS_MAX, LPA]
    if volume.next:
        choices += [pick_free(volume, dice)] * 2
    set_map_word(one, lea, MAPPED | one.row << ROW_SHIFT | dice.choice(choices))


@damage
def entry_bits(dice, server):
    volume, one, lea = pick_entry(dice, server)
    if one is None:
        return False
    lpa = one.entries[lea]
    word = MAPPED | one.row << ROW_SHIFT | lpa
    set_map_word(one, lea, dice.choice((0, lpa, word | 1 << 60, word | 1 << 61 | 1 << 62,
                                         MAPPED | lpa | dice.randrange(4096) << ROW_SHIFT)))


@damage
def entry_behind_end(dice, server):
    volume, one, lea = pick_entry(dice, server)
    if one is None or one.total % MAP_SLOTS == 0:
        return False
    set_map_word(one, one.total + dice.randrange(MAP_SLOTS - one.total % MAP_SLOTS),
                  MAPPED | one.row << ROW_SHIFT | one.entries[lea])


@damage
def node_behind_end(dice, server):
    volume, one, lea = pick_entry(dice, server)
    if one is None:
        return False
    nodes = (one.total + MAP_SLOTS - 1) // MAP_SLOTS + dice.randrange(3)
    set_map_word(one, nodes * MAP_SLOTS + dice.randrange(MAP_SLOTS),
                  MAPPED | one.row << ROW_SHIFT | one.entries[lea])
    os.truncate(one.path, block_offset(nodes + 1))


@damage
def buffer_after_blank(dice, server):
    volume, one, _ = pick_entry(dice, server, UNMAP_BUFFER)
    if one is None or len(one.entries) + 1 >= one.total:
        return False
    lea = dice.randrange(len(one.entries) + 1, one.total)
    set_map_word(one, lea, MAPPED | one.row << ROW_SHIFT | dice.choice(sorted(volume.references)))


@damage
def map_total(dice, server):
    one = dice.choice(dice.choice(server.volumes).maps)
    total = max(one.total + dice.choice((-60, -5, 5, 63, 200, 1 << 20)), 0)
    change_node(one.path, MAP, 1, 12, struct.pack('<Q', total))


@damage
def map_cut(dice, server):
    _, one, lea = pick_entry(dice, server)
    if one is None:
        return False
    os.truncate(one.path, dice.choice((block_offset(lea // MAP_SLOTS),
                                       block_offset(lea // MAP_SLOTS) + 100, BLOCKS_AT,
                                       block_offset(max(one.entries) // MAP_SLOTS + 1))))


@damage
def pool_table(dice, server):
    _, one, _ = pick_entry(dice, server)
    if one is None:
        return False
    rows = list(one.rows)
    row = dice.randrange(len(rows))
    rows[row] = random_uuid(dice)
    write_at(one.path, POOL_TABLE_AT + 16 * row, rows[row])
    if dice.random() < 0.7:
        change_node(one.path, MAP, 3, 4, struct.pack('<I', crc32c(b''.join(rows))))


@damage
def pool_count(dice, server):
    one = dice.choice(dice.choice(server.volumes).maps)
    count = dice.choice((0, len(one.rows) + 1, POOL_ROWS_MAX + 1, 1 << 31))
    rows = read_at(one.path, POOL_TABLE_AT, 16 * min(count, POOL_ROWS_MAX))
    change_node(one.path, MAP, 3, 4, struct.pack('<II', crc32c(rows), count))


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
