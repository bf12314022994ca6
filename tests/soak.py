#!/usr/bin/env -S python3 -B
# soak.py - a server and 13 clients with random requests both ways, and every kind of trouble.
#
# usage: soak.py <examples/server> <examples/client> [SECONDS [RATE [SEED]]]
#
# Six clients are programs; five of them are now and then stopped until the server has found them
# silent. Seven are guests, links of examples/peer.py with up to eight requests at a time, which
# leave in one of WAYS with requests under way, and come again. RATE is how many times as often as
# usual.
#
# Every request has one outcome: its reply, byte by byte; a timeout, not before its time; or the loss
# of its link, which has a cause. The programs print it.
import collections, itertools, random, re, signal, string, sys, threading, time

from programs import PATIENCE, Program, Server, peer, read_until_closed, run

CLIENTS, GUESTS = [f"client{i}" for i in range(6)], [f"guest{i}" for i in range(7)]
BUSY = CLIENTS[1:]  # the other one only answers heartbeats
WAYS = ["log out", "close", "log in anew", "fall silent"]
VERBS = ["say"] * 100 + ["later", "lose"]
OUTCOMES = "reply", "no reply", "lost"
ENDS = "has logged out", "has lost its link", "logs in anew", "has fallen silent"
LINE = re.compile(r"(\w*):? ?(request|asking|reply|no reply|the link was|not answered|no link|connected)?"
                  r"(?:.*tcp://(\w+):1)? ?(%s)?"  # the server tells what of whom
                  r"(?:.*?(\d+:\w*)\n)?" % "|".join(ENDS))
FILLING = string.ascii_letters * 1300
SECOND = 1000000
clients = {}  # their programs, by name
away = {}  # clients without a link, or soon without, and since when
unheard = set()  # marks of texts that programs have not printed yet
waiting = collections.defaultdict(list)  # marks of requests, by the end of a link: who, and whose
happened = []
finds = []  # how long the server has taken for each silent client


def now():
    return time.monotonic_ns() // 1000


# A text begins with its mark, the time at which it is sent, which also tells the rest.
def text_of(mark):
    length = 60000 + mark % 5000 if mark % 50 == 0 else mark // 50 % 300
    return f"{mark}:" + FILLING[mark % 52:][:length]


def mark_of(text):
    mark = int(text.split(":")[0])
    assert text.upper() == text_of(mark).upper(), text[:100]
    return mark


# Tell a program to send a new text.
def send_by(program, verb):
    mark = now()
    unheard.add(mark)
    program.say(f"{verb} {text_of(mark)}".encode())


# Hear a line of any program.
def hear(line):
    who, what, name, how, text = LINE.match(line.decode()).groups()
    name = name if who == "server" else who
    mark, end = text and mark_of(text), (who, name)
    if what in ("request", "asking"):
        happened.append("sent")
        waiting[end].append(mark)
    elif what in ("reply", "no reply", "the link was", "not answered"):
        since = mark or waiting[end][0]  # without a mark it is the oldest one
        waiting[end].remove(since)
        assert what != "no reply" or now() - since >= SECOND
        what = what if "reply" in what else "lost"
    elif what == "no link" or how:
        since = away[name]  # somebody has caused it
        if how == "has fallen silent":
            finds.append(now() - since)
        if name in GUESTS:
            del away[name]
        elif how and how != "has logged out":
            clients[name].process.send_signal(signal.SIGCONT)
    elif what == "connected":
        away.pop(name, None)
    happened.append(how or what)
    unheard.discard(mark)


def serve(payload):
    return payload[4:] if payload[:4] == b"ask " else None


def send_rqsts(link):
    texts = [text_of(now()) for _ in range(random.randint(1, 8))]
    for text in texts:
        link.send(peer.REQUEST, f"{random.choice(VERBS)} {text}".encode())
    happened.extend(["sent"] * len(texts))
    return texts


# A guest: it awaits all replies while it stays, and leaves without those under way.
def visit(server, number, until, pause):
    name, newer = GUESTS[number], None
    ways = itertools.cycle(WAYS[number:] + WAYS[:number])
    for way in itertools.takewhile(lambda way: now() < until, ways):
        link = newer or server.connect(name, serve=serve)
        leaves = min(now() + random.uniform(0, pause), until)
        while now() < leaves:
            for text in send_rqsts(link):
                while (message := link.step(PATIENCE))[0] != peer.REPLY:
                    assert now() - mark_of(text) < PATIENCE * SECOND
                assert message[1].decode() == text.upper()
                happened.append("reply")
            time.sleep(random.uniform(0, 0.02))
        happened.extend(["lost"] * len(send_rqsts(link)))
        away[name], older, newer = now(), link.connection, None
        if way == "log out":
            link.logout()
        elif way == "log in anew":
            newer = server.connect(name, serve=serve)
        if way in ("log in anew", "fall silent"):
            read_until_closed(older)
        older.close()
        while name in away:
            time.sleep(0.01)
    if newer is not None:
        away[name] = now()
        newer.logout()


# What has begun and not ended: none of it long ago.
def under_way():
    time.sleep(random.uniform(0, 0.01))
    times = [*away.values(), *itertools.chain(*waiting.values()), *unheard]
    assert min(times, default=now()) > now() - PATIENCE * SECOND
    return times


def command(server, rate):
    if random.random() < 0.3:
        server.say(f"ask {random.choice(BUSY + GUESTS)} 1 {text_of(now())}".encode())
    if random.random() < 0.01:
        send_by(server, "all")
    name = random.choice(BUSY)
    if name not in away:
        send_by(clients[name], random.choice(VERBS))
        if random.random() < rate / 200:
            away[name] = now()
            clients[name].process.send_signal(signal.SIGSTOP)


def soak(server_program, client_program, seconds=20, rate=1, seed=random.randrange(1000000)):
    print("seed", seed, flush=True)  # what is drawn, not what comes of it, is the same again
    random.seed(str(seed))
    signal.alarm(int(seconds) + 90)
    server = Server(server_program, hear=hear)
    descriptors, memory = server.descriptors(), []
    third, pause = int(seconds) * SECOND // 3, 10 * SECOND // int(rate)
    until = now() + 3 * third
    for name in CLIENTS:
        away[name] = now()
        clients[name] = Program(client_program, *server.address, name, 1, hear=hear)
    guests = [threading.Thread(target=visit, args=(server, number, until, pause), daemon=True)
              for number in range(len(GUESTS))]
    for guest in guests:
        guest.start()
    for end in until - 2 * third, until - third, until:
        while now() < end:
            command(server, int(rate))
            under_way()
        memory.append(server.kilobytes("VmHWM"))
    send_by(server, "all")  # what it was told before is heard before
    while under_way() or any(guest.is_alive() for guest in guests):
        pass
    for name in CLIENTS:
        away[name] = now()
        clients[name].process.stdin.close()
        assert clients[name].process.wait(PATIENCE) == 0
    while server.descriptors() != descriptors:
        under_way()
    sanitized = server.kilobytes("VmSize") > 2 ** 33  # keeps what is freed
    server.say(b"stop")
    assert server.process.wait(PATIENCE) == 0

    counts = collections.Counter(happened)
    print(", ".join(f"{what} {counts[what]}" for what in ("sent", *OUTCOMES, *ENDS)))
    print(f"slowest find of a silent client: {max(finds) / SECOND:.2f} s; memory in KiB: {memory}")
    assert counts["sent"] == sum(counts[outcome] for outcome in OUTCOMES)
    assert all(counts[what] for what in OUTCOMES + ENDS)
    assert max(finds) > 2.99 * SECOND and (sanitized or memory[-1] < memory[0] * 1.1 + 512)


run(soak, *sys.argv[1:])
