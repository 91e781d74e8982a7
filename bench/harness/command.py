"""What the benchmarks share as commands: options, words while they run, a file of figures."""

import argparse
import json
import os
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SMOKE = "a moment, to see that everything works; no packages are fetched"


def parser(name, text, runs, smoke=SMOKE):
    """@return a parser of the options that all of them have."""
    options = argparse.ArgumentParser(prog=name, description=text)
    options.add_argument("--runs", type=int, default=runs, help="how often everything is measured")
    options.add_argument("--smoke", action="store_true", help=smoke)
    options.add_argument("--json", metavar="FILE", help="write all figures")
    return options


def say(text):
    print(f"[{time.strftime('%H:%M:%S')}] {text}", file=sys.stderr, flush=True)


def write_figures(options, figures):
    """Writes them where `--json` says, if it does."""
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump(figures, file, indent=1)
