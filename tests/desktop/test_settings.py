"""The settings and the pairing code in the tray face: read, typed and scanned, from the menu to the file."""

import subprocess

from support import isolation
from desktop.bus import ITEM
from desktop.onscreen import OnScreen
from support.service import SECRET, note_what_shells_see, stand_in_curl
from desktop.session import CONNECTED, end_process, read_process, running, wait_for_end
from support.windows import GUIDE, PAIRING_FAILED, PAIRING_IMPOSSIBLE, SAVED, SETTINGS
from desktop.xfce import Rectangle

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
        # What a failing test leaves on the screen would be in the way of all others.
        self.addCleanup(lambda: [end_process(pid) for pid in self.windows()])

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
        self.screen.run("xdotool", "key", "ctrl+a", "Delete")
        # Of a text as long as the one before, its length would tell nothing.
        self.field(window, title).wait(lambda node: node.property(*LENGTH) == 0, "empty field")
        # By way of a pipe: what is typed here must be in no command line.
        subprocess.run(["xdotool", "type", "--delay", "0", "--file", "-"], input=text.encode(), check=True,
                       env=self.session.environment)
        self.field(window, title).wait(
            lambda node: node.property(*LENGTH) == len(text), "typed text")

    def choose(self, window, button):
        pid = window.pid()
        window.find("push button", button).press()
        wait_for_end(pid)

    def dialogs_open(self):
        return [window.name() for application in self.reader.applications() for window in application.children()]

    @staticmethod
    def frame(node, border=0):
        """Where it is, without its border."""
        left, top, width, height = node.place()
        return Rectangle(left + border, top + border, width - 2 * border, height - 2 * border)

    def picture_of(self, node):
        return self.screen.picture(self.frame(node))

    def scan(self, window):
        """What a camera reads from the screen with that window on it."""
        picture = self.session.root / "screen.png"
        self.screen.save(Rectangle(*window.place()), picture)
        return self.screen.run("zbarimg", "--nodbus", "--quiet", "--raw", "-Sbinary", str(picture)).decode()


class Fields(Settings):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.session.program("xdg-open", 'echo "$# $1" > "$HOME/events"\n')
        # Not by way of a login shell, as the commands of the backend.
        cls.start_switched_off(environment={"PATH": f"{cls.session.bin}:{cls.session.environment['PATH']}"})

    def assertShown(self, text, values, length_of_key=0):
        window = self.open(text)
        self.assertEqual(self.values(window), values)
        self.assertEqual(self.masked(window), length_of_key)
        self.choose(window, CANCEL)

    def test_everything_is_told_in_its_order(self):
        window = self.open()
        self.assertEqual(window.names("graphic"), ["訊息"])
        self.assertEqual(window.names("label"), [SETTINGS.title, SETTINGS.text, *SETTINGS.labels])
        self.assertEqual(window.names("push button"), [PAIRING_BUTTON, *BUTTONS])
        self.assertEqual([node.name() for node in window.all() if node.role() in ("text", "password text")],
                         list(FIELDS))
        self.field(window, API_URL).has_focus()
        tops = [node.place()[1] for node in window.all() if node.role() in ("label", "text", "password text")][2:]
        self.assertEqual(tops, sorted(tops))
        self.choose(window, CANCEL)

    def test_without_a_file_there_are_the_usual_values(self):
        self.assertShown(None, [PLACEHOLDER_URL, "", "", str(self.session.home)])

    def test_the_values_of_the_file(self):
        self.assertShown("# own\nKESTRUNE_PUBLIC_API_URL=https://a.example/x?y=1\nKESTRUNE_APP_API_TOKEN= app<b> \n"
                         "KESTRUNE_MAC_SERVICE_TOKEN=\"mac\"\nKESTRUNE_PROJECT_ROOT=/專案 a\nOPENAI_API_KEY=sk-12345\n",
                         ["https://a.example/x?y=1", "app<b>", '"mac"', "/專案 a"], 8)

    def test_former_names_count_where_there_is_no_present_one(self):
        self.assertShown("HALVASK_APP_API_TOKEN=app\nHALVASK_MAC_SERVICE_TOKEN=mac\nHALVASK_PROJECT_ROOT=/r\n"
                         "HALVASK_PUBLIC_API_URL=https://no.example\nHALVASK_OPENAI_API_KEY=no\n",
                         [PLACEHOLDER_URL, "app", "mac", "/r"])

    def test_empty_values_are_values(self):
        former = "HALVASK_APP_API_TOKEN=app\nHALVASK_MAC_SERVICE_TOKEN=mac\nHALVASK_PROJECT_ROOT=/r\n"
        self.assertShown("KESTRUNE_PUBLIC_API_URL=\nKESTRUNE_APP_API_TOKEN=\nKESTRUNE_MAC_SERVICE_TOKEN=\n"
                         "KESTRUNE_PROJECT_ROOT=\nOPENAI_API_KEY=\n" + former, ["", "", "", ""])

    def test_the_file_is_read_anew_each_time(self):
        self.assertShown("KESTRUNE_APP_API_TOKEN=one\n", [PLACEHOLDER_URL, "one", "", str(self.session.home)])
        self.assertShown("KESTRUNE_APP_API_TOKEN=two\n", [PLACEHOLDER_URL, "two", "", str(self.session.home)])

    def test_all_of_it_can_be_scrolled_to(self):
        window = self.open()
        last = window.find("label", SETTINGS.labels[-1])
        bar = self.frame(window.find("scroll bar"))
        end = bar.top + bar.height
        self.assertGreater(sum(last.place()[1::2]), end)
        for way in (["mousemove", *map(str, bar.centre()), "click", "5"],
                    ["key", "Next"]):
            with self.subTest(way=way[0]):
                self.screen.run("xdotool", *way)
                last.wait(lambda node: sum(node.place()[1::2]) <= end, "end of the settings")
                self.screen.screenshot("settings-end")
                self.screen.run("xdotool", "mousemove", "400", "400", "click", "--repeat", "9", "4")
                last.wait(lambda node: sum(node.place()[1::2]) > end, "begin of the settings")
        self.choose(window, CANCEL)

    def test_an_empty_field_shows_what_belongs_there(self):
        window = self.open("KESTRUNE_PUBLIC_API_URL=\nKESTRUNE_PROJECT_ROOT=\n")
        for title in FIELDS:
            field = self.field(window, title)
            self.field(window, APP_TOKEN if title != APP_TOKEN else KEY).focus()
            self.screen.wait_for_picture(self.frame(field, 6), lambda picture: len(picture.pixels()) > 1,
                                         f"what belongs into {title}")
            self.type(window, title, " ")
            self.field(window, APP_TOKEN if title != APP_TOKEN else KEY).focus()
            if title != KEY:  # where a blank is a sign like all others
                self.screen.wait_for_picture(self.frame(field, 6), lambda picture: len(picture.pixels()) == 1,
                                             f"the blank in {title}")
        self.choose(window, CANCEL)

    def test_a_long_value_is_cut_in_the_middle_and_saved_whole(self):
        token = "begin" + "x" * 500 + "end"
        window = self.open(f"X=1\nKESTRUNE_APP_API_TOKEN={token}\nOPENAI_API_KEY=sk-1234\n")
        self.screen.screenshot("settings")
        self.assertEqual(self.field(window, APP_TOKEN).text(), token)
        self.choose(window, SAVE)
        self.assertShows(SAVED)
        self.assertAsked("refresh", "status")
        self.assertIn(f"\nKESTRUNE_APP_API_TOKEN={token}\n", self.env.read_text())

    def test_cancelled_it_changes_nothing(self):
        text = "KESTRUNE_APP_API_TOKEN= one \n\nX=1"
        for way in (CANCEL, "Escape"):
            with self.subTest(way=way):
                window = self.open(text)
                before = self.env.stat()
                for title in FIELDS:
                    self.type(window, title, "typed")
                if way == CANCEL:
                    self.choose(window, CANCEL)
                else:
                    pid = window.pid()
                    self.screen.run("xdotool", "key", way)
                    wait_for_end(pid)
                # Another window can only come once what the first one led to is done.
                self.assertOpens(GUIDE_ROW, GUIDE)
                self.assertEqual(self.env.read_text(), text)
                self.assertEqual(self.env.stat().st_ino, before.st_ino)
                self.assertEqual(self.session.events.pending(), [])

    def test_the_file_is_opened_and_nothing_is_saved(self):
        text = "KESTRUNE_APP_API_TOKEN=one\n"
        window = self.open(text)
        self.type(window, APP_TOKEN, "typed")
        self.choose(window, OPEN_FILE)
        self.assertEqual(self.session.events.next(), f"1 {self.env}")
        self.assertOpens(GUIDE_ROW, GUIDE)
        self.assertEqual(self.env.read_text(), text)
        self.assertEqual(self.session.events.pending(), [])

    def test_saved_it_keeps_the_other_lines(self):
        text = ("# mine\nOTHER=1\nHALVASK_APP_API_TOKEN=old\nKESTRUNE_PROJECT_ROOT=/a\n"
                " OPENAI_API_KEY=indented\nKESTRUNE_PROJECT_ROOT=/b\nlast")
        window = self.open(text)
        self.env.chmod(0o640)
        self.type(window, API_URL, "  https://r.example/?a=b&c  ")
        self.type(window, SERVICE_TOKEN, "  mac <&> \"token\" ")
        self.type(window, ROOT, "")
        self.type(window, KEY, " sk-xyz ")
        self.choose(window, SAVE)
        self.assertShows(SAVED)
        self.assertAsked("refresh", "status")
        self.assertEqual(
            self.env.read_text(),
            "# mine\nOTHER=1\nHALVASK_APP_API_TOKEN=old\nKESTRUNE_PROJECT_ROOT=\n OPENAI_API_KEY=indented\n"
            "KESTRUNE_PROJECT_ROOT=\nlast\n\nKESTRUNE_APP_API_TOKEN=old\n\n"
            'KESTRUNE_MAC_SERVICE_TOKEN=mac <&> "token"\n\nKESTRUNE_PUBLIC_API_URL=https://r.example/?a=b&c\n\n'
            "OPENAI_API_KEY=sk-xyz")
        self.assertEqual(self.env.stat().st_mode & 0o777, 0o640)
        # The second project root was in no field.
        previous = self.session.repo / ".env.previous"
        self.addCleanup(previous.unlink)
        self.assertEqual((previous.read_text(), previous.stat().st_mode & 0o777), (text, 0o600))
        self.assertEqual(sorted(path.name for path in self.session.repo.glob(".env*")),
                         [".env", ".env.example", ".env.previous"])

    def test_what_cannot_be_saved_is_told(self):
        self.env.mkdir()
        self.addCleanup(self.env.rmdir)
        window = self.open()
        self.assertEqual(self.values(window), [PLACEHOLDER_URL, "", "", str(self.session.home)])
        self.choose(window, SAVE)
        self.assertShows(SETTINGS.failed("Is a directory"))
        self.assertEqual(list(self.env.iterdir()), [])
        self.assertEqual(list(self.session.repo.glob(".env.*")), [self.session.repo / ".env.example"])
        self.assertEqual(self.session.events.pending(), [])

    def test_asked_for_again_it_comes_to_the_front(self):
        window = self.open()
        self.type(window, APP_TOKEN, "begun")
        self.bus.call(ITEM, "Activate", "ii", 0, 0)
        menu = self.window("Kestrune")
        menu_pid = menu.pid()
        self.bus.click(SETTINGS_ROW)
        self.window(SETTINGS.title)
        self.assertEqual(sorted(self.dialogs_open()), ["Kestrune", SETTINGS.title])
        self.assertEqual(self.field(window, APP_TOKEN).text(), "begun")
        self.bus.click(GUIDE_ROW)
        self.choose(window, CANCEL)
        # Nor does a second one come later.
        self.assertShows(GUIDE)
        self.screen.run("xdotool", "key", "Escape")
        wait_for_end(menu_pid)


class Pairing(Settings):
    url = "https://relay.example.org"

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start_switched_off()

    def pair(self, window):
        window.find("push button", PAIRING_BUTTON).press()
        return self.window(PAIRING)

    def back(self, window, beneath):
        """Closes the window on top; the other one has the keyboard again."""
        window.find("push button", "好").press()
        self.assertEqual(self.window(SETTINGS.title), beneath)

    def assertPairs(self, link, text):
        settings = self.open(text)
        pairing = self.pair(settings)
        self.assertEqual(self.scan(pairing), link)
        self.back(pairing, settings)
        self.choose(settings, CANCEL)

    def test_the_code_stands_on_top_and_says_what_the_file_says(self):
        settings = self.open(f"KESTRUNE_PUBLIC_API_URL={self.url}\nKESTRUNE_APP_API_TOKEN=t0k3n\n")
        self.type(settings, APP_TOKEN, "not saved")
        for _ in range(2):
            pairing = self.pair(settings)
            self.assertEqual(pairing.pid(), settings.pid())
            self.assertEqual(pairing.names("label"),
                             [PAIRING, "用 iPhone 系統相機掃描，下方 Kestrune 會自動填入 API URL 與 Token。",
                              f"API URL：{self.url}"])
            self.screen.screenshot("pairing")
            self.assertEqual(pairing.names("push button"), ["好"])
            self.assertEqual(pairing.names("graphic"), ["訊息", PAIRING])
            code = pairing.find("graphic", PAIRING)
            self.assertEqual(list(code.place()[2:]), [260, 260])
            self.assertEqual(self.picture_of(code).pixels(), BLACK_AND_WHITE)
            self.assertEqual(self.scan(pairing),
                             "kestrune://configure?apiUrl=https://relay.example.org&token=t0k3n")
            self.assertNotIn("t0k3n", " ".join(node.name() for node in pairing.all()))
            self.back(pairing, settings)
        self.assertEqual(self.field(settings, APP_TOKEN).text(), "not saved")
        self.choose(settings, CANCEL)

    def test_escape_closes_the_code_alone(self):
        settings = self.open("KESTRUNE_APP_API_TOKEN=t\n")
        self.pair(settings)
        self.screen.run("xdotool", "key", "Escape")
        self.assertEqual(self.window(SETTINGS.title), settings)
        self.choose(settings, CANCEL)

    def test_asked_for_again_beneath_the_code_both_stay(self):
        settings = self.open("KESTRUNE_APP_API_TOKEN=t\n")
        pairing = self.pair(settings)
        self.bus.click(SETTINGS_ROW)
        self.assertEqual(self.window(PAIRING), pairing)
        self.assertEqual(sorted(self.dialogs_open()), sorted([SETTINGS.title, PAIRING]))
        self.back(pairing, settings)
        self.choose(settings, CANCEL)

    def test_the_characters_of_a_link(self):
        self.assertPairs(
            "kestrune://configure?apiUrl=https://x.example:8443/a%20b%3Fc%3Dd%26e%3D%25&token=%E6%BC%A2~%2B%3D%23%22'"
            "%3Ck%C3%A9y%3E%5C%60%24x;,!*()@%F0%9F%98%80".replace("%24", "$"),
            "KESTRUNE_PUBLIC_API_URL=https://x.example:8443/a b?c=d&e=%\n"
            "KESTRUNE_APP_API_TOKEN=漢~+=#\"'<kéy>\\`$x;,!*()@😀\n")

    def test_former_name_and_missing_address(self):
        self.assertPairs(f"kestrune://configure?apiUrl={PLACEHOLDER_URL}&token=former",
                         "HALVASK_APP_API_TOKEN=former\n")

    def test_a_long_link(self):
        # Of the length of signed tokens.
        token = "".join(f"{i * 7919:x}." for i in range(90))
        self.assertGreater(len(token), 500)
        self.assertPairs(f"kestrune://configure?apiUrl={self.url}&token={token}",
                         f"KESTRUNE_PUBLIC_API_URL={self.url}\nKESTRUNE_APP_API_TOKEN={token}\n")

    def test_more_than_a_code_can_hold(self):
        settings = self.open(f"KESTRUNE_APP_API_TOKEN={'t' * 3000}\n")
        settings.find("push button", PAIRING_BUTTON).press()
        shown, window = self.read(PAIRING_IMPOSSIBLE.title)
        self.assertEqual(shown, PAIRING_IMPOSSIBLE)
        self.back(window, settings)
        self.choose(settings, CANCEL)

    def test_without_a_token_it_is_told_what_is_missing(self):
        for text in ("", "KESTRUNE_APP_API_TOKEN= \nHALVASK_APP_API_TOKEN=former\n"):
            with self.subTest(text=text):
                settings = self.open(text)
                settings.find("push button", PAIRING_BUTTON).press()
                shown, window = self.read(PAIRING_FAILED.title)
                self.screen.screenshot("pairing-failed")
                self.assertEqual(shown, PAIRING_FAILED)
                self.back(window, settings)
                self.choose(settings, CANCEL)


class DarkDesktop(Settings):
    def test_the_code_is_black_on_white(self):
        self.start_switched_off(environment={"QT_QPA_PLATFORMTHEME": "gtk3", "GTK_THEME": "Adwaita:dark"})
        settings = self.open("KESTRUNE_APP_API_TOKEN=t0k3n\n")
        self.screen.screenshot("settings-dark")
        settings.find("push button", PAIRING_BUTTON).press()
        pairing = self.window(PAIRING)
        self.screen.screenshot("pairing-dark")
        left, top, *_ = pairing.place()
        [background] = self.screen.picture(Rectangle(left + 1, top + 1, 2, 2)).pixels()
        self.assertLess(max(background), 128)
        self.assertEqual(self.picture_of(pairing.find("graphic", PAIRING)).pixels(), BLACK_AND_WHITE)
        self.assertEqual(self.scan(pairing), f"kestrune://configure?apiUrl={PLACEHOLDER_URL}&token=t0k3n")


class ReadOnly(Settings):
    def test_a_folder_that_may_not_be_written_to(self):
        text = "KESTRUNE_APP_API_TOKEN=one\n"
        self.have(text)
        self.addCleanup(self.session.repo.chmod, 0o755)
        self.session.repo.chmod(0o555)
        # Permissions count for it, whoever runs the tests.
        self.start_switched_off(through=["setpriv", "--bounding-set", "-dac_override"])
        window = self.open()
        self.type(window, APP_TOKEN, "two")
        self.choose(window, SAVE)
        self.assertShows(SETTINGS.failed("Permission denied"))
        self.assertEqual(self.env.read_text(), text)
        self.assertEqual(sorted(path.name for path in self.session.repo.glob(".env*")), [".env", ".env.example"])
        self.assertOpens(GUIDE_ROW, GUIDE)
        self.assertEqual(self.session.events.pending(), [])


class FirstSettings(Settings):
    """From a backend without settings to one that works."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        real = cls.session.backend_program.rename(cls.session.backend_program.with_name("real-client"))
        cls.session.stub_backend(CAUTIOUS_BACKEND.format(real))
        cls.seen = note_what_shells_see(cls.session)
        stand_in_curl(cls.session)
        cls.client = cls.session.start(environment={"PATH": f"{cls.session.bin}:{cls.session.environment['PATH']}"})
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
        self.close(window)

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
        window.find("push button", PAIRING_BUTTON).press()
        pairing = self.window(PAIRING)
        self.look_around()
        self.assertEqual(self.scan(pairing), f"kestrune://configure?apiUrl=https://phone.example&token=app-{SECRET}")
        pairing.find("push button", "好").press()
        self.assertEqual(self.window(SETTINGS.title), window)
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
