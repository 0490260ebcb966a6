"""qvx's archives read by a reader in another language that shares no code with it; see second-reader/.
TARNWICK_BIN: the folder of the program."""
import base64
import json
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

QVX = os.path.join(os.path.abspath(os.environ.get("TARNWICK_BIN", "build/release/bin")), "qvx")
TESTS = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SAMPLES = os.path.join(TESTS, "data/archives")
READER = os.path.join(os.path.dirname(os.path.dirname(QVX)), "second-reader")  # in the build folder
MIB = 1 << 20


def install():
    """The reader and the library that its lock file names, npm's cache included: nothing stays outside."""
    shutil.copytree(os.path.join(TESTS, "second-reader"), READER, dirs_exist_ok=True)
    subprocess.run(["npm", "ci", "--ignore-scripts", "--no-audit", "--no-fund", "--prefer-offline", "--cache",
                    READER + "/cache"], cwd=READER, check=True, stdout=sys.stderr)


def write(path, content, position=0):
    with open(path, "wb") as file:
        file.seek(position)
        file.write(content)
    return path


def make_tree(tree):
    """Every kind of entry, and enough of it for blocks of all sorts and a second group."""
    dice = random.Random(7)
    words = [b"%08x " % dice.getrandbits(32) for _ in range(60000)]
    os.makedirs(tree + b"/folder")
    write(tree + b"/compressible", b"".join(dice.choices(words, k=20 * MIB // 9)))
    write(tree + b"/empty", b"")
    write(tree + b"/noise", dice.randbytes(3 * MIB))
    write(tree + b"/folder/odd\xff\n\x1b\"", b"odd")
    os.truncate(write(tree + b"/sparse", b"middle", 3 * MIB + 5), 5 * MIB)
    os.link(write(tree + b"/first", b"one"), tree + b"/folder/second")
    os.symlink(b"nowhere\xfe", tree + b"/link")
    os.setxattr(tree + b"/first", b"user.\xfd", b"\0\xff" * 500)
    subprocess.run(["setfacl", "-m", "u:4711:r", tree + b"/first"], check=True)
    subprocess.run(["setfacl", "-d", "-m", "g:4712:rwx", tree + b"/folder"], check=True)
    os.chmod(tree + b"/noise", 0o6751)
    os.utime(tree + b"/empty", ns=(0, -1500000001))


def entries(lines):
    """What the second reader prints, with the bytes as qvx has them in its list."""
    def text(value):
        return base64.b64decode(value).decode("utf-8", "surrogateescape")
    for entry in map(json.loads, lines):
        entry.update({key: text(entry[key]) for key in ("path", "target") if key in entry})
        if "xattrs" in entry:
            entry["xattrs"] = {text(name): text(value) for name, value in entry["xattrs"]}
        yield entry


def read(archive, key):
    return subprocess.run(["node", READER + "/second_reader.mjs", key, archive], capture_output=True)


class SecondReader(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.tree, self.key, self.archive = (f"{folder.name}/{name}" for name in ("tree", "key.pem", "archive.qvx"))
        make_tree(os.fsencode(self.tree))
        subprocess.run([QVX, "keygen", "-o", self.key[:-4]], check=True, capture_output=True)
        subprocess.run([QVX, "create", "-r", self.key[:-4] + ".pub", "-o", self.archive, self.tree,
                        self.tree + "/first"], check=True)

    def agree(self, archive, key):
        result = read(archive, key)
        self.assertEqual((result.returncode, result.stderr), (0, b""), archive)
        found = list(entries(result.stdout.splitlines()))
        listed = subprocess.check_output([QVX, "list", "--json", "--key", key, archive])
        self.assertEqual(found, list(map(json.loads, listed.splitlines())), archive)
        return found

    def test_same_entries(self):
        found = self.agree(self.archive, self.key)
        self.assertEqual([entry.get("link_of") is None for entry in found if "content_of" in entry], [False, True])
        self.assertEqual(sum(entry.get("holes", 0) for entry in found), 2)
        for name in ("kinds", "blocks", "nothing"):
            self.agree(f"{SAMPLES}/{name}.qvx", SAMPLES + "/recipient.pem")
        with open(os.path.join(TESTS, "../docs/qvx-format.md"), encoding="utf-8") as file:
            page = file.read()
        example = page[page.index("\nThe file, 715 bytes:"):page.index("\nThe plain bytes")]
        write(self.archive, bytes.fromhex("".join(re.findall("(?m)^ {4}[0-9a-f]{4}  ((?:[0-9a-f]{2} ?)+)", example))))
        write(self.key, re.search("-----BEGIN.*?END PRIVATE KEY-----", page.replace("    ", ""), re.S)[0].encode())
        self.assertEqual(len(self.agree(self.archive, self.key)), 5)

    def test_damage_is_refused(self):
        with open(self.archive, "rb") as file:
            whole = file.read()
        sorts, at = {}, 129
        while at < len(whole):
            sorts.setdefault(whole[at + 7], at + 16)
            at += 16 + int.from_bytes(whole[at + 4:at + 7], "little")
        self.assertEqual(set(sorts), {0, 1, 2, 6}, "every sort of block")
        for at in (*sorts.values(), 28, 70):
            write(self.archive, whole[:at] + bytes([whole[at] ^ 1]) + whole[at + 1:])
            self.assertEqual(read(self.archive, self.key).returncode, 1, at)
        for content in (whole[:-1], whole[:-68], whole + b"\0"):
            write(self.archive, content)
            self.assertEqual(read(self.archive, self.key).returncode, 1, len(content))


if __name__ == "__main__":
    install()
    unittest.main()
