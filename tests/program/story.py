"""A small language to tell what a capture should say. A Story is told event by event; the whole console and the whole
log follow from it and are compared exactly."""
import os

from world import CONSENT, FOLDER, HERE, STORE, Answer, Scenario, read

LOG = "/tmp/tarnwick-STAMP.log"
INTRODUCTION, COMPLETION = (read(f"{HERE}/../data/console/{name}.txt") for name in ("introduction", "completion"))
RULE = "#" * 86
BANNER = f"""
{RULE}
# \n# This source volume does not allow collection of Diagnostics & Utilization data. \n\
# Please indicate if you give one-time consent to collection of Diagnostics & Utilization data for this volume.
# \n{RULE}

"""
QUESTION = "Do you agree? (yes/no)\n"


class Story:
    """What a run says. The tellers stand in the order of a capture; each scenario strings them together."""

    def __init__(self, world, verbose=False):
        self.world, self.verbose = world, verbose
        self.console, self.log, self.logging, self.files = "", "", False, []

    # Single lines.
    def line(self, kind, text):
        if self.logging:
            self.log += f"{kind}: {text}\n"
        if kind != "TRACE" or self.verbose:
            self.console += f"{text}\n" if kind == "INFO" else f"{kind}: {text}\n"

    def info(self, text):
        self.line("INFO", text)

    def warning(self, text):
        self.line("WARNING", text)

    def trace(self, text):
        self.line("TRACE", text)

    def command(self, line, out="", status=0):
        self.trace(f"Running command: '{line}'")
        self.trace(f"result: {status << 8}")
        self.trace(f"stdout: {out}")
        if status == 127:
            self.trace(f"command not found: {line.split()[0]}")

    def fatal(self, message):
        self.console += f"{message}\nFATAL ERROR: {message}\n\n"

    # The steps of a capture.
    def opening(self, config="/media/spec.plist", noninteractive=False, log_error=None):
        if noninteractive:
            self.console += "Non-Interactive mode: encrypted and/or unconsented volumes will be skipped\n"
        self.console += (f'using external config: "{config}"\n' if config else "using internal config\n") + INTRODUCTION
        if log_error:
            self.console += f"WARNING: unable to open logfile at '\"{LOG}\"'' errno={log_error}\n"
        self.console += f'Logging to "{"" if log_error else LOG}"\n'
        self.logging = not log_error

    def destination(self):
        self.command('volctl info -plist "Preboot"', self.world.preboot)

    def folder(self):
        self.info(f'Capturing to temp folder: "{FOLDER}"')

    def listing(self):
        self.command("volctl zkfs listGroups -plist", self.world.groups)

    def until_listing(self, **opening):
        self.opening(**opening)
        self.destination()
        self.folder()
        self.listing()

    def query(self, volume, out=None, status=0):
        self.command(f'volctl info -plist "{volume.device}"', volume.info if out is None else out, status)

    def unlocking(self, volume):
        self.query(volume)
        self.info(f"Volume '{volume.name}' ({volume.device}) is not mounted, will attempt to mount it.  You may be "
                  "prompted for an administrator passphrase...")
        self.trace(f"Running command: 'volctl zkfs unlockVolume {volume.device}'")

    def unlock(self, volume, out="", status=0):
        self.unlocking(volume)
        self.trace(f"result: {status << 8}")
        self.trace(f"stdout: {out}")
        if status:
            self.warning(f"volctl returned an error when unlocking volume {volume.device}")

    def not_planned(self):
        self.warning("unable to unlock and mount volume, skipping...")

    def planned(self, *volumes, asked=2):
        for volume in volumes:
            for _ in range(asked):
                self.query(volume)
            self.trace(f"adding volume '{volume.device}' ({volume.uuid}) to capture plan")

    def processing(self, volume):
        self.info(f"\nNow processing volume {volume.label}")
        self.trace("Checking user consent...")

    def unread(self, volume, warning):
        """A consent file that cannot be read: nobody is asked."""
        self.processing(volume)
        self.trace(f"checking consent for {volume.mount_point}")
        self.warning(f"consent check failed: {warning} - {volume.mount_point}/{CONSENT}")
        self.warning(f"failed to check consent on '{volume.name}', skipping...")

    def consent(self, volume, verdict, seed="", questions=0, granted=None):
        """How often the question comes, and what comes of it, where that is not what the file says."""
        granted = verdict == "GRANTED" if granted is None else granted
        self.trace(f"checking consent for {volume.mount_point}")
        self.trace(f"filesystem {seed}consent for {volume.mount_point} is {verdict}")
        if questions:
            self.console += BANNER + QUESTION * questions
            self.trace(f"ad-hoc consent for {volume.mount_point} is {'GRANTED' if granted else 'EXPLICITLY DENIED'}")
        self.info("\n")
        if not granted:
            self.info(f"explicit denial of consent on '{volume.name}', skipping...")
        return granted

    def volume(self, volume, *found, verdict="GRANTED", **asked):
        """`found` tells of the directives, the last one first; without a verdict, nobody cares for consent."""
        self.processing(volume)
        if verdict and not self.consent(volume, verdict, **asked):
            return
        self.files = []
        for directive, paths in zip(reversed(self.world.directives), found):
            self.search(volume, directive, paths)
        self.info(f"Finished processing volume {volume.label}")

    def search(self, volume, directive, found):
        """`found`: the paths, None where there is no base folder, or what the stand-in for `find` answers."""
        self.info(f"Capturing: {directive.description}")
        self.trace("#" * 32)
        for name, text in zip(("DocString", "BasePath", "Expression"),
                              (directive.description, directive.base, directive.expression)):
            self.trace(f"{name}: {text}")
        if found is None:
            self.trace("BasePath does not exist on the target volume, skipping...")
            return
        out, status, _ = found if isinstance(found, Answer) else Answer("".join(path + "\n" for path in found))
        base = os.path.join(volume.mount_point, directive.base.removeprefix("/"))
        command = f"find \"{base}\" -type f {directive.option}-regex '{directive.expression}'"
        self.trace(f"search command: {command}")
        self.command(command, out, status)
        if status:
            self.warning("search command returned an error, skipping this capture directive")
            return
        for path in out.splitlines():
            self.trace(f"capturing: {path}")
            self.files.append(path)

    def firmware(self, status=0):
        self.info("\nFinished with all volumes.")
        self.trace(f"nvram command: nvram -p >> {FOLDER}/nvram.txt")
        self.command(f"nvram -p >> {FOLDER}/nvram.txt", "", status)
        if status:
            self.warning("nvram command returned an error, skipping this capture directive")
        else:
            self.files.append(f"{FOLDER}/nvram.txt")
        self.info("Files to capture:")
        for path in self.files:
            self.info(path)
        self.logging = False

    def archived(self, status=0):
        self.firmware(status)
        self.info(f'Captured data to "{FOLDER}/tarnwick-STAMP.qvx"')

    def pruning(self, *paths):
        self.warning("total captured data size exceeds limit, pruning old data...")
        for path in paths:
            self.warning(f"pruning {path}")

    def stored(self, *pruned, store=STORE):
        self.destination()
        if pruned:
            self.pruning(*pruned)
        self.destination()
        self.info(f'final archive copied to "{store}/tarnwick-STAMP.qvx"')
        self.console += COMPLETION


class CaptureScenario(Scenario):
    """With a capture specification, and a destination that holds nothing yet."""

    def setUp(self):
        super().setUp()
        self.world.specification()

    def story(self, *planned, verbose=False, **opening):
        story = Story(self.world, verbose)
        story.until_listing(**opening)
        story.planned(*planned)
        return story

    def captured(self, story, *arguments, nvram=0, pruned=(), errors="", **more):
        """The story ends well: with the archive in the store."""
        story.archived(nvram)
        story.stored(*pruned)
        result = self.world.capture(*arguments, **more)
        self.check(result, story, errors=errors)
        self.check_archive(result, story)
        return result

    def fails(self, story, message, *arguments, **more):
        """The story ends with the message, and with nothing in the store."""
        story.fatal(message)
        result = self.world.capture(*arguments, **more)
        self.check(result, story, 1)
        self.assertEqual(self.world.stored(), [])
        return result

    def library_error(self, story, message, **more):
        """The message is the library's own, and comes once only."""
        result = self.world.capture(**more)
        head, end = result.console[:len(story.console)], result.console[len(story.console):]
        self.assertEqual((head, result.status, result.errors), (story.console, 1, ""))
        self.assertRegex(end, rf"\AFATAL ERROR: [^\n]*{message}[^\n]*\n\n\Z")
