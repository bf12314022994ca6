#!/usr/bin/env -S python3 -B
# test_peers.py - the Python peers of examples/peer.py against programs of the library. Times are in
# seconds.
#
# usage: test_peers.py peer <examples/server> <examples/client>       every kind of message both ways
#        test_peers.py own_loop <server that echoes>...              many clients at once
#        test_peers.py hostile <examples/server>     what bad peers cost the server and a healthy one
import contextlib, itertools, multiprocessing, os, select, signal, socket, sys, time

from programs import PATIENCE, Program, Server, peer, programs, read_until_closed, run


def body(number, url, payload=b""):
    return b"\n".join((number, peer.REQUEST, url, peer.MARKER, payload))


# ---- peer


def clients_at(program):
    server = Server(program)
    asked, kinds = [], []  # since the login

    def answer(payload):
        asked.append(payload)
        return b"well\0\1" if payload.startswith(b"ask ") else None

    for round, number, interval, beat in (  # who is silent for longer gets heartbeats only
            (1, 0, 0.2, peer.ACKNOWLEDGEMENT),
            (2, peer.LAST_NUMBER - 3, 60, peer.HEARTBEAT),
            (3, peer.LAST_NUMBER, 60, peer.HEARTBEAT)):
        link = peer.Link(socket.create_connection(server.address), b"tcp://py:1", answer,
                         interval=interval)
        link.number = number  # any first number is accepted; then it must wrap around
        link.send(peer.LOGIN, link.url + b"\0")
        largest = peer.LARGEST - len(body(b"0000000000", link.url))
        for request, reply in ((b"say hello", b"HELLO"), (b"say \0a\xff", b"\0A\xff"), (b"say", b""),
                               (b"later on", b"ON"), (b"say".ljust(largest), None)):
            got = link.request(request)
            assert got == reply if reply is not None else got is not None, (number, request, got)
        server.say(b"all news")
        server.say(b"ask py 1 how are you")
        until = time.monotonic() + 10
        while asked[-2:] != [b"all news", b"ask how are you"]:
            assert link.step(1)[0] != peer.REPLY and time.monotonic() < until
        server.wait_for(b"reply from tcp://py:1: well", times=round)
        assert link.request(b"lose it", 0.1) is None  # its reply comes while nobody waits for one
        while peer.REPLY not in kinds or kinds.count(beat) <= round:  # one unanswered: silent
            kinds.append(link.step(5)[0])
        link.logout()
        server.wait_for(b"tcp://py:1 has logged out", times=round)
        asked.clear()
        kinds.clear()
    for text in (b"lost its link", b"fallen silent"):
        assert text not in server.printed()


def pipelined_at(program):
    server, asked = Server(program), []

    def answer(payload):
        asked.append(payload)
        return b"well\0\1" if payload.startswith(b"ask ") else None

    link = server.connect("py", serve=answer, pipelined=True)
    slow, quick = link.ask(b"later slow"), [link.ask(b"say %d" % i) for i in range(50)]
    assert [link.wait_for(each, PATIENCE) for each in quick] == [b"%d" % i for i in range(50)]
    assert slow not in link.answers and link.wait_for(slow, PATIENCE) == b"SLOW"
    assert link.request(b"say " + peer.LOGIN, PATIENCE) == peer.LOGIN.upper()
    declined = link.ask(b"dance")
    while declined not in link.answers:
        link.step(1)
    assert link.answers.pop(declined) is None
    server.say(b"ask py 1 how are you")
    server.say(b"all news")
    while asked != [b"ask how are you", b"all news"]:
        link.step(1)
    server.wait_for(b"reply from tcp://py:1: well")
    link.logout()
    server.wait_for(b"tcp://py:1 has logged out")


def server_for(program):
    server = peer.Server("127.0.0.1", 0, serve=lambda payload: payload[::-1], interval=60)
    port = str(server.listener.getsockname()[1])

    def step():
        known = server.links
        server.step(0.05)
        for link in server.links:
            if link not in known:  # any first number is accepted; then it must wrap around
                link.number = peer.LAST_NUMBER - 1

    for stays in False, True:  # the second one takes the name, and the first one's link is closed
        client = Program(program, "127.0.0.1", port, "cc", "7")
        client.wait_for(b"logging in", step)
        line = b"say " + (b"o" * 65394 if stays else b"hello")
        client.say(line)
        client.wait_for(b"reply: " + line[::-1], step)
        if not stays:
            server.links[0].send(peer.REQUEST, b"replaced")
    programs[-2].wait_for(b"replaced by a newer login", step)
    link, = server.links
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


def talk(server, client):
    clients_at(server)
    pipelined_at(server)
    server_for(client)


# ---- own_loop


def ask(links):
    for i, link in enumerate(links):
        link.send(peer.REQUEST, b"hello %d" % i)
    for i, link in enumerate(links):
        assert link.step(PATIENCE) == (peer.REPLY, b"hello %d" % i)  # no heartbeat for 10 s


# In one pass of the server's loop, a login closes an older client of that name that has just sent a
# message, and a newcomer gets its descriptor number. The server must not wait for that message on the
# newcomer's connection, and then close it.
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


def serve_many(*programs):
    for program in programs:
        server = Server(*program.split())
        send_stale_event(server)
        links = [server.connect("many", i) for i in range(300)]
        for link in links[::2]:
            link.logout()
        ask(links[1::2] + [server.connect("more", i) for i in range(150)])


# ---- hostile


def frame(length, text=b""):
    return peer.HEADER.pack(peer.WATERMARK, length) + text


# An attack: send the pieces, then nothing, until the server closes the connection.
def is_closed(*pieces):
    def attack(server):
        start, sent = time.monotonic(), 0
        with socket.create_connection(server.address, PATIENCE) as connection:
            with contextlib.suppress(ConnectionError):
                for piece in itertools.chain(*pieces):
                    connection.sendall(piece)
                    sent += len(piece)
            read_until_closed(connection)
        # A message may take 1 s, even if its bytes never pause.
        assert sent < 2 ** 31 or time.monotonic() - start < 2, "the server received 2 GiB"
    return attack


def newer_logins(server):
    link = server.connect("same")
    for _ in range(300):
        older, link = link, server.connect("same")
        read_until_closed(older.connection)
    assert link.request(b"say served", PATIENCE) == b"SERVED"


ATTACKS = {
    "half a header": is_closed([frame(4)[:20]]),
    "half a body": is_closed([frame(4, b"ab")]),
    "a byte a millisecond": is_closed(
        [frame(2 ** 31 - 1)], (time.sleep(0.001) or b"x" for _ in itertools.count())),
    "2 GiB announced, 1 MB sent": is_closed([frame(2 ** 31 - 1, bytes(1000000))]),
    "a length above 2147483647": is_closed([frame(2 ** 31)]),
    "an empty frame": is_closed([frame(0)]),
    "garbage": is_closed([b"x" * 100000]),
    "300 connections under one name": newer_logins,
    "2 GiB without a pause": is_closed([frame(2 ** 31 - 1)], itertools.repeat(bytes(1000000))),
    "replies never read": is_closed(
        itertools.repeat(frame(60000, body(b"0", b"", b"say ").ljust(60000, b"x")))),
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
    # The address sanitizer keeps freed memory; it reports leaks at the end.
    bound = 4096 if server.kilobytes("VmSize") < 2 ** 33 else float("inf")
    for what, attack in ATTACKS.items():
        print(what, end=": ", flush=True)
        attacker = multiprocessing.get_context("fork").Process(target=attack, args=(server,))
        attacker.start()
        worst = delay()
        while attacker.is_alive() or (
                attacker.exitcode == 0 and server.descriptors() != descriptors):
            worst = max(worst, delay())
        most, more = (server.kilobytes(which) - memory for which in ("VmHWM", "VmRSS"))
        print("%.0f ms, at most %d KiB more, now %d" % (worst * 1000, most, more))
        assert attacker.exitcode == 0 and more < bound / 4
        assert most < bound or what == "replies never read" and most < 24 * 1024  # a queue
        assert b"fallen silent" not in server.printed()  # closed for the attack, not for silence
    server.say(b"stop")
    assert server.process.wait(PATIENCE) == 0


run(dict(peer=talk, own_loop=serve_many, hostile=endure)[sys.argv[1]], *sys.argv[2:])
