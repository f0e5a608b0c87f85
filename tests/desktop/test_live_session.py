"""The selected project and its thread in the menu, as the local service tells them."""

import time
import unittest

from support import isolation
from support.client import NO_BUS, RECONNECTING
from support.processes import read_process, running, wait_for_end
from support.service import answer_with, response
from support.session import Session

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

    def stand_in(self, token="KESTRUNE_MAC_SERVICE_TOKEN=t\n"):
        self.session.stub_backend(STATUS_ONLY)
        (self.session.repo / ".env").write_text(token)

    def service(self, answer):
        service = answer_with(self.session, answer)
        self.addCleanup(service.close)
        return service

    def shown(self, **options):
        """The project and the thread after the first check of a client of its own, which is always to end well."""
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

    def test_the_project_that_is_selected(self):
        self.session.program("codex", "echo 1\n")
        for project, title, thread in (("relay", "Kestrune Relay", "公開中繼的部署"), ("notes", "工作筆記", "每週整理")):
            # It goes with the client, as every backend does.
            self.session.backend("refresh")
            services = self.session.services()
            self.session.backend("select", project)
            self.assertEqual(self.shown(), (title, thread))
            # The next ones need their ports.
            for pid in services:
                wait_for_end(pid)

    def test_the_first_that_is_selected_counts_with_a_short_name(self):
        self.stand_in()
        service = self.service(response(
            '{"projects": [{"title": "一", "selected": false},'
            f' {{"title": "二 <b>&amp;", "thread_name": " {"👨‍👩‍👧" * 35} ", "selected": true}},'
            ' {"title": "三", "thread_name": "乙", "selected": true}]}'))
        self.assertEqual(self.shown(), ("二 <b>&amp;", "👨‍👩‍👧" * 31 + "..."))
        # The service goes with the client, too.
        self.assertEqual(service.all().splitlines()[1:], ["GET /desktop/projects HTTP/1.1 ['Authorization: Bearer t']"])

    def test_one_that_fails_or_keeps_silent_is_told_by_placeholders(self):
        self.stand_in()
        for answer in ("garbage", response('{"error": "no"}', "500 Internal Server Error"), None):
            with self.subTest(answer=answer):
                service = self.service(answer)
                self.assertEqual(self.shown(), PLACEHOLDERS)
                service.all()
        self.assertEqual(self.shown(), PLACEHOLDERS)

    def test_the_end_does_not_wait_for_its_answer(self):
        self.stand_in()
        service = self.service(None)
        client = self.session.terminal()
        service.wait(lambda text: "GET " in text, "request")
        [curl] = [pid for pid in running() if read_process(pid, "cmdline").startswith(b"curl\0")]
        asked = time.monotonic()
        self.assertEqual(client.quit(), 0)
        self.assertLess(time.monotonic() - asked, REQUEST_LIMIT)
        # It was killed, and ends before it would have given up.
        wait_for_end(curl, REQUEST_LIMIT / 2)
        # It is the backend's own part that the end has stopped.
        service.all()

    def test_without_a_token_it_is_not_asked(self):
        self.stand_in("OTHER=1\n")
        service = self.service(response('{"projects": [{"title": "題", "selected": true}]}'))
        self.assertEqual(self.shown(), ("未配置", "未配置"))
        self.assertEqual(service.all().splitlines()[1:], [])


if __name__ == "__main__":
    isolation.main()
