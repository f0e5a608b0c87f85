"""The views inside an alert: fields, pictures, labels, and the containers around them."""

from rig import isolation
from rig.asked import alert, answered, field, insets, picture, titled, view
from rig.desk import OnDesk
from rig.display import Rectangle

REPORT = "\n".join(f"[OK] 檢查 {i}: com.dovrel.kestrune.part{i} 正在運行 <b>&amp; {i * 37}</b>" for i in range(400))


class Views(OnDesk):
    def test_a_field_returns_any_text_unchanged(self):
        texts = ["長" * 100_000, "line\nend\r\n\0\x1b\u202e", "   ", "a" * 32_767 + "b"]
        form = view("stack", *(field(f"f{i}", text) for i, text in enumerate(texts)))
        program, window = self.opened(alert(1, view=form))
        self.assertOnScreen(window, *window.all())
        self.screen.screenshot("long-fields")
        self.screen.keys("Return")
        self.assertEnds(program, answered(1, 0, **{f"f{i}": text for i, text in enumerate(texts)}))

    def test_a_secure_field_reveals_its_text_to_the_client_only(self):
        secret = "5ecret-Xyz"
        form = view("stack", titled("鑰匙", field("key", secret, "OpenAI API Key", secure=True)), titled("名", field("name")))
        program, window = self.opened(alert(1, view=form))
        self.screen.screenshot("secure")
        secure = window.find("password text", "鑰匙")
        secure.has_focus()
        self.reader.signals.clear()
        self.screen.keys("End")
        self.screen.type("QW")
        self.screen.keys("BackSpace", "ctrl+z", "ctrl+a", "ctrl+c", "ctrl+Insert")

        def changes():
            return [str(values) for _, _, _, kind, values in self.reader.heard() if kind == "TextChanged"]
        self.reader.wait(lambda: len(changes()) == 3, "typed text")
        self.assertEqual(secure.property("org.a11y.atspi.Text", "CharacterCount"), len(secret) + 1)
        self.assertNotIn("Q", secure.text())
        for boundary in range(7):
            said = secure.ask("org.a11y.atspi.Text", "GetTextAtOffset", "(iu)", 2, boundary)[0]
            self.assertFalse(set(secret) & set(said))
        secure.ask("org.a11y.atspi.EditableText", "CopyText", "(ii)", 0, len(secret))
        window.find("text", "名").focus()
        self.screen.keys("ctrl+v", "shift+Insert")
        window.find("push button", "好").press()
        self.assertEnds(program, answered(1, 0, key=secret + "Q", name=""))
        told = changes()
        self.assertEqual(len(told), 3)
        self.assertFalse([text for text in told if "Q" in text or "W" in text])

    def test_a_picture_is_drawn_in_the_resolution_of_the_screen(self):
        # The smaller picture, which is red, is for terminals.
        code = picture(["2" * 10] * 10, ["01" * 100] * 200, side=100)
        _, window = self.opened(alert(1, view=code), environment={"QT_SCALE_FACTOR": "2"})
        left, top, width, height = window.find("graphic", "圖").place()
        graphic = Rectangle(2 * left, 2 * top, 2 * width, 2 * height)
        self.assertEqual(self.screen.picture(graphic).pixels(), {(0, 0, 0), (255, 255, 255)})

    def test_labels_keep_their_width_and_number_of_lines(self):
        text = "專案根目錄用來限定手機端可瀏覽、讀取和展示的項目範圍。" * 8
        lines = [view("label", text=text, width=200, maximumLines=most, fontSize=11) for most in (1, 2, 3)]
        one = view("label", text="https://relay.example.com/" + "x" * 500, width=200, lineBreak="truncateMiddle",
                   textAlignment="center")
        _, window = self.opened(alert(1, text="", view=view("stack", *lines, one, spacing=7)))
        self.screen.screenshot("labels")
        places = [label.place() for label in window.all() if label.role() == "label"][1:]
        self.assertEqual([width for _, _, width, _ in places], [200] * 4)
        heights = [height for *_, height in places]
        self.assertEqual([round(height / heights[0]) for height in heights], [1, 2, 3, 1])
        tops = [top for _, top, *_ in places]
        self.assertEqual([below - above - height for above, below, height in zip(tops, tops[1:], heights)], [7] * 3)
        self.assertEqual(window.names("label")[1:], [text] * 3 + [one["text"]])

    def test_long_values_show_their_ends(self):
        values = [{"text": "x" * 200 + end, "width": 200} for end in "lw"]
        labels = [view("label", lineBreak="truncateMiddle", **value) for value in values]
        fields = [view("textField", **value) for value in values]
        _, window = self.opened(alert(1, view=view("stack", field("focused"), *labels, *fields)))
        for role in "label", "text":
            places = [node.place() for node in window.all() if node.role() == role][-2:]
            ends = [self.screen.picture(Rectangle(left + width * 3 // 4, top, width // 4, height)).data
                    for left, top, width, height in places]
            self.assertEqual(len(set(ends)), 2, role)

    def test_a_container_keeps_its_size_and_puts_its_content_in_the_middle(self):
        stack = view("stack", picture(["01"], name="中"), view("label", text="下", width=290, textAlignment="center"),
                     alignment="centerX", spacing=10)
        _, window = self.opened(alert(1, view=view("container", stack, width=300, height=315, insets=insets(8, 0, 8, 0))))
        container = next(node for node in window.all() if tuple(node.place()[2:]) == (300, 315))
        left, top = container.place()[:2]
        self.assertEqual(tuple(window.find("graphic", "中").place()[:2]), (left + 20, top + 8))
        self.assertEqual(window.find("label", "下").place()[0], left + 5)

    def test_empty_views_of_every_kind(self):
        kinds = "label", "textField", "secureTextField", "button", "image", "stack", "scroll", "container"
        program, _ = self.opened(alert(1, view=view("stack", *map(view, kinds))))
        self.screen.keys("Escape")
        self.assertEqual(program.event()["answered"]["answer"]["button"], 0)


class SmallScreen(OnDesk):
    width, height = 640, 480

    def test_a_long_text_with_a_view_leaves_room_for_the_buttons(self):
        _, window = self.opened(alert(1, text=REPORT, view=picture(["01", "10"])))
        self.screen.screenshot("small-text")
        self.assertOnScreen(window, window.find("push button", "好"))

    def test_a_form_scrolls(self):
        rows = [titled(f"欄 {i}", field(f"f{i}", str(i), width=500)) for i in range(20)]
        form = view("stack", *rows, spacing=10, insets=insets(10, 12, 10, 12), width=540)
        scroll = view("scroll", form, width=560, height=560)
        program, window = self.opened(alert(1, buttons=["好", "取消"], view=view("container", scroll, width=560, height=560)))
        self.screen.screenshot("small-form")
        self.assertOnScreen(window, *(window.find("push button", name) for name in ("好", "取消")))
        fields = [node for node in window.all() if node.role() == "text"]
        self.assertEqual(len(fields), 20)
        self.assertOnScreen(fields[0])
        # The form scrolls to the field that gets the focus.
        self.screen.keys(*["Tab"] * 19)
        fields[19].has_focus()
        self.assertOnScreen(fields[19])
        self.assertLess(fields[0].place()[1], 0)
        self.screen.keys("Return")
        self.assertEnds(program, answered(1, 0, **{f"f{i}": str(i) for i in range(20)}))

    def test_a_view_that_cannot_shrink_scrolls_above_the_buttons(self):
        _, window = self.opened(alert(1, view=picture(["01", "10"], side=900)))
        self.screen.screenshot("small-picture")
        self.assertOnScreen(window, window.find("push button", "好"))


isolation.main()
