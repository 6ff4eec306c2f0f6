import sys

import pytest

# An editable install imports the package through its own finder, which rebuilds the extension first:
# a test that makes a package of its own to import cannot reach it, and in an isolated sub-interpreter
# the rebuild cannot start its build process.
EDITABLE = any(type(finder).__name__ == "ScikitBuildRedirectingFinder" for finder in sys.meta_path)


def pytest_collection_modifyitems(items):
    for item in items:
        if EDITABLE and item.get_closest_marker("installed"):
            item.add_marker(pytest.mark.skip(reason="needs a regular install, not an editable one"))
