#!/usr/bin/env python3
"""Writes nt/upcase_table.inc: the one-to-one upcase of the 16-bit characters.

The kernel upcases one 16-bit character into one 16-bit character and asks no locale. The mapping is the simple
upper-case mapping of the Unicode data that Python carries; a character whose upper case needs several characters
(0xDF, for one) or lies outside the 16-bit range stays as it is. The table is kept in two levels: 256 rows of 256
characters, of which only those that change something are written, as differences.

    scripts/make_upcase_table.py > nt/upcase_table.inc
"""

import unicodedata

ROW = 256


def simple_upcase(code):
    if 0xD800 <= code <= 0xDFFF:
        return code
    char = chr(code)
    upper = char.upper()
    if len(upper) != 1:
        # The full mapping has several characters; where a simple one exists it is the title case.
        upper = char.title()
    if len(upper) != 1 or ord(upper) > 0xFFFF:
        return code
    return ord(upper)


def main():
    table = [simple_upcase(code) for code in range(0x10000)]
    for code, upper in enumerate(table):
        assert table[upper] == upper, f"upcase of {code:#x} is not final"
    assert (table[0xDF], table[0xFF], table[0xF7]) == (0xDF, 0x178, 0xF7)

    rows = []  # Row 0 changes nothing.
    index = []
    for first in range(0, 0x10000, ROW):
        row = [(table[code] - code) & 0xFFFF for code in range(first, first + ROW)]
        if any(row):
            rows.append(row)
            index.append(len(rows))
        else:
            index.append(0)

    print("// Made by scripts/make_upcase_table.py from Unicode " + unicodedata.unidata_version + "; do not edit.")
    print("// clang-format off")
    print("inline constexpr uint8_t kUpcaseRow[256] = {")
    for start in range(0, 256, 32):
        print("    " + "".join(f"{value}," for value in index[start:start + 32]))
    print("};")
    print("// What is added to a character, modulo 0x10000.")
    print(f"inline constexpr uint16_t kUpcaseDifference[{len(rows) + 1}][256] = {{")
    print("    {},")
    for row in rows:
        print("    {")
        for start in range(0, ROW, 32):
            print("        " + "".join(f"{value:#x}," if value else "0," for value in row[start:start + 32]))
        print("    },")
    print("};")
    print("// clang-format on")


main()
