"""The three operations in NDR 2.0, in either order of integers, for the clients that carry bare stubs."""

import struct

OPNUMS = {"DoRpc": 0, "DoRpcWithBinary": 1, "InvokerTestConnection": 2}


class Writer:
    def __init__(self, big):
        self.order = ">" if big else "<"
        self.stub = b""

    def number(self, value):
        self.stub += bytes(-len(self.stub) % 4)
        self.stub += struct.pack(self.order + "I", value)

    def string(self, value):
        units = (value + "\0").encode("utf-16-be" if self.order == ">" else "utf-16-le")
        for number in (len(units) // 2, 0, len(units) // 2):
            self.number(number)
        self.stub += units

    def data(self, value):
        self.number(len(value))
        self.number(len(value))
        self.stub += value


class Reader:
    def __init__(self, stub, big):
        self.order = ">" if big else "<"
        self.stub = stub
        self.position = 0

    def take(self, count):
        taken = self.stub[self.position : self.position + count]
        if len(taken) != count:
            raise ValueError("the stub ends early")
        self.position += count
        return taken

    def number(self):
        self.take(-self.position % 4)
        return struct.unpack(self.order + "I", self.take(4))[0]

    def byte(self):
        return self.take(1)[0]

    def string(self):
        most, offset, count = self.number(), self.number(), self.number()
        if offset != 0 or count > most or count == 0:
            raise ValueError("the counts of a string do not fit")
        units = self.take(count * 2).decode("utf-16-be" if self.order == ">" else "utf-16-le")
        if units[-1] != "\0":
            raise ValueError("a string has no end")
        return units[:-1]

    def unique_string(self):
        return self.string() if self.number() != 0 else None

    def data(self, length):
        if self.number() == 0:
            return None
        if self.number() != length:
            raise ValueError("the counts of an array do not fit")
        return self.take(length)

    def result(self):
        self.take(-self.position % 4)
        success = self.byte()
        message = self.unique_string()
        if self.position != len(self.stub):
            raise ValueError("there is more after the end")
        return success, message


def encode(name, fields, big=False):
    writer = Writer(big)
    if name == "DoRpcWithBinary":
        for field in fields[:2]:
            writer.string(field)
        writer.data(bytes.fromhex(fields[2]))
    else:
        for field in fields:
            writer.string(field)
    return writer.stub


def decode(name, stub, big=False):
    """(output, data, success, message); the first two are None where the operation has none."""
    reader = Reader(stub, big)
    output = data = None
    if name != "InvokerTestConnection":
        output = reader.unique_string()
    if name == "DoRpcWithBinary":
        data = reader.data(reader.number())
    return (output, data) + reader.result()
