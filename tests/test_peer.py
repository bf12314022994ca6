#!/usr/bin/env python3
"""examples/peer.py and the programs of the library talk to each other, every kind of message both ways.

usage: test_peer.py <examples folder of the source> <examples/server> <examples/client>
"""
import signal, subprocess, sys, tempfile, time

sys.dont_write_bytecode = True
sys.path.insert(0, sys.argv[1])
import peer

signal.signal(signal.SIGALRM, signal.default_int_handler)  # whatever hangs: tell where, and end
signal.alarm(100)
programs = []


class Program:
    """A program of the library: lines go in, what it prints can be waited for."""

    def __init__(self, *command):
        self.output = tempfile.NamedTemporaryFile()
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=self.output)
        programs.append(self)

    def say(self, line):
        self.process.stdin.write(line + b"\n")
        self.process.stdin.flush()

    def printed(self):
        with open(self.output.name, "rb") as output:
            return output.read()

    def wait_for(self, text, step=lambda: time.sleep(0.02), times=1):
        while self.printed().count(text) < times:
            step()


def drip(link):
    """Let the link send each byte in a segment of its own."""
    class Dripping:
        def sendall(self, data):
            for i in range(len(data)):
                link.real.sendall(data[i:i + 1])

        def __getattr__(self, name):
            return getattr(link.real, name)
    link.real, link.connection = link.connection, Dripping()


def clients_at_the_library():
    server = Program(sys.argv[2], "127.0.0.1", "0")
    server.wait_for(b"listening on port ")
    port = int(server.printed().split()[-1])
    asked, kinds = [], []  # since the login

    def answer(payload):
        asked.append(payload)
        return b"well\0\1" if payload.startswith(b"ask ") else None

    for round, number, dripping, interval, beat in (  # who is silent for longer gets heartbeats only
            (1, 0, False, 0.2, peer.ACKNOWLEDGEMENT),
            (2, peer.LAST_NUMBER - 3, True, 60, peer.HEARTBEAT),
            (3, peer.LAST_NUMBER, False, 60, peer.HEARTBEAT)):
        link = peer.Link(peer.socket.create_connection(("127.0.0.1", port)), b"tcp://py:1",
                         answer, interval=interval)
        link.number = number  # any is taken for the first one; then it has to go round
        if dripping:
            drip(link)
        link.send(peer.LOGIN, b"tcp://py:1\0")
        largest = peer.LARGEST - len(b"\n".join((b"0000000000", peer.REQUEST, link.url, peer.MARKER, b"")))
        for request, reply in ((b"say hello", b"HELLO"), (b"say \0a\xff", b"\0A\xff"), (b"say", b""),
                               (b"later on", b"ON"), (b"say".ljust(3 if dripping else largest), None)):
            got = link.request(request)
            assert got == reply if reply is not None else got is not None, (number, request, got)
        server.say(b"all news")
        server.say(b"ask py 1 how are you")
        until = time.monotonic() + 10
        while asked[-2:] != [b"all news", b"ask how are you"]:
            assert link.step(1)[0] != peer.REPLY and time.monotonic() < until
        server.wait_for(b"reply of tcp://py:1: well", times=round)
        assert link.request(b"lose it", 0.1) is None  # its reply comes while nobody waits for one
        while peer.REPLY not in kinds or kinds.count(beat) <= round:  # one unanswered: silent
            kinds.append(link.step(5)[0])
        link.logout()
        server.wait_for(b"tcp://py:1 has logged out", times=round)
        asked.clear()
        kinds.clear()
    for text in (b"lost its link", b"fallen silent"):
        assert text not in server.printed()


def the_librarys_client_at_a_server():
    server = peer.Server("127.0.0.1", 0, serve=lambda payload: payload[::-1], interval=60)
    port = str(server.listener.getsockname()[1])

    def step():
        server.step(0.05)

    for stays in False, True:  # the second one takes the name, and the first one's link is closed
        client = Program(sys.argv[3], "127.0.0.1", port, "cc", "7")
        client.wait_for(b"logging in", step)
        line = b"say " + (b"o" * 65400 if stays else b"hello")
        client.say(line)
        client.wait_for(b"reply: " + line[::-1], step)
        if not stays:
            server.links[0].send(peer.REQUEST, b"replaced")
    programs[-2].wait_for(b"replaced by a newer login", step)
    link, = server.links
    link.number = peer.LAST_NUMBER - 1  # its first message was numbered 0: any is taken next
    drip(link)
    for question in b"ask me", b"ask \0again", b"all news", b"ask once more":
        awaited = question.startswith(b"ask")
        assert link.request(question, 5 if awaited else 0) == (b"cc is well" if awaited else None)
    link.interval = 0.2
    while link.accepted < 6:  # acknowledgements, and the client's heartbeats
        step()
    client.say(b"logout")
    while server.links:
        step()
    assert link.url == b"tcp://cc:7" and b"no link" not in client.printed()


try:
    clients_at_the_library()
    the_librarys_client_at_a_server()
    print("ok")
finally:
    for program in programs:
        sys.stderr.buffer.write(program.printed())
        program.process.kill()
