"""nvram as a whole program on a folder of its own."""
import os
import subprocess
import tempfile
import unittest

from world import BIN

GUID = "8be4df61-93ca-11d2-aa0d-00e098032b8c"


class NvramTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def variable(self, name, content):
        with open(f"{self.folder}/{name}-{GUID}", "wb") as file:
            file.write(content)

    def nvram(self, *arguments, folder=None, stdout=subprocess.PIPE):
        return subprocess.run([BIN + "/nvram", *arguments], stdout=stdout, stderr=subprocess.PIPE,
                              env={"TARNWICK_EFIVARS_DIR": folder or self.folder}, check=False)

    def test_shows_the_good_and_names_the_bad(self):
        self.variable("BootOrder", b"\7\0\0\0\1\0")
        self.variable("Bad\x1b", b"\7")
        self.variable("UserPassword", b"\7\0\0\0topsecret")
        done = self.nvram("-p")
        self.assertEqual(done.stdout.decode(), f"BootOrder-{GUID}\t%01%00\n"
                         f"UserPassword-{GUID}\t%[withheld: a password, 9 bytes]\n")
        self.assertEqual(done.stderr.decode(), f"nvram: Bad%1b-{GUID}: no attributes in it\n")
        self.assertEqual(done.returncode, 0)
        with open("/dev/full", "wb") as full:
            self.assertEqual(self.nvram("-p", stdout=full).returncode, 1)

    def test_tells_wrong_usage_from_no_variables(self):
        for arguments, status in (([], 2), (["-p", "-x"], 2), (["--help"], 0)):
            self.assertEqual(self.nvram(*arguments).returncode, status)
        for folder in (self.folder, self.folder + "/missing"):
            done = self.nvram("-p", folder=folder)
            self.assertEqual((done.returncode, done.stdout, done.stderr.count(b"\n")), (1, b"", 1))
        self.variable("Bad", b"")
        self.assertEqual(self.nvram("-p").returncode, 1)


if __name__ == "__main__":
    unittest.main()
