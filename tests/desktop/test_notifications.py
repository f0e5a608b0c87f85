"""What is told by notifications, with a real daemon that shows them."""

import subprocess
import unittest

from support import isolation
from desktop.bus import Bus
from desktop.session import COUNTING_BACKEND, Session, counted
from support.windows import GUIDE, codex_check
from desktop.xfce import Screen

DAEMON = "org.freedesktop.Notifications", "/org/freedesktop/Notifications", "org.dunstproject.cmd0"
CONFIGURATION = "[global]\nstack_duplicates = no\nmarkup = full\nformat = \"%s\\n%b\"\n"

NEWS = ("Kestrune 網路已變更", "已自動嘗試重新連接本地服務與反向隧道。")
NEWS_WHEN_OFF = ("Kestrune 網路已變更", "目前已停用自動重連；需要時請手動點選「立即重新檢查連線」。")


class Shown(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.stub_backend(COUNTING_BACKEND)
        self.bus = Bus(self.session)
        self.traffic = self.bus.monitor()
        self.addCleanup(self.traffic.close)
        screen = Screen(self.session)
        self.addCleanup(screen.close)
        (self.session.root / "dunstrc").write_text(CONFIGURATION)
        self.session.spawn("dunst", "-conf", str(self.session.root / "dunstrc"),
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.bus.wait_for_owner(DAEMON[0])
        # No windows, so that what they say is told in the same way.
        del self.session.environment["DISPLAY"]

    def shown(self, count):
        """The first so many that the daemon was given: title, and text as it understands markup."""
        self.traffic.wait("Notify", lambda _: len(self.traffic.said("Notify")) == count)
        self.bus.call(DAEMON, "NotificationCloseAll")
        entries = [{name: value["data"] for name, value in entry.items()}
                   for entry in self.bus.call(DAEMON, "NotificationListHistory")[0]]
        self.assertEqual({entry["appname"] for entry in entries}, {"Kestrune"})
        return [(entry["summary"], entry["body"]) for entry in reversed(entries)]

    def test_what_windows_would_have_said_is_told_as_plain_text(self):
        client = self.session.start()
        self.traffic.wait_for_label(*counted(2))
        self.bus.click(24)
        (self.session.home / "failing").touch()
        self.bus.click(22)
        check = codex_check(3, failing=True)
        escaped = check.text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")
        self.assertEqual(self.shown(3), [NEWS, GUIDE[:2], (check.title, escaped)])
        self.assertEqual(client.end(), 0)

    def test_a_change_of_the_network_is_told_also_while_switched_off(self):
        self.session.prefer('{"autoConnectEnabled": false}')
        client = self.session.terminal()
        self.assertEqual(self.shown(1), [NEWS_WHEN_OFF])
        self.assertEqual(client.quit(), 0)


if __name__ == "__main__":
    isolation.main()
