#!/usr/bin/env python3
"""Counts the guest instructions of a program under qemu-user with the
plugin of bench/support/insn_count_plugin.c, and checks that the plugin
counts: used by bench/open-cost and by the ctest bench.insn_count_plugin.

  bench/insn_count.py --plugin LIB --probe PROGRAM -- QEMU [QEMU OPTION...]

runs the probe (bench/support/insn_count_probe.c) with loops of 1000, 2000
and 3000 steps (not 0: a loop that never runs skips its set-up) and passes
when the count between its marks grows by the same amount, at least one
instruction a step, for each 1000 steps, and the whole-process count grows
as well.
"""

import argparse
import os
import subprocess
import sys
import tempfile

PROBE_STEPS = (1000, 2000, 3000)


class CountError(Exception):
    pass


def count(emulator, plugin, program_args):
    """{"total", "marked", "sections", "target"} of one run of `program_args`
    under `emulator` (the qemu command and its options), with its stdout."""
    with tempfile.TemporaryDirectory() as tmp:
        out = os.path.join(tmp, "count.txt")
        command = [*emulator, "-plugin", f"{plugin},out={out}", *program_args]
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True)
        if done.returncode != 0:
            raise CountError(f"{' '.join(command)} exited with {done.returncode}:\n"
                             f"{done.stderr[-2000:]}")
        if not os.path.exists(out):
            raise CountError(f"the plugin wrote no count for {' '.join(command)}:\n"
                             f"{done.stderr[-2000:]}")
        with open(out) as f:
            words = f.read().split()
    # insn_count total <n> marked <n> sections <n> target <name>
    if len(words) != 9 or words[0] != "insn_count":
        raise CountError(f"unexpected plugin output: {' '.join(words)}")
    result = {"total": int(words[2]), "marked": int(words[4]), "sections": int(words[6]),
              "target": words[8]}
    return result, done.stdout


def check_probe(emulator, plugin, probe):
    """The probe's instructions per loop step; raises CountError when the
    counts do not behave."""
    runs = [count(emulator, plugin, [probe, str(steps)])[0] for steps in PROBE_STEPS]
    for steps, run in zip(PROBE_STEPS, runs):
        if run["sections"] != 1:
            raise CountError(f"probe {steps}: {run['sections']} marked sections, not 1 "
                             f"(target {run['target']})")
    first = runs[1]["marked"] - runs[0]["marked"]
    second = runs[2]["marked"] - runs[1]["marked"]
    if first != second or first < 1000:
        raise CountError(f"marked counts {[r['marked'] for r in runs]} do not grow "
                         f"linearly with the loop")
    if not runs[0]["total"] < runs[1]["total"] < runs[2]["total"]:
        raise CountError(f"totals {[r['total'] for r in runs]} do not grow")
    return first / 1000, runs


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--plugin", required=True)
    parser.add_argument("--probe", required=True)
    parser.add_argument("emulator", nargs="+", help="qemu-user command and options")
    args = parser.parse_args()
    try:
        per_step, runs = check_probe(args.emulator, args.plugin, args.probe)
    except CountError as error:
        print(f"insn_count: {error}", file=sys.stderr)
        return 1
    for steps, run in zip(PROBE_STEPS, runs):
        print(f"probe {steps} steps: total {run['total']}, marked {run['marked']}")
    print(f"insn_count: {per_step:g} instructions a loop step on {runs[0]['target']}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
