#!/usr/bin/python3
"""Runs the cases of RFCOMM sockets on the kernel: PROGRAM DEVICE ABSENT.

Of the two adapters one plays the device, for the other to reach; see run.
"""

import argparse
import subprocess
import sys

from bluez import Bluez
from emulated import slow_controllers
from trouble import ABSENT

if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[0])
    parser.add_argument("program")
    slow_controllers()
    device = next(iter(Bluez().ready_adapters(2).values()))["Address"]
    command = [parser.parse_args().program, device, ABSENT]
    sys.exit(subprocess.run(command, check=False).returncode)
