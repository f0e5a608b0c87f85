"""The tray face in a real panel on a real screen."""

import unittest

from support import isolation
from desktop.bus import Bus
from desktop.session import PORTS, RECONNECTING, Session, listening_ports, wait_for_end
from desktop.xfce import Panel, Rectangle, Screen

# Reports what it is given.
GATED = """
[[ $1 == status ]] || exit 0
echo "status asked" > "$HOME/events"
read -r report < "$HOME/gate"
echo "$report"
"""


class InPanel(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.bus = Bus(self.session)

    def start_panel(self):
        self.screen = Screen(self.session)
        self.addCleanup(self.screen.close)
        self.panel = Panel(self.session, self.bus, self.screen)

    def start_client(self):
        # Its environment tells of no screen: it needs none.
        return self.session.start(environment={"DISPLAY": ""})

    def assertShown(self):
        self.assertEqual(len(self.panel.wait_for_item()), 1)
        self.panel.wait_for_icon(coloured=True)

    def test_the_menu_is_opened_read_and_clicked(self):
        self.session.backend("refresh")
        services = self.session.services()
        self.start_panel()
        client = self.start_client()
        self.assertShown()
        self.panel.click_last_row(self.panel.open_menu())
        self.assertEqual(client.status(), 0)
        self.assertEqual(client.errors.all(), "")
        for pid in services:
            wait_for_end(pid)
        self.assertTrue(listening_ports().isdisjoint(PORTS))

    def test_an_open_menu_stays_open_and_changes_in_place(self):
        self.session.stub_backend(GATED)
        self.start_panel()
        traffic = self.bus.monitor()
        self.addCleanup(traffic.close)
        client = self.start_client()
        self.assertEqual(self.session.events.next(), "status asked")
        traffic.wait_for_status(RECONNECTING)
        self.panel.wait_for_icon(coloured=False)
        menu = self.panel.open_menu()
        rows, last = self.panel.rows(menu), self.panel.last_row(menu)
        lamp = Rectangle(rows.left, rows.top, rows.width, 3 * last.height)
        lamp_before, last_before = self.screen.picture(lamp), self.screen.picture(last)
        # The row below the pointer is marked; it must not be taken away from there.
        self.screen.point_at(*last.centre())
        marked = self.screen.wait_for_change(last, last_before)

        self.session.gate.open("[OK] Mac service: 好")
        self.screen.wait_for_change(lamp, lamp_before)
        self.panel.wait_for_icon(coloured=True)
        for event in ("UnmapNotify", "DestroyNotify"):
            self.assertFalse(self.screen.has_happened(event, menu))
        self.assertEqual(self.panel.rows(menu), rows)
        self.assertEqual(self.screen.picture(last), marked)
        self.panel.click_last_row(menu)
        self.assertEqual(client.status(), 0)
        # What was not heard before is heard when it is so.
        self.screen.wait_until_closed(menu)

    def test_the_icon_comes_with_each_panel_and_each_screen(self):
        self.session.backend("refresh")
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
        self.panel.open_menu()
        self.assertEqual(client.end(), 0)
        self.assertEqual(client.errors.all().count("\n"), 1)


if __name__ == "__main__":
    isolation.main()
