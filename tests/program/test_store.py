"""The store on the destination volume: listing, pruning, placing, removing."""
import os
import resource
import shutil
import signal

import world
from story import CaptureScenario
from world import LIMIT, PREBOOT, STORE, YES, Answer, Scenario, mount, write

MIB = 1 << 20
NAME = f'{STORE}/"${{folder##*/}}.qvx"'  # of the capture, for a stand-in


class Store(CaptureScenario):
    def then(self, *deeds):
        """What happens while the destination is asked for: first to find it, then to list, then to list again."""
        self.world.answer(PREBOOT, *(Answer(self.world.preboot, do=do) for do in (":", *deeds)))

    def archived(self):
        story = self.story()
        story.archived()
        return story

    def test_limit_counts_the_captures_and_the_archive_to_the_byte(self):
        for name in ("notes.qvx", "tarnwick-old.qvx.bak", "tarnwick.qvx2", "Tarnwick.qvx", ".qvx", "xtarnwick.qvx",
                     "tarnwick-a.QVX"):
            self.world.sparse(name, LIMIT)
        os.makedirs(f"{STORE}/tarnwick-folder.qvx")
        old = self.world.sparse("tarnwick-old.qvx", 1)
        for more, *pruned in (0,), (1, old):
            size = '$(stat -c %s "$folder/${folder##*/}.qvx")'
            self.then(f"truncate -s $(({LIMIT} + {more} - {size})) {old}", ":")
            result = self.captured(self.story(), pruned=pruned)
            self.assertEqual(os.path.exists(old), not pruned)
            os.remove(result.archive)
            world.clear("/tmp")

    def test_oldest_by_change_time_goes_first_and_no_more_than_needed(self):
        """Whoever has the bare name counts; a time before the epoch counts as late."""
        captures = [("tarnwick-a.qvx", 300 * MIB, 2022), ("tarnwick.qvx", 500 * MIB, 2020),
                    ("tarnwickX.qvx", 400 * MIB, 2021), ("tarnwick-d.qvx", 300 * MIB, 2023),
                    ("tarnwick-e.qvx", 200 * MIB, 1965)]
        self.world.dated_store(*captures)
        result = self.captured(self.story(), pruned=[f"{STORE}/tarnwick.qvx", f"{STORE}/tarnwickX.qvx"])
        self.assertEqual(self.world.stored(), sorted(["tarnwick-a.qvx", "tarnwick-d.qvx", "tarnwick-e.qvx",
                                                      os.path.basename(result.archive)]))

    def test_links_are_followed_for_size_but_removed_themselves(self):
        os.makedirs(STORE)
        target = write("/media/precious")
        os.truncate(target, LIMIT)
        os.symlink(target, f"{STORE}/tarnwick-link.qvx")
        os.symlink("/media/nowhere", f"{STORE}/tarnwick-dangling.qvx")
        self.captured(self.story(), pruned=[f"{STORE}/tarnwick-link.qvx"])
        self.assertEqual(os.path.getsize(target), LIMIT)
        os.symlink(target, f"{STORE}/tarnwick-link.qvx")
        self.assertEqual(self.world.run("--cleanup").status, 0)
        self.assertTrue(os.path.exists(target))
        self.assertEqual(self.world.stored(), ["tarnwick-dangling.qvx"])

    def test_still_above_the_limit_after_pruning(self):
        """Brought over it by a capture that appears between the pruning and the last check."""
        old = self.world.sparse("tarnwick-old.qvx", 5)
        self.then(f"truncate -s {LIMIT} {old}", f"truncate -s {LIMIT} {STORE}/tarnwick-new.qvx")
        story = self.archived()
        story.destination()
        story.pruning(old)
        story.destination()
        story.fatal("insufficient space on output volume for captured data")
        self.check(self.world.capture(), story, 1)
        self.assertEqual(self.world.stored(), ["tarnwick-new.qvx"])

    def test_archive_that_cannot_be_placed(self):
        """A name that is taken is not overwritten, a link under it not followed; a full volume keeps nothing."""
        def full():
            self.world.lay("/media/preboot", "size=8k,mode=755")
            write("/media/preboot/filler", "x" * 8192)

        for do, prepare, left in ((f"echo old >{NAME}", os.mkdir, ["old\n"]),
                                  (f"ln -s /media/target {NAME}", lambda _: None, []), (":", lambda _: full(), [])):
            with self.subTest(do):
                prepare(STORE)
                self.world.answer("nvram -p", Answer(world.NVRAM, do=do))
                story = self.archived()
                for _ in range(2):
                    story.destination()
                story.fatal("an error occurred when copying archive to final destination")
                self.check(self.world.capture(), story, 1)
                stored = [f"{STORE}/{name}" for name in self.world.stored()]
                self.assertEqual([world.read(path) for path in stored if os.path.exists(path)], left)
                world.clear("/tmp")
                world.clear(STORE)
                self.assertFalse(os.path.exists("/media/target"))

    def test_store_that_takes_no_archive(self):
        """The message is the library's own, and comes once only."""
        old = self.world.sparse("tarnwick-old.qvx", LIMIT)
        mount("/media/preboot", "/media/preboot", flags=world.MS_BIND)
        mount("none", "/media/preboot", flags=world.MS_REMOUNT | world.MS_BIND | world.MS_RDONLY)
        story = self.archived()
        story.pruning(old)
        self.library_error(story, "Read-only file system")
        result = self.world.run("--cleanup")
        self.assertEqual((result.console, result.status), (f"removing {old}\n", -signal.SIGABRT))
        self.world.lay("/media/preboot", "mode=755")
        world.clear("/tmp")
        write(STORE, "in the way")
        self.library_error(self.archived(), "Not a directory")

    def test_captures_that_somebody_else_removed_meanwhile(self):
        """The console is a pipe of one page, so the run is only so many lines ahead of what has been read."""
        for words, removing, failed in (((), "WARNING: pruning ", "WARNING: error when pruning "),
                                        (["--cleanup"], "removing ", "WARNING: error when cleaning up ")):
            for number in range(40):
                self.world.sparse(f"tarnwick-{number:0200}.qvx", LIMIT)
            process = self.world.start_capture(*words, bufsize=0, pipesize=4096)
            while not (line := process.stdout.readline().decode()).startswith(removing):
                self.assertTrue(line)
            shutil.rmtree(STORE, ignore_errors=True)
            out = process.communicate(timeout=world.PATIENCE)[0].decode()
            self.assertRegex(out, rf"\n{removing}(.*)\n{failed}\1\n")
            self.assertEqual(process.returncode, 0)

    def test_killed_in_the_middle_of_the_copy(self):
        """A limit on the size of files, set when the archive is complete, kills the copy at its fifth kilobyte."""
        limit = ('pid=$$; while [ "$(cat /proc/$pid/comm)" != tarnwick ]; do '
                 'pid=$(sed "s/.*) . //; s/ .*//" /proc/$pid/stat); done; prlimit --pid $pid --fsize=4096')
        self.world.specification(("/logs", ".*"))
        self.world.volume("one", YES)
        write("/media/one/logs/large", os.urandom(200_000))
        self.then(":", limit, ":")
        result = self.world.capture(limits=lambda: resource.setrlimit(resource.RLIMIT_CORE, (0, 0)))
        self.assertEqual(result.status, -signal.SIGXFSZ)
        self.assertTrue(os.path.getsize(result.temporary()) > 200_000)
        self.assertEqual(self.world.stored(), [])
        self.assertEqual(self.world.capture().status, 0)
        self.assertIn("contains 1 capture:", self.world.run("--summarize").console)

    def test_capture_goes_under_the_first_answers_mount_point(self):
        other = world.property_list({"MountPoint": "/media/other", "DeviceIdentifier": "disk5"})
        self.world.answer(PREBOOT, self.world.preboot, other)
        self.world.sparse("tarnwick-old.qvx", LIMIT)  # not in the listing that counts
        result = self.world.capture()
        self.assertEqual(result.status, 0)
        self.assertEqual(self.world.stored(), sorted(["tarnwick-old.qvx", os.path.basename(result.archive)]))


class SummaryAndCleanup(Scenario):
    def says(self, words, console):
        result = self.world.run(*words.split())
        self.assertEqual((result.console, result.status, result.errors), (console, 0, ""))

    def test_oldest_come_first(self):
        self.world.dated_store(("tarnwick-a.qvx", 1536, 2022), ("tarnwick-b.qvx", 6, 2020), ("notes.qvx", 1, 2019))
        self.says("--summarize", f"Capture volume contains 2 captures:\n----\npath: {STORE}/tarnwick-b.qvx\n"
                  f"totalbytes: 6.00B\n----\npath: {STORE}/tarnwick-a.qvx\ntotalbytes: 1.50KB\n")
        self.says("--cleanup", f"removing {STORE}/tarnwick-b.qvx\nremoving {STORE}/tarnwick-a.qvx\n")
        self.says("--cleanup --verbose", f"TRACE: Running command: '{PREBOOT[:-7]}\"Preboot\"'\nTRACE: result: 0\n"
                  f"TRACE: stdout: {self.world.preboot}\n")
        self.assertEqual(self.world.stored(), ["notes.qvx"])

    def test_property_list(self):
        head = ('\n<?xml version="1.0" encoding="UTF-8"?>\n<!DOCTYPE plist PUBLIC "-//Vexlor//DTD PLIST 1.0//EN'
                'http://www.vexlor.com/DTDs/PropertyList-1.0.dtd">\n<plist version="1.0">\n    <array>\n')
        tail = "    </array>\n</plist>\n"
        self.says("--summarize --plist", head + tail)
        path = self.world.sparse("tarnwick-<a>&b.qvx", 1048575)
        self.says("--summarize --plist", f"{head}        <dict>\n            <key>path</key>\n"
                  f"            <string>{path}</string>\n            <key>totalbytes</key>\n"
                  f"            <string>1048575</string>\n        </dict>\n{tail}")

    def test_without_a_destination(self):
        self.world.answer(PREBOOT, Answer("", 1))
        self.says("--summarize", "Capture volume contains 0 captures:\n")
        self.says("--cleanup", "")


if __name__ == "__main__":
    world.main()
