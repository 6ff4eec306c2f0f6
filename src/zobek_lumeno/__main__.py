"""Command line: which copies of the embedded skills are installed, and where an install writes.

python -m zobek_lumeno status [--repo-root DIR] [--json]
python -m zobek_lumeno dirs [--scope user|project] [AGENT ...]
"""

from __future__ import annotations

import argparse
import json
import logging
import os
import sys
from pathlib import Path
from typing import NoReturn

from zobek_lumeno.utils import agent_skills

PROG = "python -m zobek_lumeno"


class _Parser(argparse.ArgumentParser):
    # A mistyped argument deserves one line on stderr, not the usage block.
    def error(self, message: str) -> NoReturn:
        self.exit(2, f"{self.prog}: error: {message}\n")


class _OneLine(logging.Formatter):
    # The survey logs unreadable paths with their traceback; a person needs the reason only.
    def format(self, record: logging.LogRecord) -> str:
        text = f"warning: {record.getMessage()}"
        if record.exc_info and record.exc_info[1] is not None:
            text += f" ({type(record.exc_info[1]).__name__}: {record.exc_info[1]})"
        return text


def _mark(record: agent_skills.InstalledSkill) -> str:
    if record.installed is None:
        return "missing"
    return "STALE" if record.stale else "current"


def _shown(directory: Path, home: Path | None) -> str:
    # Paths under the home directory are long and alike; "~" keeps the column readable.
    if home is not None and directory.is_relative_to(home):
        return "~/" + directory.relative_to(home).as_posix()
    return str(directory)


def _table(rows: list[tuple[str, ...]]) -> list[str]:
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    return ["  ".join(cell.ljust(w) for cell, w in zip(row, widths, strict=True)).rstrip() for row in rows]


def _status(repo_root: Path, as_json: bool) -> int:
    records = agent_skills.installed_skill_versions(repo_root)
    if as_json:
        out = [{**r._asdict(), "directory": str(r.directory), "stale": r.stale} for r in records]
        print(json.dumps(out, indent=2))
        return 0
    try:
        home = Path.home()
    except RuntimeError:
        home = None
    header = ("SCOPE", "DIRECTORY", "SKILL", "INSTALLED", "CURRENT", "STATE")
    rows, previous = [], None
    for r in records:
        # The scope and directory are written once for the skills of one directory.
        place = (r.scope, _shown(r.directory, home))
        rows.append(
            (*(place if place != previous else ("", "")), r.skill, r.installed or "-", r.current, _mark(r))
        )
        previous = place
    print(f"Skills of zobek-lumeno {agent_skills.__version__} in every directory an agent reads:")
    print()
    print("\n".join(_table([header, *rows])))
    # One command per directory; a stale directory the table cannot update is still named.
    commands: dict[str, None] = {}
    for r in records:
        if r.stale:
            commands.setdefault(r.update or f"# no single install writes {r.directory}", None)
    print()
    if commands:
        stale = sum(r.stale for r in records)
        print(f"{stale} stale {'copy' if stale == 1 else 'copies'}; to update them run:")
        for line in commands:
            print(f"  {line}")
    else:
        installed = sum(r.installed is not None for r in records)
        print(f"No stale copies ({installed} installed, {len(records) - installed} missing).")
    return 0


def _dirs(scope: str, agents: list[str]) -> int:
    for root in agent_skills.resolve_skill_dirs(agents or agent_skills.DEFAULT_AGENTS, scope):
        print(root)
    return 0


def main(argv: list[str] | None = None) -> int:
    parser = _Parser(
        prog=PROG, description="Installed copies of the embedded skills, and where installs write."
    )
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND", parser_class=_Parser)
    status = commands.add_parser(
        "status", help="show the installed version of every skill in every skills directory"
    )
    status.add_argument(
        "--repo-root",
        type=Path,
        default=None,
        metavar="DIR",
        help="the repository's root (default: the current directory)",
    )
    status.add_argument("--json", action="store_true", help="print the records as a JSON list")
    dirs = commands.add_parser("dirs", help="print the directories an install for these agents writes")
    dirs.add_argument("--scope", choices=("user", "project"), default="project")
    dirs.add_argument(
        "agents",
        nargs="*",
        metavar="AGENT",
        help="agent keys (default: the agents an install without --agent serves)",
    )
    args = parser.parse_args(argv)

    if args.command == "dirs":
        known = agent_skills.skill_capable_agents()
        for agent in args.agents:
            if agent not in known:
                dirs.error(f"unknown agent {agent!r} (known: {', '.join(known)})")
        return _dirs(args.scope, args.agents)

    repo_root = Path.cwd() if args.repo_root is None else args.repo_root
    if not repo_root.is_dir():
        status.error(f"--repo-root {str(repo_root)!r} is not a directory")
    handler = logging.StreamHandler(sys.stderr)
    handler.setFormatter(_OneLine())
    logging.getLogger(agent_skills.__name__).addHandler(handler)
    return _status(repo_root, args.json)


if __name__ == "__main__":
    try:
        code = main()
        sys.stdout.flush()
    except BrokenPipeError:
        # A reader such as `head` went away; say nothing more and leave quietly.
        sys.stdout = open(os.devnull, "w")  # noqa: SIM115
        code = 1
    sys.exit(code)
