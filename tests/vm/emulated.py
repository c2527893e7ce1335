"""What the scenarios do to the emulated stack of the virtual machine (see run)."""

import contextlib
import os
import pathlib
import signal
import socket
import subprocess
import time

from programs import show
from story import Story, check, same

LOG = "lumso_bluetooth: "
TRY_PAUSE = 0.02  # seconds between two tries to connect
LOOK_PAUSE = 0.05  # seconds between two looks at a condition
# The kernel's lists of L2CAP channels and of RFCOMM sockets.
L2CAP_CHANNELS = pathlib.Path("/sys/kernel/debug/bluetooth/l2cap")
RFCOMM_SOCKETS = pathlib.Path("/sys/kernel/debug/bluetooth/rfcomm")
RFCOMM_PSM = "3"
BLUETOOTHD = "/usr/libexec/bluetooth/bluetoothd"
# The socket where the emulator takes the host of a new controller, and what that
# asks for: a packet's kind, the command and the length of its parameters.
EMULATOR = "/tmp/bt-server-bredr"
READ_ADDRESS = bytes([0x01, 0x09, 0x10, 0x00])
DAEMON_LOG = "/run/lumso-vm/bluetoothd-again.log"


def slow_controllers():
    """Lets the emulator run only when nothing else wants to.

    It answers in less time than any radio, often before connect() has begun
    to wait: of a failure the kernel then learns only 30 s later.
    """
    emulator = int(os.environ["BTVIRT_PID"])
    os.sched_setscheduler(emulator, os.SCHED_IDLE, os.sched_param(0))


@contextlib.contextmanager
def silent_controller():
    """Makes a controller that answers nobody, and gives its address.

    Of an address that no controller has, an emulator from 5.82 on never tells
    that it is out of reach.
    """
    with socket.socket(socket.AF_UNIX) as link:
        link.connect(EMULATOR)
        link.sendall(READ_ADDRESS)
        answer = link.recv(64)
        yield ":".join(f"{byte:02X}" for byte in answer[:-7:-1])


class Emulated(Story):
    """A scenario that has both sides in its hand: the device, the daemon and
    the controllers."""

    def __init__(self, options):
        options.here = None
        super().__init__(options)
        self.figures = []
        self.opened = 0
        self.own_adapter = None
        self.daemon = int(os.environ["BLUETOOTHD_PID"])
        self.stopped = False

    # Measuring.

    @contextlib.contextmanager
    def measured(self, text, limit):
        """Notes how long the block took, which must be `limit` seconds at most."""
        began = time.monotonic()
        yield
        self.figure(text, time.monotonic() - began, limit)

    def figure(self, text, seconds, limit):
        shown = f"{seconds * 1000:.0f} ms" if seconds < 1 else f"{seconds:.1f} s"
        show(f"  = {text}: {shown}")
        check(seconds <= limit, f"{text} took {shown}, not at most {limit} s")
        self.figures.append((text, shown))

    # Looking.

    def wait_until(self, condition, seconds, what):
        deadline = time.monotonic() + seconds
        while not condition():
            check(time.monotonic() < deadline, f"no {what} within {seconds} s")
            time.sleep(LOOK_PAUSE)

    def log_line(self, since, *texts):
        """Waits for one of the plug-in's lines on standard error."""
        self.host.wait(
            lambda: any(LOG + text in self.host.errors[since:] for text in texts),
            5,
            f"line '{LOG}{texts[0]}'",
        )

    def has_session(self):
        """Whether the kernel still has RFCOMM running between the two adapters."""
        for line in L2CAP_CHANNELS.read_text().lower().splitlines():
            _source, _, destination, _, _state, psm, *_ = line.split()
            if destination == self.device.lower() and psm == RFCOMM_PSM:
                return True
        return False

    def socket_state(self):
        """The state of the socket to the device, by the kernel's list; None when
        there is none."""
        for line in RFCOMM_SOCKETS.read_text().lower().splitlines():
            _source, destination, state, _channel = line.split()
            if destination == self.device.lower():
                return state
        return None

    def is_asleep_in(self, *functions):
        """Whether the host's main thread sleeps in one of these functions of the kernel."""
        asleep_in = pathlib.Path(f"/proc/{self.host.process.pid}/wchan").read_text()
        return asleep_in.startswith(functions)

    def knows_device(self):
        return any(
            item["address"] == self.device for item in self.host.call("getDiscoveredDevices")
        )

    # The connection.

    def open(self):
        connection = self.connect(self.opened + 1)
        self.opened = connection
        return connection

    def shut(self, connection):
        self.expect("disconnect", True, {"id": connection})

    def reopen(self, seconds):
        """Connects as soon as that works; returns the id and the failed tries."""
        line = f'call connect {{"address": "{self.device}"}}'
        deadline = time.monotonic() + seconds
        tries = 0
        while True:
            before = len(self.host.lines)
            self.host.tell(line)
            answer = self.host.answer(before, 60, "answer to connect")
            if "result" in answer:
                break
            tries += 1
            check(time.monotonic() < deadline, f"no connection within {seconds} s")
            time.sleep(TRY_PAUSE)
        self.opened += 1
        connection = answer["result"]
        check(same(connection, self.opened), f"the id is {connection!r}")
        self.host.listen(f"lumso_bluetooth/read/{connection}")
        return connection, tries

    def end_of(self, connection, since, seconds):
        self.host.end_of_stream(f"lumso_bluetooth/read/{connection}", seconds, since)

    # The stack.

    def vanish(self):
        show("  ~ the controllers are stopped")
        os.kill(int(os.environ["BTVIRT_PID"]), signal.SIGSTOP)
        self.stopped = True

    def come_back(self):
        show("  ~ the controllers go on")
        os.kill(int(os.environ["BTVIRT_PID"]), signal.SIGCONT)
        self.stopped = False

    def drop_link(self):
        """Ends the link, and with it what may be closing on it: the next connect
        begins from nothing."""
        adapter = pathlib.Path(self.own_adapter).name
        command = ["hcitool", "-i", adapter, "dc", self.device]
        subprocess.run(command, capture_output=True, check=False)  # fails without a link
        self.wait_for_end()

    def wait_for_end(self):
        """Waits until nothing of the last connection is left but the link."""
        self.wait_until(lambda: not self.has_session(), 30, "end of the last session")
        self.wait_until(lambda: self.socket_state() is None, 30, "end of the last socket")

    def kill_daemon(self):
        show("  ~ the daemon is killed")
        os.kill(self.daemon, signal.SIGKILL)
        self.wait_until(lambda: not self.bluez.adapters(), 10, "end of the daemon")

    def start_daemon(self):
        show("  ~ the daemon is started again")
        with open(DAEMON_LOG, "ab") as log:
            self.daemon = subprocess.Popen([BLUETOOTHD, "-n"], stdout=log, stderr=log).pid

    def start_peer(self):
        super().start_peer()
        self.own_adapter = next(
            path
            for path, item in self.bluez.adapters().items()
            if item["Address"] == self.own_address
        )

    def start_bonded(self):
        """A connect alone makes a bond that the next change of power, or another
        link, breaks; this one lasts."""
        self.start()
        self.discover()
        self.bond()
        self.stop_discovery()

    def close(self):
        if self.stopped:
            self.come_back()
        super().close()
