#!/usr/bin/env python3
"""Looks into vrkfs.sys: is it an image that the NT kernel would load, and nothing that it would not?

    scripts/check_nt_image.py IMAGE MESSAGE_TABLE OBJECT_DIRECTORY

Prints what is wrong, one line each, and fails; or one line that says what was looked at.
"""

import pathlib
import re
import struct
import subprocess
import sys

TOOLS = "i686-w64-mingw32-"
KERNEL_IMAGES = {"ntoskrnl.exe", "hal.dll"}
# What a compiler emits for code that runs before the entry point, for threads' own variables, or for unwinding.
UNWANTED_SECTIONS = re.compile(r"^\.(ctors|dtors|init_array|fini_array|tls|CRT|eh_frame|gcc_except_table)")
FLOATING_POINT = re.compile(r"%(st|mm\d|xmm)")

SUBSYSTEM_NATIVE = 1
DYNAMIC_BASE, NX_COMPATIBLE, NO_HANDLERS = 0x0040, 0x0100, 0x0400
RELOCATIONS_STRIPPED = 0x0001
SECTION_EXECUTE, SECTION_WRITE = 0x20000000, 0x80000000
DIRECTORY_EXPORT, DIRECTORY_IMPORT, DIRECTORY_RESOURCE, DIRECTORY_RELOCATION = 0, 1, 2, 5
RESOURCE_MESSAGE_TABLE = 11

faults = []


def expect(condition, text):
    if not condition:
        faults.append(text)


class Image:
    """The headers of a PE32 image, and its bytes by relative virtual address."""

    def __init__(self, path):
        self.data = path.read_bytes()
        self.pe = self.u32(0x3C)
        assert self.data[self.pe : self.pe + 4] == b"PE\0\0", "not a PE image"
        machine, sections, _, _, _, optional_size, self.characteristics = struct.unpack_from("<HHIIIHH", self.data, self.pe + 4)
        assert machine == 0x14C, "not an i386 image"
        self.optional = self.pe + 24
        assert self.u16(self.optional) == 0x10B, "not a PE32 image"
        self.entry = self.u32(self.optional + 16)
        self.base = self.u32(self.optional + 28)
        self.checksum = self.u32(self.optional + 64)
        self.subsystem = self.u16(self.optional + 68)
        self.dll_characteristics = self.u16(self.optional + 70)
        self.sections = []
        for index in range(sections):
            at = self.optional + optional_size + 40 * index
            name = self.data[at : at + 8].rstrip(b"\0").decode()
            size, rva, raw_size, raw = struct.unpack_from("<IIII", self.data, at + 8)
            self.sections.append((name, rva, max(size, raw_size), raw, self.u32(at + 36)))

    def u16(self, at):
        return struct.unpack_from("<H", self.data, at)[0]

    def u32(self, at):
        return struct.unpack_from("<I", self.data, at)[0]

    def directory(self, index):
        return struct.unpack_from("<II", self.data, self.optional + 96 + 8 * index)

    def offset(self, rva):
        for _, start, size, raw, _ in self.sections:
            if start <= rva < start + size:
                return raw + rva - start
        raise ValueError(f"address {rva:#x} lies in no section")

    def text(self, rva):
        at = self.offset(rva)
        return self.data[at : self.data.index(b"\0", at)].decode()

    def imports(self):
        """{image name: {function, ...}}"""
        found = {}
        at = self.offset(self.directory(DIRECTORY_IMPORT)[0])
        while True:
            names, _, _, name, addresses = struct.unpack_from("<IIIII", self.data, at)
            if name == 0:
                return found
            functions = found.setdefault(self.text(name).lower(), set())
            thunk = self.offset(names or addresses)
            while (entry := self.u32(thunk)) != 0:
                functions.add(f"#{entry & 0xFFFF}" if entry & 0x80000000 else self.text(entry + 2))
                thunk += 4
            at += 20

    def sum(self):
        """The checksum that the loader of a driver computes: 16-bit words with end-around carry, plus the length."""
        field = self.optional + 64
        data = self.data[:field] + b"\0\0\0\0" + self.data[field + 4 :]
        data += b"\0" * (-len(data) % 2)
        total = sum(struct.unpack(f"<{len(data) // 2}H", data))
        while total > 0xFFFF:
            total = (total & 0xFFFF) + (total >> 16)
        return total + len(self.data)

    def resources(self, kind):
        """[(name, language, bytes)] of one kind."""
        root = self.offset(self.directory(DIRECTORY_RESOURCE)[0])

        def entries(at):
            named, numbered = struct.unpack_from("<HH", self.data, at + 12)
            for index in range(named + numbered):
                yield struct.unpack_from("<II", self.data, at + 16 + 8 * index)

        def below(target):
            assert target & 0x80000000, "a resource directory was expected"
            return entries(root + (target & 0x7FFFFFFF))

        found = []
        for found_kind, names in entries(root):
            if found_kind == kind:
                for name, languages in below(names):
                    for language, leaf in below(languages):
                        rva, size = struct.unpack_from("<II", self.data, root + leaf)
                        start = self.offset(rva)
                        found.append((name, language, self.data[start : start + size]))
        return found


def decode_messages(data):
    """{id: text} of a message table resource."""
    messages = {}
    for block in range(struct.unpack_from("<I", data)[0]):
        low, high, at = struct.unpack_from("<III", data, 4 + 12 * block)
        for message in range(low, high + 1):
            length, unicode = struct.unpack_from("<HH", data, at)
            raw = data[at + 4 : at + length]
            messages[message] = raw.decode("utf-16-le" if unicode else "cp1252").rstrip("\0")
            at += length
    return messages


def read_table(path):
    """{id: text} of the driver's message table."""
    severities = {"Informational": 1, "Warning": 2, "Error": 3}
    messages = {}
    for line in path.read_text().splitlines():
        if match := re.match(r'VRKFS_MESSAGE\(\w+, (\w+), (\w+), "(.*)"\)$', line):
            number, severity, text = match.groups()
            messages[severities[severity] << 30 | 5 << 16 | int(number, 16)] = text + "\r\n"
    return messages


def run(tool, *arguments):
    return subprocess.run([TOOLS + tool, *map(str, arguments)], check=True, capture_output=True, text=True).stdout


def check_headers(image, path):
    symbols = {name: int(value, 16) for value, name in re.findall(r"^([0-9a-f]+) T (\S+)$", run("nm", path), re.M)}
    entry = symbols.get("_DriverEntry@8")
    expect(entry is not None and image.base + image.entry == entry, f"the entry point {image.entry:#x} is not DriverEntry")
    expect(image.subsystem == SUBSYSTEM_NATIVE, f"subsystem {image.subsystem} is not native")
    wanted = DYNAMIC_BASE | NX_COMPATIBLE
    expect(image.dll_characteristics & wanted == wanted, "the image does not offer relocation and no-execute data")
    expect(not image.dll_characteristics & NO_HANDLERS, "the image says that it has no exception handlers; the probe has one")
    expect(not image.characteristics & RELOCATIONS_STRIPPED and image.directory(DIRECTORY_RELOCATION)[1] != 0, "no relocations")
    expect(image.directory(DIRECTORY_EXPORT) == (0, 0), "there is an export table")
    expect(image.checksum == image.sum(), f"checksum {image.checksum:#x} should be {image.sum():#x}")
    for name, _, _, _, flags in image.sections:
        expect(not UNWANTED_SECTIONS.match(name), f"section {name} in the image")
        expect(not (flags & SECTION_EXECUTE and flags & SECTION_WRITE), f"section {name} is writable and executable")


def check_imports(image):
    imports = image.imports()
    for name, functions in imports.items():
        expect(name in KERNEL_IMAGES, f"imports {', '.join(sorted(functions))} from {name}")
    return sum(map(len, imports.values()))


def check_objects(directory):
    """Initialisers that run before the entry point do not run in the kernel: the linker folds them away unseen."""
    objects = sorted(directory.rglob("*.obj"))
    expect(objects, f"no object files under {directory}")
    for path in objects:
        for section in re.findall(r"^\s*\d+ (\S+)", run("objdump", "-h", path), re.M):
            expect(not UNWANTED_SECTIONS.match(section), f"section {section} in {path}")
    return len(objects)


def check_instructions(path):
    count = 0
    for line in run("objdump", "-d", "--no-show-raw-insn", path).splitlines():
        parts = line.split("\t")
        if len(parts) < 2:
            continue
        count += 1
        mnemonic = parts[1].split(" ")[0]
        expect(not mnemonic.startswith("f") and not FLOATING_POINT.search(parts[1]), f"floating point: {line.strip()}")
    expect(count > 0, "no code")
    return count


def check_messages(image, table):
    resources = image.resources(RESOURCE_MESSAGE_TABLE)
    expect([(name, language) for name, language, _ in resources] == [(1, 0)], "not exactly one message table, number 1, neutral")
    wanted = read_table(table)
    expect(wanted, f"no messages in {table}")
    found = decode_messages(resources[0][2]) if resources else {}
    for message in sorted(wanted.keys() | found.keys()):
        expect(
            wanted.get(message) == found.get(message),
            f"message {message:#010x}: {found.get(message)!r} should be {wanted.get(message)!r}",
        )
    return len(wanted)


def main():
    path, table, objects = map(pathlib.Path, sys.argv[1:4])
    image = Image(path)
    check_headers(image, path)
    imports = check_imports(image)
    object_count = check_objects(objects)
    instructions = check_instructions(path)
    messages = check_messages(image, table)
    if faults:
        print(*(f"{path}: {fault}" for fault in faults), sep="\n", file=sys.stderr)
        sys.exit(1)
    print(f"{path}: {instructions} instructions of {object_count} objects, {imports} imports, {messages} messages are in order")


main()
