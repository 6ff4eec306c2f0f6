"""The ``zobek-lumeno`` program: the state of the installed skills, their install and uninstall, and where
an install writes.

zobek-lumeno [--repo-root DIR] status [--json] [--check]
zobek-lumeno [--repo-root DIR] skill install [--scope user|project] [--agent AGENT]... [--force] [--dry-run]
zobek-lumeno [--repo-root DIR] skill uninstall [--scope user|project] [--agent AGENT]... [--force] [--dry-run]
zobek-lumeno dirs [--scope user|project] [AGENT ...]
"""

from __future__ import annotations

import argparse
import os
import sys
from collections import Counter
from collections.abc import Sequence
from pathlib import Path
from typing import NamedTuple, NoReturn, TextIO

from zobek_lumeno import __version__, status
from zobek_lumeno.status import printable
from zobek_lumeno.utils import agent_skills

PROG = "zobek-lumeno"
SCOPES = ("user", "project")
# The update lines the survey prints name --scope always; without it an install writes where
# resolve_skill_dirs writes by default, as `dirs` does.
DEFAULT_SCOPE = "project"
# The words of each change, per skill: done, nothing to do, dry run, left for the user, failed; then how
# stderr names a failure.
CHANGES = {
    "install": ("written", "unchanged", "would write", "refused", "failed", "write"),
    "uninstall": ("removed", "absent", "would remove", "kept", "failed", "remove"),
}
NOTHING_TO_DO = {
    "install": "Nothing to do: all {} skill copies are already those of zobek-lumeno {}.",
    "uninstall": "Nothing to do: none of the {} skill copies is there (zobek-lumeno {}).",
}


class Repository(NamedTuple):
    path: Path
    how: str  # how it was found, for the status header


class _Parser(argparse.ArgumentParser):
    # A mistyped argument deserves one line on stderr, not the usage block.
    def error(self, message: str) -> NoReturn:
        self.exit(2, f"{self.prog}: error: {message}\n")


# Why standard output did not take everything, when it did not: the first reason only.
_unwritten: list[str] = []


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
        raise argparse.ArgumentTypeError(f"{printable(repr(text))} is not a directory")
    return Path(text)


def _agent(text: str) -> str:
    known = agent_skills.skill_capable_agents()
    if text not in known:
        raise argparse.ArgumentTypeError(f"unknown agent {printable(repr(text))} (known: {', '.join(known)})")
    return text


def _parser() -> _Parser:
    agents = f"one of {', '.join(agent_skills.skill_capable_agents())}"
    default_agents = ", ".join(agent_skills.DEFAULT_AGENTS)
    repo_help = "the repository's root (default: the nearest directory above holding .git, else this one)"
    parser = _Parser(prog=PROG, description="Installs the embedded skills and tells which copies are stale.")
    parser.add_argument("--version", action="version", version=f"{PROG} {__version__}")
    parser.add_argument("--repo-root", type=_directory, metavar="DIR", help=repo_help)
    commands = parser.add_subparsers(dest="command", metavar="COMMAND", parser_class=_Parser)

    def repo_root(command: argparse.ArgumentParser) -> None:
        # Also accepted after the subcommand, where it used to be.
        command.add_argument(
            "--repo-root", type=_directory, metavar="DIR", default=argparse.SUPPRESS, help=repo_help
        )

    show = commands.add_parser("status", help="show the state of every skill in every skills directory")
    repo_root(show)
    show.add_argument("--json", action="store_true", help="print the records as a JSON list")
    show.add_argument(
        "--check", action="store_true", help="exit 1 when a copy is stale, blocked or unreadable"
    )
    show.set_defaults(handler=_status)

    skill = commands.add_parser("skill", help="install or uninstall the embedded skills")
    actions = skill.add_subparsers(dest="action", required=True, metavar="ACTION", parser_class=_Parser)
    for action, verb, force in [
        (
            "install",
            "write the embedded skills where the agents read them",
            "replace copies stamped newer, or not",
        ),
        ("uninstall", "remove the embedded skills an install wrote", "remove copies not stamped, too"),
    ]:
        change = actions.add_parser(action, help=verb)
        repo_root(change)
        scope_help = f"under the home directory or the repository (default: {DEFAULT_SCOPE})"
        change.add_argument("--scope", choices=SCOPES, default=DEFAULT_SCOPE, help=scope_help)
        change.add_argument(
            "--agent",
            dest="agents",
            action="append",
            type=_agent,
            metavar="AGENT",
            default=[],
            help=f"an agent to serve, {agents}; repeatable (default: {default_agents})",
        )
        change.add_argument("--force", action="store_true", help=force)
        change.add_argument("--dry-run", action="store_true", help="print what would be done, change nothing")
        change.set_defaults(handler=_change)

    dirs = commands.add_parser("dirs", help="print the directories an install for these agents writes")
    dirs.add_argument("--scope", choices=SCOPES, default=DEFAULT_SCOPE, help=f"(default: {DEFAULT_SCOPE})")
    dirs.add_argument(
        "agents", nargs="*", type=_agent, metavar="AGENT", help=f"{agents} (default: {default_agents})"
    )
    dirs.set_defaults(handler=_dirs)
    return parser


def _say(*lines: str) -> None:
    """Print ``lines``; a standard output that cannot take them (closed, a pipe whose reader left, an
    encoding that refuses a character) is noted, and the rest goes nowhere."""
    if _unwritten:
        return
    stdout: TextIO | None = sys.stdout  # None when the program started with it closed
    try:
        if stdout is None:
            raise OSError("standard output is closed")
        for line in lines:
            stdout.write(line + "\n")
    except (OSError, ValueError) as error:  # UnicodeEncodeError is a ValueError
        _unwritable(error)


def _unwritable(error: Exception) -> None:
    if isinstance(error, UnicodeEncodeError):
        character = error.object[error.start : error.end]
        reason = f"its encoding, {error.encoding}, cannot carry {printable(ascii(character))}"
    else:
        reason = str(error.strerror if isinstance(error, OSError) and error.strerror else error)
    _unwritten.append(reason)
    if isinstance(error, OSError) and sys.stdout is not None:
        # What is still buffered would fail again at exit, with a traceback of Python's own.
        try:
            devnull = os.open(os.devnull, os.O_WRONLY)
            os.dup2(devnull, sys.stdout.fileno())
            os.close(devnull)
        except (OSError, ValueError):
            pass


def _error(message: str) -> None:
    status.warn(f"{PROG}: {message}")


def _home() -> tuple[Path | None, str]:
    """The home directory for the user scope, or None and why there is none: the program never writes
    under a home it would have to guess or make."""
    if os.environ.get("HOME") == "":
        return None, "HOME is empty"
    try:
        home = Path.home()
    except RuntimeError:
        return None, "the home directory cannot be determined"
    if not home.is_absolute():
        return None, f"HOME is not an absolute path ({printable(home)})"
    if not home.is_dir():
        return None, f"the home directory {printable(home)} does not exist"
    return home, ""


def _repository(args: argparse.Namespace) -> Repository:
    if args.repo_root is not None:
        return Repository(args.repo_root, "given by --repo-root")
    return find_repository(Path.cwd())


def _status(args: argparse.Namespace) -> int:
    repository = _repository(args)
    home, why = _home()
    report = status.survey(repository.path, home)
    if args.json:
        _say(status.as_json(report))
    else:
        _say(
            *status.header(home, why, *repository),
            "",
            *status.table(report, home),
            "",
            *status.summary(report, repository.path, home),
        )
    return 1 if args.check and status.failing(report) else 0


def _change(args: argparse.Namespace) -> int:
    # Imported here: the status check must not depend on the installer.
    from zobek_lumeno.setup import skill

    if args.scope == "user":
        base, why = _home()
        if base is None:
            _error(f"error: {why}, so there is no user scope to {args.action} into")
            return 1
    else:
        base = _repository(args).path
    done, nothing, would, left, failed, verb = CHANGES[args.action]
    skills_dirs = agent_skills.resolve_skill_dirs(args.agents or agent_skills.DEFAULT_AGENTS, args.scope)
    options = skill.Options(
        __version__,
        force=args.force,
        dry_run=args.dry_run,
        waiting=lambda directory: _error(f"waiting for another {PROG} to finish with {directory}"),
    )
    run = skill.install if args.action == "install" else skill.uninstall
    count: Counter[str] = Counter()
    for outcome in run(base, skills_dirs, options):
        count[outcome.action] += 1
        _say(f"{outcome.action:<12} {printable(outcome.place)}")
        if outcome.action == left:
            _error(f"{left} {outcome.place}: {outcome.reason}")
        elif outcome.action == failed:
            _error(f"error: cannot {verb} {outcome.place}: {outcome.reason}")
    total = sum(count.values())
    tally = ", ".join(
        f"{n} {action}" for action in (done, would, nothing, left, failed) if (n := count[action])
    )
    if args.dry_run:
        _say(f"Dry run, nothing {done}: {tally} ({PROG} {__version__}, {args.scope} scope).")
    elif count[nothing] == total:
        _say(NOTHING_TO_DO[args.action].format(total, __version__))
    else:
        _say(f"{tally} ({PROG} {__version__}, {args.scope} scope).")
    return 1 if count[left] or count[failed] else 0


def _dirs(args: argparse.Namespace) -> int:
    _say(*agent_skills.resolve_skill_dirs(args.agents or agent_skills.DEFAULT_AGENTS, args.scope))
    return 0


def main(argv: Sequence[str] | None = None) -> int:
    """Run the program on ``argv`` (default: the process's arguments) and return its exit status."""
    _unwritten.clear()
    parser = _parser()
    try:
        args = parser.parse_args(argv)
    except SystemExit as stop:  # --help, --version and usage errors
        return stop.code if isinstance(stop.code, int) else 2
    if args.command is None:
        for line in [*parser.format_usage().splitlines(), f"See '{PROG} --help' for what each command does."]:
            status.warn(line)
        return 2
    try:
        code: int = args.handler(args)
    except OSError as error:
        # The file system failed us where no finer message applies (the working directory vanished, ...).
        _error(f"error: {error}")
        code = 1
    stdout: TextIO | None = sys.stdout  # None when the program started with it closed
    try:
        if stdout is not None:
            stdout.flush()
    except (OSError, ValueError) as error:
        _unwritable(error)
    if _unwritten:
        _error(f"error: the output could not be written: {_unwritten[0]}")
        return max(code, 1)
    return code


def run() -> int:
    """The console script's entry point."""
    try:
        return main()
    except KeyboardInterrupt:
        return 130
