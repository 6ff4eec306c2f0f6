"""The survey on any tree: the native route answers, warns and opens as the plain route and as the plain
formulation do; the plain route runs whenever a host object it would reach is patched; and no file outside
is read while the tree changes."""

import os
import pathlib
import random
import re
import resource
import shutil
import subprocess
import sys
import threading

import pytest
from pyfakefs.fake_filesystem_unittest import Patcher

from zobek_lumeno.utils import agent_skills as m

OUTSIDE = "version: 6.6.6\n"
DIR_KINDS = ["dir"] * 5 + ["missing", "link in", "link out", "file", "loop", "dangling"]
# Where a SKILL.md that is a link leads ("out" stands for the stamped file outside the tree's skills).
LINKS = {"link in": "../store/SKILL.md", "link out": "out", "dangling": "gone", "loop": "SKILL.md"}
LINKS |= {
    "dotdot": ".//./../../{skills}/store/./../store/SKILL.md",
    "chain": "one",
    "name too long": "x" * 300,
}
LINKS |= {"device": "/dev/zero", "non-UTF-8": os.fsdecode(b"n\xffm"), "up": ".."}  # "..": the skills dir
SKILL_KINDS = ["file"] * 4 + ["missing", "fifo", "dir", "dir out", "after head", *LINKS]
OPENED = []  # filled only while a survey records: a hook cannot be removed, and would grow forever
RECORDING = threading.Event()
sys.addaudithook(lambda event, args: RECORDING.is_set() and event == "open" and OPENED.append(args))


def make_skill(rng, skills, name, out):
    kind, path = rng.choice(SKILL_KINDS), skills / name / "SKILL.md"
    if kind == "dir out":
        (skills / name).symlink_to(out)
    elif kind != "missing":
        path.parent.mkdir()
    if kind == "file":  # about the head's size, with the stamp where the head may cut it
        size, stamp = rng.choice([99, 2047, 2048, 2049, 4000]), f"\nversion: {rng.randint(0, 20)}.0\n"
        data, at = b"\xff" + b"#" * size, max(0, rng.choice([1, 900, size - 14, size - 15, size - 16]))
        path.write_bytes((data[:at] + stamp.encode() + data[at:])[: rng.choice([size, size + 40])])
    elif kind == "dir":
        path.mkdir()
    elif kind == "fifo":
        os.mkfifo(path)
    elif kind == "after head":
        path.write_text("#" * 3000 + "\nversion: 1.0\n")
    elif kind in LINKS:
        target = LINKS[kind].format(skills=skills.name)
        path.symlink_to(out / "SKILL.md" if target == "out" else target)
        (path.parent / "one").symlink_to("../store/SKILL.md")  # for the chain
        (path.parent / LINKS["non-UTF-8"]).write_text("version: 3.3\n")


def build(rng, base):
    out, home = base / "out", base / "home"
    repo = base / ("repo" if rng.random() < 0.6 else os.fsdecode(b"r\xe9po"))
    out.mkdir()
    (out / "SKILL.md").write_text(OUTSIDE)
    for scope, at in (("user", home), ("project", repo)):
        for i, root in enumerate(m.read_roots(m.agent_roots(m.skill_capable_agents(), scope))):
            skills, kind = at / root, rng.choice(DIR_KINDS)
            skills.parent.mkdir(parents=True, exist_ok=True)
            if kind == "file":
                skills.write_text("x")
            if kind in ("loop", "dangling"):
                skills.symlink_to(skills.name if kind == "loop" else "no")
            if kind in ("file", "loop", "dangling"):
                continue
            if kind.startswith("link"):
                target = (at if kind == "link in" else out) / f"{scope}{i}"
                skills.symlink_to(os.path.relpath(target, skills.parent))
                skills = target
            if kind != "missing":
                skills.mkdir()
                for name in (*m.SKILL_NAMES, "store"):
                    make_skill(rng, skills, name, out)
    return home, repo


def survey(module, repo, own_logger, plain_route=False):
    """The survey's records, warnings (arguments, error, text) and the files its open events name."""
    warnings, logger = [], module.logger
    module.logger = own_logger(
        "survey", lambda r: warnings.append((r.args, repr(r.exc_info[1]), str(r.exc_info[1])))
    )
    module._UNREADABLE.clear()
    OPENED.clear()
    RECORDING.set()
    sys.setprofile((lambda *args: None) if plain_route else None)  # a profiler sees the host's calls
    try:
        return [tuple(r) for r in module.installed_skill_versions(repo)], warnings, OPENED[:]
    finally:
        sys.setprofile(None)
        RECORDING.clear()
        module.logger = logger


@pytest.mark.parametrize("seed", range(40))
def test_survey_of_random_trees(tmp_path, monkeypatch, plain, own_logger, seed):
    rng = random.Random(seed)
    home, repo = build(rng, tmp_path.resolve())
    monkeypatch.setenv("HOME", str(home))
    if seed % 3 == 0:  # a relative root, against the current directory
        monkeypatch.chdir(repo.parent)
        repo = pathlib.Path(repo.name)
    elif seed % 3 == 1:  # one that climbs first
        (repo.parent / "up/down").mkdir(parents=True)
        monkeypatch.chdir(repo.parent / "up/down")
        repo = pathlib.Path("../..", repo.name)
    native = survey(m, repo, own_logger)
    assert native == survey(m, repo, own_logger, plain_route=True) == survey(plain, repo, own_logger)
    assert all(r[2] != "6.6.6" for r in native[0])


@pytest.fixture
def skills(tmp_path):
    skills = tmp_path.resolve() / "skills"
    for name, version in [("lumeno", "1.0"), ("store", "2.0")]:
        (skills / name).mkdir(parents=True)
        (skills / name / "SKILL.md").write_text(f"version: {version}\n")
    (skills / "lumeno-map").mkdir()
    (skills / "lumeno-map/SKILL.md").symlink_to("../store/SKILL.md")
    return skills


def test_a_skills_directory_that_is_the_file_system_root(monkeypatch, plain):
    # As reached through a link to "/": a skill's path below it starts right after that one slash.
    for module in (m, plain):
        monkeypatch.setattr(module, "SKILL_NAMES", ("proc",))
        monkeypatch.setattr(module, "SKILL_FILE", "version")
        monkeypatch.setattr(module, "_VERSION_RE", re.compile("^(Linux) version"))
    assert m._stamps_in(pathlib.Path("/")) == plain._stamps_in(pathlib.Path("/")) == {"proc": "Linux"}


def test_under_a_fake_file_system_the_host_objects_answer(monkeypatch):
    with Patcher() as patcher:
        patcher.fs.create_file("/home/u/.claude/skills/lumeno/SKILL.md", contents="version: 1.2.3\n")
        patcher.fs.create_file("/repo/.windsurf/skills/lumeno-map/SKILL.md", contents="version: 0.1\n")
        patcher.fs.create_symlink("/repo/.github/skills/lumeno", "/home/u/.claude/skills/lumeno")  # out
        patcher.fs.create_symlink("/repo/.cursor/skills/lumeno", "/elsewhere")
        monkeypatch.setenv("HOME", "/home/u")
        found = {
            (r.scope, str(r.directory), r.skill): r.installed
            for r in m.installed_skill_versions(pathlib.Path("/repo"))
        }
    assert {key: v for key, v in found.items() if v} == {
        ("user", "/home/u/.claude/skills", "lumeno"): "1.2.3",
        ("project", "/repo/.windsurf/skills", "lumeno-map"): "0.1",
    }


RACE = """
import os, pathlib, sys, threading, time
from zobek_lumeno.utils import agent_skills as m
skills, links, swap_in = pathlib.Path(sys.argv[1]), int(sys.argv[2]), sys.argv[3]
opened, done = [], threading.Event()
sys.addaudithook(lambda event, args: event == "open" and opened.append(args[0]))
chain = [skills / "lumeno/SKILL.md", *(skills / f"lumeno/link{i}" for i in range(links))]
for link, target in zip(chain, chain[1:]):
    link.symlink_to(target.name)
path, spare, odd = chain[-1], skills / "lumeno/spare", skills / "lumeno/odd"

def swap():
    while not done.is_set():
        spare.write_text("version: 1.0\\n")
        odd.symlink_to(skills.parent / "SKILL.md") if swap_in == "link out" else os.mkfifo(odd)
        os.replace(odd, path)
        os.replace(spare, path)

swapper = threading.Thread(target=swap)
swapper.start()
seen, end = set(), time.monotonic() + 2
while time.monotonic() < end:
    seen.add(m._stamps_in(skills)["lumeno"])
done.set()
swapper.join()
outside = [name for name in opened if not name.startswith(f"{skills}/")]
print(sorted(map(str, seen)), str(path) in opened, outside)
"""


@pytest.mark.parametrize("links", [0, 100])
@pytest.mark.parametrize("swap_in", ["link out", "fifo"])
def test_a_file_swapped_while_scanning_is_never_read_outside(skills, swap_in, links):
    """Another thread keeps replacing a SKILL.md, or the end of a chain of links to it, by a link out of
    the directory or a FIFO; every scan answers with the file's stamp or None, none blocks (a child
    process, bounded in time), and nothing outside is opened."""
    (skills.parent / "SKILL.md").write_text(OUTSIDE)
    (skills / "lumeno/SKILL.md").unlink()
    command = [sys.executable, "-c", RACE, str(skills), str(links), swap_in]
    done = subprocess.run(command, capture_output=True, text=True, timeout=30)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.split() == ["['1.0',", "'None']", "True", "[]"]


def chain(first, links, end):
    """`first` -> link1 -> ... -> end, every link beside `first`."""
    names = [first.name, *(f"link{i}" for i in range(1, links))]
    for name, target in zip(names, [*names[1:], end], strict=True):
        (first.parent / name).symlink_to(target)


def test_nested_links_past_the_recursion_limit(skills, own_logger, monkeypatch):
    """A skills directory reached through 200 nested links and a SKILL.md through 300: from every caller's
    depth around the two where the host's resolution meets its recursion limit, the native route answers,
    and warns, as the plain route does."""
    (skills.parent / "links").mkdir()
    chain(skills.parent / "links/top", 200, str(skills))
    (skills / "lumeno/SKILL.md").unlink()
    chain(skills / "lumeno/SKILL.md", 300, "../store/SKILL.md")
    warnings = []
    monkeypatch.setattr(
        m, "logger", own_logger("deep", lambda r: warnings.append((r.args, repr(r.exc_info[1]))))
    )
    is_file = pathlib.Path.is_file

    def scan(depth, plain_route):
        monkeypatch.setattr(m, "_UNREADABLE", set())
        warnings.clear()
        if plain_route:  # an equal is_file of the tests' own: the host's route, with the same frames below
            monkeypatch.setattr(pathlib.Path, "is_file", lambda self: is_file(self))
        try:
            return nested(depth, lambda: m._stamps_in(skills.parent / "links/top")["lumeno"]), warnings[:]
        finally:
            monkeypatch.setattr(pathlib.Path, "is_file", is_file)

    def nested(depth, call):
        return nested(depth - 1, call) if depth else call()

    # Where the plain route's answer changes: None beyond the first depth, warned for the directory beyond
    # the second; bisected, since each answer holds for every depth past it.
    frame, used = sys._getframe(), 0
    while frame:
        frame, used = frame.f_back, used + 1
    limit, edges = sys.getrecursionlimit() - used - 40, []  # short of every caller's own limit
    for deep in (
        lambda a: a[0] is None,
        lambda a: a[1] and a[1][0][0] == (str(skills.parent / "links/top"),),
    ):
        low, high = 0, limit
        while low < high:
            middle = (low + high) // 2
            low, high = (low, middle) if deep(scan(middle, True)) else (middle + 1, high)
        edges.append(low)
    depths = {0, limit, *(edge + step for edge in edges for step in (-2, -1, 0, 1) if edge + step <= limit)}
    assert {depth: scan(depth, False) for depth in depths} == {depth: scan(depth, True) for depth in depths}
    assert scan(0, False) == ("2.0", [])


def replace_file(args):
    pathlib.Path(f"{args[0]}.new").write_text("version: 3.0\n")
    os.replace(f"{args[0]}.new", args[0])


def replace_directory(args):
    # Its directory moved away and emptied, a new one with a newer file in its place: the old directory's
    # descriptor no longer finds the name. The link that led to the store's file now leads nowhere: the
    # host opens the path the event named, not the skill's.
    file = pathlib.Path(args[0])
    if file.name == "SKILL.md":
        old = file.parent.rename(f"{file.parent}.old")
        file.parent.mkdir()
        file.write_text("version: 3.0\n")
        shutil.rmtree(old)
        if file.parent.name == "store":
            (file.parent.parent / "lumeno-map/SKILL.md").unlink()
            (file.parent.parent / "lumeno-map/SKILL.md").symlink_to("../lumeno-wiki/SKILL.md")


def leave_no_descriptor(args):
    resource.setrlimit(resource.RLIMIT_NOFILE, (3, resource.getrlimit(resource.RLIMIT_NOFILE)[1]))


HOOKS = {
    "no hook": lambda args: None,
    "a hook replacing the file": replace_file,
    "a hook replacing its directory": replace_directory,
    "a hook leaving no descriptor": leave_no_descriptor,
    "a hook refusing": lambda args: (_ for _ in ()).throw(PermissionError(13, "refused", args[0])),
    "a hook failing": lambda args: (_ for _ in ()).throw(ValueError("not an OSError")),
}
HOOK = []  # the hook in force; audit hooks cannot be removed
sys.addaudithook(lambda event, args: HOOK and event == "open" and args[1] == "r" and HOOK[0](args))


@pytest.mark.parametrize("hook", HOOKS.values(), ids=HOOKS)
def test_one_open_event_before_each_file_is_opened(skills, plain, own_logger, monkeypatch, hook):
    """On each route, as from the plain formulation: the event comes first and once, so a hook that swaps
    the file, or its directory, has what it left read and one that refuses is met as a failed open;
    /proc/<pid>/mem, whose read fails once it is open, is opened once."""

    def scan(patch, module, directory, names, file):
        warned, opened = [], []
        patch.setattr(module, "logger", own_logger("audit", warned.append))
        patch.setattr(module, "_UNREADABLE", set())
        patch.setattr(module, "SKILL_NAMES", names)
        patch.setattr(module, "SKILL_FILE", file)
        HOOK.append(lambda args: opened.append(args[0]) or hook(args))
        limits = resource.getrlimit(resource.RLIMIT_NOFILE)
        try:
            found = module._stamps_in(directory)
        except ValueError as error:
            found = repr(error)
        finally:
            HOOK.clear()
            resource.setrlimit(resource.RLIMIT_NOFILE, limits)
        return found, opened, [(r.args, repr(r.exc_info[1])) for r in warned]

    def outcomes(module, plain_route=False):
        (skills / "lumeno/SKILL.md").write_text("version: 1.0\n")
        (skills / "store/SKILL.md").write_text("version: 2.0\n")
        (skills / "lumeno-map/SKILL.md").unlink()
        (skills / "lumeno-map/SKILL.md").symlink_to("../store/SKILL.md")
        with monkeypatch.context() as patch:
            if plain_route:  # an equal is_file of the tests' own: the host's route
                patch.setattr(pathlib.Path, "is_file", lambda self, real=pathlib.Path.is_file: real(self))
            return [
                scan(patch, module, skills, m.SKILL_NAMES, "SKILL.md"),
                scan(patch, module, pathlib.Path("/proc"), (str(os.getpid()),), "mem"),
            ]

    native = outcomes(m)
    assert native == outcomes(m, plain_route=True) == outcomes(plain)
    (stamps, opened, _), (_, [mem], mem_warned) = native
    assert opened and len(opened) == len(set(opened)) and mem.endswith("/mem") and len(mem_warned) <= 1
    if hook in (replace_file, replace_directory):
        assert stamps == {"lumeno": "3.0", "lumeno-map": "3.0", "lumeno-wiki": None}


@pytest.mark.parametrize(
    "link, skill_md, stamp",
    [("../store/SKILL.md", "L/../../lumeno/L", "2.0"), ("../store", "L/../lumeno/L", None)],
    ids=["a file", "a directory"],
)
def test_a_link_met_again_later_in_one_resolution(skills, plain, link, skill_md, stamp):
    # The last component is a link the resolution already followed: what it found is looked at again.
    (skills / "lumeno/SKILL.md").unlink()
    (skills / "lumeno/L").symlink_to(link)
    (skills / "lumeno/SKILL.md").symlink_to(skill_md)
    assert m._stamps_in(skills)["lumeno"] == plain._stamps_in(skills)["lumeno"] == stamp


@pytest.mark.parametrize(
    "hook", [HOOKS["no hook"], HOOKS["a hook refusing"]], ids=["no hook", "a hook refusing"]
)
@pytest.mark.parametrize("name", ["lumeno/SKILL.md", "lumeno", "missing", "/dev/zero", "/proc/self/mem"])
def test_read_stamp_opens_once_after_its_event(skills, plain, outcome, hook, name):
    def read(module):
        opened = []
        HOOK.append(lambda args: opened.append(args[0]) or hook(args))
        try:
            return outcome(module.read_stamp, skills / name), opened
        finally:
            HOOK.clear()

    found = read(m)
    assert found == read(plain) and found[1] == [str(skills / name)]


@pytest.mark.parametrize("inside, stamp", [(False, None), (True, "3.0")], ids=["out", "inside"])
@pytest.mark.parametrize("skill_md", [None, "L/../../lumeno/L"], ids=["a file", "a link met twice"])
def test_a_link_swapped_in_at_the_open_event_is_not_followed(skills, skill_md, inside, stamp):
    """The native route is taken (whatever the version), and opens without following a link: a hook that
    swaps the file for a link out just before the open never gets the outside file read. The host's objects,
    opening by name, would read it. A link to a file inside is resolved again, and that file read, as the
    host reads it."""
    (skills.parent / "SKILL.md").write_text(OUTSIDE)
    (skills / "spare").mkdir()
    (skills / "spare/SKILL.md").write_text("version: 3.0\n")
    real = skills / "lumeno/SKILL.md"
    if skill_md:  # the file reached through a link the resolution already followed once
        real.unlink()
        (skills / "lumeno/L").symlink_to("../store/SKILL.md")
        (skills / "lumeno/SKILL.md").symlink_to(skill_md)
        real = skills / "store/SKILL.md"
    (real.parent / "out").symlink_to(skills / "spare/SKILL.md" if inside else skills.parent / "SKILL.md")
    swapped = []

    def swap(args):
        if args[0] == str(real) and not swapped:
            swapped.append(os.replace(real.parent / "out", args[0]))

    HOOK.append(swap)
    try:
        found = m._stamps_in(skills)["lumeno"]
    finally:
        HOOK.clear()
    assert swapped and found == stamp


FIFO = """
import importlib, os, pathlib, signal, sys, threading, time
sys.path.insert(0, sys.argv[2])
module, fifo = importlib.import_module(sys.argv[1]), pathlib.Path(sys.argv[3])
os.mkfifo(fifo)
main, found, raising, released = threading.get_ident(), [], [], threading.Event()
def handle(signum, frame):
    found.append("handled")
    if raising:
        raise TimeoutError("no line came")
signal.signal(signal.SIGUSR1, handle)
def write(line):
    with open(fifo, "w") as end:
        time.sleep(0.3)  # the reader waits in its read by now; a signal's handler runs, and it reads on
        signal.pthread_kill(main, signal.SIGUSR1)
        if raising:  # the read stops at once, not when the writer gives up on it
            found.append("stopped" if released.wait(5) else "read on")
        time.sleep(0.1)
        end.write(line)
writer = threading.Thread(target=write, args=["version: 9.9\\n"])
writer.start()
found.append(module.read_stamp(fifo))
writer.join()
def interrupt(signum, frame):
    raise TimeoutError("no writer came")
signal.signal(signal.SIGALRM, interrupt)
signal.setitimer(signal.ITIMER_REAL, 0.2)
try:
    module.read_stamp(fifo)
except TimeoutError as error:
    found.append(str(error))
raising.append(True)  # now the handler raises while the read waits: the read stops there
writer = threading.Thread(target=write, args=[""])
writer.start()
try:
    module.read_stamp(fifo)
except TimeoutError as error:
    found.append(str(error))
released.set()
writer.join()
print(found)
"""


@pytest.mark.parametrize("module", ["zobek_lumeno.utils.agent_skills", "plain_agent_skills"])
def test_read_stamp_of_a_fifo_waits_for_its_writer_as_the_host_does(tmp_path, module):
    # The open blocks until a writer comes, and so does the read until it writes; a signal's handler runs
    # meanwhile, and the wait goes on unless it raises, in the open or in the read.
    bench = str(pathlib.Path(__file__).parents[1] / "bench")
    command = [sys.executable, "-c", FIFO, module, bench, str(tmp_path / "fifo")]
    done = subprocess.run(command, capture_output=True, text=True, timeout=30)
    expected = ["handled", "9.9", "no writer came", "handled", "no line came", "stopped"]
    assert (done.returncode, done.stderr, done.stdout) == (0, "", f"{expected}\n")


@pytest.mark.parametrize("install", [sys.setprofile, sys.settrace], ids=["a profiler", "a tracer"])
def test_a_profiler_or_tracer_sees_the_host_calls_the_plain_formulation_makes(skills, plain, install):
    def started(module):
        seen = []

        def record(frame, event, arg):
            if event == "call" and any(name in frame.f_code.co_filename for name in ("pathlib", "posixpath")):
                seen.append(frame.f_code.co_qualname)

        directory = pathlib.Path(str(skills))  # a path of its own: none has cached its parts
        install(record)
        try:
            module._stamps_in(directory)
        finally:
            install(None)
        return seen

    assert started(m) == started(plain) != []


@pytest.mark.skipif(not hasattr(sys, "monitoring"), reason="sys.monitoring came with 3.12")
@pytest.mark.parametrize("tool", [0, 5], ids=["the first tool", "the last tool"])
def test_a_monitoring_tool_sees_the_host_calls_the_plain_formulation_makes(skills, plain, tool):
    def started(module):
        seen, events = [], sys.monitoring.events.PY_START
        sys.monitoring.use_tool_id(tool, "test")
        try:

            def record(code, offset):
                if "pathlib" in code.co_filename or "posixpath" in code.co_filename:
                    seen.append(code.co_qualname)

            sys.monitoring.register_callback(tool, events, record)
            directory = pathlib.Path(str(skills))  # a path of its own: none has cached its parts
            sys.monitoring.set_events(tool, events)
            module._stamps_in(directory)
        finally:
            sys.monitoring.set_events(tool, 0)
            sys.monitoring.free_tool_id(tool)
        return seen

    assert started(m) == started(plain) != []


@pytest.mark.parametrize(
    "name, value, missing",
    [
        ("SKILL_NAMES", ("\ud800",), False),
        ("SKILL_FILE", "\ud800", False),
        ("SKILL_FILE", "x\0", False),
        ("SKILL_NAMES", (["un", "hashable"], "lumeno"), True),  # met first, as the missing directory is met
    ],
    ids=["lone surrogate skill", "lone surrogate file", "NUL", "unhashable skill, no directory"],
)
def test_a_name_no_path_can_carry_fails_as_from_the_plain_formulation(
    skills, plain, outcome, monkeypatch, name, value, missing
):
    for module in (m, plain):
        monkeypatch.setattr(module, name, value)
    directory = skills / "gone" if missing else skills
    found = outcome(m._stamps_in, directory)
    assert found == outcome(plain._stamps_in, directory)
    assert found[0] in (UnicodeEncodeError, ValueError, TypeError)


def test_a_host_method_rebound_to_a_descriptor_around_it_is_not_taken_for_it(
    skills, plain, outcome, monkeypatch
):
    # A property whose getter is the original function (and whose setter is the paths' class itself) is no
    # method bound to that class: the scan meets it as the plain formulation does.
    monkeypatch.setattr(pathlib.Path, "is_file", property(pathlib.Path.is_file, type(skills)))
    found = outcome(m._stamps_in, skills)
    assert found == outcome(plain._stamps_in, skills) and found[0] is TypeError
