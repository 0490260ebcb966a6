# qvx's archives read by a reader in another language that shares no code with it; see second-reader/.
import glob
import json
import os
import random
import shutil
import subprocess

from world import BIN, DATA, HERE, Scenario, call, write

READER = HERE + "/../second-reader/second_reader.mjs"
TREE, ARCHIVE, KEY = "/media/tree", "/media/archive.qvx", "/media/key.pem"
MIB, SAMPLES = 1 << 20, DATA + "/archives/"


# Every kind of entry, from the frozen archive, and enough for blocks of all sorts and a second group.
def make_tree():
    os.mkdir(TREE)
    call(BIN + "/qvx", "extract", "--key", SAMPLES + "recipient.pem", "-C", TREE, SAMPLES + "kinds.qvx")
    dice = random.Random(7)
    words = [b"%08x " % dice.getrandbits(32) for _ in range(60000)]
    write(TREE + "/compressible", b"".join(dice.choices(words, k=20 * MIB // 9)))
    write(TREE + "/noise", dice.randbytes(3 * MIB))


class SecondReader(Scenario):
    # Both readers accept the archive and find the same entries, which are returned, or both refuse it.
    def agree(self, archive, key):
        shutil.copy(READER, "/media/second_reader.mjs")  # node cannot run it from /proc/PID/fd
        second = subprocess.run(["node", "/media/second_reader.mjs", key, archive], capture_output=True, check=False)
        with self.subTest(os.path.basename(archive)):
            if self.start("verify", "--key", key, archive, program="qvx", stderr=None).wait() != 0:
                return self.assertEqual((second.returncode, second.stderr[:15]), (1, b"second-reader: "))
            self.assertEqual((second.returncode, second.stderr), (0, b""))
            listed = self.qvx("list", "--full", "--key", key, archive)
            found = [json.loads(line.decode(errors="surrogateescape")) for line in second.stdout.splitlines()]
            self.assertEqual(found, list(map(json.loads, listed.splitlines())))
            return found

    def test_same_entries(self):
        self.qvx("keygen", "-o", "/media/key")
        make_tree()
        self.qvx("create", "-r", "/media/key.pub", "-o", ARCHIVE, TREE, TREE + "/noise")
        found = self.agree(ARCHIVE, KEY)
        self.assertEqual([entry.get("hard_link") is None for entry in found if "content_of" in entry], [False, True])
        self.assertEqual(sum(entry.get("holes", 0) for entry in found), 2)

    # test_qvx.py says which of them are good.
    def test_frozen_archives(self):
        for archive in glob.glob(SAMPLES + "*.qvx"):
            self.agree(archive, SAMPLES + "recipient.pem")
