"""Where the package finds liblv.so."""

import ctypes.util
import os
import sys
from pathlib import Path

NAME = "liblv.so"
ENVIRONMENT = "LUMIVANE_LIBRARY"


def _candidates():
    # The source tree that holds this package, when it is used from a clone.
    root = Path(__file__).resolve().parents[2]
    for build in ("build", "build-test"):
        yield root / build / NAME
    # Installed prefixes: Python's own (a virtual environment), then the
    # usual ones, with and without the multiarch folder.
    multiarch = getattr(sys.implementation, "_multiarch", "")
    for prefix in dict.fromkeys((sys.prefix, "/usr/local", "/usr")):
        for lib in ("lib", "lib64", f"lib/{multiarch}" if multiarch else None):
            if lib:
                yield Path(prefix) / lib / NAME


def find_library():
    """The path of liblv.so to load, or its bare name for the system's loader."""
    given = os.environ.get(ENVIRONMENT)
    if given:
        path = Path(given)
        return str(path / NAME if path.is_dir() else path)
    for path in _candidates():
        if path.is_file():
            return str(path)
    return ctypes.util.find_library("lv") or NAME
