"""The command for operators, ``tovarin-nodes``; ``docs/command.md`` describes it."""
