import logging
import os
import pathlib
import stat

import pytest

from zobek_lumeno.utils import agent_skills as m

NAME = "zobek_lumeno.utils.agent_skills"
MSG = "Cannot read %s to compare the installed skills with the package"
NONE = (None, None, None)


def stamp(v):
    return f"---\nname: x\nversion: {v}\n---\n# Skill\n"


@pytest.fixture(autouse=True)
def unreadable(monkeypatch, caplog):
    fresh = set()  # the module's own set only grows: each test starts from an empty one
    monkeypatch.setattr(m, "_UNREADABLE", fresh)
    caplog.set_level(logging.WARNING)
    return fresh


@pytest.fixture
def base(tmp_path):
    return tmp_path.resolve()


def build(base, layout):
    for rel, what in layout.items():
        p = base / rel
        p.parent.mkdir(parents=True, exist_ok=True)
        if what.startswith("->"):
            os.symlink(what[2:], p)
        elif what == "dir":
            p.mkdir()
        elif what == "fifo":
            os.mkfifo(p)
        else:
            p.write_text(what)


def assert_logged(caplog, keys, error_type=None, error=None):
    got = [r for r in caplog.records if r.msg == MSG or r.name == NAME]
    assert [(r.name, r.levelno, r.msg, r.args) for r in got] == [
        (NAME, logging.WARNING, MSG, (k,)) for k in keys
    ]
    for r in got:
        assert r.exc_info[0] is type(r.exc_info[1]) is (error_type or type(error))
        assert error is None or r.exc_info[1] is error


SKILLS = {"skills/lumeno/SKILL.md": stamp("1.0"), "skills/lumeno-wiki/SKILL.md": "# no stamp\n"}
PLAIN = ("1.0", None, None)
TREES = {
    "plain": ({}, "skills", PLAIN, None),
    "skill dir links out": (
        {"outside/lumeno-map/SKILL.md": stamp("6.6"), "skills/lumeno-map": "->../outside/lumeno-map"},
        "skills",
        PLAIN,
        None,
    ),
    "SKILL.md links out": (
        {"outside/x.md": stamp("6.6"), "skills/lumeno-map/SKILL.md": "->../../outside/x.md"},
        "skills",
        PLAIN,
        None,
    ),
    "prefix sibling": (
        {"skills-old/lumeno-map/SKILL.md": stamp("6.6"), "skills/lumeno-map": "->../skills-old/lumeno-map"},
        "skills",
        PLAIN,
        None,
    ),
    "out and back in": (
        {
            "skills/store/real.md": stamp("2.0"),
            "outside/hop": "->../skills/store/real.md",
            "skills/lumeno-map/SKILL.md": "->../../outside/hop",
        },
        "skills",
        ("1.0", "2.0", None),
        None,
    ),
    "loop of links": (
        {"skills/lumeno-map/SKILL.md": "->other", "skills/lumeno-map/other": "->SKILL.md"},
        "skills",
        PLAIN,
        "skills/lumeno-map/SKILL.md",
    ),
    "SKILL.md is a directory": ({"skills/lumeno-map/SKILL.md": "dir"}, "skills", PLAIN, None),
    "SKILL.md is a FIFO": ({"skills/lumeno-map/SKILL.md": "fifo"}, "skills", PLAIN, None),
    "link to missing file": ({"skills/lumeno-map/SKILL.md": "->gone.md"}, "skills", PLAIN, None),
    "skills dir is a link": ({"via/agent": "->../skills"}, "via/agent", PLAIN, None),
    "skills dir is a loop": ({"la": "->lb", "lb": "->la"}, "la", NONE, "la"),
    "missing dir": ({}, "nowhere", NONE, None),
    "regular file as dir": ({"afile": "text"}, "afile", NONE, None),
    "parent is a file": ({"afile": "text"}, "afile/skills", NONE, None),
}


@pytest.mark.parametrize("layout, scanned, values, warned", TREES.values(), ids=TREES.keys())
def test_scan_tree(base, caplog, monkeypatch, layout, scanned, values, warned):
    build(base, {**SKILLS, **layout})
    real_read = m.read_stamp

    def guarded_read(path):
        # Only ever the real path of a regular file inside the resolved skills directory.
        assert path == path.resolve() and path.is_relative_to((base / scanned).resolve())
        assert stat.S_ISREG(os.stat(path).st_mode)
        return real_read(path)

    monkeypatch.setattr(m, "read_stamp", guarded_read)
    for _ in range(2):
        got = m._stamps_in(base / scanned)
        assert list(got) == list(m.SKILL_NAMES) and tuple(got.values()) == values
    assert_logged(caplog, [str(base / warned)] if warned else [], RuntimeError)


ERRORS = [
    (lambda: PermissionError(13, "Permission denied"), True),
    (lambda: OSError(5, "Input/output error"), True),
    (lambda: RuntimeError("Symlink loop"), True),
    (lambda: FileNotFoundError(2, "No such file"), False),
    (lambda: NotADirectoryError(20, "Not a directory"), False),
    (lambda: ValueError("not a file-system failure"), None),
]
TRIGGERS = [
    ("resolve", "via", NONE, "via"),
    ("resolve", "skills/lumeno/SKILL.md", (None, "2.0", "3.0"), "skills/lumeno/SKILL.md"),
    ("is_file", "skills/store/real.md", ("1.0", None, "3.0"), "skills/lumeno-map/SKILL.md"),
    ("read_stamp", "skills/store/real.md", ("1.0", None, "3.0"), "skills/lumeno-map/SKILL.md"),
    ("read_stamp", "skills/lumeno-wiki/SKILL.md", ("1.0", "2.0", None), "skills/lumeno-wiki/SKILL.md"),
]


@pytest.mark.parametrize("make_error, warns", ERRORS)
@pytest.mark.parametrize("method, rel, values, key", TRIGGERS)
def test_scan_failures(base, caplog, monkeypatch, make_error, warns, method, rel, values, key):
    build(
        base,
        {
            "skills/lumeno/SKILL.md": stamp("1.0"),
            "skills/store/real.md": stamp("2.0"),
            "skills/lumeno-map/SKILL.md": "->../store/real.md",
            "skills/lumeno-wiki/SKILL.md": stamp("3.0"),
            "via": "->skills",
        },
    )
    error = make_error()
    owner = m if method == "read_stamp" else pathlib.Path
    real = getattr(owner, method)

    def failing(path, *args, **kwargs):
        if path == base / rel:
            raise error
        return real(path, *args, **kwargs)

    monkeypatch.setattr(owner, method, failing)
    for _ in range(2):
        if warns is None:
            with pytest.raises(ValueError) as caught:
                m._stamps_in(base / "via")
            assert caught.value is error
        else:
            got = m._stamps_in(base / "via")
            assert list(got) == list(m.SKILL_NAMES) and tuple(got.values()) == values
    assert_logged(caplog, [str(base / key)] if warns else [], error=error)


@pytest.mark.parametrize("what", ["the home directory", pathlib.Path("/x/skills")])
def test_say_unreadable(caplog, unreadable, monkeypatch, what):
    error = PermissionError(13, "denied")
    for _ in range(3):
        try:
            raise error
        except OSError:
            assert m._say_unreadable(what) is None
    assert_logged(caplog, [str(what)], error=error)
    assert unreadable == {str(what)}
    monkeypatch.setattr(m, "logger", logging.getLogger("elsewhere"))
    try:
        raise error
    except OSError:
        m._say_unreadable("new")
    assert [(r.name, r.args) for r in caplog.records[1:]] == [("elsewhere", ("new",))]


def test_scan_late_binding(base, monkeypatch):
    build(base, SKILLS)
    stamp_inside = m._stamp_inside
    monkeypatch.setattr(m, "SKILL_NAMES", ("lumeno-wiki", "lumeno"))
    assert m._stamps_in(base / "skills") == {"lumeno-wiki": None, "lumeno": "1.0"}
    assert list(m._stamps_in(base / "nowhere")) == ["lumeno-wiki", "lumeno"]
    monkeypatch.setattr(m, "_stamp_inside", lambda root, skill: f"{skill}@{root.name}")
    assert m._stamps_in(base / "skills") == {"lumeno-wiki": "lumeno-wiki@skills", "lumeno": "lumeno@skills"}
    monkeypatch.setattr(m, "inside_root", lambda root, path, *, strict: None)
    assert stamp_inside(base / "skills", "lumeno") is None
