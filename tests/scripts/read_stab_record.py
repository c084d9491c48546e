#!/usr/bin/python3
"""Independent reader of a stability record file: decodes the protobuf wire
format by hand (no generated code) and prints a JSON summary.

Usage: read_stab_record.py RECORD.pb

Prints one line per item, a key followed by its values separated by blanks:
  size N                 bytes in the file
  tags T1 T2 ...         top-level field numbers in wire order (runs collapsed)
  packed 0|1             every repeated double field was written packed
  numOrders N
  orderInfo N            number of order_info entries
  order_num N1 N2 ...    their order_num values, in order
  sfdo S F D O ...       per entry, the lengths of its s, f, d and o lists
  <list> V1 V2 ...       eigenFrequency, dampingFactor, selected_poles,
                         selected_dampingfactor (full precision)
  <complex list> N re im re im ...   frfnum, residues, frfm (N values)
  lower_residual re im | absent      (likewise upper_residual)
Repeated doubles are accepted packed or unpacked.
"""
import struct
import sys


class WireError(Exception):
    pass


def varint(buf, pos):
    result = shift = 0
    while True:
        if pos >= len(buf):
            raise WireError("truncated varint")
        b = buf[pos]
        pos += 1
        result |= (b & 0x7F) << shift
        if not b & 0x80:
            return result, pos
        shift += 7
        if shift > 63:
            raise WireError("varint too long")


def fields(buf):
    """Yields (field number, wire type, value) of one message."""
    pos = 0
    while pos < len(buf):
        key, pos = varint(buf, pos)
        number, wire = key >> 3, key & 7
        if wire == 0:
            value, pos = varint(buf, pos)
        elif wire == 1:
            if pos + 8 > len(buf):
                raise WireError("truncated fixed64")
            value = buf[pos:pos + 8]
            pos += 8
        elif wire == 2:
            length, pos = varint(buf, pos)
            if pos + length > len(buf):
                raise WireError("truncated length-delimited field")
            value = buf[pos:pos + length]
            pos += length
        elif wire == 5:
            value = buf[pos:pos + 4]
            pos += 4
        else:
            raise WireError("unsupported wire type %d" % wire)
        yield number, wire, value


def doubles(wire, value):
    if wire == 1:
        return [struct.unpack("<d", value)[0]]
    if wire == 2:
        if len(value) % 8:
            raise WireError("packed doubles of odd length")
        return list(struct.unpack("<%dd" % (len(value) // 8), value))
    raise WireError("double field with wire type %d" % wire)


def complex_value(buf):
    out = {"re": 0.0, "im": 0.0}
    for number, wire, value in fields(buf):
        if number == 1:
            out["re"] = doubles(wire, value)[-1]
        elif number == 2:
            out["im"] = doubles(wire, value)[-1]
    return out


def order_info(buf):
    out = {"s": [], "f": [], "d": [], "o": [], "order_num": 0, "packed": True}
    for number, wire, value in fields(buf):
        if 1 <= number <= 4:
            out["sfdo"[number - 1]] += doubles(wire, value)
            out["packed"] = out["packed"] and wire == 2
        elif number == 5:
            out["order_num"] = value
    return out


DOUBLE_FIELDS = {2: "eigenFrequency", 3: "dampingFactor", 6: "selected_poles",
                 7: "selected_dampingfactor"}
COMPLEX_LISTS = {4: "frfnum", 8: "residues", 11: "frfm"}
COMPLEX_SINGLE = {9: "lower_residual", 10: "upper_residual"}


def read(buf):
    out = {"size": len(buf), "tags": [], "numOrders": 0, "orderInfo": [], "packed": True}
    for name in DOUBLE_FIELDS.values():
        out[name] = []
    for name in COMPLEX_LISTS.values():
        out[name] = []
    for name in COMPLEX_SINGLE.values():
        out[name] = None
    for number, wire, value in fields(buf):
        out["tags"].append(number)
        if number == 1:
            out["numOrders"] = value
        elif number in DOUBLE_FIELDS:
            out[DOUBLE_FIELDS[number]] += doubles(wire, value)
            out["packed"] = out["packed"] and wire == 2
        elif number in COMPLEX_LISTS:
            out[COMPLEX_LISTS[number]].append(complex_value(value))
        elif number in COMPLEX_SINGLE:
            out[COMPLEX_SINGLE[number]] = complex_value(value)
        elif number == 5:
            out["orderInfo"].append(order_info(value))
    # Runs of equal tags collapse, so the order of the fields is easy to check.
    collapsed = []
    for t in out["tags"]:
        if not collapsed or collapsed[-1] != t:
            collapsed.append(t)
    out["tags"] = collapsed
    return out


def write(summary):
    def line(key, values):
        print(" ".join([key] + [repr(v) if isinstance(v, float) else str(v) for v in values]))

    line("size", [summary["size"]])
    line("tags", summary["tags"])
    packed = summary["packed"] and all(o["packed"] for o in summary["orderInfo"])
    line("packed", [int(packed)])
    line("numOrders", [summary["numOrders"]])
    line("orderInfo", [len(summary["orderInfo"])])
    line("order_num", [o["order_num"] for o in summary["orderInfo"]])
    line("sfdo", [len(o[c]) for o in summary["orderInfo"] for c in "sfdo"])
    for name in DOUBLE_FIELDS.values():
        line(name, summary[name])
    for name in COMPLEX_LISTS.values():
        values = summary[name]
        line(name, [len(values)] + [x for v in values for x in (v["re"], v["im"])])
    for name in COMPLEX_SINGLE.values():
        v = summary[name]
        line(name, ["absent"] if v is None else [v["re"], v["im"]])


def main():
    if len(sys.argv) != 2:
        sys.stderr.write(__doc__)
        return 2
    with open(sys.argv[1], "rb") as f:
        buf = f.read()
    try:
        summary = read(buf)
    except WireError as e:
        sys.stderr.write("malformed record: %s\n" % e)
        return 1
    write(summary)
    return 0


if __name__ == "__main__":
    sys.exit(main())
