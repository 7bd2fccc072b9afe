"""A terminal with a Windows program on it: what a person sees and types there."""
import fcntl
import os
import pty
import re
import struct
import subprocess
import termios
import threading
import time

import wine

CTRL_C = b'\x03'
PATIENCE = 60   # seconds; only a failing check waits so long


class Terminal:
    """Runs the program on a terminal of its own; `with` ends it if it has not ended."""

    def __init__(self, prefix, arguments, columns=120, rows=40):
        self.master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack('HHHH', rows, columns, 0, 0))
        environment = {**prefix.environment(), 'TERM': 'xterm-256color'}
        # Its own session with this terminal, so that the keys typed here are for it alone.
        self.process = subprocess.Popen(['setsid', '--ctty', '--wait', wine.loader(), *map(str, arguments)], stdin=slave,
                                        stdout=slave, stderr=slave, env=environment)
        os.close(slave)
        self.raw = b''
        self.changed = threading.Condition()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        os.close(self.master)

    def _read(self):
        while True:
            try:
                piece = os.read(self.master, 65536)
            except OSError:     # the last program on the terminal has gone
                piece = b''
            with self.changed:
                self.raw += piece
                self.changed.notify_all()
            if not piece:
                return

    def text(self):
        """All that was written so far, without the sequences that move, colour and clear."""
        return re.sub(r'\x1b\[[0-9;?]*[ -/]*[@-~]|\x1b[\]][^\x07]*\x07|\x1b.', '', self.raw.decode('utf-8', 'replace'))

    def shows(self, text, after=0):
        """The place behind `text` where that appears within the time, else nothing."""
        end = time.monotonic() + PATIENCE
        with self.changed:
            while True:
                found = self.text().find(text, after)
                if found >= 0:
                    return found + len(text)
                left = end - time.monotonic()
                if left <= 0:
                    return None
                self.changed.wait(left)

    def type(self, keys):
        os.write(self.master, keys)

    def exit_code(self):
        """What the program ended with, or nothing if it did not."""
        try:
            return self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            return None
