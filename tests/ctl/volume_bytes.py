"""What the maps, the table and the data files of a volume say about its extents, read byte by byte
and kept in sets: for the oracles of `tarnctl space` and `tarnctl punch`. Shares nothing with tarnctl.
"""
import os
import struct
import types

from metadata_bytes import *  # noqa: F403 - the names of the format
from oracle_maps import find_maps

DATA_AT, SPAN_SHIFT = 1 << 20, 42


class Volume:
    """`maps`: place to map, with `lpas` (of its entries, in order), `total`, `past` (entries past the
    end). `counts`: the reference counts of the extents in use."""

    def __init__(self, root):
        self.root = root
        table = os.path.join(root, '@EP', 'EP_TBL')
        self.size = struct.unpack('<I', read_at(table, 68, 4))[0]
        self.shift = self.size.bit_length() - 1
        self.span = 1 << SPAN_SHIFT - self.shift
        self.counts = {}
        for number, block in blocks_of(table).items():
            words = struct.unpack_from('<252H', block)
            for slot, word in enumerate(words):
                if word & USED:
                    self.counts[number * TABLE_SLOTS + slot] = word & LOW
        files = [int(name[7:]) for name in os.listdir(os.path.join(root, '@EP'))
                 if name.startswith('EP_DAT_')]
        self.data_files = sorted(files)
        self.end = (self.data_files[-1] + 1) * self.span if files else EXTENTS_MAX
        self.maps = {one.place: self._read_map(one) for one in find_maps(self)}

    def say(self, *_):
        pass

    def data_path(self, number):
        return os.path.join(self.root, '@EP', 'EP_DAT_%05d' % number)

    def _read_map(self, one):
        words = {}
        for number, block in blocks_of(one.path).items():
            for slot, word in enumerate(struct.unpack_from('<63Q', block)):
                if word & MAPPED:
                    words[number * MAP_SLOTS + slot] = word & LPA
        total = struct.unpack('<Q', read_at(one.path, 76, 8))[0]
        if one.kind == 'copy':
            held = (max(os.path.getsize(one.path) - BLOCKS_AT, 0) + BLOCK - 1) // BLOCK
            total = max(total, held * MAP_SLOTS, ((1 << 30 - self.shift) + 32) * 512)
        if one.kind == 'buffer':
            blank = 0
            while blank in words:
                blank += 1
            words = {lea: lpa for lea, lpa in words.items() if lea < blank}
        lpas = [lpa for lea, lpa in sorted(words.items()) if lea < total]
        return types.SimpleNamespace(total=total, lpas=lpas, extents={x for x in lpas if x < self.end},
                                     past=sum(1 for x in lpas if x >= self.end), path=one.path)

    def place_of(self, lpa):
        """The data file of an extent, and its byte there."""
        return self.data_path(lpa // self.span), (lpa % self.span << self.shift) + DATA_AT


def freed(volume, places):
    """The extents to which only the maps at these places refer."""
    inside, outside = set(), set()
    for place, one in volume.maps.items():
        (inside if place in places else outside).update(one.extents)
    return inside - outside


def figures(volume):
    """Place to (total, mapped, exclusive, shared, past)."""
    owners = {}
    for place, one in volume.maps.items():
        for lpa in one.extents:
            owners.setdefault(lpa, []).append(place)
    return {place: (one.total, len(one.lpas),
                    sum(1 for lpa in one.extents if len(owners[lpa]) == 1),
                    sum(1 for lpa in one.extents if len(owners[lpa]) > 1), one.past)
            for place, one in volume.maps.items()}


def data_runs(path):
    """The parts of a file that are not holes, as (begin, end)."""
    found = []
    with open(path, 'rb') as file:
        size = os.fstat(file.fileno()).st_size
        at = 0
        while at < size:
            try:
                start = os.lseek(file.fileno(), at, os.SEEK_DATA)
            except OSError:
                break
            at = os.lseek(file.fileno(), start, os.SEEK_HOLE)
            found.append((start, at))
    return found
