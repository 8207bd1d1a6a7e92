"""Holds `tarnctl punch` against sets of extents that are made by brute force, and runs what it prints.

    punch_oracle.py TARNCTL TARN TARN_LAB SEED DIRECTORY

makes the server of that seed below DIRECTORY, with data in extents that are in use and in others that
are free. The ranges have to be the runs of free extents, cut to where data are. Their commands, run by
tarn, have to give back what was foretold, and leave every other byte. Prints what is wrong, and ends
with 1.
"""
import bisect
import hashlib
import json
import os
import sys

sys.dont_write_bytecode = True  # the tests stay as they are

import random_server  # noqa: E402
from trial import Trial  # noqa: E402
from volume_bytes import DATA_AT, Volume, data_runs  # noqa: E402

PIECE = 4096
SPANNED = 1024  # extents in a row that are holes, at most, within one command


class PunchTrial(Trial):
    def make(self):
        os.makedirs(self.sample)
        if self.seed % 2 == 1:
            random_server.make(self.sample, self.dice)
        else:
            self.run(self.lab, 'make', self.sample, '--seed', str(self.seed), '--data',
                     str(self.dice.choice((1, 30))), *(['--unfinalized'] if self.seed % 4 else []))
        names = sorted(name for name in os.listdir(self.sample) if name.startswith('volume'))
        self.volumes = [Volume(os.path.join(self.sample, name)) for name in names]

    def write(self, volume, lpa):
        path, at = volume.place_of(lpa)
        if not os.path.exists(path):
            return  # the server has lost this data file
        with open(path, 'r+b') as file:
            file.truncate(max(os.path.getsize(path), at + volume.size))
            pieces = max(volume.size // PIECE, 1)
            for piece in self.dice.sample(range(pieces), min(pieces, self.dice.randint(1, 3))):
                file.seek(at + piece * PIECE)
                file.write(self.dice.randbytes(min(PIECE, volume.size)))

    def fill(self, volume):
        """Data in free extents; of random servers in others as well, tarn-lab has its own there."""
        reach = max(list(volume.counts) + [100]) + 50
        for _ in range(self.dice.randint(0, 60)):
            lpa = self.dice.randrange(reach)
            first_of_last_file = volume.data_files[-1] * volume.span
            if self.dice.random() < 0.1:
                lpa = first_of_last_file + self.dice.randrange(40)
            for near in range(lpa, lpa + self.dice.choice((1, 1, 5))):
                if near not in volume.counts or self.seed % 2 == 1:
                    self.write(volume, near)

    def expected(self, volume):
        """The free runs with data, and the bytes of data and of holes in free extents."""
        used = sorted(volume.counts)
        data, extents, holes, runs = self.data_of(volume, free=True), 0, 0, []
        for number in volume.data_files:
            bytes_ = max(os.path.getsize(volume.data_path(number)) - DATA_AT, 0)
            here = [lpa % volume.span << volume.shift for lpa in used if lpa // volume.span == number]
            here = [at for at in here if at < bytes_]
            extents += (bytes_ + volume.size - 1 >> volume.shift) - len(here)
            holes += bytes_ - sum(min(volume.size, bytes_ - at) for at in here)
        for lpa in sorted(data):
            if (runs and lpa - runs[-1][1] <= SPANNED + 1
                    and bisect.bisect(used, runs[-1][1]) == bisect.bisect(used, lpa)):
                runs[-1][1] = lpa
            else:
                runs.append([lpa, lpa])
        size = sum(end - begin for parts in data.values() for begin, end in parts)
        return {'ranges': [(first, last - first + 1) for first, last in runs],
                'totals': (extents, size, holes - size, len(runs))}

    def data_of(self, volume, free):
        """Extent to the parts of its data file that hold data, of those that are free, or in use."""
        data = {}
        for number in volume.data_files:
            for at, end in data_runs(volume.data_path(number)):
                at = max(at, DATA_AT)
                while at < end:
                    extent = at - DATA_AT >> volume.shift
                    stop = min(end, (extent + 1 << volume.shift) + DATA_AT)
                    lpa = number * volume.span + extent
                    if (lpa not in volume.counts) == free:
                        data.setdefault(lpa, []).append((at, stop))
                    at = stop
        return data

    def used_bytes(self, volume):
        """A hash of the data of every extent in use."""
        digest = hashlib.sha256()
        for lpa, parts in sorted(self.data_of(volume, free=False).items()):
            with open(volume.place_of(lpa)[0], 'rb') as file:
                for begin, end in parts:
                    file.seek(begin)
                    digest.update(b'%d %d ' % (lpa, begin) + file.read(end - begin))
        return digest.hexdigest()

    def punch(self):
        return [json.loads(line) for line in self.run(self.tarnctl, 'punch', '--json').splitlines()]

    def compare(self, records):
        for volume in self.volumes:
            true = self.expected(volume)
            mine = [one for one in records if one.get('volume') == volume.root]
            ranges = [(one['lpa']['first'], one['lpa']['count']) for one in mine
                      if one['record'] == 'punch']
            self.check('ranges', ranges, true['ranges'])
            total = [one for one in mine if one['record'] == 'free_space']
            self.check('volumes', len(total), 1)
            for one in total:
                self.check('totals', (one['extents'], int(one['data_bytes']),
                                      int(one['hole_bytes']), one['commands']), true['totals'])

    def carry_out(self, records):
        before = [self.used_bytes(volume) for volume in self.volumes]
        sizes = [os.path.getsize(volume.data_path(number)) for volume in self.volumes
                 for number in volume.data_files]
        held = self.held()
        for one in records:
            if one['record'] == 'punch':
                self.run('sh', '-c', one['command'], given='YES\n')
        self.check('data in use', [self.used_bytes(volume) for volume in self.volumes], before)
        self.check('sizes', [os.path.getsize(volume.data_path(number)) for volume in self.volumes
                             for number in volume.data_files], sizes)
        self.check('given back', held - self.held(),
                   sum(int(one['data_bytes']) for one in records if one['record'] == 'punch'))
        self.check('second time', [one for one in self.punch() if one['record'] == 'punch'], [])
        if self.seed % 2 == 0:
            self.run(self.lab, 'verify', self.sample)

    def held(self):
        return sum(end - begin for volume in self.volumes for number in volume.data_files
                   for begin, end in data_runs(volume.data_path(number)))


def main():
    tarnctl, tarn, lab, seed, directory = sys.argv[1:]
    trial = PunchTrial(tarnctl, tarn, lab, int(seed), directory)
    trial.make()
    for volume in trial.volumes:
        trial.fill(volume)
    records = trial.punch()
    trial.compare(records)
    if not trial.wrong:
        trial.carry_out(records)
    print('\n'.join(one[:600] for one in trial.wrong[:8]) if trial.wrong else 'right')
    sys.exit(1 if trial.wrong else 0)


main()
