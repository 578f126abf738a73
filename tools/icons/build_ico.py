#!/usr/bin/python3
"""Renders one SVG icon source into a Windows .ico file with every size Windows asks for.

Usage: build_ico.py --output application.ico [--sizes 16,20,...] icon.svg

The SVG subset is that of build_icons.py, whose parser this shares. Each size is drawn
on its own from the vector source: fills are rasterized scanline by scanline with exact
horizontal coverage and 16 sub-scanlines per pixel (non-zero and even-odd rules), strokes
are turned into polygons (segment quads, joins and caps) and filled with the non-zero
rule. The images are 32-bit with alpha; the 256-pixel one is stored as PNG, as Windows
expects of large icon images, the others as bitmaps.
"""

import argparse
import math
import os
import struct
import sys
import zlib

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from build_icons import (CLOSE, CUBIC, LINE, MOVE, QUAD, IconError, icon_shapes,  # noqa: E402
                         parse_colour)

DEFAULT_SIZES = (16, 20, 24, 32, 40, 48, 64, 256)
SUB_SCANLINES = 16
# Curves are flattened until a chord is at most this far from the curve, in pixels.
FLATNESS = 0.1


# --- geometry ---------------------------------------------------------------------------

def flatten(commands, transform):
    """Path commands to subpaths of pixel points: [(points, closed)]."""
    scale, dx, dy = transform

    def px(p):
        return (p[0] * scale + dx, p[1] * scale + dy)

    def segments_for(points):
        # Enough that the chord error (about length^2 / (8 n^2) times curvature) stays small.
        length = sum(math.dist(points[i], points[i + 1]) for i in range(len(points) - 1))
        return max(2, min(256, math.ceil(math.sqrt(length / FLATNESS) / 2)))

    subpaths = []
    current = []
    closed = False
    for verb, pts in commands:
        pts = [px(p) for p in pts]
        if verb == MOVE:
            if len(current) > 1:
                subpaths.append((current, closed))
            current, closed = [pts[0]], False
        elif verb == LINE:
            current.append(pts[0])
        elif verb == QUAD:
            p0, (p1, p2) = current[-1], pts
            n = segments_for([p0, p1, p2])
            for i in range(1, n + 1):
                t = i / n
                u = 1 - t
                current.append((u * u * p0[0] + 2 * u * t * p1[0] + t * t * p2[0],
                                u * u * p0[1] + 2 * u * t * p1[1] + t * t * p2[1]))
        elif verb == CUBIC:
            p0, (p1, p2, p3) = current[-1], pts
            n = segments_for([p0, p1, p2, p3])
            for i in range(1, n + 1):
                t = i / n
                u = 1 - t
                a, b, c, d = u * u * u, 3 * u * u * t, 3 * u * t * t, t * t * t
                current.append((a * p0[0] + b * p1[0] + c * p2[0] + d * p3[0],
                                a * p0[1] + b * p1[1] + c * p2[1] + d * p3[1]))
        elif verb == CLOSE:
            if len(current) > 1:
                subpaths.append((current, True))
            start = current[0] if current else (0.0, 0.0)
            current, closed = [start], False
    if len(current) > 1:
        subpaths.append((current, closed))
    # Repeated points give zero-length segments, which have no direction to stroke along.
    cleaned = []
    for points, is_closed in subpaths:
        kept = [points[0]]
        for p in points[1:]:
            if math.dist(p, kept[-1]) > 1e-6:
                kept.append(p)
        if is_closed and len(kept) > 1 and math.dist(kept[0], kept[-1]) <= 1e-6:
            kept.pop()
        cleaned.append((kept, is_closed))
    return cleaned


def oriented(polygon):
    """The polygon wound one way (positive area), so that non-zero filling unites pieces."""
    area = 0.0
    for i in range(len(polygon)):
        x0, y0 = polygon[i]
        x1, y1 = polygon[(i + 1) % len(polygon)]
        area += x0 * y1 - x1 * y0
    return polygon if area >= 0 else polygon[::-1]


def circle(centre, radius):
    n = max(8, min(128, math.ceil(2 * math.pi * radius / 0.75)))
    return [(centre[0] + radius * math.cos(2 * math.pi * i / n), centre[1] + radius * math.sin(2 * math.pi * i / n))
            for i in range(n)]


def stroke_polygons(subpaths, width, cap, join, miter_limit):
    """The outline of a stroke as polygons whose non-zero union is the stroked area."""
    half = width / 2
    polygons = []
    for points, closed in subpaths:
        if len(points) == 1:
            # A dot: round and square caps draw it, butt caps draw nothing.
            if cap == "round":
                polygons.append(circle(points[0], half))
            elif cap == "square":
                x, y = points[0]
                polygons.append([(x - half, y - half), (x + half, y - half), (x + half, y + half), (x - half, y + half)])
            continue
        count = len(points)
        segments = [(points[i], points[(i + 1) % count]) for i in range(count if closed else count - 1)]
        directions = []
        for (x0, y0), (x1, y1) in segments:
            length = math.hypot(x1 - x0, y1 - y0)
            directions.append(((x1 - x0) / length, (y1 - y0) / length))
        for index, ((x0, y0), (x1, y1)) in enumerate(segments):
            ux, uy = directions[index]
            if not closed and cap == "square":
                if index == 0:
                    x0, y0 = x0 - ux * half, y0 - uy * half
                if index == len(segments) - 1:
                    x1, y1 = x1 + ux * half, y1 + uy * half
            nx, ny = -uy * half, ux * half
            polygons.append(oriented([(x0 + nx, y0 + ny), (x1 + nx, y1 + ny), (x1 - nx, y1 - ny), (x0 - nx, y0 - ny)]))
        # Joins, at every vertex where two segments meet.
        joints = range(len(segments)) if closed else range(1, len(segments))
        for index in joints:
            before = directions[index - 1]
            after = directions[index]
            vertex = segments[index][0]
            cross = before[0] * after[1] - before[1] * after[0]
            if abs(cross) < 1e-9 and before[0] * after[0] + before[1] * after[1] > 0:
                continue  # straight on
            if join == "round":
                polygons.append(circle(vertex, half))
                continue
            # The outer side of the turn is where the two segment edges leave a notch.
            side = -1 if cross > 0 else 1
            a = (vertex[0] + side * -before[1] * half, vertex[1] + side * before[0] * half)
            b = (vertex[0] + side * -after[1] * half, vertex[1] + side * after[0] * half)
            corner = [vertex, a, b]
            if join == "miter":
                cos_theta = max(-1.0, min(1.0, -(before[0] * after[0] + before[1] * after[1])))
                sin_half = math.sqrt((1 - cos_theta) / 2)
                if sin_half > 1e-9 and 1 / sin_half <= miter_limit:
                    # The tip lies along the bisector of the outer normals.
                    mx, my = a[0] + b[0] - 2 * vertex[0], a[1] + b[1] - 2 * vertex[1]
                    m = math.hypot(mx, my)
                    if m > 1e-9:
                        tip_distance = half / sin_half
                        tip = (vertex[0] + mx / m * tip_distance, vertex[1] + my / m * tip_distance)
                        corner = [vertex, a, tip, b]
            polygons.append(oriented(corner))
        if not closed and cap == "round":
            polygons.append(circle(points[0], half))
            polygons.append(circle(points[-1], half))
    return polygons


# --- rasterizing ------------------------------------------------------------------------

def coverage(polygons, size, even_odd):
    """Per-pixel coverage (0..1) of the polygons' interior, rows top first."""
    edges = []
    for polygon in polygons:
        count = len(polygon)
        for i in range(count):
            (x0, y0), (x1, y1) = polygon[i], polygon[(i + 1) % count]
            if y0 == y1:
                continue
            direction = 1 if y1 > y0 else -1
            if y0 > y1:
                x0, y0, x1, y1 = x1, y1, x0, y0
            edges.append((y0, y1, x0, (x1 - x0) / (y1 - y0), direction))
    result = [[0.0] * size for _ in range(size)]
    if not edges:
        return result
    edges.sort()
    weight = 1.0 / SUB_SCANLINES
    first = 0
    for row in range(size):
        line = result[row]
        for sub in range(SUB_SCANLINES):
            y = row + (sub + 0.5) / SUB_SCANLINES
            # Sorted by top: leading edges that have ended stay ended for every later line.
            while first < len(edges) and edges[first][1] <= y:
                first += 1
            crossings = []
            for index in range(first, len(edges)):
                top, bottom, x, slope, direction = edges[index]
                if top > y:
                    break
                if y < bottom:
                    crossings.append((x + (y - top) * slope, direction))
            if not crossings:
                continue
            crossings.sort()
            winding = 0
            for index in range(len(crossings) - 1):
                winding += crossings[index][1]
                inside = (winding % 2 == 1) if even_odd else winding != 0
                if not inside:
                    continue
                add_span(line, crossings[index][0], crossings[index + 1][0], weight, size)
    return result


def add_span(line, left, right, weight, size):
    left = max(0.0, left)
    right = min(float(size), right)
    if right <= left:
        return
    first, last = int(left), int(right)
    if first == last:
        line[first] += (right - left) * weight
        return
    line[first] += (first + 1 - left) * weight
    for x in range(first + 1, min(last, size)):
        line[x] += weight
    if last < size:
        line[last] += (right - last) * weight


def render(view, shapes, size):
    """Premultiplied RGBA floats, rows top first, of the icon fitted into size x size."""
    vx, vy, vw, vh = view
    scale = size / max(vw, vh)
    transform = (scale, (size - vw * scale) / 2 - vx * scale, (size - vh * scale) / 2 - vy * scale)
    image = [[[0.0, 0.0, 0.0, 0.0] for _ in range(size)] for _ in range(size)]

    def paint(cover, colour, alpha):
        r, g, b = (c / 255 for c in colour)
        for y in range(size):
            cover_row, image_row = cover[y], image[y]
            for x in range(size):
                a = min(1.0, cover_row[x]) * alpha
                if a <= 0:
                    continue
                pixel = image_row[x]
                keep = 1 - a
                pixel[0] = r * a + pixel[0] * keep
                pixel[1] = g * a + pixel[1] * keep
                pixel[2] = b * a + pixel[2] * keep
                pixel[3] = a + pixel[3] * keep

    for commands, a, offset in shapes:
        shifted = [(verb, [(x + offset[0], y + offset[1]) for x, y in pts]) for verb, pts in commands]
        subpaths = flatten(shifted, transform)
        opacity = float(a.get("opacity", 1))
        fill = parse_colour(a.get("fill", "black"))
        stroke = parse_colour(a.get("stroke", "none"))
        if fill is not None:
            # Filling closes every subpath implicitly.
            polygons = [points for points, _ in subpaths if len(points) > 2]
            paint(coverage(polygons, size, a.get("fill-rule", "nonzero") == "evenodd"), fill,
                  opacity * float(a.get("fill-opacity", 1)))
        if stroke is not None:
            width = float(a.get("stroke-width", 1)) * scale
            polygons = stroke_polygons(subpaths, width, a.get("stroke-linecap", "butt"),
                                       a.get("stroke-linejoin", "miter"), float(a.get("stroke-miterlimit", 4)))
            paint(coverage(polygons, size, False), stroke, opacity * float(a.get("stroke-opacity", 1)))
    return image


# --- writing ----------------------------------------------------------------------------

def straight_bgra(pixel):
    r, g, b, a = pixel
    if a <= 0:
        return (0, 0, 0, 0)
    to_byte = lambda v: max(0, min(255, round(v * 255)))
    return (to_byte(b / a), to_byte(g / a), to_byte(r / a), to_byte(a))


def bitmap_image(image, size):
    """A 32-bit DIB as icons store it: header with double height, XOR rows bottom up,
    then the AND mask (transparent where alpha is 0)."""
    header = struct.pack("<IiiHHIIiiII", 40, size, size * 2, 1, 32, 0, 0, 0, 0, 0, 0)
    colour = bytearray()
    mask_stride = ((size + 31) // 32) * 4
    mask = bytearray()
    for row in reversed(image):
        bits = bytearray(mask_stride)
        for x, pixel in enumerate(row):
            b, g, r, a = straight_bgra(pixel)
            colour += bytes((b, g, r, a))
            if a == 0:
                bits[x // 8] |= 0x80 >> (x % 8)
        mask += bits
    return header + bytes(colour) + bytes(mask)


def png_image(image, size):
    raw = bytearray()
    for row in image:
        raw.append(0)  # no filter
        for pixel in row:
            b, g, r, a = straight_bgra(pixel)
            raw += bytes((r, g, b, a))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)

    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", size, size, 8, 6, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress(bytes(raw), 9)) + chunk(b"IEND", b""))


def build_ico(view, shapes, sizes):
    images = []
    for size in sizes:
        image = render(view, shapes, size)
        images.append((size, png_image(image, size) if size >= 256 else bitmap_image(image, size)))
    directory = struct.pack("<HHH", 0, 1, len(images))
    offset = 6 + 16 * len(images)
    data = bytearray()
    for size, encoded in images:
        dimension = 0 if size >= 256 else size
        directory += struct.pack("<BBBBHHII", dimension, dimension, 0, 0, 1, 32, len(encoded), offset + len(data))
        data += encoded
    return directory + bytes(data)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--output", required=True)
    parser.add_argument("--sizes", default=",".join(str(s) for s in DEFAULT_SIZES))
    parser.add_argument("source")
    args = parser.parse_args()
    try:
        sizes = sorted({int(s) for s in args.sizes.split(",")})
        if not sizes or sizes[0] < 1 or sizes[-1] > 256:
            raise ValueError("sizes must lie between 1 and 256")
        view, shapes = icon_shapes(args.source)
        data = build_ico(view, shapes, sizes)
    except (IconError, KeyError, ValueError) as error:
        sys.exit(f"{args.source}: {error}")
    with open(args.output + ".tmp", "wb") as out:
        out.write(data)
    os.replace(args.output + ".tmp", args.output)


if __name__ == "__main__":
    main()
