"""Tests of the settings, which the user answers line by line in a terminal, and of the pairing code printed there."""

import fcntl
import os
import pty
import struct
import termios
import unittest

from rig import isolation
from rig.display import Screen
from rig.session import COUNTING_BACKEND, SWITCHED_OFF, Session
from rig.waiting import Deadline

KEY = "OpenAI API Key"
PLACEHOLDER_URL = "https://relay.example.com"


class InATerminal(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        # This fake systemctl prints nothing and succeeds, like the real one when it stops a loaded unit.
        self.session.program("systemctl", "exit 0\n")
        self.session.stub_backend(COUNTING_BACKEND)
        # While auto-connect is off, the client runs no command by itself.
        self.session.prefer(SWITCHED_OFF)

    def start(self, text="", **environment):
        """Starts the client in a pseudo-terminal, with this text in .env."""
        (self.session.repo / ".env").write_text(text)
        self.client = self.session.real_terminal(environment=environment)
        self.read = 0
        self.expect("列號或按鍵> ")

    def expect(self, words):
        """Waits for these words in the output since the last call."""
        at = self.client.output.wait(lambda text: text.find(words, self.read) + 1, f"“{words}”") - 1
        self.read = at + len(words)

    def ask(self, line, answer):
        self.client.type(line)
        self.expect(answer)

    def reach_the_key(self):
        """Opens the settings, and leaves all fields before the key as they are."""
        self.ask(",", "手機連線 API URL")
        self.expect("> ")
        for _ in range(4):
            self.ask("", "> ")

    def echoes(self):
        return bool(termios.tcgetattr(self.client.input)[3] & termios.ECHO)

    def open_terminal(self, *options, show):
        """Opens an xterm that shows the file `show`, and returns its process. Makes the pseudo-terminal here: if xterm
        made it as root, xterm would call initgroups, which a user namespace refuses."""
        near, far = pty.openpty()
        for end in near, far:
            self.session.callback(os.close, end)
        settings = termios.tcgetattr(far)
        # xterm first types the number of its window, which must not be echoed.
        settings[3] &= ~termios.ECHO
        termios.tcsetattr(far, termios.TCSANOW, settings)
        terminal = self.session.spawn("xterm", f"-S/{near}", *options, pass_fds=[near])
        self.session.spawn("cat", show, stdout=far)
        return terminal

    def test_the_echo_is_off_for_the_key_and_on_again_at_the_end(self):
        self.start()
        self.reach_the_key()
        self.assertTrue(self.client.output.so_far[:self.read].endswith(f"{KEY}（未填，輸入時不顯示）> "))
        self.assertFalse(self.echoes())
        self.assertEqual(self.client.end(), 0)
        self.assertTrue(self.echoes())

    def test_the_code_is_scanned_from_a_terminal(self):
        screen = Screen(self.session)
        long = "".join(f"{i * 7919:x}." for i in range(90))
        large, small = (60, 110), (24, 80)
        for token, term, size, colours in (("t0k3n", "xterm-256color", large, ["-bg", "#fdf6e3", "-fg", "#657b83"]),
                                           ("t" * 43, "xterm-256color", small, ["-bg", "#002b36", "-fg", "#586e75"]),
                                           ("t" * 43, "dumb", small, ["-bg", "black", "-fg", "#c0c0c0"]),
                                           (long, "xterm", large, [])):
            with self.subTest(token=token, colours=colours):
                self.start(f"KESTRUNE_APP_API_TOKEN={token}\n", TERM=term)
                fcntl.ioctl(self.client.input, termios.TIOCSWINSZ, struct.pack("HHHH", *size, 0, 0))
                self.reach_the_key()
                self.ask("", "按鈕編號> ")
                begin = self.read
                self.ask("4", f"API URL：{PLACEHOLDER_URL}")
                self.expect("按鈕編號> ")
                shown = self.session.root / "shown"
                shown.write_text(self.client.output.so_far[begin:self.read])
                terminal = self.open_terminal("-fa", "monospace", "-fs", "8", "-geometry", f"{size[1]}x{size[0]}", *colours,
                                              show=shown)
                # Scans again and again, because no event reports that xterm has drawn.
                deadline = Deadline()
                while not (link := screen.scan(screen.whole)):
                    self.assertGreater(deadline.left(), 0, "no code on the screen")
                self.assertEqual(link, f"kestrune://configure?apiUrl={PLACEHOLDER_URL}&token={token}")
                terminal.kill()
                terminal.wait()
                self.assertEqual(self.client.end(), 0)


isolation.main()
