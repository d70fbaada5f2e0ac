"""Clients that take their replies, or send their calls, a few bytes at a time."""
import os
import socket
import struct
import threading
import time

MOUNT, NFS = (100005, 1058), (100003, 2049)
LOOKUP, READ, WRITE = 3, 6, 7
BLOCK = 65536
CALLS = 100  # 6.25 MiB of replies that a reader asks for at once, or of data that a writer owes.
STEP = 0.02


def opaque(data):
    return struct.pack(">I", len(data)) + data + bytes(-len(data) % 4)


def record(program, procedure, args):
    body = struct.pack(">10I", 1, 0, 2, program[0], 3, procedure, 0, 0, 0, 0) + args
    return struct.pack(">I", len(body) | 1 << 31) + body


class Peer:
    """A connection to one program of the server."""

    def __init__(self, program):
        self.program = program
        self.socket = socket.create_connection(("127.0.0.1", program[1]))

    def handle(self, procedure, args):
        """Calls a procedure whose result begins with a status and a handle."""
        self.socket.sendall(record(self.program, procedure, args))
        length = struct.unpack(">I", self.take(4))[0] & 0x7fffffff
        result = self.take(length)[24:]
        status, size = struct.unpack(">II", result[:8])
        if status:
            raise OSError(f"status {status}")
        return result[8:8 + size]

    def take(self, count):
        data = b""
        while len(data) < count:
            more = self.socket.recv(count - len(data))
            if not more:
                raise OSError("The server closed the connection.")
            data += more
        return data


def lookup(folder, name):
    return Peer(NFS).handle(LOOKUP, opaque(folder) + opaque(name.encode()))


class SlowPeers:
    """So many readers of one file of a folder and as many writers of another, from entry to exit."""

    def __init__(self, count, export, folder, read, written):
        self.stopping = threading.Event()
        folder = lookup(Peer(MOUNT).handle(1, opaque(export.encode())), folder)
        read = record(NFS, READ, opaque(lookup(folder, read)) + struct.pack(">QI", 0, BLOCK))
        self.write = record(NFS, WRITE, opaque(lookup(folder, written)) + struct.pack(">QII", 0, BLOCK, 2)
                            + opaque(os.urandom(BLOCK)))
        self.readers = [Peer(NFS).socket for _ in range(count)]
        self.writers = [Peer(NFS).socket for _ in range(count)]
        for reader in self.readers:
            reader.sendall(read * CALLS)
        self.moved = 0
        self.thread = threading.Thread(target=self.work)

    def work(self):
        sent = 0
        while not self.stopping.wait(STEP):
            for reader in self.readers:
                self.moved += len(reader.recv(1024))
            for writer in self.writers:
                self.moved += writer.send(self.write[sent:sent + 1024])
            sent = sent + 1024 if sent + 1024 < len(self.write) else 0

    def __enter__(self):
        self.thread.start()
        time.sleep(0.5)
        return self

    def __exit__(self, *_):
        self.stopping.set()
        self.thread.join()
        for peer in self.readers + self.writers:
            peer.close()
