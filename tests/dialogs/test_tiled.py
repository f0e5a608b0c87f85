"""The windows on Wayland, under a compositor that tiles what is no dialog."""

import json
import os
import socket
import struct
import unittest

from dialogs.asked import alert, field, menu, view
from dialogs.desk import PATIENCE, Desk, read_line

REPORT = "\n".join(f"[OK] 檢查 {i}" for i in range(400))
FORM = view("scroll", view("stack", *(field(f"f{i}") for i in range(40)), spacing=10), width=560, height=560)

NOBODY = 65534
RUN_COMMAND, SUBSCRIBE, GET_TREE = 0, 2, 4


class Sway:
    """The compositor, on a screen of its own that nobody sees."""

    def __init__(self, desk):
        folder = desk.root / "sway"
        folder.mkdir()
        ready = folder / "ready"
        os.mkfifo(ready)
        (folder / "config").write_text(f"xwayland disable\nexec echo $WAYLAND_DISPLAY $SWAYSOCK > {ready}\n")
        command = ["sway", "--config", str(folder / "config")]
        if os.geteuid() == 0:
            # It refuses to run as root.
            desk.root.chmod(0o711)
            for path in (folder, ready):
                os.chown(path, NOBODY, NOBODY)
            command = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", *command]
        told = os.open(ready, os.O_RDWR)
        desk.spawn(*command, env={**desk.environment, "XDG_RUNTIME_DIR": str(folder), "WLR_BACKENDS": "headless",
                                  "WLR_RENDERER": "pixman", "WLR_LIBINPUT_NO_DEVICES": "1"})
        display, self.path = read_line(told).split()
        os.close(told)
        del desk.environment["DISPLAY"]
        desk.environment["WAYLAND_DISPLAY"] = str(folder / display)
        self.commands, self.events = self.connect(), self.connect()
        self.ask(self.events, SUBSCRIBE, '["window"]')

    def close(self):
        self.commands.close()
        self.events.close()

    def connect(self):
        connection = socket.socket(socket.AF_UNIX)
        connection.settimeout(PATIENCE)
        connection.connect(self.path)
        return connection

    def ask(self, connection, kind, payload=""):
        connection.sendall(b"i3-ipc" + struct.pack("<II", len(payload.encode()), kind) + payload.encode())
        return self.read(connection)

    @staticmethod
    def read(connection):
        def exactly(count):
            data = connection.recv(count, socket.MSG_WAITALL)
            assert len(data) == count, "the compositor has ended"
            return data
        return json.loads(exactly(struct.unpack("<6sII", exactly(14))[1]))

    def command(self, text):
        for result in self.ask(self.commands, RUN_COMMAND, text):
            assert result["success"], (text, result)

    def new_window(self, name):
        """The next one that appears, once it has the keyboard; its name begins so."""
        new = self.event("new")
        while (window := self.event("focus"))["id"] != new["id"]:
            pass
        assert window["name"].startswith(name), window
        return window

    def event(self, change):
        while (event := self.read(self.events))["change"] != change:
            pass
        return event["container"]

    def windows(self):
        """Workspace, beginning of the name, width and whether it has the keyboard, of every window."""
        def walk(node, workspace):
            if node.get("pid"):
                yield workspace, node["name"].split()[0], node["rect"]["width"], node["focused"]
            for child in node["nodes"] + node["floating_nodes"]:
                yield from walk(child, node["name"] if node["type"] == "workspace" else workspace)
        return list(walk(self.ask(self.commands, GET_TREE), None))


class Tiled(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.desk = Desk(cls)
        cls.sway = Sway(cls.desk)
        cls.addClassCleanup(cls.sway.close)

    def open(self, request, name):
        program = self.enterContext(self.desk.program())
        program.show(request)
        return program, self.sway.new_window(name)

    def test_every_window_floats(self):
        for request, name in ((menu(), "Kestrune"), (alert(1, "短"), "短"), (alert(1, "長", REPORT), "長"),
                              (alert(1, "設定", view=FORM), "設定")):
            program, window = self.open(request, name)
            self.assertEqual(window["type"], "floating_con", name)
            program.end_input()
            self.assertEqual(program.status(), 0)

    def test_a_long_text_may_be_given_more_room(self):
        program, _ = self.open(alert(1, "長", REPORT), "長")
        # What came before a window is known when that is there.
        program.show(alert(2, "上"))
        self.sway.new_window("上")
        self.sway.command('[title="長"] resize set width 900 px')
        self.assertIn(("1", "長", 900, False), self.sway.windows())

    def test_raising_brings_all_from_another_workspace(self):
        program, _ = self.open(alert(1, "下", view=field("a", "x")), "下")
        program.show(alert(2, "上"))
        self.sway.new_window("上")
        for name in ("下", "上"):
            self.sway.command(f'[title="{name}"] move to workspace 2')
        self.open(menu(), "Kestrune")
        program.send({"raise": ""})
        for name in ("下", "上"):
            self.assertEqual(self.sway.new_window(name)["type"], "floating_con")
        self.assertEqual([(workspace, name, focused) for workspace, name, _, focused in self.sway.windows()],
                         [("1", "Kestrune", False), ("1", "下", False), ("1", "上", True)])


if __name__ == "__main__":
    unittest.main()
