"""The local service, as tests need it: standing in, and watched for what it gives away."""

import subprocess
import sys

from support.waiting import Text, own

# In no program's arguments or environment, whatever is done with it.
SECRET = "5eCret-w0rd"

LOG_OF_SHELLS = """
cat /proc/$$/cmdline /proc/$$/environ >> "$HOME/seen"
"""
CURL = """
cat /proc/$$/cmdline /proc/$$/environ >> "{home}/seen"
exec /usr/bin/curl "$@"
"""

# Answers every connection with the same bytes, or keeps it waiting; tells the first line and the token of each request.
STAND_IN = """
import socket, sys
server = socket.create_server(("127.0.0.1", 8765))
waiting = []
print("listening", flush=True)
while True:
    connection, _ = server.accept()
    request = connection.recv(65536).decode()
    token = [line for line in request.splitlines() if line.startswith("Authorization")]
    print(request.splitlines()[0], token, flush=True)
    waiting.append(connection)
    if sys.argv[1:]:
        connection.sendall(bytes.fromhex(sys.argv[1]))
        connection.close()
"""


def note_what_shells_see(session):
    """The file in which each login shell notes how it was started."""
    session.profile.write_text(session.profile.read_text() + LOG_OF_SHELLS)
    return session.home / "seen"


def stand_in_curl(session):
    """Has each request noted in the same way."""
    session.program("curl", CURL.format(home=session.home))


def answer_with(session, answer):
    """A service that gives that answer to every request, or none if that is absent: what it tells of them."""
    argument = [] if answer is None else [answer.encode().hex()]
    process = session.spawn(sys.executable, "-c", STAND_IN, *argument, stdout=subprocess.PIPE)
    said = Text(own(process.stdout))
    said.wait(lambda text: "listening" in text, "service")
    return said


def response(body, status="200 OK"):
    return f"HTTP/1.1 {status}\r\nContent-Type: application/json\r\nConnection: close\r\n\r\n{body}"
