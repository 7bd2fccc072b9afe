"""A prefix with the product and the lab in place: made once for each build, cloned for each test."""
import fcntl
import hashlib
import shutil
import time
from pathlib import Path

import wine
from build import ROOT
from ui import Failure, Step

PRODUCT = 'Program Files/Halcyd'
LAB = 'Program Files/HalcydLab'
DELIVERABLES = ['Halcyd/Halcyd.exe', 'HalcydPS/HalcydPS.dll', 'clients/halcydctl/halcydctl.exe',
                'clients/TraceStore/TraceStore.exe', 'clients/TraceStore/TraceStorePS.dll']


def lab_files(built):
    """What the lab consists of: everything that its build folder holds under these names."""
    found = []
    for pattern in ('lab/**/*.dll', 'lab/**/*.exe', 'lab/**/*.sys'):
        found += [p for p in (built).glob(pattern) if 'CMakeFiles' not in p.parts]
    return sorted(found)


def _fingerprint(built, scenarios):
    digest = hashlib.sha256()
    for path in [built / name for name in DELIVERABLES] + lab_files(built) + scenarios:
        if path.exists():
            digest.update(str(path).encode())
            digest.update(path.read_bytes())
    for source in ('product.py', 'wine.py'):
        digest.update((ROOT / 'tools' / 'dev' / source).read_bytes())
    digest.update(wine.version().encode())
    return digest.hexdigest()[:16]


def windows(path):
    return 'C:\\' + str(path).replace('/', '\\')


def installed(built):
    """The prepared prefix for this build."""
    scenarios = sorted((ROOT / 'lab' / 'scenarios').glob('*.json'))
    base = wine.template()
    place = wine.CACHE / f'installed-{_fingerprint(built, scenarios)}'
    with open(wine.CACHE / 'installed.lock', 'w') as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if (place / 'ready').exists():
            (place / 'ready').touch()
            return place
        step = Step('installing the product and the lab')
        _forget_old()
        shutil.rmtree(place, ignore_errors=True)
        wine.clone(base, place)
        (place / 'ready').unlink(missing_ok=True)
        prefix = wine.Prefix(place, owned=False)
        prefix.start()
        try:
            _install(prefix, built, scenarios, step)
        except Failure:
            step.done(ok=False)
            raise
        finally:
            prefix.stop()
        (place / 'ready').touch()
        step.done()
    return place


def _forget_old(keep=4, hours=2):
    """Removes prepared prefixes of earlier builds; one that another run may be cloning from stays."""
    def last_use(place):
        mark = place / 'ready'
        return (mark if mark.exists() else place).stat().st_mtime
    places = sorted((p for p in wine.CACHE.glob('installed-*') if p.is_dir()), key=last_use, reverse=True)
    for place in places[keep:]:
        if time.time() - last_use(place) > hours * 3600:
            shutil.rmtree(place, ignore_errors=True)


def _install(prefix, built, scenarios, step):
    product, lab = prefix.c(PRODUCT), prefix.c(LAB)
    product.mkdir(parents=True)
    (lab / 'scenarios').mkdir(parents=True)
    for name in DELIVERABLES:
        shutil.copy2(built / name, product)
    for path in lab_files(built):
        shutil.copy2(path, lab)
    for path in scenarios:
        shutil.copy2(path, lab / 'scenarios')
    step.note('lab')
    prefix.must([windows(f'{LAB}/labctl.exe'), 'install'])
    step.note('trace service')
    prefix.must([windows(f'{PRODUCT}/TraceStore.exe'), '/RegServer'])
    step.note('service')
    prefix.must([windows(f'{PRODUCT}/Halcyd.exe'), '-Service'])
    # After the type library: registering that one points every interface at the type library's own marshaller.
    prefix.must(['regsvr32', '/s', windows(f'{PRODUCT}/HalcydPS.dll')])


def labctl(prefix, *arguments, timeout=60):
    return prefix.must([windows(f'{LAB}/labctl.exe'), *arguments], timeout)


def halcydctl(prefix, *arguments, timeout=60):
    return prefix.run([windows(f'{PRODUCT}/halcydctl.exe'), *arguments], timeout)


def keep_evidence(prefix, target):
    """What a failed test leaves behind: trace, journal, state, dumps."""
    target.mkdir(parents=True, exist_ok=True)
    for source in ('ProgramData/HalcydLab', 'ProgramData/QRLS'):
        if prefix.c(source).exists():
            shutil.copytree(prefix.c(source), target / Path(source).name, dirs_exist_ok=True)
