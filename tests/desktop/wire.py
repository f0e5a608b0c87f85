"""Programs of a test's own on its buses, which say what no library would let them say."""

import os
import socket
import struct
import threading
from functools import cached_property
from typing import NamedTuple
from urllib.parse import unquote

from desktop.bus import CLIENT
from desktop.session import PATIENCE, Deadline

CALL, ANSWER, ERROR, SIGNAL = 1, 2, 3, 4
NO_REPLY = 1
PATH, INTERFACE, MEMBER, ERROR_NAME, REPLY_SERIAL, DESTINATION, SENDER, SIGNATURE = range(1, 9)

BUS = "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"
REPLACE_AND_QUEUE_NOT = 2 | 4

FIXED = {"y": "B", "n": "h", "q": "H", "b": "I", "h": "I", "i": "i", "u": "I", "x": "q", "t": "Q", "d": "d"}


def first_type(signature):
    """The first complete type of a signature."""
    if signature[0] == "a":
        return "a" + first_type(signature[1:])
    depth = 0
    for at, letter in enumerate(signature):
        depth += (letter in "({") - (letter in ")}")
        if depth == 0:
            return signature[:at + 1]
    raise ValueError(signature)


def types(signature):
    found = []
    while signature:
        found.append(first_type(signature))
        signature = signature[len(found[-1]):]
    return found


def alignment(kind):
    if kind[0] in FIXED:
        return struct.calcsize(FIXED[kind[0]])
    return {"s": 4, "o": 4, "a": 4, "g": 1, "v": 1}.get(kind[0], 8)


def pad(data, size):
    data.extend(bytes(-len(data) % size))


def put(data, kind, value):
    """Appends a value. A variant is a pair of its type and its value; an array of bytes may be bytes."""
    pad(data, alignment(kind))
    if kind in FIXED:
        data.extend(struct.pack("<" + FIXED[kind], value))
    elif kind in "so":
        text = value.encode()
        data.extend(struct.pack("<I", len(text)) + text + b"\0")
    elif kind == "g":
        data.extend(bytes([len(value)]) + value.encode() + b"\0")
    elif kind == "v":
        put(data, "g", value[0])
        put(data, *value)
    elif kind[0] == "a":
        at = len(data)
        data.extend(bytes(4))
        pad(data, alignment(kind[1:]))
        begin = len(data)
        if kind[1:] in FIXED:
            data.extend(struct.pack(f"<{len(value)}{FIXED[kind[1:]]}", *value))
        else:
            for each in value.items() if isinstance(value, dict) else value:
                put(data, kind[1:], each)
        struct.pack_into("<I", data, at, len(data) - begin)
    else:
        for part, each in zip(types(kind[1:-1]), value, strict=True):
            put(data, part, each)


class Reader:
    def __init__(self, data, at=0):
        self.data, self.at = data, at

    def take(self, kind):
        self.at += -self.at % alignment(kind)
        if kind in FIXED:
            [value] = struct.unpack_from("<" + FIXED[kind], self.data, self.at)
            self.at += struct.calcsize(FIXED[kind])
            return value
        if kind in "sog":
            size = self.take("y" if kind == "g" else "u")
            self.at += size + 1
            return bytes(self.data[self.at - size - 1:self.at - 1]).decode()
        if kind == "v":
            return self.take(self.take("g"))
        if kind[0] == "a":
            end = self.take("u")
            self.at += -self.at % alignment(kind[1:])
            end += self.at
            values = []
            while self.at < end:
                values.append(self.take(kind[1:]))
            return values
        return [self.take(part) for part in types(kind[1:-1])]


class Message(NamedTuple):
    kind: int
    serial: int
    fields: dict
    body: bytes

    def values(self):
        reader = Reader(self.body)
        return [reader.take(kind) for kind in types(self.fields.get(SIGNATURE, ""))]

    @property
    def member(self):
        return self.fields.get(MEMBER)

    @property
    def error(self):
        """The name of the error that this is; absent for an answer."""
        return self.fields[ERROR_NAME] if self.kind == ERROR else None


class Connection:
    """One of the programs. What comes is read only when it is asked for."""

    def __init__(self, bus):
        self.bus = bus
        self.serial = 0
        self.begun = bytearray()
        self.sending = threading.Lock()
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(unquote(bus.address.removeprefix("unix:path=")))
        self.socket.sendall(b"\0AUTH EXTERNAL " + str(os.geteuid()).encode().hex().encode() + b"\r\n")
        if not self.socket.recv(256).startswith(b"OK "):
            raise AssertionError("the bus does not know this user")
        self.socket.sendall(b"BEGIN\r\n")
        [self.name] = self.ask(BUS, "Hello").values()

    def close(self):
        """As if the program were killed: what it has not said by now it never says."""
        self.socket.close()

    def send(self, kind, fields, signature="", arguments=(), flags=0):
        body = bytearray()
        for each, value in zip(types(signature), arguments, strict=True):
            put(body, each, value)
        return self.send_body(kind, fields, signature, body, flags)

    def send_body(self, kind, fields, signature, body, flags=0):
        """With a body that was put together before. Returns the serial number."""
        letters = {PATH: "o", SIGNATURE: "g", REPLY_SERIAL: "u"}
        if signature:
            fields = {**fields, SIGNATURE: signature}
        with self.sending:
            self.serial += 1
            header = bytearray(struct.pack("<cBBBII", b"l", kind, flags, 1, len(body), self.serial))
            put(header, "a(yv)", [(number, (letters.get(number, "s"), value)) for number, value in fields.items()])
            pad(header, 8)
            self.socket.sendall(header + body)
            return self.serial

    @cached_property
    def client(self):
        return self.bus.client()

    def addressed(self, target, member):
        destination, path, interface = target
        if destination == CLIENT:
            destination = self.client
        return {PATH: path, DESTINATION: destination, INTERFACE: interface, MEMBER: member}

    def call(self, target, member, signature="", *arguments, flags=0):
        return self.send(CALL, self.addressed(target, member), signature, arguments, flags)

    def emit(self, path, interface, member, signature="", *arguments):
        self.send(SIGNAL, {PATH: path, INTERFACE: interface, MEMBER: member}, signature, arguments)

    def read(self):
        """The next message; absent when the bus has ended the connection."""
        while True:
            if len(self.begun) >= 16:
                kind, = struct.unpack_from("<B", self.begun, 1)
                length, serial, fields = struct.unpack_from("<III", self.begun, 4)
                begin = 16 + fields + -fields % 8
                if len(self.begun) >= begin + length:
                    found = dict(Reader(self.begun, 12).take("a(yv)"))
                    message = Message(kind, serial, found, bytes(self.begun[begin:begin + length]))
                    del self.begun[:begin + length]
                    return message
            data = self.socket.recv(1 << 20)
            if not data:
                return None
            self.begun += data

    def wait(self, serial):
        """The answer to the call of that number."""
        while True:
            message = self.read()
            assert message, "the bus has ended the connection"
            if message.fields.get(REPLY_SERIAL) == serial:
                return message

    def ask(self, target, member, signature="", *arguments):
        return self.wait(self.call(target, member, signature, *arguments))

    def own(self, name):
        """1 when it is this program's from now on."""
        return self.ask(BUS, "RequestName", "su", name, REPLACE_AND_QUEUE_NOT).values()[0]


class Peer:
    """A program that owns a name, writes down what it is called for, and leaves it to `behaviour` what to say to it:
    a function of this and the call. Nothing is answered without one."""

    def __init__(self, bus, name, behaviour=None):
        self.connection = Connection(bus)
        self.behaviour = behaviour
        self.calls = []
        self.changed = threading.Condition()
        assert self.connection.own(name) == 1, f"{name} belongs to another"
        self.reader = threading.Thread(target=self.run, daemon=True)
        self.reader.start()

    def run(self):
        try:
            self.connection.socket.settimeout(None)
            while message := self.connection.read():
                if message.kind != CALL:
                    continue
                if self.behaviour:
                    self.behaviour(self, message)
                with self.changed:
                    self.calls.append(message)
                    self.changed.notify_all()
        except OSError:
            pass  # it was killed

    def answer(self, call, signature="", *arguments):
        self.connection.send(ANSWER, {REPLY_SERIAL: call.serial, DESTINATION: call.fields[SENDER]}, signature,
                             arguments)

    def refuse(self, call, error):
        self.connection.send(ERROR, {REPLY_SERIAL: call.serial, DESTINATION: call.fields[SENDER], ERROR_NAME: error})

    def kill(self):
        # The reader would otherwise keep the connection open.
        self.connection.socket.shutdown(socket.SHUT_RDWR)
        if threading.current_thread() is not self.reader:
            self.reader.join()
        self.connection.close()

    def wait(self, member, count=1, seconds=PATIENCE):
        """The first so many calls of that name."""
        deadline = Deadline(seconds)
        with self.changed:
            while len(found := [call for call in self.calls if call.member == member]) < count:
                if not self.changed.wait(deadline.left()):
                    raise AssertionError(f"not {count} {member}, but {[call.member for call in self.calls]}")
        return found


# What a peer may do with a call

def answers(signature="", *arguments):
    return lambda peer, call: peer.answer(call, signature, *arguments)


def refuses(error):
    return lambda peer, call: peer.refuse(call, error)


def dies(peer, call):
    """With the call in its hands."""
    peer.kill()


def answers_and_dies(signature="", *arguments):
    def behave(peer, call):
        peer.answer(call, signature, *arguments)
        peer.kill()
    return behave
