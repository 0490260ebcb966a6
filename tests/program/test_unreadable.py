# Files that a disk gives back only in part: btrfs on a loop device whose data no longer match their checksums.
import json
import os
import random

from world import YES, Disks, call, content, overwrite, write

BLOCK, FOLDER, LOGS, OUT = 4096, "/media/worn", "/media/worn/log", "/media/out"
ARCHIVE, KEY = "/media/archive.qvx", ("--key", "/media/key.pem")
# Of each file: its blocks, the damaged ones, and what is marked as unreadable, as (block, count). The step over what
# cannot be read doubles while reads fail; after 256 of them the rest is given up.
FILES = {"ends": (10, [0, 9], [(0, 1), (9, 1)]), "middle": (200, [3, 100, 101], [(3, 1), (100, 3)]),
         "all": (4, range(4), [(0, 4)]), "fine": (3, [], []),
         "shreds": (601, range(0, 600, 2), [*((at, 1) for at in range(0, 510, 2)), (510, 91)])}
CAPTURED = "middle", "fine"  # one by one: the order of a folder is the file system's


class Unreadable(Disks):
    def setUp(self):
        super().setUp()
        self.volume("worn", YES)
        dice = random.Random(7)
        self.files = {f"{LOGS}/{name}": dice.randbytes(blocks * BLOCK - 5) for name, (blocks, _, _) in FILES.items()}
        for path, data in self.files.items():
            write(path, data)
        self.wear_out()
        self.specification(*(("/log", f".*/{name}") for name in CAPTURED))

    # Moves the volume to a disk and spoils the first bytes of the damaged blocks.
    def wear_out(self):
        call("mkfs.btrfs", "-q", "--rootdir", FOLDER, path := self.image(128))
        image = content(path)
        for name, (_, damaged, _) in FILES.items():
            data, at = self.files[f"{LOGS}/{name}"], 0
            for block in damaged:
                at = image.index(data[block * BLOCK:][:64], at)
                overwrite(path, at, b"worn out")
        self.mount(path, FOLDER)

    # The marks in the archive, and the contents when it is extracted.
    def agrees(self, archive, names=tuple(FILES)):
        lines = self.qvx("list", "--full", *KEY, archive).splitlines()
        listed = {"/" + entry["path"]: entry for entry in map(json.loads, lines)}
        os.mkdir(OUT)
        self.assertEqual(self.tool("qvx", "extract", *KEY, "-C", OUT, archive), 1)
        for path, name in ((f"{LOGS}/{name}", name) for name in names):
            expected, unreadable = bytearray(self.files[path]), []
            for at, count in FILES[name][2]:
                begin, end = at * BLOCK, min((at + count) * BLOCK, len(expected))
                expected[begin:end] = bytes(end - begin)
                unreadable.append({"offset": begin, "length": end - begin})
            self.assertEqual((listed[path].get("unreadable", []), listed[path].get("incomplete", False)),
                             (unreadable, bool(unreadable)), path)
            self.assertEqual(content(OUT + path), expected, path)

    def test_capture_completes(self):
        archive = self.capture().archive
        self.tool("qvx", "verify", *KEY, archive)
        self.agrees(archive, CAPTURED)

    def test_create_names_each_file_and_goes_on(self):
        self.tool("qvx", "create", "-r", "/media/key.pub", "-o", ARCHIVE, LOGS)
        self.agrees(ARCHIVE)
