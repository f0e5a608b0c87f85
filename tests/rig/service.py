"""Records of the command lines and environments of shells and of curl, in which no secret may appear."""

# Must appear in no arguments and no environment.
SECRET = "5eCret-w0rd"

LOG_OF_SHELLS = """
cat /proc/$$/cmdline /proc/$$/environ >> "$HOME/seen"
"""
CURL = """
cat /proc/$$/cmdline /proc/$$/environ >> "{home}/seen"
exec /usr/bin/curl "$@"
"""


def note_what_shells_see(session):
    """Returns the file to which each login shell writes its arguments and environment."""
    session.profile.write_text(session.profile.read_text() + LOG_OF_SHELLS)
    return session.home / "seen"


def stand_in_curl(session):
    """Makes each curl do the same."""
    session.program("curl", CURL.format(home=session.home))
