"""Everything that ends a capture early: what is said, and what is left behind."""
import base64
import os
import signal

import world
from world import FOLDER, Answer, Scenario, Story, mount, write

YES = {"AutoSubmit": True}
COMMAND_DIED = "command returned nonzero, time to die."


class BeforeVolumes(Scenario):
    def setUp(self):
        super().setUp()
        self.world.specification()
        self.world.list_groups({"Containers": []})

    def check_fatal(self, message, *steps, result=None, **opening):
        result = result or self.world.capture()
        story = Story(self.world)
        story.opening(**opening)
        for step in steps:
            step(story)
        story.fatal(message)
        self.check(result, story, 1)
        self.assertEqual(self.world.stored(), [])

    def test_no_destination(self):
        self.world.answer("volctl info -plist Preboot", Answer("half", 2))
        self.check_fatal("unable to find destination volume",
                         lambda story: story.command('volctl info -plist "Preboot"', "half", 2))

    def test_configuration_gone_meanwhile(self):
        self.world.answer("volctl info -plist Preboot", Answer(self.world.preboot, do="rm /media/spec.plist"))
        self.check_fatal("invalid config file", Story.destination)

    def test_no_usable_key_text(self):
        for key in (None, 7, "", "ecdsa-sha2-nistp256 \u00e4"):
            with self.subTest(key):
                self.world.specification(archive_public_key=key)
                self.check_fatal("unable to parse key from config file", Story.destination)

    def test_unparsable_configuration(self):
        for content in ("", "no list", world.property_list(["array"])):
            with self.subTest(content):
                write("/media/spec.plist", content)
                self.check_fatal("unable to parse key from config file", Story.destination)

    def test_read_only_tmp(self):
        mount("none", "/tmp", flags=world.MS_REMOUNT | world.MS_RDONLY)
        result = self.world.capture()
        story = Story(self.world)
        story.opening(log='""')
        story.console = story.console.replace(
            'Logging to ""\n', "WARNING: unable to open logfile at '\"/tmp/tarnwick-STAMP.log\"'' "
            'errno=Read-only file system\nLogging to ""\n')
        story.destination()
        story.fatal("could not create tmp dir")
        self.check(result, story, 1)

    def test_no_room_for_the_capture_folder(self):
        # The file system itself, the log and the temporary folder: one more is too many.
        mount("none", "/tmp", flags=world.MS_REMOUNT, data="nr_inodes=3")
        result = self.world.capture()
        head, _, tail = result.console.partition("FATAL ERROR: ")
        self.assertTrue(head.endswith('Logging to "/tmp/tarnwick-STAMP.log"\n'), head)
        self.assertRegex(tail, "No space left on device.*\n\n$")
        self.assertEqual((result.status, result.errors), (1, ""))

    def test_failed_listing(self):
        self.world.answer("volctl zkfs listGroups -plist", Answer("oh\n", 1))
        self.check_fatal(COMMAND_DIED, Story.destination, Story.folder,
                         lambda story: story.command("volctl zkfs listGroups -plist", "oh\n", 1))

    def test_missing_disk_utility(self):
        os.remove("/media/bin/volctl")
        result = self.world.capture()
        self.assertEqual(result.status, 1)
        self.assertIn("not found", result.errors)
        self.assertIn("TRACE: result: 32512\n", result.log)
        self.assertTrue(result.console.endswith("\nFATAL ERROR: unable to find destination volume\n\n"))


class AtTheArchive(Scenario):
    """`nvram` is the last command before the archive; what it does to the capture folder makes each fault."""

    def run_without_volumes(self, do=":", key=None, status=0):
        self.world.specification(key=key)
        self.world.list_groups({"Containers": []})
        self.world.answer("nvram -p", Answer(world.NVRAM, status, do))
        story = Story(self.world)
        story.until_volumes()
        story.firmware(status)
        return self.world.capture(), story

    def check_fatal(self, message, do=":", key=None):
        result, story = self.run_without_volumes(do, key)
        story.fatal(message)
        self.check(result, story, 1)
        self.assertEqual(self.world.stored(), [])
        return result

    def archives(self):
        return [path for path, _, names in os.walk("/tmp") for name in names if name.endswith(".qvx")]

    def test_key_that_does_not_parse(self):
        for key in ("x", "ecdsa-sha2-nistp256 AAAA", "ssh-rsa " + "A" * 140, "ecdsa-sha2-nistp256-" + "A" * 140):
            with self.subTest(key):
                os.system("rm -rf /tmp/*")
                self.check_fatal("failed to parse key", key=key)
                self.assertEqual(self.archives(), [])

    def test_point_of_another_form_or_off_the_curve(self):
        blob = bytearray(base64.b64decode(self.world.key_pair().split()[1]))
        for at, value, message in ((39, 2, "Context setup failed"),
                                   (40, blob[40] ^ 1, "Error calling QVXEncryptionOutputStreamOpen")):
            with self.subTest(message):
                os.system("rm -rf /tmp/*")
                wrong = bytes(blob[:at]) + bytes([value]) + bytes(blob[at + 1:])
                self.check_fatal(message, key="ecdsa-sha2-nistp256 " + base64.b64encode(wrong).decode())
                self.assertEqual(self.archives(), [])

    def test_failure_removes_even_a_foreign_file_in_the_way(self):
        self.check_fatal("failed to parse key", 'echo old >"$folder/${folder##*/}.qvx"', key="x")
        self.assertEqual(self.archives(), [])

    def test_file_in_the_way_is_replaced(self):
        result, _ = self.run_without_volumes('yes | head -c 99999 >"$folder/${folder##*/}.qvx"')
        self.assertEqual(len(self.world.entries(result.archive)), 2)

    def test_folder_in_the_way(self):
        self.check_fatal("Error creating destination file", 'mkdir "$folder/${folder##*/}.qvx"')

    def test_bare_key_type_ends_abnormally(self):
        result, story = self.run_without_volumes(key="ecdsa-sha2-nistp256")
        self.assertEqual((result.console, result.log), (story.console, story.log))
        self.assertEqual(result.status, -signal.SIGABRT)

    def test_lost_log_makes_an_empty_entry(self):
        for do, error in (("rm /tmp/tarnwick-*.log", 2), ('echo >"$folder/${folder##*/}.log"', 17)):
            with self.subTest(error):
                os.system("rm -rf /tmp/*")
                result, story = self.run_without_volumes(do)
                story.warning(f"error {error} when copying execution summary to destination volume.")
                story.fatal("unable to create sublist")
                self.assertEqual((result.console, result.status, result.errors), (story.console, 1, ""))

    def test_failing_nvram_is_left_out(self):
        result, story = self.run_without_volumes("echo no firmware >&2", status=1)
        story.archived()
        story.stored()
        self.check(result, story, errors="no firmware\n")
        self.check_archive(result, story)

    def check_unwritable(self, path):
        self.world.specification(("/logs", ".*"))
        volume = self.world.volume("one", YES, ["/logs/a.log"])
        self.world.stand_in("find")
        self.world.answer("find /media/one/logs -type f -regex .*", path)
        result = self.world.capture()
        story = Story(self.world)
        story.until_volumes(volume)
        story.processing(volume)
        story.consent(volume)
        story.search("/media/one/logs", self.world.directives[0], path, out=path)
        story.finished(volume)
        story.firmware()
        story.fatal("error when writing pathlist to archive")
        self.check(result, story, 1)
        self.assertEqual(self.archives() + self.world.stored(), [])

    def test_file_that_cannot_be_read(self):
        self.check_unwritable("/proc/sys/vm/compact_memory")

    def test_archive_does_not_fit(self):
        with open("/media/large", "wb") as file:
            for _ in range(48):
                file.write(os.urandom(1 << 20))
        mount("none", "/tmp", flags=world.MS_REMOUNT, data="size=2m")
        self.check_unwritable("/media/large")

    def test_temporary_folder_keeps_what_was_made(self):
        result = self.check_fatal("failed to parse key", key="x")
        self.assertIn(f'Capturing to temp folder: "{FOLDER}"\n', result.console)
        kept = [name for _, _, names in os.walk("/tmp") for name in names]
        self.assertEqual(sorted(kept), ["nvram.txt"] + [f"tarnwick-{result.stamp}.log"] * 2)


if __name__ == "__main__":
    world.main()
