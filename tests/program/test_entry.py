"""Options, modes and exit statuses."""
import os

import world
from world import Answer, Scenario, Story, write

NOT_ROOT = "This utility must run with sudo, e.g. 'sudo tarnwick'\n"
EMPTY = "Capture volume contains 0 captures:\n"


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

    def test_internal_builds_do_not_ask_for_root(self):
        self.world.allow_internal()
        os.chmod("/media/bin", 0o755)
        write("/media/calls", mode=0o666)
        self.world.answer("man tarnwick", "page")
        os.chmod("/media/answers/man tarnwick/turn", 0o666)
        self.says(["--help"], "page\n", limits=as_nobody)

    def test_policies_of_doubtful_origin_do_not_count(self):
        path = "/etc/tarnwick/internal-policies.plist"
        content = world.property_list({"com.vexlor.tarnwick": True})

        def link():
            write("/media/policies", content)
            os.remove(path)
            os.symlink("/media/policies", path)

        def integer():
            write(path, world.property_list({"com.vexlor.tarnwick": 1}))

        spoil = {"group": lambda: os.chmod(path, 0o664), "others": lambda: os.chmod(path, 0o646),
                 "owner": lambda: os.chown(path, 65534, 0), "type": integer, "link": link}
        for name, damage in spoil.items():
            with self.subTest(name):
                self.world.allow_internal()
                damage()
                self.says(["--capturespec"], NOT_ROOT, 255, limits=as_nobody)
                os.remove(path)

    def test_help_shows_the_manual_page(self):
        self.world.answer("man tarnwick", "TARNWICK(8)\n\nno line end")
        for arguments in (["--help"], ["-h"], ["--help", "--cleanup", "--summarize"], ["-x", "y", "-", "", "-h"]):
            self.says(arguments, "TARNWICK(8)\n\nno line end\n")
        self.says(["--verbose", "-h"], "TRACE: Running command: 'man tarnwick'\nTRACE: result: 0\n"
                  "TRACE: stdout: TARNWICK(8)\n\nno line end\nTARNWICK(8)\n\nno line end\n")

    def test_help_without_a_manual_page(self):
        self.world.answer("man tarnwick", Answer("half a page\n", 3))
        self.says(["-h"], "half a page\n\n", 1)
        self.says(["--verbose", "-h"], "TRACE: Running command: 'man tarnwick'\nTRACE: result: 768\n"
                  "TRACE: stdout: half a page\n\nhalf a page\n\n", 1)

    def test_program_path_is_an_argument_too(self):
        self.world.answer("man tarnwick", "page")
        self.says([], "page\n", argv0="--help")

    def test_unknown_options_and_stray_words_are_ignored(self):
        for arguments in (["--summarize", "--bogus", "-x", "word"], ["word", "", "-", "--summarize"],
                          ["--capturespec", "/nowhere", "--summarize"], ["--SUMMARIZE", "--summarize", "--testmode"]):
            self.says(arguments, EMPTY)

    def test_cleanup_goes_before_summary(self):
        self.world.sparse("tarnwick-1.qvx", 1)
        self.says(["--summarize", "--cleanup"], "removing /media/preboot/tarnwick/tarnwick-1.qvx\n")
        self.says(["--summarize"], EMPTY)

    def test_capturespec_is_checked_before_help(self):
        self.world.allow_internal()
        os.symlink("/media/nowhere", "/media/dangling")
        missing = "missing parameter to --capturespec <path>\n"
        self.says(["--capturespec"], missing, 1)
        self.says(["--capturespec", "--help"], missing, 1)
        for path in ("/nowhere", "/media", "/media/dangling", "/dev/null", ""):
            self.says(["--help", "--capturespec", path, "/media/calls"],
                      "--capturespec <path> is not a valid path\n", 1)

    def test_only_the_first_capturespec_counts(self):
        spec = self.world.specification()
        os.symlink(spec, "/media/a \"quoted\" \\ link")
        self.world.list_groups({"Containers": []})
        result = self.world.run("--capturespec", "/media/a \"quoted\" \\ link", "/nowhere", "--capturespec", "/media")
        story = Story(self.world)
        story.until_volumes(config='/media/a \\"quoted\\" \\\\ link')
        story.ending()
        self.check(result, story)

    def test_testmode_stores_below_tmp(self):
        self.world.specification()
        self.world.list_groups({"Containers": []})
        result = self.world.capture("--testmode")
        self.assertEqual(self.world.stored("/tmp/tarnwick"), [f"tarnwick-{result.stamp}.qvx"])
        self.assertEqual(self.world.calls(), ["volctl zkfs listGroups -plist", "nvram -p"])
        self.assertIn('final archive copied to "/tmp/tarnwick/tarnwick-STAMP.qvx"\n', result.console)
        summary = self.world.run("--testmode", "--summarize")
        self.assertTrue(summary.console.startswith("Capture volume contains 1 capture:\n"), summary.console)


if __name__ == "__main__":
    world.main()
