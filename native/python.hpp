// Small C++ layer over the CPython C API: one owning reference type, one exception
// type that means "the Python error indicator is set", and the few call helpers the
// module's functions are written with.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

// Where no public call serves, the module reads a few of the interpreter's own structures (each
// use says which and why); their layout is checked for these versions, and a newer one must be
// checked again before it builds.
#if PY_VERSION_HEX < 0x030B0000 || PY_VERSION_HEX >= 0x030E0000
#error "agent_skills is made for CPython 3.11 to 3.13"
#endif

#include <array>
#include <initializer_list>
#include <utility>

namespace agent_skills {

// Thrown when a C API call has failed and left the Python error indicator set. It
// carries nothing: the indicator is the error. Caught only at the C boundary.
struct PythonError {};

[[noreturn]] inline void raise() { throw PythonError{}; }

// A strong reference, move-only.
class Ref {
public:
    Ref() noexcept = default;
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    Ref(Ref&& other) noexcept : ptr_(std::exchange(other.ptr_, nullptr)) {}
    Ref& operator=(Ref&& other) noexcept {
        if (this != &other) {
            PyObject* old = std::exchange(ptr_, std::exchange(other.ptr_, nullptr));
            Py_XDECREF(old);
        }
        return *this;
    }
    ~Ref() { Py_XDECREF(ptr_); }

    // Takes over a new reference; a null one means the call that made it failed.
    static Ref steal(PyObject* p) {
        if (p == nullptr) raise();
        return Ref(p);
    }
    // Takes over a new reference that may be null without an error (lookups).
    static Ref steal_or_null(PyObject* p) noexcept { return Ref(p); }
    static Ref borrow(PyObject* p) noexcept {
        Py_XINCREF(p);
        return Ref(p);
    }

    PyObject* get() const noexcept { return ptr_; }
    PyObject* release() noexcept { return std::exchange(ptr_, nullptr); }
    explicit operator bool() const noexcept { return ptr_ != nullptr; }

private:
    explicit Ref(PyObject* p) noexcept : ptr_(p) {}
    PyObject* ptr_ = nullptr;
};

inline void check(int status) {
    if (status < 0) raise();
}

inline bool truthy(PyObject* o) {
    int r = PyObject_IsTrue(o);
    check(r);
    return r != 0;
}

inline bool contains(PyObject* container, PyObject* item) {
    int r = PySequence_Contains(container, item);
    check(r);
    return r != 0;
}

inline bool compare(PyObject* a, PyObject* b, int op) {
    int r = PyObject_RichCompareBool(a, b, op);
    check(r);
    return r != 0;
}

inline Ref getattr(PyObject* o, PyObject* name) { return Ref::steal(PyObject_GetAttr(o, name)); }

inline Ref call(PyObject* callable, std::initializer_list<PyObject*> args, PyObject* kwnames = nullptr) {
    return Ref::steal(PyObject_Vectorcall(callable, std::data(args),
                                          (args.size() - (kwnames ? PyTuple_GET_SIZE(kwnames) : 0)), kwnames));
}

// obj.name(*args, **kw): the method is looked up on the object, as an attribute call
// does. The trailing `kwnames` arguments are passed by those names.
template <class... Args>
Ref call_method_kw(PyObject* obj, PyObject* name, PyObject* kwnames, Args... args) {
    std::array<PyObject*, 1 + sizeof...(Args)> stack{obj, args...};
    const size_t positional = stack.size() - (kwnames ? static_cast<size_t>(PyTuple_GET_SIZE(kwnames)) : 0);
    return Ref::steal(
        PyObject_VectorcallMethod(name, stack.data(), positional | PY_VECTORCALL_ARGUMENTS_OFFSET, kwnames));
}

template <class... Args>
Ref call_method(PyObject* obj, PyObject* name, Args... args) {
    return call_method_kw(obj, name, nullptr, args...);
}

inline Ref iterate(PyObject* o) { return Ref::steal(PyObject_GetIter(o)); }

// The next item of an iterator, or an empty Ref at its end; an error is thrown.
inline Ref next(PyObject* it) {
    PyObject* item = PyIter_Next(it);
    if (item == nullptr && PyErr_Occurred()) raise();
    return Ref::steal_or_null(item);
}

inline Ref str(const char* text) { return Ref::steal(PyUnicode_FromString(text)); }

inline Ref new_list(Py_ssize_t n = 0) { return Ref::steal(PyList_New(n)); }

inline void append(PyObject* list, PyObject* item) { check(PyList_Append(list, item)); }

// sorted(iterable): a new list sorted with the host's own comparison.
inline Ref sorted(PyObject* iterable) {
    Ref list = Ref::steal(PySequence_List(iterable));
    check(PyList_Sort(list.get()));
    return list;
}

// The error being raised, fetched and normalised, with its traceback attached, so it can
// be handed to Python code as the exception being handled.
class CaughtError {
public:
    CaughtError() {
        PyObject *type, *value, *tb;
        PyErr_Fetch(&type, &value, &tb);
        PyErr_NormalizeException(&type, &value, &tb);
        if (tb != nullptr && value != nullptr) PyException_SetTraceback(value, tb);
        type_ = Ref::steal_or_null(type);
        value_ = Ref::steal_or_null(value);
        tb_ = Ref::steal_or_null(tb);
    }
    bool matches(PyObject* exc_class) const { return PyErr_GivenExceptionMatches(type_.get(), exc_class) != 0; }
    PyObject* value() const noexcept { return value_.get(); }
    // Raises it again, unchanged.
    [[noreturn]] void restore() {
        PyErr_Restore(type_.release(), value_.release(), tb_.release());
        raise();
    }

private:
    Ref type_, value_, tb_;
};

// While alive, makes an exception the one `sys.exc_info()` reports, as an `except` block
// does, and on the way out puts back exactly what the slot held before. The thread's
// exception slot is read directly: PyErr_GetHandledException searches the outer frames
// and would copy an outer exception into this slot (a generator's own, for instance).
class ExceptBlock {
public:
    explicit ExceptBlock(PyObject* exc) {
        _PyErr_StackItem* slot = PyThreadState_Get()->exc_info;
        previous_ = Ref::borrow(slot->exc_value != nullptr ? slot->exc_value : Py_None);
        Py_XSETREF(slot->exc_value, Py_NewRef(exc));
    }
    ExceptBlock(const ExceptBlock&) = delete;
    ExceptBlock& operator=(const ExceptBlock&) = delete;
    ~ExceptBlock() { Py_XSETREF(PyThreadState_Get()->exc_info->exc_value, previous_.release()); }

private:
    Ref previous_;
};

}  // namespace agent_skills
