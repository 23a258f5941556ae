#!/usr/bin/env python3
"""Builds the pinned database engine, SQLCipher 4.6.1, into the build tree.

The source is Debian's package for its stable release (sqlcipher 4.6.1-2,
trixie), fetched with apt's own source download through a private apt state
directory, so the machine's own lists and sources stay as they are. The
deb-src entry is made from the machine's existing apt source. apt checks the
signed index and the files' hashes; the script checks the pinned SHA-256 of
both tarballs again before unpacking. dpkg-source applies Debian's patches
(its soname patch names the library libsqlcipher.so.1, so it never stands in
for Debian bookworm's libsqlcipher.so.0).

The build uses the flags of Debian's package (debian/rules: its CFLAGS list
and configure options, hardening from dpkg-buildflags) plus
SQLCIPHER_OMIT_DEFAULT_LOGGING, so the engine writes nothing to stderr on its
own, and SQLITE_ENABLE_DBPAGE_VTAB, the sqlite_dbpage table through which
ipc_db::Salvage reads a damaged file page by page (SQLite's recovery
extension needs it, and so does the shell's .recover). The recovery
extension's sources (ext/recover: sqlite3recover.c, sqlite3recover.h,
dbdata.c) are installed beside the engine in share/sqlcipher/recover, where
the library's build finds them for its companion target ipc_db::salvage.
Targets:
  host   installed under build/engines/sqlcipher-4.6.1/host (a normal
         prefix: bin/sqlcipher, include/sqlcipher/sqlite3.h, lib/, pkgconfig,
         share/sqlcipher/recover)
  armhf  cross-built against the armhf sysroot's OpenSSL and installed as a
         root folder (usr/include, usr/lib, usr/bin, usr/share) under
         build/engines/sqlcipher-4.6.1/armhf
A target is rebuilt only when its inputs (this script, the version, the
compiler) changed; otherwise the script says so and exits.

Usage: scripts/build-engine.py host|armhf [--sysroot DIR] [--jobs N]
"""

import argparse
import hashlib
import os
import shutil
import subprocess
import sys
from pathlib import Path

VERSION = "4.6.1"
DEBIAN_VERSION = "4.6.1-2"
SUITE = "trixie"
TARBALLS = {
    "sqlcipher_4.6.1.orig.tar.gz":
        "d8f9afcbc2f4b55e316ca4ada4425daf3d0b4aab25f45e11a802ae422b9f53a3",
    "sqlcipher_4.6.1-2.debian.tar.xz":
        "1b779e7bf317d2a9091e1121c2978e6610c91e74dd2370cb1729d38a13257c82",
}
# debian/rules of 4.6.1-2, plus the switch that keeps the engine off stderr.
DEBIAN_CFLAGS = [
    "-fno-strict-aliasing", "-DSQLITE_SECURE_DELETE", "-DSQLITE_ENABLE_COLUMN_METADATA",
    "-DSQLITE_ENABLE_FTS3", "-DSQLITE_ENABLE_RTREE=1", "-DSQLITE_SOUNDEX=1",
    "-DSQLITE_ENABLE_UNLOCK_NOTIFY", "-DSQLITE_OMIT_LOOKASIDE=1",
    "-DSQLITE_ENABLE_UPDATE_DELETE_LIMIT=1", "-DSQLITE_MAX_SCHEMA_RETRY=25",
    "-DSQLITE_HAS_CODEC", "-DHAVE_USLEEP=1",
]
QUIET_CFLAGS = ["-DSQLCIPHER_OMIT_DEFAULT_LOGGING"]
# The sqlite_dbpage table: page-by-page reads for salvage and .recover.
PAGE_CFLAGS = ["-DSQLITE_ENABLE_DBPAGE_VTAB"]
RECOVERY_SOURCES = ["sqlite3recover.c", "sqlite3recover.h", "dbdata.c"]
DEBIAN_CONFIGURE = [
    "--enable-threadsafe", "--enable-load-extension", "--enable-tempstore",
    "--enable-fts4", "--enable-fts5", "--enable-json", "--disable-tcl",
]
ARMHF = "arm-linux-gnueabihf"

ROOT = Path(__file__).resolve().parent.parent
ENGINES = ROOT / "build" / "engines"


def say(text):
    print(f"build-engine: {text}", flush=True)


def run(command, **kwargs):
    say("$ " + " ".join(str(part) for part in command))
    subprocess.run([str(part) for part in command], check=True, **kwargs)


def debian_uri():
    """The Debian archive the machine's apt already uses (deb822 or one-line)."""
    sources = Path("/etc/apt/sources.list.d")
    for path in sorted(sources.glob("*.sources")):
        for line in path.read_text().splitlines():
            if line.startswith("URIs:") and "security" not in line:
                return line.split()[1]
    for path in [Path("/etc/apt/sources.list"), *sorted(sources.glob("*.list"))]:
        if not path.exists():
            continue
        for line in path.read_text().splitlines():
            fields = line.split()
            if len(fields) >= 3 and fields[0] == "deb" and "security" not in line:
                return next(f for f in fields[1:] if "://" in f)
    sys.exit("build-engine: no Debian source in the machine's apt configuration")


def apt_options(state):
    return [
        "-o", f"Dir::Etc::SourceList={state / 'sources.list'}",
        "-o", f"Dir::Etc::SourceParts={state / 'sources.list.d'}",
        "-o", f"Dir::Etc::Preferences={state / 'preferences'}",
        "-o", f"Dir::Etc::PreferencesParts={state / 'preferences.d'}",
        "-o", f"Dir::State={state / 'lib'}",
        "-o", f"Dir::Cache={state / 'cache'}",
    ]


def sha256(path):
    digest = hashlib.sha256()
    with open(path, "rb") as stream:
        for block in iter(lambda: stream.read(1 << 20), b""):
            digest.update(block)
    return digest.hexdigest()


def fetch_source(downloads):
    """Downloads the source package once; returns the .dsc path."""
    dsc = downloads / f"sqlcipher_{DEBIAN_VERSION}.dsc"
    if dsc.exists() and all((downloads / name).exists() for name in TARBALLS):
        return dsc
    state = ENGINES / "apt"
    for folder in ["sources.list.d", "preferences.d", "lib/lists/partial",
                   "cache/archives/partial"]:
        (state / folder).mkdir(parents=True, exist_ok=True)
    keyring = "/usr/share/keyrings/debian-archive-keyring.gpg"
    (state / "sources.list").write_text(
        f"deb-src [signed-by={keyring}] {debian_uri()} {SUITE} main\n")
    options = apt_options(state)
    run(["apt-get", *options, "update"])
    downloads.mkdir(parents=True, exist_ok=True)
    os.chmod(downloads, 0o777)  # apt's download sandbox user writes here
    run(["apt-get", *options, "source", "--download-only",
         f"sqlcipher={DEBIAN_VERSION}"], cwd=downloads)
    return dsc


def verify(downloads):
    for name, expected in TARBALLS.items():
        actual = sha256(downloads / name)
        if actual != expected:
            sys.exit(f"build-engine: {name}: SHA-256 {actual}, expected {expected}")
        say(f"{name}: SHA-256 verified")


def unpack(dsc, source):
    if (source / "configure").exists():
        return
    shutil.rmtree(source, ignore_errors=True)
    run(["dpkg-source", "-x", dsc, source])


def buildflags(name):
    environment = dict(os.environ, DEB_BUILD_MAINT_OPTIONS="hardening=+all")
    return subprocess.run(["dpkg-buildflags", "--get", name], check=True, text=True,
                          capture_output=True, env=environment).stdout.split()


def configure_command(target, source, sysroot):
    cflags = buildflags("CFLAGS") + DEBIAN_CFLAGS + QUIET_CFLAGS + PAGE_CFLAGS
    ldflags = buildflags("LDFLAGS")
    command = [source / "configure", *DEBIAN_CONFIGURE]
    if target == "host":
        command += [f"--prefix={ENGINES / f'sqlcipher-{VERSION}' / 'host'}"]
        environment = {"CC": "gcc"}
    else:
        include = f"-I{sysroot}/usr/include -I{sysroot}/usr/include/{ARMHF}"
        cflags += include.split()
        ldflags += [f"-L{sysroot}/usr/lib/{ARMHF}"]
        command += ["--prefix=/usr", f"--host={ARMHF}", "--build=x86_64-linux-gnu",
                    "--disable-readline"]
        environment = {"CC": f"{ARMHF}-gcc", "BCC": "gcc"}
    environment.update(CFLAGS=" ".join(cflags), LDFLAGS=" ".join(ldflags),
                       LIBS="-lcrypto")
    return command, environment


def compiler_identity(target):
    compiler = "gcc" if target == "host" else f"{ARMHF}-gcc"
    return subprocess.run([compiler, "--version"], check=True, text=True,
                          capture_output=True).stdout.splitlines()[0]


def install_recovery_sources(source, prefix):
    """Copies the recovery extension's sources to <prefix>/share/sqlcipher/recover."""
    folder = prefix / "share" / "sqlcipher" / "recover"
    folder.mkdir(parents=True, exist_ok=True)
    for name in RECOVERY_SOURCES:
        shutil.copy2(source / "ext" / "recover" / name, folder / name)


def build(target, sysroot, jobs):
    prefix = ENGINES / f"sqlcipher-{VERSION}" / target
    stamp = prefix / ".inputs"
    inputs = "\n".join([DEBIAN_VERSION, sha256(__file__), compiler_identity(target),
                        str(sysroot or "")])
    if stamp.exists() and stamp.read_text() == inputs:
        say(f"{target}: SQLCipher {VERSION} already built in {prefix}")
        return
    downloads = ENGINES / "downloads"
    dsc = fetch_source(downloads)
    verify(downloads)
    source = ENGINES / f"sqlcipher-{DEBIAN_VERSION}"
    unpack(dsc, source)
    work = ENGINES / f"build-{target}"
    shutil.rmtree(work, ignore_errors=True)
    shutil.rmtree(prefix, ignore_errors=True)
    work.mkdir(parents=True)
    command, environment = configure_command(target, source, sysroot)
    env = dict(os.environ, **environment)
    run(command, cwd=work, env=env, stdout=subprocess.DEVNULL)
    run(["make", f"-j{jobs}"], cwd=work, env=env, stdout=subprocess.DEVNULL)
    destination = [] if target == "host" else [f"DESTDIR={prefix}"]
    run(["make", "install", *destination], cwd=work, env=env, stdout=subprocess.DEVNULL)
    install_recovery_sources(source, prefix if target == "host" else prefix / "usr")
    stamp.write_text(inputs)
    say(f"{target}: SQLCipher {VERSION} installed in {prefix}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("target", choices=["host", "armhf"])
    parser.add_argument("--sysroot", default=str(ROOT / "build" / "sysroot-armhf"),
                        help="armhf sysroot with OpenSSL (scripts/make-armhf-sysroot.sh)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    arguments = parser.parse_args()
    sysroot = Path(arguments.sysroot).resolve() if arguments.target == "armhf" else None
    if sysroot and not (sysroot / "usr/include/openssl/evp.h").exists():
        sys.exit(f"build-engine: no OpenSSL headers in {sysroot}; "
                 "run scripts/make-armhf-sysroot.sh first")
    build(arguments.target, sysroot, arguments.jobs)


if __name__ == "__main__":
    main()
