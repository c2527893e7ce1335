"""Builds of changed sources, and runs of the cases on them."""

import dataclasses
import os
import re
import resource
import shutil
import signal
import subprocess
import threading
import time

from changes import FILES, ROOT, TEXTS

# What CMake is given for each kind of build.
TREES = {
    "plain": ["--preset", "release", "-DCMAKE_C_FLAGS=-O0", "-DCMAKE_CXX_FLAGS=-O0"],
    "asan": ["--preset", "asan"],
    "tsan": ["--preset", "tsan"],
}
COMMON = ["-DCMAKE_BUILD_TYPE=None", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", "-DLUMSO_WERROR=OFF"]
PROCESSES = 4  # at a time, in one tree
# What a case may take on changed sources: this, and so many times what it took before.
SLACK_SECONDS = 5
SLACK_TIMES = 5
INTERRUPTED = threading.Event()


def copy_checkout(target):
    """Makes `target` a copy; leaves alone what is the same, and what was built of it."""
    listed = subprocess.run(
        ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
        cwd=ROOT,
        check=True,
        capture_output=True,
        text=True,
    ).stdout.split("\0")
    wanted = {name for name in listed if name and (ROOT / name).is_file()}
    for name in wanted:
        new, old = ROOT / name, target / name
        if not old.exists() or old.read_bytes() != new.read_bytes():
            old.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(new, old)
    for path in target.rglob("*"):
        if path.is_file() and str(path.relative_to(target)) not in wanted:
            path.unlink()


def limit_process():
    """Keeps a change that never stops writing from filling the machine."""
    resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 28, 1 << 28))


@dataclasses.dataclass(frozen=True)
class Case:
    program: str
    name: str

    def __str__(self):
        return f"{self.program}/{self.name}"


class Run:
    """One case in a process of its own, as under ctest."""

    def __init__(self, tree, case):
        self.case = case
        self.process = subprocess.Popen(
            [tree.programs[case.program], f"--gtest_filter={case.name}"],
            env=dict(os.environ, G_SLICE="always-malloc", TMPDIR=str(tree.temporary)),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            start_new_session=True,
            preexec_fn=limit_process,
        )
        self.began = time.monotonic()
        self.limit = SLACK_SECONDS + SLACK_TIMES * tree.seconds.get(case, SLACK_SECONDS)

    def stop(self):
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()

    def seconds(self):
        return time.monotonic() - self.began

    def passes(self):
        """None while it runs, then whether it passed in time."""
        status = self.process.poll()
        if status is None and self.seconds() < self.limit:
            return None
        self.stop()
        return status == 0


class Tree:
    """A copy of the checkout with a build of it."""

    def __init__(self, work, name, programs):
        self.name, self.wanted = name, programs
        self.source, self.build = work / "source", work / name
        self.temporary = work / f"{name}.tmp"
        self.programs, self.cases, self.changed = {}, {}, None
        self.seconds = {}  # what each case takes on the unchanged sources

    def prepare(self):
        """Builds the unchanged sources."""
        copy_checkout(self.source)
        self.build.mkdir(parents=True, exist_ok=True)
        self.shell(["cmake", *TREES[self.name], "-B", self.build, *COMMON, *self.precompile()])
        self.shell(["ninja", "-C", self.build, *self.wanted])
        for program in self.wanted:
            (self.programs[program],) = self.build.glob(f"tests/*/{program}")
            self.cases[program] = self.list_cases(program)

    def precompile(self):
        """What lets CMake compile the library's system headers once."""
        headers = set()
        for file in [*FILES, *self.source.glob("src/*.h"), *self.source.glob("include/*/*.h")]:
            text = (self.source / file).read_text()
            headers |= set(re.findall(r"^#include (<.*>)", text, re.M))
        return [
            f"-DCMAKE_PROJECT_INCLUDE={self.source}/tests/mutation/precompile.cmake",
            f"-DLUMSO_MUTATION_HEADERS={';'.join(sorted(headers))}",
        ]

    def check(self):
        """Lets every case pass on the unchanged sources."""
        failed = self.run(
            [case for cases in self.cases.values() for case in cases], self.seconds
        )
        if failed:
            raise RuntimeError(f"the unchanged sources fail {failed} in {self.build}")

    def list_cases(self, program):
        cases, suite = [], ""
        listed = subprocess.run(
            [self.programs[program], "--gtest_list_tests"],
            check=True,
            capture_output=True,
            text=True,
        ).stdout
        for line in listed.splitlines()[1:]:
            name = line.split("#")[0].strip()
            if line.startswith(" "):
                cases.append(Case(program, suite + name))
            else:
                suite = name
        return cases

    def shell(self, command):
        done = subprocess.run(
            command,
            cwd=self.source,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="replace",
            check=False,
        )
        if done.returncode != 0:
            raise RuntimeError(f"{command[0]} failed in {self.build}:\n{done.stdout[-3000:]}")

    def change(self, mutant):
        """Writes the sources with a change."""
        if self.changed not in (None, mutant.file):
            (self.source / self.changed).write_text(TEXTS[self.changed])
        text = TEXTS[mutant.file]
        text = text[: mutant.start] + mutant.text + text[mutant.end :]
        (self.source / mutant.file).write_text(text)
        self.changed = mutant.file

    def compiles(self, programs):
        command = ["ninja", "-C", self.build, *programs]
        return subprocess.run(command, stdout=subprocess.DEVNULL, check=False).returncode == 0

    def run(self, cases, seconds=None):
        """Runs cases until two fail, or one twice: on a busy machine a case may have
        no luck. Returns the last, or None; notes what those that pass take.

        The first case, and one that runs again, run alone: they are likely to settle it.
        """
        shutil.rmtree(self.temporary, ignore_errors=True)
        self.temporary.mkdir()
        waiting, running, failed, alone = list(cases), [], None, True
        try:
            while waiting or running:
                if INTERRUPTED.is_set():
                    raise RuntimeError("interrupted")
                while waiting and len(running) < (1 if alone else PROCESSES):
                    running.append(Run(self, waiting.pop(0)))
                time.sleep(0.01)
                for run in list(running):
                    passes = run.passes()
                    if passes is None:
                        continue
                    running.remove(run)
                    alone = not passes
                    if passes:
                        failed = None if failed == run.case else failed
                        if seconds is not None:
                            seconds[run.case] = run.seconds()
                    elif failed or self.name == "tsan":  # a race has luck, too
                        return run.case
                    else:
                        failed = run.case
                        waiting.insert(0, failed)
        finally:
            for run in running:
                run.stop()
        return None
