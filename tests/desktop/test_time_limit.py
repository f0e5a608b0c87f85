"""Commands that take too long. The limits are long themselves, so all cases wait for theirs at the same time."""

import time
import unittest

from rig import isolation
from rig.client import CHECKING, DISABLED, NO_BUS, RECONNECTING
from rig.processes import running, wait_for_end
from rig.session import SWITCHED_OFF, Session

COMMAND_LIMIT = 12.0
STOP_LIMIT = 8.0
SLACK = 20.0  # for a machine that has other things to do

HANGING = """
sleep 1000 &
echo "$$ $!" > "$HOME/events"
wait
"""
# A profile makes the shell itself as deaf as what it runs.
DEAF_PROFILE = "trap '' TERM INT\n"


class TimeLimit(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.deaf = cls.begin_check(HANGING, DEAF_PROFILE)

        session = Session(cls)
        session.prefer(SWITCHED_OFF)
        session.program("lsof", HANGING)
        cls.stopping = session.terminal()
        assert cls.stopping.next_menu().status == DISABLED
        cls.stop_began = time.monotonic()
        cls.stopping.type("q")
        cls.stopping.hung = [int(pid) for pid in session.events.next().split()]

    @classmethod
    def begin_check(cls, stub, profile=""):
        session = Session(cls)
        session.profile.write_text(profile)
        session.stub_backend(stub)
        client = session.terminal()
        for status in (CHECKING, RECONNECTING):
            assert client.next_menu().status == status
        client.hung = [int(pid) for pid in session.events.next().split()]
        # To be answered meanwhile.
        client.type("20")
        return client

    def assertTimedOut(self, client, status):
        menu = client.next_menu()
        after = client.output.time_of(menu.last) - client.started
        self.assertGreaterEqual(after, COMMAND_LIMIT)
        self.assertLess(after, COMMAND_LIMIT + SLACK)
        self.assertEqual(menu.status, status)
        answer = client.output.so_far.index("這一列只供查看：查看與設定")
        self.assertLess(client.output.time_of(answer) - client.started, COMMAND_LIMIT)

    def assertEnded(self, client):
        for pid in client.hung:
            wait_for_end(pid)

    def assertLivesOn(self, client):
        client.type("21")
        client.type("29")
        self.assertEqual(client.status(), 0)
        self.assertEqual(client.errors.all(), NO_BUS)
        self.assertEqual(len(client.menus()), 3)

    def test_a_check_that_ignores_all_signals_is_not_waited_for(self):
        self.assertTimedOut(self.deaf, "🟡 連線狀態：命令逾時，已停止等待。")
        self.assertLessEqual(set(self.deaf.hung), set(running()))
        self.assertLivesOn(self.deaf)

    def test_a_stop_that_hangs_is_given_up_and_leaves_no_process(self):
        self.assertEqual(self.stopping.status(), 0)
        # The end of its output is that of the process.
        ended = self.stopping.output.time_of(len(self.stopping.output.all()))
        self.assertGreaterEqual(ended - self.stop_began, STOP_LIMIT)
        self.assertLess(ended - self.stop_began, STOP_LIMIT + SLACK)
        self.assertEnded(self.stopping)
        self.assertEqual(self.stopping.errors.all(), NO_BUS)


if __name__ == "__main__":
    isolation.main()
