"""Robustness: no reference leaks, no crash or SystemError whatever the arguments, the same
answers under threads, no read outside the skills directories, and a clean life in
sub-interpreters and across re-imports."""

import gc
import inspect
import json
import logging
import os
import pathlib
import re
import subprocess
import sys
import textwrap
import threading
import types
from contextlib import contextmanager, nullcontext, suppress
from unittest import mock

import pytest
from hypothesis import HealthCheck, example, given, settings
from hypothesis import strategies as st

from zobek_lumeno.utils import agent_skills as m

NAME = "zobek_lumeno.utils.agent_skills"
Path = pathlib.Path
AGENTS = ["claude", "cursor-agent", "windsurf", "copilot"]
OWN_SCORE = m._score
ROUNDS = 1000


class Raising:
    """Raises from the special methods named; otherwise a hashable iterable of agent keys."""

    def __init__(self, *methods):
        self.methods = methods

    def __repr__(self):
        return f"Raising{self.methods}"


def _special(name, answer):
    def method(self, *args):
        if name in self.methods:
            raise ValueError(f"{name} raised")
        return answer(self, *args)

    return method


ANSWERS = {
    "eq": lambda s, o: s is o,
    "hash": id,
    "str": repr,
    "iter": lambda s: iter(AGENTS),
    "len": lambda s: len(AGENTS),
    "bool": lambda s: True,
}
for _name, _answer in ANSWERS.items():
    setattr(Raising, f"__{_name}__", _special(_name, _answer))
RAISING_KINDS = [(name,) for name in ANSWERS] + [tuple(ANSWERS)]
EQ, HASH, STR, ITER = (Raising(name) for name in ("eq", "hash", "str", "iter"))


class Text(str):
    pass


class Pieces:
    """Not a str, but splits into the pieces given."""

    def __init__(self, *pieces):
        self.pieces = pieces

    def split(self, sep):
        return list(self.pieces)


def midway(items):
    yield from items
    raise ValueError("failed midway")


def deny(self, *args, **kwargs):
    raise PermissionError(13, "Permission denied", str(self))


def homeless():
    raise RuntimeError("Could not determine home directory.")


@contextmanager
def unbound(name):
    saved = getattr(m, name)
    delattr(m, name)
    try:
        yield
    finally:
        setattr(m, name, saved)


def build(files, links=()):
    for path, text in files.items():
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
    for link, target in dict(links).items():
        link.parent.mkdir(parents=True, exist_ok=True)
        link.symlink_to(target)


def populate(base):
    """A home and a repository with stamps, links out and back in, a loop and a full head."""
    base = base.resolve()
    home, repo, out = base / "home", base / "repo", base / "outside"
    files = {
        home / ".claude/skills/lumeno/SKILL.md": "---\nname: lumeno\nversion: 1.4.0\n---\n",
        home / ".claude/skills/lumeno-map/SKILL.md": "version: 1.5.0\n",
        home / ".cursor/skills/lumeno-wiki/SKILL.md": "version: 1.0.0\n",
        repo / ".claude/skills/lumeno/SKILL.md": "version: 1.5.0\n",
        repo / ".claude/skills/lumeno-map/SKILL.md": "version: 1.1.0\n",
        repo / ".github/skills/real/SKILL.md": "version: 2.0.0\n",
        out / "lumeno/SKILL.md": "version: 9.9.9\n",
        base / "long.md": "#" * 2000 + "\nversion: 3.0.0\n" + "#" * 100,
    }
    links = {
        repo / ".github/skills/lumeno": "real",
        repo / ".windsurf/skills/lumeno": out / "lumeno",
        repo / ".claude/skills/escape": out,
        repo / ".claude/skills/loop": "loop",
    }
    build(files, links)
    root = repo / ".claude/skills"
    return types.SimpleNamespace(base=base, home=home, repo=repo, root=root, stamped=root / "lumeno/SKILL.md")


@pytest.fixture(scope="module")
def tree(tmp_path_factory):
    t = populate(tmp_path_factory.mktemp("tree"))
    with pytest.MonkeyPatch.context() as mp:
        mp.setenv("HOME", str(t.home))
        yield t


def run_python(code, **env):
    result = subprocess.run(
        [sys.executable, "-c", textwrap.dedent(code)],
        capture_output=True,
        text=True,
        timeout=300,
        env={**os.environ, **env},
    )
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout.splitlines()[-1])


# --- reference leaks -----------------------------------------------------------------

RECORD = m.InstalledSkill("lumeno", Path("/x"), "1.2.3", "1.10.0", "project", None)
PROJECT_ROOTS = m.agent_roots(AGENTS, "project")
CONDITIONS = {
    "": nullcontext,
    "denied": lambda: mock.patch.object(Path, "resolve", deny),
    "homeless": lambda: mock.patch.object(Path, "home", staticmethod(homeless)),
    "greedy": lambda: mock.patch.object(m, "_EXHAUSTIVE_SEARCH_LIMIT", 0),
    "generic": lambda: mock.patch.object(m, "_score", lambda s, r: OWN_SCORE(s, r)),
    "unbound": lambda: unbound("SKILL_NAMES"),
}
# Ordinary calls, and calls that fail inside the native paths, each under a condition.
LEAK_CASES = {
    "capable": ("", lambda t: m.skill_capable_agents()),
    "capable surplus argument": ("", lambda t: m.skill_capable_agents(1)),
    "agent_roots": ("", lambda t: m.agent_roots(["copilot", "claude", "copilot"], "user")),
    "agent_roots unhashable": ("", lambda t: m.agent_roots([["claude"]], "user")),
    "agent_roots fails midway": ("", lambda t: m.agent_roots(midway(["claude"]), "project")),
    "agent_roots scope eq raises": ("", lambda t: m.agent_roots(["claude"], EQ)),
    "agent_roots missing argument": ("", lambda t: m.agent_roots(["claude"])),
    "read_roots": ("", lambda t: m.read_roots(PROJECT_ROOTS)),
    "read_roots iter raises": ("", lambda t: m.read_roots({"claude": ITER})),
    "score": ("", lambda t: m._score((".claude/skills", ".windsurf/skills"), PROJECT_ROOTS)),
    "score misses": ("", lambda t: m._score((), PROJECT_ROOTS)),
    "score unhashable": ("", lambda t: m._score([[".claude/skills"]], PROJECT_ROOTS)),
    "resolve native": ("", lambda t: m.resolve_skill_dirs(AGENTS)),
    "resolve generic": ("generic", lambda t: m.resolve_skill_dirs(AGENTS, "user")),
    "resolve greedy": ("greedy", lambda t: m.resolve_skill_dirs(AGENTS)),
    "resolve bad keyword": ("", lambda t: m.resolve_skill_dirs(AGENTS, scop="user")),
    "resolve not iterable": ("", lambda t: m.resolve_skill_dirs(5)),
    "read_stamp": ("", lambda t: m.read_stamp(t.stamped)),
    "read_stamp full head": ("", lambda t: m.read_stamp(t.base / "long.md")),
    "read_stamp missing": ("", lambda t: m.read_stamp(t.base / "missing")),
    "read_stamp directory": ("", lambda t: m.read_stamp(t.base)),
    "version_tuple": ("", lambda t: m.version_tuple("1.10.0rc1..x")),
    "version_tuple big": ("", lambda t: m.version_tuple("7" * 60 + ".1")),
    "version_tuple bytes": ("", lambda t: m.version_tuple(b"1.2")),
    "version_tuple bad piece": ("", lambda t: m.version_tuple(Pieces("1", 2))),
    "inside_root": ("", lambda t: m.inside_root(t.root, t.stamped, strict=True)),
    "inside_root escapes": ("", lambda t: m.inside_root(t.root, t.root / "escape/lumeno", strict=False)),
    "inside_root missing": ("", lambda t: m.inside_root(t.root, t.root / "missing", strict=True)),
    "inside_root loop": ("", lambda t: m.inside_root(t.root, t.root / "loop", strict=False)),
    "inside_root positional strict": ("", lambda t: m.inside_root(t.root, t.root, True)),
    "inside_root denied": ("denied", lambda t: m.inside_root(t.root, t.root, strict=True)),
    "stale": ("", lambda t: RECORD.stale),
    "stale not installed": ("", lambda t: RECORD._replace(installed=None).stale),
    "stale not text": ("", lambda t: RECORD._replace(installed=5).stale),
    "survey": ("", lambda t: m.installed_skill_versions(t.repo)),
    "survey denied": ("denied", lambda t: m.installed_skill_versions(t.repo)),
    "survey homeless": ("homeless", lambda t: m.installed_skill_versions(None)),
    "survey bad root": ("", lambda t: m.installed_skill_versions("repo")),
    "survey unbound name": ("unbound", lambda t: m.installed_skill_versions(t.repo)),
    "stamps_in": ("", lambda t: m._stamps_in(t.root)),
    "stamps_in missing": ("", lambda t: m._stamps_in(t.base / "missing")),
    "stamps_in denied": ("denied", lambda t: m._stamps_in(t.root)),
    "stamp_inside": ("", lambda t: m._stamp_inside(t.root, "lumeno")),
    "stamp_inside bad skill": ("", lambda t: m._stamp_inside(t.root, 5)),
    "stamp_inside denied": ("denied", lambda t: m._stamp_inside(t.root, "lumeno")),
    "say_unreadable": ("", lambda t: m._say_unreadable("the home directory")),
    "say_unreadable str raises": ("", lambda t: m._say_unreadable(STR)),
    "update_command": ("", lambda t: m._update_command("project", ".windsurf/skills", Path("/w/my app"))),
    "update_command none": ("", lambda t: m._update_command("user", ".agents/skills", None)),
    "update_command eq raises": ("", lambda t: m._update_command(EQ, ".claude/skills", None)),
    "shell_word": ("", lambda t: m._shell_word("/work/my app")),
    "shell_word not text": ("", lambda t: m._shell_word(5)),
    "signature": ("", lambda t: inspect.signature(m.inside_root)),
}


def growth(call, rounds):
    """Allocated blocks gained over ``rounds`` calls: the least of three runs after a warm-up."""

    def run(n):
        for _ in range(n):
            with suppress(Exception):
                call()

    run(rounds // 4)
    gained = []
    for _ in range(3):
        gc.collect()
        before = sys.getallocatedblocks()
        run(rounds)
        gc.collect()
        gained.append(sys.getallocatedblocks() - before)
    return min(gained)


@pytest.mark.parametrize("condition, call", LEAK_CASES.values(), ids=LEAK_CASES.keys())
def test_no_reference_leak(tree, condition, call):
    with CONDITIONS[condition]():
        assert growth(lambda: call(tree), ROUNDS) < ROUNDS // 20


def test_module_functions_and_records_are_collected_when_dropped():
    report = run_python(
        """
        import gc, importlib, json, pathlib, sys, weakref
        NAME = "zobek_lumeno.utils.agent_skills"
        def cycle(times):
            for _ in range(times):
                sys.modules.pop(NAME, None)
                mod = importlib.import_module(NAME)
                mod.InstalledSkill("lumeno", pathlib.Path("/"), "1.0", "1.1", "user", None).stale
                mod.resolve_skill_dirs(["claude", "windsurf"])
            gc.collect()
        cycle(20)
        mod = sys.modules[NAME]
        kept = mod.InstalledSkill("lumeno", pathlib.Path("/"), "1.0", "1.1", "user", None)
        refs = [weakref.ref(o) for o in (mod, mod.read_stamp, type(mod.read_stamp), mod.InstalledSkill)]
        del mod
        cycle(100)
        with_record = [r() is not None for r in refs]
        del kept
        start = sys.getallocatedblocks()
        cycle(200)
        print(json.dumps({"with_record": with_record, "alive": [r() is not None for r in refs],
                          "growth": sys.getallocatedblocks() - start}))
        """
    )
    # A record keeps its type, and through `stale` the module, alive; nothing else does.
    assert report["with_record"] == [True] * 4
    assert report["alive"] == [False] * 4
    # One module, its functions and types left behind per import would be hundreds of blocks each.
    assert report["growth"] < 1000


# --- arbitrary arguments -------------------------------------------------------------

FUZZ = {}  # where the fuzz tree is, set by its fixture before any example is drawn
PLACES = ["", "home", "repo", "repo/.claude/skills", "repo/.claude/skills/lumeno/SKILL.md", "long.md"]
atoms = st.one_of(
    st.none(),
    st.booleans(),
    st.integers(),
    st.floats(),
    st.binary(max_size=16),
    st.text(max_size=16),
    st.text(max_size=16).map(Text),
    st.sampled_from([*AGENTS, "user", "project", ".claude/skills", "", "1.2.3", "version: 1.0\n"]),
    st.sampled_from([("7", 20_000), ("é ~", 7_000)]).map(lambda unit: unit[0] * unit[1]),
    st.sampled_from(RAISING_KINDS).map(lambda kinds: Raising(*kinds)),
    st.lists(st.sampled_from(AGENTS), max_size=3).map(midway),
    st.sampled_from(PLACES).map(lambda rel: FUZZ["base"] / rel),
)
objects = st.recursive(
    atoms,
    lambda inner: st.one_of(
        st.lists(inner, max_size=4),
        st.tuples(inner, inner),
        st.dictionaries(st.sampled_from(AGENTS) | st.text(max_size=4), inner, max_size=3),
        st.builds(m.SkillRoots, project=inner, user=inner),
    ),
    max_leaves=8,
)
ARITY = {
    "skill_capable_agents": 0,
    "agent_roots": 2,
    "read_roots": 1,
    "_score": 2,
    "resolve_skill_dirs": 2,
    "read_stamp": 1,
    "version_tuple": 1,
    "inside_root": 3,
    "installed_skill_versions": 1,
    "_stamps_in": 1,
    "_stamp_inside": 2,
    "_say_unreadable": 1,
    "_update_command": 3,
    "_shell_word": 1,
    "stale": 6,
}


@pytest.fixture(scope="module")
def fuzz_tree(tmp_path_factory):
    FUZZ["base"] = populate(tmp_path_factory.mktemp("fuzz")).base
    with pytest.MonkeyPatch.context() as mp:
        mp.setenv("HOME", str(FUZZ["base"] / "home"))
        mp.setattr(m, "_UNREADABLE", set())
        yield


@pytest.mark.parametrize("name", ARITY)
@settings(max_examples=120, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(args=st.lists(objects, min_size=6, max_size=6), surplus=st.integers(-1, 1))
def test_arbitrary_arguments_give_a_result_or_an_ordinary_error(fuzz_tree, name, args, surplus):
    count = max(ARITY[name] + surplus, 0)
    try:
        if name == "stale":
            m.InstalledSkill(*args).stale  # noqa: B018 - the property is the call under test
        elif name == "inside_root" and count == 3:
            m.inside_root(args[0], args[1], strict=args[2])
        else:
            getattr(m, name)(*args[:count])
    except SystemError:
        raise
    except Exception:
        pass


HEAD = m.STAMP_HEAD_BYTES
VERSION_RE = re.compile(r"^version:\s*([0-9][\w.\-]*)\s*$", re.MULTILINE)
PIECES = [
    b"version:",
    b" ",
    b"1.2.3",
    b"\n",
    b"\r\n",
    b"\t",
    b"v",
    b"+",
    b"\xc3\xa9",
    b"\xff",
    b"\x0b",
    b"_x",
]


def reference_stamp(data):
    head = data[:HEAD]
    text = head.decode("utf-8", "replace")
    if len(head) == HEAD:
        text = text[: text.rfind("\n") + 1]
    match = VERSION_RE.search(text)
    return match.group(1) if match else None


@settings(max_examples=250, deadline=None)
@given(
    body=st.binary(max_size=64) | st.lists(st.sampled_from(PIECES), max_size=24).map(b"".join),
    pad=st.integers(0, HEAD + 8),
    filler=st.sampled_from([b"a", b"a\n", b"\xc3\xa9", b"version: 0\n"]),
)
def test_read_stamp_agrees_with_plain_python(tmp_path_factory, body, pad, filler):
    path = tmp_path_factory.getbasetemp() / "fuzzed-SKILL.md"
    data = (filler * pad)[:pad] + body
    path.write_bytes(data)
    assert m.read_stamp(path) == reference_stamp(data)


@settings(max_examples=250, deadline=None)
@given(st.text(alphabet="0123456789.٣０𝟘²Ⅻ¼a-_ ", max_size=60) | st.text())
@example("9" * 5000 + ".٣" * 3)
def test_version_tuple_agrees_with_plain_python(v):
    limit = sys.get_int_max_str_digits()
    sys.set_int_max_str_digits(0)
    try:
        expected = tuple(int(d[0]) if (d := re.match(r"\d+", piece)) else 0 for piece in v.split("."))
    finally:
        sys.set_int_max_str_digits(limit)
    assert m.version_tuple(v) == expected


@settings(max_examples=250, deadline=None)
@given(st.text(alphabet="aZ09_./:+-é\u0301ß٣²Ⅻ ~$\"'\\\n\x00\u00a0", max_size=12) | st.text())
def test_shell_word_agrees_with_plain_python(text):
    assert m._shell_word(text) == (text if re.fullmatch(r"[\w./:+-]+", text) else f'"{text}"')


# --- threads -------------------------------------------------------------------------


@pytest.mark.parametrize("open_fails", [False, True], ids=["opens", "open fails"])
def test_threads_survey_alike_and_log_each_unreadable_once(tmp_path, monkeypatch, caplog, open_fails):
    t = populate(tmp_path)
    monkeypatch.setenv("HOME", str(t.home))
    monkeypatch.setattr(m, "_UNREADABLE", set())
    caplog.set_level(logging.WARNING, logger=NAME)
    # A skills directory and a skill path that cannot be resolved, and a file behind a link
    # that cannot be opened, which is reported under the link's path.
    unresolvable = {str(t.home / ".cursor/skills"), str(t.root / "lumeno-map/SKILL.md")}
    unopenable = str(t.repo / ".github/skills/real/SKILL.md")
    resolve, open_ = Path.resolve, Path.open

    def guarded_resolve(self, strict=False):
        if str(self) in unresolvable:
            deny(self)
        return resolve(self, strict=strict)

    def guarded_open(self, *args, **kwargs):
        if str(self) == unopenable:
            deny(self)
        return open_(self, *args, **kwargs)

    monkeypatch.setattr(Path, "resolve", guarded_resolve)
    if open_fails:
        monkeypatch.setattr(Path, "open", guarded_open)
    start, results, errors = threading.Barrier(8), [], []

    def survey():
        try:
            start.wait()
            for _ in range(10):
                results.append(m.installed_skill_versions(t.repo))
        except BaseException as error:
            errors.append(error)

    switch = sys.getswitchinterval()
    sys.setswitchinterval(1e-5)
    try:
        threads = [threading.Thread(target=survey) for _ in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    finally:
        sys.setswitchinterval(switch)
    assert errors == []
    alone = m.installed_skill_versions(t.repo)
    assert len(results) == 80
    assert all(r == alone for r in results)
    installed = {(r.scope, r.directory.parent.name, r.skill): r.installed for r in alone}
    assert installed["user", ".claude", "lumeno"] == "1.4.0"
    assert installed["project", ".claude", "lumeno"] == "1.5.0"
    assert installed["project", ".claude", "lumeno-map"] is None
    assert installed["project", ".github", "lumeno"] == (None if open_fails else "2.0.0")
    assert installed["user", ".cursor", "lumeno-wiki"] is None
    logged = sorted(r.args[0] for r in caplog.records if r.name == NAME)
    unopened = {str(t.repo / ".github/skills/lumeno/SKILL.md")} if open_fails else set()
    assert logged == sorted(unresolvable | unopened)


# --- no read outside the skills directories ------------------------------------------


def test_survey_opens_nothing_outside_the_resolved_skills_directories(tmp_path):
    base = tmp_path.resolve()
    home, repo, out = base / "home", base / "repo", base / "outside"
    files = {
        out / "lumeno/SKILL.md": "version: 6.6.6\n",
        out / "shared/lumeno/SKILL.md": "version: 3.0.0\n",
        repo / ".claude/skills/lumeno/SKILL.md": "version: 1.0.0\n",
        repo / ".claude/skills/lumeno-wiki/SKILL.md": "version: 2.0.0\n",
        repo / ".github/skills/real/SKILL.md": "version: 4.0.0\n",
    }
    links = {
        home / ".claude/skills/lumeno": out / "lumeno",  # a skill directory out
        home / ".claude/skills/lumeno-map/SKILL.md": out / "lumeno/SKILL.md",  # a file out
        home / ".claude/skills/lumeno-wiki/SKILL.md": "/dev/zero",
        home / ".cursor/skills/lumeno-map/SKILL.md": "../lumeno/SKILL.md",  # to the FIFO below
        home / ".cursor/skills/lumeno-wiki": "../../.claude/skills/lumeno-map",  # into another skills dir
        home / ".copilot/skills": out / "shared",  # the skills directory itself: followed
        out / "hop": repo / ".github/skills/real",
        out / "away": repo / ".claude/skills/lumeno-wiki",
        repo / ".github/skills/lumeno": out / "hop",  # leaves and comes back inside
        repo / ".github/skills/lumeno-wiki": out / "away",  # leaves for another skills dir
        repo / ".windsurf/skills/lumeno/SKILL.md": out / "fifo",
        repo / ".cursor/skills/lumeno/SKILL.md": "../../../../outside/lumeno/SKILL.md",
    }
    (home / ".cursor/skills/lumeno").mkdir(parents=True)
    build(files, links)
    # Opening either FIFO would hang the survey: being inside is not enough to be read.
    os.mkfifo(home / ".cursor/skills/lumeno/SKILL.md")
    os.mkfifo(out / "fifo")
    report = run_python(
        """
        import json, os, pathlib, sys
        from zobek_lumeno.utils import agent_skills as m
        opened, recording = [], True
        def hook(event, args):
            if event == "open" and recording:
                opened.append(str(args[0]))
        sys.addaudithook(hook)
        found = m.installed_skill_versions(pathlib.Path(os.environ["REPO"]))
        recording = False
        roots = [str(d.resolve()) for d in {r.directory for r in found} if d.exists()]
        stamps = {f"{r.scope} {r.directory.relative_to(r.directory.parents[1])} {r.skill}": r.installed
                  for r in found if r.installed}
        print(json.dumps({"opened": opened, "roots": roots, "stamps": stamps}))
        """,
        HOME=str(home),
        REPO=str(repo),
    )
    assert [p for p in report["opened"] if not any(Path(p).is_relative_to(r) for r in report["roots"])] == []
    read = [out / "shared/lumeno", repo / ".claude/skills/lumeno", repo / ".claude/skills/lumeno-wiki"]
    read.append(repo / ".github/skills/real")
    assert sorted(report["opened"]) == sorted(str(d / "SKILL.md") for d in read)
    assert report["stamps"] == {
        "user .copilot/skills lumeno": "3.0.0",
        "project .claude/skills lumeno": "1.0.0",
        "project .claude/skills lumeno-wiki": "2.0.0",
        "project .github/skills lumeno": "4.0.0",
    }


# --- sub-interpreters ----------------------------------------------------------------


def test_sub_interpreters_have_their_own_module_and_come_and_go_cleanly(tmp_path):
    report = run_python(
        '''
        import _xxsubinterpreters as interpreters, gc, json, sys
        from zobek_lumeno.utils import agent_skills as m
        m.DEFAULT_AGENTS = ("windsurf",)
        m.SKILL_NAMES = ("main-only",)
        code = """
        from zobek_lumeno.utils import agent_skills as m
        assert m.DEFAULT_AGENTS == ("claude",) and m.SKILL_NAMES == ("lumeno", "lumeno-map", "lumeno-wiki")
        assert m._update_command("user", ".claude/skills", None) == "zobek-lumeno skill install --scope user"
        assert m.resolve_skill_dirs(["claude", "windsurf"]) == [".claude/skills", ".windsurf/skills"]
        assert [r.skill for r in m.installed_skill_versions(None)[:3]] == list(m.SKILL_NAMES)
        m.DEFAULT_AGENTS = ("copilot",)
        """
        def cycle(times):
            for _ in range(times):
                interpreter = interpreters.create()
                interpreters.run_string(interpreter, code)
                interpreters.destroy(interpreter)
            gc.collect()
        kept = interpreters.create()
        interpreters.run_string(kept, code)
        cycle(10)
        interpreters.run_string(kept, "assert m.DEFAULT_AGENTS == ('copilot',)")
        interpreters.destroy(kept)
        start = sys.getallocatedblocks()
        cycle(60)
        print(json.dumps({"growth": sys.getallocatedblocks() - start, "main": [m.DEFAULT_AGENTS, m.SKILL_NAMES],
                          "line": m._update_command("user", ".claude/skills", None)}))
        ''',
        HOME=str(tmp_path),
    )
    assert report["main"] == [["windsurf"], ["main-only"]]
    assert report["line"] == "zobek-lumeno skill install --scope user --agent claude"
    assert report["growth"] < 600
