"""Packets of pcap files (Ethernet, either resolution, little-endian) as (nanoseconds, bytes)."""

import struct

MICROSECONDS, NANOSECONDS = 0xA1B2C3D4, 0xA1B23C4D
HEADER_SIZE, RECORD_SIZE = 24, 16
SNAP_LENGTH = 65535
ETHERNET = 1


def pcap_header(magic=NANOSECONDS, link_type=ETHERNET):
    return struct.pack("<IHHiIII", magic, 2, 4, 0, 0, SNAP_LENGTH, link_type)


def parse(data):
    """Every packet. A file that ends within a record, or cuts a packet short, is an error."""
    magic, major, minor, _, _, _, link_type = struct.unpack_from("<IHHiIII", data)
    if magic not in (MICROSECONDS, NANOSECONDS) or (major, minor, link_type) != (2, 4, ETHERNET):
        raise ValueError("not an Ethernet pcap file")
    scale = 1000 if magic == MICROSECONDS else 1
    packets = []
    at = HEADER_SIZE
    while at < len(data):
        seconds, fraction, size, whole = struct.unpack_from("<IIII", data, at)
        at += RECORD_SIZE
        if at + size > len(data) or size != whole:
            raise ValueError("record %d is cut" % len(packets))
        packets.append((seconds * 10**9 + fraction * scale, data[at:at + size]))
        at += size
    return packets


def read(path):
    with open(path, "rb") as file:
        return parse(file.read())


def records(packets, unit=1):
    """The packets as records with fractions in this unit of nanoseconds, without a file header."""
    return b"".join(struct.pack("<IIII", ns // 10**9, ns % 10**9 // unit, len(data), len(data)) + data
                    for ns, data in packets)


def write(path, packets, magic=NANOSECONDS, link_type=ETHERNET):
    with open(path, "wb") as file:
        file.write(pcap_header(magic, link_type) + records(packets, 1000 if magic == MICROSECONDS else 1))


def flow_of(frame):
    """What both directions of a TCP or UDP connection have in common; no extension headers, at most one tag."""
    at = 18 if frame[12:14] == b"\x81\x00" else 14
    if frame[at - 2:at] == b"\x08\x00":
        protocol, addresses, ports = frame[at + 9], at + 12, at + 4 * (frame[at] & 15)
        size = 4
    else:
        protocol, addresses, ports = frame[at + 6], at + 8, at + 40
        size = 16
    if protocol not in (6, 17):
        raise ValueError("protocol %d has no ports here" % protocol)
    ends = ((frame[addresses:addresses + size], frame[ports:ports + 2]),
            (frame[addresses + size:addresses + 2 * size], frame[ports + 2:ports + 4]))
    return (protocol, *sorted(ends))
