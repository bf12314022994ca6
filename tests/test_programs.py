#!/usr/bin/env -S python3 -B
# test_programs.py - what ships with the library, as its users see it. Exits with 77 if a test
# cannot run here.
#
# usage: test_programs.py tvcat <tvcat> <examples/server>
#        test_programs.py two_hosts <folder of the examples>
#        test_programs.py wireshark <dissector>
#        test_programs.py snippets <folder of the libraries> <C compiler> <C++ compiler>
#        test_programs.py exports <folder of the libraries> <C compiler> <C++ compiler>
import functools, glob, itertools, os, pathlib, random, re, shutil, subprocess, sys, tempfile, time

from programs import PATIENCE, Program, Server, peer, run


def read(path):
    return pathlib.Path(path).read_text()


# The lines of a text file in this folder, without comments.
def rows(name):
    return re.findall("^[^#\n].*", read(pathlib.Path(__file__).with_name(name)), re.M)


def unescaped(text):
    return text.encode().decode("unicode_escape").encode("latin-1")


# ---- tvcat


# The exit status of a client shows whether every line was answered.
def cat(tvcat, example):
    echo, pong, shouter = Server(tvcat, "-l"), Server(tvcat, "-l", "-a", "pong"), Server(example)
    shouter.process.stdin.close()  # it keeps serving
    ports = {"echo": echo.address[1], "pong": pong.address[1], "shouter": shouter.address[1]}
    for row in rows("tvcat.txt"):
        row = row.format(**ports, long=100000 * "x")
        status, arguments, lines, pattern = map(str.strip, row.split("|"))
        done = subprocess.run([tvcat, *arguments.split()], input=unescaped(lines), timeout=60,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        assert done.returncode == int(status), done
        assert re.fullmatch(pattern.encode(), done.stdout, re.S), done
    for line in b"one", b"", b"two words", b"last, without an end":
        echo.expect(b"^%s$" % line)
    # A request that fits but whose reply does not, and the next request.
    plain = echo.connect("plain")
    assert plain.request(b"x" * 65440) == b"too long to be answered"
    assert plain.request(b"short") == b"short"


# ---- two hosts


# Two network namespaces and a cable between them, which is unplugged and plugged in again. A
# namespace lives only as long as its process: nothing is mounted, so nothing can be left over.
def pull_cable(folder):
    hosts = [Program("unshare", "--net", "sh", "-c", "echo ready; cat") for _ in range(2)]
    for host in hosts:
        host.expect(b"")  # ready, or why not
    a, b = [["nsenter", f"--net=/proc/{host.process.pid}/ns/net"] for host in hosts]

    def ip(host, words):
        return subprocess.run([*host, "ip", *words.split()], capture_output=True)

    cable = ip(a, f"link add wire type veth peer name wire netns {hosts[1].process.pid}")
    if cable.returncode != 0:
        print("skipped: no network namespaces here:", hosts[0].lines, cable.stderr)
        sys.exit(77)
    for host, address in (a, "10.213.0.1"), (b, "10.213.0.2"):
        ip(host, f"address add {address}/30 dev wire")
        ip(host, "link set wire up")
    server = Server(*a, f"{folder}/server", address="10.213.0.1")
    client = Program(*b, f"{folder}/client", *server.address, "far", 1)
    server.expect(b"tcp://far:1 has logged in")
    client.expect(b"logged in as")
    ip(a, "link set wire down")
    pulled = time.monotonic()
    # Both examples send a heartbeat a second and give up after two unanswered ones.
    for program, text in (client, b"no link to the server"), (server, b"far:1 has fallen silent"):
        program.expect(text)
        assert time.monotonic() - pulled > 1.9
    ip(a, "link set wire up")
    server.expect(b"tcp://far:1 has logged in")
    client.say(b"say back again")
    client.expect(b"reply: BACK AGAIN")


# ---- wireshark


def dissect(dissector):
    if not shutil.which("tshark"):
        print("skipped: tshark is not installed")
        sys.exit(77)
    wanted, segments = [], []
    for row in rows("wireshark.txt"):
        (segments if row[0] in "IO" else wanted).append(row)
    fields = itertools.chain(*(("-e", name) for name in wanted[0].split("|")))
    dump = ""
    for second, row in enumerate(segments):
        data = re.sub(rb"\{(\d+)}", lambda size: peer.HEADER.pack(peer.WATERMARK, int(size[1])),
                      unescaped(row[2:]))
        dump += f"{row[0]} 10:10:{3 * second:02}\n0000 {data.hex(' ')}\n"
    # Newer releases run no scripts as root, so another user reads the capture.
    nobody = {"user": 65534, "group": 65534, "extra_groups": []} if os.getuid() == 0 else {}
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        script, capture = shutil.copy(dissector, folder), f"{folder}/capture"
        subprocess.run(["text2pcap", "-q", "-t%H:%M:%S", "-D", "-T", "4711,50000", "-", capture],
                       input=dump, check=True, text=True)
        shown = subprocess.check_output(
            ["tshark", "-2", "-X", f"lua_script:{script}", "-r", capture, "-Y", "tolvane", "-T",
             "fields", "-E", "separator=|", "-E", "header=y", *fields],
            env={**os.environ, "HOME": folder}, **nobody, text=True)
    assert shown.splitlines() == wanted, shown


# ---- documentation: its code blocks compile, and its whole programs work


FLAGS = "-D_GNU_SOURCE -Wall -Wextra -Wpedantic -Werror -I../include -I../timer".split()
LANGUAGES = {"c": ["-xc", "-std=c11"], "cpp": ["-xc++", "-std=c++17"]}
# What the guide tells readers to include in a block that is not a whole program.
INCLUDES = {
    "c": "".join(f"#include <{name}.h>\n" for name in "ruvo_timer stdlib string tolvane".split()),
    "cpp": "#include <tolvane.hpp>\nusing namespace std::chrono_literals;\n"}


def compile_code(compilers, language, code, *options):
    compiler = compilers[[*LANGUAGES].index(language)].split()
    subprocess.run([*compiler, *LANGUAGES[language], *FLAGS, "-", *options], input=code, check=True,
                   text=True)


# A whole program starts with its name in a comment; it is compiled to LANGUAGE-NAME. The other
# blocks in C++ are compiled together, which is faster.
def compile_pieces(folder, libraries, compilers):
    link = f"-L {libraries} -Wl,-rpath,{libraries} -ltolvane -lruvo_timer".split()
    check, together = ("-fsyntax-only", "-Wno-unused"), INCLUDES["cpp"]
    for page in "../README.md", *glob.glob("../docs/*.md"):
        text = read(page)
        for piece in re.finditer(r"^```(c|cpp)\n((?:// (\w+)\.c)?.*?\n)```", text, re.M | re.S):
            language, code, name = piece.groups()
            code = f'#line {text[:piece.start(2)].count(chr(10)) + 1} "{page}"\n{code}'
            if name:
                compile_code(compilers, language, code, "-o", f"{folder}/{language}-{name}", *link)
            elif language == "c":
                compile_code(compilers, language, INCLUDES[language] + code, *check)
            else:  # the headers come first
                headers = "\n".join(re.findall(r"^#include.*", code, re.M))
                together = f"{headers}\n{together}namespace at_{piece.start()} {{\n{code}}}\n"
    compile_code(compilers, "cpp", together, *check)


# Run a server and a client; if the port is taken, the server ends, and another port is tried.
# Requires the client's output, except while it cannot connect. Returns the server and the port.
def converse(wanted, server, client, *arguments):
    port, printed = random.randrange(10000, 30000), b""
    serving = Program(server, port, *arguments[:1])
    while not re.fullmatch(re.sub(rb"\d+", rb"\\d+", wanted), printed):
        if serving.process.poll() is not None:
            return converse(wanted, server, client, *arguments)
        printed = subprocess.run([client, str(port), *arguments[1:]], timeout=PATIENCE,
                                 capture_output=True).stdout
    assert printed == wanted
    return serving, port


def run_programs(libraries, *compilers):
    with tempfile.TemporaryDirectory() as temp:
        compile_pieces(temp, os.path.abspath(libraries), compilers)
        converse(b"hello\n", f"{temp}/cpp-server", f"{temp}/cpp-client")
        converse(b"HELLO\n", f"{temp}/cpp-shout_server", f"{temp}/cpp-shout_client", "_", "hello")
        serving, port = converse(b"HELLO\n", f"{temp}/c-server", f"{temp}/c-client", "_", "hello")
        # A client in its own loop reconnects to a restarted server.
        client = Program(f"{temp}/c-epoll_client", port, "hello")
        client.expect(b"HELLO")
        serving.process.kill()
        serving.process.wait()  # now the port is free
        client.expect(b"no link")
        Program(f"{temp}/c-server", port)
        client.expect(b"HELLO")
        # The worker acknowledges each job at once, and loses no report.
        jobs, ways = f"{temp}/c-jobs", f"{temp}/c-two_ways"
        converse(b"3 jobs done, 27 progress reports\n", jobs, jobs, "worker", "boss")
        # No request is refused because another one is unanswered.
        hub, _ = converse(b"100 of 100 values confirmed, 0 timeouts\n", ways, ways, "hub", "sensor")
        hub.expect(rb"[1-9]\d* of \d+ questions answered")
        assert hub.process.wait(PATIENCE) == 0


# ---- each library exports exactly what its header declares, and each header compiles alone


def check_exports(folder, *compilers):
    output = functools.partial(subprocess.check_output, text=True)
    for header, names in (
            ("../include/tolvane.h", "NEEDED:libc.so.6 NEEDED:libruvo_timer.so SONAME:libtolvane.so.1"),
            ("../timer/ruvo_timer.h", "NEEDED:libc.so.6 SONAME:libruvo_timer.so")):
        library = f"{folder}/lib{os.path.basename(header)[:-2]}.so"
        # Prototypes and objects begin at the start of a line.
        declared = re.findall(r"^(?!typedef)[a-z].*?[ *](\w+)(?:\(|\[.*;|;)", read(header), re.M)
        exported = re.findall(r" (\w+)\n", output(["nm", "-D", "--defined-only", library]))
        assert sorted(declared) == sorted(exported), set(declared) ^ set(exported)
        section = re.findall(r"\((NEEDED|SONAME)\).*\[(.*)\]", output(["readelf", "-d", library]))
        assert sorted(map(":".join, section)) == names.split(), section
        for language, part in itertools.product(LANGUAGES, "UD"):
            compile_code(compilers, language, f'#include "{header}"\n', "-fsyntax-only",
                         f"-{part}TOLVANE_APPLICATION_ONLY")


run(dict(tvcat=cat, two_hosts=pull_cable, wireshark=dissect, snippets=run_programs,
         exports=check_exports)[sys.argv[1]], *sys.argv[2:])
