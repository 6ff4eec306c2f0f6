import logging
import pathlib
import typing
from pathlib import Path

import pytest

from zobek_lumeno.utils import agent_skills as m

IS = m.InstalledSkill
FIELDS = {
    "skill": "str",
    "directory": "Path",
    "installed": "str | None",
    "current": "str",
    "scope": "str",
    "update": "str | None",
}
DOC = """One embedded skill in one skills directory that an agent reads.

    Attributes:
        skill: The skill's name, which is the name of its directory.
        directory: The skills directory as the agents read it (``~/.claude/skills``,
            ``<repository>/.cursor/skills``).
        installed: The version its ``SKILL.md`` is stamped with. None when the skill is not
            there, has no stamp, cannot be read, or is reached only through a link out of the
            skills directory.
        current: The version of the running package.
        scope: ``user`` (under the home directory) or ``project`` (under the repository).
        update: The command that installs the running package's skills into this directory;
            None when no ``skill install`` writes it.
    """
CMD = "zobek-lumeno skill install --scope "
# (scope, root, what follows the scope on the update line) in survey order.
DIRS = [
    ("user", ".claude/skills", ""),
    ("user", ".codeium/windsurf/skills", " --agent windsurf"),
    ("user", ".copilot/skills", " --agent copilot"),
    ("user", ".cursor/skills", " --agent cursor-agent"),
    ("project", ".claude/skills", ""),
    ("project", ".cursor/skills", " --agent cursor-agent"),
    ("project", ".github/skills", " --agent copilot"),
    ("project", ".windsurf/skills", " --agent windsurf"),
]


def rec(installed="1.0", current="1.0"):
    return IS("lumeno", Path("/d"), installed, current, "user", None)


def test_record_surface():
    assert IS._fields == tuple(FIELDS) and IS._field_defaults == {}
    assert IS.__annotations__ == {k: typing.ForwardRef(v) for k, v in FIELDS.items()}
    assert IS.__doc__ == DOC and issubclass(IS, tuple)
    prop = IS.__dict__["stale"]
    assert isinstance(prop, property) and prop.fset is None and prop.fdel is None
    assert prop.fget.__qualname__ == "InstalledSkill.stale"
    assert (
        prop.__doc__ == prop.fget.__doc__ == "Whether the installed copy is older than the running package."
    )
    assert prop.fget.__annotations__ == {"return": "bool"}
    with pytest.raises(AttributeError):
        rec().stale = True
    with pytest.raises(TypeError):
        IS("lumeno", Path("/d"), None, "1.0", "user")


@pytest.mark.parametrize(
    "installed, current, stale",
    [
        (None, "9.9.9", False),
        (None, "", False),
        ("1.2.3", "1.2.4", True),
        ("1.10.0", "1.9.9", False),
        ("1.9.9", "1.10", True),
        ("1.2", "1.2.0", True),
        ("1.2.0", "1.2", False),
        ("2.0.0rc1", "2.0.0", False),
        ("2.0.0", "2.0.0.post1", True),
        ("1.5.0", "1.5.0", False),
        ("2.0", "1.99", False),
    ],
)
def test_stale(installed, current, stale):
    assert rec(installed, current).stale is stale


def test_record_is_its_tuple():
    a, b = (
        rec("1.0", "2.0"),
        IS(skill="lumeno", directory=Path("/d"), installed="1.0", current="2.0", scope="user", update=None),
    )
    assert a.stale and a == b == tuple(b) and hash(a) == hash(tuple(a)) and len(a) == 6
    assert a != rec("2.0", "2.0") and len({a, b, tuple(a)}) == 1
    fresh = a._replace(installed="2.0")
    assert type(fresh) is IS and not fresh.stale and fresh[2] == "2.0" and a.installed == "1.0"
    assert a._asdict() == {
        "skill": "lumeno",
        "directory": Path("/d"),
        "installed": "1.0",
        "current": "2.0",
        "scope": "user",
        "update": None,
    }


def test_stale_uses_the_bound_version_tuple(monkeypatch):
    seen = []
    monkeypatch.setattr(m, "version_tuple", lambda v: seen.append(v) or (-len(v),))
    assert rec("1.0.0", "1.0").stale is True and seen == ["1.0.0", "1.0"]
    assert rec(None, "1.0").stale is False and seen == ["1.0.0", "1.0"]


@pytest.mark.parametrize(
    "text, quoted",
    [
        ("/work/app", False),
        ("C:/work/app-2.1+b", False),
        ("/home/dév/app", False),
        ("a_٣ß", False),
        ("/work/my app", True),
        ("~/app", True),
        ('a"b', True),
        ("$HOME", True),
        ("it's", True),
        ("a\\b", True),
        ("a\nb", True),
        ("", True),
    ],
)
def test_shell_word(text, quoted):
    assert m._shell_word(text) == (f'"{text}"' if quoted else text)


def test_shell_word_uses_the_bound_pattern(monkeypatch):
    monkeypatch.setattr(m, "_PLAIN_WORD", m.re.compile("[a-z]+"))
    assert (m._shell_word("abc"), m._shell_word("/work/app")) == ("abc", '"/work/app"')


@pytest.mark.parametrize(
    "scope, skills_dir, root, line",
    [
        ("user", ".claude/skills", None, CMD + "user"),
        ("user", ".codeium/windsurf/skills", Path("/work/app"), CMD + "user --agent windsurf"),
        ("user", ".cursor/skills", None, CMD + "user --agent cursor-agent"),
        ("user", ".copilot/skills", Path("/work/my app"), CMD + "user --agent copilot"),
        (
            "project",
            ".claude/skills",
            Path("/work/app"),
            "zobek-lumeno --repo-root /work/app skill install --scope project",
        ),
        (
            "project",
            ".github/skills",
            Path("/work/app"),
            "zobek-lumeno --repo-root /work/app skill install --scope project --agent copilot",
        ),
        ("project", ".cursor/skills", None, CMD + "project --agent cursor-agent"),
        (
            "project",
            ".windsurf/skills",
            Path("/work/my app"),
            'zobek-lumeno --repo-root "/work/my app" skill install --scope project --agent windsurf',
        ),
        (
            "project",
            ".claude/skills",
            Path("repo"),
            "zobek-lumeno --repo-root repo skill install --scope project",
        ),
        ("project", ".agents/skills", Path("/work/app"), None),
        ("project", ".claude/skills/", None, None),
        ("project", "./.claude/skills", None, None),
        ("user", ".github/skills", None, None),
    ],
)
def test_update_command(scope, skills_dir, root, line):
    assert m._update_command(scope, skills_dir, root) == line


@pytest.mark.parametrize("order, named", [(["zed", "amp"], "zed"), (["amp", "zed"], "amp")])
def test_first_lone_writer_is_named(monkeypatch, order, named):
    table = {"claude": m.SkillRoots(project=(".claude/skills",), user=(".claude/skills",))}
    table.update((k, m.SkillRoots(project=(".shared/skills",), user=())) for k in order)
    monkeypatch.setattr(m, "AGENT_SKILL_ROOTS", table)
    calls, resolve = [], m.resolve_skill_dirs
    monkeypatch.setattr(
        m, "resolve_skill_dirs", lambda keys, scope: calls.append(list(keys)) or resolve(keys, scope)
    )
    assert m._update_command("project", ".shared/skills", None) == CMD + "project --agent " + named
    assert calls == [["claude"], ["claude"], *[[k] for k in order]]


# --- the survey ---------------------------------------------------------------------------------

USER = {("user", ".claude/skills", "lumeno"): "1.4.0", ("user", ".claude/skills", "lumeno-map"): "1.5.0"}
PROJECT = {
    ("project", ".github/skills", "lumeno-wiki"): "1.5.1",
    ("project", ".windsurf/skills", "lumeno"): "0.9",
}


def stamp(tree, rel, version):
    (tree / rel).parent.mkdir(parents=True, exist_ok=True)
    (tree / rel).write_text(f"---\nname: x\nversion: {version}\n---\n")


@pytest.fixture
def home(tmp_path, monkeypatch):
    h = tmp_path.resolve() / "home"
    h.mkdir()
    monkeypatch.setattr(pathlib.Path, "home", classmethod(lambda cls: h))
    monkeypatch.setattr(m, "_UNREADABLE", set())
    return h


@pytest.fixture
def repo(tmp_path, home):
    r = tmp_path.resolve() / "app"
    stamp(home, ".claude/skills/lumeno/SKILL.md", "1.4.0")
    stamp(home, ".claude/skills/lumeno-map/SKILL.md", "1.5.0")
    stamp(r, ".github/skills/lumeno-wiki/SKILL.md", "1.5.1")
    stamp(r, ".windsurf/skills/lumeno/SKILL.md", "0.9")
    return r


def expected(home, repo, stamps):
    out = []
    for scope, root, tail in DIRS:
        base = home if scope == "user" else repo
        pre = "zobek-lumeno" if scope == "user" else f"zobek-lumeno --repo-root {repo.as_posix()}"
        for skill in m.SKILL_NAMES:
            out.append(
                (
                    skill,
                    base / root,
                    stamps.get((scope, root, skill)),
                    "1.5.0",
                    scope,
                    f"{pre} skill install --scope {scope}{tail}",
                )
            )
    return out


def test_worked_example(home, repo):
    found = m.installed_skill_versions(repo)
    assert type(found) is list and all(type(r) is IS for r in found)
    assert found == expected(home, repo, {**USER, **PROJECT})
    assert [r.stale for r in found].count(True) == 2 and found[0].stale and found[-3].stale
    for i in range(0, 24, 3):
        assert found[i].directory is found[i + 1].directory is found[i + 2].directory


def test_version_is_read_for_each_record(monkeypatch, home, repo):
    made = []

    def record(*args):
        made.append(args[3])
        monkeypatch.setattr(m, "__version__", str(len(made)))
        return args

    monkeypatch.setattr(m, "InstalledSkill", record)
    monkeypatch.setattr(m, "__version__", "0")
    m.installed_skill_versions(None)
    assert made == [str(i) for i in range(12)]


def test_user_scope_only_without_a_project(home, repo):
    assert m.installed_skill_versions(None) == expected(home, repo, USER)[:12]


def test_home_unknown_skips_the_user_scope(monkeypatch, home, repo, caplog):
    def fail(cls):
        raise RuntimeError("Could not determine home directory.")

    monkeypatch.setattr(pathlib.Path, "home", classmethod(fail))
    caplog.set_level(logging.WARNING, logger=m.__name__)
    first, second = m.installed_skill_versions(repo), m.installed_skill_versions(repo)
    assert first == second == expected(home, repo, PROJECT)[12:]
    assert m.installed_skill_versions(None) == []
    [log] = caplog.records
    assert (log.name, log.levelno, log.getMessage()) == (
        m.__name__,
        logging.WARNING,
        "Cannot read the home directory to compare the installed skills with the package",
    )
    assert log.exc_info[0] is RuntimeError and {"the home directory"} == m._UNREADABLE


@pytest.mark.parametrize("error", [KeyError("HOME"), OSError(5, "no"), ValueError("x")])
def test_other_home_failures_propagate(monkeypatch, home, error):
    monkeypatch.setattr(pathlib.Path, "home", classmethod(lambda cls: (_ for _ in ()).throw(error)))
    with pytest.raises(type(error)) as caught:
        m.installed_skill_versions(Path("/nowhere"))
    assert caught.value is error and set() == m._UNREADABLE


def test_relative_project_root(monkeypatch, tmp_path, home, repo):
    monkeypatch.chdir(tmp_path)
    found = m.installed_skill_versions(Path("app"))[12:]
    assert [r.directory for r in found[::3]] == [Path("app", root) for _, root, _ in DIRS[4:]]
    assert found[0].update == "zobek-lumeno --repo-root app skill install --scope project"
    assert found[6].installed is None and found[8].installed == "1.5.1"


def test_project_root_is_home(home, repo):
    found = m.installed_skill_versions(home)
    both = [(r.scope, r.update, r.installed) for r in found if r.directory == home / ".claude/skills"]
    lines = [
        ("user", CMD + "user"),
        ("project", f"zobek-lumeno --repo-root {home} skill install --scope project"),
    ]
    assert both == [(scope, line, v) for scope, line in lines for v in ("1.4.0", "1.5.0", None)]


def test_file_system_work_per_survey(monkeypatch, home, repo):
    for scope, root, _ in DIRS:
        for skill in m.SKILL_NAMES:
            stamp(home if scope == "user" else repo, f"{root}/{skill}/SKILL.md", "1.5.0")
    calls = {"resolve": [], "is_file": [], "open": []}
    for name, log in calls.items():
        real = getattr(pathlib.Path, name)
        monkeypatch.setattr(
            pathlib.Path,
            name,
            lambda self, *a, _real=real, _log=log, **kw: _log.append((self, a, kw)) or _real(self, *a, **kw),
        )
    found = m.installed_skill_versions(repo)
    assert [r.installed for r in found] == ["1.5.0"] * 24
    resolved = [p for p, a, kw in calls["resolve"]]
    assert len(resolved) == 32 and all(kw == {"strict": True} for _, _, kw in calls["resolve"])
    assert sorted(map(str, resolved)) == sorted(
        {str(r.directory) for r in found} | {str(r.directory / r.skill / "SKILL.md") for r in found}
    )
    assert len(calls["is_file"]) <= 24 and len(calls["open"]) <= 24


def _never(*args):
    raise AssertionError("an argument was evaluated before its callee was looked up")


@pytest.mark.parametrize(
    "gone, rebound, call",
    [
        (
            ["resolve_skill_dirs", "DEFAULT_AGENTS"],
            {},
            lambda: m._update_command("user", ".claude/skills", None),
        ),
        (["_shell_word"], {}, lambda: m._update_command("project", ".claude/skills", "not a path")),
        (["read_roots"], {"agent_roots": _never}, lambda: m.installed_skill_versions(None)),
    ],
)
def test_callee_is_looked_up_before_its_arguments(monkeypatch, gone, rebound, call):
    for name in gone:
        monkeypatch.delattr(m, name)
    for name, value in rebound.items():
        monkeypatch.setattr(m, name, value)
    with pytest.raises(NameError, match=f"^name '{gone[0]}' is not defined$"):
        call()
