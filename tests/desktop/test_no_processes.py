"""A user who may start no other process and no thread, for a while."""

import unittest

from rig import isolation
from rig.bus import STATUS_ROW, Bus
from rig.client import CONNECTED
from rig.processes import wait_for_end
from rig.session import BUILD, REPORTING_BACKEND, Session

REASON = "Resource temporarily unavailable"
WAITING = f"KestruneMenuClient: cannot start a thread for commands ({REASON}): commands wait until it can be started\n"
STOP_LIMIT = 8.0
SLACK = 5.0


class NoProcesses(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.refusal = self.session.home / "refusal"
        self.session.environment |= {"LD_PRELOAD": str(BUILD / "tests/libprocess_refusal.so"),
                                     "KESTRUNE_TEST_REFUSAL": str(self.refusal),
                                     "KESTRUNE_TEST_REFUSED": str(self.session.home / "gate")}

    def test_from_the_start_everything_waits_until_there_are_some(self):
        self.session.stub_backend(REPORTING_BACKEND)
        bus = Bus(self.session)
        traffic = bus.monitor()
        self.refusal.touch()
        client = self.session.start()
        client.complained(WAITING)
        bus.wait_for_client()
        self.assertNotEqual(bus.rows()[STATUS_ROW]["label"], CONNECTED)
        self.assertEqual(self.session.events.pending(), [])
        self.refusal.unlink()
        traffic.wait_for_status(CONNECTED)
        self.session.wait_for_start()
        self.assertEqual(client.end(), 0)

    def test_those_that_come_free_at_the_end_stop_the_backend(self):
        self.session.backend("refresh")
        services = self.session.services()
        client = self.session.terminal()
        self.assertEqual(client.checked().status, CONNECTED)
        self.refusal.touch()
        client.type("q")
        self.assertEqual(self.session.gate.next(), "refused")
        self.refusal.unlink()
        self.assertEqual(client.status(), 0)
        for pid in services:
            wait_for_end(pid, STOP_LIMIT + SLACK)


if __name__ == "__main__":
    isolation.main()
