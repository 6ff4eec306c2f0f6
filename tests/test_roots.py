"""The agent table, its record type and the three queries over it."""

import types

import pytest

from zobek_lumeno.utils import agent_skills as m

ALL = ["claude", "cursor-agent", "windsurf", "copilot"]
USER = [".claude/skills", ".codeium/windsurf/skills", ".copilot/skills", ".cursor/skills"]
PROJECT = [".claude/skills", ".cursor/skills", ".github/skills", ".windsurf/skills"]

SKILL_ROOTS_SOURCE = '''
from __future__ import annotations
from typing import NamedTuple


class SkillRoots(NamedTuple):
    """The directories one agent scans for Agent Skills, most-native first.

    Attributes:
        project: Relative to the repository's root.
        user: Relative to the home directory.
    """

    project: tuple[str, ...]
    user: tuple[str, ...]
'''


def test_skill_roots_is_made_as_a_class_statement_makes_it():
    namespace = {"__name__": m.__name__}
    exec(SKILL_ROOTS_SOURCE, namespace)
    reference, cls = namespace["SkillRoots"], m.SkillRoots
    assert list(vars(cls)) == list(vars(reference))
    for attribute in (
        "__doc__",
        "__module__",
        "__qualname__",
        "_fields",
        "_field_defaults",
        "__orig_bases__",
    ):
        assert getattr(cls, attribute) == getattr(reference, attribute), attribute
    assert type(cls) is type(reference) and cls.__mro__[1:] == reference.__mro__[1:]
    # The host's NamedTuple wraps the annotation texts in forward references.
    assert list(cls.__annotations__.items()) == list(reference.__annotations__.items())
    assert [(k, v.__forward_arg__) for k, v in cls.__annotations__.items()] == [
        ("project", "tuple[str, ...]"),
        ("user", "tuple[str, ...]"),
    ]
    assert cls._fields == ("project", "user") and cls._field_defaults == {}
    assert cls.__doc__.endswith("        user: Relative to the home directory.\n    ")
    record = cls(user=("u",), project=("p",))
    assert record == (("p",), ("u",)) and (record.project, record.user) == (("p",), ("u",))
    assert repr(record) == "SkillRoots(project=('p',), user=('u',))"
    with pytest.raises(
        TypeError, match=r"^SkillRoots.__new__\(\) missing 1 required positional argument: 'user'$"
    ):
        cls(project=())


def test_agent_table():
    table = m.AGENT_SKILL_ROOTS
    assert type(table) is dict and all(type(record) is m.SkillRoots for record in table.values())
    assert list(table.items()) == [
        ("claude", m.SkillRoots(project=(".claude/skills",), user=(".claude/skills",))),
        (
            "cursor-agent",
            m.SkillRoots(
                project=(".cursor/skills", ".claude/skills"), user=(".cursor/skills", ".claude/skills")
            ),
        ),
        ("windsurf", m.SkillRoots(project=(".windsurf/skills",), user=(".codeium/windsurf/skills",))),
        ("copilot", m.SkillRoots(project=(".github/skills", ".claude/skills"), user=(".copilot/skills",))),
    ]


class EqualsUser:
    def __eq__(self, other):
        return other == "user"

    __hash__ = None


class Text(str):
    pass


WINDSURF_USER = [("windsurf", (".codeium/windsurf/skills",))]
WINDSURF_PROJECT = [("windsurf", (".windsurf/skills",))]


@pytest.mark.parametrize(
    "keys, scope, expected",
    [
        (
            ["copilot", "claude", "copilot"],
            "project",
            [("copilot", (".github/skills", ".claude/skills")), ("claude", (".claude/skills",))],
        ),
        (["windsurf", "nobody"], "user", WINDSURF_USER),
        (["windsurf"], "global", WINDSURF_PROJECT),
        (["windsurf"], "User", WINDSURF_PROJECT),
        (["windsurf"], None, WINDSURF_PROJECT),
        (["windsurf"], Text("user"), WINDSURF_USER),
        (["windsurf"], EqualsUser(), WINDSURF_USER),
        (["Claude"], "project", []),
        ([], "project", []),
        ([], "user", []),
        ("claude", "user", []),  # a text is an iterable of one-letter keys
        ([1, None, ("claude",), b"claude"], "user", []),
        (
            lambda: (k for k in ["copilot", "windsurf"]),
            "user",
            [("copilot", (".copilot/skills",))] + WINDSURF_USER,
        ),
        ({"windsurf"}, "project", WINDSURF_PROJECT),
        (
            {"cursor-agent": 0, "claude": 1},
            "user",
            [("cursor-agent", (".cursor/skills", ".claude/skills")), ("claude", (".claude/skills",))],
        ),
    ],
)
def test_agent_roots(keys, scope, expected):
    result = m.agent_roots(keys() if callable(keys) else keys, scope)
    assert type(result) is dict and list(result.items()) == expected


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


@pytest.mark.parametrize(
    "roots, expected",
    [
        (lambda: m.agent_roots(ALL, "project"), PROJECT),
        (lambda: m.agent_roots(ALL, "user"), USER),
        ({}, []),
        ({"a": (".b", ".a"), "c": [".a"], "d": ()}, [".a", ".b"]),
        ({"x": ("b", "B", "_", "a", "é", "Z/")}, ["B", "Z/", "_", "a", "b", "é"]),
        ({"x": ("a/b", "a-b", "a.b")}, ["a-b", "a.b", "a/b"]),
    ],
)
def test_read_roots(roots, expected):
    result = m.read_roots(roots() if callable(roots) else roots)
    assert type(result) is list and result == expected


@pytest.mark.parametrize(
    "call, error, message",
    [
        (lambda: m.agent_roots([["claude"]], "user"), TypeError, "unhashable type: 'list'"),
        (lambda: m.agent_roots(["claude", {}], "user"), TypeError, "unhashable type: 'dict'"),
        (lambda: m.agent_roots(None, "user"), TypeError, "'NoneType' object is not iterable"),
        (lambda: m.read_roots([(".a",)]), AttributeError, "'list' object has no attribute 'values'"),
        (lambda: m.read_roots({"a": 3}), TypeError, "'int' object is not iterable"),
        (lambda: m.read_roots({"a": ([".a"],)}), TypeError, "unhashable type: 'list'"),
    ],
)
def test_errors(call, error, message):
    with pytest.raises(error) as caught:
        call()
    assert type(caught.value) is error and str(caught.value) == message


@pytest.mark.parametrize("wrap", [dict, types.MappingProxyType], ids=["dict", "mapping proxy"])
def test_queries_read_the_table_bound_now(monkeypatch, wrap):
    table = {
        "zed": m.SkillRoots(project=(), user=("z",)),
        "amp": m.SkillRoots(project=("p2", "p1"), user=()),
        "duo": m.SkillRoots(project=("p1",), user=("z", "y")),
    }
    monkeypatch.setattr(m, "AGENT_SKILL_ROOTS", wrap(table))
    keys = ["claude", "duo", "zed", "amp"]
    assert m.skill_capable_agents() == ["amp", "duo"]
    assert list(m.agent_roots(keys, "user").items()) == [("duo", ("z", "y")), ("zed", ("z",))]
    assert list(m.agent_roots(keys, "project").items()) == [("duo", ("p1",)), ("amp", ("p2", "p1"))]
    assert m.agent_roots(keys, "user")["zed"] is table["zed"].user
    assert m.read_roots(m.agent_roots(keys, "user")) == ["y", "z"]
    assert m.read_roots(m.agent_roots(keys, "project")) == ["p1", "p2"]


@pytest.mark.parametrize("query", [m.skill_capable_agents, lambda: m.agent_roots(["claude"], "user")])
def test_an_unbound_table_is_a_name_error(monkeypatch, query):
    monkeypatch.delattr(m, "AGENT_SKILL_ROOTS")
    with pytest.raises(NameError, match=r"^name 'AGENT_SKILL_ROOTS' is not defined$") as caught:
        query()
    assert caught.value.name == "AGENT_SKILL_ROOTS"


def test_docstrings():
    assert m.skill_capable_agents.__doc__ == "Agent keys with at least one verified skills directory."
    assert m.read_roots.__doc__ == "Every directory at least one of these agents reads, in name order."
    assert m.agent_roots.__doc__ == (
        "Skill-discovery roots per requested agent, for one scope.\n\n"
        "    Unknown keys and agents with no verified root for the scope are dropped.\n    "
    )
