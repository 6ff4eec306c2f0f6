"""No leaked references, no crash, the same answers under threads, and a clean life in sub-interpreters
and across re-imports."""

import gc
import importlib.util
import json
import os
import pathlib
import subprocess
import sys
import textwrap
import threading
import types
import weakref
from concurrent.futures import ThreadPoolExecutor
from contextlib import suppress

import pytest

from zobek_lumeno.utils import agent_skills as m

Path = pathlib.Path
AGENTS = ["claude", "cursor-agent", "windsurf", "copilot"]
FUNCTIONS = [name for name, f in vars(m).items() if type(f) is type(m.read_stamp)]


def fail(*args):
    raise ValueError("raised")


# Hashable; its comparison, text and iteration raise.
Raising = type(
    "Raising", (), {"__hash__": object.__hash__, "__eq__": fail, "__str__": fail, "__iter__": fail}
)


def deny(self, *args, **kwargs):
    raise PermissionError(13, "Permission denied", str(self))


@pytest.fixture(scope="module")
def tree(tmp_path_factory):
    """Stamps at home and in a repository; a loop, a link out and a FIFO in the repository's skills."""
    base = tmp_path_factory.mktemp("tree").resolve()
    for rel in ("home/.claude/skills/lumeno/SKILL.md", "repo/.claude/skills/lumeno/SKILL.md", "out/SKILL.md"):
        (base / rel).parent.mkdir(parents=True)
        (base / rel).write_text("---\nversion: 1.4.0\n---\n" + "#" * 3000)
    (base / "repo/.claude/skills/lumeno-map").mkdir()
    (base / "repo/.claude/skills/lumeno-map/SKILL.md").symlink_to("SKILL.md")
    (base / "repo/.claude/skills/lumeno-wiki").symlink_to(base / "out")
    (base / "repo/.cursor/skills/lumeno").mkdir(parents=True)
    os.mkfifo(base / "repo/.cursor/skills/lumeno/SKILL.md")
    with pytest.MonkeyPatch.context() as mp:
        mp.setenv("HOME", str(base / "home"))
        mp.setattr(m, "_UNREADABLE", set())
        yield base


# --- reference leaks -----------------------------------------------------------------

RECORD = m.InstalledSkill("lumeno", Path("/x"), "1.2.3", "1.10.0", "project", None)
ROOTS = m.agent_roots(AGENTS, "project")
OWN_SCORE = m._score
PATCHES = {
    "": lambda mp: None,
    "denied": lambda mp: mp.setattr(Path, "resolve", deny),
    "homeless": lambda mp: mp.setattr(Path, "home", staticmethod(lambda: deny("~"))),
    "greedy": lambda mp: mp.setattr(m, "_EXHAUSTIVE_SEARCH_LIMIT", 0),
    "generic": lambda mp: mp.setattr(m, "_score", lambda s, r: OWN_SCORE(s, r)),
    "unbound": lambda mp: mp.delattr(m, "SKILL_NAMES"),
}
# Ordinary calls, and calls that fail inside the C++; each id starts with the function's name.
LEAK_CASES = {
    "skill_capable_agents": ("", lambda t: m.skill_capable_agents()),
    "agent_roots": ("", lambda t: m.agent_roots(["copilot", "claude", "copilot"], "user")),
    "agent_roots scope eq raises": ("", lambda t: m.agent_roots(["claude"], Raising())),
    "read_roots iter raises": ("", lambda t: m.read_roots({"claude": Raising()})),
    "_score": ("", lambda t: m._score((".claude/skills", ".windsurf/skills"), ROOTS)),
    "resolve_skill_dirs native": ("", lambda t: m.resolve_skill_dirs(AGENTS)),
    "resolve_skill_dirs generic": ("generic", lambda t: m.resolve_skill_dirs(AGENTS, "user")),
    "resolve_skill_dirs greedy": ("greedy", lambda t: m.resolve_skill_dirs(AGENTS)),
    "read_stamp": ("", lambda t: m.read_stamp(t / "out/SKILL.md")),
    "read_stamp missing": ("", lambda t: m.read_stamp(t / "missing")),
    "version_tuple": ("", lambda t: m.version_tuple("1.10.0rc1..x" + "7" * 60)),
    "version_tuple bytes": ("", lambda t: m.version_tuple(b"1.2")),
    "inside_root": ("", lambda t: m.inside_root(t, t / "out/SKILL.md", strict=True)),
    "inside_root positional strict": ("", lambda t: m.inside_root(t, t, True)),
    "stale": ("", lambda t: RECORD.stale),
    "installed_skill_versions": ("", lambda t: m.installed_skill_versions(t / "repo")),
    "installed_skill_versions denied": ("denied", lambda t: m.installed_skill_versions(t / "repo")),
    "installed_skill_versions homeless": ("homeless", lambda t: m.installed_skill_versions(None)),
    "installed_skill_versions unbound name": ("unbound", lambda t: m.installed_skill_versions(t / "repo")),
    "_stamps_in": ("", lambda t: m._stamps_in(t / "repo/.claude/skills")),
    "_stamp_inside bad skill": ("", lambda t: m._stamp_inside(t, 5)),
    "_say_unreadable str raises": ("", lambda t: m._say_unreadable(Raising())),
    "_update_command": ("", lambda t: m._update_command("project", ".windsurf/skills", Path("/w/my app"))),
    "_update_command eq raises": ("", lambda t: m._update_command(Raising(), ".claude/skills", None)),
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


# --- threads -------------------------------------------------------------------------


@pytest.mark.parametrize("route", ["native", "plain, failing"])
def test_threads_survey_alike_and_log_each_unreadable_once(tree, monkeypatch, caplog, route):
    monkeypatch.setattr(m, "_UNREADABLE", set())
    caplog.set_level("WARNING", logger=m.__name__)
    unreadable = {str(tree / "repo/.claude/skills/lumeno-map/SKILL.md")}  # a loop
    if route != "native":  # a skills directory that cannot be resolved, a file that cannot be opened
        denied = {str(tree / "home/.claude/skills"), str(tree / "repo/.claude/skills/lumeno/SKILL.md")}
        unreadable |= denied
        for name, real in [("resolve", Path.resolve), ("open", Path.open)]:

            def guarded(self, *args, real=real, **kwargs):
                return deny(self) if str(self) in denied else real(self, *args, **kwargs)

            monkeypatch.setattr(Path, name, guarded)
    start = threading.Barrier(8)

    def survey():
        start.wait()
        return [m.installed_skill_versions(tree / "repo") for _ in range(10)]

    switch = sys.getswitchinterval()
    sys.setswitchinterval(1e-5)
    try:
        with ThreadPoolExecutor(8) as pool:
            futures = [pool.submit(survey) for _ in range(8)]
    finally:
        sys.setswitchinterval(switch)
    results = [r for future in futures for r in future.result()]
    alone = m.installed_skill_versions(tree / "repo")
    assert len(results) == 80 and all(r == alone for r in results)
    assert [r.installed for r in alone if r.installed] == ["1.4.0"] * (2 if route == "native" else 0)
    assert sorted(r.args[0] for r in caplog.records) == sorted(unreadable)


# --- module instances ----------------------------------------------------------------


def run_python(code, **env):
    command = [sys.executable, "-c", textwrap.dedent(code)]
    done = subprocess.run(command, capture_output=True, text=True, timeout=300, env=os.environ | env)
    assert done.returncode == 0, done.stderr
    return done.stdout


@pytest.mark.installed
def test_module_instances_come_and_go_cleanly_in_re_imports_and_sub_interpreters(tmp_path):
    growth = run_python(
        """
        import gc, importlib, os, pathlib, sys, weakref
        # Each version's own interface; from 3.12 an interpreter has a GIL of its own, and refuses a module
        # that does not declare it can live with that.
        try:
            import _interpreters as interpreters
        except ImportError:
            import _xxsubinterpreters as interpreters
        def run(interpreter, code):
            failure = interpreters.run_string(interpreter, code)  # 3.13 answers a failure instead of raising
            assert failure is None, failure
        NAME, code = "zobek_lumeno.utils.agent_skills", "from zobek_lumeno.utils import agent_skills as m\\n"
        code += "assert m.DEFAULT_AGENTS == ('claude',) and len(m.installed_skill_versions(None)) == 12\\n"
        # The same work done by the plain formulation: what the host keeps of an interpreter by itself (from
        # 3.12 it keeps some of every one it destroys).
        plain = "import importlib.util as u, zobek_lumeno\\n"
        plain += f"spec = u.spec_from_file_location({NAME!r}, {os.environ['PLAIN']!r})\\n"
        plain += "spec.loader.exec_module(m := u.module_from_spec(spec))\\n" + code.split("\\n", 1)[1]
        def cycle(times, sub_code=code):
            for _ in range(times):
                sys.modules.pop(NAME, None)
                importlib.import_module(NAME).InstalledSkill("x", pathlib.Path("/"), "1", "2", "u", None).stale
                run(interpreter := interpreters.create(), sub_code + "m.DEFAULT_AGENTS = ()")
                interpreters.destroy(interpreter)
            gc.collect()
            return sys.getallocatedblocks()
        m = importlib.import_module(NAME)
        m.DEFAULT_AGENTS = ("windsurf",)
        kept, sub = m.InstalledSkill("x", pathlib.Path("/"), "1", "2", "user", None), interpreters.create()
        if hasattr(interpreters, "get_config"):
            assert interpreters.get_config(sub).gil == "own"
        run(sub, code + "m.DEFAULT_AGENTS = ('copilot',)")
        cycle(10)
        # Each interpreter, and each import, has its own module, whose names its functions read.
        run(sub, "assert m.DEFAULT_AGENTS == ('copilot',)")
        interpreters.destroy(sub)
        assert m._update_command("user", ".claude/skills", None).endswith("--agent claude")
        m.read_roots.__annotations__["cycle"] = m  # a cycle the collector finds only through annotations
        refs = [weakref.ref(o) for o in (m, m.read_stamp, type(m.read_stamp), m.InstalledSkill)]
        del m
        cycle(50)
        # A record keeps its type, and through `stale` the module, alive; nothing else does.
        assert [r() is not None for r in refs] == [True] * 4
        del kept
        start = cycle(0)
        native = cycle(100) - start
        assert [r() is not None for r in refs] == [False] * 4
        start = cycle(0, plain)
        print(native - (cycle(100, plain) - start))
        """,
        HOME=str(tmp_path),
        PLAIN=str(pathlib.Path(__file__).parents[1] / "bench" / "plain_agent_skills.py"),
    )
    # A module, its functions and types left behind per cycle would be hundreds of blocks each.
    assert int(growth) < 1000


# Each script prints what it ends in instead of crashing the interpreter.
CRASHES = {
    # A default the call bound must outlive the host replacing it while the body runs.
    "default replaced during the call": (
        "FileNotFoundError",
        """
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
    ),
    # Recursion through the module on small thread stacks ends in RecursionError.
    **{
        f"recursion on a {size // 1024} KiB stack": (
            "RecursionError",
            f"""
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
    """,
        )
        for size in (64 * 1024, 512 * 1024)
    },
    # An open() whose result has __exit__ but no __enter__: refused as the `with` statement refuses it.
    "a context manager without __enter__": (
        "'Half' object does not support the context manager protocol",
        """
        Half = type("Half", (), {"__exit__": lambda self, *exc: None})
        try:
            m.read_stamp(type("Opens", (), {"open": lambda self, mode: Half()})())
        except TypeError as e:
            print(e)
    """,
    ),
    # The functions' code objects, run by the host's own function type, traced or not, only raise.
    "a function made of __code__": (
        ("AssertionError " * 2 + "AssertionError TypeError " * 2) * 2,
        """
        import sys, types
        for trace in (None, lambda *a: trace):
            sys.settrace(trace)
            for f in (m.skill_capable_agents, m.inside_root, m.InstalledSkill.stale.fget):
                code, n = f.__code__, f.__code__.co_argcount
                keywords = dict.fromkeys(code.co_varnames[n : n + code.co_kwonlyargcount], 0)
                for run in (lambda: types.FunctionType(code, {})(*range(n), **keywords), lambda: exec(code)):
                    try:
                        run()
                    except (AssertionError, TypeError) as e:  # exec() passes no arguments
                        print(type(e).__name__, end=" ")
    """,
    ),
}


@pytest.mark.parametrize("expected, script", CRASHES.values(), ids=CRASHES)
def test_no_crash(expected, script):
    prelude = "import pathlib, threading\nfrom zobek_lumeno.utils import agent_skills as m\n"
    assert run_python(prelude + textwrap.dedent(script)).strip() == expected.strip()


def test_a_cycle_through_a_rebound_module_name_is_collected():
    # A fresh module instance: the imported one's dict would keep its functions alive.
    spec = importlib.util.find_spec(m.__name__)
    spec.loader.exec_module(fresh := importlib.util.module_from_spec(spec))
    fresh.read_roots.__module__ = types.SimpleNamespace(back=fresh.read_roots)
    ref = weakref.ref(fresh.read_roots)
    del fresh
    gc.collect()
    assert ref() is None


@pytest.mark.parametrize("module", ["zobek_lumeno.utils.agent_skills", "plain_agent_skills"])
def test_out_of_file_descriptors_the_survey_warns(tmp_path, module):
    """Every descriptor taken: the native route hands the directory to the host's objects, whose errors
    are logged; nothing is answered silently."""
    (tmp_path / "lumeno").mkdir()
    (tmp_path / "lumeno/SKILL.md").write_text("version: 1.0\n")
    found = run_python(
        f"""
        import errno, importlib, json, logging, os, pathlib, resource, sys
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]  # few to take, however many the machine allows
        resource.setrlimit(resource.RLIMIT_NOFILE, (256 if hard < 0 else min(256, hard), hard))
        sys.path.insert(0, {str(pathlib.Path(__file__).parents[1] / "bench")!r})
        m, warned = importlib.import_module({module!r}), []
        m.logger.addHandler(handler := logging.Handler())
        handler.emit = lambda r: warned.append([r.args[0], r.exc_info[1].errno == errno.EMFILE])
        held = []
        while not held or held[-1] is not None:
            try:
                held.append(os.open("/", os.O_RDONLY))
            except OSError:
                held.append(None)
        stamps = m._stamps_in(pathlib.Path({str(tmp_path)!r}))
        for fd in held[:-1]:
            os.close(fd)
        print(json.dumps([stamps, warned]))
        """
    )
    assert json.loads(found) == [dict.fromkeys(m.SKILL_NAMES), [[str(tmp_path / "lumeno/SKILL.md"), True]]]
