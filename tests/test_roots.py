"""The agent table, the two record types and the three queries over the table."""

import operator
import sys
import types

import pytest

from zobek_lumeno.utils import agent_skills as m

ALL = ["claude", "cursor-agent", "windsurf", "copilot"]
C, CU, G, W = ".claude/skills", ".cursor/skills", ".github/skills", ".windsurf/skills"
FACTS = ["__bases__", "__module__", "__qualname__", "__annotations__", "_fields", "_field_defaults"]
# From 3.13 a class statement also records the attributes its methods assign through `self`; the line it
# stands on (__firstlineno__) the extension has not.
CLASS_FACTS = operator.attrgetter(*FACTS, *(["__static_attributes__"] if sys.version_info >= (3, 13) else []))


@pytest.mark.parametrize("name", ["SkillRoots", "InstalledSkill"])
def test_records_are_made_as_class_statements_make_them(plain, source_docs, name):
    cls, reference = getattr(m, name), getattr(plain, name)
    assert list(vars(cls)) == list(vars(reference)) and type(cls) is type(reference)
    assert CLASS_FACTS(cls) == CLASS_FACTS(reference) and cls.__orig_bases__ == reference.__orig_bases__
    assert cls.__doc__ == source_docs[name]
    fields = [f"f{i}" for i in range(len(cls._fields))]
    record = cls(*fields)
    assert record == tuple(fields) and repr(record) == repr(reference(*fields))
    assert name == "SkillRoots" or (type(vars(cls)["stale"]) is property and vars(cls)["stale"].fset is None)


class Text(str):
    pass


def test_query_results_are_new_and_share_the_records_tuples():
    keys, key = iter(["claude", "copilot", "claude"]), Text("claude")
    result = m.agent_roots(keys, "user")
    assert next(keys, "exhausted") == "exhausted"
    assert result["copilot"] is m.AGENT_SKILL_ROOTS["copilot"].user
    assert next(iter(m.agent_roots([key], "user"))) is key
    assert m.agent_roots(["claude"], "user") is not m.agent_roots(["claude"], "user")
    assert m.read_roots(result) is not m.read_roots(result)
    assert m.skill_capable_agents() is not m.skill_capable_agents()


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


class Listed(Minimal):
    def __contains__(self, key):  # claims every key; indexing answers from the table
        return True


def unpaired(item):
    """A table whose items() yields something else than a key and a record, to unpack as `for` would."""
    return type("Unpaired", (Minimal,), {"items": lambda self: [("claude", self.table["amp"]), item]})


TABLES = {
    "dict": dict,
    "proxy": types.MappingProxyType,
    "minimal": Minimal,
    "listed": Listed,  # a record of None, or no record at all, is what indexing says it is
    **{f"item {item!r}": unpaired(item) for item in (7, ("claude",), ("a", "b", "c"), (), ["duo", None])},
}


@pytest.mark.parametrize("wrap", TABLES.values(), ids=TABLES)
def test_queries_read_the_table_bound_now(monkeypatch, plain, outcome, wrap):
    table = {"zed": m.SkillRoots((), ("z",)), "amp": m.SkillRoots(("p2", "p1"), ()), "no": None}
    table["duo"] = m.SkillRoots(("p1",), ("z", "y"))
    for module in (m, plain):
        monkeypatch.setattr(module, "AGENT_SKILL_ROOTS", wrap(table))
    for keys in (["claude", "duo", "zed", "amp"], ["no"], ["duo", "amp"]):
        for scope in ("user", "project"):
            roots = outcome(m.agent_roots, keys, scope)
            assert roots == outcome(plain.agent_roots, keys, scope)
            assert roots[0] != "returned" or m.read_roots(roots[1]) == plain.read_roots(roots[1])
    assert outcome(m.skill_capable_agents) == outcome(plain.skill_capable_agents)
    assert m.agent_roots(["duo", "zed"], "user")["zed"] is table["zed"].user
