"""Runs the shell lines by which the client stops the backend, as the client runs them, on real processes."""

import shutil
import signal
import socket
import subprocess
import sys
import unittest

from rig import isolation
from rig.processes import listening_ports, wait_for_end
from rig.session import BUILD, Session

# Command lines of parts of a backend.
PARTS = ("/opt/backend/.venv/bin/kestrune-mac-service", "python3 -u services/kestrune-desktop-bridge --port 8766",
         "halvask-mac-service", "/bin/sh ./halvask-desktop-bridge.sh",
         "/home/u/KestruneMenuClient/kestrune-mac-service",
         "python3 services/kestrune-desktop-bridge --root /home/u/KestruneMenuClient",
         "ssh -N -R 127.0.0.1:18765:127.0.0.1:8765 relay")
# Command lines that are similar, but belong to no part of a backend.
OTHERS = ("kestrune-mac-client status", "com.kestrune.mac-service", "ssh -L 127.0.0.1:18765:127.0.0.1:9000 relay",
          "kestrune mac-service", "sleep")
UNITS = ("com.kestrune.mac-service", "com.kestrune.mac-tunnel", "com.kestrune.desktop-bridge",
         "com.halvask.mac-service", "com.halvask.mac-tunnel", "com.halvask.desktop-bridge")
PORTS = {8765, 8766}
STOP_LIMIT = 8.0

# A systemctl that records its arguments, and fails as if the unit did not exist.
SYSTEMCTL = 'echo "$*" >> "$HOME/units"\nexit 5\n'

# A listener that ignores SIGTERM, so that only SIGKILL ends it.
LISTENER = """
import signal, socket, sys
signal.signal(signal.SIGTERM, signal.SIG_IGN)
family, address, port = int(sys.argv[1]), sys.argv[2], int(sys.argv[3])
listener = socket.socket(family)
# The connections that an earlier listener left may still hold the port.
listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
listener.bind((address, port))
listener.listen()
print("ready", flush=True)
connections = []
while True:
    connections.append(listener.accept())
"""

VISITOR = """
import signal, socket, sys
connection = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
print("ready", flush=True)
signal.pause()
"""


class StopScript(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.script = subprocess.run([BUILD / "tests/print_stop_script"], capture_output=True, check=True,
                                     text=True).stdout

    def stop(self, *through):
        done = subprocess.run([*through, "/bin/bash", "-lc", self.script], env=self.session.environment,
                              cwd=self.session.home, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=STOP_LIMIT, start_new_session=True)
        # If the lines had killed the shell that runs them, its status would not be 0.
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout

    def ready(self, command):
        """Starts a process and returns it. Waits for its first answer: then exec is done and its command line final."""
        process = self.session.spawn(*command, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stdin.close)
        process.stdin.write(b"there\n")
        self.assertEqual(process.stdout.readline(), b"there\n")
        return process

    def test_it_has_thirteen_lines(self):
        self.assertEqual(self.script.count("\n"), 12)

    def test_all_lines_run_under_set_eu(self):
        self.session.profile.write_text(self.session.profile.read_text() + "set -eu\n")
        part = self.called(PARTS[0])
        # The PID of a process that has ended meanwhile.
        self.session.program("pgrep", '[ "$1" != KestruneMenu ] || { echo 4194305; exit; }\nexec /usr/bin/pgrep "$@"\n')
        self.stop()
        wait_for_end(part.pid)

    def called(self, words):
        """Starts a process whose command line begins with these words."""
        return self.ready(["/bin/bash", "-c", 'exec -a "$0" cat -', words])

    def clients(self):
        """Starts three processes in a folder whose name is that of a part of a backend: programs with the names of the
        client and of its dialogs program, and a shell that runs such a client. Returns them."""
        folder = self.session.home / "kestrune-desktop-bridge/dist"
        folder.mkdir(parents=True)
        for name in ("KestruneMenuClient", "KestruneMenuDialogs"):
            shutil.copy("/bin/cat", folder / name)
        return [self.ready(command) for command in (
            [folder / "KestruneMenuClient", "-"], [folder / "KestruneMenuDialogs", "-"],
            ["/bin/bash", "-c", f"'{folder}/KestruneMenuClient' -; exit $?"])]

    def python(self, program, *arguments):
        process = self.session.spawn(sys.executable, "-c", program, *map(str, arguments), stdout=subprocess.PIPE)
        self.addCleanup(process.stdout.close)
        self.assertEqual(process.stdout.readline(), b"ready\n")
        return process

    def listener(self, port, family=socket.AF_INET, address="127.0.0.1"):
        return self.python(LISTENER, int(family), address, port)

    def assertEnd(self, processes, number):
        for process in processes:
            with self.subTest(process=process.args):
                wait_for_end(process.pid)
                self.assertEqual(process.wait(), -number)

    def test_it_stops_units_processes_and_listeners_of_the_backend_only(self):
        self.session.program("systemctl", SYSTEMCTL)
        parts = [self.called(words) for words in PARTS]
        others = [*map(self.called, OTHERS), *self.clients()]
        listeners = [self.listener(port) for port in sorted(PORTS)]
        listeners.append(self.listener(8765, socket.AF_INET6, "::1"))
        bystander = self.listener(8767)
        visitors = [self.python(VISITOR, port) for port in (*sorted(PORTS), 8767)]

        self.assertEqual(self.stop(), "")

        units = (self.session.home / "units").read_text().splitlines()
        self.assertEqual(units, [f"--user --no-block --no-ask-password stop {unit}.service" for unit in UNITS])
        self.assertEnd(parts, signal.SIGTERM)
        self.assertEnd(listeners, signal.SIGKILL)
        self.assertEqual(listening_ports(), {8767})
        self.assertEqual([process.args for process in (*others, bystander, *visitors) if process.poll() is not None], [])

    def test_it_needs_no_service_manager(self):
        # The lines run the real systemctl, which finds no service manager in this session.
        listener = self.listener(8766)
        self.assertEqual(self.stop(), "")
        self.assertEnd([listener], signal.SIGKILL)
        # Without the redirection, systemctl shows why it fails: for lack of a bus, and not for a wrong option.
        self.script = self.script.replace("2>/dev/null", "")
        output = self.stop().splitlines()
        self.assertEqual(len(output), len(UNITS), output)
        for line in output:
            self.assertRegex(line, "connect to .*bus")

    def test_it_spares_the_client_that_runs_it_and_its_terminal(self):
        self.session.program("systemctl", "")
        # A bash with a single command replaces itself by this command (exec). With `exit $?` as a second command, bash
        # keeps running under its own name.
        client = 'exec -a "$0" bash -c \'trap "exit 9" TERM; "$@"; exit $?\' "$0" "$@"'
        for through in ([], ["unshare", "--pid", "--fork", "--mount-proc"]):  # in the second case, as PID 1
            self.assertEqual(self.stop(*through, "bash", "-c", client, "/home/u/kestrune-desktop-bridge/menu"), "")
        terminal = 'exec -a "$0" bash -c \'bash -c "\\"\\$@\\"; exit \\$?" menu "$@"; exit $?\' "$0" "$@"'
        self.assertEqual(self.stop("bash", "-c", terminal, "terminal --directory=/home/u/kestrune-desktop-bridge"), "")

    def test_a_slow_login_and_a_hanging_systemctl_leave_time_for_the_last_line(self):
        with self.session.profile.open("a") as profile:
            profile.write("sleep 3\n")
        for seconds in (1000, 0.9):
            with self.subTest(seconds):
                self.session.program("systemctl", f"exec sleep {seconds}\n")
                listener = self.listener(8766)
                self.assertEqual(self.stop(), "")
                self.assertEnd([listener], signal.SIGKILL)
                self.assertEqual(self.session.processes(), [])


isolation.main()
