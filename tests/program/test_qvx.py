# qvx as a whole program, and archives that were made once: every later qvx must read the good ones and refuse the
# others for the right reason.
import json
import os
import re
import subprocess

import world
from world import DATA, Scenario, call, content, on_terminal, read, write

SAMPLES = DATA + "/archives/"
GOOD = "kinds", "blocks", "nothing", "incomplete", "order"
KEY, ARCHIVE, SOURCE, OUT = ["--key", "/media/key.pem"], "/media/archive.qvx", "/media/source", "/media/out"


# The entries of a list, without what no copy can keep and what older archives do not store of links.
def entries(listing):
    found = [json.loads(line) for line in listing.splitlines()]
    for entry in found:
        for key in ("ctime_ns", "btime_ns", "flags", *["sha256"] * (entry["type"] == "link")):
            entry.pop(key, None)
    return found


class Qvx(Scenario):
    def setUp(self):
        super().setUp()
        self.known[SAMPLES] = "samples/"
        self.qvx("keygen", "-o", "/media/key")
        os.mkdir(OUT)

    def run_qvx(self, *words, **options):
        return self.tool("qvx", *words, **options)

    def create(self, *paths, **options):
        self.run_qvx("create", "-r", "/media/key.pub", "-o", ARCHIVE, *(paths or [SOURCE]), **options)

    def frozen(self, command, name, *words):
        return self.run_qvx(command, "--key", SAMPLES + "recipient.pem", *words, f"{SAMPLES}{name}.qvx")

    def files(self):
        self.note("files", "\n".join(sorted(call("find", OUT, "-type", "f", "-printf", "%s %p\n").splitlines())))

    # Control characters in their names are escaped.
    def test_frozen_archives_are_read(self):
        for name in GOOD:
            self.assertEqual(self.qvx("list", "--json", "--key", SAMPLES + "recipient.pem", f"{SAMPLES}{name}.qvx"),
                             read(f"{SAMPLES}{name}.json"))
            self.frozen("verify", name)
            self.frozen("extract", name, "-C", OUT)
            self.frozen("list", name)
            self.run_qvx("info", f"{SAMPLES}{name}.qvx")

    def test_incomplete_file_is_reported_once(self):
        key = "--key", SAMPLES + "recipient.pem"
        self.run_qvx("verify", *key, write(ARCHIVE, content(SAMPLES + "incomplete.qvx") + b"x"))
        self.run_qvx("cat", *key, SAMPLES + "incomplete.qvx", "tmp/sample/partly-too", stdout=subprocess.DEVNULL)

    def test_damaged_archives_are_refused(self):
        for name in sorted(name[:-4] for name in os.listdir(SAMPLES) if name.endswith(".qvx")):
            if name not in GOOD:
                self.frozen("verify", name)
                self.frozen("extract", name, "-C", OUT)
                self.files()
                self.frozen("extract", name, "--salvage", "-C", OUT)
                self.files()
                world.clear(OUT)

    # Of every kind; the second time, the files are there already.
    def test_archive_of_extracted_files_has_the_same_entries(self):
        wanted = content(SAMPLES + "kinds.json").replace(b'"tmp/', b'"media/out/tmp/')
        for _ in range(2):
            self.frozen("extract", "kinds", "-C", OUT)
            self.create(OUT + "/tmp/sample", OUT + "/tmp/sample/plain")
            self.assertEqual(entries(self.qvx("list", "--json", *KEY, ARCHIVE)), entries(wanted))
        self.assertLess(os.stat(sparse := OUT + "/tmp/sample/sparse").st_blocks * 512, 1 << 20)
        self.assertEqual(self.qvx("cat", *KEY, ARCHIVE, sparse), read(sparse))

    def test_hostile_name_in_a_warning_is_escaped(self):
        write(SOURCE + "/\x1b[2J/\x1b")
        for name in "", "/\x1b":
            os.chown(SOURCE + "/\x1b[2J" + name, 1000, 0)
        os.setxattr(SOURCE + "/\x1b[2J", "trusted.\x1b", b"1")
        self.qvx("create", "-r", "/media/key.pub", "-o", ARCHIVE, SOURCE)
        done = subprocess.run(["setpriv", "--bounding-set=-chown,-sys_admin", "--inh-caps=-chown,-sys_admin", world.BIN +
                               "/qvx", "extract", *KEY, "-C", OUT, ARCHIVE], check=False, capture_output=True)
        self.assertRegex(done.stderr, rb"\A[ -~]*Can't set[ -~]*\n[ -~]*attribute trusted[ -~]*\n[ -~]*Can't set[ -~]*\n\Z")
        self.assertEqual(done.returncode, 0)

    def test_no_program_prints_an_invisible_character_of_a_name(self):
        name = "\x1b[2J\u202e\u00ad\u3164\ufe0f\U000e0041"
        write(f"{SOURCE}/{name}/file", "x")
        os.mkfifo(f"{SOURCE}/{name}/fifo")
        self.qvx("keygen", "-o", f"/media/{name}")
        for status, *words in ((0, "qvx", "create", "-r", f"/media/{name}.pub", "-o", f"/media/{name}", SOURCE),
                               (0, "qvx", "list", "--key", f"/media/{name}.pem", f"/media/{name}"),
                               (0, "qvx", "list", "--json", "--key", f"/media/{name}.pem", f"/media/{name}"),
                               (1, "qvx", "cat", "--key", f"/media/{name}.pem", f"/media/{name}", name),
                               (3, "qvx", "verify", *KEY, f"/media/{name}"), (1, "qvx", "info", name),
                               (1, "qvx", "extract", *KEY, "-C", name, ARCHIVE), (2, "qvx", "info", ARCHIVE, name),
                               (1, "volctl", "info", name), (2, "volctl", "list", name), (2, "nvram", "-p", name),
                               (1, "tarnwick-consent", "show", name), (2, "tarnwick-consent", "show", "--" + name)):
            with self.subTest(words):
                process = self.start(*words[1:], program=words[0])
                printed = b"".join(process.communicate())
                self.assertEqual(process.returncode, status, printed)
                self.assertRegex(printed, rb"\A[ -~\n]*(\\xe2\\x80\\xae|\\u202e)[ -~\n]*\Z")

    def test_names_from_a_file_are_stored_unchanged_with_duplicates(self):
        write(SOURCE + "/first", "1")
        names = [SOURCE + "/first", SOURCE, SOURCE + "/first", "source/first"]
        self.create("--files0-from", "-", typed="\0".join(names).encode(), cwd="/media")
        self.assertEqual(["/" + path for path in self.entries(ARCHIVE)], names[:3] + [SOURCE + "/first"])

    def test_extracts_only_the_paths_that_are_named(self):
        for name in "d/one", "d/two", "dd", "e":
            write(f"{SOURCE}/{name}", name)
        os.setxattr(SOURCE + "/e", "trusted.x", b"1")
        self.create()
        self.run_qvx("extract", *KEY, "-C", OUT, ARCHIVE, SOURCE + "/d/", SOURCE[1:] + "/e")
        self.files()
        self.assertEqual(os.listxattr(OUT + SOURCE + "/e"), ["trusted.x"])
        self.lay(OUT, "mode=755", "ramfs")  # which has no access control lists
        for command in ["cat"], ["extract", "-C", OUT]:
            for name in "d/two", "d/on", "d":
                self.run_qvx(*command, *KEY, ARCHIVE, f"media/source/{name}")
        with open("/dev/full", "wb") as full:
            self.run_qvx("cat", *KEY, ARCHIVE, SOURCE + "/e", stdout=full)
        unread, pipe = os.pipe()
        os.close(unread)
        self.run_qvx("cat", *KEY, ARCHIVE, SOURCE + "/e", stdout=pipe)

    # A tmpfs stores more of them than an archive.
    def test_create_reports_attributes_that_it_leaves_out(self):
        write(SOURCE + "/file", "x")
        for letter in "abcdefghijklmnopq":
            os.setxattr(SOURCE + "/file", f"trusted.{letter}", bytes(65536))
        self.create()
        self.run_qvx("verify", *KEY, ARCHIVE)

    # The content of the second name is in the first one. Random blocks are stored raw and need no leader.
    def test_cat_fails_when_the_content_of_another_entry_is_damaged(self):
        write(SOURCE + "/first", os.urandom(3 << 20))
        os.link(SOURCE + "/first", SOURCE + "/second")
        self.create()
        with open(ARCHIVE, "r+b") as archive:
            archive.seek(3 << 19)
            archive.write(b"damaged")
        for name in "first", "second":
            self.run_qvx("cat", *KEY, ARCHIVE, f"{SOURCE}/{name}", stdout=subprocess.DEVNULL)
        self.run_qvx("extract", *KEY, "-C", OUT, ARCHIVE, SOURCE + "/second")
        self.files()

    # Without the leader, no block of its group can be opened.
    def test_blocks_without_their_leader_are_reported_together(self):
        blocks = content(SAMPLES + "blocks.qvx")
        write(ARCHIVE, blocks[:300] + b"damaged" + blocks[307:])
        self.run_qvx("verify", "--key", SAMPLES + "recipient.pem", ARCHIVE)

    def test_full_disk_is_reported(self):
        self.lay(OUT, "size=4m")
        self.frozen("extract", "blocks", "-C", OUT)
        os.symlink("missing/file", "/media/link")
        write(SOURCE, os.urandom(5 << 20))
        for output in "/media/link", OUT + "/archive":
            self.run_qvx("create", "-r", "/media/key.pub", "-o", output, SOURCE)
        self.files()
        self.assertTrue(os.path.islink("/media/link"))

    def test_reports_what_an_archive_lacks(self):
        os.makedirs(SOURCE + "/closed", 0)
        os.chmod(write(SOURCE + "/secret", "x"), 0)
        os.mkfifo(SOURCE + "/fifo")
        os.chmod(SOURCE, 0o777)
        for name in "/closed", "/secret", "/", "":
            self.run_qvx("create", "-r", "/media/key.pub", "-o", SOURCE + "/archive", SOURCE + name, user=65534)
        self.note("entries", "\n".join(self.entries(SOURCE + "/archive")))

    def test_failed_create_leaves_no_archive(self):
        write(SOURCE + "/file", "x")
        key = "/media/key.pub"
        write("/media/bad", re.sub("[^ ]{7}=", "AAAAAAA=", read(key)))
        write("/media/all keys", "# one\n" + read(key))
        for recipient, *paths in ((key, "/media/missing"), (key, SOURCE, ""), (key, "/dev/null"),
                                  ("ecdsa-sha2-nistp256 AAAA", SOURCE), ("none", SOURCE), ("/media/bad", SOURCE)):
            self.run_qvx("create", "-r", recipient, "-o", ARCHIVE, *paths)
            self.assertFalse(os.path.exists(ARCHIVE))
        self.run_qvx("create", "-r", "/media/all keys", "-o", ARCHIVE, SOURCE)
        self.run_qvx("create", "-r", key, "-o", ARCHIVE, "/media/missing")
        self.run_qvx("verify", *KEY, ARCHIVE)  # the one made before
        self.run_qvx("keygen", "-o", "/media/key")

    def test_archive_for_several_recipients_is_copied_for_others(self):
        write(SOURCE + "/file", "x")
        for name in "other", "third":
            self.qvx("keygen", "-o", f"/media/{name}")
        for name in "key", "other", "third":
            self.known[call("ssh-keygen", "-lf", f"/media/{name}.pub").split()[1]] = f"<print of {name}>"
        to_both = ["-r", "/media/key.pub", "-r", "/media/other.pub"]
        self.run_qvx("create", *to_both, *to_both[:2], "-o", ARCHIVE, SOURCE)
        self.run_qvx("create", *to_both, "-o", ARCHIVE, SOURCE)
        copy = ["-r", "/media/third.pub", "-o", "/media/copy.qvx", ARCHIVE]
        for _ in range(2):
            self.run_qvx("rekey", "--key", "/media/other.pem", *copy)
        for name in "key", "other", "third":
            self.run_qvx("verify", "--key", f"/media/{name}.pem", "/media/copy.qvx")
        self.assertEqual(os.stat("/media/copy.qvx").st_mode & 0o777, 0o600)
        self.assertEqual(self.qvx("list", "--json", "--key", "/media/third.pem", "/media/copy.qvx"),
                         self.qvx("list", "--json", *KEY, ARCHIVE))
        for archive in ARCHIVE, "/media/copy.qvx":
            self.note("info", "".join(line for line in self.qvx("info", archive).splitlines(keepends=True)
                                      if not line.startswith("size")))
        os.remove("/media/copy.qvx")
        self.run_qvx("rekey", "--key", "/media/third.pem", *copy)
        self.run_qvx("extract", "--key", "/media/third.pem", "--salvage", "-C", OUT, ARCHIVE)
        with open(ARCHIVE, "r+b") as archive:
            archive.truncate(os.stat(ARCHIVE).st_size - 1)
        self.run_qvx("rekey", *KEY, *copy)
        self.run_qvx("info", ARCHIVE)
        self.run_qvx("extract", *KEY, "--salvage", "-C", OUT, ARCHIVE)
        self.files()
        self.assertFalse(os.path.exists("/media/copy.qvx"))

    def test_keys_of_every_form_and_files_that_are_no_keys(self):
        write(SOURCE + "/file", "x")
        self.create()
        printed = self.qvx("keygen", "-o", "/media/other")
        self.assertIn(printed.strip(), call("ssh-keygen", "-lf", "/media/other.pub"))
        for name in "key", "other":
            self.known[call("ssh-keygen", "-lf", f"/media/{name}.pub").split()[1]] = f"<print of {name}>"
        secret = "-passout", "pass:open sesame"
        for name, *words in (("sec1.pem", "ec"), ("locked.pem", "pkcs8", "-topk8", "-v2", "aes-256-cbc", *secret)):
            call("openssl", *words, "-in", "/media/key.pem", "-out", f"/media/{name}")
        os.mkfifo("/media/fifo")
        for name in "sec1.pem", "key.pub", "other.pem", "locked.pem", "missing":
            self.run_qvx("verify", "--key", f"/media/{name}", ARCHIVE)
        self.run_qvx("verify", "--key", "-", ARCHIVE, typed=content("/media/key.pem"))
        self.run_qvx("verify", "--key", "-", ARCHIVE, limits=lambda: os.close(0))
        for archive in "/media/key.pem", "/media/missing", "/media", "/media/fifo":
            self.run_qvx("verify", *KEY, archive)
        for words in [], ["list"], ["nonsense"], ["verify", ARCHIVE], ["extract", "--salvage", *KEY, ARCHIVE, "x"]:
            self.run_qvx(*words)
        words = ["/media/programs/qvx", "verify", "--key", "/media/locked.pem", ARCHIVE]
        for passphrase in b"open sesame", b"wrong":
            self.note("shown", "{}\n{} {}".format(*on_terminal(words, b": ", passphrase + b"\n")))
