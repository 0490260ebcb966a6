# The configuration asset, from a real web server on loopback into the store and into a capture.
import http.server
import os
import ssl
import threading

import world
from world import YES, Scenario, call, content, property_list, write

PROJECT = world.HERE + "/../.."
TYPE = "com.vexlor.Provisor.tarnwick.config"
STORE = f"/var/lib/tarnwick/assets/{TYPE}"
SITE = "/media/site"
CATALOG = SITE + "/catalog.plist"
NAME, TRUST = "tarnwick.config.plist", {"SSL_CERT_FILE": "/media/server.pem"}
NEWER = f"{SITE}/{TYPE}/6.0/{NAME}"


class Handler(http.server.SimpleHTTPRequestHandler):
    def __init__(self, *arguments):
        super().__init__(*arguments, directory=SITE)

    def do_GET(self):
        for ending, act in self.server.tricks.items():
            if self.path.endswith(ending):
                return act(self)
        return super().do_GET()

    def log_message(self, *_):
        pass


class Assets(Scenario):
    def setUp(self):
        super().setUp()
        self.make_key("ec", "-pkeyopt", "ec_paramgen_curve:prime256v1")
        os.mkdir(SITE)

    # A web server over SITE that the service is configured for. Each of `tricks` answers the paths that have its
    # ending; `over` is set when the server ends.
    def serve(self, tls=None):
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        server.tricks, server.over = {}, threading.Event()
        if tls:
            server.socket = tls.wrap_socket(server.socket, server_side=True)
        server.url = f"http{'s' if tls else ''}://127.0.0.1:{server.server_port}"
        write("/etc/tarnwick/asset-service.plist", property_list(
            {"CatalogURL": server.url + "/catalog.plist", "CatalogKey": "/etc/tarnwick/catalog.pem"}))
        threading.Thread(target=server.serve_forever).start()
        for ending in server.server_close, server.shutdown, server.over.set:
            self.addCleanup(ending)
        return server

    def make_key(self, *kind):
        call("openssl", "genpkey", "-algorithm", *kind, "-out", "/media/site.key")
        call("openssl", "pkey", "-in", "/media/site.key", "-pubout", "-out", "/etc/tarnwick/catalog.pem")

    def publish(self, *versions, **options):
        for version in versions:
            write(f"{SITE}/{TYPE}/{version}/{NAME}", "<plist/>")
        call(f"{PROJECT}/tools/asset-publish/asset-publish", "--key", "/media/site.key",
             *(f"--{key}={value}" for key, value in options.items()), SITE)

    def sign(self, content):
        write(CATALOG, content)
        call("openssl", "dgst", "-sha256", "-sign", "/media/site.key", "-out", CATALOG + ".sig", CATALOG)

    def fetch(self, **options):
        self.tool("fetch_config", **options)

    # Quiet where nothing is configured; an administrator's own, then what is newer.
    def test_from_nothing_to_the_newest_over_tls(self):
        self.fetch()
        new = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout /media/server.key -subj /CN=server"
        call("openssl", "req", "-x509", *new.split(), "-addext", "subjectAltName=IP:127.0.0.1",
             "-out", "/media/server.pem")
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain("/media/server.pem", "/media/server.key")
        self.make_key("ed25519")
        self.volume("Data", YES, ["/logs/a.log"])
        self.specification(("/logs", ".*"))
        os.remove("/etc/tarnwick/internal-policies.plist")
        write(f"{STORE}/4.1/{NAME}", "<plist/>")
        self.fetch()
        server = self.serve(tls)
        for versions, trust in (["5.10"], {}), (["5.10"], TRUST), (["5.12", "5.9", "4.99"], TRUST), ([], TRUST):
            self.publish(*versions)
            self.fetch(environment=trust)
        write(f"{SITE}/{TYPE}/6.0/{NAME}", content("/media/spec.plist"))
        self.publish()
        self.fetch(environment=TRUST)
        server.shutdown()
        server.server_close()
        self.tarnwick()
        self.assertEqual(sorted(os.listdir(STORE)), ["5.12", "6.0"])

    def test_refused_catalog_or_file_leaves_the_installed_asset_in_use(self):
        def redirect(url):
            server.tricks[".plist"] = lambda handler: (
                handler.send_response(302), handler.send_header("Location", url), handler.end_headers())

        self.publish("5.0", serial=7)
        server = self.serve()
        self.fetch()
        good = content(CATALOG)
        for name, damage in {
                "redirect to a file": lambda: redirect("file:///etc/passwd"),
                "redirect to itself": lambda: redirect("/catalog.plist"),
                "no answer": lambda: server.tricks.update({".plist": lambda handler: server.over.wait()}),
                "too large": lambda: self.sign(good + b"\n" * (1 << 20)),
                "no signature": lambda: os.unlink(CATALOG + ".sig"),
                "changed after signing": lambda: write(CATALOG, good + b"\n"),
                "expired": lambda: self.publish("6.0", days=-1),
                "older than the last one": lambda: self.publish("6.0", serial=6),
                "a path out of the asset": lambda: self.sign(good.replace(NAME.encode(), b"../x")),
                "missing": lambda: os.unlink(CATALOG),
                "a file longer than published": lambda: (self.publish("6.0"), write(NEWER, "<plist/> ")),
                "a file changed": lambda: (self.publish("6.0"), write(NEWER, "<plisT/>")),
                "a file missing": lambda: (self.publish("6.0"), os.unlink(NEWER))}.items():
            server.tricks.clear()
            self.sign(good)
            damage()
            self.note("fault", name)
            self.fetch()
        self.assertEqual(os.listdir(STORE), ["5.0"])
