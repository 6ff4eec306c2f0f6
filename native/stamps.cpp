// Version stamps: the head of a SKILL.md, version keys, resolution that refuses links out
// of a skills directory, and the scan of one directory that turns failures into None.
#include <cstdint>
#include <map>
#include <vector>

#include "functions.hpp"
#include "scan.hpp"

namespace agent_skills {
namespace {

// --- `with manager as value: body(value)` -------------------------------------------

// A special method as the interpreter finds it: on the type. A plain method is kept
// unbound and called with the instance first, which spares making a bound method.
class SpecialMethod {
public:
    // _PyType_Lookup is how the interpreter finds special methods: on the type alone,
    // without the instance's own attributes, which any public attribute lookup consults.
    SpecialMethod(PyObject* obj, PyObject* name) : obj_(obj) {
        // Held: a descriptor's __get__ may run code that drops the type's own reference.
        Ref found = Ref::borrow(_PyType_Lookup(Py_TYPE(obj), name));
        if (!found) return;
        unbound_ = PyType_HasFeature(Py_TYPE(found.get()), Py_TPFLAGS_METHOD_DESCRIPTOR);
        descrgetfunc get = Py_TYPE(found.get())->tp_descr_get;
        callable_ = unbound_ || get == nullptr
                        ? std::move(found)
                        : Ref::steal(get(found.get(), obj, reinterpret_cast<PyObject*>(Py_TYPE(obj))));
    }
    explicit operator bool() const noexcept { return static_cast<bool>(callable_); }

    template <class... Args>
    Ref operator()(Args... args) const {
        PyObject* stack[] = {obj_, args...};
        PyObject** first = unbound_ ? stack : stack + 1;
        return Ref::steal(PyObject_Vectorcall(callable_.get(), first, sizeof...(Args) + (unbound_ ? 1 : 0), nullptr));
    }

private:
    PyObject* obj_;
    Ref callable_;
    bool unbound_ = false;
};

// Runs body(value) inside the manager's context, as a `with` statement does; an empty
// Ref means the manager suppressed the body's exception.
template <class Body>
Ref with_context(const Context& cx, PyObject* manager, Body body) {
    SpecialMethod enter(manager, cx.name(Name::__enter__));
    if (!enter) {
        PyErr_Format(PyExc_TypeError, "'%.200s' object does not support the context manager protocol",
                     Py_TYPE(manager)->tp_name);
        raise();
    }
    SpecialMethod exit(manager, cx.name(Name::__exit__));
    if (!exit) {
        PyErr_Format(PyExc_TypeError,
                     "'%.200s' object does not support the context manager protocol (missed __exit__ method)",
                     Py_TYPE(manager)->tp_name);
        raise();
    }
    Ref value = enter();
    Ref result;
    try {
        result = body(value.get());
    } catch (const PythonError&) {
        CaughtError error = cx.catch_error();
        bool suppress;
        {
            ExceptBlock block(error.value());
            PyObject* value_obj = error.value();
            auto* type_obj = reinterpret_cast<PyObject*>(Py_TYPE(value_obj));
            Ref tb = Ref::steal_or_null(PyException_GetTraceback(value_obj));
            Ref answer = exit(type_obj, value_obj, tb ? tb.get() : Py_None);
            suppress = truthy(answer.get());
        }
        if (!suppress) error.restore();
        return Ref();
    }
    exit(Py_None, Py_None, Py_None);
    return result;
}

// --- read_stamp ----------------------------------------------------------------------

Ref read_stamp(const Context& cx, PyObject* const* args) {
    if (std::optional<Ref> native = native_read_stamp(cx, args[0])) return std::move(*native);
    Ref file = call_method(args[0], cx.name(Name::open), cx.text(Text::rb));
    Ref head = with_context(cx, file.get(), [&](PyObject* handle) {
        Ref size = cx.global(Name::STAMP_HEAD_BYTES);
        return call_method(handle, cx.name(Name::read), size.get());
    });
    if (!head) {
        PyErr_SetString(PyExc_UnboundLocalError,
                        "cannot access local variable 'head' where it is not associated with a value");
        raise();
    }
    return stamp_of_head(cx, head.get());
}

// --- version_tuple -------------------------------------------------------------------

// The exact value of a run of decimal digits of any length, without the host's limit on
// converting long texts: 18-digit chunks joined by halves, so the work is that of a few
// big multiplications rather than quadratic.
class DigitRun {
public:
    explicit DigitRun(std::vector<std::uint8_t> digits) : digits_(std::move(digits)) {}
    Ref value() { return convert(0, digits_.size()); }

private:
    static constexpr size_t chunk = 18;

    Ref convert(size_t begin, size_t end) {
        if (end - begin <= chunk) {
            unsigned long long v = 0;
            for (size_t i = begin; i < end; ++i) v = v * 10 + digits_[i];
            return Ref::steal(PyLong_FromUnsignedLongLong(v));
        }
        const size_t low_length = (end - begin) / 2;
        Ref high = convert(begin, end - low_length);
        Ref low = convert(end - low_length, end);
        Ref shifted = Ref::steal(PyNumber_Multiply(high.get(), power_of_ten(low_length)));
        return Ref::steal(PyNumber_Add(shifted.get(), low.get()));
    }

    PyObject* power_of_ten(size_t exponent) {
        auto found = powers_.find(exponent);
        if (found != powers_.end()) return found->second.get();
        Ref ten = Ref::steal(PyLong_FromLong(10));
        Ref e = Ref::steal(PyLong_FromSize_t(exponent));
        Ref p = Ref::steal(PyNumber_Power(ten.get(), e.get(), Py_None));
        return powers_.emplace(exponent, std::move(p)).first->second.get();
    }

    std::vector<std::uint8_t> digits_;
    std::map<size_t, Ref> powers_;
};

// The key element of one piece: its leading decimal digits (any script's), else 0.
Ref piece_value(int kind, const void* data, Py_ssize_t begin, Py_ssize_t end) {
    std::vector<std::uint8_t> digits;
    unsigned long long small = 0;
    Py_ssize_t i = begin;
    for (; i < end; ++i) {
        const int d = Py_UNICODE_TODECIMAL(PyUnicode_READ(kind, data, i));
        if (d < 0) break;
        if (digits.empty() && d == 0) continue;  // leading zeros change nothing
        if (digits.size() < 19) small = small * 10 + static_cast<unsigned>(d);
        digits.push_back(static_cast<std::uint8_t>(d));
    }
    if (digits.size() < 19) return Ref::steal(PyLong_FromUnsignedLongLong(small));
    return DigitRun(std::move(digits)).value();
}

void append_pieces(std::vector<Ref>& key, PyObject* text) {
    const int kind = PyUnicode_KIND(text);
    const void* data = PyUnicode_DATA(text);
    const Py_ssize_t length = PyUnicode_GET_LENGTH(text);
    Py_ssize_t begin = 0;
    for (Py_ssize_t i = 0; i <= length; ++i) {
        if (i == length || PyUnicode_READ(kind, data, i) == '.') {
            key.push_back(piece_value(kind, data, begin, i));
            begin = i + 1;
        }
    }
}

Ref version_tuple(const Context& cx, PyObject* const* args) {
    PyObject* v = args[0];
    std::vector<Ref> key;
    if (PyUnicode_CheckExact(v)) {
        if (PyUnicode_READY(v) < 0) raise();
        append_pieces(key, v);
    } else {
        // Anything else, str subclasses included (their `split` may come from the class or
        // the instance): split as it splits itself, and match digits as the host's pattern
        // matching would, which takes text pieces only.
        Ref pieces = call_method(v, cx.name(Name::split), cx.text(Text::dot));
        Ref it = iterate(pieces.get());
        while (Ref piece = next(it.get())) {
            if (!PyUnicode_Check(piece.get())) {
                if (PyObject_CheckBuffer(piece.get())) {
                    PyErr_SetString(PyExc_TypeError, "cannot use a string pattern on a bytes-like object");
                } else {
                    PyErr_Format(PyExc_TypeError, "expected string or bytes-like object, got '%.200s'",
                                 Py_TYPE(piece.get())->tp_name);
                }
                raise();
            }
            if (PyUnicode_READY(piece.get()) < 0) raise();
            const Py_ssize_t length = PyUnicode_GET_LENGTH(piece.get());
            key.push_back(piece_value(PyUnicode_KIND(piece.get()), PyUnicode_DATA(piece.get()), 0, length));
        }
    }
    Ref result = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(key.size())));
    for (size_t i = 0; i < key.size(); ++i)
        PyTuple_SET_ITEM(result.get(), static_cast<Py_ssize_t>(i), key[i].release());
    return result;
}

// --- inside_root ---------------------------------------------------------------------

Ref inside_root(const Context& cx, PyObject* const* args) {
    PyObject* root = args[0];
    PyObject* path = args[1];
    Ref real = call_method_kw(path, cx.name(Name::resolve), cx.held(Held::kw_strict), args[2]);
    Ref inside = call_method(real.get(), cx.name(Name::is_relative_to), root);
    if (truthy(inside.get())) return real;
    return Ref::borrow(Py_None);
}

// --- the scan of one directory ------------------------------------------------------

Ref stamps_in(const Context& cx, PyObject* const* args) {
    PyObject* directory = args[0];
    if (std::optional<Ref> native = native_stamps_in(cx, directory)) return std::move(*native);
    Ref root;
    try {
        root = call_method_kw(directory, cx.name(Name::resolve), cx.held(Held::kw_strict), Py_True);
    } catch (const PythonError&) {
        return except_unreadable(cx, directory, [&] { return all_absent(cx); });
    }
    Ref stamps = Ref::steal(PyDict_New());
    Ref names = cx.global(Name::SKILL_NAMES);
    Ref it = iterate(names.get());
    while (Ref skill = next(it.get())) {
        Ref stamp = call(cx.global(Name::_stamp_inside).get(), {root.get(), skill.get()});
        check(PyDict_SetItem(stamps.get(), skill.get(), stamp.get()));
    }
    return stamps;
}

Ref stamp_inside(const Context& cx, PyObject* const* args) {
    PyObject* root = args[0];
    PyObject* skill = args[1];
    Ref skill_dir = Ref::steal(PyNumber_TrueDivide(root, skill));
    Ref path = Ref::steal(PyNumber_TrueDivide(skill_dir.get(), cx.global(Name::SKILL_FILE).get()));
    try {
        Ref real = call(cx.global(Name::inside_root).get(), {root, path.get(), Py_True}, cx.held(Held::kw_strict));
        if (real.get() == Py_None) return real;
        if (!truthy(call_method(real.get(), cx.name(Name::is_file)).get())) return Ref::borrow(Py_None);
        return call(cx.global(Name::read_stamp).get(), {real.get()});
    } catch (const PythonError&) {
        return except_unreadable(cx, path.get(), [] { return Ref::borrow(Py_None); });
    }
}

// Whether `obj.<name>` is the method `original` bound to `obj`, found without running any
// code of the host's (a type with its own attribute lookup never qualifies).
bool bound_original(PyObject* obj, PyObject* name, PyObject* original) {
    if (Py_TYPE(obj)->tp_getattro != PyObject_GenericGetAttr) return false;
    Ref bound = Ref::steal_or_null(PyObject_GetAttr(obj, name));
    if (!bound) PyErr_Clear();
    return bound && PyMethod_Check(bound.get()) && PyMethod_GET_FUNCTION(bound.get()) == original &&
           PyMethod_GET_SELF(bound.get()) == obj;
}

// A record names its module after its file's stem, which for the extension carries the
// platform's tags; a record made in the module's source file would give the module's short
// name. A record factory that chose another name keeps it, and a record that refuses the
// name is left as it is, as Logger.warning would leave it.
void name_module(const Context& cx, PyObject* record) {
    Ref module = Ref::steal_or_null(PyObject_GetAttr(record, cx.name(Name::module)));
    if (module && PyUnicode_CheckExact(module.get()) &&
        PyUnicode_Compare(module.get(), cx.held(Held::file_stem)) == 0 &&
        PyObject_SetAttr(record, cx.name(Name::module), cx.held(Held::short_name)) == 0)
        return;
    PyErr_Clear();
}

// `logger.warning(message, key, exc_info=True)`. When that is the host's own
// Logger.warning, the record is made as it makes one, through the logger's own
// isEnabledFor, makeRecord and handle, but with the caller a Python module's record would
// name: this function, in the module's file (there is no Python frame to find).
void warn_unreadable(const Context& cx, PyObject* logger, PyObject* key) {
    // Without a logging package registered at import there is no original to compare with.
    PyObject* logging = cx.held(Held::logging_globals);
    PyObject* currentframe = nullptr;
    PyObject* srcfile = nullptr;
    if (logging != nullptr) {
        currentframe = PyDict_GetItemWithError(logging, cx.name(Name::currentframe));
        if (currentframe == nullptr && PyErr_Occurred()) raise();
        srcfile = PyDict_GetItemWithError(logging, cx.name(Name::_srcfile));
        if (srcfile == nullptr && PyErr_Occurred()) raise();
    }
    if (srcfile == nullptr || currentframe != cx.held(Held::logging_currentframe) ||
        !bound_original(logger, cx.name(Name::warning), cx.held(Held::logger_warning)) ||
        !bound_original(logger, cx.name(Name::_log), cx.held(Held::logger_log)) ||
        !bound_original(logger, cx.name(Name::findCaller), cx.held(Held::logger_find_caller))) {
        call_method_kw(logger, cx.name(Name::warning), cx.held(Held::kw_exc_info), cx.text(Text::unreadable_message),
                       key, Py_True);
        return;
    }
    Ref level = Ref::steal(PyLong_FromLong(30));  // logging.WARNING
    if (!truthy(call_method(logger, cx.name(Name::isEnabledFor), level.get()).get())) return;
    const bool located = truthy(srcfile);
    PyObject* filename = located ? cx.held(Held::file) : cx.text(Text::unknown_file);
    PyObject* function = located ? cx.text(Text::say_unreadable_name) : cx.text(Text::unknown_function);
    Ref lineno = Ref::steal(PyLong_FromLong(0));
    // sys.exc_info(): the exception being handled, wherever it is handled.
    Ref exc_info = Ref::steal(PyTuple_Pack(3, Py_None, Py_None, Py_None));
    if (Ref handled = Ref::steal_or_null(PyErr_GetHandledException())) {
        Ref tb = Ref::steal_or_null(PyException_GetTraceback(handled.get()));
        exc_info = Ref::steal(PyTuple_Pack(3, Py_TYPE(handled.get()), handled.get(), tb ? tb.get() : Py_None));
    }
    Ref record_args = Ref::steal(PyTuple_Pack(1, key));
    Ref name = getattr(logger, cx.name(Name::name));
    Ref record = call_method(logger, cx.name(Name::makeRecord), name.get(), level.get(), filename, lineno.get(),
                             cx.text(Text::unreadable_message), record_args.get(), exc_info.get(), function, Py_None,
                             Py_None);
    if (located) name_module(cx, record.get());
    call_method(logger, cx.name(Name::handle), record.get());
}

Ref say_unreadable(const Context& cx, PyObject* const* args) {
    Ref key = Ref::steal(PyObject_Str(args[0]));
    Ref unreadable = cx.global(Name::_UNREADABLE);
    // Test and insert back to back: two threads meeting one path log it once.
    if (contains(unreadable.get(), key.get())) return Ref::borrow(Py_None);
    if (PySet_CheckExact(unreadable.get())) {
        check(PySet_Add(unreadable.get(), key.get()));
    } else {
        call_method(unreadable.get(), cx.name(Name::add), key.get());
    }
    warn_unreadable(cx, cx.global(Name::logger).get(), key.get());
    return Ref::borrow(Py_None);
}

}  // namespace

Ref stamp_of_head(const Context& cx, PyObject* head) {
    Ref text = PyBytes_CheckExact(head)
                   ? Ref::steal(PyUnicode_DecodeUTF8(PyBytes_AS_STRING(head), PyBytes_GET_SIZE(head), "replace"))
                   : call_method(head, cx.name(Name::decode), cx.text(Text::utf8), cx.text(Text::replace));
    const Py_ssize_t length = PyObject_Size(head);
    if (length < 0) raise();
    Ref length_obj = Ref::steal(PyLong_FromSsize_t(length));
    if (compare(length_obj.get(), cx.global(Name::STAMP_HEAD_BYTES).get(), Py_EQ)) {
        // The head may have cut its last line: keep only whole lines.
        if (PyUnicode_CheckExact(text.get())) {
            const Py_ssize_t end = PyUnicode_GET_LENGTH(text.get());
            const Py_ssize_t last = PyUnicode_FindChar(text.get(), '\n', 0, end, -1);
            if (last == -2) raise();
            text = Ref::steal(PyUnicode_Substring(text.get(), 0, last + 1));
        } else {
            Ref found = call_method(text.get(), cx.name(Name::rfind), cx.text(Text::newline));
            Ref one = Ref::steal(PyLong_FromLong(1));
            Ref stop = Ref::steal(PyNumber_Add(found.get(), one.get()));
            Ref cut = Ref::steal(PySlice_New(nullptr, stop.get(), nullptr));
            text = Ref::steal(PyObject_GetItem(text.get(), cut.get()));
        }
    }
    Ref pattern = cx.global(Name::_VERSION_RE);
    Ref match = call_method(pattern.get(), cx.name(Name::search), text.get());
    if (match.get() == Py_None) return match;
    Ref one = Ref::steal(PyLong_FromLong(1));
    return call_method(match.get(), cx.name(Name::group), one.get());
}

Ref all_absent(const Context& cx) {
    Ref names = cx.global(Name::SKILL_NAMES);
    return Ref::steal(
        PyObject_CallMethodOneArg(reinterpret_cast<PyObject*>(&PyDict_Type), cx.name(Name::fromkeys), names.get()));
}

const FunctionDecl read_stamp_function{
    "read_stamp",
    "read_stamp",
    R"(The version a skill file is stamped with, read from the head of the file only.

    A line that the head cuts off is left out, so a stamp is never taken from part of its line.

    Raises:
        OSError: The file cannot be opened or read.
    )",
    {{{"path", "Path"}}},
    1,
    "str | None",
    read_stamp,
};

const FunctionDecl version_tuple_function{
    "version_tuple",
    "version_tuple",
    R"(Lenient numeric version key ('1.10.0' -> (1, 10, 0)); non-ints count as 0.)",
    {{{"v", "str"}}},
    1,
    "tuple[int, ...]",
    version_tuple,
};

const FunctionDecl inside_root_function{
    "inside_root",
    "inside_root",
    R"(``path`` with its links followed, when it stays under the resolved ``root``.

    Args:
        root: A skills directory, already resolved.
        path: A path under it, as written.
        strict: Whether ``path`` must exist (``Path.resolve(strict=True)``).

    Returns:
        The real path, or None when a link takes it out of ``root``.

    Raises:
        OSError: ``strict`` and the path does not exist, or it cannot be resolved.
        RuntimeError: A loop of links.
    )",
    {{{"root", "Path"}, {"path", "Path"}, {"strict", "bool", Kind::keyword_only}}},
    3,
    "Path | None",
    inside_root,
};

const FunctionDecl stamps_in_function{
    "_stamps_in",
    "_stamps_in",
    R"(The stamp of each embedded skill in one skills directory, read only from inside it.)",
    {{{"directory", "Path"}}},
    1,
    "dict[str, str | None]",
    stamps_in,
};

const FunctionDecl stamp_inside_function{
    "_stamp_inside",
    "_stamp_inside",
    R"(The stamp of one skill under a resolved skills directory; None when its file is outside.)",
    {{{"root", "Path"}, {"skill", "str"}}},
    2,
    "str | None",
    stamp_inside,
};

const FunctionDecl say_unreadable_function{
    "_say_unreadable",
    "_say_unreadable",
    R"(Log, once for each, a skills directory or file that cannot be read (call it in ``except``).)",
    {{{"what", "Path | str"}}},
    1,
    "None",
    say_unreadable,
};

}  // namespace agent_skills
