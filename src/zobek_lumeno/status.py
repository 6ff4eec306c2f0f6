"""The ``status`` check: the state of every copy of the embedded skills an agent reads.

It is built on the module's survey alone and does not import the installer.
"""

from __future__ import annotations

import json
import logging
import stat
import sys
from pathlib import Path
from typing import NamedTuple

from zobek_lumeno.utils import agent_skills

# What the user does differs for each: nothing, update, nothing (or force a downgrade), install if
# wanted, look at a file the package did not stamp, fix what the survey could not read.
STATES = ("current", "STALE", "newer", "missing", "unstamped", "unreadable")
FAILING = frozenset({"STALE", "unreadable"})


class Report(NamedTuple):
    records: list[agent_skills.InstalledSkill]
    states: list[str]


class _Warnings(logging.Handler):
    """Prints the survey's warnings one line each and keeps the paths they name."""

    def __init__(self) -> None:
        super().__init__(logging.WARNING)
        self.paths: set[str] = set()

    def emit(self, record: logging.LogRecord) -> None:
        if isinstance(record.args, tuple) and record.args:
            self.paths.add(str(record.args[0]))
        print(self.format(record), file=sys.stderr)

    def format(self, record: logging.LogRecord) -> str:
        # The survey logs with the traceback; a person needs the reason only.
        text = f"warning: {record.getMessage()}"
        if record.exc_info and record.exc_info[1] is not None:
            text += f" ({type(record.exc_info[1]).__name__}: {record.exc_info[1]})"
        return text


def survey(project_root: Path) -> Report:
    """Every record of the survey, with its state."""
    warnings = _Warnings()
    agent_skills.logger.addHandler(warnings)
    try:
        records = agent_skills.installed_skill_versions(project_root)
    finally:
        agent_skills.logger.removeHandler(warnings)
    return Report(records, [state(record, warnings.paths) for record in records])


def state(record: agent_skills.InstalledSkill, unreadable: set[str]) -> str:
    """One of ``STATES``; ``unreadable`` holds the paths the survey could not read."""
    if record.installed is not None:
        if record.stale:
            return "STALE"
        newer = agent_skills.version_tuple(record.installed) > agent_skills.version_tuple(record.current)
        return "newer" if newer else "current"
    if _logged(record, unreadable):
        return "unreadable"
    # The survey logs a path once a process; its errors are told apart the same way here, so a second
    # survey in one process agrees with the first. The file is looked at, never read.
    try:
        mode = (record.directory / record.skill / agent_skills.SKILL_FILE).stat().st_mode
    except (FileNotFoundError, NotADirectoryError):
        return "missing"
    except OSError:  # a loop of links, a directory that may not be searched
        return "unreadable"
    # A file the survey took no stamp from: none in its head, or reached through a link out of the
    # skills directory.
    return "unstamped" if stat.S_ISREG(mode) else "missing"


def _logged(record: agent_skills.InstalledSkill, unreadable: set[str]) -> bool:
    # The survey names the skills directory as it was given, or the skill's file under the resolved one.
    if str(record.directory) in unreadable:
        return True
    try:
        real = record.directory.resolve()
    except (OSError, RuntimeError):
        return False
    return str(real / record.skill / agent_skills.SKILL_FILE) in unreadable


def failing(report: Report) -> bool:
    """Whether a copy is stale or unreadable."""
    return not FAILING.isdisjoint(report.states)


def as_json(report: Report) -> str:
    records = [
        {**r._asdict(), "directory": str(r.directory), "stale": r.stale, "state": s}
        for r, s in zip(report.records, report.states, strict=True)
    ]
    return json.dumps(records, indent=2)


def header(home: Path | None, repository: Path, how: str) -> list[str]:
    lines = [
        f"Skills of zobek-lumeno {agent_skills.__version__} in every directory an agent reads:",
        f"  user scope     under the home directory {home}"
        if home is not None
        else "  user scope     left out: the home directory cannot be determined",
        f"  project scope  under the repository {repository} ({how})",
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
        return "~/" + directory.relative_to(home).as_posix()
    return str(directory)


def table(report: Report, home: Path | None) -> list[str]:
    rows, previous = [("SCOPE", "DIRECTORY", "SKILL", "INSTALLED", "CURRENT", "STATE")], None
    for r, s in zip(report.records, report.states, strict=True):
        # The scope and directory are written once for the skills of one directory.
        place = (r.scope, _shown(r.directory, home))
        rows.append((*(place if place != previous else ("", "")), r.skill, r.installed or "-", r.current, s))
        previous = place
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    return ["  ".join(cell.ljust(w) for cell, w in zip(row, widths, strict=True)).rstrip() for row in rows]


def summary(report: Report) -> list[str]:
    """The update command of every directory with a stale copy, or the counts when there is none."""
    count = {name: report.states.count(name) for name in STATES}
    # One command per directory; a stale directory no single install writes is still named.
    commands: dict[str, None] = {}
    for r, s in zip(report.records, report.states, strict=True):
        if s == "STALE":
            commands.setdefault(r.update or f"# no single install writes {r.directory}", None)
    if commands:
        stale = count["STALE"]
        lines = [
            "1 stale copy; to update it run:" if stale == 1 else f"{stale} stale copies; to update them run:"
        ]
        lines += [f"  {line}" for line in commands]
    else:
        installed = count["current"] + count["newer"]
        others = "".join(f", {count[name]} {name}" for name in ("unstamped", "unreadable") if count[name])
        lines = [f"No stale copies ({installed} installed, {count['missing']} missing{others})."]
    if count["unreadable"]:
        lines.append(
            f"{count['unreadable']} cannot be read (see the warnings); status --check fails until they can."
        )
    return lines
