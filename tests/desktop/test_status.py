"""Tests of --status, which asks the running client or else the backend, and of --diagnose."""

import json
import os
import signal
import socket
import subprocess
import unittest

from rig import isolation
from rig.bus import Bus, SystemBus
from rig.client import CONNECTED
from rig.session import PROGRAM, REPORTING_BACKEND, SECRET, Session
from rig.waiting import Text, own

NO_CLIENT = "沒有可回應的菜單欄程式，以上是剛才另外檢查的結果。\n"


class StatusTest(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)

    def status(self, *options):
        """Asks for the status. Returns exit status and output. Nothing may be printed on standard error."""
        status, output, errors = self.session.run("--status", *options)
        self.assertEqual(errors, "")
        return status, output

    def json(self):
        status, output = self.status("--json")
        self.assertEqual(output.count("\n"), 1)
        return status, json.loads(output)


class WithoutAClient(StatusTest):
    def test_status_runs_a_check(self):
        self.session.backend("refresh")
        services = self.session.services()
        status, said = self.json()
        self.assertEqual((status, said["lamp"], said["source"], said["schema"]), (0, "ok", "check", 2))
        self.assertEqual((said["project"], said["thread"], said["network"]),
                         ("Kestrune Menu Client", "Tray menu and status lamp", "none"))
        status, text = self.status()
        self.assertEqual((status, text.splitlines()[0]), (0, CONNECTED))
        self.assertTrue(text.endswith(NO_CLIENT))
        self.assertEqual(self.session.services(), services)

    def test_a_check_starts_and_stops_nothing(self):
        self.session.note_commands()
        before = sorted(path for path in self.session.root.rglob("*") if not path.name.endswith(".pyc"))
        status, said = self.json()
        self.assertEqual((status, said["lamp"]), (4, "error"))
        self.assertEqual(self.session.events.next(), "status asked")
        after = sorted(path for path in self.session.root.rglob("*") if not path.name.endswith(".pyc"))
        self.assertEqual(after, before)
        self.assertEqual(self.session.processes(), [])


class WithAClient(StatusTest):
    def setUp(self):
        super().setUp()
        self.session.stub_backend(REPORTING_BACKEND)
        self.client = self.session.terminal()
        self.assertEqual(self.client.checked().status, CONNECTED)
        # Wait for all commands of the start, so that they do not run with a backend that a test has changed.
        self.session.wait_for_start()

    def test_status_comes_from_the_client_without_a_command(self):
        menus = len(self.client.menus())
        self.session.stub_backend('touch "$HOME/touched"\n')
        status, said = self.json()
        self.assertEqual((status, said["lamp"], said["source"]), (0, "ok", "client"))
        self.assertEqual(json.loads(self.status("--waybar")[1])["class"], "ok")
        self.assertFalse((self.session.home / "touched").exists())
        self.assertEqual(len(self.client.menus()), menus)
        # A process that follows the status ends when the read end of its output pipe is closed.
        near, far = os.pipe()
        process = self.session.spawn(PROGRAM, "--status", "--follow", "--json", stdout=far)
        os.close(far)
        self.assertTrue(os.read(near, 1))
        os.close(near)
        process.wait()

    def test_follow_prints_changes_and_the_end_of_the_client(self):
        process = self.session.spawn(PROGRAM, "--status", "--follow", "--json", stdout=subprocess.PIPE)
        text = Text(own(process.stdout))

        def wait_for_line(*expected):
            def is_printed(all):
                lines = map(json.loads, all.splitlines(keepends=True)[:all.count("\n")])
                return expected in [(line["lamp"], line["source"]) for line in lines]
            text.wait(is_printed, f"line with {expected}")

        wait_for_line("ok", "client")
        self.session.stub_backend("echo '[FAIL] tunnel: 斷了'\n")
        self.client.type("s")
        wait_for_line("error", "client")
        self.client.process.kill()
        wait_for_line("error", "check")
        process.terminate()
        self.assertEqual(process.wait(), 4)
        text.close()


class Performing(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)

    def test_perform_runs_enabled_rows_only(self):
        self.session.prefer('{"autoConnectEnabled": false}')
        client = self.session.terminal()
        client.next_menu()
        self.assertEqual(self.session.run("--perform", "showChatGPTRemoteGuide"), (0, "ok\n", ""))
        client.next_window()
        self.assertEqual(self.session.run("--perform", "stopConnection"),
                         (1, "", "KestruneMenuClient: no enabled menu row has this action now: stopConnection\n"))
        self.assertEqual(self.session.run("--perform", "quit"), (0, "ok\n", ""))
        self.assertEqual(client.process.wait(), 0)


class Diagnosis(StatusTest):
    def setUp(self):
        super().setUp()
        # The session's system bus never answers, and --diagnose would wait for it.
        self.session.environment["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=/nonexistent"

    def diagnosis(self):
        status, output, errors = self.session.run("--diagnose")
        self.assertEqual(status, 0)
        return output, errors

    def test_diagnose_without_client_and_desktop(self):
        text, errors = self.diagnosis()
        self.assertRegex(text, r"^KestruneMenuClient \d+\.\d+\.\d+\n")
        for line in (f"Backend: {self.session.repo}, named by KESTRUNE_REPO_PATH", "Running client: none",
                     "Session bus: does not answer", "Tray: none", "  DISPLAY: not set",
                     "Automatic connection: on", "  lsof: /usr/bin/lsof"):
            self.assertIn(line + "\n", text)
        self.assertRegex(text, r"\nWindows: KestruneMenuDialogs \d.*, no display\n")
        self.assertEqual(errors, "")

    def test_diagnose_escapes_paths(self):
        self.session.environment["KESTRUNE_REPO_PATH"] = "/a\x1b[31m\nTray: forged"
        text, _ = self.diagnosis()
        self.assertNotIn("\x1b", text)
        self.assertIn("Backend: /a Tray: forged, named", text)

    def test_diagnose_does_not_wait_for_a_hanging_client(self):
        place = self.session.runtime / "kestrune-menu-client"
        place.mkdir()
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(place / "socket"))
            listener.listen()
            asking = self.session.start("--diagnose")
            # --diagnose connects twice: first to see which process listens, then to ask it for the status.
            listener.accept()[0].close()
            with listener.accept()[0] as caller:
                caller.send(b"\n")
                self.assertEqual(asking.status(), 0)
        self.assertIn("  does not answer, or has another version\n", asking.output.all())

    def test_an_interrupt_ends_diagnose_while_the_session_hangs(self):
        with socket.socket(socket.AF_UNIX) as silent:
            silent.bind(str(self.session.runtime / "silent"))
            silent.listen()
            self.session.environment["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={self.session.runtime}/silent"
            asking = self.session.start("--diagnose")
            with silent.accept()[0]:
                asking.send(signal.SIGINT)
                self.assertEqual(asking.status(), -signal.SIGINT)

    def test_a_full_standard_output_is_an_error(self):
        for options in (["--diagnose"], ["--status"], ["--status", "--follow"], ["--help"]):
            with open("/dev/full", "w", encoding="utf-8") as full:
                process = self.session.start(*options, stdout=full)
                self.assertEqual(process.status(), 1, options)
                self.assertTrue(process.errors.all().endswith(
                    "KestruneMenuClient: cannot write to standard output: No space left on device\n"), options)

    def test_diagnose_with_a_client_and_its_session(self):
        bus = Bus(self.session)
        SystemBus(self.session)
        (self.session.repo / ".env").write_text(f"KESTRUNE_MAC_SERVICE_TOKEN={SECRET}\nKESTRUNE_APP_TOKEN={SECRET}\n")
        client = self.session.start("--background")
        bus.wait_for_client()
        text, errors = self.diagnosis()
        self.assertEqual(errors, "")
        self.assertIn(f"Running client: process {client.pid}, in the tray: {PROGRAM} --background\n", text)
        self.assertIn("Session bus: answers\nSystem bus: answers\n", text)
        self.assertIn("  token of the local service: set\n", text)
        self.assertNotIn(SECRET, text)


isolation.main()
