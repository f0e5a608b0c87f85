"""Clocks that are set, and clocks that have run for long."""

import unittest

from support import isolation
from desktop.session import BUILD, CONNECTED, COUNTING_BACKEND, PATIENCE, Session, counted

YEAR = 365 * 24 * 3600  # seconds
INTERVAL = 20.0

JUMPING = {"LD_PRELOAD": str(BUILD / "tests/libjumping_clock.so")}
# Of the call that every shell makes to tell how long it has run.
SHOW_TIME = "printf '%(%Y)T\\n' -1"


def running_for(seconds):
    """Has a program find that the machine was started so long ago."""
    return ["unshare", "--time", f"--monotonic={seconds}", f"--boottime={seconds}", "--fork", "--kill-child", "--"]


class Clocks(unittest.TestCase):
    def start(self, **options):
        session = Session(self)
        session.stub_backend(COUNTING_BACKEND)
        client = session.terminal(**options)
        client.session = session
        return client

    def test_whatever_they_say_everything_comes_in_its_time(self):
        clients = [self.start(environment=JUMPING)]
        clients += [self.start(through=running_for(seconds)) for seconds in (YEAR, 100 * YEAR, 2 ** 32 // 1000)]
        for client in clients:
            client.session.wait_for_start()
            client.menu_with(*counted(2))
        for client in clients:
            # Neither at once, nor in a year.
            menu = client.menu_with(*counted(3))
            self.assertEqual(menu.status, CONNECTED)
            self.assertGreater(client.age(), INTERVAL - 2.0)
            self.assertLess(client.age(), INTERVAL + PATIENCE)
            self.assertEqual(client.quit(), 0)

    def test_that_jump_are_seen_to_jump(self):
        session = Session(self)
        years = set()
        for _ in range(2):
            shell = session.spawn("bash", "-c", f"{SHOW_TIME}; {SHOW_TIME}", environment=JUMPING, stdout=-1)
            years |= set(shell.communicate(timeout=PATIENCE)[0].split())
        self.assertEqual(len(years), 2)


if __name__ == "__main__":
    isolation.main()
