"""Tests that the program runs and finds its files when it is installed in a prefix, or in a backend's folder."""

import shutil
import subprocess
import unittest

from rig import isolation
from rig.bus import ITEM, Bus
from rig.client import CONNECTED
from rig.session import BUILD, Session
from rig.waiting import PATIENCE


class Installed(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.backend("refresh")

    def install(self, prefix, *options):
        subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix, *options], check=True,
                       stdout=subprocess.DEVNULL, timeout=PATIENCE)

    def files(self, folder):
        return sorted(str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file())

    def assertConnects(self, program, **options):
        bus = Bus(Session(self))
        traffic = bus.monitor()
        client = self.session.start(program=program, environment={bus.variable: bus.address}, **options)
        traffic.wait_for_status(CONNECTED)
        self.assertIn([22, 22], [list(pixmap[:2]) for pixmap in bus.get(ITEM, "IconPixmap")])
        self.assertEqual(bus.get(ITEM, "ToolTip")[2], "Kestrune · 已連線 · Kestrune Menu Client")
        return client

    def test_it_runs_from_a_prefix_through_a_symbolic_link(self):
        prefix = self.session.root / "前綴 a prefix"
        self.install(prefix)
        self.assertIn("share/kestrune-menu-client/codex-menubar.png", self.files(prefix))
        # Files that only the build needs are not installed.
        self.assertEqual([name for name in self.files(prefix) if "test" in name or name.endswith((".a", ".h"))], [])
        link = self.session.bin / "KestruneMenuClient"
        link.symlink_to(prefix / "bin/KestruneMenuClient")
        client = self.assertConnects(link)
        # A running client must go on when its folder is removed.
        shutil.rmtree(prefix)
        self.assertEqual(client.end(), 0)

    def test_it_finds_the_backend_that_contains_it(self):
        self.install(self.session.repo / "dist", "--component", "backend")
        folder = self.session.repo / "dist/Kestrune Menu Client"
        self.assertIn("resources/codex-menubar.png", self.files(folder))
        self.assertEqual([path.name for path in (self.session.repo / "dist").iterdir()], [folder.name])
        # KESTRUNE_REPO_PATH, if it is set, takes precedence over the folder that contains the program.
        empty = self.session.root / "other"
        empty.mkdir()
        program = folder / "KestruneMenuClient"
        client = self.session.terminal(program=program, environment={"KESTRUNE_REPO_PATH": str(empty)})
        self.assertRegex(client.checked().status, r"^🟡 連線狀態：.*\.venv/bin/activate: No such file or directory$")
        self.assertEqual(client.quit(), 0)
        self.session.backend("refresh")
        self.session.environment["KESTRUNE_REPO_PATH"] = " \t "
        self.assertEqual(self.assertConnects(program, cwd="/").end(), 0)


isolation.main()
