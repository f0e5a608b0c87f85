"""A user's session in a temporary folder: a home, a backend, and the client that is under test."""

import codecs
import json
import os
import pty
import re
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
from contextlib import suppress
from pathlib import Path
from typing import NamedTuple
from urllib.parse import quote

BUILD = Path(os.environ["KESTRUNE_BUILD"])
SOURCE = Path(os.environ["KESTRUNE_SOURCE"])
PROGRAM = BUILD / "KestruneMenuClient"

# Far more than anything here takes; only a fault lets it pass.
PATIENCE = 40.0
# What was killed is gone by then.
MOMENT = 5.0

PORTS = 8765, 8766, 18765

CHECKING = "🟡 連線狀態：正在檢查狀態…"
CONNECTED = "🟢 連線狀態：已連線"
FAULTY = "🔴 連線狀態：異常"
RECONNECTING = "🟡 連線狀態：正在重新連線…"
NETWORK_NOT_KNOWN = "目前網路：未知網路"
DISABLED = "🟡 連線狀態：已停用，不會啟動背景服務"

NO_BUS = ""  # in the terminal nobody misses it
NO_DESKTOP = "; where there is no desktop, use --terminal\n"
NO_BUS_FOR_THE_TRAY = ("KestruneMenuClient: no session bus (No such file or directory): "
                       "going on without it" + NO_DESKTOP)
NO_SYSTEM_BUS = "KestruneMenuClient: no system bus (No such file or directory): going on without it\n"
NO_TRAY = "KestruneMenuClient: no tray on this desktop: the icon appears as soon as there is one" + NO_DESKTOP


class Deadline:
    def __init__(self, seconds=PATIENCE):
        self.end = time.monotonic() + seconds

    def left(self):
        return max(0.0, self.end - time.monotonic())


class Text:
    """What comes out of a pipe or a terminal, readable while it grows."""

    def __init__(self, descriptor):
        self.descriptor = descriptor
        self.so_far = ""
        self.ended = False
        self.arrivals = []  # how long the text was at what time
        self.changed = threading.Condition()
        self.let_go = os.eventfd(0)
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        decoder = codecs.getincrementaldecoder("utf-8")("backslashreplace")
        terminal = os.isatty(self.descriptor)
        data = True
        while data:
            data = b""
            if self.let_go not in select.select([self.descriptor, self.let_go], [], [])[0]:
                with suppress(OSError):  # with which the output of a terminal ends
                    data = os.read(self.descriptor, 65536)
            text = decoder.decode(data, not data)
            with self.changed:
                # A terminal puts a carriage return before each line end.
                self.so_far += text.replace("\r", "") if terminal else text
                self.arrivals.append((len(self.so_far), time.monotonic()))
                self.ended = not data
                self.changed.notify_all()

    def wait(self, find, what, seconds=PATIENCE):
        """The first true value that `find` has for the text."""
        deadline = Deadline(seconds)
        with self.changed:
            while not (found := find(self.so_far)):
                if self.ended or not self.changed.wait(deadline.left()):
                    why = "the output has ended" if self.ended else f"not within {seconds:g} s"
                    raise AssertionError(f"no {what}: {why}. There is:\n{self.so_far}")
        return found

    def time_of(self, position):
        """When the character at this position came; for one behind the last, when the last came or the text ended."""
        return next((when for length, when in self.arrivals if length > position), self.arrivals[-1][1])

    def all(self):
        """The whole text, once its last writer has closed it."""
        with self.changed:
            if not self.changed.wait_for(lambda: self.ended, PATIENCE):
                raise AssertionError(f"the output is still open after:\n{self.so_far}")
        return self.so_far

    def close(self):
        os.eventfd_write(self.let_go, 1)
        self.reader.join()
        os.close(self.let_go)
        os.close(self.descriptor)


class Row:
    def __init__(self, line):
        self.number = int(line[:2])
        self.key = line[4].strip()
        self.mark = {"✓": True, "✗": False}.get(line[6])
        self.title = line[8:]


class Menu:
    """One print of the menu."""

    PATTERN = re.compile(r"\n([^\n]*)\n─{28}\n((?:[ \d]\d  [^\n]*\n){29})")

    def __init__(self, match):
        self.title = match.group(1)
        self.rows = {row.number: row for row in map(Row, match.group(2).splitlines())}
        self.status = self.rows[2].title
        self.last = match.end() - 1  # the position of its last character

    @classmethod
    def all_in(cls, text):
        return [cls(match) for match in cls.PATTERN.finditer(text)]


class Window(NamedTuple):
    """What a window shows. Its texts may be read in a terminal, on the screen, or in a notification."""

    title: str
    text: str
    warns: bool = False

    PRINTED = re.compile(r"\n([ℹ⚠]) ([^\n]*)\n─{28}\n(.*?)\n\n\[1\] 好  \n", re.DOTALL)

    @classmethod
    def all_in(cls, text):
        return [cls(title, content, sign == "⚠") for sign, title, content in cls.PRINTED.findall(text)]


def own(stream):
    """The descriptor of a stream, taken over from it."""
    if stream is None:
        return None
    with stream:
        return os.dup(stream.fileno())


class Client:
    """The running program."""

    def __init__(self, command, terminal=None, **options):
        self.started = time.monotonic()
        self.process = subprocess.Popen(command, bufsize=0, **options)
        self.pid = self.process.pid
        self.input, output, errors = map(own, (self.process.stdin, self.process.stdout, self.process.stderr))
        if terminal is not None:
            self.input, output = os.dup(terminal), terminal
        self.output, self.errors = [descriptor and Text(descriptor) for descriptor in (output, errors)]
        self.seen = 0  # menus that were handed out
        self.windows_seen = 0

    def close(self):
        with suppress(ProcessLookupError):
            self.process.kill()
        self.process.wait()
        self.close_input()
        for text in (self.output, self.errors):
            if text:
                text.close()
        self.output = self.errors = None

    def close_input(self):
        if self.input is not None:
            os.close(self.input)
        self.input = None

    def hang_up(self):
        """Takes its terminal away."""
        self.close_input()
        self.output.close()
        self.output = None

    def age(self):
        return time.monotonic() - self.started

    def menus(self):
        return Menu.all_in(self.output.so_far)

    def next_menu(self, seconds=PATIENCE):
        menus = self.output.wait(lambda text: Menu.all_in(text)[self.seen:], "other menu", seconds)
        self.seen += 1
        return menus[0]

    def next_window(self):
        windows = self.output.wait(lambda text: Window.all_in(text)[self.windows_seen:], "other window")
        self.windows_seen += 1
        return windows[0]

    def menu_with(self, number, title):
        """The next menu in which that row says so."""
        while (menu := self.next_menu()).rows[number].title != title:
            pass
        return menu

    def first_check(self):
        """The menu with the result of the first check."""
        first = self.next_menu()
        assert first.status == CHECKING, first.status
        # The network may be known before that, and be answered by a reconnect.
        while (menu := self.next_menu()).status == RECONNECTING:
            pass
        return menu

    def checked(self):
        """The menu after what follows a start: the first check, and a reconnect as soon as the network is known. The
        check at the end of the reconnect may be still to come; it prints nothing if it finds what the first one has."""
        menu = self.first_check()
        while menu.status == RECONNECTING or menu.rows[10].title == NETWORK_NOT_KNOWN:
            menu = self.next_menu()
        return menu

    def assert_only_started(self, status):
        """Nothing was printed but what follows a start."""
        printed = [menu.status for menu in self.menus()]
        # Which of the two comes first is a matter of chance; what is over before it was printed is left out.
        assert printed in ([CHECKING, RECONNECTING, status], [CHECKING, status, RECONNECTING, status],
                           [CHECKING, status]), printed

    def said(self, words):
        self.output.wait(lambda text: words in text, f"'{words}' on standard output")

    def complained(self, words):
        self.errors.wait(lambda text: words in text, f"'{words}' on standard error")

    def type(self, line):
        os.write(self.input, line.encode() + b"\n")

    def send(self, number):
        self.process.send_signal(number)

    def status(self, seconds=PATIENCE):
        """The exit status, once the program has ended."""
        return self.process.wait(seconds)

    def quit(self):
        self.type("q")
        return self.status()

    def end(self, number=signal.SIGTERM):
        self.send(number)
        return self.status()


# Each report differs from the one before, so that its arrival is to be seen.
COUNT = """
if [[ $1 == status ]]; then
    echo again >> "$HOME/count"
    echo "[OK] Codex CLI: $(wc -l < "$HOME/count")"
fi
"""
COUNTING_BACKEND = f"""
echo "$1 asked" > "$HOME/events"
{COUNT}
if [[ $1 == status && -e $HOME/failing ]]; then
    echo '[FAIL] 隧道 <b>: &amp; 沒有'
    exit 1
fi
[[ $1 == status ]] || echo '[OK] 隧道 <b>: &amp; 恢復'
"""


def counted(number):
    """The row of the menu in which the report of that number is to be seen, and what it says."""
    return 4, f"Codex：OK {number}"


class Events:
    """Lines that programs of a test write into a named pipe when something happens."""

    def __init__(self, path):
        os.mkfifo(path)
        # Open for writing as well, or the pipe would end with its first writer.
        self.pipe = os.open(path, os.O_RDWR | os.O_NONBLOCK)
        self.begun = ""

    def next(self, seconds=PATIENCE):
        deadline = Deadline(seconds)
        while "\n" not in self.begun:
            if not select.select([self.pipe], [], [], deadline.left())[0]:
                raise AssertionError(f"nothing happened within {seconds:g} s")
            self.begun += os.read(self.pipe, 4096).decode()
        line, _, self.begun = self.begun.partition("\n")
        return line

    def pending(self):
        with suppress(BlockingIOError):
            self.begun += os.read(self.pipe, 65536).decode()
        return self.begun.splitlines()

    def close(self):
        os.close(self.pipe)


class Gate(Events):
    """Where a program of a test waits, by reading a line, until it is let on."""

    def open(self, line="go"):
        os.write(self.pipe, line.encode() + b"\n")


class Session:
    """Everything in it ends with the test, or with the class of tests, that it is made for."""

    def __init__(self, test):
        self.root = Path(tempfile.mkdtemp(prefix="kestrune 資料夾 "))
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
        }
        # One that takes connections and says nothing: no test may reach the machine's own.
        self.system_bus = socket.socket(socket.AF_UNIX)
        self.system_bus.bind(str(self.runtime / "system_bus"))
        self.system_bus.listen()
        self.environment["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=" + quote(str(self.runtime / "system_bus"))
        # A login shell sets PATH anew, so what is to be found first must be put there by the user's profile.
        self.profile = self.home / ".bash_profile"
        self.profile.write_text('PATH="$HOME/bin:$PATH"\n')
        self.copy_backend(self.repo)
        self.backend_program = self.repo / ".venv/bin/kestrune-mac-client"
        self.events = Events(self.home / "events")
        self.gate = Gate(self.home / "gate")
        self.clients = []
        self.others = []
        (test.addClassCleanup if isinstance(test, type) else test.addCleanup)(self.close)

    def close(self):
        for client in self.clients:
            client.close()
        # Until there are none: while one is ended, another may start one more.
        while pids := self.processes():
            for pid in pids:
                end_process(pid)
        for child in self.others:
            child.kill()
            child.wait()
        self.events.close()
        self.gate.close()
        self.system_bus.close()
        shutil.rmtree(self.root)

    # --- programs

    def start(self, *arguments, program=PROGRAM, through=(), environment=None, **options):
        """Starts the client, by way of another program if one is given."""
        ordinary = {"cwd": self.home, "env": {**self.environment, **(environment or {})},
                    "stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        self.clients.append(Client([*through, program, *arguments], **{**ordinary, **options}))
        return self.clients[-1]

    def terminal(self, **options):
        """Starts the client's terminal face on pipes."""
        return self.start("--terminal", **options)

    def real_terminal(self, **options):
        """Starts the client's terminal face in a terminal that is its own."""
        near, far = pty.openpty()
        client = self.start("--terminal", through=["setsid", "--ctty"], terminal=near, stdin=far, stdout=far, **options)
        os.close(far)
        return client

    def run(self, *arguments, **options):
        """Starts the client and waits for its end: exit status, output, errors."""
        client = self.start(*arguments, **{"stdin": subprocess.DEVNULL, **options})
        return client.status(), client.output.all(), client.errors.all()

    def spawn(self, *command, environment=None, **streams):
        """Starts another program of the session."""
        process = subprocess.Popen(command, env={**self.environment, **(environment or {})}, cwd=self.home,
                                   bufsize=0, **{"stdin": subprocess.DEVNULL, **streams})
        self.others.append(process)
        return process

    def program(self, name, text):
        """Puts a script on the PATH of login shells."""
        write_script(self.bin / name, text)

    def processes(self):
        """Ids of the processes that were started in this session and have not ended."""
        mark = f"HOME={self.home}".encode()
        return [pid for pid in running() if mark in read_process(pid, "environ").split(b"\0")]

    def wait_for_ends(self, besides=frozenset()):
        """Waits for the end of what has been killed, which nobody else does: a moment, if the machine is busy."""
        for pid in set(self.processes()) - besides:
            wait_for_end(pid, MOMENT)

    @staticmethod
    def wait_for_peer():
        """Waits until a process is connected to the client's socket, such as one that waits for its end."""
        deadline = Deadline()
        # The listening socket is one of them.
        while Path("/proc/net/unix").read_text().count("/socket.new\n") < 2:
            if deadline.left() == 0:
                raise AssertionError("nobody connects to the client")
            time.sleep(0.01)

    # --- backend

    @staticmethod
    def copy_backend(folder):
        shutil.copytree(SOURCE / "examples/backend", folder, symlinks=True,
                        ignore=shutil.ignore_patterns("run", ".env", "__pycache__"))

    def backend(self, *arguments):
        """Runs the backend's own command line, as its user would."""
        done = subprocess.run([self.backend_program, *arguments], env=self.environment,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, encoding="utf-8",
                              timeout=PATIENCE)
        if done.returncode != 0:
            raise AssertionError(f"{arguments}: status {done.returncode}\n{done.stdout}{done.stderr}")
        return done.stdout

    def services(self):
        """Ids of the backend's three services, all of which must be running."""
        pids = [int((self.repo / "run" / f"{name}.pid").read_text()) for name in ("service", "bridge", "tunnel")]
        assert set(pids) <= set(running()), pids
        return pids

    def stub_backend(self, text):
        """Puts a script in the place of the backend's command line."""
        write_script(self.backend_program, text)

    def note_commands(self, counting=False):
        """Has the backend tell which command it has done; wait_for_start() reads that. With `counting`, its reports
        differ as those of the counting backend do."""
        real = self.backend_program.rename(self.backend_program.with_name("real-client"))
        self.stub_backend((COUNT if counting else "") +
                          f'"{real}" "$@"; status=$?; echo "$1 asked" > "$HOME/events"; exit $status\n')

    def wait_for_start(self):
        """Waits until a backend that tells what it is asked for has been asked for all that a start asks for."""
        asked = [self.events.next() for _ in range(3)]
        assert asked == ["status asked", "refresh asked", "status asked"], asked

    def preferences(self):
        return json.loads((self.config / "kestrune-menu-client/preferences.json").read_text())

    def prefer(self, text):
        """Writes the client's preferences."""
        folder = self.config / "kestrune-menu-client"
        folder.mkdir(exist_ok=True)
        (folder / "preferences.json").write_text(text)


def write_script(path, text):
    path.write_text("#!/bin/bash\n" + text)
    path.chmod(0o755)


def read_process(pid, name):
    with suppress(OSError):
        return Path(f"/proc/{pid}/{name}").read_bytes()
    return b""


def running():
    """Ids of the processes of the namespace, those aside that have ended and are not reaped yet."""
    # By their state: a process that is just starting another program has no command line for a moment.
    return [int(name) for name in os.listdir("/proc") if name.isdigit() and process_state(name) not in (b"", b"Z", b"X")]


def process_state(pid):
    """The letter of the process's state; empty without such a process."""
    return read_process(pid, "stat").rpartition(b") ")[2][:1]


def wait_for_end(pid, seconds=PATIENCE):
    try:
        process = os.pidfd_open(pid)
    except ProcessLookupError:
        return
    try:
        if not select.select([process], [], [], seconds)[0]:
            raise AssertionError(f"still running after {seconds:g} s: {pid} {read_process(pid, 'cmdline')}")
    finally:
        os.close(process)


def end_process(pid, number=signal.SIGKILL):
    with suppress(ProcessLookupError):
        os.kill(pid, number)
    wait_for_end(pid)


def listening_ports():
    ports = set()
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        for line in Path(table).read_text().splitlines()[1:]:
            fields = line.split()
            if fields[3] == "0A":
                ports.add(int(fields[1].rpartition(":")[2], 16))
    return ports
