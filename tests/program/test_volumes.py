# Which volumes are searched, in which order and with whose consent, and what is printed about the others.
import os

import world
from world import CONSENT, GROUPS, NO, PREBOOT, YES, Answer, Scenario, property_list, volume_info

# The consent file of a volume and what is typed for it.
ASKED = [(NO, "yes\n"), ({}, "y\nja\n\nyes please\nYES\n"), (NO, "yes \n yes\nyes\r\nyes\0\nno\n"),
         ({"SeedAutoSubmit": False, "AutoSubmit": True}, "no\n"), ({"AutoSubmit": 1}, "No\n"),
         ({"SeedAutoSubmit": True, "AutoSubmit": False}, ""), ({"SeedAutoSubmit": "true", "AutoSubmit": True}, "")]


class Volumes(Scenario):
    def setUp(self):
        super().setUp()
        self.specification()

    # Answers that cannot be walked end the run, after what came before them in the walk.
    def test_faults_of_the_listing(self):
        self.volume("one", YES)
        good = {"VolumeGroups": [{"Volumes": self.volumes}]}
        for value in ([], {"Containers": {}}, {"Containers": [{}, good]}, {"Containers": [{"VolumeGroups": [7, good]}]},
                      {"Containers": [{"VolumeGroups": [{"Volumes": [True, *self.volumes]}]}]}):
            self.answer(GROUPS, property_list(value))
            self.note("listing", str(value))
            self.capture()
        self.answer(GROUPS, Answer("oh\n", 1))
        self.capture()

    # Backwards at every level; other roles and what cannot be asked for without a message, the rest with one.
    def test_plan(self):
        for number, role in enumerate(("data", "Data ", "Preboot", "D\u00e4ta")):
            self.volume(f"v{number}", YES, role=role)
        for name in "lost", "stays", "refused", "opened", "failing", "unparsable":
            self.volume(name, YES, mounted=name not in ("stays", "refused", "opened"), device=name)
        self.volume("tmp", YES, device="/tmp")  # where captures of internal builds go: that has no device identifier
        for device, *answers in (("unparsable", "no list"), ("failing", Answer("", 1)),
                                 ("opened", volume_info("Donn\u00e9es", "disk7s1", ""),
                                  volume_info("opened", "disk7s1", "/media/opened")),
                                 ("lost", volume_info("lost", "lost", "/media/lost"), Answer("", 1))):
            self.answer(f"volctl info -plist {device}", *answers)
        for device, answer in ("disk7s1", "asked\n"), ("refused", Answer("asked\n", 1)), ("stays", ""):
            self.answer(f"volctl zkfs unlockVolume {device}", answer)
        left_out, self.volumes = self.volumes, []
        a, b, c = (self.volume(name, YES) and self.volumes[-1] for name in "abc")
        self.answer(GROUPS, property_list({"Containers": [
            {"VolumeGroups": [{"Volumes": [a, *left_out]}, {"Volumes": [b]}]},
            {"VolumeGroups": [{"Volumes": [c]}, {"Volumes": []}]}]}))
        self.capture()

    def test_destination_that_does_not_parse(self):
        self.answer(PREBOOT, "no list")
        self.capture()

    # Asked for once at every run; where the file cannot be read, nobody is asked.
    def test_consent(self):
        for number, (consent, _) in enumerate(reversed(ASKED)):
            self.volume(f"v{len(ASKED) - number}", consent, ["/logs/a.log"])
        for name, consent in ("missing", None), ("fifo", None), ("plist", "<plist>"), ("list", [True]):
            self.volume(name, consent)
        os.makedirs(os.path.dirname(f"/media/fifo/{CONSENT}"))
        os.mkfifo(f"/media/fifo/{CONSENT}")
        self.capture(answers="".join(typed for _, typed in ASKED))
        self.volumes = self.volumes[6:8]
        self.specification(("/logs", ".*"))
        self.list_volumes()
        for arguments, answers in ([], "Yes"), ([], "maybe"), (["--noninteractive", "x"], "yes\n"), (["--force"], ""):
            self.capture(*arguments, answers=answers)

    def test_force_is_for_internal_builds_only(self):
        self.volume("one")
        os.remove("/etc/tarnwick/internal-policies.plist")
        self.key = f"{world.BIN}/../dev-recipient.pem"
        self.tarnwick("--force")
