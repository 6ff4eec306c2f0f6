// The native route of the directory scan and of read_stamp: the same answers and events
// as the plain route (the host's pathlib, os and io), from the same system calls made
// here, taken only while nothing a Python caller could observe would differ.
#pragma once

#include <optional>

#include "module.hpp"

namespace agent_skills {

// What the guard compares the bound objects with, captured once the module's names are
// bound; without them (an unusual host) the native route is never taken.
void capture_scan_originals(State& st, PyObject* module_dict);

// `_stamps_in(directory)` done natively, handing single skills to the bound `_stamp_inside`
// where the native route cannot answer; nothing when the plain route must do all of it.
std::optional<Ref> native_stamps_in(const Context& cx, PyObject* directory);

// `read_stamp(path)` done natively; nothing when the plain route must read.
std::optional<Ref> native_read_stamp(const Context& cx, PyObject* path);

}  // namespace agent_skills
