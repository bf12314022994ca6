#!/usr/bin/env -S python3 -B
# soak.py - a server and eight clients with random requests both ways, and every kind of trouble.
#
# usage: soak.py <examples/server> <examples/client> [SECONDS [SEED]]
#
# Four clients are programs, stopped now and then until the server has declared them down. Four are
# guests: links of examples/peer.py with up to eight outstanding requests, which leave in one of
# WAYS. Each reply is compared with its request. At the end the server must have released all
# resources.
import collections, concurrent.futures, itertools, random, re, signal, string, sys, time

from programs import PATIENCE, Program, Server, peer, read_until_closed, run

WAYS = ["log out", "close", "log in again", "fall silent"]
LETTERS = string.ascii_letters.encode() * 1300
happened = collections.Counter()


def random_text():
    length = random.choice([random.randrange(300)] * 50 + [random.randrange(60000, 65000)])
    return LETTERS[random.randrange(52):][:length] + b"."


def drive(server, program, name, until):
    client = Program(program, *server.address, name, 1)
    client.expect(b"logged in as")
    while time.monotonic() < until:
        text, sent = random_text(), time.monotonic()
        verb = random.choice(["say"] * 50 + ["later", "lose"])
        client.say(verb.encode() + b" " + text)
        outcome = client.expect(b": (reply: .*|no reply|the link|declined)")[1]
        if outcome != b"reply: " + text.upper():
            assert outcome == b"no reply" and time.monotonic() - sent > 0.99, outcome
        happened[verb] += 1
        if random.random() < 0.02:
            so_far = len(server.lines)
            client.process.send_signal(signal.SIGSTOP)
            server.expect(b"//%s:1 has fallen silent" % name.encode(), start=so_far)
            client.process.send_signal(signal.SIGCONT)
            client.expect(b"logged in as")
            happened["stopped"] += 1
    client.process.stdin.close()
    assert client.process.wait(PATIENCE) == 0


def exchange(link):
    texts = [random_text() for _ in range(random.randint(1, 8))]
    for text in texts:
        link.send(peer.REQUEST, b"say " + text)
    for text in texts:
        while (message := link.step(PATIENCE))[0] != peer.REPLY:
            pass  # a request of the server
        assert message[1] == text.upper()
    happened["guests' requests"] += len(texts)


def visit(server, name, first_way, until):
    older = None
    for way in itertools.islice(itertools.cycle(WAYS), first_way, None):
        link = server.connect(name, serve=bytes.upper)
        if older:
            read_until_closed(older)
        leaves = min(time.monotonic() + random.uniform(0, 2), until)
        while time.monotonic() < leaves:
            exchange(link)
        link.send(peer.REQUEST, b"say " + random_text())  # it leaves without the reply
        if leaves == until:
            return link.logout()
        older = link.connection if way == "log in again" else None
        if way == "log out":
            link.logout()
        if way == "close":
            link.connection.close()
        if way == "fall silent":
            silent_since = time.monotonic()
            read_until_closed(link.connection)
            assert time.monotonic() - silent_since > 1.99  # after two heartbeats of one second
        happened[way] += 1


def soak(server_program, client_program, seconds=20, seed=random.randrange(1000000)):
    print("seed", seed, flush=True)  # repeats the random choices, not the timing
    random.seed(str(seed))
    signal.alarm(int(seconds) + 90)
    # Messages go back to the system at once, so that only what is kept counts as memory.
    server = Server("env", "MALLOC_MMAP_THRESHOLD_=32768", "MALLOC_TRIM_THRESHOLD_=4096",
                    server_program)
    descriptors, in_use = server.descriptors(), 0
    until = time.monotonic() + int(seconds)
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        clients = [pool.submit(*client, until) for i in range(4) for client in (
            (drive, server, client_program, f"program{i}"), (visit, server, f"guest{i}", i))]
        while concurrent.futures.wait(clients, random.uniform(0, 0.02)).not_done:
            name = random.choice([b"program", b"guest"]) + b"%d" % random.randrange(4)
            server.say(b"ask %s 1 %s" % (name, random_text()))
            if random.random() < 0.01:
                server.say(b"all " + random_text())
            if not in_use and time.monotonic() > until - int(seconds) * 2 / 3:
                in_use = server.kilobytes("VmRSS")
    for client in clients:
        client.result()
    while server.descriptors() != descriptors:
        pass  # the alarm ends it
    kept = server.kilobytes("VmRSS")
    server.stop()
    happened.update(re.findall("^server: (reply|no reply|not answered|no such client)",
                               b"\n".join(server.lines).decode("latin-1"), re.M))
    print(*(f"{what} {count}" for what, count in sorted(happened.items())), (in_use, kept), sep=", ")
    assert all(happened[what] for what in ["reply", "guests' requests", "stopped", *WAYS])
    assert kept < in_use or kept == 0  # 0: unknown, because of the address sanitizer


run(soak, *sys.argv[1:])
