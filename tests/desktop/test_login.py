"""Launch at login: the entry in the autostart folder, and what a session makes of it."""

import subprocess
import unittest
from pathlib import Path

from support import isolation
from desktop.bus import CLIENT, DAEMON, Bus
from desktop.session import (BUILD, CONNECTED, PATIENCE, PROGRAM, Session, Window, read_process, running, wait_for_end,
                             write_script)
from desktop.xfce import Screen

ROW = 14
ON = Window("已開啟開機自動啟動", "已保存開機自動啟動設定，會在下次登入或重開機後生效。")
OFF = Window("已關閉開機自動啟動", "已關閉開機自動啟動；目前這個菜單欄應用會繼續執行，直到你手動退出。")

FOREIGN = """[Desktop Entry]
Type=Application
Name=Kestrune
Exec=env "KESTRUNE_REPO_PATH={repo}" "{gone}" --background
TryExec={gone}
Hidden={hidden}
# mine
X-Mine=1
"""


class Login(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.program("systemctl", "exit 0\n")
        self.entry = self.session.config / "autostart/com.dovrel.kestrune.menuclient.desktop"
        self.former = self.session.config / "autostart/com.dovrel.halvask.menuclient.desktop"

    def have(self, text):
        self.entry.parent.mkdir(exist_ok=True)
        self.entry.write_text(text)

    def install(self, folder="安裝 a prefix"):
        """The program outside of the build folder."""
        prefix = self.session.root / "prefix"
        subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix], check=True, stdout=subprocess.DEVNULL,
                       timeout=PATIENCE)
        # Not every name is one that the installation takes.
        return prefix.rename(self.session.root / folder) / "bin/KestruneMenuClient"


class Toggled(Login):
    """In the terminal face."""

    def start(self, **options):
        self.session.prefer('{"autoConnectEnabled": false}')
        self.client = self.session.terminal(**options)
        self.asked = 0

    def mark(self):
        """Of the menu that is printed when it is asked for."""
        self.client.type("3")
        self.client.output.wait(lambda text: text.count("這一列只供查看：") > self.asked, "answer")
        self.asked += 1
        self.client.seen = len(self.client.menus())
        self.client.type("")
        return self.client.next_menu().rows[ROW].mark

    def toggle(self):
        self.client.type("l")
        window = self.client.next_window()
        self.client.type("1")
        return window

    def assertQuits(self):
        self.assertEqual(self.client.quit(), 0)

    def test_it_goes_on_and_off(self):
        self.start()
        self.assertIs(self.mark(), False)
        self.assertEqual(self.toggle(), ON)
        self.assertIs(self.mark(), True)
        text = self.entry.read_text()
        for line in ("[Desktop Entry]", "Type=Application", "Name=Kestrune", "Terminal=false", f"TryExec={PROGRAM}",
                     f"Path={self.session.repo}",
                     f'Exec=env "KESTRUNE_REPO_PATH={self.session.repo}" "{PROGRAM}" --background'):
            self.assertIn(line, text.splitlines())
        subprocess.run(["desktop-file-validate", self.entry], check=True, timeout=PATIENCE)
        self.assertEqual(self.toggle(), OFF)
        self.assertIs(self.mark(), False)
        self.assertEqual(list(self.entry.parent.iterdir()), [])
        self.assertQuits()

    def test_a_former_entry_alone_counts_and_goes(self):
        self.entry.parent.mkdir()
        self.former.write_text("[Desktop Entry]\n")
        self.start()
        self.assertIs(self.mark(), True)
        self.assertEqual(self.toggle(), OFF)
        self.assertEqual(list(self.entry.parent.iterdir()), [])
        self.assertEqual(self.toggle(), ON)
        self.assertEqual(list(self.entry.parent.iterdir()), [self.entry])
        self.assertQuits()

    def test_one_that_a_desktop_has_switched_off_counts_as_off(self):
        for line in ("Hidden=true", "X-GNOME-Autostart-enabled=false"):
            with self.subTest(line=line):
                self.have(f"[Desktop Entry]\nType=Application\nExec=true\n{line}\n")
                self.start()
                self.assertIs(self.mark(), False)
                self.assertEqual(self.toggle(), ON)
                self.assertIs(self.mark(), True)
                self.assertNotIn(line, self.entry.read_text())
                self.assertQuits()

    def test_what_cannot_be_written_is_told(self):
        self.entry.parent.write_text("in the way")
        self.start()
        window = self.toggle()
        self.assertEqual(window, Window(ON.title, "Not a directory", warns=True))
        self.assertIs(self.mark(), False)
        self.entry.parent.unlink()
        self.entry.mkdir(parents=True)
        self.assertIs(self.mark(), False)
        self.assertEqual(self.toggle(), Window(ON.title, "Is a directory", warns=True))
        self.assertIs(self.mark(), False)
        self.assertQuits()

    def test_with_automatic_connection_it_reconnects(self):
        self.session.stub_backend('echo "$1 asked" > "$HOME/events"\n')
        self.client = self.session.terminal()
        self.session.wait_for_start()
        self.assertEqual(self.toggle(), ON)
        self.assertEqual([self.session.events.next() for _ in range(2)], ["refresh asked", "status asked"])
        self.assertQuits()


class Repaired(Login):
    def start_and_quit(self, program):
        self.session.prefer('{"autoConnectEnabled": false}')
        client = self.session.terminal(program=program)
        mark = client.next_menu().rows[ROW].mark
        self.assertEqual(client.quit(), 0)
        return mark

    def foreign(self, gone, hidden="false"):
        return FOREIGN.format(repo=self.session.repo, gone=gone, hidden=hidden)

    def test_an_entry_whose_program_is_gone_starts_the_present_one(self):
        program = self.install()
        gone = self.session.root / "gone/KestruneMenuClient"
        for hidden, mark in (("false", True), ("true", False)):
            with self.subTest(hidden=hidden):
                self.have(self.foreign(gone, hidden))
                self.assertIs(self.start_and_quit(program), mark)
                self.assertEqual(self.entry.read_text(), self.foreign(program, hidden))

    def test_one_whose_program_is_there_stays(self):
        other = self.session.root / "other"
        other.mkdir()
        write_script(other / "KestruneMenuClient", "exit 0\n")
        self.have(self.foreign(other / "KestruneMenuClient"))
        self.start_and_quit(self.install())
        self.assertEqual(self.entry.read_text(), self.foreign(other / "KestruneMenuClient"))

    def test_one_of_another_program_stays(self):
        text = "[Desktop Entry]\nType=Application\nExec=\"/gone/else\" --background\nTryExec=/gone/else\n"
        self.have(text)
        self.start_and_quit(self.install())
        self.assertEqual(self.entry.read_text(), text)

    def test_a_program_in_a_build_folder_is_no_replacement(self):
        text = self.foreign("/gone/KestruneMenuClient")
        self.have(text)
        self.start_and_quit(PROGRAM)
        self.assertEqual(self.entry.read_text(), text)


class LoggedIn(Login):
    """Started by the entry, in a session with a tray and a screen."""

    def setUp(self):
        super().setUp()
        self.bus = Bus(self.session)
        self.screen = Screen(self.session)
        self.addCleanup(self.screen.close)
        self.session.backend("refresh")

    def switch_on(self, **options):
        """By a client that has quit before the session ends."""
        client = self.session.terminal(**options)
        client.checked()
        client.type("l")
        self.assertEqual(client.next_window(), ON)
        client.type("1")
        services = self.session.services()
        self.assertEqual(client.quit(), 0)
        for pid in services:
            wait_for_end(pid)

    def log_in(self):
        """What the entry starts, as a session does it: its process, and what it says on the bus."""
        traffic = self.bus.monitor()
        self.addCleanup(traffic.close)
        environment = {name: value for name, value in self.session.environment.items() if name != "KESTRUNE_REPO_PATH"}
        self.login = subprocess.Popen(["dex", "--wait", str(self.entry)], env=environment, cwd="/",
                                      stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.session.others.append(self.login)
        self.bus.wait_for_owner(CLIENT)
        return self.bus.call(DAEMON, "GetConnectionUnixProcessID", "s", CLIENT)[0], traffic

    def assertRunsAgain(self, program):
        # Which project is selected may be asked before what is down is up again, and then not for a while.
        self.session.backend("refresh")
        pid, traffic = self.log_in()
        self.assertEqual(Path(f"/proc/{pid}/exe").resolve(), program.resolve())
        self.assertEqual(read_process(pid, "cmdline").split(b"\0")[1:-1], [b"--background"])
        traffic.wait_for_status(CONNECTED)
        self.assertEqual(self.bus.rows()[8]["label"], "同步專案：Kestrune Menu Client")
        self.assertEqual(self.bus.rows()[ROW]["toggle-state"], 1)
        self.assertEqual([each for each in running() if b"KestruneMenuDialogs" in read_process(each, "cmdline")], [])
        self.assertNotIn("MapNotify", self.screen.events.so_far)
        services = self.session.services()
        self.bus.click(29)
        wait_for_end(pid)
        self.assertEqual(self.login.wait(PATIENCE), 0)
        for each in services:
            wait_for_end(each)

    def test_the_client_runs_again_and_finds_its_backend(self):
        self.switch_on()
        self.assertRunsAgain(PROGRAM)

    def test_in_a_folder_of_any_name(self):
        program = self.install("a 'b' ;c & (d) *? [e] 安裝")
        self.switch_on(program=program)
        self.assertRunsAgain(program)

    def test_a_second_start_in_the_session_is_without_a_word(self):
        self.switch_on()
        pid, traffic = self.log_in()
        traffic.wait_for_status(CONNECTED)
        done = subprocess.run(["dex", "--wait", str(self.entry)], env=self.session.environment, cwd="/",
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=PATIENCE)
        self.assertEqual(done.returncode, 0)
        self.assertIn(pid, running())
        self.assertNotIn("MapNotify", self.screen.events.so_far)
        self.bus.click(29)
        wait_for_end(pid)


if __name__ == "__main__":
    isolation.main()
