# qvx grep as a whole program: the same matches as grep finds in the extracted files, and hostile content.
import gzip
import json
import lzma
import os
import re
import subprocess
import zlib

import world
from world import Scenario, call, content, on_terminal, write

KEY, ARCHIVE, SOURCE = ["--key", "/media/key.pem"], "/media/archive.qvx", "/media/source"
TEXT = "".join(f"{number} line {'error' if number % 97 == 0 else 'word'} of {number * 7919 % 1000}\n"
               for number in range(1, 20001))


# An xz file whose header asks for a dictionary of 1.5 GiB.
def greedy_xz(text):
    data = bytearray(lzma.compress(text, preset=0))
    data[16] = 37
    length = (data[12] + 1) * 4
    data[12 + length - 4:12 + length] = zlib.crc32(data[12:12 + length - 4]).to_bytes(4, "little")
    return bytes(data)


class Grep(Scenario):
    def setUp(self):
        super().setUp()
        self.qvx("keygen", "-o", "/media/key")

    def create(self, *paths, archive=ARCHIVE):
        self.qvx("create", "-r", "/media/key.pub", "-o", archive, *(paths or [SOURCE]))

    def grep(self, *words, **options):
        return self.tool("qvx", "grep", *KEY, *words, **options)

    # The output of a search, sorted. grep also prints a count of 0; and after a zero byte, it may have printed less.
    def found(self, *command):
        done = subprocess.run(command, cwd="/", stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        return sorted(line for line in done.stdout.splitlines()
                      if not re.search(rb"source/(sparse|zero:\d+[: ]|.*:0$)", line))

    # Lines of every length on both sides of where pieces and blocks end, and contents that are stored once.
    def test_matches_are_those_of_grep_in_the_extracted_files(self):
        write(SOURCE + "/long", TEXT * 4)
        write(SOURCE + "/no end", TEXT + "error at the end")
        write(SOURCE + "/wide", "".join("x" * (number * 8111 % 200000) + f" error {number}\n" for number in range(60)))
        write(SOURCE + "/zero", TEXT + "\0\n" + TEXT)
        for number in range(400):
            write(f"{SOURCE}/small/{number}", f"Error {number}\n\nerror {number % 7}\n" * (number % 5))
        for name in "copy", "other":
            write(f"{SOURCE}/{name}", TEXT)
        os.link(SOURCE + "/copy", SOURCE + "/link")
        os.truncate(write(SOURCE + "/sparse", "error in front\n"), 1 << 32)
        self.create()
        options = ["-n", "-c", "-l", "-i", "-F"]
        for turn, pattern in enumerate(["error", "error 3$", "^[0-9]+ l", r"e\s+\w+r", "", "or (?=of)", "nothing like it"]):
            for option in options if not world.SANITIZED else [options[turn % 5]]:
                ours = self.found(world.BIN + "/qvx", "grep", *KEY, option, "--", pattern, ARCHIVE)
                theirs = self.found("grep", "-r", *["-P"] * (option != "-F"), *["-a"] * (option == "-c"), option,
                                    "--exclude=sparse", "-e", pattern, "media/source")
                self.assertEqual([line[:80] for line in ours], [line[:80] for line in theirs], (pattern, option))
                self.assertTrue(ours == theirs, (pattern, option))
        self.assertEqual(self.grep("-n", "--include", "zero", "line error of 5", ARCHIVE), 0)
        self.assertEqual(self.grep("--include", "sparse", "error", ARCHIVE), 0)
        self.assertEqual(self.grep("--include", r"no\x20end", "at the end", ARCHIVE), 0)
        self.assertEqual(self.grep("--include", "link", "--include", "*/small/3?", "-l", "error", ARCHIVE), 0)

    def test_compressed_files_are_searched_as_text(self):
        packed = {"gz": gzip.compress, "xz": lzma.compress,
                  "zst": lambda text: subprocess.run(["zstd", "-qc"], input=text, stdout=subprocess.PIPE).stdout}
        for name, compress in packed.items():
            write(f"{SOURCE}/rotated.{name}.1", compress(TEXT.encode()) + compress(b"error of the second part\n"))
            write(f"{SOURCE}/cut.{name}", compress(os.urandom(3000) + b"\n" + TEXT.encode())[:-2000])
        with gzip.open(write(SOURCE + "/bomb.gz"), "wb") as file:
            for _ in range(200):  # in pieces: the memory of this process counts for that of its children
                file.write(b"error\n" * 100_000)
        write(SOURCE + "/greedy.xz", greedy_xz(b"error\n"))
        write(SOURCE + "/not.gz", "\x1f\x8bno\nerror\n")
        self.create()
        if not world.SANITIZED:
            self.check_memory()
        self.grep("-c", "--include", "rotated*", "error", ARCHIVE)
        self.grep("-n", "--include", "rotated*", "second part", ARCHIVE)
        self.grep("nothing like it", ARCHIVE)
        self.grep("-c", "--include", "*.gz", "--no-decompress", "error", ARCHIVE)

    # Of a search that finds millions of lines in one file.
    def check_memory(self):
        process = subprocess.Popen([world.BIN + "/qvx", "grep", *KEY, "error", ARCHIVE], stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        self.assertEqual(process.returncode, 2)
        self.assertLess(usage.ru_maxrss, 128 << 10)

    # The intact files are searched, and what is wrong is said after that.
    def test_damaged_archives_and_others(self):
        write(SOURCE + "/random", os.urandom(3 << 20))
        for name in "first", "last":
            write(f"{SOURCE}/{name}", f"error in the {name}\n")
        self.create(f"{SOURCE}/first", f"{SOURCE}/random", f"{SOURCE}/last")
        whole = content(ARCHIVE)
        write("/media/damaged.qvx", whole[:len(whole) // 2] + b"?" + whole[len(whole) // 2 + 1:])
        write("/media/cut.qvx", whole[:len(whole) // 2])
        write("/media/text.qvx", "error\n")
        self.qvx("keygen", "-o", "/media/other")
        self.qvx("create", "-r", "/media/other.pub", "-o", "/media/other.qvx", SOURCE)
        self.known.update({f"SHA256:{call('ssh-keygen', '-lf', f'/media/{name}.pub').split()[1][7:]}": f"<{name}>"
                           for name in ("key", "other")})
        self.grep("error in", ARCHIVE, *(f"/media/{name}.qvx" for name in ("damaged", "cut", "text", "other")))
        self.grep("--json", "error in", ARCHIVE, "/media/damaged.qvx")

    def test_statuses_options_and_output_on_a_terminal(self):
        write(SOURCE + "/\x1b[2J", b"tab\tan error\x1b[31m, caf\xc3\xa9, \xff, error\r\nan error\0\n")
        write(SOURCE + "/as", "a" * 40 + "!\n" + "aa\n" * 30000)
        self.create()
        self.grep("error\x1b", ARCHIVE)
        self.grep("--json", "error", ARCHIVE)
        self.grep("--json", "-c", "error", ARCHIVE)
        self.grep("nothing like it", ARCHIVE)
        self.grep("-c", "(a+)+$", ARCHIVE)
        self.grep("(a", ARCHIVE)
        self.grep("-F", "(a", ARCHIVE)
        self.grep("error")
        with open("/dev/full", "wb") as full:
            self.grep("error|aa", ARCHIVE, stdout=full)
        for colour in {}, {"NO_COLOR": "1"}:
            os.environ.update(TERM="xterm", **colour)
            self.note("terminal", repr(on_terminal([world.BIN + "/qvx", "grep", *KEY, "error", ARCHIVE], b"")))
