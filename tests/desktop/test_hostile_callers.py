"""Other programs of the session that call the client with what makes no sense, is far too much, or is not for them."""

import signal
import time
import unittest

from support import isolation
from desktop.bus import CLIENT, ITEM, MENU, Bus
from desktop.session import PATIENCE, Session, read_process
from desktop.wire import CALL, NO_REPLY, Connection, Peer, answers, put, types

PROPERTIES, PEER, INTROSPECTABLE = (f"org.freedesktop.DBus.{name}" for name in
                                    ("Properties", "Peer", "Introspectable"))

INVALID = "org.freedesktop.DBus.Error.InvalidArgs"
LARGEST, SMALLEST = 2 ** 31 - 1, -2 ** 31
NUMBERS = (0, 1, -1, 30, 77, LARGEST, SMALLEST)
GUIDE_ROW = 24

METHODS = {
    MENU: {"GetLayout": "iias", "GetGroupProperties": "aias", "GetProperty": "is", "Event": "isvu",
           "EventGroup": "a(isvu)", "AboutToShow": "i", "AboutToShowGroup": "ai"},
    ITEM: {"Activate": "ii", "SecondaryActivate": "ii", "ContextMenu": "ii", "Scroll": "is",
           "ProvideXdgActivationToken": "s"},
}
# One value of each of many types, none of which any method takes.
WRONG = [("", ()), ("y", (255,)), ("x", (-2 ** 63,)), ("d", (float("nan"),)), ("ss", ("clicked", "29")),
         ("v", (("i", 29),)), ("a{sv}i", ({}, 29)), ("u", (29,)), ("isvui", (29, "clicked", ("i", 0), 0, 0)),
         ("si", ("clicked", 29)), ("a(iss)", ([(29, "clicked", "")],)), ("as", (["29"],)), ("ay", (b"\xff" * 99,)),
         ("g", ("isvu",)), ("o", ("/MenuBar",))]

# Bytes. What one giant took may stay with the client for the next, but no more than that.
GIANT = 16 << 20
PEAK = 256 << 20
LEFT_OF_GIANTS = 40 << 20
LEFT_OF_A_FLOOD = 16 << 20
SOON = 5.0  # seconds, until somebody else is answered


class Hostile(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        # Switched off, it runs no command of its own accord: each that runs was asked for.
        self.session.prefer('{"autoConnectEnabled": false}')
        self.session.stub_backend('echo "$1 asked" > "$HOME/events"\n')
        self.bus = Bus(self.session)
        self.daemon = Peer(self.bus, "org.freedesktop.Notifications", answers("as", []))
        self.addCleanup(self.daemon.kill)
        self.client = self.session.start()
        # The last of what follows a start.
        self.daemon.wait("Notify")
        self.rows = self.bus.rows()
        self.enabled = [number for number, row in self.rows.items() if row.get("enabled")]
        self.caller = self.connect()
        self.children = self.of_client()

    def connect(self):
        connection = Connection(self.bus)
        self.addCleanup(connection.close)
        return connection

    def of_client(self):
        """The client and all that it has started."""
        return {pid for pid in self.session.processes() if b"dbus-daemon" not in read_process(pid, "cmdline")}

    def memory(self, name):
        """Bytes of the client, as the kernel counts them."""
        for line in read_process(self.client.pid, "status").decode().splitlines():
            if line.startswith(name):
                return int(line.split()[1]) << 10
        raise AssertionError("the client is gone")

    def assertAnswersSoon(self):
        """Somebody else than the caller is served."""
        begin = time.monotonic()
        self.assertIsNone(self.connect().ask((CLIENT, "/", PEER), "Ping").error)
        self.assertLess(time.monotonic() - begin, SOON)

    def assertNothingHappened(self):
        self.assertAnswersSoon()
        self.assertEqual(self.bus.rows(), self.rows)
        self.assertEqual(self.session.events.pending(), [])
        self.assertEqual(self.of_client(), self.children)
        self.assertEqual(len(self.daemon.wait("Notify")), 1)

    def assertStillWorks(self):
        """A row that is chosen does what it says, and the last one quits."""
        self.bus.click(GUIDE_ROW)
        self.daemon.wait("Notify", 2)
        self.bus.click(29)
        self.assertEqual(self.client.status(), 0)


class Callers(Hostile):
    def test_wrong_types_are_refused(self):
        for target, methods in METHODS.items():
            for method, right in methods.items():
                for signature, arguments in WRONG:
                    if signature == right:
                        continue
                    with self.subTest(method=method, signature=signature):
                        self.assertEqual(self.caller.ask(target, method, signature, *arguments).error, INVALID)
        self.assertNothingHappened()
        self.assertStillWorks()

    def test_numbers_and_names_that_mean_nothing(self):
        for number in NUMBERS:
            for other in NUMBERS:
                self.caller.ask(MENU, "GetLayout", "iias", number, other, ["label", "", "\U0010ffff" * 99])
                self.caller.ask(MENU, "GetGroupProperties", "aias", [number, other] * 9, ["", "type"])
                self.caller.ask(MENU, "AboutToShowGroup", "ai", [number, other])
                for method in ("SecondaryActivate", "ContextMenu"):
                    self.assertIsNone(self.caller.ask(ITEM, method, "ii", number, other).error)
            self.assertEqual(self.caller.ask(MENU, "GetProperty", "is", number, "exec").error, INVALID)
            self.caller.ask(MENU, "AboutToShow", "i", number)
            self.assertIsNone(self.caller.ask(ITEM, "Scroll", "is", number, "sideways").error)
        self.assertNothingHappened()
        self.assertStillWorks()

    def test_only_a_click_on_an_enabled_row_does_anything(self):
        data = [("i", 0), ("s", "clicked"), ("v", ("v", ("u", 9))), ("a{sv}", {"clicked": ("b", True)}), ("ay", b"x")]
        others = [number for number in (*range(-2, 40), LARGEST, SMALLEST) if number not in self.enabled]
        self.assertIn(12, others)  # a separator
        for value in data:
            for row in others:
                self.caller.ask(MENU, "Event", "isvu", row, "clicked", value, 0)
            self.caller.ask(MENU, "EventGroup", "a(isvu)", [(row, "clicked", value, 0) for row in others])
            for row in self.enabled:
                for event in ("", "Clicked", "clicked ", "opened", "closed", "hovered", "activate"):
                    self.assertIsNone(self.caller.ask(MENU, "Event", "isvu", row, event, value, 0).error)
        self.assertNothingHappened()
        self.assertStillWorks()

    def test_properties_are_read_only_and_unknown_ones_are_refused(self):
        for target in (MENU, ITEM):
            place = *target[:2], PROPERTIES
            for name, value in self.bus.call(place, "GetAll", "s", target[2])[0].items():
                answer = self.caller.ask(place, "Set", "ssv", target[2], name, ("s", "changed"))
                self.assertIsNotNone(answer.error)
                self.assertEqual(self.bus.get(target, name), value["data"])
            for name in ("", "Exec", "x" * 9999):
                self.assertIsNotNone(self.caller.ask(place, "Get", "ss", target[2], name).error)
            self.assertIsNotNone(self.caller.ask(place, "Get", "ss", "org.example", "Menu").error)
            self.assertIsNone(self.caller.ask((*target[:2], INTROSPECTABLE), "Introspect").error)
        self.assertNothingHappened()
        self.assertStillWorks()

    def test_other_ways_to_start_something_do_not_exist(self):
        application = CLIENT, "/com/dovrel/kestrune/menuclient", "org.freedesktop.Application"
        for member, signature, arguments in (("Activate", "a{sv}", ({},)), ("Open", "asa{sv}", (["file:///bin/sh"], {})),
                                             ("ActivateAction", "sava{sv}", ("quit", [], {}))):
            self.assertIsNotNone(self.caller.ask(application, member, signature, *arguments).error)
        self.assertIsNotNone(self.caller.ask((CLIENT, "/", "org.gtk.Actions"), "Activate", "sava{sv}", "quit", [],
                                             {}).error)
        for path in ("/", "/MenuBar/1", "/StatusNotifierItem/menu"):
            self.assertIsNotNone(self.caller.ask((CLIENT, path, MENU[2]), "Event", "isvu", 29, "clicked",
                                                 ("i", 0), 0).error)
        self.assertNothingHappened()
        self.assertStillWorks()


class Floods(Hostile):
    COUNT = 5000

    def flood(self, caller, target, member, signature="", *arguments, flags=0):
        """The same call so many times, as fast as the bus takes it."""
        body = bytearray()
        for kind, value in zip(types(signature), arguments, strict=True):
            put(body, kind, value)
        for _ in range(self.COUNT):
            last = caller.send_body(CALL, caller.addressed(target, member), signature, body, flags)
        return last

    def test_thousands_of_calls_whose_caller_reads_no_answer(self):
        before = self.memory("VmRSS")
        deaf = self.connect()
        self.flood(deaf, MENU, "AboutToShow", "i", 0)
        self.flood(deaf, MENU, "Event", "isvu", 12, "clicked", ("i", 0), 0)
        self.flood(deaf, ITEM, "Scroll", "is", LARGEST, "vertical")
        self.assertAnswersSoon()
        deaf.close()
        self.assertNothingHappened()
        self.assertLess(self.memory("VmRSS") - before, LEFT_OF_A_FLOOD)
        self.assertStillWorks()

    def test_thousands_of_calls_that_want_no_answer(self):
        before = self.memory("VmRSS")
        for member, signature, arguments in (("GetProperty", "is", (1, "label")),
                                             ("Event", "isvu", (1, "clicked", ("i", 0), 0))):
            self.flood(self.caller, MENU, member, signature, *arguments, flags=NO_REPLY)
        self.assertAnswersSoon()
        self.assertNothingHappened()
        self.assertLess(self.memory("VmRSS") - before, LEFT_OF_A_FLOOD)
        self.assertStillWorks()

    def test_the_whole_menu_asked_for_thousands_of_times(self):
        before = self.memory("VmRSS")
        last = self.flood(self.caller, MENU, "GetLayout", "iias", 0, -1, [])
        self.assertAnswersSoon()
        self.caller.wait(last)
        self.assertNothingHappened()
        self.assertLess(self.memory("VmRSS") - before, LEFT_OF_A_FLOOD)
        self.assertStillWorks()

    def test_one_click_among_thousands_of_calls_is_done_once(self):
        self.flood(self.caller, MENU, "Event", "isvu", 12, "clicked", ("i", 0), 0, flags=NO_REPLY)
        self.caller.call(MENU, "Event", "isvu", GUIDE_ROW, "clicked", ("i", 0), 0)
        self.flood(self.caller, MENU, "Event", "isvu", 28, "clicked", ("i", 0), 0, flags=NO_REPLY)
        self.assertAnswersSoon()
        self.assertEqual(len(self.daemon.wait("Notify", 2)), 2)
        self.assertEqual(self.session.events.pending(), [])
        self.bus.click(29)
        self.assertEqual(self.client.status(), 0)


class Giants(Hostile):
    def assertBounded(self, before):
        self.assertNothingHappened()
        self.assertLess(self.memory("VmHWM"), PEAK)
        self.assertLess(self.memory("VmRSS") - before, LEFT_OF_GIANTS)
        self.assertStillWorks()

    def test_giant_texts(self):
        before = self.memory("VmRSS")
        text = "好" * (GIANT // 3)
        self.assertIsNone(self.caller.ask(MENU, "Event", "isvu", 1, text, ("s", ""), 0).error)
        self.assertIsNone(self.caller.ask(MENU, "Event", "isvu", 1, "clicked", ("s", text), 0).error)
        self.assertIsNotNone(self.caller.ask(MENU, "GetProperty", "is", 1, text).error)
        self.assertIsNone(self.caller.ask(ITEM, "Scroll", "is", 1, text).error)
        self.assertIsNone(self.caller.ask(ITEM, "ProvideXdgActivationToken", "s", text).error)
        self.assertIsNotNone(self.caller.ask((*ITEM[:2], PROPERTIES), "Get", "ss", ITEM[2], text).error)
        self.assertBounded(before)

    def test_a_row_that_is_named_millions_of_times_is_answered_once(self):
        before = self.memory("VmRSS")
        answer = self.caller.ask(MENU, "GetGroupProperties", "aias", [3] * (GIANT // 4), [])
        [rows] = answer.values()
        self.assertEqual([number for number, _ in rows], [3])
        self.assertBounded(before)

    def test_a_row_that_is_chosen_hundreds_of_thousands_of_times_in_a_group_is_chosen_once(self):
        before = self.memory("VmRSS")
        event = GUIDE_ROW, "clicked", ("i", 0), 0
        self.assertEqual(self.caller.ask(MENU, "EventGroup", "a(isvu)", [event] * 400_000).values(), [[]])
        self.assertAnswersSoon()
        self.assertEqual(len(self.daemon.wait("Notify", 2)), 2)
        self.assertLess(self.memory("VmHWM"), PEAK)
        self.assertLess(self.memory("VmRSS") - before, LEFT_OF_GIANTS)
        self.bus.click(29)
        self.assertEqual(self.client.status(), 0)

    def test_rows_that_a_group_names_in_vain_are_told_once(self):
        before = self.memory("VmRSS")
        others = [77] * 400_000 + list(range(1000, 101_000)) * 2
        events = [(row, "clicked", ("i", 0), 0) for row in (1, *others)]
        self.assertEqual(self.caller.ask(MENU, "EventGroup", "a(isvu)", events).values(),
                         [[77, *range(1000, 101_000)]])
        self.assertBounded(before)

    def test_a_million_names_of_properties(self):
        before = self.memory("VmRSS")
        names = [f"{number:x}" for number in range(GIANT // 12)]
        begin = time.monotonic()
        self.assertIsNone(self.caller.ask(MENU, "GetLayout", "iias", 0, -1, names).error)
        self.assertLess(time.monotonic() - begin, PATIENCE)
        self.assertBounded(before)

    def test_a_million_rows_that_are_not_there(self):
        before = self.memory("VmRSS")
        ids = range(1000, 1000 + GIANT // 4)
        for member in ("GetGroupProperties", "AboutToShowGroup"):
            signature = METHODS[MENU][member]
            self.caller.ask(MENU, member, signature, ids, *([[]] if signature == "aias" else []))
        self.assertBounded(before)


if __name__ == "__main__":
    isolation.main()
