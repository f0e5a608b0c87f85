"""Moves and clicks a virtual pointer, which a Wayland compositor takes for hardware. Speaks the protocol
org_kde_kwin_fake_input (KWin) or zwlr_virtual_pointer_v1 (wlroots)."""

import os
import socket
import struct
import time

DISPLAY = 1  # the id of the object that each Wayland connection has from its start
BUTTONS = {1: 0x110, 2: 0x112, 3: 0x111}  # from X11's button numbers to the kernel's (BTN_LEFT and so on)


def text(words):
    data = words.encode() + b"\0"
    return struct.pack("<I", len(data)) + data + b"\0" * (-len(data) % 4)


class Pointer:
    def __init__(self, width, height):
        self.size = width, height
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(os.path.join(os.environ["XDG_RUNTIME_DIR"], os.environ["WAYLAND_DISPLAY"]))
        self.last, self.names = DISPLAY, {}
        self.registry = self.new()
        self.send(DISPLAY, 1, struct.pack("<I", self.registry))
        self.round_trip()
        self.fake = "org_kde_kwin_fake_input" in self.names
        if self.fake:
            self.pointer = self.bind("org_kde_kwin_fake_input", 4)
            self.send(self.pointer, 0, text("tests/hosts") + text("a pointer"))
        else:
            manager = self.bind("zwlr_virtual_pointer_manager_v1", 1)
            self.pointer = self.new()
            self.send(manager, 0, struct.pack("<II", 0, self.pointer))
        self.round_trip()

    def new(self):
        """Returns the id for a new object. Wayland requires consecutive ids."""
        self.last += 1
        return self.last

    def send(self, target, opcode, arguments=b""):
        self.socket.sendall(struct.pack("<IHH", target, opcode, 8 + len(arguments)) + arguments)

    def bind(self, interface, version):
        target = self.new()
        self.send(self.registry, 0,
                  struct.pack("<I", self.names[interface]) + text(interface) + struct.pack("<II", version, target))
        return target

    def round_trip(self):
        """Waits until the compositor has handled all requests. Stores the globals (interfaces) announced so far."""
        callback = self.new()
        self.send(DISPLAY, 0, struct.pack("<I", callback))
        while True:
            target, opcode, size = struct.unpack("<IHH", self.socket.recv(8, socket.MSG_WAITALL))
            body = self.socket.recv(size - 8, socket.MSG_WAITALL) if size > 8 else b""
            if target == DISPLAY and opcode == 0:
                raise AssertionError(f"the compositor refuses the pointer: {body}")
            if target == self.registry and opcode == 0:
                name, length = struct.unpack_from("<II", body)
                self.names[body[8:8 + length - 1].decode()] = name
            if target == callback:
                return

    def move(self, x, y):
        if self.fake:
            self.send(self.pointer, 9, struct.pack("<ii", x * 256, y * 256))
        else:
            self.send(self.pointer, 1, struct.pack("<IIIII", self.now(), x, y, *self.size))
            self.send(self.pointer, 4)
        self.round_trip()

    def click(self, x, y, button=1):
        self.move(x, y)
        time.sleep(0.3)  # a program may have to learn first that the pointer is over its window
        for down in (1, 0):
            if self.fake:
                self.send(self.pointer, 2, struct.pack("<II", BUTTONS[button], down))
            else:
                self.send(self.pointer, 2, struct.pack("<III", self.now(), BUTTONS[button], down))
                self.send(self.pointer, 4)
            self.round_trip()

    @staticmethod
    def now():
        return time.monotonic_ns() // 1_000_000 & 0xffffffff
