import itertools
import signal
import subprocess
import sys
import textwrap
import time
import types

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from zobek_lumeno.utils import agent_skills as m

ALL = ["claude", "cursor-agent", "windsurf", "copilot"]
C, CU, W, G = ".claude/skills", ".cursor/skills", ".windsurf/skills", ".github/skills"
RR = m.read_roots
PROJECT = {"claude": (C,), "cursor-agent": (CU, C), "windsurf": (W,), "copilot": (G, C)}


def ref_score(selection, roots):
    chosen = set(selection)
    duplicates = native_rank = 0
    for agent_dirs in roots.values():
        hits = [i for i, d in enumerate(agent_dirs) if d in chosen]
        if not hits:
            return None
        duplicates += len(hits) - 1
        native_rank += hits[0]
    return (duplicates, native_rank, len(selection), selection)


def ref_resolve(agent_keys, scope="project"):
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
        for selection in itertools.combinations(candidates, size):
            score = ref_score(selection, roots)
            if score is not None and (best is None or score < best):
                best, best_selection = score, list(selection)
    return sorted(best_selection)


def outcome(fn, *args):
    try:
        return "ok", fn(*args)
    except Exception as e:  # the error itself is part of the behaviour compared
        return type(e), str(e)


def generic(monkeypatch):
    original = m._score
    monkeypatch.setattr(m, "_score", lambda s, r: original(s, r))


@pytest.fixture(params=["fast", "generic"])
def path(request, monkeypatch):
    if request.param == "generic":
        generic(monkeypatch)
    return request.param


def table(**agents):
    return {k: m.SkillRoots(project=v, user=()) for k, v in agents.items()}


def fillers(count):
    return {f"extra{i}": (f".extra{i:02}/skills",) for i in range(count)}


@pytest.mark.parametrize(
    "scope, agents, expected",
    [
        ("project", ["claude"], [C]),
        ("project", ["cursor-agent"], [CU]),
        ("project", ["windsurf"], [W]),
        ("project", ["copilot"], [G]),
        ("project", ["claude", "cursor-agent"], [C]),
        ("project", ["claude", "copilot"], [C]),
        ("project", ["claude", "windsurf"], [C, W]),
        ("project", ["cursor-agent", "copilot"], [CU, G]),
        ("project", ["claude", "cursor-agent", "copilot"], [C]),
        ("project", ["cursor-agent", "windsurf", "copilot"], [CU, G, W]),
        ("project", ALL, [C, W]),
        ("user", ["windsurf"], [".codeium/windsurf/skills"]),
        ("user", ["copilot"], [".copilot/skills"]),
        ("user", ["claude", "cursor-agent"], [C]),
        ("user", ["claude", "copilot"], [C, ".copilot/skills"]),
        ("user", ["cursor-agent", "copilot"], [".copilot/skills", CU]),
        ("user", ALL, [C, ".codeium/windsurf/skills", ".copilot/skills"]),
        ("User", ["windsurf"], [W]),
        ("global", ALL, [C, W]),
        (None, ["cursor-agent", "copilot"], [CU, G]),
        ("user", [], []),
        ("project", ["Claude", "nobody"], []),
    ],
)
def test_results(path, scope, agents, expected):
    for keys in (agents, agents[::-1], iter(agents + agents[::-1] + agents)):
        first, second = m.resolve_skill_dirs(keys, scope), m.resolve_skill_dirs(agents, scope=scope)
        assert first == second == expected and first is not second
    if scope == "project":
        assert m.resolve_skill_dirs(agents) == expected
    assert all(m.resolve_skill_dirs(p, scope) == expected for p in itertools.permutations(agents))


@pytest.mark.parametrize(
    "roots, selection, expected",
    [
        (PROJECT, (C, W), (0, 2, 2)),
        (PROJECT, (C, CU, W), (1, 1, 3)),
        (PROJECT, (C, CU, G, W), (2, 0, 4)),
        (PROJECT, (W, G, CU, C), (2, 0, 4)),
        (PROJECT, (CU, G, W), None),
        (PROJECT, (C, CU, G), None),
        (PROJECT, (), None),
        ({"cursor-agent": (CU, C)}, (CU,), (0, 0, 1)),
        ({"cursor-agent": (CU, C)}, (C,), (0, 1, 1)),
        ({"cursor-agent": (CU, C)}, (CU, C), (1, 0, 2)),
        ({"a": (C, CU), "b": (CU, C)}, (C,), (0, 1, 1)),
        ({"a": (C, CU), "b": (CU, C)}, (CU,), (0, 1, 1)),
        ({}, (), (0, 0, 0)),
        ({}, (".x", ".y"), (0, 0, 2)),
        ({"claude": (C,)}, (C, C), (0, 0, 2)),
        ({"claude": (C,), "other": (".o",)}, (C, ".unread"), None),
        ({"claude": [C, C]}, [C], (1, 0, 1)),
    ],
)
def test_score(roots, selection, expected):
    score = m._score(selection, roots)
    assert score == ref_score(selection, roots)
    if expected is None:
        assert score is None
    else:
        assert type(score) is tuple and score[:3] == expected and score[3] is selection


def test_score_order_and_early_miss():
    shared = {"a": (C, CU), "b": (CU, C)}
    assert m._score((C,), shared) < m._score((CU,), shared)

    class Exploding:
        def __iter__(self):
            raise LookupError("reached")

    assert m._score((W,), {"claude": (C,), "later": Exploding()}) is None
    with pytest.raises(LookupError, match="reached"):
        m._score((C,), {"claude": (C,), "later": Exploding()})
    with pytest.raises(TypeError, match="'generator' has no len"):
        m._score((x for x in [C]), {"claude": (C,)})


@pytest.mark.parametrize(
    "agents, expected",
    [
        ({"a": (C, CU), "b": (CU, C)}, [C]),
        # (a, e) and (b, c) rank alike; the first differing root decides, not the order of discovery
        ({"w": ("d", "b", "e"), "x": ("c", "e"), "y": ("e", "b"), "z": ("a", "c")}, ["a", "e"]),
    ],
)
def test_equal_ranks_fall_to_the_roots(path, monkeypatch, agents, expected):
    monkeypatch.setattr(m, "AGENT_SKILL_ROOTS", table(**agents))
    assert m.resolve_skill_dirs(agents) == expected


@pytest.mark.parametrize(
    "order, expected", [(ALL, [C, W]), (["cursor-agent", "copilot", "claude", "windsurf"], [C, CU, G, W])]
)
def test_greedy_beyond_limit(path, monkeypatch, order, expected):
    extra = fillers(9)
    monkeypatch.setattr(m, "AGENT_SKILL_ROOTS", table(**PROJECT, **extra))
    assert len(m.read_roots(m.agent_roots(list(m.AGENT_SKILL_ROOTS), "project"))) == 13
    assert m.resolve_skill_dirs(order + list(extra)) == sorted(expected + [r for (r,) in extra.values()])


@pytest.mark.parametrize("extra, calls", [(8, 4095), (9, 0)])
def test_twelve_candidates_still_exhaustive(path, monkeypatch, extra, calls):
    more = fillers(extra)
    monkeypatch.setattr(m, "AGENT_SKILL_ROOTS", table(**PROJECT, **more))
    keys = ["cursor-agent", "copilot", "claude", "windsurf", *more]
    best = [C, CU, G, W] if calls == 0 else [C, W]
    assert m.resolve_skill_dirs(keys) == sorted(best + [r for (r,) in more.values()])
    seen = []
    original = m._score
    monkeypatch.setattr(m, "_score", lambda s, r: seen.append(s) or original(s, r))
    m.resolve_skill_dirs(keys)
    assert len(seen) == calls


EVENTS = []
COMBINATIONS = itertools.combinations


def recording(items, size):
    EVENTS.append((tuple(items), size))
    return COMBINATIONS(items, size)


class CountingItertools:
    def __getattr__(self, name):
        EVENTS.append(name)
        return getattr(itertools, name)


def stand_in_module():
    module = types.ModuleType("itertools")
    module.combinations = recording
    return module


GREEDY_ORDER = ["cursor-agent", "copilot", "claude", "windsurf"]
SIZES = [((C, CU, G), size) for size in (1, 2, 3)]


@pytest.mark.parametrize(
    "obj, name, value, keys, expected, events",
    [
        (m, "agent_roots", lambda k, s: {"x": (".b", ".a")}, [], [".b"], []),
        (m, "read_roots", lambda r: RR(r) + [".unread"], ["claude"], [C], []),
        (m, "read_roots", lambda r: [".a", C], ["claude"], [C], []),
        (m, "_score", lambda s, r: (-len(s), s), ALL, [C, CU, G, W], []),
        (m, "_score", lambda s, r: None, ALL, [], []),
        (m, "itertools", stand_in_module(), ["cursor-agent", "copilot"], [CU, G], SIZES),
        (m, "itertools", CountingItertools(), ["cursor-agent", "copilot"], [CU, G], ["combinations"] * 3),
        (itertools, "combinations", recording, ["cursor-agent", "copilot"], [CU, G], SIZES),
        (m, "_EXHAUSTIVE_SEARCH_LIMIT", 3, GREEDY_ORDER, [C, CU, G, W], []),
        (m, "_EXHAUSTIVE_SEARCH_LIMIT", 1, ALL, [C, W], []),
        (m, "_EXHAUSTIVE_SEARCH_LIMIT", 4.5, GREEDY_ORDER, [C, W], []),
    ],
    ids=[
        "agent_roots",
        "read_roots-unread",
        "read_roots-short",
        "score-largest",
        "score-none",
        "itertools-module",
        "itertools-getattr",
        "combinations",
        "limit-3",
        "limit-1",
        "limit-float",
    ],
)
def test_late_binding(path, monkeypatch, obj, name, value, keys, expected, events):
    m.resolve_skill_dirs(keys)
    EVENTS.clear()
    monkeypatch.setattr(obj, name, value)
    assert m.resolve_skill_dirs(keys) == expected
    assert events == EVENTS


class Sub(str):
    pass


class Caseless(str):
    def __eq__(self, other):
        return self.casefold() == str(other).casefold()

    def __hash__(self):
        return hash(self.casefold())


ODD = {
    "lists": lambda mp: mp.setattr(m, "AGENT_SKILL_ROOTS", table(a=[CU, C], b=[C], c=[G, C, C])),
    "ints": lambda mp: mp.setattr(m, "AGENT_SKILL_ROOTS", table(a=(3, 1), b=(1,), c=(2, 3))),
    "subclass": lambda mp: mp.setattr(
        m, "AGENT_SKILL_ROOTS", table(a=(Sub(CU), C), b=(Sub(C),), c=(G, Sub(C)))
    ),
    "caseless": lambda mp: mp.setattr(m, "AGENT_SKILL_ROOTS", table(a=(C,), b=(Caseless(C.upper()), G))),
    "int beside candidates": lambda mp: (
        mp.setattr(m, "AGENT_SKILL_ROOTS", table(a=(C,), b=(1, C))),
        mp.setattr(m, "read_roots", lambda r: [C]),
    ),
    "reversed": lambda mp: mp.setattr(m, "read_roots", lambda r: RR(r)[::-1]),
    "repeated": lambda mp: mp.setattr(m, "read_roots", lambda r: RR(r) * 2),
    "missing one": lambda mp: mp.setattr(m, "read_roots", lambda r: RR(r)[1:]),
    "tuple": lambda mp: mp.setattr(m, "read_roots", lambda r: tuple(RR(r))),
    "empty": lambda mp: mp.setattr(m, "read_roots", lambda r: []),
    "iterator": lambda mp: mp.setattr(m, "read_roots", lambda r: iter(RR(r))),
    "mixed types": lambda mp: (
        mp.setattr(m, "AGENT_SKILL_ROOTS", table(a=(1, C), b=(C, 1))),
        mp.setattr(m, "read_roots", lambda r: [1, C]),
    ),
    "set of roots": lambda mp: (
        mp.setattr(m, "agent_roots", lambda k, s: {"a": {C}}),
        mp.setattr(m, "_EXHAUSTIVE_SEARCH_LIMIT", 0),
    ),
}


@pytest.mark.parametrize("case", [*ODD, "not iterable"])
def test_odd_inputs_match_reference(monkeypatch, case):
    keys = 5 if case == "not iterable" else ALL + ["a", "b", "c"]
    ODD.get(case, lambda mp: None)(monkeypatch)
    expected = outcome(ref_resolve, keys)
    assert outcome(m.resolve_skill_dirs, keys) == expected
    generic(monkeypatch)
    assert outcome(m.resolve_skill_dirs, keys) == expected
    if case == "not iterable":
        assert expected == (TypeError, "'int' object is not iterable")


INTERRUPTED = textwrap.dedent("""
    import sys
    from zobek_lumeno.utils import agent_skills as m
    n = int(sys.argv[1])
    m.AGENT_SKILL_ROOTS = {f"a{i}": m.SkillRoots(project=(f".r{i:03}",), user=()) for i in range(n)}
    m._EXHAUSTIVE_SEARCH_LIMIT = 1000
    print("ready", flush=True)
    try:
        m.resolve_skill_dirs(list(m.AGENT_SKILL_ROOTS))
    except KeyboardInterrupt:
        sys.exit(3)
""")


@pytest.mark.parametrize("n", [50, 70])
def test_endless_search_can_be_interrupted(n):
    proc = subprocess.Popen([sys.executable, "-c", INTERRUPTED, str(n)], stdout=subprocess.PIPE, text=True)
    try:
        assert proc.stdout.readline() == "ready\n"
        time.sleep(1)
        proc.send_signal(signal.SIGINT)
        assert proc.wait(timeout=10) == 3
    finally:
        proc.kill()
        proc.wait()


names = st.text(st.characters(codec="utf-8", exclude_categories=["Cs"]), min_size=1, max_size=4)


@settings(max_examples=150, deadline=None)
@given(
    data=st.data(),
    pool=st.lists(names, min_size=1, max_size=12, unique=True),
    scope=st.sampled_from(["project", "user"]),
)
def test_paths_agree_on_random_tables(data, pool, scope):
    agents = data.draw(st.lists(names, min_size=1, max_size=6, unique=True))
    roots = st.lists(st.sampled_from(pool), min_size=1, max_size=3).map(tuple)
    skill_roots = {a: m.SkillRoots(project=data.draw(roots), user=data.draw(roots)) for a in agents}
    keys = data.draw(st.lists(st.sampled_from(agents + ["unknown"]), max_size=8))
    with pytest.MonkeyPatch.context() as mp:
        mp.setattr(m, "AGENT_SKILL_ROOTS", skill_roots)
        fast = m.resolve_skill_dirs(keys, scope)
        assert fast == ref_resolve(keys, scope) == sorted(set(fast))
        generic(mp)
        assert m.resolve_skill_dirs(keys, scope) == fast
