"""The installer and the uninstaller of the embedded skills, in the skills directories an install picks.

Both reach every file through ``tree``, below the resolved skills directory and relative to descriptors,
and hold that directory's lock while they change it. Install replaces each file atomically (a complete old
or a complete new file, never a torn one) and leaves a copy stamped newer than the package, or not stamped
at all, unless forced; uninstall removes a stamped ``SKILL.md`` and then the skill's directory if that left
it empty. Neither touches a file the package does not ship, except the package's own stale temporaries.
"""

from __future__ import annotations

import contextlib
import os
import re
import secrets
import signal
from collections.abc import Callable, Iterable, Iterator
from importlib import resources
from importlib.resources.abc import Traversable
from pathlib import Path
from typing import NamedTuple

from zobek_lumeno.setup import tree
from zobek_lumeno.setup.tree import Blocked
from zobek_lumeno.utils import agent_skills

SKILL_FILE = agent_skills.SKILL_FILE
# Package data: one directory per embedded skill, in the Agent Skills layout.
SOURCES = "skills"


class Outcome(NamedTuple):
    """What became of one skill in one skills directory."""

    # Install: "written", "unchanged", "would write", "refused" or "failed"; uninstall: "removed", "absent",
    # "would remove", "kept" or "failed".
    action: str
    place: Path  # the skill's directory as the agents read it
    reason: str | None = None  # why it was refused, kept or failed


def _nobody_told(directory: Path) -> None:
    pass


class Options(NamedTuple):
    version: str
    force: bool = False
    dry_run: bool = False
    waiting: Callable[[Path], None] = _nobody_told  # told when another process holds a directory's lock


# The package's temporary files: ".SKILL.md.1f2e3d4c.tmp". Only these are ever removed unasked.
_TEMPORARY = re.compile(r"\.(.+)\.[0-9a-f]{8}\.tmp")
# The signals a user sends to stop the program; none may land between a temporary's making and its end.
_HELD = {signal.SIGINT, signal.SIGTERM, signal.SIGHUP}


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
        yield from _each_skill(
            base,
            skills_dir,
            options,
            "refused",
            lambda root, skill: _install_one(root, skill, sources[skill], options),
        )


def uninstall(base: Path, skills_dirs: Iterable[str], options: Options) -> Iterator[Outcome]:
    """Remove every embedded skill from each of ``skills_dirs`` under ``base``, one outcome each."""
    for skills_dir in skills_dirs:
        yield from _each_skill(
            base, skills_dir, options, "kept", lambda root, skill: _uninstall_one(root, skill, options)
        )


def _each_skill(
    base: Path,
    skills_dir: str,
    options: Options,
    blocked: str,
    act: Callable[[tree.SkillsDir | None, str], str],
) -> Iterator[Outcome]:
    """``act`` on each skill of one skills directory (None when there is none), under its lock unless dry."""
    places = {skill: base / skills_dir / skill for skill in agent_skills.SKILL_NAMES}
    try:
        root = tree.open_skills_dir(base, skills_dir, making=blocked == "refused", dry_run=options.dry_run)
    except (Blocked, OSError, RuntimeError) as error:
        yield from (_stopped(place, blocked, error) for place in places.values())
        return
    try:
        with (
            contextlib.nullcontext()
            if root is None or options.dry_run
            else tree.locked(root, options.waiting)
        ):
            for skill, place in places.items():
                try:
                    outcome = Outcome(act(root, skill), place)
                except (Blocked, OSError, RuntimeError) as error:  # RuntimeError: a loop of links
                    outcome = _stopped(place, blocked, error)
                yield outcome
    finally:
        if root is not None:
            os.close(root.fd)


def _stopped(place: Path, blocked: str, error: Exception) -> Outcome:
    if isinstance(error, Blocked):
        return Outcome(blocked, place, str(error))
    return Outcome("failed", place, tree.describe(error))


def _install_one(root: tree.SkillsDir | None, skill: str, files: dict[str, bytes], options: Options) -> str:
    if root is None or (opened := tree.open_skill(root, skill, making=not options.dry_run)) is None:
        return "would write"  # nothing there yet, and the real run makes it
    real, directory = opened
    try:
        writes = _differing(root, real, directory, files, options)
        if not options.dry_run:
            for name, data, found in writes:
                *parents, leaf = name.split("/")
                parent = tree.open_below(root, real.joinpath(*parents), making=True)
                assert parent is not None
                try:
                    _remove_stale_temporaries(parent, leaf)
                    _replace(
                        parent, leaf, data, found, place=root.shown / skill / name, version=options.version
                    )
                finally:
                    os.close(parent)
    finally:
        os.close(directory)
    if not writes:
        return "unchanged"
    return "would write" if options.dry_run else "written"


def _differing(
    root: tree.SkillsDir, real: Path, directory: int, files: dict[str, bytes], options: Options
) -> list[tuple[str, bytes, tree.Found | None]]:
    """The shipped files that differ from the installed ones, each with what is installed; refuses (before
    anything is written) a SKILL.md that would be downgraded or is not the package's."""
    writes = []
    for name, data in files.items():
        *parents, leaf = name.split("/")
        parent = (
            tree.open_below(root, real.joinpath(*parents), making=False) if parents else os.dup(directory)
        )
        try:
            found = (
                None
                if parent is None
                else tree.read_installed(root, real.joinpath(*parents), parent, leaf, data)
            )
        finally:
            if parent is not None:
                os.close(parent)
        if found is None or not found.same:
            if name == SKILL_FILE and found is not None and not options.force:
                _refuse_downgrade(found.stamp, options.version)
            writes.append((name, data, found))
    return writes


def _refuse_downgrade(stamp: str | None, version: str) -> None:
    if stamp is None:
        raise Blocked(
            f"its {SKILL_FILE} has no version stamp, so it may not be this package's (--force replaces it)"
        )
    if agent_skills.version_tuple(stamp) > agent_skills.version_tuple(version):
        raise Blocked(
            f"its {SKILL_FILE} is stamped {stamp}, newer than this package's {version} (--force replaces it)"
        )


def _uninstall_one(root: tree.SkillsDir | None, skill: str, options: Options) -> str:
    if root is None or (opened := tree.open_skill(root, skill, making=False)) is None:
        return "absent"
    real, directory = opened
    try:
        found = tree.read_installed(root, real, directory, SKILL_FILE, None)
        if found is not None and found.link:
            raise Blocked(f"its {SKILL_FILE} is a link, which this package never writes")
        if found is not None and found.stamp is None and not options.force:
            raise Blocked(
                f"its {SKILL_FILE} has no version stamp, so it may not be this package's (--force removes it)"
            )
        if options.dry_run:
            return "absent" if found is None else "would remove"
        _remove_stale_temporaries(directory, SKILL_FILE)
        if found is None:
            return "absent"
        tree.unchanged(directory, SKILL_FILE, found, root.shown / skill / SKILL_FILE)
        os.unlink(SKILL_FILE, dir_fd=directory)
    finally:
        os.close(directory)
    # Only when nothing else is left in it; rmdir removes no link, and so never a link's target.
    with contextlib.suppress(OSError):
        os.rmdir(skill, dir_fd=root.fd)
    return "removed"


def _remove_stale_temporaries(directory: int, name: str) -> None:
    """Under the lock no other install is writing, so a temporary of the package's found here was left by a
    process killed mid-write (SIGKILL cannot be caught)."""
    with os.scandir(directory) as entries:
        stale = [e.name for e in entries if _is_temporary(e.name, name) and e.is_file(follow_symlinks=False)]
    for entry in stale:
        with contextlib.suppress(FileNotFoundError):
            os.unlink(entry, dir_fd=directory)


def _is_temporary(entry: str, name: str) -> bool:
    match = _TEMPORARY.fullmatch(entry)
    return match is not None and match[1] == name


@contextlib.contextmanager
def _signals_held() -> Iterator[None]:
    """Holds back SIGINT, SIGTERM and SIGHUP: they are delivered when the block ends, the temporary file
    renamed or removed by then. Asking for the mask first runs the handler of a signal already due,
    before the window opens."""
    previous = signal.pthread_sigmask(signal.SIG_BLOCK, ())
    try:
        signal.pthread_sigmask(signal.SIG_BLOCK, _HELD)
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, previous)


def _replace(
    directory: int, name: str, data: bytes, found: tree.Found | None, *, place: Path, version: str
) -> None:
    """Replace ``name`` in the open ``directory`` (or a link in its place, never what the link points to)
    atomically, provided it is still what was read as ``found``. A failure, an interruption included,
    leaves the old file as it was and no temporary file behind."""
    temporary = f".{name}.{secrets.token_hex(4)}.tmp"
    flags = os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC
    with _signals_held():
        descriptor = os.open(temporary, flags, 0o666, dir_fd=directory)
        try:
            with os.fdopen(descriptor, "wb") as file:
                file.write(data)
                file.flush()
                os.fsync(file.fileno())
                # The survey must read back exactly the version written; a version it cannot read is a
                # fault of the package, caught before any installed file changes.
                if name == SKILL_FILE and tree.stamp_of(file.fileno()) != version:
                    raise OSError(f"the package's version {version!r} does not read back as a stamp")
            tree.unchanged(directory, name, found, place)
            os.replace(temporary, name, src_dir_fd=directory, dst_dir_fd=directory)
        except BaseException:
            with contextlib.suppress(OSError):
                os.unlink(temporary, dir_fd=directory)
            raise
    # Makes the rename durable; some file systems cannot sync a directory, and the file is whole anyway.
    with contextlib.suppress(OSError):
        os.fsync(directory)
