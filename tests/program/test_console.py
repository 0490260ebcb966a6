"""The log and the console: order, flushing, locale, and what may stand in the log's way."""
import datetime
import os
import time

import world
from world import YES, Answer, Scenario, read, write


def only_log():
    [name] = (name for name in os.listdir("/tmp") if name.endswith(".log"))
    return read("/tmp/" + name)


class Console(Scenario):
    def setUp(self):
        super().setUp()
        self.specification(("/logs", ".*"))

    def test_every_line_is_out_before_a_command_blocks(self):
        """The unlocking waits for the passphrase: until it has one, console and log must already tell so."""
        os.mkfifo("/media/passphrase")
        self.volume("locked", YES, mounted=False)
        self.answer("volctl zkfs unlockVolume disk1", Answer(do="cat /media/passphrase >/dev/null"))
        process = self.start("--capturespec", "/media/spec.plist")
        # Opening waits for the reader, which the run starts only after both lines.
        with open("/media/passphrase", "w", encoding="utf-8"):
            self.note("said", os.read(process.stdout.fileno(), 1 << 16).decode())
            self.note("log", only_log())
        process.communicate()

    def test_locale_of_the_user_changes_nothing(self):
        """Neither a twelve-hour clock nor a decimal comma shows, and names in no encoding are found."""
        world.call("localedef", "-i", "sq_AL", "-f", "UTF-8", "/media/sq_AL.UTF-8")
        # The C library loses its copy of LOCPATH at every start, which is no leak of ours.
        locale = {"LOCPATH": "/media", "LC_ALL": "sq_AL.UTF-8", "ASAN_OPTIONS": "detect_leaks=0"}
        self.assertRegex(world.call("locale", "t_fmt", "decimal_point", env=locale), "%I.*\n,", "not in force")
        self.volume("one", YES)
        write("/media/one/logs/\udcff.log")
        os.remove(self.capture(environment=locale).archive)
        write(f"{world.STORE}/tarnwick-1.qvx", b"x" * 1536)
        self.tarnwick("--summarize", environment=locale)

    def test_closed_standard_streams_are_not_taken_for_files(self):
        """What the library says of an abnormal end does not land in the log."""
        self.volume("one", YES)
        self.specification(CaptureSpec=[{"BasePath": ""}])
        process = self.start("--capturespec", "/media/spec.plist", limits=lambda: os.close(2))
        process.communicate()
        self.assertEqual(process.returncode, -6)
        self.note("log", only_log())

    def test_stamp_is_local_time_and_the_run_waits_its_second_out(self):
        before = int(time.time())
        self.answer(world.PREBOOT, Answer(status=1, do="touch /media/first"))
        result = self.capture(environment={"TZ": "UTC-05:30"})
        stamp = datetime.datetime.strptime(result.stamp + "+0530", "%Y-%m-%d-%H:%M:%S%z").timestamp()
        self.assertGreaterEqual(stamp, before)
        self.assertGreaterEqual(os.stat("/media/first").st_mtime, stamp + 1)

    def test_what_is_in_the_logs_way_is_left_alone(self):
        """Every log name of the next minutes is taken: by links, by what is not our own, and by no files at all."""
        for place in (lambda path: os.symlink("/media/precious", path), lambda path: os.link("/tmp/precious", path),
                      lambda path: os.chown(write(path, "planted"), 1000, 1000), os.mkdir, os.mkfifo):
            world.clear("/tmp")
            kept = [write(f"{folder}/precious", "old") for folder in ("/media", "/tmp")]
            now = datetime.datetime.now(datetime.timezone.utc)
            for second in range(120):
                place(f"/tmp/tarnwick-{now + datetime.timedelta(seconds=second):%Y-%m-%d-%H:%M:%S}.log")
            process = self.start("--capturespec", "/media/spec.plist", "--verbose")
            self.note("said", process.communicate()[0].decode())
            self.assertEqual([process.returncode, *map(read, kept)], [1, "old", "old"])
