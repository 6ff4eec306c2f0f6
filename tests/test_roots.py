"""The agent table, its record type and the three queries over it."""

import operator
import re
import types
import typing
from unittest import mock

import pytest

from zobek_lumeno.utils import agent_skills as m

ALL = ["claude", "cursor-agent", "windsurf", "copilot"]
C, CU, G, W = ".claude/skills", ".cursor/skills", ".github/skills", ".windsurf/skills"
CO, WU = ".copilot/skills", ".codeium/windsurf/skills"
AR, RR = m.agent_roots, m.read_roots
CLASS_FACTS = operator.attrgetter(
    "__bases__", "__module__", "__qualname__", "_fields", "_field_defaults", "__orig_bases__"
)
# Without the docstring, which the surface tests pin with every other one.
SKILL_ROOTS_SOURCE = """
class SkillRoots(NamedTuple):
    project: "tuple[str, ...]"
    user: "tuple[str, ...]"
"""


def test_skill_roots_is_made_as_a_class_statement_makes_it():
    namespace = {"__name__": m.__name__, "NamedTuple": typing.NamedTuple}
    exec(SKILL_ROOTS_SOURCE, namespace)
    reference, cls = namespace["SkillRoots"], m.SkillRoots
    assert list(vars(cls)) == list(vars(reference)) and type(cls) is type(reference)
    assert CLASS_FACTS(cls) == CLASS_FACTS(reference)
    # The host's NamedTuple wraps the annotation texts in forward references.
    assert list(cls.__annotations__.items()) == list(reference.__annotations__.items())
    record = cls(user=("u",), project=("p",))
    assert record == (("p",), ("u",)) and repr(record) == "SkillRoots(project=('p',), user=('u',))"
    with pytest.raises(TypeError) as caught:
        cls(project=())
    assert str(caught.value) == "SkillRoots.__new__() missing 1 required positional argument: 'user'"


def test_agent_table():
    table = m.AGENT_SKILL_ROOTS
    assert type(table) is dict and all(type(record) is m.SkillRoots for record in table.values())
    assert list(table.items()) == [
        ("claude", m.SkillRoots(project=(C,), user=(C,))),
        ("cursor-agent", m.SkillRoots(project=(CU, C), user=(CU, C))),
        ("windsurf", m.SkillRoots(project=(W,), user=(WU,))),
        ("copilot", m.SkillRoots(project=(G, C), user=(CO,))),
    ]


class Text(str):
    pass


@pytest.mark.parametrize(
    "call, expected",
    [
        (lambda: AR(["copilot", "claude", "copilot"], "project"), {"copilot": (G, C), "claude": (C,)}),
        (lambda: AR(["windsurf", "nobody"], "user"), {"windsurf": (WU,)}),
        (lambda: AR(["windsurf"], "global"), {"windsurf": (W,)}),
        (lambda: AR(["windsurf"], "User"), {"windsurf": (W,)}),
        (lambda: AR(["windsurf"], None), {"windsurf": (W,)}),
        (lambda: AR(["windsurf"], Text("user")), {"windsurf": (WU,)}),
        (lambda: AR(["windsurf"], mock.ANY), {"windsurf": (WU,)}),  # equal to "user" as to anything
        (lambda: AR(["Claude"], "project"), {}),
        (lambda: AR([], "project"), {}),
        (lambda: AR([], "user"), {}),
        (lambda: AR("claude", "user"), {}),  # a text is an iterable of one-letter keys
        (lambda: AR([1, None, ("claude",), b"claude"], "user"), {}),
        (lambda: AR((k for k in ["copilot", "windsurf"]), "user"), {"copilot": (CO,), "windsurf": (WU,)}),
        (lambda: AR({"windsurf"}, "project"), {"windsurf": (W,)}),
        (lambda: AR({"cursor-agent": 0, "claude": 1}, "user"), {"cursor-agent": (CU, C), "claude": (C,)}),
        (lambda: RR(AR(ALL, "project")), [C, CU, G, W]),
        (lambda: RR(AR(ALL, "user")), [C, WU, CO, CU]),
        (lambda: RR({}), []),
        (lambda: RR({"a": (".b", ".a"), "c": [".a"], "d": ()}), [".a", ".b"]),
        (
            lambda: RR({"x": ("b", "B", "_", "a", "é", "Z/", "a/b", "a-b", "a.b")}),
            ["B", "Z/", "_", "a", "a-b", "a.b", "a/b", "b", "é"],
        ),
        (lambda: AR([["claude"]], "user"), TypeError("unhashable type: 'list'")),
        (lambda: AR(["claude", {}], "user"), TypeError("unhashable type: 'dict'")),
        (lambda: AR(None, "user"), TypeError("'NoneType' object is not iterable")),
        (lambda: RR([(".a",)]), AttributeError("'list' object has no attribute 'values'")),
        (lambda: RR({"a": 3}), TypeError("'int' object is not iterable")),
        (lambda: RR({"a": ([".a"],)}), TypeError("unhashable type: 'list'")),
    ],
)
def test_queries(call, expected):
    if isinstance(expected, Exception):
        with pytest.raises(type(expected)) as caught:
            call()
        assert type(caught.value) is type(expected) and str(caught.value) == str(expected)
    else:
        result = call()
        assert type(result) is type(expected) and list(result) == list(expected) and result == expected


def test_query_results_are_new_and_share_the_records_tuples():
    keys, key = iter(["claude", "copilot", "claude"]), Text("claude")
    result = m.agent_roots(keys, "user")
    assert next(keys, "exhausted") == "exhausted"
    assert result["copilot"] is m.AGENT_SKILL_ROOTS["copilot"].user
    assert m.agent_roots(["claude"], "project")["claude"] is m.AGENT_SKILL_ROOTS["claude"].project
    assert next(iter(m.agent_roots([key], "user"))) is key
    assert m.agent_roots(["claude"], "user") is not m.agent_roots(["claude"], "user")
    assert m.skill_capable_agents() == ALL and m.skill_capable_agents() is not m.skill_capable_agents()
    assert m.read_roots(result) is not m.read_roots(result)


class Minimal:
    """A table offering only what a Python source's queries use of it: `in`, indexing and items()."""

    def __init__(self, table):
        self.table = table

    def __contains__(self, key):
        return key in self.table

    def __getitem__(self, key):
        return self.table[key]

    def items(self):
        return self.table.items()


# Other mappings keep the queries off any dict-only shortcut.
@pytest.mark.parametrize("wrap", [dict, types.MappingProxyType, Minimal], ids=["dict", "proxy", "minimal"])
def test_queries_read_the_table_bound_now(monkeypatch, wrap):
    table = {
        "zed": m.SkillRoots((), ("z",)),
        "amp": m.SkillRoots(("p2", "p1"), ()),
        "duo": m.SkillRoots(("p1",), ("z", "y")),
    }
    monkeypatch.setattr(m, "AGENT_SKILL_ROOTS", wrap(table))
    keys = ["claude", "duo", "zed", "amp"]
    assert m.skill_capable_agents() == ["amp", "duo"]
    user, project = m.agent_roots(keys, "user"), m.agent_roots(keys, "project")
    assert list(user.items()) == [("duo", ("z", "y")), ("zed", ("z",))] and user["zed"] is table["zed"].user
    assert list(project.items()) == [("duo", ("p1",)), ("amp", ("p2", "p1"))]
    assert (m.read_roots(user), m.read_roots(project)) == (["y", "z"], ["p1", "p2"])
    monkeypatch.delattr(m, "AGENT_SKILL_ROOTS")
    for query in (m.skill_capable_agents, lambda: AR(["claude"], "user")):
        with pytest.raises(NameError, match=r"^name 'AGENT_SKILL_ROOTS' is not defined$") as caught:
            query()
        assert caught.value.name == "AGENT_SKILL_ROOTS"


class Listed(Minimal):
    """Says it holds every key; indexing answers from the table, so a wrong record shows."""

    def __contains__(self, key):
        return True


@pytest.mark.parametrize(
    "record, error",
    [(None, "'NoneType' object has no attribute 'user'"), ((), "'tuple' object has no attribute 'user'")],
)
def test_a_listed_agent_is_indexed_and_its_record_read(monkeypatch, record, error):
    monkeypatch.setattr(m, "AGENT_SKILL_ROOTS", Listed({"odd": record}))
    with pytest.raises(AttributeError, match=f"^{re.escape(error)}$"):
        m.agent_roots(["odd"], "user")
    with pytest.raises(KeyError) as caught:  # listed, but indexing fails: that failure is the answer
        m.agent_roots(["claude"], "user")
    assert caught.value.args == ("claude",)
