"""Records the command lines and environments of login shells and of curl. No secret may appear in these records."""

# A secret for tests, which must not appear in any command line or environment.
SECRET = "5eCret-w0rd"

LOG_OF_SHELLS = """
cat /proc/$$/cmdline /proc/$$/environ >> "$HOME/seen"
"""
CURL = """
cat /proc/$$/cmdline /proc/$$/environ >> "{home}/seen"
exec /usr/bin/curl "$@"
"""


def note_what_shells_see(session):
    """Makes each login shell write its command line and environment to a file. Returns the file."""
    session.profile.write_text(session.profile.read_text() + LOG_OF_SHELLS)
    return session.home / "seen"


def stand_in_curl(session):
    """Makes each curl write its command line and environment to the file of note_what_shells_see()."""
    session.program("curl", CURL.format(home=session.home))
