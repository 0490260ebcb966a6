# qvx mount: ordinary programs read the entries of an archive.
import errno
import os
import signal
import subprocess
import unittest

import test_desk_remote
from world import Scenario, call, content, read, write

KEY, ARCHIVE, SOURCE, OUT, MOUNT = ["--key", "/media/key.pem"], "/media/archive.qvx", "/media/source", "/media/out", "/mnt"
FIELDS = "%P %y %m %U %G %Ts %l"


def found(folder):
    words = "find", folder, "-mindepth", "1", "-printf", FIELDS, "(", "-type", "d", "-o", "-printf", " %s", ")", "-printf", "\\0"
    return sorted(subprocess.check_output(words).split(b"\0"))


@unittest.skipUnless(os.path.exists("/dev/fuse"), "needs /dev/fuse: nothing is mounted, so nothing of this is tested")
class Mount(Scenario):
    def setUp(self):
        super().setUp()
        self.lay(MOUNT, "mode=755")
        for folder in OUT, f"{MOUNT}/m":
            os.mkdir(folder)
        self.qvx("keygen", "-o", "/media/key")

    def create(self, *paths):
        self.qvx("create", "-r", "/media/key.pub", "-o", ARCHIVE, *(paths or [SOURCE]))

    def end(self):
        call("fusermount3", "-u", f"{MOUNT}/m")

    # In the foreground, as soon as it is there.
    def mounted(self):
        process = self.start("mount", "--foreground", *KEY, ARCHIVE, f"{MOUNT}/m", program="qvx")
        while not os.path.ismount(f"{MOUNT}/m"):
            self.assertIsNone(process.poll())
        return process

    def test_programs_find_what_an_extraction_writes(self):
        write(f"{SOURCE}/big", b"".join(b"%09d\n" % number for number in range(1 << 19)))
        for path, text in (("a/b/c", "nested"), ("a/empty", ""), ("\x1b\n \\", "odd name"), ("setid", "x")):
            write(f"{SOURCE}/{path}", text)
        write(f"{SOURCE}/\udcff", "no UTF-8")
        os.link(f"{SOURCE}/a/b/c", f"{SOURCE}/a/hard")
        os.symlink("../nowhere", f"{SOURCE}/a/link")
        os.mkdir(f"{SOURCE}/nothing")
        os.chmod(f"{SOURCE}/a/b", 0o700)
        os.chown(f"{SOURCE}/setid", 1000, 1001)
        write(f"{SOURCE}/sparse", "begin")
        os.truncate(f"{SOURCE}/sparse", 1 << 40)
        for path in "big", "a/b/c", "nothing":
            os.utime(f"{SOURCE}/{path}", ns=(0, -1_000_000_001))
        self.create()
        self.qvx("extract", "--preserve", *KEY, "-C", OUT, ARCHIVE)
        wanted = found(OUT + SOURCE)
        self.qvx("mount", "--cache", "8M", *KEY, ARCHIVE, f"{MOUNT}/m")
        self.assertEqual(found(f"{MOUNT}/m{SOURCE}"), wanted)
        os.truncate(OUT + SOURCE + "/sparse", 5)
        call("diff", "-r", "--no-dereference", "--exclude=sparse", OUT, f"{MOUNT}/m")
        with open(f"{MOUNT}/m{SOURCE}/sparse", "rb") as file:
            self.assertEqual((file.read(6), file.seek(-1, os.SEEK_END), file.read(9)), (b"begin\0", (1 << 40) - 1, b"\0"))
        with open(f"{MOUNT}/m{SOURCE}/big", "rb") as file:
            for number in 400000, 17, 300000, 299999:
                file.seek(10 * number)
                self.assertEqual(file.read(9), b"%09d" % number)
        self.end()

    # Also where the modes of the entries would allow it.
    def test_only_the_user_may_read_and_nobody_write_or_execute(self):
        os.chmod(write(f"{SOURCE}/program", "#!/bin/sh\n"), 0o4777)
        self.create()
        self.qvx("mount", *KEY, ARCHIVE, f"{MOUNT}/m")
        path = f"{MOUNT}/m{SOURCE}/program"
        self.assertEqual(os.stat(path).st_mode, 0o100777)
        for call_of_system, error in ((lambda: open(path, "r+b"), errno.EROFS), (lambda: os.remove(path), errno.EROFS),
                                      (lambda: subprocess.run([path], check=False), errno.EACCES)):
            with self.assertRaises(OSError) as raised:
                call_of_system()
            self.assertEqual(raised.exception.errno, error)
        other = subprocess.run(["setpriv", "--reuid=1000", "--clear-groups", "ls", f"{MOUNT}/m"], check=False,
                               capture_output=True)
        self.assertIn(b"Permission denied", other.stderr)
        options = next(line for line in read("/proc/self/mountinfo").splitlines() if f" {MOUNT}/m " in line)
        self.assertLessEqual({"ro", "nosuid", "nodev", "noexec"}, set(options.split()[5].split(",")))
        self.assertRegex(options, r" - fuse\.qvx /media/archive\.qvx ")
        self.end()

    # One block of `damaged` is changed.
    def test_damage_is_an_error_of_the_file_that_has_it(self):
        for name in "before", "damaged", "later":
            write(f"{SOURCE}/{name}", os.urandom(3 << 20))
        self.create()
        archive = bytearray(content(ARCHIVE))
        archive[len(archive) // 2] ^= 1
        write(ARCHIVE, bytes(archive))
        process = self.mounted()
        for name in "before", "later":
            self.assertEqual(content(f"{MOUNT}/m{SOURCE}/{name}"), content(f"{SOURCE}/{name}"))
        with open(f"{MOUNT}/m{SOURCE}/damaged", "rb") as file, open(f"{SOURCE}/damaged", "rb") as original:
            self.assertEqual(file.read(4096), original.read(4096))
            with self.assertRaises(OSError) as raised:
                file.read()
            self.assertEqual(raised.exception.errno, errno.EIO)
            self.assertEqual(file.seek(-4096, os.SEEK_END), original.seek(-4096, os.SEEK_END))
            self.assertEqual(file.read(), original.read())
        self.end()
        _, errors = process.communicate()
        self.assertIn(b"qvx: media/source/damaged: block 4: the block is changed, or not of this archive\n", errors)
        self.assertEqual(process.returncode, 0)

    # MiB, of the server.
    @staticmethod
    def fetched():
        return sum(int(line.split()[1]) for line in read("/media/access").splitlines()) / (1 << 20)

    # The process in the background is another one than the one that was started.
    def test_archive_on_a_server_is_read_where_it_is_needed(self):
        server = test_desk_remote.Remote
        os.makedirs("/media/www")
        server.make_certificates(self)
        for name in "abcdefgh":
            write(f"{SOURCE}/{name}", os.urandom(12 << 20))
        self.create()
        os.rename(ARCHIVE, "/media/www/a.qvx")
        url = server.serve(self) + "/a.qvx?signature=secret"
        environment = {"CURL_CA_BUNDLE": "/media/ca.crt"}
        process = self.start("mount", *KEY, url, f"{MOUNT}/m", program="qvx", environment=environment)
        self.assertEqual((process.communicate(), process.returncode), ((b"", b""), 0))
        self.assertEqual(content(f"{MOUNT}/m{SOURCE}/b"), content(f"{SOURCE}/b"))
        self.assertLess(self.fetched(), 36)
        # What one reader reads ahead must not displace what another one has not read yet.
        readers = [subprocess.Popen(["cat", f"{MOUNT}/m{SOURCE}/{name}"], stdout=-3) for name in "acdefgh"]
        self.assertEqual([reader.wait() for reader in readers], [0] * 7)
        self.assertLess(self.fetched(), 160)
        self.assertNotIn("secret", read("/proc/self/mounts"))
        self.end()

    def test_signal_unmounts_and_ends_the_process(self):
        write(f"{SOURCE}/file", "x")
        self.create()
        for number in signal.SIGINT, signal.SIGTERM:
            process = self.mounted()
            self.assertEqual(read(f"{MOUNT}/m{SOURCE}/file"), "x")
            process.send_signal(number)
            self.assertEqual((process.communicate(), process.returncode), ((b"", b""), -number))
            self.assertFalse(os.path.ismount(f"{MOUNT}/m"))

    def test_error_is_reported_before_it_goes_to_the_background(self):
        write(f"{SOURCE}/file", "x")
        self.create()
        self.qvx("keygen", "-o", "/media/other")
        write("/media/cut.qvx", content(ARCHIVE)[:-200])
        for words in ((*KEY, ARCHIVE, "/media/nowhere"), (*KEY, ARCHIVE, ARCHIVE), (*KEY, "/media/cut.qvx", MOUNT),
                      ("--cache", "7M", *KEY, ARCHIVE, MOUNT), ("--cache", "x", *KEY, ARCHIVE, MOUNT)):
            self.tool("qvx", "mount", *words)
        process = self.start("mount", "--key", "/media/other.pem", ARCHIVE, MOUNT, program="qvx")
        self.assertIn(b"sealed to another key", process.communicate()[1])
        self.assertEqual(process.returncode, 3)
