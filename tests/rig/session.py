"""A user's session in a temporary folder: a home, a backend, and the client under test."""

import contextlib
import json
import os
import pty
import shutil
import socket
import subprocess
import tempfile
import time
from pathlib import Path
from urllib.parse import quote

from rig.client import Client
from rig.processes import end_process, read_process, running, wait_for_end, write_script
from rig.waiting import PATIENCE, Deadline, Events, Gate

BUILD = Path(os.environ["KESTRUNE_BUILD"])
SOURCE = Path(os.environ["KESTRUNE_SOURCE"])
PROGRAM = BUILD / "KestruneMenuClient"

# The longest time in seconds that a killed process may take to end.
MOMENT = 5.0

# Counts the reports, so that each report differs from the one before.
COUNT = """
if [[ $1 == status ]]; then
    echo again >> "$HOME/count"
    echo "[OK] Codex CLI: $(wc -l < "$HOME/count")"
fi
"""
COUNTING_BACKEND = f"""
echo "$1 asked" > "$HOME/events"
{COUNT}
[[ $1 == status ]] || echo '[OK] 隧道 <b>: &amp; 恢復'
"""
REPORTING_BACKEND = """
echo "$1 asked" > "$HOME/events"
echo '[OK] Mac service: 好'
"""
# A backend whose status command prints the line that the test writes to the named pipe "gate".
GATED_BACKEND = """
[[ $1 == status ]] || exit 0
echo "status asked" > "$HOME/events"
read -r report < "$HOME/gate"
echo "$report"
[[ $report != FAIL* ]]
"""
# A replacement for lsof, which the stop script calls twice, once for each port. Each call waits until the
# test writes a line to the named pipe "gate".
HELD_UP_STOP = """
echo "stopping" > "$HOME/events"
read -r < "$HOME/gate"
"""

# Starts the client like a service manager, which sets SYSTEMD_EXEC_PID for the main process of a service.
AS_SERVICE = "sh", "-c", 'SYSTEMD_EXEC_PID=$$ exec "$0" "$@"'

SWITCHED_OFF = '{"autoConnectEnabled": false}'

# A secret for tests, which must not appear in any command line or environment.
SECRET = "5eCret-w0rd"


def counted(number):
    """Returns the row of the menu that shows the report with this number, and the title of this row."""
    return 4, f"Codex：OK {number}"


class Session(contextlib.ExitStack):
    """A user's session. It ends when `test`, a test or a class of tests, ends. If `test` is None, the caller uses the
    session as a context manager."""

    def __init__(self, test=None):
        super().__init__()
        self.root = Path(tempfile.mkdtemp(prefix="kestrune 資料夾 "))
        self.callback(shutil.rmtree, self.root)
        self.home = self.root / "家 home"
        self.repo = self.root / "後端 my repo"
        self.config = self.root / "設定 config"
        self.runtime = self.root / "run"
        self.bin = self.home / "bin"
        for folder in (self.home, self.config, self.runtime, self.bin):
            folder.mkdir()
        self.runtime.chmod(0o700)
        self.environment = {
            "PATH": "/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin",
            "LANG": "C.UTF-8",
            "HOME": str(self.home),
            "XDG_CONFIG_HOME": str(self.config),
            "XDG_STATE_HOME": str(self.root / "state"),
            "XDG_CACHE_HOME": str(self.root / "cache"),
            "XDG_DATA_HOME": str(self.root / "data"),
            "XDG_RUNTIME_DIR": str(self.runtime),
            "KESTRUNE_REPO_PATH": str(self.repo),
            "GSETTINGS_BACKEND": "memory",
            "NO_AT_BRIDGE": "1",  # keeps GTK programs off the accessibility bus
            "QT_ACCESSIBILITY": "1",
            "QT_LINUX_ACCESSIBILITY_ALWAYS_ON": "1",
        }
        # Pass on the options of sanitizers.
        self.environment |= {name: value for name, value in os.environ.items() if name.endswith("SAN_OPTIONS")}
        # No test may reach the machine's system bus. In its place there is a socket that never answers.
        system_bus = self.enter_context(socket.socket(socket.AF_UNIX))
        system_bus.bind(str(self.runtime / "system_bus"))
        system_bus.listen()
        self.environment["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=" + quote(str(self.runtime / "system_bus"))
        # A login shell resets PATH, so the profile of the user has to extend PATH.
        self.profile = self.home / ".bash_profile"
        self.profile.write_text('PATH="$HOME/bin:$PATH"\n')
        shutil.copytree(SOURCE / "examples/backend", self.repo, symlinks=True,
                        ignore=shutil.ignore_patterns("run", ".env", "__pycache__"))
        self.backend_program = self.repo / ".venv/bin/kestrune-mac-client"
        self.events = Events(self.home / "events")
        self.callback(self.events.close)
        self.gate = Gate(self.home / "gate")
        self.callback(self.gate.close)
        self.clients = []
        self.others = []
        self.callback(self.end_all)
        if test:
            (test.addClassCleanup if isinstance(test, type) else test.addCleanup)(self.close)

    def end_all(self):
        for client in self.clients:
            client.close()
        # Repeats this until no process is left, because a process may start another one in the meantime.
        while pids := self.processes():
            for pid in pids:
                end_process(pid)
        for child in self.others:
            child.kill()
            child.wait()

    # --- programs that the session runs

    def start(self, *arguments, program=PROGRAM, through=(), environment=None, **options):
        """Starts the client. If `through` is given, this other program starts the client."""
        ordinary = {"cwd": self.home, "env": {**self.environment, **(environment or {})},
                    "stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        self.clients.append(Client([*through, program, *arguments], **{**ordinary, **options}))
        return self.clients[-1]

    def terminal(self, **options):
        """Starts the client with the terminal face (the user interface in a terminal), on pipes."""
        return self.start("--terminal", **options)

    def real_terminal(self, **options):
        """Starts the client with the terminal face, in a pseudo-terminal."""
        near, far = pty.openpty()
        client = self.start("--terminal", through=["setsid", "--ctty"], terminal=near, stdin=far, stdout=far, **options)
        os.close(far)
        return client

    def run(self, *arguments, **options):
        """Starts the client and waits for its end. Returns its exit status, output and errors."""
        client = self.start(*arguments, **{"stdin": subprocess.DEVNULL, **options})
        return client.status(), client.output.all(), client.errors.all()

    def spawn(self, *command, environment=None, **options):
        """Starts another program of the session. Variables that are None in `environment` are unset."""
        changed = {**self.environment, **(environment or {})}
        ordinary = {"env": {name: value for name, value in changed.items() if value is not None}, "cwd": self.home,
                    "bufsize": 0, "stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL,
                    "stderr": subprocess.DEVNULL}
        self.others.append(subprocess.Popen(command, **{**ordinary, **options}))
        return self.others[-1]

    def output_of(self, *command, **options):
        """Runs another program of the session, which must exit with 0. Returns its output."""
        return subprocess.run(command, **{"env": self.environment, "cwd": self.home, "stdin": subprocess.DEVNULL,
                                          "check": True, "capture_output": True, "timeout": PATIENCE, **options}).stdout

    def install(self, prefix, *options):
        subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix, *options], check=True,
                       stdout=subprocess.DEVNULL, timeout=PATIENCE)

    def program(self, name, text):
        """Puts a script into a folder on the PATH of login shells."""
        write_script(self.bin / name, text)
        return self.bin / name

    def find_programs_first(self):
        """Puts the folder of the scripts also on the PATH of the client, not only of its login shells."""
        self.environment["PATH"] = f"{self.bin}:{self.environment['PATH']}"

    def processes(self):
        """Returns the ids of the running processes of this session."""
        mark = f"HOME={self.home}".encode()
        return [pid for pid in running() if mark in read_process(pid, "environ").split(b"\0")]

    def wait_for_ends(self, besides=frozenset()):
        """Waits until the killed processes have ended, at most MOMENT for each. Ignores the processes in `besides`."""
        wait_for_end(*set(self.processes()) - besides, seconds=MOMENT)

    @staticmethod
    def wait_for_peer():
        """Waits until a process, such as a second client, is connected to the client's socket."""
        deadline = Deadline()
        # The count includes the socket at which the client listens.
        while Path("/proc/net/unix").read_text().count("/socket.new\n") < 2:
            if deadline.left() == 0:
                raise AssertionError("no process connects to the client")
            time.sleep(0.01)

    # --- the backend

    def backend(self, *arguments):
        """Runs the command line of the sample backend, and returns its output."""
        done = subprocess.run([self.backend_program, *arguments], env=self.environment,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, encoding="utf-8",
                              timeout=PATIENCE)
        if done.returncode != 0:
            raise AssertionError(f"{arguments}: status {done.returncode}\n{done.stdout}{done.stderr}")
        return done.stdout

    def services(self):
        """Returns the ids of the backend's three services. Fails if one of them is not running."""
        pids = [int((self.repo / "run" / f"{name}.pid").read_text()) for name in ("service", "bridge", "tunnel")]
        assert set(pids) <= set(running()), pids
        return pids

    def stub_backend(self, text):
        """Replaces the command line of the backend by a script."""
        write_script(self.backend_program, text)

    def note_commands(self, counting=False):
        """Makes the backend write an event after each command; wait_for_start() reads these events. With `counting`,
        each report differs from the one before."""
        real = self.backend_program.rename(self.backend_program.with_name("real-client"))
        self.stub_backend((COUNT if counting else "") +
                          f'"{real}" "$@"; status=$?; echo "$1 asked" > "$HOME/events"; exit $status\n')

    def wait_for_start(self):
        """Waits for the events of all commands that a start runs."""
        asked = [self.events.next() for _ in range(3)]
        assert asked == ["status asked", "refresh asked", "status asked"], asked

    def preferences(self):
        return json.loads((self.config / "kestrune-menu-client/preferences.json").read_text())

    def prefer(self, text):
        """Writes the file with the client's preferences."""
        folder = self.config / "kestrune-menu-client"
        folder.mkdir(exist_ok=True)
        (folder / "preferences.json").write_text(text)
