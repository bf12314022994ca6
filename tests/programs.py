# programs.py - what tests in Python share: programs of the library under test, and the module
# examples/peer.py. Times are in seconds.
import contextlib, itertools, os, re, signal, subprocess, sys, threading

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../examples"))
import peer

PATIENCE = 20
programs = []  # all that were started


# A program of the library: send it lines, wait for what it prints.
class Program:
    def __init__(self, *command):
        self.lines, self.read, self.printed = [], 0, threading.Condition()
        self.process = subprocess.Popen([*map(str, command)], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        threading.Thread(target=self.listen, daemon=True).start()
        programs.append(self)

    def listen(self):
        for line in self.process.stdout:
            with self.printed:
                self.lines.append(line.rstrip(b"\n"))
                self.printed.notify_all()

    def say(self, line):
        self.process.stdin.write(line + b"\n")
        self.process.stdin.flush()

    # Wait for a line that matches, after the one that the last call returned or from start on.
    # Calls step() instead of sleeping.
    def expect(self, pattern, start=None, step=None):
        for index in itertools.count(self.read if start is None else start):
            while step and index == len(self.lines):
                step()
            with self.printed:
                assert self.printed.wait_for(lambda: index < len(self.lines), PATIENCE), pattern
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

    def kilobytes(self, which):
        with open(f"/proc/{self.process.pid}/status") as status:
            return int(re.search(which + r":\s*(\d+)", status.read())[1])


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
