"""Tests of alerts (windows with a message) on a Desk, and the events by which a window reports its answer."""

from rig.asked import title_of
from rig.desk import OnDesk


def answered(number, button, **fields):
    return {"answered": {"id": number, "answer": {"button": button, "fields": fields}}}


class Alerts(OnDesk):
    def opened(self, *requests, name=None):
        """Starts the program and shows these alerts. Returns the program, and the window of the last alert."""
        program = self.program()
        program.show(*requests)
        return program, program.window(name or title_of(requests[-1]))

    def assertEnds(self, program, *events):
        for event in events:
            self.assertEqual(program.event(), event)
        self.assertEqual(program.status(), 0)
        self.assertEqual(program.complaint(), "")

    def assertOnScreen(self, *nodes):
        for node in nodes:
            left, top, wide, high = node.place()
            self.assertTrue(0 <= left <= left + wide <= self.width, f"{node} at {node.place()}")
            self.assertTrue(0 <= top <= top + high <= self.height, f"{node} at {node.place()}")
