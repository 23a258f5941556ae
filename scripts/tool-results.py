#!/usr/bin/env python3
"""Turns the log of one tool run of the full test tier into a JSON result
file in the build tree, so that scripts/render-reports.py can render it
beside the tests' own results. The shell stages run the tools; this reads
what they printed.

  tool-results.py ctest    LOG OUT   ctest's summary (passed, failed, total)
  tool-results.py valgrind LOG OUT   memcheck's error count, tests passed,
                                     suppressions used
  tool-results.py fuzz     LOG OUT   libFuzzer's final statistics
  tool-results.py tsan     LOG OUT   gtest outcome and ThreadSanitizer reports
  tool-results.py payload  LIST OUT  the device's files and their stripped sizes,
                                     from the package test's list ("path bytes")

Extra NAME=VALUE arguments are added to the object (integers as numbers).
"""

import json
import os
import re
import sys


def last_int(pattern, text, default=0):
    found = re.findall(pattern, text, re.MULTILINE)
    return int(found[-1]) if found else default


def ctest(text):
    match = re.findall(r"^(\d+)% tests passed, (\d+) tests? failed out of (\d+)", text,
                       re.MULTILINE)
    if not match:
        return {"summary": "no ctest summary", "passed": 0, "failed": 0, "total": 0}
    percent, failed, total = (int(x) for x in match[-1])
    summary = re.findall(r"^\d+% tests passed.*$", text, re.MULTILINE)[-1]
    return {"summary": summary, "passed": total - failed, "failed": failed,
            "total": total}


def valgrind(text):
    used = re.findall(r"used_suppression:\s+(\d+) (\S+)", text)
    return {"errors": last_int(r"ERROR SUMMARY: (\d+)", text, -1),
            "tests_passed": last_int(r"^\[  PASSED  \] (\d+)", text),
            "suppressed": {name: int(count) for count, name in used}}


def fuzz(text):
    return {"executions": last_int(r"stat::number_of_executed_units: (\d+)", text),
            "per_second": last_int(r"stat::average_exec_per_sec:\s+(\d+)", text),
            "new_units": last_int(r"stat::new_units_added:\s+(\d+)", text)}


def tsan(text):
    return {"tests_passed": last_int(r"^\[  PASSED  \] (\d+)", text),
            "tests_failed": last_int(r"^\[  FAILED  \] (\d+) tests?, listed", text),
            "unsuppressed_reports": text.count("WARNING: ThreadSanitizer"),
            "suppressed_reports": last_int(r"ThreadSanitizer: Matched (\d+)", text)}


def payload(text):
    files = [{"file": path, "bytes": int(size)}
             for path, size in re.findall(r"^(\S+) (\d+)$", text, re.MULTILINE)]
    return {"files": files, "total_bytes": sum(f["bytes"] for f in files)}


PARSERS = {"ctest": ctest, "valgrind": valgrind, "fuzz": fuzz, "tsan": tsan,
           "payload": payload}


def main():
    if len(sys.argv) < 4 or sys.argv[1] not in PARSERS:
        sys.exit(__doc__)
    kind, log, out = sys.argv[1:4]
    try:
        with open(log, errors="replace") as f:
            text = f.read()
    except OSError:
        text = ""
    result = PARSERS[kind](text)
    for extra in sys.argv[4:]:
        name, _, value = extra.partition("=")
        result[name] = int(value) if re.fullmatch(r"-?\d+", value) else value
    os.makedirs(os.path.dirname(out), exist_ok=True)
    with open(out, "w") as f:
        json.dump(result, f, indent=1)
        f.write("\n")


if __name__ == "__main__":
    main()
