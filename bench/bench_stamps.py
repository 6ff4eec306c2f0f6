"""Per-call cost of ``version_tuple`` and ``read_stamp`` against plain-Python formulations.

Run after installing the package: ``python bench/bench_stamps.py``.
"""

import re
import tempfile
import timeit
from pathlib import Path

from zobek_lumeno.utils import agent_skills as native

STAMP_HEAD_BYTES = 2048
_VERSION_RE = re.compile(r"^version:\s*([0-9][\w.\-]*)\s*$", re.MULTILINE)
_DIGITS = re.compile(r"\d+")


def version_tuple(v):
    return tuple(int(m.group()) if (m := _DIGITS.match(p)) else 0 for p in v.split("."))


def read_stamp(path):
    with path.open("rb") as handle:
        head = handle.read(STAMP_HEAD_BYTES)
    text = head.decode("utf-8", "replace")
    if len(head) == STAMP_HEAD_BYTES:
        text = text[: text.rfind("\n") + 1]
    match = _VERSION_RE.search(text)
    return match.group(1) if match else None


def best(fn, arg, number, repeat=7):
    return min(timeit.repeat(lambda: fn(arg), number=number, repeat=repeat)) / number


def compare(label, ours, theirs, args, number):
    for arg in args:
        assert ours(arg) == theirs(arg), arg
    t_native = sum(best(ours, a, number) for a in args) / len(args)
    t_python = sum(best(theirs, a, number) for a in args) / len(args)
    print(
        f"{label:<20} native {t_native * 1e6:8.3f} us   python {t_python * 1e6:8.3f} us   "
        f"speed-up {t_python / t_native:5.2f}x"
    )


def skill_file(directory):
    front = "---\nname: lumeno\nversion: 1.5.0\ndescription: Reads and writes the project map.\n---\n"
    body = "".join(f"Line {i}: how the skill is used, with an example or two.\n" for i in range(200))
    path = Path(directory) / "SKILL.md"
    path.write_text(front + body)
    assert path.stat().st_size > 2 * STAMP_HEAD_BYTES
    return path


def main():
    versions = ["1.5.0", "1.10.0rc1", "2024.05.17", "0.9.dev3"]
    compare("version_tuple", native.version_tuple, version_tuple, versions, 100_000)
    with tempfile.TemporaryDirectory() as d:
        path = skill_file(d)
        compare("read_stamp", native.read_stamp, read_stamp, [path], 20_000)


if __name__ == "__main__":
    main()
