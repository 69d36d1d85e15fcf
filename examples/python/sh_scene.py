#!/usr/bin/python3
"""Rays through qelr.Scene, lit by spherical harmonics: a torus and a sphere
on a floor, seen by a pinhole camera. A sky (blue above, warm horizon, a
bright sun) is projected onto spherical harmonics of order 4 with
qelr.sh.project, turned into irradiance by the cosine lobe's band factors,
and read back at each hit's normal with qelr.sh.reconstruct; shadow rays
towards the sun go through Scene.occluded. Writes a PNG.

    /usr/bin/python3 examples/python/sh_scene.py [--size 480x320] [--out sh_scene.png]
"""
import argparse
import math
import os
import sys
import time

import numpy as np

import qelr

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from png import write_png  # noqa: E402

ORDER = 4
SUN = np.array([0.5, 0.4, 0.77])
SUN /= np.linalg.norm(SUN)


def grid_mesh(f, nu, nv):
    """Triangles of a surface f(u, v) -> (x, y, z) over [0, 1]^2."""
    u, v = np.meshgrid(np.linspace(0, 1, nu + 1), np.linspace(0, 1, nv + 1), indexing="ij")
    points = f(u, v).reshape(3, -1).T
    i = np.arange(nu)[:, None] * (nv + 1) + np.arange(nv)[None, :]
    a, b, c, d = i, i + nv + 1, i + nv + 2, i + 1
    tris = np.concatenate([np.stack([a, b, c], -1).reshape(-1, 3), np.stack([a, c, d], -1).reshape(-1, 3)])
    return points, tris


def scene_mesh():
    parts = [
        grid_mesh(lambda u, v: np.stack([(u - 0.5) * 12, (v - 0.5) * 12, 0 * u]), 4, 4),  # floor
        grid_mesh(lambda u, v: np.stack([  # torus
            -1.2 + (1.0 + 0.35 * np.cos(2 * np.pi * v)) * np.cos(2 * np.pi * u),
            0.3 + (1.0 + 0.35 * np.cos(2 * np.pi * v)) * np.sin(2 * np.pi * u),
            0.35 + 0.35 * np.sin(2 * np.pi * v)]), 64, 24),
        grid_mesh(lambda u, v: np.stack([  # sphere
            1.3 + 0.9 * np.sin(np.pi * v) * np.cos(2 * np.pi * u),
            -0.4 + 0.9 * np.sin(np.pi * v) * np.sin(2 * np.pi * u),
            0.9 - 0.9 * np.cos(np.pi * v)]), 48, 24),
    ]
    points, tris, base = [], [], 0
    for p, t in parts:
        points.append(p)
        tris.append(t + base)
        base += len(p)
    return np.concatenate(points).astype(np.float32), np.concatenate(tris)


def sky(d):
    """Radiance (RGB) of the sky in unit directions d [n, 3]."""
    up = np.clip(d[:, 2], -1, 1)[:, None]
    blue = np.array([0.35, 0.55, 1.0]) * np.clip(up, 0, 1) ** 0.5
    horizon = np.array([1.0, 0.8, 0.6]) * np.exp(-8 * np.abs(up))
    ground = np.array([0.25, 0.22, 0.2]) * (up < 0)
    sun = np.array([30.0, 27.0, 22.0]) * (d @ SUN > 0.995)[:, None]
    return blue + horizon + ground + sun


def irradiance_coefficients():
    """Sky radiance on SH (Monte Carlo over the sphere), convolved with the
    clamped cosine: band l scaled by its factor A_l / pi (diffuse albedo 1)."""
    rng = np.random.default_rng(0)
    d = rng.normal(size=(200000, 3))
    d = (d / np.linalg.norm(d, axis=1, keepdims=True)).astype(np.float32)
    weights = (4 * np.pi / len(d)) * sky(d.astype(np.float64))
    coeffs = qelr.sh.project(d, weights.astype(np.float32), ORDER)  # [3, 25]
    a = [np.pi, 2 * np.pi / 3, np.pi / 4, 0.0, -np.pi / 24]  # A_l of the clamped cosine
    for l in range(ORDER + 1):
        coeffs[:, l * l:(l + 1) ** 2] *= a[l] / np.pi
    return coeffs


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--size", default="480x320")
    p.add_argument("--out", default="sh_scene.png")
    a = p.parse_args()
    w, h = (int(s) for s in a.size.split("x"))
    vertices, triangles = scene_mesh()
    t0 = time.perf_counter()
    scene = qelr.Scene(vertices, triangles)
    t1 = time.perf_counter()
    eye = np.array([0.0, -7.0, 3.2])
    forward = -eye / np.linalg.norm(eye) + np.array([0, 0, 0.12])
    forward /= np.linalg.norm(forward)
    right = np.cross(forward, [0, 0, 1])
    right /= np.linalg.norm(right)
    up = np.cross(right, forward)
    sx, sy = np.meshgrid((np.arange(w) + 0.5) / w * 2 - 1, 1 - (np.arange(h) + 0.5) / h * 2)
    fov = math.tan(math.radians(25))
    dirs = (forward + fov * (sx[..., None] * right * w / h + sy[..., None] * up)).reshape(-1, 3)
    hits = scene.intersect(eye.astype(np.float32), dirs.astype(np.float32))
    hit = hits.triangle >= 0
    # Flat normals of the hit triangles, facing the eye.
    tri = vertices[triangles[hits.triangle[hit]]].astype(np.float64)
    n = np.cross(tri[:, 1] - tri[:, 0], tri[:, 2] - tri[:, 0])
    n /= np.linalg.norm(n, axis=1, keepdims=True)
    n *= -np.sign(np.einsum("ij,ij->i", n, dirs[hit]))[:, None]
    points = eye + hits.t[hit, None] * dirs[hit]
    light = qelr.sh.reconstruct(irradiance_coefficients(), n.astype(np.float32))
    # Sun: direct light unless something lies between the point and the sun.
    start = points + 1e-3 * n
    # Shadow rays from one sun position far away, to just short of each point.
    sun_pos = (50 * SUN).astype(np.float32)
    shadowed = scene.occluded(sun_pos, (start - sun_pos).astype(np.float32) * np.float32(0.999))
    direct = np.clip(n @ SUN, 0, None)[:, None] * np.array([1.0, 0.92, 0.8]) * 1.6 * ~shadowed[:, None]
    albedo = np.where(points[:, 2:3] < 1e-3, [0.42, 0.42, 0.4], [0.8, 0.45, 0.3])
    colour = np.zeros((w * h, 3))
    colour[hit] = albedo * (0.8 * light + direct)
    colour[~hit] = sky(dirs[~hit] / np.linalg.norm(dirs[~hit], axis=1, keepdims=True)) * 0.8
    image = (np.clip(colour, 0, 1) ** (1 / 2.2) * 255).astype(np.uint8).reshape(h, w, 3)
    write_png(a.out, image)
    t2 = time.perf_counter()
    print("%d triangles, tree %d bytes built in %.3f s; %dx%d image in %.3f s -> %s" % (
        len(triangles), scene.tree_bytes, t1 - t0, w, h, t2 - t1, a.out))


if __name__ == "__main__":
    main()
