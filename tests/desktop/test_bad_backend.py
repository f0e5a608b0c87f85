"""A backend that is not there, or does what no backend should: the menu says so, and the client lives on."""

import re
import unittest

from rig import isolation
from rig.client import CONNECTED, NO_BUS
from rig.processes import memory, running, wait_for_end
from rig.session import Session

LEGACY_MISSING = "halvask-mac-client: command not found"


class BadBackend(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)

    def menu_with(self, stub=None, **options):
        """The menu after the first check; the client must be well before and after."""
        if stub is not None:
            self.session.stub_backend(stub)
        self.client = self.session.terminal(**options)
        self.checked = self.client.checked()
        self.client.type("13")
        self.client.said("這一列只供查看：連線與常駐")
        return self.checked

    def quit(self, errors=NO_BUS):
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), errors)
        self.client.assert_only_started(self.checked.status)

    def assertYellow(self, menu, pattern):
        self.assertRegex(menu.status, "^🟡 連線狀態：" + pattern + "$")
        self.assertEqual(menu.title, "Kestrune · 檢查中 · 未配置")
        self.assertEqual([menu.rows[number].title for number in range(4, 8)],
                         ["Codex：尚未檢查", "Remote Control：尚未檢查", "Codex App：尚未檢查", "ChatGPT Remote：尚未檢查"])

    def test_one_that_is_missing(self):
        folder = str(self.session.root / "沒有 no such folder")
        self.assertYellow(self.menu_with(environment={"KESTRUNE_REPO_PATH": folder}),
                          ".*: cd: /.*/沒有 no such folder: No such file or directory")
        self.quit(f"KestruneMenuClient: no backend in {folder}, named by KESTRUNE_REPO_PATH: it has no .venv/bin/activate. "
                  "Set KESTRUNE_REPO_PATH to the folder of the backend.\n")
        self.session.backend_program.unlink()
        self.assertYellow(self.menu_with(), ".*: " + LEGACY_MISSING)
        self.quit()

    def test_its_command_under_its_former_name(self):
        former = self.session.repo / ".venv/bin/halvask-mac-client"
        self.session.backend_program = self.session.backend_program.rename(former)
        self.session.backend("refresh")
        self.assertEqual(self.menu_with().status, CONNECTED)
        self.quit()

    def test_one_that_fails_in_words_of_any_kind(self):
        words = "printf '  第一行 <b>_&\\033[31m\\007\\t🟢  \\n第二行'; exit 1\n"
        # Whatever the locale says, they are UTF-8.
        self.assertYellow(self.menu_with(words, environment={"LC_ALL": "zh_TW.BIG5"}), "第一行 <b>_& +🟢  ")
        self.assertNotRegex(self.client.output.so_far, "[\0-\x09\x0b-\x1f\x7f]")
        self.quit()

    def test_a_service_that_a_command_leaves_behind_goes_on_writing(self):
        menu = self.menu_with("""
            echo "$1 asked" > "$HOME/events"
            echo '[OK] Mac service: 好'
            [[ $1 == refresh ]] || exit 0
            {
                echo $BASHPID > "$HOME/service"
                read -r < "$HOME/gate"
                head -c 1000000 /dev/zero && head -c 1000000 /dev/zero >&2 && result=written
                echo "${result:-lost}" > "$HOME/events"
                exec yes 好好好好好好好好好好好好好好好好
            } &
        """)
        self.assertEqual(menu.status, CONNECTED)
        # The output of the refresh has been read when the status is asked for again.
        self.session.wait_for_start()
        self.session.gate.open()
        self.assertEqual(self.session.events.next(), "written")
        # It writes on without end, and costs the client neither memory nor its attention.
        self.client.type("99")
        self.client.said("沒有這一列：99")
        self.assertLess(memory(self.client.pid, "VmHWM"), 128 << 20)
        service = int((self.session.home / "service").read_text())
        self.assertIn(service, running())
        self.quit()
        wait_for_end(service)

    def test_a_command_gets_nothing_of_the_client(self):
        # Read by programs that the shell starts: it handles some signals in its own way. And not through a
        # pipe, which would be one more thing that is open.
        # Only the first time: the next command would write while the test reads.
        menu = self.menu_with("""
            [[ ! -e "$HOME/descriptors" ]] || exit 0
            ls /proc/$$/fd > "$HOME/descriptors"
            readlink /proc/$$/fd/0 > "$HOME/input"
            cat /proc/self/status > "$HOME/status"
            ps -o sid=,pgid=,pid= -p $PPID > "$HOME/ids"
            env > "$HOME/environment"
        """)
        self.assertEqual(menu.status, CONNECTED)
        home = self.session.home
        script = "255"
        self.assertEqual((home / "descriptors").read_text().split(), ["0", "1", "2", script])
        self.assertEqual((home / "input").read_text(), "/dev/null\n")
        self.assertEqual(len(set((home / "ids").read_text().split())), 1)
        signals = dict(re.findall(r"^(SigBlk|SigIgn):\s*(\w+)$", (home / "status").read_text(), re.MULTILINE))
        standard = (1 << 31) - 1  # those above belong to the C library
        self.assertEqual(int(signals["SigBlk"], 16), 0)
        self.assertEqual(int(signals["SigIgn"], 16) & standard, 0)
        self.assertNotIn("KESTRUNE_MENU_CLIENT", (home / "environment").read_text())
        self.quit()


if __name__ == "__main__":
    isolation.main()
