"""The windows on a desktop with a window manager and windows of other programs."""

from rig import isolation
from rig.asked import alert, field, menu, raising, title_of
from rig.desk import OnDesk


class Managed(OnDesk):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.screen.start_manager()

    def open(self, *requests):
        program = self.program()
        program.show(*requests)
        program.window(title_of(requests[-1]))
        return program

    def window(self, name):
        """Returns the ID of the X11 window whose name begins with the regular expression `name`."""
        return self.screen.run("xdotool", "search", "--onlyvisible", "--name", f"^{name}").decode().split()[0]

    def property(self, window, name):
        return self.screen.run("xprop", "-id", window, name).decode().partition("=")[2].strip()

    def test_a_window_is_an_ordinary_dialog_of_the_program(self):
        program = self.open(alert(1, "目前狀態"))
        self.screen.screenshot("managed")
        window = self.window("目前狀態 — Kestrune$")
        self.assertIn("_NET_WM_WINDOW_TYPE_DIALOG", self.property(window, "_NET_WM_WINDOW_TYPE"))
        self.assertEqual(self.property(window, "WM_CLASS"), '"KestruneMenuDialogs", "Kestrune"')
        self.assertEqual(self.property(window, "_NET_WM_PID"), str(program.process.pid))
        state = self.property(window, "_NET_WM_STATE")
        for forbidden in ("SKIP_TASKBAR", "SKIP_PAGER", "MODAL", "ABOVE"):
            self.assertNotIn(forbidden, state)
        self.assertIn("Icon", self.screen.run("xprop", "-id", window, "_NET_WM_ICON").decode())
        # The program's name is not added to a title that already contains it.
        self.open(alert(1, "Kestrune 連線與桌面設定"))
        self.assertEqual(self.property(self.window("Kestrune 連線與桌面設定$"), "WM_NAME"), '"Kestrune 連線與桌面設定"')

    def test_the_frame_stays_on_the_screen(self):
        self.open(alert(1, "長", "\n".join(["一行文字 " * 20] * 400), buttons=["好"] * 12))
        window = self.window("長")
        left, right, top, bottom = map(int, self.property(window, "_NET_FRAME_EXTENTS").split(","))
        place = self.screen.geometry(window)
        self.assertTrue(0 <= place.left - left <= place.left + place.width + right <= self.width)
        self.assertTrue(0 <= place.top - top <= place.top + place.height + bottom <= self.height)

    def test_the_close_button_cancels_or_presses_the_only_button(self):
        for request, button in (alert(1, buttons=["好", "取消"]), None), (alert(1), 0), (menu(), None):
            program = self.open(request)
            self.screen.keys("alt+F4")
            if "showAlert" in request:
                self.assertEqual(program.event(), {"answered": {"id": 1, "answer": {"button": button, "fields": {}}}})
            self.assertEqual(program.status(), 0)

    def test_a_stacked_alert_is_modal_for_the_alert_below(self):
        program = self.open(alert(1, "下", buttons=["好", "取消"]), alert(2, "上"))
        lower, upper = self.window("下"), self.window("上")
        owner = self.screen.run("xprop", "-id", upper, "WM_TRANSIENT_FOR").decode().split()[-1]
        self.assertEqual(int(owner, 16), int(lower))
        self.assertIn("MODAL", self.property(upper, "_NET_WM_STATE"))
        # The lower window cannot get the focus while the upper window is open. So Return answers the upper alert.
        self.screen.run("xdotool", "windowactivate", lower)
        self.screen.keys("Return")
        self.assertEqual(program.event(), {"answered": {"id": 2, "answer": {"button": 0, "fields": {}}}})
        program.window("下")
        # Close the window by Escape, which it handles itself. Alt+F4 would go to the window manager, which may not yet
        # know that this window has the focus.
        self.screen.keys("Escape")
        self.assertEqual(program.event(), {"answered": {"id": 1, "answer": {"button": None, "fields": {}}}})

    def test_raising_restores_a_minimised_window(self):
        program = self.open(alert(1, "甲", view=field("a", "x")))
        other = self.open(alert(1, "乙"))
        program.send(raising())
        program.window("甲")
        self.screen.run("xdotool", "windowminimize", "--sync", self.window("甲"))
        other.window("乙")
        program.send(raising())
        program.window("甲")
        self.screen.keys("Return")
        self.assertEqual(program.event(), {"answered": {"id": 1, "answer": {"button": 0, "fields": {"a": "x"}}}})
        self.assertEqual(program.status(), 0)


isolation.main()
