"""Moves of interfaces, vNICs and physical NICs of the simulated host between its standard switches and host switches.

A move is all or nothing: everything is checked, and only then anything changes.
"""

import endpoints
import simstate
from simstate import Refused
from switches import items, refuse_management_loss

# Thirteen characters; the list of endpoints that did not move follows, then "|" and the reason.
FAILED_PREFIX = "failed VTEPs:"


def values_of(arguments):
    """The fields of a command, each with all its values in order."""
    values = {}
    for part in arguments.split("|"):
        key, _, value = part.partition("=")
        values.setdefault(key, []).append(value)
    return values


def pairs_of(values):
    flat = items(values.get("pnicUplinkPairList", [""])[0])
    if len(flat) % 2:
        raise Refused("malformed physical NICs [%s]" % ",".join(flat))
    return list(zip(flat[::2], flat[1::2]))


def vnic_of(state, device):
    vm, _, vnic = device.partition(":")
    found = state.vms.get(vm, {}).get("vnics", {}).get(vnic)
    if found is None:
        raise Refused("vNIC [%s] is not found" % device)
    state.changed_vms.add(vm)
    return state.vms[vm], found


def interface_of(state, device):
    found = state.host["interfaces"].get(device)
    if found is None:
        raise Refused("interface [%s] is not found" % device)
    return found


def wanted_port(state, switch, device, vif, logical_switch):
    port = state.port_of(switch, vif, logical_switch)
    if port is None:
        raise Refused("no port with VIF [%s] in logical switch [%s] for [%s]" % (vif, logical_switch, device))
    return port


def migrate_to_ls(state, arguments):
    values = values_of(arguments)
    switch = values.get("dvsUuid", [""])[0]
    state.meta(switch)  # raises Refused for an unknown switch
    pairs = pairs_of(values)
    failed, moves, path = [], [], ""
    for entry in values.get("knlToLs", []):
        fields = entry.split(",")
        device = fields[0]
        if "is_vtep" in fields:
            if device in state.host["interfaces"]:
                moves.append(lambda device=device: become_endpoint(state, switch, device))
            else:
                failed.append(device)
        elif "not_vtep" in fields:
            knl = interface_of(state, device)
            port = wanted_port(state, switch, device, fields[1], fields[2])
            moves.append(lambda a=(knl, device, port, fields): enter(state, switch, *a))
        else:
            raise Refused("malformed interface [%s]" % entry)
    for entry in values.get("vmuuiddevicepair", []):
        device, vif, logical_switch = entry.split(",")[:3]
        machine, vnic = vnic_of(state, device)
        port = wanted_port(state, switch, device, vif, logical_switch)
        moves.append(lambda a=(vnic, device, port, vif, logical_switch): plug_vnic(state, switch, *a))
        path = machine["path"]
    if failed:
        raise Refused("%s%s|interfaces not found" % (FAILED_PREFIX, ",".join(failed)))
    moving = {entry.split(",")[0] for entry in values.get("knlToLs", [])}
    refuse_management_loss(state, [name for name, _ in pairs], moving)
    for move in moves:
        move()
    # The uplinks that the switch is to have, in the form of its record.
    if pairs:
        state.give_pnics(switch, pairs)
    return "ok:" + path if path else "ok"


def enter(state, switch, knl, device, port, fields):
    leave(state, knl, device)
    knl["where"] = {"kind": "logical", "switch": switch, "port": port, "vif": fields[1], "ls": fields[2]}
    state.plug(switch, port, device)


def become_endpoint(state, switch, device):
    knl = state.host["interfaces"][device]
    leave(state, knl, device)
    endpoint = endpoints.new_endpoint(state, device)
    endpoint.update({"switch": state.meta(switch)["name"], "switchId": switch, "ip": knl["ip"]})
    state.write_endpoint(endpoint)
    knl["where"] = {"kind": "endpoint", "switch": switch}


def leave(state, knl, device):
    where = knl["where"]
    if where["kind"] == "logical" and state.has_switch(where["switch"]):
        if where["port"] in state.port_keys(where["switch"]):
            state.plug(where["switch"], where["port"], "")
    if where["kind"] == "endpoint" and device in state.endpoints():
        state.remove_endpoint(device)


def plug_vnic(state, switch, vnic, device, port, vif, logical_switch):
    vnic.update({"switch": switch, "port": port, "vif": vif, "ls": logical_switch, "portGroup": "", "connected": True})
    state.plug(switch, port, device)


def migrate_to_pln(state, arguments):
    values = values_of(arguments)
    switch = values.get("dvsUuid", [""])[0]
    meta = state.meta(switch)
    stay = set(items(values.get("pnicsToSetInDvs", [""])[0]))
    pairs = pairs_of(values)
    target = values.get("dvsOrPlnName", [""])[0]
    moves = []
    for entry in values.get("knlToVswOrPsw", []):
        device, group = (entry.split(",") + [""])[:2]
        if not device:
            continue
        target = standard_switch_of(state, group)
        knl = interface_of(state, device)
        moves.append(lambda a=(knl, device, target, group): back_to_standard(state, *a))
    for entry in values.get("vmuuiddevicepair", []):
        device, group = (entry.split(",") + [""])[:2]
        _, vnic = vnic_of(state, device)
        target = target or standard_switch_of(state, group)
        moves.append(lambda a=(vnic, group): vnic_to_group(state, *a))
    if target not in state.host["standardSwitches"]:
        raise Refused("standard switch [%s] is not found" % target)
    current = [(pair["dev"], pair["uplink"]) for pair in meta["pnics"]]
    keep = [pair for pair in pairs if pair[1] in stay]
    going = [name for name, _ in current if name not in {name for name, _ in keep}]
    if moves and not going and not state.pnics_of("standard", target):
        raise Refused("standard switch [%s] would have no physical NIC" % target)
    for move in moves:
        move()
    state.give_pnics(switch, keep)
    for name in going:
        state.host["pnics"][name]["owner"] = {"kind": "standard", "switch": target}
    return "ok"


def standard_switch_of(state, group):
    for name, switch in state.host["standardSwitches"].items():
        if group in switch["portGroups"]:
            return name
    raise Refused("port group [%s] is not found" % group)


def back_to_standard(state, knl, device, target, group):
    leave(state, knl, device)
    knl["where"] = {"kind": "standard", "switch": target, "portGroup": group}


def vnic_to_group(state, vnic, group):
    if vnic.get("port") and vnic["port"] in state.port_keys(vnic["switch"]):
        state.plug(vnic["switch"], vnic["port"], "")
    vnic.update({"switch": "", "port": "", "vif": "", "ls": "", "portGroup": group})


def get_knls(state, types):
    """ "ok|device~vif~port~switch~type~physical NIC with the same MAC~teaming|..." """
    wanted = set(items(types))
    entries = []
    for device, knl in sorted(state.host["interfaces"].items()):
        where = knl["where"]
        if where["kind"] != "logical" and knl["type"] not in wanted:
            continue
        inside = where["kind"] in ("logical", "endpoint")
        entries.append(
            "~".join(
                (
                    device,
                    where.get("vif", ""),
                    where.get("port", ""),
                    where["switch"] if inside else "",
                    knl["type"],
                    knl["macOf"],
                    "",
                )
            )
        )
    return "|".join(["ok"] + entries)


def validate_for_del(state, _):
    """Checks that the agent can be removed: no VM may be connected to its logical switches."""
    connected = connected_vifs(state)
    return "connected VIFs: " + ",".join(connected) if connected else "ok"


def migrate_for_del(state, _):
    """Brings every interface back to the host's own switch, with a physical NIC to go with it."""
    name = next(iter(state.host["standardSwitches"]))
    for device, knl in state.host["interfaces"].items():
        if knl["where"]["kind"] != "logical":
            continue
        switch = knl["where"]["switch"]
        management = knl["type"] == "management"
        back_to_standard(state, knl, device, name, "Management Network" if management else "Host Network")
        if not state.pnics_of("standard", name) and state.pnics_of("switch", switch):
            pairs = [(pair["dev"], pair["uplink"]) for pair in state.meta(switch)["pnics"]]
            state.give_pnics(switch, pairs[1:])
            state.host["pnics"][pairs[0][0]]["owner"] = {"kind": "standard", "switch": name}
    return "ok"


def connected_vifs(state):
    return sorted(
        vnic["vif"]
        for machine in state.vms.values()
        for vnic in machine["vnics"].values()
        if vnic.get("connected") and vnic.get("ls")
    )


def check_vm_connection(state, _):
    connected = connected_vifs(state)
    return ",".join(connected) if connected else "ok"


def vms_on_port_groups(state):
    """Operation 18: a line of six members for each vNIC on a distributed port group."""
    return "".join(
        "|".join((uuid, device, vnic["portGroup"], vnic.get("port", ""), vnic.get("vif", ""), machine["path"])) + "\n"
        for uuid, machine in sorted(state.vms.items())
        for device, vnic in sorted(machine["vnics"].items())
        if vnic.get("portGroup", "").startswith("dvportgroup-")
    )


def gcf_path(state, uuid):
    if uuid not in state.vms:
        raise Refused("VM [%s] is not found" % uuid)
    return "ok|" + state.vms[uuid]["path"]


def path_of_vif(state, data):
    """Operation 17: "vifId=<vif>|portId=<port>"."""
    values = dict(part.partition("=")[::2] for part in data.split("|"))
    for machine in state.vms.values():
        if any(vnic.get("vif") == values.get("vifId") for vnic in machine["vnics"].values()):
            return machine["path"]
    raise Refused("no VM has VIF [%s]" % values.get("vifId", ""))


def vifs_for_site_config(state, _):
    entries = []
    for switch in state.switch_ids():
        zones = state.meta(switch)["zones"]
        for port in state.port_keys(switch):
            if state.port_prop(switch, port, simstate.ATTACHMENT_STATE) == "pending_conf":
                vif = state.port_prop(switch, port, simstate.EXTERNAL_ID) or ""
                network = state.port_prop(switch, port, simstate.OPAQUE_NETWORK) or ""
                entries.append(":".join((vif, network, port, zones[0] if zones else "")))
    return "|".join(entries)


COMMANDS = {
    "migrateToLS": migrate_to_ls,
    "migrateToPLN": migrate_to_pln,
    "getKnlsInLogicalSwitchesAndKnlsOfGivenTypes": get_knls,
    "validateHostForDelZem": validate_for_del,
    "migrateResourcesForDelZem": migrate_for_del,
    "checkVmConnection": check_vm_connection,
    "getGcfPathOfVm": gcf_path,
    "GetVifUuidsForFetchingSiteConfig": vifs_for_site_config,
}
