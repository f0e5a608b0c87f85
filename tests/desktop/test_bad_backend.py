"""A backend that is not there, or does what no backend should: the menu says so, and the client lives on."""

import re
import unittest

from support import isolation
from desktop.session import CONNECTED, FAULTY, NO_BUS, Session, end_process, read_process, running, wait_for_end

COMMAND_LIMIT = 12.0

LEGACY_MISSING = "halvask-mac-client: command not found"


class BadBackend(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)

    def menu_with(self, stub=None):
        """The menu after the first check; the client must be well before and after."""
        if stub is not None:
            self.session.stub_backend(stub)
        self.client = self.session.terminal()
        self.checked = self.client.checked()
        self.assertLess(self.client.age(), COMMAND_LIMIT)
        self.client.type("13")
        self.client.said("這一列只供查看：連線與常駐")
        return self.checked

    def quit(self):
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), NO_BUS)
        self.client.assert_only_started(self.checked.status)

    def assertYellow(self, menu, pattern):
        self.assertRegex(menu.status, "^🟡 連線狀態：" + pattern + "$")
        self.assertEqual(menu.title, "Kestrune · 檢查中 · 未配置")
        self.assertEqual([menu.rows[number].title for number in range(4, 8)],
                         ["Codex：尚未檢查", "Remote Control：尚未檢查", "Codex App：尚未檢查", "ChatGPT Remote：尚未檢查"])

    def test_a_missing_folder(self):
        self.session.environment["KESTRUNE_REPO_PATH"] = str(self.session.root / "沒有 no such folder")
        self.assertYellow(self.menu_with(), ".*: cd: /.*/沒有 no such folder: No such file or directory")
        self.quit()

    def test_a_folder_that_cannot_be_quoted(self):
        folder = self.session.root / "it's mine"
        self.session.repo.rename(folder)
        self.session.environment["KESTRUNE_REPO_PATH"] = str(folder)
        self.assertYellow(self.menu_with(), ".*unexpected EOF while looking for matching .*")
        self.quit()

    def test_a_missing_environment(self):
        (self.session.repo / ".venv").rename(self.session.repo / "venv.off")
        self.assertYellow(self.menu_with(), ".*: .venv/bin/activate: No such file or directory")
        self.quit()

    def test_a_missing_client(self):
        (self.session.repo / ".venv/bin/kestrune-mac-client").unlink()
        self.assertYellow(self.menu_with(), ".*: " + LEGACY_MISSING)
        self.quit()

    def test_the_client_under_its_former_name(self):
        (self.session.repo / ".venv/bin/kestrune-mac-client").rename(self.session.repo / ".venv/bin/halvask-mac-client")
        self.session.backend_program = self.session.repo / ".venv/bin/halvask-mac-client"
        self.session.backend("refresh")
        self.assertEqual(self.menu_with().status, CONNECTED)
        self.quit()

    def test_a_client_that_fails_in_silence(self):
        self.assertYellow(self.menu_with("exit 3\n"), ".*: " + LEGACY_MISSING)
        self.quit()

    def test_a_client_that_fails_with_words(self):
        self.assertYellow(self.menu_with("echo '  第一行 <b>_&  '; echo 第二行; exit 1\n"), "第一行 <b>_&  ")
        self.quit()

    def test_a_client_that_fails_and_reports_a_fault(self):
        menu = self.menu_with("echo '檢查失敗'; echo '[FAIL] 隧道: down'; exit 1\n")
        self.assertEqual(menu.status, "🔴 連線狀態：檢查失敗")
        self.quit()

    def test_a_client_that_ends_by_a_signal(self):
        self.assertYellow(self.menu_with("echo '半份 報告'\nkill -SEGV $$\n"), "半份 報告")
        self.quit()

    def test_a_client_that_kills_the_shell(self):
        self.assertYellow(self.menu_with("kill -KILL $PPID\n"), "沒有輸出。")
        self.quit()

    def test_a_client_that_says_nothing_and_is_content(self):
        self.assertEqual(self.menu_with("exit 0\n").status, CONNECTED)
        self.quit()

    def test_bytes_that_are_no_text(self):
        # What cannot be read as text counts as nothing, in which no fault can be found.
        menu = self.menu_with("printf '[FAIL] Mac service: \\xff\\xfe\\n'\n")
        self.assertEqual(menu.status, CONNECTED)
        self.quit()

    def test_bytes_that_are_no_text_from_a_client_that_fails(self):
        self.assertYellow(self.menu_with("printf '[FAIL] Mac service: \\xff\\xfe\\n'; exit 1\n"), "沒有輸出。")
        self.quit()

    def test_control_characters_do_not_reach_the_terminal(self):
        self.assertYellow(self.menu_with("printf '紅 \\033[31m\\007 a\\tb\\n'; exit 1\n"), r"紅   a b")
        self.assertNotRegex(self.client.output.so_far, "[\0-\x09\x0b-\x1f\x7f]")
        self.quit()

    def test_a_line_without_end_is_cut(self):
        menu = self.menu_with("head -c 60000 /dev/zero | tr '\\0' x; exit 1\n")
        self.assertYellow(menu, "x+\\.\\.\\.")
        self.assertEqual(len(menu.rows[2].title), 200)
        self.quit()

    def test_a_descendant_that_holds_the_pipes(self):
        menu = self.menu_with("""
            sleep 1000 &
            echo $! > "$HOME/events"
            echo '[FAIL] Desktop bridge: 沒有'
        """)
        self.assertEqual(menu.status, FAULTY)
        # What a command leaves behind on purpose is the backend's business.
        descendant = int(self.session.events.next())
        self.assertIn(descendant, running())
        end_process(descendant)
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
        peak = re.search(rb"VmHWM:\s+(\d+) kB", read_process(self.client.pid, "status"))
        self.assertLess(int(peak.group(1)), 128 * 1024)
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

    def test_text_is_utf8_whatever_the_locale_says(self):
        for locale in ("C", "POSIX", "zh_TW.BIG5"):
            with self.subTest(locale=locale):
                self.session.environment["LC_ALL"] = locale
                self.assertYellow(self.menu_with("echo '中文 字 🟢'; exit 1\n"), "中文 字 🟢")
                self.quit()


if __name__ == "__main__":
    isolation.main()
