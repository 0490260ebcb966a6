"""Which volumes are searched, in which order, and what is said of those that cannot be."""
import world
from world import Answer, Scenario, Story, property_list

YES = {"AutoSubmit": True}


class Structure(Scenario):
    """Answers of the disk utility that cannot be walked end the run, after what came before them in the walk."""

    def check_fatal(self, groups, message):
        self.world.specification()
        self.world.list_groups(groups)
        result = self.world.capture()
        story = Story(self.world)
        story.opening()
        story.destination()
        story.folder()
        story.listing()
        story.fatal(message)
        self.check(result, story, 1)

    def test_faults(self):
        containers, groups, volumes, item = (
            f"implausible output from volctl ({what})"
            for what in ("no Containers", "no VolumeGroups array", "no Volumes array", "no volume dict"))
        for value, message in (
                ("no list", "unable to list container groups"),
                ([], "unable to list container groups"),
                ({}, containers),
                ({"Containers": {}}, containers),
                ({"Containers": ["text"]}, "implausible output from volctl (no item dict)"),
                ({"Containers": [{"VolumeGroups": []}, {}]}, groups),
                ({"Containers": [{}, {"VolumeGroups": []}]}, groups),
                ({"Containers": [{"VolumeGroups": "text"}]}, groups),
                ({"Containers": [{"VolumeGroups": [{}]}]}, volumes),
                ({"Containers": [{"VolumeGroups": [7]}]}, volumes),
                ({"Containers": [{"VolumeGroups": [{"Volumes": {}}]}]}, volumes),
                ({"Containers": [{"VolumeGroups": [{"Volumes": [True]}]}]}, item)):
            with self.subTest(str(value)):
                self.check_fatal(value, message)

    def test_fault_found_after_a_volume_was_asked_for(self):
        self.world.specification()
        volume = self.world.volume("one", YES)
        self.world.list_groups({"Containers": [{}, {"VolumeGroups": [{"Volumes": [volume.record()]}]}]})
        result = self.world.capture()
        story = Story(self.world)
        story.until_volumes(volume)
        story.fatal("implausible output from volctl (no VolumeGroups array)")
        self.check(result, story, 1)


class Plan(Scenario):
    def setUp(self):
        super().setUp()
        self.world.specification()

    def finish(self, story, *arguments, **more):
        story.ending()
        self.check(self.world.capture(*arguments, **more), story)

    def test_walk_is_backwards_at_every_level(self):
        a, b, c, d = (self.world.volume(name, YES) for name in "abcd")
        self.world.list_groups({"Containers": [
            {"VolumeGroups": [{"Volumes": [a.record(), b.record()]}, {"Volumes": [c.record()]}]},
            {"VolumeGroups": [{"Volumes": [d.record()]}, {"Volumes": []}]}]})
        story = Story(self.world)
        story.until_volumes(d, c, b, a)
        for volume in (d, c, b, a):
            story.granted(volume)
        self.finish(story)

    def test_other_roles_are_skipped_silently(self):
        for number, role in enumerate(("data", "Data ", "Preboot", "", "D\u00e4ta")):
            self.world.volume(f"v{number}", YES, role=role)
        records = [volume.record() for volume in self.world.volumes]
        del records[0]["Role"]
        self.world.list_groups({"Containers": [{"VolumeGroups": [{"Volumes": records}]}]})
        story = Story(self.world)
        story.until_volumes()
        self.finish(story)

    def test_volume_that_cannot_be_queried_is_skipped_silently(self):
        failing, unparsable = self.world.volume("failing", YES), self.world.volume("unparsable", YES)
        self.world.answer("volctl info -plist disk1", Answer("", 1))
        self.world.answer("volctl info -plist disk2", "no list")
        story = Story(self.world)
        story.until_volumes()
        story.query(unparsable, "no list")
        story.command('volctl info -plist "disk1"', "", 1)
        self.assertEqual(failing.device, "disk1")
        self.finish(story)

    def unlocking(self, story, volume, status):
        story.until_volumes()
        story.query(volume)
        story.info("Volume 'locked' (disk1) is not mounted, will attempt to mount it.  You may be prompted for an "
                   "administrator passphrase...")
        story.command("volctl zkfs unlockVolume disk1", "asked\n", status)
        if status:
            story.warning("volctl returned an error when unlocking volume disk1")

    def test_unlocked_volume_is_searched(self):
        volume = self.world.volume("locked", YES, mounted=False)
        mounted = property_list({"DeviceIdentifier": "disk1", "VolumeName": "locked",
                                 "MountPoint": volume.mount_point})
        self.world.answer("volctl info -plist disk1", volume.info, mounted)
        self.world.answer("volctl zkfs unlockVolume disk1", "asked\n")
        story = Story(self.world)
        self.unlocking(story, volume, 0)
        story.query(volume, mounted)
        story.trace("adding volume 'disk1' (UUID-1) to capture plan")
        story.granted(volume)
        self.finish(story)

    def test_volume_that_stays_locked(self):
        volume = self.world.volume("locked", YES, mounted=False)
        for status in (0, 1):
            with self.subTest(status):
                self.world.answer("volctl zkfs unlockVolume disk1", Answer("asked\n", status))
                story = Story(self.world)
                self.unlocking(story, volume, status)
                story.query(volume)
                story.warning("unable to unlock and mount volume, skipping...")
                self.finish(story)

    def test_unlocking_names_the_records_device_and_asks_for_the_listed_one(self):
        volume = self.world.volume("one", YES)
        record = {"DeviceIdentifier": "disk7s1", "VolumeName": "one", "MountPoint": ""}
        self.world.answer("volctl info -plist disk1", property_list(record))
        self.world.answer("volctl zkfs unlockVolume disk7s1", "")
        result = self.world.capture("--noninteractive")
        self.assertIn("Volume 'one' (disk7s1) is not mounted, will attempt", result.console)
        self.assertEqual(self.world.calls()[2:5], [f"volctl info -plist {volume.device}",
                                                   "volctl zkfs unlockVolume disk7s1",
                                                   f"volctl info -plist {volume.device}"])

    def test_volume_lost_between_the_two_queries(self):
        volume = self.world.volume("one", YES)
        self.world.answer("volctl info -plist disk1", volume.info, Answer("", 1))
        story = Story(self.world)
        story.until_volumes()
        story.query(volume)
        story.command('volctl info -plist "disk1"', "", 1)
        story.warning("unable to unlock and mount volume, skipping...")
        self.finish(story)

    def test_name_outside_ascii_counts_as_empty(self):
        volume = self.world.volume("one", YES)
        volume.name, volume.label = "", f"'' (disk1 -> {volume.mount_point})"
        volume.info = property_list({"DeviceIdentifier": "disk1", "VolumeName": "Donn\u00e9es",
                                     "MountPoint": volume.mount_point})
        self.world.answer("volctl info -plist disk1", volume.info)
        story = Story(self.world)
        story.until_volumes(volume)
        story.granted(volume)
        self.finish(story)

    def test_tmp_as_a_listed_volume_is_never_asked_for(self):
        volume = self.world.volume("one", YES)
        self.world.list_groups({"Containers": [{"VolumeGroups": [{"Volumes": [
            {**volume.record(), "DeviceIdentifier": "/tmp"}]}]}]})
        story = Story(self.world)  # the shortcut knows no device identifier, so the volume is skipped
        story.until_volumes()
        self.finish(story)

    def test_answer_cut_at_a_zero_byte_within_a_piece(self):
        """A piece of 127 bytes is kept up to its first zero byte; the pieces behind it are whole."""
        volume = self.world.volume("one", YES)
        start, end = volume.info[:40], volume.info[40:]
        padded = "\0" + "x" * (126 - len(start.split("\n", 1)[1]))
        self.world.answer("volctl info -plist disk1", start + padded + end)
        story = Story(self.world)
        story.until_volumes(volume)
        story.granted(volume)
        self.finish(story)

    def test_destination_that_does_not_parse_has_an_empty_mount_point(self):
        self.world.list_groups({"Containers": []})
        self.world.preboot = "no list"
        self.world.answer("volctl info -plist Preboot", "no list")
        story = Story(self.world)
        story.until_volumes()
        story.firmware()
        story.archived()
        story.stored()
        story.console = story.console.replace('"/media/preboot/tarnwick/', '"tarnwick/')
        self.check(self.world.capture(), story)
        self.assertEqual(len(self.world.stored("/media/cwd/tarnwick")), 1)


if __name__ == "__main__":
    world.main()
