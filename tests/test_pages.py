#!/usr/bin/env -S python3 -B
# test_pages.py - what the pages promise: their pieces of code compile, their whole programs work, and
# the man pages made of the headers are complete and sound.
#
# usage: test_pages.py snippets <folder of the libraries> <C compiler> <C++ compiler>
#        test_pages.py reference
import glob, os, random, re, shutil, subprocess, sys, tempfile

from programs import Program, run

PAGES = ["../README.md", *sorted(glob.glob("../docs/*.md"))]
FLAGS = "-D_GNU_SOURCE -Wall -Wextra -Wpedantic -Werror -I../include -I../timer".split()
# What the guide names for a piece that is no whole program.
INCLUDES = "".join(f"#include <{header}.h>\n" for header in ("ruvo_timer", "stdlib", "string", "tolvane"))


# A whole program begins with its name in a comment, and becomes LANGUAGE-NAME.
def compile_pieces(folder, libraries, compilers):
    for page in PAGES:
        with open(page) as file:
            text = file.read()
        for piece in re.finditer(r"^```(c|cpp)\n((?:// (\w+)\.c)?.*?\n)```", text, re.M | re.S):
            language, code, name = piece.groups()
            program = f"{folder}/{language}-{name}"
            with open(f"{program}.{language}", "w") as source:
                line = text.count("\n", 0, piece.start(2)) + 1
                source.write(f'{"" if name else INCLUDES}#line {line} "{page}"\n{code}')
            goal = (["-o", program, "-L", libraries, "-Wl,-rpath," + libraries, "-ltolvane",
                     "-lruvo_timer"] if name else ["-fsyntax-only", "-Wno-unused"])
            subprocess.run([*compilers[language], *FLAGS, source.name, *goal], check=True)


# Run two programs with a port that is free: if it is not, the server ends. Returns the server with
# its port, and what the client prints in the end.
def converse(pattern, server, client, *arguments):
    for port in random.sample(range(10000, 30000), 5):
        serving = Program(server, port, *arguments[:1])
        while serving.process.poll() is None:
            done = subprocess.run([client, str(port), *arguments[1:]], timeout=20,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            if re.fullmatch(pattern, done.stdout):
                return serving, port
    raise AssertionError(done)


def run_programs(libraries, *compilers):
    with tempfile.TemporaryDirectory() as folder:
        compile_pieces(folder, os.path.abspath(libraries),
                       {"c": [*compilers[0].split(), "-std=c11"], "cpp": compilers[1].split()})
        converse(b"hello\n", f"{folder}/cpp-server", f"{folder}/cpp-client")
        serving, port = converse(b"HELLO\n", f"{folder}/c-server", f"{folder}/c-client", "_", "hello")
        # A client in its own loop comes back to a server that was away.
        client = Program(f"{folder}/c-epoll_client", port, "hello")
        client.wait_for(b"HELLO")
        serving.process.kill()
        client.wait_for(b"no link")
        Program(f"{folder}/c-server", port)
        heard = len(client.wait_for(b"HELLO"))
        client.wait_for(b"HELLO", times=heard + 1)
        # No request is refused for want of an answer to another one.
        ways, port = converse(b"100 of 100 values confirmed, 0 time-outs\n", f"{folder}/c-two_ways",
                              f"{folder}/c-two_ways", "hub", "sensor")
        ways.wait_for(rb"[1-9]\d* of \d+ questions answered")


def check_reference():
    sources = "../docs/guide.md", "../include/tolvane.h", "../timer/ruvo_timer.h"
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run([sys.executable, "-B", "../docs/reference.py", "man", folder, *sources], check=True)
        texts = {}
        for page in glob.glob(f"{folder}/man*/*"):
            with open(page) as file:
                texts[page] = file.read()
        for exported in "../src/tolvane.map", "../timer/ruvo_timer.map":
            with open(exported) as file:
                for name in re.findall(r"(\w\w+);", file.read()):
                    assert texts[f"{folder}/man3/{name}.3"], name
        own = [page for page, text in texts.items() if not text.startswith(".so ")]
        for formatter in "groff -ww -man -Tutf8 -z", "mandoc -Tlint -Wwarning":
            if shutil.which(formatter.split()[0]):
                said = subprocess.run([*formatter.split(), *own], stdout=subprocess.PIPE,
                                      stderr=subprocess.STDOUT, cwd=folder).stdout
                assert not said, said.decode()
        print(len(texts), "pages")


run(dict(snippets=run_programs, reference=check_reference)[sys.argv[1]], *sys.argv[2:])
