"""Alert windows, used through the interface for screen readers and by keyboard. No window manager runs."""

import json
import os
import resource
import signal
import subprocess
from pathlib import Path

from rig import isolation
from rig.asked import alert, answered, field, raising, view
from rig.desk import OnDesk
from rig.display import Rectangle, Screen
from rig.processes import read_process, running
from rig.waiting import PATIENCE

GUIDE = ("官方 ChatGPT 手機連接流程：\n\n1. 確認 Mac 已安裝並登入最新版 Codex App。\n2. 保持 Mac 醒著、在線，並讓 Codex App 持續運行。\n"
         "\nKestrune 自托管路徑仍然使用 VPS Relay、Mac service 和手機 App Token。")
REPORT = "\n".join(f"[OK] 檢查 {i}: com.dovrel.kestrune.part{i} 正在運行 <b>&amp; {i * 37}</b>" for i in range(400))


class Texts(OnDesk):
    def test_a_short_text_is_not_cut(self):
        program, window = self.opened(alert(1, "官方 ChatGPT 連接說明", GUIDE))
        self.screen.screenshot("short")
        self.assertEqual(window.role(), "dialog")
        self.assertEqual(window.names("graphic"), ["訊息"])
        self.assertEqual(window.names("label"), ["官方 ChatGPT 連接說明", GUIDE])
        self.assertEqual(window.names("push button"), ["好"])
        self.assertOnScreen(window, *window.all())
        window.find("push button", "好").press()
        self.assertEnds(program, answered(1, 0))

    def test_a_warning_has_its_own_sign(self):
        _, window = self.opened(alert(1, style="warning"))
        sign = Rectangle(*window.find("graphic", "警告").place())
        self.assertGreater(len(self.screen.picture(sign).pixels()), 2)

    def test_texts_are_plain_text(self):
        title, button = "<i>a</i> & b 🎉\0\nc\u202e", "&好 <u>"
        text = ("<b>粗</b> &amp; & <img src='/etc/hostname'>\nhttp://x.example\n"
                "🟢🟡🔴 👨‍👩‍👧‍👦 🇹🇼 漢字 かな 한글 עברית العربية é e\u0301 \u200f\u200e ZWJ\u200d\n")
        controls = "a\0b \x1b[31mred\x1b[0m \u202eturned\u202c \u2066x\u2069 \x7f\x9b\r\nnext\rlast\u2028end\tafter\u0301"
        _, window = self.opened(alert(1, title, text + controls, [button]), name="<i>a</i> & b 🎉  c ")
        self.screen.screenshot("texts")
        self.assertEqual(window.names("label"),
                         ["<i>a</i> & b 🎉  c ", text + "a b red  turned   x    \nnext\nlast\nend\tafter\u0301"])
        self.assertEqual(window.names("push button"), [button])

    def test_400_lines_scroll_and_the_button_stays_visible(self):
        program, window = self.opened(alert(1, "目前狀態", REPORT))
        self.screen.screenshot("400-lines")
        text = window.find("text")
        self.assertEqual(text.name(), "目前狀態")
        self.assertEqual(text.text(), REPORT)
        self.assertNotIn("editable", text.states())
        button = window.find("push button", "好")
        self.assertOnScreen(window, text, button)
        self.assertLess(sum(text.place()[1::2]), button.place()[1] + 1)
        self.screen.keys("Return")
        self.assertEnds(program, answered(1, 0))

    def test_keys_scroll_a_long_text_from_the_button(self):
        _, window = self.opened(alert(1, "目前狀態", REPORT))
        bar = window.find("scroll bar")
        value = "org.a11y.atspi.Value", "CurrentValue"
        self.assertEqual(bar.property(*value), 0)
        self.screen.keys("Next")
        bar.wait(lambda node: node.property(*value) > 10, "page further down")
        self.screen.keys("End")
        most = bar.property(value[0], "MaximumValue")
        bar.wait(lambda node: node.property(*value) == most, "end of the text")
        self.screen.keys("Home")
        bar.wait(lambda node: node.property(*value) == 0, "begin of the text")

    def test_a_line_of_a_megabyte_is_shown_and_the_window_answers(self):
        for character in ("x", "字", "\u0301", "😀", "a b "):
            line = character * (1_000_000 // len(character.encode()))
            program, window = self.opened(alert(1, "一行", f"前\n{line}\n後"))
            self.screen.screenshot("megabyte")
            text = window.find("text").text()
            self.assertEqual(text.replace("\u2060\n", ""), f"前\n{line}\n後")
            self.assertLessEqual(max(map(len, text.split("\n"))), 2001)
            self.assertOnScreen(window, window.find("push button", "好"))
            self.screen.keys("space")
            self.assertEnds(program, answered(1, 0))

    def test_a_word_too_long_for_a_line_is_broken(self):
        text = "前 " + "w" * 500 + " 後"
        _, window = self.opened(alert(1, "w" * 250, text))
        self.screen.screenshot("long-word")
        self.assertEqual(window.names("label"), ["w" * 250])
        self.assertEqual(window.find("text").text(), text)
        self.assertOnScreen(window, *window.all())


class Copies(OnDesk):
    """The tests paste the copied text into a field of a second alert, to read it there."""

    def menu_of(self, node):
        """Right-clicks on the node and returns the menu that opens."""
        self.reader.signals.clear()
        left, top, *_ = node.place()
        self.screen.click(left + 10, top + 5, button=3)
        return self.reader.told_of("popup menu")

    def pasted(self, program):
        program.show(alert(2, "貼上", view=field("copy")))
        program.window("貼上").find("text").has_focus()
        self.screen.keys("ctrl+v", "Return")
        return program.event()

    def test_a_long_text_is_copied_without_the_added_line_breaks(self):
        line = "".join(f"{i:05} " for i in range(1500))
        program, window = self.opened(alert(1, text=f"前\n\n{line}\n後"))
        text = window.find("text")
        self.assertGreater(text.text().count("\n"), 6)
        text.focus()
        self.screen.keys("ctrl+a", "ctrl+c", "Tab")
        # Wait until the keys are handled: a second alert must not get them.
        window.find("push button", "好").has_focus()
        self.assertEqual(self.pasted(program), answered(2, 0, copy=f"前\n\n{line}\n後"))

    def test_texts_are_copied_by_the_context_menu(self):
        for role, text in (("text", REPORT), ("label", "一 <b>\n二 &")):
            with self.subTest(role):
                program, window = self.opened(alert(1, text=text))
                shown = [node for node in window.all() if node.role() == role][-1]
                shown.focus()
                self.screen.keys("ctrl+a")
                menu = self.menu_of(shown)
                self.screen.screenshot(f"context-menu-{role}")
                self.assertEqual([name.partition("\t")[0] for name in menu.names("menu item")], ["複製(C)", "全選"])
                self.screen.keys("c")
                self.reader.wait(lambda: not menu.is_shown(), "end of the menu")
                self.assertEqual(self.pasted(program), answered(2, 0, copy=text))
                self.screen.keys("Escape")
                self.assertEnds(program, answered(1, 0))

    def test_select_all_by_the_context_menu(self):
        program, window = self.opened(alert(1, text="一 <b>\n二 &"))
        text = window.find("label", "一 <b>\n二 &")
        menu = self.menu_of(text)
        self.assertEqual(["enabled" in node.states() for node in menu.all() if node.role() == "menu item"], [False, True])
        self.screen.keys("Up", "Return")
        self.reader.wait(lambda: not menu.is_shown(), "end of the menu")
        self.screen.keys("ctrl+c", "Tab")
        window.find("push button", "好").has_focus()
        self.assertEqual(self.pasted(program), answered(2, 0, copy="一 <b>\n二 &"))


class Buttons(OnDesk):
    three = "保存並刷新", "打開 .env", "取消"

    def test_each_button_answers_its_index(self):
        for place, title in enumerate(self.three):
            program, window = self.opened(alert(7, buttons=self.three))
            self.assertEqual(window.names("push button"), list(self.three))
            lefts = [window.find("push button", each).place()[0] for each in self.three]
            self.assertEqual(lefts, sorted(lefts))
            window.find("push button", title).press()
            self.assertEnds(program, answered(7, place))

    def test_return_in_a_field_and_in_a_text_presses_the_first_button(self):
        program, window = self.opened(alert(1, text=REPORT, buttons=self.three, view=field("a", "x")))
        window.find("text", "標題").focus()
        self.screen.keys("Return")
        self.assertEnds(program, answered(1, 0, a="x"))
        program, window = self.opened(alert(1, buttons=self.three, view=field("a", "x", "名")))
        window.find("text", "名").has_focus()
        self.screen.keys("Return")
        self.assertEnds(program, answered(1, 0, a="x"))

    def test_many_wide_buttons_stay_on_the_screen(self):
        titles = [f"按鈕 {i} " + "寬" * 20 for i in range(5)]
        _, window = self.opened(alert(1, buttons=titles))
        self.assertEqual(window.names("push button"), titles)
        self.assertOnScreen(window, *window.all())


class Stacked(OnDesk):
    def setUp(self):
        super().setUp()
        self.lower = alert(1, "下", buttons=["一", "二"], view=view("button", text="更多", action="more"))

    def test_three_alerts_are_answered_from_the_top(self):
        program, _ = self.opened(self.lower, alert(2, "中"), alert(3, "上", buttons=["好", "壞"]))
        self.screen.keys("Escape")
        self.assertEqual(program.event(), answered(3, None))
        program.window("中")
        self.screen.keys("Return")
        self.assertEqual(program.event(), answered(2, 0))
        program.window("下")
        self.screen.keys("Return")
        self.assertEnds(program, answered(1, 0))

    def test_answering_a_covered_alert_closes_the_alerts_on_top(self):
        program, window = self.opened(self.lower)
        program.show(alert(2, "中"), alert(3, "上"))
        window.find("push button", "二").press()
        self.assertEnds(program, answered(3, None), answered(2, None), answered(1, 1))

    def test_raising_keeps_the_order(self):
        program, _ = self.opened(self.lower, alert(2, "上"))
        program.send(raising(), raising("token"))
        # When the new alert is shown, the requests before it have been carried out.
        program.show(alert(3, "頂"))
        for number, title in (3, "頂"), (2, "上"):
            program.window(title)
            self.screen.keys("Return")
            self.assertEqual(program.event(), answered(number, 0))
        program.window("下")
        program.send(raising())
        self.screen.keys("Return")
        self.assertEnds(program, answered(1, 0))


class Life(OnDesk):
    def test_the_end_of_the_input_closes_everything_without_an_answer(self):
        program, _ = self.opened(alert(1), alert(2, "上", view=field("a")))
        program.end_input()
        self.assertEnds(program)

    def test_the_end_of_the_input_without_a_window_ends_the_program(self):
        for half_a_request in b"", b'{"version": 3, "showAlert"':
            program = self.start()
            program.process.stdin.write(half_a_request)
            program.end_input()
            self.assertEnds(program)

    def test_without_a_display_it_ends_without_an_answer(self):
        for environment in ({"DISPLAY": ""}, {"DISPLAY": ":9999"}):
            program = self.start(environment=environment)
            program.end_input()
            self.assertNotEqual(program.status(), 0)
            self.assertIn("display", program.complaint())

    def test_a_lost_display_ends_it_without_an_answer(self):
        program, _ = self.opened(alert(1))
        other = Screen(self.desk, self.width, self.height)
        self.desk.environment["DISPLAY"] = self.screen.name
        away = self.start(environment={"DISPLAY": other.name})
        away.show(alert(1))
        other.stop()
        self.assertNotEqual(away.status(), 0)
        self.screen.keys("Return")
        self.assertEnds(program, answered(1, 0))

    def test_a_closed_output_ends_the_program(self):
        program, _ = self.opened(alert(1))
        program.process.stdout.close()
        self.screen.keys("Return")
        self.assertEqual(program.process.wait(PATIENCE), 1)

    def test_a_crash_dumps_no_core(self):
        resource.setrlimit(resource.RLIMIT_CORE, (resource.getrlimit(resource.RLIMIT_CORE)[1],) * 2)
        program, _ = self.opened(alert(1, view=field("a", "x", secure=True)))
        limits = Path(f"/proc/{program.process.pid}/limits").read_text()
        self.assertRegex(limits, r"Max core file size +[01] +[01] ")
        os.kill(program.process.pid, signal.SIGABRT)
        _, status = os.waitpid(program.process.pid, 0)
        self.assertEqual((os.WTERMSIG(status), os.WCOREDUMP(status)), (signal.SIGABRT, False))

    def test_it_is_not_dumpable_only_if_it_cannot_set_the_core_limit(self):
        unprivileged = "setpriv", "--bounding-set=-all"
        # Without privileges, prlimit cannot raise a hard limit of 0.
        limits = ((1, True), (0, False)) if resource.getrlimit(resource.RLIMIT_CORE)[1] != 0 else ((0, False),)
        for limit, readable in limits:
            program = self.start(through=[*unprivileged, "prlimit", f"--core={limit}"])
            program.show(alert(1, view=field("a", "x", secure=True)))
            # Without privileges, the link can be read only if the process is dumpable.
            link = subprocess.run([*unprivileged, "readlink", f"/proc/{program.process.pid}/exe"], capture_output=True)
            self.assertEqual((limit, link.stdout != b""), (limit, readable))

    def test_it_starts_no_session_bus(self):
        program = self.start(environment={"DBUS_SESSION_BUS_ADDRESS": None, "XDG_RUNTIME_DIR": None})
        program.show(alert(1))
        self.assertFalse([pid for pid in running() if read_process(pid, "comm") == b"dbus-launch\n"])
        program.end_input()
        self.assertEqual(program.status(), 0)


class Refusals(OnDesk):
    def test_invalid_lines_are_refused(self):
        version = json.dumps({**alert(1, "geheim"), "version": 4}).encode()
        for line, reason in ((version, "version 4 of the protocol"), (b"geheim", ""),
                             (b'{"version": 3, "geheim": 1}', "")):
            program = self.start()
            program.process.stdin.write(line + b"\n")
            event = program.event()
            self.assertEqual(list(event), ["refused"])
            self.assertIn(reason, event["refused"]["reason"])
            self.assertEqual(program.status(), 1)
            complaint = program.complaint()
            self.assertEqual(complaint, f"KestruneMenuDialogs: not understood: {event['refused']['reason']}\n")
            self.assertNotIn("geheim", complaint)


isolation.main()
