"""Measures how fast logs are written and rotated, by keelmond-run and other loggers, side by side.

A program writes lines of 100 bytes as fast as they are taken, in blocks of 4096 bytes as the
standard library does, or each on its own.
"""

import os
import shutil
import signal
import sys
import tempfile
import time

import command
import loggers
import prepare
import report
from command import ROOT, say
from procfs import proportional_size
from results import median, values_of

LINE = 100
# What the program does, how much it writes, and whether the time is put in front.
CASES = {
    "blocks": (4096, 500_000_000, False),
    "blocks, time": (4096, 500_000_000, True),
    "single lines": (LINE, 100_000_000, False),
    "single lines, time": (LINE, 100_000_000, True),
}
OWN = loggers.KeelmondRun.name
# Nothing is measured of what hangs.
LONGEST = 600


def parse_arguments():
    parser = command.parser("logs", __doc__, 3)
    parser.add_argument("--directory", default="/dev/shm" if os.path.isdir("/dev/shm") else None,
                        help="where the logs are written; in memory, unless given")
    return parser.parse_args()


def fail(logger, why):
    sys.exit(f"logs: {logger.name}: {why}")


def await_end(logger, process):
    """@return what `process` and its children have used of the processors, in seconds."""
    signal.alarm(LONGEST)
    try:
        _, status, used = os.wait4(process.pid, 0)
    except TimeoutError:
        process.kill()
        fail(logger, "did not end")
    finally:
        signal.alarm(0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        fail(logger, f"ended with {process.returncode}")
    return used.ru_utime + used.ru_stime


def on_alarm(*_):
    raise TimeoutError


def measure_case(logger, tools, case, divisor):
    """@return megabytes in a second, and seconds of processor time for a gigabyte."""
    chunk, size, stamp = CASES[case]
    size //= divisor
    own_time = logger.path("time")
    program = [tools["LOG_SOURCE"], str(size), str(LINE), str(chunk), own_time]
    begin = time.monotonic()
    process, source = logger.start(program, stamp)
    if source is not process:
        await_end(logger, source)
    logger.end(process, lambda: os.path.exists(own_time) and os.path.getsize(own_time) > 0)
    used = await_end(logger, process)
    seconds = time.monotonic() - begin
    if source is process:
        with open(own_time, encoding="ascii") as file:
            used -= int(file.read()) / 1e9
    return size / 1e6 / seconds, max(used, 0) / (size / 1e9)


def measure_memory(logger, tools):
    """@return its proportional set size in kB, long after a line was written."""
    process, source = logger.start([tools["LOG_SOURCE"], "idle"], False)
    time.sleep(3)
    size = proportional_size(process.pid)
    for one in {source, process}:
        one.terminate()
    for one in {source, process}:
        one.wait(LONGEST)
    return size


def measure(kind, tools, options):
    figures = {}

    def fresh():
        return kind(tempfile.mkdtemp(prefix="logs-", dir=options.directory), tools)

    for case in CASES:
        if CASES[case][2] and not kind.has_stamps:
            continue
        logger = fresh()
        try:
            figures[case], figures[case + ": processor"] = measure_case(
                logger, tools, case, 100 if options.smoke else 1)
        finally:
            shutil.rmtree(logger.root)
    if kind is not loggers.File:
        logger = fresh()
        try:
            figures["memory"] = measure_memory(logger, tools)
        finally:
            shutil.rmtree(logger.root)
    return figures


def ratios(runs, name, key):
    """Of each run, keelmond-run's in relation to that one's."""
    pairs = [(run[OWN].get(key), run[name].get(key)) for run in runs if OWN in run and name in run]
    return [own / other for own, other in pairs if own is not None and other]


def tables(runs, names):
    cases = list(CASES)
    lines = []
    for title, keys, figure in (
            ("MB in a second", cases, values_of),
            ("MB in a second: keelmond-run in relation to it", cases, ratios),
            ("Processor time of the logger for 1 GB, s", [f"{one}: processor" for one in cases],
             values_of),
            ("Memory (PSS) while idle, kB", ["memory"], values_of)):
        rows = [[name, *(report.spread(figure(runs, name, key)) for key in keys)]
                for name in names]
        heading = [""] if keys == ["memory"] else cases
        rows = [row for row in rows if any(cell != "–" for cell in row[1:])]
        lines += [f"**{title}**", "", *report.table(["", *heading], rows)]
    return lines


def goals(runs, names):
    rows = []
    own = values_of(runs, OWN, "blocks")
    rows.append(["MB in a second, blocks", report.spread(own), "200",
                 "met" if own and median(own) >= 200 else "missed"])
    for name in names:
        found = ratios(runs, name, "blocks")
        if name in ("svlogd", "s6-log", "multilog") and found:
            rows.append([f"The same in relation to that of {name}", report.spread(found), "1.00",
                         "met" if median(found) >= 1 else "missed"])
    return ["**Goals**", "", *report.table(["goal", OWN, "at least", ""], rows)]


def main():
    options = parse_arguments()
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    signal.signal(signal.SIGALRM, on_alarm)
    if not options.smoke:
        prepare.fetch_contenders(ROOT, say)
    prepare.build(ROOT, ("keelmond-run", "log_source"), say)
    tools = prepare.tools(ROOT)
    chosen = prepare.available_contenders(tools, loggers.ALL, (), say)
    names = [kind.name for kind in chosen]
    runs = []
    for i in range(1 if options.smoke else options.runs):
        say(f"run {i + 1}")
        runs.append({kind.name: measure(kind, tools, options) for kind in chosen})
    machine = prepare.machine()
    print("\n".join(report.preamble(len(runs), machine, prepare.versions()) +
                    ([] if options.smoke else goals(runs, names)) + tables(runs, names)))
    command.write_figures(options, {"machine": machine, "runs": runs})


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(130)
