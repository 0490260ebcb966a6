# The commands in the documents and in the EXAMPLES of the manual pages. The word after `sh`, on a fence or in a
# comment above an example, says how the block is tested; see CONTRIBUTING.md.
import glob
import json
import os
import plistlib
import re
import shutil
import unittest

import world
from world import SPECIFIED, YES, Disks, on_terminal, property_list, read, shell, write

TOP = world.HERE + "/../.."
TYPE, NAME = "com.vexlor.Provisor.tarnwick.config", "tarnwick.config.plist"
TEXTS = [read(f"{TOP}/{name}") for name in ("README.md", "CONTRIBUTING.md", "CHANGELOG.md", "docs/architecture.md",
                                            "docs/threat-model.md", "bench/README.md")]
PAGES = ["tarnwick.8", "qvx.1", "asset-publish.1", "tarnwick-assets.5", "nvram.8", "volctl.8",
         "tarnwick-consent.8"]
FENCE = re.compile(r"^```(.*)\n((?:(?!```).*\n)*)```$", re.MULTILINE)
EXAMPLE = re.compile(r'^(?:\.\\" (.*)\n)?\.(?:Bd -literal.*\n((?:(?!\.Ed).*\n)*)\.Ed|Dl (.*))$', re.MULTILINE)
BLOCKS = [found for text in TEXTS for found in FENCE.findall(text)]
EXAMPLES = [(mark, re.sub("(?m)^[$#] ", "", block or line).replace(r"\e", "\\")) for page in PAGES
            for mark, block, line in EXAMPLE.findall(read(f"{TOP}/man/{page}").partition(".Sh EXAMPLES")[2])]
SCRIPT = re.compile(r"\b(?:scripts|bench)/[\w-]+(?:\.sh)?|\.ci/run")


class Documents(Disks):
    def test_every_block_says_who_runs_it(self):
        self.assertLessEqual({mark for mark, _ in BLOCKS},
                             {"sh world", "sh package", "sh ci", "sh hand", "console"})
        for text in TEXTS:
            self.assertNotRegex(FENCE.sub("", text), r"(?m)```|^ {4}", "a block without a fence")
        self.assertEqual(sorted(PAGES), sorted(os.listdir(f"{TOP}/man")))
        self.assertLessEqual({mark for mark, _ in EXAMPLES}, {"sh world", "plist"})
        for text in (text for mark, text in EXAMPLES if mark == "plist"):
            self.assertTrue(plistlib.loads(text.encode()))

    def test_scripts_and_presets_exist_and_scripts_marked_ci_are_run(self):
        presets = {each["name"] for each in json.loads(read(f"{TOP}/CMakePresets.json"))["configurePresets"]}
        callers = read(f"{TOP}/.ci/run") + read(f"{TOP}/scripts/common.sh")
        run = SCRIPT.findall(".ci/run scripts/test-package scripts/test-vm" + callers)
        for mark, text in ((mark, re.sub(" #.*", "", text)) for mark, text in BLOCKS if mark in ("sh ci", "sh hand")):
            scripts = SCRIPT.findall(text)
            self.assertLessEqual(set(re.findall(r"--preset (\w+)", text)), presets, text)
            self.assertTrue(all(os.access(f"{TOP}/{script}", os.X_OK) for script in scripts), text)
            if mark == "sh ci":
                self.assertLessEqual(set(scripts), set(run), text)

    @unittest.skipUnless(os.path.exists("/dev/fuse"), "needs /dev/fuse")
    def test_session_in_the_README_is_what_the_script_prints(self):
        session, = (text for mark, text in BLOCKS if mark == "console")
        self.assertEqual(session, shell("/", f"{TOP}/scripts/desk-session {world.BIN}"))

    # What an engineer has: an archive sealed to the key that the document made, or to one made now.
    def make_archive(self):
        self.key = "/media/cwd/service.pem"
        self.specification(("/private/var/log", ".*"))
        shutil.copy(self.tarnwick(*SPECIFIED).archive, "/media/cwd")

    # The device of the examples, with the real `volctl` and `nvram`.
    def make_volume(self):
        shell("/media/bin", "rm volctl nvram")
        return self.attach(self.formatted()[0])

    # On a machine with the package, and with the configuration that a site would publish.
    def test_blocks_in_their_order(self):
        shell(f"/usr/share/tarnwick/assets/{TYPE}/0.1", f"""
            ln -s {TOP}/tools/asset-publish/asset-publish /media/bin
            cp {TOP}/config/etc/asset-service.plist.example /etc/tarnwick
            cp {world.BIN}/../share/linux.plist {NAME}; cp {NAME} /media/cwd""")
        self.volume("data", YES, ["/private/var/log/system.log"])
        self.lay("/var/log", "mode=755")
        for path in "/var/log/dpkg.log", "/var/log/apt/history.log", "/media/cwd/volume.key":
            write(path, path)
        write("/media/efivars/BootOrder-8be4df61-93ca-11d2-aa0d-00e098032b8c", b"\7\0\0\0\1\0")
        command = ["/usr/bin/env", "-C", "/media/cwd", "TARNWICK_EFIVARS_DIR=/media/efivars",
                   "PATH=/media/bin:/media/programs:/usr/sbin:/usr/bin:/sbin:/bin", "bash", "-euo", "pipefail", "-c"]
        device = ""
        for block in (text for mark, text in BLOCKS + EXAMPLES if mark == "sh world"):
            if "keygen -o service" in block:
                shell("/media/cwd", "rm -f service.* tarnwick-*.qvx")
            if "-out site.key" in block:  # the new key does not replace the catalog of the last one
                shell("/media/cwd", "rm -rf site")
            if "tarnwick-*.qvx" in block and not glob.glob("/media/cwd/tarnwick-*.qvx"):
                self.make_archive()
            if "sda3" in block or "BootOrder" in block or "/home" in block:
                device = device or self.make_volume()
            if "/home" in block:  # a data volume, which a loop device is only where it is named
                write("/etc/tarnwick/volumes.plist", property_list({"Roles": {device: "Data"}}))
                self.lay("/home", "rw", "auto", "/dev/" + device)
            if "qvx mount" in block and not os.path.exists("/dev/fuse"):
                print("not run, for want of /dev/fuse:", block, sep="\n")
                continue
            shown, status, _ = on_terminal([*command, 'sudo() { "$@"; }\n' + block.replace("sda3", device)], b"ass",
                                           *[b"secret\n"] * (2 if "safe.pem" in block else 0))
            self.assertEqual(status, 0, f"{block}\n{shown.decode()}")
            if "cat >directive" in block:
                os.remove("/etc/tarnwick/asset-service.plist")
                self.check_widened_configuration("1.0")
            elif "site/$type/1.1" in block:
                write("/etc/tarnwick/asset-service.plist", property_list(
                    {"CatalogURL": "file:///media/cwd/site/catalog.plist", "CatalogKey": "/etc/tarnwick/catalog.pem"}))
                self.check_widened_configuration("1.1")
        self.assertEqual(os.listdir("/media/cwd/case-4711/media/data/private/var/log"), ["system.log"])
        self.record = ""  # the runs in between

    # The configuration that an example installed or published is used, and its directive finds a file.
    def check_widened_configuration(self, version):
        self.key = f"{world.BIN}/../dev-recipient.pem"
        write("/media/data/var/log/cups/error_log")
        result = self.tarnwick()
        self.assertIn(f'using external config: "/var/lib/tarnwick/assets/{TYPE}/{version}/{NAME}"', result.out)
        self.assertIn("media/data/var/log/cups/error_log", self.entries(result.archive))
