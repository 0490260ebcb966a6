"""Each word that the completion offers is one that the program knows, and none of its long options is left out."""
import re

from world import BIN, HERE, Scenario, call, read, write

TOP = HERE + "/../.."
OFFER = """source "$1" && shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
compopt() { :; }
"_$1"
printf '%s\\n' "${COMPREPLY[@]}"
"""


def offered(*words):
    return set(call("bash", "-c", OFFER, "bash", f"{TOP}/completion/{words[0]}", *words).split())


class Completion(Scenario):
    def test_words_of_the_companions(self):
        """The long options and the commands that the program's own help names."""
        for line in ("qvx", *(f"qvx {each}" for each in "create list verify extract cat info keygen".split()), "volctl",
                     *(f"volctl {each}" for each in ("list", "info", "zkfs", "zkfs listGroups", "zkfs unlockVolume",
                                                     "zkfs lockVolume")), "tarnwick-consent",
                     *(f"tarnwick-consent {each}" for each in ("show", "grant", "deny", "ask"))):
            words = line.split()
            text, _, commands = call(f"{BIN}/{words[0]}", *words[1:], "--help").partition("Subcommands:\n")
            known = re.findall(r"--[a-z0-9-]+", (text + commands).replace("-plist)", ""))
            known += re.findall(r"^  (\w+)", commands, re.M)
            more = offered(*words, "") if commands else set()
            self.assertEqual((offered(*words, "-") | more) - {"-plist"}, set(known), line)

    def test_words_of_the_main_program_and_files(self):
        general, _, internal = read(f"{TOP}/man/tarnwick.8").partition("On internal builds")
        self.assertEqual(offered("tarnwick", "-"), {f"--{name}" for name in re.findall(r"\.It Fl -(\w+)", general)})
        self.assertIn("--plist", offered("tarnwick", "--summarize", "-"))
        self.assertIn("-capturespec", internal)  # and none of those is offered
        for name in "a.pem", "a.pub", "a.qvx", "a.txt":
            write(f"/media/keys/{name}")
        for words, name in (("list --key", "a.pem"), ("create -r", "a.pub"), ("info", "a.qvx"),
                            ("extract -k x", "a.qvx")):
            self.assertEqual(offered("qvx", *words.split(), "/media/keys/"), {f"/media/keys/{name}"})
