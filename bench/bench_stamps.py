"""Per-call cost of ``version_tuple`` against the plain-Python module's.

Run after installing the package: ``python bench/bench_stamps.py``. ``read_stamp``, bound by the file
system, is measured with the survey by ``bench/bench_survey.py``.
"""

import statistics

from benchlib import interleaved, load_plain, report
from zobek_lumeno.utils import agent_skills as native

plain = load_plain()
VERSIONS = ["1.5.0", "1.10.0rc1", "2024.05.17", "0.9.dev3"]
BATCHES, CALLS = 21, 20_000


def main():
    for v in VERSIONS:
        assert native.version_tuple(v) == plain.version_tuple(v), v
    calls = [lambda v=v, m=m: m.version_tuple(v) for m in (native, plain) for v in VERSIONS]
    times = interleaved(calls, CALLS, BATCHES)
    # Each batch's mean over the versions, so a ratio compares batches that ran side by side.
    t_native = [statistics.mean(batch) for batch in zip(*times[: len(VERSIONS)], strict=True)]
    t_plain = [statistics.mean(batch) for batch in zip(*times[len(VERSIONS) :], strict=True)]
    title = f"version_tuple, mean over {', '.join(VERSIONS)} (us per call; {BATCHES} batches)"
    report(title, t_native, t_plain, digits=3)


if __name__ == "__main__":
    main()
