"""Small random servers: sound by construction, written byte by byte.

A server is a directory with volume1 ..., journal and platform.conf. `make(directory, dice)` returns
what it holds, for whoever damages it afterwards.
"""
import os
import struct
import types

from metadata_bytes import *  # noqa: F403 - the names of the format

LUN, TRASH, SNAPSHOT, UNMAP_BUFFER, COPY_MAP = range(5)


def random_uuid(dice):
    return dice.randbytes(16)


def _place_groups(dice, shift):
    """Numbers of the initialised groups, and how many data files they need."""
    count = dice.randint(1, 6)
    if dice.random() < 0.7:
        groups = list(range(count))
    else:
        groups = sorted(dice.sample(range(9), count))
    per_file = 1 << 42 - shift
    files = (groups[-1] * GROUP + GROUP - 1) // per_file + 1
    return groups, files + (dice.random() < 0.2)


def _pick_used(dice, groups):
    """Extents in use, by group: from nearly none to all."""
    used = {}
    for group in groups:
        count = dice.choice((0, 3, 40, 200, 200, GROUP if dice.random() < 0.3 else 500))
        if dice.random() < 0.5:
            first = dice.randint(0, GROUP - count)
            used[group] = list(range(first, first + count))
        else:
            used[group] = sorted(dice.sample(range(GROUP), count))
    return used


def _map_file(dice, volume, kind, number):
    name = {LUN: '@iSCSITrg/LUN_%d/LUN_%d_Extent_0' % (number, number),
            TRASH: '@EP_trash/gone_%d' % number,
            SNAPSHOT: '@Snapshot/of_%d/FAMILY_%d' % (number, number),
            UNMAP_BUFFER: '@EP/EP_BUF', COPY_MAP: '@EP/EP_ROD'}[kind]
    total = dice.randint(0, 400)
    return types.SimpleNamespace(kind=kind, name=name, path=os.path.join(volume.root, name),
                                 uuid=random_uuid(dice), total=total, entries={}, rows=[])


def _choose_maps(dice, volume):
    kinds = [LUN] + [kind for kind in (LUN, LUN, TRASH, SNAPSHOT, UNMAP_BUFFER, COPY_MAP)
                     if dice.random() < 0.5]
    maps = [_map_file(dice, volume, kind, number) for number, kind in enumerate(kinds[:6])]
    return maps


def _free_leas(dice, volume):
    """Pairs (map, lea) that entries may go to, in random order; the unmap buffer's ascend."""
    places = []
    for one in volume.maps:
        leas = [lea for lea in range(one.total) if lea not in one.entries]
        if one.kind != UNMAP_BUFFER:
            leas = dice.sample(leas, dice.randint(0, len(leas)))
        places += [(one, lea) for lea in leas[:dice.choice((400, 400, 10))]]
    return places


def _fill_one_group(dice, volume):
    """Now and then a group without a free extent, or an extent with the highest count: both take
    a larger map."""
    if dice.random() > 0.15:
        return {}
    group = dice.choice(volume.groups)
    one = volume.maps[0]
    base = dice.choice((0, one.total))
    one.total += GROUP
    if dice.random() < 0.3:
        one.entries = {base + number: group * GROUP for number in range(LOW)}
        return {group * GROUP: LOW}
    one.entries = {base + offset: group * GROUP + offset for offset in range(GROUP)}
    return {lpa: 1 for lpa in one.entries.values()}


def _fill_maps(dice, volume, used):
    """Gives extents to entries, some to several; what no entry has room for is not in use."""
    volume.references = _fill_one_group(dice, volume)
    extents = [group * GROUP + offset for group in used for offset in used[group]
               if group * GROUP + offset not in volume.references]
    dice.shuffle(extents)
    buffers = {}
    places = _free_leas(dice, volume)
    dice.shuffle(places)
    for one, lea in places:
        if not extents:
            break
        lpa = dice.choice(list(volume.references)[-20:]) if volume.references else None
        if lpa is not None and volume.references[lpa] < 100 and dice.random() < 0.2:
            pass  # shared
        else:
            lpa = extents.pop()
        volume.references[lpa] = volume.references.get(lpa, 0) + 1
        if one.kind == UNMAP_BUFFER:  # filled without gaps
            lea = buffers[id(one)] = buffers.get(id(one), -1) + 1
        one.entries[lea] = lpa


def _rows(dice, server):
    """Pool tables: each map names its volume's pool, here and there others too."""
    for volume in server.volumes:
        for one in volume.maps:
            one.rows = [random_uuid(dice) for _ in range(dice.randint(0, 3))]
            one.row = dice.randint(0, len(one.rows))
            one.rows.insert(one.row, volume.uuid)
            if not one.entries and dice.random() < 0.3:
                one.rows = []


def write_map(one):
    os.makedirs(os.path.dirname(one.path), exist_ok=True)
    pools = b''.join(one.rows)
    nodes = (one.total + MAP_SLOTS - 1) // MAP_SLOTS
    with open(one.path, 'wb') as file:
        file.write(common_head(MAP, one.uuid))
        file.write(seal_node(struct.pack('<IIQ', 0, 512, one.total)))
        file.seek(4096)
        file.write(seal_node(struct.pack('<Q', len(one.entries))))
        file.write(seal_node(struct.pack('<II', crc32c(pools), len(one.rows))))
        file.write(seal_node(b''))
        file.seek(POOL_TABLE_AT)
        file.write(pools)
        for node in range(nodes):
            words = [0] * MAP_SLOTS
            for slot in range(MAP_SLOTS):
                lpa = one.entries.get(node * MAP_SLOTS + slot)
                if lpa is not None:
                    words[slot] = MAPPED | one.row << ROW_SHIFT | lpa
            if any(words):
                file.seek(block_offset(node))
                file.write(seal_block(struct.pack('<63Q', *words)))
        file.truncate(block_offset(nodes))


def _link_extents(dice, volume):
    """Words of the table, and head and length of each group's free list."""
    volume.words, volume.lists = {}, {}
    for group in volume.groups:
        first = group * GROUP
        free = [offset for offset in range(GROUP) if first + offset not in volume.references]
        style = dice.random()
        if style < 0.3:
            dice.shuffle(free)
        elif style < 0.5 and free:
            turn = dice.randrange(len(free))
            free = free[turn:] + free[:turn]
        for at, offset in enumerate(free):
            last = at + 1 == len(free)
            volume.words[first + offset] = TAIL if last else free[at + 1]
        volume.lists[group] = (free[0] if free else 0, len(free))
    for lpa, count in volume.references.items():
        volume.words[lpa] = USED | count


def _link_groups(dice, volume):
    """The list of groups: any order, and any group that is not initialised ends it."""
    end = dice.choice((GROUPS_MAX, volume.groups[-1] + 1, volume.groups[-1] + 7))
    listed = [group for group in volume.groups if volume.lists[group][1] > 0]
    if dice.random() < 0.4:
        dice.shuffle(listed)
    volume.head = listed[0] if listed else end
    volume.next = dict(zip(listed, listed[1:] + [end]))
    volume.group_count = GROUPS_MAX if dice.random() < 0.2 else volume.groups[-1] + 1
    volume.free = EXTENTS_MAX - len(volume.references)


def table_blocks(words):
    payloads = {}
    for lpa, word in words.items():
        payload = payloads.setdefault(lpa // TABLE_SLOTS, [0] * TABLE_SLOTS)
        payload[lpa % TABLE_SLOTS] = word
    return {number: struct.pack('<252H', *payload) for number, payload in payloads.items()}


def index_entry(next_group, head, count, initialised=True):
    return struct.pack('<IHH', next_group & 0xFFFFFFFF, next_group >> 32 | head << 4,
                       count | (INITIALISED if initialised else 0))


def _write_blocks(path, size, head, payloads):
    with open(path, 'wb') as file:
        for offset, data in head:
            file.seek(offset)
            file.write(data)
        for number, payload in payloads.items():
            file.seek(block_offset(number))
            file.write(seal_block(payload))
        file.truncate(size)


def _write_table(volume):
    head = [(0, common_head(TABLE, volume.uuid, struct.pack('<QI', BLOCKS_AT, 1700000000))),
            (64, seal_node(struct.pack('<IIQ', 1 << volume.shift, 2, (1 << 33) * TABLE_SLOTS)))]
    _write_blocks(volume.table, TABLE_SIZE, head, table_blocks(volume.words))


def _write_index(volume):
    head = [(0, common_head(INDEX, volume.uuid, struct.pack('<QI', BLOCKS_AT, 1700000000))),
            (64, seal_node(struct.pack('<IQ', 8, volume.group_count))),
            (4096, seal_node(struct.pack('<QQ', volume.free, volume.head)))]
    payloads = {}
    for group in volume.groups:
        payload = payloads.setdefault(group // INDEX_SLOTS, bytearray(504))
        head_offset, count = volume.lists[group]
        entry = index_entry(volume.next.get(group, 0), head_offset, count)
        payload[group % INDEX_SLOTS * 8:group % INDEX_SLOTS * 8 + 8] = entry
    _write_blocks(volume.index, INDEX_SIZE, head, payloads)


def data_file(volume, number):
    return os.path.join(volume.root, '@EP', 'EP_DAT_%05d' % number)


def _write_data_files(volume):
    for number in range(volume.data_files):
        with open(data_file(volume, number), 'wb') as file:
            file.write(common_head(DATA, volume.uuid))
            file.write(seal_node(b''))
            file.truncate(BLOCKS_AT + (1 << 42))


def _make_volume(dice, root):
    volume = types.SimpleNamespace(root=root, uuid=random_uuid(dice), shift=dice.randint(20, 30))
    volume.table = os.path.join(root, '@EP', 'EP_TBL')
    volume.index = os.path.join(root, '@EP', 'EP_FRI')
    for name in ('@EP', '@iSCSITrg', '@EP_trash', '@Snapshot'):
        os.makedirs(os.path.join(root, name))
    volume.groups, volume.data_files = _place_groups(dice, volume.shift)
    volume.maps = _choose_maps(dice, volume)
    _fill_maps(dice, volume, _pick_used(dice, volume.groups))
    _link_extents(dice, volume)
    _link_groups(dice, volume)
    return volume


def write_journal(path, status):
    with open(path, 'wb') as file:
        file.write(common_head(JOURNAL, bytes(16)))
        file.write(seal_node(struct.pack('<Q', 64)))
        file.seek(4096)
        file.write(seal_node(struct.pack('<II', STATUS[status], 4)))
        file.write(seal_node(struct.pack('<IQiiQ', 0, 0, 0, 0, 0)))
        file.truncate(block_offset(64))


def make(directory, dice):
    """Writes a sound server into the empty `directory`."""
    server = types.SimpleNamespace(directory=directory, volumes=[])
    server.journal = os.path.join(directory, 'journal', 'EP_JNL')
    server.configuration = os.path.join(directory, 'platform.conf')
    for number in range(1, dice.choice((1, 1, 2, 3)) + 1):
        server.volumes.append(_make_volume(dice, os.path.join(directory, 'volume%d' % number)))
    _rows(dice, server)
    for volume in server.volumes:
        _write_table(volume)
        _write_index(volume)
        _write_data_files(volume)
        for one in volume.maps:
            write_map(one)
    os.mkdir(os.path.dirname(server.journal))
    write_journal(server.journal, 'success')
    with open(server.configuration, 'w', encoding='ascii') as file:
        file.write('journal_root = %s\nvolumes = %s\n' % (
            os.path.dirname(server.journal), ' '.join(volume.root for volume in server.volumes)))
    return server
