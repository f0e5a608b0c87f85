"""Tests the files and fields of the Debian packages, runs checking tools on them, and installs them with dpkg."""

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
# The folders of icons, and how many pixels wide and high the icon in each folder is.
SIDES = {"22x22@2": 44, **{f"{side}x{side}": side for side in (16, 22, 24, 32, 48, 64)}}

DESKTOP_ENTRY = "usr/share/applications/com.dovrel.kestrune.menuclient.desktop"
METAINFO = "usr/share/metainfo/com.dovrel.kestrune.menuclient.metainfo.xml"
UNIT = "usr/lib/systemd/user/kestrune-menu-client.service"
SHARED = "usr/share/kestrune-menu-client"
DOCUMENTS = "usr/share/doc"
ICONS = "usr/share/icons/hicolor"
ICON = ICONS + "/{}/apps/KestruneMacClient.png"
MANUAL = "usr/share/man/man1/{}.1.gz"
COMPLETION = "usr/share/bash-completion/completions/{}"

FILES = {package: {
    *(path.format(program) for path in ("usr/bin/{}", MANUAL, COMPLETION)),
    *(f"{DOCUMENTS}/{package}/{name}" for name in ("copyright", "changelog.gz", "changelog.Debian.gz")),
} for package, program in PROGRAMS.items()}
FILES[CLIENT] |= {
    DESKTOP_ENTRY, METAINFO, UNIT,
    *map(ICON.format, SIDES), f"{ICONS}/scalable/apps/KestruneMacClient.svg",
    *(f"{SHARED}/codex-menubar{size}.png" for size in ("", "-grey", "-16", "-24", "-32", "-44", "-48", "-64")),
}
# How the names of packages of graphical desktops begin. The client must depend on no such package.
GRAPHICS = re.compile(r"lib(qt|x11|xcb|gl|egl|wayland|gtk|fontconfig)|qt6-|fonts-|x11-|xdg-")


def run(*command, **options):
    """Runs a command, which must succeed. Returns its standard output and standard error."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, encoding="utf-8", timeout=PATIENCE * 2, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command}: status {done.returncode}\n{done.stdout}")
    # In a container, systemd-analyze of Ubuntu 22.04 prints this line, because there is no system bus.
    return done.stdout.removeprefix("Failed to connect to system bus: No such file or directory\n")


class Packages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = Path(tempfile.mkdtemp(prefix="kestrune-package-"))
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        cls.folder.chmod(0o755)
        # Files of the packages must be readable for all users in spite of a strict umask. gzip is twice as fast as xz.
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

    def test_packages_contain_exactly_these_files(self):
        self.assertEqual(set(self.files), set(PACKAGES))
        for package, file in self.files.items():
            with subprocess.Popen(["dpkg-deb", "--fsys-tarfile", file], stdout=subprocess.PIPE) as contents:
                members = list(tarfile.open(fileobj=contents.stdout, mode="r|"))
            self.assertEqual({each.name.removeprefix("./") for each in members if not each.isdir()}, FILES[package])
            for each in members:
                with self.subTest(each.name):
                    executable = each.isdir() or "/bin/" in each.name
                    self.assertEqual((each.mode & 0o7777, each.uid, each.gid), (0o755 if executable else 0o644, 0, 0))

    def test_packages_have_these_names_fields_and_changes(self):
        version = run(self.tree / "usr/bin" / PROGRAMS[CLIENT], "--version").split()[1]
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

    def test_packages_name_their_dependencies(self):
        # These are the packages of the programs that the client runs, and of its libraries. Libraries whose package has
        # another name in another release are left out.
        needed = {each.split()[0] for each in self.packages(CLIENT, "Depends")}
        self.assertLessEqual({"curl", "lsof", "procps", "libc6", "libsystemd0", "libmnl0", "libqrencode4"}, needed)
        recommended = self.packages(CLIENT, "Recommends")
        self.assertIn(DIALOGS, recommended)
        self.assertEqual([each for each in needed | recommended if GRAPHICS.match(each)], [])
        needed = self.packages(DIALOGS, "Depends")
        self.assertIn(f"{CLIENT} (= {self.field(DIALOGS, 'Version')})", needed)
        self.assertTrue(any(each.startswith("libqt6widgets6") for each in needed), needed)
        self.assertLessEqual({"fonts-noto-cjk", "fonts-noto-color-emoji", "qt6-wayland"}, self.packages(DIALOGS, "Recommends"))

    def test_lintian_finds_no_fault(self):
        self.assertEqual(run("lintian", "--allow-root", "--no-cfg", "--fail-on", "error,warning", *self.files.values()), "")

    def test_desktop_entry_is_valid(self):
        self.assertEqual(run("desktop-file-validate", self.tree / DESKTOP_ENTRY), "")
        lines = (self.tree / DESKTOP_ENTRY).read_text().splitlines()
        for line in ("Exec=KestruneMenuClient", "Icon=KestruneMacClient", "Terminal=false", "StartupNotify=false"):
            self.assertIn(line, lines)
        self.assertTrue(any(line.startswith("Comment[zh_TW]=") for line in lines))

    def test_metainfo_for_software_centers_is_valid(self):
        run("appstreamcli", "validate", "--no-net", self.tree / METAINFO)

    def test_icons_are_as_large_as_their_folders_say(self):
        for folder, side in SIDES.items():
            header = (self.tree / ICON.format(folder)).read_bytes()[:24]
            self.assertEqual((header[:8], header[16:]), (b"\x89PNG\r\n\x1a\n", side.to_bytes(4, "big") * 2))

    def test_manuals_and_completions_list_all_options(self):
        for program in PROGRAMS.values():
            with self.subTest(program):
                options = re.findall(r"^  (--\S+)", run(self.tree / "usr/bin" / program, "--help"), re.MULTILINE)
                self.assertGreaterEqual(len(options), 2)
                text = run("man", "--warnings", "--local-file", self.tree / MANUAL.format(program),
                           env={**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "100"})
                self.assertNotRegex(text, r"warning:|@\w+@")
                self.assertEqual(re.findall(r"^ {7}(--\S+)", text, re.MULTILINE), options)
                self.assertEqual(self.offered(program, ""), options)

    def offered(self, program, before):
        """Returns what bash offers when the user presses Tab after the word `before`."""
        return run("bash", "-c", """
            source "$0" && program=$1 before=$2
            eval "set -- $(complete -p "${1##*/}")"
            case $2 in
                -F) "$3" "$program" "" "$before"; printf '%s\n' "${COMPREPLY[@]}" ;;
                -W) compgen -W "$3" ;;
            esac
        """, self.tree / COMPLETION.format(program), self.tree / "usr/bin" / program, before).split()

    def test_desktop_entry_and_completion_offer_existing_actions(self):
        program = PROGRAMS[CLIENT]
        actions = [line.split()[0] for line in run(self.tree / "usr/bin" / program, "--perform", "help").splitlines()]
        self.assertEqual(self.offered(program, "--perform"), ["help", *actions])
        entry = (self.tree / DESKTOP_ENTRY).read_text()
        offered = re.findall("^Exec=.*KestruneMenuClient --perform (\\w+)", entry, re.MULTILINE)
        self.assertEqual(offered, ["showSettings", "showStatus", "toggleAutoConnect", "quit"])
        self.assertLessEqual(set(offered), set(actions))
        self.assertEqual(entry.count(' || exec KestruneMenuClient"\n'), 2)

    def test_systemd_unit_is_valid(self):
        units = self.folder / "units"
        units.mkdir()
        # Only targets and slices of the machine are visible, because its other units may have faults.
        for pattern in ("*.target", "*.slice"):
            for each in Path("/usr/lib/systemd/user").glob(pattern):
                (units / each.name).symlink_to(each)
        text = (self.tree / UNIT).read_text()
        self.assertEqual({
            "ExecStart=KestruneMenuClient --background", "KillMode=mixed", "TimeoutStopSec=25", "Restart=on-failure",
            "RestartPreventExitStatus=2", "OOMPolicy=continue", "PartOf=graphical-session.target",
            "WantedBy=graphical-session.target"} - set(text.splitlines()), set())
        unit = units / Path(UNIT).name
        unit.write_text(text.replace("ExecStart=", f"ExecStart={self.tree}/usr/bin/"))
        self.assertEqual(run("systemd-analyze", "--user", "--man=no", "verify", unit,
                             env={**os.environ, "XDG_RUNTIME_DIR": str(units), "SYSTEMD_UNIT_PATH": str(units)}), "")

    def dpkg(self, *arguments):
        """Runs dpkg on a folder that looks like a system without packages. Returns the folder."""
        root = self.folder / "root"
        for folder in ("info", "updates"):
            (root / "var/lib/dpkg" / folder).mkdir(parents=True, exist_ok=True)
        for name in ("status", "available"):
            (root / "var/lib/dpkg" / name).touch()
        # The folder has neither the dependencies of the packages nor the programs that dpkg itself needs.
        run("dpkg", f"--root={root}", "--force-depends", "--force-bad-path", "--no-triggers", *arguments)
        return root

    def test_packages_replace_the_old_one_with_both_programs_and_are_purged(self):
        old = self.folder / "old"
        shutil.copytree(self.tree, old)
        shutil.rmtree(old / DOCUMENTS / DIALOGS)
        (old / "DEBIAN").mkdir()
        (old / "DEBIAN/control").write_text(
            f"Package: {CLIENT}\nVersion: 0.1.0-0kestrune1\nArchitecture: {self.field(CLIENT, 'Architecture')}\n"
            f"Maintainer: {self.field(CLIENT, 'Maintainer')}\nDescription: both programs\n")
        run("dpkg-deb", "--root-owner-group", "-Znone", "--build", old, self.folder / "old.package")
        self.dpkg("--install", self.folder / "old.package")
        # In this order, dpkg unpacks the package of the dialogs while the old package still owns the same files.
        root = self.dpkg("--auto-deconfigure", "--install", self.files[DIALOGS], self.files[CLIENT])
        for package, program in PROGRAMS.items():
            for each in FILES[package]:
                self.assertTrue((root / each).is_file(), each)
            self.assertRegex(run(root / "usr/bin" / program, "--version"), f"^{program} ")
        self.dpkg("--purge", DIALOGS)
        self.assertFalse((root / "usr/bin" / PROGRAMS[DIALOGS]).exists())
        self.assertRegex(run(root / "usr/bin" / PROGRAMS[CLIENT], "--version"), "^KestruneMenuClient ")
        self.dpkg("--purge", CLIENT)
        self.assertEqual(list((root / "usr").rglob("*")), [])


isolation.main()
