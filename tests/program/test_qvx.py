# qvx as a whole program, and archives that were made once: every later qvx must read the good ones and refuse the
# others for the right reason.
import ctypes
import json
import os
import re
import resource
import signal
import subprocess

import world
from world import DATA, Disks, Scenario, call, content, on_terminal, overwrite, read, shell, write

SAMPLES = DATA + "/archives/"
GOOD = "kinds", "blocks", "nothing", "incomplete", "order"
KEY, FROZEN_KEY = ["--key", "/media/key.pem"], ["--key", SAMPLES + "recipient.pem"]
ARCHIVE, SOURCE, OUT = "/media/archive.qvx", "/media/source", "/media/out"


# The entries of a list, without what no copy can keep and what older archives do not store of links.
def entries(listing):
    found = [json.loads(line) for line in listing.splitlines()]
    for entry in found:
        for key in ("ctime_ns", "btime_ns", "flags", *["sha256"] * (entry["type"] == "link")):
            entry.pop(key, None)
    return found


class WithKey(Scenario):
    def setUp(self):
        super().setUp()
        self.known[SAMPLES] = "samples/"
        self.make_key("key")
        os.mkdir(OUT)

    def make_key(self, name):
        fingerprint = self.qvx("keygen", "-o", f"/media/{name}").strip()
        self.known[fingerprint] = f"<print of {name}>"
        return fingerprint

    def run_qvx(self, *words, **options):
        return self.tool("qvx", *words, **options)

    def create(self, *words, to=ARCHIVE, **options):
        self.run_qvx("create", "-r", "/media/key.pub", "-o", to, *(words or [SOURCE]), **options)


class Qvx(WithKey):
    def frozen(self, command, name, *words, **options):
        return self.run_qvx(command, *FROZEN_KEY, *words, f"{SAMPLES}{name}.qvx", **options)

    def files(self):
        self.note_files("files", OUT, "%s %p", "-type", "f")

    # Control characters in their names are escaped.
    def test_frozen_archives_are_read(self):
        for name in GOOD:
            listed = self.qvx("list", "--full", *FROZEN_KEY, f"{SAMPLES}{name}.qvx")
            self.assertEqual(listed, read(f"{SAMPLES}{name}.json"))
            self.frozen("verify", name)
            self.frozen("extract", name, "-C", OUT)
            self.frozen("list", name)
            self.run_qvx("info", f"{SAMPLES}{name}.qvx")

    def test_incomplete_file_is_reported_once(self):
        self.run_qvx("verify", *FROZEN_KEY, write(ARCHIVE, content(SAMPLES + "incomplete.qvx") + b"x"))
        self.run_qvx("cat", *FROZEN_KEY, SAMPLES + "incomplete.qvx", "tmp/sample/partly-too", stdout=subprocess.DEVNULL)

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
            self.frozen("extract", "kinds", "--preserve", "-C", OUT)
            self.create(OUT + "/tmp/sample", OUT + "/tmp/sample/plain")
            self.assertEqual(entries(self.qvx("list", "--full", *KEY, ARCHIVE)), entries(wanted))
        self.assertLess(os.stat(sparse := OUT + "/tmp/sample/sparse").st_blocks * 512, 1 << 20)
        self.assertEqual(self.qvx("cat", *KEY, ARCHIVE, sparse), read(sparse))

    # A program whose owner cannot be set would run as root.
    def test_hostile_name_in_a_warning_is_escaped(self):
        program = write(SOURCE + "/\x1b[2J/\x1b")
        for path in os.path.dirname(program), program:
            os.chown(path, 1000, 0)
            os.setxattr(path, "trusted.\x1b", b"1")
        os.chmod(program, 0o4755)
        self.create()
        self.run_qvx("extract", "--preserve", *KEY, "-C", OUT, ARCHIVE, limits=lambda: [
            ctypes.CDLL(None).prctl(24, capability) for capability in (0, 21)])  # drops those to chown and for trusted
        self.assertEqual(os.stat(OUT + program).st_mode, 0o100755)

    def test_no_program_prints_an_invisible_character_of_a_name(self):
        name = "\x1b[2J\u202e\u00ad\u3164\ufe0f\U000e0041"
        write(f"{SOURCE}/{name}/file", "x")
        os.mkfifo(f"{SOURCE}/{name}/fifo")
        self.qvx("keygen", "-o", f"/media/{name}")
        for line in ("0 qvx create -r @.pub -o @ /media/source", "0 qvx list --key @.pem @",
                     "0 qvx list --json --key @.pem @", "1 qvx cat --key @.pem @ NAME",
                     "3 qvx verify --key /media/key.pem @", "1 qvx info NAME",
                     "1 qvx extract --key /media/key.pem -C NAME /media/archive.qvx",
                     "2 qvx info /media/archive.qvx --NAME", "1 volctl info NAME", "2 volctl list NAME", "2 nvram -p NAME",
                     "1 tarnwick-consent show NAME", "2 tarnwick-consent show --NAME"):
            with self.subTest(line):
                status, program, *words = line.replace("@", "/media/NAME").replace("NAME", name).split()
                process = self.start(*words, program=program)
                printed = b"".join(process.communicate())
                self.assertEqual(process.returncode, int(status), printed)
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
        self.run_qvx("extract", *KEY, "--preserve", "-C", OUT, ARCHIVE, SOURCE + "/d/", SOURCE[1:] + "/e")
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
        overwrite(ARCHIVE, 3 << 19, b"damaged")
        for name in "first", "second":
            self.run_qvx("cat", *KEY, ARCHIVE, f"{SOURCE}/{name}", stdout=subprocess.DEVNULL)
        self.run_qvx("extract", *KEY, "-C", OUT, ARCHIVE, SOURCE + "/second")
        self.files()

    # Without the leader, no block of its group can be opened.
    def test_blocks_without_their_leader_are_reported_together(self):
        overwrite(write(ARCHIVE, content(SAMPLES + "blocks.qvx")), 500, b"damaged")
        self.run_qvx("verify", *FROZEN_KEY, ARCHIVE)

    # SOURCE/name/ddd.../ddd with a folder, a file and a link whose paths have exactly `length` bytes. The kernel
    # refuses paths of 4096 bytes, so a short name is replaced by the long one at the end. The last folder.
    def deep(self, name, length):
        folder = f"{SOURCE}/x/" + (("d" * 99 + "/") * 40)[:length - len(f"{SOURCE}/{name}//leaf")]
        os.makedirs(folder + "/down")
        os.symlink("target", folder + "/link")
        write(folder + "/text", "content")
        os.rename(SOURCE + "/x", f"{SOURCE}/{name}")
        return folder.replace("/x/", f"/{name}/")

    # The limit of an archive is 4095 bytes without the slash at the beginning.
    def test_longest_paths_are_archived_and_longer_ones_reported(self):
        def create(*words, **options):
            process = self.start("create", "-r", "/media/key.pub", "-o", ARCHIVE, *words, program="qvx", **options)
            return process.communicate()[1].decode(), process.returncode

        write(SOURCE + "/zero", "0")
        folder = self.deep(fits := "f" * 150, 4096)
        self.assertEqual(create(SOURCE), ("", 0))
        paths = self.entries(ARCHIVE)
        self.assertEqual([len(path) for path in paths[-4:]], [4095] * 3 + [len(SOURCE + "/zero") - 1])
        self.qvx("extract", *KEY, "-C", OUT, ARCHIVE)
        os.rename(f"{OUT}{SOURCE}/{fits}", OUT + "/x")
        copy = folder.replace(f"{SOURCE}/{fits}", OUT + "/x")
        self.assertEqual((os.readlink(copy + "/link"), os.listdir(copy + "/down"), read(copy + "/text")),
                         ("target", [], "content"))
        create(".", cwd=folder)
        self.assertEqual(self.entries(ARCHIVE), paths[-5:-1])
        self.deep("l" * 150, 4097)
        call("mkdir", "down/x", cwd=folder)
        for words, lengths in ([SOURCE], [4098, 4097, 4097, 4097]), (["--strict", SOURCE], [4098]):
            errors, status = create(*words)
            lines = [line.split(": ") for line in errors.splitlines()]
            self.assertEqual([(len(line[1]), line[-1]) for line in lines],
                             [(length, "File name too long") for length in lengths])
            self.assertEqual(status, 1)
            self.assertEqual([path for path in self.entries(ARCHIVE) if len(path) > 4091 or "zero" in path], paths[-4:])

    def test_create_on_a_full_disk_leaves_the_old_archive(self):
        self.lay(OUT, "size=4m")
        write(SOURCE, os.urandom(5 << 20))
        write(OUT + "/archive", "old")
        for refuse in None, world.refuse_unnamed_files:
            for name in "archive", "new":
                self.create(to=f"{OUT}/{name}", limits=refuse)
            self.assertEqual((os.listdir(OUT), read(OUT + "/archive")), (["archive"], "old"))

    def test_extraction_stops_before_the_disk_is_full(self):
        for number in range(20):
            write(f"{SOURCE}/{number % 4}/{number:02}", os.urandom(1 << 20))
        self.create()
        self.lay(OUT, "size=17000k")
        for words in ["--limit", "4M"], [], ["--force"], ["--limit", "99999999T"], ["--limit", "1m"], ["--limit", ""]:
            refuse = world.refuse_unnamed_files if words else None
            self.run_qvx("extract", *KEY, *words, "-C", OUT, ARCHIVE, limits=refuse)
            space = os.statvfs(OUT)
            used = (space.f_blocks - space.f_bfree) * space.f_frsize
            if words == ["--limit", "4M"]:
                self.assertTrue(2 << 20 < used <= 4 << 20, used)
            elif not words:
                self.assertTrue(space.f_blocks <= space.f_bavail * 20 < 4 * space.f_blocks, space)
            elif words == ["--force"]:
                write(OUT + "/rest", bytes(1 << 19))
                self.frozen("list", "order", "--full", environment={"TMPDIR": OUT})
            self.assertEqual(call("find", OUT, "-name", ".qvx*"), "")
            world.clear(OUT)

    def test_few_descriptors_are_enough(self):
        for number in range(300):
            write(f"{SOURCE}/{number}/large", bytes(70000))
            write(f"{SOURCE}/{number}/small", "text")
        few = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (64, 64))
        self.create(limits=few)
        self.run_qvx("extract", *KEY, "-C", OUT, ARCHIVE, limits=few)
        self.assertEqual(call("diff", "-r", SOURCE, OUT + SOURCE), "")

    def test_reports_what_an_archive_lacks(self):
        shell(SOURCE, """mkdir -m 0 closed; mkdir -m 744 listed; mkfifo fifo; touch listed/file; echo -n x >secret
            chmod 0 secret; chmod 777 .""")
        for name in "/closed", "/secret", "/", "":
            self.create(SOURCE + name, to=SOURCE + "/archive", user=65534)
        self.note("entries", "\n".join(self.entries(SOURCE + "/archive")))
        for name in "/closed", "/secret", "/listed":
            self.create("--strict", SOURCE + name, to=SOURCE + "/strict", user=65534)
            self.assertFalse(os.path.exists(SOURCE + "/strict"))
        self.create("--files0-from", "-", to=SOURCE + "/some", user=65534,
                    typed=f"{SOURCE}/closed/file\0{SOURCE}/listed".encode())
        self.note("entries", "\n".join(self.entries(SOURCE + "/some")))
        os.unlink(SOURCE + "/some")
        self.create("--strict", SOURCE, to=SOURCE + "/strict")
        self.create(to=SOURCE + "/hidden", limits=world.refuse_unnamed_files)
        self.note("entries", "\n".join(self.entries(SOURCE + "/hidden")))

    # The source is one file of which every page but the first of each MiB is a hole. Reading it takes many seconds, so
    # the signal comes in the middle.
    def test_interrupted_create_leaves_the_old_archive(self):
        with open(write(SOURCE + "/file"), "r+b") as file:
            for megabyte in range(16384):
                os.pwrite(file.fileno(), b"x", megabyte << 20)
        write(OUT + "/archive", "old")
        for number in signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGKILL:
            for refuse in (lambda: None), world.refuse_unnamed_files:
                process = self.start("create", "-r", "/media/key.pub", "-o", OUT + "/archive", SOURCE, program="qvx",
                                     limits=lambda: (refuse(), signal.signal(signal.SIGINT, signal.SIG_DFL)))
                while not subprocess.getoutput(f"ls -l /proc/{process.pid}/fd | grep {OUT}/[.#]"):
                    self.assertIsNone(process.poll())
                process.send_signal(number)
                process.communicate()
                self.assertEqual((process.returncode, read(OUT + "/archive")), (-number, "old"))
                if number != signal.SIGKILL:
                    self.assertEqual(os.listdir(OUT), ["archive"])

    def test_output_replaces_only_a_file_of_the_user(self):
        write(SOURCE + "/file", "x")
        shell(OUT, """chmod 777 .; mkfifo fifo; mkdir folder; ln -s file link; mknod null c 1 3; chmod 600 null
            echo -n old | tee file mine protected; ln mine 'other name'
            chown 1000 file; chown 65534 mine protected; chmod 444 protected""")
        for name in "fifo", "folder", "folder/", "link", "null", "file", "protected", "missing/archive", "mine", "new":
            self.create(to=f"{OUT}/{name}", user=65534)
        self.note_files("files", OUT, "%P %M %U %n", "-mindepth", "1")
        self.assertEqual([read(f"{OUT}/{name}") for name in ("file", "protected", "other name")], ["old"] * 3)
        for name in "mine", "new":
            self.assertEqual(self.entries(f"{OUT}/{name}"), ["media/source", "media/source/file"])
        os.chmod(OUT, 0o1733)
        self.create(to="archive", user=65534, cwd=OUT, limits=lambda: os.umask(0o77))
        self.note_files("files", OUT, "%P %M %U %n", "-name", "archive")

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
        self.create("/media/missing")
        self.run_qvx("verify", *KEY, ARCHIVE)  # the one made before
        self.run_qvx("keygen", "-o", "/media/key")

    def test_archive_for_several_recipients_is_copied_for_others(self):
        write(SOURCE + "/file", "x")
        for name in "other", "third":
            self.make_key(name)
        to_both = ["-r", "/media/key.pub", "-r", "/media/other.pub"]
        self.run_qvx("create", *to_both, *to_both[:2], "-o", ARCHIVE, SOURCE)
        self.run_qvx("create", *to_both, "-o", ARCHIVE, SOURCE)
        copy = ["-r", "/media/third.pub", "-o", "/media/copy.qvx", ARCHIVE]
        for _ in range(2):
            self.run_qvx("rekey", "--key", "/media/other.pem", *copy)
        for name in "key", "other", "third":
            self.run_qvx("verify", "--key", f"/media/{name}.pem", "/media/copy.qvx")
        self.assertEqual(self.qvx("list", "--full", "--key", "/media/third.pem", "/media/copy.qvx"),
                         self.qvx("list", "--full", *KEY, ARCHIVE))
        for archive in ARCHIVE, "/media/copy.qvx":
            self.note("info", "".join(line for line in self.qvx("info", archive).splitlines(keepends=True)
                                      if not line.startswith("size")))
        os.remove("/media/copy.qvx")
        self.run_qvx("rekey", "--key", "/media/third.pem", *copy)
        self.run_qvx("extract", "--key", "/media/third.pem", "--salvage", "-C", OUT, ARCHIVE)
        os.truncate(ARCHIVE, os.stat(ARCHIVE).st_size - 1)
        self.run_qvx("rekey", *KEY, *copy)
        self.run_qvx("info", ARCHIVE)
        self.run_qvx("extract", *KEY, "--salvage", "-C", OUT, ARCHIVE)
        self.files()
        self.assertFalse(os.path.exists("/media/copy.qvx"))

    def test_keys_of_every_form_and_files_that_are_no_keys(self):
        write(SOURCE + "/file", "x")
        self.create()
        self.assertEqual(self.make_key("other"), call("ssh-keygen", "-lf", "/media/other.pub").split()[1])
        shell("/media", """mkfifo fifo; openssl ec -in key.pem -out sec1.pem
            openssl pkcs8 -topk8 -v2 aes-256-cbc -passout 'pass:open sesame' -in key.pem -out locked.pem""")
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


# On a file system that has inode flags.
class Preserve(WithKey, Disks):
    def extract(self, to, *words, **options):
        os.makedirs(to, exist_ok=True)
        self.run_qvx("extract", *KEY, *words, "-C", to, ARCHIVE, **options)
        tree = to + "/media/disk/source"
        self.note_files("files", tree, "%M %U %G %n ./%P")
        show = f"cd {tree}; find . -not -type l -exec lsattr -d {{}} + 2>&1 | awk '{{gsub(/[e-]/,\"\",$1)}}1' | sort"
        self.note("flags", subprocess.getoutput(show))
        self.note("attributes", str(sorted(os.listxattr(tree + "/capable"))))

    # An archive that anybody can make. The second name of an immutable file is linked although nothing can be linked
    # to it once its flags are set.
    def test_privileges_are_restored_only_on_request(self):
        self.mount(self.formatted()[0], "/media/disk")
        shell("/media/disk/source", """
            mkdir -p closed/below; for name in program capable append immutable closed/below/file; do
                echo -n $name >$name; done
            ln immutable second; ln -s program link; chmod 444 capable
            chown 1000:1001 program; chown 1000:1000 closed; chown -h 1000:1000 link
            chmod 6777 program; chmod 3777 closed; setfattr -n trusted.x -v 1 capable; setfattr -n user.x -v 1 capable
            setfattr -n security.capability -v 0x0100000200200000000000000000000000000000 capable
            chattr +a append; chattr +id immutable; chattr +d program; chattr +i closed/below; chattr +aP closed""")
        self.create("/media/disk/source/")
        self.extract("/media/disk/default")
        self.extract("/media/disk/masked", limits=lambda: os.umask(0o077))
        self.extract("/media/disk/all", "--preserve", limits=lambda: os.umask(0o077))
        shell("/media/disk/user", "chmod 644 /media/key.pem; chown 65534:65534 .")
        self.run_qvx("extract", *KEY, "--preserve", "-C", "/media/disk/user", ARCHIVE, user=65534)
        self.extract("/media/disk/user", user=65534)
        self.lay("/media/ram", "mode=755", "ramfs")
        self.extract("/media/ram", "--preserve")
