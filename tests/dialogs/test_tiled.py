"""The windows on Wayland, under a compositor that tiles every window that is not a dialog."""

import os
import re
import signal

from rig import isolation
from rig.asked import alert, field, menu, raising, view
from rig.desk import OnDesk
from rig.sway import Sway
from rig.waiting import Text, own

TEXT = "org.a11y.atspi.Text"
REPORT = "\n".join(f"[OK] 檢查 {i}" for i in range(400))
FORM = view("scroll", view("stack", *(field(f"f{i}") for i in range(40)), spacing=10), width=560, height=560)


class Tiled(OnDesk):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.sway = Sway(cls.desk)

    def open(self, request, name):
        program = self.start()
        program.show(request)
        return program, self.sway.new_window(name)

    def test_every_window_floats(self):
        for request, name in ((menu(), "Kestrune"), (alert(1, "短"), "短"), (alert(1, "長", REPORT), "長"),
                              (alert(1, "設定", view=FORM), "設定")):
            program, window = self.open(request, name)
            self.assertEqual(window["type"], "floating_con", name)
            program.end_input()
            self.assertEqual(program.status(), 0)

    def test_a_floating_window_can_be_resized(self):
        program, _ = self.open(alert(1, "長", REPORT), "長")
        # When the second window is there, the compositor knows that the first window may be resized.
        program.show(alert(2, "上"))
        self.sway.new_window("上")
        self.sway.command('[title="長"] resize set width 900 px')
        self.assertIn(("1", "長", 900, False), self.sway.windows())

    def test_raising_moves_all_to_the_current_workspace(self):
        program, _ = self.open(alert(1, "下", view=field("a", "x")), "下")
        program.show(alert(2, "上"))
        self.sway.new_window("上")
        for name in ("下", "上"):
            self.sway.command(f'[title="{name}"] move to workspace 2')
        self.open(menu(), "Kestrune")
        program.send(raising())
        for name in ("下", "上"):
            self.assertEqual(self.sway.new_window(name)["type"], "floating_con")
        self.assertEqual([(workspace, name, focused) for workspace, name, _, focused in self.sway.windows()],
                         [("1", "Kestrune", False), ("1", "下", False), ("1", "上", True)])

    def test_raising_moves_the_menu(self):
        program, _ = self.open(menu(), "Kestrune")
        self.raise_from_workspace_2(program)
        self.sway.new_window("Kestrune")
        self.assertEqual([workspace for workspace, *_ in self.sway.windows()], ["2"])

    def test_a_token_is_used_by_a_window_that_has_not_appeared(self):
        self.sway.command('no_focus [title="後"]')
        self.open(alert(1, "先"), "先")
        requests = raising("the-token"), alert(1, "後")
        for order in requests, reversed(requests):
            program = self.start(environment={"WAYLAND_DEBUG": "1"})
            errors = Text(own(program.process.stderr))
            self.addCleanup(errors.close)
            # Let the program read both requests at once, so that the window does not appear between them.
            program.process.send_signal(signal.SIGSTOP)
            program.send(*order)
            program.process.send_signal(signal.SIGCONT)
            self.sway.event("new")
            errors.wait(lambda text: ".get_toplevel(" in text, "new window")
            if not re.search(r'"xdg_activation_v1", \d+, new id', errors.so_far):
                reason = "Qt 6.2 uses no activation tokens"
                self.assertFalse("KESTRUNE_NO_SKIPS" in os.environ, reason)
                self.skipTest(reason)
            errors.wait(lambda text: '.activate("the-token"' in text, "use of the token")

    def test_raising_leaves_an_active_window_where_it_is(self):
        program, _ = self.open(alert(1, "下"), "下")
        program.window("下")
        program.send(raising())
        program.show(alert(2, "上"))
        # If the first window had been mapped again, it would be the next new window.
        self.sway.new_window("上")

    def raise_from_workspace_2(self, program):
        """Changes to workspace 2, and raises the windows of the program before it learns that they lost the focus."""
        program.process.send_signal(signal.SIGSTOP)
        self.sway.command("workspace 2")
        self.addCleanup(self.sway.command, "workspace 1")
        program.send(raising())
        program.process.send_signal(signal.SIGCONT)

    def test_raising_moves_a_window_before_it_learns_that_it_lost_the_focus(self):
        program, _ = self.open(alert(1, "短", view=field("a", "abc")), "短")
        text = program.window("短").find("text")
        text.ask(TEXT, "SetCaretOffset", "(i)", 2)
        self.raise_from_workspace_2(program)
        self.sway.new_window("短")
        self.assertEqual([(workspace, focused) for workspace, _, _, focused in self.sway.windows()], [("2", True)])
        self.assertEqual((text.property(TEXT, "CaretOffset"), text.ask(TEXT, "GetNSelections")[0]), (2, 0))

    def test_raising_before_the_first_window_does_not_map_this_window_again(self):
        self.sway.command('no_focus [title="後"]')
        earlier, _ = self.open(alert(1, "先"), "先")
        earlier.window("先")
        later = self.start()
        later.send(raising("token"))
        later.show(alert(1, "後"))
        # The earlier program maps its window again after a delay. If the later program also mapped
        # its window again, its second event "new" would come first.
        self.raise_from_workspace_2(earlier)
        self.assertEqual([self.sway.event("new")["pid"] for _ in range(2)], [later.process.pid, earlier.process.pid])


isolation.main()
