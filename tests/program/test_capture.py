"""Captures from end to end: what is said, what is logged, what is archived."""
import filecmp
import os
import signal
import subprocess

import world
from world import FOLDER, Answer, Scenario, Story, normal, property_list, read, write

YES, NO = {"AutoSubmit": True}, {"AutoSubmit": False}
LOGS = ("/logs", ".*/[a-z]*.log")


class Capture(Scenario):
    def two_volumes(self):
        self.world.specification(LOGS, ("/crash", ".*"))
        first = self.world.volume("first", YES, ["/logs/a.log", "/crash/core"])
        return first, self.world.volume("second", YES, ["/logs/b.log", "/logs/other.txt"])

    def tell_two_volumes(self, story, first, second):
        """The walk is backwards: the directives as well as the volumes."""
        logs, crash = self.world.directives
        story.until_volumes(second, first)
        story.processing(second)
        story.consent(second)
        story.absent(crash)
        story.search("/media/second/logs", logs, "/media/second/logs/b.log")
        story.finished(second)
        story.granted(first, (crash, "/media/first/crash/core"), (logs, "/media/first/logs/a.log"))
        story.ending()

    def test_two_consenting_volumes_only_the_last_reaches_the_archive(self):
        volumes = self.two_volumes()
        result = self.world.capture()
        story = Story(self.world)
        self.tell_two_volumes(story, *volumes)
        self.check(result, story)
        self.check_archive(result, story)
        log = f"/tmp/tarnwick-{result.stamp}.log"
        temporary = result.temporary()
        self.assertEqual(self.world.content(result.archive, temporary.replace(".qvx", ".log")), read(log))
        self.assertEqual(self.world.content(result.archive, os.path.dirname(temporary) + "/nvram.txt"), world.NVRAM)
        self.assertTrue(filecmp.cmp(temporary, result.archive, shallow=False))
        self.assertEqual(os.stat(temporary).st_mode & 0o777, 0o644)
        self.assertEqual(sorted(os.listdir(os.path.dirname(temporary))),
                         ["nvram.txt", os.path.basename(log), os.path.basename(temporary)])

    def test_verbose_shows_every_trace_line(self):
        volumes = self.two_volumes()
        result = self.world.capture("--verbose")
        story = Story(self.world, verbose=True)
        self.tell_two_volumes(story, *volumes)
        self.check(result, story)

    def test_what_the_caller_hands_down_changes_nothing(self):
        self.two_volumes()
        for mask in (0, 0o077):
            result = self.world.capture(
                limits=lambda mask=mask: (os.umask(mask), signal.signal(signal.SIGCHLD, signal.SIG_IGN)))
            self.assertEqual(result.status, 0)
            self.assertEqual(os.stat(result.archive).st_mode & 0o777, 0o644)
            self.assertEqual(os.stat(os.path.dirname(result.archive)).st_mode & 0o777, 0o755)

    def test_later_denied_volume_keeps_the_files_of_an_earlier_one(self):
        self.world.specification(LOGS)
        denied = self.world.volume("denied", NO, ["/logs/no.log"])
        missing = self.world.volume("missing", None, ["/logs/no.log"])
        good = self.world.volume("good", YES, ["/logs/a.log"])
        result = self.world.capture("--noninteractive")
        story = Story(self.world)
        story.until_volumes(good, missing, denied, noninteractive=True)
        story.granted(good, (self.world.directives[0], "/media/good/logs/a.log"))
        story.processing(missing)
        story.trace("checking consent for /media/missing")
        story.warning(f"consent check failed: missing file - /media/missing/{world.CONSENT}")
        story.warning("failed to check consent on 'missing', skipping...")
        story.processing(denied)
        story.consent(denied, "EXPLICITLY DENIED")
        story.denied(denied)
        story.ending()
        self.check(result, story)
        self.check_archive(result, story)

    def test_nothing_to_search_still_makes_an_archive(self):
        self.world.specification(LOGS)
        self.world.list_groups({"Containers": []})
        result = self.world.capture()
        story = Story(self.world)
        story.until_volumes()
        story.ending()
        self.check(result, story)
        self.check_archive(result, story)

    def test_files_listed_twice_are_archived_twice(self):
        self.world.specification(LOGS, ("logs", ".*/a.*"))
        volume = self.world.volume("one", YES, ["/logs/a.log"])
        result = self.world.capture()
        story = Story(self.world)
        story.until_volumes(volume)
        story.processing(volume)
        story.consent(volume)
        for directive in reversed(self.world.directives):
            story.search("/media/one/logs", directive, "/media/one/logs/a.log")
        story.finished(volume)
        story.ending()
        self.check(result, story)
        self.check_archive(result, story)

    def test_internal_configuration_walks_twelve_directives_backwards(self):
        names = ["/private/var/log/system.log", "/private/var/log/install.log", "/private/var/tmp/hostdump_1",
                 "/private/var/tmp/kernel_panics/p", "/Library/Logs/DiagnosticReports/panic-1",
                 "/Library/Logs/DiagnosticReports/a.crash", "/private/var/log/wifi-1"]
        volume = self.world.volume("one", YES, names)
        result = self.world.run()
        log, tmp, reports = "/private/var/log", "/private/var/tmp", "/Library/Logs/DiagnosticReports"
        directives = [
            (log, r".*\/system.log", "system log (single file)"), (log, r".*\/install.log", "installer log (single file)"),
            (tmp, r".*\/hostdump_.*", 'any hostdump (files starting with "hostdump_" in /var/tmp)'),
            (tmp + "/kernel_panics", ".*", "all files under /var/tmp/kernel_panics"),
            (reports, r".*\/panic-.*", 'all panic logs (files that start with "panic-")'),
            (reports, r".*\/*.crash.*", 'all crash logs (files that end up with "crash")'),
            (reports, r".*\/*.ips.*", 'all IPS logs (files that end up with "ips")'),
            (reports, r".*\/*.diag.*", 'all DIAG logs (files that end up with "diag")'),
            (reports, r".*\/*.spin.*", 'all spin logs (files that end up with "spin")'),
            (reports, r".*\/panic.*.panic", "all panic logs (for panic debug)"),
            ("/Library/Logs/FaultKeeper", ".*", "all files under FaultKeeper"),
            (log, r".*\/wifi.*", 'all files in /var/log starting with "wifi"')]
        found = {0: [names[0]], 1: [names[1]], 2: [names[2]], 3: [names[3]], 4: [names[4]], 5: [names[5]],
                 11: [names[6]]}
        story = Story(self.world)
        story.until_volumes(volume, config=None)
        story.processing(volume)
        story.consent(volume)
        for row in range(11, -1, -1):
            if row == 10:
                story.absent(directives[row])
            else:
                paths = ["/media/one" + name for name in found.get(row, ())]
                story.search("/media/one" + directives[row][0], directives[row], *paths)
        story.finished(volume)
        story.ending()
        self.check(result, story)


class Directives(Scenario):
    def run_with(self, tell, *directives, files=("/logs/a.log",), **more):
        self.world.specification(*directives)
        volume = self.world.volume("one", YES, files)
        result = self.world.capture(**more)
        story = Story(self.world)
        story.until_volumes(volume)
        story.processing(volume)
        story.consent(volume)
        tell(story, *self.world.directives)
        story.finished(volume)
        return result, story

    def complete(self, *arguments, **more):
        result, story = self.run_with(*arguments, **more)
        story.ending()
        self.check(result, story)
        self.check_archive(result, story)

    def test_double_slash_leaves_the_mount_point(self):
        write("/media/outside/x.log")
        write("/media/outside/sub/y.log")
        self.complete(lambda story, each: story.search("/media/outside/sub", each, "/media/outside/sub/y.log"),
                      ("//media/outside/sub", ".*"))

    def test_relative_base_path_and_base_that_is_no_directory(self):
        def tell(story, relative, no_directory):
            story.absent(no_directory)
            story.search("/media/one/logs", relative, "/media/one/logs/a.log")

        self.complete(tell, ("logs", ".*"), ("/logs/a.log", ".*"))

    def test_expressions_are_posix_basic_whatever_find_prefers(self):
        files = ["/logs/aa.log", "/logs/a+.log"]
        basic = "-regextype posix-basic "

        def tell(story, interval, plus):
            story.search("/media/one/logs", plus, "/media/one/logs/a+.log", dialect=basic)
            story.search("/media/one/logs", interval, "/media/one/logs/aa.log", dialect=basic)

        self.complete(tell, ("/logs", ".*/a\\{2\\}.log"), ("/logs", ".*/a+.log"), files=files)

    def test_failing_find_discards_its_directive_only(self):
        self.world.stand_in("find")
        self.world.answer("find /media/one/bad -type f -regex .*", Answer("/media/one/bad/x\n", 1, "echo oh >&2"))
        self.world.answer("find /media/one/logs -type f -regex .*", "/media/one/logs/a.log")

        def tell(story, logs, bad):
            story.search("/media/one/bad", bad, out="/media/one/bad/x\n", status=1)
            story.search("/media/one/logs", logs, "/media/one/logs/a.log", out="/media/one/logs/a.log")

        result, story = self.run_with(tell, ("/logs", ".*"), ("/bad", ".*"), files=("/logs/a.log", "/bad/x"))
        story.ending()
        self.check(result, story, errors="oh\n")
        self.check_archive(result, story)

    def lost_file(self, out, *found):
        """Whatever cannot be listed for the archive ends the run, with no archive left."""
        self.world.stand_in("find")
        self.world.answer("find /media/one/logs -type f -regex .*", out)
        result, story = self.run_with(lambda story, each: story.search("/media/one/logs", each, *found, out=out),
                                      ("/logs", ".*"))
        story.firmware()
        story.fatal("unable to create sublist")
        self.check(result, story, 1)
        self.assertEqual(self.world.stored(), [])
        left = subprocess.run("echo /tmp/tarnwick.*/*/*", shell=True, capture_output=True, check=True).stdout.decode()
        self.assertEqual(normal(left), f"{FOLDER}/nvram.txt {FOLDER}/tarnwick-STAMP.log\n")

    def test_vanished_file(self):
        self.lost_file("/media/one/logs/gone\n", "/media/one/logs/gone")

    def test_empty_line_is_an_entry(self):
        self.lost_file("/media/one/logs/a.log\n\n/media/one/logs/a.log\n", "/media/one/logs/a.log", "",
                       "/media/one/logs/a.log")

    def test_neither_file_nor_link_nor_directory(self):
        os.mkfifo("/media/pipe")
        self.lost_file("/media/pipe\n", "/media/pipe")

    def test_specification_entries_of_the_wrong_kind(self):
        self.world.specification()
        spec = {"CaptureSpec": [{"BasePath": "/logs", "Expression": ".*"}, "word", 7, {"BasePath": "/\u00fc"}],
                "archive_public_key": self.world.key_pair()}
        volume = self.world.volume("one", YES, ["/logs/a.log"])
        write("/media/spec.plist", property_list(spec))
        result = self.world.capture()
        self.assertEqual(result.status, -signal.SIGABRT)  # the base path outside ASCII counts as empty
        story = Story(self.world)
        story.until_volumes(volume)
        story.processing(volume)
        story.consent(volume)
        story.heading(("", "", ""))
        self.assertEqual((result.console, result.log), (story.console, story.log))

    def test_empty_base_path_does_no_harm_where_nothing_is_granted(self):
        self.world.specification(("", ".*"))
        volume = self.world.volume("one", NO)
        result = self.world.capture("--noninteractive")
        story = Story(self.world)
        story.until_volumes(volume, noninteractive=True)
        story.processing(volume)
        story.consent(volume, "EXPLICITLY DENIED")
        story.denied(volume)
        story.ending()
        self.check(result, story)

    def test_specification_that_is_no_array(self):
        self.world.specification(CaptureSpec={"BasePath": "/logs"})
        volume = self.world.volume("one", YES)
        result = self.world.capture()
        story = Story(self.world)
        story.until_volumes(volume)
        story.granted(volume)
        story.ending()
        self.check(result, story)


if __name__ == "__main__":
    world.main()
