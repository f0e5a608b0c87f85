"""The tray face (the user interface in a desktop's tray) in a real panel, and what it exports on the bus."""

import shutil
import unittest

from gi.repository import GLib

from rig import isolation
from rig.bus import ITEM, Bus
from rig.client import CONNECTED, RECONNECTING
from rig.display import Rectangle, Screen
from rig.panel import WATCHER, Panel
from rig.processes import PORTS, listening_ports, wait_for_end, write_script
from rig.session import GATED_BACKEND, PROGRAM, SWITCHED_OFF, Session
from rig.wire import Peer, answers

SIZES = [16, 22, 24, 32, 44, 48, 64]


def is_grey(pixmaps):
    """Returns whether all visible pixels of the icon are grey."""
    return all(len(set(argb[at + 1:at + 4])) == 1 for _, _, argb in pixmaps
               for at in range(0, len(argb), 4) if argb[at] > 0)


class InPanel(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.bus = Bus(self.session)

    def start_panel(self):
        self.screen = Screen(self.session, 800)
        self.panel = Panel(self.session, self.bus, self.screen)

    def start_client(self):
        # The client gets no DISPLAY, because it must work without one.
        return self.session.start(environment={"DISPLAY": ""})

    def assertShown(self):
        self.assertEqual(len(self.panel.wait_for_item()), 1)
        self.panel.wait_for_icon(coloured=True)

    def test_the_icon_returns_with_each_panel_and_screen_and_its_menu_quits(self):
        self.session.backend("refresh")
        services = self.session.services()
        client = self.start_client()
        client.complained("no tray on this desktop")
        self.start_panel()
        self.assertShown()
        self.panel.stop()
        self.panel.start()
        self.assertShown()
        self.screen.stop()
        wait_for_end(self.panel.process.pid)
        self.screen.start()
        self.panel.start()
        self.assertShown()
        self.panel.click_last_row(self.panel.open_menu())
        self.assertEqual(client.status(), 0)
        self.assertEqual(client.errors.all().count("\n"), 1)
        wait_for_end(*services)
        self.assertTrue(listening_ports().isdisjoint(PORTS))

    def test_advice_is_shown_without_a_tray_and_withdrawn_with_one(self):
        self.session.environment["KESTRUNE_TEST_TICK"] = "0.2"  # seconds, instead of 30
        self.session.prefer(SWITCHED_OFF)
        Peer(self.bus, "org.freedesktop.Notifications", answers("u", 7))
        traffic = self.bus.monitor()
        self.start_client()
        traffic.wait_for("Notify", lambda call: call[3] == "Kestrune 已啟動，但桌面沒有系統匣")
        Peer(self.bus, WATCHER[0], answers("v", GLib.Variant("b", True)))
        self.assertEqual(traffic.wait_for("CloseNotification"), [7])

    def test_the_windows_get_the_activation_tokens(self):
        program = shutil.copy(PROGRAM, self.session.home)
        write_script(self.session.home / "KestruneMenuDialogs",
                     'while read -r request; do echo "${request:0:40}"; done > "$HOME/events"\n')
        self.session.prefer(SWITCHED_OFF)
        self.session.start(program=program, environment={"DISPLAY": ":0"})
        self.bus.wait_for_client()
        self.bus.call(ITEM, "ProvideXdgActivationToken", "s", "of-a-click")
        self.bus.call(ITEM, "Activate", "ii", 0, 0)
        self.assertIn("of-a-click", self.session.events.next())
        self.assertIn("showMenu", self.session.events.next())
        self.session.run(program=program, environment={"XDG_ACTIVATION_TOKEN": "of-a-start"})
        # The menu may change before, for example when the network is known.
        while "of-a-start" not in self.session.events.next():
            pass

    def test_an_open_menu_stays_open_and_changes_in_place(self):
        self.session.stub_backend(GATED_BACKEND)
        self.start_panel()
        traffic = self.bus.monitor()
        self.start_client()
        self.assertEqual(self.session.events.next(), "status asked")
        traffic.wait_for_status(RECONNECTING)
        self.panel.wait_for_icon(coloured=False)
        pixmaps = self.bus.get(ITEM, "IconPixmap")
        self.assertEqual([(width, height, len(argb)) for width, height, argb in pixmaps],
                         [(size, size, size * size * 4) for size in SIZES])
        self.assertTrue(is_grey(pixmaps))
        menu = self.panel.open_menu()
        rows, last = self.panel.rows(menu), self.panel.last_row(menu)
        lamp = Rectangle(rows.left, rows.top, rows.width, 3 * last.height)
        lamp_before, last_before = self.screen.picture(lamp), self.screen.picture(last)
        # The row below the pointer gets highlighted. The update of the menu must not remove the highlight.
        self.screen.point_at(*last.centre())
        self.screen.wait_for_change(last, last_before)

        # One signal reports all rows that a refresh has changed, and no other row.
        updates = len(traffic.said("ItemsPropertiesUpdated"))
        layouts = len(traffic.said("LayoutUpdated"))
        self.session.gate.open("[OK] Codex CLI: 0.46.0（/usr/bin/codex）")
        self.screen.wait_for_change(lamp, lamp_before)
        updated, removed = traffic.wait_for("ItemsPropertiesUpdated", count=updates + 1)
        self.assertEqual([(number, sorted(properties)) for number, properties in updated],
                         [(2, ["label"]), (4, ["label"]), (8, ["label"]), (9, ["label"]),
                          (18, ["enabled", "label", "shortcut"])])
        self.assertEqual((removed, len(traffic.said("LayoutUpdated"))), ([], layouts))
        self.assertEqual(self.bus.rows()[2]["label"], CONNECTED)
        self.assertFalse(is_grey(self.bus.get(ITEM, "IconPixmap")))
        self.assertEqual(self.bus.get(ITEM, "ToolTip")[2], "Kestrune · 已連線 · 未配置")
        for event in ("UnmapNotify", "DestroyNotify"):
            self.assertFalse(self.screen.has_happened(event, menu))
        self.assertEqual(self.panel.rows(menu), rows)
        self.assertNotEqual(self.screen.picture(last), last_before)
        # The test sees that the menu closes now. This shows that the test would have seen an earlier closing, too.
        self.screen.keys("Escape")
        self.screen.wait_until_closed(menu)
        # Look at the icon only now, because in some panels the open menu covers it.
        self.panel.wait_for_icon(coloured=True)


isolation.main()
