"""Captures from end to end: what is said, what is logged, what is archived."""
import filecmp
import os
import signal
import subprocess

import world
from story import INTRODUCTION, CaptureScenario
from world import FOLDER, NO, YES, Answer, normal, property_list, read, write

LOGS = ("/logs", ".*/[a-z]*.log")


class Capture(CaptureScenario):
    def test_of_two_volumes_only_the_last_reaches_the_archive(self):
        """The walk is backwards, the directives as well as the volumes. What the caller hands down changes nothing."""
        self.world.specification(LOGS, ("/crash", ".*"))
        first = self.world.volume("first", YES, ["/logs/a.log", "/crash/core"])
        second = self.world.volume("second", YES, ["/logs/b.log", "/logs/other.txt"])
        for mask, *words in (0o077, "--verbose"), (0,):
            story = self.story(second, first, verbose=bool(words))
            story.volume(second, None, ["/media/second/logs/b.log"])
            story.volume(first, ["/media/first/crash/core"], ["/media/first/logs/a.log"])
            result = self.captured(story, *words, limits=lambda mask=mask: (
                os.umask(mask), signal.signal(signal.SIGCHLD, signal.SIG_IGN)))
            self.assertEqual(os.stat(world.STORE).st_mode & 0o777, 0o755)
            self.assertEqual(os.stat(result.archive).st_mode & 0o777, 0o644)
        temporary, log = result.temporary(), f"tarnwick-{result.stamp}.log"
        folder = os.path.dirname(temporary)
        self.assertEqual(self.world.content(result.archive, f"{folder}/{log}"), read(f"/tmp/{log}"))
        self.assertEqual(self.world.content(result.archive, folder + "/nvram.txt"), world.NVRAM)
        self.assertTrue(filecmp.cmp(temporary, result.archive, shallow=False))
        self.assertEqual(os.stat(temporary).st_mode & 0o777, 0o644)
        self.assertEqual(sorted(os.listdir(folder)), ["nvram.txt", log, os.path.basename(temporary)])

    def test_volume_that_is_skipped_keeps_the_files_of_an_earlier_one(self):
        self.world.specification(LOGS)
        denied = self.world.volume("denied", NO, ["/logs/no.log"])
        missing = self.world.volume("missing", None, ["/logs/no.log"])
        good = self.world.volume("good", YES, ["/logs/a.log"])
        story = self.story(good, missing, denied, noninteractive=True)
        story.volume(good, ["/media/good/logs/a.log"])
        story.unread(missing, "missing file")
        story.volume(denied, verdict="EXPLICITLY DENIED")
        self.captured(story, "--noninteractive", "word", "--noninteractive", answers="yes\n")

    def test_internal_configuration(self):
        names = ["/private/var/log/wifi-1", "/private/var/tmp/hostdump_1", "/Library/Logs/DiagnosticReports/a.crash"]
        self.world.volume("one", YES, names)
        result = self.world.run()
        self.assertTrue(result.console.startswith("using internal config\n" + INTRODUCTION), result.console)
        self.assertEqual(result.log.count("TRACE: DocString: "), 12)
        for name in names:
            self.assertIn(f"\n/media/one{name}\n", result.console)
        self.assertTrue(os.path.getsize(result.archive))


class Directives(CaptureScenario):
    def one_volume(self, *found, files=("/logs/a.log",)):
        story = self.story(self.world.volume("one", YES, files))
        story.volume(self.world.volumes[0], *found)
        return story

    def find_says(self, answer):
        self.world.stand_in("find")
        self.world.answer("find /media/one/logs -type f -regex .*", answer)

    def test_base_paths_and_expressions(self):
        """A double slash leaves the volume; expressions are POSIX basic, whatever find prefers."""
        basic = "-regextype posix-basic "
        self.world.specification(LOGS, ("logs", ".*/a.*"), ("//media/out/side", ".*"), ("/logs/a.log", ".*"),
                                 ("/logs", ".*/b\\{2\\}.txt", basic), ("/logs", ".*/b+.txt", basic))
        write("/media/out/x.log")
        write("/media/out/side/y.log")
        log = "/media/one/logs/a.log"
        self.captured(self.one_volume(["/media/one/logs/b+.txt"], ["/media/one/logs/bb.txt"], None,
                                      ["/media/out/side/y.log"], [log], [log],
                                      files=["/logs/a.log", "/logs/bb.txt", "/logs/b+.txt"]))

    def test_failing_find_discards_its_directive_only(self):
        self.world.specification(("/logs", ".*"), ("/bad", ".*"))
        good, bad = Answer("/media/one/logs/a.log"), Answer("/media/one/bad/x\n", 1, "echo oh >&2")
        self.find_says(good)
        self.world.answer("find /media/one/bad -type f -regex .*", bad)
        self.captured(self.one_volume(bad, good, files=["/logs/a.log", "/bad/x"]), errors="oh\n")

    def test_whatever_cannot_be_listed_ends_the_run_without_an_archive(self):
        self.world.specification(("/logs", ".*"))
        log, gone, pipe = (f"/media/one/logs/{name}" for name in ("a.log", "gone", "pipe"))
        volume = self.world.volume("one", YES, ["/logs/a.log"])
        os.mkfifo(pipe)
        for out in (f"{gone}\n", f"{log}\n\n{log}\n", f"{pipe}\n"):
            with self.subTest(out):
                self.find_says(out)
                story = self.story(volume)
                story.volume(volume, Answer(out))
                story.firmware()
                self.fails(story, "unable to create sublist")
                left = subprocess.getoutput("echo /tmp/tarnwick.*/*/*")
                self.assertEqual(normal(left), f"{FOLDER}/nvram.txt {FOLDER}/tarnwick-STAMP.log")
                world.clear("/tmp")

    def test_entries_of_the_wrong_kind(self):
        self.world.specification(CaptureSpec={"BasePath": "/logs"})  # no array: nothing to search
        self.captured(self.one_volume())
        entries = [{"BasePath": "/logs", "Expression": ".*"}, "word", 7, {"BasePath": "/\u00fc"}]
        write("/media/spec.plist", property_list({"CaptureSpec": entries, "archive_public_key": self.world.key_pair()}))
        story = self.story(*self.world.volumes)
        story.processing(*self.world.volumes)
        story.consent(*self.world.volumes, "GRANTED")
        story.info("Capturing: ")
        for text in ("#" * 32, "DocString: ", "BasePath: ", "Expression: "):
            story.trace(text)
        # A base path outside ASCII counts as empty, and an empty one ends the run abnormally.
        result = self.world.capture()
        self.check(result, story, -signal.SIGABRT, result.errors)


if __name__ == "__main__":
    world.main()
