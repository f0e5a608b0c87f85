"""A backend that is missing, has its former name, or prints control characters."""

import unittest

from rig import isolation
from rig.client import CONNECTED, NO_BUS
from rig.session import Session

LEGACY_MISSING = "halvask-mac-client: command not found"


class BadBackend(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)

    def assertStatus(self, pattern, errors=NO_BUS, **options):
        """Starts a client, checks that its status matches the pattern after its first backend check, and quits."""
        self.client = self.session.terminal(**options)
        menu = self.client.checked()
        self.assertRegex(menu.status, pattern)
        if menu.status != CONNECTED:
            self.assertEqual(menu.title, "Kestrune · 檢查中 · 未配置")
            self.assertEqual([menu.rows[number].title for number in range(4, 8)],
                             ["Codex：尚未檢查", "Remote Control：尚未檢查", "Codex App：尚未檢查", "ChatGPT Remote：尚未檢查"])
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), errors)
        self.client.assert_only_started(menu.status)

    def test_a_missing_folder_or_program_is_named(self):
        folder = str(self.session.root / "沒有 no such folder")
        self.assertStatus("^🟡 連線狀態：.*: cd: /.*/沒有 no such folder: No such file or directory$",
                          f"KestruneMenuClient: no backend in {folder}, named by KESTRUNE_REPO_PATH: it has no "
                          ".venv/bin/activate. Set KESTRUNE_REPO_PATH to the folder of the backend.\n",
                          environment={"KESTRUNE_REPO_PATH": folder})
        self.session.backend_program.unlink()
        self.assertStatus(f"^🟡 連線狀態：.*: {LEGACY_MISSING}$")

    def test_the_former_name_of_its_program_works(self):
        former = self.session.repo / ".venv/bin/halvask-mac-client"
        self.session.backend_program = self.session.backend_program.rename(former)
        self.session.backend("refresh")
        self.assertStatus(f"^{CONNECTED}$")

    def test_its_output_is_read_as_utf8_and_shown_without_controls(self):
        self.session.stub_backend("printf '  第一行 <b>_&\\033[31m\\007\\t🟢  \\n第二行'; exit 1\n")
        self.assertStatus("^🟡 連線狀態：第一行 <b>_& +🟢  $", environment={"LC_ALL": "zh_TW.BIG5"})
        self.assertNotRegex(self.client.output.so_far, "[\0-\x09\x0b-\x1f\x7f]")


isolation.main()
