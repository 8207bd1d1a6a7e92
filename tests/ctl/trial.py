"""What the oracles of `space` and `punch` share: one server of a seed, the programs, and what was wrong.
Below: nothing. Above: space_oracle.py, punch_oracle.py."""
import os
import random
import subprocess


class Trial:
    def __init__(self, tarnctl, tarn, lab, seed, directory):
        self.tarnctl, self.tarn, self.lab, self.seed = tarnctl, tarn, lab, seed
        self.dice = random.Random(seed)
        self.sample = os.path.join(directory, 's')
        self.wrong = []

    def check(self, what, seen, expected):
        if seen != expected:
            self.wrong.append('%s: %r instead of %r' % (what, seen, expected))

    def run(self, *words, sample=None, statuses=(0,), given=None):
        """Runs a command on the sample, or on another one. Returns what it prints."""
        conf = os.path.join(sample or self.sample, 'platform.conf')
        environment = {**os.environ, 'TARN_PLATFORM_CONF': conf,
                       'PATH': os.path.dirname(self.tarn) + ':' + os.environ['PATH']}
        done = subprocess.run(words, env=environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True, input=given)
        if done.returncode not in statuses:
            self.wrong.append('%s: exit %d: %s' % (' '.join(words), done.returncode,
                                                  done.stderr[:300]))
        return done.stdout
