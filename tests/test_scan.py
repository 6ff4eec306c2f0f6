"""What the scan logs and how: the record's logger and origin, the exception state it leaves, and the
tracebacks of what it logs."""

import importlib.util
import logging
import os
import pathlib
import sys
import traceback
import types

import pytest

from zobek_lumeno.utils import agent_skills as m

MSG = "Cannot read %s to compare the installed skills with the package"
NONE = (None, None, None)


@pytest.fixture
def base(tmp_path, monkeypatch, caplog):
    """A skills directory with one stamped skill, and a loop."""
    monkeypatch.setattr(m, "_UNREADABLE", set())  # the module's own set only grows
    caplog.set_level(logging.WARNING)
    base = tmp_path.resolve()
    (base / "skills/lumeno").mkdir(parents=True)
    (base / "skills/lumeno/SKILL.md").write_text("---\nversion: 1.0\n---\n")
    (base / "loop").symlink_to("loop")
    return base


class Told(logging.Logger):
    def warning(self, *args, **kwargs):
        super().warning(*args, **kwargs)


def warn_once():
    try:
        raise PermissionError(13, "denied")
    except OSError:
        assert m._say_unreadable("the home directory") is None


@pytest.mark.parametrize(
    "logger, origin",
    [
        # As a Python source would log; its record names the module as its source file would.
        (logging.getLogger("elsewhere"), ("_say_unreadable", m.__file__, "agent_skills")),
        (Told("told"), ("warning", __file__, "test_scan")),  # its own warning runs, and is the caller found
    ],
)
def test_logger_and_origin(monkeypatch, logger, origin):
    monkeypatch.setattr(m, "logger", logger)
    made, records = [], []
    monkeypatch.setattr(logging, "_logRecordFactory", lambda *a: made.append(a) or logging.LogRecord(*a))
    monkeypatch.setattr(logger, "handlers", [handler := logging.Handler()])
    monkeypatch.setattr(handler, "emit", records.append)
    monkeypatch.setattr(logger, "propagate", False)
    monkeypatch.setattr(logger, "level", logger.level)
    logger.setLevel(logging.ERROR)  # isEnabledFor decides: nothing is made
    warn_once()
    logger.setLevel(logging.WARNING)
    monkeypatch.setattr(m, "_UNREADABLE", set())
    warn_once()
    [record] = records
    assert len(made) == 1 and {home := "the home directory"} == m._UNREADABLE
    assert (record.name, record.levelno, record.msg, record.args) == (logger.name, 30, MSG, (home,))
    assert (record.exc_info[0], record.funcName, record.pathname, record.module) == (PermissionError, *origin)


def chosen(*args):
    record = logging.LogRecord(*args)
    record.module = "chosen"
    return record


class Refusing(logging.LogRecord):
    """A record whose module, once made, cannot be named again."""

    def __setattr__(self, name, value):
        if name == "module" and "module" in vars(self):
            raise AttributeError("the module is named once")
        super().__setattr__(name, value)


@pytest.mark.parametrize(
    "file, setting, pathname, module",
    [
        (m.__file__, {}, m.__file__, "agent_skills"),
        (None, {}, m.__name__, "agent_skills"),  # executed without a file: named by its name
        *[(file, {}, file, "agent_skills") for file in ["/x/..so", "/x/.hidden.so", "/x/a.b/", "plain"]],
        ("/x/(unknown file)", {"_srcfile": None}, "(unknown file)", "(unknown file)"),  # no caller looked for
        (m.__file__, {"_logRecordFactory": chosen}, m.__file__, "chosen"),  # a factory's own choice stays
        ("/x/a.so", {"_logRecordFactory": Refusing}, "/x/a.so", "a"),  # and a record that refuses is left so
    ],
    ids=["extension", "no file", "..so", ".hidden.so", "a.b/", "plain", "no caller", "factory", "refusing"],
)
def test_record_names_the_module_as_its_source_file_would(
    monkeypatch, own_logger, file, setting, pathname, module
):
    spec = importlib.util.find_spec(m.__name__)
    fresh = importlib.util.module_from_spec(spec)
    fresh.__file__ = file
    spec.loader.exec_module(fresh)
    made = []
    fresh.logger = own_logger("fresh", made.append)
    for name, value in setting.items():
        monkeypatch.setattr(logging, name, value)
    fresh._say_unreadable("x")
    assert [(record.pathname, record.module) for record in made] == [(pathname, module)]


class Suppressing:
    def open(self, mode):
        return self

    def __enter__(self):
        return self

    def read(self, size):
        raise OSError("suppressed")

    def __exit__(self, *exc):
        return True


def read_suppressed():
    with pytest.raises(UnboundLocalError):  # the read was suppressed: `head` was never bound
        m.read_stamp(Suppressing())


HANDLING = {
    "missing directory": lambda base: m._stamps_in(base / "nowhere"),
    "loop": lambda base: m._stamps_in(base / "loop"),
    "suppressing __exit__": lambda base: read_suppressed(),
    "unknown home": lambda base: m.installed_skill_versions(None),
}


@pytest.mark.parametrize("call", HANDLING.values(), ids=HANDLING)
def test_handled_errors_leave_the_callers_exception_state(base, monkeypatch, call):
    """Run in a generator that its consumer advances inside an except block, the call leaves the
    generator's own exception state as it was: nothing handled, nothing to chain to."""
    monkeypatch.setattr(pathlib.Path, "home", classmethod(lambda cls: (_ for _ in ()).throw(RuntimeError())))

    def steps():
        yield call(base)
        yield sys.exc_info()
        raise ValueError("later")

    generator = steps()
    try:
        raise KeyError("the consumer's")
    except KeyError as handled:
        next(generator)
        call(base)  # and a call made right in the handler leaves the exception being handled as it was
        kept = sys.exc_info()[1] is handled
    assert kept and next(generator) == NONE
    with pytest.raises(ValueError) as later:
        next(generator)
    assert later.value.__context__ is None


def names(tb):
    return [] if tb is None else [(tb.tb_frame.f_code.co_name, tb.tb_lineno), *names(tb.tb_next)]


def test_tracebacks_pass_through_the_module_functions(base, caplog, monkeypatch):
    # The read of /proc/<pid>/mem fails inside the file's own read, below any Python frame;
    # the logged error must still carry the frames a handler in the module would see.
    monkeypatch.setattr(m, "SKILL_FILE", "mem")
    assert m._stamp_inside(pathlib.Path(f"/proc/{os.getpid()}"), ".") is None
    [record] = caplog.records
    frames = [("_stamp_inside", 0), ("read_stamp", 0)]
    assert (record.exc_info[0], names(record.exc_info[2])) == (OSError, frames)

    def failing(path):
        raise ValueError("not a file-system failure")

    monkeypatch.setattr(m, "SKILL_FILE", "SKILL.md")
    monkeypatch.setattr(pathlib.Path, "is_file", failing)
    with pytest.raises(ValueError) as caught:
        m._stamps_in(base / "skills")
    frames = [name for name, _ in names(caught.value.__traceback__)[1:]]
    assert frames == ["_stamps_in", "_stamp_inside", "failing"]
    with pytest.raises(TypeError) as caught:  # refused before the body runs: no frame of its own
        m._stamps_in()
    assert names(caught.value.__traceback__)[1:] == []


def test_a_logging_package_not_registered_leaves_the_logger_to_log_by_itself(monkeypatch, own_logger):
    made = []
    logger = own_logger("fresh", made.append)
    monkeypatch.setitem(sys.modules, "logging", types.SimpleNamespace(getLogger=lambda name: logger))
    spec = importlib.util.find_spec(m.__name__)
    spec.loader.exec_module(fresh := importlib.util.module_from_spec(spec))
    fresh._say_unreadable("x")
    assert [(r.msg, r.args, r.funcName) for r in made] == [(MSG, ("x",), sys._getframe().f_code.co_name)]


LOOKED_UP = []


class Watched(logging.Logger):
    """A logger with an attribute lookup of its own, which sees every name looked up on it."""

    def __getattribute__(self, name):
        LOOKED_UP.append(name)
        return super().__getattribute__(name)


def test_a_logger_with_its_own_attribute_lookup_is_asked_as_by_python(monkeypatch, plain):
    # Its warning may be the logging package's own; only asking it by name can tell, so it is asked.
    seen = []
    for module in (m, plain):
        logger = Watched("watched")
        handler = logging.Handler()
        handler.emit = lambda record: None
        logger.addHandler(handler)
        monkeypatch.setattr(module, "logger", logger)
        monkeypatch.setattr(module, "_UNREADABLE", set())
        LOOKED_UP.clear()
        module._say_unreadable("x")
        seen.append(LOOKED_UP[:])
    assert seen[0] == seen[1] and seen[0][0] == "warning"


@pytest.mark.parametrize("name", ["currentframe", "_srcfile"])
def test_a_logging_package_missing_a_name_it_logs_with_fails_as_from_python(
    monkeypatch, own_logger, plain, outcome, name
):
    for module in (m, plain):
        monkeypatch.setattr(module, "logger", own_logger("bare", lambda record: None))
    monkeypatch.delattr(logging, name)
    found = outcome(m._say_unreadable, "x")
    assert found == outcome(plain._say_unreadable, "x")


def codes(tb):
    return [] if tb is None else [tb.tb_frame.f_code, *codes(tb.tb_next)]


TRACED = {
    "stale": lambda mod, base: mod.InstalledSkill("x", base, 5, "1", "user", None).stale,
    "_stamp_inside": lambda mod, base: mod._stamp_inside(base / "skills", "lumeno"),
}


@pytest.mark.parametrize("call", TRACED.values(), ids=TRACED)
def test_traceback_entries_name_the_functions_as_their_source_does(plain, base, monkeypatch, call):
    monkeypatch.setattr(pathlib.Path, "resolve", lambda path, strict: 1 / 0)
    entries, errors = [], []
    for module in (m, plain):
        with pytest.raises(Exception) as caught:
            call(module, base)
        errors.append(caught.value)
        entries.append([(code.co_name, code.co_qualname) for code in codes(caught.value.__traceback__)[1:]])
    assert entries[0] == entries[1] and len(entries[0]) > 1
    # The functions' entries have parameters but no local variables to show.
    shown = traceback.TracebackException.from_exception(errors[0], capture_locals=True).stack
    assert [entry.locals for entry in shown if entry.filename == m.__file__] == [None, None]
