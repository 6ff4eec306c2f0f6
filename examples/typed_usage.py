"""Plan an install for a few agents, then list the installed skills that are out of date.

Run it from a repository: ``python examples/typed_usage.py [AGENT ...]``. It only reads files.
"""

from __future__ import annotations

import sys
from pathlib import Path

from zobek_lumeno.utils.agent_skills import (
    AGENT_SKILL_ROOTS,
    DEFAULT_AGENTS,
    SKILL_DIR_NAME,
    InstalledSkill,
    SkillRoots,
    agent_roots,
    inside_root,
    installed_skill_versions,
    read_roots,
    read_stamp,
    resolve_skill_dirs,
    skill_capable_agents,
    version_tuple,
)


def install_plan(agents: list[str]) -> dict[str, list[str]]:
    """The directories an install writes, for each scope."""
    return {scope: resolve_skill_dirs(agents, scope) for scope in ("project", "user")}


def shared_roots(agents: list[str]) -> list[str]:
    """Directories that more than one of the agents reads in a repository."""
    roots = agent_roots(agents, "project")
    return [root for root in read_roots(roots) if sum(root in dirs for dirs in roots.values()) > 1]


def stale(records: list[InstalledSkill]) -> list[InstalledSkill]:
    """Out-of-date copies, oldest first."""
    old = [record for record in records if record.stale]
    return sorted(old, key=lambda record: version_tuple(record.installed or ""))


def stamp_of(skills_dir: Path, skill: str) -> str | None:
    """The stamp of one skill, unless its file is reached through a link out of the directory."""
    try:
        real = inside_root(skills_dir, skills_dir / skill / "SKILL.md", strict=True)
        return None if real is None else read_stamp(real)
    except (FileNotFoundError, NotADirectoryError):
        return None


def main(argv: list[str]) -> int:
    agents = argv or list(DEFAULT_AGENTS)
    unknown = sorted(set(agents) - set(skill_capable_agents()))
    if unknown:
        print(f"unknown agents: {', '.join(unknown)}", file=sys.stderr)
        return 2
    claude: SkillRoots = AGENT_SKILL_ROOTS["claude"]
    print(f"claude reads {', '.join(claude.project)} in a repository")
    plan = install_plan(agents)
    for scope, dirs in plan.items():
        print(f"{scope}: install into {', '.join(dirs) or 'nothing'}")
    for rel in plan["project"]:
        print(f"{rel}: {SKILL_DIR_NAME} stamped {stamp_of(Path.cwd() / rel, SKILL_DIR_NAME) or 'nowhere'}")
    for root in shared_roots(agents):
        print(f"shared by several agents: {root}")
    for record in stale(installed_skill_versions(Path.cwd())):
        print(f"{record.skill} {record.installed} < {record.current} in {record.directory}: {record.update}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
