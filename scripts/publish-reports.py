#!/usr/bin/env python3
"""Copies rendered reports from a build tree into the documents, on purpose:
the tests and benchmarks never write tracked files, a person runs this when
the published figures should change, and commits the result.

  scripts/publish-reports.py --build-dir DIR [--groups G,...] [--suffix S] [DOC ...]

A document names its published sections with marker pairs
  <!-- report:GROUP -->  ...  <!-- /report:GROUP -->
and each section is replaced by DIR/reports/GROUP.md (its title line left
out). Sections whose report DIR does not hold are kept as they are. A
<!-- report:provenance --> pair, when present, gets the date, the commit
and DIR of the figures. Images a report links to by a plain file name
(![...](costs-soak.svg)) are copied from DIR/reports into figures/ beside
the document, and the links point there. DOCs default to
docs/reliability.md and docs/performance.md. With --groups G1,G2 only those
sections are replaced and each gets its own provenance line instead of the
page's (for figures of a run of their own, e.g. the faults label at full
scale). With --suffix S, report GROUP fills the section GROUP<S> instead
(the same report of a build on another engine: --build-dir build/sqlcipher4
--groups faults --suffix=-sqlcipher4 fills <!-- report:faults-sqlcipher4 -->).
Provenance lines name the build's engine when DIR/reports/engine.json (written
by the full tier) tells it. scripts/test.sh --full renders the reliability groups into
build/default/reports; bench/run renders performance into
build/release/reports; bench/costs renders costs into its build
directory's reports.
"""

import argparse
import datetime
import json
import os
import re
import shutil
import subprocess

IMAGE = re.compile(r"(!\[[^\]]*\]\()([\w.-]+\.(?:svg|png))\)")
MARKER = re.compile(r"(<!-- report:([\w-]+) -->\n)(.*?)(<!-- /report:\2 -->)", re.S)


def rendered(build_dir, group):
    path = os.path.join(build_dir, "reports", group + ".md")
    if not os.path.exists(path):
        return None
    with open(path) as f:
        lines = f.read().splitlines()
    if lines and lines[0].startswith("# "):
        lines = lines[1:]
    return "\n".join(lines).strip() + "\n"


def with_images(body, build_dir, doc, suffix=""):
    """Copies the images `body` links to into figures/ beside `doc` (with
    `suffix` added to their names, so another engine's plots stand beside)."""
    def copy(match):
        figures = os.path.join(os.path.dirname(doc), "figures")
        os.makedirs(figures, exist_ok=True)
        stem, extension = os.path.splitext(match.group(2))
        name = stem + suffix + extension
        shutil.copyfile(os.path.join(build_dir, "reports", match.group(2)),
                        os.path.join(figures, name))
        return f"{match.group(1)}figures/{name})"
    return IMAGE.sub(copy, body)


def cache_value(build_dir, name):
    """A variable of the build directory's CMakeCache.txt, or None."""
    try:
        with open(os.path.join(build_dir, "CMakeCache.txt")) as f:
            for line in f:
                if line.startswith(name + ":"):
                    return line.split("=", 1)[1].strip()
    except OSError:
        pass
    return None


def source_dir(build_dir):
    """The source tree the build directory was configured from."""
    return cache_value(build_dir, "CMAKE_HOME_DIRECTORY") or "."


def engine(build_dir):
    """' on SQLCipher X (SQLite Y)': from DIR/reports/engine.json, else from the
    build's own sqlcipher shell (IPC_DB_SQLCIPHER_SHELL in its cache); '' when
    neither tells."""
    try:
        with open(os.path.join(build_dir, "reports", "engine.json")) as f:
            found = json.load(f).get("engine", {})
        cipher, sqlite = found["cipher_version"], found["sqlite_version"]
    except (OSError, ValueError, KeyError):
        shell = cache_value(build_dir, "IPC_DB_SQLCIPHER_SHELL")
        if not shell:
            return ""
        answer = subprocess.run([shell, ":memory:"], input="PRAGMA cipher_version;\n"
                                "select sqlite_version();\n", capture_output=True,
                                text=True).stdout.split("\n")
        if len(answer) < 2 or not answer[0]:
            return ""
        cipher, sqlite = answer[0], answer[1]
    return f" on SQLCipher {cipher} (SQLite {sqlite})"


def provenance(build_dir):
    commit = subprocess.run(["git", "-C", source_dir(build_dir), "rev-parse", "--short",
                             "HEAD"], capture_output=True, text=True).stdout.strip() or "?"
    day = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d")
    return (f"Figures published on {day} from `{build_dir}` at commit `{commit}`"
            f"{engine(build_dir)}.\n")


def publish(doc, build_dir, groups=None, suffix=""):
    with open(doc) as f:
        text = f.read()
    replaced = []

    def section(match):
        group = match.group(2)
        if suffix:
            if not group.endswith(suffix):
                return match.group(0)
            group = group[:-len(suffix)]
        if groups is not None and group not in groups:
            return match.group(0)
        body = None if group == "provenance" else rendered(build_dir, group)
        if body is None:
            return match.group(0)
        replaced.append(match.group(2))
        body = with_images(body, build_dir, doc, suffix)
        if groups is not None:
            body = provenance(build_dir) + "\n" + body
        return match.group(1) + body + match.group(4)

    text = MARKER.sub(section, text)
    if replaced and groups is not None:
        with open(doc, "w") as f:
            f.write(text)
    elif replaced:
        text = MARKER.sub(lambda m: m.group(1) + provenance(build_dir) + m.group(4)
                          if m.group(2) == "provenance" else m.group(0), text)
        with open(doc, "w") as f:
            f.write(text)
    print(f"{doc}: {', '.join(replaced) if replaced else 'nothing'} published from "
          f"{build_dir}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--groups", help="comma-separated groups to publish alone")
    parser.add_argument("--suffix", default="",
                        help="fill the sections GROUP<SUFFIX> with the reports GROUP")
    parser.add_argument("docs", nargs="*",
                        default=["docs/reliability.md", "docs/performance.md"])
    args = parser.parse_args()
    if args.suffix and not args.groups:
        parser.error("--suffix goes with --groups")
    groups = set(args.groups.split(",")) if args.groups else None
    for doc in args.docs:
        publish(doc, args.build_dir, groups, args.suffix)


if __name__ == "__main__":
    main()
