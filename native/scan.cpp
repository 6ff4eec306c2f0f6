// The native route of the directory scan and of read_stamp. The plain route, in
// stamps.cpp, goes through the host's path objects; this one makes the same system calls
// itself, while the guard below says that the plain route would reach nothing but the
// host's own pathlib, posixpath, os and io. What the host's calls would raise, it raises
// as they would (the same exception, errno, message and path, the same `open` audit event
// before the open) and handles as the plain route's `except` clauses do; only where no
// single host call would fail the same way (a descriptor it would not need, a path too long
// for a buffer here) does it hand that skill, or directory, to the plain route.
//
// Unlike the plain route, it opens a file from the resolved skills directory's
// descriptor, one component at a time, without following links: a component swapped for
// a link after the resolution makes it resolve again, never read outside.
#include "scan.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "functions.hpp"

namespace agent_skills {
namespace {

// --- the guard ----------------------------------------------------------------------

// Where the plain route finds what it calls: the host's modules, the concrete path class and
// what it reaches besides, captured at import; each is itself reached through a checked entry.
// Everything the plain route reaches from `directory.resolve(strict=True)`, `root / skill`,
// `inside_root`, `is_file` and `read_stamp` is listed, as each version's pathlib and posixpath
// reach it.
#if PY_VERSION_HEX >= 0x030D0000
// pathlib is a package: the path classes and their globals are in pathlib._local, is_file's in
// pathlib._abc; containment asks the path's parents; realpath walks without recursion.
enum class Owner { pathlib, pathlib_abc, os, posixpath, stat, io, path_class, parents, count };
#elif PY_VERSION_HEX >= 0x030C0000
// Containment asks the path's parents; the flavour is posixpath itself.
enum class Owner { pathlib, os, posixpath, stat, io, path_class, parents, count };
#else
enum class Owner { pathlib, os, posixpath, stat, io, path_class, flavour, count };
#endif

struct Guarded {
    Owner owner;
    const char* name;
};

constexpr Guarded guarded[] = {
    {Owner::pathlib, "os"},
    {Owner::pathlib, "io"},
    {Owner::pathlib, "PurePath"},
    {Owner::os, "path"},
    {Owner::os, "fspath"},
    {Owner::os, "lstat"},
    {Owner::os, "readlink"},
    {Owner::os, "stat"},
    {Owner::os, "getcwd"},
    {Owner::posixpath, "os"},
    {Owner::posixpath, "stat"},
    {Owner::posixpath, "realpath"},
    {Owner::posixpath, "join"},
    {Owner::posixpath, "_get_sep"},
    {Owner::stat, "S_ISLNK"},
    {Owner::io, "open"},
    {Owner::path_class, "resolve"},
    {Owner::path_class, "is_file"},
    {Owner::path_class, "stat"},
    {Owner::path_class, "open"},
    {Owner::path_class, "is_relative_to"},
    {Owner::path_class, "__truediv__"},
    {Owner::path_class, "__new__"},
    {Owner::path_class, "__fspath__"},
    {Owner::path_class, "__str__"},
    {Owner::path_class, "_format_parsed_parts"},
    {Owner::path_class, "_from_parsed_parts"},
#if PY_VERSION_HEX >= 0x030C0000
    {Owner::pathlib, "_PathParents"},
    {Owner::pathlib, "sys"},
    {Owner::posixpath, "splitdrive"},
    {Owner::posixpath, "splitroot"},
    {Owner::path_class, "__init__"},
    {Owner::path_class, "__eq__"},
    {Owner::path_class, "with_segments"},
    {Owner::path_class, "_parse_path"},
    {Owner::path_class, "_str_normcase"},
    {Owner::path_class, "_tail"},
    {Owner::path_class, "drive"},
    {Owner::path_class, "root"},
    {Owner::path_class, "parents"},
    {Owner::parents, "__init__"},
    {Owner::parents, "__getitem__"},
    {Owner::parents, "__len__"},
    {Owner::parents, "__contains__"},
    {Owner::parents, "__iter__"},
#endif
#if PY_VERSION_HEX >= 0x030D0000
    {Owner::pathlib, "posixpath"},
    {Owner::pathlib_abc, "S_ISREG"},
    {Owner::pathlib_abc, "_ignore_error"},
    {Owner::pathlib_abc, "_IGNORED_ERRNOS"},
    {Owner::path_class, "_from_parsed_string"},
    {Owner::path_class, "_raw_path"},
    {Owner::path_class, "parser"},
#else
    {Owner::pathlib, "S_ISREG"},
    {Owner::pathlib, "ELOOP"},
    {Owner::pathlib, "_ignore_error"},
    {Owner::pathlib, "_IGNORED_ERRNOS"},
    {Owner::posixpath, "_joinrealpath"},
    {Owner::posixpath, "abspath"},
    {Owner::posixpath, "isabs"},
    {Owner::posixpath, "split"},
    {Owner::posixpath, "normpath"},
    {Owner::posixpath, "_path_normpath"},
    {Owner::path_class, "_flavour"},
#endif
#if PY_VERSION_HEX >= 0x030C0000 && PY_VERSION_HEX < 0x030D0000
    {Owner::pathlib, "_is_case_sensitive"},
    {Owner::path_class, "joinpath"},
    {Owner::path_class, "_load_parts"},
#endif
#if PY_VERSION_HEX < 0x030C0000
    {Owner::path_class, "relative_to"},
    {Owner::path_class, "_make_child"},
    {Owner::path_class, "_parse_args"},
    {Owner::path_class, "_from_parts"},
    {Owner::flavour, "parse_parts"},
    {Owner::flavour, "join_parsed_parts"},
    {Owner::flavour, "splitroot"},
    {Owner::flavour, "casefold_parts"},
    {Owner::flavour, "join"},
    {Owner::flavour, "sep"},
    {Owner::flavour, "altsep"},
#endif
};
constexpr Py_ssize_t guarded_count = sizeof guarded / sizeof guarded[0];

// What `owner.<name>` is now, as an identity to compare: a method bound to the owner
// stands for its function, since each lookup binds anew. Null when absent.
Ref current(PyObject* owner, PyObject* name) {
    if (PyModule_CheckExact(owner)) {
        PyObject* value = PyDict_GetItemWithError(PyModule_GetDict(owner), name);
        if (value == nullptr && PyErr_Occurred()) raise();
        return Ref::borrow(value);
    }
    Ref value = Ref::steal_or_null(PyObject_GetAttr(owner, name));
    if (!value) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) raise();
        PyErr_Clear();
        return value;
    }
    if (PyMethod_Check(value.get()) && PyMethod_GET_SELF(value.get()) == owner)
        return Ref::borrow(PyMethod_GET_FUNCTION(value.get()));
    return value;
}

PyObject* item(PyObject* tuple, Py_ssize_t i) { return PyTuple_GET_ITEM(tuple, i); }
PyObject* owner(const Context& cx, Owner o) { return item(cx.held(Held::scan_owners), static_cast<Py_ssize_t>(o)); }

#if PY_VERSION_HEX >= 0x030C0000
// Whether a tool of sys.monitoring is registered: it may watch the host's calls as a profiler does.
// Nothing short of asking it tells; in the usual case no tool is, and each answer is None.
bool monitored(const Context& cx) {
    PyObject* monitoring = PySys_GetObject("monitoring");
    if (monitoring == nullptr) return false;
    try {
        Ref get_tool = getattr(monitoring, cx.name(Name::get_tool));
        for (long tool = 0; tool < 6; ++tool) {  // the tool identifiers sys.monitoring hands out
            Ref id = Ref::steal(PyLong_FromLong(tool));
            if (call(get_tool.get(), {id.get()}).get() != Py_None) return true;
        }
    } catch (const PythonError&) {
        PyErr_Clear();  // cannot tell: the plain route, which a tool would see
        return true;
    }
    return false;
}
#endif

// Whether a profile or trace function is set on this thread: they must see the host's calls.
// The thread state's fields are the only way to ask without building objects.
bool profiled() {
    PyThreadState* ts = PyThreadState_Get();
    return ts->c_profilefunc != nullptr || ts->c_tracefunc != nullptr;
}

// The same, or a tool of sys.monitoring registered.
bool traced([[maybe_unused]] const Context& cx) {
#if PY_VERSION_HEX >= 0x030C0000
    return profiled() || monitored(cx);
#else
    return profiled();
#endif
}

// The guard: whether the plain route, given this path object, would reach nothing but the
// host objects seen at import (each compared by identity), and no profile or trace function
// is set to see those calls.
bool route_open(const Context& cx, PyObject* path) {
    if (cx.held(Held::scan_originals) == nullptr || traced(cx)) return false;
    if (cx.peek(Name::Path) != cx.held(Held::path_type)) return false;
    if (Py_TYPE(path) != reinterpret_cast<PyTypeObject*>(owner(cx, Owner::path_class))) return false;
    PyObject* names = cx.held(Held::scan_names);
    PyObject* originals = cx.held(Held::scan_originals);
    try {
        for (Py_ssize_t i = 0; i < guarded_count; ++i) {
            Ref now = current(owner(cx, guarded[i].owner), item(names, i));
            if (now.get() != item(originals, i)) return false;
        }
    } catch (const PythonError&) {
        PyErr_Clear();  // a lookup that fails is not the original; the plain route meets it
        return false;
    }
    return true;
}

// A text the path type takes as one component, as it stands: a directory or file name.
// Null (an unbound name) is not one.
bool plain_component(PyObject* text) {
    if (text == nullptr || !PyUnicode_CheckExact(text)) return false;
    const Py_ssize_t length = PyUnicode_GET_LENGTH(text);
    if (length == 0 || PyUnicode_FindChar(text, '/', 0, length, 1) != -1 ||
        PyUnicode_FindChar(text, 0, 0, length, 1) != -1)
        return false;
    return PyUnicode_CompareWithASCIIString(text, ".") != 0 && PyUnicode_CompareWithASCIIString(text, "..") != 0;
}

// The head size read_stamp would ask for, when it is one the native read can honour.
std::optional<std::size_t> head_size(const Context& cx) {
    constexpr long largest = 1L << 20;
    PyObject* size = cx.peek(Name::STAMP_HEAD_BYTES);
    if (size == nullptr || !PyLong_CheckExact(size)) return std::nullopt;
    int overflow = 0;
    const long n = PyLong_AsLongAndOverflow(size, &overflow);
    if (overflow != 0 || n < 0 || n > largest) return std::nullopt;
    return static_cast<std::size_t>(n);
}

// Whether the plain route for one skill would run the module's own functions on plain
// texts: then the native route answers as they would.
bool skill_unchanged(const Context& cx, PyObject* skill) {
    return !profiled() && cx.peek(Name::_stamp_inside) == cx.held(Held::own_stamp_inside) &&
           cx.peek(Name::inside_root) == cx.held(Held::own_inside_root) &&
           cx.peek(Name::read_stamp) == cx.held(Held::own_read_stamp) && plain_component(skill) &&
           plain_component(cx.peek(Name::SKILL_FILE)) && head_size(cx);
}

// --- paths as the operating system takes them ------------------------------------------

// The bytes os functions would pass for a path text; nothing when they would refuse it.
std::optional<std::string> fs_bytes(PyObject* text) {
    Ref bytes = Ref::steal_or_null(PyUnicode_EncodeFSDefault(text));
    if (!bytes) {
        PyErr_Clear();  // unencodable: the plain route raises the host's own error
        return std::nullopt;
    }
    std::string path(PyBytes_AS_STRING(bytes.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get())));
    if (path.find('\0') != std::string::npos) return std::nullopt;
    return path;
}

// The text of a path the host's os functions would make of these bytes.
Ref fs_text(const std::string& path) {
    return Ref::steal(PyUnicode_DecodeFSDefaultAndSize(path.data(), static_cast<Py_ssize_t>(path.size())));
}

class Fd {
public:
    explicit Fd(int fd = -1) noexcept : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

private:
    int fd_;
};

// The system calls run without the interpreter's lock, so other threads go on meanwhile.
class WithoutGil {
public:
    WithoutGil() noexcept : saved_(PyEval_SaveThread()) {}
    WithoutGil(const WithoutGil&) = delete;
    WithoutGil& operator=(const WithoutGil&) = delete;
    ~WithoutGil() { PyEval_RestoreThread(saved_); }

private:
    PyThreadState* saved_;
};

// --- how a step ends, in the host's terms --------------------------------------------------

struct Outcome {
    enum Kind {
        done,      // the step has its answer
        absent,    // the host answers None and says nothing: not there, outside, not a regular file
        changed,   // two calls disagree because the tree changed between them: resolve again
        plain,     // the host's objects must answer: no single call of theirs fails like this
        failed,    // a host call raises the OSError of `error`, naming `filename` (none when empty)
        too_deep,  // the host's resolution recurses past its recursion limit
    };
    Kind kind = done;
    int error = 0;
    std::string filename;

    static Outcome of(Kind kind) { return {kind, 0, {}}; }
    // The OSError of a host call that fails, whatever its errno.
    static Outcome raised(int error, std::string filename = {}) { return {failed, error, std::move(filename)}; }
    // A system call's failure as the host's call meets it: "not there" is answered silently.
    static Outcome os_error(int error, std::string filename = {}) {
        if (error == ENOENT || error == ENOTDIR) return of(absent);
        return raised(error, std::move(filename));
    }
};

// --- the host's realpath, strict, on bytes --------------------------------------------------

constexpr int max_attempts = 3;  // resolutions of a tree that keeps changing

struct Identity {
    std::string path;  // of the last component examined, when it was not a link
    dev_t device = 0;
    ino_t inode = 0;
    mode_t mode = 0;
};

// One call of realpath: the links already seen, as posixpath keeps them, and how deep the
// host may nest links before its recursion limit stops it.
struct Resolution {
    std::map<std::string, std::optional<std::string>, std::less<>> seen;
    int nesting_allowed = INT_MAX;
    Identity last;
};

// How many links the host's resolution may nest, from this call, before RecursionError stops
// it; negative when it cannot even start. 3.11 and 3.12 recurse once for each nested link;
// 3.13 resolves without recursion.
enum class Resolver { directory, skill };  // `_stamps_in` resolving its directory; `_stamp_inside` a file
int nesting_allowed([[maybe_unused]] Resolver where) {
#if PY_VERSION_HEX >= 0x030D0000
    return INT_MAX;
#else
    // The thread state's fields are read because no public call tells how much of the
    // recursion limit is in use. At its deepest before a link, the host holds five frames:
    // resolve, realpath, _joinrealpath, then isabs or join with _get_sep; before 3.12 the
    // module's own `_stamp_inside` and `inside_root` count as Python frames do.
    PyThreadState* ts = PyThreadState_Get();
#if PY_VERSION_HEX >= 0x030C0000
    const int depth = ts->py_recursion_limit - ts->py_recursion_remaining;
    const int frames = 5;
#else
    const int depth = ts->recursion_limit - ts->recursion_remaining;
    const int frames = where == Resolver::skill ? 7 : 5;
#endif
    return Py_GetRecursionLimit() - depth - frames;
#endif
}

// The next component of `rest` from `at`, as str.partition('/') takes it.
std::string_view next_component(const std::string& rest, std::size_t& at) {
    const std::size_t slash = rest.find('/', at);
    const std::size_t end = slash == std::string::npos ? rest.size() : slash;
    std::string_view name(rest.data() + at, end - at);
    at = slash == std::string::npos ? rest.size() : slash + 1;
    return name;
}

Outcome read_link(const std::string& path, std::string& target) {
    char buffer[PATH_MAX + 1];
    const ssize_t n = ::readlink(path.c_str(), buffer, sizeof buffer);
    // EINVAL: no longer the link lstat saw.
    if (n < 0) return errno == EINVAL ? Outcome::of(Outcome::changed) : Outcome::os_error(errno, path);
    if (static_cast<std::size_t>(n) >= sizeof buffer) return Outcome::of(Outcome::plain);
    target.assign(buffer, static_cast<std::size_t>(n));
    return Outcome::of(Outcome::done);
}

// lstat of one component; `is_link` tells whether it is a link, else it is the last identity seen.
Outcome examine(const std::string& path, Resolution& r, bool& is_link) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return Outcome::os_error(errno, path);
    is_link = S_ISLNK(st.st_mode);
    if (!is_link) r.last = {path, st.st_dev, st.st_ino, st.st_mode};
    return Outcome::of(Outcome::done);
}

// A link met again while it is being resolved: the host stats it, strictly, to raise the loop.
Outcome stat_loop(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return Outcome::os_error(errno, path);
    return Outcome::of(Outcome::done);
}

// One component, `newpath`, as realpath meets it: lstat; a component that is no link is stepped
// into, a link already resolved in this call is replaced by where it led; a link met again while
// it is being resolved is stat'ed, strictly, to raise the loop. `follow` is left true for a link to
// read and resolve now.
Outcome meet(std::string& path, std::string& newpath, Resolution& r, bool& follow) {
    follow = false;
    if (Outcome o = examine(newpath, r, follow); o.kind != Outcome::done || !follow) {
        if (o.kind == Outcome::done) path = std::move(newpath);
        return o;
    }
    auto seen = r.seen.find(newpath);
    if (seen == r.seen.end()) return Outcome::of(Outcome::done);
    if (seen->second) {
        path = *seen->second;
        follow = false;
        return Outcome::of(Outcome::done);
    }
    if (Outcome o = stat_loop(newpath); o.kind != Outcome::done) return o;
#if PY_VERSION_HEX >= 0x030D0000
    // The stat found no loop after all: 3.13 takes the link as it stands.
    path = std::move(newpath);
    follow = false;
#endif
    // Before 3.13 the host resolves it once more, deeper.
    return Outcome::of(Outcome::done);
}

// The working directory, as os.getcwd gives it; one longer than PATH_MAX fails here with ERANGE,
// which the host's call does not: the plain route answers then.
Outcome working_directory(std::string& cwd) {
    cwd.assign(PATH_MAX, '\0');
    if (::getcwd(cwd.data(), cwd.size()) == nullptr)
        return errno == ERANGE ? Outcome::of(Outcome::plain) : Outcome::os_error(errno);
    cwd.resize(cwd.find('\0'));
    return Outcome::of(Outcome::done);
}

#if PY_VERSION_HEX >= 0x030D0000

// os.path.realpath(path + "/" + rest, strict=True) as 3.13 walks it, `path` already resolved (empty:
// from the root or the working directory, as realpath starts): a stack of components still to resolve.
Outcome realpath(std::string& path, const std::string& rest, Resolution& r) {
    if (path.empty() && !rest.empty() && rest.front() == '/') {
        path.assign(1, '/');
    } else if (path.empty()) {
        if (Outcome o = working_directory(path); o.kind != Outcome::done) return o;
    }
    // Pending texts, innermost last; a link's own path follows its target's components and
    // is recorded as resolved once they are.
    struct Pending {
        std::string rest;
        std::size_t at = 0;
        std::string link;
    };
    std::vector<Pending> pending;
    pending.push_back({rest, 0, {}});
    while (!pending.empty()) {
        if (pending.back().at >= pending.back().rest.size()) {
            if (!pending.back().link.empty()) r.seen[pending.back().link] = path;
            pending.pop_back();
            continue;
        }
        const std::string_view name = next_component(pending.back().rest, pending.back().at);
        if (name.empty() || name == ".") continue;
        if (name == "..") {
            path.erase(std::max<std::size_t>(path.rfind('/'), 1));
            continue;
        }
        std::string newpath = path;
        if (newpath != "/") newpath += '/';
        newpath += name;
        bool follow = false;
        if (Outcome o = meet(path, newpath, r, follow); o.kind != Outcome::done) return o;
        if (!follow) continue;
        std::string target;
        if (Outcome o = read_link(newpath, target); o.kind != Outcome::done) return o;
        r.seen.emplace(newpath, std::nullopt);
        if (!target.empty() && target.front() == '/') path.assign(1, '/');
        pending.push_back({std::move(target), 0, std::move(newpath)});
    }
    return Outcome::of(Outcome::done);
}

#else

// posixpath.join(a, b) for a relative `name`, as every one here is, and posixpath.split.
void join(std::string& path, std::string_view name) {
    if (!path.empty() && path.back() != '/') path += '/';
    path += name;
}

std::pair<std::string, std::string> split(const std::string& path) {
    const std::size_t cut = path.rfind('/') + 1;  // npos + 1 == 0
    std::string head = path.substr(0, cut);
    std::string tail = path.substr(cut);
    if (!head.empty() && head.find_first_not_of('/') != std::string::npos) head.erase(head.find_last_not_of('/') + 1);
    return {head, tail};
}

// posixpath.normpath of what abspath hands it here: an absolute path with one leading slash, whose
// ".." components (a relative walk's, joined to the working directory) each remove the component
// before them, none above the root.
std::string normpath(const std::string& path) {
    std::vector<std::string_view> parts;
    std::string_view rest(path);
    while (!rest.empty()) {
        const std::size_t slash = rest.find('/');
        const std::string_view part = rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view{} : rest.substr(slash + 1);
        if (part.empty() || part == ".") continue;
        if (part != "..") {
            parts.push_back(part);
        } else if (!parts.empty()) {
            parts.pop_back();
        }
    }
    std::string out;
    for (const std::string_view part : parts) {
        out += '/';
        out += part;
    }
    return out.empty() ? "/" : out;
}

// posixpath._joinrealpath(path, rest, strict=True, seen) as 3.11 and 3.12 recurse into it for
// each link, here with a stack of the texts each level still has to walk.
Outcome join_real(std::string& path, const std::string& rest, Resolution& r) {
    struct Level {
        std::string rest;
        std::size_t at = 0;
        std::string link;  // whose target this level resolves; empty at the top
    };
    std::vector<Level> levels;
    auto enter = [&](std::string text, std::string link) {
        Level level{std::move(text), 0, std::move(link)};
        if (!level.rest.empty() && level.rest.front() == '/') {
            level.at = 1;
            path.assign(1, '/');  // not `= "/"`, which GCC 12 misreads as an overlapping copy
        }
        levels.push_back(std::move(level));
    };
    if (r.nesting_allowed < 0) return Outcome::of(Outcome::too_deep);
    enter(rest, {});
    while (!levels.empty()) {
        if (levels.back().at >= levels.back().rest.size()) {
            std::string link = std::move(levels.back().link);
            levels.pop_back();
            if (!levels.empty()) r.seen[link] = path;
            continue;
        }
        const std::string_view name = next_component(levels.back().rest, levels.back().at);
        if (name.empty() || name == ".") continue;
        if (name == "..") {
            if (path.empty()) {
                path = "..";
            } else {
                auto [head, tail] = split(path);
                path = std::move(head);
                if (tail == "..") {
                    join(path, "..");
                    join(path, "..");
                }
            }
            continue;
        }
        std::string newpath = path;
        join(newpath, name);
        bool follow = false;
        if (Outcome o = meet(path, newpath, r, follow); o.kind != Outcome::done) return o;
        if (!follow) continue;
        r.seen[newpath] = std::nullopt;
        std::string target;
        if (Outcome o = read_link(newpath, target); o.kind != Outcome::done) return o;
        if (static_cast<int>(levels.size()) > r.nesting_allowed) return Outcome::of(Outcome::too_deep);
        enter(std::move(target), std::move(newpath));
    }
    return Outcome::of(Outcome::done);
}

// os.path.realpath(path + "/" + rest, strict=True), `path` already resolved (empty: as realpath
// starts): the walk, then abspath.
Outcome realpath(std::string& path, const std::string& rest, Resolution& r) {
    if (Outcome o = join_real(path, rest, r); o.kind != Outcome::done) return o;
    if (path.empty() || path.front() != '/') {
        std::string cwd;
        if (Outcome o = working_directory(cwd); o.kind != Outcome::done) return o;
        join(cwd, path);
        path = std::move(cwd);
    }
    path = normpath(path);
    return Outcome::of(Outcome::done);
}

#endif

// `real.is_relative_to(root)` for two resolved paths: root's components lead real's.
bool inside(const std::string& real, const std::string& root) {
    if (real.compare(0, root.size(), root) != 0) return false;
    return real.size() == root.size() || root == "/" || real[root.size()] == '/';
}

// A call the host's route would not make failed: a component gone, or replaced by a link, since
// the resolution means resolve again; anything else is for the plain route to meet.
Outcome moved_or_plain(int error) {
    return Outcome::of(error == ENOENT || error == ENOTDIR || error == ELOOP ? Outcome::changed : Outcome::plain);
}

// --- the host's errors ------------------------------------------------------------------------

// Sets the error the host's call raises for a failed outcome: the OSError subclass of its
// errno, naming the path when the call names one; RecursionError past the recursion limit.
// While resolving, a loop of links is the RuntimeError that Path.resolve makes of it (before
// 3.13), raised as it handles the OSError.
void set_host_error(const Outcome& o, bool resolving) {
    if (o.kind == Outcome::too_deep) {
        PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded");
        return;
    }
    Ref filename = o.filename.empty() ? Ref() : fs_text(o.filename);
    errno = o.error;
    PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, filename.get());
#if PY_VERSION_HEX < 0x030D0000
    if (resolving && o.error == ELOOP) {
        CaughtError loop;
        ExceptBlock handling(loop.value());
        PyErr_Format(PyExc_RuntimeError, "Symlink loop from %R", filename ? filename.get() : Py_None);
    }
#else
    (void)resolving;
#endif
}

// Puts a frame of the module's function `function` at the head of the traceback of the
// error being raised, as the plain route's call of it would.
void trace_through(const Context& cx, PyObject* function) {
    PyObject *type, *value, *tb;
    PyErr_Fetch(&type, &value, &tb);
    Ref frame = Ref::steal_or_null(new_frame(function, cx.globals()));
    PyErr_Clear();  // without a frame the error goes on as it was
    PyErr_Restore(type, value, tb);
    if (frame) PyTraceBack_Here(reinterpret_cast<PyFrameObject*>(frame.get()));
}

// --- one skills directory ---------------------------------------------------------------

// The resolved skills directory, opened; `fd` stays closed when it is not a directory
// (nothing can then resolve inside it). `object` is its path object, made when needed.
struct Root {
    std::string path;
    Fd fd;
    Ref object;
};

// Opens the directory the resolution found, and only that one: the same device and inode.
Outcome open_root(Root& root, const Identity& seen) {
    struct stat st;
    Identity identity = seen;
    if (identity.path != root.path) {
        if (::lstat(root.path.c_str(), &st) != 0) return moved_or_plain(errno);
        identity = {root.path, st.st_dev, st.st_ino, st.st_mode};
    }
    if (!S_ISDIR(identity.mode)) return Outcome::of(Outcome::done);
    Fd fd(::open(root.path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return moved_or_plain(errno);
    if (::fstat(fd.get(), &st) != 0) return Outcome::of(Outcome::plain);
    if (st.st_dev != identity.device || st.st_ino != identity.inode) return Outcome::of(Outcome::changed);
    root.fd = std::move(fd);
    return Outcome::of(Outcome::done);
}

Outcome resolve_root(const std::string& directory, int nesting_allowed, Root& root) {
    for (int attempt = 0; attempt < max_attempts; ++attempt) {
        Resolution r;
        r.nesting_allowed = nesting_allowed;
        root.path.clear();
        Outcome o = realpath(root.path, directory, r);
        if (o.kind == Outcome::done) o = open_root(root, r.last);
        if (o.kind != Outcome::changed) return o;
    }
    return Outcome::of(Outcome::absent);  // the tree kept changing under the scan
}

// A skill's SKILL.md: its real path, and the directory that holds it opened below the root.
struct SkillFile {
    std::string real;
    Fd directory;      // owned when below the root
    int at = -1;       // the directory's descriptor: `directory`, or the root's
    std::string name;  // within it
};

// Reaches the real path's directory from the root's descriptor without following links, and
// tells whether the file there is a regular one (is_file()), as the resolution saw it.
Outcome locate(const Root& root, const Resolution& r, SkillFile& file) {
    if (!root.fd || file.real.size() <= root.path.size()) return Outcome::of(Outcome::absent);  // not below it
    std::string_view rest(file.real);
    rest.remove_prefix(root.path == "/" ? 1 : root.path.size() + 1);
    file.at = root.fd.get();
    for (std::size_t slash; (slash = rest.find('/')) != std::string_view::npos; rest.remove_prefix(slash + 1)) {
        const std::string name(rest.substr(0, slash));
        file.directory = Fd(::openat(file.at, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!file.directory) return moved_or_plain(errno);
        file.at = file.directory.get();
    }
    file.name = rest;
    if (r.last.path == file.real) return Outcome::of(S_ISREG(r.last.mode) ? Outcome::done : Outcome::absent);
    // The last component was reached through a link met earlier in the same resolution.
    struct stat st;
    if (::fstatat(file.at, file.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return moved_or_plain(errno);
    if (S_ISLNK(st.st_mode)) return Outcome::of(Outcome::changed);
    return Outcome::of(S_ISREG(st.st_mode) ? Outcome::done : Outcome::absent);
}

// The file itself, opened for reading as the host's open would, but without following a link
// or blocking on a file that is not regular.
Outcome open_file(const SkillFile& file, Fd& fd) {
    fd = Fd(::openat(file.at, file.name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd)
        return errno == ENOENT || errno == ENOTDIR || errno == ELOOP ? Outcome::of(Outcome::changed)
                                                                     : Outcome::raised(errno, file.real);
    struct stat st;
    if (::fstat(fd.get(), &st) != 0) return Outcome::of(Outcome::plain);
    // Replaced since the resolution: by another file, which is as much inside and read as it is
    // now; by anything else, resolve again.
    return Outcome::of(S_ISREG(st.st_mode) ? Outcome::done : Outcome::changed);
}

// The host's open of a file for read_stamp: its audit event, which a hook may refuse, comes first.
bool audit_open(PyObject* path_text) { return PySys_Audit("open", "Osi", path_text, "r", O_RDONLY | O_CLOEXEC) == 0; }

// The stamp in the first `size` bytes of an open file, as one buffered read returns them, read
// without the interpreter's lock; nothing, with the error set, when the read fails. An
// interrupted read lets the signal handlers run first, as the host's read does.
std::optional<Ref> stamp_from(const Context& cx, Fd fd, std::size_t size) {
    std::string head(size, '\0');
    std::size_t filled = 0;
    while (filled < size) {
        ssize_t n;
        int error;
        {
            WithoutGil unlocked;
            n = ::read(fd.get(), head.data() + filled, size - filled);
            error = errno;
        }
        if (n > 0) {
            filled += static_cast<std::size_t>(n);
        } else if (n == 0) {
            break;
        } else if (error != EINTR) {
            set_host_error(Outcome::raised(error), false);
            return std::nullopt;
        } else if (PyErr_CheckSignals() < 0) {
            return std::nullopt;
        }
    }
    head.resize(filled);
    fd = Fd();  // closed before the search, as the host's `with` closes it
    Ref bytes = Ref::steal(PyBytes_FromStringAndSize(head.data(), static_cast<Py_ssize_t>(head.size())));
    return stamp_of_head(cx, bytes.get());
}

// The root as the plain route's path object.
PyObject* root_object(const Context& cx, Root& root) {
    if (!root.object) root.object = call(owner(cx, Owner::path_class), {fs_text(root.path).get()});
    return root.object.get();
}

// The error being raised below `inner`, one of the module's functions that `_stamp_inside` calls,
// met by `_stamp_inside`'s handler as the plain route meets it: None, the path logged when it
// cannot be read, any other error passed on. `path` is the one the handler names.
Ref skill_failure(const Context& cx, PyObject* inner, PyObject* path) {
    trace_through(cx, inner);
    trace_through(cx, cx.held(Held::own_stamp_inside));
    return handle_unreadable(cx, CaughtError(), path, [] { return Ref::borrow(Py_None); });
}

// One skill's stamp, natively; nothing when `_stamp_inside` must answer it.
std::optional<Ref> native_stamp(const Context& cx, Root& root, PyObject* skill) {
    auto name = fs_bytes(skill);
    Ref file_name_text = cx.global(Name::SKILL_FILE);
    auto file_name = fs_bytes(file_name_text.get());
    const auto size = head_size(cx);
    if (!name || !file_name || !size) return std::nullopt;
    // The error set now, raised in `inner` under `_stamp_inside`, whose handler names
    // `root / skill / SKILL_FILE`.
    auto failure_in = [&](PyObject* inner) {
        PyObject *type, *value, *tb;
        PyErr_Fetch(&type, &value, &tb);
        Ref pending[] = {Ref::steal_or_null(type), Ref::steal_or_null(value), Ref::steal_or_null(tb)};
        Ref skill_dir = Ref::steal(PyNumber_TrueDivide(root_object(cx, root), skill));
        Ref path = Ref::steal(PyNumber_TrueDivide(skill_dir.get(), file_name_text.get()));
        PyErr_Restore(pending[0].release(), pending[1].release(), pending[2].release());
        return skill_failure(cx, inner, path.get());
    };
    // What to resolve below the root: the skill's file, and once its open event has been
    // raised, the real path that event named, which is all the host's open would then open.
    std::string rest = *name + "/" + *file_name;
    bool audited = false;
    const int nesting = nesting_allowed(Resolver::skill);
    for (int attempt = 0; attempt < max_attempts; ++attempt) {
        SkillFile file;
        Outcome o;
        {
            WithoutGil unlocked;
            Resolution r;
            r.nesting_allowed = nesting;
            file.real = root.path;
            o = realpath(file.real, rest, r);
            if (o.kind == Outcome::done)
                o = inside(file.real, root.path) ? locate(root, r, file) : Outcome::of(Outcome::absent);
        }
        if (o.kind == Outcome::changed) continue;
        if (o.kind == Outcome::absent) return Ref::borrow(Py_None);
        if (o.kind == Outcome::plain) return std::nullopt;
        if (o.kind != Outcome::done) {
            set_host_error(o, true);
            return failure_in(cx.held(Held::own_inside_root));
        }
        // read_stamp(real): the open event, once, the open, the read.
        if (!audited) {
            if (!audit_open(fs_text(file.real).get())) return failure_in(cx.held(Held::own_read_stamp));
            audited = true;
            rest = file.real.substr(root.path == "/" ? 1 : root.path.size() + 1);
        }
        Fd fd;
        {
            WithoutGil unlocked;
            o = open_file(file, fd);
        }
        if (o.kind == Outcome::changed) continue;
        if (o.kind == Outcome::plain) return std::nullopt;
        if (o.kind != Outcome::done) {
            set_host_error(o, false);
            return failure_in(cx.held(Held::own_read_stamp));
        }
        try {
            if (std::optional<Ref> stamp = stamp_from(cx, std::move(fd), *size)) return stamp;
        } catch (const PythonError&) {
        }
        return failure_in(cx.held(Held::own_read_stamp));  // the read or the stamp's search failed
    }
    return Ref::borrow(Py_None);  // the tree kept changing under the scan
}

// SKILL_NAMES as the scan would iterate it, when it is a tuple of plain texts, so that the
// all-None answer, built here without the plain route's `except`, cannot fail.
bool plain_names(PyObject* names) {
    if (names == nullptr || !PyTuple_CheckExact(names)) return false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(names); ++i)
        if (!PyUnicode_CheckExact(PyTuple_GET_ITEM(names, i))) return false;
    return true;
}

// The text of a path object, as os functions take it (its __fspath__).
std::optional<std::string> path_bytes(PyObject* path) {
    Ref text = Ref::steal(PyOS_FSPath(path));
    return PyUnicode_CheckExact(text.get()) ? fs_bytes(text.get()) : std::nullopt;
}

}  // namespace

void capture_scan_originals(State& st, PyObject* module_dict) {
    try {
        // The module's own import statements brought pathlib in; it is taken from the registry
        // of loaded modules, without importing anything more.
        Ref package = imported_module("pathlib");
        if (!package) return;
#if PY_VERSION_HEX >= 0x030D0000
        Ref pathlib = imported_module("pathlib._local");
        Ref pathlib_abc = imported_module("pathlib._abc");
        if (!pathlib || !pathlib_abc) return;
#else
        Ref pathlib = Ref::borrow(package.get());
#endif
        Ref os = getattr(pathlib.get(), str("os").get());
        Ref posixpath = getattr(os.get(), str("path").get());
        Ref stat = getattr(posixpath.get(), str("stat").get());
        Ref io = getattr(pathlib.get(), str("io").get());
        Ref path_class = getattr(package.get(), str("PosixPath").get());
#if PY_VERSION_HEX >= 0x030D0000
        Ref parents = getattr(pathlib.get(), str("_PathParents").get());
        Ref owners = Ref::steal(PyTuple_Pack(static_cast<Py_ssize_t>(Owner::count), pathlib.get(), pathlib_abc.get(),
                                             os.get(), posixpath.get(), stat.get(), io.get(), path_class.get(),
                                             parents.get()));
#elif PY_VERSION_HEX >= 0x030C0000
        Ref parents = getattr(pathlib.get(), str("_PathParents").get());
        Ref owners = Ref::steal(PyTuple_Pack(static_cast<Py_ssize_t>(Owner::count), pathlib.get(), os.get(),
                                             posixpath.get(), stat.get(), io.get(), path_class.get(), parents.get()));
#else
        Ref flavour = getattr(path_class.get(), str("_flavour").get());
        Ref owners = Ref::steal(PyTuple_Pack(static_cast<Py_ssize_t>(Owner::count), pathlib.get(), os.get(),
                                             posixpath.get(), stat.get(), io.get(), path_class.get(), flavour.get()));
#endif
        Ref names = Ref::steal(PyTuple_New(guarded_count));
        Ref originals = Ref::steal(PyTuple_New(guarded_count));
        for (Py_ssize_t i = 0; i < guarded_count; ++i) {
            PyObject* name = PyUnicode_InternFromString(guarded[i].name);
            if (name == nullptr) raise();
            PyTuple_SET_ITEM(names.get(), i, name);
            Ref original = current(item(owners.get(), static_cast<Py_ssize_t>(guarded[i].owner)), name);
            if (!original) return;  // a host without it: the plain route always
            PyTuple_SET_ITEM(originals.get(), i, original.release());
        }
        auto own = [&](const char* name) { return lookup_global(module_dict, module_dict, str(name).get()).release(); };
        st[Held::path_type] = getattr(package.get(), str("Path").get()).release();
        st[Held::own_stamp_inside] = own("_stamp_inside");
        st[Held::own_inside_root] = own("inside_root");
        st[Held::own_read_stamp] = own("read_stamp");
        st[Held::scan_owners] = owners.release();
        st[Held::scan_names] = names.release();
        st[Held::scan_originals] = originals.release();
    } catch (const PythonError&) {
        // Only a faster way to the same answers is lost; the module works without it.
        PyErr_Clear();
    }
}

std::optional<Ref> native_stamps_in(const Context& cx, PyObject* directory) {
    if (!route_open(cx, directory) || !plain_names(cx.peek(Name::SKILL_NAMES))) return std::nullopt;
    const auto path = path_bytes(directory);
    if (!path) return std::nullopt;
    Root root;
    Outcome o;
    const int nesting = nesting_allowed(Resolver::directory);
    {
        WithoutGil unlocked;
        o = resolve_root(*path, nesting, root);
    }
    if (o.kind == Outcome::absent) return all_absent(cx);
    if (o.kind == Outcome::plain) return std::nullopt;
    if (o.kind != Outcome::done) {
        set_host_error(o, true);
        return except_unreadable(cx, directory, [&] { return all_absent(cx); });
    }

    Ref stamps = Ref::steal(PyDict_New());
    Ref names = cx.global(Name::SKILL_NAMES);
    Ref it = iterate(names.get());
    while (Ref skill = next(it.get())) {
        std::optional<Ref> stamp;
        if (skill_unchanged(cx, skill.get())) stamp = native_stamp(cx, root, skill.get());
        if (!stamp) stamp = call(cx.global(Name::_stamp_inside).get(), {root_object(cx, root), skill.get()});
        check(PyDict_SetItem(stamps.get(), skill.get(), stamp->get()));
    }
    return stamps;
}

std::optional<Ref> native_read_stamp(const Context& cx, PyObject* path) {
    const auto size = head_size(cx);
    if (!size || !route_open(cx, path)) return std::nullopt;
    Ref text = Ref::steal(PyOS_FSPath(path));
    const auto bytes = PyUnicode_CheckExact(text.get()) ? fs_bytes(text.get()) : std::nullopt;
    if (!bytes) return std::nullopt;
    if (!audit_open(text.get())) raise();
    // Opened as the host opens it: a pipe blocks until a writer comes, and a signal's handler runs
    // meanwhile; a directory opens, then is refused.
    Fd fd;
    struct stat st;
    int error = EINTR;
    while (error == EINTR) {
        {
            WithoutGil unlocked;
            fd = Fd(::open(bytes->c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC));
            error = !fd || ::fstat(fd.get(), &st) != 0 ? errno : S_ISDIR(st.st_mode) ? EISDIR : 0;
        }
        if (error == EINTR && PyErr_CheckSignals() < 0) raise();
    }
    if (error != 0) {
        set_host_error(Outcome::raised(error, *bytes), false);
        raise();
    }
    std::optional<Ref> stamp = stamp_from(cx, std::move(fd), *size);
    if (!stamp) raise();
    return stamp;
}

}  // namespace agent_skills
