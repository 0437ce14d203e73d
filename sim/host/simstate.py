"""The state of the simulated host: one file tree, which the switch libraries and the node's commands share.

Root: ZEM_SIM_ROOT (default /var/run/orlane/sim).  "switch" below it is the kernel's part (switches, ports, endpoints),
"host" is the state of the host's management: physical NICs, interfaces and flags; VMs and opaque networks are in
journals of their own.  Every change is made under a lock on "<root>/lock"; a file is written under another name and
renamed, so that a reader never sees half of one, and a process that dies in the middle leaves the previous state.

As a program it makes a host:  simstate.py init [--pnics vmnic0,vmnic1] [--ifs knl0=management,knl1=other]
"""

import argparse
import contextlib
import fcntl
import json
import os
import re
import shutil
import struct
import time

DEFAULT_ROOT = "/var/run/orlane/sim"
# The flag with which every property of a switch or a port is set.
PROPERTY_FLAG = 16

VSWITCH_STATUS = "com.orlane.common.opaqueDvs.status.component.vswitch"
SECURITY_ENABLED = "com.orlane.zem.klnSecurity.enabled"
EXTERNAL_ID = "com.orlane.port.extraConfig.vnic.external.id"
OPAQUE_NETWORK = "com.orlane.port.extraConfig.opaqueNetwork.id"
LOGICAL_PORT = "com.orlane.port.extraConfig.logicalPort.id"
ATTACHMENT_STATE = "com.orlane.port.extraConfig.attachment.state"


class Refused(Exception):
    """The host's reply to a command that it does not carry out."""


def write_file(path, data):
    # Hidden, so that it is not read as a property or a port.
    folder, name = os.path.split(path)
    temporary = os.path.join(folder, ".%s.%d.tmp" % (name, os.getpid()))
    with open(temporary, "wb") as file:
        file.write(data)
    os.rename(temporary, path)


def write_json(path, value):
    write_file(path, (json.dumps(value, indent=1) + "\n").encode())


def read_json(path, default=None):
    try:
        with open(path, encoding="utf-8") as file:
            return json.load(file)
    except FileNotFoundError:
        return default


def read_property(path):
    """The value of a property as text, without the zero that ends it; None when there is none."""
    try:
        with open(path, "rb") as file:
            return file.read()[4:].split(b"\0")[0].decode(errors="replace")
    except FileNotFoundError:
        return None


class Journal:
    """Opaque networks or VMs: objects by uuid.

    A host may have 10,000 of them and get one more every few milliseconds, so each change is a line at the end of
    one file; the file is rewritten when it has many more lines than objects.
    """

    def __init__(self, path):
        self.path = path
        self.entries = {}
        self.inode = None
        self.read = 0
        self.lines = 0

    def forget(self):
        self.entries, self.inode, self.read, self.lines = {}, None, 0, 0

    def refresh(self):
        """Reads what other processes have written."""
        try:
            stat = os.stat(self.path)
        except FileNotFoundError:
            self.forget()
            return
        if stat.st_ino != self.inode or stat.st_size < self.read:
            self.forget()
            self.inode = stat.st_ino
        if stat.st_size == self.read:
            return
        with open(self.path, "r+b") as file:
            file.seek(self.read)
            for line in file:
                # An incomplete line of a writer that died is ignored, and must not merge with the next line.
                if not line.endswith(b"\n"):
                    file.truncate(self.read)
                    break
                self.take(json.loads(line))
                self.lines += 1
                self.read += len(line)

    def take(self, change):
        if change["op"] == "clear":
            self.entries = {}
        elif change["op"] == "set":
            self.entries[change["uuid"]] = change
        else:
            self.entries.pop(change["uuid"], None)

    def add(self, changes):
        for change in changes:
            self.take(change)
        self.lines += len(changes)
        if self.lines > 1000 + 4 * len(self.entries):
            changes = list(self.entries.values())
            self.lines = len(changes)
            write_file(self.path, "".join(json.dumps(change) + "\n" for change in changes).encode())
        else:
            text = "".join(json.dumps(change) + "\n" for change in changes)
            with open(self.path, "ab") as file:
                file.write(text.encode())
        stat = os.stat(self.path)
        self.inode, self.read = stat.st_ino, stat.st_size


class State:
    def __init__(self, root=None):
        self.root = root or os.environ.get("ZEM_SIM_ROOT", DEFAULT_ROOT)
        self.host_dir = os.path.join(self.root, "host")
        self.switches_dir = os.path.join(self.root, "switch", "switches")
        self.knlnics_dir = os.path.join(self.root, "switch", "knlnics")
        self.vdr_dir = os.path.join(self.root, "switch", "vdr")
        for directory in (self.host_dir, self.switches_dir, self.knlnics_dir, self.vdr_dir):
            os.makedirs(directory, exist_ok=True)
        self.host_path = os.path.join(self.host_dir, "host.json")
        self.networks = Journal(os.path.join(self.host_dir, "opaque_networks.log"))
        self.machines = Journal(os.path.join(self.host_dir, "vms.log"))
        self.changed_vms = set()
        # A list of opaque networks arrives in pieces, all at the same script.
        self.bulk_begun = False
        self.host = {}
        self.host_seen = None
        # Changes of switches that are written after the host.  If the script dies in between, an interface is on a
        # switch that does not have its physical NIC yet.
        self.metas = {}
        self.lock_file = open(os.path.join(self.root, "lock"), "w", encoding="utf-8")

    @contextlib.contextmanager
    def locked(self):
        """Holds the lock; `host` is the present state and is written if it was changed."""
        fcntl.flock(self.lock_file, fcntl.LOCK_EX)
        try:
            self.refresh_host()
            self.machines.refresh()
            before = json.dumps(self.host, sort_keys=True)
            yield self
            if json.dumps(self.host, sort_keys=True) != before:
                write_json(self.host_path, self.host)
                self.host_seen = self.host_stamp()
            for meta in self.metas.values():
                self.write_meta(meta)
            if self.changed_vms:
                self.machines.add([dict(self.vms[uuid], op="set", uuid=uuid) for uuid in self.changed_vms])
        except BaseException:
            # Changes that were made only in memory are undone.
            self.host_seen = None
            self.machines.forget()
            raise
        finally:
            self.metas = {}
            self.changed_vms = set()
            fcntl.flock(self.lock_file, fcntl.LOCK_UN)

    @property
    def vms(self):
        """The VMs by uuid; code that changes one adds its uuid to `changed_vms`."""
        return self.machines.entries

    def host_stamp(self):
        try:
            stat = os.stat(self.host_path)
        except FileNotFoundError:
            return ()
        return (stat.st_ino, stat.st_mtime_ns, stat.st_size)

    def refresh_host(self):
        stamp = self.host_stamp()
        if stamp != self.host_seen:
            self.host = read_json(self.host_path) or new_host(["vmnic0"], {"knl0": "management"})
            self.host_seen = stamp

    def fault(self, what):
        """Returns action and value of the first matching fault; a fault is removed when its count is used up."""
        path = os.path.join(self.host_dir, "faults")
        if not os.path.exists(path):
            return None, ""
        with self.locked():
            try:
                with open(path, encoding="utf-8") as file:
                    rows = file.read().splitlines()
            except FileNotFoundError:
                return None, ""
            for i, row in enumerate(rows):
                fields = row.split("\t")
                if len(fields) < 4 or not re.search(fields[0], what):
                    continue
                skip, count = int(fields[1]), int(fields[2])
                if skip > 0:
                    fields[1] = str(skip - 1)
                else:
                    fields[2] = str(count - 1)
                rows[i] = "\t".join(fields)
                if fields[2] == "0":
                    del rows[i]
                if rows:
                    write_file(path, "".join(row + "\n" for row in rows).encode())
                else:
                    os.unlink(path)
                if skip == 0:
                    return fields[3], fields[4] if len(fields) > 4 else ""
                break
        return None, ""

    def heal(self):
        """Completes a change that a process did not finish before it died; the kernel's part of the state decides."""
        for pnic in self.host["pnics"].values():
            if pnic["owner"] and pnic["owner"]["kind"] == "switch":
                pnic["owner"] = None
        switches = set(self.switch_ids())
        for switch in switches:
            for pair in self.meta(switch)["pnics"]:
                owner = {"kind": "switch", "switch": switch, "uplink": pair["uplink"]}
                self.host["pnics"][pair["dev"]]["owner"] = owner
        for device, endpoint in self.endpoints().items():
            if endpoint["switchId"] not in switches:
                self.remove_endpoint(device)
        for device, knl in list(self.host["interfaces"].items()):
            if knl["where"]["kind"] == "endpoint" and knl["where"]["switch"] not in switches:
                del self.host["interfaces"][device]
        lane = self.host["guestLane"]
        lane["switches"] = [switch for switch in lane["switches"] if switch in switches]

    # --- switches

    def switch_ids(self):
        return sorted(name for name in os.listdir(self.switches_dir) if self.has_switch(name))

    def switch_path(self, switch, *parts):
        if "/" in switch or switch.startswith(".") or not switch:
            raise Refused("no host-switch [%s]" % switch)
        return os.path.join(self.switches_dir, switch, *parts)

    def meta(self, switch):
        value = self.metas.get(switch) or read_json(self.switch_path(switch, "meta.json"))
        if value is None:
            raise Refused("host-switch [%s] is not found" % switch)
        return value

    def has_switch(self, switch):
        return not switch.startswith(".") and os.path.exists(self.switch_path(switch, "meta.json"))

    def write_meta(self, meta):
        directory = self.switch_path(meta["id"])
        for part in ("global", "host", "ports"):
            os.makedirs(os.path.join(directory, part), exist_ok=True)
        write_json(os.path.join(directory, "meta.json"), meta)

    def remove_switch(self, switch):
        self.metas.pop(switch, None)
        gone = os.path.join(self.switches_dir, ".%d.%d.gone" % (os.getpid(), time.monotonic_ns()))
        os.rename(self.switch_path(switch), gone)
        shutil.rmtree(gone)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(os.path.join(self.vdr_dir, switch + ".json"))

    def host_prop(self, switch, name):
        return read_property(self.switch_path(switch, "host", name))

    def set_host_prop(self, switch, name, text):
        write_file(self.switch_path(switch, "host", name), struct.pack("<I", PROPERTY_FLAG) + text.encode() + b"\0")

    # --- ports

    def port_keys(self, switch):
        try:
            return sorted(name for name in os.listdir(self.switch_path(switch, "ports")) if not name.startswith("."))
        except FileNotFoundError:
            return []

    def port_prop(self, switch, port, name):
        return read_property(self.switch_path(switch, "ports", port, "p", name))

    def port_of(self, switch, vif, logical_switch):
        """Returns the port that holds the VIF in the logical switch; it must have been made before."""
        for port in self.port_keys(switch):
            if self.port_prop(switch, port, EXTERNAL_ID) == vif and (
                self.port_prop(switch, port, OPAQUE_NETWORK) == logical_switch
            ):
                return port
        return None

    def plug(self, switch, port, vnic):
        """Connects a port to its user, or disconnects it."""
        path = self.switch_path(switch, "ports", port, "state.json")
        state = read_json(path, {})
        state["connectedVnic"] = vnic
        state["linkUp"] = bool(vnic)
        write_json(path, state)

    def plugged_vm(self, switch, port):
        """The VM whose vNIC is on the port, as far as the port records it; empty for none."""
        state = read_json(self.switch_path(switch, "ports", port, "state.json"), {})
        return state.get("vmUuid") or state["connectedVnic"] if state.get("connectedVnic") else ""

    # --- endpoints

    def endpoints(self):
        """Endpoints by device."""
        found = {}
        for name in sorted(os.listdir(self.knlnics_dir)):
            if name.endswith(".json"):
                endpoint = read_json(os.path.join(self.knlnics_dir, name))
                if endpoint:
                    found[endpoint["device"]] = endpoint
        return found

    def write_endpoint(self, endpoint):
        if "/" in endpoint["device"]:
            raise Refused("no device [%s]" % endpoint["device"])
        write_json(os.path.join(self.knlnics_dir, endpoint["device"] + ".json"), endpoint)

    def remove_endpoint(self, device):
        os.unlink(os.path.join(self.knlnics_dir, device + ".json"))

    # --- physical NICs: their owner is {"kind": "standard", "switch": name}, {"kind": "switch", "switch": id, "uplink":
    # name} or None

    def pnics_of(self, kind, switch):
        return [
            name
            for name, pnic in sorted(self.host["pnics"].items())
            if pnic["owner"] and pnic["owner"]["kind"] == kind and pnic["owner"]["switch"] == switch
        ]

    def give_pnics(self, switch, pairs):
        """Makes the physical NICs of a host switch match `pairs`, (name, uplink)."""
        for name, _ in pairs:
            pnic = self.host["pnics"].get(name)
            if pnic is None:
                raise Refused("physical NIC [%s] is not found" % name)
            owner = pnic["owner"]
            if owner and owner["kind"] == "switch" and owner["switch"] != switch:
                raise Refused("physical NIC [%s] is in use by host-switch [%s]" % (name, owner["switch"]))
        for name in self.pnics_of("switch", switch):
            self.host["pnics"][name]["owner"] = None
        for name, uplink in pairs:
            self.host["pnics"][name]["owner"] = {"kind": "switch", "switch": switch, "uplink": uplink}
        meta = self.meta(switch)
        meta["pnics"] = [{"dev": name, "uplink": uplink} for name, uplink in pairs]
        self.metas[switch] = meta

    def interfaces_on(self, kind, switch):
        """The interfaces, by device, that are on a switch of this kind."""
        return {
            device: knl
            for device, knl in sorted(self.host["interfaces"].items())
            if knl["where"]["kind"] == kind and knl["where"]["switch"] == switch
        }


def new_host(pnics, interfaces):
    """A host with one standard switch on its first physical NIC, where all its interfaces are."""
    return {
        "version": "8.0.1",
        "maintenance": False,
        "transportNodeId": "",
        "profile": "",
        "flags": {
            "zemInstallStatus": False,
            "zemInstallOpaqueSwitchStatus": True,
            "zemDvsConfigRequired": False,
            "dvsReady": False,
            "unusedCkln": False,
            "runtimeUpdates": True,
            "spfPorts": False,
            "traceflow": False,
            "installEvents": 0,
        },
        "pnics": {
            name: {
                "mac": "02:50:00:00:00:%02x" % i,
                "link": "up",
                "owner": {"kind": "standard", "switch": "vSwitch0"} if i == 0 else None,
            }
            for i, name in enumerate(pnics)
        },
        "standardSwitches": {"vSwitch0": {"portGroups": ["Management Network", "Host Network"]}},
        "interfaces": {
            device: {
                "type": kind,
                "mac": "02:51:00:00:00:%02x" % i,
                "macOf": pnics[0] if i == 0 and pnics else "",
                "ip": "192.168.10.%d" % (10 + i),
                "where": {
                    "kind": "standard",
                    "switch": "vSwitch0",
                    "portGroup": "Management Network" if kind == "management" else "Host Network",
                },
            }
            for i, (device, kind) in enumerate(interfaces.items())
        },
        "guestLane": {"interface": None, "switches": []},
        # Addresses for endpoints that get none by configuration: the next one, and the number of queries before it is
        # assigned.
        "dhcp": {"prefix": "192.168.50.", "next": 10, "prefix6": "fd00:50::", "polls": 0},
        "endpointIds": {"next": 1},
    }


def main():
    parser = argparse.ArgumentParser(description="Makes the simulated host, unless there is one.")
    parser.add_argument("action", choices=["init"])
    parser.add_argument("--pnics", default="vmnic0,vmnic1,vmnic2,vmnic3")
    parser.add_argument("--ifs", default="knl0=management,knl1=other", help="DEVICE=TYPE by commas")
    parser.add_argument("--version", default="8.0.1")
    parser.add_argument("--force", action="store_true", help="also when there is one")
    options = parser.parse_args()
    state = State()
    if os.path.exists(state.host_path) and not options.force:
        return
    host = new_host(options.pnics.split(","), dict(pair.split("=", 1) for pair in options.ifs.split(",") if pair))
    host["version"] = options.version
    with state.locked():
        state.host = host


if __name__ == "__main__":
    main()
