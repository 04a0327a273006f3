"""The manager's HTTP interface against clients that are wrong, slow, greedy or many. The probe is a fake one; the captures
and their files are real. KESTRUNE_BUILD names the folder of the programs."""

import contextlib
import hashlib
import http.client
import json
import os
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from control import FakeProbe  # noqa: E402
from manager_process import Manager, free_port  # noqa: E402
from probe_process import LIMIT_S, WEB, built, wait_until  # noqa: E402
from run_tests import main  # noqa: E402

ROLES = ("read", "record", "admin")
HEADER_S = 10  # in which a header has to come
CAPTURES = "/api/v1/captures"


def read_all(connection):
    data = b""
    try:
        while block := connection.recv(65536):
            data += block
    except ConnectionResetError:
        pass
    return data


class Interface(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.files = os.path.join(cls.folder.name, "files")
        os.mkdir(cls.files)
        cls.probe = FakeProbe()
        cls.probe.__enter__()
        cls.addClassCleanup(cls.probe.__exit__)
        cls.manager = Manager(cls.folder.name, [{"name": "fake", "address": cls.probe.name, "files": cls.files}],
                              http={"listen": "127.0.0.1:0", "names": ["kestrune.example"]})
        cls.tokens = {role: role * 5 for role in ROLES}
        os.mkdir(cls.manager.state)
        with open(os.path.join(cls.manager.state, "tokens"), "w", opener=lambda *at: os.open(*at, 0o600), encoding="ascii") as file:
            file.writelines("%s %s %s\n" % (role, role, cls.tokens[role]) for role in reversed(ROLES))
        cls.addClassCleanup(cls.manager.kill)
        cls.manager.start()
        cls.sealed = cls.seal("10.0.0.1", WEB)

    @classmethod
    def tearDownClass(cls):
        status = cls.manager.stop()
        if status != 0:
            raise AssertionError("the manager ended with %d: %s" % (status, cls.manager.text()[-2000:]))

    @classmethod
    def seal(cls, address, pcap):
        """A capture whose live file holds the packets of this one: its id and sealed bytes."""
        wait_until(lambda: cls.manager.get("probes/fake")["state"] == "up", cls.manager.text)
        capture_id = cls.manager.record(address)[0]["id"]
        shutil.copy2(pcap, os.path.join(cls.files, capture_id + "_0"))  # with its time: nobody writes to it any more
        cls.probe.finish(address, live=(capture_id + "_0").encode(), live_packets=7451)
        cls.manager.wait_capture(capture_id, lambda capture: capture["state"] == "sealed")
        return capture_id, cls.manager.ask("GET", "captures/%s/pcap" % capture_id).body

    def connect(self, timeout=LIMIT_S, receive=0, source="127.0.0.1"):
        connection = socket.socket()
        if receive:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive)
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG, 536)  # or the other end buffers megabytes
        connection.settimeout(timeout)
        connection.bind((source, 0))
        connection.connect(("127.0.0.1", self.manager.port))
        self.addCleanup(connection.close)
        return connection

    def raw(self, data, **options):
        """Everything that comes back until the manager closes."""
        connection = self.connect(**options)
        connection.sendall(data)
        return read_all(connection)

    def status(self, method="GET", path="/api/v1/probes", token="admin", body=b"", source="127.0.0.1", **fields):
        """Fields with None are left out."""
        fields = {"Host": "localhost", "Connection": "close", "Authorization": "Bearer " + self.tokens.get(token, token),
                  **({"Content-Length": len(body), "Content-Type": "application/json"} if body else {}),
                  **{name.replace("_", "-"): value for name, value in fields.items()}}
        lines = ["%s: %s\r\n" % field for field in fields.items() if field[1] is not None]
        answer = self.raw(("%s %s HTTP/1.1\r\n%s\r\n" % (method, path, "".join(lines))).encode() + body, source=source)
        return int(answer.split(b" ")[1]) if answer else 0

    def test_what_the_gate_refuses(self):
        good = b'{"addresses":["192.0.2.1"]}'
        sealed = CAPTURES + "/" + self.sealed[0]
        cases = [
            (200, {}), (200, {"path": "/", "token": "wrong" * 5}), (200, {"path": "/healthz", "Authorization": None}),
            (401, {"Authorization": None}), (401, {"path": "/metrics", "Authorization": None}), (401, {"token": "x" * 20}),
            (401, {"path": "/readyz", "Authorization": "Basic " + self.tokens["admin"]}),
            (401, {"path": sealed + "/pcap?ticket=" + "0" * 32, "Authorization": None}),
            (403, {"Host": "evil.example"}), (403, {"Host": "127.0.0.1.evil.example", "path": "/healthz"}),
            (200, {"Host": "kestrune.example"}), (400, {"Host": None}),
            (403, {"Origin": "http://evil.example"}), (403, {"Origin": "null"}), (200, {"Origin": "http://localhost"}),
            (404, {"path": "/api/v1/nothing"}), (404, {"path": "/api/v1/../../etc/passwd"}), (404, {"path": CAPTURES + "/x"}),
            (404, {"path": CAPTURES + "/%2e%2e/pcap"}), (405, {"method": "PATCH"}), (405, {"method": "DELETE", "path": CAPTURES}),
            (403, {"method": "POST", "path": CAPTURES, "body": good, "token": "read"}),
            (403, {"method": "DELETE", "path": sealed, "token": "record"}), (403, {"path": "/api/v1/audit", "token": "record"}),
            (415, {"method": "POST", "path": CAPTURES, "body": good, "Content_Type": "text/plain"}),
            (415, {"method": "POST", "path": CAPTURES, "body": good, "Content_Type": None}),
            (400, {"method": "POST", "path": CAPTURES, "Content_Type": "application/json"}),
            (400, {"method": "POST", "path": CAPTURES, "body": b"{"}),
            (400, {"method": "POST", "path": CAPTURES, "body": good, "Idempotency_Key": "a b"}),
            (400, {"method": "POST", "path": sealed + "/stop", "body": b"{}"}),
            (413, {"method": "POST", "path": CAPTURES, "body": good, "Content_Length": 2**20 + 1}),
            (401, {"method": "POST", "path": CAPTURES, "body": good, "Content_Length": 2**40, "token": "x" * 20}),
            (400, {"path": CAPTURES + "?limit=0"}), (400, {"path": CAPTURES + "?cursor=x"}), (400, {"path": CAPTURES + "?a=1"}), (400, {"path": sealed + "?limit=1"}),
            (417, {"Expect": "a miracle"}), (431, {"X_Long": "x" * 16384}), (400, {"X_Split": "a\rb"}),
            (409, {"method": "POST", "path": sealed + "/stop"}), (404, {"path": "/api/v1/probes/none"}),
        ]
        for expected, request in cases:
            with self.subTest(str(request)[:120]):
                self.assertEqual(self.status(**request), expected)
        audit = self.manager.get("audit?limit=1000")["audit"]
        self.assertTrue(any(row["action"] == "refused" and "403" in row["detail"] for row in audit), audit)

    def test_malformed_requests_end_the_connection(self):
        host = b"Host: localhost\r\nAuthorization: Bearer %s\r\n" % self.tokens["admin"].encode()
        post = b"POST %s HTTP/1.1\r\n%sContent-Type: application/json\r\n" % (CAPTURES.encode(), host)
        chunk = b"%x\r\n%s\r\n" % (65536, b" " * 65536)
        cases = [
            (b"\0\1\2\3\r\n\r\n", 400), (b"GET / HTTP/9.1\r\n\r\n", 400), (b"GET http://localhost/ HTTP/1.1\r\n%s\r\n" % host, 404),
            (b"GET / HTTP/1.1\r\nHost: localhost\r\nHost: localhost\r\nConnection: close\r\n\r\n", 400),
            (post + b"Content-Length: 5\r\nContent-Length: 6\r\n\r\n{}", 400), (post + b"Content-Length: -1\r\n\r\n", 400),
            (post + b"Transfer-Encoding: gzip\r\n\r\nGET /healthz HTTP/1.1\r\n%s\r\n" % host, 400),
            (post + b"Transfer-Encoding: chunked\r\n\r\n" + chunk * 17, 413),
            (post + b"Transfer-Encoding: chunked\r\nConnection: close\r\n\r\nxyz\r\n", 400),
            (post + b"Content-Length: 100\r\nExpect: 100-continue\r\nConnection: close\r\n\r\n" + b"{" * 100, 100),
        ]
        for data, status in cases:
            connection = self.connect()
            connection.sendall(data)
            if status == 404:
                connection.shutdown(socket.SHUT_WR)
            with self.subTest(data[:60]):
                answer = read_all(connection)
                self.assertEqual(answer.split(b" ")[1:2], [b"%d" % status], answer)
                self.assertEqual(b"HTTP/1.1 400" in answer, status in (100, 400))
                self.assertNotIn(b"200 OK", answer)  # no request out of a body

    def test_wrong_tokens_are_counted_by_address(self):
        statuses = [self.status(token="y" * 20, source="127.0.0.2") for _ in range(12)]
        self.assertEqual(statuses, [401] * 10 + [429] * 2)
        self.assertEqual(self.status(source="127.0.0.2"), 200)
        self.assertEqual(self.status(token="y" * 20, source="127.0.0.3"), 401)

    def test_answers_are_not_for_other_pages(self):
        for path in ("/", "/healthz", "captures", "/api/v1/nothing"):
            headers = self.manager.ask("GET", path).headers
            self.assertEqual((headers["X-Content-Type-Options"], headers["X-Frame-Options"]), ("nosniff", "DENY"))
            self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
            self.assertIn("frame-ancestors 'none'", headers["Content-Security-Policy"])

    def test_files_in_parts(self):
        capture_id, data = self.sealed
        path, size = "captures/%s/pcap" % capture_id, len(data)
        whole = self.manager.ask("GET", path)
        etag = '"%s"' % hashlib.sha256(data).hexdigest()
        self.assertEqual((whole.headers["ETag"], whole.headers["Accept-Ranges"]), (etag, "bytes"))
        self.assertIn(capture_id + ".pcapng", whole.headers["Content-Disposition"])
        for field, first, last in (("bytes=0-0", 0, 0), ("bytes=100-", 100, size - 1), ("bytes=-7", size - 7, size - 1),
                                   ("bytes=5-%d" % (size + 9), 5, size - 1)):
            part = self.manager.ask("GET", path, Range=field, If_Range=etag)
            self.assertEqual((part.status, part.headers["Content-Range"]), (206, "bytes %d-%d/%d" % (first, last, size)))
            self.assertEqual(part.body, data[first:last + 1])
        for headers, status in (({"Range": "bytes=%d-" % size}, 416), ({"If_None_Match": '"x", ' + etag}, 304),
                                ({"Range": "bytes=0-0", "If_Range": '"other"'}, 200), ({"Range": "bytes=0-0,2-3"}, 200)):
            answer = self.manager.ask("GET", path, **headers)
            self.assertEqual((answer.status, len(answer.body) == size), (status, status == 200))
        head = self.manager.ask("HEAD", path)
        self.assertEqual((head.status, head.headers["Content-Length"], head.body), (200, str(size), b""))
        self.assertEqual(self.manager.get("captures/" + capture_id)["file"]["sha256"], etag[1:-1])

    def test_a_ticket_opens_one_file(self):
        capture_id, data = self.sealed
        url = self.manager.ask("POST", "captures/%s/ticket" % capture_id).json["url"]
        connection = self.manager.connect()
        connection.request("GET", url)
        self.assertEqual(connection.getresponse().read(), data)
        connection.close()
        for path in (url.replace("pcap", "manifest"), url.replace("captures/0", "captures/1"), url[:-1] + "g"):
            self.assertEqual(self.status(path=path, Authorization=None), 401, path)
        self.assertNotIn(url[-20:], self.manager.text())

    def test_events_go_on_where_a_listener_left(self):
        def listen(last=None):
            connection = self.manager.connect()
            connection.request("GET", "/api/v1/events", headers={
                "Authorization": "Bearer " + self.tokens["read"], **({"Last-Event-ID": last} if last else {})})
            self.addCleanup(connection.close)
            return connection.getresponse()

        def event(stream):
            """The next one as a dictionary; comments are passed over."""
            fields = {}
            while line := stream.readline().decode().strip() or not fields.get("event"):
                name, _, value = line.partition(": ") if line is not True else ("", "", "")
                fields[name] = value
            return fields

        kept = [first := listen()]  # a response that is forgotten is closed
        capture_id = self.manager.record("10.0.1.1")[0]["id"]
        begun = event(first)
        while begun["event"] != "capture":
            begun = event(first)
        self.assertEqual(json.loads(begun["data"])["id"], capture_id)
        self.manager.record("10.0.1.2")
        following = event(first)
        kept.append(listen(begun["id"]))
        self.assertEqual(event(kept[-1])["id"], following["id"])
        for last in ("1-1", begun["id"].split("-")[0] + "-999999999", "x"):
            kept.append(listen(last))
            self.assertEqual(event(kept[-1])["event"], "reset", last)
        kept += [listen() for _ in range(65 - len(kept))]
        self.assertEqual([stream.status for stream in kept], [200] * 64 + [503])
        for address in ("10.0.1.1", "10.0.1.2"):
            self.probe.finish(address)

    @unittest.skipUnless(os.environ.get("KESTRUNE_LONG"), "takes a minute; KESTRUNE_LONG runs it")
    def test_a_listener_that_does_not_read_loses_its_connection_alone(self):
        head = b"GET /api/v1/events HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer %s\r\n\r\n" % self.tokens["read"].encode()
        deaf, reading = self.connect(receive=2048), self.connect()
        for connection in (deaf, reading):
            connection.sendall(head)
        taken = []
        follow = threading.Thread(target=lambda: taken.append(read_all(reading)))
        follow.start()
        addresses = ["10.9.%d.%d" % (i // 250, i % 250) for i in range(1000)]
        self.manager.record(*addresses)

        def listeners():
            text = self.manager.ask("GET", "/metrics").body.decode()
            return int(text.split("\nkestrune_event_listeners ")[1].split("\n")[0])

        wait_until(lambda: listeners() == 1, listeners)
        reading.shutdown(socket.SHUT_RDWR)
        follow.join()
        self.assertGreaterEqual(taken[0].count(b"event: capture"), 1000)

    def test_metrics_are_clean(self):
        text = self.manager.ask("GET", "/metrics").body
        self.assertNotIn(b"10.0.0.1", text)
        self.assertIn(b'kestrune_probe_up{probe="fake"} 1', text)
        if shutil.which("promtool") is None:
            self.skipTest("needs promtool (package prometheus)")
        check = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, timeout=LIMIT_S)
        self.assertEqual((check.returncode, check.stdout, check.stderr), (0, b"", b""))

    def test_hostile_clients_hold_nobody_up(self):
        begun = time.monotonic()
        head = b"GET %s/%s/pcap HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer %s\r\n" % (
            CAPTURES.encode(), self.sealed[0].encode(), self.tokens["read"].encode())
        silent, half, dribbling = (self.connect() for _ in range(3))
        half.sendall(head)
        deaf = [self.connect(receive=4096) for _ in range(8)]
        for connection in deaf:
            connection.sendall(head + b"\r\n")  # and never reads
        answered = []

        def dribble():
            dribbling.settimeout(0.1)
            while not answered and time.monotonic() < begun + 2 * HEADER_S:
                dribbling.send(head[:1])
                try:
                    answered.append((dribbling.recv(65536)[9:12], time.monotonic() - begun))
                except TimeoutError:
                    pass

        drop = threading.Thread(target=dribble)
        drop.start()
        self.ask_all(64, 10000)
        self.assertEqual(self.manager.ask("GET", "captures/%s/pcap" % self.sealed[0]).body, self.sealed[1])
        self.assertEqual((read_all(silent), half.recv(65536)[9:12]), (b"", b"408"))
        drop.join()
        self.assertEqual(answered[0][0], b"408")
        self.assertLess(answered[0][1], 1.2 * HEADER_S)

    def test_a_crowd_that_only_holds_places_keeps_nobody_out(self):
        crowd = [self.connect() for _ in range(600)]  # more than there are places
        self.ask_all(64, 640)
        deaf = [self.connect(receive=4096, source="127.0.0.4") for _ in range(600)]
        for connection in deaf:  # asks much without a token, and reads nothing
            connection.setblocking(False)
            with contextlib.suppress(BlockingIOError, ConnectionError):
                connection.send(b"GET /api/v1/probes HTTP/1.1\r\nHost: localhost\r\n\r\n" * 1000)
        self.ask_all(64, 640)
        crowd[-1] = self.connect()
        crowd[-1].sendall(b"GET /healthz HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n")
        self.assertIn(b"200 OK", read_all(crowd[-1]))

    def ask_all(self, connection_count, request_count):
        wrong = []

        def ask():
            connection = self.manager.connect()
            try:
                for _ in range(request_count // connection_count):
                    answer = self.manager.ask("GET", "probes", connection=connection)
                    if answer.status != 200 or not answer.body.endswith(b"}]}"):
                        wrong.append((answer.status, answer.body))
            except OSError as error:
                wrong.append(error)
            connection.close()

        threads = [threading.Thread(target=ask) for _ in range(connection_count)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(wrong, [])


NGINX = """daemon off; error_log stderr; pid %(folder)s/nginx.pid; %(user)s
events {}
http {
    client_body_temp_path %(folder)s/body; proxy_temp_path %(folder)s/proxy; fastcgi_temp_path %(folder)s/fastcgi;
    uwsgi_temp_path %(folder)s/uwsgi; scgi_temp_path %(folder)s/scgi;
    include %(folder)s/site.conf;
}
"""


@unittest.skipUnless(shutil.which("nginx") and shutil.which("openssl"), "needs nginx and openssl")
class BehindAProxy(unittest.TestCase):
    """The site of examples/nginx, with this test's ports and certificate."""

    def start_proxy(self, folder, manager):
        port, site = free_port(), os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../examples/nginx/kestrune.conf")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=kestrune.example", "-days", "2",
                        "-keyout", folder + "/key", "-out", folder + "/pem"], check=True, capture_output=True)
        with open(site, encoding="ascii") as file, open(folder + "/site.conf", "w", encoding="ascii") as copy:
            text = file.read()
            for old, new in (("listen [::]:443 ssl;", ""), ("listen 443", "listen 127.0.0.1:%d" % port),
                             ("127.0.0.1:8564", "127.0.0.1:%d" % manager.port), ("/etc/ssl/certs/kestrune.example.pem", folder + "/pem"),
                             ("/etc/ssl/private/kestrune.example.key", folder + "/key")):
                self.assertIn(old, text)
                text = text.replace(old, new)
            copy.write(text)
        with open(folder + "/nginx.conf", "w", encoding="ascii") as file:
            file.write(NGINX % {"folder": folder, "user": "user root;" if os.geteuid() == 0 else ""})
        proxy = subprocess.Popen(["nginx", "-e", "stderr", "-c", folder + "/nginx.conf"], stderr=subprocess.DEVNULL)
        self.addCleanup(proxy.wait)
        self.addCleanup(proxy.terminate)
        return port

    def test_the_example_site_passes_everything_on(self):
        with tempfile.TemporaryDirectory() as folder, FakeProbe() as probe:
            manager = Manager(folder, [{"name": "a", "address": probe.name}],
                              http={"names": ["kestrune.example"], "behind_proxy": True})
            self.addCleanup(manager.kill)
            manager.start()
            port = self.start_proxy(folder, manager)
            context = ssl.create_default_context(cafile=folder + "/pem")

            def ask(path, **headers):
                connection = http.client.HTTPSConnection("127.0.0.1", port, timeout=LIMIT_S, context=context)
                connection.sock = context.wrap_socket(socket.create_connection(("127.0.0.1", port)), server_hostname="kestrune.example")
                self.addCleanup(connection.close)
                connection.request("GET", path, headers={"Host": "kestrune.example:%d" % port, **headers})
                return connection.getresponse()

            def is_there():
                with socket.socket() as connection:
                    return connection.connect_ex(("127.0.0.1", port)) == 0

            wait_until(is_there, "nginx")
            token = {"Authorization": "Bearer " + manager.token}
            self.assertEqual(ask("/").status, 200)
            self.assertEqual(ask("/api/v1/probes", **token, Origin="https://kestrune.example:%d" % port).status, 200)
            self.assertEqual(ask("/api/v1/probes", **token, Origin="https://evil.example").status, 403)
            self.assertEqual(ask("/api/v1/probes", **{"X-Forwarded-For": "192.0.2.9"}).status, 401)
            refused = [row["from"] for row in manager.get("audit")["audit"] if row["action"] == "refused"]
            self.assertEqual(set(refused), {"127.0.0.1"})  # what the proxy saw, not what its client said
            events = ask("/api/v1/events", **token)
            self.assertEqual(events.readline(), b"retry: 2000\n")  # though the stream has not ended
            self.assertEqual(manager.stop(), 0)


class Configuration(unittest.TestCase):
    def run_manager(self, *arguments):
        run = subprocess.run([built("kestrune-manager"), *arguments], capture_output=True, text=True, timeout=LIMIT_S)
        return run.returncode, run.stderr

    def test_errors_name_file_and_line(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "m.toml")
            probe = '[[probe]]\nname = "a"\naddress = "127.0.0.1:1"\n'
            for text, error in (("[http]\nlistem = 1\n", ":2: there is no key http.listem"), ('[http]\nlisten = "', ":2: "),
                                (probe + 'files = "/nowhere"\n', ":4: /nowhere: No such file or directory"),
                                (probe + '[http]\nlisten = "192.0.2.1:80"\ninsecure = true\n', "cannot listen on 192.0.2.1")):
                with open(path, "w", encoding="ascii") as file:
                    file.write(text)
                status, lines = self.run_manager("-c", path, "--state", os.path.join(folder, "state"))
                self.assertEqual(status, 1)
                self.assertIn(error, lines.splitlines()[-1])
            self.assertEqual(self.run_manager("-c", path, "--check"), (0, ""))
            self.assertEqual(self.run_manager("--stat", folder)[0], 2)

    def test_sighup_reads_what_is_right_and_keeps_what_was(self):
        with tempfile.TemporaryDirectory() as folder, FakeProbe() as probe:
            manager = Manager(folder, [{"name": "a", "address": probe.name}])
            manager.start()
            try:
                with open(manager.config, encoding="ascii") as file:
                    before = file.read()
                for text, mark in ((before + "x = 1\n", "there is no key probe.x"),
                                   (before + '[[probe]]\nname = "b"\naddress = "127.0.0.1:1"\n', "2 probes")):
                    with open(manager.config, "w", encoding="ascii") as file:
                        file.write(text)
                    manager.process.send_signal(signal.SIGHUP)
                    wait_until(lambda: mark in manager.text(), manager.text)
                    names = [view["name"] for view in manager.get("probes")["probes"]]
                    self.assertEqual(names, ["a", "b"] if mark == "2 probes" else ["a"])
                with open(os.path.join(manager.state, "tokens"), "w", encoding="ascii") as tokens:
                    tokens.write("new read " + "n" * 20 + "\n")
                manager.process.send_signal(signal.SIGHUP)
                wait_until(lambda: manager.ask("GET", "probes").status == 401, manager.text)
                self.assertEqual(manager.ask("GET", "probes", Authorization="Bearer " + "n" * 20).status, 200)
            finally:
                self.assertEqual(manager.stop(), 0)


if __name__ == "__main__":
    main()
