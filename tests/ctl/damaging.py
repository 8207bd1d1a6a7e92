"""What damages are made of: a field changed, a place picked. Blocks and nodes are sealed again
unless the damage is the checksum.
"""
import struct

from metadata_bytes import *  # noqa: F403 - the names of the format
from random_server import index_entry

DAMAGES = []


def damage(function):
    DAMAGES.append(function)
    return function


def change_block(path, number, at, data, seal=True):
    block = bytearray(read_at(path, block_offset(number), BLOCK))
    block[at:at + len(data)] = data
    if seal:
        block = seal_block(block[:508])
    write_at(path, block_offset(number), block)


def change_node(path, kind, number, at, data, seal=True):
    node = bytearray(read_at(path, node_offset(kind, number), 64))
    node[at:at + len(data)] = data
    if seal:
        node = seal_node(node[4:])
    write_at(path, node_offset(kind, number), node)


def set_word(volume, lpa, word):
    change_block(volume.table, lpa // TABLE_SLOTS, lpa % TABLE_SLOTS * 2, struct.pack('<H', word))


def word(volume, lpa):
    block = read_at(volume.table, block_offset(lpa // TABLE_SLOTS), BLOCK)
    return struct.unpack_from('<H', block, lpa % TABLE_SLOTS * 2)[0]


def set_map_word(one, lea, word):
    change_block(one.path, lea // MAP_SLOTS, lea % MAP_SLOTS * 8, struct.pack('<Q', word))


def set_index(volume, group, **fields):
    """Replaces `next_group`, `head` or `count` of an entry, or all of it by `raw`."""
    head, count = volume.lists[group]
    entry = {'next_group': volume.next.get(group, 0), 'head': head, 'count': count, **fields}
    raw = entry.pop('raw', None) or index_entry(**entry)
    change_block(volume.index, group // INDEX_SLOTS, group % INDEX_SLOTS * 8, raw)


def pick_volume(dice, server, **wants):
    """A volume that has what is wanted: `used`, `listed` extents or groups, `maps` with entries."""
    fit = [volume for volume in server.volumes
           if (not wants.get('used') or volume.references)
           and len(volume.next) >= wants.get('listed', 0)
           and (not wants.get('entries') or any(one.entries for one in volume.maps))]
    return dice.choice(fit) if fit else None


def pick_used(dice, server):
    volume = pick_volume(dice, server, used=True)
    return (volume, dice.choice(sorted(volume.references))) if volume else (None, None)


def pick_entry(dice, server, *kinds):
    """A map with entries, and one of its leas."""
    maps = [(volume, one) for volume in server.volumes for one in volume.maps
            if one.entries and (not kinds or one.kind in kinds)]
    if not maps:
        return None, None, None
    volume, one = dice.choice(maps)
    return volume, one, dice.choice(sorted(one.entries))


def pick_free(volume, dice):
    group = dice.choice(sorted(volume.next))
    return dice.choice([lpa for lpa in range(group * GROUP, (group + 1) * GROUP)
                        if lpa not in volume.references])
