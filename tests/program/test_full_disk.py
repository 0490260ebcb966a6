"""Archives on file systems that are full a little earlier or later: whole, or none."""
import os
import subprocess

import world
from world import Scenario, write

DISK, ARCHIVE, STEP, STEPS = "/media/disk", "/media/disk/archive.qvx", 16384, 24


class FullDisk(Scenario):
    def outcomes(self, attach):
        """Statuses of qvx with more and more room; what was written is looked at after attaching the disk anew."""
        for room in range(0, STEP * STEPS, STEP):
            attach()
            free = os.statvfs(DISK)
            with open(f"{DISK}/ballast", "wb") as ballast:
                os.posix_fallocate(ballast.fileno(), 0, max(free.f_bavail * free.f_bsize - room, 1))
            status = self.world.run("create", "-r", "/media/key.pub", "-o", ARCHIVE, "/media/noise",
                                    program="qvx").status
            if status == 0:
                attach()
                self.world.qvx("verify", "--key", "/media/key.pem", ARCHIVE)
                os.remove(ARCHIVE)
            self.assertEqual(os.listdir(DISK).count("archive.qvx"), 0, room)
            os.remove(f"{DISK}/ballast")
            yield status

    def test_never_success_on_a_full_disk(self):
        self.world.key_pair()
        with open("/media/noise", "wb") as noise:
            noise.write(os.urandom(STEP * STEPS // 2))
        os.mkdir(DISK)
        write("/media/image")
        os.truncate("/media/image", 4 << 20)
        subprocess.run(["mkfs.ext4", "-q", "-m", "0", "/media/image"], check=True, capture_output=True)

        def attach_image():
            subprocess.run(["umount", "-q", DISK], check=False)
            subprocess.run(["mount", "-o", "loop", "/media/image", DISK], check=True)

        for attach in (lambda: None, attach_image):
            if attach is not attach_image:
                self.world.lay(DISK, "size=1m")
            statuses = list(self.outcomes(attach))
            self.assertEqual((set(statuses), statuses), ({0, 1}, sorted(statuses, reverse=True)))


if __name__ == "__main__":
    world.main()
