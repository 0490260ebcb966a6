"""qvx as a whole program, and archives made once and kept: every later qvx must read the good ones and refuse the
others for the right reason."""
import json
import os
import subprocess
import tempfile
import unittest

from world import BIN, HERE, call, content, on_terminal, write

QVX = BIN + "/qvx"
SAMPLES = HERE + "/../data/archives/"
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


def run(*arguments, **options):
    options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
    return subprocess.run([QVX, *arguments], check=False, **options)


def entries(listing):
    """What a list tells of each entry, without what no copy can keep, and what older archives know not of links."""
    found = [json.loads(line) for line in listing.splitlines()]
    for entry in found:
        for key in ("ctime_ns", "btime_ns", "flags", *["sha256"] * (entry["type"] == "link")):
            entry.pop(key, None)
    return found


class QvxTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.assertEqual(run("keygen", "-o", self.at("key")).returncode, 0)
        self.archive, self.source, self.out = self.at("archive.qvx"), self.at("source"), self.at("out")
        self.inside = self.source.lstrip("/")  # where the archive has it
        self.restored = self.at("out", self.inside)
        os.mkdir(self.out)

    def at(self, *names):
        return os.path.join(self.folder, *names)

    def write(self, name, data=b"content"):
        return os.fsencode(write(self.at("source", name), data))

    def create(self, *paths, **options):
        return run("create", "-r", self.at("key.pub"), "-o", self.archive, *(paths or [self.source]), **options)

    def use(self, command, *arguments, key="key.pem", **options):
        return run(command, "--key", self.at(key), *arguments, **options)

    def extract(self, *arguments):
        return self.use("extract", "-C", self.out, *arguments)

    def frozen(self, command, name, *arguments):
        return run(command, "--key", SAMPLES + "recipient.pem", *arguments, f"{SAMPLES}{name}.qvx")

    def fine(self, done):
        self.assertEqual((done.returncode, done.stderr), (0, b""))

    def test_reads_the_frozen_ones(self):
        for name in GOOD:
            self.fine(self.frozen("verify", name))
            self.fine(self.frozen("extract", name, "-C", self.out))
            self.assertEqual(self.frozen("list", name, "--json").stdout, content(f"{SAMPLES}{name}.json"), name)

    def test_refuses_the_damaged_ones(self):
        for name, says in DAMAGED.items():
            folder = self.at(name)
            os.mkdir(folder)
            for command in (["verify", name], ["extract", name, "-C", folder]):
                done = self.frozen(*command)
                self.assertEqual(done.returncode, 1, name)
                self.assertIn(says, done.stderr.decode().splitlines()[0], name)
            self.assertEqual(os.path.exists(folder + "/tmp/sample/long"), name in BEHIND_THE_FILES, name)
        done = self.frozen("verify", "flipped-fingerprint")
        self.assertEqual((done.returncode, b"sealed to another key" in done.stderr), (3, True))
        found = {name[:-4] for name in os.listdir(SAMPLES) if name.endswith(".qvx")}
        self.assertEqual(found, {*GOOD, *DAMAGED, "flipped-fingerprint"})

    def test_makes_again_what_it_brought_back(self):
        """Through the disk, something of every kind; the second time over what is there."""
        wanted = content(SAMPLES + "kinds.json").replace(b'"tmp/', b'"%s/tmp/' % os.fsencode(self.out[1:]))
        for _ in range(2):
            self.fine(self.frozen("extract", "kinds", "-C", self.out))
            self.fine(self.create(self.out + "/tmp/sample", self.out + "/tmp/sample/plain"))
            self.assertEqual(entries(self.use("list", "--json", self.archive).stdout), entries(wanted))
        self.assertLess(os.stat(self.out + "/tmp/sample/sparse").st_blocks * 512, 1 << 20)

    def test_lists_odd_names_made_harmless(self):
        lines = self.frozen("list", "kinds").stdout.decode().splitlines()
        self.assertEqual(lines[1], "-rws--x--x 1234/77 0 2009-02-13T23:31:30Z tmp/sample/empty")
        self.assertEqual(lines[6], "-rw-r--r-- 0/0 3 1969-12-31T23:59:59Z tmp/sample/odd\\x0a\\xff name")
        self.assertEqual(len(lines), 10)

    def test_takes_names_from_a_file_as_they_are_and_keeps_duplicates(self):
        first = self.write("first", b"1")
        names = b"\0".join([first, os.fsencode(self.source), first, b"source/first"]) + b"\0"
        self.fine(self.create("--files0-from", "-", input=names, cwd=self.folder))
        lines = self.use("list", self.archive).stdout.splitlines()
        self.assertEqual([os.path.basename(line) for line in lines], [b"first", b"source", b"first", b"first"])
        self.assertEqual(self.create("--files0-from", "-", input=first + b"\0\0").returncode, 1)
        self.fine(self.use("verify", self.archive))  # the one made before

    def test_takes_out_what_is_asked_for(self):
        for name in ("d/one", "d/two", "dd", "e"):
            self.write(name, name.encode())
        self.create()
        self.fine(self.extract(self.archive, f"/{self.inside}/d/", self.inside + "/e"))
        self.assertCountEqual(call("find", ".", "-type", "f", cwd=self.restored).split(), ["./d/one", "./d/two", "./e"])
        self.assertEqual(self.use("cat", self.archive, self.inside + "/d/two").stdout, b"d/two")
        for missing in (self.inside + "/x", self.inside + "/d/on"):
            done = self.use("cat", self.archive, missing)
            self.assertEqual((done.returncode, done.stdout), (1, b""))
            self.assertIn(b"not in the archive", done.stderr)
            self.assertEqual(self.extract(self.archive, missing).returncode, 1)
        self.assertEqual(self.use("cat", self.archive, self.inside).returncode, 1)

    def test_tells_the_kinds_of_failure_apart(self):
        self.write("file")
        self.create()
        run("keygen", "-o", self.at("other"))
        done = self.use("verify", self.archive, key="other.pem")
        self.assertEqual(done.returncode, 3)
        for name in "key", "other":
            self.assertIn(call("ssh-keygen", "-lf", self.at(name + ".pub")).split()[1].encode(), done.stderr)
        for arguments in ((), ("list",), ("nonsense",), ("verify", self.archive), ("create", "-r", "x", "-o", "y")):
            self.assertEqual(run(*arguments).returncode, 2, arguments)
        self.assertEqual(run("--help").returncode, 0)
        os.mkfifo(self.at("fifo"))
        for archive in (self.at("key.pem"), self.at("missing"), self.folder, self.at("fifo")):
            done = self.use("verify", archive)
            self.assertEqual((done.returncode, done.stdout), (1, b""), archive)
            self.assertRegex(done.stderr.decode(), r"\Aqvx: [^\n]+\n\Z")
        for command in ("list",), ("cat", self.inside + "/file"):
            with open("/dev/full", "wb") as full:
                self.assertEqual(self.use(command[0], self.archive, *command[1:], stdout=full).returncode, 1, command)

    def test_refuses_and_leaves_nothing_when_it_cannot_create(self):
        self.write("file")
        key, unreadable = self.at("key.pub"), "/proc/sys/vm/compact_memory"  # noticed once the archive has begun
        for recipient, *paths in ((key, self.at("missing")), (key, self.source, ""), (key, "/dev/null"),
                                  (key, self.source, unreadable), ("ecdsa-sha2-nistp256 AAAA", self.source)):
            done = run("create", "-r", recipient, "-o", self.archive, *paths)
            self.assertEqual((done.returncode, os.path.exists(self.archive)), (1, False), paths)
        self.fine(self.create(cwd="/"))
        with open(key, encoding="ascii") as file:
            kind, point = file.read().split()
        beside_the_curve = f"{kind} {point[:-3]}{'B' if point[-3] == 'A' else 'A'}{point[-2:]}"
        self.assertEqual(run("create", "-r", beside_the_curve, "-o", self.archive, self.source).returncode, 1)
        self.fine(self.use("verify", self.archive))  # the one made before
        self.assertEqual(run("keygen", "-o", self.at("key")).returncode, 1)

    def test_reads_every_form_of_key(self):
        self.write("file")
        self.create()
        secret = "-passout", "pass:open sesame"
        for name, *words in (("sec1.pem", "ec"), ("locked.pem", "pkcs8", "-topk8", "-v2", "aes-256-cbc", *secret),
                             ("locked-sec1.pem", "ec", "-aes256", *secret)):
            call("openssl", *words, "-in", self.at("key.pem"), "-out", self.at(name))
        call("openssl", "ecparam", "-genkey", "-name", "secp384r1", "-out", self.at("p384.pem"))
        for name, status in ("sec1.pem", 0), ("p384.pem", 1), ("key.pub", 1):
            self.assertEqual(self.use("verify", self.archive, key=name).returncode, status, name)
        self.assertEqual(run("verify", "--key", "-", self.archive, input=content(self.at("key.pem"))).returncode, 0)
        for name in ("locked.pem", "locked-sec1.pem"):
            for passphrase, status in (b"open sesame", 0), (b"wrong", 1):
                words = [QVX, "verify", "--key", self.at(name), self.archive]
                shown, *end = on_terminal(words, b": ", passphrase + b"\n")
                self.assertEqual((end, passphrase in shown), ([status, True], False))
            done = self.use("verify", self.archive, key=name, start_new_session=True, stdin=subprocess.DEVNULL)
            self.assertEqual(done.returncode, 1)
            self.assertIn(b"no terminal", done.stderr)

    def test_saves_what_is_whole_of_a_cut_archive(self):
        self.write("a", b"first")
        self.write("b", os.urandom(3 << 20))
        self.write("c", b"last")
        self.create()
        os.truncate(self.archive, 2 << 20)
        self.assertEqual(self.extract(self.archive).returncode, 1)
        self.assertEqual(os.listdir(self.restored), ["a"])
        self.assertEqual(self.use("verify", self.archive).returncode, 1)
        done = self.extract("--salvage", self.archive)
        self.assertEqual((done.returncode, sorted(os.listdir(self.restored))), (1, ["a", "b.incomplete"]))
        self.assertIn(b"b.incomplete", done.stderr)
        saved = content(self.restored + "/b.incomplete")
        self.assertTrue(saved and content(self.source + "/b").startswith(saved))


if __name__ == "__main__":
    unittest.main()
