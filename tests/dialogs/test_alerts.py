"""Alerts, read and pressed as a screen reader does, and worked by keyboard. Without a window manager."""

import os
import resource
import signal
import unittest
from pathlib import Path

from dialogs.asked import alert, field, picture, titled, view
from dialogs.desk import PATIENCE, Desk, call

GUIDE = ("官方 ChatGPT 手機連接流程：\n\n1. 確認 Mac 已安裝並登入最新版 Codex App。\n2. 保持 Mac 醒著、在線，並讓 Codex App 持續運行。\n"
         "\nKestrune 自托管路徑仍然使用 VPS Relay、Mac service 和手機 App Token。")
REPORT = "\n".join(f"[OK] 檢查 {i}: com.dovrel.kestrune.part{i} 正在運行 <b>&amp; {i * 37}</b>" for i in range(400))


def answered(number, button, **fields):
    return {"id": number, "answered": {"button": button, "fields": fields}}


class Alerts(unittest.TestCase):
    screen = "1280x900"

    @classmethod
    def setUpClass(cls):
        cls.desk = Desk(cls, cls.screen)

    def program(self, *arguments, **options):
        return self.enterContext(self.desk.program(*arguments, **options))

    def opened(self, *requests, name=None):
        """The program with these alerts, and the window of the last."""
        program = self.program()
        program.show(*requests)
        return program, program.window(name or requests[-1]["alert"]["messageText"])

    def assertEnds(self, program, *events):
        for event in events:
            self.assertEqual(program.event(), event)
        self.assertEqual(program.status(), 0)
        self.assertEqual(program.complaint(), "")

    def assertOnScreen(self, *nodes):
        width, height = map(int, self.screen.split("x"))
        for node in nodes:
            left, top, wide, high = node.place()
            self.assertTrue(0 <= left <= left + wide <= width and 0 <= top <= top + high <= height,
                            f"{node} at {node.place()}")


class Texts(Alerts):
    def test_a_short_text_is_shown_whole(self):
        program, window = self.opened(alert(1, "官方 ChatGPT 連接說明", GUIDE))
        self.desk.screenshot("short")
        self.assertEqual(window.role(), "dialog")
        self.assertEqual(window.names("graphic"), ["訊息"])
        self.assertEqual(window.names("label"), ["官方 ChatGPT 連接說明", GUIDE])
        self.assertEqual(window.names("push button"), ["好"])
        self.assertOnScreen(window, *window.all())
        window.find("push button", "好").press()
        self.assertEnds(program, answered(1, 0))

    def test_a_warning_is_told_as_one(self):
        program, window = self.opened(alert(1, "未找到 Codex App", "請先安裝最新版 Codex App。", style="warning"))
        self.desk.screenshot("warning")
        self.assertEqual(window.names("graphic"), ["警告"])
        program.end_input()
        self.assertEnds(program)

    def test_without_a_text_there_is_the_title(self):
        _, window = self.opened(alert(1, "完成", ""))
        self.assertEqual(window.names("label"), ["完成"])

    def test_nothing_is_taken_for_markup(self):
        title, text, button = "<i>a</i> & b", "<b>粗</b> &amp; & <img src='/etc/hostname'>\nhttp://x.example", "&好 <u>"
        _, window = self.opened(alert(1, title, text, [button]))
        self.desk.screenshot("markup")
        self.assertEqual(window.names("label"), [title, text])
        self.assertEqual(window.names("push button"), [button])

    def test_emoji_and_letters_of_all_kinds_stay(self):
        text = "🟢🟡🔴 👨‍👩‍👧‍👦 🇹🇼 漢字 かな 한글 עברית العربية é e\u0301 \u200f\u200e ZWJ\u200d"
        _, window = self.opened(alert(1, "文字 🎉", text))
        self.desk.screenshot("letters")
        self.assertEqual(window.names("label"), ["文字 🎉", text])

    def test_what_could_do_more_than_be_read_is_not_shown(self):
        text = "a\0b \x1b[31mred\x1b[0m \u202eturned\u202c \u2066x\u2069 \x7f\x9b\r\nnext\rlast\u2028end\tafter\u0301"
        _, window = self.opened(alert(1, "a\0b\nc\u202e", text), name="a b c ")
        self.desk.screenshot("controls")
        self.assertEqual(window.names("label"),
                         ["a b c ", "a b red  turned   x    \nnext\nlast\nend\tafter\u0301"])

    def test_400_lines_scroll_and_the_button_stays_in_sight(self):
        program, window = self.opened(alert(1, "目前狀態", REPORT))
        self.desk.screenshot("400-lines")
        text = window.find("text")
        self.assertEqual(text.name(), "目前狀態")
        self.assertEqual(text.text(), REPORT)
        self.assertNotIn("editable", text.states())
        button = window.find("push button", "好")
        self.assertOnScreen(window, text, button)
        self.assertLess(sum(text.place()[1::2]), button.place()[1] + 1)
        self.desk.keys("Return")
        self.assertEnds(program, answered(1, 0))

    def test_a_long_text_is_read_from_the_button(self):
        _, window = self.opened(alert(1, "目前狀態", REPORT))
        bar = window.find("scroll bar")
        value = "org.a11y.atspi.Value", "CurrentValue"
        self.assertEqual(bar.property(*value), 0)
        self.desk.keys("Next")
        bar.wait(lambda node: node.property(*value) > 10, "page further down")
        self.desk.keys("End")
        most = bar.property(value[0], "MaximumValue")
        bar.wait(lambda node: node.property(*value) == most, "end of the text")
        self.desk.keys("Home")
        bar.wait(lambda node: node.property(*value) == 0, "begin of the text")

    def test_a_line_of_a_megabyte_is_shown_and_the_window_answers(self):
        for character in ("x", "字", "\u0301", "😀", "a b "):
            line = character * (1_000_000 // len(character.encode()))
            program, window = self.opened(alert(1, "一行", f"前\n{line}\n後"))
            self.desk.screenshot("megabyte")
            text = window.find("text").text()
            self.assertEqual(text.replace("\n", ""), f"前{line}後")
            self.assertLessEqual(max(map(len, text.split("\n"))), 2000)
            self.assertOnScreen(window, window.find("push button", "好"))
            self.desk.keys("space")
            self.assertEnds(program, answered(1, 0))

    def test_a_word_too_long_for_a_line_is_broken(self):
        text = "前 " + "w" * 500 + " 後"
        _, window = self.opened(alert(1, "w" * 250, text))
        self.desk.screenshot("long-word")
        self.assertEqual(window.names("label"), ["w" * 250])
        self.assertEqual(window.find("text").text(), text)
        self.assertOnScreen(window, *window.all())


class Copies(Alerts):
    """What is copied from a text is pasted into a field of an alert on top of it."""

    def copy_all(self, window):
        """Of the text that has the keyboard, until that is done: an alert on top would take the keys away."""
        self.desk.keys("ctrl+a", "ctrl+c", "Tab")
        window.find("push button", "好").has_focus()

    def menu_of(self, node):
        """What a right click on it opens."""
        self.desk.reader.signals.clear()
        left, top, *_ = node.place()
        self.desk.run("xdotool", "mousemove", str(left + 10), str(top + 5), "click", "3")
        return self.desk.reader.told_of("popup menu")

    def pasted(self, program):
        program.show(alert(2, "貼上", view=field("copy")))
        program.window("貼上").find("text").has_focus()
        self.desk.keys("ctrl+v", "Return")
        return program.event()

    def test_a_short_text(self):
        program, window = self.opened(alert(1, text="一 <b>\n二 &"))
        window.find("label", "一 <b>\n二 &").focus()
        self.copy_all(window)
        self.assertEqual(self.pasted(program), answered(2, 0, copy="一 <b>\n二 &"))

    def test_a_long_text_without_the_breaks_that_are_not_its_own(self):
        line = "".join(f"{i:05} " for i in range(1500))
        program, window = self.opened(alert(1, text=f"前\n\n{line}\n後"))
        text = window.find("text")
        self.assertGreater(text.text().count("\n"), 6)
        text.focus()
        self.copy_all(window)
        self.assertEqual(self.pasted(program), answered(2, 0, copy=f"前\n\n{line}\n後"))

    def test_by_the_menu_of_the_text(self):
        for role, text in (("text", REPORT), ("label", "一 <b>\n二 &")):
            with self.subTest(role):
                program, window = self.opened(alert(1, text=text))
                shown = [node for node in window.all() if node.role() == role][-1]
                shown.focus()
                self.desk.keys("ctrl+a")
                menu = self.menu_of(shown)
                self.desk.screenshot(f"context-menu-{role}")
                self.assertEqual([name.partition("\t")[0] for name in menu.names("menu item")], ["複製(C)", "全選"])
                self.desk.keys("c")
                self.desk.reader.wait(lambda: not menu.is_shown(), "end of the menu")
                self.assertEqual(self.pasted(program), answered(2, 0, copy=text))
                self.desk.keys("Escape")
                self.assertEnds(program, answered(1, 0))

    def test_by_the_menu_of_a_short_text_alone(self):
        program, window = self.opened(alert(1, text="一 <b>\n二 &"))
        text = window.find("label", "一 <b>\n二 &")
        menu = self.menu_of(text)
        self.assertEqual(["enabled" in node.states() for node in menu.all() if node.role() == "menu item"], [False, True])
        self.desk.keys("Up", "Return")
        self.desk.reader.wait(lambda: not menu.is_shown(), "end of the menu")
        self.desk.keys("ctrl+c", "Tab")
        window.find("push button", "好").has_focus()
        self.assertEqual(self.pasted(program), answered(2, 0, copy="一 <b>\n二 &"))


class Buttons(Alerts):
    three = "保存並刷新", "打開 .env", "取消"

    def test_each_says_its_place(self):
        for place, title in enumerate(self.three):
            program, window = self.opened(alert(7, buttons=self.three))
            self.assertEqual(window.names("push button"), list(self.three))
            window.find("push button", title).press()
            self.assertEnds(program, answered(7, place))

    def test_they_stand_in_their_order(self):
        _, window = self.opened(alert(1, buttons=self.three))
        lefts = [window.find("push button", title).place()[0] for title in self.three]
        self.assertEqual(lefts, sorted(lefts))

    def test_return_presses_the_first(self):
        for key in ("Return", "KP_Enter"):
            program, _ = self.opened(alert(1, buttons=self.three))
            self.desk.keys(key)
            self.assertEnds(program, answered(1, 0))

    def test_return_in_a_field_and_in_a_text_presses_the_first(self):
        program, window = self.opened(alert(1, text=REPORT, buttons=self.three, view=field("a", "x")))
        window.find("text", "標題").focus()
        self.desk.keys("Return")
        self.assertEnds(program, answered(1, 0, a="x"))
        program, window = self.opened(alert(1, buttons=self.three, view=field("a", "x", "名")))
        window.find("text", "名").has_focus()
        self.desk.keys("Return")
        self.assertEnds(program, answered(1, 0, a="x"))

    def test_space_presses_the_one_that_has_the_keyboard(self):
        program, window = self.opened(alert(1, buttons=self.three))
        window.find("push button", self.three[0]).has_focus()
        self.desk.keys("Tab")
        window.find("push button", self.three[1]).has_focus()
        self.desk.keys("space")
        self.assertEnds(program, answered(1, 1))

    def test_escape_cancels(self):
        program, _ = self.opened(alert(1, buttons=self.three, view=field("a", "x")))
        self.desk.keys("Escape")
        self.assertEnds(program, answered(1, None, a="x"))

    def test_escape_presses_the_only_one(self):
        program, _ = self.opened(alert(1))
        self.desk.keys("Escape")
        self.assertEnds(program, answered(1, 0))

    def test_many_wide_ones_stay_on_the_screen(self):
        titles = [f"按鈕 {i} " + "寬" * 20 for i in range(5)]
        _, window = self.opened(alert(1, buttons=titles))
        self.assertEqual(window.names("push button"), titles)
        self.assertOnScreen(window, *window.all())


class Views(Alerts):
    def test_a_button_inside_is_told_and_the_alert_stays(self):
        program, window = self.opened(alert(1, view=view("button", text="顯示手機配對 QR", action="showPairingQR", width=220)))
        button = window.find("push button", "顯示手機配對 QR")
        width, height = button.place()[2:]
        self.assertEqual(width, 220)
        self.assertGreaterEqual(height, 28)
        for _ in range(2):
            button.press()
            self.assertEqual(program.event(), {"id": 1, "pressed": "showPairingQR"})
        self.desk.keys("Escape")
        self.assertEnds(program, answered(1, 0))

    def test_fields_are_named_and_their_texts_come_with_the_answer(self):
        form = view("stack", titled("網址 & 位址", field("url", "https://x.example", "提示")),
                    titled("權杖", field("token", "", "手機端 API Token")), field("bare", "", "只有提示"),
                    view("textField", identifier="called", accessibilityLabel="叫做"), spacing=10)
        program, window = self.opened(alert(1, buttons=["好", "取消"], view=form))
        self.assertEqual(window.names("text"), ["網址 & 位址", "權杖", "只有提示", "叫做"])
        self.assertEqual(window.find("text", "網址 & 位址").text(), "https://x.example")
        window.find("text", "網址 & 位址").has_focus()
        self.desk.keys("End")
        self.desk.type("/a")
        self.desk.keys("Tab")
        window.find("text", "權杖").has_focus()
        self.desk.type(" tok en ")
        # By the screen reader's way, the button could be pressed before that.
        window.find("text", "權杖").wait(lambda node: node.text() == " tok en ", "typed text")
        window.find("push button", "取消").press()
        self.assertEnds(program, answered(1, 1, url="https://x.example/a", token=" tok en ", bare="", called=""))

    def test_a_text_of_a_field_stays_whole_whatever_it_is(self):
        texts = ["長" * 100_000, "line\nend\r\n\0\x1b\u202e", "   ", "a" * 32_767 + "b"]
        form = view("stack", *(field(f"f{i}", text) for i, text in enumerate(texts)))
        program, window = self.opened(alert(1, view=form))
        self.assertOnScreen(window, *window.all())
        self.desk.screenshot("long-fields")
        self.desk.keys("Return")
        self.assertEnds(program, answered(1, 0, **{f"f{i}": text for i, text in enumerate(texts)}))

    def test_a_secure_field_tells_its_text_to_the_client_only(self):
        secret = "5ecret-Xyz"
        form = view("stack", titled("鑰匙", field("key", secret, "OpenAI API Key", secure=True)), titled("名", field("name")))
        program, window = self.opened(alert(1, view=form))
        self.desk.screenshot("secure")
        secure = window.find("password text", "鑰匙")
        secure.has_focus()
        self.desk.reader.signals.clear()
        self.desk.keys("End")
        self.desk.type("QW")
        self.desk.keys("BackSpace", "ctrl+a", "ctrl+c", "ctrl+Insert")

        def changes():
            return [str(values) for _, _, _, kind, values in self.desk.reader.heard() if kind == "TextChanged"]
        self.desk.reader.wait(lambda: len(changes()) == 3, "typed text")
        self.assertEqual(secure.property("org.a11y.atspi.Text", "CharacterCount"), len(secret) + 1)
        self.assertNotIn("Q", secure.text())
        for boundary in range(7):
            said = secure.ask("org.a11y.atspi.Text", "GetTextAtOffset", "(iu)", 2, boundary)[0]
            self.assertFalse(set(secret) & set(said))
        secure.ask("org.a11y.atspi.EditableText", "CopyText", "(ii)", 0, len(secret))
        window.find("text", "名").focus()
        self.desk.keys("ctrl+v", "shift+Insert")
        window.find("push button", "好").press()
        self.assertEnds(program, answered(1, 0, key=secret + "Q", name=""))
        told = changes()
        self.assertEqual(len(told), 3)
        self.assertFalse([text for text in told if "Q" in text or "W" in text])

    def test_a_picture_has_its_size_and_sharp_edges(self):
        board = ["".join(str((x + y) % 2) for x in range(45)) for y in range(45)]
        _, window = self.opened(alert(1, view=picture(board, name="配對 QR")))
        self.desk.screenshot("picture")
        left, top, width, height = window.find("graphic", "配對 QR").place()
        self.assertEqual((width, height), (260, 260))
        self.assertEqual(self.desk.colours(left, top, width, height), {"#000000", "#FFFFFF"})

    def test_a_picture_is_drawn_in_the_resolution_of_the_screen(self):
        program = self.program(environment={"QT_SCALE_FACTOR": "2"})
        program.show(alert(1, view=picture(["0" * 100] * 100, ["2" * 200] * 200, ["1" * 300] * 300, side=100)))
        left, top, width, height = program.window("標題").find("graphic", "圖").place()
        self.assertEqual(self.desk.colours(2 * left, 2 * top, 2 * width, 2 * height), {"#FF0000"})

    def test_labels_keep_their_width_and_number_of_lines(self):
        text = "專案根目錄用來限定手機端可瀏覽、讀取和展示的項目範圍。" * 8
        lines = [view("label", text=text, width=200, maximumLines=most, fontSize=11) for most in (1, 2, 3)]
        one = view("label", text="https://relay.example.com/" + "x" * 500, width=200, lineBreak="truncateMiddle",
                   textAlignment="center")
        _, window = self.opened(alert(1, text="", view=view("stack", *lines, one, spacing=7)))
        self.desk.screenshot("labels")
        places = [label.place() for label in window.all() if label.role() == "label"][1:]
        self.assertEqual([width for _, _, width, _ in places], [200] * 4)
        heights = [height for *_, height in places]
        self.assertEqual([round(height / heights[0]) for height in heights], [1, 2, 3, 1])
        tops = [top for _, top, *_ in places]
        self.assertEqual([below - above - height for above, below, height in zip(tops, tops[1:], heights)], [7] * 3)
        self.assertEqual(window.names("label")[1:], [text] * 3 + [one["text"]])

    def test_a_container_keeps_its_size_and_puts_its_content_in_the_middle(self):
        stack = view("stack", picture(["01"], name="中"), view("label", text="下", width=290, textAlignment="center"),
                     alignment="centerX", spacing=10)
        _, window = self.opened(alert(1, view=view("container", stack, width=300, height=315, insets=[8, 0, 8, 0])))
        container = next(node for node in window.all() if node.place()[2:] == [300, 315] or
                         tuple(node.place()[2:]) == (300, 315))
        left, top = container.place()[:2]
        self.assertEqual(tuple(window.find("graphic", "中").place()[:2]), (left + 20, top + 8))
        self.assertEqual(window.find("label", "下").place()[0], left + 5)

    def test_all_kinds_of_views_without_anything_in_them(self):
        kinds = "label", "textField", "secureTextField", "button", "image", "stack", "scroll", "container"
        program, _ = self.opened(alert(1, view=view("stack", *map(view, kinds))))
        self.desk.keys("Escape")
        self.assertEqual(program.event()["answered"]["button"], 0)


class Stacked(Alerts):
    def setUp(self):
        super().setUp()
        self.lower = alert(1, "下", buttons=["一", "二"], view=view("button", text="更多", action="more"))

    def test_the_one_on_top_comes_first(self):
        program, window = self.opened(self.lower)
        window.find("push button", "更多").press()
        self.assertEqual(program.event(), {"id": 1, "pressed": "more"})
        program.show(alert(2, "上"))
        program.window("上")
        self.desk.screenshot("stacked")
        self.desk.keys("Return")
        self.assertEqual(program.event(), answered(2, 0))
        program.window("下")
        self.desk.keys("Escape")
        self.assertEnds(program, answered(1, None))

    def test_three_of_them(self):
        program, _ = self.opened(self.lower, alert(2, "中"), alert(3, "上", buttons=["好", "壞"]))
        self.desk.keys("Escape")
        self.assertEqual(program.event(), answered(3, None))
        program.window("中")
        self.desk.keys("Return")
        self.assertEqual(program.event(), answered(2, 0))
        program.window("下")
        self.desk.keys("Return")
        self.assertEnds(program, answered(1, 0))

    def test_one_beneath_that_is_answered_all_the_same_takes_those_on_it_along(self):
        program, window = self.opened(self.lower)
        program.show(alert(2, "中"), alert(3, "上"))
        window.find("push button", "二").press()
        self.assertEnds(program, answered(3, None), answered(2, None), answered(1, 1))

    def test_raising_leaves_the_order(self):
        program, _ = self.opened(self.lower, alert(2, "上"))
        program.send({"raise": 1}, {"raise": 2}, {"raise": 9})
        self.desk.keys("Return")
        self.assertEqual(program.event(), answered(2, 0))
        program.window("下")
        program.send({"raise": 2})
        self.desk.keys("Return")
        self.assertEnds(program, answered(1, 0))


class SmallScreen(Alerts):
    screen = "640x480"

    def test_a_long_text_with_a_view_leaves_room_for_the_buttons(self):
        _, window = self.opened(alert(1, text=REPORT, view=picture(["01", "10"])))
        self.desk.screenshot("small-text")
        self.assertOnScreen(window, window.find("push button", "好"))

    def test_a_form_scrolls(self):
        rows = [titled(f"欄 {i}", field(f"f{i}", str(i), width=500)) for i in range(20)]
        form = view("stack", *rows, spacing=10, insets=[10, 12, 10, 12], width=540)
        scroll = view("scroll", form, width=560, height=560)
        program, window = self.opened(alert(1, buttons=["好", "取消"], view=view("container", scroll, width=560, height=560)))
        self.desk.screenshot("small-form")
        self.assertOnScreen(window, *(window.find("push button", name) for name in ("好", "取消")))
        fields = [node for node in window.all() if node.role() == "text"]
        self.assertEqual(len(fields), 20)
        self.assertOnScreen(fields[0])
        # Where the keyboard goes, the form follows.
        self.desk.keys(*["Tab"] * 19)
        fields[19].has_focus()
        self.assertOnScreen(fields[19])
        self.assertLess(fields[0].place()[1], 0)
        self.desk.keys("Return")
        self.assertEnds(program, answered(1, 0, **{f"f{i}": str(i) for i in range(20)}))

    def test_what_cannot_shrink_scrolls_beside_the_buttons(self):
        _, window = self.opened(alert(1, view=picture(["01", "10"], side=900)))
        self.desk.screenshot("small-picture")
        self.assertOnScreen(window, window.find("push button", "好"))


class Life(Alerts):
    def test_the_end_of_the_input_closes_everything_without_an_answer(self):
        program, _ = self.opened(alert(1), alert(2, "上", view=field("a")))
        program.end_input()
        self.assertEnds(program)

    def test_it_ends_when_there_is_nothing_to_do(self):
        program = self.program()
        program.end_input()
        self.assertEnds(program)

    def test_half_a_line_is_no_request(self):
        program = self.program()
        program.process.stdin.write(b'{"version": 1, "id": 1, "alert"')
        program.end_input()
        self.assertEnds(program)

    def test_without_a_display_it_ends_without_an_answer(self):
        for environment in ({"DISPLAY": ""}, {"DISPLAY": ":9999"}):
            program = self.program(environment=environment)
            program.end_input()
            self.assertNotEqual(program.status(), 0)
            self.assertIn("display", program.complaint())

    def test_when_the_display_goes_it_ends_without_an_answer(self):
        program, _ = self.opened(alert(1))
        other = Desk(type(self))
        away = self.program(environment={"DISPLAY": other.environment["DISPLAY"]})
        away.show(alert(1))
        other.display.kill()
        self.assertNotEqual(away.status(), 0)
        self.desk.keys("Return")
        self.assertEnds(program, answered(1, 0))

    def test_it_ends_when_nobody_takes_its_answers(self):
        program, _ = self.opened(alert(1))
        program.process.stdout.close()
        self.desk.keys("Return")
        self.assertEqual(program.process.wait(PATIENCE), 1)

    def test_a_crash_leaves_nothing_of_what_was_typed(self):
        resource.setrlimit(resource.RLIMIT_CORE, (resource.getrlimit(resource.RLIMIT_CORE)[1],) * 2)
        program, _ = self.opened(alert(1, view=field("a", "x", secure=True)))
        limits = Path(f"/proc/{program.process.pid}/limits").read_text()
        self.assertRegex(limits, r"Max core file size +[01] +[01] ")
        os.kill(program.process.pid, signal.SIGABRT)
        _, status = os.waitpid(program.process.pid, 0)
        self.assertEqual((os.WTERMSIG(status), os.WCOREDUMP(status)), (signal.SIGABRT, False))

    def test_it_starts_no_bus_of_its_own(self):
        program = self.program(environment={"DBUS_SESSION_BUS_ADDRESS": None, "XDG_RUNTIME_DIR": None})
        program.show(alert(1))
        self.assertFalse([name for name in self.desk.names_of_processes() if name == "dbus-launch"])
        program.end_input()
        self.assertEqual(program.status(), 0)

    def test_it_says_what_it_is(self):
        for argument, words in (("--version", "KestruneMenuDialogs 0."), ("--help", "Usage: KestruneMenuDialogs")):
            program = self.program(argument, environment={"DISPLAY": ""})
            self.assertEqual(program.process.wait(PATIENCE), 0)
            self.assertTrue(program.process.stdout.read().decode().startswith(words))


class Refusals(Alerts):
    def assertRefuses(self, program, reason):
        event = program.event()
        self.assertEqual(list(event), ["refused"])
        self.assertIn(reason, event["refused"])
        self.assertEqual(program.status(), 1)
        complaint = program.complaint()
        self.assertEqual(complaint, f"KestruneMenuDialogs: not understood: {event['refused']}\n")
        self.assertNotIn("geheim", complaint)

    def test_another_version(self):
        program = self.program()
        program.send({**alert(1, "geheim"), "version": 2})
        self.assertRefuses(program, "version 2 of the protocol")

    def test_rubbish(self):
        for line in (b"geheim\n", b"\n", b"\xff\xfe\n", b"{}\n", b"[1]\n", b'{"version": 1, "geheim": 1}\n',
                     b'{"version": 1, "id": 1, "alert": {"style": "geheim", "messageText": "", "informativeText": "", '
                     b'"buttons": ["x"]}}\n', b"[" * 100_000 + b"\n"):
            program = self.program()
            program.process.stdin.write(line)
            self.assertRefuses(program, "")

    def test_rubbish_beneath_an_open_window(self):
        program, _ = self.opened(alert(1))
        program.process.stdin.write(b"geheim\n")
        self.assertRefuses(program, "a line that is not of the protocol")

    def test_a_number_that_is_taken(self):
        program, _ = self.opened(alert(1))
        program.send(alert(1))
        self.assertRefuses(program, "open already")

    def test_the_menu_beside_an_alert(self):
        program, _ = self.opened(alert(1))
        program.send({"menu": []})
        self.assertRefuses(program, "while an alert is shown")


if __name__ == "__main__":
    unittest.main()
