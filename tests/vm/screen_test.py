#!/usr/bin/python3
"""What the scenarios show of the lines that a program writes. Needs no virtual
machine."""

import io
import json
import pathlib
import shlex
import tempfile
import unittest

import programs

READ = "lumso_bluetooth/read/1"


class ScreenTest(unittest.TestCase):
    def setUp(self):
        self.shown = io.StringIO()
        self.screen = programs.SCREEN
        self.screen.out, before = self.shown, self.screen.out
        self.addCleanup(setattr, self.screen, "out", before)

    def host_that_writes(self, *items, redirection=""):
        """Runs a program that writes these as lumso_host would, to its end."""
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        program = pathlib.Path(folder.name) / "host"
        lines = [item if isinstance(item, str) else json.dumps(item) for item in items]
        output = shlex.quote("\n".join(lines))
        program.write_text(f"#!/bin/sh\nprintf '%s\\n' {output} {redirection}\n")
        program.chmod(0o755)
        host = programs.Host(str(program))
        self.addCleanup(host.process.stdout.close)
        self.addCleanup(host.process.stderr.close)
        self.assertEqual(host.end(), 0)
        programs.show("== the next step")
        return host

    def lines(self):
        return self.shown.getvalue().splitlines()

    @staticmethod
    def chunk(data, channel=READ):
        return {"channel": channel, "event": {"uint8": data.hex()}}

    def test_shows_the_first_chunk_of_many_and_what_the_rest_come_to(self):
        sent = [bytes([number]) * 1016 for number in range(97)]
        host = self.host_that_writes(*map(self.chunk, sent))
        first, rest, step = self.lines()
        self.assertIn("1016 bytes", first)
        self.assertEqual(rest, "    … 96 more chunks, 97,536 bytes")
        self.assertEqual(step, "== the next step")
        self.assertEqual(host.received(READ, 0), b"".join(sent))

    def test_counts_anew_after_any_other_line(self):
        other = {"channel": "lumso_bluetooth/state", "event": 12}
        host = self.host_that_writes(
            self.chunk(b"aa"), self.chunk(b"bb"), other, self.chunk(b"cc"), self.chunk(b"dd")
        )
        self.assertEqual(len(self.lines()), 6)
        self.assertEqual(self.lines()[1], "    … 1 more chunk, 2 bytes")
        self.assertIn("lumso_bluetooth/state", self.lines()[2])
        self.assertEqual(self.lines()[4], "    … 1 more chunk, 2 bytes")
        self.assertEqual(host.received(READ, 0), b"aabbccdd")

    def test_counts_each_channel_for_itself(self):
        self.host_that_writes(self.chunk(b"a"), self.chunk(b"b", "lumso_bluetooth/read/2"))
        self.assertEqual(len(self.lines()), 3)
        self.assertNotIn("more", self.shown.getvalue())

    def test_shows_every_line_that_stands_for_no_bytes(self):
        states = [{"channel": "lumso_bluetooth/state", "event": 12}] * 3
        self.host_that_writes(*states, {"channel": READ, "endOfStream": True}, "no JSON")
        self.assertEqual(len(self.lines()), 6)

    def test_shows_every_line_of_standard_error(self):
        host = self.host_that_writes("trouble", "more of it", redirection=">&2")
        self.assertEqual(self.lines(), ["  ! trouble", "  ! more of it", "== the next step"])
        self.assertEqual(host.errors, ["trouble", "more of it"])


if __name__ == "__main__":
    unittest.main()
