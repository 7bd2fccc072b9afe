"""What the developer sees: step lines, one progress line, colours only on a terminal."""
import os
import sys
import time

COLOUR = sys.stdout.isatty() and os.environ.get('NO_COLOR') is None and os.environ.get('TERM') != 'dumb'


def paint(text, code):
    return f'\033[{code}m{text}\033[0m' if COLOUR else text


def good(text):
    return paint(text, '32')


def bad(text):
    return paint(text, '31')


def dim(text):
    return paint(text, '2')


def bold(text):
    return paint(text, '1')


class Step:
    """One line of work: its name, what it is doing now (terminals only), and how long it took."""

    def __init__(self, name):
        self.name = name
        self.started = time.monotonic()
        self.last = ''
        if COLOUR:
            self._draw('')
        else:
            print(f'{name} ...', flush=True)

    def _draw(self, note):
        self.last = note
        width = os.get_terminal_size().columns if COLOUR else 80
        line = f'{self.name} ... {note}'[:width - 1]
        sys.stdout.write('\r\033[K' + line)
        sys.stdout.flush()

    def note(self, text):
        if COLOUR:
            self._draw(text)

    def done(self, text='', ok=True):
        took = time.monotonic() - self.started
        verdict = good('ok') if ok else bad('FAILED')
        if COLOUR:
            sys.stdout.write('\r\033[K')
        print(f'{self.name}: {verdict}{" " + text if text else ""} {dim(f"({took:.1f} s)")}', flush=True)


class Failure(Exception):
    """Ends a command with a message for a person and exit code 1."""
