"""The Debian packages: what is in them, what those say who judge packages, and that they install."""

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

CLIENT, DIALOGS = PACKAGES = "kestrune-menu-client", "kestrune-menu-dialogs"
PROGRAMS = {CLIENT: "KestruneMenuClient", DIALOGS: "KestruneMenuDialogs"}
# The folders of icons, and how large those in them are.
SIDES = {"22x22@2": 44, **{f"{side}x{side}": side for side in (16, 22, 24, 32, 48, 64)}}

DESKTOP_ENTRY = "usr/share/applications/com.dovrel.kestrune.menuclient.desktop"
METAINFO = "usr/share/metainfo/com.dovrel.kestrune.menuclient.metainfo.xml"
UNIT = "usr/lib/systemd/user/kestrune-menu-client.service"
SHARED = "usr/share/kestrune-menu-client"
DOCUMENTS = "usr/share/doc"
ICONS = "usr/share/icons/hicolor"


def icon(folder):
    return f"{ICONS}/{folder}/apps/KestruneMacClient.png"


def manual(program):
    return f"usr/share/man/man1/{program}.1.gz"


def completion(program):
    return f"usr/share/bash-completion/completions/{program}"


def binary(program):
    return f"usr/bin/{program}"


FILES = {package: {
    *(make(program) for make in (binary, manual, completion)),
    *(f"{DOCUMENTS}/{package}/{name}" for name in ("copyright", "changelog.gz", "changelog.Debian.gz")),
} for package, program in PROGRAMS.items()}
FILES[CLIENT] |= {
    DESKTOP_ENTRY, METAINFO, UNIT,
    *map(icon, SIDES), f"{ICONS}/scalable/apps/KestruneMacClient.svg",
    *(f"{SHARED}/codex-menubar{size}.png" for size in ("", "-grey", "-16", "-24", "-32", "-44", "-48", "-64")),
}
# How much of a desktop the dependencies of a package bring begins with one of these.
GRAPHICS = re.compile(r"lib(qt|x11|xcb|gl|egl|wayland|gtk|fontconfig)|qt6-|fonts-|x11-|xdg-")


def run(*command, **options):
    """What a command says, on both streams; it must succeed."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, encoding="utf-8", timeout=PATIENCE * 2, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command}: status {done.returncode}\n{done.stdout}")
    # systemd-analyze of Ubuntu 22.04 misses a system bus in a container.
    return done.stdout.removeprefix("Failed to connect to system bus: No such file or directory\n")


class Packages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = Path(tempfile.mkdtemp(prefix="kestrune-package-"))
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        cls.folder.chmod(0o755)
        # As one whose files nobody else may read: the packages are for everybody.
        # Packed by gzip, which takes half the time of xz.
        run("cpack", "--config", BUILD / "CPackConfig.cmake", "-D", "CPACK_DEBIAN_COMPRESSION_TYPE=gzip", "-B", cls.folder,
            umask=0o077)
        cls.files = {each.name.split("_")[0]: each for each in cls.folder.glob("*.deb")}
        cls.tree = cls.folder / "tree"
        for each in cls.files.values():
            run("dpkg-deb", "--extract", each, cls.tree)

    def field(self, package, name):
        return run("dpkg-deb", "--field", self.files[package], name).rstrip("\n")

    def packages(self, package, name):
        return set(re.split(r", | \| ", self.field(package, name)))

    def test_hold_these_files_and_no_others(self):
        self.assertEqual(set(self.files), set(PACKAGES))
        for package, file in self.files.items():
            with subprocess.Popen(["dpkg-deb", "--fsys-tarfile", file], stdout=subprocess.PIPE) as contents:
                members = list(tarfile.open(fileobj=contents.stdout, mode="r|"))
            self.assertEqual({each.name.removeprefix("./") for each in members if not each.isdir()}, FILES[package])
            for each in members:
                with self.subTest(each.name):
                    executable = each.isdir() or "/bin/" in each.name
                    self.assertEqual((each.mode & 0o7777, each.uid, each.gid), (0o755 if executable else 0o644, 0, 0))

    def test_say_what_they_are(self):
        version = run(self.tree / binary(PROGRAMS[CLIENT]), "--version").split()[1]
        architecture = run("dpkg", "--print-architecture").strip()
        revision = f"{version}-0kestrune2"
        for package, file in self.files.items():
            with self.subTest(package):
                self.assertEqual(file.name, f"{package}_{revision}_{architecture}.deb")
                for name, value in (("Package", package), ("Version", revision), ("Architecture", architecture),
                                    ("Section", "net"), ("Priority", "optional")):
                    self.assertEqual(self.field(package, name), value)
                changes = gzip.decompress((self.tree / DOCUMENTS / package / "changelog.Debian.gz").read_bytes()).decode()
                self.assertTrue(changes.startswith(f"kestrune-menu-client ({revision}) "), changes)
                self.assertIn(f" -- {self.field(package, 'Maintainer')}  ", changes)

    def test_say_what_they_need(self):
        # Those that it runs, and of those that it links the ones that are called the same everywhere.
        needed = {each.split()[0] for each in self.packages(CLIENT, "Depends")}
        self.assertLessEqual({"curl", "lsof", "procps", "libc6", "libsystemd0", "libmnl0", "libqrencode4"}, needed)
        recommended = self.packages(CLIENT, "Recommends")
        self.assertIn(DIALOGS, recommended)
        self.assertEqual([each for each in needed | recommended if GRAPHICS.match(each)], [])
        needed = self.packages(DIALOGS, "Depends")
        self.assertIn(f"{CLIENT} (= {self.field(DIALOGS, 'Version')})", needed)
        self.assertTrue(any(each.startswith("libqt6widgets6") for each in needed), needed)
        self.assertLessEqual({"fonts-noto-cjk", "qt6-wayland"}, self.packages(DIALOGS, "Recommends"))

    def test_nobody_finds_fault_with_them(self):
        self.assertEqual(run("lintian", "--allow-root", "--no-cfg", "--fail-on", "error,warning", *self.files.values()), "")

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
        for program in PROGRAMS.values():
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
        program = PROGRAMS[CLIENT]
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

    def dpkg(self, *arguments):
        """In a system without packages, of which nothing is left afterwards."""
        root = self.folder / "root"
        for folder in ("info", "updates"):
            (root / "var/lib/dpkg" / folder).mkdir(parents=True, exist_ok=True)
        for name in ("status", "available"):
            (root / "var/lib/dpkg" / name).touch()
        # Nothing that they need is there, nor are the programs of which dpkg makes sure.
        run("dpkg", f"--root={root}", "--force-depends", "--force-bad-path", "--no-triggers", *arguments)
        return root

    def assertInstalled(self, root):
        for package, program in PROGRAMS.items():
            for each in FILES[package]:
                self.assertTrue((root / each).is_file(), each)
            self.assertRegex(run(root / binary(program), "--version"), f"^{program} ")

    def assertPurged(self, *packages):
        root = self.dpkg("--purge", *packages)
        self.assertEqual([each for each in (root / "usr").rglob("*")] if (root / "usr").exists() else [], [])

    def test_they_install_and_go_again(self):
        self.assertInstalled(self.dpkg("--install", *self.files.values()))
        root = self.dpkg("--purge", DIALOGS)
        self.assertFalse((root / binary(PROGRAMS[DIALOGS])).exists())
        self.assertRegex(run(root / binary(PROGRAMS[CLIENT]), "--version"), "^KestruneMenuClient ")
        self.assertPurged(CLIENT)

    def test_they_replace_the_one_package_that_held_both_programs(self):
        old = self.folder / "old"
        shutil.copytree(self.tree, old)
        shutil.rmtree(old / DOCUMENTS / DIALOGS)
        (old / "DEBIAN").mkdir()
        (old / "DEBIAN/control").write_text(
            f"Package: {CLIENT}\nVersion: 0.1.0-0kestrune1\nArchitecture: {self.field(CLIENT, 'Architecture')}\n"
            f"Maintainer: {self.field(CLIENT, 'Maintainer')}\nDescription: both programs\n")
        run("dpkg-deb", "--root-owner-group", "-Znone", "--build", old, self.folder / "old.package")
        self.dpkg("--install", self.folder / "old.package")
        # In the order in which the new package finds files of the old one.
        self.assertInstalled(self.dpkg("--auto-deconfigure", "--install", self.files[DIALOGS], self.files[CLIENT]))
        self.assertPurged(*PACKAGES)


if __name__ == "__main__":
    isolation.main()
