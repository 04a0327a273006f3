"""A small client of the control protocol (docs/protocol.md), one connection that is kept: for tests that need answers
without the time that a program takes to start."""

import select
import socket
import struct
import time

from fake_probe import (ADD, ALL, BOTH, DETAIL, HB_INFO, HEAVY_SIZE, HISTORY, INFO, IP_DETAIL, IP_LIST, LIST, OFF, ON,
                        REMOVE, REQ_HS, STATE, UPDATE, key_of)

INCIDENT, CAPTURE, VISUAL = 2, 3, 4
SECONDS = 30


class Client:
    """Updates that arrive before an answer are kept in `updates`, as (kind, fields...)."""

    def __init__(self, port, host="127.0.0.1", timeout=SECONDS):
        self.socket = socket.create_connection((host, port), timeout)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.updates = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()

    def _read(self, size):
        data = b""
        while len(data) < size:
            piece = self.socket.recv(size - len(data))
            if not piece:
                raise ConnectionError("the connection was closed")
            data += piece
        return data

    def _unpack(self, layout):
        return struct.unpack("<" + layout, self._read(struct.calcsize("<" + layout)))

    def _message(self):
        """The next message's code; an update is read whole and kept."""
        major, minor, code, zero = self._unpack("4B")
        if (major, minor, zero) != (0, 9, 0):
            raise ValueError("not a message of version 0.9")
        if code == UPDATE:
            self.updates.append(self._update())
        return code

    def _update(self):
        kind, rule = self._unpack("BI")
        if kind == INCIDENT:
            return kind, rule, self._read(16)
        if kind == CAPTURE:
            return kind, rule, *self._unpack("B")
        if kind != VISUAL:
            raise ValueError("unknown update %d" % kind)
        history_packets, live_packets, history_size, live_size = self._unpack("IIHH")
        history, live = self._read(history_size).decode(), self._read(live_size).decode()
        return kind, rule, history_packets, live_packets, history.split(",") if history else [], live

    def ask(self, action, target, payload=b""):
        """Send a request: the code of its answer."""
        self.socket.sendall(bytes((0, 9, action, target)) + payload)
        while (code := self._message()) == UPDATE:
            pass
        return code

    def next_update(self, seconds):
        """The next update, None when none comes in this time."""
        end = time.monotonic() + seconds
        while not self.updates:
            if not select.select([self.socket], [], [], max(end - time.monotonic(), 0))[0]:
                return None
            self._message()
        return self.updates.pop(0)

    def add(self, address, packets=2**32 - 1, seconds=3600, name="rule", direction=BOTH):
        name = name.encode()
        return self.ask(ADD, direction, key_of(address) + struct.pack("<IIB", packets, seconds, len(name)) + name)

    def remove(self, address, direction=BOTH):
        return self.ask(REMOVE, direction, key_of(address))

    def rules(self, target=ALL):
        """Keys and directions, newest first; None when the plugin fails."""
        if self.ask(LIST, target) != IP_LIST:
            return None
        count, = self._unpack("I")
        return [self._unpack("16sB") for _ in range(count)]

    def detail(self, address):
        """Key, direction, progress, packets, their limit, seconds, their limit, name; None without live capture."""
        if self.ask(DETAIL, BOTH, key_of(address)) != IP_DETAIL:
            return None
        *fields, length = self._unpack("16sBBIIIIB")
        return *fields, self._read(length).decode()

    def history(self):
        code = self.ask(HISTORY, STATE)
        if code != HB_INFO:
            raise ValueError("no answer to HISTORY INFO but %d" % code)
        names = ("queues", "packets", "span", "span_min", "span_max", "rules", "heavy_size", "size", "free")
        return dict(zip(names, self._unpack("7I2Q")))

    def history_on(self, megabytes):
        return self.ask(HISTORY, ON, struct.pack("<I", megabytes))

    def history_off(self):
        return self.ask(HISTORY, OFF)

    def set_heavy_size(self, packets):
        return self.ask(REQ_HS, HEAVY_SIZE, struct.pack("<I", packets))

    def register(self):
        return self.ask(INFO, ON)
