"""The functions that touch no file answer as the plain formulation does, on drawn arguments: the same
value of the same type, or the same error."""

from pathlib import Path

from hypothesis import given, settings
from hypothesis import strategies as st

from zobek_lumeno.utils import agent_skills as m

ROOTS = sorted({r for a in m.AGENT_SKILL_ROOTS.values() for r in (*a.user, *a.project)})
texts = st.text(st.characters(exclude_categories=["Cs"]), max_size=8)
keys = st.sampled_from([*m.AGENT_SKILL_ROOTS, "Claude", "nobody", "", 1, None, ("claude",)])
scopes = (
    st.sampled_from(["user", "project", "global", "User", None, type("Text", (str,), {})("user")]) | texts
)
roots = st.sampled_from([*ROOTS, ".agents/skills", ".claude/skills/", "./.claude/skills"]) | texts
anything = st.none() | st.integers() | texts | st.lists(st.lists(keys, max_size=2), max_size=2)
places = st.sampled_from([None, "not a path"]) | texts.map(Path)
# Digits of any script but not superscripts, what int() takes beyond digits, runs past 64 bits.
pieces = st.sampled_from([*"0123456789.٣１²_ +ab-", "9" * 19, "18446744073709551616"])
versions = texts | st.lists(pieces, max_size=12).map("".join)


@settings(max_examples=300, deadline=None)
@given(
    agent_keys=st.lists(keys, max_size=6) | anything,
    scope=scopes,
    root=roots,
    project_root=places,
    word=texts | st.sampled_from(["/home/dév/a_٣+b:c", "C:/work/app-2.1+b", "~/app", 'a"b', "a\n"]),
    version=versions,
    data=st.data(),
)
def test_pure_functions_answer_as_the_plain_formulation(
    plain, outcome, agent_keys, scope, root, project_root, word, version, data
):
    calls = [
        ("agent_roots", agent_keys, scope),
        ("resolve_skill_dirs", agent_keys, scope),
        ("_update_command", scope, root, project_root),
        ("_shell_word", word),
        ("version_tuple", version),
    ]
    for installed in (None, version, "", word):  # staleness: the keys compared, or None is never stale
        calls.append(("stale", installed, data.draw(versions)))
    calls += [("read_stamp", agent_keys), ("_stamps_in", scope), ("installed_skill_versions", word)]
    calls += [("inside_root", project_root, word, version), ("_say_unreadable", agent_keys)]
    roots_mapping = m.agent_roots(m.skill_capable_agents(), scope)
    calls += [
        ("read_roots", roots_mapping),
        ("_score", tuple(data.draw(st.lists(roots, max_size=5))), roots_mapping),
    ]
    for name, *args in calls:
        if name == "stale":
            native, reference = (
                lambda i, c, mod=mod: mod.InstalledSkill("s", None, i, c, "user", None).stale
                for mod in (m, plain)
            )
        else:
            native, reference = getattr(m, name), getattr(plain, name)
        assert outcome(native, *args) == outcome(reference, *args), (name, args)
