# Archives on file systems that are full a little earlier or later: whole, or none.
import os
import subprocess

import world
from world import Scenario, call, write

DISK, ARCHIVE, STEP, STEPS = "/media/disk", "/media/disk/archive.qvx", 16384, 24


class FullDisk(Scenario):
    # What was written is looked at once the real file system is attached anew.
    def test_never_success_on_a_full_disk(self):
        self.specification()
        write("/media/noise", os.urandom(STEP * STEPS // 2))
        write("/media/image", b"\0" * (4 << 20))
        call("mkfs.ext4", "-q", "-m", "0", "/media/image")
        os.mkdir(DISK)
        self.lay(DISK, "size=1m")
        for attach in ["true"], ["sh", "-c", f"umount -q {DISK}; mount -o loop /media/image {DISK}"]:
            statuses = []
            for room in range(0, STEP * STEPS, STEP):
                call(*attach)
                free = os.statvfs(DISK)
                with open(f"{DISK}/ballast", "wb") as ballast:
                    os.posix_fallocate(ballast.fileno(), 0, max(free.f_bavail * free.f_bsize - room, 1))
                statuses += [subprocess.run([f"{world.BIN}/qvx", "create", "-r", "/media/key.pub", "-o", ARCHIVE,
                                             "/media/noise"], stderr=subprocess.DEVNULL, check=False).returncode]
                self.assertEqual(os.path.exists(ARCHIVE), statuses[-1] == 0, room)
                if statuses[-1] == 0:
                    call(*attach)
                    self.qvx("verify", "--key", self.key, ARCHIVE)
                    os.remove(ARCHIVE)
                os.remove(f"{DISK}/ballast")
            self.assertEqual((set(statuses), statuses), ({0, 1}, sorted(statuses, reverse=True)))
