"""Per-call cost of ``installed_skill_versions`` over a fully populated home and repository, and how
much of it is the module's own work rather than the host's path methods.

Run after installing the package: ``python bench/bench_survey.py``.

The share is measured two ways: by replaying, in plain Python, exactly the file-system calls one survey
makes (home lookup, joins, strict resolves, containment tests, ``is_file``, open and one 2048-byte read)
and timing them alone; and by cProfile, whose per-call overhead inflates the host's Python-level methods
but attributes the time directly.
"""

import cProfile
import os
import pstats
import tempfile
import timeit
from pathlib import Path

from zobek_lumeno.utils import agent_skills as m

# The relative skills directories of each scope, filled once the module's tables are read.
ROOTS = {}
BODY = "".join(f"Line {i}: how the skill is used, with an example or two.\n" for i in range(80))


def populate(home, repo):
    """Every skills directory of every agent, in both scopes, with the three skills stamped."""
    for scope, base in (("user", home), ("project", repo)):
        for root in m.read_roots(m.agent_roots(m.skill_capable_agents(), scope)):
            for skill in m.SKILL_NAMES:
                path = base / root / skill / m.SKILL_FILE
                path.parent.mkdir(parents=True)
                path.write_text(f"---\nname: {skill}\nversion: 1.4.0\n---\n{BODY}")


def file_system_only(repo):
    """The host path calls of one survey, in its order, without the module around them."""
    bases = [("user", Path.home()), ("project", repo)]
    for scope, base in bases:
        for root in ROOTS[scope]:
            resolved = (base / root).resolve(strict=True)
            for skill in m.SKILL_NAMES:
                real = (resolved / skill / m.SKILL_FILE).resolve(strict=True)
                if real.is_relative_to(resolved) and real.is_file():
                    with real.open("rb") as handle:
                        handle.read(m.STAMP_HEAD_BYTES)


def best_of_interleaved(fns, number, repeat=15):
    """Best per-call time of each function, their batches alternating so a busy machine slows both alike."""
    times = [[] for _ in fns]
    for _ in range(repeat):
        for fn, seen in zip(fns, times, strict=True):
            seen.append(timeit.timeit(fn, number=number) / number)
    return [min(seen) for seen in times]


def main():
    with tempfile.TemporaryDirectory() as tmp:
        home, repo = Path(tmp).resolve() / "home", Path(tmp).resolve() / "app"
        populate(home, repo)
        os.environ["HOME"] = str(home)
        for scope in ("user", "project"):
            ROOTS[scope] = m.read_roots(m.agent_roots(m.skill_capable_agents(), scope))
        found = m.installed_skill_versions(repo)
        assert len(found) == 24 and all(r.installed == "1.4.0" and r.stale for r in found)

        number = 100
        total, host = best_of_interleaved(
            [lambda: m.installed_skill_versions(repo), lambda: file_system_only(repo)], number
        )
        print(f"installed_skill_versions, 8 directories, 24 stamped files: {total * 1e6:8.1f} us per call")
        print(
            f"  the same host path calls alone:                        {host * 1e6:8.1f} us "
            f"({host / total:5.1%})"
        )
        print(
            f"  the module's own work (the rest):                      {(total - host) * 1e6:8.1f} us "
            f"({1 - host / total:5.1%})"
        )

        def survey():
            for _ in range(number):
                m.installed_skill_versions(repo)

        profile = cProfile.Profile()
        profile.runcall(survey)
        stats = pstats.Stats(profile).stats
        # Every profiled entry below `survey` is host code (pathlib, posixpath, io, os); the module's
        # own functions are not Python frames, so their time stays in `survey` itself.
        own = sum(tt for (_, _, name), (_, _, tt, _, _) in stats.items() if name == "survey")
        everything = sum(tt for (_, _, tt, _, _) in stats.values())
        print(
            f"  under cProfile: host code {1 - own / everything:5.1%} of {everything / number * 1e6:.1f} us "
            f"per call, module {own / everything:5.1%} (profiler overhead inflates the host share)"
        )


if __name__ == "__main__":
    main()
