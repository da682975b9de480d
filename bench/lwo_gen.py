#!/usr/bin/env python3
"""Deterministic big LWO2 for bench_lwo: the first layer of a real object tiled as many
layers (each moved along X/Y) until the file reaches the wanted size.

    bench/lwo_gen.py SOURCE.lwo OUT.lwo [MEGABYTES]   (default 100)
"""
import struct
import sys

PER_LAYER = {b"PNTS", b"BBOX", b"POLS", b"PTAG", b"VMAP", b"VMAD", b"VMPA"}


def chunks(data):
    pos = 12
    while pos + 8 <= len(data):
        cid = data[pos:pos + 4]
        n = struct.unpack(">I", data[pos + 4:pos + 8])[0]
        yield cid, data[pos + 8:pos + 8 + n]
        pos += 8 + n + (n & 1)


def chunk(cid, payload):
    pad = b"\0" if len(payload) & 1 else b""
    return cid + struct.pack(">I", len(payload)) + payload + pad


def main():
    src, out = sys.argv[1], sys.argv[2]
    target = int(float(sys.argv[3]) * 1e6) if len(sys.argv) > 3 else 100_000_000
    data = open(src, "rb").read()
    if data[:4] != b"FORM" or data[8:12] != b"LWO2":
        sys.exit("not an LWO2 file")
    shared, layer, seen_layer = [], [], False
    for cid, payload in chunks(data):
        if cid == b"LAYR":
            if seen_layer:
                break  # the first layer only
            seen_layer = True
            continue
        (layer if cid in PER_LAYER else shared).append((cid, payload))
    pnts = [p for c, p in layer if c == b"PNTS"]
    if not pnts:
        sys.exit("no points in the first layer")
    xs = struct.unpack(">%df" % (len(pnts[0]) // 4), pnts[0][: len(pnts[0]) // 12 * 12])
    span = max(max(xs[0::3]) - min(xs[0::3]), max(xs[1::3]) - min(xs[1::3]), 1e-3) * 1.1
    body = [chunk(c, p) for c, p in shared]
    size = 12 + sum(len(b) for b in body)
    k = 0
    while size < target and k < 65535:
        dx, dy = (k % 64) * span, (k // 64) * span
        tile = [chunk(b"LAYR", struct.pack(">HH3f", k, 0, dx, dy, 0.0) + b"Tile\0\0")]
        for c, p in layer:
            if c == b"PNTS":
                v = list(struct.unpack(">%df" % (len(p) // 4), p))
                v[0::3] = [x + dx for x in v[0::3]]
                v[1::3] = [y + dy for y in v[1::3]]
                p = struct.pack(">%df" % len(v), *v)
            elif c == b"BBOX":
                continue
            tile.append(chunk(c, p))
        size += sum(len(t) for t in tile)
        body.extend(tile)
        k += 1
    payload = b"LWO2" + b"".join(body)
    with open(out, "wb") as f:
        f.write(b"FORM" + struct.pack(">I", len(payload)) + payload)
    print("%s: %d layers, %.1f MB" % (out, k, (len(payload) + 8) / 1e6))


if __name__ == "__main__":
    main()
