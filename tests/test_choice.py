import itertools
import signal
import subprocess
import sys
import time

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from zobek_lumeno.utils import agent_skills as m

ALL = ["claude", "cursor-agent", "windsurf", "copilot"]
C, CU, W, G = ".claude/skills", ".cursor/skills", ".windsurf/skills", ".github/skills"
RR = m.read_roots
PROJECT = {"claude": (C,), "cursor-agent": (CU, C), "windsurf": (W,), "copilot": (G, C)}
EVENTS = []


def ref_resolve(agent_keys, scope="project"):
    # Every module name is looked up when it is used, as the native search must do too.
    roots = m.agent_roots(agent_keys, scope)
    if not roots:
        return []
    candidates = m.read_roots(roots)
    if len(candidates) > m._EXHAUSTIVE_SEARCH_LIMIT:
        greedy = []
        for dirs in roots.values():
            if not any(d in greedy for d in dirs):
                greedy.append(dirs[0])
        return sorted(set(greedy))
    best, best_selection = None, []
    for size in range(1, len(candidates) + 1):
        for selection in m.itertools.combinations(candidates, size):
            score = m._score(selection, roots)
            if score is not None and (best is None or score < best):
                best, best_selection = score, list(selection)
    return sorted(best_selection)


def outcome(fn, *args):
    try:
        return "ok", fn(*args)
    except Exception as e:  # the error itself is part of the behaviour compared
        return type(e), str(e)


def generic(monkeypatch):
    # Any _score but the module's own sends the search down the generic path.
    original = m._score
    monkeypatch.setattr(m, "_score", lambda s, r: EVENTS.append("score") or original(s, r))


@pytest.fixture(params=["fast", "generic"])
def path(request, monkeypatch):
    if request.param == "generic":
        generic(monkeypatch)


@pytest.mark.parametrize(
    "scope, agents, expected",
    [
        ("project", ["claude", "cursor-agent"], [C]),
        ("project", ["cursor-agent", "copilot"], [CU, G]),
        ("project", ["claude", "cursor-agent", "copilot"], [C]),
        ("project", ["cursor-agent", "windsurf", "copilot"], [CU, G, W]),
        ("project", ALL, [C, W]),
        ("user", ["cursor-agent", "copilot"], [".copilot/skills", CU]),
        ("user", ALL, [C, ".codeium/windsurf/skills", ".copilot/skills"]),
        ("project", ["Claude", "nobody"], []),
    ],
)
def test_results(path, scope, agents, expected):
    first = m.resolve_skill_dirs(iter(agents + agents), scope=scope)
    assert first == expected and first is not m.resolve_skill_dirs(agents, scope)
    assert all(m.resolve_skill_dirs(p, scope) == expected for p in itertools.permutations(agents))


@pytest.mark.parametrize(
    "roots, selection, expected",
    [
        (PROJECT, (C, W), (0, 2, 2)),
        (PROJECT, (C, CU, W), (1, 1, 3)),
        (PROJECT, (W, G, CU, C), (2, 0, 4)),
        (PROJECT, (C, CU, G), None),
        ({}, (), (0, 0, 0)),
        ({"claude": (C,)}, (C, C), (0, 0, 2)),
        ({"claude": [C, C]}, [C], (1, 0, 1)),
    ],
)
def test_score(roots, selection, expected):
    score = m._score(selection, roots)
    assert score == (expected and (*expected, selection))
    assert expected is None or (type(score) is tuple and score[3] is selection)


def test_scoring_stops_at_the_first_unserved_agent():
    roots = {"claude": (C,), "later": map(int, "x")}  # iterating "later" raises
    assert m._score((W,), roots) is None
    with pytest.raises(ValueError, match="invalid literal"):
        m._score((C,), roots)
    with pytest.raises(TypeError, match="'generator' has no len"):
        m._score((x for x in [C]), {"claude": (C,)})


COMBINATIONS = itertools.combinations


class CountingItertools:
    def __getattr__(self, name):
        EVENTS.append(name)
        return getattr(itertools, name)


class Caseless(str):
    def __eq__(self, other):
        return self.casefold() == str(other).casefold()

    def __hash__(self):
        return hash(self.casefold())


def agents(**roots):
    return {"AGENT_SKILL_ROOTS": {k: m.SkillRoots(project=v, user=()) for k, v in roots.items()}}


CASES = {
    "agent_roots": {"agent_roots": lambda k, s: {"x": (".b", ".a")}},
    "read_roots": {"read_roots": lambda r: RR(r) + [".unread"]},
    "score largest": {"_score": lambda s, r: (-len(s), s)},
    "score none": {"_score": lambda s, r: None},
    "itertools": {"itertools": CountingItertools()},
    "combinations": {"combinations": lambda items, size: EVENTS.append(size) or COMBINATIONS(items, size)},
    "limit 3": {"_EXHAUSTIVE_SEARCH_LIMIT": 3},
    "limit float": {"_EXHAUSTIVE_SEARCH_LIMIT": 4.5},
    "12 candidates": agents(**PROJECT, **{k: (f".{k}/skills",) for k in "abcdefgh"}),
    "13 candidates": agents(**PROJECT, **{k: (f".{k}/skills",) for k in "abcdefghi"}),
    # (a, e) and (b, c) rank alike; the first differing root decides, not the order of discovery
    "equal ranks apart": agents(f=("d", "b", "e"), g=("c", "e"), h=("e", "b"), i=("a", "c")),
    # Inputs the native search must find not plain enough, and leave to the generic one.
    "lists": agents(a=[CU, C], b=[C], c=[G, C, C]),
    "ints": agents(a=(3, 1), b=(1,), c=(2, 3)),
    "caseless": agents(a=(C,), b=(Caseless(C.upper()), G)),
    "mixed types": {**agents(a=(1, C), b=(C, 1)), "read_roots": lambda r: [1, C]},
    "set of roots": {**agents(a={C}), "_EXHAUSTIVE_SEARCH_LIMIT": 0},
    "reversed": {"read_roots": lambda r: RR(r)[::-1]},
    "repeated": {"read_roots": lambda r: RR(r) * 2},
    "missing one": {"read_roots": lambda r: RR(r)[1:]},
    "tuple": {"read_roots": lambda r: tuple(RR(r))},
    "empty": {"read_roots": lambda r: []},
    "iterator": {"read_roots": lambda r: iter(RR(r))},
}


@pytest.mark.parametrize("patches", CASES.values(), ids=CASES.keys())
def test_matches_reference(monkeypatch, patches):
    keys = ["cursor-agent", "copilot", "claude", "windsurf", *"abcdefghi"]
    m.resolve_skill_dirs(keys)  # nothing read by an earlier call may be kept
    for name, value in patches.items():
        monkeypatch.setattr(itertools if name == "combinations" else m, name, value)
    for _ in range(2):  # as patched, then on the generic path, where each score is counted
        EVENTS.clear()
        expected = outcome(ref_resolve, keys), EVENTS[:]
        EVENTS.clear()
        assert (outcome(m.resolve_skill_dirs, keys), EVENTS) == expected
        generic(monkeypatch)


INTERRUPTED = """
import signal, sys
from zobek_lumeno.utils import agent_skills as m
signal.signal(signal.SIGINT, signal.default_int_handler)  # even when started with SIGINT ignored
m.AGENT_SKILL_ROOTS = {f"a{i}": m.SkillRoots((f".r{i:03}",), ()) for i in range(int(sys.argv[1]))}
m._EXHAUSTIVE_SEARCH_LIMIT = 1000
print("ready", flush=True)
m.resolve_skill_dirs(m.AGENT_SKILL_ROOTS)
"""


# Up to 62 candidates the native search runs, beyond it the generic one: both must heed Ctrl-C.
@pytest.mark.parametrize("n", [50, 70])
def test_endless_search_can_be_interrupted(n):
    proc = subprocess.Popen([sys.executable, "-c", INTERRUPTED, str(n)], stdout=subprocess.PIPE, text=True)
    try:
        assert proc.stdout.readline() == "ready\n"
        time.sleep(1)
        proc.send_signal(signal.SIGINT)
        # An uncaught KeyboardInterrupt ends the process by the signal itself.
        assert proc.wait(timeout=10) == -signal.SIGINT
    finally:
        proc.kill()
        proc.wait()


names = st.text(st.characters(codec="utf-8", exclude_categories=["Cs"]), min_size=1, max_size=4)


@settings(max_examples=150, deadline=None)
@given(data=st.data(), pool=st.lists(names, min_size=1, max_size=12, unique=True))
def test_paths_agree_on_random_tables(data, pool):
    roots = st.lists(st.sampled_from(pool), min_size=1, max_size=3).map(tuple)
    table = data.draw(st.dictionaries(names, roots, min_size=1, max_size=6))
    keys = data.draw(st.lists(st.sampled_from([*table, "unknown"]), max_size=8))
    with pytest.MonkeyPatch.context() as mp:
        mp.setattr(m, "AGENT_SKILL_ROOTS", {a: m.SkillRoots(project=r, user=()) for a, r in table.items()})
        fast = m.resolve_skill_dirs(keys)
        assert fast == ref_resolve(keys) == sorted(set(fast))
        generic(mp)
        assert m.resolve_skill_dirs(keys) == fast
