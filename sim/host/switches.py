"""The host switches of the simulated host: making, changing, removing and listing them."""

import re

import simstate
from simstate import Refused

PNIC_USED = "zem.PnicUsedByMgmtInterfaceException-ApplyDvs(%s)"
RECORD_FIELDS = 13
KINDS = ("KLN", "NVS")
MODES = ("false", "true", "intr")
ID = re.compile(r"^([0-9a-f]{2} ){7}[0-9a-f]{2}-([0-9a-f]{2} ){7}[0-9a-f]{2}$", re.IGNORECASE)


def items(text, separator=","):
    return [item for item in text.split(separator) if item]


def refuse_management_loss(state, pnics, moving=()):
    """The interface that manages the host must keep a physical NIC on its switch, unless it moves as well."""
    for name, standard in state.host["standardSwitches"].items():
        managed = [
            device
            for device, knl in state.interfaces_on("standard", name).items()
            if knl["type"] == "management" and device not in moving
        ]
        left = set(state.pnics_of("standard", name)) - set(pnics)
        taken = set(state.pnics_of("standard", name)) & set(pnics)
        if managed and taken and not left:
            raise Refused(PNIC_USED % ",".join(sorted(taken)))


def number_in(text, least, most):
    return text.isdigit() and least <= int(text) <= most


def check_vlan(text):
    """Accepts no VLAN, or a valid VLAN number."""
    if text and not number_in(text, 0, 4094):
        raise Refused("malformed VLAN [%s]" % text)


def check_mtu(text, what="MTU"):
    """0 leaves the choice to the host."""
    if text not in ("", "0") and not number_in(text, 1280, 9190):
        raise Refused("malformed %s [%s]" % (what, text))


def word(options, name):
    value = options.get(name, "False")
    if value not in ("True", "False"):
        raise Refused("malformed %s [%s]" % (name, value))
    return value == "True"


def record(text):
    fields = text.split("|")
    if len(fields) != RECORD_FIELDS:
        raise Refused("a record of %d fields, not %d: [%s]" % (len(fields), RECORD_FIELDS, text))
    if not ID.match(fields[0]):
        raise Refused("malformed host-switch id [%s]" % fields[0])
    if not fields[1]:
        raise Refused("host-switch [%s] has no name" % fields[0])
    if not fields[2].isdigit():
        raise Refused("malformed MTU [%s]" % fields[2])
    check_mtu(fields[2])
    if fields[3] not in KINDS:
        raise Refused("unknown kind [%s]" % fields[3])
    for flag in (fields[8], fields[11], fields[12]):
        if flag not in ("0", "1"):
            raise Refused("malformed flag [%s]" % flag)
    pairs = [tuple(pair.split("~")) for pair in items(fields[6])]
    if any(len(pair) != 2 or not all(pair) for pair in pairs):
        raise Refused("malformed physical NICs [%s]" % fields[6])
    if fields[10] != "none" and not all("=" in pair for pair in items(fields[10])):
        raise Refused("malformed extra config [%s]" % fields[10])
    for lag in items(fields[9], "="):
        if len(lag.split(",")) != 6:
            raise Refused("malformed LAG [%s]" % lag)
    return fields, pairs


def apply_dvses(state, arguments):
    """Makes or changes switches; all or none."""
    records = [record(text) for text in arguments.split(";")]
    names = {state.meta(switch)["name"]: switch for switch in state.switch_ids()}
    takers = {}
    for fields, pairs in records:
        for name, _ in pairs:
            if takers.setdefault(name, fields[0]) != fields[0]:
                raise Refused("physical NIC [%s] is wanted by two host-switches" % name)
    if len({fields[0] for fields, _ in records}) != len(records):
        raise Refused("a host-switch is in the list twice")
    for fields, _ in records:
        if names.setdefault(fields[1], fields[0]) != fields[0]:
            raise Refused("the name [%s] is that of host-switch [%s]" % (fields[1], names[fields[1]]))
    for fields, pairs in records:
        refuse_management_loss(state, [name for name, _ in pairs])
        for name, _ in pairs:
            pnic = state.host["pnics"].get(name)
            if pnic is None:
                raise Refused("physical NIC [%s] is not found" % name)
            owner = pnic["owner"]
            if owner and owner["kind"] == "switch" and owner["switch"] != fields[0]:
                raise Refused("physical NIC [%s] is in use by host-switch [%s]" % (name, owner["switch"]))
    for fields, pairs in records:
        apply_record(state, fields, pairs)
    return "ok"


def apply_record(state, fields, pairs):
    switch = fields[0]
    meta = state.meta(switch) if state.has_switch(switch) else {
        "id": switch,
        "pnics": [],
        "mode": "false",
        "cpu": [],
        "security": False,
    }
    meta.update(
        {
            "name": fields[1],
            "kind": fields[3],
            "mtu": int(fields[2]),
            "zones": items(fields[4]),
            "zoneProfiles": items(fields[5]),
            "uplinks": items(fields[7]),
            "overlay": fields[8] == "1",
            "lags": items(fields[9], "="),
            "extraConfig": {} if fields[10] == "none" else dict(pair.split("=", 1) for pair in items(fields[10])),
            "vifCollection": fields[11] == "1",
            "snicOffload": fields[12] == "1",
        }
    )
    state.write_meta(meta)
    # Without physical NICs: they either arrive with interfaces that move in, or leave.  NICs below interfaces that are
    # on this switch stay.
    if pairs or not state.interfaces_on("logical", switch):
        state.give_pnics(switch, pairs)
    state.set_host_prop(switch, simstate.VSWITCH_STATUS, "up")


def apply_dvs_list(state, arguments):
    """Removes the switches that are not in the first list: "id=vlans,...|id,id|reset=..|types|deleteTn=..".

    The digit says whether a switch of the host's own is left that nobody uses.
    """
    parts = arguments.split("|")
    kept = set()
    for item in items(parts[0]):
        switch, _, vlan = item.partition("=")
        if not ID.match(switch):
            raise Refused("malformed host-switch id [%s]" % switch)
        check_vlan(vlan)
        kept.add(switch)
    options = dict(part.split("=", 1) for part in parts[1:] if "=" in part)
    everything = word(options, "reset") | word(options, "deleteTn")
    types = set(items(next((part for part in reversed(parts[1:]) if "=" not in part), "")))
    if everything:
        kept = set()
    digit = "1" if state.host["flags"]["unusedCkln"] else "0"
    for switch in state.switch_ids():
        if switch in kept:
            continue
        for device, knl in state.interfaces_on("logical", switch).items():
            if not types or knl["type"] in types:
                return "%s|interface [%s] is in host-switch [%s]" % (digit, device, switch)
        remove_switch(state, switch)
    return digit + "|ok"


def remove_switch(state, switch):
    for device, endpoint in state.endpoints().items():
        if endpoint["switchId"] == switch:
            state.remove_endpoint(device)
    for device, knl in state.interfaces_on("endpoint", switch).items():
        del state.host["interfaces"][device]
    for pnic in state.pnics_of("switch", switch):
        state.host["pnics"][pnic]["owner"] = None
    lanes = state.host["guestLane"]["switches"]
    if switch in lanes:
        lanes.remove(switch)
    state.remove_switch(switch)


def listed(values):
    values = list(values)
    return "ok|" + ",".join(values) if values else "ok"


def query_dvs_list(state, _):
    return listed(switch for switch in state.switch_ids() if not state.meta(switch).get("security"))


def query_dvs_names(state, arguments):
    names = []
    for switch in arguments.split(","):
        names.append(state.meta(switch)["name"] if switch and state.has_switch(switch) else "")
    return "ok|" + ",".join(names)


def query_security_enabled_non_ckln(state, _):
    return listed(switch for switch in state.switch_ids() if state.meta(switch).get("security"))


def get_security_enabled(state, _):
    return listed(
        switch for switch in state.switch_ids() if state.host_prop(switch, simstate.SECURITY_ENABLED) == "true"
    )


def get_tz_to_dvs(state, _):
    entries = [
        ":".join((zone, switch, state.meta(switch)["kind"]))
        for switch in state.switch_ids()
        for zone in state.meta(switch)["zones"]
    ]
    return "|".join(["ok"] + entries)


def apply_mode(state, arguments):
    switch, _, mode = arguments.partition("|")
    meta = state.meta(switch)
    if mode not in MODES:
        raise Refused("unknown mode [%s]" % mode)
    meta["mode"] = mode
    if mode != "true":
        meta["cpu"] = []
    state.write_meta(meta)
    return "ok"


def apply_cpu_config(state, arguments):
    switch, _, pairs = arguments.partition("|")
    meta = state.meta(switch)
    if not all(re.match(r"^\d+~\d+$", pair) for pair in items(pairs)):
        raise Refused("malformed CPU configuration [%s]" % pairs)
    meta["cpu"] = items(pairs)
    state.write_meta(meta)
    return "ok"


def unset_vdr_tracking(state, arguments):
    for switch in items(arguments):
        state.meta(switch)
    return "ok"


def get_guest_lane(state, switch):
    state.meta(switch)
    return "found" if switch in state.host["guestLane"]["switches"] else "notFound"


def create_guest_lane(state, switch):
    state.meta(switch)
    if switch in state.host["guestLane"]["switches"]:
        raise Refused("host-switch [%s] has a guest lane interface" % switch)
    state.host["guestLane"]["switches"].append(switch)
    return "ok"


def delete_guest_lane(state, switch):
    if switch not in state.host["guestLane"]["switches"]:
        raise Refused("host-switch [%s] has no guest lane interface" % switch)
    state.host["guestLane"]["switches"].remove(switch)
    return "ok"


def add_guest_lane_interface(state, arguments):
    values = dict(part.partition("=")[::2] for part in arguments.split("|"))
    state.host["guestLane"]["interface"] = {
        "device": values.get("deviceName", ""),
        "ip": values.get("ipAddress", ""),
        "netMask": values.get("netMask", ""),
    }
    return "ok"


COMMANDS = {
    "applyDvses": apply_dvses,
    "applyDvsList": apply_dvs_list,
    "queryDvsListWithoutFlag": query_dvs_list,
    "queryDvsNames": query_dvs_names,
    "querySecurityEnabledNonCklnList": query_security_enabled_non_ckln,
    "GetSecurityEnabledDvsIds": get_security_enabled,
    "GetTzToDvsMapping": get_tz_to_dvs,
    "applyHostSwitchMode": apply_mode,
    "applyHostSwitchCpuConfig": apply_cpu_config,
    "unsetVdrDvptrackingInDvses": unset_vdr_tracking,
    "GetGuestLaneKnl": get_guest_lane,
    "CreateGuestLaneInterface": create_guest_lane,
    "DeleteGuestLaneInterface": delete_guest_lane,
    "AddGuestLaneInterface": add_guest_lane_interface,
}
