"""The distribution packages that the project needs, and installing those that are missing."""
import os
import shutil
import subprocess

from ui import Failure, Step

BUILD = ['g++-mingw-w64-x86-64-posix', 'mingw-w64-tools', 'binutils-mingw-w64', 'cmake', 'ninja-build', 'ccache',
         'libwine-dev', 'libwine', 'libfmt-dev', 'nlohmann-json3-dev', 'libcli11-dev', 'libspdlog-dev', 'googletest']
RUN = ['wine', 'wine64', 'iproute2']
TEST = ['clang-19', 'clang-format-19', 'faketime', 'git']
TIDY = ['clang-tidy-19']
FUZZ = ['clang-19', 'libclang-rt-19-dev']
PACKAGE = ['msitools', 'zip']


def missing(names):
    listed = subprocess.run(['dpkg-query', '-W', '-f=${Package} ${db:Status-Status}\n', *names],
                            capture_output=True, text=True).stdout
    installed = {line.split()[0] for line in listed.splitlines() if line.endswith(' installed')}
    return [name for name in names if name not in installed]


def ensure(*groups):
    names = sorted({name for group in groups for name in group})
    needed = missing(names)
    if not needed:
        return
    if shutil.which('apt-get') is None:
        raise Failure('these packages are missing and there is no apt-get here: ' + ' '.join(needed))
    step = Step('installing ' + ' '.join(needed))
    root = [] if os.geteuid() == 0 else ['sudo']
    environment = dict(os.environ, DEBIAN_FRONTEND='noninteractive')
    wait = ['-o', 'DPkg::Lock::Timeout=300']    # another installation may be under way
    for command in (['apt-get', *wait, 'update', '-qq'],
                    ['apt-get', *wait, 'install', '-y', '-qq', '--no-install-recommends', *needed]):
        result = subprocess.run(root + command, env=environment, stdin=subprocess.DEVNULL, capture_output=True, text=True)
        if result.returncode != 0:
            step.done(ok=False)
            raise Failure(f'{" ".join(command)} failed:\n{result.stdout}{result.stderr}')
    step.done()
