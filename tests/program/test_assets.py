# The configuration asset, from a real web server on loopback into the store and into a capture.
import functools
import http.server
import os
import pathlib
import re
import ssl
import subprocess
import sys
import threading

import world
from world import YES, Disks, Scenario, call, content, property_list, shell, write

PROJECT = world.HERE + "/../.."
TYPE = "com.vexlor.Provisor.tarnwick.config"
STORE = f"/var/lib/tarnwick/assets/{TYPE}"
SITE = "/media/site"
CATALOG = SITE + "/catalog.plist"
NAME, TRUST = "tarnwick.config.plist", {"SSL_CERT_FILE": "/media/server.pem"}
P256, P384 = (("ec", "-pkeyopt", "ec_paramgen_curve:" + curve) for curve in ("P-256", "P-384"))
NEWER = f"{SITE}/{TYPE}/6.0/{NAME}"


class Handler(http.server.SimpleHTTPRequestHandler):
    send_file = http.server.SimpleHTTPRequestHandler.do_GET

    def do_GET(self):
        self.server.answer(self)

    def log_message(self, *_):
        pass


# A site that publishes configurations from SITE.
class Site(Scenario):
    def setUp(self):
        super().setUp()
        self.make_key(*P256)
        os.mkdir(SITE)

    # A web server over SITE that the service is configured for. Its `answer` can be replaced.
    def serve(self, tls=None):
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(Handler, directory=SITE))
        server.answer = Handler.send_file
        if tls:
            server.socket = tls.wrap_socket(server.socket, server_side=True)
        server.url = f"http{'s' if tls else ''}://127.0.0.1:{server.server_port}"
        write("/etc/tarnwick/asset-service.plist", property_list(
            {"CatalogURL": server.url + "/catalog.plist", "CatalogKey": "/etc/tarnwick/catalog.pem"}))
        threading.Thread(target=server.serve_forever).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        return server

    def make_key(self, *kind):
        call("openssl", "genpkey", "-algorithm", *kind, "-out", "/media/site.key")
        call("openssl", "pkey", "-in", "/media/site.key", "-pubout", "-out", "/etc/tarnwick/catalog.pem")

    def publish(self, *versions, **options):
        for version in versions:
            write(f"{SITE}/{TYPE}/{version}/{NAME}", "<plist/>")
        call(*self.publisher(**options))

    # Publishes as 6.0 a configuration that finds a file on the volume Data. The program trusts no other any more.
    def publish_specification(self):
        self.volume("Data", YES, ["/logs/a.log"])
        self.specification(("/logs", ".*"))
        os.remove("/etc/tarnwick/internal-policies.plist")
        write(NEWER, content("/media/spec.plist"))
        self.publish()

    def publisher(self, **options):
        return [sys.executable, "-W", "error", f"{PROJECT}/tools/asset-publish/asset-publish", "--key",
                "/media/site.key", *(f"--{key}={value}" for key, value in options.items()), SITE]

    def sign(self, content):
        write(CATALOG, content)
        call("openssl", "dgst", "-sha256", "-sign", "/media/site.key", "-out", CATALOG + ".sig", CATALOG)

    # A server certificate, which TRUST makes the programs accept.
    def certificate(self):
        shell("/media", """openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=server \
            -addext subjectAltName=IP:127.0.0.1 -keyout server.key -out server.pem""")
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain("/media/server.pem", "/media/server.key")
        return tls


class Assets(Site):
    def fetch(self, **options):
        self.tool("fetch_config", **options)

    # Quiet where nothing is configured; an administrator's own, then what is newer.
    def test_from_nothing_to_the_newest_over_tls(self):
        self.fetch()
        tls = self.certificate()
        self.make_key("ed25519")
        write(f"{STORE}/4.1/{NAME}", "<plist/>")
        self.fetch()
        server = self.serve(tls)
        for versions, trust in (["5.10"], {}), (["5.10"], TRUST), (["5.12", "5.9", "4.99"], TRUST), ([], TRUST):
            self.publish(*versions)
            self.fetch(environment=trust)
        self.publish_specification()
        self.fetch(environment=TRUST)
        server.shutdown()
        server.server_close()
        self.tarnwick()
        self.assertEqual(sorted(os.listdir(STORE)), ["5.12", "6.0"])

    def test_refused_catalog_or_file_leaves_the_installed_asset_in_use(self):
        def redirect(url):
            server.answer = lambda handler: (
                handler.send_response(302), handler.send_header("Location", url), handler.end_headers())

        self.publish("5.0", serial=7)
        server = self.serve()
        self.fetch()
        good = content(CATALOG)
        for name, damage in {
                "redirect to a file": lambda: redirect("file:///etc/passwd"),
                "redirect to itself": lambda: redirect("/catalog.plist"),
                "no answer": lambda: setattr(server, "answer", lambda handler: handler.rfile.read()),
                "too large": lambda: self.sign(good + b"\n" * (1 << 20)),
                "no signature": lambda: os.unlink(CATALOG + ".sig"),
                "changed after signing": lambda: write(CATALOG, good + b"\n"),
                "expired": lambda: self.sign(re.sub(b"<date>....", b"<date>2001", good)),
                "older than the last one": lambda: (os.unlink(CATALOG), self.publish("6.0", serial=6)),
                "a path out of the asset": lambda: self.sign(good.replace(NAME.encode(), b"../x")),
                "missing": lambda: os.unlink(CATALOG),
                "a file longer than published": lambda: (self.publish("6.0"), write(NEWER, "<plist/> ")),
                "a file changed": lambda: (self.publish("6.0"), write(NEWER, "<plisT/>")),
                "a file missing": lambda: (self.publish("6.0"), os.unlink(NEWER)),
                "a key of a curve that OpenSSL accepts": lambda: (self.make_key(*P384), self.sign(good))}.items():
            server.answer = Handler.send_file
            self.sign(good)
            damage()
            self.note("fault", name)
            self.fetch()
        self.assertEqual(os.listdir(STORE), ["5.0"])

    def test_publisher_believes_and_replaces_only_its_own_catalog(self):
        hostile = property_list({"Serial": 2**63 - 2})
        self.publish("5.0", serial=7)
        good = content(CATALOG)
        self.assertRegex(good.splitlines()[1], b'^<!DOCTYPE plist PUBLIC "-//Vexlor//')
        for options, damage, message in (
                ({}, lambda: write(CATALOG, hostile), "not signed with this key"),
                ({}, lambda: os.unlink(CATALOG + ".sig"), "not signed with this key"),
                ({}, lambda: (os.rename(CATALOG, SITE + "/x"), os.symlink("x", CATALOG)), "not a regular file"),
                ({}, lambda: (os.unlink(CATALOG), os.mkfifo(CATALOG)), "not a regular file"),
                ({}, lambda: self.sign(property_list({"serial": 7})), "no serial number"),
                ({}, lambda: self.sign(hostile), "is not from"),
                ({"serial": 7}, lambda: None, "is not from 8 to"),
                ({"serial": 10**14}, lambda: None, "is not from 8 to"),
                ({"serial": 0}, lambda: write(CATALOG, hostile), "is not from 1 to"),
                ({"days": 0}, lambda: None, "at least 1")):
            with self.subTest(message, **options):
                pathlib.Path(CATALOG).unlink(missing_ok=True)
                self.sign(good)
                damage()
                before = call("ls", "-l", "--full-time", SITE)
                done = subprocess.run(self.publisher(**options), capture_output=True, text=True)
                self.assertIn(message, done.stderr)
                self.assertEqual(call("ls", "-l", "--full-time", SITE), before)
        write(CATALOG, hostile)
        self.publish(serial=8)
        self.publish()
        self.assertIn(b"<integer>9</integer>", content(CATALOG))


# Leaves a mark when a program loads it. The constructor suffices: no program has to accept it as a provider.
MODULE = 'int creat(const char*, int); __attribute__((constructor)) void mark(void) { creat("/media/mark", 0666); }'
OPENSSL = ("openssl_conf = start\n[start]\nproviders = names\n[names]\nmarking = marking\n"
           "[marking]\nmodule = /media/modules/marking.so\nactivate = 1\n")


# The programs load no module that the caller's environment names. It names one that OpenSSL loads with its
# configuration, and one in place of the provider that libcryptsetup loads.
class Environment(Site, Disks):
    # Runs a program in the environment. Whether it loaded a module.
    def marks(self, program, *words, environment):
        pathlib.Path("/media/mark").unlink(missing_ok=True)
        process = self.start(*words, program=program, environment=environment)
        self.out = b"".join(process.communicate(b"wrong"))
        return os.path.exists("/media/mark")

    def test_of_the_caller_loads_no_module(self):
        for name in "marking", "legacy":
            source = write(f"/media/modules/{name}.c", MODULE)
            call("cc", "-shared", "-fPIC", "-o", source[:-1] + "so", source)
        configuration = {"OPENSSL_CONF": write("/media/openssl.cnf", OPENSSL), **TRUST}
        modules = {"OPENSSL_MODULES": "/media/modules", "OPENSSL_ENGINES": "/media/modules"}
        device = self.attach(self.locked(b"right"))
        self.serve(self.certificate())
        self.publish_specification()
        write("/media/cwd/file", "content")
        subprocess.run(["cryptsetup", "luksDump", "/dev/" + device], env={"PATH": world.PATH, **modules})
        self.assertTrue(os.path.exists("/media/mark"), "without protection")
        self.assertTrue(self.marks("fetch_config", environment=configuration), "without protection")
        for line in ("tarnwick", "qvx keygen -o key", "qvx create -r key.pub -o a.qvx file",
                     "qvx extract -k key.pem -C /media/preboot a.qvx", "nvram -p", "volctl list",
                     "tarnwick-consent show", f"volctl zkfs unlockVolume {device} --key-fd 0"):
            with self.subTest(line):
                self.assertFalse(self.marks(*line.split(), environment={**configuration, **modules}))
        self.assertEqual(os.listdir(STORE), ["6.0"])
        self.assertIn(b"wrong passphrase", self.out)
        self.assertEqual(content("/media/preboot/media/cwd/file"), b"content")
