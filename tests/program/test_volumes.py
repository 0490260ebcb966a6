"""Which volumes are searched, in which order, and what is said of those that cannot be."""
import world
from story import CaptureScenario
from world import NO, YES, Answer, property_list


class Structure(CaptureScenario):
    def test_faults(self):
        """Answers that cannot be walked end the run, after what came before them in the walk."""
        containers, item, groups, volumes, volume = (
            f"implausible output from volctl ({what})" for what in
            ("no Containers", "no item dict", "no VolumeGroups array", "no Volumes array", "no volume dict"))
        one = self.world.volume("one", YES)
        good = {"VolumeGroups": [{"Volumes": [one.record()]}]}
        for value, message in (
                ("no list", "unable to list container groups"),
                ([], "unable to list container groups"),
                ({"Containers": {}}, containers),
                ({"Containers": ["text", good]}, item),
                ({"Containers": [{}, good]}, groups),
                ({"Containers": [{"VolumeGroups": "text"}, good]}, groups),
                ({"Containers": [{"VolumeGroups": [{}]}, good]}, volumes),
                ({"Containers": [{"VolumeGroups": [7, {"Volumes": [one.record()]}]}]}, volumes),
                ({"Containers": [{"VolumeGroups": [{"Volumes": [True, one.record()]}]}]}, volume)):
            with self.subTest(str(value)):
                self.world.list_groups(value)
                story = self.story(*[one] * ("disk1" in str(value)))
                self.fails(story, message)
                world.clear("/tmp")


class Plan(CaptureScenario):
    def test_is_made_backwards_at_every_level(self):
        a, b, c, d = (self.world.volume(name, YES) for name in "abcd")
        self.world.list_groups({"Containers": [
            {"VolumeGroups": [{"Volumes": [a.record(), b.record()]}, {"Volumes": [c.record()]}]},
            {"VolumeGroups": [{"Volumes": [d.record()]}, {"Volumes": []}]}]})
        story = self.story(d, c, b, a)
        for volume in (d, c, b, a):
            story.volume(volume)
        self.captured(story)

    def test_leaves_out_what_cannot_be_searched(self):
        """Other roles and what cannot be asked for silently, the others with a word. Told in the order of the walk."""
        for number, role in enumerate(("data", "Data ", "Preboot", "", "D\u00e4ta")):
            self.world.volume(f"v{number}", YES, role=role)
        tmp, lost, stays, refused, opened, failing, unparsable = (
            self.world.volume(name, NO, mounted=name not in ("stays", "refused", "opened")) for name in
            ("tmp", "lost", "stays", "refused", "opened", "failing", "unparsable"))
        tmp.device = "/tmp"  # where captures of internal builds go: that shortcut has no device identifier
        self.world.list_volumes()
        mounted = opened.info.replace("<string></string>", f"<string>{opened.mount_point}</string>")
        for volume, *answers in ((unparsable, "no list"), (failing, Answer("", 1)), (opened, opened.info, mounted),
                                 (lost, lost.info, Answer("", 1))):
            self.world.answer(f"volctl info -plist {volume.device}", *answers)
        for volume, answer in (opened, "asked\n"), (refused, Answer("asked\n", 1)), (stays, ""):
            self.world.answer(f"volctl zkfs unlockVolume {volume.device}", answer)

        story = self.story()
        story.query(unparsable, "no list")
        story.query(failing, "", 1)
        story.unlock(opened, "asked\n")
        opened.info = mounted
        story.planned(opened, asked=1)
        story.unlock(refused, "asked\n", 1)
        story.query(refused)
        story.not_planned()
        story.unlock(stays)
        story.query(stays)
        story.not_planned()
        story.query(lost)
        story.query(lost, "", 1)
        story.not_planned()
        story.volume(opened, verdict="EXPLICITLY DENIED", questions=1)
        self.captured(story)

    def test_odd_answers(self):
        """The device that is named may differ from the one that was listed; a name outside ASCII counts as empty; of a
        piece of 127 bytes counts what is before its first zero byte, and the pieces behind it are whole."""
        volume = self.world.volume("one", YES, mounted=False)
        other = {"DeviceIdentifier": "disk7s1", "VolumeName": "Donn\u00e9es", "MountPoint": ""}
        mounted = property_list({**other, "MountPoint": volume.mount_point})
        mounted = mounted.replace("<dict>", "\0" + 126 * "x" + "<dict>")  # which begins a line
        self.world.answer("volctl info -plist disk1", property_list(other), mounted)
        self.world.answer("volctl zkfs unlockVolume disk7s1", "")
        result = self.world.capture()
        self.assertIn("Volume '' (disk7s1) is not mounted, will attempt", result.console)
        self.assertIn("\nNow processing volume '' (disk7s1 -> /media/one)\n", result.console)
        self.assertEqual(self.world.calls()[2:5], ["volctl info -plist disk1", "volctl zkfs unlockVolume disk7s1",
                                                   "volctl info -plist disk1"])

    def test_destination_that_does_not_parse_has_an_empty_mount_point(self):
        self.world.preboot = "no list"
        self.world.answer(world.PREBOOT, "no list")
        story = self.story()
        story.archived()
        story.stored(store="tarnwick")
        self.check(self.world.capture(), story)
        self.assertEqual(len(self.world.stored("/media/cwd/tarnwick")), 1)


if __name__ == "__main__":
    world.main()
