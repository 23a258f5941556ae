#!/usr/bin/env python3
"""Merges the result files of a build tree and renders them as Markdown.

  scripts/render-reports.py <build dir>

Every group <build dir>/results/<group>/*.json becomes one object in
<build dir>/reports/<group>.json, keyed by file name (without ".json"),
and one page <build dir>/reports/<group>.md; for salvage, the JSON is the
damage campaign's list of sums, one entry per kind of file and engine. A group with a renderer below
gets its own tables; any other group (a new one included) gets a generic
rendering: one table row per file when the files hold objects, a list
otherwise. Writes only into <build dir>/reports.
"""

import json
import os
import sys

from reportlib import markdown


def merge(group_dir):
    merged = {}
    for name in sorted(os.listdir(group_dir)):
        if not name.endswith(".json"):
            continue
        with open(os.path.join(group_dir, name)) as f:
            try:
                merged[name[:-5]] = json.load(f)
            except json.JSONDecodeError as error:
                merged[name[:-5]] = {"unreadable": str(error)}
    return merged


def cell(value):
    if isinstance(value, float):
        return f"{value:.1f}"
    if isinstance(value, dict):
        return "; ".join(f"{k} {v}" for k, v in value.items()) or "none"
    return str(value).replace("|", "\\|")


def table(rows, columns, headers=None):
    return markdown.table(headers or columns,
                          [[cell(row.get(c, "")) for c in columns] for row in rows])


def rows_table(rows, first=None):
    columns = [first] if first else []
    for row in rows:
        columns += [k for k in row if k not in columns]
    return table(rows, columns)


def generic(data, level="##"):
    values = list(data.values())
    if values and all(isinstance(v, dict) for v in values):
        return rows_table([dict(file=name, **value) for name, value in data.items()],
                          "file")
    lines = []
    for name, value in data.items():
        if isinstance(value, list) and value and all(isinstance(v, dict) for v in value):
            lines += ["", f"{level} {name}", ""] + rows_table(value)
        elif isinstance(value, dict):
            lines += ["", f"{level}# {name}", ""] + [f"- {k}: {cell(v)}" for k, v in value.items()]
        else:
            lines.append(f"- {name}: {cell(value)}")
    return lines


def columns_of(data, columns, headers):
    return table(list(data.values()), columns, headers)


def crash(data):
    return columns_of(
        data, ["test", "seed", "kills", "survived", "rows_lost", "calls_finished",
               "cut_in_add_item", "cut_in_update_item", "cut_in_rmv_item",
               "cut_between_calls", "rows_at_end", "seconds"],
        ["Test", "Seed", "Kills", "Survived", "Rows lost", "Calls finished",
         "Cut in add", "Cut in update", "Cut in remove", "Cut between calls",
         "Rows at the end", "Seconds"])


def corruption(data):
    return columns_of(
        data, ["file", "case", "open", "get_item_cnt", "sqlite_code", "queued",
               "get_item", "rows_read", "RepairDB", "file_bytes_after",
               "rows_after_repair", "integrity_after"],
        ["File", "Damage", "OpenDB", "Statement", "SQLite code", "Queued",
         "get_item", "Rows read", "RepairDB", "File bytes after", "Rows after repair",
         "integrity_check after"])


def wrongkey(data):
    cases = {k: v for k, v in data.items() if "get_item" in v}
    rekey = [v for v in data.values() if "reEncryptDB" in v]
    lines = columns_of(
        cases, ["case", "open", "table_exists", "get_item_cnt", "get_item", "add_item",
                "createTable", "repair_requests", "error_entries"],
        ["Case", "OpenDB", "Table exists", "get_item_cnt", "get_item", "add_item",
         "createTable", "Repair requests", "Error entries"])
    for v in rekey:
        lines += ["", f"After a wrong key, `reEncryptDB` returns {v['reEncryptDB']}; file "
                  f"changed: {v['file_changed']}; `get_item_cnt` with the new key: "
                  f"{v['get_item_cnt_with_new_key']}."]
    return lines


def concurrency(data):
    lines = []
    threads = data.get("shared_db_threads")
    if threads:
        lines.append(
            f"- {threads['threads']} threads for {threads['seconds']} s: "
            f"{threads['rows_written']} rows written, {threads['rows_lost']} lost; "
            f"{threads['single_inserts']} single inserts, {threads['batch_inserts']} batch "
            f"inserts ({threads['batches_refused_at_begin']} refused at their \"begin;\"), "
            f"{threads['reads']} reads ({threads['rows_read']} rows), "
            f"{threads['counts']} counts.")
    worker = data.get("execution_worker")
    if worker:
        lines.append(f"- Execution worker beside two queueing threads: committed "
                     f"{worker['committed']} of {worker['queued']} queued statements.")
    return lines or generic(data)


def logguard(data):
    entries = sum(v.get("entries_checked", 0) for v in data.values())
    return [f"- Log entries checked for key bytes: {entries} in {len(data)} test "
            f"processes; a match fails the test that wrote it."]


def security(data):
    return [f"- {name}: {cell(value)}" for name, value in data.items()]


def valgrind(data):
    rows = [dict(executable=k, **v) for k, v in data.items()]
    return table(rows, ["executable", "tests_passed", "errors", "suppressed", "rc"],
                 ["Executable", "Tests passed", "Errors", "Suppressed", "Exit status"])


def fuzz(data):
    rows = [dict(target=k, **v) for k, v in data.items()]
    return table(rows, ["target", "seed", "seconds", "executions", "per_second",
                        "new_units", "corpus", "findings", "rc"],
                 ["Target", "Seed", "Seconds", "Executions", "Per second", "New units",
                  "Corpus files", "Findings", "Exit status"])


def payload(data):
    rows = [dict(build=value.get("build", name), file=f"`{f['file']}`", bytes=f"{f['bytes']:,}")
            for name, value in data.items() for f in value.get("files", [])]
    return table(rows, ["build", "file", "bytes"], ["Build", "File", "Bytes, stripped"])


def suites(data):
    rows = [dict(suite=k, **v) for k, v in data.items()]
    return table(rows, ["suite", "arguments", "passed", "failed", "total", "summary"],
                 ["Suite", "ctest arguments", "Passed", "Failed", "Total", "Summary"])


def stages(data):
    rows = sorted(data.values(), key=lambda v: v.get("order", 0))
    total = sum(v.get("seconds", 0) for v in rows)
    return table(rows, ["stage", "seconds", "result"], ["Stage", "Seconds", "Result"]) + [
        "", f"Total: {total} s."]


def faults(data):
    lines = []
    cut_columns = ["journal_mode", "synchronous", "keyed", "cuts", "cuts_in_the_open",
                   "corrupt", "corrupt_after_a_cut_in_the_open", "half_applied",
                   "committed_rows_lost", "cuts_losing_rows", "first_read_failed",
                   "first_read_failed_then_second_open_read_all", "seed"]
    cut_headers = ["Journal", "synchronous", "Keyed", "Cuts", "Cuts in the open", "Corrupt",
                   "Corrupt, cut in the open", "Half applied", "Committed rows lost",
                   "Cuts losing rows", "First read failed",
                   "Second open read all", "Seed"]
    for name, title in (("power_cut", "Power cuts"), ("companion_defaults", "Companion defaults (ScopedDb)"),
                        ("unsafe_modes", "Unsafe journal modes")):
        if isinstance(data.get(name), list):
            lines += ["", f"### {title}", ""] + table(data[name], cut_columns, cut_headers)
    processes = data.get("processes")
    if isinstance(processes, dict) and isinstance(processes.get("runs"), list):
        totals = {k: v for k, v in processes.items() if k != "runs"}
        lines += ["", "### Several processes", ""] + rows_table(processes["runs"]) + [
            "", "Totals: " + "; ".join(f"{k} {cell(v)}" for k, v in totals.items()) + "."]
    for name in ("storage_full", "io_error", "alloc_failure"):
        if isinstance(data.get(name), dict):
            lines += ["", f"### {name}", ""] + [f"- {k}: {cell(v)}"
                                               for k, v in data[name].items()]
    rest = {k: v for k, v in data.items()
            if k not in ("power_cut", "companion_defaults", "unsafe_modes", "processes", "storage_full",
                         "io_error", "alloc_failure")}
    return lines + (generic(rest) if rest else [])


SALVAGE_SUMS = ["files", "rows_intact", "rows_salvaged", "rows_intact_salvaged",
                "rows_salvaged_wrong", "rows_intact_salvaged_wrong", "rows_recover", "rows_repair_today",
                "files_worse_than_recover", "files_recover_reported_errors",
                "files_not_salvaged", "crashes", "leaks",
                "seconds"]


def salvage_campaign(data):
    """The damage campaign's files (campaign-*) summed per kind and engine:
    the list reports/salvage.json holds. A figure a file gives as null (the
    shell has no .recover) stays null in the sum."""
    entries = {}
    for name, value in sorted(data.items()):
        if not name.startswith("campaign-") or not isinstance(value, dict):
            continue
        entry = entries.setdefault((value["kind"], value["engine"]),
                                   {"kind": value["kind"], "engine": value["engine"],
                                    "scale": value.get("scale"), "damages": 0})
        entry["damages"] += 1
        for key in SALVAGE_SUMS:
            if key in entry and entry[key] is None:
                continue
            entry[key] = None if value.get(key) is None else entry.get(key, 0) + value[key]
    for entry in entries.values():
        entry["seconds"] = round(entry.get("seconds") or 0, 1)
    return [entries[k] for k in sorted(entries)]


def percent(part, whole):
    return "-" if part is None or not whole else f"{100.0 * part / whole:.1f}%"


def salvage_rows(entries):
    return [dict(e, share=percent(e.get("rows_intact_salvaged"), e.get("rows_intact")),
                 rows_recover=("not available" if e.get("rows_recover") is None
                               else e["rows_recover"]),
                 files_worse_than_recover=("-" if e.get("files_worse_than_recover") is None
                                           else e["files_worse_than_recover"]),
                 files_recover_reported_errors=(
                     "-" if e.get("files_recover_reported_errors") is None
                     else e["files_recover_reported_errors"]))
            for e in entries]


def salvage(data):
    columns = ["kind", "engine", "files", "rows_intact", "rows_intact_salvaged", "share",
               "rows_salvaged", "rows_salvaged_wrong", "rows_intact_salvaged_wrong",
               "rows_recover", "rows_repair_today",
               "files_worse_than_recover", "files_recover_reported_errors", "files_not_salvaged",
               "crashes", "leaks"]
    headers = ["Kind", "Engine", "Files", "Rows on intact pages", "Of them salvaged", "Share",
               "Rows salvaged", "Changed rows salvaged", "Of them from intact pages",
               "Rows from .recover", "Rows after RepairDB",
               "Files worse than .recover", "Files where .recover reported errors",
               "Files not salvaged", "Crashes", "Leaks"]
    campaign = [dict(v) for k, v in sorted(data.items())
                if k.startswith("campaign-") and isinstance(v, dict)]
    lines = []
    if campaign:
        lines += ["### Damage campaign", ""] + table(
            salvage_rows(salvage_campaign(data)), columns, headers)
        lines += ["", "#### By damage", ""] + table(
            salvage_rows(campaign), ["kind", "damage"] + columns[1:] + ["seed"],
            ["Kind", "Damage"] + headers[1:] + ["Seed"])
    rest = {k: v for k, v in data.items() if not k.startswith("campaign-")}
    return lines + (["", "### Damage cases of salvage_test", ""] + generic(rest, level="####") if rest else [])


# Groups whose reports/<group>.json is a summary rather than the merged files.
SUMMARIES = {"salvage": salvage_campaign}

RENDERERS = {"faults": faults, "crash": crash, "corruption": corruption, "wrongkey": wrongkey,
             "concurrency": concurrency, "logguard": logguard, "security": security, "valgrind": valgrind,
             "fuzz": fuzz, "suites": suites, "stages": stages, "payload": payload,
             "salvage": salvage}


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    build = sys.argv[1]
    results = os.path.join(build, "results")
    reports = os.path.join(build, "reports")
    os.makedirs(reports, exist_ok=True)
    groups = sorted(g for g in os.listdir(results)
                    if os.path.isdir(os.path.join(results, g))) \
        if os.path.isdir(results) else []
    for group in groups:
        data = merge(os.path.join(results, group))
        summary = SUMMARIES.get(group, lambda d: d)(data)
        with open(os.path.join(reports, group + ".json"), "w") as f:
            json.dump(summary, f, indent=1, sort_keys=True)
            f.write("\n")
        lines = RENDERERS.get(group, generic)(data)
        with open(os.path.join(reports, group + ".md"), "w") as f:
            f.write(f"# {group}\n\n" + "\n".join(lines).lstrip("\n") + "\n")
        print(f"wrote {reports}/{group}.json and {group}.md")


if __name__ == "__main__":
    main()
