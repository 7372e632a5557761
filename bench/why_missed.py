"""Why a run has missed a goal, with the run's own figures."""


def costs_of(figures):
    """{(kind, variant, groups): microseconds}, the floor as a variant of its own.

    Two programs have measured, and a machine's speed changes from minute to minute. So each cost counts as a multiple
    of the floor measured beside it, and the first floor is the unit.
    """
    costs = {}
    for figure in figures:
        if figure.topic == "report":
            unit = costs.setdefault((figure.kind, "floor", figure.groups), figure.floor)
            costs[figure.kind, figure.variant, figure.groups] = figure.value / figure.floor * unit
    return costs


def parts_of_a_report(figures):
    """Where the time of a report goes: the floor, the proxy's own work, the log's text, and the kernel taking it."""
    costs = costs_of(figures)
    kinds = dict.fromkeys(kind for kind, _, _ in costs)
    lines = ["| report, other groups | floor | proxy's own work | text of the log | kernel takes it: file | pipe |",
             "| --- | ---: | ---: | ---: | ---: | ---: |"]
    for kind in kinds:
        for groups in (1, 127):
            floor, mute, null, file, pipe = (costs.get((kind, variant, groups), 0)
                                             for variant in ("floor", "no log", "/dev/null", "file", "pipe"))
            lines.append(f"| {kind}, {groups} | {floor:.2f} us | {mute - floor:.2f} | {null - mute:.2f} | "
                         f"{file - null:.2f} | {pipe - null:.2f} |")
    return lines


def report_reasons(missed, figures):
    lines = parts_of_a_report(figures) + [""]
    if any(figure.variant == "no log" for figure in missed):
        lines += ["- Without the log: a report that asks the kernel for nothing (leave, MLDv1 refresh) has a floor of "
                  "one select",
                  "  and one recvmsg, and 15 % of that are some hundred nanoseconds for parsing, finding and changing "
                  "the records."]
    if any(figure.variant != "no log" for figure in missed):
        lines += ["- With the log: what the kernel asks for taking the text (columns on the right, and the next "
                  "table) comes on top of",
                  "  writing it. A report that asks the kernel for little (leave, refresh of a source, MLDv1 refresh) "
                  "has a floor that",
                  "  is less than its own lines cost there."]
    if any(figure.variant.startswith("under tarnwick-run") for figure in missed):
        lines += ["- Under tarnwick-run: the lines of a report are one write, which wakes the reader; both come on top "
                  "of what",
                  "  the row `pipe` takes, where one write is made for every 4 KiB."]
    if any(figure.kind.endswith("any-source group") for figure in missed):
        lines += ["- An any-source group that is created, or dropped and created again, is logged with one line "
                  "for each",
                  "  group that the interface has (`group database = ...`). Those lines are required, so this "
                  "cost grows",
                  "  with the number of groups."]
    return lines


def growth_reasons(missed, figures):
    del missed, figures
    return ["- The rows `floor` show the kernel's own growth: it walks the socket's memberships for every join "
            "and leave.",
            "- Any-source groups with the log: one line for each group of the interface, as above."]


REASONS = {
    "tick": ["- Most of the idle load is the kernel's for waking a process once a second, as its floor shows.",
             "- With empty pools the tick is one allocation and release of a scratch record, which every pass "
    "makes and",
             "  the memory report counts; the walk it is compared with is four records long. It is some ten "
             "nanoseconds",
             "  a second."],
    "zap": ["- The daemon's own part is the few microseconds of the report, between its arrival and the first "
    "datagram. The",
            "  host's own random delay of some 10 ms before its report, and at the 99th percentile the wait for a",
            "  processor on a machine that does other work as well, differ from turn to turn by more than the "
            "goal allows;",
            "  the load average above tells how busy this machine was."],
    "rush": ["- As for single zaps: the host's own delay before its report, and the wait for a processor on a busy "
             "machine."],
    "memory": ["- The pools are allocated at start (128 groups, 128 hosts, 100 queries) and never grow. Compare",
               "  `/proc/PID/smaps`: the heap with the pools is the largest part; the 64 KiB for the NVRAM file "
               "count only",
               "  as far as the file fills them.",
               "- A page that comes after a million reports is the stack's: in four runs all else stayed as it was."],
    "start": ["- The first query goes out with the first tick, one second after the main loop begins; what is "
    "above that",
              "  is the start-up, with a shell for the forwarding switch."],
}


def reasons_for(topic, missed, figures):
    if topic == "report":
        return report_reasons(missed, figures)
    if topic == "growth":
        return growth_reasons(missed, figures)
    return REASONS.get(topic, ["- Not explained yet."])
