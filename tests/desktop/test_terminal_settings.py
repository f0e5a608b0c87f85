"""The settings and the pairing code in the terminal face: answered line by line, and scanned from the screen."""

import subprocess
import termios
import unittest

from support import isolation
from desktop.session import COUNTING_BACKEND, NO_BUS, PATIENCE, Deadline, Session
from support.windows import GUIDE, PAIRING_FAILED, SAVED, SETTINGS
from desktop.xfce import HEIGHT, WIDTH, Rectangle, Screen

RULE = "─" * 28
HINT = "（每一欄按 Enter 保留原值，輸入「清空」清除。）"
BUTTONS = "[1] 保存並刷新  [2] 打開 .env  [3] 取消  [4] 顯示手機配對 QR  \n"
EMPTYING = "清空"
KEY = "OpenAI API Key"
PLACEHOLDER_URL = "https://relay.example.com"
PAIRING = f"\nℹ 手機配對 QR\n{RULE}\n用 iPhone 系統相機掃描，下方 Kestrune 會自動填入 API URL 與 Token。\n\n"
OKAY = "[1] 好  \n"

OPENER = """
echo "$# $1" > "$HOME/events"
"""
SHOWING = 'cat "$1"; exec cat "$HOME/gate"'


GATED = """
[[ $1 == status ]] || exit 0
read -r report < "$HOME/gate"
echo "$report"
"""


def scan(picture):
    """What a camera reads from it; nothing if there is no code."""
    done = subprocess.run(["zbarimg", "--nodbus", "--quiet", "--raw", "-Sbinary", picture], stdout=subprocess.PIPE,
                          stdin=subprocess.DEVNULL, timeout=PATIENCE)
    return done.stdout.decode()


class Dialogue(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        # Says nothing, as one that knows the units that it is to stop.
        self.session.program("systemctl", "exit 0\n")
        self.session.program("xdg-open", OPENER)
        # Not by way of a login shell, as the commands of the backend.
        self.session.environment["PATH"] = f"{self.session.bin}:{self.session.environment['PATH']}"
        self.session.stub_backend(COUNTING_BACKEND)
        # Then nothing happens but what is typed.
        self.session.prefer('{"autoConnectEnabled": false}')
        self.env = self.session.repo / ".env"
        self.read = 0

    def start(self, text=None):
        """A client on pipes, with that in the file."""
        if text is not None:
            self.env.write_text(text)
        self.client = self.session.terminal()

    def expect(self, words):
        """Waits for that in what has not been read yet; what came before it."""
        output = self.client.output
        at = output.wait(lambda text: text.find(words, self.read) + 1, f"“{words}”") - 1
        before, self.read = output.so_far[self.read:at], at + len(words)
        return before

    def ask(self, line, answer):
        self.client.type(line)
        self.expect(answer)

    def go_to_buttons(self):
        """Keeps what is in the fields."""
        self.ask(",", "> \n")
        for _ in range(4):
            self.ask("", "> \n")
        self.ask("", BUTTONS)

    def assertWindow(self, window):
        self.expect(f"\n{'⚠' if window.warns else 'ℹ'} {window.title}\n{RULE}\n{window.text}\n\n{OKAY}")

    def assertUnchanged(self, text):
        # The window comes behind everything that the dialogue has led to.
        self.client.type("g")
        self.assertWindow(GUIDE)
        self.client.type("1")
        self.assertEqual(self.env.read_text(), text)
        self.assertEqual(self.session.events.pending(), [])

    def assertQuits(self):
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), NO_BUS)


class Settings(Dialogue):
    def test_everything_is_asked_in_its_order(self):
        self.start("KESTRUNE_APP_API_TOKEN=a<b> c\nOPENAI_API_KEY=sk-secret\n")
        self.ask(",", f"\nℹ {SETTINGS.title}\n{RULE}\n{SETTINGS.text}\n{HINT}\n\n")
        labels = dict(enumerate(SETTINGS.labels, 1))
        self.expect(f"\n{labels[1]}\n{labels[2]}\n\n{labels[3]}\n手機連線 API URL［{PLACEHOLDER_URL}］> \n")
        for answer in ("手機 App Token［a<b> c］> \n", "Mac 本機 Token（未填）> \n",
                       f"\n{labels[7]}\n專案根目錄［{self.session.home}］> \n",
                       f"{labels[9]}\n\n{labels[10]}\n{KEY}（已填，不顯示）> \n",
                       f"{labels[12]}\n{labels[13]}\n{BUTTONS}"):
            self.client.type("")
            self.assertEqual(self.expect(answer), "")
        for line in ("5", "no", "0"):
            self.ask(line, "請輸入按鈕編號。\n")
        self.client.type("3")
        self.assertUnchanged("KESTRUNE_APP_API_TOKEN=a<b> c\nOPENAI_API_KEY=sk-secret\n")
        self.assertQuits()
        self.assertNotIn("sk-secret", self.client.output.so_far)

    def test_what_is_kept_typed_and_emptied_is_saved(self):
        self.start("# own\nKESTRUNE_PUBLIC_API_URL=https://old.example\nHALVASK_APP_API_TOKEN=former\n"
                   "KESTRUNE_PROJECT_ROOT=/r\nOPENAI_API_KEY=sk\n")
        self.ask(",", "［https://old.example］> \n")
        self.ask("  https://new.example/?a=b  ", "［former］> \n")
        self.ask("", "（未填）> \n")
        self.ask(" 令牌 mac ", "［/r］> \n")
        self.ask(EMPTYING, "（已填，不顯示）> \n")
        self.ask("", BUTTONS)
        self.client.type("")  # presses the first
        self.assertWindow(SAVED)
        self.client.type("1")
        self.assertEqual([self.session.events.next() for _ in range(2)], ["refresh asked", "status asked"])
        self.assertEqual(self.env.read_text(),
                         "# own\nKESTRUNE_PUBLIC_API_URL=https://new.example/?a=b\nHALVASK_APP_API_TOKEN=former\n"
                         "KESTRUNE_PROJECT_ROOT=\nOPENAI_API_KEY=sk\n\nKESTRUNE_APP_API_TOKEN=former\n\n"
                         "KESTRUNE_MAC_SERVICE_TOKEN=令牌 mac")
        self.assertQuits()

    def test_the_first_settings_come_from_the_template(self):
        self.start()
        self.go_to_buttons()
        self.client.type("1")
        self.assertWindow(SAVED)
        template = (self.session.repo / ".env.example").read_text()
        self.assertEqual(self.env.read_text(), template.replace(
            "\nKESTRUNE_PROJECT_ROOT=\n", f"\nKESTRUNE_PROJECT_ROOT={self.session.home}\n"))
        self.assertEqual(self.env.stat().st_mode & 0o777, 0o600)
        self.assertEqual(self.client.end(), 0)

    def test_the_file_is_opened_and_nothing_is_saved(self):
        self.start("X=1\n")
        self.ask(",", "> \n")
        for _ in range(4):
            self.ask("typed", "> \n")
        self.ask("typed", BUTTONS)
        self.client.type("2")
        self.assertEqual(self.session.events.next(), f"1 {self.env}")
        self.assertUnchanged("X=1\n")
        self.assertQuits()

    def test_cancelled_it_changes_nothing(self):
        self.start("X=1\n")
        self.ask(",", "> \n")
        for _ in range(4):
            self.ask("typed", "> \n")
        self.ask("typed", BUTTONS)
        self.client.type("3")
        self.assertUnchanged("X=1\n")
        self.ask(",", f"［{PLACEHOLDER_URL}］> \n")
        self.assertEqual(self.client.end(), 0)

    def test_the_end_of_input_cancels_it(self):
        self.session.stub_backend(GATED)
        self.session.prefer("{}")
        for fields in (1, 5):
            with self.subTest(fields=fields):
                self.read = 0
                self.start("X=1\n")
                self.ask(",", "> \n")
                for _ in range(fields):
                    self.ask("typed", "\n")
                self.client.close_input()
                # As long as the dialogue is open, there is no menu.
                self.session.gate.open("[OK] Codex CLI: 1")
                self.expect("Codex：OK 1\n")
                self.assertEqual(self.client.end(), 0)
                self.assertEqual(self.client.errors.all(), NO_BUS)
                self.assertEqual(self.env.read_text(), "X=1\n")

    def test_what_cannot_be_saved_is_told(self):
        self.env.mkdir()
        self.start()
        self.go_to_buttons()
        self.client.type("1")
        self.assertWindow(SETTINGS.failed("Is a directory"))
        self.client.type("1")
        self.assertQuits()
        self.assertEqual(list(self.env.iterdir()), [])
        self.assertEqual(self.session.events.pending(), [])


class InATerminal(Dialogue):
    """On a terminal of its own."""

    def start(self, text=None, **environment):
        if text is not None:
            self.env.write_text(text)
        self.client = self.session.real_terminal(environment=environment)
        self.expect("列號或按鍵> ")


class Echo(InATerminal):
    def ask_for_key(self):
        """Types the other fields."""
        self.ask(",", f"手機連線 API URL［{PLACEHOLDER_URL}］> ")
        for typed in ("url", "app", "mac", "root"):
            self.client.type(typed)
            # The terminal echoes it.
            self.assertTrue(self.expect("> ").startswith(f"{typed}\n"))
        self.assertTrue(self.client.output.so_far[:self.read].endswith(f"{KEY}（未填，輸入時不顯示）> "))

    def echoes(self):
        return bool(termios.tcgetattr(self.client.input)[3] & termios.ECHO)

    def test_the_key_is_not_echoed(self):
        self.start("")
        self.ask_for_key()
        self.assertFalse(self.echoes())
        self.ask("sk-secret", BUTTONS + "按鈕編號> ")
        self.assertTrue(self.echoes())
        self.ask("1", f"ℹ {SAVED.title}\n")
        self.assertIn("OPENAI_API_KEY=sk-secret\n", self.env.read_text() + "\n")
        self.expect("按鈕編號> ")
        self.client.type("1")
        self.assertEqual(self.client.quit(), 0)
        self.assertNotIn("secret", self.client.output.so_far)

    def test_the_terminal_echoes_again_when_the_client_ends_at_that_question(self):
        self.start("")
        self.ask_for_key()
        self.assertFalse(self.echoes())
        self.assertEqual(self.client.end(), 0)
        self.assertTrue(self.echoes())


class Pairing(Dialogue):
    def pair(self):
        """The printed code."""
        self.go_to_buttons()
        self.ask("4", PAIRING)
        return self.expect(f"\nAPI URL：{PLACEHOLDER_URL}\n{OKAY}")

    def draw(self, text):
        """A picture of a code in half blocks that has light ink, as on a dark screen."""
        halves = {" ": (0, 0), "▀": (1, 0), "▄": (0, 1), "█": (1, 1)}
        rows = [[halves[each][half] for each in line] for line in text.splitlines() for half in (0, 1)]
        side = 4
        picture = self.session.root / "code.pgm"
        body = b"".join(bytes(255 * each for each in row for _ in range(side)) * side for row in rows)
        picture.write_bytes(f"P5 {side * len(rows[0])} {side * len(rows)} 255\n".encode() + body)
        return picture

    def test_the_code_is_printed_and_the_settings_go_on(self):
        self.start("KESTRUNE_APP_API_TOKEN=t0k3n+=&漢\n")
        self.assertEqual(scan(self.draw(self.pair())),
                         f"kestrune://configure?apiUrl={PLACEHOLDER_URL}&token=t0k3n%2B%3D%26%E6%BC%A2")
        self.ask("1", BUTTONS)
        self.client.type("3")
        self.assertUnchanged("KESTRUNE_APP_API_TOKEN=t0k3n+=&漢\n")
        self.assertQuits()

    def test_it_says_what_the_file_says(self):
        self.start("KESTRUNE_APP_API_TOKEN=saved\n")
        self.ask(",", "> \n")
        for _ in range(4):
            self.ask("typed", "> \n")
        self.ask("typed", BUTTONS)
        self.ask("4", PAIRING)
        code = self.expect("\nAPI URL")
        self.assertEqual(scan(self.draw(code)), f"kestrune://configure?apiUrl={PLACEHOLDER_URL}&token=saved")
        self.ask("1", BUTTONS)
        # What was typed is still there to be saved.
        self.client.type("1")
        self.assertWindow(SAVED)
        self.assertIn("KESTRUNE_APP_API_TOKEN=typed\n", self.env.read_text())
        self.assertEqual(self.client.end(), 0)

    def test_without_a_token_it_is_told_what_is_missing(self):
        self.start("KESTRUNE_APP_API_TOKEN=\nHALVASK_APP_API_TOKEN=former\n")
        self.go_to_buttons()
        self.client.type("4")
        self.assertWindow(PAIRING_FAILED)
        self.ask("1", BUTTONS)
        self.client.type("3")
        self.assertQuits()


class OnScreen(InATerminal):
    """Scanned from a terminal that draws it."""

    def setUp(self):
        super().setUp()
        self.screen = Screen(self.session)
        self.addCleanup(self.screen.close)

    def show(self, text, *options):
        script = self.session.root / "shown"
        script.write_text(text)
        self.session.spawn("xterm", "-fa", "monospace", "-fs", "8", "-geometry", "110x60", *options,
                           "-e", "sh", "-c", SHOWING, "sh", str(script),
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def scanned(self):
        """Looks again and again, because a program that has drawn tells nobody."""
        picture = self.session.root / "screen.png"
        deadline = Deadline()
        while True:
            self.screen.save(Rectangle(0, 0, WIDTH, HEIGHT), picture)
            if link := scan(picture):
                return link
            self.assertGreater(deadline.left(), 0, "no code on the screen")

    def pair(self):
        """All that the terminal shows then."""
        self.ask(",", "> ")
        for _ in range(4):
            self.ask("", "> ")
        self.ask("", "按鈕編號> ")
        self.ask("4", f"API URL：{PLACEHOLDER_URL}")
        self.expect("按鈕編號> ")
        return self.client.output.so_far[:self.read].rpartition("[4] ")[2]

    def assertScanned(self, token, *options, **environment):
        self.start(f"KESTRUNE_APP_API_TOKEN={token}\n", **environment)
        self.show(self.pair(), *options)
        self.assertEqual(self.scanned(), f"kestrune://configure?apiUrl={PLACEHOLDER_URL}&token={token}")

    def test_with_colours_on_a_light_screen(self):
        self.assertScanned("t0k3n", "-bg", "#fdf6e3", "-fg", "#657b83", TERM="xterm-256color")

    def test_with_colours_on_a_dark_screen(self):
        self.assertScanned("t0k3n", "-bg", "#002b36", "-fg", "#586e75", TERM="xterm-256color")

    def test_without_colours_on_a_dark_screen(self):
        self.assertScanned("t0k3n", "-bg", "black", "-fg", "#c0c0c0", TERM="dumb")

    def test_a_long_link(self):
        self.assertScanned("".join(f"{i * 7919:x}." for i in range(90)), TERM="xterm")


if __name__ == "__main__":
    isolation.main()
