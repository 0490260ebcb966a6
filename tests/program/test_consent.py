"""The stored choice of a volume's owner, and the question asked once."""
import os

import world
from world import BANNER, QUESTION, Scenario, Story, write

YES, NO = {"AutoSubmit": True}, {"AutoSubmit": False}
DENIED, OPEN = "EXPLICITLY DENIED", "INDETERMINATE"


class Decision(Scenario):
    def check_run(self, content, verdict, granted, *arguments, answers="", noninteractive=False, **told):
        self.world.specification()
        volume = self.world.volume("one", content)
        result = self.world.capture(*arguments, answers=answers)
        story = Story(self.world)
        story.until_volumes(volume, noninteractive=noninteractive)
        story.processing(volume)
        story.consent(volume, verdict, **told)
        story.finished(volume) if granted else story.denied(volume)
        story.ending()
        self.check(result, story)

    def asked(self, content, verdict, granted, answers, questions, **told):
        self.check_run(content, verdict, granted, answers=answers, prompt=BANNER + QUESTION * questions,
                       agreed=granted, **told)


class Asked(Decision):
    pass


# Name, the file, its verdict, whose choice it is called, what the user types, how often the question comes, granted.
CASES = [
    ("yes", NO, DENIED, "", "yes\n", 1, True),
    ("no", NO, DENIED, "", "no\n", 1, False),
    ("yes_in_capitals", {}, OPEN, "", "YES\n", 1, True),
    ("junk_then_yes", {}, OPEN, "", "y\nja\n\nyes please\nYes\n", 5, True),
    ("blanks_are_not_trimmed", NO, DENIED, "", "yes \n yes\nno\n", 3, False),
    ("carriage_return_is_not_trimmed", NO, DENIED, "", "yes\r\n", 2, False),
    ("end_of_input", NO, DENIED, "", "", 1, False),
    ("last_line_without_end", NO, DENIED, "", "Yes", 1, True),
    ("junk_then_end", NO, DENIED, "", "maybe", 2, False),
    ("zero_byte", NO, DENIED, "", "yes\0\nno\n", 2, False),
    ("seed_goes_first", {"SeedAutoSubmit": False, "AutoSubmit": True}, DENIED, "seed ", "no\n", 1, False),
    ("integer_is_no_boolean", {"AutoSubmit": 1}, OPEN, "", "no\n", 1, False),
]


def asked_case(content, verdict, seed, answers, questions, granted):
    return lambda self: self.asked(content, verdict, granted, answers, questions, seed=seed)


for name, *case in CASES:
    setattr(Asked, f"test_{name}", asked_case(*case))


class NotAsked(Decision):
    def test_seed_grants(self):
        self.check_run({"SeedAutoSubmit": True, "AutoSubmit": False}, "GRANTED", True, seed="seed ")

    def test_seed_of_another_type_is_absent(self):
        self.check_run({"SeedAutoSubmit": "true", "AutoSubmit": True}, "GRANTED", True)

    def test_noninteractive(self):
        self.check_run({}, OPEN, False, "--noninteractive", "--noninteractive", "word", answers="yes\n",
                       noninteractive=True)

    def test_force_without_internal_policies_is_ignored(self):
        self.world.specification()
        os.remove("/etc/tarnwick/internal-policies.plist")
        volume = self.world.volume("one", NO)
        result = self.world.run("--force", "--noninteractive")
        self.assertIn(f"explicit denial of consent on '{volume.name}', skipping...\n", result.console)
        self.assertEqual(result.status, 0)

    def test_force_reads_no_file(self):
        self.world.specification()
        volume = self.world.volume("one")
        result = self.world.capture("--force")
        story = Story(self.world)
        story.until_volumes(volume)
        story.processing(volume)
        story.finished(volume)
        story.ending()
        self.check(result, story)


class Unreadable(Scenario):
    """A warning, no question and no blank lines, whoever sits at the terminal."""

    def check_warning(self, volume, warning):
        result = self.world.capture(answers="yes\n")
        story = Story(self.world)
        story.until_volumes(volume)
        story.processing(volume)
        story.trace(f"checking consent for {volume.mount_point}")
        story.warning(f"consent check failed: {warning} - {volume.mount_point}/{world.CONSENT}")
        story.warning(f"failed to check consent on '{volume.name}', skipping...")
        story.ending()
        self.check(result, story)

    def setUp(self):
        super().setUp()
        self.world.specification()

    def test_missing(self):
        self.check_warning(self.world.volume("one"), "missing file")

    def test_fifo_does_not_hold_the_run(self):
        volume = self.world.volume("one", YES)
        os.remove(f"{volume.mount_point}/{world.CONSENT}")
        os.mkfifo(f"{volume.mount_point}/{world.CONSENT}")
        self.check_warning(volume, "missing file")

    def test_folder_that_is_a_file(self):
        volume = self.world.volume("one")
        write(volume.mount_point + "/Library")
        self.check_warning(volume, "missing file")

    def test_unparsable(self):
        self.check_warning(self.world.volume("one", "<plist><dict>"), "unable to parse file")

    def test_root_is_no_dictionary(self):
        self.check_warning(self.world.volume("one", [True]), "unable to parse file")


if __name__ == "__main__":
    world.main()
