"""The list with bleak: from the start of a scanner until it is running."""

import asyncio
import json
import time

from bleak import BleakScanner


async def main():
    scanner = BleakScanner()
    start = time.monotonic_ns()
    await scanner.start()
    wall = time.monotonic_ns() - start
    print(json.dumps({"subject": "bleak", "metric": "wall", "value": wall}))
    await scanner.stop()


asyncio.run(main())
