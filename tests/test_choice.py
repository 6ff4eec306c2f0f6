"""The directory choice: its documented results, the score, and the search against the plain formulation on
both of its paths, whatever names the host rebinds."""

import itertools
import signal
import subprocess
import sys
import time

import pytest

from zobek_lumeno.utils import agent_skills as m

ALL = ["claude", "cursor-agent", "windsurf", "copilot"]
C, CU, W, G, CO = ".claude/skills", ".cursor/skills", ".windsurf/skills", ".github/skills", ".copilot/skills"
PROJECT = {"claude": (C,), "cursor-agent": (CU, C), "windsurf": (W,), "copilot": (G, C)}
RR, OWN_SCORE, COMBINATIONS = m.read_roots, m._score, itertools.combinations
EVENTS = []


def counted_scores(mp, *modules):
    """Each module's own _score, counting its calls; for the native module, the generic path."""
    for module in modules:
        own = module._score
        mp.setattr(module, "_score", lambda s, r, own=own: EVENTS.append("score") or own(s, r))


@pytest.fixture(params=["fast", "generic"])
def path(request, monkeypatch):
    if request.param == "generic":
        counted_scores(monkeypatch, m)


def table(**roots):
    return {"AGENT_SKILL_ROOTS": {key: m.SkillRoots(project=r, user=()) for key, r in roots.items()}}


GREEDY = {"_EXHAUSTIVE_SEARCH_LIMIT": 3}  # four candidates: the greedy choice; served agents add nothing


@pytest.mark.parametrize(
    "patches, scope, agents, expected",
    [
        ({}, "project", ["cursor-agent", "copilot"], [CU, G]),
        ({}, "project", ALL, [C, W]),
        ({}, "user", ALL, [C, ".codeium/windsurf/skills", CO]),
        ({}, "global", ["Claude", "nobody"], []),
        (table(a=(C, CU), b=(CU, C)), "project", ["a", "b"], [C]),  # equal ranks: the paths decide
        (GREEDY, "project", ALL, [C, W]),
        (GREEDY, "project", ["cursor-agent", "copilot", "claude", "windsurf"], [C, CU, G, W]),
    ],
)
def test_documented_choices(path, monkeypatch, patches, scope, agents, expected):
    for name, value in patches.items():
        monkeypatch.setattr(m, name, value)
    first = m.resolve_skill_dirs(iter(agents + agents), scope=scope)
    assert first == expected and first is not m.resolve_skill_dirs(agents, scope)
    if not patches:  # only the exhaustive search ignores the order
        assert all(m.resolve_skill_dirs(p, scope) == expected for p in itertools.permutations(agents))
    assert m._score((C, CU, W), PROJECT) == (1, 1, 3, (C, CU, W)) and m._score((C, CU, G), PROJECT) is None
    assert m._score((), {}) == (0, 0, 0, ()) and m._score([C], {"claude": [C, C]}) == (1, 0, 1, [C])


def test_scoring_stops_at_the_first_unserved_agent():
    roots = {"claude": (C,), "later": map(int, "x")}  # iterating "later" raises
    assert m._score((W,), roots) is None
    with pytest.raises(ValueError, match="invalid literal"):
        m._score((C,), roots)
    with pytest.raises(TypeError, match="'generator' has no len"):
        m._score((x for x in [C]), {"claude": (C,)})


class Caseless(str):
    def __eq__(self, other):
        return self.casefold() == str(other).casefold()

    def __hash__(self):
        return hash(self.casefold())


# Names the host rebinds on the module, and tables whose roots the native search must leave to the
# generic one; each is rebound alike on the plain formulation.
CASES = {
    "score largest": {"_score": lambda s, r: (-len(s), s)},
    "score none": {"_score": lambda s, r: None},
    "combinations": {"combinations": lambda items, size: EVENTS.append(size) or COMBINATIONS(items, size)},
    "12 candidates": table(**PROJECT, **{k: (f".{k}/skills",) for k in "abcdefgh"}),
    "13 candidates": table(**PROJECT, **{k: (f".{k}/skills",) for k in "abcdefghi"}),
    "equal ranks apart": table(f=("d", "b", "e"), g=("c", "e"), h=("e", "b"), i=("a", "c")),
    "lists": table(a=[CU, C], b=[C], c=[G, C, C]),
    "ints": table(a=(3, 1), b=(1,), c=(2, 3)),
    "caseless": table(a=(C,), b=(Caseless(C.upper()), G)),
    "caseless roots only": {**table(a=(Caseless(C.upper()),)), "read_roots": lambda r: [C]},
    "mixed types": {**table(a=(1, C), b=(C, 1)), "read_roots": lambda r: [1, C]},
    "set of roots": {**table(a={C}), "_EXHAUSTIVE_SEARCH_LIMIT": 0},
    "reversed": {"read_roots": lambda r: RR(r)[::-1]},
    "first two swapped": {**table(a=(C, CU), b=(CU, C)), "read_roots": lambda r: RR(r)[1::-1] + RR(r)[2:]},
    "repeated": {"read_roots": lambda r: RR(r) * 2},
    "missing one": {"read_roots": lambda r: RR(r)[1:]},
    "tuple": {"read_roots": lambda r: tuple(RR(r))},
    "iterator": {"read_roots": lambda r: iter(RR(r))},
}


def outcome(fn, *args):
    try:
        return "ok", fn(*args)
    except Exception as e:  # the error itself is part of the behaviour compared
        return type(e), str(e)


@pytest.mark.parametrize("patches", CASES.values(), ids=CASES.keys())
def test_search_answers_as_the_plain_formulation(monkeypatch, plain, patches):
    keys = ["cursor-agent", "copilot", "claude", "windsurf", *"abcdefghi"]
    m.resolve_skill_dirs(keys)  # nothing read by an earlier call may be kept
    for name, value in patches.items():
        for module in [itertools] if name == "combinations" else [m, plain]:
            monkeypatch.setattr(module, name, value)
    for _ in range(2):  # as patched, then on the generic path, where each score is counted
        EVENTS.clear()
        expected = outcome(plain.resolve_skill_dirs, keys), EVENTS[:]
        EVENTS.clear()
        assert (outcome(m.resolve_skill_dirs, keys), EVENTS) == expected
        counted_scores(monkeypatch, m, plain)


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
@pytest.mark.parametrize("n", [62, 64])
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
