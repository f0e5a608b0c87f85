"""Launch at login: the autostart entry that the client writes, and what a session starts from it."""

import subprocess
import unittest

from rig import isolation
from rig.bus import Bus
from rig.client import CONNECTED
from rig.display import Screen
from rig.processes import processes_of, program_of, read_process, wait_for_end
from rig.session import BUILD, Session
from rig.waiting import PATIENCE
from rig.windows import LOGIN_ON

ROW = 14


class Login(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.program("systemctl", "exit 0\n")
        self.entry = self.session.config / "autostart/com.dovrel.kestrune.menuclient.desktop"

    def install(self, folder):
        """Installs the program outside of the build folder, and returns its path."""
        prefix = self.session.root / "prefix"
        subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix], check=True, stdout=subprocess.DEVNULL,
                       timeout=PATIENCE)
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
        for pid in services:
            wait_for_end(pid)
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
        self.assertEqual(bus.rows()[ROW]["toggle-state"], 1)
        # A second start in the same session must end and show no window.
        self.assertEqual(self.log_in().wait(PATIENCE), 0)
        self.assertEqual(processes_of("KestruneMenuDialogs"), [])
        self.assertNotIn("MapNotify", screen.events.so_far)
        services = self.session.services()
        bus.click(29)
        wait_for_end(pid)
        self.assertEqual(login.wait(PATIENCE), 0)
        for each in services:
            wait_for_end(each)


isolation.main()
