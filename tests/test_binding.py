"""Late binding: every name the functions use is looked up when it is used, so a name rebound or deleted on
the module changes the next call exactly as it changes the plain formulation's; and the host's objects that
the calls reach see the same calls, in the same order, as from a Python source."""

import io
import itertools
import os
import pathlib
import re

import pytest

from zobek_lumeno.utils import agent_skills as m

ALL = ["claude", "cursor-agent", "windsurf", "copilot"]
# One call of each kind; the arguments are made for the module called, from the tree in `base`.
CALLS = {
    "choice": lambda mod, base: mod.resolve_skill_dirs(ALL, "user"),
    "command": lambda mod, base: mod._update_command("project", ".github/skills", base / "my app"),
    "survey": lambda mod, base: [tuple(r) for r in mod.installed_skill_versions(base / "repo")],
    "scan": lambda mod, base: mod._stamps_in(base / "repo/.claude/skills"),
    "read": lambda mod, base: mod.read_stamp(base / "repo/.claude/skills/lumeno/SKILL.md"),
    "stale": lambda mod, base: mod.InstalledSkill("a", base, "1.0", "2.0", "user", None).stale,
    "word": lambda mod, base: mod._shell_word("a b"),
    "unreadable": lambda mod, base: mod._say_unreadable(base / "x"),
}
LOG = []


def counting(name, own):
    return lambda *args, **kwargs: LOG.append(name) or own(*args, **kwargs)


# What each name is rebound to on both modules; a function stands for one that counts its calls.
OTHER = {
    "itertools": lambda mod: type(
        "Counted", (), {"__getattr__": lambda s, n: counting(n, getattr(itertools, n))}
    )(),
    "Path": lambda mod: counting("Path", pathlib.Path),
    "__version__": lambda mod: "0.9.dev1",
    "logger": lambda mod: type("Quiet", (), {"warning": lambda *a, **k: LOG.append("warned")})(),
    "SKILL_NAMES": lambda mod: ("lumeno-wiki", "lumeno", "elsewhere", ["un", "hashable"]),
    "SKILL_FILE": lambda mod: "OTHER.md",
    "STAMP_HEAD_BYTES": lambda mod: 12,
    "_VERSION_RE": lambda mod: re.compile(r"^name: (\w+)", re.M),
    "DEFAULT_AGENTS": lambda mod: ("copilot",),
    "AGENT_SKILL_ROOTS": lambda mod: dict(list(m.AGENT_SKILL_ROOTS.items())[::-1]),
    "_EXHAUSTIVE_SEARCH_LIMIT": lambda mod: 1,
    "_UNREADABLE": lambda mod: type(
        "Counted", (set,), {"add": lambda s, k: LOG.append("add") or set.add(s, k)}
    )(),
    "_PLAIN_WORD": lambda mod: re.compile("a b"),
}
FUNCTIONS = [name for name, f in vars(m).items() if type(f) is type(m.read_stamp)] + ["InstalledSkill"]


@pytest.fixture
def base(tmp_path, monkeypatch, plain, own_logger):
    base = tmp_path.resolve()
    monkeypatch.setenv("HOME", str(base / "home"))
    for rel, text in [("repo/.claude/skills/lumeno/SKILL.md", "---\nname: x\nversion: 1.2\n---\n")]:
        (base / rel).parent.mkdir(parents=True)
        (base / rel).write_text(text)
        (base / rel).with_name("OTHER.md").write_text("version: 3.4\n")
    (base / "repo/.github").mkdir()
    (base / "repo/.github/skills").symlink_to("skills")  # a loop: a warning for the project scope
    for module in (m, plain):
        monkeypatch.setattr(module, "_UNREADABLE", set())
    # Both modules log through one logger of the tests' own: each warning goes with the call that made it.
    logger = own_logger(m.__name__, lambda r: LOG.append((r.args, type(r.exc_info[1]).__name__)))
    for module in (m, plain):
        monkeypatch.setattr(module, "logger", logger)
    return base


def each_call(mod, base, outcome):
    results = {}
    for what, call in CALLS.items():
        LOG.clear()
        results[what] = outcome(call, mod, base), LOG[:]
    return results


@pytest.mark.parametrize("name", [*OTHER, *FUNCTIONS])
def test_a_rebound_name_is_what_the_next_call_uses(monkeypatch, plain, outcome, base, name):
    for module in (m, plain):
        other = OTHER[name](module) if name in OTHER else counting(name, getattr(module, name))
        monkeypatch.setattr(module, name, other)
    assert each_call(m, base, outcome) == each_call(plain, base, outcome)


@pytest.mark.parametrize("name", [n for n in vars(m) if not n.startswith("__") or n == "__version__"])
def test_a_deleted_name_fails_the_call_that_uses_it_first(monkeypatch, plain, outcome, base, name):
    for module in (m, plain):
        monkeypatch.delattr(module, name)
    assert each_call(m, base, outcome) == each_call(plain, base, outcome)


ERRORS = [PermissionError(13, "Denied"), RuntimeError("Symlink loop"), FileNotFoundError(2, "No such file")]
ERRORS += [NotADirectoryError(20, "Not a directory"), ValueError("no file-system failure")]
OBJECTS = [(os, "lstat"), (os, "readlink"), (os, "stat"), (os.path, "realpath"), (io, "open")]
OBJECTS += [
    (pathlib.Path, n) for n in ("resolve", "open", "is_file", "is_relative_to", "__truediv__", "as_posix")
]
# Spied on, or failing on one path: not there, unreadable (logged once) or propagated, as each error is taken.
HOST = [(owner, name, None, None) for owner, name in OBJECTS]
HOST += [
    (pathlib.Path, name, end, error)
    for name, end in [("resolve", "skills"), ("resolve", "SKILL.md"), ("is_file", ".md"), ("open", ".md")]
    for error in ERRORS
]


@pytest.mark.parametrize("owner, name, end, error", HOST, ids=lambda x: getattr(x, "__name__", repr(x)))
def test_a_patched_host_object_sees_the_calls_a_python_source_makes(
    monkeypatch, plain, outcome, base, owner, name, end, error
):
    real = getattr(owner, name)

    def patched(*args, **kwargs):
        LOG.append((name, *map(str, args), *kwargs.items()))
        if end and str(args[0]).endswith(end):
            raise error
        return real(*args, **kwargs)

    monkeypatch.setattr(owner, name, patched)
    calls = each_call(m, base, outcome)
    assert calls == each_call(plain, base, outcome) and any(log for _, log in calls.values())
