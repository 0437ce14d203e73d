"""The management proxy's script on the simulated host.

The daemon starts it with the argument 1 and speaks to it over a local socket: requests of three 32-bit numbers (version 1,
length, operation) and data, replies of two (status, length) and text, all in the host's byte order.  It serves one
client at a time and one request after the other, and logs every frame, so that a scenario sees their order.

Files in "<root>/host" (simstate.py describes where that is), beside the host's state:
  faults       read at each request: PATTERN SKIP COUNT ACTION [VALUE], divided by tabs.  PATTERN is a regular
               expression over the command or "op N"; the first row that matches counts, and is used up by it.
               ACTION: reply TEXT, status N, delay SECONDS, close, half-header, half-text, too-long, exit, die (the
               command is carried out, but not answered), hang
  lum.start    the first answer to "ping": Uninitialized (default) or ready; or "never", which does not bind at all
  lum.ready    how often "ping" answers "initializing" after the login (default 0)
  frames.log   one JSON object for each request: "waited", when the script began to wait for it; "in" and "out", when
               it arrived and when its answer was ready

Socket: ZEM_LUM_SOCKET, default /etc/orlane/zemaLum.
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

import endpoints
import messages
import migrations
import networks
import port_operations
import simstate
import switches
from simstate import Refused

TEXT_COMMAND = 10
MAX_REQUEST = 64 * 1024 * 1024
# Each frame and its reply are cut at this many characters in the log, unless the file "<root>/host/frames.whole"
# exists.
MAX_LOGGED = 4096
SUCCESS = 1
FAILURE = 0

OK = "ok"
NOT_SET = "notset"


class Closed(Exception):
    """The client closed the connection, or a fault did."""


def version_of(state):
    return tuple(int(part) for part in re.findall(r"\d+", state.host["version"]))


def at_least(*version):
    return lambda state, _: OK if version_of(state) >= version else "no"


def is_set(flag):
    return lambda state, _: OK if state.host["flags"][flag] else NOT_SET


def assign(flag, value):
    def command(state, _):
        state.host["flags"][flag] = value
        return OK

    return command


def dvs_ready(state, _):
    """The host's profile creates its switches some time after the start."""
    polls = state.host["flags"].get("dvsReadyPolls", 0)
    if polls > 0:
        state.host["flags"]["dvsReadyPolls"] = polls - 1
        if polls == 1:
            state.host["flags"]["dvsReady"] = True
        return NOT_SET
    return OK if state.host["flags"]["dvsReady"] else NOT_SET


def clear_stateless(state, _):
    state.host["flags"].update({"zemDvsConfigRequired": False, "dvsReady": False})
    return OK


def post_install_event(state, _):
    state.host["flags"]["installEvents"] += 1
    return OK


def hot_swap(state, _):
    if not state.host["flags"]["unusedCkln"]:
        return "no unused CKLN"
    state.host["flags"]["unusedCkln"] = False
    return OK


def version_and_ckln(state, _):
    return "ok|%d,%d" % (version_of(state) >= (7, 0), state.host["flags"]["unusedCkln"])


def maintenance(state, _):
    return "true" if state.host["maintenance"] else "false"


COMMANDS = {
    **switches.COMMANDS,
    **endpoints.COMMANDS,
    **migrations.COMMANDS,
    **networks.COMMANDS,
    "IsQUBiVersionGreaterThanEqual80": at_least(8, 0),
    "IsQUBiVersionGreaterThanEqual801": at_least(8, 0, 1),
    "CheckQUBiVersion70AndUnusedCkln": version_and_ckln,
    "HotSwapUnusedCkln": hot_swap,
    "IsZemInstallStatusSet": is_set("zemInstallStatus"),
    "IsZemInstallStatusOpaqueSwitchSet": is_set("zemInstallOpaqueSwitchStatus"),
    "IsZemDvsConfigRequiredSet": is_set("zemDvsConfigRequired"),
    "IsDvsReadySet": dvs_ready,
    "CheckAndClearZemInstallStatusFlag": assign("zemInstallStatus", False),
    "CheckAndClearZemInstallOpaqueSwitchStatusFlag": assign("zemInstallOpaqueSwitchStatus", False),
    "ClearStatelessQubDvsFlags": clear_stateless,
    "PostZemInstallSuccessEvent": post_install_event,
    "createSpfPorts": assign("spfPorts", True),
    "EnableTraceflow": assign("traceflow", True),
    "fetchMMode": maintenance,
}


def set_node_id(state, data):
    state.host["transportNodeId"] = data.decode()
    return ""


def host_profile(state, data):
    state.host["profile"] = data.hex()
    return ""


def pre_check(state, data):
    """The agent cannot be installed while VMs run."""
    for _ in messages.fields(data):
        pass
    for uuid, machine in state.vms.items():
        if machine.get("power") == "on" and not state.host["maintenance"]:
            raise Refused("VM [%s] is running" % uuid)
    return ""


def disable_runtime_updates(state, _):
    """ "disabled" the first time: the data that the updates left on the ports is then to be removed. """
    before = state.host["flags"]["runtimeUpdates"]
    state.host["flags"]["runtimeUpdates"] = False
    return "disabled" if before else "unchanged"


OPERATIONS = {
    11: networks.apply_bulk,
    12: lambda state, data: endpoints.read_addresses(state, data.decode()),
    14: host_profile,
    15: set_node_id,
    17: lambda state, data: migrations.path_of_vif(state, data.decode()),
    18: lambda state, data: migrations.vms_on_port_groups(state),
    19: pre_check,
    22: disable_runtime_updates,
}


class Host:
    """The dialogue with the client; the tables hold what each command does to the host."""

    def __init__(self):
        self.state = simstate.State()
        self.path = os.environ.get("ZEM_LUM_SOCKET", "/etc/orlane/zemaLum")
        self.stage = self.setting("lum.start", "Uninitialized")
        self.polls = int(self.setting("lum.ready", "0"))
        self.log_level = "info"
        self.frames = open(os.path.join(self.state.host_dir, "frames.log"), "a", encoding="utf-8")

    def setting(self, name, default):
        try:
            with open(os.path.join(self.state.host_dir, name), encoding="utf-8") as file:
                return file.read().strip()
        except FileNotFoundError:
            return default

    def log(self, waited, started, operation, data, status, text):
        most = None if os.path.exists(os.path.join(self.state.host_dir, "frames.whole")) else MAX_LOGGED
        entry = {
            "waited": waited,
            "in": started,
            "out": time.monotonic(),
            "operation": operation,
            "length": len(data),
            "data": data[:most],
            "status": status,
            "reply": text[:most],
        }
        self.frames.write(json.dumps(entry) + "\n")
        self.frames.flush()

    def carry_out(self, function, data):
        with self.state.locked():
            return function(self.state, data)

    def command(self, text):
        if text == "ping":
            if self.stage == "initializing":
                if self.polls <= 0:
                    self.stage = "ready"
                self.polls -= 1
            return self.stage
        key, equals, value = text.partition("=")
        if equals and key == "login":
            if value.count("|") != 2:
                return "login takes three fields"
            self.stage = "initializing"
            return OK
        if equals and key == "loglevel":
            self.log_level = value
            return OK
        if equals and key == "option":
            return OK if value == "no-vxlan-stack" else "unknown option " + value
        if self.stage != "ready":
            return "not ready"
        name, bracket, rest = text.partition("(")
        function = COMMANDS.get(name)
        if function is None or not bracket or not rest.endswith(")"):
            return "unknown command " + name
        try:
            if name in port_operations.BEFORE:
                port_operations.BEFORE[name](rest[:-1])
            return self.carry_out(function, rest[:-1])
        except Refused as refused:
            return str(refused)
        except (ValueError, KeyError, IndexError) as error:
            return "%s: malformed arguments: %r" % (name, error)

    def call(self, operation, data):
        if self.stage != "ready":
            return FAILURE, "not ready"
        function = OPERATIONS.get(operation)
        if function is None:
            return FAILURE, "unknown operation %d" % operation
        try:
            return SUCCESS, self.carry_out(function, data)
        except Refused as refused:
            return FAILURE, str(refused)
        except (ValueError, KeyError, IndexError) as error:
            return FAILURE, "operation %d: malformed data: %r" % (operation, error)


def read_whole(client, size):
    data = bytearray()
    while len(data) < size:
        part = client.recv(min(size - len(data), 1 << 20))
        if not part:
            raise Closed
        data += part
    return bytes(data)


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
        waited = time.monotonic()
        version, length, operation = struct.unpack("=III", read_whole(client, 12))
        started = time.monotonic()
        if version != 1 or length > MAX_REQUEST:
            raise Closed
        data = read_whole(client, length)
        text = data.decode(errors="replace")
        action, value = host.state.fault(text if operation == TEXT_COMMAND else "op %d" % operation)
        if action == "delay":
            time.sleep(float(value))
        if action == "hang":
            time.sleep(3600)
        if action == "exit":
            os._exit(1)
        if action == "close":
            raise Closed
        if action == "reply":
            status, reply = SUCCESS, value
        elif action == "status":
            status, reply = int(value), "as the fault says"
        elif operation == TEXT_COMMAND:
            status, reply = SUCCESS, host.command(text)
        else:
            status, reply = host.call(operation, data)
        host.log(waited, started, operation, text, status, reply)
        if action == "die":
            os._exit(1)
        send(client, status, reply, action)


def main():
    ctypes.CDLL(None).prctl(15, b"zemaLum_py", 0, 0, 0)  # PR_SET_NAME: the daemon looks for it by this name
    host = Host()
    lock = open(os.path.join(host.state.host_dir, "lum.lock"), "w", encoding="utf-8")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        sys.exit("zemaLum.py: another one runs")
    with host.state.locked():
        host.state.heal()
    if host.stage == "never":
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
