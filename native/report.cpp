// The installed-skill report: the record of one skill in one directory, the command line
// that updates a directory, and the survey of every directory an agent reads.
#include "functions.hpp"

namespace agent_skills {
namespace {

// f"{value}": the text a replacement field makes of it.
Ref format_text(PyObject* value, const Context& cx) { return Ref::steal(PyObject_Format(value, cx.text(Text::empty))); }

// The pieces of an f-string, joined.
Ref concat(const Context& cx, std::initializer_list<PyObject*> pieces) {
    Ref list = new_list();
    for (PyObject* piece : pieces) append(list.get(), piece);
    return Ref::steal(PyUnicode_Join(cx.text(Text::empty), list.get()));
}

Ref stale(const Context& cx, PyObject* const* args) {
    PyObject* self = args[0];
    Ref installed = getattr(self, cx.name(Name::installed));
    if (installed.get() == Py_None) return Ref::borrow(Py_False);
    Ref key_installed = call(cx.global(Name::version_tuple).get(), {installed.get()});
    // Callee before argument, as `version_tuple(self.current)` evaluates.
    Ref version_tuple = cx.global(Name::version_tuple);
    Ref current = getattr(self, cx.name(Name::current));
    Ref key_current = call(version_tuple.get(), {current.get()});
    return Ref::steal(PyObject_RichCompare(key_installed.get(), key_current.get(), Py_LT));
}

const FunctionDecl stale_function{
    "stale",
    "InstalledSkill.stale",
    R"(Whether the installed copy is older than the running package.)",
    {{{"self", nullptr}}},
    1,
    "bool",
    stale,
};

Ref shell_word(const Context& cx, PyObject* const* args) {
    PyObject* text = args[0];
    Ref pattern = cx.global(Name::_PLAIN_WORD);
    if (truthy(call_method(pattern.get(), cx.name(Name::fullmatch), text).get())) return Ref::borrow(text);
    return concat(cx, {cx.text(Text::quote), format_text(text, cx).get(), cx.text(Text::quote)});
}

// [text]: what a directory choice must equal to write exactly that directory.
Ref list_of_one(PyObject* text) {
    Ref list = new_list();
    append(list.get(), text);
    return list;
}

Ref update_command(const Context& cx, PyObject* const* args) {
    PyObject* scope = args[0];
    PyObject* skills_dir = args[1];
    PyObject* project_root = args[2];
    Ref agent = Ref::borrow(cx.text(Text::empty));
    Ref target = list_of_one(skills_dir);
    // Each callee is looked up before its arguments are evaluated, as a Python call does, so an
    // unbound name fails with the same NameError first.
    Ref resolve = cx.global(Name::resolve_skill_dirs);
    Ref by_default = call(resolve.get(), {cx.global(Name::DEFAULT_AGENTS).get(), scope});
    if (!compare(by_default.get(), target.get(), Py_EQ)) {
        Ref writers = new_list();
        Ref agents = call(cx.global(Name::skill_capable_agents).get(), {});
        Ref it = iterate(agents.get());
        while (Ref key = next(it.get())) {
            resolve = cx.global(Name::resolve_skill_dirs);
            Ref alone = call(resolve.get(), {list_of_one(key.get()).get(), scope});
            if (compare(alone.get(), target.get(), Py_EQ)) append(writers.get(), key.get());
        }
        if (PyList_GET_SIZE(writers.get()) == 0) return Ref::borrow(Py_None);
        Ref first = Ref::borrow(PyList_GET_ITEM(writers.get(), 0));
        agent = concat(cx, {cx.text(Text::agent_option), format_text(first.get(), cx).get()});
    }
    Ref repository = Ref::borrow(cx.text(Text::empty));
    if (compare(scope, cx.name(Name::project), Py_EQ) && project_root != Py_None) {
        Ref as_word = cx.global(Name::_shell_word);
        Ref posix = call_method(project_root, cx.name(Name::as_posix));
        Ref word = call(as_word.get(), {posix.get()});
        repository = concat(cx, {cx.text(Text::repo_root_option), format_text(word.get(), cx).get()});
    }
    return concat(cx, {cx.text(Text::program), repository.get(), cx.text(Text::install_option),
                       format_text(scope, cx).get(), agent.get()});
}

Ref installed_skill_versions(const Context& cx, PyObject* const* args) {
    PyObject* project_root = args[0];
    // (scope, base) in order: the user scope first, when the home directory is known.
    Ref bases = new_list();
    try {
        Ref path_type = cx.global(Name::Path);
        Ref home = call_method(path_type.get(), cx.name(Name::home));
        append(bases.get(), Ref::steal(PyTuple_Pack(2, cx.name(Name::user), home.get())).get());
    } catch (const PythonError&) {
        except_unreadable(
            cx, cx.text(Text::home_directory), [] { return Ref(); }, Catching::undetermined_home);
    }
    if (project_root != Py_None)
        append(bases.get(), Ref::steal(PyTuple_Pack(2, cx.name(Name::project), project_root)).get());

    Ref agents = call(cx.global(Name::skill_capable_agents).get(), {});
    Ref found = new_list();
    for (Py_ssize_t b = 0; b < PyList_GET_SIZE(bases.get()); ++b) {
        PyObject* scope = PyTuple_GET_ITEM(PyList_GET_ITEM(bases.get(), b), 0);
        PyObject* base = PyTuple_GET_ITEM(PyList_GET_ITEM(bases.get(), b), 1);
        Ref read_roots = cx.global(Name::read_roots);
        Ref roots = call(cx.global(Name::agent_roots).get(), {agents.get(), scope});
        Ref dirs = call(read_roots.get(), {roots.get()});
        Ref dir_it = iterate(dirs.get());
        while (Ref skills_dir = next(dir_it.get())) {
            Ref directory = Ref::steal(PyNumber_TrueDivide(base, skills_dir.get()));
            Ref update = call(cx.global(Name::_update_command).get(), {scope, skills_dir.get(), project_root});
            Ref stamps = call(cx.global(Name::_stamps_in).get(), {directory.get()});
            Ref names = cx.global(Name::SKILL_NAMES);
            Ref skill_it = iterate(names.get());
            while (Ref skill = next(skill_it.get())) {
                Ref record_type = cx.global(Name::InstalledSkill);
                Ref installed = Ref::steal(PyObject_GetItem(stamps.get(), skill.get()));
                Ref current = cx.global(Name::__version__);
                Ref record = call(record_type.get(),
                                  {skill.get(), directory.get(), installed.get(), current.get(), scope, update.get()});
                append(found.get(), record.get());
            }
        }
    }
    return found;
}

}  // namespace

Ref make_installed_skill(PyObject* module) {
    Ref getter = make_function(module, stale_function);
    Ref property = Ref::steal(PyObject_CallOneArg(reinterpret_cast<PyObject*>(&PyProperty_Type), getter.get()));
    return make_record_type(module, "InstalledSkill",
                            R"(One embedded skill in one skills directory that an agent reads.

    Attributes:
        skill: The skill's name, which is the name of its directory.
        directory: The skills directory as the agents read it (``~/.claude/skills``,
            ``<repository>/.cursor/skills``).
        installed: The version its ``SKILL.md`` is stamped with. None when the skill is not
            there, has no stamp, cannot be read, or is reached only through a link out of the
            skills directory.
        current: The version of the running package.
        scope: ``user`` (under the home directory) or ``project`` (under the repository).
        update: The command that installs the running package's skills into this directory;
            None when no ``skill install`` writes it.
    )",
                            {{"skill", "str"},
                             {"directory", "Path"},
                             {"installed", "str | None"},
                             {"current", "str"},
                             {"scope", "str"},
                             {"update", "str | None"}},
                            {{"stale", property.get()}});
}

const FunctionDecl installed_skill_versions_function{
    "installed_skill_versions",
    "installed_skill_versions",
    R"(The stamp of each embedded skill in every skills directory an agent reads.

    The directories are the skill roots of every skill-capable agent, under the home directory
    (user scope) and under ``project_root`` (project scope). Only the head of each ``SKILL.md`` that
    is there is read, nothing is written, and no link out of a skills directory is followed. A
    directory that does not exist, a skill that is not installed and a file without a stamp answer
    None; so does a file that cannot be read, which is logged once.

    Args:
        project_root: The repository's root; None reads the user scope only.

    Returns:
        One entry for each skill in each directory: the user scope first, the directories of a
        scope in name order.
    )",
    {{{"project_root", "Path | None"}}},
    1,
    "list[InstalledSkill]",
    installed_skill_versions,
};

const FunctionDecl update_command_function{
    "_update_command",
    "_update_command",
    R"(The command that installs the running package's skills into one skills directory.

    ``skill install`` writes the directories ``resolve_skill_dirs`` picks for the agents it is
    given (``DEFAULT_AGENTS`` when it is given none). The command names the agent whose install
    writes exactly this directory, and at project scope the repository.

    Returns:
        The command line, or None when no single agent's install writes the directory.
    )",
    {{{"scope", "str"}, {"skills_dir", "str"}, {"project_root", "Path | None"}}},
    3,
    "str | None",
    update_command,
};

const FunctionDecl shell_word_function{
    "_shell_word",
    "_shell_word",
    R"(The text as one word of a command line: in double quotes unless it needs none.)",
    {{{"text", "str"}}},
    1,
    "str",
    shell_word,
};

}  // namespace agent_skills
