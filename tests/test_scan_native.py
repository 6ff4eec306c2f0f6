"""The survey on any tree: the native route answers, warns and opens as the plain route and as the plain
formulation do; the plain route runs whenever a host object it would reach is patched; and no file outside
is read while the tree changes."""

import os
import pathlib
import random
import re
import sys
import threading

import pytest
from pyfakefs.fake_filesystem_unittest import Patcher

from zobek_lumeno.utils import agent_skills as m

OUTSIDE = "version: 6.6.6\n"
DIR_KINDS = ["dir"] * 5 + ["missing", "link in", "link out", "file", "loop", "dangling"]
# Where a SKILL.md that is a link leads ("out" stands for the stamped file outside the tree's skills).
LINKS = {"link in": "../store/SKILL.md", "link out": "out", "dangling": "gone", "loop": "SKILL.md"}
LINKS |= {
    "dotdot": ".//./../../{skills}/store/./../store/SKILL.md",
    "chain": "one",
    "name too long": "x" * 300,
}
LINKS |= {"device": "/dev/zero", "non-UTF-8": os.fsdecode(b"n\xffm"), "up": ".."}  # "..": the skills dir
SKILL_KINDS = ["file"] * 4 + ["missing", "fifo", "dir", "dir out", "after head", *LINKS]
OPENED = []  # filled only while a survey records: a hook cannot be removed, and would grow forever
RECORDING = threading.Event()
sys.addaudithook(lambda event, args: RECORDING.is_set() and event == "open" and OPENED.append(args))


def make_skill(rng, skills, name, out):
    kind, path = rng.choice(SKILL_KINDS), skills / name / "SKILL.md"
    if kind == "dir out":
        (skills / name).symlink_to(out)
    elif kind != "missing":
        path.parent.mkdir()
    if kind == "file":  # about the head's size, with the stamp where the head may cut it
        size, stamp = rng.choice([99, 2047, 2048, 2049, 4000]), f"\nversion: {rng.randint(0, 20)}.0\n"
        data, at = b"\xff" + b"#" * size, max(0, rng.choice([1, 900, size - 14, size - 15, size - 16]))
        path.write_bytes((data[:at] + stamp.encode() + data[at:])[: rng.choice([size, size + 40])])
    elif kind == "dir":
        path.mkdir()
    elif kind == "fifo":
        os.mkfifo(path)
    elif kind == "after head":
        path.write_text("#" * 3000 + "\nversion: 1.0\n")
    elif kind in LINKS:
        target = LINKS[kind].format(skills=skills.name)
        path.symlink_to(out / "SKILL.md" if target == "out" else target)
        (path.parent / "one").symlink_to("../store/SKILL.md")  # for the chain
        (path.parent / LINKS["non-UTF-8"]).write_text("version: 3.3\n")


def build(rng, base):
    out, home = base / "out", base / "home"
    repo = base / ("repo" if rng.random() < 0.6 else os.fsdecode(b"r\xe9po"))
    out.mkdir()
    (out / "SKILL.md").write_text(OUTSIDE)
    for scope, at in (("user", home), ("project", repo)):
        for i, root in enumerate(m.read_roots(m.agent_roots(m.skill_capable_agents(), scope))):
            skills, kind = at / root, rng.choice(DIR_KINDS)
            skills.parent.mkdir(parents=True, exist_ok=True)
            if kind == "file":
                skills.write_text("x")
            if kind in ("loop", "dangling"):
                skills.symlink_to(skills.name if kind == "loop" else "no")
            if kind in ("file", "loop", "dangling"):
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


def survey(module, repo, own_logger, plain_route=False):
    """The survey's records, warnings (arguments, error, text) and the files its open events name."""
    warnings, logger = [], module.logger
    module.logger = own_logger(
        "survey", lambda r: warnings.append((r.args, repr(r.exc_info[1]), str(r.exc_info[1])))
    )
    module._UNREADABLE.clear()
    OPENED.clear()
    RECORDING.set()
    sys.setprofile((lambda *args: None) if plain_route else None)  # a profiler sees the host's calls
    try:
        return [tuple(r) for r in module.installed_skill_versions(repo)], warnings, OPENED[:]
    finally:
        sys.setprofile(None)
        RECORDING.clear()
        module.logger = logger


@pytest.mark.parametrize("seed", range(40))
def test_survey_of_random_trees(tmp_path, monkeypatch, plain, own_logger, seed):
    rng = random.Random(seed)
    home, repo = build(rng, tmp_path.resolve())
    monkeypatch.setenv("HOME", str(home))
    if seed % 3 == 0:  # a relative root, against the current directory
        monkeypatch.chdir(repo.parent)
        repo = pathlib.Path(repo.name)
    native = survey(m, repo, own_logger)
    assert native == survey(m, repo, own_logger, plain_route=True) == survey(plain, repo, own_logger)
    assert all(r[2] != "6.6.6" for r in native[0])


@pytest.fixture
def skills(tmp_path):
    skills = tmp_path.resolve() / "skills"
    for name, version in [("lumeno", "1.0"), ("store", "2.0")]:
        (skills / name).mkdir(parents=True)
        (skills / name / "SKILL.md").write_text(f"version: {version}\n")
    (skills / "lumeno-map").mkdir()
    (skills / "lumeno-map/SKILL.md").symlink_to("../store/SKILL.md")
    return skills


def test_a_skills_directory_that_is_the_file_system_root(monkeypatch, plain):
    # As reached through a link to "/": a skill's path below it starts right after that one slash.
    for module in (m, plain):
        monkeypatch.setattr(module, "SKILL_NAMES", ("proc",))
        monkeypatch.setattr(module, "SKILL_FILE", "version")
        monkeypatch.setattr(module, "_VERSION_RE", re.compile("^(Linux) version"))
    assert m._stamps_in(pathlib.Path("/")) == plain._stamps_in(pathlib.Path("/")) == {"proc": "Linux"}


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
