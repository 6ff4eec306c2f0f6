"""The program's promises against a process racing it, a signal at any moment, hostile names and homes, and
output that cannot be written. Races and crashes run in child processes, each bounded in time."""

import contextlib
import ctypes
import fcntl
import functools
import json
import os
import shlex
import signal
import subprocess
import sys
import sysconfig
import threading

import pytest

from zobek_lumeno import __version__
from zobek_lumeno.cli import main

NAMES = ("lumeno", "lumeno-map", "lumeno-wiki")
LIBC = ctypes.CDLL(None, use_errno=True)


def stamp(skill_dir, version):
    skill_dir.mkdir(parents=True, exist_ok=True)
    text = f"---\nname: {skill_dir.name}\nversion: {version}\n---\n" if version else "mine\n"
    (skill_dir / "SKILL.md").write_text(text)


def stamp_file(version, path):
    path.write_text(f"---\nversion: {version}\n---\n")


def snapshot(top):  # a FIFO is never opened
    return {
        p: os.readlink(p) if p.is_symlink() else p.is_dir() or (p.is_file() and p.read_bytes())
        for p in top.rglob("*")
    }


def exchange(a, b):
    """Swap two names atomically (renameat2 with RENAME_EXCHANGE), as an attacker racing the program does."""
    if LIBC.renameat2(-100, os.fsencode(a), -100, os.fsencode(b), 2):
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


def child(code, *args, env=None, timeout=60, **kwargs):
    """Python running ``code`` with ``args``, with HOME (and the rest) from ``env``."""
    return subprocess.run(
        [sys.executable, "-c", code, *map(str, args)],
        env={**os.environ, **(env or {})},
        capture_output=True,
        timeout=timeout,
        **kwargs,
    )


LOOP = """
import itertools, sys, time
import zobek_lumeno.cli as cli
end = time.monotonic() + float(sys.argv[1])
for i in itertools.takewhile(lambda _: time.monotonic() < end, itertools.count()):
    cli.__version__ = f"2.0.{i}"  # each install an upgrade, so each one writes
    for args in sys.argv[2:]:
        cli.main(args.split())
"""

SWAPS = [
    # What is swapped, again and again, for a link to what outside (a home of its own) or for a FIFO; how
    # outside's copies are stamped.
    ("home/.claude", ".claude", None),  # above the skills directory: outside's unstamped copies must stay
    ("home/.claude/skills/lumeno", ".claude/skills/lumeno", __version__),  # a skill: its outside copy stays
    ("home/.claude/skills/lumeno/SKILL.md", "fifo", "1.0"),  # opened to read, it would block
]


@pytest.mark.parametrize("swapped, target, version", SWAPS)
def test_a_racing_swap_sends_nothing_outside_and_blocks_nothing(tmp_path, swapped, target, version):
    home, outside, other = tmp_path / "home", tmp_path / "outside", tmp_path / "other"
    for name in NAMES:
        stamp(home / ".claude/skills" / name, "1.0")
        stamp(outside / ".claude/skills" / name, version)
    before, stop, swaps = snapshot(outside), threading.Event(), []
    other.symlink_to(outside / target)

    def swap():
        while not stop.is_set():
            with contextlib.suppress(
                FileNotFoundError
            ):  # uninstall removes what is swapped, install remakes it
                if not swapped.endswith("SKILL.md"):
                    exchange(tmp_path / swapped, other)
                # A fresh FIFO each time, then a file again: an install's rename replaces what it meets.
                for make in (
                    ()
                    if not swapped.endswith("SKILL.md")
                    else (os.mkfifo, functools.partial(stamp_file, version))
                ):
                    with contextlib.suppress(FileNotFoundError):
                        os.unlink(other)
                    make(other)
                    os.replace(other, tmp_path / swapped)
                swaps.append(1)

    thread = threading.Thread(target=swap)
    thread.start()
    try:  # Two seconds of installs and uninstalls; one that blocks is stopped at the timeout.
        done = child(
            LOOP, 2, "skill install --scope user", "skill uninstall --scope user", env={"HOME": str(home)}
        )
    finally:
        stop.set()
        thread.join()
    assert swaps and b"Traceback" not in done.stderr and done.returncode == 0
    assert snapshot(outside) == before
    assert not list(tmp_path.rglob("*.tmp"))


@pytest.mark.parametrize("resolved, swapped", [("home", "home"), ("home/.claude", "dotfiles")])
def test_a_directory_swapped_right_after_it_was_resolved_is_not_written_through(
    tmp_path, monkeypatch, capsys, resolved, swapped
):
    home, outside, resolve = tmp_path / "home", tmp_path / "outside", os.path.realpath
    for directory in ("dotfiles/claude", "home", "outside/.claude/skills", "outside/claude/skills"):
        (tmp_path / directory).mkdir(parents=True)
    (home / ".claude").symlink_to(tmp_path / "dotfiles/claude")  # a dotfiles link: followed when resolved
    monkeypatch.setenv("HOME", str(home))

    def resolve_then_swap(path, *args, **kwargs):
        real = resolve(path, *args, **kwargs)
        if os.fspath(path) == str(tmp_path / resolved):  # the component becomes a link to outside
            os.rename(tmp_path / swapped, tmp_path / "moved")
            (tmp_path / swapped).symlink_to(outside)
        return real

    monkeypatch.setattr(os.path, "realpath", resolve_then_swap)
    assert main(["skill", "install", "--scope", "user"]) == 1
    assert "changed while the program ran" in capsys.readouterr().err
    assert all(p.is_dir() for p in outside.rglob("*"))  # nothing written there


SIGNALLED = """
import os, sys
from zobek_lumeno.cli import run
sig = int(sys.argv.pop(1))
real = os.open
def open_then_signal(path, flags, *args, **kwargs):
    descriptor = real(path, flags, *args, **kwargs)
    if flags & os.O_CREAT:  # the temporary file exists from here on
        os.kill(os.getpid(), sig)
    return descriptor
os.open = open_then_signal
sys.exit(run())
"""


SIGNALS = [(signal.SIGINT, "install"), (signal.SIGTERM, "install"), (signal.SIGHUP, "install")]


@pytest.mark.parametrize("sig, then", [*SIGNALS, (signal.SIGKILL, "install"), (signal.SIGKILL, "uninstall")])
def test_a_signal_leaves_no_temporary_file_and_sigkill_one_until_the_next_install(tmp_path, sig, then):
    skills = tmp_path / ".claude/skills"
    stamp(skills / "lumeno", "1.0")
    (tmp_path / ".git").mkdir()
    # Look-alikes that are not the package's temporaries: the next install leaves them.
    foreign = [
        skills / "lumeno" / n for n in (".SKILL.md.1234567.tmp", ".notes.md.12345678.tmp", "SKILL.md.tmp")
    ]
    for path in foreign:
        path.write_text("the user's")
    done = child(SIGNALLED, int(sig), "skill", "install", cwd=tmp_path)
    assert done.returncode == (130 if sig == signal.SIGINT else -sig) and b"Traceback" not in done.stderr
    left = [p for p in skills.rglob(".SKILL.md.*.tmp") if p not in foreign]
    assert len(left) == (sig == signal.SIGKILL)
    # The file is the complete old one, or the complete new one.
    assert (skills / "lumeno/SKILL.md").read_text().split("version: ")[1][:3] in ("1.0", __version__[:3])
    assert main(["--repo-root", str(tmp_path), "skill", then]) == 0
    assert not [p for p in skills.rglob("*.tmp") if p not in foreign] and all(p.exists() for p in foreign)


def test_installs_and_uninstalls_take_turns_on_a_skills_directory(tmp_path):
    skills = tmp_path / ".claude/skills"
    skills.mkdir(parents=True)
    held = os.open(skills, os.O_RDONLY)
    fcntl.flock(held, fcntl.LOCK_EX)  # as another install holds it while it writes
    program = [sys.executable, "-m", "zobek_lumeno", "--repo-root", str(tmp_path), "skill"]
    waiting = subprocess.Popen(
        [*program, "install"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
    )
    timer = threading.Timer(30, waiting.kill)  # a child that never says it waits is stopped
    timer.start()
    try:
        assert "waiting for another zobek-lumeno to finish with" in waiting.stderr.readline()
        assert not any((skills / n).exists() for n in NAMES)
    finally:
        fcntl.flock(held, fcntl.LOCK_UN)
        os.close(held)
        out, _ = waiting.communicate(timeout=30)
        timer.cancel()
    assert waiting.returncode == 0 and out.splitlines()[-1].startswith("3 written")


HOSTILE = ["proj$(touch PWNED)`touch PWNED`", 'it\'s "quoted" $HOME \\ ~', "new\nline"]


@pytest.mark.parametrize("name", HOSTILE)
def test_every_printed_command_pastes_into_a_shell_and_expands_nothing(tmp_path, monkeypatch, name):
    repo, elsewhere = tmp_path / name, tmp_path / "elsewhere"
    (repo / ".git").mkdir(parents=True)
    (tmp_path / "home").mkdir()
    elsewhere.mkdir()
    monkeypatch.setenv("HOME", str(tmp_path / "home"))
    monkeypatch.setenv("PATH", f"{sysconfig.get_path('scripts')}{os.pathsep}{os.environ['PATH']}")
    status = [sys.executable, "-m", "zobek_lumeno", f"--repo-root={repo}", "status"]
    # Nothing installed: the last line installs for the default agents; then a stale copy's update line.
    for skills, version in [(".claude/skills", None), (".windsurf/skills", "1.0")]:
        if version:
            stamp(repo / skills / "lumeno", version)
        line = (
            subprocess.run(status, capture_output=True, text=True, timeout=60).stdout.splitlines()[-1].strip()
        )
        records = json.loads(subprocess.check_output([*status, "--json"], timeout=60))
        command = next(r["command"] for r in records if r["directory"] == str(repo / skills))
        if name.isprintable():
            assert shlex.split(line) == command
            subprocess.run(["sh", "-c", line], cwd=elsewhere, check=True, capture_output=True, timeout=60)
        else:  # a line cannot carry it: a comment, and the words for scripts
            assert line.startswith("# ") and "\\n" in line
            subprocess.run(command, cwd=elsewhere, check=True, capture_output=True, timeout=60)
        assert f"\nversion: {__version__}\n" in (repo / skills / "lumeno/SKILL.md").read_text()
    assert not list(tmp_path.rglob("PWNED")) and not os.listdir(elsewhere)
    record = json.loads(subprocess.check_output([*status, "--json"], timeout=60))[12]
    assert (
        record["update"] == f'zobek-lumeno --repo-root "{repo}" skill install --scope project'
    )  # as the module has it


OUTPUTS = [
    # How stdout (and stderr) are set, the encoding, the repository's name, exit status, stderr.
    (
        ">&-",
        "",
        b"app",
        1,
        "zobek-lumeno: error: the output could not be written: standard output is closed\n",
    ),
    (">&- 2>&-", "", b"app", 1, ""),
    ("pipe", "", b"app", 1, "zobek-lumeno: error: the output could not be written: Broken pipe\n"),
    ("", "utf-8:strict", b"caf\xff", 0, ""),  # a path that is not text is printed escaped
    ("", "ascii:strict", "café".encode(), 1, "its encoding, ascii, cannot carry '\\xe9'\n"),
]


@pytest.mark.parametrize("redirect, encoding, name, code, error", OUTPUTS)
def test_output_that_cannot_be_written_ends_in_one_line(tmp_path, redirect, encoding, name, code, error):
    repo = os.path.join(os.fsencode(tmp_path), name)
    os.makedirs(os.path.join(repo, b".git"))
    read, written = os.pipe()
    os.close(read)
    command = f"{shlex.quote(sys.executable)} -m zobek_lumeno status {'' if redirect == 'pipe' else redirect}"
    env = {**os.environ, "HOME": str(tmp_path), "PYTHONIOENCODING": encoding}
    stdout = written if redirect == "pipe" else subprocess.PIPE
    done = subprocess.run(
        command, shell=True, cwd=repo, env=env, stdout=stdout, stderr=subprocess.PIPE, timeout=60
    )
    os.close(written)
    assert done.returncode == code and len(done.stderr.splitlines()) == bool(error)
    assert done.stderr.decode().endswith(error) and (
        code or b"under the repository " + repo[:-1] + b"\\xff" in done.stdout
    )


HOMES = [
    ("", "HOME is empty"),
    ("nowhere", "the home directory /"),
    ("rel", "HOME is not an absolute path (rel)"),
]


@pytest.mark.parametrize("home, error", HOMES)
def test_a_home_that_is_empty_or_missing_is_no_user_scope(tmp_path, monkeypatch, capsys, home, error):
    (tmp_path / "rel").mkdir()
    monkeypatch.chdir(tmp_path)
    monkeypatch.setenv("HOME", str(tmp_path / home) if home == "nowhere" else home)
    before = snapshot(tmp_path)
    for action in ("install --dry-run", "install", "uninstall"):
        assert main(["skill", *action.split(), "--scope", "user"]) == 1
        assert capsys.readouterr().err.startswith(f"zobek-lumeno: error: {error}")
    assert snapshot(tmp_path) == before and not os.path.exists("/.claude/skills/lumeno")
    main(["status"])
    assert "  user scope     left out: " in capsys.readouterr().out


@pytest.mark.parametrize("action", ["install", "uninstall"])
def test_a_file_swapped_in_after_it_was_read_is_neither_replaced_nor_removed(
    tmp_path, monkeypatch, capsys, action
):
    from zobek_lumeno.setup import tree

    lumeno, read = tmp_path / ".claude/skills/lumeno", tree.read_installed
    stamp(lumeno, "1.0")

    def read_then_swapped(*args):  # a process that puts its own file in place right after the read
        found = read(*args)
        (lumeno / "theirs").write_text("mine\n")
        os.replace(lumeno / "theirs", lumeno / "SKILL.md")
        return found

    monkeypatch.setattr(tree, "read_installed", read_then_swapped)
    assert main(["--repo-root", str(tmp_path), "skill", action]) == 1
    assert f"{lumeno}/SKILL.md changed while the program ran" in capsys.readouterr().err
    assert (lumeno / "SKILL.md").read_text() == "mine\n" and not list(lumeno.glob("*.tmp"))
