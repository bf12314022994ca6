# programs.py - what tests in Python share: programs of the library under test, and the module
# examples/peer.py. Times are in seconds.
import contextlib, itertools, os, re, signal, subprocess, sys, threading, time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../examples"))
import peer

PATIENCE = 20
programs = []  # all that were started


# A program of the library: send it lines, wait for what it prints.
class Program:
    def __init__(self, *command):
        self.lines, self.read = [], 0
        self.process = subprocess.Popen([*map(str, command)], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        threading.Thread(target=self.listen, daemon=True).start()
        programs.append(self)

    def listen(self):
        for line in self.process.stdout:
            self.lines.append(line.rstrip(b"\n"))

    def say(self, line):
        os.write(self.process.stdin.fileno(), line + b"\n")

    # Wait for a line that matches, after the one that the last call returned or from start on.
    def expect(self, pattern, start=None, step=lambda: time.sleep(0.001)):
        deadline = time.monotonic() + PATIENCE
        for index in itertools.count(self.read if start is None else start):
            while index == len(self.lines):
                assert time.monotonic() < deadline, pattern
                step()
            if found := re.search(pattern, self.lines[index]):
                self.read = index + 1
                return found

    def never_printed(self, text):
        return not any(text in line for line in self.lines)

    def stop(self):
        self.say(b"stop")
        assert self.process.wait(PATIENCE) == 0


# A Program whose last arguments are an address and port 0, and which prints the port that the
# system has chosen.
class Server(Program):
    def __init__(self, *command, address="127.0.0.1"):
        super().__init__(*command, address, 0)
        self.address = address, int(self.expect(rb"listening on port (\d+)")[1])

    def connect(self, name, port=1, **settings):
        return peer.connect(*self.address, name, port, PATIENCE, io_timeout=PATIENCE, interval=60,
                            **settings)

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    # Under the address sanitizer, which keeps freed memory, this is always 0.
    def kilobytes(self, which):
        with open(f"/proc/{self.process.pid}/status") as file:
            status = dict(re.findall(r"(\w+):\s*(\d+) kB", file.read()))
        return int(status[which]) if int(status["VmSize"]) < 2 ** 33 else 0


def read_until_closed(connection):
    connection.settimeout(PATIENCE)
    with contextlib.suppress(ConnectionError):
        while connection.recv(65536):
            pass


# Run a test, then kill its programs.
def run(test, *arguments):
    for number in signal.SIGALRM, signal.SIGTERM:  # if it hangs, show where, and end
        signal.signal(number, signal.default_int_handler)
    signal.alarm(280)
    try:
        test(*arguments)
    except BaseException:
        for program in programs:
            print(*(line[:100] for line in program.lines[-20:]), sep="\n")
        raise
    finally:
        for program in programs:
            program.process.kill()
