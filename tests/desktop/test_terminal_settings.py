"""The settings and the pairing code in the terminal face: answered line by line, and scanned from the screen."""

import termios

from support import isolation
from support.client import NO_BUS
from support.dialogue import BUTTONS, OKAY, RULE, Dialogue
from support.display import Screen, scan
from support.session import GATED_BACKEND
from support.waiting import Deadline
from support.windows import PAIRING_FAILED, SAVED, SETTINGS

HINT = "（每一欄按 Enter 保留原值，輸入「清空」清除。）"
EMPTYING = "清空"
KEY = "OpenAI API Key"
PLACEHOLDER_URL = "https://relay.example.com"
PAIRING = f"\nℹ 手機配對 QR\n{RULE}\n用 iPhone 系統相機掃描，下方 Kestrune 會自動填入 API URL 與 Token。\n\n"

SHOWING = 'cat "$1"; exec cat "$HOME/gate"'


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
        self.fill_in("  https://new.example/?a=b  ", "", " 令牌 mac ", EMPTYING)
        self.client.type("")  # presses the first
        self.assertWindow(SAVED)
        self.assertEqual([self.session.events.next() for _ in range(2)], ["refresh asked", "status asked"])
        self.assertEqual(self.env.read_text(),
                         "# own\nKESTRUNE_PUBLIC_API_URL=https://new.example/?a=b\nHALVASK_APP_API_TOKEN=former\n"
                         "KESTRUNE_PROJECT_ROOT=\nOPENAI_API_KEY=sk\n\nKESTRUNE_APP_API_TOKEN=former\n\n"
                         "KESTRUNE_MAC_SERVICE_TOKEN=令牌 mac")
        self.assertQuits()

    def test_the_end_of_input_cancels_it(self):
        self.session.stub_backend(GATED_BACKEND)
        self.session.prefer("{}")
        self.start("X=1\n")
        self.open_settings()
        self.ask("typed", "\n")
        self.client.close_input()
        # As long as the dialogue is open, there is no menu.
        self.session.gate.open("[OK] Codex CLI: 1")
        self.expect("Codex：OK 1\n")
        self.assertEqual(self.client.end(), 0)
        self.assertEqual(self.client.errors.all(), NO_BUS)
        self.assertEqual(self.env.read_text(), "X=1\n")


class InATerminal(Dialogue):
    def start(self, text=None, **environment):
        """On a terminal of its own."""
        self.env.write_text(text or "")
        self.client = self.session.real_terminal(environment=environment)
        self.read = 0
        self.expect("列號或按鍵> ")

    def echoes(self):
        return bool(termios.tcgetattr(self.client.input)[3] & termios.ECHO)

    def test_the_key_is_not_echoed(self):
        for answered in (True, False):
            self.start()
            self.open_settings()
            for typed in ("url", "app", "mac", "root"):
                self.client.type(typed)
                # The terminal echoes it.
                self.assertTrue(self.expect("> ").startswith(f"{typed}\n"))
            self.assertTrue(self.client.output.so_far[:self.read].endswith(f"{KEY}（未填，輸入時不顯示）> "))
            self.assertFalse(self.echoes())
            if answered:
                self.ask("sk-secret", BUTTONS + "按鈕編號> ")
                self.assertTrue(self.echoes())
                self.ask("1", f"ℹ {SAVED.title}\n")
                self.assertIn("OPENAI_API_KEY=sk-secret\n", self.env.read_text() + "\n")
            # Also at that question.
            self.assertEqual(self.client.end(), 0)
            self.assertTrue(self.echoes())
            self.assertNotIn("secret", self.client.output.so_far)

    def test_the_code_is_scanned_from_a_terminal(self):
        screen = Screen(self.session)
        long = "".join(f"{i * 7919:x}." for i in range(90))
        for token, term, colours in (("t0k3n", "xterm-256color", ["-bg", "#fdf6e3", "-fg", "#657b83"]),
                                     ("t0k3n", "xterm-256color", ["-bg", "#002b36", "-fg", "#586e75"]),
                                     ("t0k3n", "dumb", ["-bg", "black", "-fg", "#c0c0c0"]), (long, "xterm", [])):
            with self.subTest(token=token, colours=colours):
                self.start(f"KESTRUNE_APP_API_TOKEN={token}\n", TERM=term)
                self.fill_in()
                self.expect("按鈕編號> ")
                begin = self.read
                self.ask("4", f"API URL：{PLACEHOLDER_URL}")
                shown = self.session.root / "shown"
                shown.write_text(self.client.output.so_far[begin:self.read])
                terminal = self.session.spawn("xterm", "-fa", "monospace", "-fs", "8", "-geometry", "110x60", *colours,
                                              "-e", "sh", "-c", SHOWING, "sh", str(shown))
                # Looks again and again, because a program that has drawn tells nobody.
                deadline = Deadline()
                while not (link := screen.scan(screen.whole)):
                    self.assertGreater(deadline.left(), 0, "no code on the screen")
                self.assertEqual(link, f"kestrune://configure?apiUrl={PLACEHOLDER_URL}&token={token}")
                terminal.kill()
                terminal.wait()
                self.assertEqual(self.client.end(), 0)


class Pairing(Dialogue):
    def draw(self, text):
        """A picture of a code in half blocks that has light ink, as on a dark screen."""
        halves = {" ": (0, 0), "▀": (1, 0), "▄": (0, 1), "█": (1, 1)}
        rows = [[halves[each][half] for each in line] for line in text.splitlines() for half in (0, 1)]
        side = 4
        picture = self.session.root / "code.pgm"
        body = b"".join(bytes(255 * each for each in row for _ in range(side)) * side for row in rows)
        picture.write_bytes(f"P5 {side * len(rows[0])} {side * len(rows)} 255\n".encode() + body)
        return picture

    def test_it_says_what_the_file_says_and_the_settings_go_on(self):
        self.start("KESTRUNE_APP_API_TOKEN=t0k3n+=&漢\n")
        self.fill_in(*["typed"] * 5)
        self.ask("4", PAIRING)
        code = self.expect(f"\nAPI URL：{PLACEHOLDER_URL}\n{OKAY}")
        self.assertEqual(scan(self.session, self.draw(code)),
                         f"kestrune://configure?apiUrl={PLACEHOLDER_URL}&token=t0k3n%2B%3D%26%E6%BC%A2")
        self.ask("1", BUTTONS)
        # What was typed is still there to be saved.
        self.client.type("1")
        self.assertWindow(SAVED)
        self.assertIn("KESTRUNE_APP_API_TOKEN=typed\n", self.env.read_text())
        self.assertEqual(self.client.end(), 0)

    def test_without_a_token_it_is_told_what_is_missing(self):
        self.start("KESTRUNE_APP_API_TOKEN=\nHALVASK_APP_API_TOKEN=former\n")
        self.fill_in()
        self.client.type("4")
        self.assertWindow(PAIRING_FAILED)
        self.expect(BUTTONS)
        self.client.type("3")
        self.assertQuits()


if __name__ == "__main__":
    isolation.main()
