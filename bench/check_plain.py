"""Check that the plain-Python formulation answers as the native module does, before any timing trusts it.

Run after installing the package: ``python bench/check_plain.py``. Prints every disagreement (and exits 1
if there is one); the benchmarks compare like with like only while it prints none.
"""

import contextlib
import itertools
import logging
import os
import random
import sys
import tempfile
from pathlib import Path

from benchlib import load_plain, populate
from zobek_lumeno.utils import agent_skills as native

plain = load_plain()
ALL = native.skill_capable_agents()
differences = []


def outcome(fn, *args, **kwargs):
    """The result, or the exception's class and text: what a caller can tell apart."""
    try:
        return fn(*args, **kwargs)
    except Exception as error:  # every outcome is compared, failures included
        return ("raised", type(error).__name__, str(error))


def same(label, call, *args, **kwargs):
    ours = outcome(getattr(native, call), *args, **kwargs)
    theirs = outcome(getattr(plain, call), *args, **kwargs)
    if ours != theirs:
        differences.append(f"{label}: {call}{args!r}: native {ours!r}, plain {theirs!r}")


def check_choice():
    keys = [*ALL, "nobody", "Claude"]
    for scope in ("project", "user", "global"):
        for size in range(len(keys) + 1):
            for agents in itertools.permutations(keys, size):
                same("choice", "resolve_skill_dirs", list(agents), scope)
    same("choice", "resolve_skill_dirs", ["claude", "claude"])
    # Past the exhaustive limit the greedy choice runs, whose answer depends on the agents' order.
    extra = {f"extra{i}": native.SkillRoots(project=(f".extra{i:02}/skills",), user=()) for i in range(9)}
    for module in (native, plain):
        module.AGENT_SKILL_ROOTS = {**module.AGENT_SKILL_ROOTS, **extra}
    try:
        for agents in (list(native.AGENT_SKILL_ROOTS), list(reversed(native.AGENT_SKILL_ROOTS))):
            same("greedy", "resolve_skill_dirs", agents)
    finally:
        native.AGENT_SKILL_ROOTS = {k: v for k, v in native.AGENT_SKILL_ROOTS.items() if k not in extra}
        plain.AGENT_SKILL_ROOTS = {k: v for k, v in plain.AGENT_SKILL_ROOTS.items() if k not in extra}


def check_words():
    texts = ["/work/app", "C:/work/app-2.1+b", "/home/dév/app", "/work/my app", "~/app", 'a"b', "", "$HOME"]
    texts += [chr(c) for c in range(0x110000) if not 0xD800 <= c < 0xE000]
    bad = [t for t in texts if native._shell_word(t) != plain._shell_word(t)]
    if bad:
        differences.append(f"_shell_word differs on {len(bad)} texts, first {bad[:5]!r}")
    versions = ["1.10.0", "1.10", "1.2.3rc1", "2.0-beta", "1.2.dev4", "v1.2", "01.002", "1..2", "1.2.", ""]
    versions += [
        "١٢.٣",
        "\uff11.\uff12",
        "²",
        "1.²",
        "7" * 5000,
        "1." + "9" * 700 + ".3",
        "\u0660\u0661",
        " 1",
    ]
    rng = random.Random(12)
    alphabet = ["1", "0", "9", ".", ".", "a", "-", "٣", "\uff11", "²", "Ⅻ", "_", " ", "\n"]
    versions += ["".join(rng.choices(alphabet, k=rng.randrange(12))) for _ in range(3000)]
    for v in versions:
        same("version", "version_tuple", v)


def check_update_commands():
    roots = {r for s in ("user", "project") for r in native.read_roots(native.agent_roots(ALL, s))}
    roots |= {".agents/skills", ".claude/skills/", "./.claude/skills", ""}
    project_roots = [None, Path("/work/app"), Path("/work/my app"), Path("repo"), Path("~/x"), Path("/a/dé")]
    for scope, skills_dir, root in itertools.product(
        ("user", "project", "other"), sorted(roots), project_roots
    ):
        same("update", "_update_command", scope, skills_dir, root)


def stamp_texts(rng):
    """Heads around the 2 KiB edge, built from the pieces a stamp and its neighbours are made of."""
    yield b"---\nname: x\nversion: 1.2.3\n---\n"
    yield b"Version: 1.2.3\n  version: 1.2.3\nversion: v1\nversion: 1.2 beta\nversion: 1+2\nversion: 4.5\n"
    yield b"version:\n\n 1.2.3 \r\n"
    yield b"x" * 2030 + b"\nversion: 1.2"  # 2043 bytes: the last line counts
    yield b"x" * 2034 + b"\nversion: 1.2.3"  # exactly 2048: the last line is cut off
    yield b"x" * 2040 + b"\nversion: 1.2.3\n"  # the stamp line straddles the edge
    yield b"x" * 2048
    yield b"\xff\xfe\nversion: 2.0\n"
    yield "x" * 2046 + "é\nversion: 1\n"  # a character split by the edge
    for size in range(2040, 2056):  # a stamp line that ends just before, at or just after the edge
        for tail in (
            b"\nversion: 1.2.3",
            b"\nversion: 1.2.3\n",
            b"\nversion: 1.2.3\r\n",
            b"\nversion: 1.2.3 \n",
        ):
            yield b"x" * (size - len(tail)) + tail
    pieces = [b"version:", b"version: ", b"1.2", b"3", b"\n", b"\r\n", b"\r", b" ", b"\t", b"v", b"x" * 300]
    pieces += ["é".encode(), "٣".encode(), "\u3000".encode(), "\u0085".encode(), b"\xff", b"\x0b", b"+"]
    for _ in range(2000):
        head = b"".join(rng.choices(pieces, k=rng.randrange(1, 30)))
        if rng.random() < 0.5:
            head = b"y" * max(0, 2048 - rng.randrange(40) - len(head) // 2) + head
        yield head


def check_stamps(tmp):
    rng = random.Random(7)
    path = tmp / "SKILL.md"
    for i, text in enumerate(stamp_texts(rng)):
        path.write_bytes(text if isinstance(text, bytes) else text.encode())
        ours, theirs = outcome(native.read_stamp, path), outcome(plain.read_stamp, path)
        if ours != theirs:
            differences.append(
                f"read_stamp, head #{i} {path.read_bytes()[-60:]!r}: native {ours!r}, plain {theirs!r}"
            )
    same("read_stamp", "read_stamp", tmp)
    same("read_stamp", "read_stamp", tmp / "missing")


def odd_tree(home, repo, outside):
    """Skills directories holding the odd things a real tree may hold."""
    (outside / "lumeno").mkdir(parents=True)
    (outside / "lumeno" / "SKILL.md").write_text("version: 9.9.9\n")

    skills = home / ".claude/skills"
    (skills / "lumeno").mkdir(parents=True)
    (skills / "lumeno/SKILL.md").write_text("---\nversion: 1.0.0\n---\n")
    (skills / "lumeno-map").symlink_to(outside / "lumeno")  # a link out of the directory
    (skills / "lumeno-wiki/SKILL.md").mkdir(parents=True)  # a directory named SKILL.md

    skills = home / ".cursor/skills"
    for skill in ("lumeno", "lumeno-map", "lumeno-wiki"):
        (skills / skill).mkdir(parents=True)
    (skills / "lumeno/SKILL.md").symlink_to("SKILL.md")  # a link to itself
    (skills / "lumeno-map/SKILL.md").write_bytes(b"x" * 2034 + b"\nversion: 1.2.3")  # exactly 2048 bytes
    (skills / "lumeno-wiki/SKILL.md").symlink_to("../lumeno-map/../lumeno-map/SKILL.md")

    real = home / "elsewhere"
    (real / "lumeno").mkdir(parents=True)
    (real / "lumeno/SKILL.md").write_bytes(b"x" * 2030 + b"\nversion: 3.1")  # 2043 bytes
    (real / "lumeno-map").symlink_to("missing")  # dangling
    os.mkfifo(real / "lumeno-wiki")
    (home / ".codeium/windsurf").mkdir(parents=True)
    (home / ".codeium/windsurf/skills").symlink_to(real)  # the skills directory itself a link

    (home / ".copilot").write_text("not a directory")

    (repo / ".github").mkdir(parents=True)
    (repo / ".github/skills").symlink_to("loop")
    (repo / ".github/loop").symlink_to("skills")  # the skills directory in a loop of links
    (repo / ".claude/skills/lumeno").mkdir(parents=True)
    os.mkfifo(repo / ".claude/skills/lumeno/SKILL.md")
    (repo / ".claude/skills/lumeno-wiki").mkdir()
    (repo / ".claude/skills/lumeno-wiki/SKILL.md").write_text("version: 2.2\n")
    # A link that stays inside, by a way that leaves the skills directory and comes back.
    (repo / ".claude/skills/lumeno-map").symlink_to("../../.claude/skills/lumeno-wiki")
    (repo / ".cursor/skills").mkdir(parents=True)
    (repo / ".cursor/skills/lumeno").write_text("a file where the skill's directory should be")


class Records(logging.Handler):
    def __init__(self):
        super().__init__()
        self.seen = []

    def emit(self, record):
        kind = record.exc_info[0].__name__ if record.exc_info else None
        self.seen.append((record.levelname, record.msg, record.args, kind))


def survey(module, project_root):
    handler = Records()
    log = logging.getLogger(module.__name__)
    log.addHandler(handler)
    log.propagate = False
    try:
        found = outcome(module.installed_skill_versions, project_root)
    finally:
        log.removeHandler(handler)
    if isinstance(found, list):
        found = [(*record, record.stale) for record in found]
    return found, handler.seen


def check_surveys(tmp):
    cases = {}
    home, repo = tmp / "home", tmp / "my app"
    populate(native, home, repo)
    cases["populated"] = (home, repo)
    home, repo = tmp / "odd/home", tmp / "odd/repo"
    odd_tree(home, repo, tmp / "odd/outside")
    cases["odd"] = (home, repo)
    cases["odd, project root = home"] = (home, home)
    cases["odd, user scope only"] = (home, None)
    cases["nothing there"] = (tmp / "none", tmp / "none/repo")
    cases["odd, relative project root"] = (home, Path("odd/repo"))
    for label, (home, repo) in cases.items():
        os.environ["HOME"] = str(home)
        for attempt in ("first", "again"):  # the second survey must not repeat a warning
            ours, theirs = survey(native, repo), survey(plain, repo)
            for what, a, b in (("records", ours[0], theirs[0]), ("warnings", ours[1], theirs[1])):
                if a != b:
                    diff = a if not isinstance(a, list) else [x for x in a if x not in b]
                    differences.append(f"survey, {label} ({attempt}), {what}: native only {diff!r}")


def main():
    check_choice()
    check_words()
    check_update_commands()
    home = os.environ.get("HOME")
    with tempfile.TemporaryDirectory() as name, contextlib.chdir(name):
        tmp = Path(name).resolve()
        check_stamps(tmp)
        check_surveys(tmp)
    if home is not None:
        os.environ["HOME"] = home
    for line in differences:
        print(line)
    print(f"plain formulation against native: {len(differences)} difference(s)")
    return 1 if differences else 0


if __name__ == "__main__":
    sys.exit(main())
