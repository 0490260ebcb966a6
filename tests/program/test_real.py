"""Once with nothing standing in: the real volctl, nvram and find, and real file systems on loop devices."""
import os
import subprocess

import world
from world import Scenario, property_list, write


class Real(Scenario):
    def disk(self, name, size):
        """A mounted ext4 file system; returns its label, which no other test uses at the same time."""
        label = f"{name}-{os.getpid()}"[:16]
        write(f"/media/{name}.image")
        os.truncate(f"/media/{name}.image", size)
        subprocess.run(["mkfs.ext4", "-q", "-L", label, f"/media/{name}.image"], check=True, capture_output=True)
        os.makedirs(f"/media/{name}", exist_ok=True)
        subprocess.run(["mount", "-o", "loop", f"/media/{name}.image", f"/media/{name}"], check=True)
        self.world.mounts.append(f"/media/{name}")
        return label

    def test_capture_of_a_real_disk(self):
        for command in ("volctl", "nvram"):
            os.remove(f"/media/bin/{command}")
            os.symlink(f"/media/programs/{command}", f"/media/bin/{command}")
        preboot, data = self.disk("preboot", 64 << 20), self.disk("data", 16 << 20)
        write("/etc/tarnwick/volumes.plist", property_list({"Roles": {preboot: "Preboot", data: "Data"}}))
        write(f"/media/data/{world.CONSENT}", property_list({"AutoSubmit": True}))
        write("/media/data/logs/a.log", "line\n")
        os.makedirs("/media/data/logs/empty")
        self.world.specification(("/logs", ".*"))
        result = self.world.capture("--noninteractive")
        self.assertEqual(result.status, 0, result.console + result.errors)
        device = subprocess.run(["findmnt", "-n", "-o", "SOURCE", "/media/data"], capture_output=True, check=True)
        device = os.path.basename(device.stdout.decode().strip())
        self.assertRegex(result.console, f"\nNow processing volume '{data}' \\((/dev/)?{device} -> /media/data\\)\n")
        self.assertIn("\n/media/data/logs/a.log\n", result.console)
        self.assertIn('final archive copied to "/media/preboot/tarnwick/tarnwick-STAMP.qvx"\n', result.console)
        archive = self.world.entries(result.archive)
        firmware = os.path.isdir("/sys/firmware/efi/efivars") and os.listdir("/sys/firmware/efi/efivars")
        if not firmware:
            self.assertIn("WARNING: nvram command returned an error, skipping this capture directive\n", result.console)
        self.assertEqual(f"{world.FOLDER}/nvram.txt" in archive, bool(firmware))
        self.assertIn(f"{world.FOLDER}/tarnwick-STAMP.log", archive)
        self.assertIn("contains 1 capture:", self.world.run("--summarize").console)


if __name__ == "__main__":
    world.main()
