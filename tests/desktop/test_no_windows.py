"""Where no window can be shown: what it would have said becomes a notification, shown by a real daemon as plain text."""

import unittest

from rig import isolation
from rig.bus import ITEM, Bus
from rig.client import NO_TRAY, Window
from rig.display import Screen
from rig.session import COUNTING_BACKEND, PROGRAM, Session, counted
from rig.windows import GUIDE, MISSING_APP, OFFICIAL_MODE, STOPPED, codex_check

WINDOWS = PROGRAM.with_name("KestruneMenuDialogs")

DAEMON = "org.freedesktop.Notifications", "/org/freedesktop/Notifications", "org.dunstproject.cmd0"
CONFIGURATION = "[global]\nstack_duplicates = no\nmarkup = full\nformat = \"%s\\n%b\"\n"

NEWS = Window("Kestrune 網路已變更", "已自動嘗試重新連接本地服務與反向隧道。")


class NoWindows(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.stub_backend(COUNTING_BACKEND)
        self.session.program("systemctl", "exit 0\n")
        self.bus = Bus(self.session)
        self.traffic = self.bus.monitor()
        self.told = 0

    def assertNotified(self, window):
        """By one more notification, and by no others."""
        self.told += 1
        self.traffic.wait_for("Notify", count=self.told)
        self.assertEqual([tuple(data[3:5]) for data in self.traffic.said("Notify")[self.told - 1:]],
                         [(window.title, window.text)])

    def assertOpens(self, row, window):
        self.bus.click(row)
        self.assertNotified(window)

    def test_without_a_display(self):
        screen = Screen(self.session)
        configuration = self.session.root / "dunstrc"
        configuration.write_text(CONFIGURATION)
        self.session.spawn("dunst", "-conf", str(configuration))
        self.bus.wait_for_owner(DAEMON[0])
        self.client = self.session.start(environment={"DISPLAY": ""})
        self.assertNotified(NEWS)
        self.traffic.wait_for_label(*counted(2))
        self.assertOpens(24, GUIDE)
        (self.session.home / "failing").touch()
        check = codex_check(3, failing=True)
        escaped = check.text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")
        self.assertOpens(22, check._replace(text=escaped))
        self.assertOpens(17, OFFICIAL_MODE)
        self.assertOpens(18, STOPPED)
        self.assertEqual(self.bus.rows()[18]["label"], "立即重新檢查連線")
        self.bus.call(DAEMON, "NotificationCloseAll")
        entries = self.bus.call(DAEMON, "NotificationListHistory")[0]
        self.assertEqual({entry["appname"] for entry in entries}, {"Kestrune"})
        self.assertEqual([(entry["summary"], entry["body"]) for entry in reversed(entries)],
                         [each[:2] for each in (NEWS, GUIDE, check._replace(text=escaped), OFFICIAL_MODE, STOPPED)])
        self.assertEqual(self.session.run(environment={"DISPLAY": screen.name}), (0, "", ""))
        self.bus.call(ITEM, "Activate", "ii", 0, 0)
        self.assertOpens(23, MISSING_APP)
        self.assertEqual(self.client.end(), 0)
        self.assertEqual(self.client.errors.all(),
                         f"{NO_TRAY}KestruneMenuClient: no window from {WINDOWS}: there is no display\n")


if __name__ == "__main__":
    isolation.main()
