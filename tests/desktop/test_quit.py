"""Tests that the client stops the backend before it ends, however it is ended, and leaves no process behind."""

import signal
import unittest

from rig import isolation
from rig.client import CONNECTED, NO_BUS
from rig.processes import PORTS, listening_ports, running, wait_for_end
from rig.session import SWITCHED_OFF, Session

# A pgrep whose first call waits until the test writes to the named pipe "gate". The stop script calls pgrep before it
# ends a process, so until then all services keep running.
HELD_UP_ONCE = """
if mkdir "$HOME/held-up" 2>/dev/null; then
    echo "stop began" > "$HOME/events"
    read -r < "$HOME/gate"
fi
exec /usr/bin/pgrep "$@"
"""


class Quit(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.refresh()

    def refresh(self):
        self.session.backend("refresh")
        self.services = self.session.services()
        self.assertLessEqual(set(PORTS), listening_ports())

    def assertStopped(self):
        wait_for_end(*self.services)
        self.session.wait_for_ends()
        self.assertEqual(self.session.processes(), [])
        self.assertEqual(listening_ports(), set())

    def test_the_row_and_its_key_quit(self):
        client = self.session.terminal()
        self.assertEqual(client.checked().status, CONNECTED)
        client.type("29")
        self.assertEqual(client.status(), 0)
        self.assertStopped()
        self.assertEqual(client.errors.all(), NO_BUS)
        self.refresh()
        self.session.prefer(SWITCHED_OFF)
        client = self.session.terminal()
        self.session.backend("hang", "service")
        self.assertEqual(client.quit(), 0)
        self.assertStopped()

    def test_a_signal_during_the_start_quits(self):
        client = self.session.terminal()
        # The reconnect of the start must not start the services again.
        client.next_menu()
        self.assertEqual(client.end(signal.SIGQUIT), 0)
        self.assertStopped()
        self.assertEqual(client.errors.all(), NO_BUS)

    def test_signals_and_a_second_client_wait_until_the_stop_is_over(self):
        self.session.program("pgrep", HELD_UP_ONCE)
        client = self.session.terminal()
        self.assertEqual(client.checked().status, CONNECTED)
        client.send(signal.SIGTERM)
        self.assertEqual(self.session.events.next(), "stop began")
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT):
            client.send(number)
        # The stop script is still held up, so the services are running.
        self.assertLessEqual(set(self.services), set(running()))
        later = self.session.terminal()
        self.session.wait_for_peer()
        self.session.gate.open()
        self.assertEqual(client.status(), 0)
        # The first client stops no service that the later client has started.
        later.menu_with(2, CONNECTED)
        self.services = self.session.services()
        self.assertEqual(later.quit(), 0)
        self.assertStopped()


isolation.main()
