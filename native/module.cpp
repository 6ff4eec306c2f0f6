// Entry point and the execution step: binds every name of the module, in the order a
// Python source of the module would bind them.
#include <cstring>
#include <new>
#include <string>

#include "functions.hpp"
#include "scan.hpp"

namespace agent_skills {

State& state_of(PyObject* module) { return *static_cast<State*>(PyModule_GetState(module)); }

Ref lookup_global(PyObject* globals, PyObject* builtins, PyObject* name) {
    for (PyObject* scope : {globals, builtins}) {
        PyObject* value = PyDict_GetItemWithError(scope, name);
        if (value != nullptr) return Ref::borrow(value);
        if (PyErr_Occurred()) raise();
    }
    PyErr_Format(PyExc_NameError, "name '%U' is not defined", name);
    CaughtError error;
    if (error.value() != nullptr) PyObject_SetAttrString(error.value(), "name", name);
    PyErr_Clear();  // a failure to set the attribute must not hide the NameError
    error.restore();
}

Ref imported_module(const char* name) {
    Ref found = Ref::steal_or_null(PyImport_GetModule(str(name).get()));
    if (!found && PyErr_Occurred()) raise();
    return found && PyModule_Check(found.get()) ? std::move(found) : Ref();
}

PyObject* builtins_of(PyObject* module) {
    PyObject* builtins = PyDict_GetItemWithError(PyModule_GetDict(module), state_of(module)[Name::__builtins__]);
    if (builtins == nullptr && PyErr_Occurred()) raise();
    if (builtins != nullptr && PyModule_Check(builtins)) builtins = PyModule_GetDict(builtins);
    return builtins != nullptr && PyDict_Check(builtins) ? builtins : PyEval_GetBuiltins();
}

Context::Context(PyObject* module, PyObject* builtins, PyObject* function)
    : dict_(PyModule_GetDict(module)), builtins_(builtins), state_(&state_of(module)), function_(function) {}

void Context::trace() const noexcept {
    if (!PyErr_Occurred()) return;
    PyObject *type, *value, *tb;
    PyErr_Fetch(&type, &value, &tb);
    if (!frame_) {
        frame_ = Ref::steal_or_null(new_frame(function_, dict_));
        PyErr_Clear();  // without a frame the error goes on as it was
    }
    // PyTracebackObject's layout is public; no call asks which frame a traceback entry holds.
    const bool present = tb != nullptr && reinterpret_cast<PyObject*>(
                                              reinterpret_cast<PyTracebackObject*>(tb)->tb_frame) == frame_.get();
    PyErr_Restore(type, value, tb);
    if (frame_ && !present) PyTraceBack_Here(reinterpret_cast<PyFrameObject*>(frame_.get()));
}

PyObject* Context::peek(Name n) const noexcept {
    PyObject* value = PyDict_GetItemWithError(dict_, name(n));
    if (value == nullptr) PyErr_Clear();
    return value;
}

namespace {

constexpr const char* module_doc =
    "Where agents read the lumeno skills, and which installed copies are older than the package.\n"
    "\n"
    "Shared by the installer (``setup.skill``) and the ``status`` check, which may not import the\n"
    "installer: the names of the embedded skills, the skills directories of each agent, the choice of\n"
    "the directories an install writes, and the read of the version a ``SKILL.md`` is stamped with.\n"
    "Standard library only; reads files, writes none.\n";

// The module's namespace as the execution step writes and reads it, like the statements of
// a module body: names are looked up as LOAD_NAME looks them up, in the module's dict, then
// in its builtins.
class Namespace {
public:
    explicit Namespace(PyObject* module) : module_(module), dict_(PyModule_GetDict(module)) {}
    void bind(const char* name, PyObject* value) const { check(PyDict_SetItemString(dict_, name, value)); }
    void bind(const char* name, const Ref& value) const { bind(name, value.get()); }
    Ref lookup(const char* name) const { return lookup_global(dict_, builtins_of(module_), str(name).get()); }
    void annotate(const char* name, const char* annotation) const {
        check(PyObject_SetItem(lookup("__annotations__").get(), str(name).get(), str(annotation).get()));
    }
    void bind_function(const FunctionDecl& decl) const { bind(decl.name, make_function(module_, decl)); }
    PyObject* module() const noexcept { return module_; }
    PyObject* dict() const noexcept { return dict_; }

private:
    PyObject* module_;
    PyObject* dict_;
};

// Whether `f` is the interpreter's own `builtins.__import__`, for which the import
// statement skips the call. The interpreter keeps its original in a field no public call
// reads, so it is recognised as the builtin function of that name of the builtins module.
bool original_import(PyObject* f) {
    if (!PyCFunction_Check(f)) return false;
    PyObject* owner = PyCFunction_GET_SELF(f);
    return owner != nullptr && PyModule_Check(owner) && std::strcmp(PyModule_GetName(owner), "builtins") == 0 &&
           std::strcmp(reinterpret_cast<PyCFunctionObject*>(f)->m_ml->ml_name, "__import__") == 0;
}

// IMPORT_NAME at module level: `__import__(name, globals, locals, fromlist, 0)`, with the
// `__import__` of the module's builtins, the module's dict as both namespaces.
Ref import_name(const Namespace& ns, const char* name, PyObject* fromlist) {
    Ref name_obj = str(name);
    PyObject* import = PyDict_GetItemWithError(builtins_of(ns.module()), state_of(ns.module())[Name::__import__]);
    if (import == nullptr) {
        if (!PyErr_Occurred()) PyErr_SetString(PyExc_ImportError, "__import__ not found");
        raise();
    }
    if (original_import(import))
        return Ref::steal(PyImport_ImportModuleLevelObject(name_obj.get(), ns.dict(), ns.dict(), fromlist, 0));
    Ref keep = Ref::borrow(import);
    Ref level = Ref::steal(PyLong_FromLong(0));
    return call(import, {name_obj.get(), ns.dict(), ns.dict(), fromlist, level.get()});
}

Ref import_module(const Namespace& ns, const char* name) { return import_name(ns, name, Py_None); }

// `from <module> import <name>`, failing as the interpreter's IMPORT_FROM fails.
Ref import_from(const Namespace& ns, const char* module_name, const char* name) {
    Ref name_obj = str(name);
    Ref fromlist = Ref::steal(PyTuple_Pack(1, name_obj.get()));
    Ref module = import_name(ns, module_name, fromlist.get());
    PyObject* value = PyObject_GetAttr(module.get(), name_obj.get());
    if (value != nullptr) return Ref::steal(value);
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) raise();
    PyErr_Clear();
    // A submodule that a circular import has not yet bound on its package.
    Ref package_name = Ref::steal_or_null(PyObject_GetAttrString(module.get(), "__name__"));
    if (package_name && PyUnicode_Check(package_name.get())) {
        Ref full = Ref::steal(PyUnicode_FromFormat("%U.%U", package_name.get(), name_obj.get()));
        PyObject* submodule = PyImport_GetModule(full.get());
        if (submodule != nullptr) return Ref::steal(submodule);
        if (PyErr_Occurred()) raise();
    } else {
        package_name = Ref();
    }
    PyErr_Clear();
    Ref path = Ref::steal_or_null(PyModule_GetFilenameObject(module.get()));
    Ref shown = package_name ? Ref::borrow(package_name.get()) : str("<unknown module name>");
    if (!path || !PyUnicode_Check(path.get())) {
        PyErr_Clear();
        Ref message = Ref::steal(
            PyUnicode_FromFormat("cannot import name %R from %R (unknown location)", name_obj.get(), shown.get()));
        PyErr_SetImportError(message.get(), package_name.get(), nullptr);
    } else {
        Ref import_record = Ref::steal_or_null(PyObject_GetAttrString(module.get(), "__spec__"));
        bool initializing = false;
        if (import_record) {
            Ref flag = Ref::steal_or_null(PyObject_GetAttrString(import_record.get(), "_initializing"));
            initializing = flag && PyObject_IsTrue(flag.get()) > 0;
        }
        PyErr_Clear();
        const char* format = initializing ? "cannot import name %R from partially initialized module %R "
                                            "(most likely due to a circular import) (%S)"
                                          : "cannot import name %R from %R (%S)";
        Ref message = Ref::steal(PyUnicode_FromFormat(format, name_obj.get(), shown.get(), path.get()));
        PyErr_SetImportError(message.get(), package_name.get(), path.get());
    }
    raise();
}

Ref tuple_of_texts(std::initializer_list<const char*> texts) {
    Ref t = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(texts.size())));
    Py_ssize_t i = 0;
    for (const char* text : texts) PyTuple_SET_ITEM(t.get(), i++, str(text).release());
    return t;
}

Ref compile_pattern(const Namespace& ns, const char* pattern, const char* flag) {
    Ref re = ns.lookup("re");
    Ref compile = getattr(re.get(), str("compile").get());
    if (flag == nullptr) return call(compile.get(), {str(pattern).get()});
    Ref flags = getattr(re.get(), str(flag).get());
    return call(compile.get(), {str(pattern).get(), flags.get()});
}

PyObject* interned(const char* text) {
    PyObject* o = PyUnicode_InternFromString(text);
    if (o == nullptr) raise();
    return o;
}

void intern_state(State& st) {
#define AGENT_SKILLS_NAME(n) st[Name::n] = interned(#n);
    AGENT_SKILLS_NAMES(AGENT_SKILLS_NAME)
#undef AGENT_SKILLS_NAME
#define AGENT_SKILLS_TEXT(n, text) st[Text::n] = interned(text);
    AGENT_SKILLS_TEXTS(AGENT_SKILLS_TEXT)
#undef AGENT_SKILLS_TEXT
    auto names = [](auto... n) {
        PyObject* t = PyTuple_Pack(sizeof...(n), n...);
        if (t == nullptr) raise();
        return t;
    };
    st[Held::kw_strict] = names(st[Name::strict]);
    st[Held::kw_exc_info] = names(st[Name::exc_info]);
}

// What LogRecord makes of a pathname for its `module`: the stem of its last component, as
// os.path.splitext(os.path.basename(pathname))[0] gives it.
Ref file_stem(PyObject* path) {
    const Py_ssize_t length = PyUnicode_GET_LENGTH(path);
    const Py_ssize_t slash = PyUnicode_FindChar(path, '/', 0, length, -1);
    Ref base = Ref::steal(PyUnicode_Substring(path, slash + 1, length));
    const Py_ssize_t dot = PyUnicode_FindChar(base.get(), '.', 0, PyUnicode_GET_LENGTH(base.get()), -1);
    for (Py_ssize_t i = 0; i < dot; ++i)  // leading dots start no extension
        if (PyUnicode_READ_CHAR(base.get(), i) != '.') return Ref::steal(PyUnicode_Substring(base.get(), 0, dot));
    return base;
}

// The file that the functions' code and the warnings' records name: the loader's __file__,
// else the module's name. A record names its module after that file's stem, which for the
// extension carries the platform's tags; one made in the module's own source file would
// give the module's short name.
void name_file(PyObject* module, const Namespace& ns, State& st) {
    PyObject* file = PyDict_GetItemWithError(ns.dict(), st[Name::__file__]);
    if (file == nullptr && PyErr_Occurred()) raise();
    st[Held::file] = file != nullptr && PyUnicode_Check(file) ? Py_NewRef(file) : PyModule_GetNameObject(module);
    if (st[Held::file] == nullptr) raise();
    st[Held::file_stem] = file_stem(st[Held::file]).release();
    Ref name = Ref::steal(PyModule_GetNameObject(module));
    Ref parts = Ref::steal(PyUnicode_RPartition(name.get(), st[Text::dot]));
    st[Held::short_name] = Py_NewRef(PyTuple_GET_ITEM(parts.get(), 2));
}

// What later calls compare bound objects with, and what they need of the host that no
// name of the module reaches: taken once the names are bound.
void capture_originals(const Namespace& ns, State& st) {
    st[Held::own_score] = ns.lookup("_score").release();
    st[Held::own_combinations] = getattr(ns.lookup("itertools").get(), st[Name::combinations]).release();
    // The logging package as its Logger.warning runs, whatever the module's names are bound to.
    if (Ref logging = imported_module("logging")) {
        Ref logger_class = getattr(logging.get(), str("Logger").get());
        st[Held::logger_warning] = getattr(logger_class.get(), st[Name::warning]).release();
        st[Held::logger_log] = getattr(logger_class.get(), st[Name::_log]).release();
        st[Held::logger_find_caller] = getattr(logger_class.get(), st[Name::findCaller]).release();
        st[Held::logging_globals] = Py_NewRef(PyModule_GetDict(logging.get()));
        st[Held::logging_currentframe] = getattr(logging.get(), st[Name::currentframe]).release();
    }
    capture_scan_originals(st, ns.dict());
}

void exec_module(PyObject* module) {
    State& st = state_of(module);
    intern_state(st);
    st[Held::function_type] = reinterpret_cast<PyObject*>(make_function_type(module));
    if (st[Held::function_type] == nullptr) raise();
    Namespace ns(module);
    name_file(module, ns, st);

    // 1. Standard attributes; as exec() does for a module's code, the builtins it runs with.
    if (PyDict_GetItemWithError(ns.dict(), st[Name::__builtins__]) == nullptr) {
        if (PyErr_Occurred()) raise();
        ns.bind("__builtins__", PyEval_GetBuiltins());
    }
    ns.bind("__doc__", str(module_doc));
    Ref name = ns.lookup("__name__");
    Ref parts = Ref::steal(PyUnicode_RPartition(name.get(), str(".").get()));
    ns.bind("__package__", PyTuple_GET_ITEM(parts.get(), 0));
    ns.bind("__annotations__", Ref::steal(PyDict_New()));

    // 2. Imports, as the host's own objects.
    ns.bind("itertools", import_module(ns, "itertools"));
    ns.bind("logging", import_module(ns, "logging"));
    ns.bind("re", import_module(ns, "re"));
    ns.bind("Iterable", import_from(ns, "collections.abc", "Iterable"));
    ns.bind("Path", import_from(ns, "pathlib", "Path"));
    ns.bind("NamedTuple", import_from(ns, "typing", "NamedTuple"));
    ns.bind("__version__", import_from(ns, "zobek_lumeno", "__version__"));

    // 3. The logger named after the module.
    Ref get_logger = getattr(ns.lookup("logging").get(), str("getLogger").get());
    ns.bind("logger", call(get_logger.get(), {ns.lookup("__name__").get()}));

    // 4. Constants.
    ns.bind("SKILL_DIR_NAME", str("lumeno"));
    ns.bind("MAP_SKILL_DIR_NAME", str("lumeno-map"));
    ns.bind("WIKI_SKILL_DIR_NAME", str("lumeno-wiki"));
    {
        Ref names = Ref::steal(PyTuple_New(3));
        const char* sources[] = {"SKILL_DIR_NAME", "MAP_SKILL_DIR_NAME", "WIKI_SKILL_DIR_NAME"};
        for (Py_ssize_t i = 0; i < 3; ++i) PyTuple_SET_ITEM(names.get(), i, ns.lookup(sources[i]).release());
        ns.bind("SKILL_NAMES", names);
        ns.annotate("SKILL_NAMES", "tuple[str, ...]");
    }
    ns.bind("SKILL_FILE", str("SKILL.md"));
    ns.bind("STAMP_HEAD_BYTES", Ref::steal(PyLong_FromLong(2048)));
    ns.bind("_VERSION_RE", compile_pattern(ns, R"(^version:\s*([0-9][\w.\-]*)\s*$)", "MULTILINE"));
    ns.bind("DEFAULT_AGENTS", tuple_of_texts({"claude"}));

    // 5. The agent table.
    ns.bind("SkillRoots", make_skill_roots(module));
    ns.bind("AGENT_SKILL_ROOTS", make_agent_skill_roots(ns.lookup("SkillRoots").get()));
    ns.annotate("AGENT_SKILL_ROOTS", "dict[str, SkillRoots]");

    // 6. Search limit, score type, report state, shell words.
    ns.bind("_EXHAUSTIVE_SEARCH_LIMIT", Ref::steal(PyLong_FromLong(12)));
    {
        auto* tuple_type = reinterpret_cast<PyObject*>(&PyTuple_Type);
        auto* int_type = reinterpret_cast<PyObject*>(&PyLong_Type);
        Ref texts_args = Ref::steal(PyTuple_Pack(2, reinterpret_cast<PyObject*>(&PyUnicode_Type), Py_Ellipsis));
        Ref texts = Ref::steal(Py_GenericAlias(tuple_type, texts_args.get()));
        Ref score_args = Ref::steal(PyTuple_Pack(4, int_type, int_type, int_type, texts.get()));
        ns.bind("_Score", Ref::steal(Py_GenericAlias(tuple_type, score_args.get())));
    }
    ns.bind("_UNREADABLE", Ref::steal(PySet_New(nullptr)));
    ns.annotate("_UNREADABLE", "set[str]");
    ns.bind("_PLAIN_WORD", compile_pattern(ns, R"([\w./:+-]+)", nullptr));

    // 7. Functions and the report record.
    ns.bind_function(skill_capable_agents_function);
    ns.bind_function(agent_roots_function);
    ns.bind_function(read_roots_function);
    ns.bind_function(score_function);
    ns.bind_function(resolve_skill_dirs_function);
    ns.bind_function(read_stamp_function);
    ns.bind_function(version_tuple_function);
    ns.bind_function(inside_root_function);
    ns.bind("InstalledSkill", make_installed_skill(module));
    ns.bind_function(installed_skill_versions_function);
    ns.bind_function(stamps_in_function);
    ns.bind_function(stamp_inside_function);
    ns.bind_function(say_unreadable_function);
    ns.bind_function(update_command_function);
    ns.bind_function(shell_word_function);

    capture_originals(ns, st);
}

// The class statement `class <name>(NamedTuple): ...` of the module: bases resolved
// through __mro_entries__, the metaclass's namespace filled in the order the compiler
// fills a class body, then the metaclass called.
Ref build_class(PyObject* module, const char* name, PyObject* base, const char* doc,
                std::initializer_list<Field> fields, std::initializer_list<std::pair<const char*, PyObject*>> members) {
    Namespace globals(module);
    Ref name_obj = str(name);
    Ref bases = Ref::steal(PyTuple_Pack(1, base));
    Ref resolved = Ref::borrow(bases.get());
    if (!PyType_Check(base)) {
        Ref entries = Ref::steal_or_null(PyObject_GetAttrString(base, "__mro_entries__"));
        if (entries) {
            resolved = call(entries.get(), {bases.get()});
            if (!PyTuple_Check(resolved.get())) {
                PyErr_SetString(PyExc_TypeError, "__mro_entries__ must return a tuple");
                raise();
            }
        } else if (PyErr_ExceptionMatches(PyExc_AttributeError)) {
            PyErr_Clear();
        } else {
            raise();
        }
    }
    auto* meta = reinterpret_cast<PyObject*>(&PyType_Type);
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(resolved.get()); ++i) {
        auto* candidate = reinterpret_cast<PyObject*>(Py_TYPE(PyTuple_GET_ITEM(resolved.get(), i)));
        if (PyType_IsSubtype(reinterpret_cast<PyTypeObject*>(candidate), reinterpret_cast<PyTypeObject*>(meta)))
            meta = candidate;
    }
    Ref prepare = getattr(meta, str("__prepare__").get());
    Ref body = call(prepare.get(), {name_obj.get(), resolved.get()});
    PyObject* ns = body.get();
    check(PyObject_SetItem(ns, str("__module__").get(), globals.lookup("__name__").get()));
    check(PyObject_SetItem(ns, str("__qualname__").get(), name_obj.get()));
#if PY_VERSION_HEX >= 0x030D0000
    // A class statement's line; there is no Python line to give, as for the functions' code.
    Ref first_line = Ref::steal(PyLong_FromLong(0));
    check(PyObject_SetItem(ns, str("__firstlineno__").get(), first_line.get()));
#endif
    Ref annotations = Ref::steal(PyDict_New());
    check(PyObject_SetItem(ns, str("__annotations__").get(), annotations.get()));
    check(PyObject_SetItem(ns, str("__doc__").get(), str(doc).get()));
    for (const Field& field : fields)
        check(PyObject_SetItem(annotations.get(), str(field.name).get(), str(field.annotation).get()));
    for (const auto& [member, value] : members) check(PyObject_SetItem(ns, str(member).get(), value));
#if PY_VERSION_HEX >= 0x030D0000
    // The attributes its methods assign through `self`: the records' methods assign none.
    Ref no_attributes = Ref::steal(PyTuple_New(0));
    check(PyObject_SetItem(ns, str("__static_attributes__").get(), no_attributes.get()));
#endif
    if (resolved.get() != bases.get()) check(PyObject_SetItem(ns, str("__orig_bases__").get(), bases.get()));
    return call(meta, {name_obj.get(), resolved.get(), ns});
}

// A failed execution step must leave nothing registered, so a later import starts afresh.
void unregister(PyObject* module) {
    PyObject *type, *value, *tb;
    PyErr_Fetch(&type, &value, &tb);
    Ref name = Ref::steal_or_null(PyModule_GetNameObject(module));
    PyObject* modules = PyImport_GetModuleDict();
    if (name && modules != nullptr && PyDict_GetItemWithError(modules, name.get()) == module)
        PyDict_DelItem(modules, name.get());
    PyErr_Clear();
    PyErr_Restore(type, value, tb);
}

int module_exec(PyObject* module) {
    try {
        exec_module(module);
        return 0;
    } catch (const PythonError&) {
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    unregister(module);
    return -1;
}

State* live_state(PyObject* module) { return static_cast<State*>(PyModule_GetState(module)); }

int module_traverse(PyObject* module, visitproc visit, void* arg) {
    State* st = live_state(module);
    return st == nullptr ? 0 : st->each([&](PyObject*& slot) {
        Py_VISIT(slot);
        return 0;
    });
}

int module_clear(PyObject* module) {
    if (State* st = live_state(module))
        st->each([](PyObject*& slot) {
            Py_CLEAR(slot);
            return 0;
        });
    return 0;
}

void module_free(void* module) { module_clear(static_cast<PyObject*>(module)); }

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(module_exec)},
#if PY_VERSION_HEX >= 0x030C0000
    // Everything the module keeps is in its own state and types, made for each interpreter; the
    // one process-wide object, the definition, is not written after it is made.
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
#endif
    {0, nullptr},
};

#if PY_VERSION_HEX < 0x030C0000
std::string& module_name() {
    static std::string name = "agent_skills";
    return name;
}
#endif

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT,
#if PY_VERSION_HEX >= 0x030C0000
    "agent_skills",  // the import machinery gives the module its full name
#else
    nullptr,  // set from the import's package context in the entry point
#endif
    nullptr,  // the execution step binds __doc__ in its place in the order
    sizeof(State),
    nullptr,
    module_slots,
    module_traverse,
    module_clear,
    module_free,
};

}  // namespace

Ref make_record_type(PyObject* module, const char* name, const char* doc, std::initializer_list<Field> fields,
                     std::initializer_list<std::pair<const char*, PyObject*>> members) {
    Ref base = Namespace(module).lookup("NamedTuple");
    return build_class(module, name, base.get(), doc, fields, members);
}

}  // namespace agent_skills

extern "C" PyMODINIT_FUNC PyInit_agent_skills() {
    using namespace agent_skills;
#if PY_VERSION_HEX < 0x030C0000
    // The interpreter names the module it is loading; keep the full dotted name. It is handed
    // over only in this private variable, which the import machinery sets for the duration of
    // the entry point; from 3.12 no extension can read it, and the import machinery alone names it.
    if (module_def.m_name == nullptr) {
        if (_Py_PackageContext != nullptr && std::strrchr(_Py_PackageContext, '.') != nullptr)
            module_name() = _Py_PackageContext;
        module_def.m_name = module_name().c_str();
    }
#endif
    return PyModuleDef_Init(&module_def);
}
