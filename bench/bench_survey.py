"""The module's file-system work side by side with the plain-Python module and with the system-call floor.

Run after installing the package: ``python bench/bench_survey.py`` (the floor needs a C compiler: ``cc``,
or the one ``$CC`` names).

- ``installed_skill_versions`` over a home and a repository whose every skills directory holds the three
  skills, stamped: native and plain interleaved batch by batch in this process, each batch's ratio taken
  from the two batches beside each other; ``bench/syscall_floor.c``, compiled here, makes the same system
  calls on the same tree in rounds between them. The host path calls of one survey, replayed alone, show
  how much of it is ``pathlib``'s.
- ``read_stamp`` of one 2 KiB head, native and plain interleaved the same way.
- Import, each in a fresh interpreter: the time and the resident-memory growth of importing the native
  module, and of importing the plain one with its bytecode already cached.

The machines are shared and noisy: every figure is a median, with its interquartile range and min-max.
"""

import os
import py_compile
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path

from benchlib import BENCH, interleaved, load_plain, populate, ratios, report, skill_file, spread
from zobek_lumeno.utils import agent_skills as native

plain = load_plain()

ROUNDS = 7  # survey rounds: Python batches, then a run of the floor
SURVEY_BATCHES, SURVEYS = 5, 20  # per round, and surveys per batch
FLOOR_BATCHES, FLOOR_SURVEYS = 3, 50
STAMP_BATCHES, STAMPS = 21, 2000
IMPORT_RUNS = 15


def records(module, repo):
    return [(*record, record.stale) for record in module.installed_skill_versions(repo)]


def build_floor(workdir):
    cc = os.environ.get("CC") or shutil.which("cc") or shutil.which("gcc") or shutil.which("clang")
    if cc is None:
        return None
    program = workdir / "syscall_floor"
    build = [cc, "-O2", "-std=c11", "-Wall", "-Wextra", "-o", str(program), str(BENCH / "syscall_floor.c")]
    subprocess.run(build, check=True)
    return program


def run_floor(program, home, repo):
    """Per-survey times of each batch of the floor, and its report's lines."""
    args = [str(program), str(home), str(repo), str(FLOOR_SURVEYS), str(FLOOR_BATCHES)]
    out = subprocess.run(args, check=True, capture_output=True, text=True).stdout
    read = int(re.search(r"(\d+) files read per survey", out).group(1))
    assert read == 24, f"the floor read {read} files, not the survey's 24:\n{out}"
    batches = re.search(r"batches, us per survey:(.*)", out).group(1).split()
    return [float(t) * 1e-6 for t in batches], out.splitlines()


def pathlib_calls(home, repo):
    """The host path calls of one survey, in its order, without the module around them: what a native
    route that makes the system calls itself can save."""
    dirs = [
        home / root for root in native.read_roots(native.agent_roots(native.skill_capable_agents(), "user"))
    ]
    dirs += [
        repo / root
        for root in native.read_roots(native.agent_roots(native.skill_capable_agents(), "project"))
    ]

    def replay():
        Path.home()
        for directory in dirs:
            resolved = directory.resolve(strict=True)
            for skill in native.SKILL_NAMES:
                real = (resolved / skill / native.SKILL_FILE).resolve(strict=True)
                if real.is_relative_to(resolved) and real.is_file():
                    with real.open("rb") as handle:
                        handle.read(native.STAMP_HEAD_BYTES)

    return replay


def bench_survey(workdir):
    home, repo = workdir / "home", workdir / "my app"
    populate(native, home, repo)
    os.environ["HOME"] = str(home)
    ours, theirs = records(native, repo), records(plain, repo)
    assert ours == theirs, "the plain module's records differ: run bench/check_plain.py"
    assert len(ours) == 24 and all(r[2] == "1.4.0" and r[-1] for r in ours), ours

    program = build_floor(workdir)
    calls = [
        lambda: native.installed_skill_versions(repo),
        lambda: plain.installed_skill_versions(repo),
        pathlib_calls(home, repo),
    ]
    t_native, t_plain, t_pathlib, t_floor, per_round = [], [], [], [], []
    floor_report = []
    for _ in range(ROUNDS):
        n, p, h = interleaved(calls, SURVEYS, SURVEY_BATCHES)
        t_native += n
        t_plain += p
        t_pathlib += h
        if program is not None:
            f, floor_report = run_floor(program, home, repo)
            t_floor += f
            per_round.append(statistics.median(n) / statistics.median(f))

    ratio = ratios(t_plain, t_native)
    print(
        "installed_skill_versions: 8 skills directories, 24 stamped files "
        f"(us per call; {ROUNDS} rounds of {SURVEY_BATCHES} batches, then the floor's {FLOOR_BATCHES})"
    )
    print(f"  native         {spread(t_native, 1e-6)}")
    print(f"  plain Python   {spread(t_plain, 1e-6)}")
    print(f"  plain/native   {spread(ratio)}   (batch beside batch)")
    share = ratios(t_pathlib, t_native)
    print(f"  pathlib only   {spread(t_pathlib, 1e-6)}   = {statistics.median(share):.0%} of native")
    if program is None:
        print("  (no C compiler: the system-call floor was not measured)")
        return statistics.median(ratio), None
    print(f"  syscall floor  {spread(t_floor, 1e-6)}")
    print(f"  the floor made {floor_report[1].strip()}")
    floor_ratio = statistics.median(per_round)
    print(f"  native/floor   {spread(per_round)}   (round by round)")
    return statistics.median(ratio), floor_ratio


def bench_read_stamp(workdir):
    path = skill_file(workdir)
    assert native.read_stamp(path) == plain.read_stamp(path) == "1.5.0"
    t_native, t_plain = interleaved(
        [lambda: native.read_stamp(path), lambda: plain.read_stamp(path)], STAMPS, STAMP_BATCHES
    )
    title = f"read_stamp: one {path.stat().st_size:,}-byte SKILL.md (us per call; {STAMP_BATCHES} batches)"
    return report(title, t_native, t_plain)


# Run in a fresh interpreter: imports `first`, then times the import of `module` alone.
IMPORT_PROBE = """
import sys, time
{first}
def rss():
    with open("/proc/self/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))
sys.path.insert(0, {bench!r})
before, start = rss(), time.perf_counter()
import {module}
elapsed = time.perf_counter() - start
print(elapsed, rss() - before)
"""
DEPENDENCIES = "pathlib, logging, re, typing, itertools, collections.abc"


def time_imports(first):
    """Interleaved fresh-process imports of each module: seconds and KiB of each run."""
    results = {"native": ([], []), "plain": ([], [])}
    modules = {"native": "zobek_lumeno.utils.agent_skills", "plain": "plain_agent_skills"}
    for _ in range(IMPORT_RUNS):
        for label, module in modules.items():
            code = IMPORT_PROBE.format(first=first, bench=str(BENCH), module=module)
            out = subprocess.run(
                [sys.executable, "-I", "-c", code], check=True, capture_output=True, text=True
            )
            seconds, kib = out.stdout.split()
            results[label][0].append(float(seconds))
            results[label][1].append(int(kib))
    return results


def bench_import():
    # Written whatever PYTHONDONTWRITEBYTECODE says: the comparison is with a module whose bytecode is cached.
    py_compile.compile(plain.__file__, cfile=plain.__cached__, doraise=True)
    print(f"import in a fresh interpreter, plain from cached bytecode ({IMPORT_RUNS} runs each, interleaved)")
    # Both modules need the host package (the plain one for __version__), so it is loaded first in every
    # case and only the module itself is timed.
    variants = (
        (
            f"(a) {DEPENDENCIES} and zobek_lumeno imported first in both",
            f"import {DEPENDENCIES}, zobek_lumeno.utils",
        ),
        (
            "(b) only zobek_lumeno imported first: each module imports its dependencies",
            "import zobek_lumeno.utils",
        ),
    )
    verdicts = []
    for title, first in variants:
        results = time_imports(first)
        (n_time, n_kib), (p_time, p_kib) = results["native"], results["plain"]
        print(f"  {title}")
        print(f"    native       {spread(n_time, 1e-3)} ms   +{statistics.median(n_kib)} KiB resident")
        print(f"    plain        {spread(p_time, 1e-3)} ms   +{statistics.median(p_kib)} KiB resident")
        ratio = ratios(p_time, n_time)
        print(f"    plain/native {spread(ratio)}   (run beside run)")
        print(f"    resident growth, KiB: native {min(n_kib)}-{max(n_kib)}, plain {min(p_kib)}-{max(p_kib)}")
        verdicts.append(statistics.median(ratio))
    return verdicts[0]


def main():
    with tempfile.TemporaryDirectory() as name:
        workdir = Path(name).resolve()
        survey, floor = bench_survey(workdir)
        stamp = bench_read_stamp(workdir)
    imports = bench_import()

    def verdict(met):
        return "met" if met else "MISSED"

    print()
    print(f"target survey >= 2.5x plain:        {verdict(survey >= 2.5)} ({survey:.2f}x)")
    if floor is not None:
        print(f"aim    survey within 1.5x of floor: {verdict(floor <= 1.5)} ({floor:.2f}x)")
    print(f"target read_stamp >= 1.4x plain:    {verdict(stamp >= 1.4)} ({stamp:.2f}x)")
    print(f"target import no slower than plain: {verdict(imports >= 1.0)} (plain/native {imports:.2f})")


if __name__ == "__main__":
    main()
