"""The Python module against the command line and against the scenes it builds itself."""
import gc
import os
import re
import signal
import subprocess
import sys
import textwrap
import threading
import warnings

import numpy as np
import pytest

import orbiscope
from conftest import corpus_dir, run_cli

CUBE = np.array([[x, y, z] for z in (0, 1) for y in (0, 1) for x in (0, 1)], dtype=np.float32)
CUBE_QUADS = np.array([[0, 2, 3, 1], [4, 5, 7, 6], [0, 1, 5, 4], [2, 6, 7, 3], [0, 4, 6, 2], [1, 3, 7, 5]])


def cube_scene():
    s = orbiscope.Scene()
    red = s.add_material("red", diffuse=(1.0, 0.0, 0.0))
    s.add_mesh(CUBE, CUBE_QUADS, name="cube", material=red, uv=CUBE[:, :2])
    return s


def totals(scene):
    return sum(m.points.shape[0] for m in scene.meshes), sum(m.face_count for m in scene.meshes)


def triangle_area(points, tris):
    a, b, c = (points[tris[:, k]].astype(np.float64) for k in range(3))
    return 0.5 * np.linalg.norm(np.cross(b - a, c - a), axis=1).sum()


def test_formats_are_the_command_lines_rows():
    rows = orbiscope.formats()
    assert len(rows) == 14
    listed = run_cli("formats").stdout
    for r in rows:
        assert f'"{r["id"]}"' in listed
        line = next(l for l in listed.splitlines() if f'"{r["id"]}"' in l)
        rw = line.split()[-1]
        assert rw == "+".join(x for x, on in (("read", r["read"]), ("write", r["write"])) if on)
        assert all(e.startswith(".") for e in r["extensions"])


def test_views_share_the_scenes_storage_and_keep_it_alive(tmp_path):
    cube_scene_path = tmp_path / "cube.obj"
    orbiscope.write(cube_scene(), cube_scene_path)
    s = orbiscope.read(cube_scene_path)
    mesh = s.meshes[0]
    pts = mesh.points
    assert pts.dtype == np.float32 and pts.shape == (8, 3)
    assert pts.base is s and mesh.face_indices.base is s and mesh.face_offsets.base is s
    pts[0] = (7, 8, 9)
    assert tuple(s.meshes[0].points[0]) == (7, 8, 9)  # the same memory, not a copy
    # The views outlive every other reference to the scene.
    offsets = orbiscope.read(cube_scene_path).meshes[0].face_offsets
    gc.collect()
    assert list(offsets) == [0, 4, 8, 12, 16, 20, 24]


def test_faces_materials_and_channels_read_back(tmp_path):
    orbiscope.write(cube_scene(), tmp_path / "cube.obj")
    s = orbiscope.read(tmp_path / "cube.obj")
    (mesh,) = s.meshes
    assert mesh.face_count == 6
    faces = np.split(mesh.face_indices, mesh.face_offsets[1:-1])
    got = {tuple(sorted(map(tuple, mesh.points[f]))) for f in faces}
    want = {tuple(sorted(map(tuple, CUBE[q]))) for q in CUBE_QUADS}
    assert got == want
    (mat,) = s.materials
    assert mat.name == "red" and mat.diffuse[:3] == (255, 0, 0)
    assert set(mesh.material_ids) == {mat.id}
    uv = mesh.uv
    assert uv is not None and uv.type == "uv"
    # Each corner's UV is its point's x and y, as built; OBJ's writer stores -v and its
    # reader keeps what it finds.
    corner_uv = uv.values[uv.face_indices][:, :2]
    assert np.allclose(corner_uv, mesh.points[mesh.face_indices][:, :2] * [1, -1])


def test_triangles_keep_the_area_of_concave_faces():
    # An L-shaped hexagon of area 3: a fan from corner 0 would overlap and miscount.
    pts = np.array([[0, 0, 0], [2, 0, 0], [2, 1, 0], [1, 1, 0], [1, 2, 0], [0, 2, 0]], dtype=np.float32)
    s = orbiscope.Scene()
    s.add_mesh(pts, offsets=[0, 6], indices=[2, 3, 4, 5, 0, 1])
    tris, source = s.meshes[0].triangles()
    assert tris.shape == (4, 3) and list(source) == [0, 0, 0, 0]
    assert triangle_area(pts, tris) == pytest.approx(3.0)


@pytest.mark.parametrize("ext", ["obj", "3ds", "stl", "dxf", "wrl", "lwo", "cob", "iv"])
def test_scenes_built_from_arrays_write_and_read_back(tmp_path, ext):
    s = orbiscope.Scene()
    s.unit = "meter"
    red = s.add_material("red", diffuse=(255, 0, 0))
    s.add_mesh(CUBE, CUBE_QUADS, name="cube", material=red)
    path = tmp_path / f"cube.{ext}"
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", orbiscope.OrbiscopeWarning)
        orbiscope.write(s, path)
    back = orbiscope.read(path)
    tris, _ = back.meshes[0].triangles() if back.meshes else (np.zeros((0, 3)), None)
    # Every format keeps the surface: 6 unit squares, whether as quads or triangles.
    area = sum(triangle_area(m.points, m.triangles()[0]) for m in back.meshes)
    assert area == pytest.approx(6.0, rel=1e-5)
    lo, hi = back.bounding_box()
    assert np.allclose(lo, 0, atol=1e-5) and np.allclose(hi, 1, atol=1e-5)


def test_bad_arrays_are_refused_before_they_reach_the_scene():
    s = orbiscope.Scene()
    with pytest.raises(IndexError):
        s.add_mesh(CUBE, [[0, 1, 8]])
    with pytest.raises(ValueError):
        s.add_mesh(CUBE[:, :2], [[0, 1, 2]])
    with pytest.raises(ValueError):
        s.add_mesh(CUBE, offsets=[0, 3, 2], indices=[0, 1, 2])
    with pytest.raises(ValueError):
        s.add_mesh(CUBE, offsets=[0, 3], indices=[0, 1, 2, 3])
    with pytest.raises(ValueError):
        s.add_mesh(CUBE, [[0, 1, 2]], material=12345)
    with pytest.raises(ValueError):
        s.unit = "cubit"
    assert s.nodes == []


def cli_sentence(*args):
    r = run_cli(*args)
    assert r.returncode != 0
    assert r.stderr.startswith("orbiscope: ")
    return r.returncode, r.stderr.splitlines()[0][len("orbiscope: "):]


def test_every_error_kind_carries_the_command_lines_code_and_sentence(tmp_path):
    (tmp_path / "junk.3ds").write_bytes(b"\x4d\x4d\x10\x00\x00\x00" + b"\xff" * 64)
    (tmp_path / "empty.obj").write_bytes(b"")
    (tmp_path / "nothing.obj").write_text("# no faces\nv 0 0 0\n")
    (tmp_path / "model.xyz").write_text("1 2 3\n")
    cases = [
        (orbiscope.CannotOpenError, ["missing.obj"]),
        (orbiscope.FormatError, ["junk.3ds"]),
        (orbiscope.EmptyError, ["empty.obj"]),
        (orbiscope.EmptyError, ["nothing.obj"]),
        (orbiscope.NotAvailableError, ["model.xyz"]),
    ]
    for kind, args in cases:
        code, sentence = cli_sentence("info", *[tmp_path / a for a in args])
        with pytest.raises(kind) as err:
            orbiscope.read(tmp_path / args[0])
        assert err.value.exit_code == code, args
        assert str(err.value) == sentence
        assert isinstance(err.value, orbiscope.Error) and err.value.code < 0
    with pytest.raises(orbiscope.UsageError):
        orbiscope.read(tmp_path / "nothing.obj", format="ZZZZ")
    with pytest.raises(orbiscope.NothingToWriteError) as err:
        orbiscope.write(orbiscope.Scene(), tmp_path / "out.stl")
    assert err.value.exit_code == 6
    with pytest.raises(orbiscope.CannotWriteError) as err:
        orbiscope.write(cube_scene(), tmp_path / "no" / "such" / "folder.obj")
    assert err.value.exit_code == 9
    assert not (tmp_path / "no").exists()


def test_a_failed_write_leaves_the_old_file(tmp_path):
    out = tmp_path / "keep.stl"
    out.write_bytes(b"precious")
    with pytest.raises(orbiscope.NothingToWriteError):
        orbiscope.write(orbiscope.Scene(), out)
    assert out.read_bytes() == b"precious"
    assert sorted(p.name for p in tmp_path.iterdir()) == ["keep.stl"]


def test_bytes_read_like_the_file(tmp_path):
    orbiscope.write(cube_scene(), tmp_path / "cube.stl")
    data = (tmp_path / "cube.stl").read_bytes()
    a = orbiscope.read(tmp_path / "cube.stl")
    b = orbiscope.read_bytes(data, "STL")
    assert np.array_equal(a.meshes[0].points, b.meshes[0].points)
    with pytest.raises(orbiscope.FormatError) as err:
        orbiscope.read_bytes(b"\x00" * 10, "3DST")
    assert "<bytes>" in str(err.value)


def test_the_log_becomes_warnings(tmp_path):
    s = orbiscope.Scene()
    m = s.add_material("m", texture="missing_texture_file.png")
    s.add_mesh(CUBE, CUBE_QUADS, material=m)
    orbiscope.write(s, tmp_path / "cube.cob")
    with pytest.warns(orbiscope.OrbiscopeWarning, match="missing_texture_file.png"):
        orbiscope.read(tmp_path / "cube.cob")
    with warnings.catch_warnings():
        warnings.simplefilter("error", orbiscope.OrbiscopeWarning)
        with pytest.raises(orbiscope.OrbiscopeWarning):
            orbiscope.read(tmp_path / "cube.cob")


def big_obj(path, n):
    # n x n grid of quads.
    with open(path, "w") as f:
        for y in range(n + 1):
            f.write("".join(f"v {x} {y} 0\n" for x in range(n + 1)))
        for y in range(n):
            f.write("".join(f"f {y*(n+1)+x+1} {y*(n+1)+x+2} {(y+1)*(n+1)+x+2} {(y+1)*(n+1)+x+1}\n" for x in range(n)))


def test_progress_can_cancel_a_read(tmp_path):
    big_obj(tmp_path / "grid.obj", 700)
    calls = []

    def progress(done, total):
        calls.append((done, total))
        return False

    with pytest.raises(orbiscope.CancelledError) as err:
        orbiscope.read(tmp_path / "grid.obj", progress=progress)
    assert err.value.exit_code == 7 and calls
    # An exception in the callback stops the read and comes out as itself.
    def broken(done, total):
        raise RuntimeError("stop here")

    with pytest.raises(RuntimeError, match="stop here"):
        orbiscope.read(tmp_path / "grid.obj", progress=broken)


def test_reads_on_four_threads_give_what_serial_reads_give(tmp_path):
    paths = []
    for i, ext in enumerate(["obj", "stl", "3ds", "wrl", "lwo", "cob", "dxf", "iv"]):
        s = orbiscope.Scene()
        s.add_mesh(CUBE * (i + 1), CUBE_QUADS, name=f"m{i}")
        p = tmp_path / f"m{i}.{ext}"
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            orbiscope.write(s, p)
        paths.append(p)
    want = {p: orbiscope.read(p).bounding_box() for p in paths}
    got, errors = {}, []

    def worker(chunk):
        try:
            for _ in range(5):
                for p in chunk:
                    got.setdefault(p, set()).add(orbiscope.read(p).bounding_box())
        except Exception as e:  # collected for the assertion below
            errors.append(e)

    threads = [threading.Thread(target=worker, args=(paths[k::4],)) for k in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert errors == []
    assert got == {p: {b} for p, b in want.items()}


def test_ctrl_c_cancels_a_long_read(tmp_path):
    big_obj(tmp_path / "grid.obj", 1500)
    script = textwrap.dedent(
        """
        import sys, orbiscope
        def progress(done, total):
            if done > 0:
                print("reading", flush=True)
        try:
            orbiscope.read(sys.argv[1], progress=progress)
            print("finished", flush=True)
        except KeyboardInterrupt:
            print("interrupted", flush=True)
        """
    )
    child = subprocess.Popen([sys.executable, "-c", script, str(tmp_path / "grid.obj")],
                             stdout=subprocess.PIPE, text=True, env=os.environ)
    first = child.stdout.readline().strip()
    if first != "reading":
        child.wait()
        pytest.skip("the read ended before it could be interrupted")
    child.send_signal(signal.SIGINT)
    rest = child.stdout.read().split()
    assert child.wait(timeout=60) == 0
    if "finished" in rest:
        pytest.skip("the read ended before the signal arrived")
    assert rest[-1] == "interrupted"


def test_corpus_files_read_as_the_command_line_reads_them(corpus):
    for folder in sorted(p for p in corpus.iterdir() if p.is_dir()):
        files = sorted(f for f in folder.rglob("*") if f.is_file() and f.suffix.lower() not in
                       {".md", ".txt", ".mtl", ".png", ".jpg", ".jpeg", ".bmp", ".tga", ".gif", ".rgb"}
                       and "invalid" not in f.parts)
        for f in files[:3]:
            cli = run_cli("info", f)
            with warnings.catch_warnings():
                warnings.simplefilter("ignore")
                try:
                    s = orbiscope.read(f)
                    code = 0
                except orbiscope.Error as e:
                    code = e.exit_code
            assert code == cli.returncode, f
            if code == 0:
                summary = re.search(r"(\d+) nodes, (\d+) meshes, (\d+) points, (\d+) faces, (\d+) materials", cli.stdout)
                geoms = [n.mesh for n in s.nodes if n.mesh is not None]
                mine = (len(s.nodes), sum(n.kind in ("mesh", "patch") for n in s.nodes),
                        sum(g.points.shape[0] for g in geoms),
                        sum(g.face_count for g in geoms if not g.is_curve), len(s.materials))
                assert tuple(map(int, summary.groups())) == mine, f
