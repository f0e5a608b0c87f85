"""What the menu says about a backend that really runs."""

import unittest

from rig import isolation
from rig.client import CONNECTED, FAULTY, NO_BUS, RECONNECTING
from rig.session import Session

COMMAND_LIMIT = 12.0

RULE = "─" * 28
MENU_WHEN_CONNECTED = [
    ("", None, "Kestrune"),
    ("", None, CONNECTED),
    ("", None, "連接模式：Kestrune 自托管"),
    ("", None, "Codex：OK codex-cli 0.46.0"),
    ("", None, "Remote Control：需檢查 未執行"),
    ("", None, "Codex App：需檢查 未執行"),
    ("", None, "ChatGPT Remote：需檢查 尚未就緒"),
    ("", None, "同步專案：Kestrune Menu Client"),
    ("", None, "同步會話：Tray menu and status lamp"),
    ("", None, "目前網路：網路未連線"),
    ("", None, "保持喚醒：已關閉"),
    ("", None, RULE),
    ("", None, "連線與常駐"),
    ("l", False, "開機自動啟動菜單欄"),
    ("a", True, "自動維持連線"),
    ("k", True, "保持 Mac 醒著（防止斷線）"),
    ("m", None, "使用官方 ChatGPT 模式"),
    ("x", None, "手動停止連線"),
    ("", None, RULE),
    ("", None, "查看與設定"),
    ("s", None, "查看完整診斷"),
    ("c", None, "檢查 Codex 版本與 Remote Control"),
    ("d", None, "打開 Codex App"),
    ("g", None, "官方 ChatGPT 連接說明"),
    ("o", None, "打開專案資料夾"),
    (",", None, "連線與 Token 設定…"),
    ("R", None, "重新啟動菜單欄"),
    ("", None, RULE),
    ("q", None, "退出 Kestrune"),
]


class Lamp(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.program("codex", "echo codex-cli 0.46.0\n")
        self.session.backend("refresh")

    def assertQuits(self):
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), NO_BUS)

    def assertRed(self):
        """The first check finds the fault."""
        self.client = self.session.terminal()
        menu = self.client.first_check()
        # Which project is selected may be asked before what is down is up again, or after.
        self.assertEqual((menu.status, menu.title.rpartition(" ·")[0]), (FAULTY, "Kestrune · 異常"))
        self.assertLess(self.client.age(), COMMAND_LIMIT)
        self.assertEqual(menu.rows[4].title, "Codex：OK codex-cli 0.46.0")

    def test_a_healthy_backend_is_green_in_a_menu_that_is_printed_when_it_changes(self):
        self.session.note_commands()
        self.client = self.session.terminal()
        menu = self.client.checked()
        self.assertEqual(menu.title, "Kestrune · 已連線 · Kestrune Menu Client")
        self.assertEqual([(row.key, row.mark, row.title) for row in menu.rows.values()], MENU_WHEN_CONNECTED)
        self.session.wait_for_start()
        # Its command is behind all others on the way to the backend, and so is its window.
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
                self.assertRed()
                while (menu := self.client.next_menu()).status in (RECONNECTING, FAULTY):
                    pass
                self.assertEqual(menu.status, CONNECTED)
                self.assertQuits()

    def test_settings_that_are_not_loaded_are_red(self):
        (self.session.repo / ".env").rename(self.session.repo / "env.off")
        self.assertRed()
        self.assertQuits()


if __name__ == "__main__":
    isolation.main()
