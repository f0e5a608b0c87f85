"""The menu and its lamp (🟢 🟡 🔴 in row 2) with the sample backend."""

import unittest

from rig import isolation
from rig.client import CONNECTED, FAULTY, NO_BUS, RECONNECTING
from rig.processes import wait_for_end
from rig.session import Session

COMMAND_LIMIT = 12.0

# The titles of the rows from row 3 on.
ROWS = ["連接模式：Kestrune 自托管", "Codex：OK codex-cli 0.46.0", "Remote Control：需檢查 未執行", "Codex App：需檢查 未執行",
        "ChatGPT Remote：需檢查 尚未就緒", "同步專案：Kestrune Menu Client", "同步會話：Tray menu and status lamp",
        "目前網路：網路未連線", "保持喚醒：已關閉"]


class Lamp(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.program("codex", "echo codex-cli 0.46.0\n")
        self.session.backend("refresh")

    def assertQuits(self):
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), NO_BUS)

    def test_a_healthy_backend_is_green_in_a_menu_that_is_printed_when_it_changes(self):
        self.session.note_commands()
        self.client = self.session.terminal()
        menu = self.client.checked()
        self.assertEqual(menu.title, "Kestrune · 已連線 · Kestrune Menu Client")
        self.assertEqual(len(menu.rows), 29)
        self.assertEqual([menu.rows[number].title for number in range(3, 12)], ROWS)
        self.session.wait_for_start()
        # The client runs one command at a time. So the answer to this key comes after all commands of the start.
        self.client.type("s")
        self.client.said("ℹ 目前狀態")
        self.client.assert_only_started(CONNECTED)
        self.client.type("1")
        printed = len(self.client.menus())
        self.client.type("")
        self.assertEqual(self.client.next_menu().status, CONNECTED)
        self.assertQuits()
        self.assertEqual(len(self.client.menus()), printed + 1)

    def test_a_fault_is_red_until_the_reconnect_that_follows_a_start_mends_it(self):
        for fault in (("hang", "service"), ("stop", "all")):
            with self.subTest(fault):
                self.session.backend("refresh")
                self.session.backend(*fault)
                self.client = self.session.terminal()
                menu = self.client.first_check()
                # Do not compare the project in the title: the client may have asked for it without the services.
                self.assertEqual((menu.status, menu.title.rpartition(" ·")[0]), (FAULTY, "Kestrune · 異常"))
                self.assertLess(self.client.age(), COMMAND_LIMIT)
                self.assertEqual(menu.rows[4].title, "Codex：OK codex-cli 0.46.0")
                while (menu := self.client.next_menu()).status in (RECONNECTING, FAULTY):
                    pass
                self.assertEqual(menu.status, CONNECTED)
                self.assertQuits()

    def test_the_lamp_follows_a_broken_and_repaired_tunnel(self):
        self.session.environment["KESTRUNE_TEST_TICK"] = "1"  # second, instead of 20
        self.session.note_commands()
        self.client = self.session.terminal()
        while self.session.events.next() != "refresh asked":
            pass
        # A start causes at most two of these three checks, so a tick of the timer has caused the last check.
        for _ in range(3):
            self.assertEqual(self.session.events.next(), "status asked")
        self.client.menu_with(2, CONNECTED)
        self.session.backend("stop", "tunnel")
        self.assertEqual(self.client.menu_with(2, FAULTY).title, "Kestrune · 異常 · Kestrune Menu Client")
        self.session.backend("refresh")
        self.assertEqual(self.client.menu_with(2, CONNECTED).title, "Kestrune · 已連線 · Kestrune Menu Client")
        services = self.session.services()
        self.assertQuits()
        wait_for_end(*services)


isolation.main()
