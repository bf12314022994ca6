#!/usr/bin/env python3
"""peer.py - a peer of the library in plain Python, a starting point for any language.

    peer.py [-p] ADDRESS PORT [NAME]   a client: sends every line of its input, prints the replies;
                                       answers each request with itself; -p: a pipelined link
    peer.py -l ADDRESS PORT            a server: prints every request and answers it with itself

docs/protocol.md describes the protocol. As a module: connect() logs in and returns a Link; a Server
has one per client. Times are in seconds. A lost link raises LinkDown; close it then.
"""
import os, select, socket, struct, sys, time

PREFIX = b"velun_tolvane_"
LOGIN, LOGOUT, REQUEST, REPLY, HEARTBEAT, ACKNOWLEDGEMENT = (
    PREFIX + kind
    for kind in (b"login", b"logout", b"request", b"reply", b"heartbeat", b"heartbeatack"))
MARKER = PREFIX + b"payload"
WATERMARK = b"TCP_WATER_MARK\0"
HEADER = struct.Struct(">15s17xI")  # the watermark, zeros, the length of the message that follows
LARGEST, LAST_NUMBER = 65536, 2147483647  # message, and sequence number


class LinkDown(Exception):
    """The connection has ended, or its other end is silent or breaks the protocol."""


def following(number):
    return number + 1 if 0 <= number < LAST_NUMBER else 0


class Link:
    """One end of a connection.

    serve(payload) gets each request of the other end and returns the reply, or None for no reply.
    Sending or receiving a message may take io_timeout. After each interval of silence, a heartbeat
    is sent, up to count of them.
    """

    def __init__(self, connection, url=b"", serve=lambda payload: None,
                 io_timeout=5.0, interval=1.0, count=4):
        # Otherwise the end of a message may wait 40 ms for an acknowledgement.
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.connection, self.url, self.serve = connection, url, serve
        self.io_timeout, self.interval, self.count = io_timeout, interval, count
        self.number, self.accepted = 0, 0  # of the next message, and of the last one accepted
        # heartbeats sent since the last accepted message, and when that arrived
        self.unanswered, self.heard = 0, time.monotonic()

    def send(self, kind, payload=b""):
        if PREFIX in payload.split(b"\0", 1)[0]:
            raise ValueError("the payload could be taken for another kind of message")
        body = b"\n".join((b"%d" % self.number, kind, self.url, MARKER, payload))
        if len(body) > LARGEST:
            raise ValueError("the message is too long")
        self._try(self.connection.sendall, HEADER.pack(WATERMARK, len(body)) + body,
                  time.monotonic() + self.io_timeout)
        self.number = following(self.number)

    def _try(self, transfer, argument, deadline):
        self.connection.settimeout(max(deadline - time.monotonic(), 0.001))
        try:
            return transfer(argument)
        except OSError as error:
            raise LinkDown(str(error)) from error

    def _read(self, size, deadline):
        data = bytearray()
        while len(data) < size:
            piece = self._try(self.connection.recv, size - len(data), deadline)
            if not piece:
                raise LinkDown("closed by the other end")
            data += piece
        return bytes(data)

    def handle(self):
        """Handle one message. Returns its kind and payload, or (None, b"") if it is dropped."""
        deadline = time.monotonic() + self.io_timeout
        watermark, length = HEADER.unpack(self._read(HEADER.size, deadline))
        if watermark != WATERMARK or not 0 < length <= LARGEST:
            raise LinkDown("not a frame")
        fields = self._read(length, deadline).split(b"\n", 4)
        if len(fields) != 5 or fields[3] != MARKER or not fields[0].isdigit():
            return None, b""
        number = int(fields[0])
        if self.accepted != 0 and number != following(self.accepted):
            return None, b""
        self.accepted, self.unanswered, self.heard = number, 0, time.monotonic()
        if fields[1] == HEARTBEAT:
            self.send(ACKNOWLEDGEMENT, b"{sequence:0}\0")
        reply = self.serve(fields[4]) if fields[1] == REQUEST else None
        if reply is not None:
            self.send(REPLY, reply)
        return fields[1], fields[4]

    def due(self):
        return self.heard + (self.unanswered + 1) * self.interval

    def supervise(self):
        if time.monotonic() < self.due():
            return
        if self.unanswered == self.count:
            raise LinkDown("silent")
        self.unanswered += 1
        self.send(HEARTBEAT, b"{sequence:%d}, {interval:%d},{count:%d}\0" % (
            self.unanswered, self.interval * 1000, self.count))

    def step(self, timeout, *others):
        """Handle one message, or return when the time has passed or another file can be read."""
        wait = max(min(timeout, self.due() - time.monotonic()), 0)
        ready = select.select([self.connection, *others], [], [], wait)[0]
        result = self.handle() if self.connection in ready else (None, b"")
        self.supervise()
        return result

    def request(self, payload, timeout=5.0):
        """Send a request and return its reply, or None if none arrives in time. Serves meanwhile."""
        self.send(REQUEST, payload)
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            kind, reply = self.step(deadline - time.monotonic())
            if kind == REPLY:
                return reply
        return None

    def logout(self):
        self.send(LOGOUT, self.url + b"\0")
        self.connection.close()


class PipelinedLink(Link):
    """A client's end of a pipelined link: any number of requests may be outstanding, both ways.

    ask(payload) sends a request and returns its correlation ID. The reply is stored in answers
    under this ID, or None if the server declines; call step() to receive it.
    """

    def __init__(self, connection, url, serve=lambda payload: None, **settings):
        super().__init__(connection, url, self._take, **settings)
        self.answer, self.answers, self.last = serve, {}, 0

    def _put(self, kind, correlation_id, text=b""):
        self.send(REQUEST, b"%s%08x\0%s" % (kind, correlation_id, text))

    def _take(self, payload):
        head, text = payload.split(b"\0", 1)
        kind, correlation_id = head[:1], int(head[1:], 16)
        if kind in b"=-":
            self.answers[correlation_id] = text if kind == b"=" else None
            return
        reply = self.answer(text)
        if kind == b"?":
            self._put(*((b"-", correlation_id) if reply is None else (b"=", correlation_id, reply)))

    def ask(self, payload):
        self.last = self.last % 0xffffffff + 1
        self._put(b"?", self.last, payload)
        return self.last

    def tell(self, payload):
        self._put(b"!", 0, payload)

    def wait_for(self, correlation_id, timeout):
        deadline = time.monotonic() + timeout
        while correlation_id not in self.answers and time.monotonic() < deadline:
            self.step(deadline - time.monotonic())
        return self.answers.pop(correlation_id, None)

    def request(self, payload, timeout=5.0):
        return self.wait_for(self.ask(payload), timeout)


def connect(address, port, name, name_port, timeout=5.0, pipelined=False, **settings):
    url = b"tcp://%s:%d" % (name.encode(), name_port)
    link = (PipelinedLink if pipelined else Link)(
        socket.create_connection((address, port), timeout), url, **settings)
    link.send(LOGIN, url + (b"\0pipelined\0" if pipelined else b"\0"))
    if pipelined and link.wait_for(0, timeout) is None:  # the server confirms it with an empty reply
        raise LinkDown("the server does not serve pipelined links")
    return link


class Server:
    def __init__(self, address, port, **settings):
        self.listener = socket.create_server((address, port), backlog=16)
        self.settings, self.links = settings, []  # settings for every Link

    def step(self, timeout):
        """Serve a message of each client that sends one in time."""
        wait = max(min([timeout] + [link.due() - time.monotonic() for link in self.links]), 0)
        sockets = [self.listener] + [link.connection for link in self.links]
        ready = select.select(sockets, [], [], wait)[0]
        for link in self.links:
            try:
                if link.connection in ready:
                    self._act(link, *link.handle())
                link.supervise()
            except (LinkDown, ValueError):  # a ValueError: the reply cannot be sent
                link.connection.close()
        self.links = [link for link in self.links if link.connection.fileno() != -1]
        if self.listener in ready:
            self.links.append(Link(self.listener.accept()[0], **self.settings))

    def _act(self, link, kind, payload):
        if kind == LOGOUT:
            raise LinkDown("logged out")
        if kind == LOGIN and payload:
            url = payload.split(b"\0", 1)[0][:63]
            for older in self.links:
                if older.url == url and older is not link:
                    older.connection.close()
            link.url = url


def show(payload):
    sys.stdout.buffer.write(payload + b"\n")
    sys.stdout.buffer.flush()
    return payload


def main(arguments):
    if arguments[:1] == ["-l"] and len(arguments) == 3:
        server = Server(arguments[1], int(arguments[2]), serve=show)
        print("listening on port", server.listener.getsockname()[1], file=sys.stderr)
        while True:
            server.step(60)
    pipelined = arguments[:1] == ["-p"]
    arguments = arguments[pipelined:]
    if len(arguments) not in (2, 3):
        sys.exit(__doc__)
    address, port, name = (arguments + ["peer"])[:3]
    link = connect(address, int(port), name, os.getpid(), pipelined=pipelined, serve=show)
    rest, more = b"", True
    while more:
        link.step(60, sys.stdin)
        while more and select.select([sys.stdin], [], [], 0)[0]:
            piece = os.read(sys.stdin.fileno(), 65536)
            more = bool(piece)
            *lines, rest = (rest + (piece or b"\n"[:len(rest)])).split(b"\n")
            for line in lines:
                reply = link.request(line)
                show(reply if reply is not None else sys.exit("no reply"))
    link.logout()


if __name__ == "__main__":
    try:
        main(sys.argv[1:])
    except (LinkDown, OSError, ValueError) as reason:
        sys.exit(f"peer.py: {reason}")
