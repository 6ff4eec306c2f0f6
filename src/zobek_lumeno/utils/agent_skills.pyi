import itertools as itertools
import logging as logging
import re as re
from collections.abc import Iterable as Iterable
from pathlib import Path as Path
from typing import Final, TypeAlias
from typing import NamedTuple as NamedTuple

__version__: str
logger: logging.Logger

SKILL_DIR_NAME: Final = "lumeno"
MAP_SKILL_DIR_NAME: Final = "lumeno-map"
WIKI_SKILL_DIR_NAME: Final = "lumeno-wiki"
SKILL_NAMES: Final[tuple[str, ...]]
SKILL_FILE: Final = "SKILL.md"
STAMP_HEAD_BYTES: Final = 2048
_VERSION_RE: Final[re.Pattern[str]]
DEFAULT_AGENTS: Final[tuple[str, ...]]

class SkillRoots(NamedTuple):
    project: tuple[str, ...]
    user: tuple[str, ...]

AGENT_SKILL_ROOTS: Final[dict[str, SkillRoots]]

_EXHAUSTIVE_SEARCH_LIMIT: Final = 12
# Compared in order, lower is better: duplicates, native rank, directory count, then the
# selection itself, so no two selections tie.
_Score: TypeAlias = tuple[int, int, int, tuple[str, ...]]
# Grows for the life of the process: each unreadable path is reported once.
_UNREADABLE: set[str]
_PLAIN_WORD: Final[re.Pattern[str]]

def skill_capable_agents() -> list[str]: ...
def agent_roots(agent_keys: Iterable[str], scope: str) -> dict[str, tuple[str, ...]]: ...
def read_roots(roots: dict[str, tuple[str, ...]]) -> list[str]: ...
def _score(selection: tuple[str, ...], roots: dict[str, tuple[str, ...]]) -> _Score | None: ...
def resolve_skill_dirs(agent_keys: Iterable[str], scope: str = "project") -> list[str]: ...
def read_stamp(path: Path) -> str | None: ...
def version_tuple(v: str) -> tuple[int, ...]: ...
def inside_root(root: Path, path: Path, *, strict: bool) -> Path | None: ...

class InstalledSkill(NamedTuple):
    skill: str
    directory: Path
    installed: str | None
    current: str
    scope: str
    update: str | None
    @property
    def stale(self) -> bool: ...

def installed_skill_versions(project_root: Path | None) -> list[InstalledSkill]: ...
def _stamps_in(directory: Path) -> dict[str, str | None]: ...
def _stamp_inside(root: Path, skill: str) -> str | None: ...
def _say_unreadable(what: Path | str) -> None: ...
def _update_command(scope: str, skills_dir: str, project_root: Path | None) -> str | None: ...
def _shell_word(text: str) -> str: ...
