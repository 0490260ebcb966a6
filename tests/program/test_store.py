# The store on the destination volume: listing, pruning, placing, removing.
import fcntl
import os
import signal

import world
from world import PREBOOT, STORE, YES, Answer, Scenario, call, shell, write

LIMIT, MIB = 1 << 30, 1 << 20
NAME = f'{STORE}/"${{folder##*/}}.qvx"'  # of the capture, for a stand-in


class Store(Scenario):
    def setUp(self):
        super().setUp()
        self.specification(("/logs", ".*"))
        [self.preboot] = (text for text in self.known if "Preboot" in text)

    # What happens while the destination is asked for: first to find it, then to list, then to list again.
    def then(self, *deeds):
        self.answer(PREBOOT, *(Answer(self.preboot, do=do) for do in (":", *deeds, ":")))

    # A stored capture, or another file in the store, that uses no space.
    def sparse(self, name, size=LIMIT):
        path = write(f"{STORE}/{name}")
        os.truncate(path, size)
        return path

    # The bytes of links as well; what is pruned is the link.
    def test_limit_counts_the_captures_and_the_archive_to_the_byte(self):
        for name in "tarnwick-old.qvx.bak", "Tarnwick.qvx", ".qvx", "xtarnwick.qvx":
            self.sparse(name)
        shell(STORE, "mkdir tarnwick-folder.qvx; ln -s /media/nowhere tarnwick-dangling.qvx")
        os.symlink(precious := write("/media/precious"), f"{STORE}/tarnwick-old.qvx")
        for more in 0, 1:
            size = '$(stat -c %s "$folder/${folder##*/}.qvx")'
            self.then(f"truncate -s $(({LIMIT} + {more} - {size})) {precious}")
            os.remove(self.capture().archive)
        self.assertTrue(os.path.exists(precious))

    def test_capture_that_appears_between_the_pruning_and_the_last_check(self):
        self.sparse("tarnwick-old.qvx")
        self.then(":", f"truncate -s {LIMIT} {STORE}/tarnwick-new.qvx")
        self.capture()

    # A capture with no more than the bare name counts; a time before the epoch counts as late.
    def test_oldest_by_change_time_goes_first_and_no_more_than_needed(self):
        captures = [("tarnwick-a.qvx", 300 * MIB, 2022), ("tarnwick.qvx", 500 * MIB, 2020),
                    ("tarnwickX.qvx", 400 * MIB, 2021), ("tarnwick-<e>&.qvx", 500 * MIB, 1965)]
        for name, size, _ in captures:
            self.sparse(name, size)
        call("mkfs.ext4", "-q", "-d", "/media/preboot", "/media/disk", "4G")
        changes = "".join(f'set_inode_field "/tarnwick/{name}" ctime {year}0101000000\n' for name, _, year in captures)
        call("debugfs", "-w", "-f", "-", "/media/disk", input=changes.encode())
        world.clear("/media/preboot")
        call("mount", "-o", "loop", "/media/disk", "/media/preboot")
        self.tarnwick("--summarize")
        self.tarnwick("--summarize", "--plist")
        os.remove(self.capture().archive)
        self.tarnwick("--cleanup")
        self.tarnwick("--summarize", "--plist")

    # A full volume keeps nothing, a read-only one all; a file in the place of the store is not touched.
    def test_archive_that_cannot_be_placed(self):
        self.sparse("tarnwick-old.qvx")
        shell("/media", "mount --bind preboot preboot; mount -o remount,bind,ro preboot")
        self.capture()
        self.tarnwick("--cleanup")
        self.lay("/media/preboot", "size=8k,mode=755")
        write("/media/preboot/filler", "x" * 8192)
        self.capture()
        shell("/media/preboot", "rm -r filler tarnwick; touch tarnwick")
        self.capture()

    # A limit on the size of files, set when the archive is complete, kills the copy at its fifth kilobyte. Where a
    # part of it stays under a hidden name, it is no capture, and the next run removes it.
    def test_killed_in_the_middle_of_the_copy(self):
        limit = ('pid=$$; while [ "$(cat /proc/$pid/comm)" != tarnwick ]; do '
                 'pid=$(sed "s/.*) . //; s/ .*//" /proc/$pid/stat); done; prlimit --pid $pid --fsize=4096')
        self.volume("one", YES)
        write("/media/one/logs/large", os.urandom(200_000))
        for refuse in None, world.refuse_unnamed_files:
            self.then(":", f"{limit} --core=0")
            killed = self.capture(limits=refuse)
            self.assertEqual((killed.status, os.path.getsize(killed.temporary) > 200_000), (-signal.SIGXFSZ, True))
            self.assertIn(b" 0 captures", self.start("--summarize").communicate()[0])
            os.remove(self.capture(limits=refuse).archive)

    # Also on file systems without files that have no name. Nothing remains of an unfinished copy.
    def test_name_that_is_in_use_is_neither_overwritten_nor_followed(self):
        for refuse in None, world.refuse_unnamed_files:
            self.answer("nvram -p", "")
            os.remove(self.capture(limits=refuse).archive)
            for do, kept in (f"echo old >{NAME}", "old\n"), (f"ln -s /media/target {NAME}", ""):
                self.answer("nvram -p", Answer(do=do))
                self.capture(limits=refuse)
                self.assertEqual(call("find", STORE, "-type", "f", "-exec", "cat", "{}", "+"), kept)
                world.clear(STORE)
        self.assertFalse(os.path.exists("/media/target"))

    def test_only_abandoned_copies_are_removed(self):
        names = "0" * 16, "1" * 16, "2" * 16, "0" * 15, "0" * 17, "g" * 16
        abandoned, locked, foreign, other, *_ = (write(f"{STORE}/.tarnwick-{name}") for name in names)
        os.chown(foreign, 1000, 1000)
        os.symlink(other, f"{STORE}/.tarnwick-{'f' * 16}")
        with open(locked, "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.capture()
        self.assertFalse(os.path.exists(abandoned))
