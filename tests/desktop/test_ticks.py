"""The ticks of the timer, which come sooner than in a release."""

import unittest

from rig import isolation
from rig.bus import Bus
from rig.client import CONNECTED, DISABLED, FAULTY, NO_BUS
from rig.processes import wait_for_end
from rig.session import BUILD, COUNTING_BACKEND, REPORTING_BACKEND, Session, counted
from rig.waiting import PATIENCE

TICK = 1.0  # seconds
SOON = {"KESTRUNE_TEST_TICK": str(TICK)}

JUMPING = {"LD_PRELOAD": str(BUILD / "tests/libjumping_clock.so")}
# The year that time() returns in bash, which also calls it for $SECONDS.
SHOW_TIME = "printf '%(%Y)T\\n' -1"


class Ticks(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.environment |= SOON

    def pass_the_start(self):
        """Waits until a check has begun that a tick has asked for: what a start asks for is answered by then."""
        while self.session.events.next() != "refresh asked":
            pass
        for _ in range(3):
            self.assertEqual(self.session.events.next(), "status asked")

    def test_a_broken_tunnel_is_red_at_the_next_tick_and_green_when_it_is_repaired(self):
        self.session.backend("refresh")
        self.session.note_commands()
        client = self.session.terminal()
        self.pass_the_start()
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

    def test_a_tick_that_changes_nothing_says_nothing(self):
        bus = Bus(self.session)
        traffic = bus.monitor()
        self.session.stub_backend(REPORTING_BACKEND)
        client = self.session.start()

        def sent():
            return {name: len(traffic.said(name))
                    for name in ("ItemsPropertiesUpdated", "NewIcon", "NewToolTip", "LayoutUpdated")}
        traffic.wait_for_status(CONNECTED)
        self.pass_the_start()
        before = sent()
        self.assertTrue(all(before.values()))
        for _ in range(2):
            self.assertEqual(self.session.events.next(), "status asked")
        self.assertEqual(sent(), before)
        # A tray that is not there is not looked for with each of them.
        looks = traffic.said("Get", lambda data: data[1] == "IsStatusNotifierHostRegistered")
        self.assertLessEqual(len(looks), 2)
        self.assertEqual(client.end(), 0)

    def test_preferences_that_were_changed_count_at_the_next_tick(self):
        self.session.stub_backend(COUNTING_BACKEND)
        client = self.session.terminal()
        client.menu_with(*counted(2))
        self.session.prefer('{"autoConnectEnabled": false, "connectionMode": "official_chatgpt"}')
        menu = client.menu_with(2, DISABLED)
        self.assertEqual((menu.title, menu.rows[3].title), ("Kestrune · 檢查中 · 未同步", "連接模式：官方 ChatGPT"))
        self.assertEqual(client.quit(), 0)

    def test_a_calendar_clock_that_jumps_changes_nothing(self):
        years = set(self.session.output_of("bash", "-c", f"{SHOW_TIME}; {SHOW_TIME}; {SHOW_TIME}",
                                           env={**self.session.environment, **JUMPING}).split())
        self.assertEqual(len(years), 2)
        self.session.stub_backend(COUNTING_BACKEND)
        client = self.session.terminal(environment=JUMPING)
        # Neither at once, nor in a year.
        self.assertEqual(client.menu_with(*counted(3)).status, CONNECTED)
        self.assertGreater(client.age(), TICK)
        self.assertLess(client.age(), TICK + PATIENCE)
        self.assertEqual(client.quit(), 0)


if __name__ == "__main__":
    isolation.main()
