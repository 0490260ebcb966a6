# What the engineer's desk reads from the index: JSON, find, diff; and the manners of qvx.
import json
import os
import re
import signal
import subprocess

import world
from world import DATA, Scenario, call, content, on_terminal, write

SAMPLES = DATA + "/archives/"
KEY, SOURCE, OUT = ["--key", "/media/key.pem"], "/media/source", "/media/out"
SAMPLE_KEY = ["--key", SAMPLES + "recipient.pem"]


def objects(text):
    return [json.loads(line) for line in text.splitlines()]


class Desk(Scenario):
    def setUp(self):
        super().setUp()
        self.known[SAMPLES] = "samples/"
        os.mkdir(OUT)
        self.make_key("key")

    def make_key(self, name):
        self.known[self.qvx("keygen", "-o", f"/media/{name}").strip()] = f"<print of {name}>"

    def run_qvx(self, *words, **options):
        return self.tool("qvx", *words, **options)

    def create(self, name, *words, **options):
        call("/media/programs/qvx", "create", "-r", "/media/key.pub", "-o", f"/media/{name}", *words, **options)
        return f"/media/{name}"

    def test_index_has_the_values_of_the_entries(self):
        for name in "kinds", "blocks", "nothing", "incomplete", "order":
            archive = f"{SAMPLES}{name}.qvx"
            listed = objects(self.qvx("list", "--json", *SAMPLE_KEY, archive))
            wanted = objects(self.qvx("list", "--full", *SAMPLE_KEY, archive))
            for number, entry in enumerate(wanted):
                seconds, target = entry.get("mtime_ns", 0) // 10 ** 9, entry.get("target", "").encode()
                wanted[number] = {"uid": 0, "gid": 0, "mode": "0000", "size": len(target), "mtime": seconds, **entry}
            for entry, full in zip(listed, wanted, strict=True):
                self.assertEqual(entry, {key: full[key] for key in entry})
                self.assertEqual("incomplete" in entry, "incomplete" in full)
            twice = objects(self.qvx("list", "--json", *SAMPLE_KEY, archive, archive))
            self.assertEqual(twice, [{"archive": archive, **entry} for entry in listed] * 2)

    def test_json_of_archives_as_a_whole(self):
        cut = write("/media/cut", content(SAMPLES + "kinds.qvx")[:-9])
        for key in SAMPLE_KEY, KEY:
            self.run_qvx("verify", "--json", *key, SAMPLES + "kinds.qvx", SAMPLES + "incomplete.qvx",
                         SAMPLES + "flipped-content.qvx", cut, "/media/none")
        self.run_qvx("info", "--json", SAMPLES + "kinds.qvx", cut)

    # find(1) is asked the same of the same files. Its sizes of directories are not those of an archive.
    def test_find_selects_what_find_does(self):
        sizes = 0, 1, 2, 511, 512, 513, 1023, 1024, 1025, 2048, (1 << 20) - 1, 1 << 20, (1 << 20) + 1
        for size in sizes:
            os.utime(write(f"{SOURCE}/{size % 3}/{size}.log", bytes(size)), (0, 1767225600 + size))
        os.symlink("0.log", SOURCE + "/link.log")
        archive = self.create("archive", SOURCE)

        def compare(ours, theirs):
            found = self.qvx("find", *KEY, *ours, archive).splitlines()
            wanted = call("find", SOURCE, *theirs, env={"TZ": "UTC", "PATH": world.PATH}).splitlines()
            self.assertEqual(sorted("/" + path for path in found), sorted(wanted), ours)

        for sign in "", "+", "-":
            for text in "0", "1", "2", "3c", "512c", "0k", "1k", "2k", "1M", "2M", "1G":
                compare(["--type", "f", "--size", sign + text, "*"], ["-type", "f", "-size", sign + text])
        compare(["--size", "+1c", "--size=-1k", "--type", "f", "*"], ["-size", "+1c", "-size", "-1k", "-type", "f"])
        for types in "f", "d", "l", "f,l", "d,l,f":
            compare(["--type", types, "*"], ["-type", types])
        for time in "2026-01-01", "2026-01-01T00:00:01", "2026-01-01 00:17", "@1767226112", "2026-01-01T00:08:32Z":
            compare(["--newer", time, "--type", "f", "*"], ["-type", "f", "-newermt", time])
        compare(["--newer", SOURCE + "/1/1024.log", "*.log"], ["-name", "*.log", "-newer", SOURCE + "/1/1024.log"])
        compare(["1?.log"], ["-name", "1?.log"])
        compare(["0.log"], ["-name", "0.log"])
        compare([SOURCE + "/*/2*"], ["-path", SOURCE + "/*/2*"])
        compare(["--regex", r"/[12]/.*[02]4\d?\.log$"], ["-regex", r".*/[12]/.*[02]4[0-9]?\.log"])
        for words in (["--type", "x"], ["--type", "f,"], ["--size", "1m"], ["--size", "+"], ["--newer", "2026-02-30"],
                      ["--regex"]):
            self.run_qvx("find", *KEY, *words, "a(b", archive)

    # The expression tries every way to divide the name.
    def test_find_in_hostile_names_and_several_archives(self):
        write(f"{SOURCE}/{'x' * 200}")
        os.utime(write(SOURCE + "/\x1b[2J\nnew"), (0, 0))
        archive = self.create("archive", SOURCE)
        self.run_qvx("find", *KEY, "--regex", "(x+x+)+[yz]", archive)
        self.run_qvx("find", *KEY, "--regex", "J.new$", archive, "/media/none", archive)
        self.run_qvx("find", *KEY, "--json", r"*\x0anew", archive, archive)
        self.run_qvx("find", *KEY, "none", archive)

    def test_diff_names_what_changed(self):
        for name in "same", "content", "size", "mode", "removed", "time", "first", "deep/attributes", "deep/list":
            os.utime(write(f"{SOURCE}/{name}", name), (0, 0))
        os.link(SOURCE + "/first", SOURCE + "/second")
        os.symlink("old", SOURCE + "/link")
        for path in [SOURCE, SOURCE + "/deep", SOURCE + "/link"]:
            os.utime(path, (0, 0), follow_symlinks=False)
        before = self.create("before", SOURCE)
        for name, text in ("content", "CONTENT"), ("size", "size "), ("first", "FIRST"), ("added \x1b", "x"):
            os.utime(write(f"{SOURCE}/{name}", text), (0, 0))
        os.remove(SOURCE + "/removed")
        os.remove(SOURCE + "/link")
        os.symlink("new", SOURCE + "/link")
        os.chown(SOURCE + "/mode", 1, 2)
        os.chmod(SOURCE + "/mode", 0o4600)
        os.utime(SOURCE + "/time", ns=(0, 1))
        os.setxattr(SOURCE + "/deep/attributes", "trusted.x", b"1")
        call("setfacl", "-m", "u:7:r", SOURCE + "/deep/list")
        for path in [SOURCE, SOURCE + "/link"]:
            os.utime(path, (0, 0), follow_symlinks=False)
        after = self.create("after", SOURCE)
        for words in [before, after], ["--quick", before, after], [after, after], ["--json", after, before]:
            self.run_qvx("diff", *KEY, *words)
        self.make_key("other")
        self.run_qvx("diff", "--key", "/media/other.pem", before, after)
        self.run_qvx("diff", *KEY, before, "/media/key.pem")

    # What is between the beginning of the file and its END record, which is longer than a block, is not read: not even
    # when it is damaged. Of two entries with one path, the last one counts.
    def test_diff_reads_no_contents(self):
        write(SOURCE + "/file", os.urandom(20 << 20))
        for letter in "abcdefghijklmnop"[:15]:
            os.setxattr(SOURCE + "/file", "trusted." + letter, os.urandom(65000))
        before = self.create("before", SOURCE)
        with open(before, "r+b") as archive:
            archive.seek(10 << 20)
            archive.write(b"damaged")
        self.run_qvx("diff", *KEY, before, self.create("same", SOURCE))
        os.setxattr(SOURCE + "/file", "trusted.h", b"1")
        self.run_qvx("diff", *KEY, before, self.create("after", SOURCE))
        twice = self.create("twice", "--files0-from", "-", input=f"{SOURCE}/file\0{SOURCE}/file".encode(), cwd="/")
        self.run_qvx("diff", *KEY, self.create("once", SOURCE + "/file"), twice)

    def test_errors_say_what_to_do(self):
        write(SOURCE, "x")
        archive = self.create("archive", SOURCE)
        for words in ["lst"], ["ls"], ["x"], ["verfy", "x"], ["nonsense"], ["\x1b"], ["cat", *KEY, archive, archive], \
                ["extract", *KEY, archive, archive, "-C", OUT], ["list", "--key", "/media/key.pub", archive]:
            self.run_qvx(*words)
        write("/media/cut", content(archive)[:-20])
        for command in "list", "verify", "info":
            self.run_qvx(command, *(KEY if command != "info" else []), "/media/cut")

    def test_closed_pipe_ends_a_listing_silently(self):
        archive = self.create("archive", write(SOURCE + "/file", "x"))
        unread, pipe = os.pipe()
        os.close(unread)
        for words in (["list"], ["list", "--json"], ["list", "--full"], ["find", "*"], ["cat"], ["verify", "--json"]):
            words += KEY + [archive] + [SOURCE + "/file"] * (words == ["cat"])
            done = subprocess.run([world.BIN + "/qvx", *words], check=False, stdout=pipe, stderr=subprocess.PIPE)
            self.assertEqual((done.returncode, done.stderr), (-signal.SIGPIPE, b""), words)

    # Of what is extracted, the digest of 4 GiB of zeros is computed. What rekey copies is 64 GiB, of zeros too.
    def test_interrupted_commands_leave_nothing_and_die_of_the_signal(self):
        os.truncate(write(SOURCE, "x"), 4 << 30)
        archive = self.create("archive", SOURCE)
        header, length = content(archive)[:1000], 64 + 145 + 32
        with open(write("/media/long", header[:length]), "r+b") as long:
            long.seek(64 << 30)
            long.write(content(archive)[-length - 12:])
        for words in (["extract", *KEY, "-C", OUT, archive],
                      ["rekey", *KEY, "-r", "/media/key.pub", "-o", OUT + "/copy", "/media/long"]):
            process = self.start(*words, program="qvx", limits=lambda: (world.refuse_unnamed_files(),
                                                                         signal.signal(signal.SIGINT, signal.SIG_DFL)))
            while not subprocess.getoutput(f"find {OUT} -type f"):
                self.assertIsNone(process.poll(), words)
            process.send_signal(signal.SIGINT)
            process.communicate()
            self.assertEqual((process.returncode, subprocess.getoutput(f"find {OUT} -type f")), (-signal.SIGINT, ""))

    def test_keys_with_passphrases_and_of_ssh_keygen(self):
        qvx = "/media/programs/qvx"
        for lines in ["a b", "ab"], [""], ["a b", "a b"]:
            words = [qvx, "keygen", "--passphrase", "-o", "/media/locked"]
            shown, status, echoes = on_terminal(words, b": ", *[line.encode() + b"\n" for line in lines])
            self.note("shown", "{}\n{} {}".format(re.sub(rb"SHA256:\S+", b"<print>", shown), status, echoes))
            self.assertEqual(os.path.exists("/media/locked.pem"), status == 0)
        call("openssl", "pkey", "-noout", "-in", "/media/locked.pem", "-passin", "pass:a b")
        for name, kind, secret in ("plain", "ecdsa", ""), ("secret", "ecdsa", "a b"), ("other", "ed25519", ""):
            call("ssh-keygen", "-q", "-t", kind, "-N", secret, "-f", f"/media/{name}")
        call("ssh-keygen", "-q", "-t", "ecdsa", "-N", "a b", "-Z", "aes256-gcm@openssh.com", "-f", "/media/sealed")
        archive = f"{OUT}/archive"
        recipients = [word for name in ("locked", "plain", "secret") for word in ("-r", f"/media/{name}.pub")]
        call(qvx, "create", *recipients, "-o", archive, write(SOURCE, "x"))
        write("/media/damaged", content("/media/secret")[:200])
        for name in "plain", "other", "damaged", "secret", "sealed":
            self.run_qvx("verify", "--key", f"/media/{name}", archive)
        for name in "locked.pem", "secret":
            for passphrase in b"a b\n", b"wrong\n":
                words = [qvx, "verify", "--key", f"/media/{name}", archive]
                self.note("shown", "{}\n{} {}".format(*on_terminal(words, b": ", passphrase)))
