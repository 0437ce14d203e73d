#!/usr/bin/python3
"""The host's management API on the simulated host, as far as LLDP goes.

The daemon starts it, finds it by its process name and connects to its socket.  A request is a command's name, a line feed
and an argument, in one piece; a reply is 4 bytes that mean nothing, the length as a 32-bit number in the host's byte
order, and the data.  "rpcping" is answered "ok"; "rpcquery" has an LldpInterfacesRequestMsg as its argument and an
LldpInterfacesMsg in its reply.  A physical NIC whose link is down sees nobody.

Files in "/run/zem-neighbours":
  neighbours   a JSON object: for each interface the list of its neighbours
  journal      one JSON object for each start and each request, with process id and time
  fault-*      one fault each, used up in the order of the names: WHEN ACTION VALUE.  WHEN is start, rpcquery or rpcping.

Socket: ZEM_LLDP_SOCKET, default /etc/orlane/zem-tarvik/LldpLum.
"""

import ctypes
import json
import os
import signal
import socket
import struct
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))
import simstate  # noqa: E402

FOLDER = os.environ.get("ZEM_NEIGHBOUR_FOLDER", "/run/zem-neighbours")
SOCKET = os.environ.get("ZEM_LLDP_SOCKET", "/etc/orlane/zem-tarvik/LldpLum")
NAME = b"zem-lum"
PR_SET_NAME = 15


class Closed(Exception):
    """The client closed the connection, or a fault did."""


def journal(**entry):
    entry.update(pid=os.getpid(), at=time.time())
    line = (json.dumps(entry) + "\n").encode()
    fd = os.open(os.path.join(FOLDER, "journal"), os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644)
    try:
        os.write(fd, line)
    finally:
        os.close(fd)


def take_fault(when):
    """The next fault for this occasion, as (action, value); it is used up."""
    for name in sorted(os.listdir(FOLDER)):
        if not name.startswith("fault-"):
            continue
        path = os.path.join(FOLDER, name)
        try:
            with open(path, encoding="utf-8") as file:
                occasion, action, value = (file.read().rstrip("\n").split(" ", 2) + ["", ""])[:3]
            if occasion != when:
                continue
            os.unlink(path)
        except FileNotFoundError:
            continue
        return action, value
    return "", ""


# --- Messages.

def varint(number):
    data = bytearray()
    while number > 0x7F:
        data.append(number & 0x7F | 0x80)
        number >>= 7
    data.append(number)
    return bytes(data)


def field(number, value):
    if isinstance(value, int):
        return varint(number << 3) + varint(value)
    data = value.encode() if isinstance(value, str) else value
    return varint(number << 3 | 2) + varint(len(data)) + data


def requested_interface(data):
    """The interface that a request names, or None for all.  ValueError for bytes that are no request."""
    interface = None
    at = 0

    def read_varint():
        nonlocal at
        value = shift = 0
        while True:
            if at >= len(data) or shift > 63:
                raise ValueError("malformed request")
            byte = data[at]
            at += 1
            value |= (byte & 0x7F) << shift
            shift += 7
            if byte < 0x80:
                return value

    while at < len(data):
        key = read_varint()
        kind = key & 7
        if kind == 0:
            read_varint()
            continue
        size = {1: 8, 5: 4}.get(kind)
        if size is None:
            if kind != 2:
                raise ValueError("malformed request")
            size = read_varint()
        if at + size > len(data):
            raise ValueError("malformed request")
        if key == 1 << 3 | 2:
            interface = data[at:at + size].decode()
        at += size
    return interface


def query(argument):
    try:
        wanted = requested_interface(argument)
    except ValueError as error:
        return b"error: rpc command: " + str(error).encode()
    state = simstate.State()
    with state.locked():
        pnics = {name: pnic["link"] for name, pnic in state.host["pnics"].items()}
    if wanted is not None and wanted not in pnics:
        return b"error: rpc command: no interface " + wanted.encode()
    try:
        with open(os.path.join(FOLDER, "neighbours"), encoding="utf-8") as file:
            known = json.load(file)
    except FileNotFoundError:
        known = {}
    message = b""
    for name in sorted(pnics):
        if wanted not in (None, name):
            continue
        interface = field(1, name)
        for each in known.get(name, []) if pnics[name] == "up" else []:
            interface += field(2, field(1, each["chassis"]) + field(2, each["port"]) + field(3, each["system"]) +
                               field(4, each["ttl"]))
        message += field(1, interface)
    return message


# --- The socket.

def send_spoilt(client, data, action, value):
    """Sends a reply as the fault wants it."""
    header = os.urandom(4) + struct.pack("=I", len(data))
    if action == "error":
        data = b"error: rpc command " + value.encode()
    elif action == "empty":
        data = b""
    elif action == "size":
        data = b"x" * int(value)
    elif action == "garbage":
        data = b""
        header = b"\xff" * 7 + b"\x7f"
    elif action == "length":
        client.sendall(os.urandom(4) + struct.pack("=I", int(value)) + data)
        return
    elif action == "half-header":
        client.sendall(header[:3])
        raise Closed
    elif action in ("half-data", "stall"):
        client.sendall(header + data[:len(data) // 2])
        if action == "stall":
            time.sleep(3600)
        raise Closed
    if action != "garbage":
        header = header[:4] + struct.pack("=I", len(data))
    client.sendall(header + data)


def serve(client):
    while True:
        request = client.recv(65536)
        if not request:
            raise Closed
        command, _, argument = request.partition(b"\n")
        journal(request=request.hex())
        action, value = take_fault(command.decode(errors="replace"))
        if action == "delay":
            time.sleep(float(value))
        elif action == "close":
            raise Closed
        elif action == "exit":
            os._exit(1)
        elif action == "hang":
            os.kill(os.getpid(), signal.SIGSTOP)
        elif action == "print":
            sys.stdout.write("x" * int(value) * 1024 * 1024)
            sys.stdout.flush()
        if command == b"rpcping":
            data = b"ok"
        elif command == b"rpcquery":
            data = query(argument)
        else:
            data = b"error: rpc command: unknown"
        send_spoilt(client, data, action, value)


def main():
    os.makedirs(FOLDER, exist_ok=True)
    journal(start=True)
    action, value = take_fault("start")
    if action == "exit":
        sys.exit(1)
    if action == "ignore-term":
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
    if action != "no-name":
        ctypes.CDLL(None).prctl(PR_SET_NAME, NAME, 0, 0, 0)
    # A daemon that was killed before this could be found by its name: its unit would have ended both.
    if os.getppid() == 1:
        sys.exit(1)
    if action == "no-listen":
        time.sleep(3600)
    if action == "late-listen":
        time.sleep(float(value))
    if os.path.exists(SOCKET):
        os.unlink(SOCKET)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(SOCKET)
    os.chmod(SOCKET, 0o600)
    listener.listen(1)
    while True:
        client, _ = listener.accept()
        try:
            serve(client)
        except (Closed, ConnectionError):
            pass
        finally:
            client.close()


if __name__ == "__main__":
    main()
