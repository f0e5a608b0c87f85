"""Tests that the program runs and finds its files when it is installed in a prefix, or in a backend's folder, and what a
session starts from the autostart entry that the program writes."""

import shutil
import subprocess
import unittest

from rig import isolation
from rig.bus import ITEM, Bus
from rig.client import CONNECTED
from rig.display import Screen
from rig.processes import processes_of, program_of, read_process, wait_for_end
from rig.session import Session
from rig.waiting import PATIENCE
from rig.windows import LOGIN_ON

LOGIN_ROW = 14


class Installed(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.backend("refresh")

    def files(self, folder):
        return sorted(str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file())

    def assertConnects(self, program, **options):
        bus = Bus(Session(self))
        traffic = bus.monitor()
        client = self.session.start(program=program, environment={bus.variable: bus.address}, **options)
        traffic.wait_for_status(CONNECTED)
        self.assertIn([22, 22], [list(pixmap[:2]) for pixmap in bus.get(ITEM, "IconPixmap")])
        self.assertEqual(bus.get(ITEM, "ToolTip")[2], "Kestrune · 已連線 · Kestrune Menu Client")
        return client

    def test_it_runs_from_a_prefix_through_a_symbolic_link(self):
        prefix = self.session.root / "前綴 a prefix"
        self.session.install(prefix)
        self.assertIn("share/kestrune-menu-client/codex-menubar.png", self.files(prefix))
        # Files that only the build needs are not installed.
        self.assertEqual([name for name in self.files(prefix) if "test" in name or name.endswith((".a", ".h"))], [])
        link = self.session.bin / "KestruneMenuClient"
        link.symlink_to(prefix / "bin/KestruneMenuClient")
        client = self.assertConnects(link)
        # A running client must go on when its folder is removed.
        shutil.rmtree(prefix)
        self.assertEqual(client.end(), 0)

    def test_it_finds_the_backend_that_contains_it(self):
        self.session.install(self.session.repo / "dist", "--component", "backend")
        folder = self.session.repo / "dist/Kestrune Menu Client"
        self.assertIn("resources/codex-menubar.png", self.files(folder))
        self.assertEqual([path.name for path in (self.session.repo / "dist").iterdir()], [folder.name])
        # KESTRUNE_REPO_PATH, if it is set, takes precedence over the folder that contains the program.
        empty = self.session.root / "other"
        empty.mkdir()
        program = folder / "KestruneMenuClient"
        client = self.session.terminal(program=program, environment={"KESTRUNE_REPO_PATH": str(empty)})
        self.assertRegex(client.checked().status, r"^🟡 連線狀態：.*\.venv/bin/activate: No such file or directory$")
        self.assertEqual(client.quit(), 0)
        self.session.backend("refresh")
        self.session.environment["KESTRUNE_REPO_PATH"] = " \t "
        self.assertEqual(self.assertConnects(program, cwd="/").end(), 0)


class Login(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.program("systemctl", "exit 0\n")
        self.entry = self.session.config / "autostart/com.dovrel.kestrune.menuclient.desktop"

    def install(self, folder):
        """Installs the program outside of the build folder, and returns its path."""
        prefix = self.session.root / "prefix"
        self.session.install(prefix)
        # Rename the folder only after the installation, because `cmake --install` does not accept every name.
        return prefix.rename(self.session.root / folder) / "bin/KestruneMenuClient"

    def log_in(self):
        """Starts the program of the autostart entry, as a session does at login. Returns the process of `dex`."""
        environment = {name: value for name, value in self.session.environment.items() if name != "KESTRUNE_REPO_PATH"}
        return self.session.spawn("dex", "--wait", str(self.entry), env=environment, cwd="/")

    def test_the_autostart_entry_starts_the_client_with_its_backend(self):
        bus = Bus(self.session)
        screen = Screen(self.session)
        self.session.backend("refresh")
        program = self.install("a 'b' ;c & (d) *? [e] 安裝")
        client = self.session.terminal(program=program)
        client.checked()
        client.type("l")
        self.assertEqual(client.next_window(), LOGIN_ON)
        client.type("1")
        subprocess.run(["desktop-file-validate", self.entry], check=True, timeout=PATIENCE)
        services = self.session.services()
        self.assertEqual(client.quit(), 0)
        wait_for_end(*services)
        # Start the services first. Otherwise the client may ask for the project too early, and show none for a while.
        self.session.backend("refresh")
        traffic = bus.monitor()
        login = self.log_in()
        bus.wait_for_client()
        pid = bus.pid()
        self.assertEqual(program_of(pid), str(program))
        self.assertEqual(read_process(pid, "cmdline").split(b"\0")[1:-1], [b"--background"])
        traffic.wait_for_status(CONNECTED)
        self.assertEqual(bus.rows()[8]["label"], "同步專案：Kestrune Menu Client")
        self.assertEqual(bus.rows()[LOGIN_ROW]["toggle-state"], 1)
        # A second start in the same session must end and show no window.
        self.assertEqual(self.log_in().wait(PATIENCE), 0)
        self.assertEqual(processes_of("KestruneMenuDialogs"), [])
        self.assertNotIn("MapNotify", screen.events.so_far)
        services = self.session.services()
        bus.click(29)
        wait_for_end(pid)
        self.assertEqual(login.wait(PATIENCE), 0)
        wait_for_end(*services)


isolation.main()
