#!/usr/bin/env python3
"""Deterministic big DXF for bench_dxf: 3DFACEs and polyface meshes on a few layers.

usage: gen_dxf.py OUT [MEGABYTES]   (default 100)
"""
import math
import sys


def main():
    out = sys.argv[1]
    target = int(sys.argv[2] if len(sys.argv) > 2 else 100) * 1000 * 1000
    written = 0
    with open(out, "w", newline="\n") as f:
        def put(s):
            nonlocal written
            f.write(s)
            written += len(s)

        put("0\nSECTION\n2\nHEADER\n9\n$ACADVER\n1\nAC1009\n9\n$INSUNITS\n70\n6\n0\nENDSEC\n")
        put("0\nSECTION\n2\nTABLES\n0\nTABLE\n2\nLAYER\n")
        for i in range(4):
            put("0\nLAYER\n2\nL%d\n70\n0\n62\n%d\n" % (i, i + 1))
        put("0\nENDTAB\n0\nENDSEC\n0\nSECTION\n2\nENTITIES\n")
        k = 0
        while written < target:
            layer = "L%d" % (k % 4)
            if k % 2 == 0:
                # A strip of 3DFACE quads.
                for j in range(200):
                    x, y = j * 0.5, k * 0.5
                    z = round(math.sin(0.01 * (j + k)), 6)
                    put("0\n3DFACE\n8\n%s\n10\n%.6f\n20\n%.6f\n30\n%.6f\n11\n%.6f\n21\n%.6f\n31\n%.6f\n"
                        "12\n%.6f\n22\n%.6f\n32\n%.6f\n13\n%.6f\n23\n%.6f\n33\n%.6f\n"
                        % (layer, x, y, z, x + 0.5, y, z, x + 0.5, y + 0.5, z, x, y + 0.5, z))
            else:
                # A 20 x 20 polyface grid.
                g = 20
                put("0\nPOLYLINE\n8\n%s\n66\n1\n70\n64\n71\n%d\n72\n%d\n" % (layer, g * g, (g - 1) * (g - 1)))
                for r in range(g):
                    for c in range(g):
                        put("0\nVERTEX\n8\n%s\n70\n192\n10\n%.6f\n20\n%.6f\n30\n%.6f\n"
                            % (layer, c * 0.25, k * 0.5 + r * 0.025, round(math.cos(0.1 * (r + c)), 6)))
                for r in range(g - 1):
                    for c in range(g - 1):
                        a = r * g + c + 1
                        put("0\nVERTEX\n8\n%s\n70\n128\n10\n0\n20\n0\n30\n0\n71\n%d\n72\n%d\n73\n%d\n74\n%d\n"
                            % (layer, a, a + 1, a + g + 1, a + g))
                put("0\nSEQEND\n")
            k += 1
        put("0\nENDSEC\n0\nEOF\n")


if __name__ == "__main__":
    main()
