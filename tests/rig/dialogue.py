"""A dialogue with the terminal face (the user interface in a terminal), line by line."""

import unittest

from rig.client import NO_BUS
from rig.session import COUNTING_BACKEND, SWITCHED_OFF, Session

RULE = "─" * 28
BUTTONS = "[1] 保存並刷新  [2] 打開 .env  [3] 取消  [4] 顯示手機配對 QR  \n"
OKAY = "[1] 好  \n"


class Dialogue(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        # This fake systemctl prints nothing and succeeds, like the real one when it stops a loaded unit.
        self.session.program("systemctl", "exit 0\n")
        self.session.stub_backend(COUNTING_BACKEND)
        # While auto-connect is off, the client runs no command by itself.
        self.session.prefer(SWITCHED_OFF)
        self.env = self.session.repo / ".env"
        self.read = 0

    def start(self, text=None, **options):
        """Starts a client on pipes. If `text` is given, .env contains it."""
        if text is not None:
            self.env.write_text(text)
        self.client = self.session.terminal(**options)
        self.read = 0

    def expect(self, words):
        """Waits for these words in the output since the last call. Returns what was printed before these words."""
        output = self.client.output
        at = output.wait(lambda text: text.find(words, self.read) + 1, f"“{words}”") - 1
        before, self.read = output.so_far[self.read:at], at + len(words)
        return before

    def ask(self, line, answer):
        self.client.type(line)
        self.expect(answer)

    def open_settings(self):
        self.ask(",", "手機連線 API URL")
        self.expect("> ")

    def fill_in(self, *fields):
        """Types into the first fields of the settings, and leaves the other fields as they are."""
        self.open_settings()
        for line in [*fields, "", "", "", ""][:4]:
            self.ask(line, "> ")
        self.ask(fields[4] if len(fields) > 4 else "", BUTTONS)

    def assertWindow(self, window):
        """Waits until the window is printed, and closes the window."""
        self.expect(f"\n{'⚠' if window.warns else 'ℹ'} {window.title}\n{RULE}\n{window.text}\n\n{OKAY}")
        self.client.type("1")

    def assertQuits(self):
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), NO_BUS)
