"""Tests the client as the main process of a service. It must keep its PID: the service ends when this process ends."""

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

# Sets SYSTEMD_EXEC_PID, as the service manager does for the main process of a service.
AS_SERVICE = 'SYSTEMD_EXEC_PID=$$ exec "$0" "$@"'


class Unit(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.program("xdg-open", 'echo $$ > "$HOME/events"\nread -r < "$HOME/gate"\n')
        self.session.find_programs_first()
        self.bus = Bus(self.session)
        self.session.stub_backend("echo '[OK] Mac service: 好'\n")
        # The stop script calls lsof once for each of two ports.
        self.session.program("lsof", 'echo stopping > "$HOME/events"\n')

    def start(self, **options):
        program, *arguments = COMMAND.split()
        self.assertEqual(program, "KestruneMenuClient")
        with self.bus.monitor() as traffic:
            client = self.session.start(*arguments, **options)
            traffic.wait_for_status(CONNECTED)
        return client

    def restart(self):
        """Restarts the client by its menu, waits until the new instance is connected, and returns its PID."""
        with self.bus.monitor() as traffic:
            before = self.bus.client()
            self.bus.click(27)
            self.bus.wait_for_client(besides=before)
            traffic.wait_for_status(CONNECTED)
        # The old instance has stopped the backend, as it does when it quits.
        self.assertEqual([self.session.events.next() for _ in range(2)], ["stopping"] * 2)
        return self.bus.pid()

    def test_a_restart_keeps_the_process_and_reaps_earlier_children(self):
        client = self.start(through=["sh", "-c", AS_SERVICE])
        self.bus.click(25)
        opened = int(self.session.events.next())
        self.assertEqual(self.restart(), client.pid)
        # The new instance also knows that it is the main process of a service.
        self.assertEqual(self.restart(), client.pid)
        self.assertIn(opened, running())
        self.session.gate.open()
        wait_for_end(opened)
        # When the client answers the second call, it has handled all events that came before its first answer.
        for _ in range(2):
            self.bus.rows()
        self.assertFalse(Path(f"/proc/{opened}").exists())
        self.assertEqual(client.end(), 0)


isolation.main()
