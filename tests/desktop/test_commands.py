"""Commands of the menu that stop the backend, start it, or restart the client, in a terminal and as a service."""

import unittest
from pathlib import Path

from rig import isolation
from rig.bus import Bus
from rig.client import CHECKING, CONNECTED, DISABLED, NO_BUS
from rig.processes import running, wait_for_end
from rig.session import AS_SERVICE, SOURCE, Session
from rig.windows import NOT_CONNECTING, STOPPED

STOPPED_BY_HAND = "🔴 連線狀態：已手動關停，背景服務已停止"

COMMAND, = [line.removeprefix("ExecStart=")
            for line in (SOURCE / "packaging/kestrune-menu-client.service").read_text().splitlines()
            if line.startswith("ExecStart=")]


class Typed(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        # This fake systemctl prints nothing and succeeds, like the real one when it stops a loaded unit.
        self.session.program("systemctl", "exit 0\n")
        self.session.backend("refresh")
        self.services = self.session.services()

    def assertCommand(self, stop, stopped, status, start, started):
        """Checks that the key `stop` stops the services and the key `start` starts them, and that each key opens a
        dialogue and changes the menu."""
        self.client.type(stop)
        self.assertEqual(self.client.next_window(), stopped)
        self.client.type("1")
        wait_for_end(*self.services)
        menu = self.client.menu_with(2, status)
        self.assertEqual((menu.rows[15].mark, menu.rows[18].key, menu.rows[18].title), (False, "r", "立即重新檢查連線"))
        self.assertEqual([menu.rows[number].title for number in (8, 9)], ["同步專案：未同步", "同步會話：尚未啟動"])
        self.assertIs(self.session.preferences()["autoConnectEnabled"], False)
        self.client.type(start)
        window = self.client.next_window()
        self.assertEqual((window.title, window.warns), (started, False))
        self.client.type("1")
        # A check of the backend that began during the stop may end only now, and print an additional menu.
        while not (menu := self.client.menu_with(2, CONNECTED)).rows[15].mark:
            pass
        self.assertEqual(menu.rows[18].key, "x")
        self.assertIs(self.session.preferences()["autoConnectEnabled"], True)
        self.assertEqual([self.session.events.next() for _ in range(2)], ["refresh asked", "status asked"])
        self.services = self.session.services()

    def test_services_are_stopped_and_started(self):
        self.session.note_commands(counting=True)
        self.client = self.session.terminal()
        self.assertEqual(self.client.checked().status, CONNECTED)
        self.session.wait_for_start()
        self.assertCommand("a", NOT_CONNECTING, DISABLED, "a", "已開啟自動連線")
        self.assertCommand("x", STOPPED, STOPPED_BY_HAND, "r", "刷新連線")
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), NO_BUS)
        self.assertEqual(self.session.events.pending(), [])
        wait_for_end(*self.services)

    def test_a_restart_keeps_the_process_and_the_terminal(self):
        self.client = self.session.real_terminal()
        self.assertEqual(self.client.checked().status, CONNECTED)
        self.client.type("R")
        wait_for_end(*self.services)
        self.client.menu_with(2, CHECKING)
        self.client.menu_with(2, CONNECTED)
        self.assertIn(self.client.pid, running())
        self.session.services()
        self.client.type("m")
        self.client.said("已切換連接模式")
        self.client.type("1")
        self.assertEqual(self.client.quit(), 0)


class Unit(unittest.TestCase):
    """The client as the main process of a service must keep its PID: the service ends when this process ends."""

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

    def test_a_descendant_of_a_service_is_replaced_by_a_new_process(self):
        client = self.start(environment={"SYSTEMD_EXEC_PID": "1"})
        after = self.restart()
        self.assertEqual(client.status(), 0)
        self.assertNotEqual(after, client.pid)
        self.bus.click(29)
        wait_for_end(after)

    def test_a_restart_keeps_the_process_and_reaps_earlier_children(self):
        client = self.start(through=AS_SERVICE)
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
