"""Tests of the windows of the settings and the pairing code on a screen, from the menu to the file .env."""

from rig import isolation
from rig.bus import ITEM
from rig.client import CONNECTED
from rig.display import Rectangle
from rig.onscreen import OnScreen
from rig.processes import read_process, running
from rig.session import SECRET
from rig.windows import SAVED, SETTINGS_TITLE

SETTINGS_ROW = 26
PROJECT_ROW, THREAD_ROW = 8, 9

PAIRING = "手機配對 QR"
PAIRING_BUTTON = "顯示手機配對 QR"
SAVE, OPEN_FILE, CANCEL = BUTTONS = "保存並刷新", "打開 .env", "取消"
FIELDS = API_URL, APP_TOKEN, SERVICE_TOKEN, ROOT, KEY = (
    "手機連線 API URL", "手機 App Token", "Mac 本機 Token", "專案根目錄", "OpenAI API Key")

PLACEHOLDER_URL = "https://relay.example.com"
LENGTH = "org.a11y.atspi.Text", "CharacterCount"

# Login shells and curl write their command lines and environments to the file "seen". No secret may appear there.
LOG = '\ncat /proc/$$/cmdline /proc/$$/environ >> "{}/seen"\n'

BLACK_AND_WHITE = {(0, 0, 0), (255, 255, 255)}

# A backend whose refresh fails if there is no .env. The real backend, for which {} stands, would create it.
CAUTIOUS_BACKEND = """
echo "$1 asked" > "$HOME/events"
[[ $1 == refresh && ! -e .env ]] && exit 1
exec "{}" "$@"
"""


class Settings(OnScreen):
    def setUp(self):
        self.env = self.session.repo / ".env"
        self.addCleanup(self.end_windows)

    def open(self):
        self.bus.click(SETTINGS_ROW)
        return self.window(SETTINGS_TITLE)

    def field(self, window, title):
        return window.find("password text" if title == KEY else "text", title)

    def assertFields(self, window, *texts, key):
        """Compares the texts of the fields. The key is masked, so only its length is compared."""
        self.assertEqual([self.field(window, title).text() for title in FIELDS if title != KEY], list(texts))
        masked = self.field(window, KEY)
        self.assertEqual((masked.text().strip("●"), masked.property(*LENGTH)), ("", key))

    def type(self, window, title, text):
        """Replaces the text of the field."""
        self.field(window, title).focus()
        self.screen.keys("ctrl+a", "Delete")
        self.field(window, title).wait(lambda node: node.property(*LENGTH) == 0, "empty field")
        self.screen.type(text)
        self.field(window, title).wait(lambda node: node.property(*LENGTH) == len(text), "typed text")

    def assertScanned(self, settings, link):
        """Opens the pairing code on top of the settings, and checks that it reads as the link. Returns its window."""
        settings.find("push button", PAIRING_BUTTON).press()
        window = self.window(PAIRING)
        self.screen.screenshot(f"pairing-{type(self).__name__}")
        graphic = Rectangle(*window.find("graphic", PAIRING).place())
        self.assertEqual((graphic.width, graphic.height), (260, 260))
        self.assertEqual(self.screen.picture(graphic).pixels(), BLACK_AND_WHITE)
        self.assertEqual(self.screen.scan(Rectangle(*window.place())), link)
        return window


class DarkDesktop(Settings):
    def test_fields_are_read_in_order_and_the_code_is_black_on_white(self):
        self.start(switched_off=True, environment=self.session.dark_kde())
        # This token is as long as a signed token, such as a JWT.
        token = "".join(f"{i * 7919:x}." for i in range(90))
        self.env.write_text(f'HALVASK_APP_API_TOKEN={token}漢\nKESTRUNE_MAC_SERVICE_TOKEN="mac"\n'
                            "KESTRUNE_PROJECT_ROOT=/專案 a\nOPENAI_API_KEY=sk-12345\n")
        window = self.open()
        self.screen.screenshot("settings-dark")
        self.assertEqual(window.names("graphic"), ["訊息"])
        self.assertEqual(window.names("push button"), [PAIRING_BUTTON, *BUTTONS])
        fields = [node for node in window.all() if node.role() in ("text", "password text")]
        self.assertEqual([node.name() for node in fields], list(FIELDS))
        self.field(window, API_URL).has_focus()
        tops = [node.place()[1] for node in fields]
        self.assertEqual(tops, sorted(tops))
        self.assertFields(window, PLACEHOLDER_URL, f"{token}漢", '"mac"', "/專案 a", key=8)
        pairing = self.assertScanned(window, f"kestrune://configure?apiUrl={PLACEHOLDER_URL}&token={token}%E6%BC%A2")
        left, top, *_ = pairing.place()
        self.assertLess(self.screen.picture(Rectangle(left + 1, top + 1, 2, 2)).shades()[-1], 128)


class FirstSettings(Settings):
    """Starts with a backend that has no settings, and types the settings that the backend needs."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        real = cls.session.backend_program.rename(cls.session.backend_program.with_name("real-client"))
        cls.session.stub_backend(CAUTIOUS_BACKEND.format(real))
        cls.session.profile.write_text(cls.session.profile.read_text() + LOG.format("$HOME"))
        cls.session.program("curl", LOG.format(cls.session.home) + 'exec /usr/bin/curl "$@"\n')
        cls.seen = cls.session.home / "seen"
        cls.client = cls.session.start()
        cls.session.wait_for_start()
        cls.traffic.wait_for_label(THREAD_ROW, "同步會話：未配置")

    def look_around(self):
        """Records the command lines and environments of all processes."""
        with self.seen.open("ab") as seen:
            for pid in running():
                seen.write(read_process(pid, "cmdline") + read_process(pid, "environ"))

    def test_typed_settings_are_saved_and_the_project_is_shown(self):
        self.assertEqual(self.labels(PROJECT_ROW, THREAD_ROW), ["同步專案：未配置", "同步會話：未配置"])
        self.assertFalse(self.env.exists())
        window = self.open()
        self.assertFields(window, PLACEHOLDER_URL, "", "", str(self.session.home), key=0)
        for title, text in ((API_URL, "https://phone.example"), (APP_TOKEN, f"app-{SECRET}"),
                            (SERVICE_TOKEN, f"mac-{SECRET}"), (ROOT, "/srv/projects"), (KEY, f"sk-{SECRET}")):
            self.type(window, title, text)
            self.look_around()
        self.choose(window, SAVE)
        shown, window = self.read(SAVED.title)
        self.look_around()
        self.assertFalse(shown.warns)
        self.assertIn("🟢 Mac service: 127.0.0.1:8765 正常", shown.text)
        self.assertNotIn(SECRET, shown.text)
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
        self.type(window, APP_TOKEN, "not saved")
        pairing = self.assertScanned(window, f"kestrune://configure?apiUrl=https://phone.example&token=app-{SECRET}")
        self.look_around()
        self.assertNotIn(SECRET, " ".join(node.name() for node in pairing.all()))
        # When the settings are asked for again, both windows stay as they are.
        self.bus.click(SETTINGS_ROW)
        self.assertEqual(self.window(PAIRING), pairing)
        self.assertEqual({window.name() for window in self.reader.windows()}, {SETTINGS_TITLE, PAIRING})
        pairing.find("push button", "好").press()
        self.assertEqual(self.window(SETTINGS_TITLE), window)
        self.assertEqual(self.field(window, APP_TOKEN).text(), "not saved")
        self.choose(window, OPEN_FILE)
        self.assertEqual(self.env.read_text(), example)

        seen = self.seen.read_bytes()
        self.assertIn(b"KestruneMenuDialogs", seen)
        self.assertIn(b"/desktop/projects", seen)
        self.assertIn(b"kestrune-mac-client refresh", seen)
        self.assertNotIn(SECRET.encode(), seen)
        self.assertEqual(self.client.end(), 0)
        self.assertNotIn(SECRET, self.client.output.all() + self.client.errors.all())


isolation.main()
