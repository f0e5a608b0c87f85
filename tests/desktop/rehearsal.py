"""Uses the installed packages as a user at a desktop does, in a system that has no other part of this project."""

import glob
import json
import subprocess
import unittest

from rig import isolation
from rig.bus import Bus
from rig.client import CONNECTED
from rig.display import Screen
from rig.panel import Panel
from rig.processes import PORTS, listening_ports, processes_of, program_of, wait_for_end
from rig.session import AS_SERVICE, PROGRAM, Session

APPLICATION = "/usr/share/applications/com.dovrel.kestrune.menuclient.desktop"
NEXT_VERSION = "/packages/second/*.deb"

PROGRAM_OF_WINDOWS = "KestruneMenuDialogs"
LOGIN_ROW, REPORT_ROW, RESTART_ROW = 14, 21, 27


class Rehearsal(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.find_programs_first()
        self.bus = Bus(self.session)
        self.screen = Screen(self.session)
        # The window manager gives the keyboard to new windows.
        self.screen.start_manager()
        self.panel = Panel(self.session, self.bus, self.screen)

    def log_in(self):
        """Starts the user unit's command, as a service manager does, and then the autostart entries. Returns the unit's
        client."""
        unit = self.session.start("--background", through=AS_SERVICE)
        self.session.spawn("dex", "--autostart", "--environment", "XFCE").wait()
        return unit

    def status(self):
        return json.loads(self.screen.run(PROGRAM, "--status", "--json"))

    def close_window(self, title):
        """Waits until the client shows a window, which must have this title. Closes it, so that its program ends."""
        window, = self.screen.run("xdotool", "search", "--sync", "--onlyvisible", "--classname", PROGRAM_OF_WINDOWS).split()
        shown = self.screen.run("xprop", "-id", window, "-notype", "8u", "_NET_WM_NAME").decode()
        self.assertIn(title, shown)
        self.screen.screenshot(title)
        [program] = processes_of(PROGRAM_OF_WINDOWS)
        self.screen.run("xdotool", "windowfocus", "--sync", window, "key", "Escape")
        wait_for_end(program)

    def quit(self):
        [client], services = processes_of("KestruneMenuClient"), self.session.services()
        self.panel.click_last_row(self.panel.open_menu())
        wait_for_end(client, *services)
        self.assertTrue(listening_ports().isdisjoint(PORTS))

    def test_installed_packages_work_through_login_and_upgrade(self):
        traffic = self.bus.monitor()
        self.session.spawn("dex", APPLICATION).wait()
        traffic.wait_for_status(CONNECTED)
        self.panel.wait_for_icon(coloured=True)
        self.assertEqual(self.status()["source"], "client")
        self.panel.open_menu()
        self.screen.screenshot("menu")
        self.screen.keys("Escape")
        self.bus.click(REPORT_ROW)
        self.close_window("目前狀態")
        self.bus.click(LOGIN_ROW)
        self.close_window("已開啟開機自動啟動")
        entry = self.session.config / "autostart/com.dovrel.kestrune.menuclient.desktop"
        self.assertIn("\nTryExec=/usr/bin/KestruneMenuClient\n", entry.read_text())
        self.quit()
        traffic.kill()

        traffic = self.bus.monitor()
        unit = self.log_in()
        traffic.wait_for_status(CONNECTED)
        self.bus.wait_for_client()
        wait_for_end(*set(processes_of("KestruneMenuClient")) - {self.bus.pid()})
        self.assertEqual(processes_of("KestruneMenuClient"), [self.bus.pid()])
        if unit.pid != self.bus.pid():
            self.assertEqual(unit.status(), 0)
        self.assertEqual(processes_of(PROGRAM_OF_WINDOWS), [])
        self.panel.wait_for_icon(coloured=True)
        self.screen.screenshot("after the login")
        traffic.kill()

        before = self.bus.pid()
        subprocess.run(["apt-get", "-q", "-y", "install", *glob.glob(NEXT_VERSION)], check=True)
        self.assertEqual(self.bus.pid(), before)
        self.assertEqual(program_of(before), f"{PROGRAM} (deleted)")
        self.assertEqual(self.status()["source"], "client")
        self.bus.click(REPORT_ROW)
        self.close_window("目前狀態")
        traffic = self.bus.monitor()
        name = self.bus.client()
        self.bus.click(RESTART_ROW)
        self.bus.wait_for_client(besides=name)
        traffic.wait_for_status(CONNECTED)
        self.assertEqual(program_of(self.bus.pid()), str(PROGRAM))
        self.panel.wait_for_icon(coloured=True)
        self.screen.screenshot("after the upgrade")
        traffic.kill()
        self.quit()


isolation.main()
