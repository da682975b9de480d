#!/usr/bin/env python3
"""Times orbiscope.read, the CLI's `info` (whole process) and meshio.read on the same
files, interleaved round by round; prints medians and ratios.

python_bench.py CLI DATA_DIR ROUNDS"""
import os
import statistics
import subprocess
import sys
import time
import warnings

import orbiscope

try:
    import meshio
except ImportError:
    meshio = None


def timed(fn):
    t = time.perf_counter()
    fn()
    return time.perf_counter() - t


def main():
    cli, data, rounds = sys.argv[1], sys.argv[2], int(sys.argv[3])
    files = {"obj": os.path.join(data, "big.obj"), "stl": os.path.join(data, "big_bin.stl")}
    for f in files.values():
        with open(f, "rb") as h:
            while h.read(1 << 24):
                pass
    samples = {}
    warnings.simplefilter("ignore")
    for _ in range(rounds):
        for kind, f in files.items():
            samples.setdefault(("orbiscope.read", kind), []).append(timed(lambda: orbiscope.read(f)))
            samples.setdefault(("cli info", kind), []).append(
                timed(lambda: subprocess.run([cli, "-q", "info", f], stdout=subprocess.DEVNULL, check=True)))
            if meshio is not None:
                samples.setdefault(("meshio.read", kind), []).append(timed(lambda: meshio.read(f)))
    for kind, f in files.items():
        mb = os.path.getsize(f) / 1e6
        ours = statistics.median(samples[("orbiscope.read", kind)])
        print(f"{kind}: {mb:.0f} MB")
        for (name, k), v in sorted(samples.items()):
            if k == kind:
                med = statistics.median(v)
                print(f"  {name:15s} median {med:.3f} s  best {min(v):.3f} s  ({mb / med:.0f} MB/s)  x{med / ours:.2f} of ours")


if __name__ == "__main__":
    main()
