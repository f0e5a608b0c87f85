"""Buses of the test's own, and what is said on them."""

import json
import signal
import subprocess
import threading
from contextlib import suppress
from urllib.parse import quote

from desktop.session import PATIENCE, Deadline, Text, end_process, own, read_process

# Without the machine's services: they would bring in what no test asked for.
CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>{address}</listen>
  <auth>EXTERNAL</auth>
  <servicedir>{services}</servicedir>
  {limits}
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""

DAEMON = "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"
CLIENT = "the client"  # stands for the unique name of its connection: it has no other
NOBODY = "org.example.Nobody"
ITEM = CLIENT, "/StatusNotifierItem", "org.kde.StatusNotifierItem"
MENU = CLIENT, "/MenuBar", "com.canonical.dbusmenu"


STATUS_ROW, NETWORK_ROW = 2, 10


class Refused(Exception):
    """The other side answered with an error."""


class Bus:
    """The session bus."""

    kind, variable = "user", "DBUS_SESSION_BUS_ADDRESS"

    def __init__(self, session, limits=""):
        self.session = session
        folder = session.root / f"{self.kind} bus"
        self.services = folder / "services"  # programs that the bus may start
        self.services.mkdir(parents=True)
        self.address = "unix:path=" + quote(str(folder / "bus"))
        self.configuration = folder / "bus.conf"
        self.configuration.write_text(CONFIGURATION.format(address=self.address, services=self.services,
                                                              limits=limits))
        session.environment[self.variable] = self.address
        self.start()

    def start(self):
        self.found = NOBODY
        self.daemon = self.session.spawn("dbus-daemon", f"--config-file={self.configuration}", "--nofork",
                                         "--print-address=1", stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        address = Text(own(self.daemon.stdout))
        address.wait(lambda text: "\n" in text, "address of the bus")
        address.close()

    def stop(self):
        end_process(self.daemon.pid)

    def freeze(self):
        self.daemon.send_signal(signal.SIGSTOP)

    def thaw(self):
        self.daemon.send_signal(signal.SIGCONT)

    def busctl(self, *arguments):
        arguments = [self.client() if each == CLIENT else each for each in arguments]
        done = subprocess.run(["busctl", f"--{self.kind}", "--json=short", *arguments], env=self.session.environment,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, encoding="utf-8",
                              timeout=PATIENCE)
        if done.returncode != 0:
            raise Refused(done.stderr)
        return json.loads(done.stdout) if done.stdout else None

    def call(self, target, method, signature="", *arguments):
        """The values of the answer, in a list."""
        answer = self.busctl("call", "--", *target, method, signature, *map(str, arguments))
        return answer["data"] if answer else []

    def get(self, target, name):
        return self.busctl("get-property", *target, name)["data"]

    def monitor(self):
        return Monitor(self)

    def rows(self):
        """The rows of the exported menu, from identity to properties, in order."""
        _, (_, _, children) = self.call(MENU, "GetLayout", "iias", 0, -1, 0)
        return {child["data"][0]: plain(child["data"][1]) for child in children}

    def click(self, row):
        self.call(MENU, "Event", "isvu", row, "clicked", "i", 0, 0)

    def client(self):
        """The unique name of the client's connection."""
        if not self.has_owner(self.found):
            self.found = next(filter(self.is_client, self.call(DAEMON, "ListNames")[0]), NOBODY)
        if self.found == NOBODY:
            raise Refused("the client is not on the bus")
        return self.found

    def is_client(self, name):
        with suppress(Refused):
            [pid] = self.call(DAEMON, "GetConnectionUnixProcessID", "s", name)
            return read_process(pid, "comm") == b"KestruneMenuCli\n"
        return False

    def wait_for_client(self, besides=None):
        """The same, as soon as it is there and is another one than that."""
        deadline = Deadline()
        while deadline.left():
            with suppress(Refused):
                if (name := self.client()) != besides:
                    return name
        raise AssertionError("the client does not come to the bus")

    def has_owner(self, name):
        return self.call(DAEMON, "NameHasOwner", "s", name)[0]

    def wait_for_owner(self, name):
        if name == CLIENT:
            return self.wait_for_client()
        # Listened to before it is asked, so that the moment in between cannot be missed.
        traffic = self.monitor()
        if not self.has_owner(name):
            traffic.wait("NameOwnerChanged", lambda data: data[0] == name and data[2] != "")
        traffic.close()


class SystemBus(Bus):
    kind, variable = "system", "DBUS_SYSTEM_BUS_ADDRESS"


def plain(properties):
    """A dictionary of variants without their types."""
    return {name: value["data"] for name, value in properties.items()}


class Monitor:
    """Everything that is said on the bus from now on."""

    def labels(self, number):
        """What a row of the menu has changed to, one after the other."""
        return [properties["label"]["data"] for updated, _ in self.said("ItemsPropertiesUpdated")
                for row, properties in updated if row == number and "label" in properties]

    def wait_for_label(self, number, label):
        """Waits until that row says so."""
        self.wait("ItemsPropertiesUpdated", lambda _: self.labels(number)[-1:] == [label])

    def wait_for_status(self, status):
        """Waits until the menu says so, and the network is known: what follows a start does not change it again."""
        self.wait("ItemsPropertiesUpdated",
                  lambda _: self.labels(STATUS_ROW)[-1:] == [status] and self.labels(NETWORK_ROW))

    def __init__(self, bus):
        self.messages = []
        self.changed = threading.Condition()
        self.process = bus.session.spawn("busctl", f"--{bus.kind}", "--json=short", "monitor",
                                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()
        # Not every version says when it has begun, and so it has to have heard something.
        begin = f"org.example.monitor{self.process.pid}"
        deadline = Deadline()
        while not self.said("NameHasOwner", lambda data: data == [begin]):
            if deadline.left() == 0:
                raise AssertionError("the monitor hears nothing")
            bus.has_owner(begin)

    def read(self):
        for line in self.process.stdout:
            if not line.endswith(b"\n"):
                return  # it was ended amid a message
            with self.changed:
                self.messages.append(json.loads(line))
                self.changed.notify_all()

    def said(self, member, condition=lambda data: True):
        """The contents of all calls and signals of that name."""
        with self.changed:
            return [message["payload"]["data"] for message in self.messages
                    if message.get("member") == member and condition(message["payload"]["data"])]

    def wait(self, member, condition=lambda data: True, seconds=PATIENCE):
        """The content of the first of them, which may have been said already."""
        deadline = Deadline(seconds)
        with self.changed:
            while not (found := self.said(member, condition)):
                if not self.changed.wait(deadline.left()):
                    heard = [message.get("member") for message in self.messages]
                    raise AssertionError(f"no such {member} within {seconds:g} s, but {heard}")
        return found[0]

    def close(self):
        end_process(self.process.pid)
        self.reader.join()
        self.process.stdout.close()
