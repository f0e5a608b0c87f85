"""Disks that are full or read-only, limits, and folders that are closed, wherever the client writes."""

import os
import resource
import subprocess
from contextlib import suppress

from rig import isolation
from rig.client import Window
from rig.dialogue import OKAY, Dialogue
from rig.processes import wait_for_end
from rig.session import SWITCHED_OFF, Session
from rig.windows import LOGIN_ON, SAVED, SETTINGS

FAILURE = 1
PAGE = os.sysconf("SC_PAGE_SIZE")
FULL, READ_ONLY, DENIED, TOO_MANY = ("No space left on device", "Read-only file system", "Permission denied",
                                     "Too many open files")
TOKEN = "KESTRUNE_APP_API_TOKEN=one\n"
ENTRY = "autostart/com.dovrel.kestrune.menuclient.desktop"

# Permissions count for it, whoever runs the tests.
AS_ANYBODY = ["setpriv", "--bounding-set", "-dac_override,-dac_read_search,-fowner"]


def mount(*arguments):
    subprocess.run(["mount", *arguments], check=True)


class Storage(Dialogue):
    def setUp(self):
        super().setUp()
        self.preferences = self.session.config / "kestrune-menu-client/preferences.json"
        self.entry = self.session.config / ENTRY

    def disk(self, folder, pages, files=99):
        """Has the folder be one of a disk with room for so much."""
        folder.mkdir(exist_ok=True)
        kept = {path.name: path.read_bytes() for path in folder.iterdir() if path.is_file()}
        mount("-t", "tmpfs", "-o", f"size={pages * PAGE},nr_inodes={files},mode=0700", "tmpfs", str(folder))
        self.session.callback(subprocess.run, ["umount", "--lazy", str(folder)])
        for name, data in kept.items():
            (folder / name).write_bytes(data)
        return folder

    def fill(self, folder):
        """Takes all the room that is left there; what took it."""
        filler = folder / "filler"
        with filler.open("wb", buffering=0) as file, suppress(OSError):
            while True:
                file.write(bytes(PAGE))
        return filler

    def read_only(self, folder):
        mount("--bind", str(folder), str(folder))
        mount("-o", "remount,bind,ro", str(folder))
        self.session.callback(subprocess.run, ["umount", "--lazy", str(folder)])

    def save_token(self, value):
        """Types that into its field of the settings, and saves them."""
        self.fill_in("", value)
        self.client.type("1")

    def assertSaved(self, value):
        self.assertWindow(SAVED)
        self.assertIn(f"KESTRUNE_APP_API_TOKEN={value}\n", self.env.read_text())

    def assertFails(self, reason):
        self.assertWindow(SETTINGS.failed(reason))

    def assertLogin(self, window):
        """Turns the switch."""
        self.client.type("l")
        self.assertWindow(window)

    def assertLoginFails(self, reason):
        self.assertLogin(Window(LOGIN_ON.title, reason, warns=True))

    def turn(self, key):
        """A switch whose window is closed again."""
        self.ask(key, OKAY)
        self.client.type("1")

    def assertPreferencesFail(self, reason):
        self.turn("k")
        self.client.complained(f"cannot write the preferences {self.preferences}: {reason}\n")

    def assertEnds(self):
        self.assertEqual(self.client.quit(), 0)

    @staticmethod
    def names(folder):
        return sorted(path.name for path in folder.iterdir())


class Disks(Storage):
    def test_on_full_disks_nothing_is_lost_and_everything_is_written_when_there_is_room(self):
        settings = self.disk(self.session.root / "disk", pages=3) / "settings"
        settings.write_text(TOKEN)
        self.env.symlink_to(settings)
        self.entry.parent.mkdir()
        self.entry.write_text("[Desktop Entry]\nHidden=true\n")
        folders = [self.disk(self.entry.parent, pages=2), self.disk(self.preferences.parent, pages=3), settings.parent]
        files = [self.entry, self.preferences, settings]
        self.start()
        before = [file.read_text() for file in files]
        fillers = [self.fill(folder) for folder in folders]
        self.save_token("two")
        self.assertFails(FULL)
        self.assertLoginFails(FULL)
        self.assertPreferencesFail(FULL)
        self.assertEqual([file.read_text() for file in files], before)
        self.assertEqual([self.names(folder) for folder in folders],
                         [sorted([file.name, "filler"]) for file in files])
        self.ask("", "16  k ✗")
        for filler in fillers:
            filler.unlink()
        self.save_token("three")
        self.assertSaved("three")
        self.assertLogin(LOGIN_ON)
        self.turn("m")
        written = self.session.preferences()
        self.assertEqual((written["autoConnectEnabled"], written["keepAwakeEnabled"]), (False, False))
        self.assertIn("connectionMode", written)
        self.assertEqual([self.names(folder) for folder in folders], [[file.name] for file in files])
        self.assertTrue(self.env.is_symlink())
        self.assertEnds()

    def test_on_disks_that_are_read_only_and_in_closed_folders_nothing_changes(self):
        self.env.write_text(TOKEN)
        self.entry.parent.mkdir()
        self.read_only(self.session.runtime)
        self.read_only(self.session.repo)
        closed = [self.preferences.parent, self.entry.parent]
        before = [self.names(folder) for folder in (*closed, self.session.repo)]
        for folder in closed:
            self.session.callback(folder.chmod, 0o755)
            folder.chmod(0)
        self.start(through=AS_ANYBODY)
        self.client.complained(f"cannot lock {self.session.runtime}/kestrune-menu-client/lock: {READ_ONLY}; "
                               "a second start may not find this client\n")
        self.client.checked()
        self.save_token("two")
        self.assertFails(READ_ONLY)
        self.assertLoginFails(DENIED)
        self.assertPreferencesFail(DENIED)
        self.assertEnds()
        for folder in closed:
            folder.chmod(0o755)
        self.assertEqual([self.names(folder) for folder in (*closed, self.session.repo)], before)
        self.assertEqual((self.env.read_text(), self.preferences.read_text()), (TOKEN, SWITCHED_OFF))


class Descriptors(Storage):
    def limit(self, left=0):
        """Leaves the client room for so many descriptors more."""
        taken = {int(name) for name in os.listdir(f"/proc/{self.client.pid}/fd")}
        free = [number for number in range(len(taken) + left + 1) if number not in taken]
        self.usual = resource.prlimit(self.client.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(self.client.pid, resource.RLIMIT_NOFILE, (free[left], self.usual[1]))

    def test_from_the_start_it_says_why_it_ends_or_works(self):
        ends, works = 0, 0
        for limit in range(4, 48, 4):
            with self.subTest(limit=limit):
                self.start(through=["prlimit", f"--nofile={limit}"])
                with suppress(BrokenPipeError):  # it has ended
                    self.client.type("q")
                if (status := self.client.status()) == 0:
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
        self.assertEnds()
        for pid in services:
            wait_for_end(pid)


if __name__ == "__main__":
    isolation.main()
