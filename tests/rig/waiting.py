"""Waits for text that programs print, and for lines in named pipes."""

import codecs
import os
import select
import threading
import time
from contextlib import suppress

# The time limit of every wait, in seconds. A wait takes so long only if there is a fault.
PATIENCE = 40.0


class Deadline:
    def __init__(self, seconds=PATIENCE):
        self.end = time.monotonic() + seconds

    def left(self):
        return max(0.0, self.end - time.monotonic())


def own(stream):
    """Closes the stream, and returns a copy of its descriptor."""
    if stream is None:
        return None
    with stream:
        return os.dup(stream.fileno())


class Text:
    """The output that arrives through a pipe or a terminal. A thread reads it."""

    def __init__(self, descriptor):
        self.descriptor = descriptor
        self.so_far = ""
        self.ended = False
        self.changed = threading.Condition()
        self.let_go = os.eventfd(0)
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        decoder = codecs.getincrementaldecoder("utf-8")("backslashreplace")
        terminal = os.isatty(self.descriptor)
        data = True
        while data:
            data = b""
            if self.let_go not in select.select([self.descriptor, self.let_go], [], [])[0]:
                with suppress(OSError):  # EIO: the other end of the terminal is closed
                    data = os.read(self.descriptor, 65536)
            text = decoder.decode(data, not data)
            with self.changed:
                # A terminal puts a carriage return before each line feed. Remove it.
                self.so_far += text.replace("\r", "") if terminal else text
                self.ended = not data
                self.changed.notify_all()

    def wait(self, find, what, seconds=PATIENCE):
        """Waits until `find(text)` is true, and returns its value."""
        deadline = Deadline(seconds)
        with self.changed:
            while not (found := find(self.so_far)):
                if self.ended or not self.changed.wait(deadline.left()):
                    why = "the output has ended" if self.ended else f"not within {seconds:g} s"
                    raise AssertionError(f"no {what}: {why}. There is:\n{self.so_far}")
        return found

    def line(self):
        """Waits for the first line, and returns it without its end."""
        self.wait(lambda text: "\n" in text, "line")
        return self.so_far.partition("\n")[0]

    def all(self):
        """Waits until the last writer has closed the output, and returns the whole text."""
        with self.changed:
            if not self.changed.wait_for(lambda: self.ended, PATIENCE):
                raise AssertionError(f"the output is still open after:\n{self.so_far}")
        return self.so_far

    def close(self):
        os.eventfd_write(self.let_go, 1)
        self.reader.join()
        os.close(self.let_go)
        os.close(self.descriptor)


class Events:
    """A named pipe into which programs of a test write a line for each event."""

    def __init__(self, path):
        os.mkfifo(path)
        # The test also opens the pipe for writing. Otherwise the pipe would end when the first writer closes it.
        self.pipe = os.open(path, os.O_RDWR | os.O_NONBLOCK)
        self.begun = ""

    def next(self, seconds=PATIENCE):
        deadline = Deadline(seconds)
        while "\n" not in self.begun:
            if not select.select([self.pipe], [], [], deadline.left())[0]:
                raise AssertionError(f"nothing happened within {seconds:g} s")
            self.begun += os.read(self.pipe, 4096).decode()
        line, _, self.begun = self.begun.partition("\n")
        return line

    def pending(self):
        with suppress(BlockingIOError):
            self.begun += os.read(self.pipe, 65536).decode()
        return self.begun.splitlines()

    def close(self):
        os.close(self.pipe)


class Gate(Events):
    """A named pipe from which a program of a test reads a line before it goes on."""

    def open(self, line="go"):
        os.write(self.pipe, line.encode() + b"\n")
