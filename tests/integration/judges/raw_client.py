"""The interface over a bare socket, or over that of a path, without authentication, every PDU made and taken apart here: for callers with the
other order of integers, and for the exact bytes of the peer."""

import socket
import struct
import uuid

import conversation
import stubs

PORT = 6161
NDR = uuid.UUID("8a885d04-1ceb-11c9-9fe8-08002b104860")
REQUEST, RESPONSE, FAULT, BIND, BIND_ACK, BIND_NAK = 0, 2, 3, 11, 12, 13
FIRST, LAST = 1, 2
HEADER = 16
RESPONSE_HEAD = 24


class Connection:
    def __init__(self, options):
        self.big = options.big
        self.order = ">" if options.big else "<"
        self.fragment = options.fragment or 4000
        self.call_id = 0
        if options.host.startswith("/"):
            self.socket = socket.socket(socket.AF_UNIX)
            self.socket.connect(options.host)
        else:
            self.socket = socket.create_connection((options.host, PORT))

    def pack(self, form, *values):
        return struct.pack(self.order + form, *values)

    def identifier(self, value):
        return value.bytes if self.big else value.bytes_le

    def send(self, kind, body, flags=FIRST | LAST):
        representation = bytes([0x00 if self.big else 0x10, 0, 0, 0])
        self.socket.sendall(
            bytes([5, 0, kind, flags])
            + representation
            + self.pack("HHI", HEADER + len(body), 0, self.call_id)
            + body
        )

    def receive_bytes(self, count):
        data = b""
        while len(data) < count:
            more = self.socket.recv(count - len(data))
            if not more:
                raise conversation.Refusal("the connection is closed")
            data += more
        return data

    def receive(self):
        """(type, flags, order of the peer, the PDU)"""
        header = self.receive_bytes(HEADER)
        order = "<" if header[4] & 0xF0 else ">"
        length, _, call_id = struct.unpack(order + "HHI", header[8:])
        if header[:2] != b"\x05\x00" or call_id != self.call_id:
            raise ValueError("not an answer: " + header.hex())
        return header[2], header[3], order, header + self.receive_bytes(length - HEADER)

    def bind(self):
        self.call_id += 1
        context = self.pack("HBx", 0, 1)
        context += self.identifier(uuid.UUID(conversation.INTERFACE)) + self.pack("I", 1)
        context += self.identifier(NDR) + self.pack("I", 2)
        self.send(BIND, self.pack("HHIBxxx", 4280, 4280, 0, 1) + context)
        kind, _, order, pdu = self.receive()
        if kind != BIND_ACK:
            raise conversation.Refusal("a PDU of type %d" % kind)
        most, least, group, length = struct.unpack(order + "HHIH", pdu[16:26])
        results = 26 + length + (-(26 + length)) % 4
        count, result, reason = struct.unpack(order + "BxxxHH", pdu[results : results + 8])
        syntax, version = pdu[results + 8 : results + 24], struct.unpack(order + "I", pdu[results + 24 :])[0]
        agreed = uuid.UUID(bytes_le=syntax) if order == "<" else uuid.UUID(bytes=syntax)
        if (count, result, reason, agreed, version) != (1, 0, 0, NDR, 2) or not most or not least or not group:
            raise ValueError("not what a bind_ack looks like: " + pdu.hex())

    def request(self, opnum, stub):
        """(stub of the response, the order of its integers is big)"""
        self.call_id += 1
        pieces = [stub[i : i + self.fragment] for i in range(0, len(stub), self.fragment)] or [b""]
        for index, piece in enumerate(pieces):
            flags = (FIRST if index == 0 else 0) | (LAST if index == len(pieces) - 1 else 0)
            self.send(REQUEST, self.pack("IHH", len(stub), 0, opnum) + piece, flags)
        answer = b""
        flags = 0
        while not flags & LAST:
            kind, flags, order, pdu = self.receive()
            if kind == FAULT:
                raise conversation.Refusal("fault 0x%x" % struct.unpack(order + "I", pdu[24:28])[0])
            if kind != RESPONSE or bool(flags & FIRST) != (answer == b""):
                raise ValueError("not what a response looks like: " + pdu.hex())
            answer += pdu[RESPONSE_HEAD:]
        return answer, order == ">"


def bind(options):
    connection = Connection(options)
    connection.bind()

    def call(name, fields):
        if name == "Stub":
            opnum, request = int(fields[0]), bytes.fromhex(fields[1])
            name = {number: known for known, number in stubs.OPNUMS.items()}.get(opnum)
        else:
            opnum, request = stubs.OPNUMS[name], stubs.encode(name, fields, options.big)
        stub, big = connection.request(opnum, request)
        return conversation.answer(name, *stubs.decode(name, stub, big), request, stub)

    return call


if __name__ == "__main__":
    conversation.converse(bind, conversation.arguments())
