"""./dev run: the service at work. Adapters in a table, events as they come, while the lab plays a short story."""
import json
import os
import select
import subprocess
import sys
import termios
import threading
import time
import tty
from contextlib import contextmanager

import machine
import product
from ui import COLOUR, bold, dim, good, bad, paint

STORY_STARTS = 3.0      # seconds after the view
STORY_PAUSE = 2.5       # between two scenes


def story(state):
    """Scenes for this machine: (what happens, labctl's words). Nobody plays with a mirror of the real one."""
    adapters = [a for a in state.get('adapters', []) if a.get('mac') and a.get('driver', {}).get('open', True)]
    wired = [a for a in adapters if a.get('gateways') and a['driver'].get('physicalMedium') in (0, 14)]
    radio = [a for a in adapters if a.get('gateways') and a['driver'].get('physicalMedium') == 9]
    scenes = []
    if wired:
        name, title = wired[0]['name'], wired[0]['description']
        scenes += [(f'The cable of "{title}" is pulled', ['cable', 'out', name]),
                   ('... and plugged in again; its lease comes a second later', ['cable', 'in', name, '--lease-after', '1']),
                   (f'"{title}" gets a second address', ['address', 'add', name, '192.0.2.77/24'])]
    if radio:
        name, title = radio[0]['name'], radio[0]['description']
        scenes += [(f'"{title}" loses its network', ['cable', 'out', name]),
                   ('... and finds it again', ['cable', 'in', name])]
    if wired:
        name, title = wired[-1]['name'], wired[-1]['description']
        scenes += [(f'"{title}" is taken out of the machine', ['adapter', 'remove', name]),
                   ('... and comes back', ['adapter', 'add', name])]
    return scenes


class Stage:
    """Prints whole lines from several threads."""

    def __init__(self):
        self.lock = threading.Lock()

    def say(self, line):
        with self.lock:
            sys.stdout.write(line + '\n')
            sys.stdout.flush()


def _noter(process, stage):
    """Where the story's words go. A view that draws over its own lines has to know of every line below its table."""
    def print_it(words, detail=''):
        stage.say(paint(f'  lab  {words}', '36') + dim(f'   {detail}'))

    def note_it(words, detail=''):
        try:
            process.stdin.write(f'  lab  {words}   {detail}\n'.encode())
            process.stdin.flush()
        except OSError:
            pass    # the view has ended
    return note_it if COLOUR else print_it


def _tell(prefix, say, scenes, stop):
    """Plays the story until it ends or the view does."""
    if stop.wait(STORY_STARTS):
        return
    for words, verb in scenes:
        say(words, f'labctl {" ".join(verb)}')
        done = prefix.run([product.windows(f'{product.LAB}/labctl.exe'), *verb])
        if done.returncode != 0:
            say(done.stdout.strip())
        if stop.wait(STORY_PAUSE):
            return
    if scenes:
        say('The story is over; the view goes on until its time is up.')


@contextmanager
def _keys():
    """Single keys without Enter, where there is a keyboard."""
    if not sys.stdin.isatty():
        yield False
        return
    before = termios.tcgetattr(sys.stdin)
    try:
        tty.setcbreak(sys.stdin.fileno())
        yield True
    finally:
        termios.tcsetattr(sys.stdin, termios.TCSADRAIN, before)


def _show(process, stage, counter):
    for raw in iter(process.stdout.readline, b''):
        line = raw.decode('utf-8', 'replace').rstrip('\r\n')
        counter.append(line)
        stage.say(line)


def _view(prefix, seconds, scenes, stage):
    """The live view; the lines that it printed and whether it ended well."""
    columns = os.get_terminal_size().columns if COLOUR else 120
    command = [product.windows(f'{product.PRODUCT}/halcydctl.exe'), '--color', 'always' if COLOUR else 'never',
               'watch', '--seconds', str(seconds), *(['--notes'] if COLOUR else [])]
    process = prefix.popen(command, extra={'COLUMNS': str(columns)}, stdin=subprocess.PIPE if COLOUR else subprocess.DEVNULL,
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    lines, over = [], threading.Event()
    reader = threading.Thread(target=_show, args=(process, stage, lines), daemon=True)
    teller = threading.Thread(target=_tell, args=(prefix, _noter(process, stage), scenes, over), daemon=True)
    reader.start()
    teller.start()
    by_key = False
    with _keys() as keyboard:
        limit = time.monotonic() + seconds + 30
        try:
            while process.poll() is None and time.monotonic() < limit:
                if keyboard and select.select([sys.stdin], [], [], 0.1)[0]:
                    sys.stdin.read(1)
                    by_key = True
                    break
                time.sleep(0.05)
        except KeyboardInterrupt:
            by_key = True   # ends the view, not the summary
    over.set()
    teller.join(timeout=30)
    if process.poll() is None:
        process.terminate()
        process.wait()
    reader.join(timeout=5)
    return lines, by_key or process.returncode == 0


def _records(prefix):
    """What the lab's journal and the trace say about the run."""
    journal = prefix.run([product.windows(f'{product.LAB}/labctl.exe'), 'journal']).stdout.splitlines()
    folder = prefix.c('ProgramData', 'QRLS', 'Sorvane', 'Data', 'Trace')
    traced = sum(file.read_bytes().count(b'\n') for file in folder.glob('*') if file.is_file())
    return len(journal), traced


def _keep(prefix, lines):
    """What a view that went wrong leaves behind: the lab's and the product's files, and what the view said."""
    place = machine.keep_evidence(prefix, 'run')
    (machine.build.ROOT / place / 'view.txt').write_text('\n'.join(lines) + '\n')
    return place


def _count(number, noun):
    return f'{number} {noun}{"" if number == 1 else "s"}'


def main(scenario, seconds):
    stage = Stage()
    with machine.running('run', scenario) as (_, prefix):
        state = json.loads(prefix.must([product.windows(f'{product.LAB}/labctl.exe'), 'dump', '--json']))
        scenes = [] if scenario == 'host' else story(state)
        print(f'{bold("Halcyd at work")}: {_count(len(state.get("adapters", [])), "adapter")} in scenario "{scenario}", {seconds} s'
              + ('; any key ends it' if sys.stdin.isatty() else '; Ctrl+C ends it'))
        print()
        lines, good_end = _view(prefix, seconds, scenes, stage)
        good_end = good_end and bool(lines)
        machine.stop_service(prefix)
        calls, traced = _records(prefix)
        kept = None if good_end else _keep(prefix, lines)
        folder = prefix
    left = folder.processes()
    print()
    print(bold('Summary'))
    print(f'  live view        {len([l for l in lines if l.strip()])} lines, {"ended well" if good_end else bad("ended with an error")}')
    print(f'  calls to the lab {calls} in its journal')
    print(f'  trace            {traced} lines')
    print(f'  service          stopped; {good("no process left behind") if not left else bad(f"left behind: {left}")}')
    if kept:
        print(f'  files            {kept}: journal, trace, dumps, and what the view said')
    return 0 if good_end and not left else 1
