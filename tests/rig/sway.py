"""The Wayland compositor sway, which tiles all windows that are not dialogs."""

import json
import os
import socket
import struct

from rig.waiting import PATIENCE, Events

NOBODY = 65534
RUN_COMMAND, SUBSCRIBE, GET_TREE = 0, 2, 4


class Sway:
    """A running compositor without a screen (the headless backend)."""

    def __init__(self, session):
        folder = session.root / "sway"
        folder.mkdir()
        ready = folder / "ready"
        told = Events(ready)
        (folder / "config").write_text("xwayland disable\nexec echo $WAYLAND_DISPLAY $SWAYSOCK > ready\n")
        command = ["sway", "--config", str(folder / "config")]
        if os.geteuid() == 0:
            # Run sway as the user NOBODY, because sway refuses to run as root.
            try:
                for path in (folder, ready):
                    os.chown(path, NOBODY, NOBODY)
                session.root.chmod(0o711)
                command = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", *command]
            except OSError:
                # This user namespace has no user NOBODY: run sway in a nested one, in which this user is NOBODY.
                command = ["unshare", "--user", f"--map-user={NOBODY}", f"--map-group={NOBODY}", *command]
        session.spawn(*command, cwd=folder, environment={"XDG_RUNTIME_DIR": str(folder), "WLR_BACKENDS": "headless",
                                                         "WLR_RENDERER": "pixman", "WLR_LIBINPUT_NO_DEVICES": "1"})
        display, _, self.path = told.next().partition(" ")
        told.close()
        session.environment |= {"DISPLAY": "", "WAYLAND_DISPLAY": str(folder / display)}
        self.commands, self.events = self.connect(), self.connect()
        session.callback(self.events.close)
        session.callback(self.commands.close)
        self.ask(self.events, SUBSCRIBE, '["window"]')

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
        """Waits until a new window has the focus, and returns it. Its name must begin with `name`."""
        new = self.event("new")
        while (window := self.event("focus"))["id"] != new["id"]:
            pass
        assert window["name"].startswith(name), window
        return window

    def event(self, change):
        while (event := self.read(self.events))["change"] != change:
            pass
        return event["container"]

    def nodes(self):
        """Returns workspace and node of every window."""
        def walk(node, workspace):
            if node.get("pid"):
                yield workspace, node
            for child in node["nodes"] + node["floating_nodes"]:
                yield from walk(child, node["name"] if node["type"] == "workspace" else workspace)
        return list(walk(self.ask(self.commands, GET_TREE), None))

    def windows(self):
        """Returns workspace, first word of the name, width and focus of every window."""
        return [(workspace, node["name"].split()[0], node["rect"]["width"], node["focused"])
                for workspace, node in self.nodes()]
