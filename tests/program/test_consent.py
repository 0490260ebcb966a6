"""The stored choice of each volume's owner, and the question asked once."""
import os

import world
from story import CaptureScenario
from world import CONSENT, NO, YES, write

DENIED, OPEN = "EXPLICITLY DENIED", "INDETERMINATE"
SEED = {"SeedAutoSubmit": False, "AutoSubmit": True}

# The file, its verdict, what the user types, and what that comes to.
ASKED = [
    (NO, DENIED, "yes\n", dict(questions=1, granted=True)),
    (NO, DENIED, "no\n", dict(questions=1)),
    ({}, OPEN, "YES\n", dict(questions=1, granted=True)),
    ({}, OPEN, "y\nja\n\nyes please\nYes\n", dict(questions=5, granted=True)),
    (NO, DENIED, "yes \n yes\nno\n", dict(questions=3)),
    (NO, DENIED, "yes\r\nyes\0\nno\n", dict(questions=3)),
    (SEED, DENIED, "no\n", dict(questions=1, seed="seed ")),
    ({"AutoSubmit": 1}, OPEN, "no\n", dict(questions=1)),
    ({"SeedAutoSubmit": True, "AutoSubmit": False}, "GRANTED", "", dict(seed="seed ")),
    ({"SeedAutoSubmit": "true", "AutoSubmit": True}, "GRANTED", "", {}),
]


class Consent(CaptureScenario):
    def ask(self, cases):
        """One volume a case, in the order of the walk."""
        volumes = [self.world.volume(f"v{len(cases) - number}", case[0]) for number, case in enumerate(reversed(cases))]
        volumes.reverse()
        story = self.story(*volumes)
        for volume, (_, verdict, _, outcome) in zip(volumes, cases):
            story.volume(volume, verdict=verdict, **outcome)
        self.captured(story, answers="".join(case[2] for case in cases))

    def test_answers_and_the_end_of_input(self):
        self.ask(ASKED + [(NO, DENIED, "maybe", dict(questions=2)), (NO, DENIED, "", dict(questions=1))])

    def test_last_line_without_an_end(self):
        self.ask([(NO, DENIED, "Yes", dict(questions=1, granted=True))])

    def test_unreadable_files_ask_nobody(self):
        """A warning and no blank lines, whoever sits at the terminal."""
        missing, fifo, no_folder, unparsable, array = (
            self.world.volume(name, consent) for name, consent in
            (("missing", None), ("fifo", YES), ("file", None), ("unparsable", "<plist><dict>"), ("array", [True])))
        os.remove(f"{fifo.mount_point}/{CONSENT}")
        os.mkfifo(f"{fifo.mount_point}/{CONSENT}")
        write(no_folder.mount_point + "/Library")
        story = self.story(array, unparsable, no_folder, fifo, missing)
        for volume in (array, unparsable):
            story.unread(volume, "unable to parse file")
        for volume in (no_folder, fifo, missing):
            story.unread(volume, "missing file")
        self.captured(story, answers="yes\n")

    def test_force_reads_no_file_but_is_for_internal_builds_only(self):
        volume = self.world.volume("one")
        story = self.story(volume)
        story.volume(volume, verdict=None)
        self.captured(story, "--force")
        os.remove("/etc/tarnwick/internal-policies.plist")
        self.assertIn("failed to check consent on 'one', skipping...\n", self.world.run("--force").console)


if __name__ == "__main__":
    world.main()
