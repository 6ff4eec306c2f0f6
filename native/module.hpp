// The module's state and the late-bound view of its namespace that every function uses.
#pragma once

#include "python.hpp"

namespace agent_skills {

// Every name the functions look up or call, interned once per module.
// clang-format off
#define AGENT_SKILLS_NAMES(X)                                                                  \
    X(AGENT_SKILL_ROOTS) X(DEFAULT_AGENTS) X(InstalledSkill) X(Path) X(SKILL_FILE)              \
    X(SKILL_NAMES) X(STAMP_HEAD_BYTES) X(_EXHAUSTIVE_SEARCH_LIMIT) X(_PLAIN_WORD) X(_UNREADABLE) \
    X(_VERSION_RE) X(__version__) X(_say_unreadable) X(_score) X(_shell_word) X(_stamp_inside)  \
    X(_stamps_in) X(_update_command) X(add) X(agent_roots) X(as_posix) X(combinations)          \
    X(current) X(decode) X(exc_info) X(fullmatch) X(get) X(group) X(home) X(inside_root)        \
    X(installed) X(is_file) X(is_relative_to) X(items) X(itertools) X(logger) X(open) X(project) \
    X(read) X(read_roots) X(read_stamp) X(resolve) X(resolve_skill_dirs) X(search)              \
    X(skill_capable_agents) X(split) X(strict) X(user) X(values) X(version_tuple) X(warning)     \
    X(__enter__) X(__exit__) X(__name__)
// clang-format on

enum class Name {
#define AGENT_SKILLS_ENUM(n) n,
    AGENT_SKILLS_NAMES(AGENT_SKILLS_ENUM)
#undef AGENT_SKILLS_ENUM
        count
};

struct State {
    PyTypeObject* function_type = nullptr;
    PyObject* names[static_cast<int>(Name::count)] = {};
    // Texts the functions build with, made once.
    PyObject* text_user = nullptr;
    PyObject* text_project = nullptr;
    PyObject* text_rb = nullptr;
    PyObject* text_utf8 = nullptr;
    PyObject* text_replace = nullptr;
    PyObject* text_empty = nullptr;
    PyObject* text_dot = nullptr;
    PyObject* text_home_directory = nullptr;
    PyObject* text_unreadable_message = nullptr;
    PyObject* kw_strict = nullptr;    // ("strict",)
    PyObject* kw_exc_info = nullptr;  // ("exc_info",)
    // The module's own objects, so a fast path can tell whether they are still bound.
    PyObject* own_score = nullptr;
    PyObject* own_combinations = nullptr;
};

State& state_of(PyObject* module);

// The namespace of one module as a function sees it while it runs: every name is
// looked up at the moment it is used, in the module's dict and then in builtins.
class Context {
public:
    // `function` is the function whose call this is, or null outside any call.
    explicit Context(PyObject* module, PyObject* function = nullptr);
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    ~Context() { Py_XDECREF(frame_); }

    State& state() const noexcept { return *state_; }
    PyObject* name(Name n) const noexcept { return state_->names[static_cast<int>(n)]; }
    PyObject* module() const noexcept { return module_; }

    // The object bound to the name now; NameError as Python raises it when unbound.
    Ref global(Name n) const;
    // The object bound in the module's own dict, or null; never raises. For identity
    // checks of fast paths, which then fall back to `global` for the real lookup.
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
    PyObject* module_;
    PyObject* dict_;
    State* state_;
    PyObject* function_;
    mutable PyObject* frame_ = nullptr;  // made at the first error of the call
};

}  // namespace agent_skills
