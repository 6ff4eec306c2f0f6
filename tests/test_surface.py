"""The module as a Python caller sees it: its import, its names and values, and its functions against the
same functions written in Python (the plain formulation): metadata, documentation, argument errors."""

import builtins
import copy
import functools
import importlib.util
import inspect
import json
import operator
import pathlib
import pickle
import pydoc
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
QUALNAMES = [name for name, f in vars(m).items() if type(f) is type(m.read_stamp)] + ["InstalledSkill.stale"]


def function(module, qualname):
    found = functools.reduce(getattr, qualname.split("."), module)
    return getattr(found, "fget", found)


def test_names_and_values(plain, source_docs, monkeypatch):
    assert not hasattr(m, "__all__") and sys.modules[MODULE] is m
    assert (m.__name__, m.__package__, m.__doc__) == (MODULE, "zobek_lumeno.utils", source_docs[""])
    assert list(m.__annotations__.items()) == list(plain.__annotations__.items())
    for name, value in vars(plain).items():
        if not name.startswith("__") and name not in QUALNAMES + ["InstalledSkill", "SkillRoots", "logger"]:
            assert (getattr(m, name), type(getattr(m, name))) == (value, type(value)), name
    assert m.logger is plain.logger and all(type(v) is str for v in m.SKILL_NAMES + m.DEFAULT_AGENTS)
    names = [m.SKILL_DIR_NAME, m.MAP_SKILL_DIR_NAME, m.WIKI_SKILL_DIR_NAME]
    assert list(map(id, m.SKILL_NAMES)) == list(map(id, names))
    monkeypatch.setattr(zobek_lumeno, "__version__", "0.0.0-other")
    assert m.__version__ == "1.5.0"  # copied once, at import


@pytest.mark.installed
def test_import_afresh_after_failing_and_under_another_name(tmp_path):
    # A host package without a version, whose utils reach the installed extension; and a copy of the
    # extension loaded outside any package. In a new interpreter, since other tests rebind names.
    package, utils = tmp_path / "zobek_lumeno", pathlib.Path(m.__file__).parent
    (package / "utils").mkdir(parents=True)
    (package / "__init__.py").write_text("")
    (package / "utils" / "__init__.py").write_text(f"__path__.append({str(utils)!r})\n")
    shutil.copy(m.__file__, tmp_path)
    plain_path = pathlib.Path(__file__).parents[1] / "bench" / "plain_agent_skills.py"
    script = f"""
        import builtins, importlib, importlib.util, json, logging, sys, types
        sys.path.insert(0, {str(tmp_path)!r})
        import zobek_lumeno
        spec = importlib.util.spec_from_file_location({MODULE!r}, {str(plain_path)!r})
        code = compile(open(spec.origin).read(), spec.origin, "exec")

        def attempts():  # the extension, then the plain formulation executed as the host would
            found = []
            plain = lambda: exec(code, vars(importlib.util.module_from_spec(spec)))
            for load in (lambda: importlib.import_module({MODULE!r}), plain):
                try:
                    load()
                except ImportError as e:
                    found.append([type(e).__name__, str(e), e.name, e.path, {MODULE!r} in sys.modules])
            return found

        del zobek_lumeno.__spec__._initializing  # asked for the error's wording; its absence is no error
        failed = [attempts()]
        file, zobek_lumeno.__file__ = zobek_lumeno.__file__, None
        failed.append(attempts())
        zobek_lumeno.__file__ = file
        nameless = types.ModuleType("typing")
        del nameless.__name__
        saved, sys.modules["typing"] = sys.modules["typing"], nameless
        failed.append(attempts())
        sys.modules["typing"] = saved
        zobek_lumeno.__version__ = "9.8.7"
        saved, sys.modules["itertools"] = sys.modules["itertools"], None
        failed.append(attempts())
        sys.modules["itertools"] = saved
        # The import statements go through the builtins' __import__, which may fail the last one.
        calls, real_import = [], builtins.__import__
        def tracer(name, globals=None, locals=None, fromlist=(), level=0):
            if globals is not None and globals.get("__name__") == {MODULE!r}:
                calls.append([name, globals is locals, fromlist, level])
                if len(calls) in (7, 14):  # the last import of each of the two
                    raise ImportError("refused")
            return real_import(name, globals, locals, fromlist, level)
        builtins.__import__ = tracer
        failed.append(attempts())
        del builtins.__import__
        failed.append(attempts())
        builtins.__import__ = real_import
        specless = types.ModuleType("pathlib")
        specless.__file__ = "nowhere"
        del specless.__spec__  # no import record to say it is initializing
        saved, sys.modules["pathlib"] = sys.modules["pathlib"], specless
        failed.append(attempts())
        sys.modules["pathlib"] = saved
        builtins.__import__ = tracer
        m = importlib.import_module({MODULE!r})
        builtins.__import__ = real_import
        exec(code, vars(plain := importlib.util.module_from_spec(spec)))
        import agent_skills as top
        # Executed with no text for __file__: its warnings name the module instead.
        fileless = importlib.util.module_from_spec(importlib.util.find_spec({MODULE!r}))
        fileless.__file__, made = None, []
        fileless.__spec__.loader.exec_module(fileless)
        fileless.logger = logging.getLogger("fileless")
        fileless.logger.addHandler(handler := logging.Handler())
        handler.emit = made.append
        fileless._say_unreadable("x")
        order = [[n for n in vars(mod) if not n.startswith("__") or n == "__version__"] for mod in (m, plain)]
        print(json.dumps(dict(
            failed=failed, calls=calls, order=order, first=list(vars(m))[:8], unreadable=repr(m._UNREADABLE),
            state=[m.__version__, m.skill_capable_agents(), sys.modules[{MODULE!r}] is m, m.__file__],
            fileless=made[0].pathname,
            top=[top.__name__, top.__package__, top.logger.name, top.read_roots.__module__, top is m],
        )))
    """
    done = subprocess.run([sys.executable, "-c", textwrap.dedent(script)], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    report, init = json.loads(done.stdout), str(package / "__init__.py")
    # Each failure as the host's own import statements word it, and the extension left unregistered.
    assert all(native == plain for native, plain in report["failed"]) and len(report["failed"]) == 7
    assert [error[1:] for error, _ in report["failed"]][::5] == [
        [f"cannot import name '__version__' from 'zobek_lumeno' ({init})", "zobek_lumeno", init, False],
        ["__import__ not found", None, None, False],
    ]
    imports = [["itertools", None], ["logging", None], ["re", None], ["collections.abc", ["Iterable"]]]
    imports += [["pathlib", ["Path"]], ["typing", ["NamedTuple"]], ["zobek_lumeno", ["__version__"]]]
    assert report["calls"] == [[name, True, names, 0] for name, names in imports] * 3
    assert report["order"][0] == report["order"][1] and report["unreadable"] == "set()"
    first = "__name__ __doc__ __package__ __loader__ __spec__ __file__ __builtins__ __annotations__"
    assert report["first"] == first.split()
    assert report["state"] == ["9.8.7", ["claude", "cursor-agent", "windsurf", "copilot"], True, m.__file__]
    assert report["fileless"] == MODULE
    assert report["top"] == ["agent_skills", "", "agent_skills", "agent_skills", False]


def test_imports_only_its_own_statements(plain):
    """An __import__ spy set before a fresh execution of the module sees its seven import statements and
    nothing more, and asking for the functions' signatures imports nothing."""
    script = f"""
        import builtins, importlib.util, inspect, json
        import itertools, logging, re, collections.abc, pathlib, typing, zobek_lumeno.utils
        real, seen = builtins.__import__, []
        def spy(name, *args):
            seen[-1].append(name)
            return real(name, *args)
        native = importlib.util.find_spec({MODULE!r})
        plain = importlib.util.spec_from_file_location({MODULE!r}, {plain.__file__!r})
        code = compile(open(plain.origin).read(), plain.origin, "exec")
        for spec, run in (native, native.loader.exec_module), (plain, lambda module: exec(code, vars(module))):
            module = importlib.util.module_from_spec(spec)
            seen.append([])
            builtins.__import__ = spy
            run(module)
            for qualname in {QUALNAMES!r}:
                f = getattr(module, qualname) if "." not in qualname else module.InstalledSkill.stale.fget
                inspect.signature(f), inspect.signature(f, eval_str=True)
            builtins.__import__ = real
        print(json.dumps(seen))
    """
    done = subprocess.run([sys.executable, "-c", textwrap.dedent(script)], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    names = ["itertools", "logging", "re", "collections.abc", "pathlib", "typing", "zobek_lumeno"]
    assert json.loads(done.stdout) == [names, names]


def test_builtins_are_those_the_module_was_executed_with(plain):
    """A namespace given builtins of its own before the execution: its imports go through their
    __import__, and the functions find there what the namespace lacks."""
    imported, found = [], []
    spy = lambda name, *args: imported.append(name) or builtins.__import__(name, *args)  # noqa: E731
    for spec in (
        importlib.util.find_spec(MODULE),
        importlib.util.spec_from_file_location(MODULE, plain.__file__),
    ):
        fresh = importlib.util.module_from_spec(spec)
        roots = {"x": m.SkillRoots((".p",), (".u",))}
        fresh.__builtins__ = {**vars(builtins), "__import__": spy, "AGENT_SKILL_ROOTS": roots}
        spec.loader.exec_module(fresh)
        del fresh.AGENT_SKILL_ROOTS
        found.append(fresh.agent_roots(["x"], "user"))
    names = ["itertools", "logging", "re", "collections.abc", "pathlib", "typing", "zobek_lumeno"]
    assert imported == names * 2 and found == [{"x": (".u",)}] * 2


def pydoc_body(f):
    # pydoc's header names Python functions by type, which no extension type can match; the body must.
    return pydoc.render_doc(f, renderer=pydoc.plaintext).split("\n", 1)[1]


@pytest.mark.parametrize("qualname", QUALNAMES)
def test_functions_as_python_makes_them(plain, source_docs, qualname):
    f, reference = function(m, qualname), function(plain, qualname)
    facts = [
        (g.__name__, g.__qualname__, g.__module__, g.__defaults__, g.__kwdefaults__) for g in (f, reference)
    ]
    assert facts[0] == facts[1] and f.__doc__ == source_docs[qualname]
    # What every Python function carries besides (__type_params__ from 3.12).
    carried = [
        [getattr(g, n, "absent") for n in ("__builtins__", "__closure__", "__type_params__")]
        for g in (f, reference)
    ]
    assert carried[0] == carried[1] and set(dir(f)) - {"__vectorcalloffset__"} == set(dir(reference))
    assert list(f.__annotations__.items()) == list(reference.__annotations__.items())
    assert str(inspect.signature(f)) == str(inspect.signature(reference)) and f.__globals__ is vars(m)
    # The annotation texts evaluated in the module's namespace, as for a function of its source.
    evaluated = [str(inspect.signature(g, eval_str=True)) for g in (f, reference)]
    assert evaluated[0] == evaluated[1] != str(inspect.signature(f))
    code, expected = f.__code__, reference.__code__
    described = operator.attrgetter(
        "co_argcount", "co_posonlyargcount", "co_kwonlyargcount", "co_flags", "co_name", "co_qualname"
    )
    assert described(code) == described(expected)
    n = code.co_argcount + code.co_kwonlyargcount
    assert code.co_varnames == expected.co_varnames[:n] and code.co_nlocals == n and f.__code__ is code
    assert (code.co_filename, code.co_firstlineno) == (m.__file__, 0)
    typing.get_type_hints(f)  # the annotation texts resolve in the module's namespace
    assert repr(f).startswith(f"<function {qualname} at 0x") and pydoc_body(f) == pydoc_body(reference)
    assert weakref.ref(f)() is f and copy.copy(f) is f and copy.deepcopy(f) is f
    assert type(f).__itemsize__ == 0 and sys.getsizeof(f) < 1024
    if "." in qualname:
        with pytest.raises(pickle.PicklingError, match=f"not the same object as {MODULE}.{qualname}$"):
            pickle.dumps(f)
    else:
        assert all(pickle.loads(pickle.dumps(f, p)) is f for p in range(pickle.HIGHEST_PROTOCOL + 1))


def test_function_attributes_and_binding(monkeypatch, outcome, tmp_path):
    f = m.read_roots
    f.note = "kept"
    assert f.__dict__ == {"note": "kept"}
    f.__dict__ = {}
    assert not hasattr(f, "note")
    for attribute, bad in [("__name__", 1), ("__name__", None), ("__qualname__", b"x")]:
        with pytest.raises(TypeError, match=rf"^{attribute} must be set to a string object$"):
            setattr(f, attribute, bad)
    for attribute in ("__doc__", "__module__"):  # writable, as a Python function's are
        monkeypatch.setattr(f, attribute, "rebound")
    if sys.version_info >= (3, 12):
        params = (typing.TypeVar("T"),)
        monkeypatch.setattr(f, "__type_params__", params)
        (python := lambda: None).__type_params__ = params
        for value in [[], None]:
            assert outcome(setattr, f, "__type_params__", value) == outcome(
                setattr, python, "__type_params__", value
            )
        assert outcome(delattr, f, "__type_params__") == outcome(delattr, python, "__type_params__")
        assert f.__type_params__ is params
    f.__annotations__, annotations = None, f.__annotations__
    assert f.__annotations__ == {} and f.__annotations__ is f.__annotations__  # made anew, once, as in Python
    f.__annotations__ = annotations
    replaced = f.__signature__ = inspect.Signature()
    assert inspect.signature(f) is replaced and f.__dict__ == {"__signature__": replaced}
    del f.__signature__
    with pytest.raises(AttributeError, match=r"^'function' object has no attribute '__signature__'$"):
        del f.__signature__
    assert str(inspect.signature(f)) == "(roots: 'dict[str, tuple[str, ...]]') -> 'list[str]'"
    wrapper = functools.wraps(f)(lambda *args: f(*args))
    assert inspect.signature(wrapper, eval_str=True) == inspect.signature(f, eval_str=True)
    # A function binds as a method on a class, and stays itself from the class or from None.
    roots = type("Roots", (dict,), {"read": f})(a=(".b", ".a"))
    assert roots.read() == [".a", ".b"] and type(roots).read is f and f.__get__(None, dict) is f
    assert roots.read.__func__ is f and roots.read.__self__ is roots
    assert str(inspect.signature(roots.read)) == "() -> 'list[str]'"
    # Defaults are read at each call, as rebound.
    monkeypatch.setattr(m.resolve_skill_dirs, "__defaults__", ("user",))
    assert m.resolve_skill_dirs(["windsurf"]) == [".codeium/windsurf/skills"]
    monkeypatch.setattr(m.inside_root, "__kwdefaults__", {"strict": False})
    assert m.inside_root(tmp_path, tmp_path / "absent") == tmp_path.resolve() / "absent"


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


@pytest.mark.parametrize("variant", ["declared", "with defaults", "surplus defaults", "as a method"])
@pytest.mark.parametrize("qualname", QUALNAMES)
def test_argument_errors_match_python(monkeypatch, plain, outcome, qualname, variant):
    f, reference = function(m, qualname), function(plain, qualname)
    parameters = inspect.signature(reference).parameters.values()
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
    for args, kwargs in bad_calls(parameters):
        expected = outcome(reference, *args, **kwargs)
        if expected[0] is TypeError and "argument" in expected[1]:  # refused by the binding alone
            assert outcome(f, *args, **kwargs) == expected, (args, kwargs)
