"""The zobek-lumeno program: status, its update lines run as printed, the installer's refusals, arguments."""

import contextlib
import errno
import json
import os
import shlex
import subprocess
import sys
import sysconfig

import pytest

from zobek_lumeno import __version__
from zobek_lumeno.cli import main

NAMES = ("lumeno", "lumeno-map", "lumeno-wiki")


def stamp(skill_dir, version, text=None):
    skill_dir.mkdir(parents=True, exist_ok=True)
    (skill_dir / "SKILL.md").write_text(text or f"---\nname: {skill_dir.name}\nversion: {version}\n---\n")


def stamp_of(path):  # the tests' own reading, not the module's
    return next((line[9:] for line in path.read_text().split("\n") if line.startswith("version: ")), None)


def snapshot(top):
    return {p: os.readlink(p) if p.is_symlink() else p.is_dir() or p.read_bytes() for p in top.rglob("*")}


def run(capsys, args, code):
    assert main(args) == code
    return capsys.readouterr()


def shell(command, cwd, code=0, stdout=subprocess.PIPE):
    done = subprocess.run(command, shell=True, cwd=cwd, stdout=stdout, stderr=subprocess.PIPE, timeout=120)
    assert (done.returncode, done.stderr) == (code, b"")
    return done.stdout and done.stdout.decode()


@pytest.fixture
def repo(tmp_path, monkeypatch):
    """A repository "my app" under tmp_path, the working directory, beside the home directory."""
    (tmp_path / "my app/.git").mkdir(parents=True)
    monkeypatch.setenv("HOME", str(tmp_path / "home"))
    monkeypatch.chdir(tmp_path / "my app")
    return tmp_path / "my app"


def test_round_trip_through_the_console_script(repo, monkeypatch):
    """Status finds the stale copies, its update lines run as printed make them current."""
    (repo / ".git").rmdir()
    (repo / ".git").write_text("gitdir: elsewhere\n")  # a worktree's
    stale = [repo.parent / "home/.claude/skills", repo.parent / "home/.codeium/windsurf/skills"]
    stale += [repo / ".github/skills", repo / ".windsurf/skills"]
    for skills, version in zip(stale, ["1.4.0", "1.0", "0.9", __version__], strict=True):
        stamp(skills / "lumeno", version)
    stamp(stale[3] / "lumeno-map", "1.3")
    monkeypatch.setenv("PATH", f"{sysconfig.get_path('scripts')}{os.pathsep}{os.environ['PATH']}")
    # From a subdirectory: the repository is found by its .git.
    before = shell("zobek-lumeno status --check", repo / ".github", 1)
    assert f"under the repository {repo} (the nearest directory holding .git)" in before
    lines = before.split("4 stale copies; to update them run:\n")[1].splitlines()
    user = "  zobek-lumeno skill install --scope user"
    project = f'  zobek-lumeno --repo-root "{repo}" skill install --scope project --agent'
    assert lines == [user, f"{user} --agent windsurf", f"{project} copilot", f"{project} windsurf"]
    # A closed pipe is no failure: unbuffered, the first print meets it; buffered, the flush at the end
    # does, as long as the output fits the pipe's buffer: with the home as repository its paths are short.
    read, written = os.pipe()
    os.close(read)
    python = f"{shlex.quote(sys.executable)} -m zobek_lumeno --repo-root ~"
    shell(f"PYTHONUNBUFFERED=1 {python} status", repo, 0, written)
    shell(f"PYTHONUNBUFFERED= {python} status --check", repo, 1, written)
    os.close(written)
    assert all(" written" in shell(line, repo.parent).splitlines()[-1] for line in lines)
    after = json.loads(shell("zobek-lumeno status --check --json", repo))
    assert {stamp_of(d / s / "SKILL.md") for d in stale for s in NAMES} == {__version__}
    assert {r["state"] for r in after if r["directory"] in map(str, stale)} == {"current"}
    assert not (repo.parent / "home/.cursor").exists() and not (repo / ".claude").exists()
    assert "Nothing to do: all 3 skill copies are already those" in shell(lines[0], repo)


INSTALLS = [
    ("link out", "", "refused written written", "a link leads out of the skills directory"),
    ("out SKILL.md link", "", "refused written written", "its SKILL.md is a link out of the skills"),
    # The link is replaced by a file of the skill's own; the file it pointed to is left as it was.
    ("in SKILL.md link", "", "written written written", ""),
    ("link to a skill", "", "written refused written", "a link to the directory of the skill 'lumeno'"),
    ("link inside", "", "written written written", ""),
    ("file", "", "refused written written", "a file stands where the skill's directory belongs"),
    ("newer", "", "refused written written", "stamped 9.0, newer than this package's"),
    ("newer", "--force", "written written written", ""),
    ("unstamped", "", "refused written written", "its SKILL.md has no version stamp"),
    ("unstamped", "--force", "written written written", ""),
    ("none", "--dry-run --agent windsurf", "would would would", ""),
    ("installed", "--dry-run", "unchanged unchanged unchanged", ""),
]


@pytest.mark.parametrize("kind, args, actions, error", INSTALLS)
def test_install_refusals(repo, capsys, kind, args, actions, error):
    skills, outside = repo / ".claude/skills", repo.parent / "outside"
    lumeno, links = skills / "lumeno", {"link out": outside, "link inside": "store"}
    stamp(outside, "0.1")
    stamp(skills / "store", "1.4.0")  # no skill of the package's; where the links inside lead
    if kind in links:
        lumeno.symlink_to(links[kind])
    elif kind == "link to a skill":
        (skills / "lumeno-map").symlink_to("lumeno")
    elif kind.endswith("SKILL.md link"):  # out of the skills directory, or to a file inside it
        lumeno.mkdir()
        (lumeno / "SKILL.md").symlink_to(f"{outside if kind.startswith('out') else '../store'}/SKILL.md")
    elif kind == "file":
        lumeno.write_text("x")
    elif kind == "installed":
        run(capsys, ["skill", "install"], 0)
    elif kind != "none":
        stamp(lumeno, "9.0", "mine\n" if kind == "unstamped" else None)
    before = snapshot(repo.parent)
    out, err = run(capsys, ["skill", "install", *args.split()], "refused" in actions)
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
# that creating the temporary file there raises. No code: the user interrupts.
@pytest.mark.parametrize("call, code", [("replace", errno.ENOSPC), ("replace", None), ("open", errno.EROFS)])
def test_failed_write_leaves_the_old_file(repo, monkeypatch, capsys, call, code):
    skills, real = repo / ".claude/skills", getattr(os, call)
    stamp(skills / "lumeno", "1.4.0")

    def failing(path, *args, **kwargs):
        if call == "replace" or args[0] & os.O_CREAT:
            raise OSError(code, os.strerror(code)) if code else KeyboardInterrupt()
        return real(path, *args, **kwargs)

    monkeypatch.setattr(os, call, failing)
    with contextlib.nullcontext() if code else pytest.raises(KeyboardInterrupt):
        err = run(capsys, ["skill", "install"], 1).err.splitlines()
        assert err == [f"zobek-lumeno: error: cannot write {skills / n}: {os.strerror(code)}" for n in NAMES]
    assert (skills / "lumeno/SKILL.md").read_bytes() == b"---\nname: lumeno\nversion: 1.4.0\n---\n"
    assert sorted(p.name for p in skills.rglob("*") if p.is_file()) == ["SKILL.md"]


def test_status_states(repo, capsys):
    home, user, project = repo.parent / "home", repo.parent / "home/.claude/skills", repo / ".cursor/skills"
    for name, version in zip(NAMES, ["1.4.0", "9.0", None], strict=True):
        stamp(user / name, version, None if version else "---\nname: lumeno-wiki\n---\n")
    stamp(project / "lumeno", __version__)
    (project / "lumeno-map").mkdir()
    (project / "lumeno-map/SKILL.md").symlink_to("SKILL.md")  # a loop: unreadable, whatever the permissions
    out, err = run(capsys, ["status", "--check", "--json"], 1)
    assert ",".join(json.loads(out)[0]) == "skill,directory,installed,current,scope,update,stale,state"
    states = " ".join(r["state"] for r in json.loads(out) if r["state"] != "missing")
    assert "Cannot read" in err and states == "STALE newer unstamped current unreadable"
    # The survey warns about a path once a process; the state stays the same.
    lines = run(capsys, ["status"], 0).out.splitlines()
    assert lines[2] == f"  project scope  under the repository {repo} (the nearest directory holding .git)"
    assert [line.split()[-1] for line in lines[5:8]] == ["STALE", "newer", "unstamped"]
    assert lines[-3] == "1 stale copy; to update it run:"
    assert lines[-1] == "1 cannot be read (see the warnings); status --check fails until they can."
    # The repository is the home: a directory of both scopes is listed once for each.
    lines = run(capsys, ["--repo-root", str(home), "status"], 0).out.splitlines()
    assert "the two scopes overlap:" in lines[3] and lines[-3] == "2 stale copies; to update them run:"
    assert [line.split()[0] for line in lines if "~/.claude/skills" in line] == ["user", "project"]
    assert lines[-1] == f"  zobek-lumeno --repo-root {home} skill install --scope project"
    # A copy that cannot be read fails the check on its own; current and missing copies pass it.
    for name in NAMES:
        stamp(user / name, __version__)
    run(capsys, ["status", "--check"], 1)
    (project / "lumeno-map/SKILL.md").unlink()
    run(capsys, ["status", "--check"], 0)


ARGUMENTS = [
    ("dirs", ".claude/skills\n", ""),
    ("dirs --scope user claude copilot", ".claude/skills\n.copilot/skills\n", ""),
    ("dirs Claude", "", "dirs: error: argument AGENT: unknown agent 'Claude' (known: claude, cursor-agent, "),
    ("dirs --scope global", "", "invalid choice"),
    ("skill install --agent nobody", "", "install: error: argument --agent: unknown agent"),
    ("skill", "", "skill: error: the following arguments are required: ACTION"),
    ("--repo-root '' status", "", "zobek-lumeno: error: argument --repo-root: '' is not a directory"),
    (f"status --repo-root {shlex.quote(sys.executable)}", "", "status: error: argument --repo-root: "),
    ("--version", f"zobek-lumeno {__version__}\n", ""),
]


@pytest.mark.parametrize("args, out, error", ARGUMENTS)
def test_arguments(repo, capsys, args, out, error):
    captured = run(capsys, shlex.split(args), 2 if error else 0)
    # A mistake is reported in one line, not with the usage block.
    assert captured.out == out and len(captured.err.splitlines()) == bool(error) and error in captured.err
    usage = " ".join(run(capsys, ["dirs", "--help"], 0).out.split())
    assert "one of claude, cursor-agent, windsurf, copilot" in usage
