"""A stand-in for the plugin's control port, for tests of clients: the protocol of docs/protocol.md with rules that
finish when the test says so. Nothing is captured."""

import ipaddress
import socket
import struct
import threading

SUCCESS, FAIL, UNRECOGNIZED, IP_LIST, IP_DETAIL, HB_INFO, UPDATE = range(7)
ADD, REMOVE, LIST, DETAIL, HISTORY, INFO, QUIT, REQ_HS = range(8)
ALL, ON, OFF, STATE = 3, 4, 5, 6


def key_of(text):
    """The 16 bytes of an address on the wire."""
    address = ipaddress.ip_address(text)
    if address.version == 4:
        return b"\xff" * 4 + address.packed[::-1] + bytes(8)
    return address.packed[::-1]


def header(code):
    return bytes((0, 9, code, 0))


class FakeProbe:
    """Listens on a port of its own from the start; use it as a context manager."""

    def __init__(self, heavy_size=20):
        self.lock = threading.Condition()
        self.rules = {}  # key -> dict(id, direction, packets, limit, time, name); newest last
        self.next_id = 0
        self.clients = []  # registered connections
        self.requests = []  # (action, target) of every request, in order
        self.history_mb = None
        self.heavy_size = heavy_size
        self.refuse = set()  # actions answered with FAIL
        self.silent = set()  # actions that get no answer
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.connections = []
        self.thread = threading.Thread(target=self._accept)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.hang_up()
        self.thread.join()
        self.listener.close()

    @property
    def name(self):
        return f"127.0.0.1:{self.port}"

    def hang_up(self):
        with self.lock:
            for connection in self.connections:
                try:
                    connection.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass

    def wait(self, condition, seconds=20):
        """Waits until condition() holds; asked after every request."""
        with self.lock:
            if not self.lock.wait_for(condition, seconds):
                raise AssertionError("the condition did not come to hold; requests: " + repr(self.requests))

    def wait_for_rule(self, text):
        self.wait(lambda: key_of(text) in self.rules)
        return self.rules[key_of(text)]

    # What happens to rules

    def _update(self, payload):
        for client in self.clients:
            client.sendall(header(UPDATE) + payload)

    def add(self, text, name="other", limit=10, time=10):
        with self.lock:
            self._add(key_of(text), 2, limit, time, name)

    def capture(self, rule_id, percent):
        with self.lock:
            self._update(struct.pack("<BIB", 3, rule_id, percent))

    def finish(self, text, live=b"", history=b"", live_packets=0, history_packets=0, report=True):
        with self.lock:
            rule = self.rules.pop(key_of(text))
            self._update(struct.pack("<BIB", 3, rule["id"], 100))
            if report:
                lengths = (history_packets, live_packets, len(history), len(live))
                self._update(struct.pack("<BIIIHH", 4, rule["id"], *lengths) + history + live)
            self.lock.notify_all()

    # The server

    def _accept(self):
        handlers = []
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                break
            with self.lock:
                self.connections.append(connection)
            handlers.append(threading.Thread(target=self._serve, args=(connection,)))
            handlers[-1].start()
        self.hang_up()
        for handler in handlers:
            handler.join()

    def _serve(self, connection):
        stream = connection.makefile("rb")
        try:
            while True:
                major, minor, action, target = stream.read(4)
                if (major, minor) != (0, 9) or action == QUIT:
                    break
                reply = self._handle(connection, stream, action, target)
                if action not in self.silent:
                    with self.lock:
                        connection.sendall(reply)
        except (OSError, ValueError):
            pass
        with self.lock:
            self.clients = [client for client in self.clients if client is not connection]
            self.connections.remove(connection)
        stream.close()
        connection.close()

    def _handle(self, connection, stream, action, target):
        payload = b""
        if action == ADD and target <= 2:
            payload = stream.read(25)
            payload += stream.read(payload[24])
        elif action in (REMOVE, DETAIL):
            payload = stream.read(16)
        elif (action, target) in ((HISTORY, ON), (REQ_HS, 8)):
            payload = stream.read(4)
        with self.lock:
            self.requests.append((action, target))
            reply = header(FAIL)
            if action not in self.refuse:
                reply = self._answer(connection, action, target, payload)
            self.lock.notify_all()
        return reply

    def _answer(self, connection, action, target, payload):
        if action == ADD:
            limit, time, _ = struct.unpack_from("<IIB", payload, 16)
            return self._add(payload[:16], target, limit, time, payload[25:].decode())
        if action == REMOVE:
            return header(SUCCESS if self.rules.pop(payload, None) else FAIL)
        if action == LIST:
            rules = [key + bytes((rule["direction"],)) for key, rule in reversed(self.rules.items())
                     if target in (ALL, rule["direction"])]
            return header(IP_LIST) + struct.pack("<I", len(rules)) + b"".join(rules)
        if action == DETAIL:
            rule = self.rules.get(payload)
            if rule is None or rule["limit"] == 0:
                return header(FAIL)
            name = rule["name"].encode()
            fields = (rule["direction"], 0, rule["packets"], rule["limit"], 1, rule["time"], len(name))
            return header(IP_DETAIL) + payload + struct.pack("<BBIIIIB", *fields) + name
        if action == INFO:
            self.clients.append(connection)
            return header(SUCCESS)
        if action == REQ_HS:
            self.heavy_size, = struct.unpack("<I", payload)
            return header(SUCCESS)
        return self._history(target, payload)

    def _history(self, target, payload):
        if target == STATE:
            size = (self.history_mb or 0) << 20
            return header(HB_INFO) + struct.pack("<7I2Q", 2, 7, 3, 2, 4, 0, self.heavy_size, size, size // 2)
        if (target == ON) == (self.history_mb is not None):
            return header(FAIL)
        self.history_mb = struct.unpack("<I", payload)[0] if target == ON else None
        return header(SUCCESS)

    def _add(self, key, direction, limit, time, name):
        if key in self.rules:
            rule = self.rules[key]
            if rule["name"] != name:
                return header(FAIL)
            rule.update(limit=rule["packets"] + limit, time=time)
            return header(SUCCESS)
        self.rules[key] = dict(id=self.next_id, direction=direction, packets=0, limit=limit, time=time, name=name)
        self.next_id += 1
        self._update(struct.pack("<BI", 2, self.rules[key]["id"]) + key)
        return header(SUCCESS)
