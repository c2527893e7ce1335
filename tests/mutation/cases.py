"""Which builds and which cases meet a change, and in which order."""

import collections
import re
import threading


def bus(*concerns):
    return [f"bus_{concern}_test" for concern in concerns]


BUS = bus("methods", "lifecycle", "events", "discovery", "bonding", "agent", "call_faults")
RFCOMM = ["rfcomm_connection_test", "rfcomm_faults_test"]
STREAMS = bus("connection_methods", "read_channel")
INSIDE = bus("inside_send")
PROBER = bus("prober_events", "prober_session", "prober_schedule", "prober_faults")
# The programs that drive each source, by the headings in it, those most likely to
# notice first; None: under every other heading.
PROGRAMS = {
    "src/rfcomm_connection.cc": {None: RFCOMM + STREAMS},
    "src/bluez_client.cc": {None: ["bluez_client_test"] + BUS + PROBER[:1] + INSIDE},
    "src/lumso_bluetooth_plugin.cc": {
        "Event streams": BUS + INSIDE,
        "Side-band session": PROBER[1:] + PROBER[:1],
        "Side-band events": PROBER + BUS[1:2],
        "Prober": PROBER + BUS[1:2] + BUS[:1],
        "Connections": STREAMS + BUS[1:2] + INSIDE,
        "Method calls": BUS + STREAMS + PROBER[2:],
        "Adapter, devices and bonds": BUS,
        "Dispatch": BUS + STREAMS + PROBER[2:],
        None: BUS + STREAMS + PROBER,
    },
}
# What may leak or read too far, which the address sanitizer tells.
MEMORY = re.compile(
    r"unref|ref\(|free|clear|delete|reset\(|release|unsubscribe|unregister|new\b"
    r"|memset|min|strlen|size|count|append|strdup|poll"
)
# What has to do with threads.
THREADS = re.compile(r"mutex|lock_guard|\.load\(|\.store\(|exchange|join|std::thread|running_")


def may_show(mutant, tree):
    """Tells whether a kind of build may show it when no earlier one has."""
    if tree == "plain":
        return not mutant.is_lock()
    text = mutant.change + mutant.line_text
    return bool((MEMORY if tree == "asan" else THREADS).search(text))


def programs_of(mutant):
    """The programs that may notice it, those most likely to do so first."""
    headings = PROGRAMS[mutant.file]
    programs = headings.get(mutant.heading, headings[None])
    if mutant.is_lock():  # it is the prober that others share data with
        programs = PROBER[2:] + [name for name in programs if name not in PROBER[2:]]
    return programs


class Order:
    """What to run, and what first: the cases that killed in the same function."""

    def __init__(self):
        self.killers = collections.defaultdict(dict)
        self.lock = threading.Lock()

    def stages(self, mutant, tree):
        """Returns lists of cases: one program's first, so that the others need not be
        built for what it notices."""
        programs = programs_of(mutant)
        with self.lock:
            killers = list(self.killers[mutant.file, mutant.function])[::-1]
        first = killers[0].program if killers else programs[0]
        cases = killers + [
            case for program in programs for case in tree.cases[program] if case not in killers
        ]
        return [
            [case for case in cases if case.program == first],
            [case for case in cases if case.program != first],
        ]

    def note(self, mutant, killer):
        with self.lock:
            killers = self.killers[mutant.file, mutant.function]
            killers.pop(killer, None)
            killers[killer] = True
