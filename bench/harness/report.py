"""The tables, in Markdown."""

from contenders import BY_NAME
from results import (at, gap, idle, median, per_program, ratio, time_of, to_floor, without_shell)

QUICK = gap("quick_gaps_ns", None)
KILL = gap("kill_gaps_ns", None)
START = time_of("start_ns")
ABOVE_SHELL = without_shell("pss")
ABOVE_SHELL_WITH_TABLES = without_shell("pss", "page_tables")
MEMORY = per_program("pss", "page_tables")


def number(value):
    """Three significant digits, without an exponent."""
    if value is None:
        return "–"
    if value == 0:
        return "0"
    if abs(value) >= 100:
        return f"{value:,.0f}"
    return f"{value:.1f}" if abs(value) >= 10 else f"{value:.2f}"


def spread(values):
    """The median of the runs, with the smallest and the largest when there are several."""
    if not values:
        return "–"
    middle = number(median(values))
    if len(values) == 1:
        return middle
    return f"{middle} ({number(min(values))} to {number(max(values))})"


def verdict(values, most):
    return "met" if median(values) <= most else "missed"


def _row(cells):
    return "| " + " | ".join(cells) + " |"


def table(heading, rows):
    return [_row(heading), _row(["---"] + ["---:"] * (len(heading) - 1)), *map(_row, rows), ""]


def _others(count):
    return "alone" if count == 1 else f"among {count - 1:,} others"


def _known(results, metric, counts):
    """The counts for which anyone has a value."""
    return [count for count in counts
            if any(results.values(metric, one, count) for one in results.contenders)]


def _metric_table(results, title, metric, counts, label):
    rows = []
    counts = _known(results, metric, counts)
    for contender in results.contenders:
        cells = [spread(results.values(metric, contender, count)) for count in counts]
        if any(cell != "–" for cell in cells):
            rows.append([BY_NAME[contender].title, *cells])
    return [f"**{title}**", "", *table(["", *map(label, counts)], rows)] if rows else []


def _gap_tables(results):
    lines = []
    kinds = (("quick_gaps_ns", "a program that ends at once"),
             ("kill_gaps_ns", "a program that is killed"))
    for key, what in kinds:
        middle = gap(key, None)
        for title, metric in (
                (f"Gap of {what}: median, ms", middle),
                (f"Gap of {what}: 99th percentile, ms", gap(key, 0.99)),
                (f"Gap of {what}: median in relation to fork, system, wait", to_floor(middle))):
            lines += _metric_table(results, title, metric, [1, *results.counts], _others)
    return lines


def _scale_tables(results):
    lines = []
    for title, metric in (
            ("Time until all programs run, ms", START),
            ("Time until all programs run, in relation to fork, system, wait", to_floor(START)),
            ("Time to shut down, ms", time_of("end_ns")),
            ("Time from a save by rename to the new program's first instruction: median, ms",
             time_of("save_ns")),
            ("Memory (PSS and page tables) of all supervising processes, kB per program", MEMORY),
            ("Memory (PSS) without the shells, kB per program", ABOVE_SHELL),
            ("Page tables without those of the shells, kB per program",
             without_shell("page_tables")),
            ("Supervising processes per program", per_program("processes")),
            ("Supervising threads per program", per_program("threads"))):
        lines += _metric_table(results, title, metric, results.counts, "{:,} programs".format)
    return lines


def _idle_table(results):
    rows = []
    for contender in results.contenders:
        switches = results.values(idle("switches", 1), contender, results.counts[-1])
        cpu = results.values(idle("cpu_ns", 1e6), contender, results.counts[-1])
        if switches:
            rows.append([BY_NAME[contender].title, spread(cpu), spread(switches)])
    title = f"**While idle with {results.counts[-1]:,} programs, in a minute**"
    heading = ["", "processor time, ms", "wake-ups"]
    return [title, "", *table(heading, rows)] if rows else []


def _goals(results):
    """keelmond's goals: what, the metric, the most that it may be."""
    few, many = results.counts[0], results.counts[-1]
    goals = [(f"Gap, median, {_others(count)}: relation to fork, system, wait",
              at(to_floor(QUICK), count=count), 1.15) for count in (1, few)]
    goals += [
        (f"Gap, median: {_others(many)} in relation to {_others(few)}",
         ratio(at(QUICK, count=many), at(QUICK, count=few)), 1.5),
        ("The same of a program that is killed",
         ratio(at(KILL, count=many), at(KILL, count=few)), 1.5),
        (f"Time until {many:,} run in relation to {many // few} times that of {few}",
         lambda *what: _scaled(ratio(at(START, count=many), at(START, count=few))(*what),
                               few / many), 1.5),
        (f"Memory (PSS) per program above the shell, {many:,} programs, kB",
         at(ABOVE_SHELL, count=many), 100),
        (f"The same in relation to that with {few} programs",
         ratio(at(ABOVE_SHELL, count=many), at(ABOVE_SHELL, count=few)), 1),
        ("Wake-ups in an idle minute", at(idle("switches", 1), count=many), 0),
        ("Processor time in an idle minute, ms", at(idle("cpu_ns", 1e6), count=many), 0),
    ]
    for other in ("runit", "s6"):
        title = BY_NAME[other].title
        goals.append((f"Time until {many:,} run in relation to that of {title}",
                      ratio(at(START, count=many), at(START, other, many)), 1))
        goals.append((f"Memory (PSS and page tables) above the shell, in relation to {title}",
                      ratio(at(ABOVE_SHELL_WITH_TABLES, count=many),
                            at(ABOVE_SHELL_WITH_TABLES, other, many)), 1))
    return goals


def _scaled(value, factor):
    return None if value is None else value * factor


def _goal_table(results):
    rows = []
    for title, metric, most in _goals(results):
        values = results.values(metric, "keelmond", None)
        if values:
            rows.append([title, spread(values), number(most), verdict(values, most)])
    heading = ["goal", "keelmond", "at most", ""]
    return ["**Goals**", "", *table(heading, rows)] if rows else []


def _machine_lines(machine, versions):
    virtual = ", virtual" if machine["virtual"] else ""
    lines = [f"{machine['processors']} processors ({machine['processor']}{virtual}), "
             f"{machine['memory_gb']} GB, {machine['system']}, Linux {machine['kernel']}, "
             f"{machine['libc']}, /bin/sh is {machine['shell']}."]
    if versions:
        lines.append(", ".join(f"{name} {version}" for name, version in versions.items()) + ".")
    return [*lines, ""]


def preamble(runs, machine, versions, realtime=False, keeps_memory=False):
    """What the figures of so many runs depend on."""
    lines = _machine_lines(machine, versions)
    if realtime:
        lines += ["With real-time scheduling for all that is measured.", ""]
    if keeps_memory:
        lines += ["With all free memory taken beforehand, and given back as it was used.", ""]
    if runs > 1:
        lines += [f"The median of {runs} runs (the smallest to the largest).", ""]
    return lines


def tables(results, with_goals):
    lines = _gap_tables(results) + _scale_tables(results) + _idle_table(results)
    if with_goals and len(results.counts) > 1:
        lines += _goal_table(results)
    return lines
