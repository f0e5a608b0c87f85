"""Commands that take too long. The limits are long themselves, so all cases wait for theirs at the same time."""

import re
import time
import unittest

from support import isolation
from desktop.session import CHECKING, DISABLED, NO_BUS, RECONNECTING, Session, read_process, running, wait_for_end

COMMAND_LIMIT = 12.0
STOP_LIMIT = 8.0
SLACK = 7.0  # for a machine that has other things to do

HANGING = """
sleep 1000 &
echo "$$ $!" > "$HOME/events"
wait
"""

HANGING_AFTER_WORDS = """
echo '  [OK] Mac service: 好'
echo "$$" > "$HOME/events"
exec sleep 1000
"""

HANGING_AFTER_A_FAULT = """
echo '開始檢查'
echo '[FAIL] Mac service: 沒有'
echo "$$" > "$HOME/events"
exec sleep 1000
"""

# A profile makes the shell itself as deaf as what it runs.
DEAF_PROFILE = "trap '' TERM INT\n"

FLOODING = """
echo "$$" > "$HOME/events"
head -c 100000000 /dev/zero | tr '\\0' y
"""


class TimeLimit(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.hanging = cls.begin_check(HANGING)
        cls.after_words = cls.begin_check(HANGING_AFTER_WORDS)
        cls.after_a_fault = cls.begin_check(HANGING_AFTER_A_FAULT)
        cls.deaf = cls.begin_check(HANGING, DEAF_PROFILE)
        cls.flooding = cls.begin_check(FLOODING)

        session = Session(cls)
        session.prefer('{"autoConnectEnabled": false}')
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

    def assertTimedOut(self, client, text):
        menu = client.next_menu()
        after = client.output.time_of(menu.last) - client.started
        self.assertGreaterEqual(after, COMMAND_LIMIT)
        self.assertLess(after, COMMAND_LIMIT + SLACK)
        self.assertRegex(menu.status, f"^{text}$")
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

    def test_a_check_that_hangs_is_yellow_and_leaves_no_process(self):
        self.assertTimedOut(self.hanging, "🟡 連線狀態：命令逾時，已停止等待。")
        self.assertEnded(self.hanging)
        self.assertLivesOn(self.hanging)

    def test_a_check_that_hangs_after_words_shows_the_first_of_them(self):
        self.assertTimedOut(self.after_words, r"🟡 連線狀態：\[OK\] Mac service: 好")
        self.assertEnded(self.after_words)
        self.assertLivesOn(self.after_words)

    def test_a_check_that_hangs_after_a_fault_is_red(self):
        self.assertTimedOut(self.after_a_fault, "🔴 連線狀態：開始檢查")
        self.assertEnded(self.after_a_fault)
        self.assertLivesOn(self.after_a_fault)

    def test_a_check_that_ignores_all_signals_is_not_waited_for(self):
        self.assertTimedOut(self.deaf, "🟡 連線狀態：命令逾時，已停止等待。")
        self.assertLessEqual(set(self.deaf.hung), set(running()))
        self.assertLivesOn(self.deaf)

    def test_a_check_that_prints_without_end_is_yellow_in_bounded_memory(self):
        self.assertTimedOut(self.flooding, r"🟡 連線狀態：y+\.\.\.")
        self.assertEnded(self.flooding)
        peak = re.search(rb"VmHWM:\s+(\d+) kB", read_process(self.flooding.pid, "status"))
        self.assertLess(int(peak.group(1)), 64 * 1024)
        self.assertLivesOn(self.flooding)

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
