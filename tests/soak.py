#!/usr/bin/env -S python3 -B
# soak.py - a server and eight clients with random requests both ways, and every kind of trouble.
#
# usage: soak.py <examples/server> <examples/client> [SECONDS [SEED]]
#
# Four clients are programs, stopped now and then until the server has declared them down. Four are
# guests: links of examples/peer.py with up to eight outstanding requests, which leave in one of WAYS.
# Each reply is compared with its request. At the end the server must have released all resources.
import collections, itertools, queue, random, signal, string, sys, threading, time

from programs import PATIENCE, Program, Server, peer, read_until_closed, run

WAYS = ["log out", "close", "log in again", "fall silent"]
LETTERS = string.ascii_letters.encode() * 1300
happened = collections.Counter()
declared_down = collections.defaultdict(threading.Event)  # clients, by name


def random_text():
    length = random.choice([random.randrange(300)] * 50 + [random.randrange(60000, 65000)])
    return LETTERS[random.randrange(52):][:length] + b"."


def hear_server(line):
    for outcome in b"reply from", b"no reply from", b"not answered", b"no such client":
        happened[f"server: {outcome.decode()}"] += line.startswith(b"server: " + outcome)
    if b"has fallen silent" in line:
        declared_down[line.split(b"//")[1].split(b":")[0].decode()].set()


def drive(server, program, name, until):
    lines = queue.Queue()
    client = Program(program, *server.address, name, 1, hear=lines.put)

    def wait_for(*texts):
        deadline, line = time.monotonic() + PATIENCE, b""
        while not any(text in line for text in texts):
            assert time.monotonic() < deadline, texts
            line = lines.get(timeout=PATIENCE)
        return line.split(b": ", 1)[1][:-1]

    wait_for(b"logging in")
    while time.monotonic() < until:
        text, sent = random_text(), time.monotonic()
        verb = random.choice([b"say"] * 50 + [b"later", b"lose"])
        client.say(verb + b" " + text)
        outcome = wait_for(b": reply: ", b": no reply", b": the link", b": declined")
        happened[f"{name}: {verb.decode()}"] += 1
        if outcome != b"reply: " + text.upper():
            assert outcome.startswith(b"no reply") and time.monotonic() - sent > 0.99, outcome
        if random.random() < 0.02:
            declared_down[name].clear()
            client.process.send_signal(signal.SIGSTOP)
            assert declared_down[name].wait(PATIENCE)
            client.process.send_signal(signal.SIGCONT)
            wait_for(b"logging in")
            happened["stopped"] += 1
    client.process.stdin.close()
    assert client.process.wait(PATIENCE) == 0


def exchange(link):
    texts = [random_text() for _ in range(random.randint(1, 8))]
    for text in texts:
        link.send(peer.REQUEST, b"say " + text)
    deadline = time.monotonic() + PATIENCE
    for text in texts:
        while (message := link.step(PATIENCE))[0] != peer.REPLY:
            assert time.monotonic() < deadline
        assert message[1] == text.upper()
    happened["guests: reply"] += len(texts)


def visit(server, name, first_way, until):
    link = server.connect(name, serve=bytes.upper)
    for way in itertools.islice(itertools.cycle(WAYS), first_way, None):
        leaves = min(time.monotonic() + random.uniform(0, 2), until)
        while time.monotonic() < leaves:
            exchange(link)
        link.send(peer.REQUEST, b"say " + random_text())  # it leaves without the reply
        if leaves == until:
            return link.logout()
        older, silent_since = link.connection, time.monotonic()
        if way == "log out":
            link.logout()
        if way == "log in again":
            link = server.connect(name, serve=bytes.upper)
            read_until_closed(older)
        if way == "fall silent":
            read_until_closed(older)
            assert time.monotonic() - silent_since > 1.99  # after two heartbeats of one second
        older.close()
        if way != "log in again":
            link = server.connect(name, serve=bytes.upper)
        happened[way] += 1


def soak(server_program, client_program, seconds=20, seed=random.randrange(1000000)):
    print("seed", seed, flush=True)  # repeats the random choices, not the timing
    random.seed(str(seed))
    signal.alarm(int(seconds) + 90)
    server = Server(server_program, hear=hear_server)
    descriptors, memory = server.descriptors(), []
    start = time.monotonic()
    until = start + int(seconds)
    threads = []
    for i in range(4):
        driver = drive, (server, client_program, f"program{i}", until)
        guest = visit, (server, f"guest{i}", i, until)
        threads += [threading.Thread(target=f, args=a, daemon=True) for f, a in (driver, guest)]
    for thread in threads:
        thread.start()
    while any(thread.is_alive() for thread in threads):
        name = random.choice(["program", "guest"]) + str(random.randrange(4))
        server.say(b"ask %s 1 " % name.encode() + random_text())
        if random.random() < 0.01:
            server.say(b"all " + random_text())
        time.sleep(random.uniform(0, 0.02))
        if time.monotonic() > start + int(seconds) / 3 * (len(memory) + 1):
            memory.append(server.kilobytes("VmHWM"))
    deadline = time.monotonic() + PATIENCE
    while server.descriptors() != descriptors:
        assert time.monotonic() < deadline
    sanitized = server.kilobytes("VmSize") > 2 ** 33  # keeps freed memory
    server.say(b"stop")
    assert server.process.wait(PATIENCE) == 0
    print(*(f"{what} {count}" for what, count in sorted(happened.items())), memory, sep=", ")
    assert all(happened[what] for what in ["server: reply from", "guests: reply", "stopped", *WAYS])
    assert sanitized or memory[-1] < memory[0] * 1.1 + 512


run(soak, *sys.argv[1:])
