#!/usr/bin/env python3
"""Counts the instructions of one open of an existing file, its first read
and its close, library beside raw SQLite, on each engine and platform that
is built, and writes REPORT_DIR/open_cost.json and open_cost.md.

  bench/open_cost.py [--quick] [--rows N] [--report-dir DIR]

The measured run is bench/open_driver's (see its header): on the host under
callgrind (MeasuredSection collected alone); on armhf under the build's
emulator (the qemu-arm command ctest puts in front of the driver) with the
counter of bench/support/insn_count_plugin.c (the guest instructions
between the driver's two marks), once with qemu's default CPU and once as a
Cortex-A7, which lacks the SHA-1 and AES instructions. Unless
--quick, each armhf count is checked against a second way of isolating the
open: the whole process's count minus that of a run that leaves out the
measured open. A build without bench/open_driver is skipped with a line
saying how to build it. Nothing is built here and nothing tracked is
written.
"""

import argparse
import datetime
import json
import os
import platform
import re
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, HERE)
import insn_count  # noqa: E402

# (build directory, preset) of each engine and platform.
HOST_BUILDS = [("build/default", "default"), ("build/sqlcipher4", "sqlcipher4")]
ARMHF_BUILDS = [("build/armhf-sqlcipher3", "armhf-sqlcipher3"), ("build/armhf", "armhf")]
PLUGIN = "build/default/bench/libinsn_count_plugin.so"
# qemu-arm's CPUs: its default (every extension qemu has, SHA-1 and AES
# instructions among them) and a Cortex-A7, a 32-bit core without them.
ARM_CPUS = [(None, "armhf, qemu-arm default CPU"), ("cortex-a7", "armhf, qemu-arm Cortex-A7")]
# libcrypto's PBKDF2 as SQLCipher 3.4.1 (SHA-1 only) and 4.6.1 call it.
KDF_FUNCTIONS = ["PKCS5_PBKDF2_HMAC_SHA1", "PKCS5_PBKDF2_HMAC"]
CASES = ["open_keyed/library", "open_keyed/raw", "open_plain/library", "open_plain/raw"]
# Largest relative gap allowed between the marked count and the whole-process
# difference: the setup's random salt and file names move a few hundred
# instructions either way.
CROSS_CHECK_TOLERANCE = 0.005


class Failure(Exception):
    pass


def step(text):
    print(f"[{datetime.datetime.now().strftime('%H:%M:%S')}] {text}", flush=True)


def driver_of(build_dir, preset):
    """The driver of `build_dir`, or None after saying why it is skipped."""
    driver = os.path.join(ROOT, build_dir, "bench", "open_driver")
    if os.access(driver, os.X_OK):
        return driver
    print(f"open-cost: skipping {build_dir}: no bench/open_driver there "
          f"(cmake --preset {preset} && cmake --build --preset {preset} "
          f"--target open_driver)", flush=True)
    return None


def driver_line(stdout):
    """The driver's JSON line."""
    for line in stdout.splitlines():
        if line.startswith("{"):
            return json.loads(line)
    raise Failure(f"no result line in the driver's output: {stdout[-500:]}")


# ---- Host: callgrind ------------------------------------------------------------

def callgrind_total(path):
    with open(path) as f:
        totals = [int(m.group(1)) for m in re.finditer(r"^(?:summary|totals): (\d+)",
                                                       f.read(), re.M)]
    return max(totals) if totals else 0


def inclusive_cost(path, functions):
    """The largest inclusive count (instructions spent in it and below) of
    the `functions` callgrind saw called, or None when none was."""
    done = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--threshold=100", path],
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    names = "|".join(re.escape(f) for f in functions)
    pattern = re.compile(r"^\s*([\d,]+)\s.*[:\s](?:" + names + r")\s")
    costs = [int(m.group(1).replace(",", "")) for m in map(pattern.match,
                                                             done.stdout.splitlines()) if m]
    return max(costs) if costs else None


def callgrind_case(driver, case, rows, work):
    out = os.path.join(work, "callgrind." + case.replace("/", "_"))
    command = ["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}",
               "--collect-atstart=no", "--toggle-collect=MeasuredSection", driver, case,
               str(rows)]
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if done.returncode != 0:
        raise Failure(f"{' '.join(command)} failed:\n{done.stderr[-2000:]}")
    result = {"instructions": callgrind_total(out), **driver_line(done.stdout)}
    if case == "open_keyed/raw":
        result["kdf_instructions"] = inclusive_cost(out, KDF_FUNCTIONS)
    return result


def measure_host(driver, rows):
    with tempfile.TemporaryDirectory() as work:
        return {case: callgrind_case(driver, case, rows, work) for case in CASES}


# ---- armhf: qemu-arm and the counting plugin ---------------------------------------

def emulator_of(build_dir):
    """The emulator words in front of the driver in the command ctest runs for
    bench.open_driver.check: the build's CMAKE_CROSSCOMPILING_EMULATOR."""
    done = subprocess.run(["ctest", "--test-dir", os.path.join(ROOT, build_dir), "-R",
                           "^bench.open_driver.check$", "--show-only=json-v1"],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        command = json.loads(done.stdout)["tests"][0]["command"]
    except (ValueError, KeyError, IndexError):
        raise Failure(f"ctest in {build_dir} knows no test bench.open_driver.check")
    words = command[:-3]  # without <driver> check <rows>
    if not words or not os.path.basename(command[-3]).startswith("open_driver"):
        raise Failure(f"{build_dir}: bench.open_driver.check does not run under an "
                      f"emulator: {command}")
    return words


def hwcap2(emulator, program):
    """The AT_HWCAP2 line the guest's loader reports, e.g. 'aes pmull sha1'."""
    done = subprocess.run([*emulator, "-E", "LD_SHOW_AUXV=1", program, "1"],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    for line in done.stdout.splitlines():
        if line.startswith("AT_HWCAP2:"):
            return line.split(":", 1)[1].strip() or "none"
    return "?"


def qemu_case(emulator, plugin, driver, case, rows, cross_check):
    counted, stdout = insn_count.count(emulator, plugin, [driver, case, str(rows)])
    if counted["sections"] != 1:
        raise Failure(f"{case}: {counted['sections']} marked sections, not 1")
    result = {"instructions": counted["marked"], "process_total": counted["total"],
              **driver_line(stdout)}
    if cross_check:
        baseline, _ = insn_count.count(emulator, plugin,
                                       [driver, "--setup-only", case, str(rows)])
        difference = counted["total"] - baseline["total"]
        result["process_difference"] = difference
        result["cross_check_gap"] = (difference - counted["marked"]) / counted["marked"]
        if abs(result["cross_check_gap"]) > CROSS_CHECK_TOLERANCE:
            raise Failure(f"{case}: marked {counted['marked']} but the whole-process "
                          f"difference is {difference}")
    return result


def measure_armhf(build_dir, driver, cpu, rows, cross_check):
    plugin = os.path.join(ROOT, PLUGIN)
    if not os.path.exists(plugin):
        raise Failure(f"{PLUGIN} is missing (cmake --build --preset default "
                      f"--target insn_count_plugin)")
    emulator = emulator_of(build_dir) + (["-cpu", cpu] if cpu else [])
    probe = os.path.join(ROOT, build_dir, "bench", "insn_count_probe")
    insn_count.check_probe(emulator, plugin, probe)
    cases = {case: qemu_case(emulator, plugin, driver, case, rows, cross_check)
             for case in CASES}
    return cases, hwcap2(emulator, probe)


# ---- Runs ----------------------------------------------------------------

def summary(cases):
    keyed_lib = cases["open_keyed/library"]["instructions"]
    keyed_raw = cases["open_keyed/raw"]["instructions"]
    plain_lib = cases["open_plain/library"]["instructions"]
    plain_raw = cases["open_plain/raw"]["instructions"]
    kdf = cases["open_keyed/raw"].get("kdf_instructions")
    return {"library": keyed_lib, "raw": keyed_raw, "ratio": keyed_lib / keyed_raw,
            "plain_library": plain_lib, "plain_raw": plain_raw,
            "plain_ratio": plain_lib / plain_raw,
            "keying_share": (keyed_raw - plain_raw) / keyed_raw,
            "kdf_share": kdf / keyed_raw if kdf else None,
            "library_extra": keyed_lib - keyed_raw}


def entry(build_dir, platform_name, method, cases, **extra):
    first = cases["open_keyed/raw"]
    return {"build_dir": build_dir, "platform": platform_name, "method": method,
            "cipher_version": first["cipher_version"],
            "sqlite_version": first["sqlite_version"], "cases": cases,
            "summary": summary(cases), **extra}


def run_all(rows, quick):
    results = []
    for build_dir, preset in HOST_BUILDS:
        driver = driver_of(build_dir, preset)
        if driver:
            step(f"{build_dir}: callgrind, {len(CASES)} cases")
            results.append(entry(build_dir, "x86-64", "callgrind",
                                 measure_host(driver, rows)))
    for build_dir, preset in ARMHF_BUILDS:
        driver = driver_of(build_dir, preset)
        if not driver:
            continue
        for cpu, platform_name in ARM_CPUS[:1] if quick else ARM_CPUS:
            step(f"{build_dir}: qemu-arm{' -cpu ' + cpu if cpu else ''}, {len(CASES)} cases")
            cases, caps = measure_armhf(build_dir, driver, cpu, rows, not quick)
            results.append(entry(build_dir, platform_name, "qemu-arm plugin", cases,
                                 qemu_cpu=cpu or "default", hwcap2=caps))
    return results


# ---- Report ----------------------------------------------------------------

def thousands(value):
    return f"{value:,}"


def percent(value):
    return "-" if value is None else f"{100 * value:.2f}%"


def table(results):
    lines = ["| engine | platform | library | raw | library/raw | library - raw "
             "| plain: library | plain: raw | plain: library/raw | keying's share of raw |",
             "|---|---|---:|---:|---:|---:|---:|---:|---:|---:|"]
    for r in results:
        s = r["summary"]
        engine = f"SQLCipher {r['cipher_version']} (SQLite {r['sqlite_version']})"
        lines.append(f"| {engine} | {r['platform']} | {thousands(s['library'])} | "
                     f"{thousands(s['raw'])} | {s['ratio']:.4f} | "
                     f"{thousands(s['library_extra'])} | {thousands(s['plain_library'])} | "
                     f"{thousands(s['plain_raw'])} | {s['plain_ratio']:.3f} | "
                     f"{percent(s['keying_share'])} |")
    return lines


def kdf_note(results):
    kdf = [r for r in results if r["summary"]["kdf_share"] is not None]
    if not kdf:
        return []
    shares = ", ".join(f"{percent(r['summary']['kdf_share'])} on SQLCipher "
                       f"{r['cipher_version']}" for r in kdf)
    return [f"Key derivation alone, on the host: the inclusive count of libcrypto's PBKDF2 "
            f"function under callgrind (64,000 PBKDF2-HMAC-SHA1 iterations for the page "
            f"key, 2 for the HMAC key) is {shares} of the raw keyed open."]


def armhf_notes(data):
    results = data["results"]
    lines = []
    caps = dict.fromkeys(f"{r['platform']}: `{r['hwcap2']}`" for r in results
                         if "hwcap2" in r)
    if caps:
        lines.append("Which SHA-1 code the guest's libcrypto runs depends on the CPU qemu-arm "
                     "presents; AT_HWCAP2 as the guest saw it: " + "; ".join(caps) + ".")
    gaps = [abs(c["cross_check_gap"]) for r in results for c in r["cases"].values()
            if "cross_check_gap" in c]
    if gaps:
        lines.append(f"Cross-check of the armhf counts: the whole process's count minus "
                     f"that of the same run without the measured open differs from the "
                     f"count between the marks by at most {100 * max(gaps):.4f}% over "
                     f"{len(gaps)} cases.")
    return lines


def render(data):
    text = [
        "# Open cost",
        "",
        f"Measured by `bench/open-cost{' --quick' if data['quick'] else ''}` on "
        f"{data['machine']}, {data['date']}, commit `{data['commit']}`. Instructions of one "
        f"open of an existing file holding a table of {data['rows']} records, its first "
        f"read (the count of the table) and its close, after one warm-up run of the same "
        f"side. Library: `Db::Init`, `Db::OpenDB`, `Table::get_item_cnt` of the whole "
        f"table, `Db::CloseDB`, `Db::UnInit`. Raw: the same statements with the SQLite API "
        f"(`sqlite3_open`, the compatible defaults on a private in-memory connection, "
        f"`sqlite3_key` with the 64-byte key, the three pragmas, `sqlite3_get_table` of "
        f"`select count(*) from t_event;`, `sqlite3_close`). Keyed files are in SQLCipher "
        f"3's format (1024-byte pages, PBKDF2-HMAC-SHA1, 64,000 iterations); the plain "
        f"columns open an unkeyed file holding the same table. x86-64: callgrind, the "
        f"measured call alone. armhf: guest instructions counted by the qemu-arm plugin "
        f"`bench/support/insn_count_plugin.c` between the driver's two marks. ARM and "
        f"x86-64 counts do not compare with each other; the sides within a row do.",
        "",
        *table(data["results"]),
        "",
        "The last column is what keying adds to the raw open, as a share of it (key "
        "derivation, then decrypting and checking the pages read): a keyed open is almost "
        "all key derivation, so its library/raw ratio is close to 1 whatever the library "
        "does; the plain columns show the library's own cost of an open.",
        "",
    ]
    for line in kdf_note(data["results"]) + armhf_notes(data):
        text += [line, ""]
    for skipped in data["skipped"]:
        text += [f"Not measured: {skipped} (not built).", ""]
    return "\n".join(text).rstrip() + "\n"


def git_commit():
    return subprocess.run(["git", "-C", ROOT, "rev-parse", "--short", "HEAD"],
                          stdout=subprocess.PIPE, text=True).stdout.strip() or "?"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true",
                        help="qemu's default CPU only, no cross-check runs")
    parser.add_argument("--rows", type=int, default=100)
    parser.add_argument("--report-dir", default="build/default/reports")
    args = parser.parse_args()
    started = datetime.datetime.now(datetime.timezone.utc)
    try:
        results = run_all(args.rows, args.quick)
    except (Failure, insn_count.CountError) as error:
        print(f"open-cost: {error}", file=sys.stderr)
        return 1
    if not results:
        print("open-cost: nothing is built; no report written", file=sys.stderr)
        return 2
    measured = {r["build_dir"] for r in results}
    data = {"date": started.strftime("%Y-%m-%d %H:%M UTC"), "commit": git_commit(),
            "machine": f"{platform.machine()}, {os.cpu_count()} cores", "rows": args.rows,
            "quick": args.quick, "results": results,
            "skipped": [b for b, _ in HOST_BUILDS + ARMHF_BUILDS if b not in measured]}
    report_dir = os.path.join(ROOT, args.report_dir)
    os.makedirs(report_dir, exist_ok=True)
    with open(os.path.join(report_dir, "open_cost.json"), "w") as f:
        json.dump(data, f, indent=2)
    with open(os.path.join(report_dir, "open_cost.md"), "w") as f:
        f.write(render(data))
    print("\n".join(table(results)))
    step(f"wrote {args.report_dir}/open_cost.json and open_cost.md")
    return 0


if __name__ == "__main__":
    sys.exit(main())
