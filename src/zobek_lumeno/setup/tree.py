"""Reaching a skill's copy below a resolved skills directory, through directory descriptors only.

Install, uninstall and the status check's prediction of them all go through here, so the three agree on
what is there and on what blocks it. A skills directory is resolved once, following links (a user's
``~/.claude`` may well be a link into a dotfiles repository); it is then opened from ``/`` one component
at a time without following any, and everything below it is reached relative to descriptors, again
following no link. A component swapped after resolution therefore fails the step instead of redirecting
it. Nothing here writes, except the directories an install asks to be made.
"""

from __future__ import annotations

import contextlib
import errno
import fcntl
import os
import stat
from collections.abc import Callable, Iterator, Sequence
from pathlib import Path, PurePosixPath
from typing import NamedTuple

from zobek_lumeno.utils import agent_skills

SKILL_FILE = agent_skills.SKILL_FILE
# O_NONBLOCK: a FIFO swapped in where a directory or a file was expected must not stall the program.
_DIRECTORY = os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC
_FILE = os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC


class Blocked(Exception):
    """Something stands where the package's copy belongs; the user has to look at it, so it is left alone."""


class SkillsDir(NamedTuple):
    """An open skills directory: as the agents read it, resolved, and its descriptor."""

    shown: Path
    real: Path
    fd: int


class Found(NamedTuple):
    """An installed file, as read through its descriptor."""

    stamp: str | None  # its version stamp, read for SKILL.md only
    same: bool  # holds exactly the bytes the package ships
    link: bool  # its name is a link (to a file inside the skills directory)
    identity: tuple[int, int]  # device and inode of its name's entry, to notice a swap before acting


def describe(error: Exception) -> str:
    """One line on what went wrong; a path relative to a descriptor says nothing the place does not."""
    if not isinstance(error, OSError) or not error.strerror:
        return str(error)
    named = isinstance(error.filename, str) and error.filename.startswith("/")
    return f"{error.filename}: {error.strerror}" if named else error.strerror


def changed(shown: object) -> OSError:
    return OSError(errno.ESTALE, f"{shown} changed while the program ran (a link or another file now)")


def _descend(fd: int, parts: Sequence[str], shown: Path, *, making: bool) -> int | None:
    """Descriptor of ``parts`` below ``fd`` (which is consumed), no link followed; None when a component is
    missing and not ``making``."""
    try:
        for part in parts:
            shown = shown / part
            if making:
                with contextlib.suppress(FileExistsError):
                    os.mkdir(part, dir_fd=fd)
            try:
                child = os.open(part, _DIRECTORY, dir_fd=fd)
            except FileNotFoundError:
                if making:
                    raise changed(shown) from None
                os.close(fd)
                return None
            except NotADirectoryError:  # a link reports the same
                if stat.S_ISLNK(os.stat(part, dir_fd=fd, follow_symlinks=False).st_mode):
                    raise changed(shown) from None
                raise Blocked(f"{shown} is not a directory") from None
            os.close(fd)
            fd = child
    except BaseException:
        os.close(fd)
        raise
    return fd


def _open_resolved(real: Path, shown: Path) -> int:
    """Descriptor of the resolved directory ``real``, opened from / without following a link: a component
    that became a link, or went, since it was resolved fails here."""
    try:
        fd = _descend(os.open("/", _DIRECTORY), real.parts[1:], Path("/"), making=False)
    except (OSError, Blocked):
        raise changed(shown) from None
    if fd is None:
        raise changed(shown)
    return fd


def open_skills_dir(base: Path, relative: str, *, making: bool, dry_run: bool) -> SkillsDir | None:
    """The skills directory ``relative`` under ``base`` (which must exist), opened; None when it is not
    there. ``making``: an install's (its missing directories made unless ``dry_run``, and a link to nothing
    is refused, as the real install refuses it)."""
    real = Path(os.path.realpath(base, strict=True))
    fd, shown = _open_resolved(real, base), base
    try:
        for part in PurePosixPath(relative).parts:
            shown, here = shown / part, real / part
            try:
                child = os.open(part, _DIRECTORY, dir_fd=fd)
            except FileNotFoundError:
                if not making or dry_run:
                    os.close(fd)
                    return None
                with contextlib.suppress(FileExistsError):
                    os.mkdir(part, dir_fd=fd)
                child = os.open(part, _DIRECTORY, dir_fd=fd)
            except NotADirectoryError:
                if not stat.S_ISLNK(os.stat(part, dir_fd=fd, follow_symlinks=False).st_mode):
                    raise Blocked(f"{shown} is not a directory") from None
                # Resolution follows a link, here as anywhere above; the resolved place is then opened anew.
                try:
                    here = Path(os.path.realpath(here, strict=True))
                except FileNotFoundError:
                    if not making:
                        os.close(fd)
                        return None
                    target = os.readlink(part, dir_fd=fd)
                    raise Blocked(f"{shown} is a link to {target}, which does not exist") from None
                child = _open_resolved(here, shown)
            os.close(fd)
            fd, real = child, here
    except BaseException:
        os.close(fd)
        raise
    return SkillsDir(shown, real, fd)


@contextlib.contextmanager
def locked(directory: SkillsDir, waiting: Callable[[Path], None]) -> Iterator[None]:
    """Holds the advisory lock every install and uninstall takes on a skills directory before writing it."""
    try:
        fcntl.flock(directory.fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        waiting(directory.shown)
        fcntl.flock(directory.fd, fcntl.LOCK_EX)
    try:
        yield
    finally:
        fcntl.flock(directory.fd, fcntl.LOCK_UN)


def _real_dir(root: SkillsDir, skill: str) -> Path | None:
    return agent_skills.inside_root(root.real, root.real / skill, strict=False)


def skill_dir(root: SkillsDir, skill: str) -> Path:
    """The real directory of ``skill`` in ``root``; refused when a link takes it out of the skills directory,
    or into, onto or around another skill's directory (that skill's own files would be overwritten)."""
    mine = _real_dir(root, skill)
    if mine is None:
        raise Blocked(f"a link leads out of the skills directory (to {os.path.realpath(root.real / skill)})")
    if mine != root.real / skill:
        for other in (name for name in agent_skills.SKILL_NAMES if name != skill):
            places = [root.real / other]
            with contextlib.suppress(OSError, RuntimeError):  # a loop there is that skill's trouble
                places.append(_real_dir(root, other) or places[0])
            for place in places:
                if mine.is_relative_to(place):
                    raise Blocked(f"it is a link into the directory of the skill {other!r}")
                if place.is_relative_to(mine):
                    raise Blocked(f"it is a link to a directory that holds the skill {other!r}")
    return mine


def open_skill(root: SkillsDir, skill: str, *, making: bool) -> tuple[Path, int] | None:
    """The real directory of ``skill`` and its descriptor; None when it is missing and not ``making``."""
    real = skill_dir(root, skill)
    directory = open_below(root, real, making=making)
    return None if directory is None else (real, directory)


def open_below(root: SkillsDir, real: Path, *, making: bool) -> int | None:
    """Descriptor of the resolved ``real`` inside ``root``; None when it is missing and not ``making``."""
    parts = real.relative_to(root.real).parts
    return _descend(os.dup(root.fd), parts, root.shown, making=making)


def stamp_of(fd: int) -> str | None:
    """The stamp of the open file ``fd``, read by the module itself: the descriptor's own entry under /proc
    reaches that very file, whatever its name leads to by now."""
    return agent_skills.read_stamp(Path(f"/proc/self/fd/{fd}"))


def read_installed(
    root: SkillsDir, real: Path, directory: int, name: str, ships: bytes | None
) -> Found | None:
    """The installed file ``name`` (one component) of the skill whose real directory ``real`` is open as
    ``directory``; None when there is none. A link is read only where it leads inside the skills directory."""
    try:
        entry = os.stat(name, dir_fd=directory, follow_symlinks=False)
    except FileNotFoundError:
        return None
    link = stat.S_ISLNK(entry.st_mode)
    try:
        fd = os.open(name, _FILE, dir_fd=directory)
    except FileNotFoundError:
        return None
    except OSError as error:
        if error.errno != errno.ELOOP:
            raise
        target = agent_skills.inside_root(root.real, real / name, strict=False)
        if target is None:
            raise Blocked(f"its {name} is a link out of the skills directory") from None
        parts = target.relative_to(root.real).parts
        if not parts:
            raise Blocked(f"its {name} is not a regular file") from None
        parent = _descend(os.dup(root.fd), parts[:-1], root.shown, making=False)
        if parent is None:
            return None
        try:
            fd = os.open(parts[-1], _FILE, dir_fd=parent)
        except FileNotFoundError:
            return None
        except OSError as inner:
            if inner.errno == errno.ELOOP:
                raise changed(root.shown.joinpath(*parts)) from None
            raise
        finally:
            os.close(parent)
    try:
        info = os.fstat(fd)
        if not stat.S_ISREG(info.st_mode):
            raise Blocked(f"its {name} is not a regular file")
        # Never more than the file holds, and only when it may be the package's file.
        same = ships is not None and info.st_size == len(ships) and _read(fd, info.st_size) == ships
        stamp = stamp_of(fd) if name == SKILL_FILE else None
    finally:
        os.close(fd)
    return Found(stamp, same, link, (entry.st_dev, entry.st_ino))


def _read(fd: int, size: int) -> bytes:
    chunks, left = [], size
    while left and (chunk := os.read(fd, left)):
        chunks.append(chunk)
        left -= len(chunk)
    return b"".join(chunks)


def unchanged(directory: int, name: str, found: Found | None, shown: Path) -> None:
    """Raise unless ``name`` is still the entry that was read (or still absent): the last look before acting."""
    try:
        info = os.stat(name, dir_fd=directory, follow_symlinks=False)
    except FileNotFoundError:
        if found is None:
            return
        raise changed(shown) from None
    if found is None or (info.st_dev, info.st_ino) != found.identity:
        raise changed(shown)
