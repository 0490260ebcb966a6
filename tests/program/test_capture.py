# Captures from end to end: what is printed, what is logged, what is archived.
import os
import signal

import world
from world import NO, YES, Scenario, content, read, write

LOGS = ("/logs", ".*/[a-z]*.log")


class Capture(Scenario):
    # The walk is backwards, the directives as well as the volumes, and a volume that is skipped keeps the files of
    # an earlier one. Neither the caller's umask nor its signals change anything, and the system's commands are found
    # whatever PATH is inherited.
    def test_of_two_volumes_the_last_reaches_the_archive(self):
        self.specification(LOGS, ("/crash", ".*"))
        self.volume("denied", NO, ["/logs/no.log"])
        self.volume("last", YES, ["/logs/a.log", "/crash/core"])
        self.volume("first", YES, ["/logs/b.log", "/logs/other.txt"])
        result = self.capture("--verbose", "--noninteractive", environment={"PATH": "/media/bin"}, limits=lambda: (
            os.umask(0), signal.signal(signal.SIGCHLD, signal.SIG_IGN)))
        folder, name = os.path.split(result.temporary)
        for inside, outside in ((f"{folder}/tarnwick-{result.stamp}.log", f"/tmp/tarnwick-{result.stamp}.log"),
                                (f"{folder}/nvram.txt", f"{folder}/nvram.txt"), ("/media/last/crash/core",) * 2):
            self.assertEqual(self.qvx("cat", "--key", self.key, result.archive, inside), read(outside))
        self.assertEqual((read(f"{folder}/nvram.txt"), name), ("boot-args\t-v\n", os.path.basename(result.archive)))
        self.assertEqual(content(result.temporary), content(result.archive))

    def test_internal_configuration(self):
        self.volume("one", YES, ["/private/var/log/wifi-1", "/private/var/tmp/hostdump_1", "/Library/Logs/x.crash",
                                 "/Library/Logs/DiagnosticReports/a.crash"])
        self.key = f"{world.BIN}/../dev-recipient.pem"
        self.tarnwick()

    # A double slash leaves the volume; names in no encoding are found; expressions are POSIX basic, whatever find
    # prefers; a search that fails discards what it found.
    def test_directives(self):
        self.specification(LOGS, ("logs", ".*/a.*"), ("//media/out/side", ".*"), ("/logs/a.log", ".*"),
                           ("/logs", ".*/b\\{2\\}.txt"), ("/logs", ".*/b+.txt"),
                           ("/logs", ".*' -print -exec false {} + -name '*"), ("/odd", ".*"))
        self.volume("one", YES, ["/logs/a.log", "/logs/bb.txt", "/logs/b+.txt"])
        for path in "/media/out/x.log", "/media/out/side/y.log", "/media/one/odd/\udcff.log":
            write(path)
        self.capture(environment={"LC_ALL": "C.UTF-8"})

    # No array: nothing to search. A base path outside ASCII counts as empty, which ends the run abnormally.
    def test_entries_of_the_wrong_kind(self):
        self.volume("one", YES, ["/logs/a.log"])
        for entries in {"BasePath": "/logs"}, [{"BasePath": "/logs"}, "word", 7, {"BasePath": "/\u00fc"}]:
            self.specification(CaptureSpec=entries)
            self.capture()
