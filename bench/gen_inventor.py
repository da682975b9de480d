#!/usr/bin/env python3
"""Writes a large deterministic Inventor 2.1 file and a VRML97 world with the same geometry.

usage: gen_inventor.py OUT.iv OUT97.wrl [MEGABYTES]   (default 100)

Each Separator holds a Transform, a Material, Coordinate3 and an IndexedFaceSet of
triangles (the shape of CAD exports); the VRML97 twin carries the same points and
indices in Transform/Shape/IndexedFaceSet form, so the two imports can be compared.
The same arguments always give the same bytes.
"""
import random
import sys


def main():
    out_iv, out_97 = sys.argv[1], sys.argv[2]
    target = int(float(sys.argv[3]) * 1e6) if len(sys.argv) > 3 else 100_000_000
    rng = random.Random(1996)
    iv = open(out_iv, "w")
    w97 = open(out_97, "w")
    iv.write("#Inventor V2.1 ascii\n\nSeparator {\n")
    w97.write("#VRML V2.0 utf8\n\nGroup { children [\n")
    part = 0
    while iv.tell() < target:
        n = rng.randint(200, 2000)
        pts = ",\n\t\t".join("%.5f %.5f %.5f" % (rng.uniform(-50, 50), rng.uniform(-50, 50), rng.uniform(-50, 50))
                             for _ in range(n))
        idx = ",\n\t\t".join("%d, %d, %d, -1" % (i, i + 1, i + 2) for i in range(n - 2))
        idx97 = ",\n\t\t".join("%d %d %d -1" % (i, i + 1, i + 2) for i in range(n - 2))
        tx, ty, tz = rng.uniform(-100, 100), rng.uniform(-100, 100), rng.uniform(-100, 100)
        r, g, b = rng.random(), rng.random(), rng.random()
        iv.write("  DEF part%d Separator {\n    Transform { translation %.3f %.3f %.3f }\n"
                 "    Material { diffuseColor %.3f %.3f %.3f }\n"
                 "    Coordinate3 { point [ %s ] }\n"
                 "    IndexedFaceSet { coordIndex [ %s ] }\n  }\n" % (part, tx, ty, tz, r, g, b, pts, idx))
        w97.write("  DEF part%d Transform { translation %.3f %.3f %.3f children [\n"
                  "    Shape { appearance Appearance { material Material { diffuseColor %.3f %.3f %.3f } }\n"
                  "      geometry IndexedFaceSet { coord Coordinate { point [ %s ] }\n"
                  "        coordIndex [ %s ] } } ] }\n" % (part, tx, ty, tz, r, g, b, pts, idx97))
        part += 1
    iv.write("}\n")
    w97.write("] }\n")


if __name__ == "__main__":
    main()
