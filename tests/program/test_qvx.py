"""qvx as a whole program.  TARNWICK_BIN: the folder of the program."""
import hashlib
import json
import os
import pty
import stat
import subprocess
import tempfile
import termios
import unittest

QVX = ""


def run(*arguments, **options):
    return subprocess.run([QVX, *arguments], capture_output=True, **options)


def fingerprint(path):
    """What can be kept of a file: type, mode, owner, time, content or target, extended attributes and ACLs."""
    status = os.lstat(path)
    content = b""
    if stat.S_ISLNK(status.st_mode):
        content = os.readlink(path)
    elif stat.S_ISREG(status.st_mode):
        with open(path, "rb") as file:
            content = hashlib.sha256(file.read()).hexdigest()
    names = os.listxattr(path, follow_symlinks=False)
    attributes = {name: os.getxattr(path, name, follow_symlinks=False) for name in names}
    return (status.st_mode, status.st_uid, status.st_gid, status.st_mtime_ns, content, attributes)


def tree(folder):
    found = {b".": fingerprint(folder)}
    for where, folders, files in os.walk(folder):
        for name in folders + files:
            path = os.path.join(where, name)
            found[os.path.relpath(path, folder)] = fingerprint(path)
    return found


class QvxTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.assertEqual(run("keygen", "-o", self.at("key")).returncode, 0)
        self.archive = self.at("archive.qvx")

    def at(self, *names):
        return os.path.join(self.folder, *names)

    def write(self, name, content=b"content"):
        path = os.path.join(os.fsencode(self.at("source")), os.fsencode(name))
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content)
        return path

    def create(self, *paths, **options):
        return run("create", "-r", self.at("key.pub"), "-o", self.archive, *paths, **options)

    def use(self, command, *arguments, key="key.pem", **options):
        return run(command, "--key", self.at(key), *arguments, **options)

    def extract(self, *arguments):
        os.makedirs(self.at("out"), exist_ok=True)
        return self.use("extract", "-C", self.at("out"), *arguments)

    def fill_source(self):
        """Something of every kind."""
        self.write("plain")
        self.write("empty", b"")
        self.write("large", os.urandom(1500000) + b"text " * 500000)
        self.write("deep/er/file", b"x")
        self.write(b"odd\n\x1b[31m\xff\\ name", b"odd")
        source = self.at("source")
        os.link(self.at("source/plain"), self.at("source/linked"))
        os.symlink("../nowhere", self.at("source/link"))
        with open(self.at("source/sparse"), "wb") as file:
            for position in (3 << 20, 9 << 20):
                file.seek(position)
                file.write(b"island")
            file.truncate(12 << 20)
        os.setxattr(self.at("source/plain"), "user.note", b"\0binary\xff")
        os.chmod(self.at("source/empty"), 0o4711)
        os.chmod(self.at("source/deep/er"), 0o2550)
        subprocess.run(["setfacl", "-m", "u:1234:rw,d:g:77:r", self.at("source/deep")], check=True)
        subprocess.run(["setfacl", "-m", "u:1234:rw", self.at("source/large")], check=True)
        if os.geteuid() == 0:
            os.chown(self.at("source/large"), 1234, 77)
            os.chown(self.at("source/link"), 12, 13, follow_symlinks=False)
        for number, name in enumerate(("plain", "link", "deep/er", "deep")):
            os.utime(self.at("source", name), ns=(0, 1234567890123456789 + number), follow_symlinks=False)
        os.utime(self.at("source/empty"), ns=(0, -1500000000))
        return source

    def test_brings_everything_back(self):
        source = self.fill_source()
        self.assertEqual(self.create(source).stderr, b"")
        self.assertEqual(self.use("verify", self.archive).returncode, 0)
        done = self.extract(self.archive)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        restored = os.path.join(self.at("out"), source.lstrip("/"))
        self.assertEqual(tree(os.fsencode(restored)), tree(os.fsencode(source)))
        self.assertEqual(os.stat(restored + "/plain").st_ino, os.stat(restored + "/linked").st_ino)
        self.assertLess(os.stat(restored + "/sparse").st_blocks * 512, 1 << 20)
        # Again, over what is there.
        self.assertEqual(self.extract(self.archive).returncode, 0)
        self.assertEqual(tree(os.fsencode(restored)), tree(os.fsencode(source)))

    def test_lists_in_order_with_odd_names_made_harmless(self):
        source = self.fill_source()
        self.create(source)
        lines = self.use("list", self.archive).stdout.decode().splitlines()
        entries = [json.loads(line) for line in self.use("list", "--json", self.archive).stdout.splitlines()]
        self.assertEqual(len(lines), len(entries))
        paths = [os.fsencode(entry["path"]) for entry in entries]
        names = [path for path in tree(os.fsencode(source)) if path != b"."]
        self.assertEqual(sorted(paths[1:]), sorted(os.fsencode(source)[1:] + b"/" + name for name in names))
        odd = next(line for line in lines if "odd" in line)
        self.assertTrue(odd.endswith("/odd\\x0a\\x1b[31m\\xff\\x5c name"), odd)
        by_name = {os.path.basename(entry["path"]): entry for entry in entries}
        self.assertEqual(by_name["plain"]["mtime_ns"], 1234567890123456789)
        self.assertEqual(by_name["plain"]["sha256"], hashlib.sha256(b"content").hexdigest())
        self.assertEqual(os.fsencode(by_name["plain"]["xattrs"]["user.note"]), b"\0binary\xff")
        self.assertIn("user:1234:rw-", by_name["large"]["acl"])
        self.assertEqual((by_name["link"]["type"], by_name["link"]["target"]), ("link", "../nowhere"))
        self.assertEqual(by_name["plain"].get("link_of", by_name["linked"]["number"]), by_name["linked"]["number"])
        self.assertTrue(any(line.startswith("-rws--x--x 0/0 0 1969-12-31T23:59:58Z") for line in lines), lines)

    def test_takes_names_from_a_file_as_they_are_and_keeps_duplicates(self):
        first = self.write("first", b"1")
        names = b"\0".join([first, os.fsencode(self.at("source")), first, b"source/first"]) + b"\0"
        done = self.create("--files0-from", "-", input=names, cwd=self.folder)
        self.assertEqual(done.returncode, 0, done.stderr)
        lines = self.use("list", self.archive).stdout.splitlines()
        self.assertEqual([os.path.basename(line) for line in lines], [b"first", b"source", b"first", b"first"])
        self.assertEqual(self.extract(self.archive).returncode, 0)
        self.assertEqual(self.create("--files0-from", "-", input=first + b"\0\0").returncode, 1)
        self.assertFalse(os.path.exists(self.archive) and self.use("verify", self.archive).returncode != 0)

    def test_takes_out_what_is_asked_for(self):
        for name in ("d/one", "d/two", "dd", "e"):
            self.write(name, name.encode())
        self.create(self.at("source"))
        inside = self.at("source")[1:]
        done = self.extract(self.archive, f"/{inside}/d/", inside + "/e")
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        out = self.at("out", inside)
        self.assertEqual((sorted(os.listdir(out)), sorted(os.listdir(out + "/d"))), (["d", "e"], ["one", "two"]))
        self.assertEqual(self.use("cat", self.archive, inside + "/d/two").stdout, b"d/two")
        for missing in (inside + "/x", inside + "/d/on"):
            done = self.use("cat", self.archive, missing)
            self.assertEqual((done.returncode, done.stdout), (1, b""))
            self.assertIn(b"not in the archive", done.stderr)
            self.assertEqual(self.extract(self.archive, missing).returncode, 1)
        self.assertEqual(self.use("cat", self.archive, inside).returncode, 1)

    def test_tells_the_kinds_of_failure_apart(self):
        self.write("file")
        self.create(self.at("source"))
        run("keygen", "-o", self.at("other"))
        done = self.use("verify", self.archive, key="other.pem")
        self.assertEqual(done.returncode, 3)
        self.assertIn(b"sealed to another key", done.stderr)
        self.assertEqual(done.stderr.count(b"SHA256:"), 2)
        shown = subprocess.run(["ssh-keygen", "-lf", self.at("key.pub")], capture_output=True)
        if shown.returncode == 0:
            self.assertIn(shown.stdout.split()[1], done.stderr)
            self.assertIn(shown.stdout.split()[1], run("info", self.archive).stdout)
        for arguments in ((), ("list",), ("nonsense",), ("verify", self.archive), ("create", "-r", "x", "-o", "y")):
            self.assertEqual(run(*arguments).returncode, 2, arguments)
        self.assertEqual(run("--help").returncode, 0)
        os.mkfifo(self.at("fifo"))
        for archive in (self.at("key.pem"), self.at("missing"), self.folder, self.at("fifo")):
            done = self.use("verify", archive)
            self.assertEqual((done.returncode, done.stdout), (1, b""), archive)
            self.assertTrue(done.stderr.startswith(b"qvx: ") and done.stderr.count(b"\n") == 1, done.stderr)
        self.assertIn(b"not a qvx archive", self.use("list", self.at("key.pem")).stderr)
        with open("/dev/full", "wb") as full:
            for command in ("list", "cat"):
                extra = [self.at("source/file")] if command == "cat" else []
                done = subprocess.run([QVX, command, "--key", self.at("key.pem"), self.archive, *extra], stdout=full,
                                      stderr=subprocess.PIPE)
                self.assertEqual(done.returncode, 1, command)

    def test_refuses_and_leaves_nothing_when_it_cannot_create(self):
        self.write("file")
        for paths in ((self.at("missing"),), (self.at("source"), ""), ("/dev/null",)):
            self.assertEqual(self.create(*paths).returncode, 1, paths)
            self.assertFalse(os.path.exists(self.archive))
        done = run("create", "-r", "ecdsa-sha2-nistp256 AAAA", "-o", self.archive, self.at("source"))
        self.assertEqual((done.returncode, os.path.exists(self.archive)), (1, False))
        self.assertEqual(self.create(self.at("source"), cwd="/").returncode, 0)
        self.assertEqual(run("keygen", "-o", self.at("key")).returncode, 1)

    def test_reads_every_form_of_key(self):
        self.write("file")
        self.create(self.at("source"))
        def convert(name, *arguments):
            subprocess.run(["openssl", *arguments, "-in", self.at("key.pem"), "-out", self.at(name)], check=True,
                           stderr=subprocess.DEVNULL)
        convert("sec1.pem", "ec")
        convert("locked.pem", "pkcs8", "-topk8", "-v2", "aes-256-cbc", "-passout", "pass:open sesame")
        convert("locked-sec1.pem", "ec", "-aes256", "-passout", "pass:open sesame")
        self.assertEqual(self.use("verify", self.archive, key="sec1.pem").returncode, 0)
        for name in ("locked.pem", "locked-sec1.pem"):
            self.assertEqual(self.on_terminal("open sesame", name), 0)
            self.assertEqual(self.on_terminal("wrong", name), 1)
            done = self.use("verify", self.archive, key=name, start_new_session=True, stdin=subprocess.DEVNULL)
            self.assertEqual(done.returncode, 1)
            self.assertIn(b"no terminal", done.stderr)
        subprocess.run(["openssl", "ecparam", "-genkey", "-name", "secp384r1", "-out", self.at("p384.pem")], check=True)
        for name in ("p384.pem", "key.pub"):
            self.assertEqual(self.use("verify", self.archive, key=name).returncode, 1)
        with open(self.at("key.pem"), "rb") as key:
            self.assertEqual(run("verify", "--key", "-", self.archive, input=key.read()).returncode, 0)

    def on_terminal(self, passphrase, key):
        """The exit status with the passphrase typed on a terminal of its own, which must not show it."""
        child, terminal = pty.fork()
        if child == 0:
            os.execv(QVX, [QVX, "verify", "--key", self.at(key), self.archive])
        shown = b""
        while b": " not in shown:
            shown += os.read(terminal, 1024)
        while termios.tcgetattr(terminal)[3] & termios.ECHO:
            pass
        os.write(terminal, passphrase.encode() + b"\n")
        try:
            while piece := os.read(terminal, 1024):
                shown += piece
        except OSError:
            pass
        os.close(terminal)
        self.assertNotIn(passphrase.encode(), shown)
        return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])

    def test_saves_what_is_whole_of_a_cut_archive(self):
        self.write("a", b"first")
        self.write("b", os.urandom(3 << 20))
        self.write("c", b"last")
        self.create(self.at("source"))
        os.truncate(self.archive, 2 << 20)
        done = self.extract(self.archive)
        out = self.at("out", self.at("source")[1:])
        self.assertEqual((done.returncode, os.listdir(out)), (1, ["a"]))
        self.assertEqual(self.use("verify", self.archive).returncode, 1)
        done = self.extract("--salvage", self.archive)
        self.assertEqual((done.returncode, sorted(os.listdir(out))), (1, ["a", "b.incomplete"]))
        self.assertIn(b"b.incomplete", done.stderr)
        with open(out + "/b.incomplete", "rb") as half, open(self.at("source/b"), "rb") as whole:
            saved = half.read()
            self.assertTrue(saved and whole.read().startswith(saved))


if __name__ == "__main__":
    QVX = os.path.join(os.path.abspath(os.environ["TARNWICK_BIN"]), "qvx")
    unittest.main()
