"""Builds of changed sources, and runs of the cases on them."""

import dataclasses
import os
import resource
import shutil
import signal
import subprocess
import threading
import time

from cases import ALL_PROGRAMS
from changes import ROOT, TEXTS

# What CMake is given for each kind of build.
TREES = {
    "plain": ["--preset", "release", "-DCMAKE_C_FLAGS=-O0", "-DCMAKE_CXX_FLAGS=-O0"],
    "asan": ["--preset", "asan"],
    "tsan": ["--preset", "tsan"],
}
COMMON = ["-DCMAKE_BUILD_TYPE=None", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", "-DLUMSO_WERROR=OFF"]
PROCESSES = 3  # at a time, in one tree
CASE_SECONDS = 30  # for one case; the longest takes six
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
        self.deadline = time.monotonic() + CASE_SECONDS

    def stop(self):
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()

    def verdict(self):
        """None while it runs, then 'passed', 'failed' or 'hung'."""
        status = self.process.poll()
        late = time.monotonic() > self.deadline
        if status is None and not late:
            return None
        self.stop()
        return "hung" if status is None else "passed" if status == 0 else "failed"


class Tree:
    """A copy of the checkout with a build of it."""

    def __init__(self, work, name):
        self.name = name
        self.source, self.build = work / "source", work / name
        self.temporary = work / f"{name}.tmp"
        self.programs, self.cases, self.changed = {}, {}, None

    def prepare(self):
        """Builds the unchanged sources."""
        copy_checkout(self.source)
        self.build.mkdir(parents=True, exist_ok=True)
        self.shell(["cmake", *TREES[self.name], "-B", self.build, *COMMON])
        self.shell(["ninja", "-C", self.build, *ALL_PROGRAMS])
        for program in ALL_PROGRAMS:
            (self.programs[program],) = self.build.glob(f"tests/*/{program}")
            self.cases[program] = self.list_cases(program)

    def check(self):
        """Lets every case pass on the unchanged sources."""
        failed = self.run([case for cases in self.cases.values() for case in cases])
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
        """Builds with a change; False when that does not compile."""
        if self.changed not in (None, mutant.file):
            (self.source / self.changed).write_text(TEXTS[self.changed])
        text = TEXTS[mutant.file]
        text = text[: mutant.start] + mutant.text + text[mutant.end :]
        (self.source / mutant.file).write_text(text)
        self.changed = mutant.file
        command = ["ninja", "-C", self.build, *ALL_PROGRAMS]
        return subprocess.run(command, stdout=subprocess.DEVNULL, check=False).returncode == 0

    def run(self, cases):
        """Runs cases until one fails or hangs; returns that, or None."""
        shutil.rmtree(self.temporary, ignore_errors=True)
        self.temporary.mkdir()
        waiting, running = list(cases), []
        try:
            while waiting or running:
                if INTERRUPTED.is_set():
                    raise RuntimeError("interrupted")
                while waiting and len(running) < PROCESSES:
                    running.append(Run(self, waiting.pop(0)))
                time.sleep(0.01)
                for run in list(running):
                    verdict = run.verdict()
                    if verdict is not None:
                        running.remove(run)
                    if verdict == "hung" or verdict == "failed" and self.fails_again(run.case):
                        return run.case
        finally:
            for run in running:
                run.stop()
        return None

    def fails_again(self, case):
        """Tells a change's doing from a case that had no luck on a busy machine."""
        if self.name == "tsan":  # a race has luck, too
            return True
        run = Run(self, case)
        while (verdict := run.verdict()) is None:
            time.sleep(0.01)
        return verdict != "passed"
