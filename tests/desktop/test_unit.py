"""The client as the main process of a service, which is over for the service manager when that process is."""

import unittest
from pathlib import Path

from rig import isolation
from rig.bus import Bus
from rig.client import CONNECTED
from rig.processes import running, wait_for_end
from rig.session import SOURCE, Session

COMMAND, = [line.removeprefix("ExecStart=")
            for line in (SOURCE / "packaging/kestrune-menu-client.service").read_text().splitlines()
            if line.startswith("ExecStart=")]

# As a service manager tells the main process of a service that it is.
AS_SERVICE = 'SYSTEMD_EXEC_PID=$$ exec "$0" "$@"'


class Unit(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.program("xdg-open", 'echo $$ > "$HOME/events"\nread -r < "$HOME/gate"\n')
        self.session.find_programs_first()
        self.bus = Bus(self.session)
        self.session.stub_backend("echo '[OK] Mac service: 好'\n")
        # Once for each port, at every stop.
        self.session.program("lsof", 'echo stopping > "$HOME/events"\n')

    def start(self, **options):
        program, *arguments = COMMAND.split()
        self.assertEqual(program, "KestruneMenuClient")
        with self.bus.monitor() as traffic:
            client = self.session.start(*arguments, **options)
            traffic.wait_for_status(CONNECTED)
        return client

    def restart(self):
        """By the menu, until the new instance is connected: its process."""
        with self.bus.monitor() as traffic:
            before = self.bus.client()
            self.bus.click(27)
            self.bus.wait_for_client(besides=before)
            traffic.wait_for_status(CONNECTED)
        # It has ended as it does when it quits.
        self.assertEqual([self.session.events.next() for _ in range(2)], ["stopping"] * 2)
        return self.bus.pid()

    def test_a_restart_keeps_the_process_and_reaps_earlier_children(self):
        client = self.start(through=["sh", "-c", AS_SERVICE])
        self.bus.click(25)
        opened = int(self.session.events.next())
        self.assertEqual(self.restart(), client.pid)
        # The new instance knows as well what it is.
        self.assertEqual(self.restart(), client.pid)
        self.assertIn(opened, running())
        self.session.gate.open()
        wait_for_end(opened)
        # What is asked the second time is answered after everything that had happened the first time.
        for _ in range(2):
            self.bus.rows()
        self.assertFalse(Path(f"/proc/{opened}").exists())
        self.assertEqual(client.end(), 0)


if __name__ == "__main__":
    isolation.main()
