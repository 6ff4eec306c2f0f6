"""No reference leaks, no SystemError whatever the arguments, the same answers under threads, no read
outside the skills directories, and a clean life in sub-interpreters and across re-imports."""

import gc
import inspect
import json
import os
import pathlib
import subprocess
import sys
import textwrap
import threading
import types
from concurrent.futures import ThreadPoolExecutor
from contextlib import suppress

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from zobek_lumeno.utils import agent_skills as m

NAME = "zobek_lumeno.utils.agent_skills"
Path = pathlib.Path
AGENTS = ["claude", "cursor-agent", "windsurf", "copilot"]
FUZZ = {}  # where the tree is, for the fuzzing strategies; set by its fixture before any draw
FUNCTIONS = [name for name, f in vars(m).items() if type(f) is type(m.read_stamp)]
ANSWERS = {
    "eq": lambda s, o: s is o,
    "hash": id,
    "str": repr,
    "iter": lambda s: iter(AGENTS),
    "len": lambda s: len(AGENTS),
    "bool": lambda s: True,
}


def raising(*fails):
    """A hashable iterable of agent keys whose special methods named in ``fails`` raise."""

    def special(name, answer):
        def method(self, *args):
            if name in fails:
                raise ValueError(f"{name} raised")
            return answer(self, *args)

        return method

    return type(f"Raising{fails}", (), {f"__{n}__": special(n, a) for n, a in ANSWERS.items()})()


def midway(items):
    yield from items
    raise ValueError("failed midway")


def deny(self, *args, **kwargs):
    raise PermissionError(13, "Permission denied", str(self))


def homeless():
    raise RuntimeError("Could not determine home directory.")


def populate(base):
    """Stamps at home and in a repository, and links that stay, leave, come back, loop or lead to
    another skills directory, a device or a FIFO made only where the survey runs apart."""
    base = base.resolve()
    home, repo, out = base / "home", base / "repo", base / "outside"
    files = {
        home / ".claude/skills/lumeno/SKILL.md": "---\nname: lumeno\nversion: 1.4.0\n---\n",
        repo / ".claude/skills/lumeno/SKILL.md": "version: 1.5.0\n",
        repo / ".claude/skills/lumeno-map/SKILL.md": "version: 1.1.0\n",
        repo / ".claude/skills/lumeno-wiki/SKILL.md": "version: 2.0.0\n",
        repo / ".github/skills/real/SKILL.md": "version: 4.0.0\n",
        out / "lumeno/SKILL.md": "version: 6.6.6\n",
        out / "shared/lumeno/SKILL.md": "version: 3.0.0\n",
        base / "long.md": "#" * 2000 + "\nversion: 3.0.0\n" + "#" * 100,
    }
    links = {
        home / ".claude/skills/lumeno-map/SKILL.md": out / "lumeno/SKILL.md",  # a file out
        home / ".claude/skills/lumeno-wiki/SKILL.md": "/dev/zero",
        home / ".cursor/skills/lumeno-map/SKILL.md": "../lumeno/SKILL.md",  # to a FIFO inside
        home / ".cursor/skills/lumeno-wiki": "../../.claude/skills/lumeno-map",  # into another skills dir
        home / ".copilot/skills": out / "shared",  # the skills directory itself: followed
        home / ".codeium/windsurf/skills/lumeno/SKILL.md": out / "fifo",
        out / "hop": repo / ".github/skills/real",
        out / "away": repo / ".claude/skills/lumeno-wiki",
        repo / ".github/skills/lumeno": out / "hop",  # leaves and comes back inside
        repo / ".github/skills/lumeno-wiki": out / "away",  # leaves for another skills dir
        repo / ".windsurf/skills/lumeno": out / "lumeno",  # a skill directory out
        repo / ".cursor/skills/lumeno/SKILL.md": "../../../../outside/lumeno/SKILL.md",
        repo / ".claude/skills/escape": out,
        repo / ".claude/skills/loop": "loop",
    }
    for path, text in files.items():
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
    for link, target in links.items():
        link.parent.mkdir(parents=True, exist_ok=True)
        link.symlink_to(target)
    root = repo / ".claude/skills"
    return types.SimpleNamespace(base=base, home=home, repo=repo, root=root, stamped=root / "lumeno/SKILL.md")


# What a survey of that tree reads; no other skill has a stamp.
STAMPS = {
    "home/.claude/skills lumeno": "1.4.0",
    "home/.copilot/skills lumeno": "3.0.0",
    "repo/.claude/skills lumeno": "1.5.0",
    "repo/.claude/skills lumeno-map": "1.1.0",
    "repo/.claude/skills lumeno-wiki": "2.0.0",
    "repo/.github/skills lumeno": "4.0.0",
}


def stamps(base, found):
    return {f"{Path(d).relative_to(base)} {skill}": v for skill, d, v, *_ in found if v}


@pytest.fixture(scope="module")
def tree(tmp_path_factory):
    t = populate(tmp_path_factory.mktemp("tree"))
    FUZZ["base"] = t.base
    with pytest.MonkeyPatch.context() as mp:
        mp.setenv("HOME", str(t.home))
        mp.setattr(m, "_UNREADABLE", set())
        yield t


def run_python(code, **env):
    done = subprocess.run(
        [sys.executable, "-c", textwrap.dedent(code)], capture_output=True, timeout=300, env=os.environ | env
    )
    assert done.returncode == 0, done.stderr.decode()
    return json.loads(done.stdout.splitlines()[-1])


# --- reference leaks -----------------------------------------------------------------

RECORD = m.InstalledSkill("lumeno", Path("/x"), "1.2.3", "1.10.0", "project", None)
ROOTS = m.agent_roots(AGENTS, "project")
EQ, STR, ITER = raising("eq"), raising("str"), raising("iter")
OWN_SCORE = m._score
PIECES = types.SimpleNamespace(split=lambda sep: ["1", 2])  # not text, so asked to split itself
PATCHES = {
    "": lambda mp: None,
    "denied": lambda mp: mp.setattr(Path, "resolve", deny),
    "homeless": lambda mp: mp.setattr(Path, "home", staticmethod(homeless)),
    "greedy": lambda mp: mp.setattr(m, "_EXHAUSTIVE_SEARCH_LIMIT", 0),
    "generic": lambda mp: mp.setattr(m, "_score", lambda s, r: OWN_SCORE(s, r)),
    "unbound": lambda mp: mp.delattr(m, "SKILL_NAMES"),
}
# Ordinary calls, and calls that fail inside the native paths; each id starts with the function.
LEAK_CASES = {
    "skill_capable_agents": ("", lambda t: m.skill_capable_agents()),
    "agent_roots": ("", lambda t: m.agent_roots(["copilot", "claude", "copilot"], "user")),
    "agent_roots unhashable": ("", lambda t: m.agent_roots([["claude"]], "user")),
    "agent_roots fails midway": ("", lambda t: m.agent_roots(midway(["claude"]), "project")),
    "agent_roots scope eq raises": ("", lambda t: m.agent_roots(["claude"], EQ)),
    "read_roots": ("", lambda t: m.read_roots(ROOTS)),
    "read_roots iter raises": ("", lambda t: m.read_roots({"claude": ITER})),
    "_score": ("", lambda t: m._score((".claude/skills", ".windsurf/skills"), ROOTS)),
    "_score misses": ("", lambda t: m._score((), ROOTS)),
    "_score unhashable": ("", lambda t: m._score([[".claude/skills"]], ROOTS)),
    "resolve_skill_dirs native": ("", lambda t: m.resolve_skill_dirs(AGENTS)),
    "resolve_skill_dirs generic": ("generic", lambda t: m.resolve_skill_dirs(AGENTS, "user")),
    "resolve_skill_dirs greedy": ("greedy", lambda t: m.resolve_skill_dirs(AGENTS)),
    "resolve_skill_dirs not iterable": ("", lambda t: m.resolve_skill_dirs(5)),
    "read_stamp": ("", lambda t: m.read_stamp(t.stamped)),
    "read_stamp full head": ("", lambda t: m.read_stamp(t.base / "long.md")),
    "read_stamp missing": ("", lambda t: m.read_stamp(t.base / "missing")),
    "version_tuple": ("", lambda t: m.version_tuple("1.10.0rc1..x")),
    "version_tuple big": ("", lambda t: m.version_tuple("7" * 60 + ".1")),
    "version_tuple bytes": ("", lambda t: m.version_tuple(b"1.2")),
    "version_tuple bad piece": ("", lambda t: m.version_tuple(PIECES)),
    "inside_root": ("", lambda t: m.inside_root(t.root, t.stamped, strict=True)),
    "inside_root escapes": ("", lambda t: m.inside_root(t.root, t.root / "escape/lumeno", strict=False)),
    "inside_root loop": ("", lambda t: m.inside_root(t.root, t.root / "loop", strict=False)),
    "inside_root positional strict": ("", lambda t: m.inside_root(t.root, t.root, True)),
    "inside_root denied": ("denied", lambda t: m.inside_root(t.root, t.root, strict=True)),
    "inside_root signature": ("", lambda t: inspect.signature(m.inside_root)),
    "stale": ("", lambda t: RECORD.stale),
    "stale not installed": ("", lambda t: RECORD._replace(installed=None).stale),
    "stale not text": ("", lambda t: RECORD._replace(installed=5).stale),
    "installed_skill_versions": ("", lambda t: m.installed_skill_versions(t.repo)),
    "installed_skill_versions denied": ("denied", lambda t: m.installed_skill_versions(t.repo)),
    "installed_skill_versions homeless": ("homeless", lambda t: m.installed_skill_versions(None)),
    "installed_skill_versions bad root": ("", lambda t: m.installed_skill_versions("repo")),
    "installed_skill_versions unbound name": ("unbound", lambda t: m.installed_skill_versions(t.repo)),
    "_stamps_in": ("", lambda t: m._stamps_in(t.root)),
    "_stamps_in missing": ("", lambda t: m._stamps_in(t.base / "missing")),
    "_stamps_in denied": ("denied", lambda t: m._stamps_in(t.root)),
    "_stamp_inside": ("", lambda t: m._stamp_inside(t.root, "lumeno")),
    "_stamp_inside bad skill": ("", lambda t: m._stamp_inside(t.root, 5)),
    "_stamp_inside denied": ("denied", lambda t: m._stamp_inside(t.root, "lumeno")),
    "_say_unreadable": ("", lambda t: m._say_unreadable("the home directory")),
    "_say_unreadable str raises": ("", lambda t: m._say_unreadable(STR)),
    "_update_command": ("", lambda t: m._update_command("project", ".windsurf/skills", Path("/w/my app"))),
    "_update_command no root": ("", lambda t: m._update_command("user", ".agents/skills", None)),
    "_update_command eq raises": ("", lambda t: m._update_command(EQ, ".claude/skills", None)),
    "_shell_word": ("", lambda t: m._shell_word("/work/my app")),
    "_shell_word not text": ("", lambda t: m._shell_word(5)),
}


def test_leak_cases_cover_every_function():
    assert set(FUNCTIONS) <= {case.split()[0] for case in LEAK_CASES}


@pytest.mark.parametrize("patch, call", LEAK_CASES.values(), ids=LEAK_CASES.keys())
def test_no_reference_leak(tree, monkeypatch, patch, call):
    PATCHES[patch](monkeypatch)

    def blocks_gained(rounds):
        gc.collect()
        before = sys.getallocatedblocks()
        for _ in range(rounds):
            with suppress(Exception):
                call(tree)
        gc.collect()
        return sys.getallocatedblocks() - before

    blocks_gained(250)  # warm-up: caches and the set of unreadable paths fill once
    assert min(blocks_gained(1000) for _ in range(3)) < 50


# --- arbitrary arguments -------------------------------------------------------------

PLACES = ["", "home", "repo", "repo/.claude/skills", "repo/.claude/skills/lumeno/SKILL.md", "long.md"]
atoms = st.one_of(
    st.none() | st.booleans() | st.integers() | st.floats() | st.binary(max_size=16),
    st.text(max_size=16) | st.text(max_size=16).map(type("Text", (str,), {})),
    st.sampled_from([*AGENTS, "user", "project", ".claude/skills", "", "1.2.3", "version: 1.0\n"]),
    st.sampled_from([("7", 20_000), ("é ~", 7_000)]).map(lambda unit: unit[0] * unit[1]),
    st.sampled_from([*ANSWERS, tuple(ANSWERS)]).map(lambda fails: raising(*fails)),
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


@pytest.mark.parametrize("name", FUNCTIONS + ["stale"])
@settings(max_examples=120, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(args=st.lists(objects, min_size=6, max_size=6), surplus=st.integers(-1, 1))
def test_arbitrary_arguments_give_a_result_or_an_ordinary_error(tree, name, args, surplus):
    if name == "stale":
        arity, call = len(m.InstalledSkill._fields), lambda *a: m.InstalledSkill(*a).stale
    else:
        call = getattr(m, name)
        arity = len(inspect.signature(call).parameters)
    count = max(arity + surplus, 0)
    keywords = {"strict": args[2]} if name == "inside_root" and count == 3 else {}
    try:
        call(*args[: count - len(keywords)], **keywords)
    except SystemError:
        raise
    except Exception:
        pass


# --- threads and the files read ------------------------------------------------------


def failing_for(paths, method):
    def guarded(self, *args, **kwargs):
        if str(self) in paths:
            deny(self)
        return method(self, *args, **kwargs)

    return guarded


@pytest.mark.parametrize("open_fails", [False, True], ids=["opens", "open fails"])
def test_threads_survey_alike_and_log_each_unreadable_once(tree, monkeypatch, caplog, open_fails):
    monkeypatch.setattr(m, "_UNREADABLE", set())
    caplog.set_level("WARNING", logger=NAME)
    # A skills directory and a skill path that cannot be resolved, and a file behind a link
    # that cannot be opened, which is reported under the link's path.
    unresolvable = {str(tree.home / ".claude/skills"), str(tree.root / "lumeno-map/SKILL.md")}
    unopenable = {str(tree.repo / ".github/skills/real/SKILL.md")} if open_fails else set()
    monkeypatch.setattr(Path, "resolve", failing_for(unresolvable, Path.resolve))
    monkeypatch.setattr(Path, "open", failing_for(unopenable, Path.open))
    start = threading.Barrier(8)

    def survey():
        start.wait()
        return [m.installed_skill_versions(tree.repo) for _ in range(10)]

    switch = sys.getswitchinterval()
    sys.setswitchinterval(1e-5)
    try:
        with ThreadPoolExecutor(8) as pool:
            futures = [pool.submit(survey) for _ in range(8)]
    finally:
        sys.setswitchinterval(switch)
    results = [r for future in futures for r in future.result()]
    alone = m.installed_skill_versions(tree.repo)
    assert len(results) == 80 and all(r == alone for r in results)
    unread = {"home/.claude/skills lumeno", "repo/.claude/skills lumeno-map"}
    unread |= {"repo/.github/skills lumeno"} if open_fails else set()
    assert stamps(tree.base, alone) == {k: v for k, v in STAMPS.items() if k not in unread}
    logged = sorted(r.args[0] for r in caplog.records if r.name == NAME)
    links = {str(tree.repo / ".github/skills/lumeno/SKILL.md")} if open_fails else set()
    assert logged == sorted(unresolvable | links)


def test_survey_opens_nothing_outside_the_resolved_skills_directories(tmp_path):
    t = populate(tmp_path)
    # Opening either FIFO would hang the survey: being inside is not enough to be read.
    (t.home / ".cursor/skills/lumeno").mkdir()
    os.mkfifo(t.home / ".cursor/skills/lumeno/SKILL.md")
    os.mkfifo(t.base / "outside/fifo")
    report = run_python(
        """
        import json, os, pathlib, sys
        from zobek_lumeno.utils import agent_skills as m
        opened = []
        sys.addaudithook(lambda event, args: event == "open" and opened.append(str(args[0])))
        found = m.installed_skill_versions(pathlib.Path(os.environ["REPO"]))
        print(json.dumps({"opened": opened, "found": [(r.skill, str(r.directory), r.installed) for r in found]}))
        """,
        HOME=str(t.home),
        REPO=str(t.repo),
    )
    # Exactly the stamps read, each at its resolved path inside a resolved skills directory.
    read = ["home/.claude/skills/lumeno", "outside/shared/lumeno", "repo/.github/skills/real"]
    read += [f"repo/.claude/skills/{skill}" for skill in ("lumeno", "lumeno-map", "lumeno-wiki")]
    assert sorted(report["opened"]) == sorted(str(t.base / d / "SKILL.md") for d in read)
    assert stamps(t.base, report["found"]) == STAMPS


# --- module instances ----------------------------------------------------------------


@pytest.mark.installed
def test_module_instances_come_and_go_cleanly_in_re_imports_and_sub_interpreters(tmp_path):
    growth = run_python(
        '''
        import _xxsubinterpreters as interpreters, gc, importlib, pathlib, sys, weakref
        NAME = "zobek_lumeno.utils.agent_skills"
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
                sys.modules.pop(NAME, None)
                mod = importlib.import_module(NAME)
                mod.InstalledSkill("x", pathlib.Path("/"), "1", "2", "user", None).stale
                mod.resolve_skill_dirs(["claude", "windsurf"])
                interpreter = interpreters.create()
                interpreters.run_string(interpreter, code)
                interpreters.destroy(interpreter)
            gc.collect()
        m = importlib.import_module(NAME)
        m.DEFAULT_AGENTS, m.SKILL_NAMES = ("windsurf",), ("main-only",)
        kept, sub = m.InstalledSkill("x", pathlib.Path("/"), "1", "2", "user", None), interpreters.create()
        interpreters.run_string(sub, code)
        cycle(10)
        # Each interpreter, and each import, has its own module state, read when a function runs.
        interpreters.run_string(sub, "assert m.DEFAULT_AGENTS == ('copilot',)")
        interpreters.destroy(sub)
        assert (m.DEFAULT_AGENTS, m.SKILL_NAMES) == (("windsurf",), ("main-only",))
        line = m._update_command("user", ".claude/skills", None)
        assert line == "zobek-lumeno skill install --scope user --agent claude"
        refs = [weakref.ref(o) for o in (m, m.read_stamp, type(m.read_stamp), m.InstalledSkill)]
        del m
        cycle(50)
        # A record keeps its type, and through `stale` the module, alive; nothing else does.
        assert [r() is not None for r in refs] == [True] * 4
        del kept
        start = sys.getallocatedblocks()
        cycle(100)
        assert [r() is not None for r in refs] == [False] * 4
        print(sys.getallocatedblocks() - start)
        ''',
        HOME=str(tmp_path),
    )
    # A module, its functions and types left behind per cycle would be hundreds of blocks each.
    assert growth < 1000


# --- crashes, each in a child process so that a regression fails one test ----------------

# Each script prints the name of the error it ends in instead of crashing.
CRASHES = {
    # A default the call bound must outlive the host replacing it while the body runs.
    "default replaced during the call": """
        class Strict:
            def __bool__(self): return True
        m.inside_root.__kwdefaults__ = {"strict": Strict()}
        armed = False
        class Sly(type(pathlib.Path())):
            def __getattribute__(self, name):
                global armed
                if armed:
                    armed = False
                    del m.inside_root.__kwdefaults__["strict"]
                    junk = [bytearray(b"x" * 48) for _ in range(1000)]  # reuses freed memory
                return super().__getattribute__(name)
        path = Sly("/nonexistent")
        armed = True
        try:
            m.inside_root("/", path)
        except FileNotFoundError:
            print("FileNotFoundError")
    """,
    # Recursion through the module on small thread stacks ends in RecursionError.
    **{
        f"recursion on a {size // 1024} KiB stack": f"""
        m._score = lambda selection, roots: m.resolve_skill_dirs(["claude"])
        threading.stack_size({size})
        errors = []
        def recurse():
            try:
                m.resolve_skill_dirs(["claude"])
            except RecursionError as e:
                errors.append(type(e).__name__)
        worker = threading.Thread(target=recurse)
        worker.start()
        worker.join()
        print(*errors)
    """
        for size in (64 * 1024, 512 * 1024)
    },
}


@pytest.mark.parametrize("script", CRASHES.values(), ids=CRASHES)
def test_no_crash(script):
    prelude = "import pathlib, threading\nfrom zobek_lumeno.utils import agent_skills as m\n"
    done = subprocess.run(
        [sys.executable, "-c", prelude + textwrap.dedent(script)], capture_output=True, text=True, timeout=120
    )
    expected = "RecursionError" if "recurse" in script else "FileNotFoundError"
    assert (done.returncode, done.stdout.strip()) == (0, expected), done.stderr
