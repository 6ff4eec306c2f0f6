"""Per-call cost of the directory-set search against the plain-Python module's.

Run after installing the package: python bench/bench_choice.py
"""

import gc

from benchlib import interleaved, load_plain, report
from zobek_lumeno.utils import agent_skills as m

plain = load_plain()
ALL = ["claude", "cursor-agent", "windsurf", "copilot"]
BATCHES = 15


def compare(title, keys, number):
    native, python = m.resolve_skill_dirs(keys), plain.resolve_skill_dirs(keys)
    assert native == python, (native, python)
    t_native, t_plain = interleaved(
        [lambda: m.resolve_skill_dirs(keys), lambda: plain.resolve_skill_dirs(keys)], number, BATCHES
    )
    shown = f"{native[:3]}{' ...' if len(native) > 3 else ''}"
    return report(f"{title} (us per call; {BATCHES} batches)  -> {shown}", t_native, t_plain, digits=3)


def rss_kib():
    with open("/proc/self/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    raise RuntimeError("no VmRSS in /proc/self/status")


def main():
    ratio_a = compare("(a) all four agents, project scope", ALL, 5000)

    # Both modules read the table when called, so eight more agents rebound on each make 12 candidates.
    extra = {f"extra{i}": m.SkillRoots(project=(f".extra{i:02}/skills",), user=()) for i in range(8)}
    shipped = m.AGENT_SKILL_ROOTS, plain.AGENT_SKILL_ROOTS
    m.AGENT_SKILL_ROOTS, plain.AGENT_SKILL_ROOTS = {**shipped[0], **extra}, {**shipped[1], **extra}
    try:
        keys = list(m.AGENT_SKILL_ROOTS)
        assert len(m.read_roots(m.agent_roots(keys, "project"))) == 12
        ratio_b = compare("(b) 12 candidates, 4095 selections scored", keys, 20)
    finally:
        m.AGENT_SKILL_ROOTS, plain.AGENT_SKILL_ROOTS = shipped

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
