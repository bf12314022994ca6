"""What tests in Python share: programs of the library under test, and the module examples/peer.py.

Times are in seconds.
"""
import os, re, signal, subprocess, sys, tempfile, time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../examples"))
import peer

PATIENCE = 20
programs = []  # all that were started


class Program:
    """A program of the library: lines go in, what it prints can be waited for."""

    def __init__(self, *command):
        self.output = tempfile.NamedTemporaryFile()
        self.process = subprocess.Popen([*map(str, command)], stdin=subprocess.PIPE,
                                        stdout=self.output, stderr=subprocess.STDOUT)
        programs.append(self)

    def say(self, line):
        self.process.stdin.write(line + b"\n")
        self.process.stdin.flush()

    def printed(self):
        with open(self.output.name, "rb") as output:
            return output.read()

    def wait_for(self, pattern, step=lambda: time.sleep(0.02), times=1):
        while len(found := re.findall(pattern, self.printed())) < times:
            step()
        return found


class Server(Program):
    """One that takes an address and a port last, and tells the port that the system has chosen."""

    def __init__(self, *command, address="127.0.0.1"):
        super().__init__(*command, address, "0")
        self.address = address, int(self.wait_for(rb"listening on port (\d+)\n")[0])

    def connect(self, name, port=1):
        return peer.connect(*self.address, name, port, PATIENCE, io_timeout=PATIENCE, interval=60)

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def kilobytes(self, which):
        with open(f"/proc/{self.process.pid}/status") as status:
            return next(int(line.split()[1]) for line in status if line.startswith(which))


def run(seconds=110, **tests):
    """Call the test that the command line names, with the rest of it. No program outlives it."""
    for number in signal.SIGALRM, signal.SIGTERM:  # whatever hangs: tell where, and end
        signal.signal(number, signal.default_int_handler)
    signal.alarm(seconds)
    try:
        tests[sys.argv[1]](*sys.argv[2:])
        print("ok")
    except BaseException:
        for program in programs:
            sys.stderr.buffer.write(program.printed()[-4000:])
        raise
    finally:
        for program in programs:
            program.process.kill()
