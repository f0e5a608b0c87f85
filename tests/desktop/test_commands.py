"""The commands of the menu, typed in the terminal face."""

import shutil
import unittest

from support import isolation
from desktop.session import (CHECKING, CONNECTED, COUNTING_BACKEND, DISABLED, NO_BUS, PROGRAM, RECONNECTING, Session,
                             Window, counted, running, wait_for_end, write_script)
from support.windows import (AWAKE, CONNECTING, GUIDE, MISSING_APP, NOT_AWAKE, NOT_CONNECTING, OFFICIAL_MODE, OWN_MODE,
                             RECONNECTED, STOPPED, codex_check, diagnosis)

OPENER = """
printf '%s\\n' "$#" "$@" > "$HOME/events"
"""

TELLING_THE_TIME = """
echo "$1 $EPOCHREALTIME" > "$HOME/events"
"""
SETTLING_TIME = 1.2
SLACK = 5.0  # for a machine that has other things to do

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


class Reports(Typed):
    def test_the_diagnosis_is_shown_and_followed_by_a_check(self):
        self.start()
        self.assertOpens("s", diagnosis(3))
        self.client.menu_with(*counted(4))
        self.assertAsked("status", "status")
        self.assertQuits()

    def test_the_diagnosis_of_a_backend_that_fails_is_a_warning(self):
        self.start()
        (self.session.home / "failing").touch()
        self.assertOpens("21", diagnosis(3, failing=True))
        menu = self.client.menu_with(*counted(4))
        self.assertEqual(menu.status, "🔴 連線狀態：[OK] Codex CLI: 4")
        self.assertAsked("status", "status")
        self.assertQuits()

    def test_the_check_of_codex_is_no_warning_even_when_it_fails(self):
        self.start()
        self.assertOpens("c", codex_check(3))
        self.assertEqual(self.client.menu_with(*counted(3)).status, "🟢 連線狀態：Codex 診斷已更新")
        (self.session.home / "failing").touch()
        self.assertOpens("c", codex_check(4, failing=True))
        self.assertEqual(self.client.menu_with(*counted(4)).status, "🔴 連線狀態：Codex 診斷已更新")
        self.assertAsked("status", "status")
        self.assertQuits()

    def test_a_window_waits_until_the_one_before_is_answered(self):
        self.start()
        self.client.type("g")
        self.assertEqual(self.client.next_window(), GUIDE)
        for line in ("m", "2", "0", "no"):
            self.client.type(line)
        self.client.output.wait(lambda text: text.count("請輸入按鈕編號。\n") == 4, "four complaints")
        self.client.type("")
        self.assertOpens("m", OFFICIAL_MODE)
        self.assertQuits()


class Switches(Typed):
    def test_the_mode_goes_there_and_back(self):
        self.start()
        self.assertOpens("m", OFFICIAL_MODE)
        menu = self.client.next_menu()
        self.assertEqual(menu.status, "🟡 連線狀態：已切換到官方 ChatGPT 模式")
        self.assertEqual([menu.rows[number].title for number in (3, 17)],
                         ["連接模式：官方 ChatGPT", "使用 Kestrune 自托管模式"])
        self.assertEqual(self.session.preferences(), {"connectionMode": "official_chatgpt"})
        self.assertOpens("17", OWN_MODE)
        menu = self.client.next_menu()
        self.assertEqual(menu.status, "🟡 連線狀態：已切換到 Kestrune 自托管模式")
        self.assertEqual([menu.rows[number].title for number in (3, 17)],
                         ["連接模式：Kestrune 自托管", "使用官方 ChatGPT 模式"])
        self.assertEqual(self.session.preferences(), {"connectionMode": "kestrune_self_hosted"})
        self.assertQuits()

    def test_keep_awake_goes_off_and_on(self):
        self.start()
        for window, state, kept in ((NOT_AWAKE, "保持喚醒已關閉", False), (AWAKE, "保持喚醒已開啟", True)):
            self.assertOpens("k", window)
            menu = self.client.next_menu()
            self.assertEqual((menu.status, menu.rows[16].mark), (f"🟡 連線狀態：{state}", kept))
            self.assertEqual(self.session.preferences(), {"keepAwakeEnabled": kept})
        self.assertQuits()

    def test_keep_awake_is_red_while_automatic_connection_is_off(self):
        self.session.prefer('{"autoConnectEnabled": false}')
        self.client = self.session.terminal()
        self.client.menu_with(10, "目前網路：網路未連線")
        self.assertOpens("k", NOT_AWAKE)
        self.assertOpens("k", AWAKE)
        menu = self.client.menu_with(2, "🔴 連線狀態：保持喚醒已開啟")
        self.assertEqual([menu.rows[number].mark for number in (15, 16)], [False, True])
        self.assertEqual(menu.rows[11].title, "保持喚醒：已關閉")
        self.assertQuits()

    def test_automatic_connection_goes_off_and_on_with_the_services(self):
        self.session.backend("refresh")
        services = self.session.services()
        self.session.note_commands(counting=True)
        self.client = self.session.terminal()
        self.assertEqual(self.client.menu_with(*counted(2)).status, CONNECTED)
        self.session.wait_for_start()
        self.assertOpens("a", NOT_CONNECTING)
        for pid in services:
            wait_for_end(pid)
        menu = self.client.menu_with(2, DISABLED)
        self.assertEqual((menu.rows[15].mark, menu.rows[18].title), (False, "立即重新檢查連線"))
        self.assertEqual([menu.rows[number].title for number in (8, 9)], ["同步專案：未同步", "同步會話：尚未啟動"])
        self.assertIs(self.session.preferences()["autoConnectEnabled"], False)
        self.assertOpens("a", CONNECTING)
        menu = self.client.menu_with(2, CONNECTED)
        self.assertEqual((menu.rows[15].mark, menu.rows[18].title), (True, "手動停止連線"))
        self.assertIs(self.session.preferences()["autoConnectEnabled"], True)
        self.assertAsked("refresh", "status")
        services = self.session.services()
        self.assertQuits()
        for pid in services:
            wait_for_end(pid)


class Connection(Typed):
    def test_the_stop_ends_the_services_and_the_new_check_brings_them_back(self):
        self.session.backend("refresh")
        services = self.session.services()
        self.session.note_commands(counting=True)
        self.client = self.session.terminal()
        self.assertEqual(self.client.menu_with(*counted(2)).status, CONNECTED)
        self.session.wait_for_start()
        self.assertOpens("x", STOPPED)
        for pid in services:
            wait_for_end(pid)
        menu = self.client.menu_with(2, STOPPED_BY_HAND)
        self.assertEqual((menu.rows[15].mark, menu.rows[18].key), (False, "r"))
        self.assertEqual([menu.rows[number].title for number in (8, 9)], ["同步專案：未同步", "同步會話：尚未啟動"])
        self.assertIs(self.session.preferences()["autoConnectEnabled"], False)
        self.client.type("r")
        window = self.client.next_window()
        self.assertEqual((window.title, window.warns), ("刷新連線", False))
        self.session.services()
        self.client.type("1")
        menu = self.client.menu_with(2, CONNECTED)
        self.assertEqual((menu.rows[15].mark, menu.rows[18].key), (True, "x"))
        self.assertAsked("refresh", "status")
        self.assertQuits()

    def test_the_new_check_shows_what_the_backend_said(self):
        self.start()
        # What is typed meanwhile is to be there before it is over.
        self.session.stub_backend('[[ $1 != refresh ]] || read -r < "$HOME/gate"\n' + COUNTING_BACKEND)
        self.assertOpens("x", STOPPED)
        self.client.menu_with(2, STOPPED_BY_HAND)
        self.client.type("18")
        menu = self.client.menu_with(2, RECONNECTING)
        self.assertEqual(menu.rows[18].title, "正在重新檢查並恢復連線…")
        self.client.type("18")
        self.client.said("這一列只供查看：正在重新檢查並恢復連線…")
        self.session.gate.open()
        self.assertEqual(self.client.next_window(), RECONNECTED)
        self.client.type("1")
        self.client.menu_with(*counted(3))
        self.assertAsked("refresh", "status")
        self.assertQuits()

    def test_its_check_comes_a_moment_after_what_the_backend_did(self):
        self.session.stub_backend(TELLING_THE_TIME)
        self.client = self.session.terminal()
        self.assertRegex(self.session.events.next(), "^status ")
        refreshed, checked = (self.session.events.next().split() for _ in range(2))
        self.assertEqual((refreshed[0], checked[0]), ("refresh", "status"))
        self.assertGreaterEqual(float(checked[1]) - float(refreshed[1]), SETTLING_TIME)
        self.assertLess(float(checked[1]) - float(refreshed[1]), SETTLING_TIME + SLACK)
        self.assertQuits()

    def test_it_ends_while_a_window_waits(self):
        self.start()
        self.client.type("g")
        self.assertEqual(self.client.next_window(), GUIDE)
        self.assertEqual(self.client.end(), 0)


class Opened(Typed):
    def setUp(self):
        super().setUp()
        self.session.program("xdg-open", OPENER)
        # Not by way of a login shell, as the commands of the backend.
        self.session.environment["PATH"] = f"{self.session.bin}:{self.session.environment['PATH']}"

    def test_the_folder_of_the_backend(self):
        self.start()
        self.client.type("o")
        self.assertEqual([self.session.events.next() for _ in range(2)], ["1", str(self.session.repo)])
        self.assertQuits()

    def test_the_app_that_is_missing(self):
        self.start()
        self.assertOpens("d", MISSING_APP)
        self.assertQuits()


class Restart(Typed):
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

    def assertStays(self, why):
        self.assertOpens("R", Window("重新啟動失敗", "無法重新打開 Kestrune 菜單欄：" + why, warns=True))

    def test_one_that_cannot_start_anew_goes_on(self):
        program = self.session.root / "KestruneMenuClient"
        shutil.copy(PROGRAM, program)
        self.start(program=program)
        program.unlink()
        self.assertStays("No such file or directory")
        write_script(program, "exit 3\n")
        self.assertStays("程式以狀態 3 結束。")
        program.write_text("no program")
        self.assertStays("Exec format error")
        program.unlink()
        program.mkdir()
        self.assertStays("Permission denied")
        self.assertOpens("g", GUIDE)
        self.assertQuits()


if __name__ == "__main__":
    isolation.main()
