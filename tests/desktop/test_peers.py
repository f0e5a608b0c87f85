"""The services that the client talks to: killed at every moment of a call, hanging, answering rubbish, and back."""

import signal
import time
import unittest

from support import isolation
from desktop.bus import CLIENT, STATUS_ROW, Bus, SystemBus
from desktop.session import CONNECTED, COUNT, RECONNECTING, Session, counted
from desktop.wire import SENDER, Connection, Peer, answers, answers_and_dies, dies, refuses

WATCHER, REGISTER = "org.kde.StatusNotifierWatcher", "RegisterStatusNotifierItem"
DAEMON, ASK = "org.freedesktop.Notifications", "GetCapabilities"
MANAGER, SAVER, POWER, LOGIN = ("org.gnome.SessionManager", "org.freedesktop.ScreenSaver",
                                "org.freedesktop.PowerManagement", "org.freedesktop.login1")
PING = CLIENT, "/", "org.freedesktop.DBus.Peer"
SLEEP = "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "PrepareForSleep"

AWAKE_ROW, TOGGLE_ROW, REPORT_ROW, GUIDE_ROW = 11, 16, 21, 24
HELD, NOT_HELD = "保持喚醒：已開啟", "保持喚醒：已關閉"

INTERVAL = 20.0  # seconds between two looks at the backend
SOON = 8.0  # seconds; far less than the 25 that a call may take on a bus

REPORTING = """
echo "$1 asked" > "$HOME/events"
echo '[OK] Mac service: 好'
"""
GATED = f"""
echo "$1 asked" > "$HOME/events"
[[ $1 != status ]] || read -r < "$HOME/gate"
{COUNT}
echo '[OK] Mac service: 好'
"""

# What one who has the name, and is asked, may do.
FAULTS = {
    "dies with the call": dies,
    "says nothing": None,
    "refuses": refuses("org.example.Error.NotToday"),
    "refuses as if it were the bus": refuses("org.freedesktop.DBus.Error.NoReply"),
    "answers nothing": answers(),
    "answers a negative number": answers("i", -1),
    "answers a text": answers("s", "好" * 9999),
    "answers a heap of types": answers("a{sv}(xtd)ayg", {"a": ("v", ("as", ["b"]))}, (-1, 2, 0.5), b"\xff", "ii"),
    "answers twice": lambda peer, call: [peer.answer(call, "d", 1.0), peer.answer(call, "d", 2.0)],
    "answers and dies": answers_and_dies("x", -1),
}


class Peers(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.stub_backend(REPORTING)
        self.bus = Bus(self.session)

    def serve(self, name, behaviour=None, bus=None):
        peer = Peer(bus or self.bus, name, behaviour)
        self.addCleanup(self.end, peer)
        return peer

    @staticmethod
    def end(peer):
        """One that has not done it itself."""
        if peer.connection.socket.fileno() >= 0:
            peer.kill()

    def start(self):
        self.traffic = self.bus.monitor()
        self.addCleanup(self.traffic.close)
        self.client = self.session.start()
        self.traffic.wait_for_status(CONNECTED)

    def assertAnswersSoon(self):
        begin = time.monotonic()
        caller = Connection(self.bus)
        self.assertIsNone(caller.ask(PING, "Ping").error)
        caller.close()
        self.assertLess(time.monotonic() - begin, SOON)

    def assertQuits(self):
        begin = time.monotonic()
        self.assertEqual(self.client.end(), 0)
        self.assertLess(time.monotonic() - begin, 8.0 + SOON)


class Tray(Peers):
    def test_whatever_becomes_of_it_the_item_is_in_the_next_one(self):
        self.start()
        for fault, behaviour in FAULTS.items():
            with self.subTest(fault):
                tray = self.serve(WATCHER, behaviour)
                tray.wait(REGISTER)
                self.assertAnswersSoon()
                self.end(tray)
                tray = self.serve(WATCHER, answers())
                self.assertEqual(tray.wait(REGISTER)[0].values(), ["/StatusNotifierItem"])
                tray.kill()
        self.assertEqual(self.bus.rows()[STATUS_ROW]["label"], CONNECTED)
        self.assertQuits()

    def test_that_comes_and_goes_all_the_time(self):
        self.start()
        for _ in range(30):
            # Without waiting for the item, so that it goes at any moment of the call.
            self.serve(WATCHER, answers()).kill()
        tray = self.serve(WATCHER, answers())
        tray.wait(REGISTER)
        self.assertAnswersSoon()
        self.assertQuits()

    def test_that_announces_hosts_without_end(self):
        self.start()
        tray = self.serve(WATCHER, answers())
        tray.wait(REGISTER)
        for signature, arguments in (("", ()), ("s", (":1.1",)), ("v", (("i", -1),))):
            for _ in range(1000):
                tray.connection.emit("/StatusNotifierWatcher", WATCHER, "StatusNotifierHostRegistered", signature,
                                     *arguments)
        tray.wait(REGISTER, 2)
        self.assertAnswersSoon()
        self.assertQuits()


class Notifications(Peers):
    def test_whatever_becomes_of_the_daemon_the_next_one_is_told(self):
        self.start()
        for fault, behaviour in FAULTS.items():
            with self.subTest(fault):
                daemon = self.serve(DAEMON, behaviour)
                self.bus.click(GUIDE_ROW)
                daemon.wait(ASK)
                self.assertAnswersSoon()
                self.end(daemon)
                daemon = self.serve(DAEMON, answers("as", ["body"]))
                self.bus.click(GUIDE_ROW)
                daemon.wait("Notify")
                daemon.kill()
        self.assertQuits()

    def test_a_daemon_that_dies_of_each_notification(self):
        self.start()

        def behave(peer, call):
            if call.member == "Notify":
                peer.kill()
            else:
                peer.answer(call, "as", ["body-markup"] * 9999)
        for _ in range(5):
            daemon = self.serve(DAEMON, behave)
            self.bus.click(GUIDE_ROW)
            daemon.wait("Notify")
        self.assertAnswersSoon()
        self.assertQuits()


class KeepingAwake(Peers):
    def setUp(self):
        super().setUp()
        self.system_bus = SystemBus(self.session)
        self.power = self.serve(POWER, answers("u", 7))

    def wait_for_awake(self, label):
        self.traffic.wait_for_label(AWAKE_ROW, label)
        self.assertEqual(self.bus.rows()[AWAKE_ROW]["label"], label)

    def toggle(self, label):
        self.bus.click(TOGGLE_ROW)
        self.wait_for_awake(label)

    def replace(self, name, bus, good):
        """Has each kind of faulty service take part, and a good one follow it."""
        for fault, behaviour in FAULTS.items():
            with self.subTest(fault):
                service = self.serve(name, behaviour, bus)
                # What is held already is handed on, and what is newly taken is asked for at once.
                service.wait("Inhibit")
                self.assertAnswersSoon()
                self.toggle(NOT_HELD)
                self.bus.click(TOGGLE_ROW)
                self.assertAnswersSoon()
                self.end(service)
                service = self.serve(name, good, bus)
                # The next report would come by itself, within 20 seconds.
                self.bus.click(REPORT_ROW)
                service.wait("Inhibit")
                self.wait_for_awake(HELD)
                service.kill()
        self.assertQuits()

    def test_whatever_becomes_of_the_session_manager_the_next_one_is_asked(self):
        self.start()
        self.wait_for_awake(HELD)
        self.replace(MANAGER, self.bus, answers("u", 0))

    def test_whatever_becomes_of_the_screen_saver_the_next_one_is_asked(self):
        self.start()
        self.wait_for_awake(HELD)
        self.replace(SAVER, self.bus, answers("u", 2 ** 32 - 1))

    def test_whatever_the_login_manager_says_the_power_management_goes_on(self):
        self.start()
        self.wait_for_awake(HELD)
        no_descriptor = {"answers a descriptor that is not there": answers("h", 0)}
        for fault, behaviour in {**FAULTS, **no_descriptor}.items():
            with self.subTest(fault):
                login = self.serve(LOGIN, behaviour, self.system_bus)
                login.wait("Inhibit")
                self.assertAnswersSoon()
                self.toggle(NOT_HELD)
                self.bus.click(TOGGLE_ROW)
                self.assertAnswersSoon()
                self.end(login)
                self.bus.click(REPORT_ROW)
                self.wait_for_awake(HELD)
        self.assertQuits()


class Sleeping(Peers):
    def setUp(self):
        super().setUp()
        self.session.stub_backend(GATED)
        self.system_bus = SystemBus(self.session)
        self.login = self.serve(LOGIN, refuses("org.example.Error.NotToday"), self.system_bus)
        self.traffic = self.bus.monitor()
        self.addCleanup(self.traffic.close)
        self.client = self.session.start()
        self.checks = 0

    def asked(self, what):
        self.assertEqual(self.session.events.next(), what)

    def let_on(self):
        """Lets the check end, and waits for its result: until then, none that is asked for begins."""
        self.checks += 1
        self.session.gate.open()
        self.traffic.wait_for_label(*counted(self.checks))

    def sleep_and_resume(self):
        for goes_to_sleep in (True, False):
            self.login.connection.emit(*SLEEP, "b", goes_to_sleep)

    def pass_the_start(self):
        for what in ("status asked", "refresh asked", "status asked"):
            self.asked(what)
            if what == "status asked":
                self.let_on()
        self.traffic.wait_for_status(CONNECTED)

    def assertHeard(self):
        """Each resume has the backend looked at. In the same time, the timer alone would do so once at most."""
        begin = time.monotonic()
        for _ in range(3):
            self.sleep_and_resume()
            self.asked("status asked")
            self.let_on()
        self.assertLess(time.monotonic() - begin, INTERVAL)

    def test_a_resume_during_a_check_leaves_the_check_as_it_is(self):
        self.asked("status asked")
        self.sleep_and_resume()
        self.assertAnswersSoon()
        self.traffic.wait_for_status(RECONNECTING)
        self.let_on()
        self.asked("refresh asked")
        self.sleep_and_resume()
        self.asked("status asked")
        self.let_on()
        self.traffic.wait_for_status(CONNECTED)
        self.assertQuits()

    def test_each_resume_has_the_backend_looked_at_whatever_else_is_said_of_sleep(self):
        self.pass_the_start()
        for signature, arguments in (("", ()), ("s", ("false",)), ("v", (("b", False),)), ("i", (-1,))):
            self.login.connection.emit(*SLEEP, signature, *arguments)
        self.assertHeard()
        self.assertQuits()

    def test_a_login_manager_that_starts_anew_is_heard(self):
        self.pass_the_start()
        self.login.kill()
        self.login = self.serve(LOGIN, answers(), self.system_bus)
        self.assertHeard()
        self.assertQuits()


class OtherInstance(Peers):
    def test_the_successor_of_one_that_is_killed_at_its_end_takes_over(self):
        self.session.program("lsof", 'echo "stopping" > "$HOME/events"; read -r < "$HOME/gate"\n')
        self.start()
        self.session.wait_for_start()
        successor = self.session.terminal(environment={"KESTRUNE_MENU_CLIENT_RELAUNCH": str(self.client.pid)})
        self.session.wait_for_peer()
        self.client.send(signal.SIGTERM)
        self.assertEqual(self.session.events.next(), "stopping")
        self.assertEqual(self.client.end(signal.SIGKILL), -signal.SIGKILL)
        self.session.gate.open()
        self.assertEqual(successor.checked().status, CONNECTED)
        # Its own stop would wait at the gate.
        self.assertEqual(successor.end(signal.SIGKILL), -signal.SIGKILL)

    def test_a_bus_that_tells_it_of_no_signals_is_not_left(self):
        # One that refuses whatever it is asked for.
        self.bus.stop()
        self.bus = Bus(Session(self), '<limit name="max_match_rules_per_connection">0</limit>')
        self.bus.session.prefer('{"autoConnectEnabled": false}')
        tray = self.serve(WATCHER, answers())
        self.client = self.bus.session.start()
        [registration] = tray.wait(REGISTER)
        caller = Connection(self.bus)
        self.addCleanup(caller.close)
        for _ in range(1000):
            self.assertIsNone(caller.ask((registration.fields[SENDER], *PING[1:]), "Ping").error)
        self.assertEqual(len(tray.wait(REGISTER)), 1)
        self.assertQuits()

    def test_the_bus_may_go_and_come_at_any_moment(self):
        self.start()
        for _ in range(10):
            self.bus.stop()
            self.bus.start()
        self.bus.wait_for_owner(CLIENT)
        self.assertEqual(self.bus.rows()[STATUS_ROW]["label"], CONNECTED)
        self.assertQuits()


if __name__ == "__main__":
    isolation.main()
