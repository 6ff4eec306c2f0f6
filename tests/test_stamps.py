import decimal
import io
import os
import pathlib
import random
import re
import sys
import types
import typing

import pytest

from zobek_lumeno.utils import agent_skills as m

N = m.STAMP_HEAD_BYTES


SIZES = [("dir", N), ("missing", N), ("a\0b", N)] + [("f", n) for n in (12, 13, 0, None, -2, 2.5, 2**70)]


@pytest.mark.parametrize("name, size", SIZES)
def test_one_read_of_the_bound_head_size_then_closed(tmp_path, monkeypatch, plain, outcome, name, size):
    (tmp_path / "dir").mkdir()
    (tmp_path / "f").write_bytes(b"version: 1.0\n" * 1000)
    for module in (m, plain):
        monkeypatch.setattr(module, "STAMP_HEAD_BYTES", size)
    expected = outcome(plain.read_stamp, tmp_path / name)
    assert outcome(m.read_stamp, tmp_path / name) == expected
    reads, real_open = [], pathlib.Path.open

    class Spy(io.BufferedReader):
        def read(self, *args):
            reads.append((self, args))
            return super().read(*args)

    monkeypatch.setattr(pathlib.Path, "open", lambda self, mode: Spy(real_open(self, mode, buffering=0)))
    assert outcome(m.read_stamp, tmp_path / name) == expected
    # Closed however the read ends, though the handle is still referenced.
    assert [(args, handle.closed) for handle, args in reads] == ([((size,), True)] if name == "f" else [])


@pytest.mark.parametrize("length", [37, 1000, 100_000])
def test_long_digit_runs_exact(length):
    rng = random.Random(length)
    run = "7" + "".join(rng.choice("0123456789") for _ in range(length - 1))
    exact = int(decimal.Decimal(run))  # past the host's limit on int(str)
    assert m.version_tuple(f"00{run}x.{run}") == (exact, exact)


MATCH = re.search("(2.0)", "2.0")


class Opened:
    """What a replaced `open` may give: a head that decodes, with or without a length."""

    def __init__(self, length):
        self.length = length

    def open(self, mode):
        return self

    def __enter__(self):
        return self

    exits: typing.ClassVar[list] = []
    __exit__ = classmethod(lambda cls, *exc: cls.exits.append(exc))  # bound to the class: no plain method

    def read(self, size):
        head = {"decode": lambda s, *a: "#\nversion: 2.0", "__len__": lambda s: self.length()}
        return type("Head", (), head)()


@pytest.mark.parametrize(
    "length, found", [(lambda: 1 // 0, ZeroDivisionError), (lambda: 13, "2.0"), (lambda: N, None)]
)
def test_read_stamp_of_what_any_open_gives(monkeypatch, plain, outcome, length, found):
    # A search in Python that touches nothing: an error left pending before it would come out as another.
    pattern = types.SimpleNamespace(search=lambda text: MATCH if "version: 2.0" in text else None)
    for module in (m, plain):
        monkeypatch.setattr(module, "_VERSION_RE", pattern)
    Opened.exits.clear()
    expected = outcome(plain.read_stamp, Opened(length))
    assert outcome(m.read_stamp, Opened(length)) == expected and found in expected[:2]
    assert Opened.exits == [(None, None, None)] * 2


def test_version_tuple_asks_anything_but_str_to_split():
    odd = type("Text", (str,), {})("1.2")
    odd.split = lambda sep: ["7", "x"]
    assert m.version_tuple(odd) == (7, 0)
    with pytest.raises(TypeError, match=r"^expected string or bytes-like object, got 'int'$"):
        m.version_tuple(type("Odd", (), {"split": lambda self, sep: [5]})())
    with pytest.raises(TypeError, match=r"^cannot use a string pattern on a bytes-like object$"):
        m.version_tuple(type("Odd", (), {"split": lambda self, sep: [b"5"]})())


LINKS = {"out": "../outside", "hop": "../outside/back", "l1": "l2", "l2": "l1"}
# A loop of links, as the host's resolve takes it: RuntimeError in both modes until 3.12; from 3.13 the
# OSError of ELOOP when strict, and the path as it stands when not.
OLD_LOOPS = sys.version_info < (3, 13)


@pytest.mark.parametrize(
    "rel, strict, expected",
    [
        (".", True, "skills"),
        ("hop/file", True, "skills/a/file"),
        ("out", True, None),
        ("../skills-old/x", True, None),
        ("missing", True, FileNotFoundError),
        ("missing/x/../y", False, "skills/missing/y"),
        ("out/missing", False, None),
        ("l1", True, RuntimeError if OLD_LOOPS else OSError),
        ("l1", False, RuntimeError if OLD_LOOPS else "skills/l1"),
    ],
)
def test_inside_root(tmp_path, rel, strict, expected):
    t = tmp_path.resolve()
    for d in ["skills/a", "skills-old/x", "outside"]:
        (t / d).mkdir(parents=True)
    (t / "skills/a/file").write_text("x")
    os.symlink("../skills/a", t / "outside/back")
    for link, target in LINKS.items():
        os.symlink(target, t / "skills" / link)
    root = t / "skills"
    if isinstance(expected, type):
        with pytest.raises(expected):
            m.inside_root(root, root / rel, strict=strict)
    else:
        assert m.inside_root(root, root / rel, strict=strict) == (expected and t / expected)
