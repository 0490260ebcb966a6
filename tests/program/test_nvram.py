"""nvram as a whole program on a folder of its own."""
import subprocess
import tempfile
import unittest

from world import BIN, write

GUID = "8be4df61-93ca-11d2-aa0d-00e098032b8c"


class NvramTest(unittest.TestCase):
    def nvram(self, *arguments, stdout=subprocess.PIPE):
        done = subprocess.run([BIN + "/nvram", *arguments], stdout=stdout, stderr=subprocess.PIPE, text=True,
                              env={"TARNWICK_EFIVARS_DIR": self.folder}, check=False)
        return done.returncode, done.stdout, done.stderr

    def test_shows_the_good_names_the_bad_and_fails_without_any(self):
        with tempfile.TemporaryDirectory() as self.folder:
            for arguments, status in ((["-p"], 1), ([], 2), (["-p", "-x"], 2), (["--help"], 0)):
                self.assertEqual(self.nvram(*arguments)[0], status, arguments)
            bad = f"nvram: Bad%1b-{GUID}: no attributes in it\n"
            write(f"{self.folder}/Bad\x1b-{GUID}", b"\7")
            status, out, errors = self.nvram("-p")
            self.assertEqual((status, out, errors.startswith(bad)), (1, "", True))
            write(f"{self.folder}/BootOrder-{GUID}", b"\7\0\0\0\1\0")
            write(f"{self.folder}/UserPassword-{GUID}", b"\7\0\0\0topsecret")
            self.assertEqual(self.nvram("-p"), (0, f"BootOrder-{GUID}\t%01%00\n"
                                                f"UserPassword-{GUID}\t%[withheld: a password, 9 bytes]\n", bad))
            with open("/dev/full", "wb") as full:
                self.assertEqual(self.nvram("-p", stdout=full)[0], 1)
        status, out, errors = self.nvram("-p")  # the folder is gone
        self.assertEqual((status, out, errors.count("\n")), (1, "", 1))


if __name__ == "__main__":
    unittest.main()
