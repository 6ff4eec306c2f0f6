"""What the benchmark scripts share: the plain-Python formulation, a populated tree, interleaved timing."""

import importlib.util
import statistics
import sys
import timeit
from pathlib import Path

BENCH = Path(__file__).resolve().parent
PLAIN_SOURCE = BENCH / "plain_agent_skills.py"
BODY = "".join(f"Line {i}: how the skill is used, with an example or two.\n" for i in range(80))


def load_plain(name="plain_agent_skills"):
    """The plain-Python module, loaded by path beside the native one (bytecode cached as usual)."""
    spec = importlib.util.spec_from_file_location(name, PLAIN_SOURCE)
    module = importlib.util.module_from_spec(spec)
    # Registered first, as the import system does, so its records pickle and re-import finds it.
    sys.modules[name] = module
    try:
        spec.loader.exec_module(module)
    except BaseException:
        del sys.modules[name]
        raise
    return module


def populate(module, home, repo, version="1.4.0"):
    """Every skills directory of every agent, in both scopes, with each embedded skill stamped."""
    for scope, base in (("user", home), ("project", repo)):
        for root in module.read_roots(module.agent_roots(module.skill_capable_agents(), scope)):
            for skill in module.SKILL_NAMES:
                path = base / root / skill / module.SKILL_FILE
                path.parent.mkdir(parents=True)
                path.write_text(f"---\nname: {skill}\nversion: {version}\n---\n{BODY}")


def skill_file(directory):
    """A stamped SKILL.md well past the 2 KiB head, so every read is a full head."""
    path = Path(directory) / "SKILL.md"
    front = "---\nname: lumeno\nversion: 1.5.0\ndescription: Reads and writes the project map.\n---\n"
    path.write_text(front + BODY * 3)
    return path


def interleaved(calls, number, batches):
    """Per-call seconds of each call in every batch; the batches alternate, so a busy machine slows all alike.

    Ratios should be taken batch by batch (`ratios`): two batches side by side saw the same machine.
    """
    timers = [timeit.Timer(call) for call in calls]
    for timer in timers:
        timer.timeit(max(1, number // 10))
    times = [[] for _ in calls]
    for _ in range(batches):
        for timer, seen in zip(timers, times, strict=True):
            seen.append(timer.timeit(number) / number)
    return times


def ratios(slow, fast):
    return [s / f for s, f in zip(slow, fast, strict=True)]


def spread(values, unit=1.0, digits=2):
    """Median, then interquartile range and min-max, as one short text."""
    q1, median, q3 = (q / unit for q in statistics.quantiles(values, n=4, method="inclusive"))
    low, high = min(values) / unit, max(values) / unit
    d = digits
    return f"{median:8.{d}f}  (IQR {q1:.{d}f}-{q3:.{d}f}, range {low:.{d}f}-{high:.{d}f})"


def report(title, t_native, t_plain, digits=2):
    """Prints both timings and their ratio, batch by batch; returns the ratio's median."""
    ratio = ratios(t_plain, t_native)
    print(title)
    print(f"  native         {spread(t_native, 1e-6, digits)}")
    print(f"  plain Python   {spread(t_plain, 1e-6, digits)}")
    print(f"  plain/native   {spread(ratio, digits=min(digits, 2))}")
    return statistics.median(ratio)
