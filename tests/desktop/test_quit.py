"""However the client is ended, it stops the backend first and leaves nothing behind."""

import os
import signal
import time
import unittest

from support import isolation
from desktop.session import (CHECKING, CONNECTED, DISABLED, NO_BUS, PORTS, RECONNECTING, Session, listening_ports,
                             running, wait_for_end)

STOP_LIMIT = 8.0

# Holds the stop up the first time, before a process has been ended.
HELD_UP_STOP = """
if mkdir "$HOME/held-up" 2>/dev/null; then
    echo "stop began" > "$HOME/events"
    read -r < "$HOME/gate"
fi
exec /usr/bin/pgrep "$@"
"""

STUBBORN_STATUS = """
trap '' TERM INT HUP
sleep 1000 &
echo "$$ $!" > "$HOME/events"
wait
"""


class Quit(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.backend("refresh")
        self.services = self.session.services()
        self.assertLessEqual(set(PORTS), listening_ports())

    def assertServicesStopped(self):
        for pid in self.services:
            wait_for_end(pid)
        self.assertEqual(listening_ports(), set())

    def assertAllStopped(self):
        self.assertServicesStopped()
        self.session.wait_for_ends()
        self.assertEqual(self.session.processes(), [])

    def connected_client(self):
        client = self.session.terminal()
        self.assertEqual(client.checked().status, CONNECTED)
        return client

    def test_by_its_row(self):
        client = self.connected_client()
        client.type("29")
        self.assertEqual(client.status(), 0)
        self.assertAllStopped()
        self.assertEqual(client.errors.all(), NO_BUS)

    def test_by_its_key(self):
        client = self.connected_client()
        client.type("q")
        self.assertEqual(client.status(), 0)
        self.assertAllStopped()

    def test_by_a_signal(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT):
            with self.subTest(signal=number.name):
                self.session.backend("refresh")
                self.services = self.session.services()
                client = self.connected_client()
                self.assertEqual(client.end(number), 0)
                self.assertAllStopped()
                self.assertEqual(client.errors.all(), NO_BUS)

    def test_by_a_signal_before_the_first_check_is_done(self):
        client = self.session.terminal()
        self.assertEqual(client.next_menu().status, CHECKING)
        self.assertEqual(client.end(), 0)
        self.assertAllStopped()

    def test_by_the_keyboard_of_a_terminal(self):
        client = self.session.real_terminal()
        self.assertEqual(client.checked().status, CONNECTED)
        os.write(client.input, b"\x03")
        self.assertEqual(client.status(), 0)
        self.assertAllStopped()

    def test_with_the_terminal_that_goes_away(self):
        client = self.session.real_terminal()
        self.assertEqual(client.checked().status, CONNECTED)
        client.hang_up()
        self.assertEqual(client.status(), 0)
        self.assertAllStopped()

    def test_not_with_its_terminal_under_nohup(self):
        client = self.session.terminal(through=["nohup"])
        self.assertEqual(client.checked().status, CONNECTED)
        client.send(signal.SIGHUP)
        client.type("")
        self.assertEqual(client.next_menu().status, CONNECTED)
        self.assertEqual(client.quit(), 0)
        self.assertAllStopped()

    def test_with_automatic_connection_switched_off(self):
        self.session.prefer('{"autoConnectEnabled": false}')
        client = self.session.terminal()
        self.assertEqual(client.next_menu().status, DISABLED)
        self.assertEqual(client.quit(), 0)
        self.assertAllStopped()

    def test_with_a_service_that_hangs(self):
        client = self.connected_client()
        self.session.backend("hang", "service")
        self.assertEqual(client.quit(), 0)
        self.assertAllStopped()

    def test_more_signals_do_not_cut_the_stop_short(self):
        self.session.program("pgrep", HELD_UP_STOP)
        client = self.connected_client()
        client.send(signal.SIGTERM)
        self.assertEqual(self.session.events.next(), "stop began")
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT):
            client.send(number)
        # What stops the services is still held up.
        self.assertLessEqual(set(self.services), set(running()))
        self.session.gate.open()
        self.assertEqual(client.status(), 0)
        self.assertAllStopped()

    def test_a_start_meanwhile_waits_for_the_end(self):
        self.session.program("pgrep", HELD_UP_STOP)
        client = self.connected_client()
        client.send(signal.SIGTERM)
        self.assertEqual(self.session.events.next(), "stop began")
        later = self.session.terminal()
        self.session.wait_for_peer()
        self.session.gate.open()
        self.assertEqual(client.status(), 0)
        # Of what it brings up nothing is stopped.
        while later.next_menu().status != CONNECTED:
            pass
        self.services = self.session.services()
        self.assertEqual(later.quit(), 0)
        self.assertServicesStopped()

    def test_a_check_that_hangs_is_ended_and_not_waited_for(self):
        self.session.stub_backend(STUBBORN_STATUS)
        client = self.session.terminal()
        for status in (CHECKING, RECONNECTING):
            self.assertEqual(client.next_menu().status, status)
        hung = [int(pid) for pid in self.session.events.next().split()]
        self.assertLessEqual(set(hung), set(running()))
        begin = time.monotonic()
        self.assertEqual(client.quit(), 0)
        self.assertLess(time.monotonic() - begin, STOP_LIMIT)
        for pid in hung:
            wait_for_end(pid)
        self.assertAllStopped()
        self.assertEqual(len(client.menus()), 2)


if __name__ == "__main__":
    isolation.main()
