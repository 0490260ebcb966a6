"""The log and the console: order, flushing, locale, and what may stand in the log's way."""
import datetime
import os
import subprocess

import world
from world import Answer, Scenario, Story, read, write

YES = {"AutoSubmit": True}


class Console(Scenario):
    def setUp(self):
        super().setUp()
        self.world.specification()

    def empty_run(self):
        self.world.list_groups({"Containers": []})
        story = Story(self.world)
        story.until_volumes()
        story.ending()
        return story

    def test_every_line_is_out_before_a_command_blocks(self):
        """The unlocking waits for the passphrase: until it has one, console and log must already tell so."""
        os.mkfifo("/media/passphrase")
        self.world.volume("locked", YES, mounted=False)
        self.world.answer("volctl zkfs unlockVolume disk1", Answer(do="cat /media/passphrase >/dev/null"))
        process = self.world.start("--capturespec", "/media/spec.plist", stdin=subprocess.DEVNULL)
        story = Story(self.world)
        story.until_volumes()
        story.query(self.world.volumes[0])
        story.info("Volume 'locked' (disk1) is not mounted, will attempt to mount it.  You may be prompted for an "
                   "administrator passphrase...")
        story.trace("Running command: 'volctl zkfs unlockVolume disk1'")
        # Opening waits for the reader, which the run starts only after both lines.
        with open("/media/passphrase", "w", encoding="utf-8"):
            console = ""
            while len(console.splitlines()) < len(story.console.splitlines()):
                console = world.normal(console + process.stdout.readline().decode())
            self.assertEqual(console, story.console)
            log = next(name for name in os.listdir("/tmp") if name.endswith(".log"))
            self.assertEqual(world.normal(read("/tmp/" + log)), story.log)
        process.communicate(timeout=world.PATIENCE)
        self.assertEqual(process.returncode, 0)

    def test_question_is_out_before_the_answer_is_read(self):
        self.world.volume("one", {})
        process = self.world.start("--capturespec", "/media/spec.plist", stdin=subprocess.PIPE)
        while process.stdout.readline() != world.QUESTION.encode():
            self.assertIsNone(process.poll())
        out, _ = process.communicate(b"yes\n", timeout=world.PATIENCE)
        self.assertIn("Finished processing volume 'one'", out.decode())

    def test_users_locale_changes_no_byte(self):
        """Twelve-hour clock, grouped thousands, decimal comma: none of them may show."""
        os.makedirs("/media/locale")
        for name in ("en_US", "de_DE"):
            subprocess.run(["localedef", "-i", name, "-f", "UTF-8", f"/media/locale/{name}.UTF-8"], check=True)
        path = self.world.sparse("tarnwick-1.qvx", 1536)
        story = self.empty_run()
        for name in ("en_US.UTF-8", "de_DE.UTF-8"):
            # The C library loses its copy of LOCPATH at every start, which is no leak of ours.
            locale = {"LOCPATH": "/media/locale", "LC_ALL": name, "LANG": name, "LC_TIME": name,
                      "ASAN_OPTIONS": "detect_leaks=0"}
            probe = subprocess.run(["/usr/bin/date", "+%X"], env=locale, capture_output=True, check=True).stdout
            summary = self.world.run("--summarize", environment=locale)
            self.assertEqual(summary.console,
                             f"Capture volume contains 1 capture:\n----\npath: {path}\ntotalbytes: 1.50KB\n")
            if name.startswith("en"):
                self.assertRegex(probe.decode(), "[AP]M", "the locale is not in force")
            os.remove(path)
            result = self.world.capture(environment=locale)
            self.check(result, story)
            os.system("rm -rf /tmp/*")
            self.world.sparse("tarnwick-1.qvx", 1536)
            os.remove(result.archive)

    def test_names_in_no_encoding_are_found_in_every_locale(self):
        self.world.volume("one", YES)
        name = write(b"/media/one/logs/\xff.log")
        self.world.specification(("/logs", ".*"))
        process = self.world.start("--capturespec", "/media/spec.plist", environment={"LC_ALL": "C.UTF-8"})
        out, _ = process.communicate(timeout=world.PATIENCE)
        self.assertIn(b"\n" + name + b"\n", out)

    def test_closed_standard_streams_are_not_taken_for_files(self):
        self.world.list_groups("no property list")
        process = self.world.start("--capturespec", "/media/spec.plist", limits=lambda: os.closerange(1, 3))
        process.communicate(timeout=world.PATIENCE)
        self.assertEqual(process.returncode, 1)
        story = Story(self.world)
        story.opening()
        story.destination()
        story.folder()
        story.listing()
        log = next(name for name in os.listdir("/tmp") if name.endswith(".log"))
        self.assertEqual(world.normal(read("/tmp/" + log)), story.log)

    def test_stamp_is_local_time_and_the_run_waits_its_second_out(self):
        before = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0, tzinfo=None)
        self.empty_run()
        result = self.world.capture(environment={"TZ": "UTC-05:30"})
        stamp = datetime.datetime.strptime(result.stamp, "%Y-%m-%d-%H:%M:%S") - datetime.timedelta(hours=5, minutes=30)
        self.assertGreaterEqual(stamp, before)
        made = os.stat("/media/answers/volctl info -plist Preboot/turn").st_mtime
        folder = os.stat(os.path.dirname(os.path.dirname(result.temporary()))).st_mtime
        since = stamp.replace(tzinfo=datetime.timezone.utc).timestamp()
        self.assertGreaterEqual(min(made, folder), since + 1)

    def in_the_way(self, place, error):
        """Every log name of the next minutes is taken."""
        now = datetime.datetime.now(datetime.timezone.utc)
        for second in range(300):
            stamp = (now + datetime.timedelta(seconds=second)).strftime("%Y-%m-%d-%H:%M:%S")
            place(f"/tmp/tarnwick-{stamp}.log")
        self.world.list_groups({"Containers": []})
        result = self.world.capture("--verbose")
        story = Story(self.world, verbose=True)
        story.opening(log='""')
        story.console = story.console.replace(
            'Logging to ""\n', "WARNING: unable to open logfile at '\"/tmp/tarnwick-STAMP.log\"'' "
            f'errno={error}\nLogging to ""\n')
        story.destination()
        story.folder()
        story.listing()
        story.firmware()
        story.fatal("unable to create sublist")  # the empty path of the log copy
        self.assertEqual((result.console, result.status, result.errors), (story.console, 1, ""))

    def test_link_in_the_logs_way_is_not_followed(self):
        write("/media/precious", "old")
        self.in_the_way(lambda path: os.symlink("/media/precious", path), "Too many levels of symbolic links")
        self.assertEqual(read("/media/precious"), "old")

    def test_what_is_not_our_own_in_the_logs_way_is_not_truncated(self):
        write("/tmp/precious", "old")
        self.in_the_way(lambda path: os.link("/tmp/precious", path), "Invalid argument")
        self.assertEqual(read("/tmp/precious"), "old")
        os.system("rm -rf /tmp/tarnwick*")
        self.in_the_way(lambda path: os.chown(write(path, "planted"), 1000, 1000), "Invalid argument")

    def test_folder_in_the_logs_way(self):
        self.in_the_way(os.mkdir, "Is a directory")

    def test_fifo_in_the_logs_way_does_not_hold_the_run(self):
        now = datetime.datetime.now(datetime.timezone.utc)
        for second in range(300):
            os.mkfifo(f"/tmp/tarnwick-{(now + datetime.timedelta(seconds=second)):%Y-%m-%d-%H:%M:%S}.log")
        self.world.list_groups({"Containers": []})
        result = self.world.capture()
        self.assertIn('Logging to ""\n', result.console)
        self.assertEqual(result.status, 1)

    def test_errors_of_commands_pass_through(self):
        self.world.list_groups({"Containers": []})
        self.world.answer("volctl zkfs listGroups -plist", Answer(self.world.groups, do="echo beside >&2"))
        result = self.world.capture()
        self.assertEqual((result.errors, result.status), ("beside\n", 0))
        self.assertNotIn("beside", result.log)


if __name__ == "__main__":
    world.main()
