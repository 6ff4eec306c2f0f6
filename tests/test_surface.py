"""The module as a Python caller sees it: names, constants, patterns, the import, and its functions."""

import collections.abc
import copy
import inspect
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
# Set by the import machinery, not by the module's own code.
STANDARD = {"__name__", "__loader__", "__spec__", "__file__", "__cached__", "__builtins__", "__path__"}

BINDING_ORDER = [
    "__doc__",
    "__package__",
    "__annotations__",
    "itertools",
    "logging",
    "re",
    "Iterable",
    "Path",
    "NamedTuple",
    "__version__",
    "logger",
    "SKILL_DIR_NAME",
    "MAP_SKILL_DIR_NAME",
    "WIKI_SKILL_DIR_NAME",
    "SKILL_NAMES",
    "SKILL_FILE",
    "STAMP_HEAD_BYTES",
    "_VERSION_RE",
    "DEFAULT_AGENTS",
    "SkillRoots",
    "AGENT_SKILL_ROOTS",
    "_EXHAUSTIVE_SEARCH_LIMIT",
    "_Score",
    "_UNREADABLE",
    "_PLAIN_WORD",
    "skill_capable_agents",
    "agent_roots",
    "read_roots",
    "_score",
    "resolve_skill_dirs",
    "read_stamp",
    "version_tuple",
    "inside_root",
    "InstalledSkill",
    "installed_skill_versions",
    "_stamps_in",
    "_stamp_inside",
    "_say_unreadable",
    "_update_command",
    "_shell_word",
]

MODULE_DOC = (
    "Where agents read the lumeno skills, and which installed copies are older than the package.\n"
    "\n"
    "Shared by the installer (``setup.skill``) and the ``status`` check, which may not import the\n"
    "installer: the names of the embedded skills, the skills directories of each agent, the choice of\n"
    "the directories an install writes, and the read of the version a ``SKILL.md`` is stamped with.\n"
    "Standard library only; reads files, writes none.\n"
)


def test_identity():
    assert not hasattr(m, "__all__")
    assert (m.__name__, m.__package__, m.__doc__) == (MODULE, "zobek_lumeno.utils", MODULE_DOC)
    assert list(m.__annotations__.items()) == [
        ("SKILL_NAMES", "tuple[str, ...]"),
        ("AGENT_SKILL_ROOTS", "dict[str, SkillRoots]"),
        ("_UNREADABLE", "set[str]"),
    ]
    assert sys.modules[MODULE] is m
    imported = {
        "itertools": sys.modules["itertools"],
        "logging": sys.modules["logging"],
        "re": sys.modules["re"],
        "Iterable": collections.abc.Iterable,
        "Path": pathlib.Path,
        "NamedTuple": typing.NamedTuple,
        "__version__": zobek_lumeno.__version__,
        "logger": logging.getLogger(MODULE),
    }
    assert [name for name, value in imported.items() if getattr(m, name) is not value] == []


def test_version_is_copied_once(monkeypatch):
    before = m.__version__
    monkeypatch.setattr(zobek_lumeno, "__version__", "0.0.0-other")
    assert m.__version__ is before


@pytest.mark.parametrize(
    "name, value",
    [
        ("SKILL_DIR_NAME", "lumeno"),
        ("MAP_SKILL_DIR_NAME", "lumeno-map"),
        ("WIKI_SKILL_DIR_NAME", "lumeno-wiki"),
        ("SKILL_NAMES", ("lumeno", "lumeno-map", "lumeno-wiki")),
        ("SKILL_FILE", "SKILL.md"),
        ("STAMP_HEAD_BYTES", 2048),
        ("DEFAULT_AGENTS", ("claude",)),
        ("_EXHAUSTIVE_SEARCH_LIMIT", 12),
    ],
)
def test_constants(name, value):
    got = getattr(m, name)
    assert type(got) is type(value) and got == value
    if isinstance(value, tuple):
        assert all(type(item) is str for item in got)


def test_derived_values():
    names = (m.SKILL_DIR_NAME, m.MAP_SKILL_DIR_NAME, m.WIKI_SKILL_DIR_NAME)
    assert all(a is b for a, b in zip(m.SKILL_NAMES, names, strict=True))
    assert type(m._Score) is types.GenericAlias and m._Score == tuple[int, int, int, tuple[str, ...]]
    assert type(m._VERSION_RE) is re.Pattern and type(m._PLAIN_WORD) is re.Pattern
    assert (m._VERSION_RE.pattern, m._VERSION_RE.flags) == (r"^version:\s*([0-9][\w.\-]*)\s*$", re.M | re.U)
    assert (m._PLAIN_WORD.pattern, m._PLAIN_WORD.flags) == (r"[\w./:+-]+", re.U)


@pytest.mark.parametrize(
    "text, found",
    [
        ("version: 1.2.3", "1.2.3"),
        ("version:1.2.3", "1.2.3"),
        ("---\nversion: 1.2.3  \nname: x", "1.2.3"),
        ("version:\n1.2.3", "1.2.3"),
        ("version: 1.2.3\nversion: 4.5.6", "1.2.3"),
        ("version: 1.2-rc_1", "1.2-rc_1"),
        ("version: v1.2", None),
        ("Version: 1.2.3", None),
        ("  version: 1.2.3", None),
        ("version: 1.2.3 beta", None),
        ("version: \u0661.2", None),
    ],  # an Arabic-Indic digit is no ASCII digit
)
def test_version_pattern(text, found):
    match = m._VERSION_RE.search(text)
    assert (match.group(1) if match else None) == found


@pytest.mark.parametrize(
    "text, plain",
    [
        ("--agent", True),
        ("/home/x/.claude", True),
        ("é", True),
        ("a+b:c", True),
        ("", False),
        ("a b", False),
        ("a\\b", False),
        ("~", False),
        ("a\n", False),
        ("it's", False),
    ],
)
def test_plain_word_pattern(text, plain):
    assert (m._PLAIN_WORD.fullmatch(text) is not None) is plain


def _run(script, *path_entries):
    code = f"import sys; sys.path[:0] = {[str(p) for p in path_entries]!r}\n" + textwrap.dedent(script)
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def test_fresh_namespace(tmp_path):
    # In a new interpreter: other tests rebind names (which moves them to the end) and fill _UNREADABLE.
    shutil.copy(m.__file__, tmp_path)  # the same extension, loaded again outside any package
    names, unreadable, top = _run(
        f"""
        import json
        import {MODULE} as m
        import agent_skills as top
        print(json.dumps([list(vars(m)), [type(m._UNREADABLE).__name__, sorted(m._UNREADABLE)],
                          [top.__name__, top.__package__, top.logger.name, top.read_roots.__module__, top is m]]))
    """,
        tmp_path,
    )
    assert [n for n in names if n not in STANDARD] == BINDING_ORDER
    assert unreadable == ["set", []]
    assert top == ["agent_skills", "", "agent_skills", "agent_skills", False]


def test_failed_initialisation_leaves_nothing_registered(tmp_path):
    package = tmp_path / "zobek_lumeno"
    (package / "utils").mkdir(parents=True)
    (package / "__init__.py").write_text('"""A host package without a version."""\n')
    installed_utils = pathlib.Path(m.__file__).parent
    (package / "utils" / "__init__.py").write_text(f"__path__.append({str(installed_utils)!r})\n")
    report = _run(
        f"""
        import importlib, json, sys
        import zobek_lumeno

        def attempt():
            try:
                importlib.import_module({MODULE!r})
            except ImportError as e:
                return [type(e).__name__, str(e), e.name, e.path, {MODULE!r} in sys.modules]
            return None

        try:
            from zobek_lumeno import __version__
        except ImportError as e:
            reference = str(e)
        missing_version = attempt()
        zobek_lumeno.__version__ = "9.8.7"
        saved, sys.modules["itertools"] = sys.modules["itertools"], None
        blocked_import = attempt()
        sys.modules["itertools"] = saved
        m = importlib.import_module({MODULE!r})
        print(json.dumps(dict(
            reference=reference, missing_version=missing_version, blocked_import=blocked_import,
            version=m.__version__, agents=m.skill_capable_agents(), unreadable=len(m._UNREADABLE),
            registered=sys.modules[{MODULE!r}] is m, file=m.__file__, init=zobek_lumeno.__file__,
        )))
    """,
        tmp_path,
    )
    init = str(package / "__init__.py")
    assert report["init"] == init
    message = f"cannot import name '__version__' from 'zobek_lumeno' ({init})"
    assert report["reference"] == message
    assert report["missing_version"] == ["ImportError", message, "zobek_lumeno", init, False]
    assert report["blocked_import"] == [
        "ModuleNotFoundError",
        "import of itertools halted; None in sys.modules",
        "itertools",
        None,
        False,
    ]
    assert report["version"] == "9.8.7" and report["registered"] and report["unreadable"] == 0
    assert report["agents"] == ["claude", "cursor-agent", "windsurf", "copilot"]
    assert pathlib.Path(report["file"]).parent == installed_utils


# --- the function type ------------------------------------------------------------------

FUNCTIONS = [
    ("skill_capable_agents", "() -> 'list[str]'", "Agent keys with at least one verified skills directory."),
    (
        "agent_roots",
        "(agent_keys: 'Iterable[str]', scope: 'str') -> 'dict[str, tuple[str, ...]]'",
        "Skill-discovery roots per requested agent, for one scope.",
    ),
    (
        "read_roots",
        "(roots: 'dict[str, tuple[str, ...]]') -> 'list[str]'",
        "Every directory at least one of these agents reads, in name order.",
    ),
    (
        "_score",
        "(selection: 'tuple[str, ...]', roots: 'dict[str, tuple[str, ...]]') -> '_Score | None'",
        "Rank a candidate directory set. Lower is better; None if it misses an agent.",
    ),
    (
        "resolve_skill_dirs",
        "(agent_keys: 'Iterable[str]', scope: 'str' = 'project') -> 'list[str]'",
        "The directories to install skills into so each agent discovers them once.",
    ),
    (
        "read_stamp",
        "(path: 'Path') -> 'str | None'",
        "The version a skill file is stamped with, read from the head of the file only.",
    ),
    (
        "version_tuple",
        "(v: 'str') -> 'tuple[int, ...]'",
        "Lenient numeric version key ('1.10.0' -> (1, 10, 0)); non-ints count as 0.",
    ),
    (
        "inside_root",
        "(root: 'Path', path: 'Path', *, strict: 'bool') -> 'Path | None'",
        "``path`` with its links followed, when it stays under the resolved ``root``.",
    ),
    (
        "InstalledSkill.stale",
        "(self) -> 'bool'",
        "Whether the installed copy is older than the running package.",
    ),
    (
        "installed_skill_versions",
        "(project_root: 'Path | None') -> 'list[InstalledSkill]'",
        "The stamp of each embedded skill in every skills directory an agent reads.",
    ),
    (
        "_stamps_in",
        "(directory: 'Path') -> 'dict[str, str | None]'",
        "The stamp of each embedded skill in one skills directory, read only from inside it.",
    ),
    (
        "_stamp_inside",
        "(root: 'Path', skill: 'str') -> 'str | None'",
        "The stamp of one skill under a resolved skills directory; None when its file is outside.",
    ),
    (
        "_say_unreadable",
        "(what: 'Path | str') -> 'None'",
        "Log, once for each, a skills directory or file that cannot be read (call it in ``except``).",
    ),
    (
        "_update_command",
        "(scope: 'str', skills_dir: 'str', project_root: 'Path | None') -> 'str | None'",
        "The command that installs the running package's skills into one skills directory.",
    ),
    (
        "_shell_word",
        "(text: 'str') -> 'str'",
        "The text as one word of a command line: in double quotes unless it needs none.",
    ),
]
QUALNAMES = [q for q, _, _ in FUNCTIONS]


def real(qualname):
    if qualname == "InstalledSkill.stale":
        return m.InstalledSkill.stale.fget
    return getattr(m, qualname)


def twin(qualname, signature):
    """What a `def` with this signature in the module's source makes."""
    name = qualname.rpartition(".")[2]
    namespace = {"__name__": MODULE}
    exec(f"def {name}{signature}: pass", namespace)
    function = namespace[name]
    function.__qualname__ = qualname
    return function


@pytest.mark.parametrize("qualname, signature, summary", FUNCTIONS, ids=QUALNAMES)
def test_function_metadata(qualname, signature, summary):
    f, reference = real(qualname), twin(qualname, signature)
    assert f.__name__ == qualname.rpartition(".")[2] and f.__qualname__ == qualname
    assert f.__module__ == MODULE
    assert f.__doc__.splitlines()[0] == summary
    assert list(f.__annotations__.items()) == list(reference.__annotations__.items())
    assert f.__defaults__ == (("project",) if qualname == "resolve_skill_dirs" else None)
    assert f.__kwdefaults__ is None
    assert str(inspect.signature(f)) == signature
    assert f.__globals__ is vars(m)
    # Annotations are texts that resolve in the module's namespace, as the module's own would.
    typing.get_type_hints(f)
    assert repr(f).startswith(f"<function {qualname} at 0x")
    assert weakref.ref(f)() is f
    assert copy.copy(f) is f and copy.deepcopy(f) is f
    reference.__doc__ = f.__doc__
    # pydoc's header names Python functions by type, which no extension type can match; the body must.
    assert (
        pydoc.render_doc(f, renderer=pydoc.plaintext).split("\n", 1)[1]
        == (pydoc.render_doc(reference, renderer=pydoc.plaintext).split("\n", 1)[1])
    )


@pytest.mark.parametrize("qualname", [q for q in QUALNAMES if "." not in q])
def test_functions_pickle_by_reference(qualname):
    f = real(qualname)
    assert all(
        pickle.loads(pickle.dumps(f, protocol)) is f for protocol in range(pickle.HIGHEST_PROTOCOL + 1)
    )


def test_property_getter_does_not_pickle_as_the_property():
    with pytest.raises(pickle.PicklingError, match=f"not the same object as {MODULE}.InstalledSkill.stale$"):
        pickle.dumps(m.InstalledSkill.stale.fget)


def test_function_attributes():
    f = m.read_roots
    f.note = "kept"
    try:
        assert f.__dict__ == {"note": "kept"} and vars(f)["note"] == "kept"
    finally:
        f.__dict__ = {}
    assert not hasattr(f, "note")
    for bad in (1, None, b"read_roots"):
        with pytest.raises(TypeError, match=r"^__name__ must be set to a string object$"):
            f.__name__ = bad
    with pytest.raises(TypeError, match=r"^__qualname__ must be set to a string object$"):
        f.__qualname__ = 2
    assert f.__name__ == f.__qualname__ == "read_roots"


def test_signature_can_be_replaced():
    replaced = inspect.Signature()
    m.read_roots.__signature__ = replaced
    try:
        assert inspect.signature(m.read_roots) is replaced
    finally:
        del m.read_roots.__signature__
    assert str(inspect.signature(m.read_roots)) == "(roots: 'dict[str, tuple[str, ...]]') -> 'list[str]'"


def test_binds_as_a_method():
    class Roots(dict):
        read = m.read_roots
        stale = m.InstalledSkill.stale.fget

    roots = Roots(a=(".b", ".a"))
    assert roots.read() == [".a", ".b"]
    assert roots.read.__func__ is m.read_roots and roots.read.__self__ is roots
    assert Roots.read is m.read_roots
    assert str(inspect.signature(roots.read)) == "() -> 'list[str]'"
    assert str(inspect.signature(roots.stale)) == "() -> 'bool'"


def test_rebound_defaults_are_honoured(monkeypatch, tmp_path):
    f = m.resolve_skill_dirs
    assert f(["windsurf"]) == [".windsurf/skills"]
    monkeypatch.setattr(f, "__defaults__", ("user",))
    assert f(["windsurf"]) == [".codeium/windsurf/skills"]
    assert str(inspect.signature(f)) == "(agent_keys: 'Iterable[str]', scope: 'str' = 'user') -> 'list[str]'"
    monkeypatch.setattr(f, "__defaults__", None)
    with pytest.raises(
        TypeError, match=r"^resolve_skill_dirs\(\) missing 1 required positional argument: 'scope'$"
    ):
        f(["windsurf"])
    monkeypatch.setattr(m.inside_root, "__kwdefaults__", {"strict": False})
    assert m.inside_root(tmp_path, tmp_path / "absent") == tmp_path.resolve() / "absent"


# --- argument errors, against the same signature written as a `def` ---------------------

ARG = object()


def bad_calls(signature):
    """Calls that a Python function of this signature may reject, covering each binding failure."""
    parameters = signature.parameters.values()
    positional = [p.name for p in parameters if p.kind is p.POSITIONAL_OR_KEYWORD]
    keyword_only = {p.name: ARG for p in parameters if p.kind is p.KEYWORD_ONLY}
    n = len(positional)
    calls = [((ARG,) * k, kw) for k in range(n + 3) for kw in ({}, keyword_only)]
    calls += [((ARG,) * k, {"bogus": ARG, **keyword_only}) for k in (0, n, n + 1)]
    if positional:
        first = positional[0]
        calls += [((ARG,) * k, {first: ARG, **keyword_only}) for k in (1, n + 1)]
        # A keyword built at run time is equal to the parameter's name but not the same object.
        calls.append(((ARG,), {"".join(list(first)): ARG, **keyword_only}))
        calls.append(((), {positional[-1]: ARG}))
    return calls


def outcome(call, args, kwargs):
    try:
        call(*args, **kwargs)
    except Exception as e:
        return f"{type(e).__name__}: {e}"
    return None


@pytest.mark.parametrize("variant", ["declared", "with defaults", "surplus defaults", "as a method"])
@pytest.mark.parametrize("qualname, signature", [f[:2] for f in FUNCTIONS], ids=QUALNAMES)
def test_argument_errors_match_python(monkeypatch, qualname, signature, variant):
    f, reference = real(qualname), twin(qualname, signature)
    calls = bad_calls(inspect.signature(reference))
    if variant.endswith("defaults"):
        # More defaults than parameters is legal, and shifts CPython's counts below zero.
        parameters = inspect.signature(reference).parameters.values()
        n = sum(p.kind is p.POSITIONAL_OR_KEYWORD for p in parameters)
        defaults = (ARG,) * (n + 1 if variant == "surplus defaults" else min(n, 1)) or None
        kwdefaults = {p.name: ARG for p in parameters if p.kind is p.KEYWORD_ONLY} or None
        for function in (f, reference):
            monkeypatch.setattr(function, "__defaults__", defaults)
            monkeypatch.setattr(function, "__kwdefaults__", kwdefaults)
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
