"""Serves a disk to one machine over a Unix socket, by the protocol of network block devices, and logs what it does."""

import socket
import struct
import threading

OPTION_MAGIC = 0x49484156454F5054
OPTION_REPLY_MAGIC = 0x3E889045565A9
REQUEST_MAGIC = 0x25609513
REPLY_MAGIC = 0x67446698

OPTION_EXPORT_NAME, OPTION_ABORT, OPTION_INFO, OPTION_GO = 1, 2, 6, 7
REPLY_ACK, REPLY_INFO, REPLY_UNSUPPORTED = 1, 3, 2**31 + 1
HAS_FLAGS, SENDS_FLUSH = 1, 4
READ, WRITE, DISCONNECT, FLUSH = 0, 1, 2, 3
INVALID = 22
MOST_BYTES = 64 << 20


class DiskServer:
    """Serves until it is closed. One request is done after the other, so a flush covers all writes before it."""

    def __init__(self, path, disk, log=None):
        self.disk = disk
        self.log = log
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(str(path))
        self.listener.listen(1)
        self.connection = None
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def close(self):
        """Ends the service. A machine that is still there finds its disk broken, so it is ended before."""
        for each in (self.listener, self.connection):
            if each is not None:
                try:
                    each.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass
        self.thread.join()
        self.listener.close()

    def _run(self):
        try:
            self.connection, _ = self.listener.accept()
            with self.connection:
                if self._negotiate():
                    self._serve()
        except (OSError, EOFError):
            pass

    def _receive(self, length):
        data = bytearray(length)
        view = memoryview(data)
        while view:
            count = self.connection.recv_into(view)
            if count == 0:
                raise EOFError
            view = view[count:]
        return bytes(data)

    def _negotiate(self):
        self.connection.sendall(b"NBDMAGIC" + struct.pack(">QH", OPTION_MAGIC, 3))
        self._receive(4)
        while True:
            magic, option, length = struct.unpack(">QII", self._receive(16))
            if magic != OPTION_MAGIC or length > 65536:
                raise EOFError
            self._receive(length)
            if option == OPTION_EXPORT_NAME:
                self.connection.sendall(struct.pack(">QH", len(self.disk), HAS_FLAGS | SENDS_FLUSH))
                return True
            if option == OPTION_ABORT:
                return False
            if option in (OPTION_GO, OPTION_INFO):
                self._answer(option, REPLY_INFO, struct.pack(">HQH", 0, len(self.disk), HAS_FLAGS | SENDS_FLUSH))
                self._answer(option, REPLY_ACK)
                if option == OPTION_GO:
                    return True
            else:
                self._answer(option, REPLY_UNSUPPORTED)

    def _answer(self, option, kind, data=b""):
        self.connection.sendall(struct.pack(">QIII", OPTION_REPLY_MAGIC, option, kind, len(data)) + data)

    def _serve(self):
        while True:
            magic, _, kind, handle, offset, length = struct.unpack(">IHHQQI", self._receive(28))
            if magic != REQUEST_MAGIC or kind == DISCONNECT:
                return
            error, data = 0, b""
            within = length <= MOST_BYTES and offset + length <= len(self.disk)
            if kind == WRITE and within:
                written = self._receive(length)
                self.disk.write(offset, written)
                if self.log is not None:
                    self.log.write(offset, written)
            elif kind == READ and within:
                data = self.disk.read(offset, length)
            elif kind == FLUSH:
                if self.log is not None:
                    self.log.flush()
            elif kind == WRITE:
                return
            else:
                error = INVALID
            self.connection.sendall(struct.pack(">IIQ", REPLY_MAGIC, error, handle) + data)
