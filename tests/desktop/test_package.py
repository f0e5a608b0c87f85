"""The Debian package: what is in it, what those say who judge packages, and that it installs."""

import gzip
import os
import re
import shutil
import subprocess
import tarfile
import tempfile
import unittest
from pathlib import Path

from rig import isolation
from rig.session import BUILD
from rig.waiting import PATIENCE

PROGRAMS = "KestruneMenuClient", "KestruneMenuDialogs"
# The folders of icons, and how large those in them are.
SIDES = {"22x22@2": 44, **{f"{side}x{side}": side for side in (16, 22, 24, 32, 48, 64)}}

DESKTOP_ENTRY = "usr/share/applications/com.dovrel.kestrune.menuclient.desktop"
METAINFO = "usr/share/metainfo/com.dovrel.kestrune.menuclient.metainfo.xml"
UNIT = "usr/lib/systemd/user/kestrune-menu-client.service"
SHARED = "usr/share/kestrune-menu-client"
DOCUMENTS = "usr/share/doc/kestrune-menu-client"
ICONS = "usr/share/icons/hicolor"


def icon(folder):
    return f"{ICONS}/{folder}/apps/KestruneMacClient.png"


def manual(program):
    return f"usr/share/man/man1/{program}.1.gz"


def completion(program):
    return f"usr/share/bash-completion/completions/{program}"


def binary(program):
    return f"usr/bin/{program}"


FILES = {
    DESKTOP_ENTRY, METAINFO, UNIT,
    *(make(program) for make in (binary, manual, completion) for program in PROGRAMS),
    *map(icon, SIDES), f"{ICONS}/scalable/apps/KestruneMacClient.svg",
    *(f"{SHARED}/codex-menubar{size}.png" for size in ("", "-grey", "-16", "-24", "-32", "-44", "-48", "-64")),
    *(f"{DOCUMENTS}/{name}" for name in ("copyright", "changelog.gz", "changelog.Debian.gz")),
}


def run(*command, **options):
    """What a command says, on both streams; it must succeed."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, encoding="utf-8", timeout=PATIENCE * 2, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command}: status {done.returncode}\n{done.stdout}")
    return done.stdout


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = Path(tempfile.mkdtemp(prefix="kestrune-package-"))
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        cls.folder.chmod(0o755)
        # As one whose files nobody else may read: the package is for everybody.
        # Packed by gzip, which takes half the time of xz.
        run("cpack", "--config", BUILD / "CPackConfig.cmake", "-D", "CPACK_DEBIAN_COMPRESSION_TYPE=gzip", "-B", cls.folder,
            umask=0o077)
        cls.file, = cls.folder.glob("*.deb")
        cls.tree = cls.folder / "tree"
        run("dpkg-deb", "--extract", cls.file, cls.tree)

    def field(self, name):
        return run("dpkg-deb", "--field", self.file, name).rstrip("\n")

    def test_holds_these_files_and_no_others(self):
        with subprocess.Popen(["dpkg-deb", "--fsys-tarfile", self.file], stdout=subprocess.PIPE) as contents:
            members = list(tarfile.open(fileobj=contents.stdout, mode="r|"))
        self.assertEqual({each.name.removeprefix("./") for each in members if not each.isdir()}, FILES)
        for each in members:
            with self.subTest(each.name):
                executable = each.isdir() or "/bin/" in each.name
                self.assertEqual((each.mode & 0o7777, each.uid, each.gid), (0o755 if executable else 0o644, 0, 0))

    def test_says_what_it_is_and_needs(self):
        version = run(self.tree / binary("KestruneMenuClient"), "--version").split()[1]
        architecture = run("dpkg", "--print-architecture").strip()
        revision = f"{version}-0kestrune1"
        self.assertEqual(self.file.name, f"kestrune-menu-client_{revision}_{architecture}.deb")
        for name, value in (("Package", "kestrune-menu-client"), ("Version", revision),
                            ("Architecture", architecture), ("Section", "net"), ("Priority", "optional")):
            self.assertEqual(self.field(name), value)
        changes = gzip.decompress((self.tree / DOCUMENTS / "changelog.Debian.gz").read_bytes()).decode()
        self.assertTrue(changes.startswith(f"kestrune-menu-client ({revision}) "), changes)
        self.assertIn(f" -- {self.field('Maintainer')}  ", changes)
        needed = {each.split()[0] for each in self.field("Depends").split(", ")}
        # Those that it runs, and of those that it links the ones that are called the same everywhere.
        self.assertLessEqual({"curl", "lsof", "procps", "libc6", "libsystemd0", "libmnl0", "libqrencode4"}, needed)
        self.assertTrue(any(each.startswith("libqt6widgets6") for each in needed), needed)
        self.assertLessEqual({"fonts-noto-cjk", "qt6-wayland"}, set(self.field("Recommends").split(", ")))

    def test_nobody_finds_fault_with_it(self):
        self.assertEqual(run("lintian", "--allow-root", "--no-cfg", "--fail-on", "error,warning", self.file), "")

    def test_its_desktop_entry_is_in_order(self):
        self.assertEqual(run("desktop-file-validate", self.tree / DESKTOP_ENTRY), "")
        lines = (self.tree / DESKTOP_ENTRY).read_text().splitlines()
        for line in ("Exec=KestruneMenuClient", "Icon=KestruneMacClient", "Terminal=false", "StartupNotify=false"):
            self.assertIn(line, lines)
        self.assertTrue(any(line.startswith("Comment[zh_TW]=") for line in lines))

    def test_software_centers_can_read_of_it(self):
        run("appstreamcli", "validate", "--no-net", self.tree / METAINFO)

    def test_its_icons_are_as_large_as_their_folders_say(self):
        for folder, side in SIDES.items():
            header = (self.tree / icon(folder)).read_bytes()[:24]
            self.assertEqual((header[:8], header[16:]), (b"\x89PNG\r\n\x1a\n", side.to_bytes(4, "big") * 2))

    def test_manuals_and_completions_know_the_options_that_there_are(self):
        for program in PROGRAMS:
            with self.subTest(program):
                options = re.findall(r"^  (--\S+)", run(self.tree / binary(program), "--help"), re.MULTILINE)
                self.assertGreaterEqual(len(options), 2)
                text = run("man", "--warnings", "--local-file", self.tree / manual(program),
                           env={**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "100"})
                self.assertNotRegex(text, r"warning:|@\w+@")
                self.assertEqual(re.findall(r"^ {7}(--\S+)", text, re.MULTILINE), options)
                self.assertEqual(self.offered(program, ""), options)

    def offered(self, program, before):
        """What a Tab after that word offers."""
        return run("bash", "-c", """
            source "$0" && program=$1 before=$2
            eval "set -- $(complete -p "${1##*/}")"
            case $2 in
                -F) "$3" "$program" "" "$before"; printf '%s\n' "${COMPREPLY[@]}" ;;
                -W) compgen -W "$3" ;;
            esac
        """, self.tree / completion(program), self.tree / binary(program), before).split()

    def test_the_actions_of_desktop_and_completion_are_those_that_there_are(self):
        program = PROGRAMS[0]
        actions = [line.split()[0] for line in run(self.tree / binary(program), "--perform", "help").splitlines()]
        self.assertEqual(self.offered(program, "--perform"), ["help", *actions])
        offered = re.findall("^Exec=KestruneMenuClient --perform (.*)", (self.tree / DESKTOP_ENTRY).read_text(), re.MULTILINE)
        self.assertEqual(offered, ["showSettings", "showStatus", "toggleAutoConnect", "quit"])
        self.assertLessEqual(set(offered), set(actions))

    def test_its_unit_is_in_order(self):
        programs = self.folder / "unit"
        programs.mkdir()
        # By their whole path: those that a service manager knows by name are the machine's own.
        text = (self.tree / UNIT).read_text()
        self.assertIn("\nExecStart=KestruneMenuClient --background\n", text)
        unit = programs / Path(UNIT).name
        unit.write_text(text.replace("ExecStart=", f"ExecStart={self.tree}/usr/bin/"))
        self.assertEqual(run("systemd-analyze", "--user", "--man=no", "verify", unit,
                             env={**os.environ, "XDG_RUNTIME_DIR": str(programs)}), "")

    def test_it_installs_and_goes_again(self):
        root = self.folder / "root"
        for folder in ("info", "updates"):
            (root / "var/lib/dpkg" / folder).mkdir(parents=True)
        for name in ("status", "available"):
            (root / "var/lib/dpkg" / name).touch()

        def dpkg(*arguments):
            # Nothing that it needs is there, nor are the programs of which dpkg makes sure.
            run("dpkg", f"--root={root}", "--force-depends", "--force-bad-path", "--no-triggers", *arguments)

        dpkg("--install", self.file)
        for each in FILES:
            self.assertTrue((root / each).is_file(), each)
        for program in PROGRAMS:
            self.assertRegex(run(root / binary(program), "--version"), f"^{program} ")
        dpkg("--purge", "kestrune-menu-client")
        self.assertEqual([each for each in (root / "usr").rglob("*")] if (root / "usr").exists() else [], [])


if __name__ == "__main__":
    isolation.main()
