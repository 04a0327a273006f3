"""The built manager as a process, its HTTP interface, and probes that can be killed and started again on their port.
KESTRUNE_BUILD names the folder that holds the programs."""

import http.client
import json
import os
import signal
import socket
import struct
import subprocess

from probe_process import LIMIT_S, built, listening_port, wait_until


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Process:
    """Started and killed any number of times; its standard error goes to one file."""

    def __init__(self, folder, name):
        self.log = os.path.join(folder, name + ".log")
        self.process = None

    def start(self):
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(self.argv(), stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        self.wait_ready()

    def argv(self):
        raise NotImplementedError

    def wait_ready(self):
        raise NotImplementedError

    def text(self):
        with open(self.log, encoding="utf-8", errors="replace") as log:
            return log.read()

    def alive(self):
        if self.process.poll() is not None:
            raise AssertionError("%s ended with %d: %s" % (self.argv()[0], self.process.returncode, self.text()[-2000:]))
        return True

    def kill(self):
        if self.process:
            self.process.kill()
            self.process.wait()

    def stop(self):
        """As an operator does: the exit status."""
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(LIMIT_S)


class LoopingProbe(Process):
    """With the plugin; replays a capture for ever, each loop later than the last."""

    def __init__(self, folder, name, capture, speed=40, params="buffer_size=16", arguments=()):
        super().__init__(folder, name)
        self.name, self.port, self.metrics_port = name, free_port(), free_port()
        self.export = os.path.join(folder, name)
        os.mkdir(self.export)
        self.arguments = ["-r", capture, "--loop", "0", "--rebase", "--speed", str(speed), *arguments]
        self.params = params

    def argv(self):
        return [built("kestrune-probe"), "--metrics", "127.0.0.1:%d" % self.metrics_port, *self.arguments,
                "-P", "port=%d;export_path=%s;%s" % (self.port, self.export, self.params)]

    def wait_ready(self):
        def connected():
            self.alive()
            with socket.socket() as probe:
                return probe.connect_ex(("127.0.0.1", self.port)) == 0
        wait_until(connected, self.text)

    def settings(self):
        return {"name": self.name, "address": "127.0.0.1:%d" % self.port, "files": self.export,
                "metrics": "http://127.0.0.1:%d/metrics" % self.metrics_port}


def toml(settings):
    """Tables of plain values, and the list of probes."""
    lines = []
    for table, values in settings.items():
        for one in values if isinstance(values, list) else [values]:
            lines.append("[[%s]]" % table if isinstance(values, list) else "[%s]" % table)
            lines += ["%s = %s" % (key, json.dumps(value)) for key, value in one.items()]
    return "\n".join(lines) + "\n"


class Answer:
    def __init__(self, response):
        self.status, self.headers, self.body = response.status, response.headers, response.read()

    @property
    def json(self):
        return json.loads(self.body)


class Manager(Process):
    """`probes` are tables of the configuration; further tables may be named, for instance limits={"seconds": 5}."""

    def __init__(self, folder, probes, **tables):
        super().__init__(folder, "manager")
        self.state = os.path.join(folder, "state")
        self.archive = os.path.join(folder, "archive")
        self.config = os.path.join(folder, "manager.toml")
        self.port = 0
        settings = {"http": {"listen": "127.0.0.1:0"}, "archive": {"directory": self.archive, "min_free_mb": 1}}
        for table, values in tables.items():
            settings.setdefault(table, {}).update(values)
        with open(self.config, "w", encoding="utf-8") as file:
            file.write(toml({**settings, "probe": probes}))

    def argv(self):
        return [built("kestrune-manager"), "-c", self.config, "--state", self.state]

    def wait_ready(self):
        self.port = wait_until(lambda: self.alive() and listening_port(self.process.pid), self.text)
        with open(os.path.join(self.state, "tokens"), encoding="ascii") as tokens:
            self.token = [line.split()[2] for line in tokens if line.strip() and line[0] != "#"][0]
        wait_until(lambda: self.alive() and self.ask("GET", "/readyz").status == 200, self.text)

    def connect(self, timeout=30):
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=timeout)

    def ask(self, method, path, body=None, connection=None, **headers):
        """A path without leading / is one of /api/v1."""
        own = connection or self.connect()
        try:
            headers = {"Authorization": "Bearer " + self.token, **{name.replace("_", "-"): value for name, value in headers.items()}}
            if body is not None:
                headers["Content-Type"] = "application/json"
                body = json.dumps(body)
            own.request(method, path if path[0] == "/" else "/api/v1/" + path, body, headers)
            return Answer(own.getresponse())
        finally:
            if not connection:
                own.close()

    def get(self, path):
        answer = self.ask("GET", path)
        if answer.status != 200:
            raise AssertionError("GET %s: %d %s" % (path, answer.status, answer.body))
        return answer.json

    def record(self, *addresses, status=201, **fields):
        answer = self.ask("POST", "captures", {"addresses": addresses, **fields})
        if answer.status != status:
            raise AssertionError("POST: %d %s" % (answer.status, answer.body))
        return answer.json["captures"]

    def wait_capture(self, capture_id, condition, limit_s=LIMIT_S):
        """The capture once the condition holds."""
        last = {}

        def holds():
            last.update(self.get("captures/" + capture_id))
            return condition(last)
        wait_until(holds, lambda: json.dumps(last) + self.text()[-3000:], limit_s)
        return last

    def all_captures(self, states="requested,recording,searching,finished,sealed,failed,deleted"):
        captures, cursor = [], ""
        while True:
            page = self.get("captures?limit=1000&state=" + states + cursor)
            captures += page["captures"]
            if not page.get("next"):
                return captures
            cursor = "&cursor=" + page["next"]

    def folder_of(self, capture):
        return os.path.join(self.archive, capture["requested_at"][:10], capture["id"])


def read_pcapng(data):
    """Packets as (interface's name, nanoseconds, bytes), and the interfaces' names."""
    names, units, packets, at = [], [], [], 0
    while at < len(data):
        kind, size = struct.unpack_from("<II", data, at)
        body = data[at + 8:at + size - 4]
        if size % 4 or struct.unpack_from("<I", data, at + size - 4)[0] != size:
            raise ValueError("the block at %d has two lengths" % at)
        if kind == 1:
            options = dict(pcapng_options(body[8:]))
            names.append(options[2].decode())
            units.append(10 ** (9 - options[9][0]) if 9 in options else 1000)
        elif kind == 6:
            interface, high, low, captured, _ = struct.unpack_from("<5I", body)
            packets.append((names[interface], (high << 32 | low) * units[interface], body[20:20 + captured]))
        at += size
    return packets, names


def pcapng_options(data):
    while len(data) >= 4:
        code, size = struct.unpack_from("<HH", data)
        if code == 0:
            return
        yield code, data[4:4 + size]
        data = data[4 + (size + 3) // 4 * 4:]
