"""Port operations in the middle of a move of interfaces: the host's management names the moving vNICs to its daemon, and
the daemon requests their ports with the move's own id.  The move waits for the answers, since the agent has to leave the
ports of a move to the move itself.
"""

import json
import os
import socket
import time

from simstate import Refused

CONTROL = os.environ.get("ZEM_NODE_CONTROL", "/run/zem-node/control")
DETACH, ATTACH_TO_VIF = 2, 8
# Seconds within which the daemon's client has to be connected.
PATIENCE = 15


def node_command(words):
    """Runs one command of the node and returns its result."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as node:
        node.connect(CONTROL)
        node.sendall((" ".join('"%s"' % word for word in words) + "\n").encode())
        answer = node.makefile("r", encoding="utf-8").readline()
    return json.loads(answer)


def ask(opcode, op_id, device, vif, logical_switch):
    vm, _, vnic = device.partition(":")
    words = ["vm", "ask", "--opcode", str(opcode), op_id, vm, vnic, vif, logical_switch]
    until = time.monotonic() + PATIENCE
    while True:
        answer = node_command(words)
        if answer["ok"] or "nobody is connected" not in answer["error"] or time.monotonic() > until:
            break
        time.sleep(0.1)
    if not answer["ok"]:
        raise Refused("port operation [%s] of [%s]: %s" % (op_id, device, answer["error"]))
    text = answer["result"]["steps"][0]["text"]
    if opcode == ATTACH_TO_VIF and text != vif:
        raise Refused("port operation [%s] of [%s] was not left to the move: [%s]" % (op_id, device, text))


def before_move(opcode):
    def tell(arguments):
        parts = [part.partition("=")[::2] for part in arguments.split("|")]
        op_id = dict(parts).get("opId", "")
        for key, entry in parts:
            if key != "vmuuiddevicepair" or not os.path.exists(CONTROL):
                continue
            fields = entry.split(",") + ["", ""]
            vif, network = fields[1:3] if opcode == ATTACH_TO_VIF else ("", "")
            ask(opcode, op_id, fields[0], vif, network)

    return tell


# Actions that run before a command, while others may still read the host's state.
BEFORE = {"migrateToLS": before_move(ATTACH_TO_VIF), "migrateToPLN": before_move(DETACH)}
