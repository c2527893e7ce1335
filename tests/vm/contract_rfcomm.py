#!/usr/bin/python3
"""Runs the cases of RFCOMM sockets on the kernel: PROGRAM DEVICE ABSENT.

Of the two adapters one plays the device, for the other to reach; see run.
"""

import argparse
import pathlib
import subprocess
import sys

from bluez import Bluez
from emulated import silent_controller, slow_controllers

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "contract"))

from daemon_contract import AGENT_PATH, Client, until  # noqa: E402

SECONDS = 800

if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[0])
    parser.add_argument("program")
    slow_controllers()
    device = next(iter(Bluez().ready_adapters(2).values()))["Address"]
    # Connecting pairs the two, and the daemon asks an agent whether they may.
    agent = Client()
    agent.on_agents("RegisterAgent", AGENT_PATH, "NoInputNoOutput")
    agent.on_agents("RequestDefaultAgent", AGENT_PATH)
    with silent_controller() as absent:
        with subprocess.Popen([parser.parse_args().program, device, absent]) as cases:
            until(lambda: cases.poll() is not None, "end of the cases", SECONDS)
    sys.exit(cases.returncode)
