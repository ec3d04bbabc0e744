"""The command for operators, as ``python -m tovarincore``."""

import sys

from tovarincore.command.main import main

sys.exit(main())
