# A Debian machine made from packages, started under software emulation and driven over its serial lines.
import codecs
import contextlib
import hashlib
import re
import select
import shlex
import shutil
import socket
import subprocess
import tarfile
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
EXCHANGE = "96M"  # the size of the disks by which files are sent and fetched
USER, PASSWORD = "owner", "a longer word"
MACHINE_ID = "5eed" * 8

PACKAGES = """linux-image-amd64 systemd-sysv udev initramfs-tools lvm2 cryptsetup-bin btrfs-progs xfsprogs dosfstools
    fdisk attr sudo man-db openssl python3 libblkid1 libmount1 libcryptsetup12 libzstd1 libssl3 libexpat1
    libcurl4""".split()
LEFT_OUT = ["/usr/share/doc/*", "/usr/share/locale/*"] + [
    f"/lib/modules/*/kernel/{folder}/*" for folder in ("sound", "drivers/net", "drivers/gpu", "drivers/media")]

# MiB, GPT type, name. The root partition is written here, the others are formatted by the guest.
ROOT_SIZE = 1024
PARTITIONS = [
    (64, "c12a7328-f81f-11d2-ba4b-00a0c93ec93b", "esp"),
    (64, "bc13c2ff-59e6-4262-a352-b275fd6f7172", "extended boot loader partition"),
    (ROOT_SIZE, "4f68bce3-e8cd-4db1-96e7-fbcaf984b709", "root"),
    (64, "933ac7e1-2eb4-4f13-b844-0e14e2aef915", "home"),
    (64, "e6d6d379-f507-44c2-a23c-238f2a3df928", "lvm"),
    (160, "0fc63daf-8483-4772-8e79-3d69d8477de4", "btrfs"),
    (320, "3b8f8425-20e0-4f3b-907f-1a25a76f98e8", "srv"),
    (32, "0fc63daf-8483-4772-8e79-3d69d8477de4", "crashed"),
]
DISKS = "system", "stick"

FILES = {
    "etc/fstab": "/dev/vda3 / ext4 errors=remount-ro 0 1\n",
    "etc/hostname": "vm\n",
    "etc/hosts": "127.0.0.1 localhost vm\n",
    "etc/machine-id": f"{MACHINE_ID}\n",
    # A shell on each serial line: the first is the terminal of the machine's owner, the second the test's own.
    "etc/systemd/system/shell@.service": """[Unit]
After=systemd-user-sessions.service local-fs.target
[Service]
Type=idle
Environment=PS1= TERM=dumb
WorkingDirectory=~
ExecStart=/bin/sh -c 'echo @shell@; exec bash --norc --noediting -i'
StandardInput=tty
StandardOutput=tty
StandardError=tty
TTYPath=/dev/%i
[Install]
WantedBy=multi-user.target
""",
    "etc/systemd/system/shell@ttyS0.service.d/user.conf": f"[Service]\nUser={USER}\n",
    "etc/systemd/system/shell@ttyS1.service.d/user.conf": "[Service]\nUser=root\n",
}
KERNEL_LINE = "root=/dev/vda3 rw console=ttyS0 quiet loglevel=2 systemd.gpt_auto=0 mitigations=off"


# A mismatch; it ends the test.
class Failure(Exception):
    pass


def command(*words, **settings):
    done = subprocess.run([str(word) for word in words], capture_output=True, text=True, **settings)
    if done.returncode:
        raise Failure(f"{' '.join(map(str, words))}: status {done.returncode}\n{done.stderr[-4000:]}")
    return done.stdout


def say(text=""):
    text = re.sub("[^\n]*\r", "", text)  # overwritten lines
    print("".join(c if c in "\n\t" or c.isprintable() else f"\\x{ord(c):02x}" for c in text), flush=True)


# One end of a terminal. A wait ends when nothing has come for so many seconds.
class Console:
    def __init__(self):
        self.socket, self.far_end = socket.socketpair()
        self.unread = ""
        self.decode = codecs.getincrementaldecoder("utf-8")("replace").decode

    def send(self, text):
        self.socket.sendall(text.encode())

    # The match of the pattern and the text before it; both are used up.
    def expect(self, pattern, seconds=240):
        while not (match := re.search(pattern, self.unread)):
            ready, _, _ = select.select([self.socket], [], [], seconds)
            received = self.socket.recv(65536) if ready else b""
            if not received:
                raise Failure(f"nothing more came, waiting for {pattern!r} after:\n{self.unread[-3000:]}")
            self.unread = re.sub("\r+\n", "\n", self.unread + self.decode(received))
        before, self.unread = self.unread[:match.start()], self.unread[match.end():]
        return match, before

    def start(self, line):
        self.send(f"{line}; echo @$?@\n")
        self.expect(r"echo @\$\?@\n")

    def run(self, line, status=0, seconds=240):
        self.start(line)
        match, text = self.expect(r"@(\d+)@\n", seconds)
        if status is not None and int(match[1]) != status:
            raise Failure(f"status {match[1]} instead of {status}:\n{text}")
        return text


# A running machine. Its disks are in `folder`.
class Machine:
    def __init__(self, folder):
        self.folder, self.operator, self.control = folder, Console(), Console()

    # Copies a file to the path `name` in the guest, which is relative to /.
    def send(self, path, name):
        with tarfile.open(self.folder / "tools", "w") as tar:
            tar.add(path, name)
        command("truncate", "-s", EXCHANGE, self.folder / "tools")
        self.control.run("blockdev --flushbufs /dev/disk/by-id/virtio-tools; tar xf /dev/disk/by-id/virtio-tools -C /")

    # Copies files of the guest into the folder `target`.
    def fetch(self, names, target):
        self.control.run(f"tar cf /dev/disk/by-id/virtio-out --format=posix -C / {names} && sync")
        command("tar", "xpf", self.folder / "out", "-C", target)


# At the end, and when this process is killed, the power is cut.
@contextlib.contextmanager
def running(folder, form, kernel):
    machine, words = Machine(folder), []
    for name in "tools", "out":
        command("truncate", "-s", EXCHANGE, folder / name)
    for number, (name, kind) in enumerate([(name, form) for name in DISKS] + [("tools", "raw"), ("out", "raw")]):
        words += ["-drive", f"if=none,id={name},file={folder / name},format={kind},cache=unsafe"]
        words += (["-device", "qemu-xhci", "-device", "usb-storage,drive=stick,removable=on"] if name == "stick" else
                  ["-device", f"virtio-blk-pci,drive={name},serial={name},addr={8 + number}"])
    lines = [console.far_end.fileno() for console in (machine.operator, machine.control)]
    for line in lines:
        words += ["-chardev", f"socket,id=line{line},fd={line}", "-serial", f"chardev:line{line}"]
    with subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "qemu-system-x86_64", "-accel", "tcg,thread=multi", "-machine", "q35",
             "-cpu", "max", "-smp", "2", "-m", "1024", "-nic", "none", "-display", "none", "-no-reboot",
             "-drive", "if=pflash,format=raw,readonly=on,file=/usr/share/OVMF/OVMF_CODE_4M.fd",
             "-drive", f"if=pflash,format={form},file={folder / 'variables'},cache=unsafe",
             "-kernel", kernel / "vmlinuz", "-initrd", kernel / "initrd.img", "-append",
             KERNEL_LINE, *words],
            stdin=subprocess.DEVNULL, pass_fds=lines) as qemu:
        try:
            for console in machine.operator, machine.control:
                console.far_end.close()
                console.expect("@shell@\n", 400)
            yield machine
        finally:
            qemu.kill()


# The files of a machine that has never run.
def makeTree(tree):
    command("mmdebstrap", "--variant=minbase", "--mode=root", *(f"--dpkgopt=path-exclude={path}" for path in LEFT_OUT),
            "--skip=cleanup/reproducible",  # the logs of the installation stay
            '--essential-hook=cd "$1/etc" && mkdir -p initramfs-tools/conf.d'
            " && echo MODULES=list > initramfs-tools/conf.d/vm"
            " && printf 'virtio_blk\\nvirtio_pci\\next4\\ncrc32c_generic\\n' > initramfs-tools/modules",
            f"--include={','.join(PACKAGES)}", "bookworm", tree)
    for name, text in FILES.items():
        (tree / name).parent.mkdir(parents=True, exist_ok=True)
        (tree / name).write_text(text)
    for mountPoint in "var/lv logs", "media/$(reboot)":
        (tree / mountPoint).mkdir()
    command("chroot", tree, "useradd", "-m", "-G", "sudo", "-s", "/bin/bash", USER)
    command("chroot", tree, "chpasswd", input=f"{USER}:{PASSWORD}\n")
    command("systemctl", "--root", tree, "mask", "serial-getty@ttyS0.service", "getty-static.service",
            "systemd-networkd.service", "e2scrub_reap.service")  # the last ones only take time
    command("systemctl", "--root", tree, "enable", "shell@ttyS0.service", "shell@ttyS1.service")


# The disks before anything has run: partitions, and the root file system.
def makeDisks(folder):
    tree, disk = folder / "tree", folder / "system"
    makeTree(tree)
    command("truncate", "-s", f"{sum(size for size, _, _ in PARTITIONS) + 2}M", disk)
    command("sfdisk", "--no-reread", "--no-tell-kernel", disk, input="label: gpt\n" + "".join(
        f'size={size}MiB, type={kind}, name="{name}"\n' for size, kind, name in PARTITIONS))
    offset = (1 + sum(size for size, _, _ in PARTITIONS[:2])) << 20
    command("mkfs.ext4", "-q", "-d", tree, "-E", f"offset={offset}", disk, f"{ROOT_SIZE}M")
    command("truncate", "-s", "32M", folder / "stick")
    for name in "vmlinuz", "initrd.img":
        shutil.copy(next(tree.glob(f"boot/{name}-*")), folder / name)
    shutil.copy("/usr/share/OVMF/OVMF_VARS_4M.fd", folder / "variables")
    shutil.rmtree(tree)


# Disks with everything planted on them, as a power cut leaves them.
def makeImage(image, folder, passphrase):
    makeDisks(folder)
    say("packages and disks are made")
    with running(folder, "raw", folder) as machine:
        machine.send(HERE / "plant", "root/plant")
        machine.control.run(f"bash /root/plant {shlex.quote(passphrase)}", seconds=600)
    say("everything is planted and the power cut")
    folder.rename(image)


# The folder with the disks. Makes them if there are none of this recipe, and removes others. One run at a time.
def plantedImage(cache, passphrase):
    recipe = hashlib.sha256((HERE / "machine.py").read_bytes() + (HERE / "plant").read_bytes() + passphrase.encode())
    image = cache / f"image-{recipe.hexdigest()[:16]}"
    cache.mkdir(parents=True, exist_ok=True)
    for leftover in set(cache.iterdir()) - {image}:
        shutil.rmtree(leftover)
    if not image.exists():
        with tempfile.TemporaryDirectory(dir=cache, ignore_cleanup_errors=True) as name:
            makeImage(image, Path(name), passphrase)
    return image


# The machine, running; what the run changes on its disks is not kept.
@contextlib.contextmanager
def started(image):
    with tempfile.TemporaryDirectory(dir=image.parent) as name:
        for disk in *DISKS, "variables":
            command("qemu-img", "create", "-q", "-f", "qcow2", "-F", "raw", "-b", image / disk, f"{name}/{disk}")
        with running(Path(name), "qcow2", image) as machine:
            machine.control.run("systemctl is-system-running --wait; sync", None)
            yield machine
