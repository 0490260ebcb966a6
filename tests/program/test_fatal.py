"""Everything that ends a capture early: what is said, and what is left behind."""
import base64
import os
import resource
import signal

import world
from story import LOG, CaptureScenario, Story
from world import FOLDER, PREBOOT, YES, Answer, mount, property_list, write

WRONG_KEY = "ecdsa-sha2-nistp256 AAAA"


class BeforeVolumes(CaptureScenario):
    def told(self, *steps, **opening):
        story = Story(self.world)
        story.opening(**opening)
        for step in steps:
            step(story)
        return story

    def test_failing_disk_utility_and_lost_configuration(self):
        groups = "volctl zkfs listGroups -plist"
        for answer in Answer("oh\n", 1), Answer("", 127):
            self.world.answer(groups, answer)
            story = self.told(Story.destination, Story.folder)
            story.command(groups, *answer[:2])
            self.fails(story, "command returned nonzero, time to die.")
        self.world.answer(PREBOOT, Answer(self.world.preboot, do="rm /media/spec.plist"))
        self.fails(self.told(Story.destination), "invalid config file")
        self.world.specification()
        self.world.answer(PREBOOT, Answer("half", 2))
        story = self.told(lambda story: story.command('volctl info -plist "Preboot"', "half", 2))
        self.fails(story, "unable to find destination volume")

    def test_no_usable_key_text(self):
        keys = (property_list({"archive_public_key": key}) for key in (7, "", "ecdsa-sha2-nistp256 \u00e4"))
        for content in (*keys, property_list({}), property_list(["array"]), "no list"):
            with self.subTest(content):
                write("/media/spec.plist", content)
                story = self.told(Story.destination)
                story.warning('no recipient key in the configuration; see "The key" in "man tarnwick"')
                self.fails(story, "unable to parse key from config file")

    def test_no_room(self):
        """Read-only; then no room for the capture folder: the file system, the log and the temporary folder count."""
        mount("none", "/tmp", flags=world.MS_REMOUNT, data="nr_inodes=3")
        self.library_error(self.told(Story.destination), "No space left on device")
        mount("none", "/tmp", flags=world.MS_REMOUNT | world.MS_RDONLY)
        self.fails(self.told(Story.destination, log_error="Read-only file system"), "could not create tmp dir")

    def test_missing_find(self):
        self.world.volume("data", YES, ["/logs/a.log"])
        self.world.specification(("/logs", ".*"))
        for command in ("cat", "tr"):  # all that the stand-ins need
            os.symlink(f"/bin/{command}", f"/media/bin/{command}")
        result = self.world.capture(environment={"PATH": "/media/bin"})
        self.assertEqual(result.status, 0)
        self.assertIn("TRACE: command not found: find\nWARNING: search command returned an error", result.log)

    def test_no_process_for_a_command(self):
        """A user with one process, who is nobody else's and has no second one for the leak check either."""
        def as_lonely_user():
            resource.setrlimit(resource.RLIMIT_NPROC, (1, 1))
            os.setresuid(*[200000 + os.getpid()] * 3)

        self.library_error(self.told(), r"popen\(\) failed!", environment={"ASAN_OPTIONS": "detect_leaks=0"},
                           limits=as_lonely_user)


class AtTheArchive(CaptureScenario):
    """`nvram` is the last command before the archive; what it does to the capture folder makes each fault."""

    def told(self, do=":", key=None):
        self.world.specification(**({"archive_public_key": key} if key else {}))
        self.world.answer("nvram -p", Answer(world.NVRAM, do=do))
        story = self.story()
        story.firmware()
        return story

    def nothing_left(self):
        """The temporary folder keeps what else was made."""
        kept = [world.normal(f"{path}/{name}") for path, _, names in os.walk("/tmp") for name in names]
        self.assertEqual(sorted(kept), sorted([LOG, f"{FOLDER}/nvram.txt", f"{FOLDER}/tarnwick-STAMP.log"]))
        world.clear("/tmp")

    def test_keys(self):
        """A point of another form, and one off the curve."""
        text = self.world.key_pair().split()[1]

        def changed(at, value):
            blob = bytearray(base64.b64decode(text))
            blob[at] ^= value
            return "ecdsa-sha2-nistp256 " + base64.b64encode(blob).decode()

        for key, message in ((changed(39, 6), "Context setup failed"),
                             (changed(40, 1), "Error calling QVXEncryptionOutputStreamOpen")):
            with self.subTest(message):
                self.fails(self.told(key=key), message)
                self.nothing_left()

    def test_key_type_alone_ends_abnormally(self):
        story = self.told(key="ecdsa-sha2-nistp256")
        result = self.world.capture()
        self.check(result, story, -signal.SIGABRT, result.errors)

    def test_what_is_in_the_way_of_the_archive(self):
        """A file is replaced, and removed even when there is no archive; a folder stays."""
        name = '"$folder/${folder##*/}.qvx"'
        self.fails(self.told(f"echo old >{name}", WRONG_KEY), "failed to parse key")
        self.nothing_left()
        self.fails(self.told(f"mkdir {name}"), "Error creating destination file")
        world.clear("/tmp")
        self.world.specification()
        self.world.answer("nvram -p", Answer(world.NVRAM, do=f"yes | head -c 99999 >{name}"))
        self.captured(self.story())

    def test_lost_log_makes_an_empty_entry(self):
        for do, error in ("rm /tmp/tarnwick-*.log", 2), ('echo >"$folder/${folder##*/}.log"', 17):
            with self.subTest(error):
                story = self.told(do)
                story.warning(f"error {error} when copying execution summary to destination volume.")
                story.fatal("unable to create sublist")
                result = self.world.capture()
                self.assertEqual((result.console, result.status, result.errors), (story.console, 1, ""))
                world.clear("/tmp")

    def test_failing_nvram_is_left_out(self):
        self.world.answer("nvram -p", Answer("", 1, "echo no firmware >&2"))
        self.captured(self.story(), nvram=1, errors="no firmware\n")

    def test_file_that_cannot_be_read_or_stored(self):
        """The second does not fit into the folder."""
        self.world.stand_in("find")
        volume = self.world.volume("one", YES, ["/logs/a.log"])
        self.world.specification(("/logs", ".*"))
        large = write("/media/large", os.urandom(8 << 20))
        mount("none", "/tmp", flags=world.MS_REMOUNT, data="size=2m")
        for path in "/proc/sys/vm/compact_memory", large:
            self.world.answer("find /media/one/logs -type f -regex .*", path)
            story = self.story(volume)
            story.volume(volume, Answer(path))
            story.firmware()
            self.fails(story, "error when writing pathlist to archive")
            self.nothing_left()


if __name__ == "__main__":
    world.main()
