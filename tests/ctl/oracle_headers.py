"""The nodes of a header, and whether they can be believed."""
import os
import struct

from metadata_bytes import *  # noqa: F403 - the names of the format


def read_header(path, kind):
    """The nodes' payloads, None for one with a wrong checksum."""
    nodes = []
    for number in range(sum(NODES[kind])):
        node = read_at(path, node_offset(kind, number), 64)
        stored = struct.unpack_from('<I', node)[0]
        nodes.append(node if not any(node) or stored == node_sum(node) else None)
    return nodes


def judge_header(volume, path, kind):
    """The nodes of a header, None for those that cannot be believed; all None: not such a file."""
    place = os.path.relpath(path, volume.root)
    nodes = read_header(path, kind)
    if None in nodes:
        volume.say('H01', place)
    if nodes[0] is not None:
        version, magic, word = struct.unpack_from('<IQI', nodes[0], 4)
        if magic == MAGIC and kind != MAP and version != VERSION:
            volume.say('H04', place)
        if magic != MAGIC or word != kind:
            volume.say('H02', place)
            return nodes, False
    return nodes, True
