"""The opaque networks of the simulated host: one for each logical switch that a host switch of kind "NVS" carries."""

import hashlib

import messages
from simstate import Refused


def entry_values(entry):
    return dict(part.partition("=")[::2] for part in entry.split("|"))


def create(state, arguments):
    """ "uuid=..|name=..|path=..|zone=..|revision=..,..."; all or none. """
    state.networks.refresh()
    changes = []
    # A name may contain commas: an entry ends where the next one begins.
    for entry in arguments.split(",uuid="):
        values = entry_values(entry if entry.startswith("uuid=") else "uuid=" + entry)
        if not values.get("uuid") or "revision" not in values:
            raise Refused("malformed opaque network [%s]" % entry)
        known = state.networks.entries.get(values["uuid"])
        if known and known["revision"] > int(values["revision"]):
            raise Refused(
                "opaque network [%s] has revision %d already" % (values["uuid"], known["revision"])
            )
        changes.append(
            {
                "op": "set",
                "uuid": values["uuid"],
                "name": values.get("name", ""),
                "path": values.get("path", ""),
                "zone": values.get("zone", ""),
                "revision": int(values["revision"]),
            }
        )
    state.networks.add(changes)
    return "ok"


def delete(state, arguments):
    changes = []
    for entry in arguments.split(","):
        uuid = entry_values(entry).get("uuid")
        if not uuid:
            raise Refused("malformed opaque network [%s]" % entry)
        # A network that does not exist needs no removal.
        changes.append({"op": "delete", "uuid": uuid})
    state.networks.refresh()
    state.networks.add(changes)
    return "ok"


def apply_bulk(state, data):
    """Operation 11: one piece of the complete list; the first piece clears the previous list."""
    flag, switches = messages.logical_switch_bulk(data)
    if flag not in (0, 1):
        raise Refused("malformed continuation [%d]" % flag)
    if flag == 1 and not state.bulk_begun:
        raise Refused("a piece of a list that was never begun")
    state.bulk_begun = True
    kinds = {}
    for switch in state.switch_ids():
        meta = state.meta(switch)
        kinds.update({zone: meta["kind"] for zone in meta["zones"]})
    changes = [{"op": "clear"}] if flag == 0 else []
    for switch in switches:
        if not switch["uuid"]:
            raise Refused("a logical switch without uuid")
        if kinds.get(switch["zone"]) != "KLN":
            changes.append({"op": "set", **switch})
    state.networks.refresh()
    state.networks.add(changes)
    return ""


def checksum(state, _):
    state.networks.refresh()
    if not state.networks.entries:
        return ""
    digest = hashlib.md5()
    for uuid, network in sorted(state.networks.entries.items()):
        digest.update(("%s:%d;" % (uuid, network["revision"])).encode())
    return digest.hexdigest()


COMMANDS = {
    "createOpaqueNetwork": create,
    "deleteOpaqueNetwork": delete,
    "getAllOpaqueNetworkChecksum": checksum,
}
