"""The fast clock: one time for all programs of a Windows, and nothing left of it."""
import os
import subprocess
import sys
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent))

import packages  # noqa: E402
import wine  # noqa: E402

SPEED = 10


def setUpModule():
    packages.ensure(packages.TEST)


def kept():
    """What the clock's library keeps in shared memory."""
    return {p.name for p in Path('/dev/shm').iterdir() if 'faketime' in p.name}


class FastClock(unittest.TestCase):
    def setUp(self):
        self.before = kept()
        self.clock = wine.FastClock(SPEED)
        self.addCleanup(lambda: self.clock.holder.stdin.closed or self.clock.end())

    def environment(self):
        return {**os.environ, **self.clock.environment}

    def now(self):
        return float(subprocess.run(['date', '+%s.%N'], env=self.environment(), capture_output=True, text=True).stdout)

    def test_programs_that_are_started_apart_have_one_time_and_it_is_fast(self):
        real, fast = time.time(), self.now()
        time.sleep(1)
        real, fast = time.time() - real, self.now() - fast
        # The second program has run for a moment only: a time of its own would have stood where the real one does.
        self.assertGreater(fast, real * SPEED / 2)

    def test_killed_program_leaves_nothing(self):
        pair = kept() - self.before
        self.assertEqual(len(pair), 2)
        victim = subprocess.Popen(['sleep', '1000'], env=self.environment())
        victim.kill()
        victim.wait()
        self.assertEqual(kept() - self.before, pair)

    def test_end_leaves_nothing(self):
        self.clock.end()
        self.assertFalse(kept() - self.before)


if __name__ == '__main__':
    unittest.main()
