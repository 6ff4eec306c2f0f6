r"""Coverage-guided fuzzing of the module's text paths against plain-Python formulations.

Three targets, chosen by the first input byte:

- ``read_stamp`` on a file holding the input bytes, often padded so that the interesting
  bytes straddle the end of the head, where the cut to whole lines happens;
- ``version_tuple`` on texts rich in dots and decimal digits of several scripts, with digit
  runs long enough to take the big-integer path;
- ``_shell_word`` on texts mixing word characters of every kind with the ones that force
  quoting.

Every result must equal the reference. None of these inputs may make the module raise, so any
exception is a finding too. Not part of CI; run it by hand (the corpus directory is optional):

    pip install atheris
    python fuzz/fuzz_atheris.py -atheris_runs=1000000 -max_len=4096 -len_control=10 CORPUS_DIR

An ordinary build only gives the fuzzer coverage of the Python side. For guidance by the
native code, build the extension with clang's coverage hooks into a venv of its own, make
the libFuzzer runtime a shared library, and preload it:

    pip install --no-build-isolation . -Cbuild-dir=build/fuzz \
        -Ccmake.define.CMAKE_CXX_COMPILER=clang++-14 \
        -Ccmake.define.CMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link
    clang++-14 -shared -o /tmp/libfuzzer.so -Wl,--whole-archive \
        "$(clang++-14 -print-file-name=libclang_rt.fuzzer_no_main-x86_64.a)" -Wl,--no-whole-archive
    LD_PRELOAD=/tmp/libfuzzer.so python fuzz/fuzz_atheris.py -atheris_runs=1000000 ...
"""

import os
import re
import sys
import tempfile

import atheris

from zobek_lumeno.utils import agent_skills as mod

# The reference keys are computed with Python's int(), which is limited by default.
sys.set_int_max_str_digits(0)

HEAD = 2048
VERSION_RE = re.compile(r"^version:\s*([0-9][\w.\-]*)\s*$", re.MULTILINE)
PLAIN_WORD = r"[\w./:+-]+"


@atheris.instrument_func
def reference_stamp(data):
    head = data[:HEAD]
    text = head.decode("utf-8", "replace")
    if len(head) == HEAD:
        text = text[: text.rfind("\n") + 1]
    match = VERSION_RE.search(text)
    return match.group(1) if match else None


@atheris.instrument_func
def reference_key(v):
    key = []
    for piece in v.split("."):
        match = re.match(r"\d+", piece)
        key.append(int(match.group()) if match else 0)
    return tuple(key)


@atheris.instrument_func
def reference_word(text):
    return text if re.fullmatch(PLAIN_WORD, text) else f'"{text}"'


# Texts built from these reach the interesting classes far sooner than random code points:
# ASCII and non-ASCII decimal digits, digits that are numeric but not decimal, letters,
# marks, and the separators and quoting triggers.
VERSION_ALPHABET = "0123456789....٣０𝟘²Ⅻ¼ab-_ "
WORD_ALPHABET = "aZ09_./:+-é\u0301ß٣²Ⅻ ~$\"'\\\n\t\x00\u00a0\u2028"
STAMP_PIECES = [
    b"version:",
    b"version: ",
    b"1.2.3",
    b"\n",
    b"\r\n",
    b" ",
    b"\t",
    b"---\n",
    b"v",
    b"+",
    b"\xc3\xa9",
    b"\xff",
    b"\xe2\x80",
    b"\x0b",
    b"\x0c",
    b"\xc2\x85",
    b"\xe2\x80\xa8",
    b"9_x-y.z",
]
FILLERS = [b"a", b"a\n", b"\xc3\xa9", b"\n", b"version: 0\n"]

_tmp = tempfile.mkdtemp(prefix="fuzz-stamp-")
STAMP_FILE = os.path.join(_tmp, "SKILL.md")
STAMP_PATH = mod.Path(STAMP_FILE)


@atheris.instrument_func
def from_alphabet(fdp, alphabet):
    picks = fdp.ConsumeBytes(fdp.ConsumeIntInRange(0, 4000))
    return "".join(alphabet[b % len(alphabet)] for b in picks)


@atheris.instrument_func
def stamp_bytes(fdp):
    shape = fdp.ConsumeIntInRange(0, 3)
    padding = b""
    if shape:
        filler = FILLERS[fdp.ConsumeIntInRange(0, len(FILLERS) - 1)]
        size = fdp.ConsumeIntInRange(HEAD - 64, HEAD + 8) if shape < 3 else fdp.ConsumeIntInRange(0, HEAD)
        padding = (filler * (size // len(filler) + 1))[:size]
    if fdp.ConsumeBool():
        tail = b"".join(
            STAMP_PIECES[b % len(STAMP_PIECES)] for b in fdp.ConsumeBytes(fdp.ConsumeIntInRange(0, 64))
        )
    else:
        tail = fdp.ConsumeBytes(fdp.remaining_bytes())
    return padding + tail


@atheris.instrument_func
def check_stamp(fdp):
    data = stamp_bytes(fdp)
    with open(STAMP_FILE, "wb") as f:
        f.write(data)
    got = mod.read_stamp(STAMP_PATH)
    want = reference_stamp(data)
    if got != want:
        raise AssertionError(f"read_stamp({data!r}) gave {got!r}, expected {want!r}")


@atheris.instrument_func
def check_key(fdp):
    text = from_alphabet(fdp, VERSION_ALPHABET) if fdp.ConsumeBool() else fdp.ConsumeUnicode(4000)
    got = mod.version_tuple(text)
    want = reference_key(text)
    if got != want or not all(type(x) is int for x in got):
        raise AssertionError(f"version_tuple({text!r}) gave {got!r}, expected {want!r}")


@atheris.instrument_func
def check_word(fdp):
    text = from_alphabet(fdp, WORD_ALPHABET) if fdp.ConsumeBool() else fdp.ConsumeUnicode(4000)
    got = mod._shell_word(text)
    want = reference_word(text)
    if got != want or type(got) is not str:
        raise AssertionError(f"_shell_word({text!r}) gave {got!r}, expected {want!r}")


TARGETS = (check_stamp, check_key, check_word)


def test_one_input(data):
    fdp = atheris.FuzzedDataProvider(data)
    TARGETS[fdp.ConsumeIntInRange(0, len(TARGETS) - 1)](fdp)


def main():
    atheris.Setup(sys.argv, test_one_input)
    atheris.Fuzz()


if __name__ == "__main__":
    main()
