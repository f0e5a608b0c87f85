"""Tests how the client starts: with each option, without a bus, with closed streams, with few descriptors, with a
backend that is missing or prints control characters, and as a second client."""

import os
import signal
import socket
import unittest
from contextlib import suppress

from rig import isolation
from rig.client import CONNECTED, NO_BUS, NO_BUS_FOR_THE_TRAY, NO_SYSTEM_BUS
from rig.processes import running, wait_for_end
from rig.session import REPORTING_BACKEND, SWITCHED_OFF, Session


class Options(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        # A client that only answers an option must not run the backend, which would create this file.
        self.session.stub_backend('touch "$HOME/touched"\n')

    def tearDown(self):
        self.assertFalse((self.session.home / "touched").exists())

    def test_help_and_version(self):
        for option in ("--help", "-h"):
            status, output, errors = self.session.run(option)
            self.assertEqual((status, errors), (0, ""))
            self.assertRegex(output, "^Usage: KestruneMenuClient ")
            for word in ("--terminal", "--help", "--version", "KESTRUNE_REPO_PATH", "environment.d", ".xsessionrc",
                         "sway/config", ".profile", "start at login"):
                self.assertIn(word, output)
        status, output, errors = self.session.run("--version")
        self.assertEqual((status, errors), (0, ""))
        self.assertRegex(output, r"^KestruneMenuClient \d+\.\d+\.\d+\n$")

    def test_unknown_options(self):
        for options in (["--tray-icon"], ["--terminal", "--Help"], ["--", "--help"], ["repo"], [""]):
            with self.subTest(options=options):
                status, output, errors = self.session.run(*options)
                self.assertEqual((status, output), (2, ""))
                unknown = options[-1] if options[0] == "--terminal" else options[0]
                self.assertRegex(errors, f"^KestruneMenuClient: unknown option: {unknown}\n")
                self.assertIn("Usage:", errors)

    def test_options_that_exclude_each_other(self):
        for options in (["--json"], ["--follow"], ["--waybar"], ["--exit-zero"], ["--status", "--terminal"],
                        ["--status", "--background"], ["--status", "--diagnose"], ["--status", "--perform", "quit"],
                        ["--perform"], ["--status", "--json", "--waybar"], ["--diagnose", "--json"]):
            with self.subTest(options=options):
                status, output, errors = self.session.run(*options)
                self.assertEqual((status, output), (2, ""))
                self.assertIn("Usage:", errors)


class Start(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.stub_backend(REPORTING_BACKEND)

    def test_the_tray_face_runs_without_a_bus_and_says_so_once(self):
        self.session = Session(self)
        self.session.backend("refresh")
        self.session.note_commands()
        services = self.session.services()
        client = self.session.start()
        self.session.wait_for_start()
        self.assertEqual(client.end(), 0)
        self.assertEqual((client.output.all(), client.errors.all()), ("", NO_BUS_FOR_THE_TRAY))
        wait_for_end(*services)

    def test_standard_error_names_a_missing_system_bus_and_no_output_of_commands(self):
        self.session.stub_backend(REPORTING_BACKEND + "echo '秘密的話' >&2\n")
        client = self.session.terminal(environment={"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nonexistent"})
        self.assertEqual(client.checked().status, CONNECTED)
        self.assertEqual(client.quit(), 0)
        self.assertEqual(client.errors.all(), NO_BUS + NO_SYSTEM_BUS)
        self.assertNotRegex(client.output.so_far, "Mac service|秘密")

    def test_a_crash_dumps_no_core(self):
        client = self.session.terminal(through=["sh", "-c", 'ulimit -S -c "$(ulimit -H -c)" && exec "$@"', "sh"])
        client.next_menu()
        client.send(signal.SIGSEGV)
        ended = os.waitid(os.P_PID, client.pid, os.WEXITED | os.WNOWAIT)
        self.assertEqual(ended.si_code, os.CLD_KILLED)  # CLD_DUMPED would mean that there is a core dump

    def test_with_too_few_descriptors_it_says_why_it_ends(self):
        self.session.prefer(SWITCHED_OFF)
        statuses = []
        for limit in range(4, 48, 4):
            with self.subTest(limit=limit):
                client = self.session.terminal(through=["prlimit", f"--nofile={limit}"])
                with suppress(BrokenPipeError):  # the client has ended already
                    client.type("q")
                statuses.append(client.status())
                if statuses[-1]:
                    self.assertIn("Too many open files", client.errors.all())
                else:
                    self.assertIn("退出 Kestrune", client.output.all())
        # With few descriptors the client fails; from some limit on it always works.
        self.assertEqual(statuses, sorted(statuses, reverse=True))
        self.assertEqual(set(statuses), {0, 1})

    def test_it_starts_with_all_standard_streams_closed(self):
        for arguments in ([], ["--terminal"]):
            client = self.session.start(*arguments, through=["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh"])
            self.session.wait_for_start()
            self.assertEqual(client.end(), 0)


class BadBackend(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)

    def assertStatus(self, pattern, errors=NO_BUS, **options):
        """Starts a client, checks that its status matches the pattern after its first backend check, and quits."""
        self.client = self.session.terminal(**options)
        menu = self.client.checked()
        self.assertRegex(menu.status, pattern)
        self.assertEqual(menu.title, "Kestrune · 檢查中 · 未配置")
        self.assertEqual([menu.rows[number].title for number in range(4, 8)],
                         ["Codex：尚未檢查", "Remote Control：尚未檢查", "Codex App：尚未檢查", "ChatGPT Remote：尚未檢查"])
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), errors)
        self.client.assert_only_started(menu.status)

    def test_a_missing_folder_or_program_is_named(self):
        folder = str(self.session.root / "沒有 no such folder")
        self.assertStatus("^🟡 連線狀態：.*: cd: /.*/沒有 no such folder: No such file or directory$",
                          f"KestruneMenuClient: no backend in {folder}, named by KESTRUNE_REPO_PATH: it has no "
                          ".venv/bin/activate. Set KESTRUNE_REPO_PATH to the folder of the backend.\n",
                          environment={"KESTRUNE_REPO_PATH": folder})
        self.session.backend_program.unlink()
        self.assertStatus("^🟡 連線狀態：.*: halvask-mac-client: command not found$")

    def test_its_output_is_read_as_utf8_and_shown_without_controls(self):
        self.session.stub_backend("printf '  第一行 <b>_&\\033[31m\\007\\t🟢  \\n第二行'; exit 1\n")
        self.assertStatus("^🟡 連線狀態：第一行 <b>_& +🟢  $", environment={"LC_ALL": "zh_TW.BIG5"})
        self.assertNotRegex(self.client.output.so_far, "[\0-\x09\x0b-\x1f\x7f]")


class OnlyOne(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.stub_backend(REPORTING_BACKEND)

    def test_a_second_start_tells_the_first_and_ends(self):
        first = self.session.terminal()
        self.assertEqual(first.checked().status, CONNECTED)
        # The second start may ask for the same face (tray or terminal) or for the other.
        for face in ("--terminal",), ():
            self.assertEqual(self.session.run(*face), (0, "", ""))
            self.assertEqual(first.next_menu().status, CONNECTED)
        self.assertEqual(self.session.run("--background"), (0, "", ""))
        menus = len(first.menus())
        self.assertEqual(first.quit(), 0)
        self.assertEqual(len(first.menus()), menus)

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

    def test_a_waiting_client_that_is_terminated_does_not_stop_the_backend(self):
        self.session = Session(self)
        self.session.backend("refresh")
        services = self.session.services()
        first = self.session.terminal()
        first.next_menu()
        successor = self.session.terminal(environment={"KESTRUNE_MENU_CLIENT_RELAUNCH": str(first.pid)})
        self.session.wait_for_peer()
        self.assertEqual(successor.end(), 0)
        self.assertEqual(successor.menus(), [])
        self.assertLessEqual(set(services), set(running()))
        self.assertEqual(first.quit(), 0)


isolation.main()
