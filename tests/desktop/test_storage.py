"""Tests the client on full disks, and with too few descriptors."""

import os
import resource
import subprocess
from contextlib import suppress

from rig import isolation
from rig.client import Window
from rig.dialogue import OKAY, Dialogue
from rig.processes import wait_for_end
from rig.session import Session
from rig.windows import LOGIN_ON, SAVED

PAGE = os.sysconf("SC_PAGE_SIZE")
FULL, TOO_MANY = "No space left on device", "Too many open files"
TOKEN = "KESTRUNE_APP_API_TOKEN=one\n"


class Disks(Dialogue):
    def disk(self, folder, pages):
        """Mounts a tmpfs of `pages` pages over the folder, and puts the folder's files into it. Returns the folder."""
        folder.mkdir(exist_ok=True)
        kept = {path.name: path.read_bytes() for path in folder.iterdir()}
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={pages * PAGE},mode=0700", "tmpfs", folder], check=True)
        self.session.callback(subprocess.run, ["umount", "--lazy", folder])
        for name, data in kept.items():
            (folder / name).write_bytes(data)
        return folder

    def fill(self, folder):
        """Makes a file that fills the rest of the disk, and returns the file."""
        filler = folder / "filler"
        with filler.open("wb", buffering=0) as file, suppress(OSError):
            while True:
                file.write(bytes(PAGE))
        return filler

    def save_token(self, value, window):
        self.fill_in("", value)
        self.client.type("1")
        self.assertWindow(window)

    def turn_login_on(self, window):
        self.client.type("l")
        self.assertWindow(window)

    def turn(self, key):
        """Types the key that changes a preference, and closes the dialogue that opens."""
        self.ask(key, OKAY)
        self.client.type("1")

    def test_on_full_disks_nothing_is_lost_and_later_everything_is_written(self):
        preferences = self.session.config / "kestrune-menu-client/preferences.json"
        entry = self.session.config / "autostart/com.dovrel.kestrune.menuclient.desktop"
        settings = self.disk(self.session.root / "disk", 3) / "settings"
        settings.write_text(TOKEN)
        self.env.symlink_to(settings)
        entry.parent.mkdir()
        entry.write_text("[Desktop Entry]\nHidden=true\n")
        folders = [self.disk(entry.parent, 2), self.disk(preferences.parent, 3), settings.parent]
        files = [entry, preferences, settings]

        def names():
            return [sorted(path.name for path in folder.iterdir()) for folder in folders]

        self.start()
        before = [file.read_text() for file in files]
        fillers = [self.fill(folder) for folder in folders]
        self.save_token("two", Window("設定保存失敗", FULL, warns=True))
        self.turn_login_on(Window(LOGIN_ON.title, FULL, warns=True))
        self.turn("k")
        self.client.complained(f"cannot write the preferences {preferences}: {FULL}\n")
        self.assertEqual([file.read_text() for file in files], before)
        self.assertEqual(names(), [sorted([file.name, "filler"]) for file in files])
        self.ask("", "16  k ✗")
        for filler in fillers:
            filler.unlink()
        self.save_token("three", SAVED)
        self.assertIn("KESTRUNE_APP_API_TOKEN=three\n", settings.read_text())
        self.turn_login_on(LOGIN_ON)
        self.turn("m")
        written = self.session.preferences()
        self.assertEqual((written["autoConnectEnabled"], written["keepAwakeEnabled"]), (False, False))
        self.assertIn("connectionMode", written)
        self.assertEqual(names(), [[file.name] for file in files])
        self.assertTrue(self.env.is_symlink())
        self.assertEqual(self.client.quit(), 0)


class Descriptors(Dialogue):
    def test_with_too_few_descriptors_it_says_why_it_ends(self):
        statuses = []
        for limit in range(4, 48, 4):
            with self.subTest(limit=limit):
                self.start(through=["prlimit", f"--nofile={limit}"])
                with suppress(BrokenPipeError):  # the client has ended already
                    self.client.type("q")
                statuses.append(self.client.status())
                if statuses[-1]:
                    self.assertIn(TOO_MANY, self.client.errors.all())
                else:
                    self.assertIn("退出 Kestrune", self.client.output.all())
        # With few descriptors the client fails; from some limit on it always works.
        self.assertEqual(statuses, sorted(statuses, reverse=True))
        self.assertEqual(set(statuses), {0, 1})

    def test_without_free_descriptors_it_stops_the_backend(self):
        self.session = Session(self)
        self.session.backend("refresh")
        services = self.session.services()
        self.session.note_commands()
        self.client = self.session.terminal()
        self.session.wait_for_start()
        self.client.checked()
        taken = {int(name) for name in os.listdir(f"/proc/{self.client.pid}/fd")}
        first_free = min(set(range(len(taken) + 1)) - taken)
        most = resource.prlimit(self.client.pid, resource.RLIMIT_NOFILE)[1]
        resource.prlimit(self.client.pid, resource.RLIMIT_NOFILE, (first_free, most))
        self.assertEqual(self.client.quit(), 0)
        wait_for_end(*services)


isolation.main()
