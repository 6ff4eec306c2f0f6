"""The module as a Python caller sees it: names, constants, docstrings, the import, and its functions."""

import collections.abc
import copy
import functools
import inspect
import itertools
import json
import logging
import pathlib
import pickle
import pydoc
import re
import shutil
import subprocess
import sys
import textwrap
import types
import typing
import weakref

import pytest

import zobek_lumeno
from zobek_lumeno.utils import agent_skills as m

MODULE = "zobek_lumeno.utils.agent_skills"
MODULE_DOC = """Where agents read the lumeno skills, and which installed copies are older than the package.

Shared by the installer (``setup.skill``) and the ``status`` check, which may not import the
installer: the names of the embedded skills, the skills directories of each agent, the choice of
the directories an install writes, and the read of the version a ``SKILL.md`` is stamped with.
Standard library only; reads files, writes none.
"""
CONSTANTS = {
    "SKILL_DIR_NAME": "lumeno",
    "MAP_SKILL_DIR_NAME": "lumeno-map",
    "WIKI_SKILL_DIR_NAME": "lumeno-wiki",
    "SKILL_NAMES": ("lumeno", "lumeno-map", "lumeno-wiki"),
    "SKILL_FILE": "SKILL.md",
    "STAMP_HEAD_BYTES": 2048,
    # Patterns compare equal when their texts and flags are the same.
    "_VERSION_RE": re.compile(r"^version:\s*([0-9][\w.\-]*)\s*$", re.M),
    "DEFAULT_AGENTS": ("claude",),
    "_EXHAUSTIVE_SEARCH_LIMIT": 12,
    "_Score": tuple[int, int, int, tuple[str, ...]],
    "_PLAIN_WORD": re.compile(r"[\w./:+-]+"),
}
# Every function, in binding order; the getter of InstalledSkill.stale stands where the record is bound.
SIGNATURES = {
    "skill_capable_agents": "() -> 'list[str]'",
    "agent_roots": "(agent_keys: 'Iterable[str]', scope: 'str') -> 'dict[str, tuple[str, ...]]'",
    "read_roots": "(roots: 'dict[str, tuple[str, ...]]') -> 'list[str]'",
    "_score": "(selection: 'tuple[str, ...]', roots: 'dict[str, tuple[str, ...]]') -> '_Score | None'",
    "resolve_skill_dirs": "(agent_keys: 'Iterable[str]', scope: 'str' = 'project') -> 'list[str]'",
    "read_stamp": "(path: 'Path') -> 'str | None'",
    "version_tuple": "(v: 'str') -> 'tuple[int, ...]'",
    "inside_root": "(root: 'Path', path: 'Path', *, strict: 'bool') -> 'Path | None'",
    "InstalledSkill.stale": "(self) -> 'bool'",
    "installed_skill_versions": "(project_root: 'Path | None') -> 'list[InstalledSkill]'",
    "_stamps_in": "(directory: 'Path') -> 'dict[str, str | None]'",
    "_stamp_inside": "(root: 'Path', skill: 'str') -> 'str | None'",
    "_say_unreadable": "(what: 'Path | str') -> 'None'",
    "_update_command": "(scope: 'str', skills_dir: 'str', project_root: 'Path | None') -> 'str | None'",
    "_shell_word": "(text: 'str') -> 'str'",
}
BINDING_ORDER = (
    ["__doc__", "__package__", "__annotations__", "itertools", "logging", "re", "Iterable", "Path"]
    + ["NamedTuple", "__version__", "logger", "SKILL_DIR_NAME", "MAP_SKILL_DIR_NAME", "WIKI_SKILL_DIR_NAME"]
    + ["SKILL_NAMES", "SKILL_FILE", "STAMP_HEAD_BYTES", "_VERSION_RE", "DEFAULT_AGENTS", "SkillRoots"]
    + ["AGENT_SKILL_ROOTS", "_EXHAUSTIVE_SEARCH_LIMIT", "_Score", "_UNREADABLE", "_PLAIN_WORD"]
    + [qualname.partition(".")[0] for qualname in SIGNATURES]
)
# The summary line of each documentation string; a text that runs on must end as a
# docstring indented in a class or function body does.
DOCS = {
    "skill_capable_agents": "Agent keys with at least one verified skills directory.",
    "agent_roots": "Skill-discovery roots per requested agent, for one scope.",
    "read_roots": "Every directory at least one of these agents reads, in name order.",
    "_score": "Rank a candidate directory set. Lower is better; None if it misses an agent.",
    "resolve_skill_dirs": "The directories to install skills into so each agent discovers them once.",
    "read_stamp": "The version a skill file is stamped with, read from the head of the file only.",
    "version_tuple": "Lenient numeric version key ('1.10.0' -> (1, 10, 0)); non-ints count as 0.",
    "inside_root": "``path`` with its links followed, when it stays under the resolved ``root``.",
    "SkillRoots": "The directories one agent scans for Agent Skills, most-native first.",
    "InstalledSkill": "One embedded skill in one skills directory that an agent reads.",
    "InstalledSkill.stale": "Whether the installed copy is older than the running package.",
    "installed_skill_versions": "The stamp of each embedded skill in every skills directory an agent reads.",
    "_stamps_in": "The stamp of each embedded skill in one skills directory, read only from inside it.",
    "_stamp_inside": (
        "The stamp of one skill under a resolved skills directory; None when its file is outside."
    ),
    "_say_unreadable": (
        "Log, once for each, a skills directory or file that cannot be read (call it in ``except``)."
    ),
    "_update_command": "The command that installs the running package's skills into one skills directory.",
    "_shell_word": "The text as one word of a command line: in double quotes unless it needs none.",
}
# The ones whose text runs on past the summary.
LONG_DOCS = {"agent_roots", "_score", "resolve_skill_dirs", "read_stamp", "inside_root", "SkillRoots"}
LONG_DOCS |= {"InstalledSkill", "installed_skill_versions", "_update_command"}


def real(qualname):
    return functools.reduce(getattr, qualname.split("."), m)


def function(qualname):
    return getattr(real(qualname), "fget", real(qualname))


def twin(qualname, signature):
    """What a `def` with this signature in the module's source makes."""
    name, namespace = qualname.rpartition(".")[2], {"__name__": MODULE}
    exec(f"def {name}{signature}: pass", namespace)
    namespace[name].__qualname__ = qualname
    return namespace[name]


def pydoc_body(f):
    # pydoc's header names Python functions by type, which no extension type can match; the body must.
    return pydoc.render_doc(f, renderer=pydoc.plaintext).split("\n", 1)[1]


def test_identity(monkeypatch):
    assert not hasattr(m, "__all__") and sys.modules[MODULE] is m
    assert (m.__name__, m.__package__, m.__doc__) == (MODULE, "zobek_lumeno.utils", MODULE_DOC)
    assert list(m.__annotations__) == ["SKILL_NAMES", "AGENT_SKILL_ROOTS", "_UNREADABLE"]
    assert list(m.__annotations__.values()) == ["tuple[str, ...]", "dict[str, SkillRoots]", "set[str]"]
    # Modules and classes compare equal only to themselves.
    assert (m.itertools, m.logging, m.re) == (itertools, logging, re)
    assert (m.Iterable, m.Path, m.NamedTuple) == (collections.abc.Iterable, pathlib.Path, typing.NamedTuple)
    assert m.__version__ is zobek_lumeno.__version__ and m.logger is logging.getLogger(MODULE)
    before = m.__version__
    monkeypatch.setattr(zobek_lumeno, "__version__", "0.0.0-other")
    assert m.__version__ is before  # copied once, at import


def test_constants():
    got = {name: getattr(m, name) for name in CONSTANTS}
    assert got == CONSTANTS
    assert {name: type(value) for name, value in got.items()} == {n: type(v) for n, v in CONSTANTS.items()}
    assert {type(item) for item in m.SKILL_NAMES + m.DEFAULT_AGENTS} == {str}
    names = (m.SKILL_DIR_NAME, m.MAP_SKILL_DIR_NAME, m.WIKI_SKILL_DIR_NAME)
    assert all(a is b for a, b in zip(m.SKILL_NAMES, names, strict=True))


@pytest.mark.parametrize("name, doc", DOCS.items(), ids=DOCS)
def test_docstrings(name, doc):
    obj = real(name)
    summary, _, rest = obj.__doc__.partition("\n")
    assert summary == doc and bool(rest) == (name in LONG_DOCS)
    assert not rest or (rest.startswith("\n    ") and rest.endswith("\n    ") and "\t" not in rest)
    assert getattr(obj, "fget", obj).__doc__ == obj.__doc__  # a property's text is its getter's


@pytest.mark.installed
def test_import_afresh_after_failing_and_under_another_name(tmp_path):
    # A host package without a version, whose utils reach the installed extension; and a
    # copy of the extension loaded outside any package. In a new interpreter, since other
    # tests rebind names (which moves them to the end of the namespace) and fill _UNREADABLE.
    package, utils = tmp_path / "zobek_lumeno", pathlib.Path(m.__file__).parent
    (package / "utils").mkdir(parents=True)
    (package / "__init__.py").write_text("")
    (package / "utils" / "__init__.py").write_text(f"__path__.append({str(utils)!r})\n")
    shutil.copy(m.__file__, tmp_path)
    script = f"""
        import importlib, json, sys
        sys.path.insert(0, {str(tmp_path)!r})
        import zobek_lumeno

        def attempt():
            try:
                importlib.import_module({MODULE!r})
            except ImportError as e:
                return [type(e).__name__, str(e), e.name, e.path, {MODULE!r} in sys.modules]

        no_version = attempt()
        zobek_lumeno.__version__ = "9.8.7"
        saved, sys.modules["itertools"] = sys.modules["itertools"], None
        blocked = attempt()
        sys.modules["itertools"] = saved
        # The import statements go through the builtins' __import__, which may fail the last one.
        import builtins
        calls, real_import = [], builtins.__import__
        def tracer(name, globals=None, locals=None, fromlist=(), level=0):
            if globals is not None and globals.get("__name__") == {MODULE!r}:
                calls.append([name, globals is locals, fromlist, level])
                if len(calls) == 7:
                    raise ImportError("refused")
            return real_import(name, globals, locals, fromlist, level)
        builtins.__import__ = tracer
        refused = attempt()
        m = importlib.import_module({MODULE!r})
        builtins.__import__ = real_import
        import agent_skills as top
        print(json.dumps(dict(
            no_version=no_version, blocked=blocked, refused=refused, calls=calls,
            names=list(vars(m)), unreadable=repr(m._UNREADABLE),
            state=[m.__version__, m.skill_capable_agents(), sys.modules[{MODULE!r}] is m, m.__file__],
            top=[top.__name__, top.__package__, top.logger.name, top.read_roots.__module__, top is m],
        )))
    """
    command = [sys.executable, "-c", textwrap.dedent(script)]
    done = subprocess.run(command, capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    report, init = json.loads(done.stdout), str(package / "__init__.py")
    message = f"cannot import name '__version__' from 'zobek_lumeno' ({init})"
    assert report["no_version"] == ["ImportError", message, "zobek_lumeno", init, False]
    halted = "import of itertools halted; None in sys.modules"
    assert report["blocked"] == ["ModuleNotFoundError", halted, "itertools", None, False]
    assert report["refused"] == ["ImportError", "refused", None, None, False]
    imports = [["itertools", None], ["logging", None], ["re", None], ["collections.abc", ["Iterable"]]]
    imports += [["pathlib", ["Path"]], ["typing", ["NamedTuple"]], ["zobek_lumeno", ["__version__"]]]
    assert report["calls"] == [[name, True, names, 0] for name, names in imports] * 2
    standard = {"__name__", "__loader__", "__spec__", "__file__", "__cached__", "__builtins__"}
    assert [name for name in report["names"] if name not in standard] == BINDING_ORDER
    assert report["unreadable"] == "set()"
    agents = ["claude", "cursor-agent", "windsurf", "copilot"]
    assert report["state"] == ["9.8.7", agents, True, m.__file__]
    assert report["top"] == ["agent_skills", "", "agent_skills", "agent_skills", False]


# --- the function type ------------------------------------------------------------------


@pytest.mark.parametrize("qualname, signature", SIGNATURES.items(), ids=SIGNATURES)
def test_function_metadata(qualname, signature):
    f, reference = function(qualname), twin(qualname, signature)
    assert (f.__name__, f.__qualname__, f.__module__) == (reference.__name__, qualname, MODULE)
    assert list(f.__annotations__.items()) == list(reference.__annotations__.items())
    assert (f.__defaults__, f.__kwdefaults__) == (reference.__defaults__, reference.__kwdefaults__)
    assert str(inspect.signature(f)) == signature and f.__globals__ is vars(m)
    typing.get_type_hints(f)  # the annotation texts resolve in the module's namespace
    assert repr(f).startswith(f"<function {qualname} at 0x")
    assert weakref.ref(f)() is f and copy.copy(f) is f and copy.deepcopy(f) is f
    if "." in qualname:
        with pytest.raises(pickle.PicklingError, match=f"not the same object as {MODULE}.{qualname}$"):
            pickle.dumps(f)
    else:
        assert all(pickle.loads(pickle.dumps(f, p)) is f for p in range(pickle.HIGHEST_PROTOCOL + 1))
    reference.__doc__ = f.__doc__
    assert pydoc_body(f) == pydoc_body(reference)


def test_function_attributes():
    f = m.read_roots
    f.note = "kept"
    assert f.__dict__ == {"note": "kept"}
    f.__dict__ = {}
    assert not hasattr(f, "note")
    for attribute, bad in [("__name__", 1), ("__name__", None), ("__name__", b"x"), ("__qualname__", 2)]:
        with pytest.raises(TypeError, match=rf"^{attribute} must be set to a string object$"):
            setattr(f, attribute, bad)
    assert f.__name__ == f.__qualname__ == "read_roots"
    replaced = f.__signature__ = inspect.Signature()
    assert inspect.signature(f) is replaced
    del f.__signature__
    assert str(inspect.signature(f)) == SIGNATURES["read_roots"]


def test_binds_as_a_method():
    class Roots(dict):
        read = m.read_roots
        stale = m.InstalledSkill.stale.fget

    roots = Roots(a=(".b", ".a"))
    assert roots.read() == [".a", ".b"] and Roots.read is m.read_roots
    assert roots.read.__func__ is m.read_roots and roots.read.__self__ is roots
    assert str(inspect.signature(roots.read)) == "() -> 'list[str]'"
    assert str(inspect.signature(roots.stale)) == "() -> 'bool'"


def test_rebound_defaults_are_honoured(monkeypatch, tmp_path):
    f = m.resolve_skill_dirs
    assert f(["windsurf"]) == [".windsurf/skills"]
    monkeypatch.setattr(f, "__defaults__", ("user",))
    assert f(["windsurf"]) == [".codeium/windsurf/skills"]
    assert str(inspect.signature(f)) == "(agent_keys: 'Iterable[str]', scope: 'str' = 'user') -> 'list[str]'"
    monkeypatch.setattr(f, "__defaults__", None)
    with pytest.raises(TypeError) as caught:
        f(["windsurf"])
    assert str(caught.value) == "resolve_skill_dirs() missing 1 required positional argument: 'scope'"
    monkeypatch.setattr(m.inside_root, "__kwdefaults__", {"strict": False})
    assert m.inside_root(tmp_path, tmp_path / "absent") == tmp_path.resolve() / "absent"


# --- argument errors, against the same signature written as a `def` ---------------------

ARG = object()


def bad_calls(parameters):
    """Calls that a Python function with these parameters may reject, covering each binding failure."""
    positional = [p.name for p in parameters if p.kind is p.POSITIONAL_OR_KEYWORD]
    keyword_only = {p.name: ARG for p in parameters if p.kind is p.KEYWORD_ONLY}
    ends = positional[:1] + positional[-1:]
    # A keyword built at run time is equal to the parameter's name but not the same object.
    extras = [{}, {"bogus": ARG}] + [{name: ARG} for name in ends] + [{"".join(list(n)): ARG} for n in ends]
    kinds = range(len(positional) + 3)
    return [((ARG,) * k, {**extra, **kw}) for k in kinds for extra in extras for kw in ({}, keyword_only)]


def outcome(call, args, kwargs):
    try:
        call(*args, **kwargs)
    except Exception as e:
        return f"{type(e).__name__}: {e}"
    return None


@pytest.mark.parametrize("variant", ["declared", "with defaults", "surplus defaults", "as a method"])
@pytest.mark.parametrize("qualname, signature", SIGNATURES.items(), ids=SIGNATURES)
def test_argument_errors_match_python(monkeypatch, qualname, signature, variant):
    f, reference = function(qualname), twin(qualname, signature)
    parameters = inspect.signature(reference).parameters.values()
    calls = bad_calls(parameters)
    if variant.endswith("defaults"):
        # More defaults than parameters is legal, and shifts CPython's counts below zero.
        n = sum(p.kind is p.POSITIONAL_OR_KEYWORD for p in parameters)
        defaults = (ARG,) * (n + 1 if variant == "surplus defaults" else min(n, 1)) or None
        kwdefaults = {p.name: ARG for p in parameters if p.kind is p.KEYWORD_ONLY} or None
        for g in (f, reference):
            monkeypatch.setattr(g, "__defaults__", defaults)
            monkeypatch.setattr(g, "__kwdefaults__", kwdefaults)
    elif variant == "as a method":
        f, reference = types.MethodType(f, ARG), types.MethodType(reference, ARG)
    mismatches = []
    for args, kwargs in calls:
        expected = outcome(reference, args, kwargs)
        if expected is None:
            continue  # a valid call: the body is not what this test is about
        got = outcome(f, args, kwargs)
        if got != expected:
            mismatches.append((len(args), sorted(kwargs), expected, got))
    assert mismatches == []
