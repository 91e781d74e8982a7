"""Runs every contender on the same work and shows the figures side by side."""

import os
import signal
import sys
from contextlib import ExitStack

import command
import control
import growth
import plan
import plot
import prepare
import report
from command import ROOT, say
from contenders import ALL, Keelmond, add_build
from results import Results
from world import namespaces_work


def parse_arguments():
    parser = command.parser(
        "compare", __doc__, 1,
        "a few seconds in all, to see that everything works: few programs, no packages fetched, no "
        "goals shown, no failure where there are no namespaces")
    parser.add_argument("--scale", action="store_true",
                        help="instead of all that: how keelmond grows up to 10,000 programs (or "
                             "--only others); raises kernel.pid_max for as long as it takes")
    parser.add_argument("--control", action="store_true",
                        help="instead of all that: keelmondctl, beside a bare loop that asks the "
                             "kernel the same, and a script that ends the same programs")
    parser.add_argument("--counts", type=_numbers, default=[],
                        help="numbers of programs, as in 10,100,1000")
    parser.add_argument("--idle-seconds", type=float, default=plan.FULL.idle_seconds,
                        help="0: not measured")
    parser.add_argument("--realtime", action="store_true",
                        help="let everything that is measured go before whatever else the machine "
                             "has to do (real-time scheduling, for root)")
    parser.add_argument("--keep-memory", action="store_true",
                        help="with --scale: take all free memory before anything starts, and give "
                             "it back as it is used, so that a virtual machine's host has none to "
                             "fetch meanwhile (for root; a minute or two more for each run)")
    parser.add_argument("--only", type=_words, default=[],
                        help="some contenders: " + ",".join(one.name for one in ALL))
    parser.add_argument("--parts", type=_words, default=plan.PARTS,
                        help="scale: start, memory, saves; end: the shutdown; gaps: restarts and "
                             "idleness")
    parser.add_argument("--also", metavar="LABEL=FILE", action="append", default=[],
                        help="another build of keelmond, to be measured beside this tree's")
    parser.add_argument("--svg", metavar="FILE", help="write the plot")
    options = parser.parse_args()
    for label, found, file in (build.partition("=") for build in options.also):
        if not found or not os.access(file, os.X_OK):
            parser.error("--also takes a label, =, and the path of an executable")
        add_build(label, file)
    unknown = set(options.only) - {one.name for one in ALL} | set(options.parts) - set(plan.PARTS)
    if unknown:
        parser.error(f"no such contender or part: {', '.join(sorted(unknown))}")
    if not options.counts:
        options.counts = kind_of(options).FULL.counts
    if options.counts[0] < (1 if options.control else 2) or options.runs < 1:
        parser.error("at least two programs and one run are needed")
    if options.scale and options.control:
        parser.error("--scale and --control are measured one after the other")
    if options.keep_memory and not options.scale:
        parser.error("--keep-memory goes with --scale")
    if options.svg and kind_of(options) is not plan:
        parser.error("this has no plot")
    return options


def kind_of(options):
    """What is measured: a module with its sizes and its run."""
    if options.control:
        return control
    return growth if options.scale else plan


def _numbers(text):
    return sorted({int(part) for part in text.split(",")})


def _words(text):
    return text.split(",")


def write_results(options, results, machine, versions):
    kind = kind_of(options)
    kind = report if kind is plan else kind
    print("\n".join(report.preamble(len(results.runs), machine, versions, options.realtime,
                                    options.keep_memory) +
                    kind.tables(results, not options.smoke)))
    command.write_figures(options, {
        "machine": machine, "versions": versions, "realtime": options.realtime,
        "counts": results.counts, "runs": results.runs})
    if options.svg:
        with open(options.svg, "w", encoding="utf-8") as file:
            file.write(plot.svg(results))


def choose_sizes(options, stack):
    """The sizes of a run, as far as there is room for them while the stack's contexts last."""
    if options.control:
        sizes = control.SMOKE if options.smoke else control.FULL._replace(counts=options.counts)
        return sizes._replace(realtime=options.realtime)
    if not options.scale:
        if options.smoke:
            sizes = plan.SMOKE
        else:
            sizes = plan.FULL._replace(counts=options.counts, idle_seconds=options.idle_seconds)
        return sizes._replace(realtime=options.realtime, parts=options.parts)
    if options.smoke:
        return growth.SMOKE._replace(realtime=options.realtime)
    room = stack.enter_context(growth.room_for(options.counts[-1], say))
    counts = [count for count in options.counts if count <= room]
    if counts != options.counts:
        say(f"there is room for no more than {room:,} programs")
    if len(counts) < 2:
        sys.exit("compare: at least two numbers of programs are needed")
    return growth.FULL._replace(
        counts=counts, realtime=options.realtime, keeps_memory=options.keep_memory)


def main():
    options = parse_arguments()
    # Whoever ends us ends us as Ctrl-C does, so that nothing is left behind.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    if not namespaces_work(options.realtime):
        why = ("no private PID namespace, or no real-time scheduling, here: run it as "
               "root")
        if options.smoke:
            say("nothing measured: " + why)
            return
        sys.exit("compare: " + why)
    if not options.smoke and kind_of(options) is plan:
        prepare.fetch_contenders(ROOT, say)
    prepare.build(
        ROOT, ("keelmond", "keelmondctl", "bench_program", "floor_loop", "proc_floor"), say)
    tools = prepare.tools(ROOT)
    wanted = options.only
    if options.control:
        wanted = [Keelmond.name]
    if options.scale and not wanted:
        wanted = [one.name for one in ALL if issubclass(one, Keelmond)]
    chosen = prepare.available_contenders(tools, ALL, wanted, say)

    runs, failures = [], []
    with ExitStack() as stack:
        sizes = choose_sizes(options, stack)
        for i in range(options.runs):
            say(f"run {i + 1} of {options.runs}")
            run = kind_of(options).Run(sizes, chosen, tools, say)
            runs.append(run.measure())
            failures += run.failures
    results = Results(runs, [contender.name for contender in chosen], sizes.counts)
    write_results(options, results, prepare.machine(),
                  prepare.versions() if kind_of(options) is plan else {})
    if failures:
        sys.exit("compare: failed: " + "; ".join(failures))


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(130)
