"""qvx's archives read by a reader in another language that shares no code with it; see second-reader/.
TARNWICK_BIN: the folder of the program."""
import base64
import hashlib
import json
import os
import random
import shutil
import stat
import subprocess
import sys
import tempfile
import unittest

QVX = os.path.join(os.path.abspath(os.environ.get("TARNWICK_BIN", "build/release/bin")), "qvx")
TESTS = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SAMPLES = os.path.join(TESTS, "data/archives")
MIB = 1 << 20
READER = os.path.join(os.path.dirname(os.path.dirname(QVX)), "second-reader")  # in the build folder


def install():
    """The reader and the library that its lock file names, npm's cache included: nothing stays outside."""
    shutil.copytree(os.path.join(TESTS, "second-reader"), READER, dirs_exist_ok=True)
    subprocess.run(["npm", "ci", "--ignore-scripts", "--no-audit", "--no-fund", "--prefer-offline", "--cache",
                    READER + "/cache"], cwd=READER, check=True, stdout=sys.stderr)


def make_tree(tree):
    """Every kind of entry, and enough of it for blocks of all sorts and a second group."""
    dice = random.Random(7)
    words = [b"%08x " % dice.getrandbits(32) for _ in range(60000)]
    os.makedirs(tree + b"/folder")
    for name, content in ((b"compressible", b"".join(dice.choices(words, k=20 * MIB // 9))), (b"empty", b""),
                          (b"noise", dice.randbytes(3 * MIB)), (b"folder/odd\xff\n\x1b", b"odd"), (b"first", b"one")):
        with open(os.path.join(tree, name), "wb") as file:
            file.write(content)
    with open(tree + b"/sparse", "wb") as file:
        file.write(b"head")
        file.seek(3 * MIB + 5)
        file.write(b"middle")
        file.truncate(5 * MIB)
    os.link(tree + b"/first", tree + b"/folder/second")
    os.symlink(b"nowhere\xfe", tree + b"/link")
    os.setxattr(tree + b"/first", b"user.\xfd", b"\0\xff" * 500)
    subprocess.run(["setfacl", "-m", "u:4711:r", tree + b"/first"], check=True)
    subprocess.run(["setfacl", "-d", "-m", "g:4712:rwx", tree + b"/folder"], check=True)
    os.chown(tree + b"/noise", 4713, 4714)
    os.chmod(tree + b"/noise", 0o6751)
    os.utime(tree + b"/empty", ns=(0, -1500000001))


def from_disk(path):
    status = os.lstat(path)
    names = [name for name in os.listxattr(path, follow_symlinks=False) if not name.startswith("system.")]
    found = {"mode": stat.S_IMODE(status.st_mode), "uid": status.st_uid, "gid": status.st_gid,
             "mtime_ns": status.st_mtime_ns,
             "xattrs": {os.fsencode(name): os.getxattr(path, name, follow_symlinks=False) for name in names}}
    if not stat.S_ISREG(status.st_mode):
        link = stat.S_ISLNK(status.st_mode)
        return {**found, "type": 3, "target": os.readlink(path)} if link else {**found, "type": 2}
    with open(path, "rb") as file:
        return {**found, "type": 1, "size": status.st_size, "sha256": hashlib.sha256(file.read()).hexdigest()}


def from_list(line):
    def raw(text):
        return text.encode("utf-8", "surrogateescape")

    entry = json.loads(line)
    entry.update({key: raw(entry[key]) for key in ("path", "target") if key in entry})
    return {**entry, "type": ["file", "directory", "link"].index(entry["type"]) + 1, "mode": int(entry["mode"], 8),
            "xattrs": {raw(name): raw(value) for name, value in entry.get("xattrs", {}).items()}}


def from_second(line):
    entry = json.loads(line)
    entry.update({key: base64.b64decode(entry[key]) for key in ("path", "target") if key in entry})
    entry.update({key: int(entry[key]) for key in ("size", "mtime_ns", "ctime_ns", "btime_ns") if key in entry})
    entry["xattrs"] = {base64.b64decode(name): base64.b64decode(value) for name, value in entry.get("xattrs", [])}
    if entry["type"] == 3:
        entry.pop("size")  # The list has no size of a link.
    return entry


class SecondReader(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        tree, cls.key, cls.archive = (os.path.join(FOLDER, name) for name in ("tree", "key.pem", "archive.qvx"))
        cls.tree = os.fsencode(tree)
        make_tree(cls.tree)
        subprocess.run([QVX, "keygen", "-o", cls.key[:-4]], check=True, capture_output=True)
        subprocess.run([QVX, "create", "-r", cls.key[:-4] + ".pub", "-o", cls.archive, cls.tree, cls.tree + b"/first"],
                       check=True)
        with open(cls.archive, "rb") as file:
            cls.bytes = file.read()
        cls.flags, cls.sealed, at = [], [], 129
        while at < len(cls.bytes):
            cls.flags.append(cls.bytes[at + 7])
            cls.sealed.append(at + 16)
            at += 16 + int.from_bytes(cls.bytes[at + 4:at + 7], "little")

    def read(self, content, key=None):
        path = os.path.join(FOLDER, "read.qvx")
        with open(path, "wb") as file:
            file.write(content)
        return subprocess.run(["node", READER + "/second_reader.mjs", key or self.key, path], capture_output=True)

    def test_same_entries_as_the_disk_and_the_list(self):
        self.assertEqual(set(self.flags), {0, 1, 2, 6}, "every sort of block")
        self.assertIn(6, self.flags[int.from_bytes(self.bytes[28:32], "little"):], "a dictionary in the second group")
        result = self.read(self.bytes)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        second = list(map(from_second, result.stdout.splitlines()))
        listed = subprocess.check_output([QVX, "list", "--json", "--key", self.key, self.archive]).splitlines()
        self.assertEqual(second, list(map(from_list, listed)))

        for entry in second:
            told = from_disk(b"/" + entry["path"])
            self.assertEqual({key: entry[key] for key in told}, told, entry["path"])
        paths = [b"/" + entry["path"] for entry in second]
        below = [os.path.join(where, name) for where, *names in os.walk(self.tree) for name in sum(names, [])]
        self.assertEqual(sorted(paths), sorted([self.tree, self.tree + b"/first", *below]))

        first, linked, folder, sparse = (paths.index(self.tree + b"/" + name)
                                         for name in (b"first", b"folder/second", b"folder", b"sparse"))
        self.assertEqual([(entry.get("content_of"), entry.get("link_of")) for entry in (second[linked], second[-1])],
                         [(first, first), (first, None)])
        self.assertIn("user:4711:r--", second[first]["acl"])
        self.assertIn("group:4712:rwx", second[folder]["default_acl"])
        self.assertEqual(second[sparse]["holes"], 2)

    def test_same_entries_of_the_kept_archives(self):
        key = SAMPLES + "/recipient.pem"
        for name in ("kinds", "blocks", "nothing"):
            with open(f"{SAMPLES}/{name}.qvx", "rb") as file:
                result = self.read(file.read(), key)
            listed = subprocess.check_output([QVX, "list", "--json", "--key", key, f"{SAMPLES}/{name}.qvx"])
            self.assertEqual((result.returncode, result.stderr), (0, b""), name)
            self.assertEqual(list(map(from_second, result.stdout.splitlines())),
                             list(map(from_list, listed.splitlines())), name)

    def test_damage_is_refused(self):
        def flip(at):
            return self.bytes[:at] + bytes([self.bytes[at] ^ 1]) + self.bytes[at + 1:]

        for flags in sorted(set(self.flags)):
            number = self.flags.index(flags)
            result = self.read(flip(self.sealed[number]))
            self.assertEqual((result.returncode, result.stderr),
                             (1, b"second-reader: block %d does not open\n" % number))
        for content in (flip(28), flip(70), self.bytes[:-1], self.bytes[:-68], self.bytes + b"\0"):
            result = self.read(content)
            self.assertEqual((result.returncode, result.stderr[:15]), (1, b"second-reader: "))


if __name__ == "__main__":
    install()
    with tempfile.TemporaryDirectory() as FOLDER:
        unittest.main()
