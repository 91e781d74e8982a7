"""The figures of several runs, and what is computed from them."""

import math

FLOOR = "floor-system"


def quantile(values, share):
    """The value below which `share` of the values lie, by the nearest rank; None without values."""
    if not values:
        return None
    ordered = sorted(values)
    return ordered[max(0, math.ceil(share * len(ordered)) - 1)]


def median(values):
    if not values:
        return None
    ordered = sorted(values)
    middle = len(ordered) // 2
    return ordered[middle] if len(ordered) % 2 else (ordered[middle - 1] + ordered[middle]) / 2


def values_of(runs, name, key):
    """What each run has under a name and a key."""
    return [run[name][key] for run in runs if key in run.get(name, {})]


class Results:
    """All runs: a list of {contender: {count: {kind: figures}}}.

    A metric is a function of (run, contender, count), where the run is one element of that list.
    It gives a number, or None when there is none.
    """

    def __init__(self, runs, contenders, counts):
        self.runs = runs
        self.contenders = contenders
        self.counts = counts

    def values(self, metric, contender, count):
        """The metric's values over the runs that have one."""
        found = (metric(run, contender, count) for run in self.runs)
        return [value for value in found if value is not None]


def figures(run, contender, count):
    return run.get(contender, {}).get(str(count)) or {}


def gap(key, share):
    """Gaps of one kind in milliseconds; `share` as for `quantile`, None for the median."""
    def metric(run, contender, count):
        gaps = figures(run, contender, count).get(key)
        value = median(gaps) if share is None else quantile(gaps, share)
        return None if value is None else value / 1e6
    return metric


def time_of(key):
    """A time in milliseconds; of several the median."""
    def metric(run, contender, count):
        value = figures(run, contender, count).get(key)
        if isinstance(value, list):
            value = median(value)
        return None if value is None else value / 1e6
    return metric


def per_program(*keys):
    """The sum of some figures of `procfs.Memory`, for each supervised program."""
    def metric(run, contender, count):
        memory = figures(run, contender, count).get("memory")
        return None if memory is None else sum(memory[key] for key in keys) / int(count)
    return metric


def without_shell(*keys):
    """The same, less what is the shells'."""
    everything = per_program(*keys)
    shells = per_program(*("shell_" + key for key in keys))
    def metric(run, contender, count):
        value = everything(run, contender, count)
        return None if value is None else value - shells(run, contender, count)
    return metric


def idle(key, divisor):
    """What was done while idle, in a minute."""
    def metric(run, contender, count):
        done = figures(run, contender, count).get("idle")
        return None if done is None else done[key] / divisor * 60 / done["seconds"]
    return metric


def ratio(metric, other):
    """A metric in relation to another one of the same run."""
    def divided(run, contender, count):
        value, base = metric(run, contender, count), other(run, contender, count)
        return value / base if value is not None and base else None
    return divided


def at(metric, contender=None, count=None):
    """A metric with its contender or its count fixed."""
    return lambda run, who, number: metric(run, contender or who, count or number)


def to_floor(metric):
    return ratio(metric, at(metric, contender=FLOOR))
