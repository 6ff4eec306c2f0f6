// The native route of the directory scan and of read_stamp. The plain route, in
// stamps.cpp, goes through the host's path objects; this one makes the same system calls
// itself, while the guard below says that the plain route would reach nothing but the
// host's own pathlib, posixpath, os and io. It never handles an error: anything but an
// answer or "not there" hands that skill (or directory) back to the plain route, which
// redoes it through the host's objects, so exceptions, tracebacks and log records come
// from the real code.
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

// Where the plain route finds what it calls: the host's modules, the concrete path class
// and its flavour, captured at import; each is itself reached through a checked entry.
enum class Owner { pathlib, os, posixpath, stat, io, path_class, flavour, count };

struct Guarded {
    Owner owner;
    const char* name;
};

// Everything the plain route reaches from `directory.resolve(strict=True)`, `root / skill`,
// `inside_root`, `is_file` and `read_stamp`, as found in 3.11's pathlib and posixpath.
constexpr Guarded guarded[] = {
    {Owner::pathlib, "os"},
    {Owner::pathlib, "io"},
    {Owner::pathlib, "S_ISREG"},
    {Owner::pathlib, "PurePath"},
    {Owner::pathlib, "ELOOP"},
    {Owner::pathlib, "_ignore_error"},
    {Owner::pathlib, "_IGNORED_ERRNOS"},
    {Owner::os, "path"},
    {Owner::os, "fspath"},
    {Owner::os, "lstat"},
    {Owner::os, "readlink"},
    {Owner::os, "stat"},
    {Owner::os, "getcwd"},
    {Owner::posixpath, "os"},
    {Owner::posixpath, "stat"},
    {Owner::posixpath, "realpath"},
    {Owner::posixpath, "_joinrealpath"},
    {Owner::posixpath, "abspath"},
    {Owner::posixpath, "isabs"},
    {Owner::posixpath, "join"},
    {Owner::posixpath, "split"},
    {Owner::posixpath, "normpath"},
    {Owner::posixpath, "_path_normpath"},
    {Owner::posixpath, "_get_sep"},
    {Owner::stat, "S_ISLNK"},
    {Owner::io, "open"},
    {Owner::path_class, "resolve"},
    {Owner::path_class, "is_file"},
    {Owner::path_class, "stat"},
    {Owner::path_class, "open"},
    {Owner::path_class, "is_relative_to"},
    {Owner::path_class, "relative_to"},
    {Owner::path_class, "__truediv__"},
    {Owner::path_class, "_make_child"},
    {Owner::path_class, "__fspath__"},
    {Owner::path_class, "__str__"},
    {Owner::path_class, "_parse_args"},
    {Owner::path_class, "_from_parts"},
    {Owner::path_class, "_from_parsed_parts"},
    {Owner::path_class, "_format_parsed_parts"},
    {Owner::path_class, "_flavour"},
    {Owner::flavour, "parse_parts"},
    {Owner::flavour, "join_parsed_parts"},
    {Owner::flavour, "splitroot"},
    {Owner::flavour, "casefold_parts"},
    {Owner::flavour, "join"},
    {Owner::flavour, "sep"},
    {Owner::flavour, "altsep"},
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

// Whether a profile or trace function is set on this thread: they must see the host's
// calls. The thread state's fields are the only way to ask without building objects.
bool traced() {
    PyThreadState* ts = PyThreadState_Get();
    return ts->c_profilefunc != nullptr || ts->c_tracefunc != nullptr;
}

// The guard: whether the plain route, given this path object, would reach nothing but the
// host objects seen at import (each compared by identity), and no profile or trace function
// is set to see those calls.
bool route_open(const Context& cx, PyObject* path) {
    if (cx.held(Held::scan_originals) == nullptr || traced()) return false;
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
    return !traced() && cx.peek(Name::_stamp_inside) == cx.held(Held::own_stamp_inside) &&
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

// --- 3.11's realpath, strict, on bytes --------------------------------------------------

constexpr int hand_back = -1;       // the plain route must answer, with its own error
constexpr int changed = -2;         // the tree changed between two calls: resolve again
constexpr int max_link_depth = 64;  // nested links the host would follow by recursion
constexpr int max_attempts = 3;     // resolutions of a tree that keeps changing

// posixpath.join(a, b) for one component, and posixpath.split.
void join(std::string& path, std::string_view name) {
    if (!name.empty() && name.front() == '/') {
        path = name;
    } else {
        if (!path.empty() && path.back() != '/') path += '/';
        path += name;
    }
}

std::pair<std::string, std::string> split(const std::string& path) {
    const std::size_t cut = path.rfind('/') + 1;  // npos + 1 == 0
    std::string head = path.substr(0, cut);
    std::string tail = path.substr(cut);
    if (!head.empty() && head.find_first_not_of('/') != std::string::npos) head.erase(head.find_last_not_of('/') + 1);
    return {head, tail};
}

// posixpath.normpath.
std::string normpath(const std::string& path) {
    if (path.empty()) return ".";
    int initial = path.front() == '/' ? 1 : 0;
    if (path.compare(0, 2, "//") == 0 && path.compare(0, 3, "///") != 0) initial = 2;
    std::vector<std::string_view> parts;
    std::string_view rest(path);
    while (!rest.empty()) {
        const std::size_t slash = rest.find('/');
        const std::string_view part = rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view{} : rest.substr(slash + 1);
        if (part.empty() || part == ".") continue;
        if (part != ".." || (initial == 0 && parts.empty()) || (!parts.empty() && parts.back() == "..")) {
            parts.push_back(part);
        } else if (!parts.empty()) {
            parts.pop_back();
        }
    }
    std::string out(static_cast<std::size_t>(initial), '/');
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) out += '/';
        out += parts[i];
    }
    return out.empty() ? "." : out;
}

struct Identity {
    std::string path;  // of the last component examined, when it was not a link
    dev_t device = 0;
    ino_t inode = 0;
    mode_t mode = 0;
};

// One call of realpath: the links already seen, as posixpath keeps them.
struct Resolution {
    std::map<std::string, std::optional<std::string>, std::less<>> seen;
    int depth = 0;
    Identity last;
};

int read_link(const std::string& path, std::string& target) {
    char buffer[PATH_MAX + 1];
    const ssize_t n = ::readlink(path.c_str(), buffer, sizeof buffer);
    if (n < 0) return errno == EINVAL ? changed : errno;  // EINVAL: no longer the link lstat saw
    if (static_cast<std::size_t>(n) >= sizeof buffer) return hand_back;
    target.assign(buffer, static_cast<std::size_t>(n));
    return 0;
}

// posixpath._joinrealpath(path, rest, strict=True, seen): 0, or the errno the host's call
// would raise, or hand_back where its answer is not an errno of one call (a loop of links),
// or `changed` where two calls disagree because the tree changed between them.
int join_real(std::string& path, std::string_view rest, Resolution& r) {
    if (!rest.empty() && rest.front() == '/') {
        rest.remove_prefix(1);
        path.assign(1, '/');  // not `= "/"`, which GCC 12 misreads as an overlapping copy
    }
    while (!rest.empty()) {
        const std::size_t slash = rest.find('/');
        const std::string_view name = rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view{} : rest.substr(slash + 1);
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
        struct stat st;
        if (::lstat(newpath.c_str(), &st) != 0) return errno;
        if (!S_ISLNK(st.st_mode)) {
            path = std::move(newpath);
            r.last = {path, st.st_dev, st.st_ino, st.st_mode};
            continue;
        }
        if (auto seen = r.seen.find(newpath); seen != r.seen.end()) {
            if (!seen->second) return hand_back;
            path = *seen->second;
            continue;
        }
        if (++r.depth > max_link_depth) return hand_back;
        r.seen.emplace(newpath, std::nullopt);
        std::string target;
        if (int error = read_link(newpath, target)) return error;
        if (int error = join_real(path, target, r)) return error;
        --r.depth;
        r.seen[newpath] = path;
    }
    return 0;
}

// os.path.realpath(path, strict=True): the walk, then abspath.
int realpath(std::string& path, std::string_view rest, Resolution& r) {
    if (int error = join_real(path, rest, r)) return error;
    if (path.empty() || path.front() != '/') {
        // A working directory longer than PATH_MAX fails with ERANGE: the plain route answers then.
        std::string cwd(PATH_MAX, '\0');
        if (::getcwd(cwd.data(), cwd.size()) == nullptr) return errno;
        cwd.resize(cwd.find('\0'));
        join(cwd, path);
        path = std::move(cwd);
    }
    path = normpath(path);
    return 0;
}

bool not_there(int error) { return error == ENOENT || error == ENOTDIR; }

// `real.is_relative_to(root)` for two resolved paths: root's components lead real's.
bool inside(const std::string& real, const std::string& root) {
    if (real.compare(0, root.size(), root) != 0) return false;
    return real.size() == root.size() || root == "/" || real[root.size()] == '/';
}

// --- one skills directory ---------------------------------------------------------------

enum class Step { done, absent, changed, plain };

Step from_errno(int error) {
    if (error == changed) return Step::changed;
    return not_there(error) ? Step::absent : Step::plain;
}

// The resolved skills directory, opened; `fd` stays closed when it is not a directory
// (nothing can then resolve inside it).
struct Root {
    std::string path;
    Fd fd;
};

// Opens the directory the resolution found, and only that one: the same device and inode.
Step open_root(Root& root, const Identity& seen) {
    struct stat st;
    Identity identity = seen;
    if (identity.path != root.path) {
        if (::lstat(root.path.c_str(), &st) != 0) return not_there(errno) ? Step::changed : Step::plain;
        identity = {root.path, st.st_dev, st.st_ino, st.st_mode};
    }
    if (!S_ISDIR(identity.mode)) return Step::done;
    Fd fd(::open(root.path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return not_there(errno) || errno == ELOOP ? Step::changed : Step::plain;
    if (::fstat(fd.get(), &st) != 0) return Step::plain;
    if (st.st_dev != identity.device || st.st_ino != identity.inode) return Step::changed;
    root.fd = std::move(fd);
    return Step::done;
}

Step resolve_root(const std::string& directory, Root& root) {
    for (int attempt = 0; attempt < max_attempts; ++attempt) {
        Resolution r;
        root.path.clear();
        const int error = realpath(root.path, directory, r);
        const Step step = error != 0 ? from_errno(error) : open_root(root, r.last);
        if (step != Step::changed) return step;
    }
    return Step::absent;  // the tree kept changing under the scan
}

// A skill's SKILL.md, opened for reading: resolved from the root's text as the plain
// route resolves it, then walked down from the root's descriptor without following links.
struct SkillFile {
    std::string real;
    Fd fd;
};

Step open_below(const Root& root, const Resolution& r, SkillFile& file) {
    if (!root.fd || file.real.size() <= root.path.size()) return Step::absent;  // not a file below it
    std::string_view rest(file.real);
    rest.remove_prefix(root.path == "/" ? 1 : root.path.size() + 1);
    Fd directory;
    int at = root.fd.get();
    for (std::size_t slash; (slash = rest.find('/')) != std::string_view::npos; rest.remove_prefix(slash + 1)) {
        const std::string name(rest.substr(0, slash));
        directory = Fd(::openat(at, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!directory) return not_there(errno) || errno == ELOOP ? Step::changed : Step::plain;
        at = directory.get();
    }
    const std::string name(rest);
    struct stat st;
    if (r.last.path != file.real) {
        if (::fstatat(at, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
            return not_there(errno) ? Step::changed : Step::plain;
        if (S_ISLNK(st.st_mode)) return Step::changed;
        if (!S_ISREG(st.st_mode)) return Step::absent;
    } else if (!S_ISREG(r.last.mode)) {
        return Step::absent;  // is_file() is false: a directory, a pipe, a device
    }
    file.fd = Fd(::openat(at, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file.fd) return not_there(errno) || errno == ELOOP ? Step::changed : Step::plain;
    if (::fstat(file.fd.get(), &st) != 0) return Step::plain;
    // Replaced since the resolution: by another file, which is as much inside and read as it is
    // now; by anything else, resolve again.
    return S_ISREG(st.st_mode) ? Step::done : Step::changed;
}

Step open_skill(const Root& root, const std::string& rest, SkillFile& file) {
    for (int attempt = 0; attempt < max_attempts; ++attempt) {
        Resolution r;
        file.real = root.path;
        const int error = realpath(file.real, rest, r);
        if (error == 0 && !inside(file.real, root.path)) return Step::absent;
        const Step step = error != 0 ? from_errno(error) : open_below(root, r, file);
        if (step != Step::changed) return step;
    }
    return Step::absent;  // the tree kept changing under the scan
}

// The first `size` bytes of an open regular file, as one buffered read returns them.
int read_head(int fd, std::size_t size, std::string& head) {
    head.resize(size);
    std::size_t filled = 0;
    while (filled < size) {
        const ssize_t n = ::read(fd, head.data() + filled, size - filled);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        if (n == 0) break;
        filled += static_cast<std::size_t>(n);
    }
    head.resize(filled);
    return 0;
}

// The audit event the host's open fires for this path, then the head read; nothing when
// a hook refused the open or the read failed, for the plain route to meet the same.
std::optional<Ref> read_opened(const Context& cx, PyObject* path_text, Fd fd, std::size_t size) {
    if (PySys_Audit("open", "Osi", path_text, "r", O_RDONLY | O_CLOEXEC) < 0) {
        PyErr_Clear();
        return std::nullopt;
    }
    std::string head;
    int error;
    {
        WithoutGil unlocked;
        error = read_head(fd.get(), size, head);
        fd = Fd();
    }
    if (error != 0) return std::nullopt;
    Ref bytes = Ref::steal(PyBytes_FromStringAndSize(head.data(), static_cast<Py_ssize_t>(head.size())));
    return stamp_of_head(cx, bytes.get());
}

// One skill's stamp, natively; nothing when `_stamp_inside` must answer it.
std::optional<Ref> native_stamp(const Context& cx, const Root& root, PyObject* skill) {
    auto name = fs_bytes(skill);
    auto file_name = fs_bytes(cx.peek(Name::SKILL_FILE));
    const auto size = head_size(cx);
    if (!name || !file_name || !size) return std::nullopt;
    SkillFile file;
    Step step;
    {
        WithoutGil unlocked;
        step = open_skill(root, *name + "/" + *file_name, file);
    }
    if (step == Step::absent) return Ref::borrow(Py_None);
    if (step != Step::done) return std::nullopt;
    Ref real = fs_text(file.real);
    return read_opened(cx, real.get(), std::move(file.fd), *size);
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
        Ref pathlib = Ref::steal(PyImport_ImportModule("pathlib"));
        Ref os = getattr(pathlib.get(), str("os").get());
        Ref posixpath = getattr(os.get(), str("path").get());
        Ref stat = getattr(posixpath.get(), str("stat").get());
        Ref io = getattr(pathlib.get(), str("io").get());
        Ref path_class = getattr(pathlib.get(), str("PosixPath").get());
        Ref flavour = getattr(path_class.get(), str("_flavour").get());
        Ref owners = Ref::steal(PyTuple_Pack(static_cast<Py_ssize_t>(Owner::count), pathlib.get(), os.get(),
                                             posixpath.get(), stat.get(), io.get(), path_class.get(), flavour.get()));
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
        st[Held::path_type] = getattr(pathlib.get(), str("Path").get()).release();
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
    Step step;
    {
        WithoutGil unlocked;
        step = resolve_root(*path, root);
    }
    if (step == Step::absent) return all_absent(cx);
    if (step != Step::done) return std::nullopt;

    Ref root_path;  // the root as a path object, made when a skill goes the plain route
    Ref stamps = Ref::steal(PyDict_New());
    Ref names = cx.global(Name::SKILL_NAMES);
    Ref it = iterate(names.get());
    while (Ref skill = next(it.get())) {
        std::optional<Ref> stamp;
        if (skill_unchanged(cx, skill.get())) stamp = native_stamp(cx, root, skill.get());
        if (!stamp) {
            if (!root_path) root_path = call(owner(cx, Owner::path_class), {fs_text(root.path).get()});
            stamp = call(cx.global(Name::_stamp_inside).get(), {root_path.get(), skill.get()});
        }
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
    Fd fd;
    {
        WithoutGil unlocked;
        fd = Fd(::open(bytes->c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        struct stat st;
        if (fd && (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))) fd = Fd();
    }
    if (!fd) return std::nullopt;  // not there, not a regular file, or not readable: the host says which
    return read_opened(cx, text.get(), std::move(fd), *size);
}

}  // namespace agent_skills
