#!/usr/bin/python3
"""Lays the figures of a run out: one table on the screen; with --write also docs/performance.md and its plot."""

import collections
import datetime
import json
import pathlib
import platform
import subprocess
import sys

from group_plot import write_plot
from why_missed import reasons_for

PROJECT = pathlib.Path(__file__).resolve().parent.parent
TABLE_GROUPS = {1, 64, 127}

Figure = collections.namedtuple("Figure", "topic kind variant groups unit value floor judged limit")

TOPICS = {
    "report": "Cost of a report, with so many other groups (select, receive and all that follows)",
    "growth": "Cost of a report with 127 other groups (value) beside that with 1 (floor)",
    "write": "What the kernel asks for taking 4 KiB of log, some 45 lines",
    "log": "The log line",
    "tick": "The tick",
    "zap": "Zap",
    "rush": "Channel changes: 14 a second, 20 viewers, so that every tick sends queries for those who left",
    "bursts": "Bursts: reports that survive while queries go out",
    "size": "Size of the router's build, stripped",
    "memory": "Memory of the router's build (floor: an empty C program)",
    "start": "Start",
}


def read_figures(folder):
    figures, notes = [], collections.defaultdict(list)
    for line in (folder / "figures").read_text(encoding="utf-8").splitlines():
        kind, _, rest = line.partition("|")
        if kind == "note":
            topic, _, text = rest.partition("|")
            notes[topic].append(text)
        elif kind == "figure":
            topic, kind, variant, groups, unit, value, floor, judged, limit = rest.split("|")
            figures.append(Figure(topic, kind, variant, int(groups), unit, float(value), float(floor), judged,
                                  float(limit)))
    return figures, notes


def read_library_medians(path):
    if not path.exists():
        return {}
    runs = json.loads(path.read_text(encoding="utf-8"))["benchmarks"]
    return {run["run_name"]: run for run in runs if run.get("aggregate_name") == "median"}


def log_figures(folder):
    medians = read_library_medians(folder / "log.json")
    if not medians:
        return []
    nanoseconds = {name: run["cpu_time"] for name, run in medians.items()}
    by_printf = nanoseconds["line_by_printf"]
    return [
        Figure("log", "line with one address (floor: one printf)", "", 0, "ns", nanoseconds["line_with_address"],
               by_printf, "value", 150),
        Figure("log", "line without argument", "", 0, "ns", nanoseconds["plain_line"], 0, "nothing", 0),
        Figure("log", "allocations by lines with an address", "", 0, "", medians["line_with_address"]["allocations"],
               0, "value", 0)]


def tick_figures(folder):
    medians = read_library_medians(folder / "tick.json")
    if not medians:
        return []
    names = {"0": "empty pools, 4 interfaces", "128": "128 groups of 10 sources, 4 interfaces"}
    return [Figure("tick", f"{text} (floor: a bare walk)", "", 0, "ns", medians[f"tick/{size}"]["cpu_time"],
                   medians[f"walk/{size}"]["cpu_time"], "ratio", 3) for size, text in names.items()]


def size_figures(folder):
    if not (folder / "by-file.mipsel").exists():
        return []
    limits = {("tarnwick", "mipsel"): ("value", 60), ("tarnwick", "x86-64"): ("nothing", 0),
              ("tarnwick-assist", "mipsel"): ("value", 40), ("tarnwick-assist", "x86-64"): ("nothing", 0)}
    limits |= {(program, "static"): ("nothing", 0)
               for program in ("tarnwick", "tarnwick-assist", "tarnwick-run", "tarnwick-status")}
    return [Figure("size", "file" if program == "tarnwick" else f"file of {program}", machine, 0, "KiB",
                   (folder / f"{program}.{machine}").stat().st_size / 1024, 0, judged, limit)
            for (program, machine), (judged, limit) in limits.items()]


def sizes_by_file(folder):
    """Text, data and zeroed bytes of each object, as compiled file by file."""
    sizes = collections.defaultdict(dict)
    for machine in ("x86-64", "mipsel"):
        path = folder / f"by-file.{machine}"
        if path.exists():
            for line in path.read_text(encoding="utf-8").splitlines()[1:]:
                text, data, bss, *_, name = line.replace("(ex", "").split("\t")
                sizes[name.strip().split(" ")[0].removesuffix(".o")][machine] = (int(text), int(data), int(bss))
    return sizes


def is_shown(figure):
    return figure.topic != "report" or figure.groups in TABLE_GROUPS


def name_of(figure):
    return ", ".join(str(part) for part in (figure.kind, figure.variant, figure.groups) if part)


def number(value):
    return f"{value:.0f}" if value == int(value) or abs(value) >= 1000 else f"{value:.3g}"


def ratio_of(figure):
    return figure.value / figure.floor if figure.floor else None


def goal_of(figure):
    if figure.judged == "ratio":
        return f"at most {number(figure.limit)} times"
    return f"at most {number(figure.limit)} {figure.unit}".rstrip() if figure.judged == "value" else ""


def verdict(figure):
    if figure.judged == "nothing":
        return ""
    reached = ratio_of(figure) if figure.judged == "ratio" else figure.value
    return "met" if reached <= figure.limit else "MISSED"


def cells(figure):
    ratio = ratio_of(figure)
    return [name_of(figure), f"{number(figure.value)} {figure.unit}".rstrip(),
            number(figure.floor) if figure.floor else "", f"{ratio:.2f}" if ratio else "", goal_of(figure),
            verdict(figure)]


HEADINGS = ["figure", "value", "floor", "ratio", "goal", "met"]


def print_table(figures):
    rows = [(None, HEADINGS)]
    for topic, title in TOPICS.items():
        shown = [figure for figure in figures if figure.topic == topic and is_shown(figure)]
        rows += [(title, None)] * bool(shown) + [(None, cells(figure)) for figure in shown]
    widths = [max(len(row[i]) for _, row in rows if row) for i in range(len(HEADINGS))]
    for title, row in rows:
        print(f"\n{title}" if title else "  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())
    judged = [verdict(figure) for figure in figures if is_shown(figure) and figure.judged != "nothing"]
    print(f"\n{judged.count('met')} of {len(judged)} goals met")


def markdown_row(row):
    return "| " + " | ".join(row) + " |"


def machine_text():
    model = next((line.split(":", 1)[1].strip() for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
                  if line.startswith(("model name", "cpu model", "Processor"))), platform.machine())
    cores = subprocess.run(["nproc"], capture_output=True, text=True, check=True).stdout.strip()
    load = pathlib.Path("/proc/loadavg").read_text().split()[0]
    return f"{model}, {cores} cores, Linux {platform.release()}, load average {load} at the end of the run"


def in_short(figures):
    """What a reader in a hurry wants to know."""
    def find(topic, kind, variant, groups=0):
        return next(figure for figure in figures
                    if (figure.topic, figure.kind, figure.variant, figure.groups) == (topic, kind, variant, groups))

    report = find("report", "refresh of source", "no log", 127)
    logged = find("report", "refresh of source", "file", 127)
    log_us = logged.value / logged.floor * report.floor - report.value  # of another program: see costs_of
    zap = next(figure for figure in figures
               if (figure.topic, figure.variant, figure.judged) == ("zap", "median", "ratio"))
    idle = next(figure for figure in figures if figure.kind == "idle load")
    judged = [verdict(figure) for figure in figures if is_shown(figure) and verdict(figure)]
    return [f"In short: a refresh of a source asks the kernel for {number(report.floor)} us; the proxy adds "
            f"{number(report.value - report.floor)} us,",
            f"its log, to a file, {number(log_us)} us. A zap takes {number(zap.value)} ms, "
            f"{number(zap.floor)} ms with the least that could do it. The idle",
            f"daemon takes {number(idle.value)} % of a core. {judged.count('met')} of {len(judged)} goals are met.", ""]


def markdown(figures, notes, folder):
    lines = ["# Performance", "",
             "Written by `bench/run`; do not edit. Every ratio compares the daemon with a floor that makes only the",
             "kernel requests that the job needs, measured side by side in the same run. The daemon is built like "
             "the preset",
             "`release`; size and memory are those of the preset `router`.", ""] + in_short(figures) + [
             f"- Machine: {machine_text()}", f"- Date: {datetime.date.today().isoformat()}", ""]
    for topic, title in TOPICS.items():
        shown = [figure for figure in figures if figure.topic == topic and is_shown(figure)]
        if not shown:
            continue
        lines += [f"## {title}", "", markdown_row(HEADINGS), markdown_row(["---"] * len(HEADINGS))]
        lines += [markdown_row(cells(figure)) for figure in shown] + [""]
        lines += [line for note in notes[topic] for line in (note, "")]
        if topic == "growth":
            lines += ["![Cost of a report by number of groups](performance-groups.svg)", ""]
        if topic == "size":
            lines += size_lines(folder)
        missed = [figure for figure in shown if verdict(figure) == "MISSED"]
        if missed:
            lines += ["### Why it is missed", ""] + reasons_for(topic, missed, figures) + [""]
    return "\n".join(lines).rstrip() + "\n"


def size_lines(folder):
    needed = (folder / "needed.mipsel").read_text(encoding="utf-8")
    libraries = ", ".join(part.split("]")[0] for part in needed.split("[")[1:])
    lines = [f"Needed at run time: {libraries}. By file, compiled one by one and before unused functions are left out:",
             "", markdown_row(["file", "text x86-64", "data", "zeroed", "text mipsel", "data", "zeroed"]),
             markdown_row(["---"] + ["---:"] * 6)]
    for name, sizes in sorted(sizes_by_file(folder).items()):
        columns = [str(size) for machine in ("x86-64", "mipsel") for size in sizes.get(machine, ("", "", ""))]
        lines.append(markdown_row([name] + columns))
    return lines + [""]


def main():
    folder = pathlib.Path(sys.argv[-1])
    figures, notes = read_figures(folder)
    figures += log_figures(folder) + tick_figures(folder) + size_figures(folder)
    print_table(figures)
    if sys.argv[1] == "--write":
        documents = PROJECT / "docs"
        documents.mkdir(exist_ok=True)
        (documents / "performance.md").write_text(markdown(figures, notes, folder), encoding="utf-8")
        write_plot(documents / "performance-groups.svg", figures)
        print("Written: docs/performance.md, docs/performance-groups.svg")


if __name__ == "__main__":
    main()
