# programs.py - what tests in Python share: programs of the library under test, and the module
# examples/peer.py. Times are in seconds.
import collections, contextlib, os, re, signal, subprocess, sys, tempfile, threading, time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../examples"))
import peer

PATIENCE = 20
programs = []  # all that were started


# A program of the library: send it lines, wait for what it prints.
class Program:
    # With hear, each line goes to hear(line) at once, and only the last ones are kept.
    def __init__(self, *command, hear=None):
        self.output, self.last = tempfile.NamedTemporaryFile(), collections.deque(maxlen=30)
        self.process = subprocess.Popen([*map(str, command)], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE if hear else self.output,
                                        stderr=subprocess.STDOUT)
        programs.append(self)
        if hear:
            threading.Thread(target=self.listen, args=(hear,), daemon=True).start()

    def listen(self, hear):
        for line in self.process.stdout:
            self.last.append(line[:100].rstrip() + b"\n")
            hear(line)

    def say(self, line):
        self.process.stdin.write(line + b"\n")
        self.process.stdin.flush()

    def printed(self):
        with open(self.output.name, "rb") as output:
            return output.read() or b"".join(self.last)

    def wait_for(self, pattern, step=lambda: time.sleep(0.02), times=1):
        while len(found := re.findall(pattern, self.printed())) < times:
            step()
        return found


# One that takes an address and a port last, and prints the port that the system has chosen.
class Server(Program):
    def __init__(self, *command, address="127.0.0.1", hear=None):
        super().__init__(*command, address, "0", hear=hear)
        self.address = address, int(self.wait_for(rb"listening on port (\d+)\n")[0])

    def connect(self, name, port=1, **settings):
        return peer.connect(*self.address, name, port, PATIENCE, io_timeout=PATIENCE, interval=60,
                            **settings)

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def kilobytes(self, which):
        with open(f"/proc/{self.process.pid}/status") as status:
            return next(int(line.split()[1]) for line in status if line.startswith(which))


def read_until_closed(connection):
    connection.settimeout(PATIENCE)
    with contextlib.suppress(ConnectionError):
        while connection.recv(65536):
            pass


# A failed thread fails the test.
def fail(what):
    threading.__excepthook__(what)
    os.kill(os.getpid(), signal.SIGALRM)


# Run a test, then kill its programs.
def run(test, *arguments):
    threading.excepthook = fail
    for number in signal.SIGALRM, signal.SIGTERM:  # if it hangs, show where, and end
        signal.signal(number, signal.default_int_handler)
    signal.alarm(110)
    try:
        test(*arguments)
        print("ok")
    except BaseException:
        threading.excepthook = lambda what: None  # threads fail when their programs end
        for program in programs:
            sys.stderr.buffer.write(program.printed()[-4000:])
        raise
    finally:
        for program in programs:
            program.process.kill()
