"""The windows on a desktop with a window manager and windows of other programs."""

from rig import isolation
from rig.asked import alert, answered, field, menu, raising
from rig.desk import OnDesk


class Managed(OnDesk):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.screen.start_manager()

    def window(self, name):
        """Returns the ID of the X11 window whose name begins with the regular expression `name`."""
        return self.screen.run("xdotool", "search", "--onlyvisible", "--name", f"^{name}").decode().split()[0]

    def property(self, window, name):
        return self.screen.run("xprop", "-id", window, name).decode().partition("=")[2].strip()

    def test_a_window_is_an_ordinary_dialog_of_the_program(self):
        program, _ = self.opened(alert(1, "目前狀態"))
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
        self.opened(alert(1, "Kestrune 連線與桌面設定"))
        self.assertEqual(self.property(self.window("Kestrune 連線與桌面設定$"), "WM_NAME"), '"Kestrune 連線與桌面設定"')

    def test_the_frame_stays_on_the_screen(self):
        self.opened(alert(1, "長", "\n".join(["一行文字 " * 20] * 400), buttons=["好"] * 12))
        window = self.window("長")
        left, right, top, bottom = map(int, self.property(window, "_NET_FRAME_EXTENTS").split(","))
        place = self.screen.geometry(window)
        self.assertTrue(0 <= place.left - left <= place.left + place.width + right <= self.width)
        self.assertTrue(0 <= place.top - top <= place.top + place.height + bottom <= self.height)

    def test_the_close_button_cancels_or_presses_the_only_button(self):
        for request, *events in ((alert(1, buttons=["好", "取消"]), answered(1, None)), (alert(1), answered(1, 0)), (menu(),)):
            program, _ = self.opened(request)
            self.screen.keys("alt+F4")
            self.assertEnds(program, *events)

    def test_a_stacked_alert_is_modal_for_the_alert_below(self):
        program, _ = self.opened(alert(1, "下", buttons=["好", "取消"]), alert(2, "上"))
        lower, upper = self.window("下"), self.window("上")
        owner = self.screen.run("xprop", "-id", upper, "WM_TRANSIENT_FOR").decode().split()[-1]
        self.assertEqual(int(owner, 16), int(lower))
        self.assertIn("MODAL", self.property(upper, "_NET_WM_STATE"))
        # The lower window cannot get the focus while the upper window is open. So Return answers the upper alert.
        self.screen.run("xdotool", "windowactivate", lower)
        self.screen.keys("Return")
        self.assertEqual(program.event(), answered(2, 0))
        program.window("下")
        # Close the window by Escape, which it handles itself. Alt+F4 would go to the window manager, which may not yet
        # know that this window has the focus.
        self.screen.keys("Escape")
        self.assertEqual(program.event(), answered(1, None))

    def test_raising_restores_a_minimised_window(self):
        program, _ = self.opened(alert(1, "甲", view=field("a", "x")))
        other, _ = self.opened(alert(1, "乙"))
        program.send(raising())
        program.window("甲")
        self.screen.run("xdotool", "windowminimize", "--sync", self.window("甲"))
        other.window("乙")
        program.send(raising())
        program.window("甲")
        self.screen.keys("Return")
        self.assertEnds(program, answered(1, 0, a="x"))


isolation.main()
