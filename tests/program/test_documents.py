"""The commands in the documents and in the EXAMPLES of the manual pages. The word behind `sh`, on a fence or in a
comment above an example, says who runs the block; see CONTRIBUTING.md."""
import glob
import json
import os
import plistlib
import re
import shutil
import unittest

import world
from world import Scenario, on_terminal, read, write

TOP = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../.."))
DOCUMENTS = ["README.md", "CONTRIBUTING.md", "CHANGELOG.md", "docs/architecture.md", "docs/threat-model.md",
             "bench/README.md"]
PAGES = ["man/tarnwick.8", "man/qvx.1", "man/asset-publish.1", "man/tarnwick-assets.5", "man/nvram.8", "man/volctl.8"]
ROOTS = [".ci/run", "scripts/test-package", "scripts/test-vm"]
FENCE = re.compile(r"^```(.*)\n((?:(?!```).*\n)*)```$", re.MULTILINE)
EXAMPLE = re.compile(r'^(?:\.\\" (.*)\n)?\.(?:Bd -literal.*\n((?:(?!\.Ed).*\n)*)\.Ed|Dl (.*))$', re.MULTILINE)
SCRIPT = re.compile(r"(?:\.\./|\b)((?:scripts|bench)/[\w-]+)|(\.ci/run)")
PRESET = re.compile(r"--preset \"?(\w+)|\bbuild \"?(\w+)\b|for preset in ([\w ]+)")
SUDO = 'sudo() { "$@"; }\n'


def marked(document):
    """The mark and the text of each block, without prompts."""
    text = read(f"{TOP}/{document}")
    if document in DOCUMENTS:
        return FENCE.findall(text)
    return [(mark, re.sub("(?m)^[$#] ", "", block or line).replace(r"\e", "\\"))
            for mark, block, line in EXAMPLE.findall(text.partition(".Sh EXAMPLES")[2])]


def blocks(mark):
    return [text for document in DOCUMENTS + PAGES for each, text in marked(document) if each == mark]


def tokens(pattern, text):
    return {word for match in pattern.findall(text) for group in match for word in group.split()}


def what_runs():
    """All scripts that are reached from the roots, and the presets that they name."""
    reached, waiting, presets = set(), list(ROOTS), set()
    while waiting:
        script = waiting.pop()
        if script not in reached and os.path.exists(f"{TOP}/{script}"):
            reached.add(script)
            waiting += tokens(SCRIPT, read(f"{TOP}/{script}"))
            presets |= tokens(PRESET, read(f"{TOP}/{script}"))
    return reached, presets


class Named(unittest.TestCase):
    def test_every_block_says_who_runs_it(self):
        for document in DOCUMENTS:
            self.assertLessEqual({mark for mark, _ in marked(document)}, {"sh world", "sh package", "sh ci", "sh hand"})
            self.assertNotRegex(FENCE.sub("", read(f"{TOP}/{document}")), r"(?m)```|^ {4}", f"{document}: no fence")
        self.assertEqual(sorted(PAGES), sorted(os.path.relpath(page, TOP) for page in glob.glob(f"{TOP}/man/*")))
        for page in PAGES:
            self.assertLessEqual({mark for mark, _ in marked(page)}, {"sh world", "plist"}, page)
        self.assertTrue(all(map(plistlib.loads, map(str.encode, blocks("plist")))))

    def test_what_takes_long_exists_and_is_what_runs(self):
        presets = {each["name"] for each in json.loads(read(f"{TOP}/CMakePresets.json"))["configurePresets"]}
        settings = "".join(map(read, [f"{TOP}/CMakeLists.txt", *glob.glob(f"{TOP}/cmake/*.cmake")]))
        runs = what_runs()
        for mark in "sh ci", "sh hand":
            for line in "".join(blocks(mark)).splitlines():
                with self.subTest(line):
                    line, _, _ = line.partition(" #")
                    scripts, names = tokens(SCRIPT, line), tokens(PRESET, line)
                    self.assertTrue(names or scripts, "neither a script nor a preset")
                    self.assertLessEqual(names, presets)
                    for script in scripts:
                        self.assertTrue(os.access(f"{TOP}/{script}", os.X_OK))
                        self.assertTrue(all(map(read(f"{TOP}/{script}").count, re.findall(r" (--\w+)", line))))
                    self.assertTrue(all(option in settings for option in re.findall(r"-D(\w+)", line)))
                    if mark == "sh ci":
                        self.assertLessEqual(scripts, runs[0])
                        self.assertLessEqual(names, runs[1])


class Run(Scenario):
    def leave_archive(self):
        """What an engineer has before him: an archive sealed to the key that the document made before."""
        self.world.specification(("/private/var/log", ".*"), archive_public_key=read("/media/cwd/service.pub").strip())
        shutil.copy(self.world.capture().archive, "/media/cwd")

    def leave_volume(self):
        """The device of the examples, with nothing standing in for `volctl` and `nvram`."""
        for name in "volctl", "nvram":
            os.remove(f"/media/bin/{name}")
        world.call("mkfs.ext4", "-q", "/media/image", "64M")
        device = world.call("losetup", "-f", "--show", "/media/image").strip()
        self.addCleanup(world.call, "losetup", "-d", device)
        return os.path.basename(device)

    def test_blocks_in_their_order(self):
        """On a machine with the package, and with the configuration that a site would publish."""
        os.symlink(f"{TOP}/tools/asset-publish/asset-publish", "/media/bin/asset-publish")
        shutil.copy(f"{TOP}/config/etc/asset-service.plist.example", "/etc/tarnwick/")
        shutil.copy(f"{TOP}/config/linux.plist.in", "/media/cwd/tarnwick.config.plist")
        self.world.volume("data", {"AutoSubmit": True}, ["/private/var/log/system.log"])
        for folder in "/var/log", "/run":
            self.world.lay(folder, "mode=755")
        for path in "/var/log/dpkg.log", "/var/log/apt/history.log", "/media/cwd/volume.key":
            write(path, path)
        write("/media/efivars/BootOrder-8be4df61-93ca-11d2-aa0d-00e098032b8c", b"\7\0\0\0\1\0")
        command = ["/usr/bin/env", "-C", "/media/cwd", "TARNWICK_EFIVARS_DIR=/media/efivars",
                   "PATH=/media/bin:/media/programs:/usr/sbin:/usr/bin:/sbin:/bin", "bash", "-euo", "pipefail", "-c"]
        device = ""
        for block in blocks("sh world"):
            if "tarnwick-*.qvx" in block and not glob.glob("/media/cwd/tarnwick-*.qvx"):
                self.leave_archive()
            if "sda3" in block or "BootOrder" in block:
                device = device or self.leave_volume()
            passphrases = [b"secret\n"] * (2 if "safe.pem" in block else 0)
            shown, status, _ = on_terminal([*command, SUDO + block.replace("sda3", device)], b"ass", *passphrases)
            self.assertEqual(status, 0, f"{block}\n{shown.decode()}")
        self.assertEqual(os.listdir("/media/cwd/case-4711/media/data/private/var/log"), ["system.log"])


if __name__ == "__main__":
    world.main()
