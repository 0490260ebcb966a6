"""The log and the console: order, flushing, locale, and what may stand in the log's way."""
import datetime
import os
import time

import world
from story import CaptureScenario
from world import YES, Answer, read, write


def only_log():
    [name] = (name for name in os.listdir("/tmp") if name.endswith(".log"))
    return world.normal(read("/tmp/" + name))


class Console(CaptureScenario):
    def test_every_line_is_out_before_a_command_blocks(self):
        """The unlocking waits for the passphrase: until it has one, console and log must already tell so."""
        os.mkfifo("/media/passphrase")
        locked = self.world.volume("locked", YES, mounted=False)
        self.world.answer("volctl zkfs unlockVolume disk1", Answer(do="cat /media/passphrase >/dev/null"))
        story = self.story()
        story.unlocking(locked)
        process = self.world.start_capture()
        # Opening waits for the reader, which the run starts only after both lines.
        with open("/media/passphrase", "w", encoding="utf-8"):
            lines = [process.stdout.readline().decode() for _ in story.console.splitlines()]
            self.assertEqual(world.normal("".join(lines)), story.console)
            self.assertEqual(only_log(), story.log)
        process.communicate(timeout=world.PATIENCE)
        self.assertEqual(process.returncode, 0)

    def test_locale_of_the_user_changes_nothing(self):
        """Neither a twelve-hour clock nor a decimal comma shows, and names in no encoding are found."""
        world.call("localedef", "-i", "sq_AL", "-f", "UTF-8", "/media/sq_AL.UTF-8")
        # The C library loses its copy of LOCPATH at every start, which is no leak of ours.
        locale = {"LOCPATH": "/media", "LC_ALL": "sq_AL.UTF-8", "ASAN_OPTIONS": "detect_leaks=0"}
        self.assertRegex(world.call("locale", "t_fmt", "decimal_point", env=locale), "%I.*\n,", "not in force")
        path = self.world.sparse("tarnwick-1.qvx", 1536)
        self.assertIn(f"path: {path}\ntotalbytes: 1.50KB\n", self.world.run("--summarize", environment=locale).console)
        self.world.specification(("/logs", ".*"))
        story = self.story(self.world.volume("one", YES))
        name = os.fsdecode(write(b"/media/one/logs/\xff.log"))
        story.volume(self.world.volumes[0], [name])
        story.archived()
        story.stored()
        os.remove(path)
        result = self.world.capture(environment=locale)
        self.check(result, story)

    def test_closed_standard_streams_are_not_taken_for_files(self):
        self.world.list_groups("no property list")
        process = self.world.start_capture(limits=lambda: os.closerange(1, 3))
        process.communicate(timeout=world.PATIENCE)
        self.assertEqual((process.returncode, only_log()), (1, self.story().log))

    def test_stamp_is_local_time_and_the_run_waits_its_second_out(self):
        before = int(time.time())
        self.world.answer(world.PREBOOT, Answer(status=1, do="touch /media/first"))
        result = self.world.capture(environment={"TZ": "UTC-05:30"})
        stamp = datetime.datetime.strptime(result.stamp + "+0530", "%Y-%m-%d-%H:%M:%S%z").timestamp()
        self.assertGreaterEqual(stamp, before)
        self.assertGreaterEqual(os.stat("/media/first").st_mtime, stamp + 1)

    def test_what_is_in_the_logs_way_is_left_alone(self):
        """Every log name of the next minute is taken: by links, by what is not our own, and by no files at all."""
        for place, error in (
                (lambda path: os.symlink("/media/precious", path), "Too many levels of symbolic links"),
                (lambda path: os.link("/tmp/precious", path), "Invalid argument"),
                (lambda path: os.chown(write(path, "planted"), 1000, 1000), "Invalid argument"),
                (os.mkdir, "Is a directory"),
                (os.mkfifo, "No such device or address")):
            with self.subTest(error):
                world.clear("/tmp")
                kept = [write(f"{folder}/precious", "old") for folder in ("/media", "/tmp")]
                now = datetime.datetime.now(datetime.timezone.utc)
                for second in range(world.PATIENCE):
                    place(f"/tmp/tarnwick-{now + datetime.timedelta(seconds=second):%Y-%m-%d-%H:%M:%S}.log")
                story = self.story(verbose=True, log_error=error)
                story.firmware()
                story.fatal("unable to create sublist")  # the empty path of the log copy
                result = self.world.capture("--verbose")
                self.assertEqual((result.console, result.status, result.errors), (story.console, 1, ""))
                self.assertEqual([read(path) for path in kept], ["old", "old"])


if __name__ == "__main__":
    world.main()
