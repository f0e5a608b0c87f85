"""D-Bus connections of a test, each on its own socket. So a test can stop reading, end a connection during a call, or
send what no library would send. Gio packs and unpacks the messages."""

import os
import socket
import threading
from functools import partial
from urllib.parse import unquote

from gi.repository import Gio, GLib

from rig.waiting import PATIENCE, Deadline

NAME, PATH = "org.freedesktop.DBus", "/org/freedesktop/DBus"
DAEMON = NAME, PATH, NAME
REPLACE_AND_QUEUE_NOT = 2 | 4
HEADER = 16  # bytes at the start of a message, which tell its length

CALL, SIGNAL = Gio.DBusMessageType.METHOD_CALL, Gio.DBusMessageType.SIGNAL


def pack(signature, arguments):
    """Returns the body of a message, or None if it has no arguments. If `signature` is a Variant, it is the whole
    body; this is faster for large bodies."""
    if isinstance(signature, GLib.Variant):
        return signature
    return GLib.Variant(f"({signature})", arguments) if signature else None


def values(message):
    return list(message.get_body().unpack()) if message.get_body() else []


class Refused(Exception):
    """Raised when a call was answered with an error."""


class Connection:
    """A connection that reads only when the test tells it to read."""

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
        [self.name] = self.ask(DAEMON, "Hello")

    def close(self):
        """Closes the socket, as if the program were killed."""
        self.socket.close()

    def send(self, message):
        """Sends the message, and returns its serial number."""
        with self.sending:
            self.serial += 1
            message.set_serial(self.serial)
            self.socket.sendall(message.to_blob(Gio.DBusCapabilityFlags.NONE))
            return self.serial

    def message(self, target, member, signature="", *arguments, answered=True):
        """Makes a call. `answered`: the caller wants an answer."""
        message = Gio.DBusMessage.new_method_call(target[0], target[1], target[2], member)
        if not answered:
            message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
        if body := pack(signature, arguments):
            message.set_body(body)
        return message

    def emit(self, path, interface, member, signature="", *arguments):
        message = Gio.DBusMessage.new_signal(path, interface, member)
        if body := pack(signature, arguments):
            message.set_body(body)
        self.send(message)

    def read(self):
        """Reads and returns the next message. Returns None when the bus has closed the connection."""
        while True:
            if len(self.begun) >= HEADER:
                length = Gio.DBusMessage.bytes_needed(bytes(self.begun[:HEADER]))
                if len(self.begun) >= length:
                    data = bytes(self.begun[:length])
                    del self.begun[:length]
                    return Gio.DBusMessage.new_from_blob(data, Gio.DBusCapabilityFlags.NONE)
            data = self.socket.recv(1 << 20)
            if not data:
                return None
            self.begun += data

    def answer_to(self, serial):
        while True:
            message = self.read()
            assert message, "the bus has closed the connection"
            if message.get_reply_serial() == serial:
                return message

    def ask(self, target, member, signature="", *arguments):
        """Calls a method, and returns the values of the answer in a list. Raises Refused at an error."""
        answer = self.answer_to(self.send(self.message(target, member, signature, *arguments)))
        if error := answer.get_error_name():
            raise Refused(f"{error}: {values(answer)}")
        return values(answer)


class Listener:
    """Reads all messages in a thread. Collects what `keep(message)` returns, except None."""

    def __init__(self, connection):
        self.connection = connection
        self.kept = []
        self.changed = threading.Condition()
        self.connection.socket.settimeout(None)
        self.reader = threading.Thread(target=self.run, daemon=True)
        self.reader.start()

    def run(self):
        try:
            while message := self.connection.read():
                if (kept := self.keep(message)) is not None:
                    with self.changed:
                        self.kept.append(kept)
                        self.changed.notify_all()
        except OSError:
            pass  # kill() has closed the socket

    def wait(self, find, what, seconds=PATIENCE):
        """Waits until `find()` is true, and returns its value. Calls `find` again after each collected message."""
        deadline = Deadline(seconds)
        with self.changed:
            while not (found := find()):
                if not self.changed.wait(deadline.left()):
                    raise AssertionError(f"no such {what} within {seconds:g} s, but {self.kept}")
        return found

    def kill(self):
        """Ends the thread and the connection. Further calls do nothing."""
        if self.connection.socket.fileno() < 0:
            return
        # Without shutdown(), the reading thread would stay blocked and keep the connection open.
        self.connection.socket.shutdown(socket.SHUT_RDWR)
        self.reader.join()
        self.connection.close()


class Peer(Listener):
    """Owns a bus name, records the calls, and answers them by `behaviour(peer, call)`. A peer without a behaviour never
    answers."""

    def __init__(self, bus, name, behaviour=None):
        connection = Connection(bus)
        self.behaviour = behaviour
        assert connection.ask(DAEMON, "RequestName", "su", name, REPLACE_AND_QUEUE_NOT) == [1], f"{name} has an owner"
        super().__init__(connection)
        bus.session.callback(self.kill)

    def keep(self, message):
        if message.get_message_type() != CALL:
            return None
        if self.behaviour:
            self.behaviour(self, message)
        return message.get_member(), values(message), message.get_sender()

    def calls(self, member):
        return [call for call in self.kept if call[0] == member]

    def wait_for(self, member, count=1):
        """Waits for `count` calls of this method, and returns the arguments of all its calls."""
        self.wait(lambda: len(self.calls(member)) >= count, f"{count} {member}")
        return [arguments for _, arguments, _ in self.calls(member)]


# Behaviours of a Peer

def answer(signature, arguments, peer, call):
    reply = Gio.DBusMessage.new_method_reply(call)
    if body := pack(signature, arguments):
        reply.set_body(body)
    peer.connection.send(reply)


def answers(signature="", *arguments):
    return partial(answer, signature, arguments)


def refuses(error):
    return lambda peer, call: peer.connection.send(Gio.DBusMessage.new_method_error_literal(call, error, "no"))
