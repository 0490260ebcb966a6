# All that ends a capture early: what is printed, and which files are left.
import os

from world import PREBOOT, YES, Answer, Scenario, call, property_list, write

NAME = '"$folder/${folder##*/}"'  # of the capture in its folder, for a stand-in


class Fatal(Scenario):
    def setUp(self):
        super().setUp()
        self.specification(("/logs", ".*"))

    def test_faults_before_the_volumes(self):
        for faulty in property_list({"archive_public_key": 7}), property_list({}), property_list(["array"]), "no list":
            write("/media/spec.plist", faulty)
            self.note("specification", faulty)
            self.capture()
        self.specification()
        self.answer(PREBOOT, Answer("half", 2))
        self.capture()

    # For the capture folder; then for the log as well.
    def test_no_space_for_the_capture_folder_or_the_log(self):
        for options in "nr_inodes=3", "ro":
            call("mount", "-o", "remount," + options, "/tmp")
            self.tarnwick("--capturespec", "/media/spec.plist")

    # A folder that has its name, and a file that has the name of the log's copy; no nvram is no fault.
    def test_faults_at_the_archive(self):
        for do in f"mkdir {NAME}.qvx", f"echo >{NAME}.log", "echo no firmware >&2; exit 1":
            self.answer("nvram -p", Answer(do=do))
            self.capture()

    def test_files_that_cannot_be_listed_read_or_stored(self):
        os.symlink("volctl", "/media/bin/find")
        self.volume("one", YES, ["/logs/a.log"])
        os.mkfifo("/media/pipe")
        log, large = "/media/one/logs/a.log", write("/media/large", os.urandom(8 << 20))
        call("mount", "-o", "remount,size=2m", "/tmp")
        for found in "/media/gone", f"{log}\n\n{log}", "/media/pipe", "/proc/sys/vm/compact_memory", large:
            self.answer("find /media/one/logs -type f -regex .*", found + "\n")
            self.capture()
