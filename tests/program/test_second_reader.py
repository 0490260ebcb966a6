# qvx's archives read by a reader in another language that shares no code with it; see second-reader/.
import base64
import json
import os
import random
import shutil
import subprocess

from world import BIN, DATA, HERE, Scenario, call, content, write

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


# What the second reader prints, with the bytes as qvx has them in its list.
def entries(lines):
    def text(value):
        return base64.b64decode(value).decode("utf-8", "surrogateescape")
    for entry in map(json.loads, lines):
        entry.update({key: text(entry[key]) for key in ("path", "target") if key in entry})
        if "xattrs" in entry:
            entry["xattrs"] = {text(name): text(value) for name, value in entry["xattrs"]}
        yield entry


class SecondReader(Scenario):
    def setUp(self):
        super().setUp()
        self.qvx("keygen", "-o", "/media/key")
        make_tree()
        self.qvx("create", "-r", "/media/key.pub", "-o", ARCHIVE, TREE, TREE + "/noise")

    def read(self, archive, key):
        shutil.copy(READER, "/media/second_reader.mjs")  # node cannot run it from /proc/PID/fd
        return subprocess.run(["node", "/media/second_reader.mjs", key, archive], capture_output=True, check=False)

    def agree(self, archive, key):
        result = self.read(archive, key)
        self.assertEqual((result.returncode, result.stderr), (0, b""), archive)
        found = list(entries(result.stdout.splitlines()))
        listed = self.qvx("list", "--json", "--key", key, archive)
        self.assertEqual(found, list(map(json.loads, listed.splitlines())), archive)
        return found

    def test_same_entries(self):
        found = self.agree(ARCHIVE, KEY)
        self.assertEqual([entry.get("hard_link") is None for entry in found if "content_of" in entry], [False, True])
        self.assertEqual(sum(entry.get("holes", 0) for entry in found), 2)
        for name in "kinds", "blocks", "nothing", "incomplete", "order":
            self.agree(f"{SAMPLES}{name}.qvx", SAMPLES + "recipient.pem")

    def test_damage_is_refused(self):
        whole = content(ARCHIVE)
        flipped = (whole[:at] + bytes([whole[at] ^ 1]) + whole[at + 1:] for at in (28, 70, 150, len(whole) - 100))
        for damaged in (*flipped, whole[:-1], whole[:-68], whole + b"\0"):
            result = self.read(write(ARCHIVE, damaged), KEY)
            self.assertEqual((result.returncode, result.stderr[:15]), (1, b"second-reader: "))
