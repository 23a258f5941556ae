#!/usr/bin/env python3
"""Writes the performance report (bench/run: <build dir>/reports/performance.md,
which scripts/publish-reports.py copies into docs/performance.md) from the JSON output of the pair benchmarks
(and the callgrind table, when present), as bench/run collects them: one
file per binary and round, <binary>.roundNN.json.

Each benchmark is named <pair>/<side>/<N>/real_time and reports a "rows"
counter (rows per second). For each side the median over every repetition
of every round is reported; the library/raw ratio is the median over the
rounds of the per-round ratio of the two sides' medians.
"""

import argparse
import datetime
import glob
import json
import os
import platform
import re
import statistics
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))),
                                "scripts"))
from reportlib import markdown  # noqa: E402

SIDES = ("library", "raw", "raw_bound")

# What each pair measures, in the order of the document.
PAIRS = [
    ("insert", "`Table::add_item` of N records (all columns; more than one in one "
     "transaction) | raw: the same statements, text built with `snprintf`, prepared with "
     "`sqlite3_prepare`, blob bound, stepped and finalised per record, inside the same "
     "`begin;`/`commit;` | raw prepared-once: one statement prepared per call and reused "
     "with bind for every record (the engine's ceiling, for reference)"),
    ("read_all", "`Table::get_item` of all N rows, all columns, no filter | raw: the same "
     "`select * from t_event;`, prepare/step and a hand-written copy of the six columns "
     "into the same records"),
    ("read_filtered", "`Table::get_item` with the filter `Kind = 1`, `Time >= ...` "
     "selecting N of 2N rows | raw: the same text, prepare/step/copy"),
    ("read_columns", "`Table::get_item` with the column list (Id, Name) over N rows "
     "(packed output) | raw: `select Id, Name from t_event;`, prepare/step/copy"),
    ("count", "`Table::get_item_cnt` with `Kind = 1` over N rows | raw: "
     "`sqlite3_get_table` of the same text, count read from the first cell"),
    ("max", "`Table::get_item_max` of Time with `Kind = 1` over N rows | raw: "
     "`sqlite3_get_table` of the same text"),
    ("update", "`Table::update_item` of one row by key in a table of N rows (one "
     "statement, its own transaction); rows/s = statements/s | raw: `sqlite3_exec` of the "
     "same text"),
    ("remove", "`Table::rmv_item` of N one-term lists (one delete by key each; more than "
     "one in one transaction) | raw: the same `begin;`, deletes and `commit;` through "
     "`sqlite3_exec`; rows are put back between iterations outside the measured time"),
    ("open_close", "`Db::OpenDB` + `Db::CloseDB` of an existing keyed file; rows/s = "
     "open-close cycles/s | raw: `sqlite3_open`, `sqlite3_key` (64 bytes), the three "
     "pragmas, `sqlite3_close`"),
    ("filter_clause", "text assembly alone: a `DbFilters` of five terms rendered into "
     "the filter clause by the library's clause builder; rows/s = clauses/s | raw: "
     "`snprintf` of the same text into a stack buffer"),
]


def parse_args():
    parser = argparse.ArgumentParser()
    parser.add_argument("--results", required=True)
    parser.add_argument("--out", required=True)
    parser.add_argument("--load-before", default="?")
    parser.add_argument("--load-after", default="?")
    parser.add_argument("--rounds", default="?")
    parser.add_argument("--repetitions", default="?")
    parser.add_argument("--min-time", default="?")
    parser.add_argument("--build-dir", default="?")
    parser.add_argument("--armhf-results", default="")
    parser.add_argument("--armhf-rounds", default="?")
    parser.add_argument("--armhf-repetitions", default="?")
    return parser.parse_args()


def split_run_name(run_name):
    """insert/library/1000/real_time -> (insert, library, 1000)."""
    parts = [p for p in run_name.split("/") if p != "real_time"]
    if len(parts) < 2:
        return None
    return parts[0], parts[1], parts[2] if len(parts) > 2 else ""


def load_results(directory):
    """{(pair, n): {side: [[rows/s of each repetition] per round]}} and the
    first context. Files are <binary>.roundNN.json, one per binary and round."""
    samples = {}
    context = None
    for path in sorted(glob.glob(os.path.join(directory, "*.json"))):
        match = re.search(r"\.round(\d+)\.json$", path)
        if match is None:
            continue
        round_index = int(match.group(1))
        with open(path) as handle:
            data = json.load(handle)
        context = context or data.get("context", {})
        for bench in data.get("benchmarks", []):
            if bench.get("run_type") != "iteration" or bench.get("error_occurred"):
                continue
            name = split_run_name(bench.get("run_name", ""))
            if name is None or "rows" not in bench:
                continue
            pair, side, n = name
            rounds = samples.setdefault((pair, n), {}).setdefault(side, {})
            rounds.setdefault(round_index, []).append(bench["rows"])
    return samples, context or {}


def pooled(rounds):
    """Every repetition of every round of one side."""
    return [value for values in (rounds or {}).values() for value in values]


def median_rate(rounds):
    values = pooled(rounds)
    return statistics.median(values) if values else None


def spread(rounds):
    """The coefficient of variation of all repetitions, in percent."""
    values = pooled(rounds)
    if len(values) < 2:
        return "-"
    return "%.0f%%" % (100 * statistics.pstdev(values) / statistics.mean(values))


def round_ratios(numerator, denominator):
    """Per round in which both sides ran: the ratio of their medians."""
    ratios = []
    for round_index in sorted(set(numerator or {}) & set(denominator or {})):
        bottom = statistics.median(denominator[round_index])
        if bottom:
            ratios.append(statistics.median(numerator[round_index]) / bottom)
    return ratios


def paired_ratio(numerator, denominator):
    """The median over the rounds of the per-round ratio, or None."""
    ratios = round_ratios(numerator, denominator)
    return statistics.median(ratios) if ratios else None


def ratio_range(numerator, denominator):
    """The lowest and highest per-round ratio, as "low-high"."""
    ratios = round_ratios(numerator, denominator)
    if len(ratios) < 2:
        return "-"
    return "%.2f-%.2f" % (min(ratios), max(ratios))


def command_output(command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=False,
                              timeout=20).stdout.strip()
    except (OSError, subprocess.SubprocessError):
        return ""


def cpu_model():
    try:
        with open("/proc/cpuinfo") as handle:
            for line in handle:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor() or "unknown"


def memory_total():
    try:
        with open("/proc/meminfo") as handle:
            for line in handle:
                if line.startswith("MemTotal"):
                    return "%.1f GiB" % (int(line.split()[1]) / 1024 / 1024)
    except OSError:
        pass
    return "unknown"


def cache_value(build_dir, key):
    try:
        with open(os.path.join(build_dir, "CMakeCache.txt")) as handle:
            for line in handle:
                if line.startswith(key + ":"):
                    return line.split("=", 1)[1].strip()
    except OSError:
        pass
    return ""


def temp_filesystem():
    directory = os.environ.get("TMPDIR") or "/tmp"
    lines = command_output(["df", "-T", directory]).splitlines()
    if len(lines) >= 2:
        fields = lines[1].split()
        return "%s (%s on %s)" % (directory, fields[1], fields[0])
    return directory


def rate(value):
    if value is None:
        return "-"
    if value >= 100:
        return "{:,.0f}".format(value)
    return "{:,.1f}".format(value)


def ratio_text(value):
    return "-" if value is None else "%.3f" % value


def sort_key(n):
    return int(n) if n.isdigit() else -1


def pair_table(samples, pair):
    rows = sorted((n for (p, n) in samples if p == pair), key=sort_key)
    if not rows:
        return []
    bound = any("raw_bound" in samples[(pair, n)] for n in rows)
    headers = ["N", "library rows/s", "raw rows/s", "library/raw", "rounds' range",
               "spread library/raw"]
    if bound:
        headers += ["raw prepared-once rows/s", "library/prepared-once"]
    cells = []
    for n in rows:
        sides = samples[(pair, n)]
        library, raw = sides.get("library"), sides.get("raw")
        row = [n or "-", rate(median_rate(library)), rate(median_rate(raw)),
               ratio_text(paired_ratio(library, raw)), ratio_range(library, raw),
               "%s / %s" % (spread(library), spread(raw))]
        if bound:
            ceiling = sides.get("raw_bound")
            row += [rate(median_rate(ceiling)), ratio_text(paired_ratio(library, ceiling))]
        cells.append(row)
    return markdown.table(headers, cells, right_from=0)


def armhf_table(samples):
    """Ratios only: library/raw and library/prepared-once, per pair and N."""
    cells = []
    for pair, _ in PAIRS:
        for n in sorted((n for (p, n) in samples if p == pair), key=sort_key):
            sides = samples[(pair, n)]
            library, raw = sides.get("library"), sides.get("raw")
            cells.append([pair, n or "-", ratio_text(paired_ratio(library, raw)),
                          ratio_range(library, raw), "%s / %s" % (spread(library), spread(raw)),
                          ratio_text(paired_ratio(library, sides.get("raw_bound")))])
    headers = ["pair", "N", "library/raw", "rounds' range", "spread library/raw",
               "library/prepared-once"]
    return markdown.table(headers, cells, right_from=1) if cells else []


def library_over_raw(samples, pair, n):
    sides = samples.get((pair, n), {})
    return paired_ratio(sides.get("library"), sides.get("raw"))


def callgrind_ratios(text):
    """{pair: (library Ir/row, raw Ir/row, ratio)} from the callgrind table."""
    ratios = {}
    for line in text.splitlines():
        cells = [c.strip() for c in line.strip().strip("|").split("|")]
        if len(cells) >= 4 and re.fullmatch(r"[0-9.]+", cells[3] or "x"):
            ratios[cells[0]] = (cells[1], cells[2], float(cells[3]))
    return ratios


def goal_row(name, value, bound, at_least, meaning):
    if value is None:
        return [name, meaning, "not measured"]
    met = value >= bound if at_least else value <= bound
    if met:
        verdict = "met (%.3f)" % value
    else:
        short = (bound - value) / bound if at_least else (value - bound) / bound
        verdict = "**missed** (%.3f, %.1f%% %s the goal)" % (
            value, 100 * short, "short of" if at_least else "over")
    return [name, meaning, verdict]


def goals(samples, callgrind):
    rows = [goal_row("`add_item` >= 0.90x raw same-statement",
                     library_over_raw(samples, "insert", "1000"), 0.90, True,
                     "rows/s, library/raw (median over rounds)"),
            goal_row("`get_item` >= 0.90x raw step+copy",
                     library_over_raw(samples, "read_all", "1000"), 0.90, True,
                     "rows/s, library/raw, all columns (median over rounds)")]
    count = library_over_raw(samples, "count", "1000")
    rows.append(goal_row("`get_item_cnt` within 1.10x raw",
                         None if count is None else 1 / count, 1.10, False,
                         "time per call, library/raw (median over rounds)"))
    for pair in ("insert", "read_all", "read_filtered", "read_columns", "count"):
        entry = callgrind.get(pair)
        rows.append(goal_row("callgrind Ir/row <= 1.10x raw (%s)" % pair,
                             entry[2] if entry else None, 1.10, False,
                             "instructions per row, library/raw"))
    return markdown.table(["goal (N = 1000)", "measure", "result"], rows)


def main():
    args = parse_args()
    samples, context = load_results(args.results)
    callgrind_text = ""
    callgrind_path = os.path.join(args.results, "callgrind.md")
    if os.path.exists(callgrind_path):
        with open(callgrind_path) as handle:
            callgrind_text = handle.read().strip()
    callgrind = callgrind_ratios(callgrind_text)

    compiler = cache_value(args.build_dir, "CMAKE_CXX_COMPILER")
    compiler_version = command_output([compiler, "--version"]).splitlines()[:1] if compiler else []
    build_type = cache_value(args.build_dir, "CMAKE_BUILD_TYPE") or "?"
    out = []
    out.append("# Performance: the library beside raw SQLite")
    out.append("")
    out.append("Written by `bench/run` on %s. Every figure compares the library with raw "
               "SQLite on the same SQLCipher build, in the same run, on a keyed file (64-byte "
               "key) in a temporary directory with the library's pragmas "
               "(`cipher_default_compatibility = 3`, `synchronous = NORMAL`, "
               "`journal_mode = DELETE`). The raw side sends exactly the statements the "
               "library sends (each binary checks this through `sqlite3_trace_v2` before "
               "it measures, and the smoke tests fail if they differ)." %
               datetime.date.today().isoformat())
    out.append("")
    out.append("## Machine")
    out.append("")
    out.append("- CPU: %s, %s logical CPUs%s" % (
        cpu_model(), context.get("num_cpus", os.cpu_count()),
        ", %s MHz" % context["mhz_per_cpu"] if context.get("mhz_per_cpu") else ""))
    out.append("- Memory: %s; kernel %s %s" % (memory_total(), platform.system(),
                                              platform.release()))
    out.append("- Database files: %s" % temp_filesystem())
    out.append("- SQLCipher %s on SQLite %s" % (context.get("sqlcipher_version", "?"),
                                              context.get("sqlite_version", "?")))
    out.append("- Build: %s, %s" % (build_type,
                                   compiler_version[0] if compiler_version else "?"))
    out.append("- Load average (1, 5, 15 min) before the run: %s; after: %s. The machine "
               "may be shared; timings taken under load are noisier than the instruction "
               "counts below." % (args.load_before, args.load_after))
    out.append("- Method: %s rounds; in each round every benchmark binary runs once with "
               "%s repetitions of at least %s s per benchmark in random interleaving "
               "(`--benchmark_enable_random_interleaving`); wall-clock time (disk waits are "
               "part of the cost). Rows/s is the median over all repetitions of all "
               "rounds. library/raw is the median over the rounds of the ratio of the two "
               "sides' medians in that round (above 1: the library is faster), so that "
               "both sides of every ratio were measured within seconds of each other; "
               "the rounds' range gives the lowest and highest of those per-round ratios. "
               "Spread is the coefficient of variation over all repetitions." %
               (args.rounds, args.repetitions, args.min_time))
    out.append("")
    out.append("## Goals")
    out.append("")
    out.extend(goals(samples, callgrind))
    out.append("")
    out.append("## Pairs")
    out.append("")
    for pair, description in PAIRS:
        table = pair_table(samples, pair)
        if not table:
            continue
        library_part, *raw_parts = description.split(" | ")
        out.append("### %s" % pair)
        out.append("")
        out.append("Library: %s. Raw baseline: %s." % (
            library_part, "; ".join(p.replace("raw: ", "", 1) for p in raw_parts)))
        out.append("")
        out.extend(table)
        out.append("")
    if callgrind_text:
        out.append("## Instructions per row (callgrind)")
        out.append("")
        out.append(callgrind_text)
        out.append("")
        out.append("Produced by `bench/callgrind`: each side runs once on N rows after its "
                   "setup and one warm-up run, and only that run is counted "
                   "(`--toggle-collect`). For `filter_clause` a row is one rendering of "
                   "the clause.")
        out.append("")
    if args.armhf_results:
        armhf, armhf_context = load_results(args.armhf_results)
        table = armhf_table(armhf)
        if table:
            out.append("## 32-bit ARM under qemu-arm (ratios only)")
            out.append("")
            out.append("The same pairs cross-built for armhf (by default the "
                       "`armhf-release` preset, `arm-linux-gnueabihf-g++`, Debian's armhf "
                       "SQLCipher %s on SQLite %s) and run under `qemu-arm` on the machine "
                       "above, %s rounds of %s repetitions, N up to 1000. Emulated timings "
                       "are not device timings, so only the ratios are given, each the "
                       "median over the rounds (above 1: the library is faster)." %
                       (armhf_context.get("sqlcipher_version", "?"),
                        armhf_context.get("sqlite_version", "?"), args.armhf_rounds,
                        args.armhf_repetitions))
            out.append("")
            out.extend(table)
            out.append("")
    notes_path = os.path.join(os.path.dirname(os.path.abspath(__file__)),
                              "performance_notes.md")
    if os.path.exists(notes_path):
        with open(notes_path) as handle:
            out.append(handle.read().strip())
        out.append("")
    os.makedirs(os.path.dirname(os.path.abspath(args.out)), exist_ok=True)
    with open(args.out, "w") as handle:
        handle.write("\n".join(out))


if __name__ == "__main__":
    main()
