"""The ``status`` check: the state of every copy of the embedded skills an agent reads.

It is built on the module's survey and on ``setup.tree``, the read-only walk the installer makes too, so
that it predicts what an install would do with each copy; it does not import the installer itself.
"""

from __future__ import annotations

import contextlib
import json
import logging
import os
import shlex
import sys
from pathlib import Path
from typing import NamedTuple, TextIO

from zobek_lumeno.setup import tree
from zobek_lumeno.utils import agent_skills

# What the user does differs for each: nothing, update, nothing (or force a downgrade), install if
# wanted, look at a file the package did not stamp, clear what blocks an install, fix what the survey
# could not read.
STATES = ("current", "STALE", "newer", "missing", "unstamped", "blocked", "unreadable")
FAILING = frozenset({"STALE", "blocked", "unreadable"})


class Report(NamedTuple):
    records: list[agent_skills.InstalledSkill]
    states: list[str]
    reasons: list[str | None]  # what blocks a copy, or why it cannot be read
    commands: list[list[str] | None]  # each record's update command as words


class _Warnings(logging.Handler):
    """Prints the survey's warnings one line each and keeps the paths they name."""

    def __init__(self) -> None:
        super().__init__(logging.WARNING)
        self.paths: set[str] = set()

    def emit(self, record: logging.LogRecord) -> None:
        if isinstance(record.args, tuple) and record.args:
            self.paths.add(str(record.args[0]))
        warn(self.format(record))

    def format(self, record: logging.LogRecord) -> str:
        # The survey logs with the traceback; a person needs the reason only.
        text = f"warning: {record.getMessage()}"
        if record.exc_info and record.exc_info[1] is not None:
            text += f" ({type(record.exc_info[1]).__name__}: {record.exc_info[1]})"
        return text


def warn(line: str) -> None:
    """One line on stderr, if there is a stderr to take it."""
    stderr: TextIO | None = sys.stderr  # None when the program started with it closed
    if stderr is not None:
        with contextlib.suppress(OSError, ValueError):
            print(printable(line), file=stderr)


def printable(text: object) -> str:
    """``text`` with what a terminal would not show as it is escaped: bytes of a path that are not text
    (``\\xff``), line breaks and other control characters."""
    raw = str(text).encode("utf-8", "surrogateescape").decode("utf-8", "backslashreplace")
    return "".join(c if c.isprintable() else c.encode("unicode_escape").decode("ascii") for c in raw)


def survey(project_root: Path, home: Path | None) -> Report:
    """Every record of the survey, with its state; the user scope only when ``home`` is usable."""
    warnings = _Warnings()
    agent_skills.logger.addHandler(warnings)
    try:
        records = agent_skills.installed_skill_versions(project_root)
    finally:
        agent_skills.logger.removeHandler(warnings)
    # With HOME empty the survey takes / as the home directory; the program refuses that home.
    records = [r for r in records if r.scope != "user" or home is not None]
    judged = [predict(r.directory, home if r.scope == "user" else project_root, r.skill) for r in records]
    states = []
    for r, (state, reason) in zip(records, judged, strict=True):
        if _logged(r, warnings.paths):
            state = "unreadable"
        elif state == "unreadable":
            warn(f"warning: cannot read {r.directory / r.skill}: {reason}")
        states.append(state)
    reasons = [reason for _, reason in judged]
    return Report(records, states, reasons, [command(r, project_root) for r in records])


def predict(directory: Path, base: Path | None, skill: str) -> tuple[str, str | None]:
    """The state of one copy, and what blocks it or why it cannot be read, found as install finds it."""
    assert base is not None
    try:
        root = tree.open_skills_dir(base, directory.relative_to(base).as_posix(), making=True, dry_run=True)
        if root is None:
            return "missing", None
        try:
            opened = tree.open_skill(root, skill, making=False)
            if opened is None:
                return "missing", None
            real, fd = opened
            try:
                found = tree.read_installed(root, real, fd, agent_skills.SKILL_FILE, None)
            finally:
                os.close(fd)
        finally:
            os.close(root.fd)
    except tree.Blocked as blocked:
        return "blocked", str(blocked)
    except (OSError, RuntimeError) as error:  # RuntimeError: a loop of links
        return "unreadable", tree.describe(error)
    if found is None:
        return "missing", None
    if found.stamp is None:
        return "unstamped", None
    ours = agent_skills.version_tuple(agent_skills.__version__)
    theirs = agent_skills.version_tuple(found.stamp)
    return ("STALE" if theirs < ours else "newer" if theirs > ours else "current"), None


def _logged(record: agent_skills.InstalledSkill, unreadable: set[str]) -> bool:
    # The survey names the skills directory as it was given, or the skill's file under the resolved one.
    if str(record.directory) in unreadable:
        return True
    try:
        real = record.directory.resolve()
    except (OSError, RuntimeError):
        return False
    return str(real / record.skill / agent_skills.SKILL_FILE) in unreadable


def command(record: agent_skills.InstalledSkill, project_root: Path) -> list[str] | None:
    """The words of the record's update line. The line quotes the repository in double quotes and escapes
    nothing, so it is no safe line to paste; its scope and agent are plain words, read from its end."""
    if record.update is None:
        return None
    program, _, options = record.update.rpartition(" skill install --scope ")
    scope, _, agent = options.partition(" --agent ")
    return install_command(project_root if program != "zobek-lumeno" else None, scope, agent or None)


def install_command(project_root: Path | None, scope: str, agent: str | None = None) -> list[str]:
    words = ["zobek-lumeno"]
    if project_root is not None:
        root = project_root.as_posix()
        words += ["--repo-root", f"./{root}" if root.startswith("-") else root]
    return words + ["skill", "install", "--scope", scope] + (["--agent", agent] if agent else [])


def shell_line(words: list[str]) -> str:
    """``words`` as a line a POSIX shell runs as they are, expanding nothing. Words a line of text cannot
    carry (bytes that are not text, control characters) make it a comment, shown escaped."""
    line = shlex.join(words)
    if all(word.isprintable() for word in words):
        return line
    return f"# {printable(line)}  (cannot be shown as a line to paste; status --json gives its words)"


def failing(report: Report) -> bool:
    """Whether a copy is stale, blocked or unreadable."""
    return not FAILING.isdisjoint(report.states)


def as_json(report: Report) -> str:
    records = [
        {
            **r._asdict(),
            "directory": str(r.directory),
            "stale": r.stale,
            "state": s,
            "reason": why,
            "command": c,
        }
        for r, s, why, c in zip(*report, strict=True)
    ]
    return json.dumps(records, indent=2)


def header(home: Path | None, why: str | None, repository: Path, how: str) -> list[str]:
    lines = [
        f"Skills of zobek-lumeno {agent_skills.__version__} in every directory an agent reads:",
        f"  user scope     under the home directory {printable(home)}"
        if home is not None
        else f"  user scope     left out: {why}",
        f"  project scope  under the repository {printable(repository)} ({how})",
    ]
    if home is not None and _same(home, repository):
        lines.append("  The repository is the home directory, so the two scopes overlap:")
        lines.append("  a directory in both is listed once for each scope.")
    return lines


def _same(a: Path, b: Path) -> bool:
    try:
        return a.resolve() == b.resolve()
    except (OSError, RuntimeError):
        return False


def _shown(directory: Path, home: Path | None) -> str:
    # Paths under the home directory are long and alike; "~" keeps the column readable.
    if home is not None and directory.is_relative_to(home):
        return "~/" + printable(directory.relative_to(home).as_posix())
    return printable(directory)


def table(report: Report, home: Path | None) -> list[str]:
    rows, previous = [("SCOPE", "DIRECTORY", "SKILL", "INSTALLED", "CURRENT", "STATE")], None
    for r, s in zip(report.records, report.states, strict=True):
        # The scope and directory are written once for the skills of one directory.
        place = (r.scope, _shown(r.directory, home))
        installed = printable(r.installed or "-")
        rows.append((*(place if place != previous else ("", "")), r.skill, installed, r.current, s))
        previous = place
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    return ["  ".join(cell.ljust(w) for cell, w in zip(row, widths, strict=True)).rstrip() for row in rows]


def summary(report: Report, project_root: Path, home: Path | None) -> list[str]:
    """The update command of every directory with a stale copy, or the counts when there is none; what
    blocks a copy; and, with nothing installed, the command that installs."""
    count = {name: report.states.count(name) for name in STATES}
    # One command per directory; a stale directory no single install writes is still named.
    commands: dict[str, None] = {}
    for r, s, words in zip(report.records, report.states, report.commands, strict=True):
        if s == "STALE":
            commands.setdefault(
                shell_line(words) if words else f"# no single install writes {printable(r.directory)}"
            )
    installed = count["current"] + count["newer"] + count["STALE"]
    if commands:
        stale = count["STALE"]
        lines = [
            "1 stale copy; to update it run:" if stale == 1 else f"{stale} stale copies; to update them run:"
        ]
        lines += [f"  {line}" for line in commands]
    else:
        others = "".join(f", {count[n]} {n}" for n in ("unstamped", "blocked", "unreadable") if count[n])
        lines = [f"No stale copies ({installed} installed, {count['missing']} missing{others})."]
    if count["blocked"]:
        lines.append(
            f"{count['blocked']} blocked; skill install refuses them until what blocks them is cleared:"
        )
        lines += [
            f"  {_shown(r.directory / r.skill, home)}: {printable(why)}"
            for r, s, why in zip(report.records, report.states, report.reasons, strict=True)
            if s == "blocked"
        ]
    if count["unreadable"]:
        lines.append(
            f"{count['unreadable']} cannot be read (see the warnings); status --check fails until they can."
        )
    if not installed:
        default = agent_skills.DEFAULT_AGENTS
        others = ", ".join(a for a in agent_skills.skill_capable_agents() if a not in default)
        lines += [
            f"Nothing of zobek-lumeno's is installed. The line below installs it for {', '.join(default)} in this repository;",
            f"--agent AGENT (repeatable) picks other agents ({others}), --scope user the home directory:",
            f"  {shell_line(install_command(project_root, 'project'))}",
        ]
    return lines
