"""The management proxy's script on the simulated host.

The daemon starts it with the argument 1 and speaks to it over a local socket: requests of three 32-bit numbers (version 1,
length, operation) and data, replies of two (status, length) and text, all in the host's byte order.  It takes one
client at a time and one request after the other, and logs every frame, so that a scenario sees their order.

Folder ZEM_HOST (default /var/lib/zem-host):
  lum.rules    faults, read at each request: PATTERN SKIP COUNT ACTION [VALUE], divided by tabs.  PATTERN is a regular
               expression over the command or "op N"; the first row that matches counts.  ACTION: reply TEXT,
               status N, delay SECONDS, close, half-header, half-text, too-long, exit, hang
  lum.start    the first answer to "ping": Uninitialized (default) or ready; or "never", which does not bind at all
  lum.ready    how often "ping" answers "initializing" after the login (default 1)
  frames.log   one JSON object for each request
"""

import ctypes
import fcntl
import json
import os
import re
import socket
import struct
import sys
import time

TEXT_COMMAND = 10
MAX_REQUEST = 64 * 1024 * 1024
SUCCESS = 1


class Closed(Exception):
    """The client, or a fault, has ended the connection."""


class Host:
    """The script's state and its files."""

    def __init__(self):
        self.root = os.environ.get("ZEM_HOST", "/var/lib/zem-host")
        self.path = os.environ.get("ZEM_LUM_SOCKET", "/etc/orlane/zemaLum")
        os.makedirs(self.root, exist_ok=True)
        self.state = self.setting("lum.start", "Uninitialized")
        self.polls = int(self.setting("lum.ready", "1"))
        self.log_level = "info"
        self.options = []
        self.login = None
        self.used = {}

    def setting(self, name, default):
        try:
            with open(os.path.join(self.root, name), encoding="utf-8") as file:
                return file.read().strip()
        except FileNotFoundError:
            return default

    def fault(self, what):
        """The action of the first rule that matches and is not used up."""
        for row in self.setting("lum.rules", "").splitlines():
            fields = row.split("\t")
            if len(fields) < 4 or not re.search(fields[0], what):
                continue
            used = self.used.get(row, 0)
            self.used[row] = used + 1
            skip, count = int(fields[1]), int(fields[2])
            if skip <= used < skip + count:
                return fields[3], fields[4] if len(fields) > 4 else ""
            return None, ""
        return None, ""

    def log(self, operation, data, status, text):
        entry = {"time": time.time(), "operation": operation, "data": data, "status": status, "reply": text}
        with open(os.path.join(self.root, "frames.log"), "a", encoding="utf-8") as file:
            file.write(json.dumps(entry) + "\n")

    def command(self, text):
        if text == "ping":
            if self.state == "initializing":
                if self.polls <= 0:
                    self.state = "ready"
                self.polls -= 1
            return self.state
        if text.startswith("login="):
            fields = text[len("login="):].split("|")
            if len(fields) != 3:
                return "login takes three fields"
            self.login = fields
            self.state = "initializing"
            return "ok"
        if text.startswith("loglevel="):
            self.log_level = text[len("loglevel="):]
            return "ok"
        if text.startswith("option="):
            self.options.append(text[len("option="):])
            return "ok"
        if self.state != "ready":
            return "not ready"
        return "unknown command " + text.split("(")[0]


def read_whole(client, size):
    data = b""
    while len(data) < size:
        part = client.recv(size - len(data))
        if not part:
            raise Closed
        data += part
    return data


def send(client, status, text, action):
    body = text.encode()
    header = struct.pack("=II", status, len(body))
    if action == "half-header":
        client.sendall(header[:4])
        raise Closed
    if action == "half-text":
        client.sendall(header + body[: len(body) // 2])
        raise Closed
    if action == "too-long":
        client.sendall(struct.pack("=II", status, 0x7FFFFFFF) + body)
        return
    client.sendall(header + body)


def serve(host, client):
    while True:
        version, length, operation = struct.unpack("=III", read_whole(client, 12))
        if version != 1 or length > MAX_REQUEST:
            raise Closed
        data = read_whole(client, length)
        text = data.decode(errors="replace")
        action, value = host.fault(text if operation == TEXT_COMMAND else "op %d" % operation)
        if action == "delay":
            time.sleep(float(value))
        if action == "hang":
            time.sleep(3600)
        if action == "exit":
            os._exit(1)
        if action == "close":
            raise Closed
        if operation == TEXT_COMMAND:
            status, reply = SUCCESS, host.command(text)
        else:
            status, reply = 0, "unknown operation %d" % operation
        if action == "reply":
            reply = value
        if action == "status":
            status = int(value)
        host.log(operation, text, status, reply)
        send(client, status, reply, action)


def main():
    ctypes.CDLL(None).prctl(15, b"zemaLum_py", 0, 0, 0)  # PR_SET_NAME: the daemon looks for it by this name
    host = Host()
    lock = open(os.path.join(host.root, "lum.lock"), "w", encoding="utf-8")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        sys.exit("zemaLum.py: another one runs")
    if host.state == "never":
        time.sleep(3600)
    if os.path.exists(host.path):
        os.unlink(host.path)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(host.path)
    listener.listen(1)
    while True:
        client, _ = listener.accept()
        try:
            serve(host, client)
        except (Closed, ConnectionError):
            pass
        finally:
            client.close()


if __name__ == "__main__":
    main()
