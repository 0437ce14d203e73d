#!/usr/bin/python3
"""Reports to the daemon what the manager does not know of the simulated host's ports: resync.py INTERVAL DO_VM_CHECK.

One line of text: "ok", or commands with "," between, each of words with "|" between:
  attach|VIF|LOGICAL SWITCH|VM PATH|LOGICAL PORT   the port waits with "attach_port", and the vNIC of the VIF is on it
  attach|VIF|LOGICAL SWITCH|VM PATH                a running vNIC without a port; only with DO_VM_CHECK 1
  detach|VIF|LOGICAL PORT|LOGICAL SWITCH|VM PATH   the port waits with "detach_port", and no vNIC has taken it again
or "error" and what is wrong.  A mark on a port without a VIF is obsolete and ignored.  An entry with "," or "|" in one of
its words cannot be expressed and is left out.

Faults (simstate.py) have the name "resync".  Each run appends its arguments, its output and the entries left out to
"<root>/host/resync_runs.log"; one that hangs appends its line first.
"""

import ctypes
import json
import os
import sys
import time

import simstate

PENDING = "com.orlane.port.extraConfig.portOp.pending"
PERSIST = "com.orlane.common.port.volatile.persist"
NO_VM = "knlnic"
# A port of the host's own, for which the manager only sets security.
PORT_GROUP = "dvportgroup-"


def running_vnics(state):
    """The connected vNICs by VIF: the VM's path, and the logical switch."""
    return {
        vnic["vif"]: (machine["path"], vnic.get("ls", ""))
        for machine in state.vms.values()
        if machine.get("power") == "on"
        for vnic in machine["vnics"].values()
        if vnic.get("connected") and vnic.get("vif")
    }


def known_paths(state):
    return {
        vnic["vif"]: machine["path"]
        for machine in state.vms.values()
        for vnic in machine["vnics"].values()
        if vnic.get("vif")
    }


def path_beside(port_file):
    """The configuration file of the VM in whose folder a port's data is kept."""
    folder = port_file.partition("/.dvsData/")[0]
    try:
        names = sorted(name for name in os.listdir(folder) if name.endswith(".cfg"))
    except OSError:
        return NO_VM
    return os.path.join(folder, names[0]) if names else NO_VM


def commands(state, do_vm_check):
    running, paths, found, seen = running_vnics(state), known_paths(state), [], set()
    for switch in state.switch_ids():
        for port in state.port_keys(switch):
            pending = state.port_prop(switch, port, PENDING)
            if not pending and not do_vm_check:
                continue
            vif = state.port_prop(switch, port, simstate.EXTERNAL_ID)
            network = state.port_prop(switch, port, simstate.OPAQUE_NETWORK)
            if not vif or not network:
                continue
            seen.add((vif, network))
            secured_vm = state.plugged_vm(switch, port) if network.startswith(PORT_GROUP) else ""
            in_use = bool(secured_vm) or running.get(vif, ("", ""))[1] == network
            path = paths.get(vif) or secured_vm or path_beside(state.port_prop(switch, port, PERSIST) or "")
            if pending == "attach_port" and in_use:
                found.append(("attach", vif, network, path, port))
            elif pending == "detach_port" and not in_use:
                found.append(("detach", vif, port, network, path))
    if do_vm_check:
        for vif, (path, network) in sorted(running.items()):
            if network and (vif, network) not in seen:
                found.append(("attach", vif, network, path))
    return found


def speakable(command):
    return not any("," in word or "|" in word or "\n" in word for word in command)


def log(state, entry):
    with open(os.path.join(state.host_dir, "resync_runs.log"), "a", encoding="utf-8") as file:
        file.write(json.dumps(entry) + "\n")


def main():
    ctypes.CDLL(None).prctl(15, b"resync.py", 0, 0, 0)  # PR_SET_NAME: the daemon looks for it by this name
    if len(sys.argv) != 3 or not sys.argv[1].isdigit() or sys.argv[2] not in ("0", "1"):
        print("error: resync.py INTERVAL 0|1, not " + " ".join(sys.argv[1:]))
        sys.exit(2)
    state = simstate.State()
    entry = {"start": time.monotonic(), "interval": int(sys.argv[1]), "doVmCheck": sys.argv[2] == "1"}
    action, value = state.fault("resync")
    if action == "delay":
        time.sleep(float(value))
    if action in ("hang", "exit"):
        log(state, dict(entry, fault=action))
        if action == "hang":
            time.sleep(3600)
        sys.exit(1)
    with state.locked():
        pass  # takes the VMs as they are now; the ports are read without the lock
    found = commands(state, entry["doVmCheck"])
    said = [command for command in found if speakable(command)]
    reply = value if action == "reply" else ",".join("|".join(command) for command in said) or "ok"
    entry.update({"end": time.monotonic(), "reply": reply})
    entry["leftOut"] = ["|".join(command) for command in found if not speakable(command)]
    if action:
        entry["fault"] = action
    log(state, entry)
    if action == "die":
        sys.exit(1)
    print(reply)


if __name__ == "__main__":
    main()
