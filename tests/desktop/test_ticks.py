"""What the timer does. A tick is 20 seconds of real time, so all cases wait for the same ticks."""

import unittest

from support import isolation
from desktop.bus import Bus
from desktop.session import (CONNECTED, COUNTING_BACKEND, DISABLED, FAULTY, NO_BUS, Session, counted,
                             wait_for_end)

INTERVAL = 20.0
COMMAND_LIMIT = 12.0
SLACK = 5.0  # for a machine that has other things to do

TELLING_THE_TIME = """
[[ $1 == status ]] || exit 0
echo "$EPOCHREALTIME" > "$HOME/events"
echo '[OK] Mac service: 好'
"""


class Ticks(unittest.TestCase):
    # The clients with stubs do not quit: that would stop the real backend of the other one.

    @classmethod
    def setUpClass(cls):
        cls.timed = Session(cls)
        cls.timed.stub_backend(TELLING_THE_TIME)
        cls.unchanged = cls.timed.terminal()

        cls.on_a_bus = Session(cls)
        cls.bus = Bus(cls.on_a_bus)
        cls.traffic = cls.bus.monitor()
        cls.addClassCleanup(cls.traffic.close)
        cls.on_a_bus.stub_backend(TELLING_THE_TIME)
        cls.on_a_bus.start()

        cls.off = Session(cls)
        cls.off.prefer('{"autoConnectEnabled": false}')
        cls.off.profile.write_text('echo shell >> "$HOME/shells"\n')
        cls.switched_off = cls.off.terminal()

        cls.later = Session(cls)
        cls.later.stub_backend(COUNTING_BACKEND)
        cls.switched_later = cls.later.terminal()
        cls.switched_later.menu_with(*counted(2))
        cls.later.wait_for_start()
        cls.later.prefer('{"autoConnectEnabled": false, "connectionMode": "official_chatgpt"}')

        cls.real = Session(cls)
        cls.real.backend("refresh")
        cls.real.note_commands()
        cls.supervising = cls.real.terminal()
        assert cls.supervising.checked().status == CONNECTED
        cls.real.wait_for_start()
        cls.real.backend("stop", "tunnel")

        cls.times = []

    @classmethod
    def first_checks(cls):
        """When a client that is never interfered with made them: two belong to the start, and two to ticks."""
        while len(cls.times) < 4:
            cls.times.append(float(cls.timed.events.next()))
        return cls.times

    def assertAtTick(self, number, menu, client):
        when = client.output.time_of(menu.last) - client.started
        self.assertGreater(when, number * INTERVAL)
        self.assertLess(when, number * INTERVAL + COMMAND_LIMIT + SLACK)

    def test_a_broken_tunnel_is_red_at_the_next_tick_and_green_when_it_is_repaired(self):
        client = self.supervising
        menu = client.next_menu()
        self.assertEqual((menu.status, menu.title), (FAULTY, "Kestrune · 異常 · Kestrune Menu Client"))
        self.assertAtTick(1, menu, client)
        self.real.backend("refresh")
        menu = client.next_menu()
        self.assertEqual((menu.status, menu.title), (CONNECTED, "Kestrune · 已連線 · Kestrune Menu Client"))
        self.assertAtTick(2, menu, client)
        services = self.real.services()
        self.assertEqual(client.quit(), 0)
        for pid in services:
            wait_for_end(pid)
        self.assertEqual(client.errors.all(), NO_BUS)
        self.assertEqual(len(client.menus()), client.seen)

    def test_a_tick_that_changes_nothing_prints_nothing(self):
        first, _, second, third = self.first_checks()
        for time in (second - first, third - second):
            # The shell may have taken longer the first time.
            self.assertGreater(time, INTERVAL - SLACK)
            self.assertLess(time, INTERVAL + SLACK)
        # The answer comes behind what the tick before the last may have printed.
        self.unchanged.type("3")
        self.unchanged.said("這一列只供查看：連接模式：Kestrune 自托管")
        self.unchanged.assert_only_started(CONNECTED)

    def test_a_tick_that_changes_nothing_sends_nothing(self):
        def sent():
            return {name: len(self.traffic.said(name))
                    for name in ("ItemsPropertiesUpdated", "NewIcon", "NewToolTip", "LayoutUpdated")}
        for _ in range(3):
            self.on_a_bus.events.next()
        # The checks of the start were over before the tick.
        before = sent()
        self.assertTrue(all(before.values()))
        self.on_a_bus.events.next()
        self.assertEqual(sent(), before)

    def test_a_tray_that_is_not_there_is_looked_for_twice(self):
        def looks_for_a_host(data):
            return data[1] == "IsStatusNotifierHostRegistered"
        self.first_checks()
        self.assertEqual(len(self.traffic.said("Get", looks_for_a_host)), 2)

    def test_switched_off_a_tick_runs_no_command(self):
        self.first_checks()
        self.assertEqual(self.switched_off.next_menu().status, DISABLED)
        self.switched_off.type("3")
        self.switched_off.said("這一列只供查看：連接模式：Kestrune 自托管")
        self.assertEqual([menu.status for menu in self.switched_off.menus()], [DISABLED] * 2)
        self.assertFalse((self.off.home / "shells").exists())

    def test_preferences_that_were_changed_count_at_the_next_tick(self):
        menu = self.switched_later.next_menu()
        self.assertAtTick(1, menu, self.switched_later)
        self.assertEqual((menu.status, menu.title), (DISABLED, "Kestrune · 檢查中 · 未同步"))
        self.assertEqual(menu.rows[3].title, "連接模式：官方 ChatGPT")
        self.assertEqual(self.later.events.pending(), [])


if __name__ == "__main__":
    isolation.main()
