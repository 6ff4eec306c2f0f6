#!/usr/bin/env bash
# The test suite against an AddressSanitizer + UndefinedBehaviorSanitizer build of the
# extension. The build goes to its own build dir and a throwaway venv, so the normal
# install is left alone. Fails on a failing test and on any sanitizer report, including
# one from a subprocess whose output a test captured (reports are also written to files).
set -euo pipefail
cd "$(dirname "$0")/.."

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
python3 -m venv --system-site-packages "$work/venv"
# shellcheck disable=SC1091
. "$work/venv/bin/activate"

echo "== sanitized build"
python -m pip install -q 'scikit-build-core>=0.10' cmake ninja
# Debug keeps every frame in a report; the tests spend their time in Python, not here.
python -m pip install -q --no-build-isolation '.[test]' \
    -Cbuild-dir=build/sanitize \
    -Ccmake.build-type=Debug \
    -Ccmake.define.AGENT_SKILLS_SANITIZE=ON

# The interpreter is not instrumented, so the runtimes must be loaded before it; leak
# detection would only report the interpreter's own deliberate leaks at exit.
asan="$(g++ -print-file-name=libasan.so)"
ubsan="$(g++ -print-file-name=libubsan.so)"
mkdir -p "$work/reports"
export LD_PRELOAD="$asan $ubsan"
export ASAN_OPTIONS="detect_leaks=0:log_path=$work/reports/asan"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:log_path=$work/reports/ubsan"

# A stale normal install shadowing the sanitized one would make a clean run mean nothing.
python -c 'import sys, zobek_lumeno.utils.agent_skills as m; assert m.__file__.startswith(sys.prefix), m.__file__'

echo "== tests under ASan + UBSan"
status=0
python -m pytest -q tests 2>&1 | tee "$work/pytest.log" || status=${PIPESTATUS[0]}
unset LD_PRELOAD

found=0
if grep -E "ERROR: AddressSanitizer|runtime error:" "$work/pytest.log" >/dev/null; then found=1; fi
for report in "$work"/reports/*; do
    [ -s "$report" ] || continue
    found=1
    echo "== sanitizer report $report"
    cat "$report"
done
if [ "$found" -ne 0 ]; then
    echo "sanitizer reported errors" >&2
    exit 1
fi
if [ "$status" -ne 0 ]; then
    echo "tests failed under the sanitizers (exit $status)" >&2
    exit "$status"
fi
echo "sanitized run clean"
