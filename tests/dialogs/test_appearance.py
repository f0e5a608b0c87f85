"""The fonts and the colours of the windows."""

import tempfile
from pathlib import Path

from gi.repository import GLib

from rig import isolation
from rig.asked import alert, field, menu, view
from rig.desk import OnDesk
from rig.display import Rectangle
from rig.waiting import Deadline
from rig.wire import Peer, answers, values


class DarkDesktop(OnDesk):
    def test_a_placeholder_stands_out_from_its_field(self):
        form = view("stack", field("first"), field("second", placeholder="提示"))
        _, window = self.opened(alert(1, view=form), environment=self.desk.dark_kde())
        self.screen.screenshot("placeholder-dark")
        left, top, width, height = window.find("text", "提示").place()
        shades = self.screen.picture(Rectangle(left, top, width, height).within(4)).shades()
        self.assertLess(shades[0], 50)
        self.assertGreater(shades[-1], 120)


FONTS = """<?xml version="1.0"?>
<!DOCTYPE fontconfig SYSTEM "urn:fontconfig:fonts.dtd">
<fontconfig>
  <dir>{folder}</dir>
  <cachedir>{folder}/cache</cachedir>
  <match><edit name="family" mode="prepend" binding="strong"><string>Noto Sans CJK TC</string></edit></match>
</fontconfig>
"""
LATIN_AND_GREY_EMOJI, CHINESE, EMOJI = "DejaVuSans.ttf", "NotoSansCJK-Regular.ttc", "NotoColorEmoji.ttf"


class OwnFonts(OnDesk):
    """The program sees only those fonts of the machine that a test chooses."""

    def setUp(self):
        self.folder = Path(tempfile.mkdtemp(dir=self.desk.root))
        (self.folder / "fonts.conf").write_text(FONTS.format(folder=self.folder))
        installed = map(Path, self.screen.run("fc-list", "--format=%{file}\\n").decode().splitlines())
        self.installed = {font.name: font for font in installed}

    def picture(self, text, *fonts):
        """Returns a picture of `text` as a window shows it with these fonts only."""
        for font in fonts:
            (self.folder / font).symlink_to(self.installed[font])
        _, window = self.opened(alert(1, text=text), environment={"FONTCONFIG_FILE": str(self.folder / "fonts.conf")})
        place = window.find("label", text).place()
        self.screen.screenshot("fonts-" + "-".join(fonts))
        return self.screen.picture(Rectangle(*place))

    def test_emoji_are_in_colour_though_another_font_has_them_in_grey(self):
        # Without this program's preference for colour, the font with grey emoji would come before the emoji font.
        self.assertTrue(self.picture("😀", LATIN_AND_GREY_EMOJI, CHINESE, EMOJI).coloured())

    def test_lamps_are_in_colour_without_an_emoji_font(self):
        shown = self.picture("🟢🟡🔴", CHINESE).pixels()
        self.assertLessEqual({(0x3F, 0xA3, 0x4D), (0xF2, 0xB9, 0x0C), (0xE5, 0x48, 0x4D)}, shown)

    def test_digits_are_not_taken_from_the_emoji_font(self):
        # An emoji font has digits too, because emoji of keys (keycaps) contain them.
        text = "0123456789#*"
        plain = self.picture(text, CHINESE).pixels()
        self.assertEqual(self.picture(text, EMOJI).pixels(), plain)


PORTAL, PORTAL_PATH = "org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop"
NOTHING, DARK, LIGHT = range(3)
COLOUR_SCHEME = "org.freedesktop.appearance", "color-scheme"


class Portal(Peer):
    """A desktop portal that says which colours the user prefers. It does not answer if `preferred` is None."""

    def __init__(self, test, preferred):
        told = GLib.Variant("v", GLib.Variant("u", preferred or 0))

        def behave(peer, call):
            if tuple(values(call)) == COLOUR_SCHEME and preferred is not None:
                answers("v", told)(peer, call)
        super().__init__(test.desk.bus, PORTAL, behave)
        test.addCleanup(self.kill)

    def change(self, preferred, names=COLOUR_SCHEME):
        self.connection.emit(PORTAL_PATH, "org.freedesktop.portal.Settings", "SettingChanged",
                             "ssv", *names, GLib.Variant("u", preferred))


class Preferences(OnDesk):
    """Colour preferences on a desktop whose theme is light."""

    def background(self, window, scale=1):
        left, top, *_ = window.place()
        [shade] = set(self.screen.picture(Rectangle(scale * left + 1, scale * top + 1, 2, 2)).shades())
        return shade

    def assertBecomes(self, window, *, dark, scale=1):
        """Waits until the window is dark or light. No signal announces this, so it watches the screen."""
        deadline = Deadline()
        while (self.background(window, scale) < 128) != dark:
            self.assertGreater(deadline.left(), 0)

    def test_dark_windows(self):
        Portal(self, DARK)
        for name, request in (("alert", alert(1, view=field("a", placeholder="x"))), ("menu", menu())):
            for scale in (1, 2):
                with self.subTest(name=name, scale=scale):
                    _, window = self.opened(request, environment={"QT_SCALE_FACTOR": str(scale)})
                    self.screen.screenshot(f"dark-{name}-{scale}")
                    self.assertBecomes(window, dark=True, scale=scale)

    def test_light_windows(self):
        for preferred in (NOTHING, LIGHT):
            with self.subTest(preferred):
                Portal(self, preferred)
                self.assertBecomes(self.opened(alert(1))[1], dark=False)
                self.doCleanups()

    def test_a_change_is_followed_and_taken_back(self):
        portal = Portal(self, LIGHT)
        _, window = self.opened(alert(1, text="\n".join("文字" * 20 for _ in range(50)), view=field("a", "x")))
        for preferred in (DARK, LIGHT, DARK, NOTHING):
            # The second signal reports another setting, contrast. It must have no effect.
            portal.change(preferred)
            portal.change(3 - preferred, names=("org.freedesktop.appearance", "contrast"))
            self.assertBecomes(window, dark=preferred == DARK)

    def test_a_portal_that_does_not_answer_is_not_waited_for(self):
        portal = Portal(self, None)
        _, window = self.opened(alert(1))
        self.assertBecomes(window, dark=False)
        portal.change(DARK)
        self.assertBecomes(window, dark=True)

    def test_a_theme_that_is_dark_keeps_its_colours(self):
        Portal(self, DARK)
        _, window = self.opened(alert(1), environment=self.desk.dark_kde())
        self.assertEqual(self.background(window), sum((0x23, 0x26, 0x29)) / 3)


isolation.main()
