#!/usr/bin/python3
"""Plays the remote device: listens on RFCOMM channel 1 of one adapter.

    peer.py ADDRESS [--secret TEXT] [--rssi N]

What it does with a connection is the mode that it is in when that comes:

    echo       every received byte goes back
    silent     it reads, and says nothing
    slow       it reads a little at a time, and says nothing
    still      it neither reads nor says anything
    flood      it sends PATTERN without end
    sink       it tells the hash of every megabyte
    deferring  it neither accepts the connection nor refuses it
    greeting, ready, reply
               it speaks the device's side of the RSSI exchange, up to that word

Lines on standard input:

    mode MODE [END]    the mode of connections from now on; END comes after the
                       last thing that they say
    become MODE [END]  the same for the connections that are open
    END                an end of every open connection:
        close          closes it
        finish         sends 20 kB of PATTERN, then closes
        shut-write, shut-both
                       shuts it down, and keeps the socket
        kill           kills the process; another begins at once
    quit

Each thing that happens is reported as one JSON object per line.
"""

import argparse
import hashlib
import json
import os
import random
import selectors
import signal
import socket
import sys

CHANNEL = 1
# Well under the kernel's limit for one write call (about 22 kB).
WRITE_SIZE = 4096
SINK_SIZE = 1_000_000
SLOW_SIZE = 2048
SLOW_PAUSE = 0.02  # seconds
FINISH_SIZE = 20_000
# It repeats itself at a distance that no buffer has.
PATTERN = random.Random(1).randbytes(8191)
# Of <bluetooth/bluetooth.h>; Python has no names for them.
SOL_BLUETOOTH = 274
BT_DEFER_SETUP = 7

WORDS = ["greeting", "ready", "reply"]
MODES = ["echo", "silent", "slow", "still", "flood", "sink", "deferring", *WORDS]


def report(what, **details):
    print(json.dumps({"peer": what, **details}), flush=True)


def pattern(start, count):
    """What a device sends as its bytes `start` to `start + count`."""
    start %= len(PATTERN)
    return (PATTERN * (count // len(PATTERN) + 2))[start : start + count]


class Connection:
    """One accepted connection."""

    def __init__(self, peer, sock, address):
        self.peer = peer
        self.sock = sock
        self.received = b""
        self.count = 0  # bytes received
        self.heard = []  # lines of the exchange that have no answer yet
        self.words = 0  # of WORDS that were said
        self.outgoing = b""
        self.sent = 0  # bytes that the kernel took
        self.watched = 0  # events that the selector looks for
        self.mode = peer.mode
        sock.setblocking(False)
        report("accepted", mode=self.mode, address=address)

    def become(self, mode, end):
        if self.mode == "deferring" and mode != "deferring":
            self.sock.recv(1)  # accepts it, and reads nothing
        self.mode = mode
        self.end = end
        if mode == "flood":
            self.outgoing = pattern(self.sent, WRITE_SIZE)
        self.send()

    def on_ready(self, events):
        if events & selectors.EVENT_WRITE:
            self.send()
        if events & selectors.EVENT_READ:
            self.receive(WRITE_SIZE)

    def receive(self, size):
        try:
            data = self.sock.recv(size)
        except BlockingIOError:
            return
        except OSError:  # the other side closed: ECONNRESET, not an empty read
            data = b""
        if not data:
            self.close("closed by the other side")
            return
        self.count += len(data)
        if self.mode == "echo":
            self.outgoing += data
        elif self.mode in WORDS:
            *lines, self.received = (self.received + data).split(b"\r\n")
            for line in lines:
                report("heard", line=line.decode(errors="replace"))
            self.heard += lines
        elif self.mode == "sink":
            self.received += data
            if len(self.received) >= SINK_SIZE:
                digest = hashlib.sha256(self.received).hexdigest()
                report("sunk", received=len(self.received), sha256=digest)
                self.received = b""
        self.send()

    def converse(self):
        """Says the words whose turn has come."""
        options = self.peer.options
        exchange = [
            (None, b"auth\r\n"),
            (b"auth=" + options.secret.encode(), b"ready\r\n"),
            (b"rssi", b'{"rssi": %d}\r\n!!END' % options.rssi),
        ]
        while not self.has_said_all():
            request, word = exchange[self.words]
            if request:
                if not self.heard:
                    break
                line = self.heard.pop(0)
                if line != request:
                    report("refused", line=line.decode(errors="replace"))
                    continue
            self.outgoing += word
            self.words += 1

    def has_said_all(self):
        return self.mode not in WORDS or self.words > WORDS.index(self.mode)

    def send(self):
        self.converse()
        try:
            while self.outgoing:
                sent = self.sock.send(self.outgoing[:WRITE_SIZE])
                self.sent += sent
                self.outgoing = self.outgoing[sent:]
        except BlockingIOError:
            pass
        except OSError:
            self.close("closed by the other side")
            return
        if self.end and not self.outgoing and self.has_said_all():
            end, self.end = self.end, None
            ENDS[end](self)
            return
        if self.mode == "flood" and not self.outgoing:
            self.outgoing = pattern(self.sent, WRITE_SIZE)
        reads = self.mode not in ("slow", "still", "deferring")
        self.watch(
            (selectors.EVENT_READ if reads else 0)
            | (selectors.EVENT_WRITE if self.outgoing else 0)
        )

    def watch(self, events):
        selector = self.peer.selector
        if events and self.watched:
            selector.modify(self.sock, events, self.on_ready)
        elif events:
            selector.register(self.sock, events, self.on_ready)
        elif self.watched:
            selector.unregister(self.sock)
        self.watched = events

    def finish(self):
        self.outgoing += pattern(self.sent + len(self.outgoing), FINISH_SIZE)
        self.end = "close"
        self.send()

    def shut(self, how):
        self.sock.shutdown(how)
        self.mode = "still"
        self.outgoing = b""
        self.watch(0)
        report("shut", received=self.count, sent=self.sent)

    def close(self, what="closed"):
        if self not in self.peer.connections:
            return
        self.peer.connections.remove(self)
        self.watch(0)
        self.sock.close()
        report(what, mode=self.mode, received=self.count, sent=self.sent)


ENDS = {
    "close": Connection.close,
    "finish": Connection.finish,
    "shut-write": lambda connection: connection.shut(socket.SHUT_WR),
    "shut-both": lambda connection: connection.shut(socket.SHUT_RDWR),
    "kill": lambda _connection: os.kill(os.getpid(), signal.SIGKILL),
}


class Peer:
    def __init__(self, options):
        self.options = options
        self.mode = "echo"
        self.end = None
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
        report("listening", address=options.address, channel=CHANNEL)

    def accept(self, _events):
        sock, address = self.listener.accept()
        connection = Connection(self, sock, address[0])
        self.connections.append(connection)
        connection.become(self.mode, self.end)

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
        name, mode, end, *_ = [*words, None, None, None]
        known = mode in MODES and end in (None, *ENDS)
        if name == "quit":
            raise SystemExit(0)
        if name in ENDS:
            for connection in list(self.connections):
                ENDS[name](connection)
        elif name == "become" and known:
            for connection in list(self.connections):
                connection.become(mode, end)
        elif name == "mode" and known:
            self.mode = mode
            self.end = end
            deferring = int(mode == "deferring")
            self.listener.setsockopt(SOL_BLUETOOTH, BT_DEFER_SETUP, deferring)
        else:
            report("unknown command", words=words)
            return
        report("done", words=words)

    def run(self):
        while True:
            slow = [item for item in self.connections if item.mode == "slow"]
            for key, events in self.selector.select(SLOW_PAUSE if slow else None):
                # An earlier handler of this round may have closed it.
                if key.fileobj in self.selector.get_map():
                    key.data(events)
            for connection in slow:
                connection.receive(SLOW_SIZE)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("address")
    parser.add_argument("--secret", default="secret")
    parser.add_argument("--rssi", type=int, default=-57)
    arguments = parser.parse_args()
    while os.fork():
        _, status = os.wait()
        if os.WIFEXITED(status):
            sys.exit(os.WEXITSTATUS(status))
    Peer(arguments).run()
