import logging
import pathlib
import typing
from pathlib import Path

import pytest

from zobek_lumeno.utils import agent_skills as m

IS = m.InstalledSkill
CMD = "zobek-lumeno skill install --scope "
HOMELESS = "Cannot read the home directory to compare the installed skills with the package"


def test_record_type():
    fields = ["skill", "directory", "installed", "current", "scope", "update"]
    kinds = ["str", "Path", "str | None", "str", "str", "str | None"]
    assert IS.__orig_bases__ == (typing.NamedTuple,) and IS.__module__ == m.__name__
    assert IS._fields == tuple(fields) and IS._field_defaults == {}
    # As the host's NamedTuple does, the annotation texts are wrapped in forward references.
    assert IS.__annotations__ == {f: typing.ForwardRef(k) for f, k in zip(fields, kinds, strict=True)}
    assert type(vars(IS)["stale"]) is property and vars(IS)["stale"].fset is None


def rec(installed, current):
    return IS("lumeno", Path("/d"), installed, current, "user", None)


@pytest.mark.parametrize(
    "installed, current, stale",
    [
        (None, "9.9.9", False),
        ("1.10.0", "1.9.9", False),
        ("1.2", "1.2.0", True),
        ("1.2.0", "1.2", False),
        ("2.0.0rc1", "2.0.0", False),
        ("2.0.0", "2.0.0.post1", True),
    ],
)
def test_stale(installed, current, stale):
    assert rec(installed, current).stale is stale


def test_stale_uses_the_bound_version_tuple(monkeypatch):
    seen = []
    monkeypatch.setattr(m, "version_tuple", lambda v: seen.append(v) or (-len(v),))
    assert rec("1.0.0", "1.0").stale is True and rec(None, "1.0").stale is False
    assert seen == ["1.0.0", "1.0"]


@pytest.mark.parametrize(
    "text, quoted",
    [("/home/dév/a_٣+b:c", False), ("/work/my app", True), ("a\n", True), ('a"b', True), ("", True)],
)
def test_shell_word(text, quoted):
    assert m._shell_word(text) == (f'"{text}"' if quoted else text)


def test_shell_word_uses_the_bound_pattern(monkeypatch):
    monkeypatch.setattr(m, "_PLAIN_WORD", m.re.compile("[a-z]+"))
    assert (m._shell_word("abc"), m._shell_word("/work/app")) == ("abc", '"/work/app"')


@pytest.mark.parametrize(
    "scope, skills_dir, root, line",
    [
        ("project", ".cursor/skills", None, CMD + "project --agent cursor-agent"),
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
    assert m._update_command("project", ".shared/skills", None) == CMD + "project --agent " + named


@pytest.mark.parametrize(
    "gone, call",
    [
        ("resolve_skill_dirs DEFAULT_AGENTS", lambda: m._update_command("user", ".claude/skills", None)),
        ("_shell_word", lambda: m._update_command("project", ".claude/skills", "not a path")),
        ("read_roots agent_roots", lambda: m.installed_skill_versions(None)),
    ],
)
def test_callee_is_looked_up_before_its_arguments(monkeypatch, gone, call):
    for name in gone.split():
        monkeypatch.delattr(m, name)
    with pytest.raises(NameError, match=f"^name '{gone.split()[0]}' is not defined$"):
        call()


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
USER = {("user", ".claude/skills", "lumeno"): "1.4.0", ("user", ".claude/skills", "lumeno-map"): "1.5.0"}
PROJECT = {("project", ".github/skills", "lumeno-map"): "1.6", ("project", ".cursor/skills", "lumeno"): "0.9"}


@pytest.fixture
def home(tmp_path, monkeypatch):
    home = tmp_path.resolve() / "home"
    monkeypatch.setattr(pathlib.Path, "home", classmethod(lambda cls: home))
    monkeypatch.setattr(m, "_UNREADABLE", set())
    for (scope, root, skill), version in {**USER, **PROJECT}.items():
        path = (home if scope == "user" else home.parent / "my app") / root / skill / "SKILL.md"
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(f"---\nname: x\nversion: {version}\n---\n")
    return home


@pytest.fixture
def repo(home):
    return home.parent / "my app"  # a root that the update lines must quote


def expected(home, repo, stamps):
    out = []
    for scope, root, tail in DIRS:
        base, word = (home, "") if scope == "user" else (repo, f'"{repo}"' if " " in str(repo) else str(repo))
        line = f"zobek-lumeno{word and ' --repo-root '}{word} skill install --scope {scope}{tail}"
        out += [
            (skill, base / root, stamps.get((scope, root, skill)), "1.5.0", scope, line)
            for skill in m.SKILL_NAMES
        ]
    return out


def test_worked_example(home, repo):
    found = m.installed_skill_versions(repo)
    assert found == expected(home, repo, {**USER, **PROJECT})
    assert [i for i, r in enumerate(found) if r.stale] == [0, 15]
    assert m.installed_skill_versions(None) == expected(home, repo, USER)[:12]


def test_relative_project_root(monkeypatch, tmp_path, home, repo):
    monkeypatch.chdir(tmp_path)
    assert m.installed_skill_versions(Path("my app"))[12:] == expected(home, Path("my app"), PROJECT)[12:]


def test_project_root_is_home(home, repo):
    same = {("project", *key[1:]): version for key, version in USER.items()}
    assert m.installed_skill_versions(home) == expected(home, home, {**USER, **same})


def test_version_and_record_type_are_read_for_each_record(monkeypatch, home, repo):
    def record(*args):
        monkeypatch.setattr(m, "__version__", args[3] + "+")
        return args[3]

    monkeypatch.setattr(m, "InstalledSkill", record)
    monkeypatch.setattr(m, "__version__", "")
    assert m.installed_skill_versions(None) == ["+" * i for i in range(12)]


@pytest.mark.parametrize(
    "error", [RuntimeError("Could not determine home directory."), KeyError("HOME"), OSError(5, "no")]
)
def test_home_unknown(monkeypatch, caplog, home, repo, error):
    monkeypatch.setattr(pathlib.Path, "home", classmethod(lambda cls: (_ for _ in ()).throw(error)))
    caplog.set_level(logging.WARNING, logger=m.__name__)
    if not isinstance(error, RuntimeError):
        with pytest.raises(type(error)) as caught:
            m.installed_skill_versions(repo)
        assert caught.value is error and set() == m._UNREADABLE
        return
    # Without a home directory the user scope is skipped, and that is said once.
    found = m.installed_skill_versions(repo)
    assert found == m.installed_skill_versions(repo) == expected(home, repo, PROJECT)[12:]
    assert m.installed_skill_versions(None) == []
    [log] = caplog.records
    assert (log.name, log.levelno, log.exc_info[1]) == (m.__name__, logging.WARNING, error)
    assert log.getMessage() == HOMELESS
    assert {"the home directory"} == m._UNREADABLE


def spy(calls, real):
    def method(self, *args, **kwargs):
        calls.append((str(self), *args, *kwargs.items()))
        return real(self, *args, **kwargs)

    return method


def test_each_directory_and_skill_file_is_resolved_and_read_once(monkeypatch, home, repo):
    monkeypatch.setattr(pathlib.Path, "resolve", spy(resolved := [], pathlib.Path.resolve))
    monkeypatch.setattr(pathlib.Path, "open", spy(opened := [], pathlib.Path.open))
    found = m.installed_skill_versions(repo)
    files = {str(r.directory / r.skill / "SKILL.md"): r for r in found}
    dirs = {str(r.directory) for r in found}
    tried = dirs | {path for path, r in files.items() if r.directory.exists()}
    assert sorted(resolved) == sorted((path, ("strict", True)) for path in tried)
    assert sorted(path for path, *_ in opened) == sorted(path for path, r in files.items() if r.installed)
