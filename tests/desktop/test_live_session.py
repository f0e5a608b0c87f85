"""The selected project and its thread in the menu, as the local service tells them."""

import time
import unittest

from support import isolation
from support.service import SECRET, answer_with, note_what_shells_see, response, stand_in_curl
from desktop.session import NO_BUS, RECONNECTING, Session, read_process, running, wait_for_end

STATUS_ONLY = """
echo "$1 asked" > "$HOME/events"
[[ $1 == status ]] && echo '[OK] Codex CLI: 1'
"""
CHECKED = 4, "Codex：OK 1"
REQUEST_LIMIT = 5.0
PLACEHOLDERS = "目前專案", "尚未取得"


class LiveSession(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)

    def shown(self, token="KESTRUNE_MAC_SERVICE_TOKEN=t\n", **options):
        """The project and the thread after the first check of a client of its own, which is always to end well."""
        if token is not None:
            (self.session.repo / ".env").write_text(token)
        client = self.session.terminal(**options)
        menu = client.menu_with(*CHECKED)
        # A reconnect may begin while the service is asked.
        while menu.status == RECONNECTING:
            menu = client.next_menu()
        self.assertEqual(client.quit(), 0)
        self.assertEqual(client.errors.all(), NO_BUS)
        project, thread = menu.rows[8].title, menu.rows[9].title
        self.assertTrue(menu.title.endswith(project.removeprefix("同步專案：")), menu.title)
        self.assertEqual((project[:5], thread[:5]), ("同步專案：", "同步會話："))
        return project[5:], thread[5:]


class SampleService(LiveSession):
    def setUp(self):
        super().setUp()
        self.session.program("codex", "echo 1\n")

    def shown(self):
        # It goes with the client, as every backend does.
        self.session.backend("refresh")
        services = self.session.services()
        shown = super().shown(token=None)
        # The next ones need their ports.
        for pid in services:
            wait_for_end(pid)
        return shown

    def test_the_project_that_is_selected(self):
        self.assertEqual(self.shown(), ("Kestrune Menu Client", "Tray menu and status lamp"))
        for project, title, thread in (("relay", "Kestrune Relay", "公開中繼的部署"), ("notes", "工作筆記", "每週整理")):
            self.session.backend("select", project)
            self.assertEqual(self.shown(), (title, thread))

    def test_one_that_fails_is_told_by_placeholders(self):
        self.session.backend("refresh")
        (self.session.repo / "projects.json").write_text("{")
        self.assertEqual(super().shown(token=None), PLACEHOLDERS)


class StandIn(LiveSession):
    def setUp(self):
        super().setUp()
        self.session.stub_backend(STATUS_ONLY)

    def answered(self, answer, **options):
        """What is shown when the service answers so, and what it was asked."""
        service = answer_with(self.session, answer)
        self.addCleanup(service.close)
        # It goes with the client, too.
        return self.shown(**options), service.all().splitlines()[1:]

    def assertShown(self, expected, answer):
        with self.subTest(answer=answer):
            shown, asked = self.answered(answer)
            self.assertEqual(shown, expected)
            self.assertEqual(asked, ["GET /desktop/projects HTTP/1.1 ['Authorization: Bearer t']"])

    def test_the_first_that_is_selected_counts(self):
        self.assertShown(("二 <b>&amp;", "甲"), response(
            '{"projects": [{"title": "一", "selected": false},'
            ' {"title": "二 <b>&amp;", "thread_name": "甲", "selected": true},'
            ' {"title": "三", "thread_name": "乙", "selected": true}]}'))

    def test_a_project_without_a_thread_lends_its_title(self):
        self.assertShown(("題", "題"), response('{"projects": [{"title": "題", "selected": true}]}'))

    def test_a_long_name_of_a_thread_is_shortened(self):
        name = "👨‍👩‍👧" * 35
        self.assertShown(("題", "👨‍👩‍👧" * 31 + "..."), response(
            f'{{"projects": [{{"title": "題", "thread_name": " {name} ", "selected": true}}]}}'))

    def test_what_cannot_be_read_is_told_by_placeholders(self):
        for answer in ("", "garbage", response("null"), response("[]"), response("{"), response('{"projects": []}'),
                       response('{"error": "no"}', "500 Internal Server Error"), response("", "401 Unauthorized")):
            self.assertShown(PLACEHOLDERS, answer)

    def test_one_that_is_down_is_told_by_placeholders(self):
        self.assertEqual(self.shown(), PLACEHOLDERS)

    def test_one_that_keeps_silent_is_given_up(self):
        self.assertShown(PLACEHOLDERS, None)

    def test_the_end_does_not_wait_for_its_answer(self):
        service = answer_with(self.session, None)
        self.addCleanup(service.close)
        (self.session.repo / ".env").write_text("KESTRUNE_MAC_SERVICE_TOKEN=t\n")
        client = self.session.terminal()
        service.wait(lambda text: "GET " in text, "request")
        [curl] = [pid for pid in running() if read_process(pid, "cmdline").startswith(b"curl\0")]
        asked = time.monotonic()
        self.assertEqual(client.quit(), 0)
        self.assertLess(time.monotonic() - asked, REQUEST_LIMIT)
        # It was killed, and ends long before it would have given up.
        wait_for_end(curl, REQUEST_LIMIT / 5)
        # It is the backend's own part that the end has stopped.
        service.all()

    def test_without_a_token_it_is_not_asked(self):
        for text in (None, "", "OTHER=1\n"):
            with self.subTest(text=text):
                shown, asked = self.answered(response('{"projects": [{"title": "題", "selected": true}]}'), token=text)
                self.assertEqual(shown, ("未配置", "未配置"))
                self.assertEqual(asked, [])

    def test_the_former_name_of_the_token(self):
        shown, asked = self.answered(response('{"projects": [{"title": "題", "selected": true}]}'),
                                     token="HALVASK_MAC_SERVICE_TOKEN=a'b\\n c\n")
        self.assertEqual(shown, ("題", "題"))
        self.assertEqual(asked, ["GET /desktop/projects HTTP/1.1 [\"Authorization: Bearer a'b\\\\n c\"]"])

    def test_the_token_is_in_no_command_line_and_no_environment(self):
        seen = note_what_shells_see(self.session)
        stand_in_curl(self.session)
        _, asked = self.answered(response("{}"), token=f"KESTRUNE_MAC_SERVICE_TOKEN={SECRET}\n",
                                 environment={"PATH": f"{self.session.bin}:{self.session.environment['PATH']}"})
        self.assertIn(SECRET, asked[0])
        self.assertIn(b"/desktop/projects", seen.read_bytes())
        self.assertIn(b"kestrune-mac-client status", seen.read_bytes())
        self.assertNotIn(SECRET.encode(), seen.read_bytes())

    def test_it_is_asked_once_for_both_checks_of_a_start(self):
        service = answer_with(self.session, response('{"projects": [{"title": "題", "selected": true}]}'))
        self.addCleanup(service.close)
        (self.session.repo / ".env").write_text("KESTRUNE_MAC_SERVICE_TOKEN=t\n")
        client = self.session.terminal()
        self.session.wait_for_start()
        # Its command is behind all that belongs to the start.
        client.type("s")
        client.said("ℹ 目前狀態")
        client.type("1")
        self.assertEqual(client.quit(), 0)
        self.assertEqual(service.all().count("GET "), 1)


if __name__ == "__main__":
    isolation.main()
