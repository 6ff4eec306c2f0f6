// Choosing the directories an install writes: the score of one candidate set, and the
// search over candidate sets (every subset up to a limit, a greedy choice beyond it).
#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <tuple>
#include <vector>

#include "functions.hpp"

namespace agent_skills {
namespace {

// Long searches stay interruptible: the host's signal handlers run this often.
constexpr std::uint64_t signal_check_interval = 1u << 14;

void check_signals(std::uint64_t visited) {
    if (visited % signal_check_interval == 0 && PyErr_CheckSignals() < 0) raise();
}

Ref score(const Context& cx, PyObject* const* args) {
    PyObject* selection = args[0];
    PyObject* roots = args[1];
    Ref chosen = Ref::steal(PySet_New(selection));
    Py_ssize_t duplicates = 0;
    Py_ssize_t native_rank = 0;
    Ref values = call_method(roots, cx.name(Name::values));
    Ref agents = iterate(values.get());
    while (Ref agent_dirs = next(agents.get())) {
        Py_ssize_t hits = 0;
        Py_ssize_t first = 0;
        Py_ssize_t position = 0;
        Ref dirs = iterate(agent_dirs.get());
        for (Ref root = next(dirs.get()); root; root = next(dirs.get()), ++position) {
            if (contains(chosen.get(), root.get())) {
                if (hits++ == 0) first = position;
            }
        }
        if (hits == 0) return Ref::borrow(Py_None);
        duplicates += hits - 1;
        native_rank += first;
    }
    const Py_ssize_t count = PyObject_Size(selection);
    if (count < 0) raise();
    return Ref::steal(Py_BuildValue("(nnnO)", duplicates, native_rank, count, selection));
}

// --- the search on bit sets ---------------------------------------------------------

// Every agent's roots as candidate indices, most native first, the agents one after
// another in one buffer (one allocation per call, however many agents); -1 for a root
// that is not a candidate (it can never be selected).
struct Agents {
    std::vector<int> roots;
    std::vector<std::size_t> ends;  // where each agent's roots stop in `roots`
};

// Equality of two exact strs without the ordering work of a full comparison: the table's
// roots and the candidates made from them are mostly the very same objects.
bool same_text(PyObject* a, PyObject* b) {
    if (a == b) return true;
    if (PyUnicode_GET_LENGTH(a) != PyUnicode_GET_LENGTH(b)) return false;
    return PyUnicode_Compare(a, b) == 0;
}

// The exhaustive search done natively, or nothing when its inputs are not plain enough
// to be sure it matches what the bound functions would compute: every root an exact
// str, candidates distinct and ascending (so a selection's tuple of roots orders as its
// candidate indices do), the mapping an exact dict of exact tuples or lists.
std::optional<Agents> plain_agents(PyObject* roots, PyObject* candidates) {
    if (!PyList_CheckExact(candidates) || !PyDict_CheckExact(roots)) return std::nullopt;
    const Py_ssize_t n = PyList_GET_SIZE(candidates);
    if (n > 62) return std::nullopt;
    PyObject** texts = PySequence_Fast_ITEMS(candidates);
    for (Py_ssize_t i = 0; i < n; ++i) {
        if (!PyUnicode_CheckExact(texts[i])) return std::nullopt;
        if (i > 0 && PyUnicode_Compare(texts[i - 1], texts[i]) >= 0) return std::nullopt;
    }
    Agents agents;
    const auto agent_count = static_cast<std::size_t>(PyDict_GET_SIZE(roots));
    agents.ends.reserve(agent_count);
    agents.roots.reserve(4 * agent_count);
    Py_ssize_t pos = 0;
    PyObject *key, *dirs;
    while (PyDict_Next(roots, &pos, &key, &dirs)) {
        if (!PyTuple_CheckExact(dirs) && !PyList_CheckExact(dirs)) return std::nullopt;
        const Py_ssize_t m = PySequence_Fast_GET_SIZE(dirs);
        PyObject** items = PySequence_Fast_ITEMS(dirs);
        for (Py_ssize_t p = 0; p < m; ++p) {
            if (!PyUnicode_CheckExact(items[p])) return std::nullopt;
            int index = -1;
            for (Py_ssize_t i = 0; i < n && index < 0; ++i)
                if (same_text(items[p], texts[i])) index = static_cast<int>(i);
            agents.roots.push_back(index);
        }
        agents.ends.push_back(agents.roots.size());
    }
    return agents;
}

// The selection with the lowest score over every non-empty subset of n candidates. Scores
// are compared as (duplicates, native rank, size); among equal ones the combination
// order of the enumeration keeps the first, which is the set whose lowest differing
// candidate index belongs to it.
std::uint64_t best_subset(const Agents& agents, int n) {
    using Key = std::tuple<Py_ssize_t, Py_ssize_t, int>;
    std::optional<Key> best;
    std::uint64_t best_mask = 0;
    const std::uint64_t end = std::uint64_t{1} << n;
    const int* roots = agents.roots.data();
    for (std::uint64_t mask = 1; mask < end; ++mask) {
        check_signals(mask);
        Py_ssize_t duplicates = 0, native_rank = 0;
        bool serves_all = true;
        std::size_t begin = 0;
        for (const std::size_t stop : agents.ends) {
            Py_ssize_t hits = 0, first = 0;
            for (std::size_t p = begin; p < stop; ++p) {
                const int c = roots[p];
                if (c >= 0 && (mask >> c) & 1u) {
                    if (hits++ == 0) first = static_cast<Py_ssize_t>(p - begin);
                }
            }
            if (hits == 0) {
                serves_all = false;
                break;
            }
            duplicates += hits - 1;
            native_rank += first;
            begin = stop;
        }
        if (!serves_all) continue;
        const Key key{duplicates, native_rank, std::popcount(mask)};
        if (!best || key < *best || (key == *best && (mask & (mask ^ best_mask) & (~(mask ^ best_mask) + 1)))) {
            best = key;
            best_mask = mask;
        }
    }
    return best_mask;
}

Ref native_search(PyObject* candidates, std::uint64_t mask) {
    Ref result = new_list(std::popcount(mask));
    Py_ssize_t filled = 0;
    for (int i = 0; mask != 0; ++i, mask >>= 1) {
        if (mask & 1u) {
            PyList_SET_ITEM(result.get(), filled++, Py_NewRef(PyList_GET_ITEM(candidates, i)));
        }
    }
    return result;
}

// Every non-empty subset in combination order, scored by whatever `_score` is bound to
// and compared with the host's own comparison.
Ref generic_search(const Context& cx, PyObject* roots, PyObject* candidates) {
    Ref best;
    Ref best_selection = new_list();
    const Py_ssize_t n = PyObject_Size(candidates);
    if (n < 0) raise();
    std::uint64_t visited = 0;
    for (Py_ssize_t size = 1; size <= n; ++size) {
        Ref size_obj = Ref::steal(PyLong_FromSsize_t(size));
        Ref itertools = cx.global(Name::itertools);
        Ref combinations = getattr(itertools.get(), cx.name(Name::combinations));
        Ref selections = iterate(call(combinations.get(), {candidates, size_obj.get()}).get());
        while (Ref selection = next(selections.get())) {
            check_signals(++visited);
            Ref scorer = cx.global(Name::_score);
            Ref score = call(scorer.get(), {selection.get(), roots});
            if (score.get() != Py_None && (!best || compare(score.get(), best.get(), Py_LT))) {
                best = std::move(score);
                best_selection = Ref::steal(PySequence_List(selection.get()));
            }
        }
    }
    return sorted(best_selection.get());
}

// Each agent not yet served gets its most native root; the distinct roots in name order.
Ref greedy_choice(const Context& cx, PyObject* roots) {
    Ref greedy = new_list();
    Ref zero = Ref::steal(PyLong_FromLong(0));
    Ref values = call_method(roots, cx.name(Name::values));
    Ref agents = iterate(values.get());
    while (Ref dirs = next(agents.get())) {
        bool served = false;
        Ref it = iterate(dirs.get());
        while (Ref root = next(it.get())) {
            if (contains(greedy.get(), root.get())) {
                served = true;
                break;
            }
        }
        // Subscripted as `dirs[0]` is, so a root collection that cannot be indexed fails
        // with the host's own wording.
        if (!served) append(greedy.get(), Ref::steal(PyObject_GetItem(dirs.get(), zero.get())).get());
    }
    return sorted(Ref::steal(PySet_New(greedy.get())).get());
}

// Whether `itertools.combinations` is still the original. Only a plain module's dict is
// read: an attribute lookup on anything else could run code the search would then run
// again, and a Python caller would see it happen once too often.
bool own_combinations(const Context& cx) {
    PyObject* itertools = cx.peek(Name::itertools);
    if (itertools == nullptr || !PyModule_CheckExact(itertools)) return false;
    PyObject* combinations = PyDict_GetItemWithError(PyModule_GetDict(itertools), cx.name(Name::combinations));
    if (combinations == nullptr) PyErr_Clear();
    return combinations != nullptr && combinations == cx.held(Held::own_combinations);
}

Ref resolve_skill_dirs(const Context& cx, PyObject* const* args) {
    Ref roots = call(cx.global(Name::agent_roots).get(), {args[0], args[1]});
    if (!truthy(roots.get())) return new_list();
    Ref candidates = call(cx.global(Name::read_roots).get(), {roots.get()});
    const Py_ssize_t n = PyObject_Size(candidates.get());
    if (n < 0) raise();
    Ref count = Ref::steal(PyLong_FromSsize_t(n));
    if (compare(count.get(), cx.global(Name::_EXHAUSTIVE_SEARCH_LIMIT).get(), Py_GT))
        return greedy_choice(cx, roots.get());

    if (n > 0 && cx.peek(Name::_score) == cx.held(Held::own_score) && own_combinations(cx)) {
        if (auto agents = plain_agents(roots.get(), candidates.get()))
            return native_search(candidates.get(), best_subset(*agents, static_cast<int>(n)));
    }
    return generic_search(cx, roots.get(), candidates.get());
}

}  // namespace

const FunctionDecl score_function{
    "_score",
    "_score",
    R"(Rank a candidate directory set. Lower is better; None if it misses an agent.

    Ordered by:

    1. Fewest agents that would discover the skill from two directories at once.
    2. Most-native directories — an agent's own root beats a compatibility root,
       so a Cursor-only install lands in ``.cursor/skills`` rather than in a
       ``.claude/`` directory belonging to an agent nobody here uses.
    3. Fewest directories, then the paths themselves, so the result is stable.
    )",
    {{{"selection", "tuple[str, ...]"}, {"roots", "dict[str, tuple[str, ...]]"}}},
    2,
    "_Score | None",
    score,
};

const FunctionDecl resolve_skill_dirs_function{
    "resolve_skill_dirs",
    "resolve_skill_dirs",
    R"(The directories to install skills into so each agent discovers them once.

    Agents share skill roots: Cursor and Copilot both read ``.claude/skills``,
    which Claude Code also (only) reads. So the naive one-directory-per-agent
    install puts the same skill somewhere two agents can both see it, and they
    surface it twice.

    Pick the directory set where no agent sees the skill twice, preferring each
    agent's native root, then the fewest directories. With Claude configured,
    that collapses to ``.claude/skills`` — which Cursor and Copilot read too —
    plus ``.windsurf/skills``, because Windsurf's read of ``.claude/skills`` is
    behind a settings gate we cannot see (a duplicate there is visible and
    name-deduped; a miss would be silent).

    Returned paths are relative to the project root, or to the home directory
    when ``scope="user"``.
    )",
    {{{"agent_keys", "Iterable[str]"}, {"scope", "str", Kind::positional_or_keyword, "project"}}},
    2,
    "list[str]",
    resolve_skill_dirs,
};

}  // namespace agent_skills
