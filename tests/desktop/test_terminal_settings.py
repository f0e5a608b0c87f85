"""Tests of the settings, which the user answers line by line in a terminal, and of the pairing code printed there."""

import fcntl
import os
import pty
import struct
import termios

from rig import isolation
from rig.dialogue import Dialogue
from rig.display import Screen
from rig.waiting import Deadline

KEY = "OpenAI API Key"
PLACEHOLDER_URL = "https://relay.example.com"


class InATerminal(Dialogue):
    def start(self, text=None, **environment):
        """Starts the client in a pseudo-terminal, with this text in .env."""
        self.env.write_text(text or "")
        self.client = self.session.real_terminal(environment=environment)
        self.read = 0
        self.expect("列號或按鍵> ")

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
        self.open_settings()
        for _ in range(4):
            self.ask("", "> ")
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
                self.fill_in()
                self.expect("按鈕編號> ")
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
