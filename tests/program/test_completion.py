# Each word that the completion offers is one that the program knows, and none of its long options is missing.
import re

from world import BIN, HERE, Scenario, call, read

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
        for program in "volctl", "tarnwick-consent":
            self.offers_what_help_names(program)

    def offers_what_help_names(self, *words):
        # The long options and the commands, and the same after each of the commands.
        text, _, commands = call(f"{BIN}/{words[0]}", *words[1:], "--help").partition("Subcommands:\n")
        options = re.findall(r"--[a-z0-9-]+", (text + commands).replace("-plist)", ""))
        names = re.findall(r"^  (\w+)", commands, re.M)
        self.assertTrue(names or words[1:], "a program without commands")
        more = offered(*words, "") if names else set()
        self.assertEqual((offered(*words, "-") | more) - {"-plist"}, {*options, *names}, words)
        for name in names:
            self.offers_what_help_names(*words, name)

    def test_words_of_the_main_program(self):
        general, _, internal = read(f"{TOP}/man/tarnwick.8").partition("On internal builds")
        self.assertEqual(offered("tarnwick", "-"), {f"--{name}" for name in re.findall(r"\.It Fl -(\w+)", general)})
        self.assertIn("--plist", offered("tarnwick", "--summarize", "-"))
        self.assertIn("-capturespec", internal)  # and none of those is offered
