"""Each word that the completion offers is one that the program knows, and none of its long options is left out."""
import os
import re
import subprocess
import tempfile
import unittest

import world

TOP = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")
OFFER = """source "$1" && shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
compopt() { :; }
"_$1"
printf '%s\\n' "${COMPREPLY[@]}"
"""
COMMANDS = [("qvx",), *(("qvx", each) for each in "create list verify extract cat info keygen".split()),
            ("volctl",), ("volctl", "list"), ("volctl", "info"), ("volctl", "zkfs"),
            *(("volctl", "zkfs", each) for each in "listGroups unlockVolume lockVolume".split())]


def offered(*words):
    out = subprocess.run(["bash", "-c", OFFER, "bash", f"{TOP}/completion/{words[0]}", *words], check=True,
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True).stdout
    return set(out.split())


def known(*words):
    """The long options and the commands that the program's own help names."""
    words = [f"{world.BIN}/{words[0]}", *words[1:], "--help"]
    text = subprocess.run(words, check=True, stdout=subprocess.PIPE, text=True).stdout
    _, _, commands = text.partition("Subcommands:\n")
    return set(re.findall(r"--[a-z0-9-]+", text.replace("-plist)", ""))) | set(re.findall(r"^  (\w+)", commands, re.M))


class Completion(unittest.TestCase):
    def test_words_of_the_companions(self):
        for words in COMMANDS:
            with self.subTest(words):
                more = offered(*words, "") if words[-1] in ("qvx", "volctl", "zkfs") else set()
                self.assertEqual((offered(*words, "-") | more) - {"-plist"}, known(*words))

    def test_words_of_the_main_program(self):
        with open(f"{TOP}/man/tarnwick.8", encoding="utf-8") as page:
            general, _, internal = page.read().partition("On internal builds")
        options = {f"--{name}" for name in re.findall(r"\.It Fl -(\w+)", general)}
        self.assertEqual(offered("tarnwick", "-"), options)
        self.assertIn("--plist", offered("tarnwick", "--summarize", "-"))
        self.assertIn("-capturespec", internal)  # and none of those is offered

    def test_files(self):
        with tempfile.TemporaryDirectory() as folder:
            for name in ("a.pem", "a.pub", "a.qvx", "a.txt"):
                world.write(f"{folder}/{name}")
            for before, name in ((("list", "--key"), "a.pem"), (("create", "-r"), "a.pub"), (("info",), "a.qvx"),
                                 (("extract", "-k", "x"), "a.qvx")):
                self.assertEqual(offered("qvx", *before, folder + "/"), {f"{folder}/{name}"})


if __name__ == "__main__":
    unittest.main(verbosity=2)
