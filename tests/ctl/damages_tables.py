"""Damages of tables and indexes."""
import struct

from damaging import *  # noqa: F403 - fields and places
from metadata_bytes import *  # noqa: F403 - the names of the format


@damage
def table_block_sum(dice, server):
    volume = dice.choice(server.volumes)
    lpa = dice.choice(volume.groups) * GROUP + dice.randrange(GROUP)
    place = dice.randrange(508)
    block = read_at(volume.table, block_offset(lpa // TABLE_SLOTS), BLOCK)
    change_block(volume.table, lpa // TABLE_SLOTS, place,
                  bytes([block[place] ^ 1 << dice.randrange(8)]), seal=False)


@damage
def table_block_unsummed(dice, server):
    volume = dice.choice(server.volumes)
    lpa = dice.choice(volume.groups) * GROUP + dice.randrange(GROUP)
    change_block(volume.table, lpa // TABLE_SLOTS, 508, bytes(4), seal=False)


@damage
def used_word(dice, server):
    volume, lpa = pick_used(dice, server)
    if volume is None:
        return False
    count = volume.references[lpa]
    set_word(volume, lpa, dice.choice((USED | count + 1, USED | count + 1, USED | count - 1,
                                        USED | count + 700, USED, USED | 4095, count, TAIL, 0)))


@damage
def free_word(dice, server):
    volume = pick_volume(dice, server, listed=1)
    if volume is None:
        return False
    lpa = pick_free(volume, dice)
    word = volume.words[lpa]
    set_word(volume, lpa, dice.choice((USED | 1, USED, USED | 4095, word ^ TAIL, word & LOW,
                                        dice.randrange(GROUP), TAIL, lpa & LOW,
                                        word | 0x6000)))


@damage
def missing_tail(dice, server):
    volume = pick_volume(dice, server, listed=1)
    if volume is None:
        return False
    group = dice.choice(sorted(volume.next))
    tail = [lpa for lpa in range(group * GROUP, (group + 1) * GROUP)
            if volume.words.get(lpa) == TAIL]
    set_word(volume, tail[0], dice.choice((0, volume.lists[group][0], dice.randrange(GROUP))))


@damage
def word_outside(dice, server):
    volume = dice.choice(server.volumes)
    group = next(group for group in range(20) if group not in volume.groups)
    if (group + 1) * GROUP > volume.data_files << 42 - volume.shift:
        return False
    set_word(volume, group * GROUP + dice.randrange(GROUP),
              dice.choice((USED | 1, USED, USED | 4095, TAIL, 5)))


# The index.
@damage
def index_block_sum(dice, server):
    volume = dice.choice(server.volumes)
    place = dice.choice((dice.choice(volume.groups) * 8 + dice.randrange(8), dice.randrange(508)))
    block = read_at(volume.index, block_offset(0), BLOCK)
    change_block(volume.index, 0, place,
                  dice.choice((bytes([block[place] ^ 1 << dice.randrange(8)]), b'')) or
                  bytes([block[place] ^ 0x80]), seal=False)


@damage
def index_count(dice, server):
    volume = dice.choice(server.volumes)
    group = dice.choice(volume.groups)
    count = volume.lists[group][1]
    set_index(volume, group, count=dice.choice((count + 1, max(count - 1, 0), 0, 4096, 4097,
                                                 16383, dice.randrange(GROUP))))


@damage
def index_head(dice, server):
    volume = pick_volume(dice, server, listed=1)
    if volume is None:
        return False
    set_index(volume, dice.choice(sorted(volume.next)), head=dice.randrange(GROUP))


@damage
def index_entry_gone(dice, server):
    volume = dice.choice(server.volumes)
    set_index(volume, dice.choice(volume.groups), raw=bytes(8))


@damage
def index_entry_more(dice, server):
    """A group that was never initialised gets an entry."""
    volume = dice.choice(server.volumes)
    group = next(group for group in range(20) if group not in volume.groups)
    volume.lists[group] = (0, 0)
    volume.groups = sorted(volume.groups + [group])
    set_index(volume, group, count=dice.choice((0, 7, 4096)), head=dice.randrange(GROUP))


@damage
def index_link(dice, server):
    volume = pick_volume(dice, server, listed=1)
    if volume is None:
        return False
    order = list(volume.next)
    group = dice.choice(order)
    full = [other for other in volume.groups if volume.lists[other][1] == 0]
    set_index(volume, group, next_group=dice.choice(
        (group, order[0], order[-1], dice.choice(order), dice.randrange(12), GROUPS_MAX,
         GROUPS_MAX + 1, (1 << 36) - 1) + tuple(full)))


@damage
def index_last_link(dice, server):
    volume = pick_volume(dice, server, listed=1)
    if volume is None:
        return False
    order = list(volume.next)
    set_index(volume, order[-1], next_group=dice.choice(order + [GROUPS_MAX + 5]))


@damage
def full_group_listed(dice, server):
    volumes = [volume for volume in server.volumes
               if 0 < len(volume.next) < len(volume.groups)]
    if not volumes:
        return False
    volume = dice.choice(volumes)
    full = dice.choice([group for group in volume.groups if group not in volume.next])
    before = dice.choice(list(volume.next))
    set_index(volume, full, next_group=volume.next[before])
    set_index(volume, before, next_group=full)


@damage
def index_header(dice, server):
    volume = dice.choice(server.volumes)
    choice = dice.randrange(3)
    if choice == 0:
        count = dice.choice((0, max(volume.groups[-1], 1), volume.groups[-1] + 3))
        change_node(volume.index, INDEX, 1, 8, struct.pack('<Q', count))
    elif choice == 1:
        free = volume.free + dice.choice((1, -1, 5000, -volume.free))
        change_node(volume.index, INDEX, 2, 4, struct.pack('<Q', free))
    else:
        head = dice.choice((dice.choice(volume.groups), GROUPS_MAX, GROUPS_MAX + 1, 1 << 35, 15))
        change_node(volume.index, INDEX, 2, 12, struct.pack('<Q', head))
