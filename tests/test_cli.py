"""The zobek-lumeno program: status, its update lines run as printed, the installer's refusals, arguments."""

import contextlib
import errno
import json
import os
import shlex
import stat
import subprocess
import sys
import sysconfig
from pathlib import Path

import pytest

from zobek_lumeno import __version__
from zobek_lumeno.cli import main
from zobek_lumeno.utils import agent_skills

NAMES = ("lumeno", "lumeno-map", "lumeno-wiki")


def stamp(skill_dir, version, text=None):
    skill_dir.mkdir(parents=True, exist_ok=True)
    (skill_dir / "SKILL.md").write_text(text or f"---\nname: {skill_dir.name}\nversion: {version}\n---\n")


def stamp_of(path):  # the tests' own reading, not the module's
    return next((line[9:] for line in path.read_text().split("\n") if line.startswith("version: ")), None)


def snapshot(top):  # a FIFO is never opened, a huge file never read
    def seen(p):
        info = p.lstat()
        small = stat.S_ISREG(info.st_mode) and info.st_size < 1 << 20
        return os.readlink(p) if p.is_symlink() else p.is_dir() or (p.read_bytes() if small else info.st_mode)

    return {p: seen(p) for p in top.rglob("*")}


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
    project = f"  zobek-lumeno --repo-root {shlex.quote(str(repo))} skill install --scope project --agent"
    assert lines == [user, f"{user} --agent windsurf", f"{project} copilot", f"{project} windsurf"]
    assert all(" written" in shell(line, repo.parent).splitlines()[-1] for line in lines)
    after = json.loads(shell("zobek-lumeno status --check --json", repo))
    assert {stamp_of(d / s / "SKILL.md") for d in stale for s in NAMES} == {__version__}
    assert {r["state"] for r in after if r["directory"] in map(str, stale)} == {"current"}
    assert not (repo.parent / "home/.cursor").exists() and not (repo / ".claude").exists()
    assert "Nothing to do: all 3 skill copies are already those" in shell(lines[0], repo)


INSTALLS = [
    # What stands in .claude/skills, the options, each skill's line, what stderr says, the states status gave.
    ("link out", "", "refused written written", "a link leads out of the skills directory", "blocked"),
    (
        "out SKILL.md link",
        "",
        "refused written written",
        "its SKILL.md is a link out of the skills",
        "blocked",
    ),
    # The link is replaced by a file of the skill's own; the file it pointed to is left as it was.
    ("in SKILL.md link", "", "written written written", "", "STALE"),
    (
        "link to a skill",
        "",
        "written refused written",
        "a link into the directory of the skill 'lumeno'",
        "-b",
    ),
    (
        "link into a skill",
        "",
        "refused written written",
        "into the directory of the skill 'lumeno-map'",
        "blocked",
    ),
    (
        "link around skills",
        "",
        "refused written written",
        "a directory that holds the skill 'lumeno-map'",
        "blocked",
    ),
    ("link inside", "", "written written written", "", "STALE"),
    ("file", "", "refused written written", "/.claude/skills/lumeno is not a directory", "blocked"),
    ("fifo", "", "refused written written", "its SKILL.md is not a regular file", "blocked"),
    ("directory", "", "refused written written", "its SKILL.md is not a regular file", "blocked"),
    ("sparse", "", "refused written written", "its SKILL.md has no version stamp", "unstamped"),
    ("newer", "", "refused written written", "stamped 9.0, newer than this package's", "newer"),
    ("newer", "--force", "written written written", "", "newer"),
    ("unstamped", "", "refused written written", "its SKILL.md has no version stamp", "unstamped"),
    ("unstamped", "--force", "written written written", "", "unstamped"),
    ("none", "--agent windsurf", "written written written", "", "missing"),
    ("installed", "", "unchanged unchanged unchanged", "", "current"),
    ("claude file", "", "refused refused refused", "my app/.claude is not a directory", "all blocked"),
    (
        "claude dangling",
        "",
        "refused refused refused",
        "/.claude is a link to nowhere, which does not exist",
        "all blocked",
    ),
]


def make(kind, skills, outside):
    """The tree of one case: ``kind`` stands at lumeno in ``skills``; links out lead to ``outside``."""
    lumeno, links = (
        skills / "lumeno",
        {"link out": outside, "link inside": "store", "link around skills": "."},
    )
    stamp(outside, "0.1")
    stamp(skills / "store", "1.4.0")  # no skill of the package's; where the links inside lead
    if kind in links:
        lumeno.symlink_to(links[kind])
    elif kind == "link to a skill":
        (skills / "lumeno-map").symlink_to("lumeno")
    elif kind == "link into a skill":  # dangling: install would make it inside lumeno-map
        (skills / "lumeno-map").mkdir()
        lumeno.symlink_to("lumeno-map/references")
    elif kind.endswith("SKILL.md link"):  # out of the skills directory, or to a file inside it
        lumeno.mkdir()
        (lumeno / "SKILL.md").symlink_to(f"{outside if kind.startswith('out') else '../store'}/SKILL.md")
    elif kind in ("file", "fifo", "directory", "sparse"):
        lumeno.mkdir() if kind != "file" else lumeno.write_text("x")
        {
            "fifo": os.mkfifo,
            "directory": os.mkdir,
            "sparse": lambda p: os.truncate(p.open("w").name, 1 << 40),
        }.get(kind, id)(lumeno / "SKILL.md")
    elif kind.startswith("claude"):
        skills.parent.rename(skills.parent.with_name("kept"))
        if kind == "claude file":
            skills.parent.write_text("x")
        else:
            skills.parent.symlink_to("nowhere")
    elif kind == "installed":
        assert main(["skill", "install"]) == 0
    elif kind != "none":
        stamp(lumeno, "9.0", "mine\n" if kind == "unstamped" else None)


@pytest.mark.parametrize("kind, args, actions, error, states", INSTALLS)
def test_install_refusals(repo, capsys, kind, args, actions, error, states):
    skills, outside = (
        repo / (".windsurf/skills" if "windsurf" in args else ".claude/skills"),
        repo.parent / "outside",
    )
    make(kind, skills, outside)
    capsys.readouterr()
    before = snapshot(repo.parent)
    # Status predicts the install: a copy it refuses is blocked, and says why in the same words.
    records = [
        r for r in json.loads(run(capsys, ["status", "--json"], 0).out) if r["directory"] == str(skills)
    ]
    expected = {"-b": "missing blocked missing", "all blocked": "blocked blocked blocked"}.get(states, states)
    assert [r["state"] for r in records][: len(expected.split())] == expected.split()
    assert all(error in r["reason"] for r in records if r["state"] == "blocked")
    assert main(["status", "--check"]) == int(
        any(r["state"] in ("STALE", "blocked") for r in records)
    )  # fails on it
    capsys.readouterr()
    # The dry run says what the real run does, in the same words, and changes nothing.
    dry = run(capsys, ["skill", "install", "--dry-run", *args.split()], "refused" in actions)
    assert snapshot(repo.parent) == before
    out, err = run(capsys, ["skill", "install", *args.split()], "refused" in actions)
    assert dry.out.replace("would write", "written    ").splitlines()[:-1] == out.splitlines()[:-1]
    assert [line.split()[0] for line in out.splitlines()[:-1]] == actions.split() and dry.err == err
    assert error in err and len(err.splitlines()) == actions.count("refused")
    written = [skills / n for n, action in zip(NAMES, actions.split(), strict=True) if action == "written"]
    # Files change only in the skills written (directories may be made).
    after = snapshot(repo.parent)
    changed = {p for p in before.keys() | after.keys() if before.get(p) != after.get(p) is not True}
    assert all(any(p.is_relative_to(w.resolve()) for w in written) for p in changed)
    assert all(not (s / "SKILL.md").is_symlink() and stamp_of(s / "SKILL.md") == __version__ for s in written)


UNINSTALLS = [
    # What stands in .claude/skills, the options, each skill's line, what stderr says.
    ("installed", "", "removed removed removed", ""),
    ("installed", "--dry-run", "would would would", ""),
    ("none", "", "absent absent absent", ""),
    ("link out", "", "kept removed removed", "a link leads out of the skills directory"),
    ("link into a skill", "", "kept removed removed", "a link into the directory of the skill 'lumeno-map'"),
    ("link to a skill", "", "removed kept removed", "a link into the directory of the skill 'lumeno'"),
    (
        "in SKILL.md link",
        "",
        "kept removed removed",
        "its SKILL.md is a link, which this package never writes",
    ),
    ("file", "", "kept removed removed", "/.claude/skills/lumeno is not a directory"),
    ("fifo", "", "kept removed removed", "its SKILL.md is not a regular file"),
    ("unstamped", "", "kept removed removed", "its SKILL.md has no version stamp"),
    ("unstamped", "--force", "removed removed removed", ""),
    ("newer", "", "removed removed removed", ""),
    ("link inside", "", "removed removed removed", ""),
    ("claude file", "", "kept kept kept", "my app/.claude is not a directory"),
    ("claude dangling", "", "absent absent absent", ""),
]


@pytest.mark.parametrize("kind, args, actions, error", UNINSTALLS)
def test_uninstall_refusals(repo, capsys, kind, args, actions, error):
    skills, outside = repo / ".claude/skills", repo.parent / "outside"
    make(kind, skills, outside)
    for name in (
        NAMES if kind != "none" and skills.is_dir() else ()
    ):  # the package's copies where there is room
        place = skills / name
        if not os.path.lexists(place) or (
            place.is_dir() and not place.is_symlink() and not (place / "SKILL.md").exists()
        ):
            stamp(place, __version__)
    if (skills / "lumeno-wiki").is_dir():
        (skills / "lumeno-wiki/notes.md").write_text("the user's own")
    before, _ = snapshot(repo.parent), capsys.readouterr()
    out, err = run(capsys, ["skill", "uninstall", *args.split()], "kept" in actions)
    assert [line.split()[0] for line in out.splitlines()[:-1]] == actions.split()
    assert error in err and len(err.splitlines()) == actions.count("kept")
    after = snapshot(repo.parent)
    # Only the stamped SKILL.md of each skill is removed, then its own directory if that left it empty.
    removed = [n for n, action in zip(NAMES, actions.split(), strict=True) if action == "removed"]
    gone = {p.relative_to(skills) for p in before.keys() - after.keys()}
    assert gone <= {Path(n, f) for n in removed for f in ("SKILL.md", "")} | {Path("store/SKILL.md")}
    assert all(not (skills / n).exists() or (skills / n).is_symlink() or n == "lumeno-wiki" for n in removed)
    assert {p for p in before.keys() & after.keys() if before[p] != after[p]} == set()
    assert (outside / "SKILL.md").exists() and ("would" not in actions or after == before)


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
    assert (
        ",".join(json.loads(out)[0])
        == "skill,directory,installed,current,scope,update,stale,state,reason,command"
    )
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
    ("skill uninstall --scope home", "", "uninstall: error: argument --scope: invalid choice"),
    ("", "", "usage: zobek-lumeno [-h] [--version] [--repo-root DIR] COMMAND ..."),
]


@pytest.mark.parametrize("args, out, error", ARGUMENTS)
def test_arguments(repo, capsys, args, out, error):
    captured = run(capsys, shlex.split(args), 2 if error else 0)
    # A mistake is reported in one line, not with the usage block; no command at all points to --help.
    assert captured.out == out and error in captured.err
    assert captured.err.splitlines()[1:] == (
        [] if args else ["See 'zobek-lumeno --help' for what each command does."]
    )
    usage = " ".join(run(capsys, ["dirs", "--help"], 0).out.split())
    assert "one of claude, cursor-agent, windsurf, copilot" in usage


def test_install_then_uninstall_in_both_scopes_leaves_only_the_skills_directories(repo, capsys):
    agents = ("claude", "cursor-agent", "windsurf", "copilot")
    bases = {"user": repo.parent / "home", "project": repo}
    stamp(bases["user"] / ".claude/skills/mine", "1.0")  # the user's own skill, and a file beside a package's
    (bases["user"] / ".claude/skills/lumeno").mkdir()
    (bases["user"] / ".claude/skills/lumeno/notes.md").write_text("the user's own")
    before = snapshot(repo.parent)
    made = {s: [bases[s] / d for d in agent_skills.resolve_skill_dirs(agents, s)] for s in bases}
    for scope in bases:
        assert main(["skill", "install", f"--scope={scope}", *(f"--agent={a}" for a in agents)]) == 0
    capsys.readouterr()
    for scope in bases:
        out = run(
            capsys, ["skill", "uninstall", f"--scope={scope}", *(f"--agent={a}" for a in agents)], 0
        ).out
        assert (
            out.splitlines()[-1]
            == f"{3 * len(made[scope])} removed (zobek-lumeno {__version__}, {scope} scope)."
        )
    after = snapshot(repo.parent)
    assert {p: after[p] for p in before} == before  # the user's files exactly as they were
    # Only the skills directories remain (and the directories above them that the install made).
    assert all(
        any(d.is_relative_to(p) for d in made["user"] + made["project"]) for p in after.keys() - before.keys()
    )
    # Nothing installed: status ends with the line that installs, and names --agent.
    lines = run(capsys, ["status"], 0).out.splitlines()
    assert "--agent AGENT (repeatable) picks other agents" in lines[-2]
    assert lines[-1] == f"  zobek-lumeno --repo-root {shlex.quote(str(repo))} skill install --scope project"
    assert run(capsys, ["skill", "uninstall", "--scope=user"], 0).out.startswith("absent ")
