"""Disks that are full or read-only, limits, links and folders of others, wherever the client writes."""

import os
import pathlib
import resource
import stat
import subprocess
from contextlib import suppress

from support import isolation
from desktop.session import PATIENCE, Session, Window, wait_for_end
from desktop.test_login import OFF, ON
from desktop.test_terminal_settings import BUTTONS, OKAY, RULE, Dialogue
from support.windows import SETTINGS

FAILURE = 1
PAGE = os.sysconf("SC_PAGE_SIZE")
FULL, READ_ONLY, DENIED, TOO_LARGE, TOO_MANY = ("No space left on device", "Read-only file system", "Permission denied",
                                                "File too large", "Too many open files")
TOKEN = "KESTRUNE_APP_API_TOKEN=one\n"
ENTRY = "autostart/com.dovrel.kestrune.menuclient.desktop"
SWITCHED_OFF = '{"autoConnectEnabled": false}'
LOGIN_ON = ON.title
REPORT = "目前狀態"
CODEX_CHECK = "Codex 版本與 Remote Control"
NO_NETWORK = "目前網路：網路未連線"

# Permissions count for it, whoever runs the tests.
AS_ANYBODY = ["setpriv", "--bounding-set", "-dac_override,-dac_read_search,-fowner"]


def mount(*arguments):
    subprocess.run(["mount", *arguments], check=True, timeout=PATIENCE)


class Storage(Dialogue):
    def setUp(self):
        super().setUp()
        self.preferences = self.session.config / "kestrune-menu-client/preferences.json"
        self.entry = self.session.config / ENTRY

    def begin(self, **options):
        self.client = self.session.terminal(**options)

    def disk(self, folder, pages, files=99):
        """Has the folder be one of a disk with room for so much."""
        kept = {path.name: path.read_bytes() for path in folder.iterdir() if path.is_file()}
        mount("-t", "tmpfs", "-o", f"size={pages * PAGE},nr_inodes={files},mode=0700", "tmpfs", str(folder))
        self.addCleanup(subprocess.run, ["umount", "--lazy", str(folder)])
        for name, data in kept.items():
            (folder / name).write_bytes(data)

    def fill(self, folder):
        """Takes all the room that is left there; what took it."""
        filler = folder / "filler"
        with filler.open("wb", buffering=0) as file:
            try:
                while True:
                    file.write(bytes(PAGE))
            except OSError:
                pass
        return filler

    def read_only(self, folder):
        mount("--bind", str(folder), str(folder))
        mount("-o", "remount,bind,ro", str(folder))
        self.addCleanup(subprocess.run, ["umount", "--lazy", str(folder)])

    def save_token(self, value):
        """Types that into its field of the settings, and saves them."""
        self.ask(",", "> \n")
        self.ask("", "> \n")
        self.ask(value, "> \n")
        for _ in range(2):
            self.ask("", "> \n")
        self.ask("", BUTTONS)
        self.client.type("1")

    def assertSaved(self):
        self.expect("設定已保存")
        self.client.type("1")

    def assertFails(self, reason):
        self.assertWindow(SETTINGS.failed(reason))
        self.client.type("1")

    def assertLogin(self, title, text, warns=False):
        """Turns the switch."""
        self.client.type("l")
        self.assertWindow(Window(title, text, warns))
        self.client.type("1")

    def turn(self, key):
        """A switch whose window is closed again."""
        self.ask(key, OKAY)
        self.client.type("1")

    def report(self):
        """The text of the backend's own report, with the sign before its title."""
        self.client.type("s")
        sign = self.expect(f" {REPORT}\n{RULE}\n")[-1]
        text = self.expect(OKAY)
        self.client.type("1")
        return sign, text.strip()

    def assertEnds(self):
        self.assertEqual(self.client.quit(), 0)

    @staticmethod
    def names(folder):
        return sorted(path.name for path in folder.iterdir())


class Disks(Storage):
    def test_settings_on_a_full_disk(self):
        disk = self.session.root / "disk"
        disk.mkdir()
        self.disk(disk, pages=3)
        (disk / "settings").write_text(TOKEN)
        self.env.symlink_to(disk / "settings")
        self.begin()
        filler = self.fill(disk)
        self.save_token("two")
        self.assertFails(FULL)
        self.assertEqual((disk / "settings").read_text(), TOKEN)
        self.assertEqual(self.names(disk), ["filler", "settings"])
        filler.unlink()
        self.save_token("three")
        self.assertSaved()
        self.assertIn("KESTRUNE_APP_API_TOKEN=three\n", (disk / "settings").read_text())
        self.assertEqual(self.names(disk), ["settings"])
        self.assertTrue(self.env.is_symlink())
        self.assertEnds()

    def test_settings_on_a_disk_that_holds_no_more_files(self):
        disk = self.session.root / "disk"
        disk.mkdir()
        self.disk(disk, pages=3, files=2)  # the folder is one
        (disk / "settings").write_text(TOKEN)
        self.env.symlink_to(disk / "settings")
        self.begin()
        self.save_token("two")
        self.assertFails(FULL)
        self.assertEqual((disk / "settings").read_text(), TOKEN)
        self.assertEqual(self.names(disk), ["settings"])
        self.assertEnds()

    def test_settings_on_a_disk_that_is_read_only(self):
        self.env.write_text(TOKEN)
        before = self.names(self.session.repo)
        self.read_only(self.session.repo)
        self.begin()
        self.save_token("two")
        self.assertFails(READ_ONLY)
        self.assertEqual(self.env.read_text(), TOKEN)
        self.assertEqual(self.names(self.session.repo), before)
        self.assertEnds()

    def test_preferences_on_a_full_disk_hold_and_are_written_when_there_is_room(self):
        self.disk(self.preferences.parent, pages=3)
        self.begin()
        filler = self.fill(self.preferences.parent)
        self.turn("k")
        self.client.complained(f"cannot write the preferences {self.preferences}: {FULL}\n")
        self.assertEqual(self.preferences.read_text(), SWITCHED_OFF)
        self.assertEqual(self.names(self.preferences.parent), ["filler", "preferences.json"])
        self.ask("", "16  k ✗")
        filler.unlink()
        self.turn("m")
        written = self.session.preferences()
        self.assertEqual((written["autoConnectEnabled"], written["keepAwakeEnabled"]), (False, False))
        self.assertIn("connectionMode", written)
        self.assertEqual(self.names(self.preferences.parent), ["preferences.json"])
        self.assertEnds()

    def test_the_autostart_entry_on_a_full_and_on_a_read_only_disk(self):
        self.entry.parent.mkdir()
        self.entry.write_text("[Desktop Entry]\nHidden=true\n")
        self.disk(self.entry.parent, pages=2)
        self.begin()
        filler = self.fill(self.entry.parent)
        self.assertLogin(LOGIN_ON, FULL, warns=True)
        self.assertEqual(self.entry.read_text(), "[Desktop Entry]\nHidden=true\n")
        self.assertEqual(self.names(self.entry.parent), [self.entry.name, "filler"])
        filler.unlink()
        self.read_only(self.entry.parent)
        self.assertLogin(LOGIN_ON, READ_ONLY, warns=True)
        self.assertEqual(self.names(self.entry.parent), [self.entry.name])
        mount("-o", "remount,bind,rw", str(self.entry.parent))
        self.assertLogin(*ON)
        self.assertNotIn("Hidden", self.entry.read_text())
        self.assertEnds()

    def test_without_a_place_for_its_lock_it_says_so_and_starts(self):
        self.read_only(self.session.runtime)
        self.begin()
        self.client.complained(f"cannot lock {self.session.runtime}/kestrune-menu-client/lock: {READ_ONLY}\n")
        self.turn("k")
        self.assertEnds()

    def test_a_limit_for_files_ends_nothing(self):
        self.env.write_text(TOKEN)
        self.begin(through=["prlimit", "--fsize=0"])
        self.save_token("two")
        self.assertFails(TOO_LARGE)
        self.assertLogin(LOGIN_ON, TOO_LARGE, warns=True)
        self.turn("k")
        self.client.complained(f"cannot write the preferences {self.preferences}: {TOO_LARGE}\n")
        self.assertEqual(self.env.read_text(), TOKEN)
        self.assertEqual(self.preferences.read_text(), SWITCHED_OFF)
        self.assertEqual(self.names(self.entry.parent), [])
        self.assertEnds()


class Descriptors(Storage):
    def limit(self, left=0):
        """Leaves the client room for so many descriptors more."""
        taken = {int(name) for name in os.listdir(f"/proc/{self.client.pid}/fd")}
        free = [number for number in range(len(taken) + left + 1) if number not in taken]
        self.usual = resource.prlimit(self.client.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(self.client.pid, resource.RLIMIT_NOFILE, (free[left], self.usual[1]))

    def lift(self):
        resource.prlimit(self.client.pid, resource.RLIMIT_NOFILE, self.usual)

    def fails_without(self):
        """Everything that takes one descriptor."""
        self.save_token("two")
        self.assertFails(TOO_MANY)
        self.assertLogin(LOGIN_ON, TOO_MANY, warns=True)
        self.turn("k")
        self.assertEqual(self.env.read_text(), TOKEN)
        self.assertEqual(self.names(self.session.repo), self.before)
        self.assertEqual(self.preferences.read_text(), SWITCHED_OFF)

    def works(self):
        self.assertEqual(self.report()[0], "ℹ")
        self.save_token("three")
        self.assertSaved()
        self.assertIn("KESTRUNE_APP_API_TOKEN=three\n", self.env.read_text())
        self.assertLogin(*ON)
        self.turn("k")
        self.assertIs(self.session.preferences()["keepAwakeEnabled"], True)

    def test_without_any_everything_fails_clearly_and_works_again_later(self):
        self.env.write_text(TOKEN)
        self.before = self.names(self.session.repo)
        self.begin()
        self.client.menu_with(10, NO_NETWORK)
        for left in range(4):
            self.limit(left)
            sign, text = self.report()
            self.assertEqual((sign, text), ("⚠", TOO_MANY))
            if left == 0:
                self.fails_without()
            # Behind the check that follows a report: one that came later would have descriptors, and take them
            # along into the next count.
            self.client.type("c")
            self.assertWindow(Window(CODEX_CHECK, TOO_MANY))
            self.client.type("1")
            self.lift()
        self.works()
        self.assertEnds()

    def test_from_the_start_it_says_why_it_ends_or_works(self):
        ends, works = 0, 0
        for limit in range(4, 48, 4):
            with self.subTest(limit=limit):
                self.begin(through=["prlimit", f"--nofile={limit}"])
                with suppress(BrokenPipeError):  # it has ended
                    self.client.type("q")
                status = self.client.status()
                if status == 0:
                    works += 1
                    self.assertIn("退出 Kestrune", self.client.output.all())
                else:
                    ends += 1
                    self.assertEqual((status, works), (FAILURE, 0))
                    self.assertIn(TOO_MANY, self.client.errors.all())
        self.assertGreater(ends, 0)
        self.assertGreater(works, 0)

    def test_without_any_the_backend_is_stopped_at_the_end(self):
        self.session = Session(self)
        self.session.backend("refresh")
        services = self.session.services()
        self.session.note_commands()
        self.client = self.session.terminal()
        self.session.wait_for_start()
        self.client.checked()
        self.limit()
        self.assertEqual(self.client.quit(), 0)
        for pid in services:
            wait_for_end(pid)


class Links(Storage):
    VICTIM = "not the client's business\n"

    def setUp(self):
        super().setUp()
        self.victim = self.session.root / "victim"
        self.victim.write_text(self.VICTIM)
        self.victim.chmod(0o604)

    def assertUntouched(self):
        self.assertEqual(self.victim.read_text(), self.VICTIM)
        self.assertEqual(stat.S_IMODE(self.victim.stat().st_mode), 0o604)

    def test_where_unreadable_settings_are_kept(self):
        unreadable = b"KESTRUNE_APP_API_TOKEN=\xff\n"
        self.env.write_bytes(unreadable)
        (self.session.repo / ".env.unreadable").symlink_to(self.victim)
        self.begin()
        self.save_token("two")
        self.assertSaved()
        self.assertUntouched()
        self.assertEqual((self.session.repo / ".env.unreadable-2").read_bytes(), unreadable)
        self.assertEnds()

    def test_where_settings_that_nobody_saw_are_kept(self):
        unseen = b"X=1\r\nKESTRUNE_APP_API_TOKEN=one\r\nOPENAI_API_KEY=sk\r\n"
        self.env.write_bytes(unseen)
        self.env.chmod(0o644)
        previous = self.session.repo / ".env.previous"
        previous.symlink_to(self.victim)
        self.begin()
        self.save_token("two")
        self.assertSaved()
        self.assertUntouched()
        self.assertFalse(previous.is_symlink())
        self.assertEqual(previous.read_bytes(), unseen)
        self.assertEqual(stat.S_IMODE(previous.stat().st_mode), 0o600)
        self.assertIn("\nKESTRUNE_APP_API_TOKEN=two\n\nOPENAI_API_KEY=\n", self.env.read_text())
        self.assertEnds()

    def test_where_damaged_preferences_are_kept(self):
        self.session.prefer("damage")
        damaged = self.preferences.with_name("preferences.json.damaged")
        damaged.symlink_to(self.victim)
        self.session.stub_backend("exit 0\n")
        self.begin()
        self.client.checked()
        self.turn("k")
        self.assertUntouched()
        self.assertEqual(self.preferences.with_name("preferences.json.damaged-2").read_text(), "damage")
        self.assertEnds()

    def test_that_lead_in_a_ring(self):
        self.entry.parent.mkdir()
        self.entry.symlink_to(self.entry.with_name("other"))
        self.entry.with_name("other").symlink_to(self.entry)
        self.env.symlink_to(self.env)
        self.begin()
        self.assertLogin(LOGIN_ON, "Too many levels of symbolic links", warns=True)
        self.save_token("two")
        self.assertFails("Too many levels of symbolic links")
        self.assertEnds()

    def test_whose_targets_may_not_be_replaced(self):
        folder = self.session.root / "theirs"
        folder.mkdir()
        for name in ("entry", "settings"):
            (folder / name).write_text(self.VICTIM)
        self.entry.parent.mkdir()
        self.entry.symlink_to(folder / "entry")
        self.env.symlink_to(folder / "settings")
        folder.chmod(0o555)
        self.addCleanup(folder.chmod, 0o755)
        self.begin(through=AS_ANYBODY)
        self.save_token("two")
        self.assertFails(DENIED)
        self.assertLogin(*OFF)  # only the link goes
        self.assertEqual([(folder / name).read_text() for name in self.names(folder)], [self.VICTIM] * 2)
        self.assertFalse(self.entry.is_symlink())
        self.assertEnds()

    def test_pipes_in_every_place_hold_nothing_up(self):
        self.entry.parent.mkdir()
        (self.session.runtime / "kestrune-menu-client").mkdir()
        self.preferences.unlink()
        for path in (self.entry, self.env, self.preferences, self.session.runtime / "kestrune-menu-client/lock"):
            os.mkfifo(path)
        self.session.stub_backend("exit 0\n")
        self.begin()
        self.client.checked()
        self.save_token("two")
        self.assertFails("Invalid argument")
        self.turn("k")
        self.assertTrue(stat.S_ISFIFO(self.preferences.with_name("preferences.json.damaged").lstat().st_mode))
        self.assertEnds()


class Owners(Storage):
    def test_folders_that_are_closed_to_it(self):
        self.session.stub_backend("exit 0\n")
        self.env.write_text(TOKEN)
        self.entry.parent.mkdir()
        closed = [self.preferences.parent, self.entry.parent, self.session.repo]
        before = [self.names(folder) for folder in closed]
        for folder, mode in zip(closed, (0, 0, 0o555)):
            self.addCleanup(folder.chmod, 0o755)
            folder.chmod(mode)
        self.begin(through=AS_ANYBODY)
        self.client.checked()
        self.assertLogin(LOGIN_ON, DENIED, warns=True)
        self.save_token("two")
        self.assertFails(DENIED)
        self.turn("k")
        self.client.complained(f"cannot write the preferences {self.preferences}: {DENIED}\n")
        self.assertEnds()
        for folder in closed:
            folder.chmod(0o755)
        self.assertEqual([self.names(folder) for folder in closed], before)
        self.assertEqual(self.env.read_text(), TOKEN)
        self.assertEqual(self.preferences.read_text(), SWITCHED_OFF)

    def test_settings_of_somebody_else_are_kept_though_no_hard_link_to_them_is_allowed(self):
        self.env.write_text(TOKEN)
        self.env.chmod(0o600)
        os.chown(self.env, 12345, 12345)
        self.assertEqual(pathlib.Path("/proc/sys/fs/protected_hardlinks").read_text(), "1\n")
        self.begin(through=AS_ANYBODY)
        self.save_token("two")
        self.assertSaved()
        kept = self.session.repo / ".env.unreadable"
        self.assertEqual((kept.read_text(), kept.stat().st_uid), (TOKEN, 12345))
        self.assertIn("KESTRUNE_APP_API_TOKEN=two\n", self.env.read_text())
        self.assertEnds()


if __name__ == "__main__":
    isolation.main()
