"""What the scan logs and how: the record's logger and origin, the exception state it leaves, and the
tracebacks of what it logs."""

import logging
import os
import pathlib
import sys

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
        (logging.getLogger("elsewhere"), ("_say_unreadable", m.__file__)),  # as a Python source would log
        (Told("told"), ("warning", __file__)),  # its own warning runs, and is the caller found
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
    assert (record.exc_info[0], record.funcName, record.pathname) == (PermissionError, *origin)


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
    except KeyError:
        next(generator)
    assert next(generator) == NONE
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
