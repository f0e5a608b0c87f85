"""The local service, watched for what it gives away."""

# In no program's arguments or environment, whatever is done with it.
SECRET = "5eCret-w0rd"

LOG_OF_SHELLS = """
cat /proc/$$/cmdline /proc/$$/environ >> "$HOME/seen"
"""
CURL = """
cat /proc/$$/cmdline /proc/$$/environ >> "{home}/seen"
exec /usr/bin/curl "$@"
"""


def note_what_shells_see(session):
    """The file in which each login shell notes how it was started."""
    session.profile.write_text(session.profile.read_text() + LOG_OF_SHELLS)
    return session.home / "seen"


def stand_in_curl(session):
    """Has each request noted in the same way."""
    session.program("curl", CURL.format(home=session.home))
