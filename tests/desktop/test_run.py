"""Tests the script ./run with fakes of the tools that install and build, and of the client."""

import shutil
import socket
import subprocess
import unittest
from pathlib import Path

from rig import isolation
from rig.processes import write_script
from rig.session import SOURCE, Session

CLIENT = """[ "$1" != --version ] || { [ ! -e "$HOME/broken" ]; exit; }
echo "client $* on $KESTRUNE_REPO_PATH" """


class Run(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.tree = self.session.root / "tree"
        for name in ("run", "scripts", "examples"):
            place = self.tree / name
            place.parent.mkdir(exist_ok=True)
            (shutil.copytree if (SOURCE / name).is_dir() else shutil.copy)(SOURCE / name, place)
        built = self.tree / "build/release"
        built.mkdir(parents=True)
        (built / "build.ninja").touch()
        write_script(built / "KestruneMenuClient", CLIENT)
        self.stub("dpkg-query", '[ ! -e "$HOME/missing" ] && echo -n installed')
        self.stub("cmake", "exit 0")
        self.stub("id", "echo 1000")
        self.stub("sudo", "exit 1")
        self.state = self.session.root / "state"
        self.sample = self.state / "kestrune-menu-client/backend"

    def stub(self, name, text):
        self.session.program(name, text + "\n")

    def run_it(self, *options, **environment):
        given = {**self.session.environment, "KESTRUNE_REPO_PATH": "", **environment}
        done = subprocess.run([self.tree / "run", *options], env={**given, "PATH": f"{self.session.bin}:{given['PATH']}"},
                              stdin=subprocess.DEVNULL, capture_output=True, text=True)
        return done.returncode, done.stdout, done.stderr

    def assertStarts(self, client, *options, **environment):
        status, output, errors = self.run_it(*options, **environment)
        self.assertEqual((status, errors), (0, ""))
        self.assertTrue(output.endswith(f"\nclient {client}\n"), output)

    def assertFails(self, line, *options, **environment):
        status, output, errors = self.run_it(*options, **environment)
        self.assertEqual((status, errors.count("\n")), (1, 1), output + errors)
        self.assertIn(line, errors)
        self.assertNotIn("\nclient ", output)
        self.assertEqual(self.session.processes(), [])

    def listen(self, port):
        listener = socket.create_server(("127.0.0.1", port))
        self.addCleanup(listener.close)

    def test_the_sample_backend_is_used_again_until_it_is_reset(self):
        marker = self.sample / "marker"
        for options, kept in ((), False), ((), True), (("--reset",), False):
            self.assertStarts(f"--terminal on {self.sample}", *options)
            self.assertEqual(marker.exists(), kept)
            self.assertEqual(len(self.session.processes()), 3)
            marker.touch()

    def test_the_tray_face_needs_a_display_and_a_bus(self):
        desktop = {"DISPLAY": ":0", "DBUS_SESSION_BUS_ADDRESS": "unix:path=/bus", "KESTRUNE_REPO_PATH": "/mine"}
        self.stub("fc-list", "echo font")
        self.assertStarts(" on /mine", **desktop)
        self.assertStarts("--terminal on /mine", "--terminal", **desktop)
        for missing in "DISPLAY", "DBUS_SESSION_BUS_ADDRESS":
            self.assertStarts("--terminal on /mine", **{**desktop, missing: ""})

    def test_it_starts_without_fonts_that_cannot_be_installed(self):
        self.stub("fc-list", "exit 0")
        self.stub("dpkg-query", 'case ${!#} in fonts-*) exit 1 ;; esac; echo installed')
        status, output, errors = self.run_it(DISPLAY=":0", DBUS_SESSION_BUS_ADDRESS="unix:path=/bus", KESTRUNE_REPO_PATH="/mine")
        self.assertEqual(status, 0)
        self.assertIn("install --no-install-recommends fonts-noto-cjk fonts-noto-color-emoji", errors)
        self.assertTrue(output.endswith("\nclient  on /mine\n"), output)

    def test_a_relative_folder_is_looked_for_where_the_user_is(self):
        for folder in ".", "../my backend":
            self.assertStarts(f"--terminal on {Path.cwd()}/{folder}", KESTRUNE_REPO_PATH=folder)

    def test_an_unknown_option_is_refused(self):
        status, _, errors = self.run_it("--resett")
        self.assertEqual((status, errors.partition("\n")[0]), (2, "run: unknown option: --resett"))

    def test_the_sample_backend_gets_no_file_with_tokens(self):
        example = self.tree / "examples/backend"
        (example / "run").mkdir()
        for name in (".env", ".env.previous", ".env.unreadable-2", ".kestrune-new-AbC123", "env.off", "run/theirs"):
            (example / name).write_text("KESTRUNE_APP_API_TOKEN=of the user\n")
        self.assertEqual(self.run_it()[::2], (0, ""))
        files = [file for file in self.sample.rglob("*") if file.is_file()]
        self.assertIn(self.sample / ".env.example", files)
        self.assertEqual([file for file in files if b"=of the user" in file.read_bytes()], [])

    def test_a_client_that_cannot_start_leaves_nothing_running(self):
        (self.session.home / "broken").touch()
        self.assertEqual(self.run_it()[0], 1)
        self.assertEqual(self.session.processes(), [])

    def test_the_client_gets_the_locale_of_the_user(self):
        write_script(self.tree / "build/release/KestruneMenuClient", 'echo "LC_ALL=${LC_ALL-unset}"')
        for environment, printed in (({"LC_ALL": "POSIX"}, "POSIX"), ({}, "unset")):
            _, output, _ = self.run_it(KESTRUNE_REPO_PATH="/backend", **environment)
            self.assertTrue(output.endswith(f"\nLC_ALL={printed}\n"), output)

    def test_it_fails_if_another_process_listens_on_a_port(self):
        for port in (8766, 8765):
            self.listen(port)
            self.assertFails(f"Stop the listener on port {port} first.")

    def test_it_fails_if_the_client_already_runs(self):
        self.listen(8765)
        place = self.session.runtime / "kestrune-menu-client"
        place.mkdir()
        holder = self.session.spawn("flock", place / "lock", "sh", "-c", "echo; read -r _", stdin=subprocess.PIPE,
                                    stdout=subprocess.PIPE)
        holder.stdout.read(1)
        status, _, errors = self.run_it()
        self.assertEqual((status, errors.partition(".")[0]), (1, "The client already runs"))
        holder.stdin.close()
        holder.stdout.close()
        holder.wait()

    def test_it_starts_on_a_file_system_without_locks(self):
        place = self.session.runtime / "kestrune-menu-client"
        place.mkdir()
        (place / "lock").touch()
        self.stub("flock", "exit 71")  # the exit status of flock after ENOLCK
        self.assertStarts("--terminal on /mine", KESTRUNE_REPO_PATH="/mine")

    def test_it_fails_if_sudo_cannot_ask_for_a_password(self):
        (self.session.home / "missing").touch()
        self.assertFails("without a terminal sudo cannot ask for a password. As root: apt-get install")

    def test_sudo_without_a_password_is_used(self):
        (self.session.home / "missing").touch()
        self.stub("sudo", '[ "$1" = --non-interactive ] && shift && "$@"')
        self.stub("apt-get", 'echo "$*" >>"$HOME/asked"')
        status, _, errors = self.run_it()
        self.assertEqual((status, errors), (0, ""))
        asked = (self.session.home / "asked").read_text().splitlines()
        self.assertEqual([line.split()[-1] for line in asked[:1]], ["update"])
        self.assertIn("install g++", asked[1])

    def test_a_package_of_two_architectures_is_installed(self):
        # dpkg-query fills in the format once for each architecture.
        self.stub("dpkg-query", r'for _ in amd64 i386; do printf "${2/*\}/installed}"; done')
        self.assertStarts("--terminal on /mine", KESTRUNE_REPO_PATH="/mine")

    def test_packages_that_cannot_be_installed_are_named(self):
        (self.session.home / "missing").touch()
        self.stub("sudo", '[ "$1" = --non-interactive ] && shift && "$@"')
        self.stub("apt-get", '[[ "$*" = *update ]] || { echo "E: no network"; exit 100; }')
        status, _, errors = self.run_it()
        self.assertEqual(status, 1)
        self.assertRegex(errors, "^E: no network\nThe packages could not be installed.* as root: apt-get install.*\n$")

    def test_it_fails_without_a_writable_state_folder(self):
        self.assertFails("by XDG_STATE_HOME", XDG_STATE_HOME="/proc/nowhere")
        self.assertFails("by XDG_STATE_HOME", XDG_STATE_HOME="", HOME="")
        self.assertStarts("--terminal on /mine", XDG_STATE_HOME="/proc/nowhere", KESTRUNE_REPO_PATH="/mine")

    def test_it_fails_without_a_writable_build_folder(self):
        (self.tree / "build").rename(self.tree / "elsewhere")
        (self.tree / "build").touch()
        self.assertFails("which you may not write to: copy it")


isolation.main()
