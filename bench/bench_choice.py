"""Per-call cost of the directory-set search against the same search written in plain Python.

Run after installing the package: python bench/bench_choice.py
"""

import gc
import itertools
import timeit

from zobek_lumeno.utils import agent_skills as m

ALL = ["claude", "cursor-agent", "windsurf", "copilot"]
REPEATS = 7


# The search as a plain Python module would write it, over the same table.
def py_agent_roots(agent_keys, scope):
    roots = {}
    for key in dict.fromkeys(agent_keys):
        entry = m.AGENT_SKILL_ROOTS.get(key)
        if entry is None:
            continue
        dirs = entry.user if scope == "user" else entry.project
        if dirs:
            roots[key] = dirs
    return roots


def py_read_roots(roots):
    return sorted({d for dirs in roots.values() for d in dirs})


def py_score(selection, roots):
    chosen = set(selection)
    duplicates = native_rank = 0
    for agent_dirs in roots.values():
        hits = [i for i, d in enumerate(agent_dirs) if d in chosen]
        if not hits:
            return None
        duplicates += len(hits) - 1
        native_rank += hits[0]
    return (duplicates, native_rank, len(selection), selection)


def py_resolve_skill_dirs(agent_keys, scope="project"):
    roots = py_agent_roots(agent_keys, scope)
    if not roots:
        return []
    candidates = py_read_roots(roots)
    if len(candidates) > m._EXHAUSTIVE_SEARCH_LIMIT:
        greedy = []
        for dirs in roots.values():
            if not any(d in greedy for d in dirs):
                greedy.append(dirs[0])
        return sorted(set(greedy))
    best = None
    best_selection = []
    for size in range(1, len(candidates) + 1):
        for selection in itertools.combinations(candidates, size):
            score = py_score(selection, roots)
            if score is not None and (best is None or score < best):
                best, best_selection = score, list(selection)
    return sorted(best_selection)


def per_call(*calls):
    """Best per-call time of each call; repeats interleaved so drift hits all of them alike."""
    timers = [timeit.Timer(lambda fn=fn, args=args: fn(*args)) for fn, args in calls]
    numbers = [timer.autorange()[0] for timer in timers]
    best = [float("inf")] * len(timers)
    for _ in range(REPEATS):
        for i, (timer, number) in enumerate(zip(timers, numbers, strict=True)):
            best[i] = min(best[i], timer.timeit(number) / number)
    return best


def compare(title, keys):
    native, plain = m.resolve_skill_dirs(keys), py_resolve_skill_dirs(keys)
    assert native == plain, (native, plain)
    t_native, t_plain = per_call((m.resolve_skill_dirs, (keys,)), (py_resolve_skill_dirs, (keys,)))
    print(title)
    print(
        f"  native        {t_native * 1e6:12.3f} us/call   -> {native[:3]}{' ...' if len(native) > 3 else ''}"
    )
    print(f"  plain Python  {t_plain * 1e6:12.3f} us/call")
    print(f"  ratio         {t_plain / t_native:12.1f}x")
    return t_plain / t_native


def rss_kib():
    with open("/proc/self/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    raise RuntimeError("no VmRSS in /proc/self/status")


def main():
    ratio_a = compare("(a) all four agents, project scope", ALL)

    shipped = m.AGENT_SKILL_ROOTS
    extra = {f"extra{i}": m.SkillRoots(project=(f".extra{i:02}/skills",), user=()) for i in range(8)}
    m.AGENT_SKILL_ROOTS = {**shipped, **extra}
    try:
        keys = list(m.AGENT_SKILL_ROOTS)
        assert len(m.read_roots(m.agent_roots(keys, "project"))) == 12
        ratio_b = compare("(b) 12 candidates, 4095 selections scored", keys)
    finally:
        m.AGENT_SKILL_ROOTS = shipped

    calls = 1_000_000
    resolve = m.resolve_skill_dirs
    for _ in range(10_000):
        resolve(ALL)
    gc.collect()
    before = rss_kib()
    for _ in range(calls):
        resolve(ALL)
    gc.collect()
    after = rss_kib()
    print(f"memory over {calls:,} calls of (a)")
    print(f"  VmRSS after warm-up  {before:8d} KiB")
    print(f"  VmRSS after calls    {after:8d} KiB")
    print(f"  difference           {after - before:8d} KiB")

    print()
    print(f"target (a) >= 10x:  {'met' if ratio_a >= 10 else 'MISSED'} ({ratio_a:.1f}x)")
    print(f"target (b) >= 100x: {'met' if ratio_b >= 100 else 'MISSED'} ({ratio_b:.1f}x)")
    print(f"target RSS within 1 MiB: {'met' if after - before <= 1024 else 'MISSED'}")


if __name__ == "__main__":
    main()
