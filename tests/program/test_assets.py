#!/usr/bin/env python3
"""The configuration asset, from a real web server on loopback into the store and into a capture."""
import contextlib
import http.server
import os
import plistlib
import shutil
import ssl
import subprocess
import threading
import unittest

from world import World, write

PROJECT = os.path.dirname(os.path.abspath(__file__)) + "/../.."
PUBLISH = f"{PROJECT}/tools/asset-publish/asset-publish"
LINUX = f"{PROJECT}/config/linux.plist.in"
TYPE = "com.vexlor.Provisor.tarnwick.config"
STORE = f"/var/lib/tarnwick/assets/{TYPE}"
SITE = "/media/site"
NAME = "tarnwick.config.plist"
CATALOG = "attempting to download catalog, this may take a moment...\n"
ASSET = "Start downloading asset...\nattempting to download asset, this may take a moment...\n"
GAVE_UP = "WARNING: catalog update failed, will continue to look for assets using existing catalog...\n"


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], check=True, capture_output=True)


def content(path):
    with open(path, "rb") as file:
        return file.read()


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
    """A web server over SITE. `tricks` answer the paths with their ending in their own way."""
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.requests, server.tricks, server.over = [], {}, threading.Event()
    if tls:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain("/media/server.pem", "/media/server.key")
        server.socket = context.wrap_socket(server.socket, server_side=True)
    server.url = f"http{'s' if tls else ''}://127.0.0.1:{server.server_port}"
    thread = threading.Thread(target=server.serve_forever)
    thread.start()
    try:
        yield server
    finally:
        server.over.set()
        server.shutdown()
        thread.join()
        server.server_close()


def redirect_to(url):
    def act(handler):
        handler.send_response(302)
        handler.send_header("Location", url)
        handler.end_headers()
    return act


class Assets(unittest.TestCase):
    def setUp(self):
        self.world = World()
        self.addCleanup(self.world.close)
        self.make_key("ec", "-pkeyopt", "ec_paramgen_curve:prime256v1")
        os.mkdir(SITE)

    def make_key(self, *kind):
        openssl("genpkey", "-algorithm", *kind, "-out", "/media/site.key")
        openssl("pkey", "-in", "/media/site.key", "-pubout", "-out", "/etc/tarnwick/catalog.pem")

    def configure(self, url):
        write("/etc/tarnwick/asset-service.plist",
              plistlib.dumps({"CatalogURL": url + "/catalog.plist", "CatalogKey": "/etc/tarnwick/catalog.pem"}))

    def version(self, version, content="<plist/>", name=NAME):
        write(f"{SITE}/{TYPE}/{version}/{name}", content)

    def publish(self, *versions, change=None, **options):
        for version in versions:
            self.version(version)
        words = [f"--{key}={value}" for key, value in options.items()]
        subprocess.run([PUBLISH, "--key", "/media/site.key", *words, SITE], check=True, capture_output=True)
        if change:
            catalog = plistlib.loads(content(f"{SITE}/catalog.plist"))
            change(catalog)
            self.sign(plistlib.dumps(catalog))

    def sign(self, content):
        write(f"{SITE}/catalog.plist", content)
        openssl("dgst", "-sha256", "-sign", "/media/site.key", "-out", f"{SITE}/catalog.plist.sig",
                f"{SITE}/catalog.plist")

    def fetch(self, **more):
        return self.world.run(program="fetch_config", **more).raw

    def expect(self, lines, version=None, **more):
        where = f"{STORE}/{version}/{NAME}" if version else ""
        self.assertEqual(self.fetch(**more), f"{lines}[{where}]\n")

    def installed(self):
        return sorted(os.listdir(STORE)) if os.path.isdir(STORE) else []

    def test_silent_where_nothing_is_configured_and_uses_what_an_administrator_put_there(self):
        self.expect("")
        write(f"{STORE}/4.1/{NAME}", "<plist/>")
        self.expect(CATALOG, "4.1")

    def test_fetches_over_tls_then_uses_the_installed_one_and_takes_the_newer(self):
        new = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout"]
        openssl("req", "-x509", *new, "/media/ca.key", "-subj", "/CN=authority", "-out", "/media/ca.pem")
        openssl("req", *new, "/media/server.key", "-subj", "/CN=server", "-out", "/media/server.csr")
        write("/media/names", "subjectAltName=IP:127.0.0.1")
        openssl("x509", "-req", "-in", "/media/server.csr", "-CA", "/media/ca.pem", "-CAkey", "/media/ca.key",
                "-CAcreateserial", "-extfile", "/media/names", "-out", "/media/server.pem")
        self.make_key("ed25519")
        self.publish("5.10")
        with serve(tls=True) as server:
            self.configure(server.url)
            self.expect(f"{CATALOG}WARNING: catalog download failed: 11\n{GAVE_UP}")
            trust = {"SSL_CERT_FILE": "/media/ca.pem"}
            self.expect(CATALOG + ASSET, "5.10", environment=trust)
            server.requests.clear()
            self.expect(CATALOG, "5.10", environment=trust)
            self.assertEqual(server.requests, ["/catalog.plist", "/catalog.plist.sig"])
            self.publish("5.12", "5.9", "4.99")
            self.expect(CATALOG + ASSET, "5.12", environment=trust)
            self.publish("6.0")
            self.expect(CATALOG + ASSET, "6.0", environment=trust)
        self.assertEqual(self.installed(), ["5.12", "6.0"])
        self.expect(f"{CATALOG}WARNING: catalog download failed: 10\n{GAVE_UP}", "6.0")

    def test_every_refused_catalog_leaves_the_installed_asset_in_use(self):
        self.publish("5.0", serial=7)
        with serve() as server:
            self.configure(server.url)
            self.expect(CATALOG + ASSET, "5.0")
            good = content(f"{SITE}/catalog.plist")
            first = lambda catalog: catalog["Assets"][-1]["Files"][0]
            damages = [
                (20, lambda: self.sign(good + b"\n" * (1 << 20))),
                (21, lambda: os.unlink(f"{SITE}/catalog.plist.sig")),
                (22, lambda: write(f"{SITE}/catalog.plist", good + b"\n")),
                (23, lambda: self.sign(b"<plist>")),
                (24, lambda: self.publish("6.0", days=-1)),
                (25, lambda: self.publish("6.0", serial=6)),
                (26, lambda: self.publish("6.0", change=lambda c: first(c).update(Path="../x"))),
                (12, lambda: os.unlink(f"{SITE}/catalog.plist")),
            ]
            for code, damage in damages:
                with self.subTest(code=code):
                    self.sign(good)
                    damage()
                    self.expect(f"{CATALOG}WARNING: catalog download failed: {code}\n{GAVE_UP}", "5.0")
            with serve() as other:
                self.sign(good)
                server.tricks[".plist"] = redirect_to(other.url + "/catalog.plist")
                self.expect(CATALOG, "5.0")
                self.assertEqual(other.requests, ["/catalog.plist"])
            for target in ("file:///etc/passwd", "https://127.0.0.1/", "http://192.0.2.1/", "/catalog.plist"):
                server.tricks[".plist"] = redirect_to(target)
                self.expect(f"{CATALOG}WARNING: catalog download failed: 13\n{GAVE_UP}", "5.0")
        self.assertEqual(self.installed(), ["5.0"])

    def test_an_expired_stored_catalog_still_forbids_a_lower_serial(self):
        self.publish("5.0", serial=7)
        with serve() as server:
            self.configure(server.url)
            self.expect(CATALOG + ASSET, "5.0")
            self.publish("5.0", serial=7, days=-1)
            signature = content(f"{SITE}/catalog.plist.sig")
            write("/var/lib/tarnwick/assets/.catalog",
                  b"%d\n" % len(signature) + signature + content(f"{SITE}/catalog.plist"))
            self.publish("6.0", serial=6)
            self.expect(f"{CATALOG}WARNING: catalog download failed: 25\n{GAVE_UP}", "5.0")

    def test_refused_files_are_not_installed(self):
        self.publish("5.0")
        with serve() as server:
            self.configure(server.url)
            self.expect(CATALOG + ASSET, "5.0")
            file = f"{SITE}/{TYPE}/6.0/{NAME}"
            self.publish("6.0")
            for code, content in ((30, "<plist/> "), (30, "<plist/"), (31, "<plisT/>"), (12, None)):
                write(file, content) if content else os.unlink(file)
                self.expect(f"{CATALOG}{ASSET}WARNING: asset download failed: {code}\n")
            self.assertEqual(self.installed(), ["5.0"])
            shutil.rmtree(STORE)
            os.mkdir("/media/elsewhere")
            os.symlink("/media/elsewhere", STORE)
            self.expect(f"{CATALOG}WARNING: Unable to query local assets\n")
            self.assertEqual(os.listdir("/media/elsewhere"), [])

    def test_a_server_that_says_nothing_meets_the_deadline_and_does_not_hold_up_the_end(self):
        with serve() as server:
            self.configure(server.url)
            server.tricks[".plist"] = lambda handler: server.over.wait()
            self.expect(f"{CATALOG}WARNING: catalog download failed: (no progress indicated)\n{GAVE_UP}")

    def test_a_kill_in_mid_download_leaves_the_old_state_and_the_next_run_clears_up(self):
        self.publish("5.0")
        with serve() as server:
            self.configure(server.url)
            self.expect(CATALOG + ASSET, "5.0")
            self.publish("6.0")
            halfway = threading.Event()

            def stall(handler):
                handler.send_response(200)
                handler.send_header("Content-Length", "8")
                handler.end_headers()
                handler.wfile.write(b"<pli")
                halfway.set()
                server.over.wait()

            server.tricks["6.0/" + NAME] = stall
            process = self.world.start(program="fetch_config")
            self.assertTrue(halfway.wait(60))
            process.kill()
            process.communicate()
            self.assertEqual([name for name in self.installed() if not name.startswith(".")], ["5.0"])
            del server.tricks["6.0/" + NAME]
            together = [self.world.start(program="fetch_config") for _ in range(3)]
            for each in together:
                self.assertIn(f"[{STORE}/6.0/{NAME}]", each.communicate()[0].decode())
        self.assertEqual(self.installed(), ["5.0", "6.0"])

    def test_a_published_configuration_makes_a_capture(self):
        self.world.volume("Data", {"AutoSubmit": True}, ["/var/log/syslog", "/var/log/other.txt"])
        with open(LINUX, encoding="utf-8") as file:
            self.version("1.0", file.read().replace("@RECIPIENT@", self.world.key_pair()))
        self.publish()
        with serve() as server:
            self.configure(server.url)
            result = self.world.run()
        self.assertIn(f'using external config: "{STORE}/1.0/{NAME}"\n', result.console)
        self.assertEqual(result.status, 0, result.console)
        self.assertIn("/media/Data/var/log/syslog", self.world.entries(result.archive))
        self.assertNotIn("/media/Data/var/log/other.txt", self.world.entries(result.archive))


if __name__ == "__main__":
    unittest.main()
