"""./dev fuzz: the parsers and rules that need no platform, natively, with sanitizers and random input."""
import os
import re
import subprocess

import build
import packages
from ui import Failure, Step, bad, good

FOLDER = build.ROOT / 'build' / 'fuzz'
SMOKE_RUNS = 20000      # inputs for each target in ./dev test
MAXIMUM_INPUT = 4096    # bytes


def compile_targets():
    """Builds all targets; their programs by name."""
    packages.ensure(packages.BUILD, packages.FUZZ)
    step = Step('building (fuzz)')
    for command in (['cmake', '-S', build.ROOT / 'tests' / 'fuzz', '-B', FOLDER, '-G', 'Ninja',
                     '-DCMAKE_CXX_COMPILER=clang++-19'], ['ninja', '-C', FOLDER]):
        done = subprocess.run(command, capture_output=True, text=True)
        if done.returncode != 0:
            step.done(ok=False)
            raise Failure((done.stdout + done.stderr)[-8000:])
    step.done()
    return {p.name.removeprefix('Fuzz'): p for p in sorted(FOLDER.glob('Fuzz*')) if os.access(p, os.X_OK) and p.is_file()}


def run_target(name, program, *limits):
    """One run; (did it hold, number of inputs, what was said). Inputs worth keeping go to the corpus, bad ones beside it."""
    corpus, found = FOLDER / 'corpus' / name, FOLDER / 'found'
    corpus.mkdir(parents=True, exist_ok=True)
    found.mkdir(parents=True, exist_ok=True)
    done = subprocess.run([program, *limits, f'-max_len={MAXIMUM_INPUT}', f'-artifact_prefix={found}/{name}-',
                           '-print_final_stats=1', corpus], capture_output=True, text=True, errors='replace',
                          stdin=subprocess.DEVNULL)
    said = done.stdout + done.stderr
    count = re.search(r'stat::number_of_executed_units:\s*(\d+)', said)
    return done.returncode == 0, int(count.group(1)) if count else 0, said


def main(target, seconds):
    programs = compile_targets()
    chosen = {n: p for n, p in programs.items() if target is None or target.lower() in n.lower()}
    if not chosen:
        raise Failure(f'no target "{target}"; there are: {", ".join(programs)}')
    held = True
    for name, program in chosen.items():
        step = Step(f'{name}, {seconds} s')
        good_run, count, said = run_target(name, program, f'-max_total_time={seconds}')
        step.done(f'{count} inputs', ok=good_run)
        if not good_run:
            held = False
            print(said[-6000:])
    print(good('nothing found') if held else bad(f'inputs that break something are in {FOLDER / "found"}'))
    return 0 if held else 1
