"""Checksums, headers and blocks of metadata files, as docs/formats.md gives them.

Written from that page alone: nothing here comes from the program, so that a mistake there is not
repeated here.
"""
import os
import struct

MAGIC = 0x0886255218140633
VERSION = 0x00010000
TABLE, INDEX, MAP, JOURNAL, DATA = 1, 2, 4, 5, 7
BLOCKS_AT = 1 << 20
BLOCK = 512
POOL_TABLE_AT = 8192
POOL_ROWS_MAX = (BLOCKS_AT - POOL_TABLE_AT) // 16
TABLE_SLOTS, INDEX_SLOTS, MAP_SLOTS = 252, 63, 63
GROUP = 4096
GROUPS_MAX = 0x1F800000
EXTENTS_MAX = GROUPS_MAX * GROUP
TABLE_SIZE = BLOCKS_AT + (1 << 33) * BLOCK
INDEX_SIZE = BLOCKS_AT + (1 << 23) * BLOCK

USED, TAIL, LOW = 0x8000, 0x1000, 0x0FFF
INITIALISED, COUNT = 0x8000, 0x3FFF
MAPPED, LPA, ROW_SHIFT, ROW_MASK = 1 << 63, (1 << 48) - 1, 48, 0xFFF

# Kind: (constant nodes, variable nodes). A data file's second node is not checked.
NODES = {TABLE: (2, 0), INDEX: (2, 1), MAP: (2, 3), JOURNAL: (2, 2), DATA: (1, 0)}

STATUS = {'init': 0, 'success': 0x25521814, 'abnormal': 0xFFFFFFFF, 'bad': 0x66656800,
          'read-only': 0x77777777}


def _crc_table():
    table = []
    for crc in range(1 << 16):  # two bytes at a time
        for _ in range(16):
            crc = crc >> 1 ^ (0x82F63B78 if crc & 1 else 0)
        table.append(crc)
    return table


_CRC = _crc_table()
_KNOWN = {}


def crc32c(data):
    """CRC-32C of an even number of bytes. Sums are remembered: blocks are summed again and again."""
    data = bytes(data)
    known = _KNOWN.get(data)
    if known is None:
        crc, table = 0xFFFFFFFF, _CRC
        for pair in struct.unpack('<%dH' % (len(data) // 2), data):
            crc = crc >> 16 ^ table[(crc ^ pair) & 0xFFFF]
        known = crc ^ 0xFFFFFFFF
        if len(_KNOWN) > 4096:
            _KNOWN.clear()
        _KNOWN[data] = known
    return known


def block_sum(block):
    return crc32c(block[:508] + bytes(4))


def node_sum(node):
    return crc32c(bytes(4) + node[4:])


def seal_block(payload):
    """A block of 512 bytes with these bytes in front, reserved bytes zero, and its checksum."""
    body = bytes(payload).ljust(508, b'\0')
    return body + struct.pack('<I', crc32c(body + bytes(4)))


def seal_node(payload):
    """A header node of 64 bytes; `payload` is what follows the checksum."""
    body = bytes(payload).ljust(60, b'\0')
    return struct.pack('<I', crc32c(bytes(4) + body)) + body


def common_head(kind, uuid, rest=b'', version=VERSION, magic=MAGIC):
    return seal_node(struct.pack('<IQI16s', version, magic, kind, uuid) + rest)


def block_offset(number):
    return BLOCKS_AT + number * BLOCK


def node_offset(kind, number):
    """Where header node `number`, constant ones first, is in the file."""
    constant = NODES[kind][0]
    return 64 * number if number < constant else 4096 + 64 * (number - constant)


def read_at(path, offset, length):
    """The bytes there; what lies past the end of the file is zero."""
    with open(path, 'rb') as file:
        file.seek(offset)
        return file.read(length).ljust(length, b'\0')


def write_at(path, offset, data):
    with open(path, 'r+b') as file:
        file.seek(offset)
        file.write(data)


def blocks_of(path):
    """Number to bytes of every block that is not all zero. Holes are not read."""
    found = {}
    with open(path, 'rb') as file:
        size = os.fstat(file.fileno()).st_size
        at = BLOCKS_AT
        while at < size:
            try:
                start = os.lseek(file.fileno(), at, os.SEEK_DATA)
            except OSError:
                break
            end = os.lseek(file.fileno(), start, os.SEEK_HOLE)
            first = max(start, BLOCKS_AT) // BLOCK
            file.seek(first * BLOCK)
            data = file.read(end - first * BLOCK)
            for place in range(0, len(data), BLOCK):
                block = data[place:place + BLOCK].ljust(BLOCK, b'\0')
                if any(block):
                    found[first + place // BLOCK - BLOCKS_AT // BLOCK] = block
            at = end
    return found
