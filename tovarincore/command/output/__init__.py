"""How results are shown: text fit for a terminal, tables, and documents for programs."""
