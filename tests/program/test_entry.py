"""Options, modes and exit statuses."""
import os
import shutil

import world
from story import CaptureScenario
from world import Answer, Scenario, write

NOT_ROOT = "This utility must run with sudo, e.g. 'sudo tarnwick'\n"
MISSING = "missing parameter to --capturespec <path>\n"
EMPTY = "Capture volume contains 0 captures:\n"
POLICIES = "/etc/tarnwick/internal-policies.plist"


def as_nobody():
    os.setresuid(65534, 65534, 65534)


class Entry(Scenario):
    def says(self, arguments, console, status=0, **more):
        result = self.world.run(*arguments, **more)
        self.assertEqual((result.console, result.status, result.errors), (console, status, ""), arguments)

    def test_root_is_asked_for_before_help(self):
        for arguments in ([], ["--help"], ["--summarize"], ["--cleanup"], ["--testmode", "--force"]):
            self.says(arguments, NOT_ROOT, 255, limits=as_nobody)
        self.assertEqual(self.world.calls(), [])

    def test_internal_builds_do_not_ask_for_root_where_the_policies_are_beyond_doubt(self):
        def link():
            shutil.move(POLICIES, "/media/policies")
            os.symlink("/media/policies", POLICIES)

        for damage, *says in (
                (lambda: None, MISSING, 1), (link, NOT_ROOT, 255),
                (lambda: os.chmod(POLICIES, 0o664), NOT_ROOT, 255), (lambda: os.chmod(POLICIES, 0o646), NOT_ROOT, 255),
                (lambda: os.chown(POLICIES, 65534, 0), NOT_ROOT, 255),
                (lambda: write(POLICIES, world.property_list({"com.vexlor.tarnwick": 1})), NOT_ROOT, 255)):
            self.world.allow_internal()
            damage()
            self.says(["--capturespec"], *says, limits=as_nobody)
            os.remove(POLICIES)

    def test_help_shows_the_manual_page(self):
        self.world.answer("man tarnwick", "TARNWICK(8)\n\nno line end")
        for arguments in (["--help"], ["-h"], ["--help", "--cleanup", "--summarize"], ["-x", "y", "-", "", "-h"]):
            self.says(arguments, "TARNWICK(8)\n\nno line end\n")
        self.says([], "TARNWICK(8)\n\nno line end\n", argv0="--help")  # the program's path is an argument too
        self.world.answer("man tarnwick", Answer("half a page\n", 3))
        self.says(["--verbose", "-h"], "TRACE: Running command: 'man tarnwick'\nTRACE: result: 768\n"
                  "TRACE: stdout: half a page\n\nhalf a page\n\n", 1)

    def test_unknown_options_and_stray_words_are_ignored(self):
        for arguments in (["--summarize", "--bogus", "-x", "word"], ["word", "", "-", "--summarize"],
                          ["--capturespec", "/nowhere", "--summarize"], ["--SUMMARIZE", "--summarize", "--testmode"]):
            self.says(arguments, EMPTY)

    def test_cleanup_goes_before_summary(self):
        path = self.world.sparse("tarnwick-1.qvx", 1)
        self.says(["--summarize", "--cleanup"], f"removing {path}\n")
        self.says(["--summarize"], EMPTY)

    def test_capturespec_is_checked_before_help(self):
        self.world.allow_internal()
        os.symlink("/media/nowhere", "/media/dangling")
        self.says(["--capturespec", "--help"], MISSING, 1)
        for path in ("/nowhere", "/media", "/media/dangling", "/dev/null", ""):
            self.says(["--help", "--capturespec", path, "/media/calls"],
                      "--capturespec <path> is not a valid path\n", 1)


class Internal(CaptureScenario):
    def test_only_the_first_capturespec_counts(self):
        link = "/media/a \"quoted\" \\ link"
        os.symlink("/media/spec.plist", link)
        story = self.story(config='/media/a \\"quoted\\" \\\\ link')
        story.archived()
        story.stored()
        self.check(self.world.run("--capturespec", link, "/nowhere", "--capturespec", "/media"), story)

    def test_testmode_stores_below_tmp(self):
        result = self.world.capture("--testmode")
        self.assertEqual(self.world.stored("/tmp/tarnwick"), [f"tarnwick-{result.stamp}.qvx"])
        self.assertEqual(self.world.calls(), ["volctl zkfs listGroups -plist", "nvram -p"])
        self.assertIn('final archive copied to "/tmp/tarnwick/tarnwick-STAMP.qvx"\n', result.console)
        self.assertIn("contains 1 capture:\n", self.world.run("--testmode", "--summarize").console)


if __name__ == "__main__":
    world.main()
