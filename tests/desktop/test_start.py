"""How the client starts: its options, what it finds or lacks, and that there is only one of it."""

import json
import os
import signal
import socket
import subprocess
import unittest
from pathlib import Path

from desktop import isolation
from desktop.session import (CHECKING, CONNECTED, DISABLED, NO_BUS, NO_BUS_FOR_THE_TRAY, NO_SYSTEM_BUS, Session, running,
                             wait_for_end)

REPORTING = """
echo "$1 asked" > "$HOME/events"
echo '[OK] Mac service: 好'
echo '秘密的話' >&2
"""

# Runs at the end of the stop, twice.
HELD_UP_STOP = """
echo "stopping" > "$HOME/events"
read -r < "$HOME/gate"
"""

LOG_OF_SHELLS = 'echo shell >> "$HOME/shells"\n'


class Options(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        # Whoever answers an option must not touch the backend or wait for a bus.
        self.session.stub_backend('touch "$HOME/touched"\n')

    def tearDown(self):
        self.assertFalse((self.session.home / "touched").exists())

    def test_help(self):
        for option in ("--help", "-h"):
            status, output, errors = self.session.run(option)
            self.assertEqual((status, errors), (0, ""))
            self.assertRegex(output, "^Usage: KestruneMenuClient ")
            for word in ("--terminal", "--help", "--version", "KESTRUNE_REPO_PATH"):
                self.assertIn(word, output)

    def test_version(self):
        status, output, errors = self.session.run("--version")
        self.assertEqual((status, errors), (0, ""))
        self.assertRegex(output, r"^KestruneMenuClient \d+\.\d+\.\d+\n$")

    def test_an_unknown_option(self):
        for options in (["--tray-icon"], ["--terminal", "--Help"], ["--", "--help"], ["repo"], [""]):
            with self.subTest(options=options):
                status, output, errors = self.session.run(*options)
                self.assertEqual((status, output), (2, ""))
                unknown = options[-1] if options[0] == "--terminal" else options[0]
                self.assertRegex(errors, f"^KestruneMenuClient: unknown option: {unknown}\n")
                self.assertIn("Usage:", errors)


class Start(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)

    def test_with_automatic_connection_switched_off_no_command_runs(self):
        self.session.prefer('{"autoConnectEnabled": false}')
        self.session.stub_backend('touch "$HOME/touched"\n')
        self.session.profile.write_text(LOG_OF_SHELLS)
        client = self.session.terminal()
        self.assertEqual(client.next_menu().status, DISABLED)
        menu = client.next_menu()
        self.assertEqual(menu.status, DISABLED)
        self.assertEqual(menu.title, "Kestrune · 檢查中 · 未同步")
        self.assertEqual(menu.rows[10].title, "目前網路：網路未連線")
        self.assertEqual([menu.rows[number].title for number in (8, 9, 11)],
                         ["同步專案：未同步", "同步會話：尚未啟動", "保持喚醒：已關閉"])
        self.assertIs(menu.rows[15].mark, False)
        self.assertEqual((menu.rows[18].key, menu.rows[18].title), ("r", "立即重新檢查連線"))
        # While other shells begin and end, one of the client's would have had the time to begin.
        for _ in range(3):
            self.assertEqual(self.session.spawn("bash", "-lc", "true").wait(), 0)
        self.assertEqual(client.quit(), 0)
        self.assertEqual(len(client.menus()), 2)
        self.assertFalse((self.session.home / "touched").exists())
        # Beside those, there was only that of the stop.
        self.assertEqual((self.session.home / "shells").read_text(), "shell\n" * 4)

    def test_preferences(self):
        self.session.prefer('{"keepAwakeEnabled": false, "connectionMode": "official_chatgpt"}')
        self.session.stub_backend(REPORTING)
        client = self.session.terminal()
        menu = client.checked()
        self.assertEqual(menu.rows[3].title, "連接模式：官方 ChatGPT")
        self.assertEqual(menu.rows[17].title, "使用 Kestrune 自托管模式")
        self.assertEqual([menu.rows[number].mark for number in (14, 15, 16)], [False, True, False])
        self.assertEqual(client.quit(), 0)

    def test_damaged_preferences_read_as_never_written(self):
        self.session.prefer('{"autoConnectEnabled": fal')
        self.session.stub_backend(REPORTING)
        client = self.session.terminal()
        self.assertIs(client.checked().rows[15].mark, True)
        self.assertEqual(client.quit(), 0)
        self.assertEqual(client.errors.all(), NO_BUS)

    def test_a_relative_folder_of_settings_is_ignored(self):
        folder = self.session.home / ".config/kestrune-menu-client"
        folder.mkdir(parents=True)
        (folder / "preferences.json").write_text('{"autoConnectEnabled": false}')
        client = self.session.terminal(environment={"XDG_CONFIG_HOME": "settings"})
        self.assertEqual(client.next_menu().status, DISABLED)
        self.assertEqual(client.quit(), 0)

    def test_an_autostart_entry_is_marked(self):
        (self.session.config / "autostart").mkdir()
        (self.session.config / "autostart/com.dovrel.kestrune.menuclient.desktop").write_text("[Desktop Entry]\n")
        self.session.stub_backend(REPORTING)
        client = self.session.terminal()
        self.assertIs(client.checked().rows[14].mark, True)
        self.assertEqual(client.quit(), 0)

    def test_the_tray_face_without_a_bus_says_so_once_and_supervises(self):
        self.session.stub_backend(REPORTING)
        client = self.session.start()
        self.assertEqual(self.session.events.next(), "status asked")
        client.complained("no session bus")
        self.assertEqual(client.end(), 0)
        self.assertEqual(client.errors.all(), NO_BUS_FOR_THE_TRAY)
        self.assertEqual(client.output.all(), "")

    def test_the_tray_face_without_a_bus_stops_the_backend_at_its_end(self):
        self.session.backend("refresh")
        services = self.session.services()
        client = self.session.start()
        client.complained("no session bus")
        self.assertEqual(client.end(), 0)
        for pid in services:
            wait_for_end(pid)

    def test_a_machine_without_a_system_bus_is_told_of_once(self):
        self.session.stub_backend(REPORTING)
        client = self.session.terminal(environment={"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nonexistent"})
        self.assertEqual(client.checked().status, CONNECTED)
        self.assertEqual(client.quit(), 0)
        self.assertEqual(client.errors.all(), NO_BUS + NO_SYSTEM_BUS)

    def test_what_commands_say_reaches_neither_output(self):
        self.session.stub_backend(REPORTING)
        client = self.session.terminal()
        self.assertEqual(client.checked().status, CONNECTED)
        self.assertEqual(client.quit(), 0)
        self.assertEqual(client.errors.all(), NO_BUS)
        self.assertNotIn("Mac service", client.output.so_far)
        self.assertNotIn("秘密", client.output.so_far)

    def test_a_crash_leaves_no_memory_on_the_disk(self):
        self.session.stub_backend(REPORTING)
        client = self.session.terminal(through=["sh", "-c", 'ulimit -S -c "$(ulimit -H -c)" && exec "$@"', "sh"])
        self.assertEqual(client.checked().status, CONNECTED)
        client.send(signal.SIGSEGV)
        ended = os.waitid(os.P_PID, client.pid, os.WEXITED | os.WNOWAIT)
        self.assertEqual(ended.si_code, os.CLD_KILLED)  # not CLD_DUMPED

    def test_the_working_directory_is_the_last_choice_of_a_backend(self):
        self.session.backend("refresh")
        del self.session.environment["KESTRUNE_REPO_PATH"]
        client = self.session.terminal(cwd=self.session.repo)
        self.assertEqual(client.checked().status, CONNECTED)
        self.assertEqual(client.quit(), 0)


class Input(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.stub_backend(REPORTING)

    def assertServes(self, client):
        """It shows the menu, supervises, and ends when it is told to."""
        self.assertEqual(client.checked().status, CONNECTED)
        self.assertEqual(client.end(), 0)
        self.assertEqual(client.errors.all(), NO_BUS)

    def test_as_a_service_without_input(self):
        self.assertServes(self.session.terminal(stdin=subprocess.DEVNULL))

    def test_with_its_standard_input_closed(self):
        self.assertServes(self.session.terminal(through=["sh", "-c", 'exec "$@" <&-', "sh"]))

    def test_with_its_standard_output_closed(self):
        client = self.session.terminal(through=["sh", "-c", 'exec "$@" >&-', "sh"])
        self.assertEqual(self.session.events.next(), "status asked")
        client.type("q")
        self.assertEqual(client.status(), 0)
        self.assertEqual(client.errors.all(), NO_BUS)

    def test_the_tray_face_with_all_streams_closed(self):
        client = self.session.start(through=["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh"])
        self.assertEqual(self.session.events.next(), "status asked")
        self.assertEqual(client.end(), 0)

    def test_from_a_file(self):
        script = self.session.home / "commands"
        script.write_text("3\nno such row\n")
        with script.open() as commands:
            client = self.session.terminal(stdin=commands)
        client.said("這一列只供查看：連接模式：Kestrune 自托管")
        client.said("沒有這一列：no such row")
        self.assertServes(client)

    def test_the_end_of_input_is_not_the_end_of_the_client(self):
        client = self.session.terminal()
        self.assertEqual(client.next_menu().status, CHECKING)
        os.write(client.input, b"5")  # the last line need not end
        client.close_input()
        client.said("這一列只供查看：Remote Control：")
        client.seen = 0
        self.assertServes(client)

    def test_keys_count_their_case(self):
        client = self.session.terminal()
        self.assertEqual(client.checked().status, CONNECTED)
        for line, answer in (("r", "沒有這一列：r"), ("Q", "沒有這一列：Q"), ("0", "沒有這一列：0"),
                             ("30", "沒有這一列：30"), ("-1", "沒有這一列：-1"), ("１", "沒有這一列：１"),
                             ("12", "這一列只供查看："), (" 2 ", "這一列只供查看：🟢 連線狀態：已連線")):
            client.type(line)
            client.said(answer)
        client.type(" q ")
        self.assertEqual(client.status(), 0)

    def test_a_reader_that_is_gone_does_not_end_it(self):
        client = self.session.terminal()
        self.assertEqual(client.checked().status, CONNECTED)
        client.output.close()
        client.output = None
        client.type("")
        client.type("q")
        self.assertEqual(client.status(), 0)

    def test_a_reader_that_does_not_read_holds_nothing_up(self):
        near, far = os.pipe()
        client = self.session.terminal(stdout=far)
        os.close(far)
        for _ in range(200):  # menus, far more than a pipe holds
            client.type("")
        client.type("q")
        self.assertEqual(client.status(), 0)
        os.close(near)

    def test_in_a_terminal_it_asks_and_may_use_colours(self):
        for environment, colours in (({"TERM": "xterm"}, True), ({"TERM": "xterm", "NO_COLOR": "1"}, False),
                                     ({"TERM": "dumb"}, False), ({}, False)):
            with self.subTest(environment=environment):
                client = self.session.real_terminal(environment=environment)
                client.said("已連線")
                client.said("列號或按鍵> ")
                client.type("q")
                self.assertEqual(client.status(), 0)
                self.assertEqual("\033[1m" in client.output.so_far, colours)


class OnlyOne(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.stub_backend(REPORTING)

    def test_a_second_start_tells_the_first_and_ends(self):
        first = self.session.terminal()
        self.assertEqual(first.checked().status, CONNECTED)
        # The other face is another start of the same program.
        for face in ("--terminal",), ():
            self.assertEqual(self.session.run(*face), (0, "", ""))
            self.assertEqual(first.next_menu().status, CONNECTED)
        self.assertEqual(first.quit(), 0)

    def test_a_second_start_passes_its_activation_token_on(self):
        place = self.session.runtime / "kestrune-menu-client"
        place.mkdir()
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(place / "socket"))
            listener.listen()
            for environment, request in (({"DESKTOP_STARTUP_ID": "an id"}, b"show an id\n"), ({}, b"show\n"),
                                         ({"DESKTOP_STARTUP_ID": "an id", "XDG_ACTIVATION_TOKEN": "a token"},
                                          b"show a token\n")):
                later = self.session.start(environment=environment)
                with listener.accept()[0] as caller:
                    self.assertEqual(caller.recv(99), request)
                    caller.send(b"ok\n")
                    self.assertEqual(later.status(), 0)

    def test_sessions_with_and_without_a_runtime_folder_find_each_other(self):
        # What else is in /run does not matter in a mount namespace of the test's own.
        subprocess.run(["mount", "-t", "tmpfs", "none", "/run"], check=True)
        self.addCleanup(subprocess.run, ["umount", "/run"], check=True)
        runtime = Path(f"/run/user/{os.geteuid()}")
        del self.session.environment["XDG_RUNTIME_DIR"]
        for logged_in, place in (False, self.session.root / "state"), (True, runtime):
            with self.subTest(logged_in=logged_in):
                if logged_in:
                    runtime.mkdir(parents=True)
                first = self.session.terminal(environment={"XDG_RUNTIME_DIR": str(runtime)} if logged_in else {})
                self.assertEqual(first.checked().status, CONNECTED)
                self.assertEqual(self.session.run("--terminal"), (0, "", ""))
                self.assertEqual(first.next_menu().status, CONNECTED)
                status, output, _ = self.session.run("--status", "--json")
                self.assertEqual((status, json.loads(output)["source"]), (0, "client"))
                self.assertTrue((place / "kestrune-menu-client/socket").is_socket())
                self.assertEqual(first.quit(), 0)

    def test_a_successor_that_is_told_to_end_leaves_the_backend_alone(self):
        self.session = Session(self)
        self.session.backend("refresh")
        services = self.session.services()
        first = self.session.terminal()
        self.assertEqual(first.checked().status, CONNECTED)
        successor = self.session.terminal(environment={"KESTRUNE_MENU_CLIENT_RELAUNCH": str(first.pid)})
        self.session.wait_for_peer()
        self.assertEqual(successor.end(), 0)
        self.assertEqual(successor.menus(), [])
        self.assertLessEqual(set(services), set(running()))
        self.assertEqual(first.quit(), 0)

    def test_the_successor_waits_until_the_first_has_gone(self):
        self.session.program("lsof", HELD_UP_STOP)
        first = self.session.terminal()
        self.assertEqual(first.checked().status, CONNECTED)
        self.session.wait_for_start()
        successor = self.session.terminal(environment={"KESTRUNE_MENU_CLIENT_RELAUNCH": str(first.pid)})
        self.session.wait_for_peer()
        first.type("q")
        for _ in range(2):
            self.assertEqual(self.session.events.next(), "stopping")
            self.assertEqual(successor.menus(), [])
            self.session.gate.open()
        self.assertEqual(first.status(), 0)
        self.session.wait_for_start()
        self.assertEqual(successor.checked().status, CONNECTED)
        self.assertEqual(successor.end(signal.SIGKILL), -signal.SIGKILL)


if __name__ == "__main__":
    isolation.main()
