// The declarations of the module's functions and records, one concern per source file;
// the execution step binds them in the module's order.
#pragma once

#include <initializer_list>
#include <utility>

#include "function.hpp"

namespace agent_skills {

// roots.cpp
extern const FunctionDecl skill_capable_agents_function;
extern const FunctionDecl agent_roots_function;
extern const FunctionDecl read_roots_function;
Ref make_skill_roots(PyObject* module);
Ref make_agent_skill_roots(PyObject* skill_roots);

// choice.cpp
extern const FunctionDecl score_function;
extern const FunctionDecl resolve_skill_dirs_function;

// stamps.cpp
extern const FunctionDecl read_stamp_function;
extern const FunctionDecl version_tuple_function;
extern const FunctionDecl inside_root_function;
extern const FunctionDecl stamps_in_function;
extern const FunctionDecl stamp_inside_function;
extern const FunctionDecl say_unreadable_function;
// The stamp in the head of a SKILL.md, as read_stamp finds it: decoded, cut to whole lines
// when the head is full, searched with the bound pattern.
Ref stamp_of_head(const Context& cx, PyObject* head);
// Every skill name mapped to None: a scan's answer for a directory that is not there.
Ref all_absent(const Context& cx);

// report.cpp
extern const FunctionDecl installed_skill_versions_function;
extern const FunctionDecl update_command_function;
extern const FunctionDecl shell_word_function;
Ref make_installed_skill(PyObject* module);

// What the scan's handlers catch: the two kinds of file-system failure, or only the
// RuntimeError of a home directory that cannot be determined.
enum class Catching { scan_failures, undetermined_home };

// The handler put around a file-system step, given the error it caught, as the `except`
// clauses a Python source would write:
//   except (FileNotFoundError, NotADirectoryError): return answer()    [not there]
//   except (OSError, RuntimeError): _say_unreadable(what); return answer()
// Any other error propagates unchanged. The answer is built while the error is still the
// one being handled, so an error raised there chains to it as in the `except` block.
template <class Answer>
Ref handle_unreadable(const Context& cx, CaughtError error, PyObject* what, Answer answer,
                      Catching catching = Catching::scan_failures) {
    const bool scan = catching == Catching::scan_failures;
    const bool absent = scan && (error.matches(PyExc_FileNotFoundError) || error.matches(PyExc_NotADirectoryError));
    const bool unreadable = !absent && (error.matches(PyExc_RuntimeError) || (scan && error.matches(PyExc_OSError)));
    if (!absent && !unreadable) error.restore();
    ExceptBlock block(error.value());
    if (unreadable) call(cx.global(Name::_say_unreadable).get(), {what});
    return answer();
}

// The same handler in the function whose call this is: the error is caught there.
template <class Answer>
Ref except_unreadable(const Context& cx, PyObject* what, Answer answer, Catching catching = Catching::scan_failures) {
    return handle_unreadable(cx, cx.catch_error(), what, answer, catching);
}

// module.cpp: a class made from the module's `NamedTuple` exactly as a class statement
// in the module makes it, with annotations kept as text.
struct Field {
    const char* name;
    const char* annotation;
};
Ref make_record_type(PyObject* module, const char* name, const char* doc, std::initializer_list<Field> fields,
                     std::initializer_list<std::pair<const char*, PyObject*>> members = {});

}  // namespace agent_skills
