"""Holds `tarnctl space` against sets of extents that are made by brute force.

    space_oracle.py TARNCTL TARN TARN_LAB SEED DIRECTORY

makes the server of that seed below DIRECTORY, clean or crashed, and compares every figure, in two
sizes of memory, and for a set of maps that is to be deleted. Then a part of the servers loses the maps
of that set and is rebuilt, and the table has to have as many extents less; of another part a map is
damaged, and no figure may claim more than it can know. Prints what is wrong, and ends with 1.
"""
import json
import os
import shutil
import subprocess
import sys

sys.dont_write_bytecode = True  # the tests stay as they are

import random_server  # noqa: E402
from trial import Trial  # noqa: E402
from volume_bytes import Volume, figures, freed  # noqa: E402

SHAPES = ('', '--unfinalized', '--extents 700 --luns 5', '--volumes 3 --transactions 60',
          '--extents 63 --luns 2', '--luns 6 --transactions 400')
DAMAGES = ('map-node-bit', 'map-truncated', 'map-header-bit', 'three-entries')


class SpaceTrial(Trial):
    def space(self, *words, statuses=(0,)):
        text = self.run(self.tarnctl, 'space', '--json', *words, statuses=statuses)
        return [json.loads(line) for line in text.splitlines()]

    def make(self):
        """Whether there is a server. What it is once recovered is in `truth`."""
        os.makedirs(self.sample)
        if self.seed % 3 == 2:
            random_server.make(self.sample, self.dice)
            self.read_truth(self.sample)
            return True
        shape = SHAPES[self.seed // 3 % len(SHAPES)].split()
        crash = self.seed % 12 == 1
        self.run(self.lab, 'make', self.sample, '--seed', str(self.seed), *shape,
                 *(['--crash'] if crash else []))
        if not crash:
            self.read_truth(self.sample)
            return True
        if self.run(self.lab, 'expect', self.sample) != 'recovers\n':
            return False
        self.read_recovered()
        return True

    def read_recovered(self):
        """Recovers the server, and puts the crashed one back in its place."""
        kept = self.sample + '.kept'
        subprocess.run(['cp', '-a', '--sparse=always', self.sample, kept], check=True)
        self.run(self.tarn, '--startup-replay')
        self.read_truth(self.sample)
        shutil.rmtree(self.sample)
        os.rename(kept, self.sample)

    def read_truth(self, sample):
        names = sorted(name for name in os.listdir(sample) if name.startswith('volume'))
        self.truth = {os.path.join(sample, name): Volume(os.path.join(sample, name))
                      for name in names}

    def compare_maps(self, records):
        for root, volume in self.truth.items():
            seen = {record['file']: record for record in records
                    if record['record'] == 'map' and record['volume'] == root}
            self.check('maps of ' + root, sorted(seen), sorted(volume.maps))
            for place, expected in figures(volume).items():
                one = seen.get(place)
                if one is not None:
                    self.check(place, (one['total'],) + tuple(
                        one[key]['extents'] for key in ('mapped', 'exclusive', 'shared'))
                        + (one['past_end'],), expected)
                    self.check(place + ' worth', {one[key]['worth'] for key in
                                                  ('mapped', 'exclusive', 'shared')}, {'exact'})

    def compare_volumes(self, records, places):
        for record in records:
            if record['record'] != 'volume':
                continue
            volume = self.truth[record['volume']]
            owned = set().union(*(one.extents for one in volume.maps.values()), set())
            shared = len(owned) - sum(one[2] for one in figures(volume).values())
            self.check('volume', [record[key] for key in
                                  ('in_use', 'in_one_map', 'in_several', 'in_no_map',
                                   'mapped_and_free')],
                       [len(volume.counts), len(owned) - shared, shared,
                        len(volume.counts.keys() - owned), len(owned - volume.counts.keys())])
            self.check('sum', record['in_one_map'] + record['in_several'], record['in_use'])
            self.check('freed', record.get('freed', {}).get('extents'),
                       len(freed(volume, places.get(record['volume'], ()))) if places else None)
        self.check('volumes', sum(1 for one in records if one['record'] == 'volume'),
                   len(self.truth))

    def choose(self):
        """Maps to be deleted: root to places."""
        chosen = {}
        for root, volume in self.truth.items():
            places = sorted(volume.maps)
            for place in self.dice.sample(places, self.dice.randint(0, len(places))):
                chosen.setdefault(root, []).append(place)
        if not chosen:
            root = next(iter(self.truth))
            chosen[root] = [min(self.truth[root].maps)]
        return chosen

    def compare(self):
        for memory in ('1M', '64M'):
            records = self.space('--memory', memory)
            self.compare_maps(records)
            self.compare_volumes(records, {})
        places = self.choose()
        paths = [os.path.join(root, place) for root, some in places.items() for place in some]
        records = self.space('--if-deleted', *paths)
        self.compare_maps(records)
        self.compare_volumes(records, places)

    def delete(self):
        """What is said to be freed, against a rebuild without these maps."""
        root, volume = next(iter(self.truth.items()))
        luns = [place for place in sorted(volume.maps) if not place.startswith('@EP/')]
        gone = self.dice.sample(luns, self.dice.randint(1, max(1, len(luns) - 1)))
        records = self.space('--volume', root, '--if-deleted',
                             *(os.path.join(root, place) for place in gone))
        foretold = next(record['freed']['extents'] for record in records
                        if record['record'] == 'volume')
        for place in gone:
            os.remove(os.path.join(root, place))
        self.run(self.tarn, '--onekeyrepair', '--volpath', root)
        self.check('deleted ' + ' '.join(gone), len(volume.counts) - len(Volume(root).counts),
                   foretold)

    def judge_bound(self, what, figure, true):
        worth, extents = figure['worth'], figure['extents']
        right = (extents == true if worth == 'exact' else extents <= true if worth == 'at least'
                 else extents >= true if worth == 'at most' else worth == 'unsure')
        if not right:
            self.wrong.append('%s: %s %d, and it is %d' % (what, worth, extents, true))

    def damage(self):
        """Figures of a server with damaged maps against those of the sound one."""
        places = self.choose()
        done = ''
        for number in range(self.dice.randint(1, 2)):
            kind = self.dice.choice(DAMAGES)
            done += self.run(self.lab, 'damage', self.sample, kind, '--seed',
                             str(self.seed + number), statuses=(0, 1))
        paths = [os.path.join(root, place) for root, some in places.items() for place in some]
        records = self.space('--if-deleted', *paths, statuses=(0, 6))
        exact = 0
        for record in records:
            if record['record'] == 'map':
                true = figures(self.truth[record['volume']])[record['file']]
                for key, number in (('mapped', 1), ('exclusive', 2), ('shared', 3)):
                    if record[key] is not None:
                        self.judge_bound(record['file'] + ' ' + key, record[key], true[number])
                        exact += record[key]['worth'] == 'exact'
            elif record['record'] == 'volume':
                volume = self.truth[record['volume']]
                self.judge_bound('freed', record['freed'],
                                 len(freed(volume, places.get(record['volume'], ()))))
        if ': ' in done and 'volume1/@' in done and records[-1]['exit'] != 6:
            self.wrong.append('no doubt after ' + done)
        if self.wrong:
            self.wrong.append(done)


def main():
    tarnctl, tarn, lab, seed, directory = sys.argv[1:]
    trial = SpaceTrial(tarnctl, tarn, lab, int(seed), directory)
    if not trial.make():
        print('no server')
        return
    trial.compare()
    if not trial.wrong and trial.seed % 3 == 0:
        trial.damage()
    elif not trial.wrong and trial.seed % 3 == 1 and trial.seed % 12 != 1:
        trial.delete()
    print('\n'.join(trial.wrong[:8]) if trial.wrong else 'right')
    sys.exit(1 if trial.wrong else 0)


main()
