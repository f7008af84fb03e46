#!/usr/bin/env python3
"""Times whole-tree work: talvern against tar with gzip -6 and tar with zstd -3.

    scripts/bench-tree.py --talvern BUILD/tools/talvern [--baseline OTHER_TALVERN]
                          [--tree DIR] [--runs N] [--work DIR] [--no-copies]
                          [--small-files]

The tree is a copy of DIR (default /usr/include, its files and folders
without symbolic links) made once into a scratch folder, so every tool reads the same files from the same disk. Each job
(create, create on one core, extract, test, list) runs every tool in turn,
round after round (A B C A B C ...), so that a slow moment of a shared
machine falls on all of them alike. Printed per job and tool: the median
wall time, the spread (lowest to highest), the peak resident memory of the
largest process, and the ratio of talvern's median to each peer's. The page
cache is warm: every run reads what the previous one read or wrote.

--baseline adds a second talvern (for example a build of an older commit) to
every job, for before/after figures from one run. The summary line says how
much of the tree is copies of earlier files (the library compresses such a
copy only once); --no-copies deletes them from the scratch copy first.

--small-files replaces the copy by a tree of many small files, as source
trees and home folders have them: 20,000 files of 50 to 400 bytes (slices
of DIR's files one after the other, cut at fixed pseudo-random places) in
100 folders, where the work per file outweighs the compression.
"""

import argparse
import hashlib
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time


def run(cmd, cwd=None, pin=False):
    """Runs cmd (a list, or a string for the shell) and returns (seconds, peak RSS MB).

    GNU time reports the peak of the largest process it waited for: a child
    forked from this script would report the script's own memory instead.
    """
    if isinstance(cmd, str):
        cmd = ["sh", "-c", cmd]
    if pin:
        cmd = ["taskset", "-c", "0"] + cmd
    with tempfile.NamedTemporaryFile("r") as peak_file:
        start = time.perf_counter()
        result = subprocess.run(["/usr/bin/time", "-f", "%M", "-o", peak_file.name] + cmd,
                                cwd=cwd, stdout=subprocess.DEVNULL)
        seconds = time.perf_counter() - start
        if result.returncode != 0:
            sys.exit(f"failed ({result.returncode}): {cmd}")
        return seconds, int(peak_file.read().split()[-1]) / 1024.0


def takes_threads(exe):
    usage = subprocess.run([exe, "create", "--help"], capture_output=True, text=True)
    return "--threads" in usage.stdout + usage.stderr


def tree_summary(root, drop_copies=False):
    """Files, folders, bytes, and bytes in files whose contents an earlier
    file (in walk order) has; with drop_copies those files are deleted."""
    files = folders = size = copied = 0
    seen = set()
    for folder, dirs, names in os.walk(root):
        dirs.sort()
        folders += len(dirs)
        for n in sorted(names):
            path = os.path.join(folder, n)
            length = os.lstat(path).st_size
            with open(path, "rb") as f:
                digest = hashlib.sha256(f.read()).digest()
            if digest in seen:
                if drop_copies:
                    os.remove(path)
                    continue
                copied += length
            seen.add(digest)
            files += 1
            size += length
    return files, folders, size, copied


def make_small_files(source, dest, count=20000, per_folder=200, seed=1):
    """Cuts the text of source's files (in walk order, up to 32 MB) into
    count files of 50 to 400 bytes, per_folder to a folder."""
    text = bytearray()
    for folder, dirs, names in os.walk(source):
        dirs.sort()
        for n in sorted(names):
            path = os.path.join(folder, n)
            if os.path.isfile(path) and not os.path.islink(path):
                with open(path, "rb") as f:
                    text += f.read()
            if len(text) >= 32 << 20:
                break
    rng = random.Random(seed)
    for i in range(count):
        folder = os.path.join(dest, f"d{i // per_folder:03}")
        os.makedirs(folder, exist_ok=True)
        size = rng.randint(50, 400)
        at = rng.randrange(len(text) - size)
        with open(os.path.join(folder, f"f{i % per_folder:03}.txt"), "wb") as f:
            f.write(text[at:at + size])


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--talvern", required=True)
    parser.add_argument("--baseline")
    parser.add_argument("--tree", default="/usr/include")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--work")
    parser.add_argument("--no-copies", action="store_true",
                        help="delete files whose contents an earlier file has")
    parser.add_argument("--small-files", action="store_true",
                        help="20,000 files of 50 to 400 bytes cut from the tree instead of a copy")
    args = parser.parse_args()

    for tool in ("tar", "gzip", "zstd", "/usr/bin/time"):
        if shutil.which(tool) is None:
            sys.exit(f"{tool} is not installed (scripts/install-deps.sh --bench installs it)")
    pin_ok = shutil.which("taskset") is not None

    work = args.work or tempfile.mkdtemp(prefix="talvern-bench-")
    os.makedirs(work, exist_ok=True)
    src = os.path.join(work, "tree")
    try:
        if not os.path.isdir(src) and args.small_files:
            make_small_files(args.tree, src)
        elif not os.path.isdir(src):
            # Files and folders only: symbolic links (some point out of the
            # tree, or nowhere) are left out.
            shutil.copytree(args.tree, src, symlinks=True,
                            ignore=lambda folder, names: [
                                n for n in names if os.path.islink(os.path.join(folder, n))])
        files, folders, size, copied = tree_summary(src, args.no_copies)
        talverns = [("talvern", os.path.abspath(args.talvern))]
        if args.baseline:
            talverns.append(("baseline", os.path.abspath(args.baseline)))

        def out_dir(name):
            path = os.path.join(work, "out-" + name)
            shutil.rmtree(path, ignore_errors=True)
            os.makedirs(path)
            return path

        def arc(name):
            return os.path.join(work, name + ".arc")

        tgz, tzst = os.path.join(work, "tree.tar.gz"), os.path.join(work, "tree.tar.zst")

        def talvern_create(name, exe, threads=None):
            def go(pin=False):
                for f in os.listdir(work):
                    if f.startswith(name + ".arc"):
                        os.remove(os.path.join(work, f))
                # Builds from before -j existed work on one thread anyway.
                extra = ["-j", str(threads)] if threads and takes_threads(exe) else []
                return run([exe, "create", "-q"] + extra + [arc(name), src], pin=pin)

            return go

        peers_create = [
            ("tar+gzip -6", lambda pin=False: run(f"tar -cf - -C '{work}' tree | gzip -6 > '{tgz}'", pin=pin)),
            ("tar+zstd -3", lambda pin=False: run(f"tar -cf - -C '{work}' tree | zstd -3 -q -f -o '{tzst}'", pin=pin)),
        ]
        jobs = [
            ("create", [(n, talvern_create(n, e)) for n, e in talverns] + peers_create, False),
        ]
        if pin_ok:
            jobs.append(("create, one core",
                         [(n, talvern_create(n, e, 1)) for n, e in talverns] + peers_create, True))
        jobs += [
            ("extract",
             [(n, lambda pin=False, n=n, e=e: run([e, "extract", "-q", arc(n), out_dir(n)]))
              for n, e in talverns] +
             [("tar+gzip -6", lambda pin=False: run(["tar", "-xzf", tgz, "-C", out_dir("gz")])),
              ("tar+zstd -3", lambda pin=False: run(f"zstd -d -q -c '{tzst}' | tar -xf - -C '{out_dir('zst')}'"))],
             False),
            ("test",
             [(n, lambda pin=False, n=n, e=e: run([e, "test", "-q", arc(n)])) for n, e in talverns] +
             [("tar+gzip -6", lambda pin=False: run(["gzip", "-t", tgz])),
              ("tar+zstd -3", lambda pin=False: run(["zstd", "-t", "-q", tzst]))],
             False),
            ("list",
             [(n, lambda pin=False, n=n, e=e: run([e, "list", arc(n)])) for n, e in talverns] +
             [("tar+gzip -6", lambda pin=False: run(["tar", "-tzf", tgz])),
              ("tar+zstd -3", lambda pin=False: run(f"zstd -d -q -c '{tzst}' | tar -tf -"))],
             False),
        ]

        # The archives every later job reads; also a first, unmeasured pass
        # that warms the page cache.
        for _, go in jobs[0][1]:
            go()

        results = {}
        for job, tools, pin in jobs:
            times = {name: [] for name, _ in tools}
            peaks = {name: 0.0 for name, _ in tools}
            for _ in range(args.runs):
                for name, go in tools:
                    seconds, peak = go(pin=pin)
                    times[name].append(seconds)
                    peaks[name] = max(peaks[name], peak)
            results[job] = (times, peaks)

        def archive_size(name):
            return sum(os.path.getsize(os.path.join(work, f)) for f in os.listdir(work)
                       if f.startswith(name + ".arc"))

        sizes = {n: archive_size(n) for n, _ in talverns}
        sizes["tar+gzip -6"] = os.path.getsize(tgz)
        sizes["tar+zstd -3"] = os.path.getsize(tzst)

        cores = os.cpu_count()
        what = "small files cut from" if args.small_files else "copy of"
        print(f"Tree: {what} {args.tree}: {files} files, {folders} folders, "
              f"{size / 1e6:.1f} MB ({copied / 1e6:.1f} MB in copies of earlier files"
              f"{', copies deleted' if args.no_copies else ''}); {args.runs} runs per tool, alternating; "
              f"{cores} cores; warm page cache")
        print("Archive sizes: " + ", ".join(f"{n} {s / 1e6:.1f} MB" for n, s in sizes.items()))
        print()
        header = "| job | tool | median s | spread s | peak RSS MB | / gzip | / zstd |"
        print(header)
        print("|---|---|---|---|---|---|---|")
        for job, (times, peaks) in results.items():
            gz = statistics.median(times["tar+gzip -6"])
            zs = statistics.median(times["tar+zstd -3"])
            for name, values in times.items():
                med = statistics.median(values)
                ratio = lambda peer: f"{med / peer:.2f}x" if name.startswith(("talvern", "baseline")) else ""
                print(f"| {job} | {name} | {med:.2f} | {min(values):.2f}–{max(values):.2f} | "
                      f"{peaks[name]:.1f} | {ratio(gz)} | {ratio(zs)} |")
    finally:
        if not args.work:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
