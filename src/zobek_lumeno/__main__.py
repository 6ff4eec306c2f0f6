"""``python -m zobek_lumeno``: the same program as the ``zobek-lumeno`` console script."""

import sys

from zobek_lumeno.cli import run

if __name__ == "__main__":
    sys.exit(run())
