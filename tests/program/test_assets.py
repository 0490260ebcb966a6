"""The configuration asset, from a real web server on loopback into the store and into a capture."""
import contextlib
import http.server
import os
import shutil
import ssl
import threading

import world
from world import YES, Scenario, call, content, property_list, write

PROJECT = world.HERE + "/../.."
PUBLISH = f"{PROJECT}/tools/asset-publish/asset-publish"
TYPE = "com.vexlor.Provisor.tarnwick.config"
STORE = f"/var/lib/tarnwick/assets/{TYPE}"
SITE = "/media/site"
CATALOG_FILE = SITE + "/catalog.plist"
NAME = "tarnwick.config.plist"
CATALOG = "attempting to download catalog, this may take a moment...\n"
ASSET = "Start downloading asset...\nattempting to download asset, this may take a moment...\n"
GAVE_UP = "WARNING: catalog update failed, will continue to look for assets using existing catalog...\n"


class Handler(http.server.SimpleHTTPRequestHandler):
    def __init__(self, *arguments):
        super().__init__(*arguments, directory=SITE)

    def do_GET(self):
        self.server.requests.append(self.path)
        for ending, act in self.server.tricks.items():
            if self.path.endswith(ending):
                return act(self)
        return super().do_GET()

    def log_message(self, *_):
        pass


@contextlib.contextmanager
def serve(tls=False):
    """A web server over SITE that the service is configured for. `tricks` answer the paths with their ending in their
    own way; `over` is set at its end."""
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as server:
        server.requests, server.tricks, server.over = [], {}, threading.Event()
        if tls:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain("/media/server.pem", "/media/server.key")
            server.socket = context.wrap_socket(server.socket, server_side=True)
        server.url = f"http{'s' if tls else ''}://127.0.0.1:{server.server_port}"
        write("/etc/tarnwick/asset-service.plist", property_list(
            {"CatalogURL": server.url + "/catalog.plist", "CatalogKey": "/etc/tarnwick/catalog.pem"}))
        threading.Thread(target=server.serve_forever).start()
        try:
            yield server
        finally:
            server.over.set()
            server.shutdown()


def redirect_to(url):
    def act(handler):
        handler.send_response(302)
        handler.send_header("Location", url)
        handler.end_headers()
    return act


class Assets(Scenario):
    def setUp(self):
        super().setUp()
        self.make_key("ec", "-pkeyopt", "ec_paramgen_curve:prime256v1")
        os.mkdir(SITE)

    def make_key(self, *kind):
        call("openssl", "genpkey", "-algorithm", *kind, "-out", "/media/site.key")
        call("openssl", "pkey", "-in", "/media/site.key", "-pubout", "-out", "/etc/tarnwick/catalog.pem")

    def publish(self, *versions, **options):
        for version in versions:
            write(f"{SITE}/{TYPE}/{version}/{NAME}", "<plist/>")
        call(PUBLISH, "--key", "/media/site.key", *(f"--{key}={value}" for key, value in options.items()), SITE)

    def sign(self, content):
        write(CATALOG_FILE, content)
        call("openssl", "dgst", "-sha256", "-sign", "/media/site.key", "-out", CATALOG_FILE + ".sig", CATALOG_FILE)

    def expect(self, lines, version=None, **more):
        where = f"{STORE}/{version}/{NAME}" if version else ""
        self.assertEqual(self.world.run(program="fetch_config", **more).raw, f"{lines}[{where}]\n")

    def refused(self, code, version=None):
        self.expect(f"{CATALOG}WARNING: catalog download failed: {code}\n{GAVE_UP}", version)

    def installed(self):
        return sorted(os.listdir(STORE)) if os.path.isdir(STORE) else []

    def test_silent_where_nothing_is_configured_and_uses_what_an_administrator_put_there(self):
        self.expect("")
        write(f"{STORE}/4.1/{NAME}", "<plist/>")
        self.expect(CATALOG, "4.1")

    def test_fetches_over_tls_then_uses_the_installed_one_and_takes_the_newer(self):
        new = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout /media/server.key -subj /CN=server"
        call("openssl", "req", "-x509", *new.split(), "-addext", "subjectAltName=IP:127.0.0.1",
             "-out", "/media/server.pem")
        self.make_key("ed25519")
        self.publish("5.10")
        trust = {"SSL_CERT_FILE": "/media/server.pem"}
        with serve(tls=True) as server:
            self.refused(11)
            self.expect(CATALOG + ASSET, "5.10", environment=trust)
            server.requests.clear()
            self.expect(CATALOG, "5.10", environment=trust)
            self.assertEqual(server.requests, ["/catalog.plist", "/catalog.plist.sig"])
            for versions, newest in (["5.12", "5.9", "4.99"], "5.12"), (["6.0"], "6.0"):
                self.publish(*versions)
                self.expect(CATALOG + ASSET, newest, environment=trust)
        self.assertEqual(self.installed(), ["5.12", "6.0"])
        self.refused(10, "6.0")

    def test_every_refused_catalog_leaves_the_installed_asset_in_use(self):
        def expire():
            """The stored catalog, which still forbids a lower serial."""
            self.publish("5.0", serial=7, days=-1)
            signature = content(CATALOG_FILE + ".sig")
            write("/var/lib/tarnwick/assets/.catalog", b"%d\n" % len(signature) + signature + content(CATALOG_FILE))
            self.publish("6.0", serial=6)

        self.publish("5.0", serial=7)
        with serve() as other, serve() as server:
            self.expect(CATALOG + ASSET, "5.0")
            good = content(CATALOG_FILE)
            server.tricks[".plist"] = redirect_to(other.url + "/catalog.plist")
            self.expect(CATALOG, "5.0")
            self.assertEqual(other.requests, ["/catalog.plist"])
            for target in ("file:///etc/passwd", "https://127.0.0.1/", "http://192.0.2.1/", "/catalog.plist"):
                server.tricks[".plist"] = redirect_to(target)
                self.refused(13, "5.0")
            server.tricks.clear()
            for code, damage in (
                    (20, lambda: self.sign(good + b"\n" * (1 << 20))),
                    (21, lambda: os.unlink(CATALOG_FILE + ".sig")),
                    (22, lambda: write(CATALOG_FILE, good + b"\n")),
                    (23, lambda: self.sign(b"<plist>")),
                    (24, lambda: self.publish("6.0", days=-1)),
                    (25, lambda: self.publish("6.0", serial=6)),
                    (26, lambda: self.sign(good.replace(NAME.encode(), b"../x"))),
                    (12, lambda: os.unlink(CATALOG_FILE)),
                    (25, expire)):
                with self.subTest(code=code):
                    self.sign(good)
                    damage()
                    self.refused(code, "5.0")
        self.assertEqual(self.installed(), ["5.0"])

    def test_refused_files_are_not_installed(self):
        self.publish("5.0")
        with serve():
            self.expect(CATALOG + ASSET, "5.0")
            self.publish("6.0")
            file = f"{SITE}/{TYPE}/6.0/{NAME}"
            for code, text in ((30, "<plist/> "), (30, "<plist/"), (31, "<plisT/>"), (12, None)):
                write(file, text) if text else os.unlink(file)
                self.expect(f"{CATALOG}{ASSET}WARNING: asset download failed: {code}\n")
            self.assertEqual(self.installed(), ["5.0"])
            shutil.rmtree(STORE)
            os.mkdir("/media/elsewhere")
            os.symlink("/media/elsewhere", STORE)
            self.expect(f"{CATALOG}WARNING: Unable to query local assets\n")
            self.assertEqual(os.listdir("/media/elsewhere"), [])

    def test_a_server_that_says_nothing_meets_the_deadline_and_does_not_hold_up_the_end(self):
        with serve() as server:
            server.tricks[".plist"] = lambda handler: server.over.wait()
            self.refused("(no progress indicated)")

    def test_a_kill_in_mid_download_leaves_the_old_state_and_the_next_run_clears_up(self):
        self.publish("5.0")
        with serve() as server:
            self.expect(CATALOG + ASSET, "5.0")
            self.publish("6.0")
            halfway = threading.Event()
            server.tricks["6.0/" + NAME] = lambda handler: (
                handler.wfile.write(b"HTTP/1.0 200 OK\r\nContent-Length: 8\r\n\r\n<pli"), halfway.set(),
                server.over.wait())
            process = self.world.start(program="fetch_config")
            self.assertTrue(halfway.wait(world.PATIENCE))
            process.kill()
            process.communicate()
            self.assertEqual([name for name in self.installed() if not name.startswith(".")], ["5.0"])
            server.tricks.clear()
            together = [self.world.start(program="fetch_config") for _ in range(3)]
            for each in together:
                self.assertIn(f"[{STORE}/6.0/{NAME}]", each.communicate()[0].decode())
        self.assertEqual(self.installed(), ["5.0", "6.0"])

    def test_a_published_configuration_makes_a_capture(self):
        self.world.volume("Data", YES, ["/var/log/syslog", "/var/log/other.txt"])
        configuration = world.read(f"{PROJECT}/config/linux.plist.in").replace("@RECIPIENT@", self.world.key_pair())
        write(f"{SITE}/{TYPE}/1.0/{NAME}", configuration)
        self.publish()
        with serve():
            result = self.world.run()
        self.assertIn(f'using external config: "{STORE}/1.0/{NAME}"\n', result.console)
        self.assertEqual(result.status, 0, result.console)
        entries = self.world.entries(result.archive)
        self.assertIn("/media/Data/var/log/syslog", entries)
        self.assertNotIn("/media/Data/var/log/other.txt", entries)


if __name__ == "__main__":
    world.main()
