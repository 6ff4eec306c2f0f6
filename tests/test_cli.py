"""The zobek-lumeno program: status, then the printed update lines, then status again; every refusal of
the installer; the six states; and its arguments."""

import errno
import functools
import json
import os
import re
import subprocess
import sys
import sysconfig
from pathlib import Path

import pytest

from zobek_lumeno import __version__
from zobek_lumeno.cli import main

NAMES = ("lumeno", "lumeno-map", "lumeno-wiki")
STAMP = re.compile(r"^version: (\S+)$", re.MULTILINE)  # the tests' own reading, not the module's


def stamp(skill_dir, version, text=None):
    skill_dir.mkdir(parents=True, exist_ok=True)
    (skill_dir / "SKILL.md").write_text(text or f"---\nname: {skill_dir.name}\nversion: {version}\n---\n")


def stamp_of(path):
    found = STAMP.search(path.read_text())
    return found and found[1]


def snapshot(top):
    return {p: os.readlink(p) if p.is_symlink() else p.is_dir() or p.read_bytes() for p in top.rglob("*")}


@pytest.fixture
def repo(tmp_path, monkeypatch):
    """A repository "my app" under tmp_path, the working directory, beside the home directory."""
    (tmp_path / "my app/.git").mkdir(parents=True)
    (tmp_path / "home").mkdir()
    monkeypatch.setenv("HOME", str(tmp_path / "home"))
    monkeypatch.chdir(tmp_path / "my app")
    return tmp_path / "my app"


def test_round_trip_through_the_console_script(tmp_path):
    home, repo = tmp_path / "home", tmp_path / "my app"
    repo.mkdir()
    (repo / ".git").write_text("gitdir: elsewhere\n")  # a worktree's
    (repo / "src").mkdir()
    stale = [home / ".claude/skills", home / ".codeium/windsurf/skills", repo / ".github/skills"]
    for skill_dir, version in zip([s / "lumeno" for s in stale], ["1.4.0", "1.0", "0.9"], strict=True):
        stamp(skill_dir, version)
    stamp(repo / ".windsurf/skills/lumeno", __version__)
    stamp(repo / ".windsurf/skills/lumeno-map", "1.3")
    stale.append(repo / ".windsurf/skills")
    env = {
        **os.environ,
        "HOME": str(home),
        "PATH": f"{sysconfig.get_path('scripts')}{os.pathsep}{os.environ['PATH']}",
    }
    shell = functools.partial(
        subprocess.run, shell=True, env=env, capture_output=True, text=True, timeout=120
    )

    # From a subdirectory: the repository is found by its .git.
    before = shell("zobek-lumeno status --check", cwd=repo / "src")
    assert before.returncode == 1 and before.stderr == ""
    assert f"under the repository {repo} (the nearest directory holding .git)" in before.stdout
    lines = before.stdout.split("4 stale copies; to update them run:\n")[1].splitlines()
    assert lines == [
        "  zobek-lumeno skill install --scope user",
        "  zobek-lumeno skill install --scope user --agent windsurf",
        f'  zobek-lumeno --repo-root "{repo}" skill install --scope project --agent copilot',
        f'  zobek-lumeno --repo-root "{repo}" skill install --scope project --agent windsurf',
    ]
    for line in lines:
        done = shell(line, cwd=tmp_path)
        assert (done.returncode, done.stderr) == (0, "") and " written" in done.stdout.splitlines()[-1]
    after = shell("zobek-lumeno status --check --json", cwd=repo)
    assert after.returncode == 0
    assert {stamp_of(d / s / "SKILL.md") for d in stale for s in NAMES} == {__version__}
    assert {r["state"] for r in json.loads(after.stdout) if Path(r["directory"]) in stale} == {"current"}
    assert not (home / ".cursor").exists() and not (repo / ".claude").exists()
    assert "Nothing to do: all 3 skill copies are already those" in shell(lines[0], cwd=repo).stdout


def arrange(kind, skills, outside):
    lumeno = skills / "lumeno"
    if kind == "link out":
        lumeno.symlink_to(outside, target_is_directory=True)
    elif kind.endswith("SKILL.md link"):  # out of the skills directory, or to a file inside it
        (skills / "notes.md").write_text("version: 1.4.0\n")
        lumeno.mkdir()
        (lumeno / "SKILL.md").symlink_to(outside / "SKILL.md" if kind.startswith("out") else "../notes.md")
    elif kind == "link to a skill":
        (skills / "lumeno-map").symlink_to("lumeno")
    elif kind == "link inside":
        (skills / "store").mkdir()
        lumeno.symlink_to("store")
    elif kind in ("file", "unstamped", "newer"):
        stamp(
            lumeno, "9.0", "mine\n" if kind == "unstamped" else None
        ) if kind != "file" else lumeno.write_text("x")


@pytest.mark.parametrize(
    "kind, args, actions, error",
    [
        ("link out", [], "refused written written", "a link leads out of the skills directory"),
        ("out SKILL.md link", [], "refused written written", "its SKILL.md is a link out of the skills"),
        # The link is replaced by a file of the skill's own; the file it pointed to is left as it was.
        ("in SKILL.md link", [], "written written written", ""),
        ("link to a skill", [], "written refused written", "a link to the directory of the skill 'lumeno'"),
        ("link inside", [], "written written written", ""),
        ("file", [], "refused written written", "a file stands where the skill's directory belongs"),
        ("newer", [], "refused written written", "stamped 9.0, newer than this package's"),
        ("newer", ["--force"], "written written written", ""),
        ("unstamped", [], "refused written written", "its SKILL.md has no version stamp"),
        ("unstamped", ["--force"], "written written written", ""),
        ("none", ["--dry-run", "--agent", "windsurf"], "would would would", ""),
    ],
)
def test_install_refusals(repo, capsys, kind, args, actions, error):
    skills, outside = repo / ".claude/skills", repo.parent / "outside"
    skills.mkdir(parents=True)
    stamp(outside, "0.1")
    arrange(kind, skills, outside)
    before = snapshot(repo.parent)
    assert main(["skill", "install", *args]) == ("refused" in actions)
    out, err = capsys.readouterr()
    assert [line.split()[0] for line in out.splitlines()[:-1]] == actions.split()
    assert error in err and len(err.splitlines()) == actions.count("refused")
    written = [skills / n for n, action in zip(NAMES, actions.split(), strict=True) if action == "written"]
    # Files change only in the skills written (directories may be made); a dry run changes nothing.
    after = snapshot(repo.parent)
    changed = {p for p in before.keys() | after.keys() if before.get(p) != after.get(p) is not True}
    assert all(any(p.is_relative_to(w.resolve()) for w in written) for p in changed)
    assert "--dry-run" not in args or after == before
    assert all(not (s / "SKILL.md").is_symlink() and stamp_of(s / "SKILL.md") == __version__ for s in written)


# Tests run as root, whom permission bits do not stop: a read-only directory is simulated by the error
# that creating the temporary file there raises.
@pytest.mark.parametrize(
    "call, error",
    [
        ("replace", OSError(errno.ENOSPC, "No space")),
        ("replace", KeyboardInterrupt()),
        ("open", OSError(errno.EROFS, "Read-only")),
    ],
)
def test_failed_write_leaves_the_old_file(repo, monkeypatch, capsys, call, error):
    skills = repo / ".claude/skills"
    stamp(skills / "lumeno", "1.4.0")
    old, real = (skills / "lumeno/SKILL.md").read_bytes(), getattr(os, call)

    def failing(path, *args, **kwargs):
        if call == "replace" or args[0] & os.O_CREAT:
            raise error
        return real(path, *args, **kwargs)

    monkeypatch.setattr(os, call, failing)
    if isinstance(error, KeyboardInterrupt):
        with pytest.raises(KeyboardInterrupt):
            main(["skill", "install"])
    else:
        assert main(["skill", "install"]) == 1
        errors = [f"zobek-lumeno: error: cannot write {skills / name}: {error.strerror}" for name in NAMES]
        assert capsys.readouterr().err.splitlines() == errors
    assert (skills / "lumeno/SKILL.md").read_bytes() == old
    assert sorted(p.name for p in skills.rglob("*") if p.is_file()) == ["SKILL.md"]


def test_status_states(repo, capsys):
    home, user, project = repo.parent / "home", repo.parent / "home/.claude/skills", repo / ".cursor/skills"
    stamp(user / "lumeno", "1.4.0")
    stamp(user / "lumeno-map", "9.0")
    stamp(user / "lumeno-wiki", None, "---\nname: lumeno-wiki\n---\n")
    stamp(project / "lumeno", __version__)
    (project / "lumeno-map").mkdir()
    (project / "lumeno-map/SKILL.md").symlink_to("SKILL.md")  # a loop: unreadable, whatever the permissions
    assert main(["status", "--check", "--json"]) == 1
    out, err = capsys.readouterr()
    records = json.loads(out)
    assert (
        "Cannot read" in err
        and ",".join(records[0]) == "skill,directory,installed,current,scope,update,stale,state"
    )
    assert [r["state"] for r in records if r["state"] != "missing"] == [
        "STALE",
        "newer",
        "unstamped",
        "current",
        "unreadable",
    ]
    # The survey warns about a path once a process; the state stays the same.
    assert main(["status"]) == 0
    lines = capsys.readouterr().out.splitlines()
    assert lines[2] == f"  project scope  under the repository {repo} (the nearest directory holding .git)"
    assert [line.split()[-1] for line in lines[5:8]] + [lines[-3], lines[-1]] == [
        "STALE",
        "newer",
        "unstamped",
        "1 stale copy; to update it run:",
        "1 cannot be read (see the warnings); status --check fails until they can.",
    ]
    # The repository is the home: a directory of both scopes is listed once for each.
    assert main(["--repo-root", str(home), "status"]) == 0
    lines = capsys.readouterr().out.splitlines()
    assert "the two scopes overlap:" in lines[3] and lines[-3] == "2 stale copies; to update them run:"
    assert [line.split()[0] for line in lines if "~/.claude/skills" in line] == ["user", "project"]
    assert lines[-1] == f"  zobek-lumeno --repo-root {home} skill install --scope project"


# Unbuffered, the first print meets the closed pipe; buffered, the flush at the end does.
@pytest.mark.parametrize("check, code, unbuffered", [([], 0, "1"), (["--check"], 1, "")])
def test_closed_pipe_is_no_failure(tmp_path, check, code, unbuffered):
    stamp(tmp_path / ".claude/skills/lumeno", "1.0")
    read, written = os.pipe()
    os.close(read)
    command = [sys.executable, "-m", "zobek_lumeno", "--repo-root", str(tmp_path), "status", *check]
    env = {**os.environ, "HOME": str(tmp_path), "PYTHONUNBUFFERED": unbuffered}
    done = subprocess.run(command, stdout=written, stderr=subprocess.PIPE, env=env, timeout=60)
    os.close(written)
    assert (done.returncode, done.stderr) == (code, b"")


@pytest.mark.parametrize(
    "args, out, error",
    [
        (["dirs"], ".claude/skills\n", ""),
        (["dirs", "--scope", "user", "claude", "copilot"], ".claude/skills\n.copilot/skills\n", ""),
        (
            ["dirs", "Claude"],
            "",
            "dirs: error: argument AGENT: unknown agent 'Claude' (known: claude, cursor-agent, ",
        ),
        (["dirs", "--scope", "global"], "", "invalid choice"),
        (["skill", "install", "--agent", "nobody"], "", "install: error: argument --agent: unknown agent"),
        (["skill"], "", "skill: error: the following arguments are required: ACTION"),
        (
            ["--repo-root", "", "status"],
            "",
            "zobek-lumeno: error: argument --repo-root: '' is not a directory",
        ),
        (["status", "--repo-root", sys.executable], "", "status: error: argument --repo-root: "),
        (["--version"], f"zobek-lumeno {__version__}\n", ""),
    ],
)
def test_arguments(repo, capsys, args, out, error):
    assert main(args) == (2 if error else 0)
    captured = capsys.readouterr()
    # A mistake is reported in one line, not with the usage block.
    assert captured.out == out and len(captured.err.splitlines()) == bool(error) and error in captured.err
    assert main(["dirs", "--help"]) == 0
    assert "one of claude, cursor-agent, windsurf, copilot" in " ".join(capsys.readouterr().out.split())
