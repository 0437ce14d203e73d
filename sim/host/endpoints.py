"""The tunnel endpoints of the simulated host's switches."""

import ipaddress

from simstate import Refused
from switches import check_mtu, check_vlan, items

NOT_YET = "0.0.0.0"


def decimal_mac(mac):
    return str(int(mac.replace(":", ""), 16))


def text_mac(number):
    digits = "%012x" % number
    return ":".join(digits[i : i + 2] for i in range(0, 12, 2))


def valid(address, version):
    try:
        return ipaddress.ip_address(address).version == version
    except ValueError:
        return False


def valid_mask(text):
    """Ones, then zeros."""
    if not valid(text, 4):
        return False
    bits = int(ipaddress.IPv4Address(text)) ^ 0xFFFFFFFF
    return bits & (bits + 1) == 0


def check(values):
    check_vlan(values.get("vlan", ""))
    check_mtu(values.get("mtu", ""), "endpoint MTU")
    for name in ("dhcp", "ipv6Dhcp", "ipv6AutoConf"):
        if values.get(name, "") not in ("0", "1"):
            raise Refused("malformed %s [%s]" % (name, values.get(name, "")))
    if values.get("upgrade", "") not in ("true", "false"):
        raise Refused("malformed upgrade [%s]" % values.get("upgrade", ""))


def setting(value, good):
    return "%s~%s" % (value, "ok" if not value or good else "malformed")


def apply_vtep(state, arguments):
    """Makes the endpoints of a switch match the list, and returns the outcome of each."""
    values = dict(part.partition("=")[::2] for part in arguments.split("|"))
    meta = state.meta(values.get("uuid", ""))
    check(values)
    prefix = values.get("ipv6PrefixLength", "")
    reply = [
        "ok",
        setting(values.get("defaultGateway", ""), valid(values.get("defaultGateway", ""), 4)),
        setting(values.get("subnetMask", ""), valid_mask(values.get("subnetMask", ""))),
        setting(values.get("ipv6DefaultGateway", ""), valid(values.get("ipv6DefaultGateway", ""), 6)),
        setting(prefix, prefix.isdigit() and int(prefix) <= 128),
    ]
    wanted = [entry.split("~") for entry in items(values.get("vtep", ""))]
    if any(len(entry) != 5 for entry in wanted):
        raise Refused("malformed endpoints [%s]" % values["vtep"])
    if len({entry[0] for entry in wanted}) != len(wanted):
        raise Refused("an endpoint is in the list twice [%s]" % values["vtep"])
    # The host creates them in an order of its own.
    outcome = {entry[0]: apply_entry(state, meta, values, *entry) for entry in sorted(wanted)}
    reply += [outcome[entry[0]] for entry in wanted]
    for device, endpoint in state.endpoints().items():
        if endpoint["switchId"] == meta["id"] and device not in outcome:
            state.remove_endpoint(device)
            state.host["interfaces"].pop(device, None)
            reply.append("~".join((device, endpoint["ip"], endpoint["ip6"], "removed")))
    return "|".join(reply)


def apply_entry(state, meta, values, device, ip, ip6, mac, marker):
    endpoint = state.endpoints().get(device)
    if marker == "skip_migrating":
        known = endpoint or {"ip": ip, "ip6": ip6}
        return "~".join((device, known["ip"], known["ip6"], "skipped"))
    where = state.host["interfaces"].get(device, {"where": {"kind": "endpoint"}})["where"]
    problem = ""
    if endpoint and endpoint["switchId"] != meta["id"]:
        problem = "it is an endpoint of host-switch [%s]" % endpoint["switchId"]
    elif where["kind"] != "endpoint":
        problem = "it is in use by the host"
    elif values["dhcp"] == "0" and taken_by(state, device, ip):
        problem = "its address is that of endpoint [%s]" % taken_by(state, device, ip)
    elif values["dhcp"] == "0" and not valid(ip, 4) and not valid(ip6, 6):
        problem = "it has no valid address"
    if problem:
        return "~".join((device, ip, ip6, problem))
    if endpoint is None:
        endpoint = new_endpoint(state, device)
    endpoint.update({"switch": meta["name"], "switchId": meta["id"], "vlan": values["vlan"], "mtu": values["mtu"]})
    if mac:
        endpoint["mac"] = text_mac(int(mac))
    assign(state, endpoint, values, ip, ip6)
    state.write_endpoint(endpoint)
    pending = endpoint["availableAfter"] > 0
    return "~".join(
        (
            device,
            NOT_YET if pending and values["dhcp"] == "1" else endpoint["ip"],
            "" if pending and endpoint["type6"] else endpoint["ip6"],
            "ok",
            decimal_mac(endpoint["mac"]),
        )
    )


def taken_by(state, device, ip):
    for other, endpoint in state.endpoints().items():
        if other != device and ip and endpoint["ip"] == ip:
            return other
    return ""


def new_endpoint(state, device):
    number = state.host["endpointIds"]["next"]
    state.host["endpointIds"]["next"] = number + 1
    known = state.host["interfaces"].get(device, {})
    return {
        "device": device,
        "endpointId": number,
        "mac": known.get("mac") or "02:52:00:00:%02x:%02x" % (number >> 8 & 0xFF, number & 0xFF),
        "ip": "",
        "ip6": "",
        "type": "",
        "type6": "",
        "availableAfter": 0,
        "admin": "up",
        "health": "good",
    }


def assign(state, endpoint, values, ip, ip6):
    """A static address at once; a dynamic one is assigned after the configured number of queries."""
    dhcp = state.host["dhcp"]
    kind = "dhcp" if values["dhcp"] == "1" else "static"
    kind6 = "dhcp" if values["ipv6Dhcp"] == "1" else "linklayer" if values["ipv6AutoConf"] == "1" else ""
    fresh = endpoint["type"] != kind or endpoint["type6"] != kind6
    if kind == "static":
        endpoint["ip"] = ip
        if not kind6:
            endpoint["ip6"] = ip6
    if fresh and (kind == "dhcp" or kind6):
        if kind == "dhcp":
            endpoint["ip"] = "%s%d" % (dhcp["prefix"], dhcp["next"])
        if kind6:
            endpoint["ip6"] = "%s%x" % (dhcp["prefix6"], dhcp["next"])
        dhcp["next"] += 1
        endpoint["availableAfter"] = dhcp["polls"]
    endpoint["type"], endpoint["type6"] = kind, kind6


def read_addresses(state, data):
    """Operation 12: "vtepDeviceId=d[|ipv6AddressConfigType=k]"."""
    values = dict(part.partition("=")[::2] for part in data.split("|"))
    endpoint = state.endpoints().get(values.get("vtepDeviceId", ""))
    if endpoint is None:
        raise Refused("no endpoint [%s]" % values.get("vtepDeviceId", ""))
    if endpoint["availableAfter"] > 0:
        endpoint["availableAfter"] -= 1
        state.write_endpoint(endpoint)
        return "~~IpNotAssigned"
    return "~".join((endpoint["ip"], endpoint["ip6"], "IpAssigned"))


COMMANDS = {"applyVtep": apply_vtep}
