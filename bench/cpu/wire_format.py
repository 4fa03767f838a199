"""Protobuf's wire format. A message is a list of pieces, bytes or arrays, so that weights are never copied."""
import struct


def varint(value):
    out = bytearray()
    while value > 0x7F:
        out.append(value & 0x7F | 0x80)
        value >>= 7
    out.append(value)
    return bytes(out)


def integer(number, value):
    return [varint(number << 3) + varint(int(value))]


def real(number, value):
    return [varint(number << 3 | 5) + struct.pack("<f", value)]


def size(piece):
    return len(piece) if isinstance(piece, bytes) else piece.nbytes


def block(number, content):
    """A string, bytes, an array or a message, with its length."""
    if isinstance(content, str):
        content = content.encode()
    pieces = content if isinstance(content, list) else [content]
    return [varint(number << 3 | 2) + varint(sum(map(size, pieces)))] + pieces


def write(path, pieces):
    """Returns where each array begins in the file, by the array's id."""
    offsets = {}
    with open(path, "wb") as f:
        for piece in pieces:
            if not isinstance(piece, bytes):
                offsets[id(piece)] = f.tell()
            f.write(piece)
    return offsets
