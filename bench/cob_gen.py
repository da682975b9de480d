#!/usr/bin/env python3
"""Writes a large binary trueSpace file for the COB read benchmark, deterministically:
MESHES PolH chunks of GRID x GRID points (a gently waved sheet), one UV per point and
quads with two materials, each PolH with its Unit, Mat1 and ShBx-free minimum.

    cob_gen.py OUT [--meshes 20] [--grid 300]     (defaults give about 100 MB)
"""
import argparse
import math
import struct
from array import array


def chunk(kind, minor, cid, parent, body, major=0):
    return kind + struct.pack('<HHiiI', major, minor, cid, parent, len(body)) + body


def mesh_geometry(grid):
    pts = array('f')
    uvs = array('f')
    for y in range(grid):
        for x in range(grid):
            pts.extend((x * 0.1, y * 0.1, 0.05 * math.sin(0.3 * x) * math.cos(0.2 * y)))
            uvs.extend((x / (grid - 1), y / (grid - 1)))
    faces = bytearray()
    quad = struct.Struct('<BHH8I')
    half = (grid - 1) // 2
    for y in range(grid - 1):
        mat = 0 if y < half else 1
        for x in range(grid - 1):
            a = y * grid + x
            b, c, d = a + 1, a + grid + 1, a + grid
            # trueSpace order: clockwise seen from +Z
            faces += quad.pack(0, 4, mat, a, a, d, d, c, c, b, b)
    nq = (grid - 1) * (grid - 1)
    return (struct.pack('<I', grid * grid) + pts.tobytes() + struct.pack('<I', grid * grid) + uvs.tobytes()
            + struct.pack('<I', nq) + bytes(faces) + struct.pack('<I', 0))


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('out')
    ap.add_argument('--meshes', type=int, default=20)
    ap.add_argument('--grid', type=int, default=300)
    args = ap.parse_args()
    geometry = mesh_geometry(args.grid)
    with open(args.out, 'wb') as f:
        f.write(b'Caligari V00.01BLH' + b' ' * 13 + b'\n')
        cid = 1000
        for m in range(args.meshes):
            name = b'Sheet%d' % m
            tx = (m % 5) * args.grid * 0.1
            ty = (m // 5) * args.grid * 0.1
            block = struct.pack('<HH', 0, len(name)) + name
            block += struct.pack('<12f', tx, ty, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1)
            block += struct.pack('<12f', 1, 0, 0, tx, 0, 1, 0, ty, 0, 0, 1, 0)
            f.write(chunk(b'PolH', 8, cid, 0, block + geometry))
            f.write(chunk(b'Unit', 1, cid + 1, cid, struct.pack('<H', 2)))
            for k in range(2):
                mat = struct.pack('<HBBB', k, ord('p'), ord('a'), 40)
                mat += struct.pack('<9f', 0.8, 0.4 * k, 0.2, 1, 0.1, 0.5, 0.1, 1, 0.9)
                f.write(chunk(b'Mat1', 8, cid + 2 + k, cid, mat))
            cid += 10
        f.write(chunk(b'END ', 0, 0, 0, b'', major=1))


if __name__ == '__main__':
    main()
