"""Archives made once and kept: every later qvx must read the good ones and refuse the others for the right reason.
TARNWICK_BIN: the folder of the program."""
import os
import subprocess
import tempfile
import unittest

SAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "archives")
QVX = ""

GOOD = ("kinds", "blocks", "nothing")

# One fault each, with what must be said of it.
DAMAGED = {
    "not-an-archive": "not a qvx archive",
    "flipped-magic": "not a qvx archive",
    "flipped-version": "of a version that is not supported",
    "flipped-group-length": "block 0 at position 129: the block is changed",
    "flipped-encapsulated-key": "the encapsulated key in the header is damaged",
    "cut-in-header": "ends within its header",
    "flipped-length": "block 2 at position 1698: the block is changed",
    "flipped-flag": "block 2 at position 1698: the block header is damaged",
    "flipped-content": "tmp/sample/long: block 3 at position 1894: the block is changed",
    "dropped-block": "block 4 at position 2092: block 5 stands in its place",
    "doubled-block": "block 5 at position 2289: block 4 stands in its place",
    "swapped-blocks": "block 4 at position 2092: block 5 stands in its place",
    "cut-in-block": "block 5 at position 2289: the archive ends here",
    "cut-between-blocks": "block 21 at position 7207: the archive ends here",
    "byte-behind": "position 7275: something stands behind the last block",
}
BEHIND_THE_FILES = ("cut-between-blocks", "byte-behind")


def run(command, name, *arguments, key="recipient"):
    return subprocess.run([QVX, command, "--key", os.path.join(SAMPLES, key + ".pem"), *arguments,
                           os.path.join(SAMPLES, name + ".qvx")], capture_output=True)


class FrozenTest(unittest.TestCase):
    def test_reads_the_good_ones(self):
        for name in GOOD:
            done = run("verify", name)
            self.assertEqual((done.returncode, done.stderr), (0, b""), name)
            with open(os.path.join(SAMPLES, name + ".json"), "rb") as file:
                entries = file.read()
            self.assertEqual(run("list", name, "--json").stdout, entries, name)
            self.assertEqual(run("list", name).stdout.count(b"\n"), entries.count(b"\n"), name)
            with tempfile.TemporaryDirectory() as folder:
                self.assertEqual(run("extract", name, "-C", folder).returncode, 0, name)

    def test_refuses_the_others(self):
        for name, says in DAMAGED.items():
            done = run("verify", name)
            self.assertEqual(done.returncode, 1, name)
            self.assertIn(says, done.stderr.decode().splitlines()[0], name)
            with tempfile.TemporaryDirectory() as folder:
                self.assertEqual(run("extract", name, "-C", folder).returncode, 1, name)
                self.assertEqual(os.path.exists(folder + "/tmp/sample/long"), name in BEHIND_THE_FILES, name)
        for done in (run("verify", "flipped-fingerprint"), run("verify", "kinds", key="other")):
            self.assertEqual(done.returncode, 3)
            self.assertIn(b"sealed to another key", done.stderr)

    def test_knows_every_sample(self):
        found = {name[:-4] for name in os.listdir(SAMPLES) if name.endswith(".qvx")}
        self.assertEqual(found, {*GOOD, *DAMAGED, "flipped-fingerprint"})


if __name__ == "__main__":
    QVX = os.path.join(os.path.abspath(os.environ["TARNWICK_BIN"]), "qvx")
    unittest.main()
