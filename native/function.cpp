#include "function.hpp"

#include <frameobject.h>
#include <pthread.h>
#include <structmember.h>

#include <algorithm>
#include <cstddef>
#include <new>

namespace agent_skills {
namespace {

struct FunctionObject {
    PyObject_HEAD
    vectorcallfunc vectorcall;
    const FunctionDecl* decl;
    PyObject* module;
    PyObject* builtins;  // as a Python function keeps them: those of its module when made
    PyObject* name;
    PyObject* qualname;
    PyObject* module_name;  // __module__
    PyObject* doc;
    PyObject* annotations;  // dict, or null until asked for (as Python functions do)
    PyObject* defaults;     // tuple or null
    PyObject* kwdefaults;   // dict or null
    PyObject* dict;
    PyObject* weakrefs;
    PyObject* code;         // __code__, made when first asked for
    PyObject* type_params;  // __type_params__ (from 3.12), null for the empty tuple
    PyObject* parameter_names[max_parameters];
};

FunctionObject* as_function(PyObject* o) { return reinterpret_cast<FunctionObject*>(o); }

int positional_count(const FunctionDecl& decl) {
    int n = 0;
    while (n < decl.parameter_count && decl.parameters[n].kind == Kind::positional_or_keyword) ++n;
    return n;
}

// --- argument binding, worded as CPython words its own failures --------------------

[[noreturn]] void too_many_positional(FunctionObject* f, Py_ssize_t given, const Ref* slots) {
    const int argcount = positional_count(*f->decl);
    Py_ssize_t kwonly_given = 0;
    for (int i = argcount; i < f->decl->parameter_count; ++i)
        if (slots[i]) ++kwonly_given;
    const Py_ssize_t defcount = f->defaults ? PyTuple_GET_SIZE(f->defaults) : 0;
    Ref sig;
    bool plural;
    if (defcount) {
        plural = true;
        sig = Ref::steal(PyUnicode_FromFormat("from %zd to %d", argcount - defcount, argcount));
    } else {
        plural = argcount != 1;
        sig = Ref::steal(PyUnicode_FromFormat("%d", argcount));
    }
    Ref kwonly_sig;
    if (kwonly_given) {
        kwonly_sig = Ref::steal(PyUnicode_FromFormat(" positional argument%s (and %zd keyword-only argument%s)",
                                                     given != 1 ? "s" : "", kwonly_given,
                                                     kwonly_given != 1 ? "s" : ""));
    } else {
        kwonly_sig = Ref::borrow(state_of(f->module)[Text::empty]);
    }
    PyErr_Format(PyExc_TypeError, "%U() takes %U positional argument%s but %zd%U %s given", f->qualname, sig.get(),
                 plural ? "s" : "", given, kwonly_sig.get(), given == 1 && !kwonly_given ? "was" : "were");
    raise();
}

[[noreturn]] void missing_arguments(FunctionObject* f, int start, int end, const Ref* slots, const char* kind) {
    Ref names = new_list();
    for (int i = start; i < end; ++i) {
        if (!slots[i]) append(names.get(), Ref::steal(PyObject_Repr(f->parameter_names[i])).get());
    }
    const Py_ssize_t len = PyList_GET_SIZE(names.get());
    Ref joined;
    if (len == 1) {
        joined = Ref::borrow(PyList_GET_ITEM(names.get(), 0));
    } else if (len == 2) {
        joined = Ref::steal(
            PyUnicode_FromFormat("%U and %U", PyList_GET_ITEM(names.get(), 0), PyList_GET_ITEM(names.get(), 1)));
    } else {
        Ref tail = Ref::steal(PyUnicode_FromFormat(", %U, and %U", PyList_GET_ITEM(names.get(), len - 2),
                                                   PyList_GET_ITEM(names.get(), len - 1)));
        check(PyList_SetSlice(names.get(), len - 2, len, nullptr));
        Ref head = Ref::steal(PyUnicode_Join(state_of(f->module)[Text::comma], names.get()));
        joined = Ref::steal(PyUnicode_Concat(head.get(), tail.get()));
    }
    PyErr_Format(PyExc_TypeError, "%U() missing %zd required %s argument%s: %U", f->qualname, len, kind,
                 len == 1 ? "" : "s", joined.get());
    raise();
}

int find_parameter(FunctionObject* f, PyObject* keyword) {
    const int total = f->decl->parameter_count;
    for (int j = 0; j < total; ++j)
        if (f->parameter_names[j] == keyword) return j;
    for (int j = 0; j < total; ++j)
        if (compare(keyword, f->parameter_names[j], Py_EQ)) return j;
    return -1;
}

// Fills one slot per parameter, in the order CPython fills a frame's arguments, so the
// same call fails with the same error first. Each slot takes its own reference at once: a
// keyword's __eq__ or the body may replace the defaults it came from.
void bind(FunctionObject* f, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, Ref* slots) {
    const FunctionDecl& decl = *f->decl;
    const int argcount = positional_count(decl);
    const Py_ssize_t n = std::min<Py_ssize_t>(nargs, argcount);
    for (Py_ssize_t i = 0; i < n; ++i) slots[i] = Ref::borrow(args[i]);

    const Py_ssize_t kwcount = kwnames ? PyTuple_GET_SIZE(kwnames) : 0;
    for (Py_ssize_t k = 0; k < kwcount; ++k) {
        PyObject* keyword = PyTuple_GET_ITEM(kwnames, k);
        if (!PyUnicode_Check(keyword)) {
            PyErr_Format(PyExc_TypeError, "%U() keywords must be strings", f->qualname);
            raise();
        }
        const int j = find_parameter(f, keyword);
        if (j < 0) {
            PyErr_Format(PyExc_TypeError, "%U() got an unexpected keyword argument '%S'", f->qualname, keyword);
            raise();
        }
        if (slots[j]) {
            PyErr_Format(PyExc_TypeError, "%U() got multiple values for argument '%S'", f->qualname, keyword);
            raise();
        }
        slots[j] = Ref::borrow(args[nargs + k]);
    }

    if (nargs > argcount) too_many_positional(f, nargs, slots);

    if (nargs < argcount) {
        Ref defaults = Ref::borrow(f->defaults);
        const Py_ssize_t defcount = defaults ? PyTuple_GET_SIZE(defaults.get()) : 0;
        const Py_ssize_t m = argcount - defcount;
        for (Py_ssize_t i = nargs; i < m; ++i) {
            if (!slots[i]) missing_arguments(f, 0, static_cast<int>(m), slots, "positional");
        }
        for (Py_ssize_t i = (n > m ? n - m : 0); i < defcount; ++i) {
            if (!slots[m + i]) slots[m + i] = Ref::borrow(PyTuple_GET_ITEM(defaults.get(), i));
        }
    }

    for (int i = argcount; i < decl.parameter_count; ++i) {
        if (slots[i]) continue;
        if (f->kwdefaults != nullptr) {
            Ref kwdefaults = Ref::borrow(f->kwdefaults);
            PyObject* value = PyDict_GetItemWithError(kwdefaults.get(), f->parameter_names[i]);
            if (value != nullptr) {
                slots[i] = Ref::borrow(value);
                continue;
            }
            if (PyErr_Occurred()) raise();
        }
        missing_arguments(f, argcount, decl.parameter_count, slots, "keyword-only");
    }
}

// Python-to-Python calls cost the host no C stack, but every call through one of these
// functions does (about 1 KiB a level, with the host's frame evaluation between two of
// them), so recursion through them could exhaust a thread's stack before the recursion
// limit is reached. Refuse as the host refuses deep recursion, while a margin of the
// thread's stack is left: a quarter of it, up to 256 KiB, so small stacks are guarded too.
bool stack_nearly_exhausted() {
    thread_local const char* limit = [] {
        constexpr std::size_t largest_margin = std::size_t{256} * 1024;
        pthread_attr_t attr;
        void* base = nullptr;
        std::size_t size = 0;
        if (pthread_getattr_np(pthread_self(), &attr) == 0) {
            pthread_attr_getstack(&attr, &base, &size);
            pthread_attr_destroy(&attr);
        }
        return base == nullptr ? nullptr : static_cast<const char*>(base) + std::min(largest_margin, size / 4);
    }();
    return limit != nullptr && static_cast<const char*>(__builtin_frame_address(0)) < limit;
}

PyObject* function_vectorcall(PyObject* self, PyObject* const* args, size_t nargsf, PyObject* kwnames) {
    FunctionObject* f = as_function(self);
    if (stack_nearly_exhausted()) {
        PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded");
        return nullptr;
    }
    if (Py_EnterRecursiveCall("")) return nullptr;
    PyObject* result = nullptr;
    // The module and its builtins stay alive for the call even if the body drops the last
    // other reference to them.
    Ref keep_module = Ref::borrow(f->module);
    Ref keep_builtins = Ref::borrow(f->builtins);
    Context cx(f->module, f->builtins, self);
    bool bound = false;  // a call the binder refuses never ran, and shows no frame of its own
    try {
        Ref slots[max_parameters];
        bind(f, args, PyVectorcall_NARGS(nargsf), kwnames, slots);
        bound = true;
        PyObject* arguments[max_parameters];
        for (int i = 0; i < max_parameters; ++i) arguments[i] = slots[i].get();
        result = f->decl->body(cx, arguments).release();
    } catch (const PythonError&) {
        if (bound) cx.trace();
        result = nullptr;
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
        result = nullptr;
    } catch (...) {
        PyErr_SetString(PyExc_SystemError, "unexpected C++ exception in agent_skills");
        result = nullptr;
    }
    Py_LeaveRecursiveCall();
    return result;
}

// --- attributes ---------------------------------------------------------------------

PyObject* get_name(PyObject* self, void*) { return Py_NewRef(as_function(self)->name); }
PyObject* get_qualname(PyObject* self, void*) { return Py_NewRef(as_function(self)->qualname); }

int set_text(PyObject*& field, PyObject* value, const char* what) {
    if (value == nullptr || !PyUnicode_Check(value)) {
        PyErr_Format(PyExc_TypeError, "%s must be set to a string object", what);
        return -1;
    }
    Py_XSETREF(field, Py_NewRef(value));
    return 0;
}
int set_name(PyObject* self, PyObject* value, void*) { return set_text(as_function(self)->name, value, "__name__"); }
int set_qualname(PyObject* self, PyObject* value, void*) {
    return set_text(as_function(self)->qualname, value, "__qualname__");
}

// None stands for "absent", as for Python functions.
template <int (*Check)(PyObject*)>
int set_optional(PyObject*& field, PyObject* value, const char* message) {
    if (value == Py_None) value = nullptr;
    if (value != nullptr && !Check(value)) {
        PyErr_SetString(PyExc_TypeError, message);
        return -1;
    }
    Py_XSETREF(field, Py_XNewRef(value));
    return 0;
}

int tuple_check(PyObject* o) { return PyTuple_Check(o); }
int dict_check(PyObject* o) { return PyDict_Check(o); }

PyObject* get_defaults(PyObject* self, void*) {
    PyObject* d = as_function(self)->defaults;
    return Py_NewRef(d ? d : Py_None);
}
int set_defaults(PyObject* self, PyObject* value, void*) {
    return set_optional<tuple_check>(as_function(self)->defaults, value, "__defaults__ must be set to a tuple object");
}
PyObject* get_kwdefaults(PyObject* self, void*) {
    PyObject* d = as_function(self)->kwdefaults;
    return Py_NewRef(d ? d : Py_None);
}
int set_kwdefaults(PyObject* self, PyObject* value, void*) {
    return set_optional<dict_check>(as_function(self)->kwdefaults, value,
                                    "__kwdefaults__ must be set to a dict object");
}
PyObject* get_annotations(PyObject* self, void*) {
    FunctionObject* f = as_function(self);
    if (f->annotations == nullptr) {
        f->annotations = PyDict_New();
        if (f->annotations == nullptr) return nullptr;
    }
    return Py_NewRef(f->annotations);
}
int set_annotations(PyObject* self, PyObject* value, void*) {
    return set_optional<dict_check>(as_function(self)->annotations, value,
                                    "__annotations__ must be set to a dict object");
}
PyObject* get_globals(PyObject* self, void*) { return Py_NewRef(PyModule_GetDict(as_function(self)->module)); }

// The code object a Python function of these parameters would carry, made at the first
// need: `inspect` then computes the signature from __code__, __defaults__, __kwdefaults__,
// __annotations__ and __globals__ as for a Python function (so `eval_str` evaluates the
// texts in the module's namespace), and tracebacks name the function by it. Its bytecode is
// the empty code's `raise AssertionError`: called through a function of the host's, it
// fails, and it cannot run past its own stack.
PyObject* code_of(FunctionObject* f) {
    if (f->code != nullptr) return f->code;
    const State& st = state_of(f->module);
    try {
        const FunctionDecl& decl = *f->decl;
        const int argcount = positional_count(decl);
        Ref names = Ref::steal(PyTuple_New(decl.parameter_count));
        for (int i = 0; i < decl.parameter_count; ++i)
            PyTuple_SET_ITEM(names.get(), i, Py_NewRef(f->parameter_names[i]));
        Ref counts[] = {Ref::steal(PyLong_FromLong(argcount)),
                        Ref::steal(PyLong_FromLong(decl.parameter_count - argcount)),
                        Ref::steal(PyLong_FromLong(decl.parameter_count)),
                        Ref::steal(PyLong_FromLong(CO_OPTIMIZED | CO_NEWLOCALS))};
        Ref qualname = str(decl.qualname);
        // No parameter is positional-only: the empty code's co_posonlyargcount (0) stands.
        Ref kwnames = Ref::steal(Py_BuildValue("(sssssss)", "co_argcount", "co_kwonlyargcount", "co_nlocals",
                                               "co_flags", "co_varnames", "co_qualname", "co_filename"));
        // The file goes in as the text object it is, which need not be valid UTF-8.
        Ref empty = Ref::steal(reinterpret_cast<PyObject*>(PyCode_NewEmpty("", decl.name, 0)));
        Ref code = call_method_kw(empty.get(), st[Text::replace], kwnames.get(), counts[0].get(), counts[1].get(),
                                  counts[2].get(), counts[3].get(), names.get(), qualname.get(), st[Held::file]);
        // Another thread may have made one meanwhile (the host's code above can switch threads): keep the first.
        if (f->code == nullptr) f->code = code.release();
        return f->code;
    } catch (const PythonError&) {
        return nullptr;
    }
}

PyObject* get_code(PyObject* self, void*) { return Py_XNewRef(code_of(as_function(self))); }

PyObject* function_reduce(PyObject* self, PyObject*) { return Py_NewRef(as_function(self)->qualname); }

PyObject* function_repr(PyObject* self) {
    return PyUnicode_FromFormat("<function %U at %p>", as_function(self)->qualname, self);
}

PyObject* function_descr_get(PyObject* self, PyObject* obj, PyObject*) {
    if (obj == nullptr || obj == Py_None) return Py_NewRef(self);
    return PyMethod_New(self, obj);
}

int function_traverse(PyObject* self, visitproc visit, void* arg) {
    FunctionObject* f = as_function(self);
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(f->module);
    Py_VISIT(f->builtins);
    Py_VISIT(f->name);
    Py_VISIT(f->qualname);
    Py_VISIT(f->module_name);
    Py_VISIT(f->doc);
    Py_VISIT(f->annotations);
    Py_VISIT(f->defaults);
    Py_VISIT(f->kwdefaults);
    Py_VISIT(f->dict);
    Py_VISIT(f->code);
    Py_VISIT(f->type_params);
    return 0;
}

int function_clear(PyObject* self) {
    FunctionObject* f = as_function(self);
    Py_CLEAR(f->module);
    Py_CLEAR(f->builtins);
    Py_CLEAR(f->module_name);
    Py_CLEAR(f->doc);
    Py_CLEAR(f->annotations);
    Py_CLEAR(f->defaults);
    Py_CLEAR(f->kwdefaults);
    Py_CLEAR(f->dict);
    Py_CLEAR(f->code);
    Py_CLEAR(f->type_params);
    return 0;
}

void function_dealloc(PyObject* self) {
    FunctionObject* f = as_function(self);
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    if (f->weakrefs != nullptr) PyObject_ClearWeakRefs(self);
    function_clear(self);
    Py_CLEAR(f->name);
    Py_CLEAR(f->qualname);
    for (PyObject*& p : f->parameter_names) Py_CLEAR(p);
    type->tp_free(self);
    Py_DECREF(type);
}

// A function of the module has no free variables.
PyObject* get_closure(PyObject*, void*) { Py_RETURN_NONE; }

#if PY_VERSION_HEX >= 0x030C0000
PyObject* get_type_params(PyObject* self, void*) {
    PyObject* params = as_function(self)->type_params;
    return params != nullptr ? Py_NewRef(params) : PyTuple_New(0);
}
int set_type_params(PyObject* self, PyObject* value, void*) {
    if (value == nullptr || !PyTuple_Check(value)) {
        PyErr_SetString(PyExc_TypeError, "__type_params__ must be set to a tuple");
        return -1;
    }
    Py_XSETREF(as_function(self)->type_params, Py_NewRef(value));
    return 0;
}
#endif

PyGetSetDef function_getset[] = {
    {"__name__", get_name, set_name, nullptr, nullptr},
    {"__qualname__", get_qualname, set_qualname, nullptr, nullptr},
    {"__defaults__", get_defaults, set_defaults, nullptr, nullptr},
    {"__kwdefaults__", get_kwdefaults, set_kwdefaults, nullptr, nullptr},
    {"__annotations__", get_annotations, set_annotations, nullptr, nullptr},
    {"__globals__", get_globals, nullptr, nullptr, nullptr},
    {"__code__", get_code, nullptr, nullptr, nullptr},
    {"__closure__", get_closure, nullptr, nullptr, nullptr},
#if PY_VERSION_HEX >= 0x030C0000
    {"__type_params__", get_type_params, set_type_params, nullptr, nullptr},
#endif
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMemberDef function_members[] = {
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(FunctionObject, vectorcall), READONLY, nullptr},
    {"__dictoffset__", T_PYSSIZET, offsetof(FunctionObject, dict), READONLY, nullptr},
    {"__weaklistoffset__", T_PYSSIZET, offsetof(FunctionObject, weakrefs), READONLY, nullptr},
    {"__doc__", T_OBJECT, offsetof(FunctionObject, doc), 0, nullptr},
    {"__module__", T_OBJECT, offsetof(FunctionObject, module_name), 0, nullptr},
    {"__builtins__", T_OBJECT, offsetof(FunctionObject, builtins), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyMethodDef function_methods[] = {
    {"__reduce__", function_reduce, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot function_slots[] = {
    {Py_tp_call, reinterpret_cast<void*>(PyVectorcall_Call)},
    {Py_tp_descr_get, reinterpret_cast<void*>(function_descr_get)},
    {Py_tp_repr, reinterpret_cast<void*>(function_repr)},
    {Py_tp_traverse, reinterpret_cast<void*>(function_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(function_clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(function_dealloc)},
    {Py_tp_getset, function_getset},
    {Py_tp_members, function_members},
    {Py_tp_methods, function_methods},
    {0, nullptr},
};

PyType_Spec function_type_description = {
    "function",
    sizeof(FunctionObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_METHOD_DESCRIPTOR |
        Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION,
    function_slots,
};

}  // namespace

PyTypeObject* make_function_type(PyObject* module) {
    return reinterpret_cast<PyTypeObject*>(PyType_FromModuleAndSpec(module, &function_type_description, nullptr));
}

Ref make_function(PyObject* module, const FunctionDecl& decl) {
    const State& st = state_of(module);
    Ref builtins = Ref::borrow(builtins_of(module));
    Ref annotations = Ref::steal(PyDict_New());
    Ref defaults_list = new_list();
    for (int i = 0; i < decl.parameter_count; ++i) {
        const Parameter& p = decl.parameters[i];
        if (p.annotation) check(PyDict_SetItemString(annotations.get(), p.name, str(p.annotation).get()));
        if (p.default_text) append(defaults_list.get(), str(p.default_text).get());
    }
    check(PyDict_SetItem(annotations.get(), st[Text::return_key], str(decl.returns).get()));
    Ref name = str(decl.name);
    Ref qualname = str(decl.qualname);
    Ref doc = str(decl.doc);
    Ref module_name = Ref::steal(PyModule_GetNameObject(module));
    Ref defaults;
    if (PyList_GET_SIZE(defaults_list.get()) > 0) defaults = Ref::steal(PyList_AsTuple(defaults_list.get()));

    auto* f = PyObject_GC_New(FunctionObject, reinterpret_cast<PyTypeObject*>(st[Held::function_type]));
    if (f == nullptr) raise();
    f->vectorcall = function_vectorcall;
    f->decl = &decl;
    f->module = Py_NewRef(module);
    f->builtins = builtins.release();
    f->name = name.release();
    f->qualname = qualname.release();
    f->module_name = module_name.release();
    f->doc = doc.release();
    f->annotations = annotations.release();
    f->defaults = defaults.release();
    f->kwdefaults = nullptr;
    f->dict = nullptr;
    f->weakrefs = nullptr;
    f->code = nullptr;
    f->type_params = nullptr;
    for (PyObject*& p : f->parameter_names) p = nullptr;
    Ref result = Ref::steal(reinterpret_cast<PyObject*>(f));
    for (int i = 0; i < decl.parameter_count; ++i) {
        f->parameter_names[i] = PyUnicode_InternFromString(decl.parameters[i].name);
        if (f->parameter_names[i] == nullptr) raise();
    }
    PyObject_GC_Track(result.get());
    return result;
}

PyObject* new_frame(PyObject* function, PyObject* globals) noexcept {
    auto* code = reinterpret_cast<PyCodeObject*>(code_of(as_function(function)));
    return code == nullptr ? nullptr
                           : reinterpret_cast<PyObject*>(PyFrame_New(PyThreadState_Get(), code, globals, nullptr));
}

}  // namespace agent_skills
