"""The scan's native route: the plain route's answers, warnings and audit events on any tree, the plain
route whenever a host object it would reach is patched, and no read outside while the tree changes."""

import io
import logging
import os
import pathlib
import random
import sys
import threading

import pytest
from pyfakefs.fake_filesystem_unittest import Patcher

from zobek_lumeno.utils import agent_skills as m

OUTSIDE = "version: 6.6.6\n"
DIR_KINDS = ["dir"] * 5 + ["missing", "link in", "link out", "file", "loop", "dangling"]
SKILL_KINDS = ["file"] * 4 + ["missing", "link in", "link out", "dangling", "loop", "fifo", "dir", "dir out"]
SKILL_KINDS += ["after head", "dotdot", "chain", "non-UTF-8", "name too long"]
OPENED = []  # filled only while a survey records: a hook cannot be removed, and would grow forever
RECORDING = threading.Event()
sys.addaudithook(lambda event, args: RECORDING.is_set() and event == "open" and OPENED.append(args))


def make_skill(rng, skills, name, out):
    kind, path = rng.choice(SKILL_KINDS), skills / name / "SKILL.md"
    if kind == "missing":
        return
    if kind == "dir out":
        return (skills / name).symlink_to(out)
    path.parent.mkdir()
    if kind == "file":  # about the head's size, with the stamp where the head may cut it
        size, stamp = (
            rng.choice([99, 2047, 2048, 2049, 4000]),
            f"\nversion: {rng.randint(0, 20)}.0\n".encode(),
        )
        data = b"\xff" + b"#" * size
        at = max(0, rng.choice([1, 900, size - 14, size - 15, size - 16]))
        path.write_bytes((data[:at] + stamp + data[at:])[: rng.choice([size, size + 40])])
    elif kind in ("dir", "fifo"):
        path.mkdir() if kind == "dir" else os.mkfifo(path)
    elif kind == "after head":
        path.write_text("#" * 3000 + "\nversion: 1.0\n")
    elif kind == "non-UTF-8":
        (path.parent / os.fsdecode(b"n\xffm")).write_text("version: 3.3\n")
        path.symlink_to(os.fsdecode(b"n\xffm"))
    else:
        targets = {
            "link in": "../store/SKILL.md",
            "link out": out / "SKILL.md",
            "dangling": "gone",
            "loop": "SKILL.md",
        }
        targets |= {
            "dotdot": f"../../{skills.name}/store/../store/SKILL.md",
            "chain": "one",
            "name too long": "x" * 300,
        }
        path.symlink_to(targets[kind])
        if kind == "chain":
            (path.parent / "one").symlink_to("../store/SKILL.md")


def build(rng, base):
    out, home = base / "out", base / "home"
    repo = base / ("repo" if rng.random() < 0.6 else os.fsdecode(b"r\xe9po"))
    out.mkdir()
    (out / "SKILL.md").write_text(OUTSIDE)
    for scope, at in (("user", home), ("project", repo)):
        for i, root in enumerate(m.read_roots(m.agent_roots(m.skill_capable_agents(), scope))):
            skills, kind = at / root, rng.choice(DIR_KINDS)
            skills.parent.mkdir(parents=True, exist_ok=True)
            if kind in ("file", "loop", "dangling"):
                skills.write_text("x") if kind == "file" else skills.symlink_to(
                    {"loop": skills.name}.get(kind, "no")
                )
                continue
            if kind.startswith("link"):
                target = (at if kind == "link in" else out) / f"{scope}{i}"
                skills.symlink_to(os.path.relpath(target, skills.parent))
                skills = target
            if kind != "missing":
                skills.mkdir()
                for name in (*m.SKILL_NAMES, "store"):
                    make_skill(rng, skills, name, out)
    return home, repo


def survey(repo, plain):
    """The survey's records, warnings (error class, errno, text) and the files its open events name."""
    warnings, handler = [], logging.Handler()
    handler.emit = lambda r: warnings.append((r.args, repr(r.exc_info[1]), str(r.exc_info[1])))
    m.logger.addHandler(handler)
    m._UNREADABLE.clear()
    OPENED.clear()
    RECORDING.set()
    sys.setprofile((lambda *args: None) if plain else None)  # a profiler sees the host's calls
    try:
        return m.installed_skill_versions(repo), warnings, OPENED[:]
    finally:
        sys.setprofile(None)
        RECORDING.clear()
        m.logger.removeHandler(handler)


@pytest.mark.parametrize("seed", range(40))
def test_both_routes_answer_alike(tmp_path, monkeypatch, seed):
    rng = random.Random(seed)
    home, repo = build(rng, tmp_path.resolve())
    monkeypatch.setenv("HOME", str(home))
    monkeypatch.setattr(m, "_UNREADABLE", set())
    monkeypatch.setattr(m.logger, "propagate", False)  # no handler reads source files for tracebacks
    if seed % 3 == 0:  # a relative root, against the current directory
        monkeypatch.chdir(repo.parent)
        repo = pathlib.Path(repo.name)
    native = survey(repo, plain=False)
    assert native == survey(repo, plain=True)
    assert all(r.installed != "6.6.6" for r in native[0])


@pytest.fixture
def skills(tmp_path):
    skills = tmp_path.resolve() / "skills"
    for name, version in [("lumeno", "1.0"), ("store", "2.0")]:
        (skills / name).mkdir(parents=True)
        (skills / name / "SKILL.md").write_text(f"version: {version}\n")
    (skills / "lumeno-map").mkdir()
    (skills / "lumeno-map/SKILL.md").symlink_to("../store/SKILL.md")
    return skills


@pytest.mark.parametrize(
    "owner, name",
    [(os, "lstat"), (os, "readlink"), (os, "stat"), (os.path, "realpath"), (io, "open")]
    + [(pathlib.Path, name) for name in ("resolve", "open", "is_file", "is_relative_to", "__truediv__")],
)
def test_a_patched_host_object_is_what_the_scan_calls(skills, monkeypatch, owner, name):
    calls, real = [], getattr(owner, name)

    def spy(*args, **kwargs):
        calls.append(name)
        return real(*args, **kwargs)

    monkeypatch.setattr(owner, name, spy)
    assert m._stamps_in(skills) == {"lumeno": "1.0", "lumeno-map": "2.0", "lumeno-wiki": None}
    assert calls
    if name in ("open", "resolve", "is_file"):  # read_stamp alone goes through open too
        calls.clear()
        assert m.read_stamp(skills / "store/SKILL.md") == "2.0" and calls == ["open"] * (name == "open")


def test_under_a_fake_file_system_the_host_objects_answer(monkeypatch):
    with Patcher() as patcher:
        patcher.fs.create_file("/home/u/.claude/skills/lumeno/SKILL.md", contents="version: 1.2.3\n")
        patcher.fs.create_file("/repo/.windsurf/skills/lumeno-map/SKILL.md", contents="version: 0.1\n")
        patcher.fs.create_symlink("/repo/.github/skills/lumeno", "/home/u/.claude/skills/lumeno")  # out
        patcher.fs.create_symlink("/repo/.cursor/skills/lumeno", "/elsewhere")
        monkeypatch.setenv("HOME", "/home/u")
        found = {
            (r.scope, str(r.directory), r.skill): r.installed
            for r in m.installed_skill_versions(pathlib.Path("/repo"))
        }
    assert {key: v for key, v in found.items() if v} == {
        ("user", "/home/u/.claude/skills", "lumeno"): "1.2.3",
        ("project", "/repo/.windsurf/skills", "lumeno-map"): "0.1",
    }


@pytest.mark.parametrize("swap_in", ["link out", "fifo"])
def test_a_file_swapped_while_scanning_is_never_read_outside(skills, swap_in):
    """Another thread keeps replacing a SKILL.md by a link out of the directory or a FIFO; every scan
    answers with the file's stamp or None, and none blocks."""
    path, (spare, odd) = skills / "lumeno/SKILL.md", (skills / "lumeno/spare", skills / "lumeno/odd")
    (skills.parent / "SKILL.md").write_text(OUTSIDE)
    done = threading.Event()

    def swap():
        while not done.is_set():
            spare.write_text("version: 1.0\n")
            odd.symlink_to(skills.parent / "SKILL.md") if swap_in == "link out" else os.mkfifo(odd)
            os.replace(odd, path)
            os.replace(spare, path)

    swapper = threading.Thread(target=swap)
    swapper.start()
    OPENED.clear()
    RECORDING.set()
    try:
        seen = {m._stamps_in(skills)["lumeno"] for _ in range(3000)}
    finally:
        RECORDING.clear()
        done.set()
        swapper.join()
    assert seen <= {"1.0", None} and "1.0" in seen
    assert str(path) in {args[0] for args in OPENED}
    assert [args for args in OPENED if not args[0].startswith(f"{skills}/")] == []
