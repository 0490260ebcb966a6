"""The store on the destination volume: listing, pruning, placing, removing."""
import os
import resource
import signal

import world
from world import LIMIT, PRUNING, Answer, Scenario, Story, mount, write

MIB = 1 << 20
STORE = "/media/preboot/tarnwick"


class Store(Scenario):
    def setUp(self):
        super().setUp()
        self.world.specification()
        self.world.list_groups({"Containers": []})

    def until_archived(self):
        story = Story(self.world)
        story.until_volumes()
        story.firmware()
        story.archived()
        return story

    def check_stored(self, *pruned):
        story = self.until_archived()
        story.stored(*pruned)
        result = self.world.capture()
        self.check(result, story)
        self.world.entries(result.archive)
        return result

    def grow_on_listing(self, path, difference):
        """Brings the store to the limit and `difference` more, once the archive's size is known."""
        grow = f'truncate -s $(({LIMIT} + {difference} - $(stat -c %s "$folder/${{folder##*/}}.qvx"))) {path}'
        preboot = self.world.preboot
        self.world.answer("volctl info -plist Preboot", preboot, Answer(preboot, do=grow), preboot)

    def test_at_the_limit_nothing_is_pruned(self):
        old = self.world.sparse("tarnwick-old.qvx", 1)
        self.grow_on_listing(old, 0)
        result = self.check_stored()
        self.assertEqual(os.path.getsize(old) + os.path.getsize(result.archive), LIMIT)

    def test_one_byte_above_the_limit(self):
        old = self.world.sparse("tarnwick-old.qvx", 1)
        self.grow_on_listing(old, 1)
        result = self.check_stored(old)
        self.assertEqual(self.world.stored(), [f"tarnwick-{result.stamp}.qvx"])

    def test_oldest_by_change_time_goes_first_and_no_more_than_needed(self):
        self.world.dated_store(("tarnwick-a.qvx", 300 * MIB, 2022), ("tarnwick-b.qvx", 500 * MIB, 2020),
                               ("tarnwick-c.qvx", 400 * MIB, 2021), ("tarnwick-d.qvx", 300 * MIB, 2023))
        result = self.check_stored(f"{STORE}/tarnwick-b.qvx")
        self.assertEqual(self.world.stored(),
                         sorted([f"tarnwick-{result.stamp}.qvx", "tarnwick-a.qvx", "tarnwick-c.qvx", "tarnwick-d.qvx"]))

    def test_change_times_before_the_epoch_come_last(self):
        self.world.dated_store(("tarnwick-a.qvx", 600 * MIB, 1965), ("tarnwick-b.qvx", 600 * MIB, 2020))
        self.check_stored(f"{STORE}/tarnwick-b.qvx")

    def test_foreign_files_do_not_count(self):
        for name in ("notes.qvx", "tarnwick-old.qvx.bak", "tarnwick.qvx2", "Tarnwick.qvx", ".qvx", "xtarnwick.qvx",
                     "tarnwick-a.QVX"):
            self.world.sparse(name, LIMIT)
        os.makedirs(f"{STORE}/tarnwick-folder.qvx")
        self.check_stored()

    def test_every_file_with_the_bare_name_counts(self):
        for name in ("tarnwickX.qvx", "tarnwick.qvx"):
            path = self.world.sparse(name, LIMIT)
            self.check_stored(path)
            os.system(f"rm -r {STORE}")

    def test_links_are_followed_for_size_but_removed_themselves(self):
        os.makedirs(STORE)
        target = write("/media/precious")
        os.truncate(target, LIMIT)
        os.symlink(target, f"{STORE}/tarnwick-link.qvx")
        os.symlink("/media/nowhere", f"{STORE}/tarnwick-dangling.qvx")
        result = self.check_stored(f"{STORE}/tarnwick-link.qvx")
        self.assertEqual(os.path.getsize(target), LIMIT)
        self.assertEqual(self.world.stored(), sorted([f"tarnwick-{result.stamp}.qvx", "tarnwick-dangling.qvx"]))

    def test_still_above_the_limit_after_pruning(self):
        old = self.world.sparse("tarnwick-old.qvx", 5)
        # Brought over it by a capture that appears between the pruning and the last check.
        preboot = self.world.preboot
        self.world.answer("volctl info -plist Preboot", preboot,
                          Answer(preboot, do=f"truncate -s {LIMIT} {old}"),
                          Answer(preboot, do=f"truncate -s {LIMIT} {STORE}/tarnwick-new.qvx"))
        story = self.until_archived()
        story.destination()
        story.warning(PRUNING)
        story.warning(f"pruning {old}")
        story.destination()
        story.fatal("insufficient space on output volume for captured data")
        self.check(self.world.capture(), story, 1)
        self.assertEqual(self.world.stored(), ["tarnwick-new.qvx"])

    def test_taken_name_is_not_overwritten(self):
        self.world.answer("nvram -p", Answer(world.NVRAM, do=f'mkdir {STORE}; '
                                             f'echo old >{STORE}/"${{folder##*/}}.qvx"'))
        self.check_not_copied()
        self.assertEqual(world.read(f"{STORE}/{self.world.stored()[0]}"), "old\n")

    def test_dangling_link_under_the_name(self):
        self.world.answer("nvram -p", Answer(world.NVRAM, do=f'mkdir {STORE}; '
                                             f'ln -s /media/target {STORE}/"${{folder##*/}}.qvx"'))
        self.check_not_copied()
        self.assertFalse(os.path.exists("/media/target"))

    def check_not_copied(self):
        story = self.until_archived()
        story.destination()
        story.destination()
        story.fatal("an error occurred when copying archive to final destination")
        result = self.world.capture()
        self.check(result, story, 1)
        return result

    def check_no_capture_counts(self):
        summary = self.world.run("--summarize")
        self.assertEqual(summary.console, "Capture volume contains 0 captures:\n")

    def test_full_volume_leaves_nothing(self):
        self.world.lay("/media/preboot", "size=8k,mode=755")
        write("/media/preboot/filler", "x" * 8192)
        self.check_not_copied()
        self.assertEqual(self.world.stored(), [])
        self.check_no_capture_counts()

    def test_store_that_is_a_file(self):
        write(STORE, "in the way")
        self.library_error(self.until_archived())

    def test_read_only_volume(self):
        self.world.lay("/media/preboot", "ro")
        self.library_error(self.until_archived())

    def test_removal_refused(self):
        self.world.sparse("tarnwick-old.qvx", LIMIT)
        self.world.mount("/media/preboot", "/media/preboot", flags=world.MS_BIND)
        mount("none", "/media/preboot", flags=world.MS_REMOUNT | world.MS_BIND | world.MS_RDONLY)
        story = self.until_archived()
        story.warning(PRUNING)
        story.warning(f"pruning {STORE}/tarnwick-old.qvx")
        self.library_error(story)

    def library_error(self, story):
        """The message is the library's own, and comes once only."""
        result = self.world.capture()
        self.assertTrue(result.console.startswith(story.console + "FATAL ERROR: "), result.console)
        self.assertRegex(result.console[len(story.console):], r"\AFATAL ERROR: [^\n]+\n\n\Z")
        self.assertEqual((result.status, result.errors), (1, ""))

    def test_killed_in_the_middle_of_the_copy(self):
        """A limit on the size of files, set when the archive is complete, kills the copy at its fifth kilobyte."""
        limit = ('pid=$$; while [ "$(cat /proc/$pid/comm)" != tarnwick ]; do '
                 'pid=$(sed "s/.*) . //; s/ .*//" /proc/$pid/stat); done; prlimit --pid $pid --fsize=4096')
        preboot = self.world.preboot
        self.world.specification(("/logs", ".*"))
        self.world.volume("one", {"AutoSubmit": True})
        write("/media/one/logs/large", os.urandom(200_000))
        self.world.answer("volctl info -plist Preboot", preboot, preboot, Answer(preboot, do=limit), preboot)
        result = self.world.capture(limits=lambda: resource.setrlimit(resource.RLIMIT_CORE, (0, 0)))
        self.assertEqual(result.status, -signal.SIGXFSZ)
        self.assertTrue(os.path.getsize(result.temporary()) > 200_000)
        self.assertFalse(os.path.exists(result.archive))
        self.check_no_capture_counts()
        after = self.world.capture()
        self.assertEqual(after.status, 0)
        self.assertIn("contains 1 capture:", self.world.run("--summarize").console)

    def test_capture_goes_under_the_first_answers_mount_point(self):
        os.mkdir("/media/other")
        other = world.property_list({"MountPoint": "/media/other", "DeviceIdentifier": "disk5"})
        self.world.answer("volctl info -plist Preboot", self.world.preboot, other)
        self.world.sparse("tarnwick-old.qvx", LIMIT)  # not in the listing that counts
        result = self.world.capture()
        self.assertEqual(result.status, 0)
        self.assertEqual(self.world.stored(), sorted(["tarnwick-old.qvx", f"tarnwick-{result.stamp}.qvx"]))


class SummaryAndCleanup(Scenario):
    def says(self, argument, console, status=0):
        result = self.world.run(*argument.split())
        self.assertEqual((result.console, result.status, result.errors), (console, status, ""))

    def test_summary_of_every_size(self):
        sizes = {0: "0.00B", 1: "1.00B", 1023: "1023.00B", 1024: "1.00KB", 1536: "1.50KB", 1048575: "1024.00KB",
                 1048576: "1.00MB", 16777217: "16.00MB", 33570161: "32.01MB", 1079110534: "1.00GB",
                 1 << 40: "1.00TB"}
        for size, text in sizes.items():
            path = self.world.sparse("tarnwick-1.qvx", size)
            self.says("--summarize", f"Capture volume contains 1 capture:\n----\npath: {path}\ntotalbytes: {text}\n")

    def test_summary_comes_oldest_first(self):
        self.world.dated_store(("tarnwick-a.qvx", 5, 2022), ("tarnwick-b.qvx", 6, 2020), ("notes.qvx", 1, 2019))
        self.says("--summarize", f"Capture volume contains 2 captures:\n----\npath: {STORE}/tarnwick-b.qvx\n"
                  f"totalbytes: 6.00B\n----\npath: {STORE}/tarnwick-a.qvx\ntotalbytes: 5.00B\n")
        self.says("--cleanup", f"removing {STORE}/tarnwick-b.qvx\nremoving {STORE}/tarnwick-a.qvx\n")
        self.says("--cleanup", "")
        self.assertEqual(self.world.stored(), ["notes.qvx"])

    def test_summary_as_a_property_list(self):
        head = ('\n<?xml version="1.0" encoding="UTF-8"?>\n<!DOCTYPE plist PUBLIC "-//Vexlor//DTD PLIST 1.0//EN'
                'http://www.vexlor.com/DTDs/PropertyList-1.0.dtd">\n<plist version="1.0">\n    <array>\n')
        tail = "    </array>\n</plist>\n"
        self.says("--summarize --plist", head + tail)
        path = self.world.sparse("tarnwick-<a>&b.qvx", 1048575)
        self.says("--summarize --plist", f"{head}        <dict>\n            <key>path</key>\n"
                  f"            <string>{path}</string>\n            <key>totalbytes</key>\n"
                  f"            <string>1048575</string>\n        </dict>\n{tail}")

    def test_without_a_destination(self):
        self.world.answer("volctl info -plist Preboot", Answer("", 1))
        self.says("--summarize", "Capture volume contains 0 captures:\n")
        self.says("--cleanup", "")

    def test_cleanup_on_a_read_only_volume_ends_abnormally(self):
        path = self.world.sparse("tarnwick-old.qvx", 1)
        self.world.mount("/media/preboot", "/media/preboot", flags=world.MS_BIND)
        mount("none", "/media/preboot", flags=world.MS_REMOUNT | world.MS_BIND | world.MS_RDONLY)
        result = self.world.run("--cleanup")
        self.assertEqual((result.console, result.status), (f"removing {path}\n", -6))
        self.assertTrue(os.path.exists(path))

    def test_cleanup_takes_a_link_and_not_its_target(self):
        os.makedirs(STORE)
        os.symlink(write("/media/precious"), f"{STORE}/tarnwick-link.qvx")
        self.says("--cleanup --verbose", "TRACE: Running command: 'volctl info -plist \"Preboot\"'\nTRACE: result: 0\n"
                  f"TRACE: stdout: {self.world.preboot}\nremoving {STORE}/tarnwick-link.qvx\n")
        self.assertTrue(os.path.exists("/media/precious"))
        self.assertEqual(self.world.stored(), [])


if __name__ == "__main__":
    world.main()
