#!/usr/bin/env python3
"""One row of bench/mount.sh: does its work below a mount and prints the seconds it took.

  mount_rows.py ROW FOLDER [FILE]

FILE is what is copied (write rows, create) or read (read). The 2000 files of the small rows are clip0000 to clip1999.
"""
import os
import sys
import time

COUNT = 2000
PIECE = 1 << 20


def name(folder, number):
    return f"{folder}/clip{number:04d}"


def read(folder, file):
    buffer = bytearray(PIECE)
    descriptor = os.open(f"{folder}/{file}", os.O_RDONLY)
    while os.readv(descriptor, [buffer]) > 0:
        pass
    os.close(descriptor)


def write(folder, file, durable):
    with open(file, "rb") as source:
        pieces = []
        while piece := source.read(PIECE):
            pieces.append(piece)
    begin = time.perf_counter()
    descriptor = os.open(f"{folder}/large", os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
    for piece in pieces:
        os.write(descriptor, piece)
    if durable:
        os.fsync(descriptor)
    os.close(descriptor)
    return time.perf_counter() - begin


def create(folder, file):
    with open(file, "rb") as source:
        content = source.read()
    for number in range(COUNT):
        descriptor = os.open(name(folder, number), os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o644)
        os.write(descriptor, content)
        os.close(descriptor)


def open_all(folder):
    for number in range(COUNT):
        os.close(os.open(name(folder, number), os.O_RDONLY))


def stat_all(folder):
    for number in range(COUNT):
        os.stat(name(folder, number))


def list_all(folder):
    with os.scandir(folder) as entries:
        return sum(entry.stat().st_size for entry in entries)


def rename_all(folder):
    for number in range(COUNT):
        os.rename(name(folder, number), f"{folder}/take{number:04d}")


def remove_all(folder):
    for number in range(COUNT):
        os.unlink(f"{folder}/take{number:04d}")


def main():
    row, folder = sys.argv[1:3]
    file = sys.argv[3] if len(sys.argv) > 3 else None
    if row in ("write", "write-sync"):
        print(f"{write(folder, file, row == 'write-sync'):.6f}")
        return
    work = {"read": lambda: read(folder, file), "create": lambda: create(folder, file),
            "open": lambda: open_all(folder), "stat": lambda: stat_all(folder), "list": lambda: list_all(folder),
            "rename": lambda: rename_all(folder), "unlink": lambda: remove_all(folder)}[row]
    begin = time.perf_counter()
    work()
    print(f"{time.perf_counter() - begin:.6f}")


main()
