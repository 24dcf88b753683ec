# SPDX-License-Identifier: MIT
"""A system bus with a systemd on it, both of which do what a test says.

By default they are a sound bus and a systemd with a stopped service, which it can start.
"""

import socket
import threading

from . import wire

BUS, SYSTEMD, STRANGER = "org.freedesktop.DBus", ":1.1", ":1.66"
MANAGER, MANAGER_INTERFACE = "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager"
UNIT, JOB = MANAGER + "/unit/mdnsd_2eservice", MANAGER + "/job/7"


class Peer:
    """The connection of one client."""

    def __init__(self, connection):
        self._connection = connection

    def send(self, data):
        self._connection.sendall(data)

    def close(self):
        self._connection.shutdown(socket.SHUT_RDWR)

    def read_line(self):
        line = b""
        while not line.endswith(b"\r\n"):
            line += self._read(1)
        return line.lstrip(b"\0").decode().strip()

    def read_call(self):
        start = self._read(wire.FIXED_HEADER)
        return wire.parse_call(start + self._read(wire.length_of(start) - len(start)))

    def _read(self, length):
        data = b""
        while len(data) < length:
            more = self._connection.recv(length - len(data))
            if not more:
                raise ConnectionError("the client has gone")
            data += more
        return data

    def wait_until_gone(self):
        while True:
            self._read(1)

    def answer(self, call, signature="", *values, sender=None):
        fields = {wire.REPLY_SERIAL: call.serial, wire.SENDER: sender or call.destination}
        self.send(wire.message(wire.RETURN, fields, signature, values))

    def refuse(self, call, error, sender=None):
        fields = {wire.REPLY_SERIAL: call.serial, wire.SENDER: sender or call.destination, wire.ERROR_NAME: error}
        self.send(wire.message(wire.ERROR, fields, "s", ["refused by the script"]))

    def signal(self, member, signature, *values, sender=SYSTEMD, path=MANAGER, interface=MANAGER_INTERFACE):
        fields = {wire.PATH: path, wire.INTERFACE: interface, wire.MEMBER: member, wire.SENDER: sender}
        self.send(wire.message(wire.SIGNAL, fields, signature, values))

    def remove_job(self, job=JOB, result="done", unit="mdnsd.service", **origin):
        self.signal("JobRemoved", "uoss", 7, job, unit, result, **origin)


class ScriptedBus:
    """What it does can be changed by its members until a client connects."""

    def __init__(self, path):
        self.address = f"unix:path={path}"
        self.load_state = "loaded"
        self.active_state = "inactive"
        # What becomes of the service as soon as its job is done.
        self.active_state_after_start = "active"
        # Called instead of answering, as script(peer, call), by the method's name or "Get LoadState".
        self.scripts = {}
        # Called instead of the whole conversation, as greeting(peer).
        self.greeting = None
        self.calls = []
        self._path = path
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._connections = []
        self._threads = []

    def __enter__(self):
        self._listener.bind(str(self._path))
        self._listener.listen()
        self._serve_in_background(self._accept)
        return self

    def __exit__(self, *_):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        for connection in self._connections:
            connection.close()
        for thread in self._threads:
            thread.join()

    def methods(self):
        return [call.member for call in self.calls]

    def _serve_in_background(self, function, *arguments):
        thread = threading.Thread(target=function, args=arguments, daemon=True)
        self._threads.append(thread)
        thread.start()

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            # Should a client be gone and a script go on, it must not wait for ever.
            connection.settimeout(30)
            self._connections.append(connection)
            self._serve_in_background(self._serve, Peer(connection))

    def _serve(self, peer):
        try:
            if self.greeting:
                self.greeting(peer)
                return
            self._authenticate(peer)
            while True:
                call = peer.read_call()
                self.calls.append(call)
                name = f"Get {call.arguments[1]}" if call.member == "Get" else call.member
                self.scripts.get(name, self.reply)(peer, call)
        except OSError:
            pass

    @staticmethod
    def _authenticate(peer):
        while (line := peer.read_line()) != "BEGIN":
            if line.startswith("NEGOTIATE"):
                peer.send(b"AGREE_UNIX_FD\r\n")
            elif line == "AUTH EXTERNAL":
                peer.send(b"DATA\r\n")
            else:
                peer.send(b"OK 0123456789abcdef0123456789abcdef\r\n")

    def reply(self, peer, call):
        """Answers as a sound bus and a sound systemd do."""
        if call.member == "Hello":
            peer.answer(call, "s", ":1.2")
        elif call.member == "AddMatch":
            peer.answer(call)
        elif call.member == "GetNameOwner":
            peer.answer(call, "s", SYSTEMD)
        elif call.member == "LoadUnit":
            peer.answer(call, "o", UNIT)
        elif call.member == "Get":
            state = self.load_state if call.arguments[1] == "LoadState" else self.active_state
            peer.answer(call, "v", ("s", state))
        elif call.member == "StartUnit":
            peer.answer(call, "o", JOB)
            self.finish_job(peer)

    def finish_job(self, peer, result="done"):
        self.active_state = self.active_state_after_start
        peer.remove_job(result=result)
