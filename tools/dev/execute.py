"""./dev exec: any Windows program or script, with lab and service in place; its exit code is ours."""
import os
import subprocess
import sys
import threading
from contextlib import redirect_stdout
from pathlib import Path

import machine
import product
import wine
from ui import Failure

SCRIPTS = {'.vbs': ['cscript', '//nologo'], '.js': ['cscript', '//nologo'], '.bat': ['cmd', '/c'], '.cmd': ['cmd', '/c'],
           '.msi': ['msiexec', '/i']}


def check_program(words):
    """A script is found before anything is started: its interpreter under Wine says nothing of a missing file."""
    program = words[0]
    named_by_windows = ':' in program or '\\' in program
    if Path(program.replace('\\', '/')).suffix.lower() in SCRIPTS and not named_by_windows and not Path(program).is_file():
        raise Failure(f'there is no file {program}')


def command_line(words):
    """A script gets its interpreter; files of the host get the names under which Windows sees them."""
    words = [wine.windows_path(w) if '/' in w and not w.startswith('/') and Path(w).exists() or
             w.startswith('/') and w.count('/') > 1 and Path(w).exists() else w for w in words]
    if Path(words[0]).is_file():
        words[0] = wine.windows_path(words[0])
    suffix = Path(words[0].replace('\\', '/')).suffix.lower()
    return SCRIPTS.get(suffix, []) + words


def _pump(source, target):
    """Carries bytes as they come. Wine would turn a terminal into a console of its own, with control codes in between."""
    while True:
        data = os.read(source, 65536)
        if not data:
            return
        while data:
            data = data[os.write(target, data):]


def _feed(target):
    """Our standard input to the program, from a thread that ends with this process."""
    def carry():
        try:
            _pump(sys.stdin.fileno(), target)
        except OSError:
            pass    # the program has gone, or there is no input
        finally:
            os.close(target)
    threading.Thread(target=carry, daemon=True).start()


def run_attached(prefix, launcher, words):
    """Runs a program with our standard streams; the exit code as Windows has it."""
    code_file = prefix.c('exit-code.txt')
    process = prefix.popen([wine.windows_path(launcher), 'C:\\exit-code.txt', *words],
                           extra={'WINEPATH': ';'.join(product.windows(f) for f in (product.PRODUCT, product.LAB))},
                           stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    _feed(os.dup(process.stdin.fileno()))
    process.stdin.close()
    pumps = [threading.Thread(target=_pump, args=(stream.fileno(), target), daemon=True)
             for stream, target in ((process.stdout, 1), (process.stderr, 2))]
    for pump in pumps:
        pump.start()
    process.wait()
    for pump in pumps:
        pump.join(timeout=2)    # programs that it left running may hold the streams open
    try:
        return int(code_file.read_text())
    except (OSError, ValueError) as error:
        raise Failure(f'{words[0]} could not be started, or was ended together with its starter') from error


def main(scenario, words):
    if words[:1] == ['--']:
        words = words[1:]
    check_program(words)
    with redirect_stdout(sys.stderr), machine.running('exec', scenario) as (built, prefix):
        code = run_attached(prefix, built / 'tests' / 'runner' / 'Launch.exe', command_line(words))
    # The host keeps eight bits of an exit code: what would read as success there must not.
    if code & 0xFF == 0 and code != 0:
        print(f'exit code {code} (0x{code & 0xFFFFFFFF:08X})', file=sys.stderr)
        return 1
    return code & 0xFF
