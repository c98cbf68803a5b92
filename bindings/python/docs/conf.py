# The Python package's API reference, built from its docstrings.
import os
import sys

sys.path.insert(0, os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "src")))

project = "kalometio"
extensions = ["sphinx.ext.autodoc", "sphinx.ext.napoleon"]
autodoc_member_order = "bysource"
autodoc_typehints = "description"
html_theme = "alabaster"
exclude_patterns = ["_build"]
