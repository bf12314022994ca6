#!/usr/bin/env -S python3 -B
# test_programs.py - what ships with the library, as its users see it. Exits with 77 if a test cannot
# run here.
#
# usage: test_programs.py tvcat <tvcat> <examples/server>
#        test_programs.py mixed <tvcat> <folder of the examples>
#        test_programs.py two_hosts <folder of the examples>
#        test_programs.py wireshark <dissector>
#        test_programs.py snippets <folder of the libraries> <C compiler> <C++ compiler>
#        test_programs.py exports <folder of the libraries> <C compiler> <C++ compiler>
import contextlib, glob, os, random, re, shutil, subprocess, sys, tempfile, time

from programs import PATIENCE, Program, Server, peer, run

def read(name):
    with open(name) as file:
        return file.read()


def output(*command):
    return subprocess.check_output(command, text=True)


# ---- tvcat


# A tvcat answers another; the exit status shows whether every line was answered.
def cat(tvcat, example):
    def expect(status, pattern, *arguments, lines=b""):
        done = subprocess.run([tvcat, *map(str, arguments)], input=lines, timeout=60,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        assert done.returncode == status, done
        assert re.fullmatch(pattern, done.stdout, re.DOTALL), (pattern, done)

    server = Server(tvcat, "-l")
    lines = b"one\n\ntwo words\nlast, without an end"
    expect(0, lines + b"\n", *server.address, lines=lines)
    assert server.printed().partition(b"\n")[2] == lines + b"\n"  # the requests
    expect(0, b"", *server.address, "me")
    # A request that fits but whose reply does not, and the next request.
    plain = server.connect("plain")
    assert plain.request(b"x" * 65440) == b"too long to be answered"
    assert plain.request(b"short") == b"short"

    pong = Server(tvcat, "-l", "-a", "pong")
    expect(0, b"pong\n", "-t", 9000, *pong.address, "me", lines=b"ping\n")

    shouter = Server(example)
    shouter.process.stdin.close()  # it keeps serving
    expect(1, b".*no reply within 100 ms\n", "-t", 100, *shouter.address, lines=b"lose this\n")
    expect(1, b".*too long.*", *shouter.address, lines=b"x" * 100000)

    port = shouter.address[1]
    for status, pattern, arguments in (
            (1, b"refused", "127.0.0.1 1"),
            (1, b"in use", f"-l 127.0.0.1 {port}"),
            (1, b"dotted", "localhost 4711"),
            (1, b"number", "127.0.0.1 http"),
            (1, b"number", "-t 5s 127.0.0.1 4711"),
            (1, b"number", "-t 99999999999 127.0.0.1 4711"),
            (1, b"server", "-l -t 500 127.0.0.1 0"),
            (1, b"needs a server", "-a pong 127.0.0.1 4711"),
            (1, b"name", f"127.0.0.1 {port} " + 60 * "x"),
            (1, b"required", "127.0.0.1"),
            (1, b"argument", "127.0.0.1 4711 me you"),
            (1, b"option.*--help", "-x 127.0.0.1 4711"),
            (0, b"-a ANSWER", "--help"),
            (0, b"tvcat 1\\.", "--version")):
        expect(status, b".*" + pattern + b".*", *arguments.split())


# ---- programs on the C interface and on the C++ layer, and peers in Python, at either end


def mix(tvcat, folder):
    minimal = f"{folder}/minimal"
    shouter = Program(minimal, "server", 0)
    servers = [(int(shouter.wait_for(rb"listening on port (\d+)\n")[0]), b"HELLO")]
    for command in [tvcat, "-l"], [f"{folder}/own_loop_server"]:
        servers.append((Server(*command).address[1], b"hello"))
    for port, reply in servers:
        link = peer.connect("127.0.0.1", port, "plain", 1)
        for client in [minimal, "client", str(port)], [tvcat, "127.0.0.1", str(port)]:
            assert subprocess.check_output(client, input=b"hello\n", timeout=60) == reply + b"\n"
        assert link.request(b"hello", PATIENCE) == reply


# ---- two hosts


# Two network namespaces and a cable between them, which is unplugged and plugged in again. A namespace
# lives only as long as its process: nothing is mounted, so nothing can be left over.
def pull_cable(folder):
    hosts = [Program("unshare", "--net", "sleep", 100) for _ in range(2)]
    a, b = [["nsenter", f"--net=/proc/{host.process.pid}/ns/net"] for host in hosts]

    def ip(host, words):
        return subprocess.run([*host, "ip", *words.split()], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)

    while not all(b"sleep" in open(f"/proc/{host.process.pid}/cmdline", "rb").read()[:6]
                  or host.process.poll() is not None for host in hosts):
        time.sleep(0.01)
    cable = ip(a, f"link add wire type veth peer name wire netns {hosts[1].process.pid}")
    if cable.returncode != 0:
        print("skipped: no network namespaces here:", hosts[0].printed().decode() or cable.stdout)
        sys.exit(77)
    for host, address in (a, "10.213.0.1"), (b, "10.213.0.2"):
        ip(host, f"address add {address}/30 dev wire")
        ip(host, "link set wire up")

    server = Server(*a, f"{folder}/server", address="10.213.0.1")
    client = Program(*b, f"{folder}/client", *server.address, "far", 1)
    server.wait_for(b"tcp://far:1 has logged in")
    ip(a, "link set wire down")
    pulled = time.monotonic()
    # Both examples send a heartbeat a second and give up after two unanswered ones.
    for program, text in (client, b"no link to the server"), (server, b"far:1 has fallen silent"):
        program.wait_for(text)
        assert time.monotonic() - pulled > 1.9
    ip(a, "link set wire up")
    server.wait_for(b"tcp://far:1 has logged in", times=2)
    client.say(b"say back again")
    client.wait_for(b"reply: BACK AGAIN")


# ---- wireshark


def frame(body):
    return peer.HEADER.pack(peer.WATERMARK, len(body)) + body


def message(number, kind, payload):
    return frame(b"\n".join((b"%d" % number, kind, b"tcp://a:1", peer.MARKER, payload)))


PIECES = message(2, peer.REQUEST, b"in pieces of " + b"0" * 300)
FIELDS = ("-Y tolvane -T fields -E separator=| -e frame.number -e tolvane.type -e tolvane.length "
          "-e _ws.col.Info -e tolvane.answer_in -e tolvane.answer_to -e tolvane.time "
          "-e tolvane.heartbeat.interval -e _ws.expert.message").split()
# Direction (Out of or In to the client), bytes and, if they end a message, FIELDS after the number.
SEGMENTS = (
    ("O", message(0, peer.LOGIN, b"tcp://a:1\0"), '0|64|login 0 tcp://a:1 "tcp://a:1"  |||||'),
    ("O", message(1, peer.REQUEST, b"ping"), '2|60|request 1 tcp://a:1 "ping"  |3||||'),
    ("I", message(0, peer.REPLY, b"pong\0"), '3|59|reply 0 tcp://a:1 "pong"  ||2|3||'),
    ("O", PIECES[:7], None),
    ("O", PIECES[7:47], None),
    ("O", PIECES[47:] + message(3, peer.HEARTBEAT, b"{sequence:1}, {interval:200},{count:3}\0"),
     '2,4|369,97|request 2 tcp://a:1 "in pieces of ' + "0" * 47 + '"  '
     'heartbeat 3 tcp://a:1 "{sequence:1}, {interval:200},{count:3}"  |8,7|||200|'),
    ("I", message(1, peer.ACKNOWLEDGEMENT, b"{sequence:0}\0"),
     '5|74|heartbeatack 1 tcp://a:1 "{sequence:0}"  ||6|3||'),
    ("I", message(2, peer.REPLY, b""), "3|54|reply 2 tcp://a:1  ||6|6||"),
    ("O", message(9, peer.REQUEST, b"too early"), '2|65|request 9 tcp://a:1 "too early" [gap]  '
     "|||||Gap in the sequence: 9 instead of 4, the receiver drops the message"),
    ("O", message(4, peer.REQUEST, b"velun_tolvane_logout\n"),
     '2|77|request 4 tcp://a:1 "velun_tolvane_logout."  '
     "|||||The payload holds a tag: the receiver takes it for a logout"),
    ("O", frame(b"5\nvelun_tolvane_nonsense\n"),
     "6|25|unknown 5  |||||Not a message: the receiver drops it"),
    ("O", frame(b"6\nvelun_tolvane_request\ntcp://a:1"),
     "2|33|request 6 tcp://a:1  |||||No payload marker"),
    ("I", frame(b""),
     "|0|Refused length  |||||Refused length: the receiver closes the connection"),
    ("O", b"out of step, so no receiver can read on",
     "||No watermark  |||||No watermark: the receiver closes the connection"))


def dissect(dissector):
    if not shutil.which("tshark"):
        print("skipped: tshark is not installed")
        sys.exit(77)
    # Newer releases run no scripts as root, so another user reads the capture.
    nobody = {"user": 65534, "group": 65534, "extra_groups": []} if os.getuid() == 0 else {}
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        script, capture = shutil.copy(dissector, folder), f"{folder}/capture"
        lines = (f"{sender} 10:10:{3 * number:02}\n0000 {data.hex(' ')}\n"
                 for number, (sender, data, _) in enumerate(SEGMENTS))
        subprocess.run(["text2pcap", "-q", "-t", "%H:%M:%S", "-D", "-T", "4711,50000", "-", capture],
                       input="".join(lines), check=True, text=True)
        shown = subprocess.check_output(
            ["tshark", "-2", "-X", f"lua_script:{script}", "-r", capture, *FIELDS],
            env={**os.environ, "HOME": folder}, **nobody, text=True)
    wanted = [f"{number}|{shows}" for number, (_, _, shows) in enumerate(SEGMENTS, 1) if shows]
    assert shown.splitlines() == wanted, shown


# ---- documentation: its code blocks compile, and its whole programs work


FLAGS = "-D_GNU_SOURCE -Wall -Wextra -Wpedantic -Werror -I../include -I../timer".split()
# What the guide tells readers to include in a block that is not a whole program.
INCLUDES = {
    "c": "".join(f"#include <{header}.h>\n" for header in ("ruvo_timer", "stdlib", "string", "tolvane")),
    "cpp": "#include <tolvane.hpp>\nusing namespace std::chrono_literals;\n",
}


# A whole program starts with its name in a comment; it is compiled to LANGUAGE-NAME.
def compile_pieces(folder, libraries, compilers):
    for page in "../README.md", *glob.glob("../docs/*.md"):
        text = read(page)
        for piece in re.finditer(r"^```(c|cpp)\n((?:// (\w+)\.c)?.*?\n)```", text, re.M | re.S):
            language, code, name = piece.groups()
            program = f"{folder}/{language}-{name}"
            with open(f"{program}.{language}", "w") as source:
                line = text.count("\n", 0, piece.start(2)) + 1
                source.write(f'{"" if name else INCLUDES[language]}#line {line} "{page}"\n{code}')
            goal = (["-o", program, "-L", libraries, "-Wl,-rpath," + libraries, "-ltolvane",
                     "-lruvo_timer"] if name else ["-fsyntax-only", "-Wno-unused"])
            subprocess.run([*compilers[language], *FLAGS, source.name, *goal], check=True)


# Run a server and a client on a free port; a server whose port is taken ends, and the next port is
# tried. Requires the client's output, except while it cannot connect; returns the server and port.
def converse(wanted, server, client, *arguments):
    for port in random.sample(range(10000, 30000), 5):
        serving = Program(server, port, *arguments[:1])
        while serving.process.poll() is None:
            done = subprocess.run([client, str(port), *arguments[1:]], timeout=20,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            if re.fullmatch(re.sub(rb"\d+", rb"\\d+", wanted), done.stdout):
                assert done.stdout == wanted
                return serving, port
    raise AssertionError("no port was free")


def run_programs(libraries, *compilers):
    with tempfile.TemporaryDirectory() as folder:
        compile_pieces(folder, os.path.abspath(libraries),
                       {"c": [*compilers[0].split(), "-std=c11"], "cpp": [*compilers[1].split(), "-std=c++17"]})
        converse(b"hello\n", f"{folder}/cpp-server", f"{folder}/cpp-client")
        serving, port = converse(b"HELLO\n", f"{folder}/c-server", f"{folder}/c-client", "_", "hello")
        converse(b"HELLO\n", f"{folder}/cpp-shout_server", f"{folder}/cpp-shout_client", "_", "hello")
        # The worker acknowledges each job at once, and loses no report.
        converse(b"3 jobs done, 27 progress reports\n", f"{folder}/c-jobs", f"{folder}/c-jobs", "worker", "boss")
        # A client in its own loop reconnects to a restarted server.
        client = Program(f"{folder}/c-epoll_client", port, "hello")
        client.wait_for(b"HELLO")
        serving.process.kill()
        client.wait_for(b"no link")
        Program(f"{folder}/c-server", port)
        heard = len(client.wait_for(b"HELLO"))
        client.wait_for(b"HELLO", times=heard + 1)
        # No request is refused because another one is unanswered.
        ways, port = converse(b"100 of 100 values confirmed, 0 timeouts\n", f"{folder}/c-two_ways",
                              f"{folder}/c-two_ways", "hub", "sensor")
        ways.wait_for(rb"[1-9]\d* of \d+ questions answered")
        assert ways.process.wait(PATIENCE) == 0


# ---- each library exports exactly what its header declares, and each header compiles alone


def check_exports(folder, *compilers):
    for header, names in (
            ("../include/tolvane", "NEEDED:libc.so.6 NEEDED:libruvo_timer.so SONAME:libtolvane.so.1"),
            ("../timer/ruvo_timer", "NEEDED:libc.so.6 SONAME:libruvo_timer.so")):
        library = f"{folder}/lib{os.path.basename(header)}.so"
        # Prototypes and objects begin at the start of a line.
        declared = re.findall(r"^(?!typedef)[a-z].*?[ *](\w+)(?:\(|\[.*;|;)", read(header + ".h"), re.M)
        exported = re.findall(r" (\w+)\n", output("nm", "-D", "--defined-only", library))
        assert sorted(declared) == sorted(exported), set(declared) ^ set(exported)
        section = re.findall(r"\((NEEDED|SONAME)\).*\[(.*)\]", output("readelf", "-d", library))
        assert sorted(map(":".join, section)) == names.split(), section
        for compiler, language in zip(compilers, ("c -std=c11", "c++ -std=c++17")):
            for part in "-UTOLVANE_APPLICATION_ONLY", "-DTOLVANE_APPLICATION_ONLY":
                output(*compiler.split(), "-x", *language.split(), *FLAGS, part, "-fsyntax-only", header + ".h")


run(dict(tvcat=cat, mixed=mix, two_hosts=pull_cable, wireshark=dissect, snippets=run_programs,
         exports=check_exports)[sys.argv[1]], *sys.argv[2:])
