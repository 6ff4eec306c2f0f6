// The module's state and the late-bound view of its namespace that every function uses.
#pragma once

#include <span>

#include "python.hpp"

namespace agent_skills {

// Every identifier the functions look up, call or pass by keyword, interned once per module.
// clang-format off
#define AGENT_SKILLS_NAMES(X)                                                                  \
    X(AGENT_SKILL_ROOTS) X(DEFAULT_AGENTS) X(InstalledSkill) X(Path) X(SKILL_FILE)              \
    X(SKILL_NAMES) X(STAMP_HEAD_BYTES) X(_EXHAUSTIVE_SEARCH_LIMIT) X(_PLAIN_WORD) X(_UNREADABLE) \
    X(_VERSION_RE) X(__version__) X(_say_unreadable) X(_score) X(_shell_word) X(_stamp_inside)  \
    X(_stamps_in) X(_update_command) X(add) X(agent_roots) X(as_posix) X(combinations)          \
    X(current) X(decode) X(exc_info) X(fromkeys) X(fullmatch) X(group) X(home) X(inside_root)   \
    X(installed) X(is_file) X(is_relative_to) X(items) X(itertools) X(logger) X(open) X(project) \
    X(read) X(read_roots) X(read_stamp) X(resolve) X(resolve_skill_dirs) X(rfind) X(search)     \
    X(skill_capable_agents) X(split) X(strict) X(user) X(values) X(version_tuple) X(warning)     \
    X(__enter__) X(__exit__) X(isEnabledFor) X(makeRecord) X(handle) X(name) X(module)         \
    X(_srcfile) X(currentframe) X(findCaller) X(_log) X(__builtins__) X(__import__) X(__file__)   \
    X(monitoring) X(get_tool)
// Constant texts the functions build with.
#define AGENT_SKILLS_TEXTS(X)                                                                  \
    X(rb, "rb") X(utf8, "utf-8") X(replace, "replace") X(empty, "") X(dot, ".")                 \
    X(newline, "\n") X(quote, "\"") X(comma, ", ") X(program, "zobek-lumeno")                   \
    X(repo_root_option, " --repo-root ") X(install_option, " skill install --scope ")          \
    X(agent_option, " --agent ") X(home_directory, "the home directory")                       \
    X(unreadable_message, "Cannot read %s to compare the installed skills with the package")   \
    X(unknown_file, "(unknown file)") X(unknown_function, "(unknown function)")                  \
    X(say_unreadable_name, "_say_unreadable") X(return_key, "return")
// Objects made or captured by the execution step: the function type, keyword-name tuples,
// and the originals that fast paths compare the bound objects with.
#define AGENT_SKILLS_HELD(X)                                                                   \
    X(function_type) X(kw_strict) X(kw_exc_info) X(file) X(file_stem) X(short_name) X(own_score)   \
    X(own_combinations)                                                                        \
    X(logger_warning) X(logger_log) X(logger_find_caller) X(logging_globals)                   \
    X(logging_currentframe) X(path_type) X(own_stamp_inside) X(own_inside_root) X(own_read_stamp) \
    X(scan_owners) X(scan_names) X(scan_originals)
// clang-format on

#define AGENT_SKILLS_ENUM(n, ...) n,
enum class Name { AGENT_SKILLS_NAMES(AGENT_SKILLS_ENUM) count };
enum class Text { AGENT_SKILLS_TEXTS(AGENT_SKILLS_ENUM) count };
enum class Held { AGENT_SKILLS_HELD(AGENT_SKILLS_ENUM) count };
#undef AGENT_SKILLS_ENUM

// Everything the module owns besides its dict, declared once: the GC slots and the
// teardown walk these arrays and nothing else.
struct State {
    PyObject* names[static_cast<int>(Name::count)] = {};
    PyObject* texts[static_cast<int>(Text::count)] = {};
    PyObject* held[static_cast<int>(Held::count)] = {};

    PyObject*& operator[](Name n) noexcept { return names[static_cast<int>(n)]; }
    PyObject*& operator[](Text t) noexcept { return texts[static_cast<int>(t)]; }
    PyObject*& operator[](Held h) noexcept { return held[static_cast<int>(h)]; }
    PyObject* operator[](Name n) const noexcept { return names[static_cast<int>(n)]; }
    PyObject* operator[](Text t) const noexcept { return texts[static_cast<int>(t)]; }
    PyObject* operator[](Held h) const noexcept { return held[static_cast<int>(h)]; }

    // Calls visit(slot) for every owned slot; a non-zero answer stops the walk (GC visitors).
    template <class Visit>
    int each(Visit visit) {
        for (std::span<PyObject*> group :
             {std::span<PyObject*>(names), std::span<PyObject*>(texts), std::span<PyObject*>(held)})
            for (PyObject*& slot : group)
                if (int r = visit(slot)) return r;
        return 0;
    }
};

State& state_of(PyObject* module);

// The object bound to `name` now, as LOAD_GLOBAL finds it: in `globals`, then in
// `builtins`; NameError as Python raises it when neither has it.
Ref lookup_global(PyObject* globals, PyObject* builtins, PyObject* name);

// The module registered under `name` (in sys.modules), as the module's import statements
// left it, reached without importing: an import calls the builtins' __import__, which the
// host may watch. Empty when none is registered, or it is no module.
Ref imported_module(const char* name);

// The builtins the module's code runs with, as the interpreter derives them from the
// `__builtins__` entry of its namespace (a module stands for its dict), else the running
// frame's. Borrowed.
PyObject* builtins_of(PyObject* module);

// The namespace of one module as a function sees it while it runs: every name is
// looked up at the moment it is used, in the module's dict and then in builtins.
class Context {
public:
    // `function` is the function whose call this is.
    Context(PyObject* module, PyObject* builtins, PyObject* function);
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    const State& state() const noexcept { return *state_; }
    PyObject* name(Name n) const noexcept { return (*state_)[n]; }
    PyObject* text(Text t) const noexcept { return (*state_)[t]; }
    PyObject* held(Held h) const noexcept { return (*state_)[h]; }
    PyObject* globals() const noexcept { return dict_; }

    // The object bound to the name now; NameError as Python raises it when unbound.
    Ref global(Name n) const { return lookup_global(dict_, builtins_, name(n)); }
    // The object bound in the module's own dict, or null. For identity checks of fast
    // paths, which then fall back to `global` for the real lookup.
    PyObject* peek(Name n) const noexcept;

    // Puts this call's frame at the head of the traceback of the error being raised, once,
    // as the interpreter does for a Python function the error passes through: a handler
    // then sees the frames a Python source of the module would show. Never raises.
    void trace() const noexcept;

    // For a handler in a function's body: the error being raised, fetched with this call's
    // frame on its traceback, as an `except` clause in the function would see it.
    CaughtError catch_error() const {
        trace();
        return CaughtError();
    }

private:
    PyObject* dict_;
    PyObject* builtins_;
    State* state_;
    PyObject* function_;
    mutable Ref frame_;  // made at the first error of the call
};

}  // namespace agent_skills
