#!/usr/bin/env python3
"""Runs the device-cost measurements of bench/costs and writes
DIR/reports/costs.json and DIR/reports/costs.md (with SVG plots beside it).

  bench/costs.py --build-dir DIR [--quick] [--armhf-build-dir DIR] [--render-only]

The measurements are made by DIR/bench/costs_driver (bytes and syncs per
event, heap peaks, growth under callgrind, the retention soak) and by
bench/callgrind (library/raw instructions of the pairs). Nothing is built
here: a missing binary is named with the command that builds it. Every
figure is a count (bytes, syncs, instructions), which a busy machine does
not change.
"""

import argparse
import datetime
import json
import os
import platform
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(ROOT, "scripts"))
from reportlib import markdown  # noqa: E402

# Sizes: (full, quick).
SIZES = {
    "writes_events": (1024, 256),
    "heap_rows": ([1000, 10000, 100000], [1000]),
    "growth_rows": ([1000, 10000, 100000, 1000000], [1000, 10000]),
    "soak": ((1000000, 10000, 32), (20000, 1000, 32)),
    "pair_rows": (1000, 100),
    "armhf_writes_events": (512, 256),
    "armhf_heap_rows": ([1000, 10000], [1000]),
}
GROWTH_OPS = ["add_item", "get_item", "get_item_cnt", "get_item_max"]
# Reads whose results are containers the caller owns: their peaks are
# reported apart from the goal.
CALLER_OWNED_OPS = {"get_item_vz"}
GOALS = {"writes_within": 0.02, "heap_lib_peak_bytes": 65536, "growth_insert": 1.3,
         "growth_read": 2.0, "soak_max_over_steady": 1.5, "ir_ratio": 1.03}


def fail(message):
    print("costs: " + message, file=sys.stderr)
    sys.exit(2)


def driver_in(build_dir):
    """The driver, after checking that every binary the run needs is built."""
    for target in ("costs_driver", "callgrind_driver", "callgrind_clause_driver"):
        path = os.path.join(build_dir, "bench", target)
        if not os.access(path, os.X_OK):
            fail(f"{path} is missing; build it with "
                 f"`cmake --build {build_dir} --target {target}`")
    return os.path.join(build_dir, "bench", "costs_driver")


def run_lines(command):
    """Runs `command`; its stdout as JSON objects, one a line."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if done.returncode != 0:
        fail(f"{' '.join(command)} failed:\n{done.stderr[-2000:]}")
    return [json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")]


def step(title):
    print(f"[{datetime.datetime.now().strftime('%H:%M:%S')}] {title}", flush=True)


# ---- Measurements ----------------------------------------------------------

def writes(driver, events, prefix=()):
    return run_lines([*prefix, driver, "writes", str(events)])


def heap(driver, rows, prefix=()):
    return run_lines([*prefix, driver, "heap", *map(str, rows)])


def callgrind_total(path):
    with open(path) as f:
        totals = [int(m.group(2)) for m in re.finditer(r"^(summary|totals): (\d+)", f.read(),
                                                       re.M)]
    return max(totals) if totals else 0


def growth(driver, sizes, work):
    cases = []
    for rows in sizes:
        folder = os.path.join(work, f"growth-{rows}") + "/"
        os.makedirs(folder)
        run_lines([driver, "prefill", folder, str(rows)])
        for op in GROWTH_OPS:
            out = os.path.join(work, f"callgrind.{op}.{rows}")
            # A copy per case: every case starts from the same table.
            case_dir = os.path.join(work, f"case-{op}-{rows}") + "/"
            shutil.copytree(folder, case_dir)
            info = run_lines(["valgrind", "--tool=callgrind", "--collect-atstart=no",
                              f"--callgrind-out-file={out}", driver, "growth", case_dir, op,
                              str(rows)])[0]
            shutil.rmtree(case_dir)
            instructions = callgrind_total(out)
            cases.append({"op": op, "rows": rows, "ir_per_row": instructions / info["per"],
                          "instructions": instructions, "per_rows": info["per"]})
        shutil.rmtree(folder)
    return cases


def soak(driver, events, window, batch, mode):
    result = run_lines([driver, "soak", str(events), str(window), str(batch), mode])[0]
    result["max_over_steady"] = result["max_bytes"] / result["steady_bytes"]
    return result


# Functions of the bounded copies the read path makes once per text or blob
# column (the raw side copies with memcpy).
BOUNDED = re.compile(r"[:\s](strncpy_s|memcpy_s|__strnlen\w*)\b")


def bounded_copy_ir(path):
    """Instructions spent inside the bounded-copy functions themselves."""
    done = subprocess.run(["callgrind_annotate", "--inclusive=no", "--auto=no",
                           "--threshold=100", path],
                          stdout=subprocess.PIPE, text=True)
    total = 0
    for line in done.stdout.splitlines():
        match = re.match(r"\s*([\d,]+)\s", line)
        if match and BOUNDED.search(line):
            total += int(match.group(1).replace(",", ""))
    return total


def ir_ratio(build_dir, rows, work):
    """library/raw per pair from bench/callgrind, and for the read pairs the
    ratio the library would have without the bounded copies' own cost."""
    keep = os.path.join(work, "pairs")
    done = subprocess.run([os.path.join(HERE, "callgrind"), "--build-dir", build_dir,
                           "--rows", str(rows), "--keep", keep],
                          stdout=subprocess.PIPE, text=True)
    if done.returncode != 0:
        fail("bench/callgrind failed")
    ratios, details = {}, []
    for line in done.stdout.splitlines():
        cells = [c.strip() for c in line.strip("|").split("|")]
        if len(cells) < 4 or not re.fullmatch(r"\d+\.\d+", cells[3]):
            continue
        pair = cells[0]
        ratios[pair] = float(cells[3])
        library = callgrind_total(os.path.join(keep, f"callgrind.out.{pair}_library"))
        raw = callgrind_total(os.path.join(keep, f"callgrind.out.{pair}_raw"))
        bounded = bounded_copy_ir(os.path.join(keep, f"callgrind.out.{pair}_library"))
        details.append({"pair": pair, "library_ir": library, "raw_ir": raw,
                        "ratio": ratios[pair], "bounded_copy_ir": bounded,
                        "ratio_without_bounded_copies": (library - bounded) / raw})
    return ratios, details


def armhf_prefix(armhf_dir):
    cache = os.path.join(armhf_dir, "CMakeCache.txt")
    sysroot = ""
    with open(cache) as f:
        for line in f:
            if line.startswith("IPC_DB_ARMHF_SYSROOT:PATH="):
                sysroot = line.split("=", 1)[1].strip()
    return ["qemu-arm", "-L", "/usr/arm-linux-gnueabihf", "-E",
            f"LD_LIBRARY_PATH={sysroot}/usr/lib/arm-linux-gnueabihf"]


# ---- Report ----------------------------------------------------------------

def svg_plot(path, title, series, xlabel, ylabel, logx=False):
    """A line plot of `series` (name -> [(x, y)]) as a small SVG file."""
    import math
    width, height, left, bottom, top, right = 640, 360, 80, 50, 30, 150
    points = [p for values in series.values() for p in values]
    fx = (lambda x: math.log10(x)) if logx else (lambda x: x)
    xs = [fx(p[0]) for p in points]
    ys = [p[1] for p in points]
    x0, x1 = min(xs), max(xs) or 1
    y0, y1 = 0, max(ys) * 1.1 or 1
    if x1 == x0:
        x1 = x0 + 1

    def sx(x):
        return left + (fx(x) - x0) / (x1 - x0) * (width - left - right)

    def sy(y):
        return height - bottom - (y - y0) / (y1 - y0) * (height - bottom - top)

    colours = ["#1f77b4", "#d62728", "#2ca02c", "#9467bd", "#ff7f0e"]
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
           f'font-family="sans-serif" font-size="11">',
           f'<rect width="{width}" height="{height}" fill="white"/>',
           f'<text x="{width / 2}" y="18" text-anchor="middle" font-size="13">{title}</text>',
           f'<line x1="{left}" y1="{height - bottom}" x2="{width - right}" '
           f'y2="{height - bottom}" stroke="black"/>',
           f'<line x1="{left}" y1="{top}" x2="{left}" y2="{height - bottom}" stroke="black"/>',
           f'<text x="{(left + width - right) / 2}" y="{height - 10}" '
           f'text-anchor="middle">{xlabel}</text>',
           f'<text x="15" y="{(top + height - bottom) / 2}" text-anchor="middle" '
           f'transform="rotate(-90 15 {(top + height - bottom) / 2})">{ylabel}</text>']
    for i in range(5):
        y = y0 + (y1 - y0) * i / 4
        out.append(f'<text x="{left - 5}" y="{sy(y) + 4:.1f}" text-anchor="end">'
                   f'{y:,.0f}</text>')
    ticks = sorted({p[0] for p in points}) if logx else [
        x0 + (x1 - x0) * i / 4 for i in range(5)]
    for x in ticks:
        out.append(f'<text x="{sx(x):.1f}" y="{height - bottom + 15}" text-anchor="middle">'
                   f'{x:,.0f}</text>')
    for i, (name, values) in enumerate(series.items()):
        colour = colours[i % len(colours)]
        path_points = " ".join(f"{sx(x):.1f},{sy(y):.1f}" for x, y in values)
        out.append(f'<polyline fill="none" stroke="{colour}" stroke-width="1.5" '
                   f'points="{path_points}"/>')
        out.append(f'<text x="{width - right + 10}" y="{top + 15 + 16 * i}" '
                   f'fill="{colour}">{name}</text>')
    out.append("</svg>")
    with open(path, "w") as f:
        f.write("\n".join(out) + "\n")


def thinned(series, most=600):
    """At most `most` points, keeping the largest size of each stretch."""
    if len(series) <= most:
        return [tuple(p) for p in series]
    step_size = -(-len(series) // most)
    return [max((tuple(p) for p in series[i:i + step_size]), key=lambda p: p[1])
            for i in range(0, len(series), step_size)]


def within(lib, raw, share):
    return abs(lib - raw) <= share * raw if raw else lib == 0


def render(data, reports):
    goals = data["goals"]
    lines = ["# Device costs", "",
             f"Measured by `bench/costs{' --quick' if data['quick'] else ''}` on "
             f"{data['machine']}, {data['date']}, commit `{data['commit']}`. Counts, not times: bytes and syncs "
             "through the fault VFS in counting mode (flushes counted, not performed), heap "
             "through the benchmark's own allocator, instructions under callgrind.", ""]
    lines += ["### Bytes written and syncs per event", "",
              f"{data['sizes']['writes_events']} events per case on the host, each side on "
              "its own fresh file after one first event; update_item and rmv_item touch "
              "32 rows per call. Library within "
              f"{goals['writes_within']:.0%} of raw: "
              f"{data['summary']['writes_within']} of {len(data['writes'])} cases.", ""]
    rows = []
    for case in data["writes"]:
        rows.append([case["arch"], case["op"], case["batch"], case["journal_mode"],
                     case["synchronous"], f"{case['lib_bytes_per_event']:.0f}",
                     f"{case['raw_bytes_per_event']:.0f}",
                     f"{case['lib_syncs_per_event']:.3f}",
                     f"{case['raw_syncs_per_event']:.3f}",
                     f"{case['lib_files']['database']['bytes_per_event']:.0f} / "
                     f"{case['lib_files']['journal']['bytes_per_event'] + case['lib_files']['wal']['bytes_per_event']:.0f}"])
    lines += markdown.table(["arch", "op", "batch", "journal", "synchronous", "lib B/event",
                             "raw B/event", "lib syncs/event", "raw syncs/event",
                             "lib db / journal+WAL B/event"], rows, right_from=1)
    lines += ["", "### Heap per call", "",
              "Peak bytes above the level before the call. `lib` is everything outside "
              "SQLite's allocator (the library, the C++ runtime it calls, and the crypto "
              "library SQLCipher calls with plain malloc); `sqlite` is "
              "SQLite's own (page cache included). `caller owned` is what the call leaves "
              "with the caller (the strings of get_item_vz) and is not in `lib`. Goal: "
              f"lib at most {goals['heap_lib_peak_bytes']} bytes: "
              f"{data['summary']['heap_within']} of {data['summary']['heap_cases']} cases "
              "(get_item_vz apart: it appends to the caller's vector, and while that vector "
              "grows its old and new element arrays are held at once, which grows with the "
              "rows read).", ""]
    lines += markdown.table(["arch", "op", "rows", "lib peak B", "sqlite peak B",
                             "caller owned B"],
                            [[c["arch"], c["op"], c["rows"], c["lib_peak_bytes"],
                              c["sqlite_peak_bytes"], c["caller_owned_bytes"]]
                             for c in data["heap"]], right_from=1)
    lines += ["", "### Growth with the table's size", "",
              "Instructions per row under callgrind, only the measured call collected: "
              "add_item of 10 batches of 32 (per row inserted), a get_item of 100 rows "
              "through the index on Time (per row returned), get_item_cnt and get_item_max "
              "with Kind = 1 (per row in the table; the maximum of Time walks the index "
              "and stops early).", ""]
    sizes = sorted({c["rows"] for c in data["growth"]})
    by = {(c["op"], c["rows"]): c["ir_per_row"] for c in data["growth"]}
    lines += markdown.table(["op"] + [f"{s:,} rows" for s in sizes] + ["largest / smallest"],
                            [[op] + [f"{by[(op, s)]:,.0f}" for s in sizes] +
                             [f"{by[(op, sizes[-1])] / by[(op, sizes[0])]:.2f}"]
                             for op in GROWTH_OPS], right_from=1)
    first, last = sizes[0], sizes[-1]
    lines += ["", f"Goals, {last:,} rows against {first:,}: add_item "
              f"{by[('add_item', last)] / by[('add_item', first)]:.2f} (at most "
              f"{goals['growth_insert']}), the indexed get_item "
              f"{by[('get_item', last)] / by[('get_item', first)]:.2f} (at most "
              f"{goals['growth_read']}).", ""]
    lines += ["", "![instructions per row](costs-growth.svg)", "",
              "### Retention soak", ""]
    soak_rows = []
    for key in ("soak", "soak_wal"):
        s = data[key]
        soak_rows.append([key, s["journal_mode"], f"{s['events']:,}", f"{s['window']:,}",
                          f"{s['steady_bytes']:,}", f"{s['max_bytes']:,}",
                          f"{s['max_database_bytes']:,}",
                          f"{s['max_journal_or_wal_bytes']:,}",
                          f"{s['max_over_steady']:.2f}"])
    lines += markdown.table(["run", "journal", "events", "window", "steady B", "max B",
                             "max db file B", "max journal/WAL B", "max / steady"],
                            soak_rows, right_from=1)
    for key in ("soak", "soak_wal"):
        s = data[key]
        lines += ["", f"{key}: max / steady {s['max_over_steady']:.2f} (goal at most "
                  f"{goals['soak_max_over_steady']}); after the last batch "
                  f"{s['series'][-1][1]:,} bytes with the journal or WAL; the database file "
                  f"alone peaked at {s['max_database_bytes']:,} bytes. A WAL file keeps its "
                  "largest size between checkpoints (no journal_size_limit is set)."]
    lines += ["", "![file size over the soak](costs-soak.svg)", "",
              "### Library against raw instructions", "",
              f"From `bench/callgrind --rows {data['sizes']['pair_rows']}` "
              f"(goal {goals['ir_ratio']}).", ""]
    lines += markdown.table(["pair", "library/raw", "goal met", "Ir in bounded copies",
                             "library/raw without them"],
                            [[d["pair"], f"{d['ratio']:.3f}",
                              "yes" if d["ratio"] <= goals["ir_ratio"] else "no",
                              f"{d['bounded_copy_ir']:,}", f"{d['ratio_without_bounded_copies']:.3f}"]
                             for d in data["ir_ratio_detail"]], right_from=1)
    lines += ["", "The reads copy every text column with `strncpy_s` and every blob with "
              "`memcpy_s`, one call per column as the library's contract fixes (the device "
              "links its own bounded functions, so they cannot be inlined); the raw side "
              "copies with `memcpy`. The fourth column is what those calls cost themselves "
              "(the `memcpy` inside them not counted), the fifth the ratio without that cost. "
              "What remains above it is the per-column copy plan: the library learns each "
              "column's type and place from the table's description at run time, the raw "
              "side has them compiled in."]
    with open(os.path.join(reports, "costs.md"), "w") as f:
        f.write("\n".join(lines) + "\n")
    svg_plot(os.path.join(reports, "costs-soak.svg"), "File size after every batch",
             {k: thinned(data[k]["series"]) for k in ("soak", "soak_wal")},
             "events inserted", "bytes (database + journal/WAL)")
    svg_plot(os.path.join(reports, "costs-growth.svg"), "Instructions per row",
             {op: [(s, by[(op, s)]) for s in sizes] for op in GROWTH_OPS
              if op != "get_item_max"}, "rows in the table", "Ir per row", logx=True)


def summarize(data):
    goals = data["goals"]
    data["summary"] = {
        "writes_within": sum(within(c["lib_bytes_per_event"], c["raw_bytes_per_event"],
                                    goals["writes_within"]) and
                             within(c["lib_syncs_per_event"], c["raw_syncs_per_event"],
                                    goals["writes_within"]) for c in data["writes"]),
        "heap_within": sum(c["lib_peak_bytes"] <= goals["heap_lib_peak_bytes"]
                           for c in data["heap"] if c["op"] not in CALLER_OWNED_OPS),
        "heap_cases": sum(c["op"] not in CALLER_OWNED_OPS for c in data["heap"]),
    }


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", default="build/default")
    parser.add_argument("--armhf-build-dir", default="build/armhf")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--render-only", action="store_true",
                        help="render costs.md again from the costs.json of DIR")
    args = parser.parse_args()
    if args.render_only:
        reports = os.path.join(args.build_dir, "reports")
        with open(os.path.join(reports, "costs.json")) as f:
            render(json.load(f), reports)
        return
    pick = 1 if args.quick else 0
    sizes = {name: value[pick] for name, value in SIZES.items()}
    driver = driver_in(args.build_dir)
    if shutil.which("valgrind") is None:
        fail("valgrind is not installed (scripts/install-deps.sh test)")
    reports = os.path.join(args.build_dir, "reports")
    os.makedirs(reports, exist_ok=True)
    data = {"quick": args.quick, "date": datetime.datetime.now(datetime.timezone.utc)
            .strftime("%Y-%m-%d %H:%M UTC"),
            "machine": f"{platform.machine()}, {os.cpu_count()} cores",
            "commit": subprocess.run(["git", "-C", ROOT, "rev-parse", "--short", "HEAD"],
                                     stdout=subprocess.PIPE, text=True).stdout.strip(),
            "sizes": sizes, "goals": GOALS}
    step(f"writes, {sizes['writes_events']} events per case")
    data["writes"] = writes(driver, sizes["writes_events"])
    step(f"heap, {sizes['heap_rows']} rows")
    data["heap"] = heap(driver, sizes["heap_rows"])
    armhf_driver = os.path.join(args.armhf_build_dir, "bench", "costs_driver")
    if os.access(armhf_driver, os.X_OK) and shutil.which("qemu-arm"):
        prefix = armhf_prefix(args.armhf_build_dir)
        step("writes and heap under qemu-arm")
        data["writes"] += writes(armhf_driver, sizes["armhf_writes_events"], prefix)
        data["heap"] += heap(armhf_driver, sizes["armhf_heap_rows"], prefix)
    else:
        print(f"costs: no {armhf_driver} (cmake --build --preset armhf --target "
              "costs_driver) or no qemu-arm; host figures only", file=sys.stderr)
    with tempfile.TemporaryDirectory(prefix="ipc_db_costs.") as work:
        step(f"growth under callgrind, {sizes['growth_rows']} rows")
        data["growth"] = growth(driver, sizes["growth_rows"], work)
    events, window, batch = sizes["soak"]
    step(f"soak, {events} events through {window} rows")
    data["soak"] = soak(driver, events, window, batch, "DELETE")
    data["soak_wal"] = soak(driver, events, window, batch, "WAL")
    step(f"library/raw pairs under callgrind, {sizes['pair_rows']} rows")
    with tempfile.TemporaryDirectory(prefix="ipc_db_costs.") as work:
        data["ir_ratio"], data["ir_ratio_detail"] = ir_ratio(args.build_dir,
                                                             sizes["pair_rows"], work)
    summarize(data)
    with open(os.path.join(reports, "costs.json"), "w") as f:
        json.dump(data, f, indent=1)
    render(data, reports)
    step(f"wrote {reports}/costs.json and costs.md")


if __name__ == "__main__":
    main()
