"""Volumes below volumes, links and odd names: which of the files that a search prints are captured."""
import os
import re

from world import CONSENT, NO, YES, Answer, Scenario, call, property_list, read, write

LOGS = ".*/[a-z]*.log"


def link(target, path, owner):
    os.symlink(target, path)
    os.chown(path, owner, owner, follow_symlinks=False)


class Nested(Scenario):
    def mount(self, path, files=()):
        """A real file system: what is in memory needs no consent."""
        os.makedirs(path, exist_ok=True)
        os.truncate(image := write(f"/media/images{path}.ext4"), 8 << 20)
        call("mkfs.ext4", "-q", "-O", "^dir_index", image)  # entries are found in the order in which they were made
        call("mount", "-o", "loop", image, path)
        for file in files:
            write(path + file, f"content of {path}{file}\n")

    def normal(self, text):
        return [re.sub(r"loop\d+", "LOOP", line) for line in super().normal(text)]

    def planned(self, name, consent, files=()):
        self.volume(name)
        self.mount(f"/media/{name}", files)
        write(f"/media/{name}/{CONSENT}", property_list(consent))

    def test_files_of_another_volume_need_its_consent(self):
        """By the file system they are on, whatever their path looks like."""
        self.planned("root", YES, ["/logs/own.log", "/deep/in/x.log"])
        self.planned("root/var", NO, ["/log/denied.log", "/log/more.log"])
        self.planned("root/srv", YES, ["/log/granted.log"])
        self.mount("/media/root/stick", ["/unplanned.log"])
        for source, target in ("logs", "again"), ("var/log", "bound"):
            os.mkdir(f"/media/root/{target}")
            call("mount", "--bind", f"/media/root/{source}", f"/media/root/{target}")
        os.mkdir("/media/root/run")
        call("mount", "-t", "tmpfs", "memory", "/media/root/run")
        write("/media/root/run/volatile.log")
        link("srv", "/media/root/trusted", 0)
        link("trusted/log/..", "/media/root/chain", 0)
        link("/media/root/var", "/media/root/leading", 0)
        link("srv", "/media/root/foreign", 1000)
        self.specification(("/", LOGS), *((f"/{name}/log", LOGS) for name in ("chain", "leading", "foreign")))
        self.capture("--noninteractive")

    def test_line_feeds_belong_to_the_name(self):
        self.planned("one", YES, ["/logs/a.log", "/logs/first\nsecond.log", "/logs/\n.log", "/logs/end.log\n"])
        for trick in ("d\n/media/one/logs/planted.log", "decoy\n/media/one/logs/two\n/media/one/logs/x.log"):
            write(f"/media/one/logs/{trick}")
        write("/media/one/logs/decoy")
        self.specification(("/logs", "[^!]*"))  # the dot matches no line feed
        found = sorted(self.entries(self.capture("--noninteractive").archive)[:-2])
        self.record = ""  # the file system's order is its own
        tricks = ["d\\x0a/media/one/logs/planted.log", "decoy",
                  "decoy\\x0a/media/one/logs/two\\x0a/media/one/logs/x.log"]
        self.assertEqual(found, sorted("media/one/logs/" + name for name in (
            "a.log", "first\\x0asecond.log", "\\x0a.log", "end.log\\x0a", *tricks)))

    def test_a_folder_that_is_swapped_for_a_link_gives_no_file_away(self):
        """The swap comes after the search and before the archive."""
        self.planned("one", YES, ["/logs/a.log", "/secret/a.log"])
        self.specification(("/logs", LOGS))
        self.answer("nvram -p", Answer(do="cd /media/one; mv logs old; ln -s secret logs; chown -h 1000 logs"))
        self.assertIsNone(self.capture("--noninteractive").archive)
        self.assertEqual(read("/media/one/logs/a.log"), "content of /media/one/secret/a.log\n")
