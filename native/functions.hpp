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

// report.cpp
extern const FunctionDecl installed_skill_versions_function;
extern const FunctionDecl update_command_function;
extern const FunctionDecl shell_word_function;
Ref make_installed_skill(PyObject* module);

// module.cpp: a class made from the module's `NamedTuple` exactly as a class statement
// in the module makes it, with annotations kept as text.
struct Field {
    const char* name;
    const char* annotation;
};
Ref make_record_type(PyObject* module, const char* name, const char* doc, std::initializer_list<Field> fields,
                     std::initializer_list<std::pair<const char*, PyObject*>> members = {});

}  // namespace agent_skills
