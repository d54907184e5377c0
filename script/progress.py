"""What the long commands share: workers whose output is read as it comes, and a line that tells how far they are."""
import concurrent.futures
import subprocess
import sys
import threading
import time

INTERVAL = 30  # seconds from one plain line to the next
WIDTH = 79


class Progress:
    """A line that renews itself on a terminal, plain lines at long intervals elsewhere; always on standard error."""

    def __init__(self):
        self.told = time.monotonic()

    def tell(self, text):
        if sys.stderr.isatty():
            print(f"\r\033[K{text[:WIDTH]}", end="", file=sys.stderr, flush=True)
        elif time.monotonic() - self.told >= INTERVAL:
            self.told = time.monotonic()
            print(text, file=sys.stderr, flush=True)

    def clear(self):
        """Takes the line away again, once there is something else to say."""
        if sys.stderr.isatty():
            print("\r\033[K", end="", file=sys.stderr, flush=True)


def run_side_by_side(commands, heard):
    """Runs the commands at once and calls heard(line), one call at a time, with each line that one of them writes.

    Returns the whole output and the exit status of each, in order.
    """
    hearing = threading.Lock()

    def run(command):
        lines = []
        with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True) as process:
            for line in process.stdout:
                lines.append(line)
                with hearing:
                    heard(line)
        return "".join(lines), process.returncode

    with concurrent.futures.ThreadPoolExecutor(len(commands)) as pool:
        return list(pool.map(run, commands))
