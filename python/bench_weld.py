"""Welding a triangle soup from numpy: qygeom.weld against the library's own call and against
numpy.unique over the rows, in one run.

    PYTHONPATH=build/python /usr/bin/python3 python/bench_weld.py [mesh.obj] [--repeats N]

The soup has three vertices of its own per triangle of the mesh (default: the 998,000-triangle
sphere). "library" is meshCompact alone on a CompactMesh already filled from the arrays;
"library+fill" adds copying the arrays into it; "qygeom.weld" is the whole Python call
(checks, copy in, weld, result arrays). Repeats are interleaved so that the machine's load
falls on all alike; the figures are medians, wall time with CPU time (all threads) beside it.
"""

import argparse
import os
import statistics
import time

import numpy as np
import qygeom


def timed(fn):
    w0, c0 = time.perf_counter(), time.process_time()
    result = fn()
    return result, time.perf_counter() - w0, time.process_time() - c0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("mesh", nargs="?", default="/tmp/peers/.data/sphere.obj")
    parser.add_argument("--repeats", type=int, default=7)
    parser.add_argument("--numpy-repeats", type=int, default=2)
    args = parser.parse_args()

    mesh = qygeom.read(args.mesh)
    soup_v = np.ascontiguousarray(mesh.vertices[mesh.triangles].reshape(-1, 3))
    soup_t = np.arange(soup_v.shape[0], dtype=np.int32).reshape(-1, 3)
    print(f"soup of {len(soup_t):,} triangles, {len(soup_v):,} vertices "
          f"({mesh.vertices.shape[0]:,} distinct positions in the file); "
          f"{qygeom.get_num_threads()} library threads; load {os.getloadavg()[0]:.1f}")

    lib, fill_lib, lib_cpu, fill_lib_cpu, py_wall, py_cpu = [], [], [], [], [], []
    for _ in range(args.repeats):
        fill, weld_s, fill_c, weld_c = qygeom._weld_library_seconds(soup_v, soup_t)
        lib.append(weld_s)
        fill_lib.append(fill + weld_s)
        lib_cpu.append(weld_c)
        fill_lib_cpu.append(fill_c + weld_c)
        (welded, remap), w, c = timed(lambda: qygeom.weld(soup_v, soup_t))
        py_wall.append(w)
        py_cpu.append(c)
        del welded, remap

    np_wall, np_cpu = [], []
    for _ in range(args.numpy_repeats):
        (uniq, inverse), w, c = timed(
            lambda: np.unique(soup_v, axis=0, return_inverse=True))
        np_wall.append(w)
        np_cpu.append(c)

    welded, remap = qygeom.weld(soup_v, soup_t)
    same = np.array_equal(welded.vertices, uniq) and np.array_equal(remap, inverse.ravel())

    med = statistics.median
    print(f"library meshCompact   {med(lib):8.3f} s wall {med(lib_cpu):8.3f} s CPU")
    print(f"library fill + weld   {med(fill_lib):8.3f} s wall {med(fill_lib_cpu):8.3f} s CPU")
    print(f"qygeom.weld           {med(py_wall):8.3f} s wall {med(py_cpu):8.3f} s CPU")
    print(f"numpy.unique(rows)    {med(np_wall):8.3f} s wall {med(np_cpu):8.3f} s CPU")
    print("ratios (wall, CPU):")
    print(f"  qygeom.weld / library meshCompact: {med(py_wall) / med(lib):.3f}, "
          f"{med(py_cpu) / med(lib_cpu):.3f}")
    print(f"  qygeom.weld / library fill + weld: {med(py_wall) / med(fill_lib):.3f}, "
          f"{med(py_cpu) / med(fill_lib_cpu):.3f}")
    print(f"  qygeom.weld / numpy.unique:        {med(py_wall) / med(np_wall):.4f}, "
          f"{med(py_cpu) / med(np_cpu):.4f}")
    print(f"result equals numpy.unique's: {same}; load {os.getloadavg()[0]:.1f}")


if __name__ == "__main__":
    main()
