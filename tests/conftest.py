import ast
import importlib.util
import logging
import sys
from pathlib import Path

import pytest

# An editable install imports the package through its own finder, which rebuilds the extension first:
# a test that makes a package of its own to import cannot reach it, and in an isolated sub-interpreter
# the rebuild cannot start its build process.
EDITABLE = any(type(finder).__name__ == "ScikitBuildRedirectingFinder" for finder in sys.meta_path)


def pytest_collection_modifyitems(items):
    for item in items:
        if EDITABLE and item.get_closest_marker("installed"):
            item.add_marker(pytest.mark.skip(reason="needs a regular install, not an editable one"))


@pytest.fixture(scope="session")
def plain():
    """The module written as plain Python from its description, never from the C++ (the benchmarks'
    yardstick): an oracle independent of the code under test. Loaded under the module's own name, so
    its records, annotations and logger are named alike; it is not registered in sys.modules."""
    path = Path(__file__).parents[1] / "bench" / "plain_agent_skills.py"
    spec = importlib.util.spec_from_file_location("zobek_lumeno.utils.agent_skills", path)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def what_call_gives(call, *args, **kwargs):
    try:
        value = call(*args, **kwargs)
    except Exception as error:
        return type(error), str(error), getattr(error, "name", None), type(error.__context__)
    return "returned", value, type(value).__name__


@pytest.fixture(scope="session")
def outcome():
    """What a call comes to: its value and the value's type, or its error: type, text, name and the type
    of the error it was raised in handling."""
    return what_call_gives


def make_own_logger(name, emit):
    """A logger made directly, outside the logging manager's registry, whose one handler calls ``emit``: no
    test harness can find it to attach handlers of its own (which would format tracebacks, reading source
    files, while a test spies on the host's calls), and nothing propagates from it."""
    logger = logging.Logger(name)
    handler = logging.Handler()
    handler.emit = emit
    logger.addHandler(handler)
    logger.propagate = False
    return logger


@pytest.fixture(scope="session")
def own_logger():
    return make_own_logger


@pytest.fixture(scope="session")
def source_docs():
    """Every documentation text of the plain formulation as its source writes it, by qualified name ("" for
    the module's): the texts themselves, which from 3.13 the compiler no longer keeps as written."""
    tree = ast.parse((Path(__file__).parents[1] / "bench" / "plain_agent_skills.py").read_text())
    docs = {"": ast.get_docstring(tree, clean=False)}
    for node in tree.body:
        for inner in [node, *getattr(node, "body", [])] if isinstance(node, ast.ClassDef) else [node]:
            if isinstance(inner, ast.FunctionDef | ast.ClassDef):
                name = inner.name if inner is node else f"{node.name}.{inner.name}"
                docs[name] = ast.get_docstring(inner, clean=False)
    return docs
