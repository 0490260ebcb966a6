# Volumes below volumes, links and odd names: which of the files that a search prints are captured.
import os

from world import CONSENT, NO, YES, Answer, Disks, property_list, read, shell, write

LOGS = ".*/[a-z]*.log"


class Nested(Disks):
    # A real file system: what is in memory needs no consent. Its loop device.
    def mounted(self, path, files=()):
        image, _ = self.formatted("-O", "^dir_index")  # entries are found in the order in which they were made
        device = self.mount(image, path)
        for file in files:
            write(path + file, f"content of {path}{file}\n")
        return device

    def planned(self, name, consent, files=()):
        self.volume(name)
        self.mounted(f"/media/{name}", files)
        write(f"/media/{name}/{CONSENT}", property_list(consent))

    # By the file system they are on, whatever their path looks like.
    def test_files_of_another_volume_need_its_consent(self):
        self.planned("root", YES, ["/logs/own.log", "/deep/in/x.log"])
        self.planned("root/var", NO, ["/log/denied.log", "/log/more.log"])
        self.planned("root/srv", YES, ["/log/granted.log"])
        self.mounted("/media/root/stick", ["/unplanned.log"])
        shell("/media/root", """
            mount -o bind,X-mount.mkdir logs again; mount -o bind,X-mount.mkdir var/log bound
            ln -s srv trusted; ln -s trusted/log/.. chain; ln -s /media/root/var leading
            ln -s srv foreign; chown -h 1000:1000 foreign""")
        self.lay("/media/root/run", "mode=755")
        write("/media/root/run/volatile.log")
        self.specification(("/", LOGS), *((f"/{name}/log", LOGS) for name in ("chain", "leading", "foreign")))
        self.capture("--noninteractive")

    # What a run captures of the volumes, where the search is `command`.
    def found(self, command=None):
        if command:
            os.chmod(write("/media/bin/find", f"#!/bin/sh\n{command}\n"), 0o755)
        archive = self.capture("--noninteractive").archive
        self.record = ""  # the numbers of devices, and the order of a file system, are their own
        return sorted(self.entries(archive)[:-2])

    def test_mount_number_that_was_of_another_mount_gives_no_consent(self):
        self.planned("root", YES, ["/logs/own.log"])
        stick = self.mounted("/media/stick", ["/private.log"])
        shell("/media/root", "mkdir memory stick; mount -t tmpfs memory memory")
        self.specification(("/", LOGS))
        exchange = f"umount /media/root/memory && mount /dev/{stick} /media/root/stick"
        self.assertEqual(self.found(f'{exchange} && exec /usr/bin/find "$@"'), ["media/root/logs/own.log"])
        self.assertTrue(os.path.exists("/media/root/stick/private.log"))

    # The user can give it the name of a folder of his own.
    def test_link_of_root_in_the_folder_of_another_user_is_not_followed(self):
        self.planned("one", YES, ["/logs/own.log", "/logs/app/folder/a.log", "/secret/a.log"])
        os.symlink("/media/one/secret", "/media/one/logs/app/current")
        self.specification(("/logs", LOGS))
        for change in "chown 1000:1000 .", "chown 0:0 .; chmod 777 .; mv folder current; mv old folder":
            shell("/media/one/logs/app", change)
            swap = "cd /media/one/logs/app; mv folder old; mv current folder"
            self.assertEqual(self.found(f'/usr/bin/find "$@" && {swap}'), ["media/one/logs/own.log"])

    def test_line_feeds_belong_to_the_name(self):
        names = ["a.log", "first\nsecond.log", "\n.log", "end.log\n", "decoy", "d\n/media/one/logs/planted.log",
                 "decoy\n/media/one/logs/two\n/media/one/logs/x.log", "nothing\n/media/one/logs/a.log",
                 "decoy\n/media/one/logs/a.log\nend"]
        self.planned("one", YES, ["/logs/" + name for name in names])
        self.specification(("/logs", "[^!]*"))  # the dot matches no line feed
        self.assertEqual(self.found(), sorted("media/one/logs/" + name.replace("\n", "\\x0a") for name in names))

    # The swap comes after the search and before the archive.
    def test_folder_swapped_for_a_link_leaks_no_file(self):
        self.planned("one", YES, ["/logs/a.log", "/secret/a.log"])
        self.specification(("/logs", LOGS))
        self.answer("nvram -p", Answer(do="cd /media/one; mv logs old; ln -s secret logs; chown -h 1000 logs"))
        self.assertIsNone(self.capture("--noninteractive").archive)
        self.assertEqual(read("/media/one/logs/a.log"), "content of /media/one/secret/a.log\n")
