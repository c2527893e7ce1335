#!/usr/bin/python3
"""Plays the remote device: listens on RFCOMM channel 1 of one adapter.

    peer.py ADDRESS [--mode echo|sideband|sink|silent] [--secret TEXT] [--rssi N]

In mode "echo" every received byte goes back; in mode "sideband" it speaks the
device's side of the RSSI exchange; in mode "sink" it tells the hash of the first
megabyte; in mode "silent" it accepts and says nothing. The mode counts for
connections accepted from then on. Lines on standard input: "mode NAME", "close"
(closes every open connection), "quit".
Each thing that happens is reported as one JSON object per line.
"""

import argparse
import hashlib
import json
import os
import selectors
import socket
import sys

CHANNEL = 1
# Well under the kernel's limit for one write call (about 22 kB).
WRITE_SIZE = 4096
SINK_SIZE = 1_000_000


def report(what, **details):
    print(json.dumps({"peer": what, **details}), flush=True)


class Connection:
    """One accepted connection; `mode` is what the peer was in when it came."""

    def __init__(self, peer, sock, address):
        self.peer = peer
        self.sock = sock
        self.mode = peer.options.mode
        self.received = b""
        self.count = 0
        self.outgoing = b""
        sock.setblocking(False)
        peer.selector.register(sock, selectors.EVENT_READ, self.on_ready)
        report("accepted", mode=self.mode, address=address)
        if self.mode == "sideband":
            self.send(b"auth\r\n")

    def on_ready(self, events):
        if events & selectors.EVENT_WRITE:
            self.send(b"")
        if events & selectors.EVENT_READ:
            self.receive()

    def receive(self):
        try:
            data = self.sock.recv(WRITE_SIZE)
        except BlockingIOError:
            return
        except OSError:  # the other side closed: ECONNRESET, not an empty read
            data = b""
        if not data:
            self.close("closed by the other side")
            return
        self.count += len(data)
        if self.mode == "echo":
            self.send(data)
        elif self.mode == "sideband":
            self.received += data
            self.answer()
        elif self.mode == "sink":
            self.received += data
            if len(self.received) >= SINK_SIZE:
                digest = hashlib.sha256(self.received).hexdigest()
                report("sunk", received=len(self.received), sha256=digest)
                self.received = b""

    def answer(self):
        while b"\r\n" in self.received:
            line, self.received = self.received.split(b"\r\n", 1)
            if line == b"auth=" + self.peer.options.secret.encode():
                self.send(b"ready\r\n")
            elif line == b"rssi":
                self.send(b'{"rssi": %d}\r\n!!END' % self.peer.options.rssi)
            else:
                report("refused", line=line.decode(errors="replace"))

    def send(self, data):
        self.outgoing += data
        try:
            while self.outgoing:
                sent = self.sock.send(self.outgoing[:WRITE_SIZE])
                self.outgoing = self.outgoing[sent:]
        except BlockingIOError:
            pass
        except OSError:
            self.close("closed by the other side")
            return
        wanted = selectors.EVENT_READ | (selectors.EVENT_WRITE if self.outgoing else 0)
        self.peer.selector.modify(self.sock, wanted, self.on_ready)
        if self.mode == "sideband" and not self.outgoing and data.endswith(b"!!END"):
            self.close("closed")

    def close(self, what):
        if self in self.peer.connections:
            self.peer.connections.remove(self)
        self.peer.selector.unregister(self.sock)
        self.sock.close()
        report(what, mode=self.mode, received=self.count)


class Peer:
    def __init__(self, options):
        self.options = options
        self.connections = []
        self.input = b""
        self.selector = selectors.DefaultSelector()
        self.listener = socket.socket(
            socket.AF_BLUETOOTH, socket.SOCK_STREAM, socket.BTPROTO_RFCOMM
        )
        self.listener.bind((options.address, CHANNEL))
        self.listener.listen(4)
        self.selector.register(self.listener, selectors.EVENT_READ, self.accept)
        self.selector.register(sys.stdin, selectors.EVENT_READ, self.command)
        report("listening", address=options.address, channel=CHANNEL, mode=options.mode)

    def accept(self, _events):
        sock, address = self.listener.accept()
        self.connections.append(Connection(self, sock, address[0]))

    # Reads the descriptor itself: lines left in a buffered reader would not
    # wake the selector.
    def command(self, _events):
        data = os.read(sys.stdin.fileno(), 4096)
        if not data:
            raise SystemExit(0)
        *lines, self.input = (self.input + data).split(b"\n")
        for line in lines:
            self.obey(line.decode().split())

    def obey(self, words):
        if words == ["quit"]:
            raise SystemExit(0)
        if words == ["close"]:
            for connection in list(self.connections):
                connection.close("closed")
        elif len(words) == 2 and words[0] == "mode" and words[1] in MODES:
            self.options.mode = words[1]
            report("mode", mode=words[1])
        else:
            report("unknown command", words=words)

    def run(self):
        while True:
            for key, events in self.selector.select():
                # An earlier handler of this round may have closed it.
                if key.fileobj in self.selector.get_map():
                    key.data(events)


MODES = ["echo", "sideband", "sink", "silent"]

if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("address")
    parser.add_argument("--mode", choices=MODES, default="echo")
    parser.add_argument("--secret", default="secret")
    parser.add_argument("--rssi", type=int, default=-57)
    Peer(parser.parse_args()).run()
