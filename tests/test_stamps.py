import os
import pathlib
import random
import re
import sys

import pytest
from hypothesis import given
from hypothesis import strategies as st

from zobek_lumeno.utils import agent_skills as m

N = m.STAMP_HEAD_BYTES


def ending_at(size, tail):
    """A filler line, then ``tail`` so that it ends at byte ``size``."""
    return b"#" * (size - len(tail) - 1) + b"\n" + tail


FILES = {
    "front matter": (b"---\nname: lumeno\nversion: 1.2.3\ndescription: x\n---\n# Body\n", "1.2.3"),
    "capital V": (b"Version: 1.2.3\n", None),
    "indented": (b" version: 1.2.3\n", None),
    "bad lines then good": (
        b"version: v1.0\nversion: '1.1'\nversion: 1.2.3-rc.1_x\nversion: 9\n",
        "1.2.3-rc.1_x",
    ),
    "trailing comment": (b"version: 1.2.3 # pinned\n", None),
    "plus sign": (b"version: 1.2.3+local\n", None),
    "trailing blanks": (b"---\r\nversion: 2024.05 \t\xc2\xa0\r\n---\r\n", "2024.05"),
    "lone CR is no line end": (b"x\rversion: 1.0\n", None),
    "next line": (b"version:\n  1.4\n", "1.4"),
    "short, no final LF": (b"# x\nversion: 1.2.3", "1.2.3"),
    "full head, stamp unterminated": (ending_at(N, b"version: 9.9.9"), None),
    "one byte short of full": (ending_at(N - 1, b"version: 9.9.9"), "9.9.9"),
    "full head ends in LF": (ending_at(N, b"version: 7.0\n"), "7.0"),
    "straddles head end": (ending_at(N + 6, b"version: 3.0.0\n"), None),
    "straddles, earlier stamp": (b"version: 1.0\n" + ending_at(N + 6 - 13, b"version: 3.0.0\n"), "1.0"),
    "full head without LF": (b"version: 1.0" + b" " * (N + 50), None),
    "invalid UTF-8 around": (b"\xff\xfe bad\nversion: 1.2.3\n\xc3(\n", "1.2.3"),
    "after the head": ((b"#" * 99 + b"\n") * 21 + b"version: 1.0\n", None),
    "char split by head end": (ending_at(N + 2, b"version: 5.0\xc3\xa9\n"), None),
}


@pytest.mark.parametrize("data, expected", FILES.values(), ids=FILES.keys())
def test_read_stamp(tmp_path, data, expected):
    (tmp_path / "SKILL.md").write_bytes(data)
    assert m.read_stamp(tmp_path / "SKILL.md") == expected == m.read_stamp(path=tmp_path / "SKILL.md")


def outcome(call):
    fds = os.listdir("/proc/self/fd")
    try:
        result = call()
    except Exception as e:
        result = type(e), e.args, e.filename if isinstance(e, OSError) else None, str(e)
    assert os.listdir("/proc/self/fd") == fds  # closed on every way out
    return result


@pytest.mark.parametrize(
    "name, size, expected",
    [
        ("dir", N, IsADirectoryError),
        ("missing", N, FileNotFoundError),
        ("f/x", N, NotADirectoryError),
        ("loop", N, OSError),
        ("a\0b", N, ValueError),
        ("f", 12, None),
        ("f", 13, "1.0"),
        ("f", 0, None),
        ("f", -1, "1.0"),
        ("f", None, "1.0"),
        ("f", 10**7, "1.0"),
        ("f", -2, ValueError),
        ("f", 2.5, TypeError),
        ("f", "13", TypeError),
        ("f", 2**70, OverflowError),
    ],
)
def test_read_errors_and_head_sizes_as_the_host_reads_them(tmp_path, monkeypatch, name, size, expected):
    (tmp_path / "dir").mkdir()
    (tmp_path / "f").write_bytes(b"version: 1.0\n" * 1000)
    os.symlink("loop", tmp_path / "loop")
    monkeypatch.setattr(m, "STAMP_HEAD_BYTES", size)
    result = outcome(lambda: m.read_stamp(tmp_path / name))
    if isinstance(expected, type):
        assert issubclass(result[0], expected)
    else:
        assert result == expected


class Handle:
    def __init__(self, inner, fail):
        self.inner, self.fail, self.reads = inner, fail, []

    def read(self, *args):
        self.reads.append(args)
        if self.fail:
            raise self.fail
        return self.inner.read(*args)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        return self.inner.__exit__(*exc)


@pytest.mark.parametrize("fail", [None, OSError(5, "Input/output error")])
def test_reads_head_once_and_closes(tmp_path, monkeypatch, fail):
    f = tmp_path / "big.md"
    f.write_bytes(b"---\nversion: 4.2\n---\n" + b"x" * (8 << 20))
    handles, real = [], pathlib.Path.open
    monkeypatch.setattr(
        pathlib.Path, "open", lambda self, *a: handles.append(Handle(real(self, *a), fail)) or handles[-1]
    )
    if fail:
        with pytest.raises(OSError) as caught:
            m.read_stamp(f)
        assert caught.value is fail
    else:
        assert m.read_stamp(f) == "4.2"
    [h] = handles
    assert h.reads == [(N,)] and h.inner.closed


def test_read_stamp_late_binding(tmp_path, monkeypatch):
    (tmp_path / "f").write_bytes(b"release=7\nversion: 1.0\n")
    monkeypatch.setattr(m, "STAMP_HEAD_BYTES", 8)
    assert m.read_stamp(tmp_path / "f") is None
    monkeypatch.setattr(m, "STAMP_HEAD_BYTES", 100)
    monkeypatch.setattr(m, "_VERSION_RE", re.compile(r"^release=(\w+)", re.M))
    assert m.read_stamp(tmp_path / "f") == "7"


@pytest.mark.parametrize(
    "v, key",
    [
        ("1.10.0", (1, 10, 0)),
        ("1.10", (1, 10)),
        ("1.2.3rc1", (1, 2, 3)),
        ("2.0-beta", (2, 0)),
        ("1.2.dev4", (1, 2, 0)),
        ("v1.2", (0, 2)),
        ("01.002", (1, 2)),
        ("1..2", (1, 0, 2)),
        ("1.2.", (1, 2, 0)),
        ("", (0,)),
        ("0000", (0,)),
        (" 1", (0,)),
        ("-3", (0,)),
        ("1_000", (1,)),
        ("\u0661\u0662.\uff13\uff14", (12, 34)),
        ("\u0967\u0966.\u00b2", (10, 0)),
        ("18446744073709551616", (2**64,)),
        ("9" * 19, (10**19 - 1,)),
        ("0" * 30 + "7", (7,)),
    ],
)
def test_version_tuple(v, key):
    got = m.version_tuple(v)
    assert got == key and all(type(x) is int for x in got)


def test_version_order():
    keys = [m.version_tuple(v) for v in ["1.2.dev4", "1.9.9", "1.10", "1.10.0", "2.0.0rc1", "9", "10"]]
    assert keys == sorted(keys) and len(set(keys)) == len(keys)
    assert m.version_tuple("2.0.0rc1") == m.version_tuple("2.0.0")


@pytest.fixture
def no_int_limit():
    old = sys.get_int_max_str_digits()
    sys.set_int_max_str_digits(0)
    yield
    sys.set_int_max_str_digits(old)


@pytest.mark.parametrize("length", [37, 1000, 100_000])
def test_long_digit_runs_exact(no_int_limit, length):
    rng = random.Random(length)
    run = "7" + "".join(rng.choice("0123456789") for _ in range(length - 1))
    assert m.version_tuple(f"00{run}x.{run}") == (int(run), int(run))


@given(st.text())
def test_version_tuple_never_fails(v):
    old = sys.get_int_max_str_digits()
    sys.set_int_max_str_digits(0)
    try:
        expected = tuple(int(x.group()) if (x := re.match(r"\d+", p)) else 0 for p in v.split("."))
        assert m.version_tuple(v) == expected
    finally:
        sys.set_int_max_str_digits(old)


def test_version_tuple_asks_anything_but_str_to_split():
    class Dashed(str):
        def split(self, sep=None, maxsplit=-1):
            return str.split(self.replace("-", "."), sep, maxsplit)

    odd = type("Text", (str,), {})("1.2")
    odd.split = lambda sep: ["7", "x"]
    assert m.version_tuple(Dashed("1-2.3")) == (1, 2, 3) and m.version_tuple(odd) == (7, 0)
    with pytest.raises(TypeError, match=r"^expected string or bytes-like object, got 'int'$"):
        m.version_tuple(type("Odd", (), {"split": lambda self, sep: [5]})())


@pytest.mark.parametrize(
    "rel, strict, expected",
    [
        (".", True, "skills"),
        ("a/file", True, "skills/a/file"),
        ("in/file", True, "skills/a/file"),
        ("hop/file", True, "skills/a/file"),
        ("out", True, None),
        ("../skills-old/x", True, None),
        ("missing", True, FileNotFoundError),
        ("missing/x/../y", False, "skills/missing/y"),
        ("out/missing", False, None),
        ("a/file/child", True, NotADirectoryError),
        ("l1", True, RuntimeError),
        ("l1", False, RuntimeError),
    ],
)
def test_inside_root(tmp_path, rel, strict, expected):
    t = tmp_path.resolve()
    for d in ["skills/a", "skills-old/x", "outside"]:
        (t / d).mkdir(parents=True)
    (t / "skills/a/file").write_text("x")
    for link, target in [
        ("skills/in", "a"),
        ("skills/out", "../outside"),
        ("skills/hop", "../outside/back"),
        ("outside/back", "../skills/a"),
        ("skills/l1", "l2"),
        ("skills/l2", "l1"),
    ]:
        os.symlink(target, t / link)
    root = t / "skills"
    if isinstance(expected, type):
        with pytest.raises(expected):
            m.inside_root(root, root / rel, strict=strict)
    else:
        assert m.inside_root(root, root / rel, strict=strict) == (expected and t / expected)
