"""The ``zobek-lumeno`` program: the state of the installed skills, their install, and where it writes.

zobek-lumeno [--repo-root DIR] status [--json] [--check]
zobek-lumeno [--repo-root DIR] skill install [--scope user|project] [--agent AGENT]... [--force] [--dry-run]
zobek-lumeno dirs [--scope user|project] [AGENT ...]
"""

from __future__ import annotations

import argparse
import os
import sys
from collections import Counter
from collections.abc import Sequence
from pathlib import Path
from typing import NamedTuple, NoReturn

from zobek_lumeno import __version__, status
from zobek_lumeno.utils import agent_skills

PROG = "zobek-lumeno"
SCOPES = ("user", "project")
# The update lines the survey prints name --scope always; without it an install writes where
# resolve_skill_dirs writes by default, as `dirs` does.
DEFAULT_SCOPE = "project"


class Repository(NamedTuple):
    path: Path
    how: str  # how it was found, for the status header


class _Parser(argparse.ArgumentParser):
    # A mistyped argument deserves one line on stderr, not the usage block.
    def error(self, message: str) -> NoReturn:
        self.exit(2, f"{self.prog}: error: {message}\n")


def find_repository(start: Path) -> Repository:
    """The nearest directory from ``start`` up holding ``.git`` (a worktree's is a file), else ``start``."""
    for directory in (start, *start.parents):
        git = directory / ".git"
        if os.path.isdir(git) or os.path.isfile(git):
            return Repository(directory, "the nearest directory holding .git")
    return Repository(start, "the current directory; no directory above it holds .git")


def _directory(text: str) -> Path:
    # The empty text would mean the current directory and print relative paths: refused as a non-directory.
    if not text or not os.path.isdir(text):
        raise argparse.ArgumentTypeError(f"{text!r} is not a directory")
    return Path(text)


def _agent(text: str) -> str:
    known = agent_skills.skill_capable_agents()
    if text not in known:
        raise argparse.ArgumentTypeError(f"unknown agent {text!r} (known: {', '.join(known)})")
    return text


def _parser() -> _Parser:
    agents = f"one of {', '.join(agent_skills.skill_capable_agents())}"
    default_agents = ", ".join(agent_skills.DEFAULT_AGENTS)
    repo_help = "the repository's root (default: the nearest directory above holding .git, else this one)"
    parser = _Parser(prog=PROG, description="Installs the embedded skills and tells which copies are stale.")
    parser.add_argument("--version", action="version", version=f"{PROG} {__version__}")
    parser.add_argument("--repo-root", type=_directory, metavar="DIR", help=repo_help)
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND", parser_class=_Parser)

    show = commands.add_parser("status", help="show the state of every skill in every skills directory")
    # Also accepted after the subcommand, where it used to be.
    show.add_argument(
        "--repo-root", type=_directory, metavar="DIR", default=argparse.SUPPRESS, help=repo_help
    )
    show.add_argument("--json", action="store_true", help="print the records as a JSON list")
    show.add_argument("--check", action="store_true", help="exit 1 when a copy is stale or unreadable")
    show.set_defaults(handler=_status)

    skill = commands.add_parser("skill", help="manage the embedded skills")
    actions = skill.add_subparsers(dest="action", required=True, metavar="ACTION", parser_class=_Parser)
    install = actions.add_parser("install", help="write the embedded skills where the agents read them")
    install.add_argument(
        "--repo-root", type=_directory, metavar="DIR", default=argparse.SUPPRESS, help=repo_help
    )
    install.add_argument(
        "--scope",
        choices=SCOPES,
        default=DEFAULT_SCOPE,
        help=f"under the home directory or the repository (default: {DEFAULT_SCOPE})",
    )
    install.add_argument(
        "--agent",
        dest="agents",
        action="append",
        type=_agent,
        metavar="AGENT",
        default=[],
        help=f"an agent to serve, {agents}; repeatable (default: {default_agents})",
    )
    install.add_argument("--force", action="store_true", help="replace copies stamped newer, or not stamped")
    install.add_argument("--dry-run", action="store_true", help="print what would be written, write nothing")
    install.set_defaults(handler=_install)

    dirs = commands.add_parser("dirs", help="print the directories an install for these agents writes")
    dirs.add_argument("--scope", choices=SCOPES, default=DEFAULT_SCOPE, help=f"(default: {DEFAULT_SCOPE})")
    dirs.add_argument(
        "agents", nargs="*", type=_agent, metavar="AGENT", help=f"{agents} (default: {default_agents})"
    )
    dirs.set_defaults(handler=_dirs)
    return parser


def _say(*lines: str) -> None:
    try:
        for line in lines:
            print(line)
    except BrokenPipeError:
        _quiet_stdout()


def _quiet_stdout() -> None:
    # The reader went away (`| head -1`): that is no failure; whatever is still to be printed goes nowhere.
    devnull = os.open(os.devnull, os.O_WRONLY)
    os.dup2(devnull, sys.stdout.fileno())
    os.close(devnull)


def _error(message: str) -> None:
    print(f"{PROG}: {message}", file=sys.stderr)


def _home() -> Path | None:
    try:
        return Path.home()
    except RuntimeError:
        return None


def _repository(args: argparse.Namespace) -> Repository:
    if args.repo_root is not None:
        return Repository(args.repo_root, "given by --repo-root")
    return find_repository(Path.cwd())


def _status(args: argparse.Namespace) -> int:
    repository = _repository(args)
    report = status.survey(repository.path)
    if args.json:
        _say(status.as_json(report))
    else:
        home = _home()
        _say(*status.header(home, *repository), "", *status.table(report, home), "", *status.summary(report))
    return 1 if args.check and status.failing(report) else 0


def _install(args: argparse.Namespace) -> int:
    # Imported here: the status check must not depend on the installer.
    from zobek_lumeno.setup import skill

    base = _home() if args.scope == "user" else _repository(args).path
    if base is None:
        _error("error: the home directory cannot be determined, so there is no user scope to install into")
        return 1
    skills_dirs = agent_skills.resolve_skill_dirs(args.agents or agent_skills.DEFAULT_AGENTS, args.scope)
    options = skill.Options(__version__, force=args.force, dry_run=args.dry_run)
    count: Counter[str] = Counter()
    for outcome in skill.install(base, skills_dirs, options):
        count[outcome.action] += 1
        _say(f"{outcome.action:<11}  {outcome.place}")
        if outcome.action == "refused":
            _error(f"refused {outcome.place}: {outcome.reason}")
        elif outcome.action == "failed":
            _error(f"error: cannot write {outcome.place}: {outcome.reason}")
    _say(_install_summary(count, args.scope, args.dry_run))
    return 1 if count["refused"] or count["failed"] else 0


def _install_summary(count: Counter[str], scope: str, dry_run: bool) -> str:
    done = ", ".join(
        f"{n} {action}"
        for action in ("written", "would write", "unchanged", "refused", "failed")
        if (n := count[action])
    )
    total = sum(count.values())
    if dry_run:
        return f"Dry run, nothing written: {done} (zobek-lumeno {__version__}, {scope} scope)."
    if count["unchanged"] == total:
        return f"Nothing to do: all {total} skill copies are already those of zobek-lumeno {__version__}."
    return f"{done} (zobek-lumeno {__version__}, {scope} scope)."


def _dirs(args: argparse.Namespace) -> int:
    _say(*agent_skills.resolve_skill_dirs(args.agents or agent_skills.DEFAULT_AGENTS, args.scope))
    return 0


def main(argv: Sequence[str] | None = None) -> int:
    """Run the program on ``argv`` (default: the process's arguments) and return its exit status."""
    try:
        args = _parser().parse_args(argv)
    except SystemExit as stop:  # --help, --version and usage errors
        return stop.code if isinstance(stop.code, int) else 2
    try:
        code: int = args.handler(args)
    except OSError as error:
        # The file system failed us where no finer message applies (the working directory vanished, ...).
        _error(f"error: {error}")
        return 1
    return code


def run() -> int:
    """The console script's entry point."""
    try:
        code = main()
    except KeyboardInterrupt:
        return 130
    try:
        sys.stdout.flush()
    except BrokenPipeError:
        _quiet_stdout()
    return code
