#!/usr/bin/env -S python3 -B
# corpus.py - fuzz inputs: from a text file to a folder for libFuzzer, and back.
#
#     corpus.py unpack corpus/channels.txt FOLDER
#     corpus.py pack FOLDER corpus/channels.txt
#
# A text file has one input a line, sorted; "\n" is a line feed, and "\x" begins any other byte that
# is not printable ASCII, the backslash included.
import pathlib, sys

escapes = {byte: f"\\x{byte:02x}" for byte in [*range(32), ord("\\"), *range(127, 256)]}
escapes[ord("\n")] = r"\n"

source, target = map(pathlib.Path, sys.argv[2:])
if sys.argv[1] == "unpack":
    target.mkdir(parents=True, exist_ok=True)
    for number, line in enumerate(source.read_text().splitlines()):
        data = line.encode().decode("unicode_escape").encode("latin-1")
        (target / f"{number:04}").write_bytes(data)
else:
    inputs = {path.read_bytes().decode("latin-1").translate(escapes) for path in source.iterdir()}
    target.write_text("".join(line + "\n" for line in sorted(inputs) if line))
