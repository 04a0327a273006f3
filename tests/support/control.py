"""The control protocol (docs/protocol.md) for tests: a client, one connection that stays open, and a fake of the plugin's
side, which finishes rules when the test says so."""

import ipaddress
import select
import socket
import socketserver
import struct
import threading

SUCCESS, FAIL, UNRECOGNIZED, IP_LIST, IP_DETAIL, HB_INFO, UPDATE = range(7)
ADD, REMOVE, LIST, DETAIL, HISTORY, INFO, QUIT, REQ_HS = range(8)
BOTH, ALL, ON, OFF, STATE, HEAVY_SIZE = 2, 3, 4, 5, 6, 8
INCIDENT, CAPTURE, VISUAL = 2, 3, 4

# What follows a header; names follow ADD_FIELDS and DETAIL_FIELDS, lists of files VISUAL_FIELDS.
ADD_FIELDS, ITEM, DETAIL_FIELDS, HISTORY_FIELDS = map(struct.Struct, ("<16sIIB", "<16sB", "<16sBBIIIIB", "<7I2Q"))
UPDATE_FIELDS = {INCIDENT: struct.Struct("<I16s"), CAPTURE: struct.Struct("<IB"), VISUAL: struct.Struct("<IIIHH")}
HISTORY_NAMES = ("queues", "packets", "span", "span_min", "span_max", "rules", "heavy_size", "size", "free")


def key_of(text):
    """The 16 bytes of an address on the wire."""
    address = ipaddress.ip_address(text)
    return (b"\xff" * 4 if address.version == 4 else b"") + address.packed[::-1] + bytes(8 if address.version == 4 else 0)


def header(code, target=0):
    return bytes((0, 9, code, target))


def update(kind, *fields):
    return header(UPDATE) + bytes((kind,)) + UPDATE_FIELDS[kind].pack(*fields)


class Client:
    """Updates that arrive before an answer are kept in `updates`, as (kind, fields...)."""

    def __init__(self, port, timeout=30):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.stream = self.socket.makefile("rb")
        self.updates = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.stream.close()
        self.socket.close()

    def _read(self, size):
        data = self.stream.read(size)
        if len(data) < size:
            raise ConnectionError("the connection was closed")
        return data

    def _unpack(self, layout):
        return layout.unpack(self._read(layout.size))

    def ask(self, action, target, payload=b""):
        """Send a request: the code of its answer."""
        self.socket.sendall(header(action, target) + payload)
        while True:
            major, minor, code, zero = self._read(4)
            if (major, minor, zero) != (0, 9, 0):
                raise ValueError("not a message of version 0.9")
            if code != UPDATE:
                return code
            kind, = self._read(1)
            fields = self._unpack(UPDATE_FIELDS[kind])
            self.updates.append((kind, *fields, self._read(sum(fields[3:])) if kind == VISUAL else b""))

    def add(self, address, packets=2**32 - 1, seconds=3600, name="rule", direction=BOTH):
        name = name.encode()
        return self.ask(ADD, direction, ADD_FIELDS.pack(key_of(address), packets, seconds, len(name)) + name)

    def remove(self, address, direction=BOTH):
        return self.ask(REMOVE, direction, key_of(address))

    def rules(self, target=ALL):
        """Keys and directions, newest first; None when the plugin fails."""
        if self.ask(LIST, target) != IP_LIST:
            return None
        count, = struct.unpack("<I", self._read(4))
        return [self._unpack(ITEM) for _ in range(count)]

    def detail(self, address):
        """Key, direction, progress, packets, their limit, seconds, their limit, name; None without live capture."""
        if self.ask(DETAIL, BOTH, key_of(address)) != IP_DETAIL:
            return None
        *fields, length = self._unpack(DETAIL_FIELDS)
        return *fields, self._read(length).decode()

    def history(self):
        if self.ask(HISTORY, STATE) != HB_INFO:
            raise ValueError("no answer to HISTORY INFO")
        return dict(zip(HISTORY_NAMES, self._unpack(HISTORY_FIELDS)))

    def history_on(self, megabytes):
        return self.ask(HISTORY, ON, struct.pack("<I", megabytes))

    def history_off(self):
        return self.ask(HISTORY, OFF)

    def set_heavy_size(self, packets):
        return self.ask(REQ_HS, HEAVY_SIZE, struct.pack("<I", packets))


class Server(socketserver.ThreadingTCPServer):
    """serve(connection) in a thread for each connection, from the start of the context manager."""

    def __init__(self, serve):
        super().__init__(("127.0.0.1", 0), lambda connection, *_: serve(connection))
        self.name = "127.0.0.1:%d" % self.server_address[1]

    def __enter__(self):
        threading.Thread(target=self.serve_forever, args=(0.01,)).start()
        return self

    def __exit__(self, *_):
        self.shutdown()
        self.server_close()

    def handle_error(self, *_):
        pass  # the client has hung up


class FakeProbe:
    """Listens on a port of its own from the start; use it as a context manager."""

    def __init__(self):
        self.lock = threading.Condition()
        self.rules = {}  # key -> dict(id, direction, packets, limit, seconds, name); newest last
        self.next_id = 0
        self.clients = []  # registered connections
        self.requests = []  # (action, target) of every request, in order
        self.refuse = set()  # actions answered with FAIL
        self.silent = set()  # actions without an answer, or "update"
        self.spoilt = {}  # action, or "update" -> "cut" (half a message, then nothing), "die" (half, then the end), or other bytes
        self.held = dict(zip(HISTORY_NAMES, (1, 0, 0, 0, 0, 0, 20, 2**20, 2**20)))
        self.full = False  # new rules get no live capture
        self.connections = []
        self.server = Server(self._serve)
        self.name = self.server.name

    def __enter__(self):
        self.server.__enter__()
        return self

    def __exit__(self, *_):
        self.server.shutdown()
        self.hang_up()
        self.server.server_close()

    def hang_up(self):
        with self.lock:
            for connection in self.connections:
                try:
                    connection.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass

    def wait(self, condition, seconds=20):
        """Waits until condition() holds; checked after every request."""
        with self.lock:
            if not self.lock.wait_for(condition, seconds):
                raise AssertionError("the condition did not come to hold; requests: " + repr(self.requests))

    def wait_asked(self, action, target=ALL, times=1):
        self.wait(lambda: self.requests.count((action, target)) >= times)

    # What happens to rules

    def _update(self, message):
        for client in self.clients:
            self._send(client, "update", message)

    def _send(self, connection, what, message):
        if what in self.silent:
            return
        trouble = self.spoilt.get(what)
        connection.sendall(trouble if isinstance(trouble, bytes) else message[:len(message) // 2] if trouble else message)
        if trouble == "die":
            connection.shutdown(socket.SHUT_RDWR)

    def add(self, text, name="other", limit=10, seconds=10):
        with self.lock:
            self._add(key_of(text), BOTH, limit, seconds, name)

    def capture(self, rule_id, percent):
        with self.lock:
            self._update(update(CAPTURE, rule_id, percent))

    def finish(self, text, live=b"", history=b"", live_packets=0, history_packets=0):
        with self.lock:
            rule = self.rules.pop(key_of(text))
            self._update(update(CAPTURE, rule["id"], 100))
            self._update(update(VISUAL, rule["id"], history_packets, live_packets, len(history), len(live)) + history + live)

    # The server

    def _serve(self, connection):
        stream = connection.makefile("rb")
        with self.lock:
            self.connections.append(connection)
        try:
            while (request := stream.read(4)) and request[2] != QUIT:
                action, target = request[2:]
                reply = self._handle(connection, stream, action, target)
                with self.lock:
                    self._send(connection, action, reply)
        except OSError:
            pass
        with self.lock:
            self.clients = [client for client in self.clients if client is not connection]
            self.connections.remove(connection)
            self.lock.notify_all()
        stream.close()

    def _handle(self, connection, stream, action, target):
        payload = b""
        if action == ADD and target <= BOTH:
            payload = stream.read(ADD_FIELDS.size)
            payload += stream.read(payload[-1])
        elif action in (REMOVE, DETAIL):
            payload = stream.read(16)
        elif (action, target) in ((HISTORY, ON), (REQ_HS, HEAVY_SIZE)):
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
            key, limit, seconds, _ = ADD_FIELDS.unpack_from(payload)
            return self._add(key, target, limit, seconds, payload[ADD_FIELDS.size:].decode())
        if action == REMOVE:
            return header(SUCCESS if self.rules.pop(payload, None) else FAIL)
        if action == LIST:
            rules = [ITEM.pack(key, rule["direction"]) for key, rule in reversed(self.rules.items())
                     if target in (ALL, rule["direction"])]
            return header(IP_LIST) + struct.pack("<I", len(rules)) + b"".join(rules)
        if action == DETAIL:
            rule = self.rules.get(payload)
            if rule is None or rule["limit"] == 0:
                return header(FAIL)
            name = rule["name"].encode()
            fields = (rule["direction"], 0, rule["packets"], rule["limit"], 1, rule["time"], len(name))
            return header(IP_DETAIL) + DETAIL_FIELDS.pack(payload, *fields) + name
        if action == INFO:
            self.clients.append(connection)
            return header(SUCCESS)
        if (action, target) == (HISTORY, STATE):
            return header(HB_INFO) + HISTORY_FIELDS.pack(*(self.held[name] for name in HISTORY_NAMES))
        return header(UNRECOGNIZED)

    def _add(self, key, direction, limit, seconds, name):
        if key in self.rules:
            rule = self.rules[key]
            if not rule["name"].startswith(name):
                return header(FAIL)
            rule.update(limit=rule["packets"] + limit, time=seconds)
            return header(SUCCESS)
        self.rules[key] = dict(id=self.next_id, direction=direction, packets=0, limit=0 if self.full else limit, time=seconds,
                               name=name)
        self.next_id += 1
        self._update(update(INCIDENT, self.rules[key]["id"], key))
        return header(SUCCESS)
