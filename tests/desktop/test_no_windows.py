"""Where no window can be shown: what it would have said becomes a notification, and standard error says why."""

import shutil
import unittest

from support import isolation
from desktop.bus import ITEM, Bus
from desktop.session import COUNTING_BACKEND, PROGRAM, Session, Window, counted, write_script
from support.windows import GUIDE, MISSING_APP, OFFICIAL_MODE, OWN_MODE, STOPPED, diagnosis

NO_DISPLAY = "there is no display"


class NoWindows(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.stub_backend(COUNTING_BACKEND)
        self.session.program("systemctl", "exit 0\n")
        self.bus = Bus(self.session)
        self.traffic = self.bus.monitor()
        self.addCleanup(self.traffic.close)
        self.told = 0

    def start(self, program=PROGRAM, **options):
        self.dialogs = program.with_name("KestruneMenuDialogs")
        self.client = self.session.start(program=program, **options)
        self.traffic.wait_for_label(*counted(2))
        self.assertNotified(Window("Kestrune 網路已變更", "已自動嘗試重新連接本地服務與反向隧道。"))

    def assertNotified(self, window):
        """By one more notification, and by no others."""
        self.told += 1
        self.traffic.wait("Notify", lambda _: len(self.traffic.said("Notify")) >= self.told)
        # Nobody is there to say whether markup is read: what could be taken for it is written otherwise.
        wide = str.maketrans("<&", "＜＆")
        self.assertEqual([tuple(data[3:5]) for data in self.traffic.said("Notify")[self.told - 1:]],
                         [(window.title, window.text.translate(wide))])

    def assertOpens(self, row, window):
        self.bus.click(row)
        self.assertNotified(window)

    def assertComplains(self, what, reason):
        self.client.complained(f"KestruneMenuClient: no {what} from {self.dialogs}: {reason}\n")

    def test_without_a_display(self):
        self.start(environment={"DISPLAY": "", "WAYLAND_DISPLAY": ""})
        self.assertOpens(24, GUIDE)
        self.assertComplains("window", NO_DISPLAY)
        (self.session.home / "failing").touch()
        self.assertOpens(21, diagnosis(3, failing=True))
        self.assertOpens(17, OFFICIAL_MODE)
        self.assertOpens(17, OWN_MODE)
        self.assertOpens(18, STOPPED)
        self.assertEqual(self.bus.rows()[18]["label"], "立即重新檢查連線")
        self.assertEqual(self.client.end(), 0)
        self.assertEqual(self.client.errors.all().count(NO_DISPLAY), 1)

    def test_without_a_display_the_menu_stays_where_it_is(self):
        self.start()
        self.assertEqual(self.session.run(), (0, "", ""))
        self.assertComplains("menu window", NO_DISPLAY)
        self.bus.call(ITEM, "Activate", "ii", 0, 0)
        self.assertOpens(23, MISSING_APP)
        self.assertEqual(self.client.end(), 0)

    def test_without_the_program_that_shows_them(self):
        program = self.session.root / "KestruneMenuClient"
        shutil.copy(PROGRAM, program)
        self.start(program=program, environment={"DISPLAY": ":0"})
        self.assertOpens(24, GUIDE)
        self.assertComplains("window", "No such file or directory")
        self.bus.call(ITEM, "Activate", "ii", 0, 0)
        self.assertComplains("menu window", "No such file or directory")
        self.assertOpens(23, MISSING_APP)
        self.assertEqual(self.client.end(), 0)

    def test_with_a_program_that_does_not_show_them(self):
        program = self.session.root / "KestruneMenuClient"
        shutil.copy(PROGRAM, program)
        write_script(program.with_name("KestruneMenuDialogs"), "echo 'no good' >&2\nexit 1\n")
        self.start(program=program, environment={"DISPLAY": ":0"})
        self.assertOpens(24, GUIDE)
        self.assertComplains("window", "it ended without an answer")
        self.assertOpens(23, MISSING_APP)
        self.assertEqual(self.client.end(), 0)


if __name__ == "__main__":
    isolation.main()
