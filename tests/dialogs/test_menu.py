"""The window that shows the menu."""

from rig import isolation
from rig.asked import item, menu, rows
from rig.desk import OnDesk

CHOICES = ["開機自動啟動菜單欄", "自動維持連線", "保持 Mac 醒著（防止斷線）", "使用官方 ChatGPT 模式", "手動停止連線", "查看完整診斷",
           "檢查 Codex 版本與 Remote Control", "打開 Codex App", "官方 ChatGPT 連接說明", "打開專案資料夾", "連線與 Token 設定…",
           "重新啟動菜單欄", "退出 Kestrune"]


class Menus(OnDesk):
    def setUp(self):
        # Move the pointer away, because a row beneath the pointer gets the focus.
        self.screen.point_at(0, 0)

    def open(self, shown=None):
        self.program, self.window = self.opened(shown or menu())
        self.rows = {node.name(): node for node in self.window.all() if node.role() in ("push button", "check box")}

    def assertEnds(self, *events):
        OnDesk.assertEnds(self, self.program, *events)

    def marked(self):
        return [name for name, row in self.rows.items() if "focused" in row.states()]

    def press(self, *keys, marks):
        self.screen.keys(*keys)
        self.rows[marks].has_focus()

    def bar(self):
        return self.window.find("scroll bar").property("org.a11y.atspi.Value", "CurrentValue")


class Looks(Menus):
    def test_the_window_has_the_rows_of_the_menu(self):
        self.open()
        self.screen.screenshot("menu")
        self.assertEqual(self.window.role(), "dialog")
        labels = [row["title"] for row in menu()["showMenu"]["menu"]["items"][:11]] + ["連線與常駐", "查看與設定"]
        self.assertEqual(self.window.names("label"), labels)
        self.assertEqual(list(self.rows), CHOICES)
        self.assertEqual(self.window.names("check box"), CHOICES[:3])
        self.assertEqual(self.window.names("separator"), [""] * 3)
        self.assertEqual(["checked" in self.rows[name].states() for name in CHOICES[:3]], [False, True, True])
        self.assertTrue(all("enabled" in row.states() for row in self.rows.values()))
        # The rows are ordered from top to bottom, have the same width, and are not cut off.
        places = [node.place() for node in self.window.all() if node.role() in ("label", "push button", "check box")]
        self.assertEqual(places, sorted(places, key=lambda place: place[1]))
        self.assertEqual(len({(left, width) for left, _, width, _ in places}), 1)
        left, top, width, height = self.window.place()
        self.assertLessEqual(places[-1][1] + places[-1][3], top + height)
        self.assertEqual({name: self.rows[name].keys() for name in CHOICES}, dict(zip(CHOICES, [
            *(f"Ctrl+{key}" for key in "LAKMXSCDGO,"), "Ctrl+Shift+R", "Ctrl+Q"])))

    def test_the_window_is_wide_enough_for_a_row(self):
        key = item(1, "a", "a", "R")
        for title in ("檢查 Codex 版本與 Remote Control", "長" * 20, "l" * 30):
            for row in (item(2, title, "b", "c"), item(2, title, "b", enabled=False), item(2, title, enabled=False)):
                with self.subTest(row=row):
                    self.open(rows(key, row))
                    # A shortened row would have its whole title as tool tip, and so as description.
                    self.assertEqual([node.description() for node in self.window.all() if node.name() == title], [""])
                    self.program.end_input()
                    self.assertEnds()

    def test_labels_and_disabled_rows_are_elided_alike(self):
        lengths = range(20, 60)
        shown = [item(1, "a", "a", "R")]
        for length in lengths:
            shown += [item(100 + length, "長" * length, enabled=False), item(length, "高" * length, "b", enabled=False)]
        self.open(rows(*shown))
        self.screen.screenshot("menu-cut")
        cut = {node.name() for node in self.window.all() if node.description()}
        self.assertIn("長" * lengths[-1], cut)
        self.assertNotIn("長" * lengths[0], cut)
        self.assertEqual({length for length in lengths if "高" * length in cut},
                         {length for length in lengths if "長" * length in cut})

    def test_titles_are_plain_text_in_one_row(self):
        self.open(rows(item(1, "<b>a</b> &b _c\n\0\u202ed", "x"), item(2, "l" * 500, enabled=False),
                       item(3, "off", "y", "z", enabled=False), item(4, "off too", "y", checked=True, enabled=False)))
        self.screen.screenshot("menu-odd")
        self.assertEqual(list(self.rows), ["<b>a</b> &b _c   d", "off", "off too"])
        self.assertEqual(self.window.names("label"), ["l" * 197 + "..."])
        self.assertNotIn("enabled", self.rows["off"].states())
        self.assertLess(self.window.place()[2], 700)
        self.screen.keys("ctrl+z", "Down", "Return")
        self.assertEnds({"chosen": {"item": 1}})


class Choosing(Menus):
    def test_a_row_is_clicked(self):
        self.open()
        left, top, width, height = self.rows["打開專案資料夾"].place()
        self.screen.point_at(left + width // 2, top + height // 2)
        self.rows["打開專案資料夾"].has_focus()
        self.screen.screenshot("menu-marked")
        self.screen.click(left + width // 2, top + height // 2)
        self.assertEnds({"chosen": {"item": 25}})

    def test_shortcuts_and_presses_choose_a_row(self):
        for key, number in {"ctrl+l": 14, "ctrl+comma": 26, "ctrl+shift+r": 27}.items():
            self.open()
            self.screen.keys(key)
            self.assertEnds({"chosen": {"item": number}})
        self.open()
        self.rows["自動維持連線"].press()
        self.assertEnds({"chosen": {"item": 15}})

    def test_no_row_has_the_focus_at_first_and_labels_cannot_be_clicked(self):
        self.open()
        self.assertEqual(self.marked(), [])
        self.screen.keys("Return", "space")
        left, top, width, height = self.window.find("label", "目前網路：Wi-Fi").place()
        self.screen.click(left + width // 2, top + height // 2)
        self.press("Down", marks=CHOICES[0])
        self.screen.keys("Return")
        self.assertEnds({"chosen": {"item": 14}})

    def test_arrow_keys_skip_labels_and_wrap_around(self):
        self.open()
        self.press("Up", marks=CHOICES[-1])
        self.press("Down", marks=CHOICES[0])
        self.press(*["Down"] * 4, marks="手動停止連線")
        self.press("Down", marks="查看完整診斷")
        self.press("Up", marks="手動停止連線")
        self.press("End", marks=CHOICES[-1])
        self.press("Home", marks=CHOICES[0])
        self.press("Tab", marks=CHOICES[1])
        self.press("shift+Tab", marks=CHOICES[0])
        self.screen.keys("space")
        self.assertEnds({"chosen": {"item": 14}})

    def test_the_window_is_closed_without_a_choice(self):
        for close in (lambda: self.screen.keys("Escape"), lambda: self.program.end_input()):
            self.open()
            close()
            self.assertEnds()


class Following(Menus):
    def test_rows_change_in_place_and_keep_the_focus(self):
        self.open()
        self.press("Down", "Down", marks="自動維持連線")
        status = self.window.find("label", "🟢 連線狀態：已連線")
        place = status.place()
        self.program.send(menu("🔴 連線狀態：異常 <b>", checked=False))
        status.wait(lambda node: node.name() == "🔴 連線狀態：異常 <b>", "other status")
        self.assertEqual(status.place(), place)
        self.rows["自動維持連線"].wait(lambda node: "checked" not in node.states(), "mark taken away")
        self.assertEqual(self.marked(), ["自動維持連線"])
        self.screen.keys("Return")
        self.assertEnds({"chosen": {"item": 15}})

    def test_a_row_whose_command_changes_keeps_the_focus(self):
        self.open()
        row = self.rows["手動停止連線"]
        row.focus()
        self.program.send(menu(connection="refresh"))
        row.wait(lambda node: node.name() == "立即重新檢查連線", "other command")
        self.assertEqual(row.keys(), "Ctrl+R")
        self.assertIn("focused", row.states())
        self.screen.keys("ctrl+x", "ctrl+r")
        self.assertEnds({"chosen": {"item": 18}})

    def test_when_the_focused_row_is_disabled_no_other_row_gets_the_focus(self):
        self.open()
        row = self.rows["手動停止連線"]
        row.focus()
        self.program.send(menu(connection="busy"))
        row.wait(lambda node: node.role() == "label", "label")
        self.assertIn("focused", row.states())
        self.screen.screenshot("menu-busy")
        self.assertEqual(self.window.names("label")[-2:], ["正在重新檢查並恢復連線…", "查看與設定"])
        self.screen.keys("Return", "space", "ctrl+x")
        self.press("Down", marks="查看完整診斷")
        self.program.send(menu(connection="stop"))
        command = self.reader.wait(lambda: self.window.find("push button", "手動停止連線"), "command")
        self.assertEqual(self.window.names("push button")[1], "手動停止連線")
        self.press("Up", "Up", marks="使用官方 ChatGPT 模式")
        self.screen.keys("Tab")
        command.has_focus()
        self.screen.keys("Return")
        self.assertEnds({"chosen": {"item": 18}})

    def test_a_longer_row_widens_the_window_for_good(self):
        self.open()
        width = self.window.place()[2]
        self.program.send(menu("🟡 連線狀態：" + "慢" * 30))
        self.window.wait(lambda node: node.place()[2] > width, "wider window")
        width = self.window.place()[2]
        self.program.send(menu("🟢"))
        self.reader.wait(lambda: self.window.find("label", "🟢"), "other status")
        self.assertEqual(self.window.place()[2], width)


class SmallScreen(Menus):
    width, height = 640, 480

    def test_the_window_fits_the_screen_and_scrolls_with_the_focus(self):
        self.open()
        self.screen.screenshot("menu-small")
        _, top, _, height = self.window.place()
        self.assertTrue(0 <= top <= top + height <= 480)
        self.assertEqual(self.bar(), 0)
        self.press("Up", marks=CHOICES[-1])
        self.assertGreater(self.bar(), 100)
        _, row, _, high = self.rows[CHOICES[-1]].place()
        self.assertLessEqual(row + high, top + height)
        self.press("Down", marks=CHOICES[0])
        # The window has scrolled to the top, so the rows above the marked row are visible too.
        self.assertEqual(self.bar(), 0)
        self.screen.keys("Next")
        self.window.find("scroll bar").wait(lambda _: self.bar() > 100, "page further down")

    def test_a_changed_menu_keeps_its_scroll_position(self):
        self.open()
        self.press("Up", marks=CHOICES[-1])
        before = self.bar()
        self.program.send(menu("🔴 連線狀態：異常", connection="busy"))
        self.reader.wait(lambda: self.window.find("label", "正在重新檢查並恢復連線…"), "busy row")
        self.assertEqual(self.bar(), before)
        self.assertIn("focused", self.rows[CHOICES[-1]].states())


isolation.main()
