"""The installed-skill record, the update command and the survey of every directory an agent reads."""

import logging
import pathlib

import pytest

from zobek_lumeno.utils import agent_skills as m

CMD = "zobek-lumeno skill install --scope "


@pytest.mark.parametrize("order, named", [(["zed", "amp"], "zed"), (["amp", "zed"], "amp")])
def test_first_lone_writer_is_named(monkeypatch, order, named):
    table = {"claude": m.SkillRoots(project=(".claude/skills",), user=(".claude/skills",))}
    table.update((k, m.SkillRoots(project=(".shared/skills",), user=())) for k in order)
    monkeypatch.setattr(m, "AGENT_SKILL_ROOTS", table)
    assert m._update_command("project", ".shared/skills", None) == CMD + "project --agent " + named


@pytest.fixture
def repo(tmp_path, monkeypatch, plain):
    """A home and a repository with stamped copies, and a fresh set of reported paths in both modules."""
    base = tmp_path.resolve()
    for rel in ("home/.claude/skills/lumeno/SKILL.md", "my app/.cursor/skills/lumeno-map/SKILL.md"):
        (base / rel).parent.mkdir(parents=True)
        (base / rel).write_text("---\nversion: 1.4.0\n---\n")
    monkeypatch.setenv("HOME", str(base / "home"))
    for module in (m, plain):
        monkeypatch.setattr(module, "_UNREADABLE", set())
    return base / "my app"


def test_version_and_record_type_are_read_for_each_record(monkeypatch, repo):
    def record(*args):
        monkeypatch.setattr(m, "__version__", args[3] + "+")
        return args[3]

    monkeypatch.setattr(m, "InstalledSkill", record)
    monkeypatch.setattr(m, "__version__", "")
    assert m.installed_skill_versions(None) == ["+" * i for i in range(12)]


@pytest.mark.parametrize(
    "error", [None, RuntimeError("Could not determine home directory."), KeyError("H"), OSError(5, "")]
)
def test_survey_with_or_without_a_home(monkeypatch, caplog, plain, outcome, repo, error):
    """As the plain formulation: both scopes, or the project scope alone and one warning, or the error."""
    if error is not None:
        monkeypatch.setattr(pathlib.Path, "home", classmethod(lambda cls: (_ for _ in ()).throw(error)))
    caplog.set_level(logging.WARNING)
    results = []
    for module in (m, plain, m):
        caplog.clear()
        found = outcome(lambda module: [tuple(r) for r in module.installed_skill_versions(repo)], module)
        results.append((found, [(r.name, r.args, r.exc_info[1]) for r in caplog.records]))
    assert results[0] == results[1] and results[2] == (results[0][0], [])  # said once in a process
    if error is None or isinstance(error, RuntimeError):
        assert len(results[0][0][1]) == (24 if error is None else 12)
