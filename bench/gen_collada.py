#!/usr/bin/env python3
"""Writes a large deterministic Collada 1.4 document for bench_collada.

usage: gen_collada.py OUT.dae [MEGABYTES]   (default 100)

Geometries of a few thousand triangles each (positions, normals and UVs with their own
index offsets), one material, and a node instancing each geometry once.
"""
import random
import sys


def main():
    out = open(sys.argv[1], "w")
    target = int(float(sys.argv[2]) * 1e6) if len(sys.argv) > 2 else 100_000_000
    rng = random.Random(2005)
    out.write('<?xml version="1.0" encoding="utf-8"?>\n<COLLADA version="1.4.1">\n'
              '<asset><unit meter="1" name="meter"/><up_axis>Y_UP</up_axis></asset>\n'
              '<library_effects><effect id="fx"><profile_COMMON><technique sid="c"><lambert><diffuse>'
              '<color>0.8 0.5 0.3 1</color></diffuse></lambert></technique></profile_COMMON></effect></library_effects>\n'
              '<library_materials><material id="m"><instance_effect url="#fx"/></material></library_materials>\n'
              '<library_geometries>\n')
    count = 0
    while out.tell() < target:
        n = rng.randint(1000, 3000)
        pts = " ".join("%.5f %.5f %.5f" % (rng.uniform(-9, 9), rng.uniform(-9, 9), rng.uniform(-9, 9)) for _ in range(n))
        nrm = " ".join("%.4f %.4f %.4f" % (rng.uniform(-1, 1), rng.uniform(-1, 1), rng.uniform(-1, 1)) for _ in range(n))
        uv = " ".join("%.4f %.4f" % (rng.random(), rng.random()) for _ in range(n))
        tris = n - 2
        p = " ".join("%d %d %d %d %d %d %d %d %d" % (i, i, i, i + 1, i + 1, i + 1, i + 2, i + 2, i + 2) for i in range(tris))
        g = "g%d" % count
        out.write('<geometry id="%s"><mesh>\n' % g)
        out.write('<source id="%s-p"><float_array id="%s-pa" count="%d">%s</float_array><technique_common>'
                  '<accessor source="#%s-pa" count="%d" stride="3"/></technique_common></source>\n' % (g, g, 3 * n, pts, g, n))
        out.write('<source id="%s-n"><float_array id="%s-na" count="%d">%s</float_array><technique_common>'
                  '<accessor source="#%s-na" count="%d" stride="3"/></technique_common></source>\n' % (g, g, 3 * n, nrm, g, n))
        out.write('<source id="%s-t"><float_array id="%s-ta" count="%d">%s</float_array><technique_common>'
                  '<accessor source="#%s-ta" count="%d" stride="2"/></technique_common></source>\n' % (g, g, 2 * n, uv, g, n))
        out.write('<vertices id="%s-v"><input semantic="POSITION" source="#%s-p"/></vertices>\n' % (g, g))
        out.write('<triangles material="mat" count="%d"><input semantic="VERTEX" source="#%s-v" offset="0"/>'
                  '<input semantic="NORMAL" source="#%s-n" offset="1"/><input semantic="TEXCOORD" source="#%s-t" offset="2" set="0"/>'
                  '<p>%s</p></triangles>\n</mesh></geometry>\n' % (tris, g, g, g, p))
        count += 1
    out.write('</library_geometries>\n<library_visual_scenes><visual_scene id="s">\n')
    for i in range(count):
        out.write('<node id="n%d"><translate>%d 0 0</translate><instance_geometry url="#g%d"><bind_material><technique_common>'
                  '<instance_material symbol="mat" target="#m"/></technique_common></bind_material></instance_geometry></node>\n' % (i, i, i))
    out.write('</visual_scene></library_visual_scenes><scene><instance_visual_scene url="#s"/></scene>\n</COLLADA>\n')


if __name__ == "__main__":
    main()
