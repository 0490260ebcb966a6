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
SCRIPT = re.compile(r"(?:\.\./|\b)((?:scripts|bench)/[\w-]+)|(\.ci/run)")
PRESET = re.compile(r"--preset \"?(\w+)|\bbuild \"?(\w+)\b|for preset in ([\w ]+)")
SUDO = 'sudo() { "$@"; }\n'


def blocks(mark):
    return [text for document in DOCUMENTS for each, text in FENCE.findall(read(f"{TOP}/{document}")) if each == mark]


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
            text = read(f"{TOP}/{document}")
            self.assertLessEqual({mark for mark, _ in FENCE.findall(text)},
                                 {"sh world", "sh package", "sh ci", "sh hand"}, document)
            self.assertNotRegex(FENCE.sub("", text), r"(?m)```|^ {4}", f"{document}: a block without a fence")

    def test_what_takes_long_exists_and_is_what_runs(self):
        presets = {each["name"] for each in json.loads(read(f"{TOP}/CMakePresets.json"))["configurePresets"]}
        settings = "".join(map(read, [f"{TOP}/CMakeLists.txt", *glob.glob(f"{TOP}/cmake/*.cmake")]))
        runs = what_runs()
        for mark in "sh ci", "sh hand":
            for line in "".join(blocks(mark)).splitlines():
                with self.subTest(line):
                    scripts, names = tokens(SCRIPT, line), tokens(PRESET, line)
                    self.assertTrue(names or scripts, "neither a script nor a preset")
                    self.assertLessEqual(names, presets)
                    self.assertTrue(all(os.access(f"{TOP}/{script}", os.X_OK) for script in scripts))
                    self.assertTrue(all(option in settings for option in re.findall(r"-D(\w+)", line)))
                    if mark == "sh ci":
                        self.assertLessEqual(scripts, runs[0])
                        self.assertLessEqual(names, runs[1])


class Run(Scenario):
    def leave_archive(self):
        """What an engineer has before him: an archive sealed to the key that the document made before."""
        self.world.specification(("/private/var/log", ".*"), archive_public_key=read("/media/cwd/service.pub").strip())
        shutil.copy(self.world.capture().archive, "/media/cwd")

    def test_blocks_in_their_order(self):
        """On a machine with the package, and with the configuration that a site would publish."""
        os.symlink(f"{TOP}/tools/asset-publish/asset-publish", "/media/bin/asset-publish")
        shutil.copy(f"{TOP}/config/etc/asset-service.plist.example", "/etc/tarnwick/")
        shutil.copy(f"{TOP}/config/linux.plist.in", "/media/cwd/tarnwick.config.plist")
        self.world.volume("data", {"AutoSubmit": True}, ["/private/var/log/system.log"])
        environment = {"PATH": "/media/bin:/media/programs:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root"}
        for block in blocks("sh world"):
            if "tarnwick-*.qvx" in block and not glob.glob("/media/cwd/*.qvx"):
                self.leave_archive()
            done = subprocess.run(["bash", "-euo", "pipefail", "-c", SUDO + block], cwd="/media/cwd", env=environment,
                                  stdin=subprocess.DEVNULL, text=True, capture_output=True, check=False)
            self.assertEqual(done.returncode, 0, f"{block}\n{done.stdout}\n{done.stderr}")
        self.assertEqual(os.listdir("/media/cwd/case-4711/media/data/private/var/log"), ["system.log"])


if __name__ == "__main__":
    world.main()
