"""Where agents read the lumeno skills, and which installed copies are older than the package.

Shared by the installer (``setup.skill``) and the ``status`` check, which may not import the
installer: the names of the embedded skills, the skills directories of each agent, the choice of
the directories an install writes, and the read of the version a ``SKILL.md`` is stamped with.
Standard library only; reads files, writes none.
"""

# The extension module written as plain Python, the yardstick the benchmarks measure it against, so it
# binds the same names in the same order. Annotations are quoted rather than postponed by the
# __future__ import, which would bind one more name (`annotations`) in the namespace.

import itertools
import logging
import re
from collections.abc import Iterable
from pathlib import Path
from typing import NamedTuple

from zobek_lumeno import __version__

logger = logging.getLogger(__name__)

SKILL_DIR_NAME = "lumeno"
MAP_SKILL_DIR_NAME = "lumeno-map"
WIKI_SKILL_DIR_NAME = "lumeno-wiki"
SKILL_NAMES: "tuple[str, ...]" = (SKILL_DIR_NAME, MAP_SKILL_DIR_NAME, WIKI_SKILL_DIR_NAME)
SKILL_FILE = "SKILL.md"
STAMP_HEAD_BYTES = 2048
_VERSION_RE = re.compile(r"^version:\s*([0-9][\w.\-]*)\s*$", re.MULTILINE)
DEFAULT_AGENTS = ("claude",)


class SkillRoots(NamedTuple):
    """The directories one agent scans for Agent Skills, most-native first.

    Attributes:
        project: Relative to the repository's root.
        user: Relative to the home directory.
    """

    project: "tuple[str, ...]"
    user: "tuple[str, ...]"


AGENT_SKILL_ROOTS: "dict[str, SkillRoots]" = {
    "claude": SkillRoots(project=(".claude/skills",), user=(".claude/skills",)),
    "cursor-agent": SkillRoots(
        project=(".cursor/skills", ".claude/skills"), user=(".cursor/skills", ".claude/skills")
    ),
    # Windsurf reads .claude/skills only behind a setting we cannot see: a duplicate there is visible and
    # de-duplicated by name, a miss would be silent.
    "windsurf": SkillRoots(project=(".windsurf/skills",), user=(".codeium/windsurf/skills",)),
    "copilot": SkillRoots(project=(".github/skills", ".claude/skills"), user=(".copilot/skills",)),
}

_EXHAUSTIVE_SEARCH_LIMIT = 12
_Score = tuple[int, int, int, tuple[str, ...]]
_UNREADABLE: "set[str]" = set()
_PLAIN_WORD = re.compile(r"[\w./:+-]+")


def skill_capable_agents() -> "list[str]":
    """Agent keys with at least one verified skills directory."""
    return [key for key, roots in AGENT_SKILL_ROOTS.items() if roots.project]


def agent_roots(agent_keys: "Iterable[str]", scope: "str") -> "dict[str, tuple[str, ...]]":
    """Skill-discovery roots per requested agent, for one scope.

    Unknown keys and agents with no verified root for the scope are dropped.
    """
    roots = {}
    for key in dict.fromkeys(agent_keys):
        if key not in AGENT_SKILL_ROOTS:
            continue
        entry = AGENT_SKILL_ROOTS[key]
        dirs = entry.user if scope == "user" else entry.project
        if dirs:
            roots[key] = dirs
    return roots


def read_roots(roots: "dict[str, tuple[str, ...]]") -> "list[str]":
    """Every directory at least one of these agents reads, in name order."""
    return sorted({root for dirs in roots.values() for root in dirs})


def _score(selection: "tuple[str, ...]", roots: "dict[str, tuple[str, ...]]") -> "_Score | None":
    """Rank a candidate directory set. Lower is better; None if it misses an agent.

    Ordered by:

    1. Fewest agents that would discover the skill from two directories at once.
    2. Most-native directories — an agent's own root beats a compatibility root,
       so a Cursor-only install lands in ``.cursor/skills`` rather than in a
       ``.claude/`` directory belonging to an agent nobody here uses.
    3. Fewest directories, then the paths themselves, so the result is stable.
    """
    chosen = set(selection)
    duplicates = native_rank = 0
    for agent_dirs in roots.values():
        hits = [i for i, root in enumerate(agent_dirs) if root in chosen]
        if not hits:
            return None
        duplicates += len(hits) - 1
        native_rank += hits[0]
    return (duplicates, native_rank, len(selection), selection)


def resolve_skill_dirs(agent_keys: "Iterable[str]", scope: "str" = "project") -> "list[str]":
    """The directories to install skills into so each agent discovers them once.

    Agents share skill roots: Cursor and Copilot both read ``.claude/skills``,
    which Claude Code also (only) reads. So the naive one-directory-per-agent
    install puts the same skill somewhere two agents can both see it, and they
    surface it twice.

    Pick the directory set where no agent sees the skill twice, preferring each
    agent's native root, then the fewest directories. With Claude configured,
    that collapses to ``.claude/skills`` — which Cursor and Copilot read too —
    plus ``.windsurf/skills``, because Windsurf's read of ``.claude/skills`` is
    behind a settings gate we cannot see (a duplicate there is visible and
    name-deduped; a miss would be silent).

    Returned paths are relative to the project root, or to the home directory
    when ``scope="user"``.
    """
    roots = agent_roots(agent_keys, scope)
    if not roots:
        return []
    candidates = read_roots(roots)
    if len(candidates) > _EXHAUSTIVE_SEARCH_LIMIT:
        # 2**n subsets would be too many: serve each agent in turn from its most native root.
        greedy = []
        for dirs in roots.values():
            if not any(root in greedy for root in dirs):
                greedy.append(dirs[0])
        return sorted(set(greedy))
    best = None
    best_selection = []
    # Every size is tried: a larger set with fewer duplicates or more native roots can rank lower.
    for size in range(1, len(candidates) + 1):
        for selection in itertools.combinations(candidates, size):
            score = _score(selection, roots)
            if score is not None and (best is None or score < best):
                best, best_selection = score, list(selection)
    return sorted(best_selection)


def read_stamp(path: "Path") -> "str | None":
    """The version a skill file is stamped with, read from the head of the file only.

    A line that the head cuts off is left out, so a stamp is never taken from part of its line.

    Raises:
        OSError: The file cannot be opened or read.
    """
    with path.open("rb") as handle:
        head = handle.read(STAMP_HEAD_BYTES)
    text = head.decode("utf-8", "replace")
    if len(head) == STAMP_HEAD_BYTES:
        # The file may go on: its last line may be cut, and a cut "version: 1.23" would read as 1.2.
        text = text[: text.rfind("\n") + 1]
    match = _VERSION_RE.search(text)
    return match.group(1) if match else None


def version_tuple(v: "str") -> "tuple[int, ...]":
    """Lenient numeric version key ('1.10.0' -> (1, 10, 0)); non-ints count as 0."""
    key = []
    for piece in v.split("."):
        # Most pieces are digits only; the pattern is needed for the others ("3rc1", "dev4").
        if piece.isdecimal():
            run = piece
        else:
            digits = re.match(r"\d+", piece)
            run = digits.group() if digits else ""
        if len(run) <= 640:
            key.append(int(run) if run else 0)
            continue
        # int() refuses longer runs (the interpreter's guard, 640 digits at its strictest); a key has
        # no such bound.
        value = 0
        for start in range(0, len(run), 640):
            chunk = run[start : start + 640]
            value = value * 10 ** len(chunk) + int(chunk)
        key.append(value)
    return tuple(key)


def inside_root(root: "Path", path: "Path", *, strict: "bool") -> "Path | None":
    """``path`` with its links followed, when it stays under the resolved ``root``.

    Args:
        root: A skills directory, already resolved.
        path: A path under it, as written.
        strict: Whether ``path`` must exist (``Path.resolve(strict=True)``).

    Returns:
        The real path, or None when a link takes it out of ``root``.

    Raises:
        OSError: ``strict`` and the path does not exist, or it cannot be resolved.
        RuntimeError: A loop of links.
    """
    real = path.resolve(strict=strict)
    return real if real.is_relative_to(root) else None


class InstalledSkill(NamedTuple):
    """One embedded skill in one skills directory that an agent reads.

    Attributes:
        skill: The skill's name, which is the name of its directory.
        directory: The skills directory as the agents read it (``~/.claude/skills``,
            ``<repository>/.cursor/skills``).
        installed: The version its ``SKILL.md`` is stamped with. None when the skill is not
            there, has no stamp, cannot be read, or is reached only through a link out of the
            skills directory.
        current: The version of the running package.
        scope: ``user`` (under the home directory) or ``project`` (under the repository).
        update: The command that installs the running package's skills into this directory;
            None when no ``skill install`` writes it.
    """

    skill: "str"
    directory: "Path"
    installed: "str | None"
    current: "str"
    scope: "str"
    update: "str | None"

    @property
    def stale(self) -> "bool":
        """Whether the installed copy is older than the running package."""
        if self.installed is None:
            return False
        return version_tuple(self.installed) < version_tuple(self.current)


def installed_skill_versions(project_root: "Path | None") -> "list[InstalledSkill]":
    """The stamp of each embedded skill in every skills directory an agent reads.

    The directories are the skill roots of every skill-capable agent, under the home directory
    (user scope) and under ``project_root`` (project scope). Only the head of each ``SKILL.md`` that
    is there is read, nothing is written, and no link out of a skills directory is followed. A
    directory that does not exist, a skill that is not installed and a file without a stamp answer
    None; so does a file that cannot be read, which is logged once.

    Args:
        project_root: The repository's root; None reads the user scope only.

    Returns:
        One entry for each skill in each directory: the user scope first, the directories of a
        scope in name order.
    """
    bases = {}
    try:
        bases["user"] = Path.home()
    except RuntimeError:
        _say_unreadable("the home directory")
    if project_root is not None:
        bases["project"] = project_root
    agents = skill_capable_agents()
    found = []
    for scope, base in bases.items():
        for skills_dir in read_roots(agent_roots(agents, scope)):
            directory = base / skills_dir
            # Computed before the directory is read: a directory that is not there still gets its line.
            update = _update_command(scope, skills_dir, project_root)
            stamps = _stamps_in(directory)
            for skill in SKILL_NAMES:
                found.append(InstalledSkill(skill, directory, stamps[skill], __version__, scope, update))
    return found


def _stamps_in(directory: "Path") -> "dict[str, str | None]":
    """The stamp of each embedded skill in one skills directory, read only from inside it."""
    try:
        root = directory.resolve(strict=True)
    except (FileNotFoundError, NotADirectoryError):
        # Most agents are not installed: a missing directory is ordinary and not worth a warning.
        return dict.fromkeys(SKILL_NAMES)
    except (OSError, RuntimeError):
        _say_unreadable(directory)
        return dict.fromkeys(SKILL_NAMES)
    return {skill: _stamp_inside(root, skill) for skill in SKILL_NAMES}


def _stamp_inside(root: "Path", skill: "str") -> "str | None":
    """The stamp of one skill under a resolved skills directory; None when its file is outside."""
    path = root / skill / SKILL_FILE
    try:
        real = inside_root(root, path, strict=True)
        if real is None or not real.is_file():
            return None
        # The real path, never `path`: reading through the link again could land elsewhere.
        return read_stamp(real)
    except (FileNotFoundError, NotADirectoryError):
        return None
    except (OSError, RuntimeError):
        _say_unreadable(path)
        return None


def _say_unreadable(what: "Path | str") -> "None":
    """Log, once for each, a skills directory or file that cannot be read (call it in ``except``)."""
    key = str(what)
    if key in _UNREADABLE:
        return
    _UNREADABLE.add(key)
    logger.warning("Cannot read %s to compare the installed skills with the package", key, exc_info=True)


def _update_command(scope: "str", skills_dir: "str", project_root: "Path | None") -> "str | None":
    """The command that installs the running package's skills into one skills directory.

    ``skill install`` writes the directories ``resolve_skill_dirs`` picks for the agents it is
    given (``DEFAULT_AGENTS`` when it is given none). The command names the agent whose install
    writes exactly this directory, and at project scope the repository.

    Returns:
        The command line, or None when no single agent's install writes the directory.
    """
    agent = ""
    if resolve_skill_dirs(DEFAULT_AGENTS, scope) != [skills_dir]:
        writers = [key for key in skill_capable_agents() if resolve_skill_dirs([key], scope) == [skills_dir]]
        if not writers:
            return None
        agent = f" --agent {writers[0]}"
    repository = ""
    if scope == "project" and project_root is not None:
        repository = f" --repo-root {_shell_word(project_root.as_posix())}"
    return f"zobek-lumeno{repository} skill install --scope {scope}{agent}"


def _shell_word(text: "str") -> "str":
    """The text as one word of a command line: in double quotes unless it needs none."""
    return text if _PLAIN_WORD.fullmatch(text) else f'"{text}"'
