"""Damages of headers, whole files, names, and the server."""
import os
import shutil
import struct

from damaging import *  # noqa: F403 - fields and places
from metadata_bytes import *  # noqa: F403 - the names of the format
from random_server import data_file, random_uuid, write_journal


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
    change_node(path, kind, number, place, bytes([byte]), seal=False)


@damage
def header_word(dice, server):
    path, kind = _any_file(dice, server)
    if not os.path.exists(path):
        return False
    at, data = dice.choice(((8, b'\x32'), (16, struct.pack('<I', dice.choice((1, 2, 4, 5, 9)))),
                            (4, b'\x02'), (4, b'\x02'), (20, bytes(16)), (20, random_uuid(dice))))
    change_node(path, kind, 0, at, data)


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
    change_node(path, kind, number, at, data)


@damage
def twin_uuid(dice, server):
    maps = [one for volume in server.volumes for one in volume.maps if os.path.exists(one.path)]
    if len(maps) < 2:
        return False
    one, other = dice.sample(maps, 2)
    change_node(one.path, MAP, 0, 20, other.uuid)


@damage
def twin_pool(dice, server):
    if len(server.volumes) < 2:
        return False
    one, other = dice.sample(server.volumes, 2)
    path, kind = dice.choice(((one.table, TABLE), (one.index, INDEX)))
    if not os.path.exists(path):
        return False
    change_node(path, kind, 0, 20, other.uuid)


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
    volume, lpa = pick_used(dice, server)
    if volume is None:
        return False
    shift = 42 - volume.shift
    path = data_file(volume, lpa >> shift)
    if not os.path.exists(path):
        return False
    extent = lpa & (1 << shift) - 1
    begin = BLOCKS_AT + (extent << volume.shift)
    os.truncate(path, begin + dice.choice((0, 512, 1 << volume.shift)))


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
