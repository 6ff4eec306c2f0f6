import logging
import os
import pathlib
import sys

import pytest

from zobek_lumeno.utils import agent_skills as m

NAME = "zobek_lumeno.utils.agent_skills"
MSG = "Cannot read %s to compare the installed skills with the package"
NONE = (None, None, None)


def stamp(v):
    return f"---\nname: x\nversion: {v}\n---\n# Skill\n"


# "skills" is whole, its lumeno-map out and back in; each other top directory is a skills
# directory with one odd lumeno-map, or an odd skills directory.
TREE = {
    "skills/lumeno/SKILL.md": stamp("1.0"),
    "skills/store/real.md": stamp("2.0"),
    "skills/lumeno-map/SKILL.md": "->../../outside/hop",
    "outside/hop": "->../skills/store/real.md",
    "skills/lumeno-wiki/SKILL.md": stamp("3.0"),
    "via": "->skills",
    "sibling/lumeno-map": "->../sibling-old/lumeno-map",
    "sibling-old/lumeno-map/SKILL.md": stamp("6.6"),
    "loop/lumeno-map/SKILL.md": "->other",
    "loop/lumeno-map/other": "->SKILL.md",
    "is-dir/lumeno-map/SKILL.md": "dir",
    "dangling/lumeno-map/SKILL.md": "->gone.md",
    "la": "->lb",
    "lb": "->la",
    "afile": "text",
}


@pytest.fixture(autouse=True)
def fresh_unreadable(monkeypatch, caplog):
    monkeypatch.setattr(m, "_UNREADABLE", set())  # the module's own set only grows
    caplog.set_level(logging.WARNING)


@pytest.fixture
def base(tmp_path):
    base = tmp_path.resolve()
    for rel, what in TREE.items():
        (base / rel).parent.mkdir(parents=True, exist_ok=True)
        if what.startswith("->"):
            os.symlink(what[2:], base / rel)
        elif what == "dir":
            (base / rel).mkdir()
        else:
            (base / rel).write_text(what)
    return base


def scan_twice(directory, values):
    for _ in range(2):  # the second scan must not log again
        assert list(m._stamps_in(directory).items()) == list(zip(m.SKILL_NAMES, values, strict=True))


def logged(caplog):
    return [(r.name, r.levelno, r.msg, r.args, r.exc_info[0]) for r in caplog.records]


@pytest.mark.parametrize(
    "scanned, values, warned",
    [
        ("sibling", NONE, None),
        ("loop", NONE, "loop/lumeno-map/SKILL.md"),
        ("is-dir", NONE, None),
        ("dangling", NONE, None),
        ("la", NONE, "la"),
        ("nowhere", NONE, None),
        ("afile", NONE, None),
        ("afile/skills", NONE, None),
    ],
)
def test_scan_tree(base, caplog, scanned, values, warned):
    scan_twice(base / scanned, values)
    assert logged(caplog) == [
        (NAME, logging.WARNING, MSG, (str(base / k),), RuntimeError) for k in [warned] if k
    ]


@pytest.mark.parametrize(
    "error, warns",
    [
        (PermissionError(13, "Permission denied"), True),
        (OSError(5, "Input/output error"), True),
        (RuntimeError("Symlink loop"), True),
        (FileNotFoundError(2, "No such file"), False),
        (NotADirectoryError(20, "Not a directory"), False),
        (ValueError("not a file-system failure"), None),
    ],
)
@pytest.mark.parametrize(
    "method, rel, values, key",
    [
        ("resolve", "via", NONE, "via"),
        ("resolve", "skills/lumeno/SKILL.md", (None, "2.0", "3.0"), "skills/lumeno/SKILL.md"),
        ("is_file", "skills/store/real.md", ("1.0", None, "3.0"), "skills/lumeno-map/SKILL.md"),
        ("read_stamp", "skills/store/real.md", ("1.0", None, "3.0"), "skills/lumeno-map/SKILL.md"),
    ],
)
def test_scan_failures(base, caplog, monkeypatch, error, warns, method, rel, values, key):
    owner = m if method == "read_stamp" else pathlib.Path
    real = getattr(owner, method)

    def failing(path, *args, **kwargs):
        if path == base / rel:
            raise error
        return real(path, *args, **kwargs)

    monkeypatch.setattr(owner, method, failing)
    if warns is None:
        with pytest.raises(ValueError) as caught:
            m._stamps_in(base / "via")
        assert caught.value is error
    else:
        scan_twice(base / "via", values)
    assert logged(caplog) == [(NAME, logging.WARNING, MSG, (str(base / key),), type(error))] * bool(warns)
    assert all(r.exc_info[1] is error for r in caplog.records)


class Told(logging.Logger):
    def warning(self, *args, **kwargs):
        super().warning(*args, **kwargs)


def told():
    logging.setLoggerClass(Told)
    try:
        return logging.getLogger("told")
    finally:
        logging.setLoggerClass(logging.Logger)


def warn_once():
    try:
        raise PermissionError(13, "denied")
    except OSError:
        assert m._say_unreadable("the home directory") is None


@pytest.mark.parametrize(
    "logger, origin",
    [
        (logging.getLogger("elsewhere"), ("_say_unreadable", m.__file__)),  # as a Python source would log
        (told(), ("warning", __file__)),  # its own warning runs, and is the caller found
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
    assert len(made) == 1 and {"the home directory"} == m._UNREADABLE
    assert (record.name, record.levelno, record.msg, record.args) == (
        logger.name,
        30,
        MSG,
        ("the home directory",),
    )
    assert (record.exc_info[0], record.funcName, record.pathname) == (PermissionError, *origin)


def consumer_sees(call):
    """Runs `call` in a generator that its consumer advances inside an except block, and reports what
    the generator then sees of the exception state."""

    def steps():
        yield call()
        yield sys.exc_info()
        raise ValueError("later")

    generator = steps()
    try:
        raise KeyError("the consumer's")
    except KeyError:
        next(generator)
    seen = next(generator)
    with pytest.raises(ValueError) as later:
        next(generator)
    return seen, later.value.__context__


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
    "unreadable file": lambda base: m._stamps_in(base / "loop"),
    "suppressing __exit__": lambda base: read_suppressed(),
    "unknown home": lambda base: m.installed_skill_versions(None),
}


@pytest.mark.parametrize("call", HANDLING.values(), ids=HANDLING)
def test_handled_errors_leave_the_callers_exception_state(base, monkeypatch, call):
    monkeypatch.setattr(pathlib.Path, "home", classmethod(lambda cls: (_ for _ in ()).throw(RuntimeError())))
    assert consumer_sees(lambda: call(base)) == ((None, None, None), None)


def test_scan_late_binding(base, monkeypatch):
    stamp_inside = m._stamp_inside
    monkeypatch.setattr(m, "SKILL_NAMES", ("lumeno-wiki", "lumeno"))
    assert list(m._stamps_in(base / "skills").items()) == [("lumeno-wiki", "3.0"), ("lumeno", "1.0")]
    assert list(m._stamps_in(base / "nowhere")) == ["lumeno-wiki", "lumeno"]
    monkeypatch.setattr(m, "_stamp_inside", lambda root, skill: f"{skill}@{root.name}")
    assert m._stamps_in(base / "skills") == {"lumeno-wiki": "lumeno-wiki@skills", "lumeno": "lumeno@skills"}
    monkeypatch.setattr(m, "SKILL_FILE", "real.md")
    assert stamp_inside(base / "skills", "store") == "2.0"
    monkeypatch.setattr(m, "inside_root", lambda root, path, *, strict: None)
    assert stamp_inside(base / "skills", "store") is None


def names(tb):
    return [] if tb is None else [tb.tb_frame.f_code.co_name, *names(tb.tb_next)]


def test_tracebacks_pass_through_the_module_functions(base, caplog, monkeypatch):
    # The read of /proc/<pid>/mem fails inside the file's own read, below any Python frame;
    # the logged error must still carry the frames a handler in the module would see.
    monkeypatch.setattr(m, "SKILL_FILE", "mem")
    assert m._stamp_inside(pathlib.Path(f"/proc/{os.getpid()}"), ".") is None
    [record] = caplog.records
    assert (record.exc_info[0], names(record.exc_info[2])) == (OSError, ["_stamp_inside", "read_stamp"])

    def failing(path):
        raise ValueError("not a file-system failure")

    monkeypatch.setattr(m, "SKILL_FILE", "SKILL.md")
    monkeypatch.setattr(pathlib.Path, "is_file", failing)
    with pytest.raises(ValueError) as caught:
        m._stamps_in(base / "skills")
    assert names(caught.value.__traceback__)[1:] == ["_stamps_in", "_stamp_inside", "failing"]
    with pytest.raises(TypeError) as caught:  # refused before the body runs: no frame of its own
        m._stamps_in()
    assert names(caught.value.__traceback__)[1:] == []
