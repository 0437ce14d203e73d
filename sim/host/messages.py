"""Reads the few fields of the daemon's protobuf messages that the host looks at, without a generated schema."""

import struct


def fields(data):
    """Field number and value of each field: an int, or bytes.  ValueError when the data is no message."""
    at = 0
    while at < len(data):
        key, at = varint(data, at)
        number, kind = key >> 3, key & 7
        if number == 0:
            raise ValueError("field 0")
        if kind == 0:
            value, at = varint(data, at)
        elif kind == 2:
            length, at = varint(data, at)
            value, at = data[at : at + length], at + length
        elif kind in (1, 5):
            size = 8 if kind == 1 else 4
            value, at = data[at : at + size], at + size
        else:
            raise ValueError("wire type %d" % kind)
        if at > len(data):
            raise ValueError("cut off")
        if kind == 1:
            value = struct.unpack("<Q", value)[0]
        elif kind == 5:
            value = struct.unpack("<I", value)[0]
        yield number, value


def varint(data, at):
    value = shift = 0
    while True:
        if at >= len(data) or shift > 63:
            raise ValueError("cut off")
        byte = data[at]
        at += 1
        value |= (byte & 0x7F) << shift
        if byte < 0x80:
            return value, at
        shift += 7


def signed32(value):
    value &= 0xFFFFFFFF
    return value - (1 << 32) if value >= 1 << 31 else value


def text(value):
    return value.decode(errors="replace")


def logical_switch_bulk(data):
    """The continuation flag, and the switches as dictionaries."""
    flag, switches = 0, []
    for number, value in fields(data):
        if number == 1:
            flag = value
        elif number == 2:
            zone, infos = "", []
            for zone_number, zone_value in fields(value):
                if zone_number == 1:
                    zone = text(zone_value)
                elif zone_number == 2:
                    infos.append(zone_value)
            switches += [logical_switch(info, zone) for info in infos]
    return flag, switches


def logical_switch(data, zone):
    switch = {"uuid": "", "name": "", "path": "", "zone": zone, "revision": 0}
    for number, value in fields(data):
        if number == 1:
            switch["zone"] = text(value)
        elif number == 2:
            switch["revision"] = signed32(value)
        elif number == 3:
            switch["uuid"] = text(value)
        elif number == 4:
            switch["name"] = text(value)
        elif number == 6:
            switch["path"] = text(value)
    return switch
