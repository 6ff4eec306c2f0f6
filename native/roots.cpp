// The table of skills directories each agent scans, and the three queries over it.
#include "functions.hpp"

namespace agent_skills {
namespace {

// `a, b = item`, failing as the interpreter's unpacking fails.
std::pair<Ref, Ref> unpack_pair(PyObject* item) {
    if (PyTuple_CheckExact(item) && PyTuple_GET_SIZE(item) == 2)
        return {Ref::borrow(PyTuple_GET_ITEM(item, 0)), Ref::borrow(PyTuple_GET_ITEM(item, 1))};
    Ref it = Ref::steal_or_null(PyObject_GetIter(item));
    if (!it) {
        if (PyErr_ExceptionMatches(PyExc_TypeError) && Py_TYPE(item)->tp_iter == nullptr && !PySequence_Check(item)) {
            PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object", Py_TYPE(item)->tp_name);
        }
        raise();
    }
    Ref first = next(it.get());
    if (!first) {
        PyErr_SetString(PyExc_ValueError, "not enough values to unpack (expected 2, got 0)");
        raise();
    }
    Ref second = next(it.get());
    if (!second) {
        PyErr_SetString(PyExc_ValueError, "not enough values to unpack (expected 2, got 1)");
        raise();
    }
    if (next(it.get())) {
        PyErr_SetString(PyExc_ValueError, "too many values to unpack (expected 2)");
        raise();
    }
    return {std::move(first), std::move(second)};
}

Ref skill_capable_agents(const Context& cx, PyObject* const*) {
    Ref table = cx.global(Name::AGENT_SKILL_ROOTS);
    Ref items = call_method(table.get(), cx.name(Name::items));
    Ref it = iterate(items.get());
    Ref keys = new_list();
    while (Ref item = next(it.get())) {
        auto [key, roots] = unpack_pair(item.get());
        if (truthy(getattr(roots.get(), cx.name(Name::project)).get())) append(keys.get(), key.get());
    }
    return keys;
}

// `AGENT_SKILL_ROOTS[key] if key in AGENT_SKILL_ROOTS`, an empty Ref when it is not: the
// table's own membership test, then its indexing, the name looked up for each use as a
// Python function looks it up. One probe does both for a dict and a str, whose lookups
// run no code of the host's.
Ref table_record(const Context& cx, PyObject* key) {
    Ref table = cx.global(Name::AGENT_SKILL_ROOTS);
    if (PyDict_CheckExact(table.get()) && PyUnicode_CheckExact(key)) {
        PyObject* record = PyDict_GetItemWithError(table.get(), key);
        if (record == nullptr && PyErr_Occurred()) raise();
        return Ref::borrow(record);
    }
    if (!contains(table.get(), key)) return Ref();
    return Ref::steal(PyObject_GetItem(cx.global(Name::AGENT_SKILL_ROOTS).get(), key));
}

Ref agent_roots(const Context& cx, PyObject* const* args) {
    PyObject* scope = args[1];
    // Read to the end first; each distinct key once, where it first appears.
    Ref distinct = Ref::steal(
        PyObject_CallMethodOneArg(reinterpret_cast<PyObject*>(&PyDict_Type), cx.name(Name::fromkeys), args[0]));
    Ref roots = Ref::steal(PyDict_New());
    Py_ssize_t pos = 0;
    PyObject *key, *unused;
    while (PyDict_Next(distinct.get(), &pos, &key, &unused)) {
        Ref keep_key = Ref::borrow(key);
        Ref record = table_record(cx, key);
        if (!record) continue;
        const bool user = compare(scope, cx.name(Name::user), Py_EQ);
        Ref dirs = getattr(record.get(), cx.name(user ? Name::user : Name::project));
        if (truthy(dirs.get())) check(PyDict_SetItem(roots.get(), key, dirs.get()));
    }
    return roots;
}

Ref read_roots(const Context& cx, PyObject* const* args) {
    Ref values = call_method(args[0], cx.name(Name::values));
    Ref every = Ref::steal(PySet_New(nullptr));
    Ref outer = iterate(values.get());
    while (Ref dirs = next(outer.get())) {
        Ref inner = iterate(dirs.get());
        while (Ref root = next(inner.get())) check(PySet_Add(every.get(), root.get()));
    }
    return sorted(every.get());
}

}  // namespace

const FunctionDecl skill_capable_agents_function{
    "skill_capable_agents",
    "skill_capable_agents",
    R"(Agent keys with at least one verified skills directory.)",
    {},
    0,
    "list[str]",
    skill_capable_agents,
};

const FunctionDecl agent_roots_function{
    "agent_roots",
    "agent_roots",
    R"(Skill-discovery roots per requested agent, for one scope.

    Unknown keys and agents with no verified root for the scope are dropped.
    )",
    {{{"agent_keys", "Iterable[str]"}, {"scope", "str"}}},
    2,
    "dict[str, tuple[str, ...]]",
    agent_roots,
};

const FunctionDecl read_roots_function{
    "read_roots",
    "read_roots",
    R"(Every directory at least one of these agents reads, in name order.)",
    {{{"roots", "dict[str, tuple[str, ...]]"}}},
    1,
    "list[str]",
    read_roots,
};

Ref make_skill_roots(PyObject* module) {
    return make_record_type(module, "SkillRoots",
                            R"(The directories one agent scans for Agent Skills, most-native first.

    Attributes:
        project: Relative to the repository's root.
        user: Relative to the home directory.
    )",
                            {{"project", "tuple[str, ...]"}, {"user", "tuple[str, ...]"}});
}

Ref make_agent_skill_roots(PyObject* skill_roots) {
    struct Entry {
        const char* agent;
        std::initializer_list<const char*> project;
        std::initializer_list<const char*> user;
    };
    const Entry entries[] = {
        {"claude", {".claude/skills"}, {".claude/skills"}},
        {"cursor-agent", {".cursor/skills", ".claude/skills"}, {".cursor/skills", ".claude/skills"}},
        {"windsurf", {".windsurf/skills"}, {".codeium/windsurf/skills"}},
        {"copilot", {".github/skills", ".claude/skills"}, {".copilot/skills"}},
    };
    auto texts = [](std::initializer_list<const char*> items) {
        Ref t = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(items.size())));
        Py_ssize_t i = 0;
        for (const char* s : items) PyTuple_SET_ITEM(t.get(), i++, str(s).release());
        return t;
    };
    Ref kwnames = Ref::steal(Py_BuildValue("(ss)", "project", "user"));
    Ref table = Ref::steal(PyDict_New());
    for (const Entry& e : entries) {
        Ref record = call(skill_roots, {texts(e.project).get(), texts(e.user).get()}, kwnames.get());
        check(PyDict_SetItemString(table.get(), e.agent, record.get()));
    }
    return table;
}

}  // namespace agent_skills
