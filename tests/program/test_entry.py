# Options, modes and exit statuses.
import os

from world import PREBOOT, STORE, Answer, Scenario, write

POLICIES = "/etc/tarnwick/internal-policies.plist"


class Entry(Scenario):
    # Internal builds do not ask where the policies are beyond doubt; there, --capturespec comes before help.
    def test_root_is_required_before_anything_else(self):
        self.tarnwick("--help", "--cleanup", user=65534)
        for name, change in {
                "of another owner": lambda: os.chown(POLICIES, 65534, 0),
                "a link": lambda: (os.rename(POLICIES, POLICIES + "-"), os.symlink(POLICIES + "-", POLICIES))}.items():
            self.specification()
            change()
            self.note("policies", name)
            self.tarnwick("--testmode", user=65534)
            os.remove(POLICIES)
        self.specification()
        self.tarnwick("--capturespec", "--help", user=65534)
        for path in "/nowhere", "/dev/null":
            self.tarnwick("--help", "--capturespec", path, "/media/spec.plist")

    def test_help_shows_the_manual_page(self):
        self.answer("man tarnwick", "TARNWICK(8)\n\nno line end", Answer("half a page\n", 3))
        self.tarnwick("--help")
        self.tarnwick("-x", "y", "-", "", "--verbose", "-h", "--cleanup", "--summarize")

    def test_unknown_options_and_stray_words_are_ignored(self):
        write(f"{STORE}/tarnwick-1.qvx", "x")
        for words in "--SUMMARIZE --bogus word --summarize --testmode", "- --summarize --cleanup":
            self.tarnwick(*words.split())
        self.answer(PREBOOT, Answer("", 1))
        self.tarnwick("--summarize")

    def test_only_the_first_capturespec_counts_and_testmode_stores_below_tmp(self):
        self.specification()
        link = "/media/a \"quoted\" \\ link"
        os.symlink("/media/spec.plist", link)
        result = self.tarnwick("--testmode", "--capturespec", link, "/nowhere", "--capturespec", "/media")
        os.truncate(result.archive, 6)
        self.tarnwick("--testmode", "--summarize")
