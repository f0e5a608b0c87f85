"""D-Bus daemons for a test, and a monitor that records their messages."""

import signal
import subprocess
from contextlib import suppress
from urllib.parse import quote

from gi.repository import GLib

from rig.processes import end_process, read_process
from rig.waiting import Text, own
from rig.wire import DAEMON, NAME, PATH, Connection, Listener, Refused, values

# The configuration of a bus daemon that does not read the service files of the machine.
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

PROPERTIES = "org.freedesktop.DBus.Properties"
CLIENT = "the client"  # stands for the unique name of the client's connection; the client owns no other name
ITEM = CLIENT, "/StatusNotifierItem", "org.kde.StatusNotifierItem"
MENU = CLIENT, "/MenuBar", "com.canonical.dbusmenu"

STATUS_ROW, NETWORK_ROW = 2, 10


class Bus:
    """The session bus. Its address is put into the environment of the session."""

    variable = "DBUS_SESSION_BUS_ADDRESS"

    def __init__(self, session, limits=""):
        self.session = session
        folder = session.root / self.variable
        self.services = folder / "services"  # service files
        self.services.mkdir(parents=True)
        self.address = "unix:path=" + quote(str(folder / "bus"))
        self.configuration = folder / "bus.conf"
        self.configuration.write_text(CONFIGURATION.format(address=self.address, services=self.services,
                                                           limits=limits))
        session.environment[self.variable] = self.address
        session.callback(lambda: self.connection.close())
        self.start()

    def start(self):
        self.daemon = self.session.spawn("dbus-daemon", f"--config-file={self.configuration}", "--nofork",
                                         "--print-address=1", stdout=subprocess.PIPE)
        address = Text(own(self.daemon.stdout))
        address.line()
        address.close()
        self.found = None
        self.connection = Connection(self)

    def stop(self):
        self.connection.close()
        end_process(self.daemon.pid)

    def freeze(self):
        self.daemon.send_signal(signal.SIGSTOP)

    def thaw(self):
        self.daemon.send_signal(signal.SIGCONT)

    def target(self, target):
        return (self.client(), *target[1:]) if target[0] == CLIENT else target

    def call(self, target, method, signature="", *arguments):
        """Calls a method and returns the values of the answer, in a list."""
        return self.connection.ask(self.target(target), method, signature, *arguments)

    def get(self, target, name):
        return self.call((*target[:2], PROPERTIES), "Get", "ss", target[2], name)[0]

    def pid(self, name=CLIENT):
        return self.call(DAEMON, "GetConnectionUnixProcessID", "s", self.client() if name == CLIENT else name)[0]

    def monitor(self):
        return Monitor(self)

    # --- the client on this bus

    def rows(self):
        """Returns the rows of the exported menu in order, as a dictionary from id to properties."""
        _, (_, _, children) = self.call(MENU, "GetLayout", "iias", 0, -1, [])
        return {number: properties for number, properties, _ in children}

    def click(self, row):
        self.call(MENU, "Event", "isvu", row, "clicked", GLib.Variant("i", 0), 0)

    def client(self):
        """Returns the unique name of the client's connection. Raises Refused if there is none."""
        if not (self.found and self.has_owner(self.found)):
            self.found = next(filter(self.is_client, self.call(DAEMON, "ListNames")[0]), None)
        if not self.found:
            raise Refused("the client is not on the bus")
        return self.found

    def is_client(self, name):
        with suppress(Refused):
            return read_process(self.pid(name), "comm") == b"KestruneMenuCli\n"
        return False

    def has_owner(self, name):
        return self.call(DAEMON, "NameHasOwner", "s", name)[0]

    def wait_for_client(self, besides=None):
        """Waits until a client is on the bus, and returns its unique name. Ignores the client named `besides`."""
        def found():
            with suppress(Refused):
                return self.client() if self.client() != besides else None
            return None
        return self.wait_for_change(found)

    def wait_for_owner(self, name):
        self.wait_for_change(lambda: self.has_owner(name))

    def wait_for_change(self, condition):
        """Waits until the condition is true, and returns its value. Checks it after each NameOwnerChanged."""
        # Start to listen before the first check, so that no signal is missed.
        with self.monitor() as traffic:
            changes = 0
            while not (found := condition()):
                changes += 1
                traffic.wait_for("NameOwnerChanged", count=changes)
        return found


class SystemBus(Bus):
    variable = "DBUS_SYSTEM_BUS_ADDRESS"


class Monitor(Listener):
    """Records all messages that are sent over the bus from now on."""

    def __init__(self, bus):
        connection = Connection(bus)
        connection.ask((NAME, PATH, "org.freedesktop.DBus.Monitoring"), "BecomeMonitor", "asu", [], 0)
        super().__init__(connection)
        bus.session.callback(self.kill)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()

    def keep(self, message):
        return (message.get_member(), values(message)) if message.get_member() else None

    def said(self, member, condition=lambda data: True):
        """Returns the arguments of each recorded call or signal with this name."""
        return [data for name, data in list(self.kept) if name == member and condition(data)]

    def wait_for(self, member, condition=lambda data: True, count=1):
        """Waits for message number `count` (from 1) with this name, and returns its arguments. Messages that
        arrived before this call count, too."""
        return self.wait(lambda: self.said(member, condition)[count - 1:], f"{count} {member}")[0]

    def labels(self, number):
        """Returns the labels that the changes of a row of the menu have set, in order."""
        return [properties["label"] for updated, _ in self.said("ItemsPropertiesUpdated")
                for row, properties in updated if row == number and "label" in properties]

    def wait_for_label(self, number, label):
        """Waits until the row has this label."""
        self.wait(lambda: self.labels(number)[-1:] == [label], f"row {number} with {label}")

    def wait_for_status(self, status):
        """Waits until row 2 has this label and the network is known. After that, the start of the client
        does not change the label again."""
        self.wait(lambda: self.labels(STATUS_ROW)[-1:] == [status] and self.labels(NETWORK_ROW), status)
