"""The installer: writes the embedded skills into the skills directories an install picks.

Writes are as careful as the survey's reads: nothing is written through a link that leads out of
a skills directory, every file is replaced atomically (a complete old or a complete new file, never
a torn one), a copy stamped newer than the package or not stamped at all is left as it is unless
forced, and no file the package does not ship is ever removed.
"""

from __future__ import annotations

import contextlib
import os
import secrets
from collections.abc import Iterable, Iterator
from importlib import resources
from importlib.resources.abc import Traversable
from pathlib import Path
from typing import NamedTuple

from zobek_lumeno.utils import agent_skills

SKILL_FILE = agent_skills.SKILL_FILE
# Package data: one directory per embedded skill, in the Agent Skills layout.
SOURCES = "skills"


class Outcome(NamedTuple):
    """What became of one skill in one skills directory."""

    action: str  # "written", "unchanged", "would write", "refused" or "failed"
    place: Path  # the skill's directory as the agents read it
    reason: str | None = None  # why it was refused or failed


class Options(NamedTuple):
    version: str
    force: bool = False
    dry_run: bool = False


class Refused(Exception):
    """A skill left as it is, for a reason the user can act on."""


def stamped(text: bytes, version: str) -> bytes:
    """``text`` with the stamp line ``version: <version>`` closing its front matter."""
    opening, closing = b"---\n", b"\n---\n"
    head, found, rest = text.partition(closing)
    if not text.startswith(opening) or not found:
        raise ValueError("a skill source has no front matter to carry the version stamp")
    return head + f"\nversion: {version}".encode() + closing + rest


def shipped_files(skill: str, version: str) -> dict[str, bytes]:
    """The files the package ships for ``skill``, by relative path; the stamped SKILL.md comes last."""
    files = dict(_walk(resources.files("zobek_lumeno").joinpath(SOURCES, skill), ""))
    if SKILL_FILE not in files:
        raise FileNotFoundError(f"the package ships no {SKILL_FILE} for the skill {skill!r}")
    # Written last, so a stamp that says "installed" is never ahead of the files beside it.
    files[SKILL_FILE] = stamped(files.pop(SKILL_FILE), version)
    return files


def _walk(node: Traversable, prefix: str) -> Iterator[tuple[str, bytes]]:
    for child in sorted(node.iterdir(), key=lambda child: child.name):
        if child.is_dir():
            yield from _walk(child, f"{prefix}{child.name}/")
        else:
            yield f"{prefix}{child.name}", child.read_bytes()


def install(base: Path, skills_dirs: Iterable[str], options: Options) -> Iterator[Outcome]:
    """Install every embedded skill into each of ``skills_dirs`` under ``base``, one outcome each."""
    sources = {skill: shipped_files(skill, options.version) for skill in agent_skills.SKILL_NAMES}
    for skills_dir in skills_dirs:
        for skill, files in sources.items():
            yield _install_one(base / skills_dir, skill, files, options)


def _install_one(skills_dir: Path, skill: str, files: dict[str, bytes], options: Options) -> Outcome:
    place = skills_dir / skill
    try:
        root, writes = _plan(skills_dir, skill, files, options)
        if options.dry_run:
            return Outcome("would write" if writes else "unchanged", place)
        for target, data in writes:
            directory = _open_below(root, target.parent)
            try:
                _replace(directory, target, data, options.version if target.name == SKILL_FILE else None)
            finally:
                os.close(directory)
        return Outcome("written" if writes else "unchanged", place)
    except Refused as refusal:
        return Outcome("refused", place, str(refusal))
    except (OSError, RuntimeError) as error:  # RuntimeError: a loop of links
        return Outcome("failed", place, getattr(error, "strerror", None) or str(error))


def _plan(
    skills_dir: Path, skill: str, files: dict[str, bytes], options: Options
) -> tuple[Path, list[tuple[Path, bytes]]]:
    """The resolved skills directory, and the files of one skill that differ from what is installed there;
    refuses before anything is written."""
    if not options.dry_run:
        skills_dir.mkdir(parents=True, exist_ok=True)
    root = skills_dir.resolve(strict=not options.dry_run)
    real_dir = _skill_dir(root, skill)
    writes = []
    for name, data in files.items():
        target = real_dir / name
        old = _installed(root, target)
        if old is None or old[1] != data:
            if name == SKILL_FILE and old is not None and not options.force:
                _refuse_downgrade(old[0], options.version)
            writes.append((target, data))
    return root, writes


def _skill_dir(root: Path, skill: str) -> Path:
    """The real directory of ``skill`` under the resolved skills directory ``root``."""
    real = agent_skills.inside_root(root, root / skill, strict=False)
    if real is None:
        raise Refused(
            f"a link leads out of the skills directory (to {(root / skill).resolve()}); nothing written"
        )
    if real.exists() and not real.is_dir():
        raise Refused("a file stands where the skill's directory belongs; it is left as it is")
    # Through a link to another skill's directory, this skill would overwrite that one's files.
    for other in agent_skills.SKILL_NAMES:
        linked = other != skill and real != root / skill
        if linked and agent_skills.inside_root(root, root / other, strict=False) == real:
            raise Refused(f"it is a link to the directory of the skill {other!r}; nothing written")
    return real


def _installed(root: Path, target: Path) -> tuple[Path, bytes] | None:
    """The real path and content of an installed file, None when there is none."""
    real = agent_skills.inside_root(root, target, strict=False)
    if real is None:
        raise Refused(f"its {target.name} is a link out of the skills directory; nothing written")
    if not real.exists():
        return None
    if not real.is_file():
        raise Refused(f"its {target.name} is not a regular file; it is left as it is")
    return real, real.read_bytes()


def _refuse_downgrade(installed: Path, version: str) -> None:
    stamp = agent_skills.read_stamp(installed)
    if stamp is None:
        raise Refused(
            f"its {SKILL_FILE} has no version stamp, so it may not be this package's (--force replaces it)"
        )
    if agent_skills.version_tuple(stamp) > agent_skills.version_tuple(version):
        raise Refused(
            f"its {SKILL_FILE} is stamped {stamp}, newer than this package's {version} (--force replaces it)"
        )


def _open_below(root: Path, directory: Path) -> int:
    """A descriptor of ``directory``, reached from the resolved ``root`` one component at a time, each made
    where it is missing, none followed if it is a link: a component swapped for a link after the checks fails
    the write instead of sending it elsewhere."""
    descriptor = os.open(root, os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW)
    try:
        for part in directory.relative_to(root).parts:
            with contextlib.suppress(FileExistsError):
                os.mkdir(part, dir_fd=descriptor)
            parent, descriptor = (
                descriptor,
                os.open(part, os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW, dir_fd=descriptor),
            )
            os.close(parent)
    except BaseException:
        os.close(descriptor)
        raise
    return descriptor


def _replace(directory: int, target: Path, data: bytes, stamp: str | None) -> None:
    """Replace ``target``, in the open ``directory`` (or a link in its place, never what the link points to),
    atomically. A failure, an interruption included, leaves the old file as it was and no temporary file
    behind."""
    temporary = f".{target.name}.{secrets.token_hex(4)}.tmp"
    flags = os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW
    descriptor = os.open(temporary, flags, 0o666, dir_fd=directory)
    try:
        with os.fdopen(descriptor, "wb") as file:
            file.write(data)
            file.flush()
            os.fsync(file.fileno())
        # The survey must read back exactly the version written; a version it cannot read is a fault of
        # the package, caught before any installed file changes.
        if stamp is not None and agent_skills.read_stamp(target.with_name(temporary)) != stamp:
            raise Refused(f"the package's version {stamp!r} does not read back as a stamp")
        os.replace(temporary, target.name, src_dir_fd=directory, dst_dir_fd=directory)
    except BaseException:
        with contextlib.suppress(OSError):
            os.unlink(temporary, dir_fd=directory)
        raise
    # Makes the rename durable; some file systems cannot sync a directory, and the file is whole anyway.
    with contextlib.suppress(OSError):
        os.fsync(directory)
