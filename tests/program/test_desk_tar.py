# What qvx passes on: tar streams, contents, and the entries of damaged archives that are chosen by patterns.
import glob
import io
import json
import os
import subprocess
import tarfile

from world import BIN, DATA, Scenario, call, content, overwrite, write

SAMPLES = DATA + "/archives/"
KEY, SOURCE, OUT = ["--key", "/media/key.pem"], "/media/source", "/media/out"
DESCRIBE = r"""find . -print0 | LC_ALL=C sort -z | xargs -0 stat -c '%n %F %a %u %g %s %.Y %h'
getfattr -Rhd -m - . | sort; getfacl -Rn . | sort; find . -type f -print0 | LC_ALL=C sort -z | xargs -0 sha256sum"""


def described(folder):
    return subprocess.run(["bash", "-c", DESCRIBE], check=True, capture_output=True, cwd=folder).stdout


# Whether a reader finds that it is not a complete stream.
def is_refused(stream):
    def read():
        with tarfile.open(fileobj=io.BytesIO(stream)) as archive:
            archive.getmembers()
    try:
        read()
    except tarfile.TarError:
        return subprocess.run(["tar", "-t"], input=stream, check=False, capture_output=True).returncode != 0
    return False


class DeskTar(Scenario):
    def setUp(self):
        super().setUp()
        os.mkdir(OUT)
        self.known[self.qvx("keygen", "-o", "/media/key").strip()] = "<print of key>"

    def create(self, *paths, **options):
        call(BIN + "/qvx", "create", "-r", "/media/key.pub", "-o", "/media/archive", *paths, **options)
        return "/media/archive"

    def tar(self, *words, **options):
        return subprocess.run([BIN + "/qvx", "tar", *words], check=False, capture_output=True, **options)

    # 10 MiB do not fit in memory. The holes begin and end within a block of tar, and one that is the whole file.
    def fill_source(self):
        for name, text in (("file", "x"), ("deep/none", ""), ("l" * 200, "long"), ("new\nline \udcff ü", "odd")):
            write(f"{SOURCE}/{name}", text)
        write(SOURCE + "/large", os.urandom(10 << 20))
        with open(SOURCE + "/sparse", "wb") as file:
            for position in 10, 1 << 20, 5000001:
                file.seek(position)
                file.write(b"data" * 1000)
            file.truncate(30 << 20)
        os.truncate(write(SOURCE + "/hole"), 3 << 20)
        os.link(SOURCE + "/file", SOURCE + "/deep/a name")
        os.link(SOURCE + "/file", SOURCE + "/z")
        os.symlink("../file", SOURCE + "/deep/link")
        os.setxattr(SOURCE + "/large", "trusted.x%41", bytes(range(256)))
        os.setxattr(SOURCE + "/deep", "trusted.y", os.urandom(3000))
        os.chown(SOURCE + "/large", 3000000000, 5)
        os.chmod(SOURCE + "/file", 0o4751)
        call("setfacl", "-m", "u:7:r,g:9:rwx,m::rx", SOURCE + "/sparse")
        call("setfacl", "-d", "-m", "u:8:rwx", SOURCE + "/deep")
        os.utime(SOURCE + "/hole", ns=(1, -1500000001))

    def test_tar_makes_the_same_files(self):
        self.fill_source()
        archive = self.create("source", cwd="/media")
        stream = self.tar(*KEY, archive)
        self.assertEqual((stream.returncode, stream.stderr), (0, b""))
        unpacked = subprocess.run(["tar", "-xp", "--warning=no-timestamp", "--acls", "--xattrs", "--xattrs-include=*",
                                   "-C", OUT], check=True, input=stream.stdout, capture_output=True)
        self.assertEqual(unpacked.stderr.replace(b"tar: Ignoring unknown extended header keyword 'hdrcharset'\n", b""),
                         b"")
        self.assertEqual(described(OUT + SOURCE), described(SOURCE))
        self.assertLess(os.stat(OUT + SOURCE + "/sparse").st_blocks, 64)
        self.assertLess(len(stream.stdout), 11 << 20)
        with open(archive, "rb") as pipe:
            self.assertEqual(self.tar(*KEY, "-", stdin=pipe).stdout, stream.stdout)

    # The first of the names is not chosen.
    def test_chosen_hard_links_have_the_content(self):
        self.fill_source()
        archive = self.create("source", cwd="/media")
        stream = self.tar(*KEY, archive, "*/file", "/media/source/z", "none")
        self.assertEqual((stream.returncode, stream.stderr), (1, b"qvx: none: not in the archive\n"))
        with open(archive, "rb") as pipe:  # where the first name cannot be read again
            stopped = self.tar(*KEY, "-", "*/file", stdin=pipe)
        self.assertEqual((stopped.returncode, is_refused(stopped.stdout)), (1, True))
        with tarfile.open(fileobj=io.BytesIO(stream.stdout)) as unpacked:
            self.assertEqual([(entry.name, entry.size, entry.linkname) for entry in unpacked],
                             [("media/source/file", 1, ""), ("media/source/z", 0, "media/source/file")])
            self.assertEqual(unpacked.extractfile("media/source/z").read(), b"x")

    def test_damaged_archive_gives_no_complete_stream(self):
        self.fill_source()
        whole = content(self.create("source", cwd="/media"))
        size = len(whole)
        damaged = [write(f"/media/damaged/{at}", whole) for at in (300, size // 2, size - 600, size - 400, size - 300)]
        for path in damaged:
            at = int(os.path.basename(path))
            overwrite(path, at, bytes([whole[at] ^ 1]))
        damaged.append(write("/media/damaged/cut", whole[:-100]))
        key = ["--key", SAMPLES + "recipient.pem"]
        for path, key in [(path, KEY) for path in damaged] + [(path, key) for path in glob.glob(SAMPLES + "*.qvx")]:
            intact = subprocess.run([BIN + "/qvx", "verify", *key, path], check=False, capture_output=True)
            with open(path, "rb") as pipe:
                for stream in self.tar(*key, path), self.tar(*key, "-", stdin=pipe):
                    if intact.returncode == 0 and b"cannot be read" not in stream.stderr:
                        self.assertFalse(is_refused(stream.stdout), path)
                    else:
                        self.assertNotEqual(stream.returncode, 0, path)
                        self.assertTrue(is_refused(stream.stdout), path)

    def test_files_that_cat_and_extract_choose(self):
        for name in "a.log", "b.log", "deep/a.log", "deep/c.txt":
            os.utime(write(f"{SOURCE}/{name}", f"content of {name}\n"), (0, 0))
        os.symlink("a.log", SOURCE + "/link.log")
        call("touch", "-hd@0", SOURCE + "/link.log", SOURCE + "/deep", SOURCE)
        archive = self.create("source", cwd="/media")
        for words in (["c.txt", "media/source/b.log", "*/deep/c.txt"], ["*.log"], ["*/b.log", "?.log"], ["*/deep", "*.md"],
                      ["media/source/deep", "media/source/a.log", "none"]):
            self.tool("qvx", "cat", *KEY, archive, *words)
        for words in (["--to-stdout", archive], ["--to-stdout", archive, "a.log"], ["-n", archive],
                      ["-n", "--strip-components", "3", archive], ["-n", "-C", "/none", archive, "a.*", "/media/source/deep"],
                      ["--strip-components", "x", archive], ["--to-stdout", "--salvage", archive]):
            self.tool("qvx", "extract", *KEY, *words)
        self.tool("qvx", "extract", *KEY, "--strip-components", "2", "-C", OUT, archive, "*.log")
        self.note_files("files", OUT, "%M %p", "-mindepth", "1")
        self.tool("qvx", "list", *KEY, "--include", "a.log", "--include", "deep", "--include", "none", archive)

    # Blocks of the content of one file, the index and one copy of the header are damaged.
    def test_salvage_of_chosen_entries(self):
        for name, text in ("a", "first"), ("b", os.urandom(3 << 20)), ("c/d", "last"), ("e", os.urandom(2 << 20)):
            os.utime(write(f"{SOURCE}/{name}", text), (0, 0))
        call("touch", "-d@0", SOURCE, SOURCE + "/c")
        archive = self.create("source", cwd="/media")
        for position in 2 << 20, os.path.getsize(archive) - 560, os.path.getsize(archive) - 20:
            overwrite(archive, position, b"damaged!")
        for words in [], ["--json"], ["--include", "*/b", "--include", "*/c", "--include", "none"]:
            self.tool("qvx", "list", *KEY, "--salvage", *words, archive)
        full = subprocess.run([BIN + "/qvx", "list", *KEY, "--salvage", "--full", "--include", "*/d", archive],
                              check=False, capture_output=True)
        self.assertEqual(json.loads(full.stdout)["path"], "media/source/c/d")
        self.tool("qvx", "list", *KEY, archive)
        self.tool("qvx", "extract", *KEY, "-n", "--salvage", archive, "*/c")
        self.tool("qvx", "extract", *KEY, "--salvage", "-C", OUT, archive, "*/c", "*/b", "none")
        self.note_files("files", OUT, "%M %p", "-mindepth", "1")
