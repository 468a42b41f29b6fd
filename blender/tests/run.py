"""Runs the add-on's tests with pytest inside Blender:

    blender -b --factory-startup --python blender/tests/run.py [-- pytest arguments]

The add-on is imported from this checkout and registered once; Blender's exit
status is pytest's."""

import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))  # the add-on package
sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(HERE)), "python"))  # the lumivane package

import pytest  # noqa: E402

arguments = sys.argv[sys.argv.index("--") + 1:] if "--" in sys.argv else []
sys.exit(pytest.main(["-q", "-p", "no:cacheprovider", HERE] + arguments))
