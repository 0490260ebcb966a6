# Archives on a server and in a pipe. The servers are nginx and one that answers wrongly, both on loopback with TLS.
import contextlib
import http.server
import os
import re
import signal
import socket
import ssl
import subprocess
import threading

import world
from world import HERE, Scenario, call, clear, content, read, write

KEY, SOURCE, OUT, ARCHIVE = ["--key", "/media/key.pem"], "/media/source", "/media/out", "/media/www/a.qvx"
MEBIBYTE = 1 << 20
SIGNATURE = "sig=a%2Fb%2bc+d%3D%3D&at=~/&x"
NGINX = """daemon off; user root; pid /media/nginx.pid; error_log /media/errors;
events {}
http {
  log_format counted '$status $body_bytes_sent $request_uri';
  access_log /media/access counted;
  server {
    listen 127.0.0.1:%d ssl; ssl_certificate /media/server.crt; ssl_certificate_key /media/server.key;
    root /media/www;
    location /private/ { alias /media/www/; auth_basic archives; auth_basic_user_file /media/passwords; }
    location /signed/ {
      secure_link $arg_signature; secure_link_md5 "$uri secret";
      if ($secure_link = "") { return 403; }
      alias /media/www/;
    }
  }
}
"""


# Answers range requests, and does wrong what the first part of the path says. Counts what it was asked for.
class Faulty(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *_):
        pass

    def do_GET(self):
        with contextlib.suppress(OSError):  # qvx closes the connection when it has seen enough
            fault, _, query = self.path[1:].partition("?")
            self.server.asked[fault] = asked = self.server.asked.get(fault, 0) + 1
            getattr(self, fault, self.missing)(asked, query)

    def missing(self, *_):
        self.reply(404)

    def reply(self, status, body=b"", **headers):
        self.send_response(status)
        for name, value in {"Content_Length": str(len(body)), **headers}.items():
            self.send_header(name.replace("_", "-"), value)
        self.end_headers()
        self.wfile.write(body)

    def part(self, path=ARCHIVE, tag="1", shift=0, more=b"", **headers):
        whole = content(path)
        begin, end = map(int, self.headers["Range"].removeprefix("bytes=").split("-"))
        body = whole[begin:end + 1]
        self.reply(206, body + more, ETag=f'"{tag}"', **{
            "Content_Range": f"bytes {begin + shift}-{begin + shift + len(body) - 1}/{len(whole)}", **headers})

    def good(self, *_):
        self.part()

    def whole(self, *_):
        self.reply(200, content(ARCHIVE))

    def signed(self, _, query):
        self.part() if query == SIGNATURE else self.reply(403)

    def to_http(self, *_):
        self.reply(302, Location=f"http://localhost:{self.server.server_port}/good")

    def to_https(self, *_):
        self.reply(302, b"a page for people", Location="/good")

    def changed(self, asked, _):
        self.part(tag=min(asked, 2))

    def elsewhere(self, *_):
        self.part(shift=1)

    def endless(self, *_):
        self.part(more=b"x")

    def huge(self, *_):
        self.part(Content_Range=f"bytes 0-65535/{1 << 70}")

    def busy_at_first(self, asked, _):
        self.part() if asked > 2 else self.reply(503)

    def busy(self, *_):
        self.reply(503)

    # After the head and the end of the archive, nothing comes until the client gives up.
    def stalled(self, asked, _):
        if asked <= 2:
            return self.part()
        self.server.waiting.set()
        self.rfile.read(1)

    # Every other answer ends too early.
    def cut(self, asked, _):
        self.part(more=b"", Content_Length=str(1 << 22)) if asked % 2 else self.part()
        self.close_connection = True

    def cut_always(self, *_):
        begin = self.headers["Range"].removeprefix("bytes=").split("-")[0]
        self.reply(206, b"x", Content_Length="65536", Content_Range=f"bytes {begin}-65535/99999999")
        self.close_connection = True


# An object store: objects may be written and read in parts.
class Store(Faulty):
    def do_PUT(self):
        with open("/media/www" + self.path, "wb") as file:
            while length := int(self.rfile.readline(), 16):
                file.write(self.rfile.read(length))
                self.rfile.readline()
        self.rfile.readline()
        self.reply(201)

    def do_GET(self):
        with contextlib.suppress(OSError):
            path = "/media/www" + self.path.partition("?")[0]
            self.part(path) if "Range" in self.headers else self.reply(200, content(path))


class Remote(Scenario):
    def setUp(self):
        super().setUp()
        self.qvx("keygen", "-o", "/media/key")
        os.makedirs("/media/www")
        os.mkdir(OUT)
        self.make_certificates()

    # Of an authority of this test, which only $CURL_CA_BUNDLE names.
    def make_certificates(self):
        new = ["openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-noenc"]
        call(*new, "-x509", "-keyout", "/media/ca.key", "-out", "/media/ca.crt", "-subj", "/CN=authority of a test")
        call(*new, "-keyout", "/media/server.key", "-out", "/media/server.csr", "-subj", "/CN=localhost")
        call("openssl", "x509", "-req", "-in", "/media/server.csr", "-CA", "/media/ca.crt", "-CAkey", "/media/ca.key",
             "-out", "/media/server.crt", "-extfile", write("/media/names", "subjectAltName=DNS:localhost"))

    # nginx inherits the socket, so the port is certainly free, and it accepts connections before nginx runs.
    def serve(self):
        listening = socket.create_server(("127.0.0.1", 0))
        port = listening.getsockname()[1]
        write("/media/nginx.conf", NGINX % port)
        server = subprocess.Popen(["nginx", "-p", "/media", "-c", "/media/nginx.conf"], pass_fds=[listening.fileno()],
                                  env={"PATH": world.PATH, "NGINX": f"{listening.fileno()};"},
                                  stderr=subprocess.DEVNULL)
        listening.close()
        self.addCleanup(server.wait)
        self.addCleanup(server.terminate)
        return f"https://localhost:{port}"

    def serve_with(self, handler):
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
        server.asked, server.waiting = self.asked, self.waiting = {}, threading.Event()
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain("/media/server.crt", "/media/server.key")
        server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
        server.handle_error = lambda *_: None
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        return f"https://localhost:{server.server_port}"

    def files(self, count, size):
        for number in range(count):
            if number % 1000 == 0:
                os.makedirs(folder := f"{SOURCE}/{number}")
            with open(f"{folder}/a file with a name of a usual length, {number}", "wb") as file:
                file.write(os.urandom(size))

    def create(self):
        self.qvx("create", "-r", "/media/key.pub", "-o", ARCHIVE, SOURCE)

    # Status, output and messages.
    def run_qvx(self, *words, authority="/media/ca.crt", typed=None, **options):
        process = self.start(*words, program="qvx", environment={"CURL_CA_BUNDLE": authority}, **options)
        out, errors = process.communicate(typed)
        return process.returncode, out, errors.decode() if errors else ""

    # Output, count of requests and MiB.
    def costs(self, *words):
        write("/media/access")
        status, out, errors = self.run_qvx(*words)
        self.assertEqual((status, errors), (0, ""))
        answers = [line.split() for line in read("/media/access").splitlines()]
        self.assertEqual({answer[0] for answer in answers}, {"206"})
        return out, len(answers), sum(int(answer[1]) for answer in answers) / MEBIBYTE

    def test_listing_and_one_file_need_few_requests(self):
        self.files(50_000, 1000)
        self.create()
        url = self.serve() + "/a.qvx"
        path = f"{SOURCE}/30000/a file with a name of a usual length, 30123"
        for words, most in (["info"], 4), (["list", *KEY], 4), (["cat", *KEY], 6):
            with self.subTest(words):
                more = [path] if words[0] == "cat" else []
                out, requests, size = self.costs(*words, url, *more)
                self.assertEqual(out, self.run_qvx(*words, ARCHIVE, *more)[1])
                self.assertLessEqual(requests, 6)
                self.assertLessEqual(size, most)
        _, requests, size = self.costs("verify", *KEY, url)
        self.assertLessEqual(requests, 8 + os.stat(ARCHIVE).st_size / MEBIBYTE / 4)
        self.assertLessEqual(size, os.stat(ARCHIVE).st_size / MEBIBYTE + 1)
        self.costs("extract", *KEY, "-C", OUT, url, f"{SOURCE}/7000", f"{SOURCE}/40000")
        call("diff", "-r", f"{SOURCE}/7000", f"{OUT}{SOURCE}/7000")

    def test_passwords_and_signatures_open_what_is_protected(self):
        write(f"{SOURCE}/file", "content")
        self.create()
        hashed = call("openssl", "passwd", "-apr1", "pass").strip()
        write("/media/passwords", f"user:{hashed}\n")
        signature = call("sh", "-c", "printf '/signed/a.qvx secret' | openssl md5 -binary | base64 | tr +/ -_ | tr -d =")
        url = self.serve()
        self.assertEqual(self.run_qvx("verify", *KEY, f"{url}/signed/a.qvx?signature={signature.strip()}")[0], 0)
        for refused in "/signed/a.qvx?signature=SECRET", "/private/a.qvx":
            status, _, errors = self.run_qvx("list", *KEY, url + refused)
            self.assertEqual(status, 1)
            self.assertRegex(errors, rf"\Aqvx: {url}/\w+/a.qvx: the server answers with status 40[13]: [^\n]*\n\Z")
        secret = url.replace("//", "//user:SECRET@") + "/private/a.qvx?SECRET"
        for words in (["cat", *KEY, ARCHIVE, secret], ["diff", ARCHIVE, ARCHIVE, secret], [secret],
                      ["list", "--key", secret, ARCHIVE], ["info", url.replace("//", "//user:SEC/RET@")]):
            errors = self.run_qvx(*words)[2]
            self.assertRegex(errors, r"\Aqvx: .*https://")
            self.assertNotRegex(errors, "SEC|RET")
        self.lay("/root", "mode=700")
        write("/root/.netrc", "machine localhost login user password pass\n")
        self.assertEqual(self.run_qvx("verify", *KEY, f"{url}/private/a.qvx")[0], 0)

    def test_wrong_answers_are_refused(self):
        self.files(8, MEBIBYTE)
        self.create()
        url = self.serve_with(Faulty)
        size = f"size         {os.stat(ARCHIVE).st_size} bytes"
        for fault, command, asked, expected in (
                ("good", "info", 2, size),
                ("signed?" + SIGNATURE, "info", 2, size),
                ("to_https", "info", 2, size),
                ("busy_at_first", "info", 4, size),
                ("cut", "verify", None, ""),
                ("to_http", "info", 1, "the server redirects to an address that is not https://"),
                ("whole", "info", 1, "the server does not support range requests"),
                ("changed", "verify", 2, "the archive was changed on the server"),
                ("elsewhere", "info", 1, "another range"),
                ("endless", "info", 1, "more than it was asked for"),
                ("huge", "info", 1, "another range"),
                ("busy", "info", 4, "status 503"),
                ("cut_always", "info", 4, "ends its answer too early"),
                ("nothing", "info", 1, "there is no such archive")):
            with self.subTest(fault):
                status, out, errors = self.run_qvx(command, *KEY * (command == "verify"), f"{url}/{fault}")
                good = expected in ("", size)
                self.assertEqual((status, bool(errors)), (0, False) if good else (1, True), errors)
                self.assertIn(expected, out.decode() + errors)
                self.assertLessEqual(errors.count("\n"), 1)
                self.assertIn(self.asked[fault.partition("?")[0]], [asked] if asked else range(1000))

        # Not damaged.
        self.asked.clear()
        self.assertIn(b'"unreadable"', self.run_qvx("verify", "--json", *KEY, f"{url}/changed")[1])

    # The limit for a server that does not answer is some minutes.
    def test_interruption_ends_the_waiting_for_a_server(self):
        self.files(8, MEBIBYTE)
        self.create()
        process = self.start("extract", *KEY, "-C", OUT, self.serve_with(Faulty) + "/stalled", program="qvx",
                             environment={"CURL_CA_BUNDLE": "/media/ca.crt"})
        self.assertTrue(self.waiting.wait(100))
        process.send_signal(signal.SIGINT)
        self.assertIn(b"interrupted", process.communicate(timeout=100)[1])
        self.assertNotEqual(process.returncode, 0)

    def test_untrusted_connections_are_refused(self):
        write(f"{SOURCE}/file", "content")
        self.create()
        url = self.serve_with(Faulty) + "/good"
        for words, status, expected in (([url], 1, "certificate"), ([url.replace("https", "HTTP")], 2, "only https://"),
                                        (["https://"], 1, "")):
            done = self.run_qvx("info", *words, authority="/media/server.csr")
            self.assertEqual(done[0], status, done)
            self.assertIn(expected, done[2])
        self.assertEqual(self.asked, {})

    # Three archives, one of them damaged.
    def test_recipes_work(self):
        self.lay("/var/log", "mode=755")
        for name, files in (("alpha", ["syslog", "kern.log"]), ("beta", ["syslog", "dpkg.log"]), ("gamma", ["kern.log"])):
            clear("/var/log")
            for file in files:
                write(f"/var/log/{file}", f"{name}: {file}\n" * 100)
            self.qvx("create", "-r", "/media/key.pub", "-o", f"/media/www/{name}.qvx", "/var/log")
        write("/media/www/beta.qvx", content("/media/www/beta.qvx").replace(b"QVXB", b"QVXX"))
        write("/media/cwd/logs/today", "today\n")
        for name in "pem", "pub":
            os.rename(f"/media/key.{name}", f"/media/cwd/service.{name}")
        store = self.serve_with(Store)
        write("/media/cwd/urls", "".join(f"{store}/{name}.qvx?signature=SECRET\n" for name in
                                         ("alpha", "beta", "gamma", "delta")))
        blocks = re.findall(r"^```sh desk\n(.*?)^```$", read(HERE + "/../../docs/at-scale.md"), re.M | re.S)
        self.assertGreaterEqual(len(blocks), 8)
        environment = {"PATH": "/media/programs:" + world.PATH, "STORE": store, "CURL_CA_BUNDLE": "/media/ca.crt",
                       "HOME": "/root"}
        done = subprocess.run(["bash", "-euo", "pipefail", "-c", "".join(blocks)],
                              cwd="/media/cwd", env=environment, capture_output=True, check=False, text=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(read("/media/cwd/syslog"), "alpha: syslog\n" * 100)
        call("test", "-f", "/media/cwd/case-4711/var/log/kern.log")
        self.assertEqual(read("/media/cwd/failed"), f"{store}/beta.qvx?signature=SECRET\n")
        self.assertEqual(done.stderr.count("4 archives, 1 with errors"), 2)
        self.assertEqual(read("/media/cwd/found").splitlines(), [
            f"{store}/{name}.qvx: var/log/kern.log" for name in ("alpha", "gamma")])
        self.assertEqual(set(read("/media/cwd/matches").splitlines()), {
            f"{store}/{name}.qvx:var/log/kern.log:{name}: kern.log" for name in ("alpha", "gamma")})
        self.assertNotIn("SECRET", done.stdout + done.stderr + read("/media/cwd/errors"))
        self.assertRegex(done.stdout, r"\nalpha.qvx\ngamma.qvx\n1600 +alpha.qvx +var/log/kern.log *\n")

    # Blocks of more bytes than all workers have in progress, and many small ones with references to contents.
    def test_archives_pass_through_pipes(self):
        self.files(48, MEBIBYTE)
        os.link(f"{SOURCE}/0/a file with a name of a usual length, 7", f"{SOURCE}/link")
        tools = "/media/programs/qvx"
        script = f"""set -o pipefail; cd /media
            {tools} create -r key.pub -o - source | tee www/a.qvx | {tools} extract --key key.pem -C out -
            {tools} verify --key key.pem - < www/a.qvx
            cat www/a.qvx | {tools} list --full --key key.pem - > piped
            {tools} list --full --key key.pem www/a.qvx | cmp - piped
            {tools} create -r key.pub -o - source > source/self.qvx
            {tools} list --key key.pem source/self.qvx | grep self"""
        self.assertEqual(subprocess.run(["bash", "-ec", script], capture_output=True, check=False).stdout, b"")
        # The content of `link` is in a file that is not chosen, and has passed.
        os.mkdir("/media/some")
        for option in ["-n"], ["-C", "/media/some"]:
            with open(ARCHIVE, "rb") as stream:
                status, _, errors = self.run_qvx("extract", *KEY, *option, "-", "*length, 1?", SOURCE + "/link",
                                                 stdin=stream)
            self.assertEqual((status, errors.count("\n")), (1, 1))
            self.assertRegex(errors, "link: its content cannot be read")
        self.assertEqual(len(os.listdir(f"/media/some{SOURCE}/0")), 10)
        os.remove(f"{SOURCE}/self.qvx")
        call("diff", "-r", SOURCE, OUT + SOURCE)

    def test_damaged_streams_are_refused(self):
        self.files(3, MEBIBYTE)
        self.create()
        whole = content(ARCHIVE)
        changed = bytearray(whole)
        changed[-100] ^= 1
        for damaged, expected in ((b"", "ends here"), (whole[:100], "ends here"), (whole[:241], "ends here"),
                                  (whole[:MEBIBYTE], "ends here"), (whole[:-1], "its end is not a footer"),
                                  (whole + b"x", "bytes follow the footer"), (bytes(changed), "the footer is damaged")):
            for command in ["verify"], ["extract", "-C", OUT], ["list", "--full"]:
                with self.subTest(command, expected=expected):
                    write("/media/stream", damaged)
                    with open("/media/stream", "rb") as stream:
                        status, _, errors = self.run_qvx(*command, *KEY, "-", stdin=stream)
                    self.assertEqual(status, 1)
                    self.assertRegex(errors, f"\\Aqvx: standard input: .*{expected}")

    def test_commands_that_need_the_index_refuse_a_pipe(self):
        for words in (["list", *KEY, "-"], ["info", "-"], ["cat", *KEY, "-", "path"], ["extract", "--salvage", *KEY, "-"], ["verify", "--key", "-", "-"]):
            status, out, errors = self.run_qvx(*words, typed=content("/media/key.pem"))
            self.assertEqual((status, out), (2, b""), words)
            self.assertRegex(errors, r"\Aqvx: (this needs the end of the archive first|standard input is read already)")
        shown, status, _ = world.on_terminal(["/media/programs/qvx", "create", "-r", "/media/key.pub", "-o", "-", OUT],
                                             b"")
        self.assertEqual((shown, status), (b"qvx: standard output: an archive is not for a terminal; redirect it\n", 1))
