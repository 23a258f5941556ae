"""Shared pieces of the report scripts (scripts/render-reports.py,
bench/report.py, bench/costs.py)."""
