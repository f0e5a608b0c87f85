"""The installed program, in a prefix and in a backend's own folder: it runs from there and finds what it needs."""

import shutil
import subprocess
import unittest

from support import isolation
from desktop.bus import ITEM, Bus
from desktop.session import BUILD, CONNECTED, PATIENCE, Session


class Installed(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.bus = Bus(self.session)
        self.traffic = self.bus.monitor()
        self.addCleanup(self.traffic.close)

    def install(self, prefix, *options):
        subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix, *options], check=True,
                       stdout=subprocess.DEVNULL, timeout=PATIENCE)

    def files(self, folder):
        return sorted(str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file())

    def assertConnectsWithLogo(self, program, **options):
        self.session.backend("refresh")
        client = self.session.start(program=program, **options)
        self.traffic.wait_for_status(CONNECTED)
        self.assertIn([22, 22], [pixmap[:2] for pixmap in self.bus.get(ITEM, "IconPixmap")])
        self.assertEqual(client.end(), 0)

    def test_in_a_prefix(self):
        prefix = self.session.root / "前綴 a prefix"
        self.install(prefix)
        program = prefix / "bin/KestruneMenuClient"
        self.assertIn("share/kestrune-menu-client/codex-menubar.png", self.files(prefix))
        # What serves the build alone stays there.
        self.assertEqual([name for name in self.files(prefix) if "test" in name or name.endswith((".a", ".h"))], [])
        self.assertConnectsWithLogo(program)

    def test_in_a_prefix_by_way_of_a_link(self):
        prefix = self.session.root / "前綴 a prefix"
        self.install(prefix)
        link = self.session.bin / "KestruneMenuClient"
        link.symlink_to(prefix / "bin/KestruneMenuClient")
        self.assertConnectsWithLogo(link)

    def test_in_the_folder_of_a_backend_it_finds_that_backend(self):
        del self.session.environment["KESTRUNE_REPO_PATH"]
        self.install(self.session.repo / "dist", "--component", "backend")
        folder = self.session.repo / "dist/Kestrune Menu Client"
        self.assertIn("resources/codex-menubar.png", self.files(folder))
        self.assertEqual([path.name for path in (self.session.repo / "dist").iterdir()], [folder.name])
        self.assertConnectsWithLogo(folder / "KestruneMenuClient", cwd="/")

    def test_the_environment_comes_before_the_folder(self):
        empty = self.session.root / "other"
        empty.mkdir()
        self.install(self.session.repo / "dist", "--component", "backend")
        program = self.session.repo / "dist/Kestrune Menu Client/KestruneMenuClient"
        client = self.session.terminal(program=program, environment={"KESTRUNE_REPO_PATH": str(empty)})
        self.assertRegex(client.checked().status, r"^🟡 連線狀態：.*\.venv/bin/activate: No such file or directory$")
        self.assertEqual(client.quit(), 0)

    def test_a_blank_environment_counts_as_none(self):
        self.session.backend("refresh")
        self.install(self.session.repo / "dist", "--component", "backend")
        program = self.session.repo / "dist/Kestrune Menu Client/KestruneMenuClient"
        client = self.session.terminal(program=program, environment={"KESTRUNE_REPO_PATH": " \t "})
        self.assertEqual(client.checked().status, CONNECTED)
        self.assertEqual(client.quit(), 0)

    def test_its_folder_may_go_while_it_runs(self):
        prefix = self.session.root / "prefix"
        self.install(prefix)
        self.session.backend("refresh")
        client = self.session.terminal(program=prefix / "bin/KestruneMenuClient")
        self.assertEqual(client.checked().status, CONNECTED)
        shutil.rmtree(prefix)
        client.type("")
        self.assertEqual(client.next_menu().status, CONNECTED)
        self.assertEqual(client.quit(), 0)

    def test_without_a_logo_it_goes_on(self):
        program = self.session.root / "alone/KestruneMenuClient"
        program.parent.mkdir()
        shutil.copy(BUILD / "KestruneMenuClient", program)
        self.session.backend("refresh")
        client = self.session.start(program=program)
        self.traffic.wait_for_status(CONNECTED)
        self.assertEqual(self.bus.get(ITEM, "IconPixmap"), [])
        self.assertEqual(self.bus.get(ITEM, "ToolTip")[2], "Kestrune · 已連線 · Kestrune Menu Client")
        self.assertEqual(client.end(), 0)


if __name__ == "__main__":
    isolation.main()
