"""Stands in for the extension module until it is built.

The import system prefers the built module, which lies beside this file, so that this file costs nothing then.
Without it, importing the package would give the folder of C++ sources, as an empty namespace.
"""

import sys

raise ImportError(
    f"tovarincore.cloud_node is not built for CPython {sys.version_info[0]}.{sys.version_info[1]}"
    f" ({sys.executable}); build it with: make build"
    " (PYTHON=... chooses another interpreter), or install the package with pip",
    name=__name__,
)
