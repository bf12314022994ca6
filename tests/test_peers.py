#!/usr/bin/env -S python3 -B
# test_peers.py - the Python peers of examples/peer.py against programs of the library. Times are in
# seconds.
#
# usage: test_peers.py peer <examples/server> <examples/client>      every kind of message both ways
#        test_peers.py mixed <tvcat> <folder of the examples>      each echo server with all clients
#        test_peers.py hostile <examples/server>      what bad peers cost the server and a good one
import contextlib, glob, itertools, multiprocessing, os, select, signal, socket, subprocess
import sys, time

from programs import PATIENCE, Program, Server, peer, read_until_closed, run


# ---- peer


# A link may start at any message number; after the last one comes 0. With a short interval this
# peer sends the heartbeats, otherwise the server does.
def use_plain(link, number, beat):
    link.number, kinds = number, []
    link.send(peer.LOGIN, link.url + b"\0")
    for text in b"hello", b"\0a\xff", b"", b"x" * 65394:
        assert link.request(b"say " + text) == text.upper()
    assert link.request(b"lose it", 0.1) is None  # its reply comes while nobody waits for one
    while peer.REPLY not in kinds or kinds.count(beat) < 3:
        kinds.append(link.step(5)[0])


def use_pipelined(link):
    slow, quick = link.ask(b"later slow"), [link.ask(b"say %d" % i) for i in range(50)]
    assert [link.wait_for(each, PATIENCE) for each in quick] == [b"%d" % i for i in range(50)]
    assert slow not in link.answers and link.wait_for(slow, PATIENCE) == b"SLOW"
    assert link.request(b"say " + peer.LOGIN, PATIENCE) == peer.LOGIN.upper()
    declined = link.ask(b"dance")
    while declined not in link.answers:
        link.step(1)
    assert link.answers.pop(declined) is None


def clients_for(server):
    for interval, number, beat in ((0.2, 0, peer.ACKNOWLEDGEMENT),
                                   (60, peer.LAST_NUMBER - 3, peer.HEARTBEAT),
                                   (60, 0, None)):  # a pipelined link
        answers = {b"ask how are you": b"well\0\1", b"all news": None}  # each is asked once
        if beat:
            link = peer.Link(socket.create_connection(server.address), b"tcp://py:1", answers.pop,
                             interval=interval)
            use_plain(link, number, beat)
        else:
            link = server.connect("py", serve=answers.pop, pipelined=True)
            use_pipelined(link)
        server.say(b"ask py 1 how are you")
        server.say(b"all news")
        while answers:
            assert link.step(1)[0] != peer.REPLY
        server.expect(b"reply from tcp://py:1: well")
        link.logout()
        server.expect(b"tcp://py:1 has logged out")


def server_for(program):
    server = peer.Server("127.0.0.1", 0, serve=lambda payload: payload[::-1], interval=60)
    address = server.listener.getsockname()

    def step():
        server.step(0.05)
        for link in server.links:
            if not link.url:  # it has not logged in
                link.number = peer.LAST_NUMBER - 1  # soon wraps around

    client = Program(program, *address, "cc", 7)
    for line in b"say hello", b"say ".ljust(65398, b"o"):
        client.say(line)
        client.expect(b"reply: " + line[::-1], step=step)
    rival = peer.connect(*address, "cc", 7)  # takes the name until the client logs in again
    client.expect(b"no link", step=step)
    while not select.select([rival.connection], [], [], 0)[0]:
        step()
    link, = server.links
    for question in b"ask me", b"ask \0again", b"all news", b"ask once more":
        awaited = question.startswith(b"ask")
        assert link.request(question, 5 if awaited else 0) == (b"cc is well" if awaited else None)
    for link.interval, beat in (0.2, peer.ACKNOWLEDGEMENT), (60, peer.HEARTBEAT):
        while link.step(1)[0] != beat:
            pass
    client.say(b"logout")
    while server.links:
        step()
    assert link.url == b"tcp://cc:7"


def talk(server_program, client_program):
    server = Server(server_program)
    clients_for(server)
    for text in b"lost its link", b"fallen silent":
        assert server.never_printed(text)
    server_for(client_program)


# ---- mixed: every echo server, each on its own kind of loop, with all clients, and many at once


def ask(links):
    for i, link in enumerate(links):
        link.send(peer.REQUEST, b"hello %d" % i)
    for i, link in enumerate(links):
        assert link.step(PATIENCE) == (peer.REPLY, b"hello %d" % i)  # no heartbeat for 10 s


# In one pass of the server's loop, a login closes an older client of that name that has just sent a
# message, and a newcomer gets its descriptor number. The server must not look for that message on
# the newcomer's connection: it would wait there, time out and close it.
def send_stale_event(server):
    older, other = server.connect("older"), server.connect("other")
    ask([older, other])
    server.process.send_signal(signal.SIGSTOP)
    os.waitpid(server.process.pid, os.WUNTRACED)
    other.send(peer.LOGIN, older.url + b"\0")
    newcomer = socket.create_connection(server.address)
    older.send(peer.REQUEST, b"hello")
    server.process.send_signal(signal.SIGCONT)
    ask([other])
    assert not select.select([newcomer], [], [], 0)[0], "the newcomer's connection was closed"


def mix(tvcat, folder):
    minimal = f"{folder}/minimal"
    shouter = Server("sh", "-c", 'exec "$0" server "$2"', minimal)
    servers = [Server(tvcat, "-l")]
    servers += [Server(program) for program in glob.glob(f"{folder}/*_server")]
    for server in [shouter, *servers]:
        link, reply = server.connect("plain"), b"HELLO" if server == shouter else b"hello"
        for client in [minimal, "client"], [tvcat, "127.0.0.1"]:
            command = [*client, str(server.address[1])]
            assert subprocess.check_output(command, input=b"hello", timeout=60) == reply + b"\n"
        assert link.request(b"hello", PATIENCE) == reply
    for server in servers:
        send_stale_event(server)
        links = [server.connect("many", i) for i in range(300)]
        for link in links[::2]:
            link.logout()
        ask(links[1::2] + [server.connect("more", i) for i in range(150)])


# ---- hostile


def frame(length, text=b""):
    return peer.HEADER.pack(peer.WATERMARK, length) + text


# Send the pieces, then nothing, until the server closes the connection.
def is_closed(server, pieces):
    sent = 0
    with socket.create_connection(server.address, PATIENCE) as connection:
        with contextlib.suppress(ConnectionError):
            for piece in pieces:
                connection.sendall(piece)
                sent += len(piece)
        read_until_closed(connection)
    # The server must refuse the announced length, not receive 2 GiB.
    assert sent < 2 ** 31


def newer_logins(server, count):
    for _ in range(count):
        older = server.connect("same")
        server.connect("same")
        read_until_closed(older.connection)


LARGEST, MEGABYTE = frame(2 ** 31 - 1), bytes(1000000)
SAY = b"\n".join((b"0", peer.REQUEST, b"", peer.MARKER, b"say ")).ljust(60000, b"x")
DRIP = (time.sleep(0.001) or b"x" for _ in range(60000))
ATTACKS = {
    "half a header": (is_closed, [LARGEST[:20]]),
    "half a body": (is_closed, [frame(4, b"ab")]),
    "a byte per ms": (is_closed, itertools.chain([frame(60000)], DRIP)),
    "2 GiB announced, 1 MB sent": (is_closed, [LARGEST, MEGABYTE]),
    "a length above 2147483647": (is_closed, [frame(2 ** 31)]),
    "an empty frame": (is_closed, [frame(0)]),
    "garbage": (is_closed, [b"x" * 100000]),
    "300 connections under one name": (newer_logins, 300),
    "2 GiB without a pause": (is_closed, itertools.chain([LARGEST], itertools.repeat(MEGABYTE))),
    "replies never read": (is_closed, itertools.repeat(frame(len(SAY), SAY))),
}


def endure(program):
    server = Server(program)
    healthy = server.connect("healthy")

    def delay():
        start = time.monotonic()
        assert healthy.request(b"say ping", PATIENCE) == b"PING"
        return time.monotonic() - start

    delay()
    descriptors, memory = server.descriptors(), server.kilobytes("VmRSS")
    for what, (attack, argument) in ATTACKS.items():
        attacker = multiprocessing.get_context("fork").Process(
            target=attack, args=(server, argument))
        attacker.start()
        worst = delay()
        while attacker.is_alive() or not attacker.exitcode and server.descriptors() != descriptors:
            worst = max(worst, delay())
        most, more = server.kilobytes("VmHWM") - memory, server.kilobytes("VmRSS") - memory
        print("%s: %.0f ms, at most %d KiB more, now %d" % (what, worst * 1000, most, more))
        assert attacker.exitcode == 0 and more < 1024
        # Replies that are not read are queued.
        assert most < (24 * 1024 if what == "replies never read" else 4096)
        assert server.never_printed(b"fallen silent")  # no client that had logged in was given up
    server.stop()


run(dict(peer=talk, mixed=mix, hostile=endure)[sys.argv[1]], *sys.argv[2:])
