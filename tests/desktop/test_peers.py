"""The services that the client talks to: killed amid a call, hanging, answering rubbish, and back."""

import time
import unittest
from functools import partial

from gi.repository import GLib

from rig import isolation
from rig.bus import CLIENT, Bus, SystemBus
from rig.client import CONNECTED
from rig.session import COUNTING_BACKEND, REPORTING_BACKEND, Session
from rig.wire import Peer, answers, dies, does, refuses

WATCHER, REGISTER = "org.kde.StatusNotifierWatcher", "RegisterStatusNotifierItem"
DAEMON, ASK = "org.freedesktop.Notifications", "GetCapabilities"
SAVER, POWER, LOGIN = "org.freedesktop.ScreenSaver", "org.freedesktop.PowerManagement", "org.freedesktop.login1"
PING = CLIENT, "/", "org.freedesktop.DBus.Peer"
SLEEP = "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "PrepareForSleep"

AWAKE_ROW, TOGGLE_ROW, REPORT_ROW, GUIDE_ROW = 11, 16, 21, 24
HELD, NOT_HELD = "保持喚醒：已開啟", "保持喚醒：已關閉"

SOON = 8.0  # seconds; far less than the 25 that a call may take on a bus
STOP_LIMIT = 8.0

# What one who has the name, and is asked, may do.
FAULTS = {
    "dies with the call": dies,
    "says nothing": None,
    "refuses": refuses("org.example.Error.NotToday"),
    "refuses as if it were the bus": refuses("org.freedesktop.DBus.Error.NoReply"),
    "answers nothing": answers(),
    "answers a negative number": answers("i", -1),
    "answers a text": answers("s", "好" * 9999),
    "answers a heap of types": answers("a{sv}(xtd)ayg", {"a": GLib.Variant("as", ["b"])}, (-1, 2, 0.5), b"\xff", "ii"),
    "answers a descriptor that is not there": answers("h", 0),
    "answers twice": does(answers("d", 1.0), answers("d", 2.0)),
    "answers and dies": does(answers("x", -1), dies),
}


class Peers(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.stub_backend(REPORTING_BACKEND)
        self.bus = Bus(self.session)
        self.traffic = self.bus.monitor()

    def start(self):
        self.client = self.session.start()
        self.traffic.wait_for_status(CONNECTED)

    def assertAnswersSoon(self):
        begin = time.monotonic()
        self.bus.call(PING, "Ping")
        self.assertLess(time.monotonic() - begin, SOON)

    def assertQuits(self):
        begin = time.monotonic()
        self.assertEqual(self.client.end(), 0)
        self.assertLess(time.monotonic() - begin, STOP_LIMIT + SOON)

    def replace(self, serve, wait, good, check):
        """Has each kind of faulty service take part, and a good one follow it, if there is any."""
        for fault, behaviour in FAULTS.items():
            with self.subTest(fault):
                service = serve(behaviour)
                wait(service)
                self.assertAnswersSoon()
                service.kill()
                service = serve(good) if good else None
                check(service)
                if service:
                    service.kill()
        self.assertQuits()


class OnTheBus(Peers):
    def test_whatever_becomes_of_a_tray_the_item_is_in_the_next_one(self):
        self.start()
        self.replace(partial(Peer, self.bus, WATCHER), lambda tray: tray.wait_for(REGISTER), answers(),
                     lambda tray: self.assertEqual(tray.wait_for(REGISTER)[0], ["/StatusNotifierItem"]))

    def test_whatever_becomes_of_the_notification_daemon_the_next_one_is_told(self):
        def ask(daemon):
            self.bus.click(GUIDE_ROW)
            daemon.wait_for(ASK)

        def tell(daemon):
            self.bus.click(GUIDE_ROW)
            daemon.wait_for("Notify")
        self.start()
        self.replace(partial(Peer, self.bus, DAEMON), ask, answers("as", ["body"]), tell)


class KeepingAwake(Peers):
    def setUp(self):
        super().setUp()
        self.system_bus = SystemBus(self.session)
        self.power = Peer(self.bus, POWER, answers("u", 7))

    def wait_for_awake(self, label):
        self.traffic.wait_for_label(AWAKE_ROW, label)
        self.assertEqual(self.bus.rows()[AWAKE_ROW]["label"], label)

    def let_go_and_take(self, service):
        # What is held already is handed on, and what is newly taken is asked for at once.
        service.wait_for("Inhibit")
        self.assertAnswersSoon()
        self.bus.click(TOGGLE_ROW)
        self.wait_for_awake(NOT_HELD)
        self.bus.click(TOGGLE_ROW)

    def look(self, service):
        # The next report would come by itself, within 20 seconds.
        self.bus.click(REPORT_ROW)
        if service:
            service.wait_for("Inhibit")
        self.wait_for_awake(HELD)

    def test_whatever_becomes_of_the_screen_saver_the_next_one_is_asked(self):
        self.start()
        self.wait_for_awake(HELD)
        self.replace(partial(Peer, self.bus, SAVER), self.let_go_and_take, answers("u", 2 ** 32 - 1), self.look)

    def test_whatever_the_login_manager_says_the_power_management_goes_on(self):
        self.start()
        self.wait_for_awake(HELD)
        self.replace(partial(Peer, self.system_bus, LOGIN), self.let_go_and_take, None, self.look)


class Sleeping(Peers):
    def test_each_resume_has_the_backend_looked_at_whatever_else_is_said_of_sleep(self):
        self.session.stub_backend(COUNTING_BACKEND)
        system_bus = SystemBus(self.session)
        self.start()
        self.session.wait_for_start()
        for login in (Peer(system_bus, LOGIN, refuses("org.example.Error.NotToday")), None):
            login = login or Peer(system_bus, LOGIN, answers())
            for signature, arguments in (("", ()), ("s", ("false",)), ("v", (GLib.Variant("b", False),)), ("i", (-1,))):
                login.connection.emit(*SLEEP, signature, *arguments)
            for goes_to_sleep in (True, False):
                login.connection.emit(*SLEEP, "b", goes_to_sleep)
            self.assertEqual(self.session.events.next(), "status asked")
            login.kill()
        # Nothing but this has been asked for; the timer would have done so after 20 seconds.
        self.assertLess(self.client.age(), 20.0)
        self.assertQuits()


if __name__ == "__main__":
    isolation.main()
