// The module's one callable type. Builtin functions cannot carry annotations, a dotted
// qualified name or defaults that a caller may rebind, so every function of the module
// is an instance of this type: a declaration (names, documentation, parameters) plus a
// C++ body that receives its arguments already bound, in parameter order.
#pragma once

#include <array>

#include "module.hpp"

namespace agent_skills {

enum class Kind { positional_or_keyword, keyword_only };

struct Parameter {
    const char* name;
    const char* annotation;  // null: not annotated
    Kind kind = Kind::positional_or_keyword;
    const char* default_text = nullptr;  // the only defaults the module has are texts
};

// Gets one argument per parameter, in parameter order, every one present; the call holds a
// strong reference to each for as long as the body runs.
using Body = Ref (*)(const Context&, PyObject* const* args);

inline constexpr int max_parameters = 3;

struct FunctionDecl {
    const char* name;
    const char* qualname;
    const char* doc;
    std::array<Parameter, max_parameters> parameters;
    int parameter_count;
    const char* returns;
    Body body;
};

// Makes the heap type; called once by the module's execution step.
PyTypeObject* make_function_type(PyObject* module);

// A new function object of the module for the declaration.
Ref make_function(PyObject* module, const FunctionDecl& decl);

// A new frame of the function, for tracebacks, or null with an error set.
PyObject* new_frame(PyObject* function, PyObject* globals) noexcept;

}  // namespace agent_skills
