#!/usr/bin/env python3
"""Capture points of the simulated host: ports, interfaces and uplinks of its own switch tree, each with a pair of
virtual Ethernet devices in the node's network.  What is sent at the guest's end of the pair comes in at the point; what
is sent at the host's end goes out there.

usage: capture_points.py resolve POINT           prints both ends; POINT is VM.DEVICE or KIND:NAME
       capture_points.py make KIND NAME          makes a point that is not in the switch tree, such as a dvfilter

Exit status: 0, or 1 when the host has no such point.
"""

import contextlib
import fcntl
import os
import subprocess
import sys

import simstate

FOLDER = os.path.join(simstate.DEFAULT_ROOT, "capture")
REGISTRY = os.path.join(FOLDER, "points.json")
IP = "/sbin/ip"


def switch_of_port(state, port):
    for switch in state.switch_ids():
        if port in state.port_keys(switch):
            return switch
    return None


def vnics(state):
    """Each connected vNIC by its name, VM.DEVICE, with its port and switch."""
    for machine in state.vms.values():
        for device, vnic in machine["vnics"].items():
            if vnic.get("connected") and vnic.get("port"):
                yield "%s.%s" % (machine["name"], device), vnic["port"], vnic["switch"]


def find_port(state, kind, value):
    """The port key and the switch of an object; None when the host has none."""
    with state.locked():
        return find_in_tree(state, kind, value)


def find_in_tree(state, kind, value):
    if kind == "switchport":
        switch = switch_of_port(state, value)
        return (value, switch) if switch else None
    if kind == "vnic":
        return next(((port, switch) for name, port, switch in vnics(state) if name == value), None)
    if kind == "dvsport":
        for switch in state.switch_ids():
            for port in state.port_keys(switch):
                if state.port_prop(switch, port, simstate.LOGICAL_PORT) == value:
                    return port, switch
        return None
    if kind == "knl":
        knl = state.host["interfaces"].get(value)
        return (value, knl["where"].get("switch") or "none") if knl else None
    if kind == "uplink":
        pnic = state.host["pnics"].get(value)
        return (value, (pnic["owner"] or {}).get("switch") or "none") if pnic else None
    with locked_registry() as points:
        return (value, "none") if "%s:%s" % (kind, value) in points else None


@contextlib.contextmanager
def locked_registry():
    os.makedirs(FOLDER, exist_ok=True)
    with open(REGISTRY + ".lock", "w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        points = simstate.read_json(REGISTRY, {})
        before = dict(points)
        yield points
        if points != before:
            simstate.write_json(REGISTRY, points)


def make_pair(number):
    guest, host = "g%d" % number, "h%d" % number
    subprocess.run([IP, "link", "add", guest, "type", "veth", "peer", "name", host], check=True)
    for end in (guest, host):
        # The system's own neighbour discovery would be among the packets.
        with open("/proc/sys/net/ipv6/conf/%s/disable_ipv6" % end, "w", encoding="utf-8") as switch:
            switch.write("1")
        subprocess.run([IP, "link", "set", end, "up"], check=True)
    return [guest, host]


def ends_of(kind, name):
    """The two ends of a point, which get their devices when they are first asked for."""
    with locked_registry() as points:
        key = "%s:%s" % (kind, name)
        if key not in points:
            points[key] = make_pair(len(points) + 1)
        return points[key]


def resolve(state, point):
    kind, separator, name = point.partition(":")
    if not separator:
        kind, name = "vnic", point
    found = find_port(state, kind, name)
    if found is None:
        return None
    is_port = kind in ("vnic", "dvsport", "switchport")
    return ends_of("switchport" if is_port else kind, found[0])


def main(words):
    if len(words) == 3 and words[0] == "make":
        ends = ends_of(words[1], words[2])
    elif len(words) == 2 and words[0] == "resolve":
        ends = resolve(simstate.State(), words[1])
    else:
        print(__doc__, file=sys.stderr)
        return 2
    if ends is None:
        print("the host has no such capture point: " + " ".join(words[1:]), file=sys.stderr)
        return 1
    print(" ".join(ends))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
