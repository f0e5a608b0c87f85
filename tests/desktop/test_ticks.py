"""Tests of the client's timer, which ticks every second here instead of every 20 seconds."""

import unittest

from rig import isolation
from rig.client import CONNECTED, FAULTY, NO_BUS
from rig.processes import wait_for_end
from rig.session import BUILD, COUNTING_BACKEND, Session, counted
from rig.waiting import PATIENCE

TICK = 1.0  # seconds

JUMPING = {"LD_PRELOAD": str(BUILD / "tests/libjumping_clock.so")}
# Prints the year that bash gets from time(). bash also calls time() for $SECONDS, so two prints may show the same year.
SHOW_TIME = "printf '%(%Y)T\\n' -1"


class Ticks(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.environment["KESTRUNE_TEST_TICK"] = str(TICK)

    def test_the_lamp_follows_a_broken_and_repaired_tunnel(self):
        self.session.backend("refresh")
        self.session.note_commands()
        client = self.session.terminal()
        while self.session.events.next() != "refresh asked":
            pass
        # A start causes at most two of these three checks, so a tick of the timer has caused the last check.
        for _ in range(3):
            self.assertEqual(self.session.events.next(), "status asked")
        client.menu_with(2, CONNECTED)
        self.session.backend("stop", "tunnel")
        self.assertEqual(client.menu_with(2, FAULTY).title, "Kestrune · 異常 · Kestrune Menu Client")
        self.session.backend("refresh")
        self.assertEqual(client.menu_with(2, CONNECTED).title, "Kestrune · 已連線 · Kestrune Menu Client")
        services = self.session.services()
        self.assertEqual(client.quit(), 0)
        for pid in services:
            wait_for_end(pid)
        self.assertEqual(client.errors.all(), NO_BUS)

    def test_a_calendar_clock_that_jumps_changes_nothing(self):
        years = set(self.session.output_of("bash", "-c", f"{SHOW_TIME}; {SHOW_TIME}; {SHOW_TIME}",
                                           env={**self.session.environment, **JUMPING}).split())
        self.assertEqual(len(years), 2)
        self.session.stub_backend(COUNTING_BACKEND)
        client = self.session.terminal(environment=JUMPING)
        # A tick of the timer causes the third check, which must come neither at once nor a year later.
        self.assertEqual(client.menu_with(*counted(3)).status, CONNECTED)
        self.assertGreater(client.age(), TICK)
        self.assertLess(client.age(), TICK + PATIENCE)
        self.assertEqual(client.quit(), 0)


isolation.main()
