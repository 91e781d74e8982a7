"""Measures what stands between a fork and a program, and stays beside it, launcher by launcher.

Each sets a limit on open files, or becomes another user, and executes a program, which says when
it has come to its first instruction. Those of other supervisors become the program; keelmond-run
stays, and so does a shell that waits.
"""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import command
import prepare
import report
from command import ROOT, say
from procfs import proportional_size
from results import median, values_of

OWN = "keelmond-run"
FLOOR = "fork and exec"
FILES = "256"
USER = "nobody"
# What is behind the name of a launcher that becomes that user; only root has those.
AS_USER = f" as {USER}"
LIMITING = (("chpst", ["-o", FILES]), ("s6-softlimit", ["-o", FILES]), ("softlimit", ["-o", FILES]))
BECOMING = (("chpst", ["-u", USER]), ("s6-setuidgid", [USER]), ("setuidgid", [USER]))
# How long after a start a launcher has come to rest.
REST = 3


def parse_arguments():
    parser = command.parser("launches", __doc__, 5)
    parser.add_argument("--launches", type=int, default=300, help="starts in each run")
    return parser.parse_args()


def write_executable(path, text):
    with open(path, "w", encoding="ascii") as out:
        out.write(text)
    os.chmod(path, 0o755)
    return path


class Launchers:
    """What is measured, in a directory with a program file, and a script that does the same."""

    def __init__(self, directory, tools):
        self.directory = directory
        self.tools = tools

    def find(self, name):
        return shutil.which(name, path=self.tools["PATH"])

    def program_file(self, name, words, more=f"[limits]\nnofile = {FILES}\n"):
        return write_executable(
            os.path.join(self.directory, name),
            f"#!{self.tools['KEELMOND_RUN']}\n[program]\ncommand = {' '.join(words)}\n{more}"
            "[restart]\non = never\n")

    def script(self, name, words):
        return write_executable(
            os.path.join(self.directory, name),
            f"#!/bin/sh\nulimit -n {FILES}\n{' '.join(words)} &\nwait $!\n")

    def commands(self):
        """@return that of each, without those that are not there."""
        stamp = [self.tools["LAUNCH_CLOCK"], "stamp"]
        known = {FLOOR: stamp,
                 "sh, waiting": [self.script("waiting", stamp)],
                 OWN: [self.program_file("kmd_stamp", stamp)]}
        self.add_others(known, LIMITING, "", stamp)
        if os.geteuid() == 0:
            known[OWN + AS_USER] = [self.program_file("kmd_user", stamp, f"user = {USER}\n")]
            self.add_others(known, BECOMING, AS_USER, stamp)
        return known

    def add_others(self, known, others, what, stamp):
        for name, options in others:
            path = self.find(name)
            if path is not None and self.works([path, *options, *stamp]):
                known[name + what] = [path, *options, *stamp]

    def environment(self):
        return {**os.environ, "LD_LIBRARY_PATH": self.tools["LD_LIBRARY_PATH"]}

    def works(self, words):
        return subprocess.run(words, check=False, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL,
                              env=self.environment()).returncode == 0


def measure_starts(launchers, words, launches):
    """@return microseconds: the median of many starts."""
    os.makedirs(os.path.join(launchers.directory, "notify"), exist_ok=True)
    done = subprocess.run([launchers.tools["LAUNCH_CLOCK"], str(launches), *words], check=True,
                          cwd=launchers.directory,
                          stdout=subprocess.PIPE, stdin=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL, env=launchers.environment())
    return median([int(line) / 1000 for line in done.stdout.split()])


def switches(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        return sum(int(line.split()[1]) for line in file if "ctxt_switches" in line)


def measure_rest(path):
    """@return kB of memory, and how often it has woken up in a while without events."""
    process = subprocess.Popen([path], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, start_new_session=True)
    try:
        time.sleep(REST)
        before = switches(process.pid)
        time.sleep(REST)
        return proportional_size(process.pid), switches(process.pid) - before
    finally:
        # The shell's program is nobody else's.
        os.killpg(process.pid, signal.SIGTERM)
        process.wait(30)


def measure(tools, options):
    directory = tempfile.mkdtemp(prefix="launches-")
    try:
        launchers = Launchers(directory, tools)
        launches = 10 if options.smoke else options.launches
        figures = {name: {"start": measure_starts(launchers, words, launches)}
                   for name, words in launchers.commands().items()}
        sleeping = ["sleep", "1000"]
        for name, path in ((OWN, launchers.program_file("kmd_sleep", sleeping)),
                           ("sh, waiting", launchers.script("sleeping", sleeping))):
            figures[name]["memory"], figures[name]["wakeups"] = measure_rest(path)
        return figures
    finally:
        shutil.rmtree(directory)


def lay_over(tools):
    """Runs this again where the contenders stand in /usr/bin: some execute each other there."""
    binaries = tools["PATH"].split(":")[0]
    if os.geteuid() != 0 or not os.path.isdir(binaries) or os.environ.get("LAUNCHES_LAID_OVER"):
        return
    mount = f"mount -t overlay overlay -o lowerdir={binaries}:/usr/bin /usr/bin"
    os.environ["LAUNCHES_LAID_OVER"] = "yes"
    os.execvp("unshare", ["unshare", "--mount", "sh", "-c", f'{mount}; exec "$@"', "sh",
                          sys.executable, "-B", *sys.argv])


def beyond_floor(runs, name):
    return [run[name]["start"] - run[FLOOR]["start"] for run in runs]


def tables(runs):
    names = list(runs[0])
    rows = [[name, report.spread(values_of(runs, name, "start")),
             report.spread(beyond_floor(runs, name)) if name != FLOOR else "–",
             report.spread(values_of(runs, name, "memory")),
             report.spread(values_of(runs, name, "wakeups"))] for name in names]
    heading = ["", "fork to first instruction, µs", f"beyond {FLOOR}, µs",
               "memory beside the program (PSS), kB", f"wake-ups in {REST} s"]
    return ["**Starts**", "", *report.table(heading, rows)]


def goals(runs):
    rows = []
    for title, found, most in (
            ("Start beyond that of the program alone, µs", beyond_floor(runs, OWN), 1000),
            ("Memory beside the program, kB", values_of(runs, OWN, "memory"), 100),
            (f"Wake-ups in {REST} s without events", values_of(runs, OWN, "wakeups"), 0)):
        rows.append([title, report.spread(found), str(most),
                     "met" if median(found) <= most else "missed"])
    return ["**Goals**", "", *report.table(["goal", OWN, "at most", ""], rows)]


def main():
    options = parse_arguments()
    if not options.smoke:
        prepare.fetch_contenders(ROOT, say)
    prepare.build(ROOT, ("keelmond-run", "launch_clock"), say)
    tools = prepare.tools(ROOT)
    lay_over(tools)
    runs = []
    for i in range(1 if options.smoke else options.runs):
        say(f"run {i + 1}")
        runs.append(measure(tools, options))
    machine = prepare.machine()
    print("\n".join(report.preamble(len(runs), machine, prepare.versions()) +
                    ([] if options.smoke else goals(runs)) + tables(runs)))
    command.write_figures(options, {"machine": machine, "runs": runs})


if __name__ == "__main__":
    main()
