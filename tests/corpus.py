#!/usr/bin/env -S python3 -B
# corpus.py - fuzz inputs: from a text file to a folder for libFuzzer, and back.
#
#     corpus.py unpack corpus/channels.txt FOLDER
#     corpus.py pack FOLDER corpus/channels.txt
#
# A text file has one input a line, sorted; "\n" is a line feed, and "\x" begins any other byte that
# is not printable ASCII, the backslash included.
import os, re, sys


def escape(data):
    text = re.sub(r"[^ -\[\]-~\n]", lambda byte: f"\\x{ord(byte[0]):02x}", data.decode("latin-1"))
    return text.replace("\n", r"\n")


def unescape(line):
    return line.encode().decode("unicode_escape").encode("latin-1")


def unpack(file, folder):
    os.makedirs(folder, exist_ok=True)
    with open(file) as lines:
        for number, line in enumerate(lines):
            with open(f"{folder}/{number:04}", "wb") as output:
                output.write(unescape(line.rstrip("\n")))


def pack(folder, file):
    inputs = [open(entry.path, "rb").read() for entry in os.scandir(folder)]
    with open(file, "w") as output:
        output.writelines(sorted({escape(data) + "\n" for data in inputs if data}))


{"unpack": unpack, "pack": pack}[sys.argv[1]](*sys.argv[2:])
