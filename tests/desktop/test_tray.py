"""What the tray face exports on a session bus, and what a host can do with it."""

import unittest

from support import isolation
from desktop.bus import ITEM, MENU, Bus, Refused
from desktop.session import CONNECTED, NO_TRAY, RECONNECTING, Session, running, wait_for_end

# Reports what it is given.
GATED = """
[[ $1 == status ]] || exit 0
echo "status asked" > "$HOME/events"
read -r report < "$HOME/gate"
echo "$report"
[[ $report != FAIL* ]]
"""

SIZES = [16, 22, 24, 32, 44, 48, 64]


def colours(pixmaps):
    """What the visible pixels of an icon are made of: its colours, as sets of equal parts."""
    return {tuple(argb[at + 1:at + 4]) for _, _, argb in pixmaps for at in range(0, len(argb), 4) if argb[at] > 0}


def is_grey(pixmaps):
    return all(red == green == blue for red, green, blue in colours(pixmaps))


class Tray(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.bus = Bus(self.session)
        self.traffic = self.bus.monitor()
        self.addCleanup(self.traffic.close)

    def start_at_gate(self):
        """A client that waits for the report of its first check, and has begun to reconnect."""
        self.session.stub_backend(GATED)
        client = self.session.start()
        self.assertEqual(self.session.events.next(), "status asked")
        self.traffic.wait("RegisterStatusNotifierItem")
        self.traffic.wait_for_status(RECONNECTING)
        return client

    def report(self, line):
        """Lets the check report that line, and waits until the menu has changed. The next check waits for another."""
        so_far = len(self.traffic.said("ItemsPropertiesUpdated"))
        self.session.gate.open(line)
        self.traffic.wait("ItemsPropertiesUpdated",
                          lambda _: len(self.traffic.said("ItemsPropertiesUpdated")) == so_far + 1)
        return self.traffic.said("ItemsPropertiesUpdated")[so_far]


class Exported(Tray):
    def test_the_icon_is_grey_until_the_backend_is_well(self):
        client = self.start_at_gate()
        grey = self.bus.get(ITEM, "IconPixmap")
        self.assertEqual([(width, height, len(argb)) for width, height, argb in grey],
                         [(size, size, size * size * 4) for size in SIZES])
        self.assertGreater(len(colours(grey)), 1)
        self.assertTrue(is_grey(grey))
        self.report("[OK] Mac service: 好")
        coloured = self.bus.get(ITEM, "IconPixmap")
        self.assertEqual([pixmap[:2] for pixmap in coloured], [[size, size] for size in SIZES])
        self.assertFalse(is_grey(coloured))
        self.assertEqual(client.end(), 0)
        # No tray has asked for it, and none was needed.
        self.assertEqual(client.errors.all(), NO_TRAY)

    def test_the_icon_stays_grey_with_a_fault(self):
        client = self.start_at_gate()
        self.report("[FAIL] Mac service: 沒有")
        self.assertTrue(is_grey(self.bus.get(ITEM, "IconPixmap")))
        self.assertEqual(self.bus.get(ITEM, "ToolTip"), ["", [], "Kestrune · 異常 · 未配置", ""])
        self.assertEqual(client.end(), 0)

    def test_the_tooltip_is_the_description_too(self):
        client = self.start_at_gate()
        for word, project in (("檢查中", "目前專案"), ("已連線", "未配置")):
            text = f"Kestrune · {word} · {project}"
            self.assertEqual(self.bus.get(ITEM, "ToolTip"), ["", [], text, ""])
            self.assertEqual(self.bus.get(ITEM, "IconAccessibleDesc"), text)
            if word == "檢查中":
                self.report("[OK] Mac service: 好")
        self.assertEqual(client.end(), 0)

    def test_no_property_is_missing(self):
        client = self.start_at_gate()
        target = (ITEM[0], ITEM[1], "org.freedesktop.DBus.Properties")
        properties = self.bus.call(target, "GetAll", "s", ITEM[2])[0]
        self.assertEqual({name: value["type"] for name, value in properties.items()}, {
            "Category": "s", "Id": "s", "Title": "s", "Status": "s", "WindowId": "i", "IconThemePath": "s",
            "IconName": "s", "IconPixmap": "a(iiay)", "IconAccessibleDesc": "s", "OverlayIconName": "s",
            "OverlayIconPixmap": "a(iiay)", "AttentionIconName": "s", "AttentionIconPixmap": "a(iiay)",
            "AttentionAccessibleDesc": "s", "AttentionMovieName": "s", "ToolTip": "(sa(iiay)ss)", "ItemIsMenu": "b",
            "Menu": "o"})
        self.assertEqual(properties["Menu"]["data"], MENU[1])
        self.assertIs(properties["ItemIsMenu"]["data"], True)
        self.assertEqual(client.end(), 0)

    def test_the_menu_has_29_rows_with_identities_keys_and_marks(self):
        client = self.start_at_gate()
        self.report("[OK] Mac service: 好")
        rows = self.bus.rows()
        self.assertEqual(list(rows), list(range(1, 30)))
        self.assertEqual([number for number, row in rows.items() if row.get("type") == "separator"], [12, 19, 28])
        self.assertEqual([number for number, row in rows.items() if row.get("enabled")],
                         [*range(14, 19), *range(21, 28), 29])
        self.assertEqual({number: row["toggle-state"] for number, row in rows.items() if "toggle-type" in row},
                         {14: 0, 15: 1, 16: 1})
        self.assertEqual({number: "+".join(row["shortcut"][0]) for number, row in rows.items() if "shortcut" in row}, {
            14: "Control+l", 15: "Control+a", 16: "Control+k", 17: "Control+m", 18: "Control+x", 21: "Control+s",
            22: "Control+c", 23: "Control+d", 24: "Control+g", 25: "Control+o", 26: "Control+comma",
            27: "Control+Shift+r", 29: "Control+q"})
        self.assertEqual(rows[2]["label"], CONNECTED)
        self.assertEqual(rows[29]["label"], "退出 Kestrune")
        self.assertEqual(client.end(), 0)

    def test_a_change_tells_the_rows_that_differ_and_nothing_else(self):
        client = self.start_at_gate()
        before, rows_before = self.bus.call(MENU, "GetLayout", "iias", 0, 0, 0)[0], self.bus.rows()
        layouts, icons = len(self.traffic.said("LayoutUpdated")), len(self.traffic.said("NewIcon"))
        updated, removed = self.report("[OK] Codex CLI: 0.46.0（/usr/bin/codex）")
        self.assertEqual([number for number, _ in updated], [2, 4, 8, 9, 18])
        self.assertEqual([sorted(properties) for _, properties in updated],
                         [["label"], ["label"], ["label"], ["label"], ["enabled", "label", "shortcut"]])
        self.assertEqual(removed, [])
        rows = self.bus.rows()
        self.assertEqual([rows[number]["label"] for number in (4, 8, 9)],
                         ["Codex：OK 0.46.0", "同步專案：未配置", "同步會話：未配置"])
        self.assertEqual({number for number in rows if rows[number] != rows_before[number]}, {2, 4, 8, 9, 18})
        self.assertEqual(self.bus.call(MENU, "GetLayout", "iias", 0, 0, 0)[0], before + 1)
        self.traffic.wait("NewToolTip", lambda _: len(self.traffic.said("NewToolTip")) == icons + 1)
        self.assertEqual(len(self.traffic.said("NewIcon")), icons + 1)
        self.assertEqual(len(self.traffic.said("LayoutUpdated")), layouts)
        self.assertEqual(len(self.traffic.said("ItemsPropertiesUpdated")), 2)
        self.assertEqual(client.end(), 0)

    def test_special_characters_reach_the_eye_unchanged(self):
        client = self.start_at_gate()
        self.report("FAIL a_b__c & <d>")
        # A host takes one of two underscores for the mark of a key.
        self.assertEqual(self.bus.rows()[2]["label"], "🟡 連線狀態：FAIL a__b____c & <d>")
        self.assertEqual(client.end(), 0)

    def test_switched_off_it_offers_to_connect(self):
        self.session.prefer('{"autoConnectEnabled": false}')
        client = self.session.start()
        self.traffic.wait("RegisterStatusNotifierItem")
        rows = self.bus.rows()
        self.assertEqual(rows[2]["label"], "🟡 連線狀態：已停用，不會啟動背景服務")
        self.assertEqual(rows[15]["toggle-state"], 0)
        self.assertEqual((rows[18]["label"], rows[18]["shortcut"]), ("立即重新檢查連線", [["Control", "r"]]))
        self.assertEqual(client.end(), 0)


class Clicked(Tray):
    def setUp(self):
        super().setUp()
        self.session.backend("refresh")
        self.services = self.session.services()
        self.client = self.session.start()
        self.traffic.wait_for_status(CONNECTED)
        self.assertEqual(self.bus.rows()[2]["label"], CONNECTED)

    def assertQuits(self):
        self.assertEqual(self.client.status(), 0)
        for pid in self.services:
            wait_for_end(pid)

    def test_the_last_row_quits(self):
        self.bus.click(29)
        self.assertQuits()

    def test_the_last_row_quits_in_a_group_of_events(self):
        events = [29, "opened", "i", 0, 0, 29, "clicked", "i", 0, 0]
        self.assertEqual(self.bus.call(MENU, "EventGroup", "a(isvu)", 2, *events), [[]])
        self.assertQuits()

    def test_rows_to_read_and_rows_that_are_not_there_do_nothing(self):
        for row in (0, 1, 2, 12, 20):
            self.bus.click(row)
        for row in (30, -1):
            with self.assertRaises(Refused):
                self.bus.click(row)
        events = [1, "clicked", "i", 0, 0, 77, "clicked", "i", 0, 0]
        self.assertEqual(self.bus.call(MENU, "EventGroup", "a(isvu)", 2, *events), [[77]])
        self.assertEqual(self.bus.call(MENU, "AboutToShow", "i", 0), [False])
        self.assertEqual(self.bus.rows()[2]["label"], CONNECTED)
        self.assertLessEqual(set(self.services), set(running()))
        self.bus.click(29)
        self.assertQuits()


if __name__ == "__main__":
    isolation.main()
