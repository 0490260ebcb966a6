# The log and the console: order, flushing, and files that have the log's name.
import datetime
import glob
import os

import world
from world import SPECIFIED, YES, Answer, Scenario, read, write


# Calls `place` with every log name of the next two minutes. What identifies the file that each has then.
def plant(place):
    now = datetime.datetime.now(datetime.timezone.utc)
    paths = [f"/tmp/tarnwick-{now + datetime.timedelta(seconds=second):%Y-%m-%d-%H:%M:%S}.log" for second in range(120)]
    for path in paths:
        place(path)
    return {path: os.lstat(path)[:7] for path in paths}


class Console(Scenario):
    def setUp(self):
        super().setUp()
        self.specification(("/logs", ".*"))

    # Console and log must report the unlocking while it waits for the passphrase.
    def test_lines_are_flushed_before_a_command_blocks(self):
        os.mkfifo("/media/passphrase")
        self.volume("locked", YES, mounted=False)
        self.answer("volctl zkfs unlockVolume disk1", Answer(do="cat /media/passphrase >/dev/null"))
        process = self.start(*SPECIFIED)
        # Opening waits for the reader, which the run starts only after both lines.
        with open("/media/passphrase", "w", encoding="utf-8"):
            self.note("said", os.read(process.stdout.fileno(), 1 << 16).decode())
            self.note("log", read(*glob.glob("/tmp/*.log")))
        process.communicate()

    # Every log name of the next minutes is in use. The run succeeds and writes a new log.
    def test_existing_files_with_the_name_of_the_log_are_kept(self):
        for name, place in (
                ("a link", lambda path: os.symlink("/media/precious", path)),
                ("a hard link", lambda path: os.link("/tmp/precious", path)),
                ("a file of another user", lambda path: os.chown(write(path), 1000, 1000)),
                ("a folder", os.mkdir), ("a FIFO", os.mkfifo)):
            world.clear("/tmp")
            precious = [write(f"{folder}/precious", "old") for folder in ("/media", "/tmp")]
            planted = plant(place)
            result = self.tarnwick(*SPECIFIED)
            log = f"/tmp/tarnwick-{result.stamp}.log"
            [kept] = glob.glob(log + ".*")
            self.assertEqual((result.status, os.lstat(kept)[:7]), (0, planted[log]), name)
            self.assertEqual((os.lstat(log).st_mode, os.lstat(log).st_uid), (0o100644, 0))
            self.assertIn("TRACE: Running command: 'volctl info", read(log))
            self.assertEqual([*map(read, precious)], ["old", "old"])
            os.remove(result.archive)
        self.record = ""  # it has all the planted files

    def test_archived_log_is_not_the_file_that_replaced_it(self):
        self.answer("nvram -p", Answer(do="for log in /tmp/*.log; do mv $log /tmp/moved; echo planted >$log; done"))
        result = self.capture()
        log = os.path.basename(result.temporary).replace(".qvx", ".log")
        copy = self.qvx("cat", "--key", self.key, result.archive, os.path.join(os.path.dirname(result.temporary), log))
        self.assertEqual(copy, read("/tmp/moved"))
