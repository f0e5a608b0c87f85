"""The commands of the menu, typed in the terminal face."""

import unittest

from rig import isolation
from rig.client import CHECKING, CONNECTED, DISABLED, NO_BUS
from rig.processes import running, wait_for_end
from rig.session import COUNTING_BACKEND, Session, counted
from rig.windows import CONNECTING, NOT_CONNECTING, STOPPED, codex_check, diagnosis

STOPPED_BY_HAND = "🔴 連線狀態：已手動關停，背景服務已停止"


class Typed(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        # Says nothing, as one that knows the units that it is to stop.
        self.session.program("systemctl", "exit 0\n")

    def start(self, **options):
        """A client with the counting backend, which has been asked for all that a start asks for."""
        self.session.stub_backend(COUNTING_BACKEND)
        self.client = self.session.terminal(**options)
        self.client.menu_with(*counted(2))
        self.session.wait_for_start()

    def assertOpens(self, key, window):
        """Typing the key leads to that window, which closes when it is answered."""
        self.client.type(key)
        self.assertEqual(self.client.next_window(), window)
        self.client.type("1")

    def assertAsked(self, *commands):
        self.assertEqual([self.session.events.next() for _ in commands], [f"{each} asked" for each in commands])

    def assertQuits(self):
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), NO_BUS)
        self.assertEqual(self.session.events.pending(), [])

    def test_reports_are_shown_and_a_diagnosis_is_followed_by_a_check(self):
        self.start()
        self.assertOpens("s", diagnosis(3))
        self.client.menu_with(*counted(4))
        self.assertOpens("c", codex_check(5))
        self.assertEqual(self.client.menu_with(*counted(5)).status, "🟢 連線狀態：Codex 診斷已更新")
        (self.session.home / "failing").touch()
        self.assertOpens("21", diagnosis(6, failing=True))
        self.assertEqual(self.client.menu_with(*counted(7)).status, "🔴 連線狀態：[OK] Codex CLI: 7")
        self.assertOpens("c", codex_check(8, failing=True))
        self.assertEqual(self.client.menu_with(*counted(8)).status, "🔴 連線狀態：Codex 診斷已更新")
        self.assertAsked(*["status"] * 6)
        self.assertQuits()

    def test_services_stop_and_come_back(self):
        self.session.backend("refresh")
        services = self.session.services()
        self.session.note_commands(counting=True)
        self.client = self.session.terminal()
        self.assertEqual(self.client.menu_with(*counted(2)).status, CONNECTED)
        self.session.wait_for_start()
        for key, window, status in ("a", NOT_CONNECTING, DISABLED), ("x", STOPPED, STOPPED_BY_HAND):
            self.assertOpens(key, window)
            for pid in services:
                wait_for_end(pid)
            menu = self.client.menu_with(2, status)
            self.assertEqual((menu.rows[15].mark, menu.rows[18].key, menu.rows[18].title), (False, "r", "立即重新檢查連線"))
            self.assertEqual([menu.rows[number].title for number in (8, 9)], ["同步專案：未同步", "同步會話：尚未啟動"])
            self.assertIs(self.session.preferences()["autoConnectEnabled"], False)
            self.client.type("a" if key == "a" else "r")
            shown = self.client.next_window()
            self.assertFalse(shown.warns)
            self.assertEqual(shown.title, CONNECTING.title if key == "a" else "刷新連線")
            self.client.type("1")
            menu = self.client.menu_with(2, CONNECTED)
            self.assertEqual((menu.rows[15].mark, menu.rows[18].key), (True, "x"))
            self.assertIs(self.session.preferences()["autoConnectEnabled"], True)
            self.assertAsked("refresh", "status")
            services = self.session.services()
        self.assertQuits()
        for pid in services:
            wait_for_end(pid)

    def test_it_starts_anew_in_its_place(self):
        self.session.backend("refresh")
        services = self.session.services()
        self.client = self.session.real_terminal()
        self.assertEqual(self.client.checked().status, CONNECTED)
        self.client.type("R")
        # It ends as it does when it quits, and its successor reads the same terminal.
        for pid in services:
            wait_for_end(pid)
        self.client.menu_with(2, CHECKING)
        self.client.menu_with(2, CONNECTED)
        self.assertIn(self.client.pid, running())
        self.session.services()
        self.client.type("m")
        self.client.said("已切換連接模式")
        self.client.type("1")
        self.assertEqual(self.client.quit(), 0)


if __name__ == "__main__":
    isolation.main()
