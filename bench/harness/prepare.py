"""Builds what is measured and gets the contenders.

The contenders come from Debian's packages, unpacked into build/contenders and run from there:
nothing is installed, and no service is started.
"""

import os
import platform
import re
import shutil
import subprocess

CONTENDERS = ("runit", "s6", "daemontools", "supervisor", "monit")
PACKAGES = (*CONTENDERS, "python3-pkg-resources")
# What the packages need and a machine may not have.
LIBRARIES = re.compile(r"^lib(s6|skarnet|execline)[0-9.-]")


def build(root, targets, say):
    say("build")
    subprocess.run(["cmake", "--preset", "bench"], cwd=root, check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", "--preset", "bench", "--target", *targets], cwd=root,
                   check=True, stdout=subprocess.DEVNULL)


def _run_quietly(command, directory=None):
    try:
        done = subprocess.run(command, cwd=directory, check=False, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True)
    except FileNotFoundError:
        return None
    return done.stdout if done.returncode == 0 else None


def _libraries_of(package):
    listed = _run_quietly(["apt-cache", "depends", "--recurse", "--important", package]) or ""
    names = {line.split()[-1] for line in listed.splitlines() if line.strip()}
    return sorted(name for name in names if LIBRARIES.match(name))


def _download(package, directory):
    for name in [package, *(_libraries_of(package) if package == "s6" else ())]:
        if _run_quietly(["apt-get", "download", name], directory) is None:
            return False
    return True


def fetch_contenders(root, say):
    """Unpacks the packages that are not there yet. What Debian does not have is left out."""
    place = os.path.join(root, "build", "contenders")
    missing = [name for name in PACKAGES if not os.path.exists(os.path.join(place, "got-" + name))]
    if not missing or shutil.which("apt-get") is None:
        return
    if _run_quietly(["apt-cache", "show", missing[0]]) is None and os.geteuid() == 0:
        say("apt-get update")
        _run_quietly(["apt-get", "update"])
    for package in missing:
        directory = os.path.join(place, "packages", package)
        os.makedirs(directory, exist_ok=True)
        if not _download(package, directory):
            say(f"{package}: there is no such package")
            continue
        for file in os.listdir(directory):
            subprocess.run(["dpkg", "-x", os.path.join(directory, file),
                            os.path.join(place, "root")], check=True)
        with open(os.path.join(place, "got-" + package), "w", encoding="ascii"):
            pass


def tools(root):
    """The environment in which contenders are found and run."""
    unpacked = os.path.join(root, "build", "contenders", "root")
    libraries = os.path.join(unpacked, "usr", "lib")
    built = os.path.join(root, "build", "bench")
    path = [os.path.join(unpacked, "usr", "bin"), os.path.join(unpacked, "usr", "sbin")]
    return {
        "PATH": ":".join([*path, os.environ.get("PATH", ""), "/usr/sbin:/usr/bin:/sbin:/bin"]),
        "LD_LIBRARY_PATH": f"{libraries}/{platform.machine()}-linux-gnu:{libraries}",
        "PYTHONPATH": os.path.join(libraries, "python3", "dist-packages"),
        "PYTHON": "/usr/bin/python3",
        "KEELMOND": os.path.join(built, "process", "keelmond"),
        "KEELMONDCTL": os.path.join(built, "control", "keelmondctl"),
        "PROC_FLOOR": os.path.join(built, "bench", "proc_floor"),
        "FLOOR_LOOP": os.path.join(built, "bench", "floor_loop"),
        "PROGRAM": os.path.join(built, "bench", "bench_program"),
        "KEELMOND_RUN": os.path.join(built, "runner", "keelmond-run"),
        "LOG_SOURCE": os.path.join(built, "bench", "log_source"),
        "LAUNCH_CLOCK": os.path.join(built, "bench", "launch_clock"),
    }


def available_contenders(found_tools, contenders, only, say):
    """The contenders that can be run, in their order; where `only` names any, just those."""
    chosen = []
    for contender in contenders:
        if only and contender.name not in only:
            continue
        if contender.is_available(found_tools):
            chosen.append(contender)
        else:
            say(f"{contender.name} is not there: left out")
    return chosen


def versions():
    """The contenders' versions as Debian counts them."""
    found = {}
    for package in CONTENDERS:
        shown = _run_quietly(["apt-cache", "policy", package]) or ""
        candidate = re.search(r"Candidate: (\S+)", shown)
        if candidate and candidate.group(1) != "(none)":
            found[package] = candidate.group(1)
    return found


def _text(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def machine():
    """What the figures depend on, and nothing that tells whose machine it is."""
    processors = _text("/proc/cpuinfo")
    model = re.search(r"model name\s*:\s*(.*)", processors)
    memory = re.search(r"MemTotal:\s*(\d+)", _text("/proc/meminfo"))
    system = platform.freedesktop_os_release().get("PRETTY_NAME", "Linux")
    shell = os.path.basename(os.path.realpath("/bin/sh"))
    return {
        "processor": model.group(1) if model else platform.machine(),
        "processors": os.cpu_count(),
        "memory_gb": round(int(memory.group(1)) / 1024 / 1024, 1) if memory else None,
        "kernel": platform.release().split("-")[0],
        "system": system,
        "shell": shell,
        "libc": " ".join(platform.libc_ver()),
        "virtual": "hypervisor" in processors,
    }
