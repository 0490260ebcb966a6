"""The commands in the documents. The word behind `sh` on a fence says who runs the block; see CONTRIBUTING.md."""
import glob
import json
import os
import re
import shutil
import subprocess
import unittest

import world
from world import Scenario, read

TOP = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../.."))
DOCUMENTS = ["README.md", "CONTRIBUTING.md", "CHANGELOG.md", "docs/architecture.md", "docs/threat-model.md"]
ROOTS = [".ci/run", "scripts/test-package", "scripts/test-vm"]
FENCE = re.compile(r"^```(.*)\n((?:(?!```).*\n)*)```$", re.MULTILINE)
SCRIPT = re.compile(r"(?:\.\./|\b)(scripts/[\w-]+)|(\.ci/run)")
PRESET = re.compile(r"--preset \"?(\w+)|\bbuild \"?(\w+)\b|for preset in ([\w ]+)")
SUDO = 'sudo() { "$@"; }\n'
KINDS = [("cmake --preset", "configurePresets"), ("cmake --build", "buildPresets"), ("ctest", "testPresets"),
         ("cpack", "packagePresets")]


def blocks(document, *marks):
    return [text for mark, text in FENCE.findall(read(f"{TOP}/{document}")) if mark in [f"sh {each}" for each in marks]]


def tokens(pattern, text):
    return {word for match in pattern.findall(text) for group in match for word in group.split()}


def what_runs():
    """All scripts that are reached from the roots, and the presets that they name."""
    reached, waiting, presets = set(), list(ROOTS), set()
    while waiting:
        script = waiting.pop()
        if script not in reached and os.path.exists(f"{TOP}/{script}"):
            text = read(f"{TOP}/{script}")
            reached.add(script)
            waiting += tokens(SCRIPT, text)
            presets |= tokens(PRESET, text)
    return reached, presets


class Named(unittest.TestCase):
    def test_every_block_says_who_runs_it(self):
        for document in DOCUMENTS:
            text = read(f"{TOP}/{document}")
            marks = [mark for mark, _ in FENCE.findall(text)]
            self.assertLessEqual(set(marks), {"sh world", "sh package", "sh ci", "sh hand"}, document)
            self.assertNotRegex(FENCE.sub("", text), r"(?m)```|^ {4}", f"{document}: a block without a fence")

    def test_what_takes_long_exists_and_is_what_runs(self):
        with open(f"{TOP}/CMakePresets.json", encoding="utf-8") as file:
            presets = json.load(file)
        settings = "".join(map(read, [f"{TOP}/CMakeLists.txt", *glob.glob(f"{TOP}/cmake/*.cmake")]))
        reached, run = what_runs()
        for document, mark in ((document, mark) for document in DOCUMENTS for mark in ("ci", "hand")):
            for line in "".join(blocks(document, mark)).splitlines():
                with self.subTest(document=document, line=line):
                    names, scripts = tokens(PRESET, line), tokens(SCRIPT, line)
                    self.assertTrue(names or scripts, "neither a script nor a preset")
                    for kind in (kind for start, kind in KINDS if line.startswith(start)):
                        self.assertLessEqual(names, {each["name"] for each in presets[kind]})
                    for option in re.findall(r"-D(\w+)", line):
                        self.assertIn(option, settings)
                    for script in scripts:
                        self.assertTrue(os.access(f"{TOP}/{script}", os.X_OK), script)
                    if mark == "ci":
                        self.assertLessEqual(names, run)
                        self.assertLessEqual(scripts, reached)


class Run(Scenario):
    def prepare(self):
        """A machine with the package, and in the working directory the configuration that a site would publish."""
        os.symlink(f"{TOP}/tools/asset-publish/asset-publish", "/media/bin/asset-publish")
        shutil.copy(f"{TOP}/config/etc/asset-service.plist.example", "/etc/tarnwick/")
        shutil.copy(f"{TOP}/config/linux.plist.in", "/media/cwd/tarnwick.config.plist")
        self.world.volume("data", {"AutoSubmit": True}, ["/private/var/log/system.log"])

    def leave_archive(self):
        """What an engineer has before him: an archive sealed to the key that the document made before."""
        self.world.specification(("/private/var/log", ".*"), archive_public_key=read("/media/cwd/service.pub").strip())
        shutil.copy(self.world.capture().archive, "/media/cwd")

    def test_blocks_in_their_order(self):
        self.prepare()
        environment = {"PATH": "/media/bin:/media/programs:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root"}
        ran = 0
        for block in (block for document in DOCUMENTS for block in blocks(document, "world")):
            if "tarnwick-*.qvx" in block and not glob.glob("/media/cwd/*.qvx"):
                self.leave_archive()
            done = subprocess.run(["bash", "-euo", "pipefail", "-c", SUDO + block], cwd="/media/cwd", env=environment,
                                  stdin=subprocess.DEVNULL, text=True, capture_output=True, check=False)
            self.assertEqual(done.returncode, 0, f"{block}\n{done.stdout}\n{done.stderr}")
            ran += 1
        self.assertGreater(ran, 4)
        self.assertEqual(glob.glob("/media/cwd/case-4711/media/data/private/var/log/*")[0][-10:], "system.log")


if __name__ == "__main__":
    world.main()
