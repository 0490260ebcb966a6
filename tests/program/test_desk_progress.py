# The progress of qvx: the line on a terminal, the answer to SIGUSR1, JSON, and what -q and -v change.
import contextlib
import json
import os
import pty
import re
import select
import signal
import subprocess

from world import BIN, Scenario, call, content, overwrite, write

KEY, SOURCE, OUT = ["--key", "/media/key.pem"], "/media/source", "/media/out"
MEBIBYTE = 1 << 20


# What a terminal shows in the end. A line that is longer than it would remain in part.
def screen(shown, columns=80):
    lines = []
    for line in shown.decode().replace("\r\n", "\n").split("\n"):
        for piece in line.split("\r"):
            assert len(piece.replace("\x1b[K", "")) < columns, piece
        lines.append(line.rpartition("\r")[2].replace("\x1b[K", ""))
    return lines


def has_handler(process):
    with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
        return bool(int(re.search(r"SigCgt:\s*(\w+)", status.read())[1], 16) & 1 << signal.SIGUSR1 - 1)


class DeskProgress(Scenario):
    def setUp(self):
        super().setUp()
        os.mkdir(OUT)
        self.qvx("keygen", "-o", "/media/key")

    def normal(self, text):
        return super().normal(re.sub(r"\d+\.\d [KMGT]iB(/s)?|\d+\.\d(?= s,)", "N", text))

    def make(self, name, size, paths=("source/large",)):
        for path in paths:
            os.utime(write(f"/media/{path}", os.urandom(size)), (0, 0))
        call(BIN + "/qvx", "create", "-r", "/media/key.pub", "-o", f"/media/{name}", "/media/source")
        return f"/media/{name}"

    def popen(self, *words, **more):
        more = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.PIPE, **more}
        return subprocess.Popen([BIN + "/qvx", *words], **more)

    # A command whose streams are a terminal, except those in `more`.
    def on_terminal(self, *words, **more):
        terminal, other = pty.openpty()
        process = self.popen(*words, **{"stdout": other, "stderr": other, "start_new_session": True, **more})
        os.close(other)
        self.addCleanup(os.close, terminal)
        return process, terminal

    def shown_at_end(self, terminal):
        shown = b""
        with contextlib.suppress(OSError):  # the other end is closed
            while piece := os.read(terminal, 4096):
                shown += piece
        return shown

    # Its output is read slowly, so that the work lasts.
    def test_line_on_a_terminal(self):
        archive = self.make("archive", MEBIBYTE, [f"source/{number}" for number in range(64)])
        process, terminal = self.on_terminal("tar", *KEY, archive, "*/source", "none", stdout=subprocess.PIPE)
        shown = b""
        while b"left" not in shown:
            self.assertTrue(process.stdout.read(MEBIBYTE))
            if select.select([terminal], [], [], 0.05)[0]:
                shown += os.read(terminal, 4096)
        process.communicate()
        shown += self.shown_at_end(terminal)
        self.assertRegex(shown.decode(), r"\r\d+\.\d MiB of 6\d\.\d MiB, \d+%, \d+\.\d MiB/s, \d:\d\d left\x1b\[K")
        self.assertEqual((process.returncode, screen(shown)), (1, ["qvx: none: not in the archive", ""]))

    # A pipe that gives nothing for a while: the line comes without a byte that is counted.
    def start_half(self, *words):
        process, terminal = self.on_terminal(*words, stdin=subprocess.PIPE)
        process.stdin.write(content("/media/archive")[:MEBIBYTE])
        process.stdin.flush()
        shown = b""
        while b"iB/s" not in shown:
            shown += os.read(terminal, 4096)
        return process, terminal, shown

    def test_matches_are_not_mixed_with_the_line(self):
        write(SOURCE + "/z.txt", "found\n")
        whole = content(self.make("archive", 2 * MEBIBYTE))
        process, terminal, shown = self.start_half("grep", "-c", *KEY, "found", "-")
        process.communicate(whole[MEBIBYTE:])
        self.assertEqual(screen(shown + self.shown_at_end(terminal)), ["media/source/z.txt:1", ""])

    def test_line_names_one_of_several_archives(self):
        self.make("archive", 2 * MEBIBYTE)
        process, terminal, shown = self.start_half("verify", *KEY, "-", "/media/none")
        process.communicate()
        shown += self.shown_at_end(terminal)
        self.assertIn("/s, 1 of 2: standard input\x1b[K", shown.decode())
        self.assertTrue(all(line.startswith("qvx: ") for line in screen(shown)[:-1]), shown)

    def test_signal_is_answered_while_a_pipe_gives_nothing(self):
        bytes_ = content(self.make("archive", 2 * MEBIBYTE))
        for words in [], ["-q"], ["--progress=json"]:
            process = self.popen("verify", *words, *KEY, "-", stdin=subprocess.PIPE)
            process.stdin.write(bytes_[:MEBIBYTE])
            process.stdin.flush()
            for _ in range(2):
                process.send_signal(signal.SIGUSR1)
                line = b"{"
                while line.startswith(b"{"):
                    line = process.stderr.readline()
                self.assertRegex(line, rb"^qvx: \d+\.\d [KM]iB, .*/s\n$")
            self.assertNotIn(b"qvx:", process.communicate(bytes_[MEBIBYTE:])[1])
            self.assertEqual(process.returncode, 0)

    # Calls that wait are interrupted all the time.
    def test_signals_harm_no_command(self):
        archive = self.make("archive", 24 * MEBIBYTE)
        keys = ["-r", "/media/key.pub", "-o"]
        for words in (["create", *keys, OUT + "/new", SOURCE], ["verify", *KEY, archive, archive],
                      ["extract", *KEY, "-C", OUT, archive], ["rekey", *KEY, *keys, OUT + "/copy", archive],
                      ["cat", *KEY, archive, "*/large"], ["tar", *KEY, archive], ["list", "--full", *KEY, archive],
                      ["grep", *KEY, "", archive], ["diff", *KEY, archive, archive], ["find", *KEY, "*", archive],
                      ["extract", "--salvage", *KEY, "-C", OUT, archive]):
            wanted = subprocess.run([BIN + "/qvx", *words], check=True, capture_output=True).stdout
            with open(archive, "rb") as file, open(OUT + "/out", "wb") as out, open(OUT + "/errors", "wb") as errors:
                feeder = subprocess.Popen(["cat"], stdin=file, stdout=subprocess.PIPE)
                if words[0] in ("verify", "tar"):
                    words[-1] = "-"
                process = self.popen(*words, stdin=feeder.stdout, stdout=out, stderr=errors)
                feeder.stdout.close()
                while process.poll() is None:
                    if has_handler(process):
                        process.send_signal(signal.SIGUSR1)
                feeder.wait()
            self.assertEqual((process.returncode, content(OUT + "/out")), (0, wanted), words)

    def test_json_has_the_figures_of_what_is_read(self):
        large, name = 3 * MEBIBYTE, '/media/a "name"'
        os.rename(self.make("archive", large, ["source/a", "source/b"]), name)
        cut = write("/media/cut", content(name)[:-9])

        def objects(*words, **more):
            done = subprocess.run([BIN + "/qvx", *words, "--progress=json"], check=False, capture_output=True, **more)
            return [json.loads(line) for line in done.stderr.splitlines() if line.startswith(b"{")]

        size = os.path.getsize(name)
        for words in ["verify"], ["list", "--full"], ["extract", "-C", OUT], ["tar"], ["grep", "x"]:
            end = objects(*words, *KEY, name)[-1]
            self.assertEqual(list(end), ["archive", "bytes", "total", "percent", "rate", "seconds_left"])
            self.assertEqual((end["archive"], end["percent"], end["seconds_left"]), (name, 100, 0))
            self.assertTrue(size - 2000 < end["bytes"] <= end["total"] < size + 1.1 * MEBIBYTE, end)
        for words in ["cat", name, "*/b"], ["extract", "-C", OUT, name, "*/a"]:
            end = objects(*words, *KEY)[-1]
            self.assertTrue(large < end["total"] < size and end["bytes"] == end["total"], end)
        end = objects("create", "-r", "/media/key.pub", "-o", "/media/new", SOURCE)[-1]
        self.assertEqual((end["archive"], end["bytes"], end["total"]), ("/media/new", 2 * large, 2 * large))
        with open(name, "rb") as pipe:
            end = objects("verify", *KEY, "-", stdin=pipe)[-1]
        self.assertEqual((end["bytes"], end["total"], end["percent"], end["seconds_left"]), (size, None, None, None))
        overwrite(cut, large, b"damaged!")
        several = objects("verify", *KEY, name, "/media/none", cut)
        self.assertEqual(list(dict.fromkeys(each["archive"] for each in several)), [name, cut])
        end = objects("extract", "--salvage", *KEY, "-C", OUT, cut)[-1]
        self.assertTrue(2 * size - 5000 < end["bytes"] <= end["total"], end)

    def test_quiet_and_verbose(self):
        os.utime(write(SOURCE + "/new\nline", "x"), (0, 0))
        archive = self.make("archive", 10, ["source/a", "source/deep/b"])
        os.utime(SOURCE + "/deep", (0, 0))
        cut = write("/media/cut", content(archive)[:-9])
        self.tool("qvx", "create", "-v", "-r", "/media/key.pub", "-o", OUT + "/archive", SOURCE)
        for words in (["verify", archive, cut], ["extract", "-C", OUT, archive, "*/deep"], ["list", "--include", "*/a", archive],
                      ["extract", "-n", archive, "*/deep"]):
            for option in "-v", "-q":
                self.tool("qvx", words[0], option, *KEY, *words[1:])
        self.assertEqual(self.popen("tar", "-v", *KEY, archive, "*/a").communicate()[1].split(b"\n")[0], b"media/source/a")
        for expression in "x", "none":
            self.tool("qvx", "grep", "-q", *KEY, expression, archive, archive, cut)
        for words in ["verify", "-q", "-v"], ["verify", "--progress", "x"], ["grep", "-v"]:
            self.tool("qvx", *words, *KEY, archive, archive)
