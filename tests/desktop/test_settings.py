"""The settings and the pairing code in the tray face: read, typed and scanned, from the menu to the file."""

from rig import isolation
from rig.bus import ITEM
from rig.client import CONNECTED
from rig.display import Rectangle
from rig.onscreen import OnScreen
from rig.processes import read_process, running, wait_for_end
from rig.service import SECRET, note_what_shells_see, stand_in_curl
from rig.windows import GUIDE, PAIRING_FAILED, PAIRING_IMPOSSIBLE, SAVED, SETTINGS

SETTINGS_ROW, GUIDE_ROW = 26, 24
PROJECT_ROW, THREAD_ROW = 8, 9

PAIRING = "手機配對 QR"
PAIRING_BUTTON = "顯示手機配對 QR"
SAVE, OPEN_FILE, CANCEL = BUTTONS = "保存並刷新", "打開 .env", "取消"
FIELDS = API_URL, APP_TOKEN, SERVICE_TOKEN, ROOT, KEY = (
    "手機連線 API URL", "手機 App Token", "Mac 本機 Token", "專案根目錄", "OpenAI API Key")

PLACEHOLDER_URL = "https://relay.example.com"
LENGTH = "org.a11y.atspi.Text", "CharacterCount"

BLACK_AND_WHITE = {(0, 0, 0), (255, 255, 255)}

# Leaves the settings to its user, as long as there are none.
CAUTIOUS_BACKEND = """
echo "$1 asked" > "$HOME/events"
[[ $1 == refresh && ! -e .env ]] && exit 1
exec "{}" "$@"
"""


class Settings(OnScreen):
    """The dialog of settings, with a file of each test's own."""

    def setUp(self):
        self.env = self.session.repo / ".env"
        self.addCleanup(self.end_windows)

    def have(self, text):
        self.env.write_text(text)
        self.addCleanup(self.env.unlink, missing_ok=True)

    def open(self, text=None):
        """The dialog, with that in the file."""
        if text is not None:
            self.have(text)
        self.bus.click(SETTINGS_ROW)
        return self.window(SETTINGS.title)

    def field(self, window, title):
        return window.find("password text" if title == KEY else "text", title)

    def values(self, window):
        """What stands in the fields that are not masked."""
        return [self.field(window, title).text() for title in FIELDS if title != KEY]

    def masked(self, window):
        """How long the text of the masked field is, which tells nobody more."""
        field = self.field(window, KEY)
        self.assertEqual(field.text().strip("●"), "")
        return field.property(*LENGTH)

    def type(self, window, title, text):
        """Types that in the place of what the field holds."""
        self.field(window, title).focus()
        self.screen.keys("ctrl+a", "Delete")
        # Of a text as long as the one before, its length would tell nothing.
        self.field(window, title).wait(lambda node: node.property(*LENGTH) == 0, "empty field")
        self.screen.type(text)
        self.field(window, title).wait(
            lambda node: node.property(*LENGTH) == len(text), "typed text")

    def pair(self, window):
        window.find("push button", PAIRING_BUTTON).press()
        return self.window(PAIRING)

    def back(self, window, beneath):
        """Closes the window on top; the other one has the keyboard again."""
        window.find("push button", "好").press()
        self.assertEqual(self.window(SETTINGS.title), beneath)

    def assertScanned(self, window, link):
        self.assertEqual(self.screen.picture(self.frame(window.find("graphic", PAIRING))).pixels(), BLACK_AND_WHITE)
        self.assertEqual(self.screen.scan(self.frame(window)), link)


class Fields(Settings):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start(switched_off=True)

    def test_everything_is_told_in_its_order(self):
        window = self.open("# own\nKESTRUNE_PUBLIC_API_URL=https://a.example/x?y=1\nKESTRUNE_APP_API_TOKEN= app<b> \n"
                           "KESTRUNE_MAC_SERVICE_TOKEN=\"mac\"\nKESTRUNE_PROJECT_ROOT=/專案 a\nOPENAI_API_KEY=sk-12345\n")
        self.screen.screenshot("settings")
        self.assertEqual(window.names("graphic"), ["訊息"])
        self.assertEqual(window.names("label"), [SETTINGS.title, SETTINGS.text, *SETTINGS.labels])
        self.assertEqual(window.names("push button"), [PAIRING_BUTTON, *BUTTONS])
        self.assertEqual([node.name() for node in window.all() if node.role() in ("text", "password text")],
                         list(FIELDS))
        self.field(window, API_URL).has_focus()
        tops = [node.place()[1] for node in window.all() if node.role() in ("label", "text", "password text")][2:]
        self.assertEqual(tops, sorted(tops))
        self.assertEqual(self.values(window), ["https://a.example/x?y=1", "app<b>", '"mac"', "/專案 a"])
        self.assertEqual(self.masked(window), 8)
        self.choose(window, CANCEL)

    def test_all_of_it_can_be_scrolled_to(self):
        window = self.open()
        last = window.find("label", SETTINGS.labels[-1])
        bar = self.frame(window.find("scroll bar"))
        end = bar.top + bar.height
        self.assertGreater(sum(last.place()[1::2]), end)
        for way in (lambda: self.screen.click(*bar.centre(), button=5), lambda: self.screen.keys("Next")):
            way()
            last.wait(lambda node: sum(node.place()[1::2]) <= end, "end of the settings")
            self.screen.screenshot("settings-end")
            self.screen.run("xdotool", "mousemove", "400", "400", "click", "--repeat", "9", "4")
            last.wait(lambda node: sum(node.place()[1::2]) > end, "begin of the settings")
        self.choose(window, CANCEL)

    def test_an_empty_field_shows_what_belongs_there(self):
        window = self.open("KESTRUNE_PUBLIC_API_URL=\nKESTRUNE_PROJECT_ROOT=\n")
        for title in (API_URL, KEY):
            field, other = self.field(window, title), self.field(window, APP_TOKEN)
            other.focus()
            inside = self.frame(field).within(6)
            self.screen.wait_for_picture(inside, lambda picture: len(picture.pixels()) > 1, f"what belongs into {title}")
            self.type(window, title, " ")
            other.focus()
            if title != KEY:  # where a blank is a sign like all others
                self.screen.wait_for_picture(inside, lambda picture: len(picture.pixels()) == 1, "the blank")
        self.choose(window, CANCEL)

    def test_nothing_is_saved_unless_it_is_asked_for(self):
        text = "KESTRUNE_APP_API_TOKEN= one \n\nX=1"
        for way in (CANCEL, "Escape", OPEN_FILE):
            with self.subTest(way=way):
                window = self.open(text)
                before = self.env.stat()
                self.type(window, APP_TOKEN, "typed")
                if way == "Escape":
                    pid = window.pid()
                    self.screen.keys(way)
                    wait_for_end(pid)
                else:
                    self.choose(window, way)
                if way == OPEN_FILE:
                    self.assertEqual(self.session.events.next(), f"1 {self.env}")
                # Another window can only come once what the first one led to is done.
                self.assertOpens(GUIDE_ROW, GUIDE)
                self.assertEqual(self.env.read_text(), text)
                self.assertEqual(self.env.stat().st_ino, before.st_ino)
                self.assertEqual(self.session.events.pending(), [])

    def test_saved_it_keeps_the_other_lines(self):
        long = "begin" + "x" * 500 + "end"
        text = (f"# mine\nOTHER=1\nHALVASK_APP_API_TOKEN={long}\nKESTRUNE_PROJECT_ROOT=/a\n"
                " OPENAI_API_KEY=indented\nKESTRUNE_PROJECT_ROOT=/b\nlast")
        window = self.open(text)
        self.env.chmod(0o640)
        self.assertEqual(self.field(window, APP_TOKEN).text(), long)
        self.type(window, API_URL, "  https://r.example/?a=b&c  ")
        self.type(window, SERVICE_TOKEN, "  mac <&> \"token\" ")
        self.type(window, ROOT, "")
        self.type(window, KEY, " sk-xyz ")
        self.choose(window, SAVE)
        self.assertShows(SAVED)
        self.assertAsked("refresh", "status")
        self.assertEqual(
            self.env.read_text(),
            f"# mine\nOTHER=1\nHALVASK_APP_API_TOKEN={long}\nKESTRUNE_PROJECT_ROOT=\n OPENAI_API_KEY=indented\n"
            f"KESTRUNE_PROJECT_ROOT=\nlast\n\nKESTRUNE_APP_API_TOKEN={long}\n\n"
            'KESTRUNE_MAC_SERVICE_TOKEN=mac <&> "token"\n\nKESTRUNE_PUBLIC_API_URL=https://r.example/?a=b&c\n\n'
            "OPENAI_API_KEY=sk-xyz")
        self.assertEqual(self.env.stat().st_mode & 0o777, 0o640)
        # The second project root was in no field.
        previous = self.session.repo / ".env.previous"
        self.addCleanup(previous.unlink)
        self.assertEqual((previous.read_text(), previous.stat().st_mode & 0o777), (text, 0o600))
        self.assertEqual(sorted(path.name for path in self.session.repo.glob(".env*")),
                         [".env", ".env.example", ".env.previous"])

    def test_asked_for_again_it_comes_to_the_front_with_the_code_on_top(self):
        settings = self.open("KESTRUNE_PUBLIC_API_URL=https://relay.example.org\nKESTRUNE_APP_API_TOKEN=t0k3n\n")
        self.type(settings, APP_TOKEN, "not saved")
        self.bus.click(SETTINGS_ROW)
        pairing = self.pair(settings)
        self.bus.click(SETTINGS_ROW)
        self.assertEqual(self.window(PAIRING), pairing)
        self.assertEqual({window.name() for window in self.reader.windows()}, {SETTINGS.title, PAIRING})
        self.assertEqual(pairing.pid(), settings.pid())
        self.assertEqual(pairing.names("label"),
                         [PAIRING, "用 iPhone 系統相機掃描，下方 Kestrune 會自動填入 API URL 與 Token。",
                          "API URL：https://relay.example.org"])
        self.screen.screenshot("pairing")
        self.assertEqual(pairing.names("push button"), ["好"])
        self.assertEqual(list(pairing.find("graphic", PAIRING).place()[2:]), [260, 260])
        self.assertScanned(pairing, "kestrune://configure?apiUrl=https://relay.example.org&token=t0k3n")
        self.assertNotIn("t0k3n", " ".join(node.name() for node in pairing.all()))
        self.screen.keys("Escape")
        self.assertEqual(self.window(SETTINGS.title), settings)
        self.assertEqual(self.field(settings, APP_TOKEN).text(), "not saved")
        self.bus.click(GUIDE_ROW)
        self.choose(settings, CANCEL)
        # Nor does a second one come later.
        self.assertShows(GUIDE)

    def test_why_there_is_no_code(self):
        for text, reason in ((f"KESTRUNE_APP_API_TOKEN={'t' * 3000}\n", PAIRING_IMPOSSIBLE), ("", PAIRING_FAILED)):
            with self.subTest(text=text[:50]):
                settings = self.open(text)
                settings.find("push button", PAIRING_BUTTON).press()
                shown, window = self.read(reason.title)
                self.assertEqual(shown, reason)
                self.back(window, settings)
                self.choose(settings, CANCEL)


class DarkDesktop(Settings):
    def test_the_code_is_black_on_white(self):
        self.start(switched_off=True, environment={"QT_QPA_PLATFORMTHEME": "gtk3", "GTK_THEME": "Adwaita:dark"})
        # Of the length of signed tokens.
        token = "".join(f"{i * 7919:x}." for i in range(90))
        settings = self.open(f"HALVASK_APP_API_TOKEN={token}漢\n")
        self.screen.screenshot("settings-dark")
        pairing = self.pair(settings)
        self.screen.screenshot("pairing-dark")
        left, top, *_ = pairing.place()
        self.assertLess(self.screen.picture(Rectangle(left + 1, top + 1, 2, 2)).shades()[-1], 128)
        self.assertScanned(pairing, f"kestrune://configure?apiUrl={PLACEHOLDER_URL}&token={token}%E6%BC%A2")


class FirstSettings(Settings):
    """From a backend without settings to one that works."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        real = cls.session.backend_program.rename(cls.session.backend_program.with_name("real-client"))
        cls.session.stub_backend(CAUTIOUS_BACKEND.format(real))
        cls.seen = note_what_shells_see(cls.session)
        stand_in_curl(cls.session)
        cls.client = cls.session.start()
        cls.session.wait_for_start()
        cls.traffic.wait_for_label(THREAD_ROW, "同步會話：未配置")

    def look_around(self):
        """Notes what all processes tell to whoever asks."""
        with self.seen.open("ab") as seen:
            for pid in running():
                seen.write(read_process(pid, "cmdline") + read_process(pid, "environ"))

    def test_from_the_menu_to_the_project_that_is_shown(self):
        self.assertEqual(self.labels(PROJECT_ROW, THREAD_ROW), ["同步專案：未配置", "同步會話：未配置"])
        self.assertFalse(self.env.exists())
        window = self.open()
        self.assertEqual(self.values(window), [PLACEHOLDER_URL, "", "", str(self.session.home)])
        for title, text in ((API_URL, "https://phone.example"), (APP_TOKEN, f"app-{SECRET}"),
                            (SERVICE_TOKEN, f"mac-{SECRET}"), (ROOT, "/srv/projects"), (KEY, f"sk-{SECRET}")):
            self.type(window, title, text)
            self.look_around()
        self.assertEqual(self.masked(window), len(SECRET) + 3)
        self.choose(window, SAVE)
        shown, window = self.read(SAVED.title)
        self.look_around()
        self.assertFalse(shown.warns)
        self.assertIn("🟢 Mac service: 127.0.0.1:8765 正常", shown.text)
        self.assertNotIn(SECRET, shown.text)
        self.screen.screenshot("saved")
        self.choose(window)

        example = (self.session.repo / ".env.example").read_text()
        for line in (f"KESTRUNE_APP_API_TOKEN=app-{SECRET}", f"KESTRUNE_MAC_SERVICE_TOKEN=mac-{SECRET}",
                     "KESTRUNE_PUBLIC_API_URL=https://phone.example", "KESTRUNE_PROJECT_ROOT=/srv/projects",
                     f"OPENAI_API_KEY=sk-{SECRET}"):
            key = line.partition("=")[0]
            [old] = [each for each in example.splitlines() if each.startswith(key + "=")]
            example = example.replace(old + "\n", line + "\n")
        self.assertEqual(self.env.read_text(), example)
        self.assertEqual(self.env.stat().st_mode & 0o777, 0o600)

        self.traffic.wait_for_label(THREAD_ROW, "同步會話：Tray menu and status lamp")
        self.assertEqual(self.labels(2, PROJECT_ROW), [CONNECTED, "同步專案：Kestrune Menu Client"])
        self.assertEqual(self.bus.get(ITEM, "ToolTip")[2], "Kestrune · 已連線 · Kestrune Menu Client")

        window = self.open()
        pairing = self.pair(window)
        self.look_around()
        self.assertScanned(pairing, f"kestrune://configure?apiUrl=https://phone.example&token=app-{SECRET}")
        self.back(pairing, window)
        self.choose(window, CANCEL)

        seen = self.seen.read_bytes()
        self.assertIn(b"KestruneMenuDialogs", seen)
        self.assertIn(b"/desktop/projects", seen)
        self.assertIn(b"kestrune-mac-client refresh", seen)
        self.assertNotIn(SECRET.encode(), seen)
        self.assertEqual(self.client.end(), 0)
        self.assertNotIn(SECRET, self.client.output.all() + self.client.errors.all())


if __name__ == "__main__":
    isolation.main()
