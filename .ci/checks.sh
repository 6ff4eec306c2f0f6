#!/usr/bin/env bash
# Quality gates that CI runs after the tests: the stub against the built module, the typed
# example, C++ formatting and static analysis, Python lint and formatting, and packaging.
#
#   bash .ci/checks.sh            every check, then a summary; exits 1 if any failed
#   bash .ci/checks.sh ruff mypy  only the named checks (names as printed in the summary)
#
# Stub checks import the module, so the package must already be installed in the active
# Python (CI's test step does that; locally, your venv's install).
set -euo pipefail
cd "$(dirname "$0")/.."

# Pinned so that a new release of a tool cannot turn CI red on unchanged code.
RUFF_VERSION=0.17.6
MYPY_VERSION=2.4.1
BUILD_VERSION=1.6.1

PY=${PYTHON:-python}
ROOT=$(pwd)
MODULE=zobek_lumeno.utils.agent_skills
TIDY_BUILD_DIR=build/tidy

need_tools() {
    if ! command -v clang-format >/dev/null || ! command -v clang-tidy >/dev/null; then
        local sudo=""
        [ "$(id -u)" -eq 0 ] || sudo=sudo
        $sudo apt-get update -qq
        DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq clang-format clang-tidy >/dev/null
    fi
    "$PY" -m pip install -q --disable-pip-version-check \
        "ruff==$RUFF_VERSION" "mypy==$MYPY_VERSION" "build==$BUILD_VERSION"
}

check_stubtest() {
    # The config points mypy at src/, so the stub checked is the one in the tree.
    "$PY" -m mypy.stubtest --mypy-config-file pyproject.toml \
        --allowlist .ci/stubtest-allowlist.txt "$MODULE"
}

# stubtest says nothing about private names the stub leaves out; the stub describes them all.
check_stub_names() {
    "$PY" - "$MODULE" src/zobek_lumeno/utils/agent_skills.pyi <<'EOF'
import ast
import importlib
import sys

module = importlib.import_module(sys.argv[1])
stubbed = set()
for node in ast.parse(open(sys.argv[2], encoding="utf-8").read()).body:
    if isinstance(node, ast.FunctionDef | ast.ClassDef):
        stubbed.add(node.name)
    elif isinstance(node, ast.AnnAssign | ast.Assign):
        targets = node.targets if isinstance(node, ast.Assign) else [node.target]
        stubbed.update(t.id for t in targets if isinstance(t, ast.Name))
    elif isinstance(node, ast.Import | ast.ImportFrom):
        stubbed.update(a.asname for a in node.names if a.asname)
bound = {n for n in vars(module) if not (n.startswith("__") and n.endswith("__"))} | {"__version__"}
missing = sorted(bound - stubbed)
if missing:
    sys.exit(f"bound by the module but not in the stub: {', '.join(missing)}")
EOF
}

check_mypy() {
    "$PY" -m mypy --strict examples/typed_usage.py
    "$PY" -m mypy --strict -p zobek_lumeno
}

check_clang_format() {
    clang-format --version
    clang-format --dry-run --Werror native/*.cpp native/*.hpp
}

check_clang_tidy() {
    cmake -S . -B "$TIDY_BUILD_DIR" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
        -DPython_EXECUTABLE="$("$PY" -c 'import sys; print(sys.executable)')" >/dev/null
    clang-tidy --version | head -n 2
    # One process per file, two at a time: the machines have two cores.
    # clang-tidy counts the warnings it suppressed in system headers on stderr even with
    # --quiet; that count says nothing about this code.
    printf '%s\n' native/*.cpp |
        xargs -P 2 -n 1 clang-tidy -p "$TIDY_BUILD_DIR" --quiet --warnings-as-errors='*' 2>&1 |
        { grep -v '^[0-9]* warnings generated\.$' || true; }
}

check_ruff() {
    "$PY" -m ruff check
    "$PY" -m ruff format --check
}

# The sdist is built, then a wheel is built from that sdist alone inside a throwaway venv and
# installed there: a file the sdist forgets breaks the build or the smoke call.
check_package() {
    local work
    work=$(mktemp -d)
    trap 'rm -rf "$work"' RETURN
    "$PY" -m build --sdist --outdir "$work/dist" . >"$work/build.log" 2>&1 || {
        cat "$work/build.log"
        return 1
    }
    local sdist
    sdist=$(ls "$work"/dist/*.tar.gz)
    echo "sdist: $(basename "$sdist")"

    tar -xzf "$sdist" -O --wildcards '*/PKG-INFO' >"$work/PKG-INFO"
    local field missing=0
    for field in Name Version Summary License Requires-Python; do
        grep -q "^$field: ." "$work/PKG-INFO" || {
            echo "metadata lacks $field"
            missing=1
        }
    done
    [ "$missing" -eq 0 ] || return 1

    "$PY" -m venv "$work/venv"
    "$work/venv/bin/python" -m pip wheel -q --no-deps -w "$work/wheel" "$sdist"
    local wheel
    wheel=$(ls "$work"/wheel/*.whl)
    echo "wheel: $(basename "$wheel")"
    "$PY" - "$wheel" <<'EOF'
import sys
import zipfile

names = zipfile.ZipFile(sys.argv[1]).namelist()
wanted = ["zobek_lumeno/py.typed", "zobek_lumeno/utils/agent_skills.pyi", "zobek_lumeno/__init__.py"]
wanted += [f"zobek_lumeno/skills/{skill}/SKILL.md" for skill in ("lumeno", "lumeno-map", "lumeno-wiki")]
absent = [n for n in wanted if n not in names]
entry_points = [n for n in names if n.endswith(".dist-info/entry_points.txt")]
if not entry_points or "zobek-lumeno = " not in zipfile.ZipFile(sys.argv[1]).read(entry_points[0]).decode():
    absent.append("the zobek-lumeno console script")
if not any(n.startswith("zobek_lumeno/utils/agent_skills.") and n.endswith(".so") for n in names):
    absent.append("zobek_lumeno/utils/agent_skills.*.so")
if absent:
    sys.exit(f"the wheel lacks {', '.join(absent)}")
EOF
    "$work/venv/bin/python" -m pip install -q --disable-pip-version-check "$wheel"

    # From an empty directory with a home of its own, so neither the tree nor the
    # developer's real skills directories can leak in.
    mkdir "$work/home" "$work/run"
    (cd "$work/run" && HOME="$work/home" "$work/venv/bin/python" - "$work/venv" <<'EOF'
import sys
from pathlib import Path

import zobek_lumeno
from zobek_lumeno.utils import agent_skills as m

assert Path(m.__file__).is_relative_to(sys.argv[1]), m.__file__
assert m.resolve_skill_dirs(["claude", "cursor-agent"]) == [".claude/skills"]
records = m.installed_skill_versions(None)
assert [r.skill for r in records[:3]] == list(m.SKILL_NAMES), records
assert all(r.installed is None and not r.stale for r in records), records
print(f"smoke: {m.__name__} {zobek_lumeno.__version__}, {len(records)} records")
EOF
    )
    # The installed package, not the tree, must carry the types a user's mypy sees.
    printf '[mypy]\n' >"$work/mypy.ini"
    (cd "$work/run" && "$PY" -m mypy --strict --config-file "$work/mypy.ini" --no-incremental \
        --python-executable "$work/venv/bin/python" "$ROOT/examples/typed_usage.py")
}

ALL=(stubtest stub_names mypy clang_format clang_tidy ruff package)
selected=("$@")
[ ${#selected[@]} -gt 0 ] || selected=("${ALL[@]}")

need_tools
failed=()
for name in "${selected[@]}"; do
    echo "== $name"
    # A subshell outside any `if`, so that `set -e` still stops a check at its first failure.
    set +e
    (set -e; "check_$name")
    status=$?
    set -e
    if [ "$status" -eq 0 ]; then
        echo "-- ok: $name"
    else
        echo "-- FAILED: $name"
        failed+=("$name")
    fi
done

if [ ${#failed[@]} -gt 0 ]; then
    echo "checks failed: ${failed[*]}"
    exit 1
fi
echo "all checks passed: ${selected[*]}"
