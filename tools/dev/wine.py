"""Windows prefixes: one template, hard-linked clones, and running programs in them without noise."""
import fcntl
import itertools
import os
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path

from ui import Failure, Step

CACHE = Path(os.environ.get('XDG_CACHE_HOME', Path.home() / '.cache')) / 'halcyd'
_numbers = itertools.count(1)
_RECIPE = 4         # raised when the template is to be made differently


# What the services at boot need on a busy machine.
# RpcSs runs before any other service on Windows. Wine starts it when somebody asks, and refuses that while it is still
# starting services at boot: one of ours that needs COM in those seconds finds no trace service, and ends. So it starts at
# boot here as well, and the highest tag, which Wine reads as below all others, makes it the first. Wine's drivers for
# gamepads now and then crash while they start; nobody here needs them.
_SERVICES_AT_BOOT = [
    ['reg', 'add', r'HKLM\System\CurrentControlSet\Services\RpcSs', '/v', 'Start', '/t', 'REG_DWORD', '/d', '2', '/f'],
    ['reg', 'add', r'HKLM\System\CurrentControlSet\Services\RpcSs', '/v', 'Tag', '/t', 'REG_DWORD', '/d', '4294967295',
     '/f'],
    ['reg', 'delete', r'HKLM\System\CurrentControlSet\Enum\ROOT\WINE', '/f'],
    # How long a service may take to connect to the service manager, 10 s otherwise: too little for a busy machine, where
    # the clock may also run ten times as fast. Wine kills a service that is late.
    ['reg', 'add', r'HKLM\System\CurrentControlSet\Control', '/v', 'ServicesPipeTimeout', '/t', 'REG_DWORD', '/d', '600000',
     '/f'],
]


def _tool(name):
    for place in ('/usr/lib/wine', '/usr/lib/x86_64-linux-gnu/wine'):
        if (Path(place) / name).exists():
            return str(Path(place) / name)
    found = shutil.which(name)
    if not found:
        raise Failure(f'{name} is not installed')
    return found


def _environment(prefix):
    environment = {k: v for k, v in os.environ.items() if k not in ('DISPLAY', 'WAYLAND_DISPLAY')}
    environment.update(WINEPREFIX=str(prefix), WINEARCH='win64', WINEDEBUG='-all',
                       WINEDLLOVERRIDES='mscoree,mshtml=;winedbg.exe,winemenubuilder.exe=d', OANOCACHE='1')
    return environment


def loader():
    """The program that runs Windows programs."""
    return _tool('wine64')


def version():
    return subprocess.run([_tool('wine64'), '--version'], capture_output=True, text=True).stdout.split()[0]


def clone(source, target):
    """A copy in a few hundredths of a second: Windows' own files are hard links, all that Wine rewrites is copied."""
    target.mkdir(parents=True)
    (target / 'drive_c').mkdir()
    subprocess.run(['cp', '-al', str(source / 'drive_c' / 'windows'), str(target / 'drive_c' / 'windows')], check=True)
    for entry in (source / 'drive_c').iterdir():
        if entry.name != 'windows':
            subprocess.run(['cp', '-a', str(entry), str(target / 'drive_c')], check=True)
    for entry in source.iterdir():
        if entry.name != 'drive_c':
            subprocess.run(['cp', '-a', str(entry), str(target)], check=True)


def template():
    """The bare prefix that all others are cloned from; made once for each version of Wine."""
    place = CACHE / f'template-{version()}-{_RECIPE}'
    CACHE.mkdir(parents=True, exist_ok=True)
    with open(CACHE / 'template.lock', 'w') as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if (place / 'ready').exists():
            return place
        step = Step('preparing Windows (once)')
        shutil.rmtree(place, ignore_errors=True)
        place.mkdir(parents=True)
        prefix = Prefix(place, owned=False)
        prefix.start()
        for arguments in (['wineboot', '-i'], ['winecfg', '-v', 'win10'],
                          ['reg', 'add', r'HKCU\Software\Wine\WineDbg', '/v', 'ShowCrashDialog', '/t', 'REG_DWORD',
                           '/d', '0', '/f'], *_SERVICES_AT_BOOT):
            prefix.run(arguments, timeout=300)
        prefix.stop()
        _isolate(place)
        if not (place / 'system.reg').exists():
            step.done(ok=False)
            raise Failure('Wine could not make a prefix')
        (place / 'ready').touch()
        step.done()
    return place


def _isolate(place):
    """Folders of the Windows user that point into the host's home become folders of the prefix."""
    for folder, folders, files in os.walk(place / 'drive_c' / 'users'):
        for path in (Path(folder, name) for name in folders + files):
            if path.is_symlink():
                path.unlink()
                path.mkdir()


def sweep():
    """Removes prefixes whose owner has gone without doing so."""
    for place in (CACHE / 'prefixes').glob('*-*-*'):
        owner = place.name.split('-')[-2]
        if owner.isdigit() and not Path('/proc', owner).exists():
            Prefix(place).stop()
            shutil.rmtree(place, ignore_errors=True)


def windows_path(path):
    """The name under which a file of the host is seen inside every prefix."""
    return 'Z:' + str(Path(path).absolute()).replace('/', '\\')


class FastClock:
    """A clock that runs `speed` times as fast for every program that gets its environment.

    A process holds it: the first program that runs under the library makes a semaphore and a piece of shared memory,
    named after its process id, in which the start of the fast time stands. Programs that are started apart from each
    other would each make a pair and have a time of their own; one that is killed leaves its pair behind, and a later
    process with the same id then ends at once. The holder ends by itself when we do, and clears up."""

    ATTEMPTS = 100  # ids that somebody else's leftovers may have taken

    def __init__(self, speed):
        self.environment = {'LD_PRELOAD': _faketime_library(), 'FAKETIME': f'+0 x{speed}', 'FAKETIME_DONT_RESET': '1',
                            'NO_FAKE_STAT': '1'}
        for _ in range(self.ATTEMPTS):
            self.holder = subprocess.Popen(['bash', '-c', 'echo "$FAKETIME_SHARED"; read -r'], stdin=subprocess.PIPE,
                                           stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                                           env={**os.environ, **self.environment}, start_new_session=True)
            names = self.holder.stdout.readline().strip()
            if names:
                self.environment['FAKETIME_SHARED'] = names
                return
            self.end()
        raise Failure('faketime could not make a clock')

    def end(self):
        self.holder.stdin.close()
        self.holder.stdout.close()
        self.holder.wait()


class Prefix:
    """One Windows. `with Prefix.clone_of(...) as p:` starts it, ends all its processes and removes it."""

    def __init__(self, path, owned=True, speed=1):
        self.path = Path(path)
        self.owned = owned
        self.speed = speed
        self.clock = None   # while it runs, if it is a fast one

    @classmethod
    def clone_of(cls, source, speed=1, name='p'):
        target = CACHE / 'prefixes' / f'{name}-{os.getpid()}-{next(_numbers)}'
        shutil.rmtree(target, ignore_errors=True)
        clone(Path(source), target)
        return cls(target, speed=speed)

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.stop()
        if self.owned:
            shutil.rmtree(self.path, ignore_errors=True)

    def c(self, *parts):
        return self.path / 'drive_c' / Path(*parts)

    def environment(self, extra=None):
        environment = _environment(self.path)
        if self.clock:
            environment.update(self.clock.environment)
        environment.update(extra or {})
        return environment

    def start(self):
        # All processes of the prefix share one fast clock, the server included.
        self.clock = FastClock(self.speed) if self.speed != 1 else None
        # Stays for a minute after its last process: services would otherwise be ended between two commands.
        # In a session of its own: Ctrl+C would otherwise end it, and every program with it, before we can.
        subprocess.run([_tool('wineserver'), '-p60'], env=self.environment(), stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)

    def boot(self):
        """Starts Windows' own services now. They inherit the output of whatever program comes first: here, none."""
        self.run(['cmd', '/c', 'exit'])

    def popen(self, arguments, extra=None, **options):
        # In a session of its own: Ctrl+C is for us, who then end the prefix in good order.
        return subprocess.Popen([_tool('wine64'), *map(str, arguments)], env=self.environment(extra),
                                start_new_session=True, **options)

    def run(self, arguments, timeout=120, extra=None):
        """Runs a program to its end. The result has returncode and stdout (with stderr in it), -1 after the time."""
        # A file, not a pipe: services that the first program starts inherit it, and a pipe would stay open with them.
        with tempfile.TemporaryFile() as sink:
            process = self.popen(arguments, extra, stdin=subprocess.DEVNULL, stdout=sink, stderr=subprocess.STDOUT)
            try:
                code = process.wait(timeout)
            except subprocess.TimeoutExpired:
                code = -1
                self.stop()
                process.kill()
                process.wait()
            sink.seek(0)
            output = sink.read()
        return subprocess.CompletedProcess(arguments, code, output.decode('utf-8', 'replace').replace('\r\n', '\n'))

    def must(self, arguments, timeout=120, extra=None):
        result = self.run(arguments, timeout, extra)
        if result.returncode != 0:
            raise Failure(f'{" ".join(map(str, arguments))} ended with {result.returncode}:\n{result.stdout}')
        return result.stdout

    def stop(self):
        environment = self.environment()
        for word in ('-k', '-w'):
            try:
                subprocess.run([_tool('wineserver'), word], env=environment, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, timeout=20)
            except subprocess.TimeoutExpired:
                break
        deadline = time.monotonic() + 5
        while self.processes() and time.monotonic() < deadline:
            time.sleep(0.02)
        for pid in self.processes():
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        if self.clock:
            self.clock.end()
            self.clock = None

    def processes(self):
        """Ids of the processes of this prefix, found by their environment."""
        mark = f'WINEPREFIX={self.path}'.encode()
        own = os.getpid()
        found = []
        for entry in Path('/proc').iterdir():
            if not entry.name.isdigit() or int(entry.name) == own:
                continue
            try:
                if mark in (entry / 'environ').read_bytes().split(b'\0'):
                    found.append(int(entry.name))
            except (OSError, PermissionError):
                continue
        return found


def _faketime_library():
    for place in Path('/usr/lib').glob('*/faketime/libfaketime.so.1'):
        return str(place)
    raise Failure('faketime is not installed')
