"""Markdown tables for the report scripts: every table that
scripts/render-reports.py, bench/report.py and bench/costs.py write comes
from table() below, so that they share one layout."""


def table(headers, rows, right_from=None):
    """The lines of a Markdown table: the header row, the rule row and one
    line per row of `rows`, each cell written with str(). Columns from index
    `right_from` on are aligned right (figures); all are aligned left when
    it is None."""
    rules = ["---" if right_from is None or i < right_from else "---:"
             for i in range(len(headers))]
    lines = ["| " + " | ".join(headers) + " |", "|" + "".join(r + "|" for r in rules)]
    lines += ["| " + " | ".join(str(c) for c in row) + " |" for row in rows]
    return lines
