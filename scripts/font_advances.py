#!/usr/bin/env python3
"""Prints the advance widths of the shell's message fonts as C++ tables for util/ShellFont.cpp.

Reads a TrueType file's 'head' (units per em), 'hhea' and 'hmtx' (advances) and the Unicode
'cmap' subtable of format 4, and prints the advances of U+0020..U+007E and U+00A0..U+00FF in
font units. Standard library only, so that it runs wherever the fonts are installed:

    scripts/font_advances.py [DejaVuSans.ttf DejaVuSansMono.ttf]
"""

import struct
import sys

FONT_DIR = "/usr/share/fonts/truetype/dejavu/"
DEFAULT_FONTS = [
    ("kSans", FONT_DIR + "DejaVuSans.ttf"),
    ("kMono", FONT_DIR + "DejaVuSansMono.ttf"),
]
RANGES = [(0x20, 0x7E), (0xA0, 0xFF)]


def tables(data):
    count = struct.unpack_from(">H", data, 4)[0]
    found = {}
    for i in range(count):
        tag, _, offset, length = struct.unpack_from(">4sIII", data, 12 + 16 * i)
        found[tag.decode("latin-1")] = (offset, length)
    return found


def cmap_format4(data, offset):
    """The code point -> glyph map of the first Unicode BMP subtable of format 4."""
    count = struct.unpack_from(">H", data, offset + 2)[0]
    for i in range(count):
        platform, encoding, sub = struct.unpack_from(">HHI", data, offset + 4 + 8 * i)
        if (platform, encoding) not in ((3, 1), (0, 3), (0, 4)):
            continue
        base = offset + sub
        if struct.unpack_from(">H", data, base)[0] != 4:
            continue
        segments = struct.unpack_from(">H", data, base + 6)[0] // 2
        ends = base + 14
        starts = ends + 2 * segments + 2
        deltas = starts + 2 * segments
        range_offsets = deltas + 2 * segments

        def glyph(code):
            for s in range(segments):
                end = struct.unpack_from(">H", data, ends + 2 * s)[0]
                if code > end:
                    continue
                start = struct.unpack_from(">H", data, starts + 2 * s)[0]
                if code < start:
                    return 0
                delta = struct.unpack_from(">h", data, deltas + 2 * s)[0]
                at = range_offsets + 2 * s
                ro = struct.unpack_from(">H", data, at)[0]
                if ro == 0:
                    return (code + delta) & 0xFFFF
                g = struct.unpack_from(">H", data, at + ro + 2 * (code - start))[0]
                return (g + delta) & 0xFFFF if g else 0
            return 0

        return glyph
    raise ValueError("no Unicode cmap subtable of format 4")


def advances(path):
    with open(path, "rb") as f:
        data = f.read()
    t = tables(data)
    units_per_em = struct.unpack_from(">H", data, t["head"][0] + 18)[0]
    metrics = struct.unpack_from(">H", data, t["hhea"][0] + 34)[0]
    hmtx = t["hmtx"][0]
    glyph = cmap_format4(data, t["cmap"][0])

    def advance(g):
        # Glyphs past the last full metric share its advance.
        return struct.unpack_from(">H", data, hmtx + 4 * min(g, metrics - 1))[0]

    values = []
    for first, last in RANGES:
        values += [advance(glyph(c)) for c in range(first, last + 1)]
    return units_per_em, values


def main(argv):
    fonts = DEFAULT_FONTS
    if len(argv) == 2:
        fonts = [(name, path) for (name, _), path in zip(DEFAULT_FONTS, argv)]
    print("// Advances in font units of U+0020..U+007E, then U+00A0..U+00FF, from "
          "scripts/font_advances.py.")
    for name, path in fonts:
        units_per_em, values = advances(path)
        file = path.rsplit("/", 1)[-1]
        print(f"// {file}")
        print(f"constexpr int {name}UnitsPerEm = {units_per_em};")
        if len(set(values)) == 1:
            # A fixed-pitch font: one advance serves the whole table.
            print("// Every character of the table has the same advance.")
            print(f"constexpr std::uint16_t {name}Advance = {values[0]};")
            continue
        print(f"constexpr std::array<std::uint16_t, {len(values)}> {name}Advances = {{")
        for i in range(0, len(values), 12):
            print("    " + ", ".join(str(v) for v in values[i:i + 12]) + ",")
        print("};")


if __name__ == "__main__":
    main(sys.argv[1:])
