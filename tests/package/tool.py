"""What the package tests share: running programs, and folders that look like
those of the Flutter tool."""

import os
import pathlib
import shutil
import subprocess
import sys

import yaml

ROOT = pathlib.Path(__file__).resolve().parents[2]


class Failure(Exception):
    """What does not hold, as a sentence."""


def check(condition, message):
    if not condition:
        raise Failure(message)


def run(*command, **options):
    """Returns what a program prints on both streams; it must exit with 0."""
    command = [str(word) for word in command]
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True,
                          stderr=subprocess.STDOUT, check=False, **options)
    check(done.returncode == 0,
          f"{' '.join(command)} exited with {done.returncode}:\n{done.stdout}")
    return done.stdout


def environment(**changes):
    """The environment without what could lead a program elsewhere, plus
    `changes`. There is no system bus in it."""
    kept = {name: value for name, value in os.environ.items()
            if name not in ('LD_LIBRARY_PATH', 'LD_PRELOAD', 'PKG_CONFIG_PATH')
            and not name.startswith('GIT_')}
    return {**kept, 'DBUS_SYSTEM_BUS_ADDRESS': 'unix:path=/nonexistent',
            **{name: str(value) for name, value in changes.items()}}


def fresh(folder):
    """Makes an empty folder of `folder`, whatever was there before."""
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    return folder


def published_files(root, history):
    """Returns what of `root` is published, by its .pubignore: as the registry's
    tool does, without a look at what git keeps. `history` is an empty one."""
    git = {'GIT_DIR': history, 'GIT_WORK_TREE': root}
    run('git', 'init', '--quiet', env=environment(**git))
    files = run('git', '-C', root, 'ls-files', '-z', '--others',
                '--exclude-from=.pubignore', env=environment(**git))
    return [name for name in files.split('\0') if name]


def publish(cache):
    """Copies what a published package holds; returns its folder and pubspec."""
    pubspec = yaml.safe_load((ROOT / 'pubspec.yaml').read_text())
    cache.mkdir()
    package = cache / f"{pubspec['name']}-{pubspec['version']}"
    for name in published_files(ROOT, cache / 'no history'):
        check('flutter_linux' not in name,
              f'the package brings an embedding of its own: {name}')
        target = package / name
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(ROOT / name, target)
    return package, pubspec


def lay_out_engine(folder, headers, library):
    """Fills `folder` with an engine as an SDK has it: `headers` is the folder
    that holds flutter_linux/, `library` the engine's library."""
    shutil.copytree(headers / 'flutter_linux', folder / 'flutter_linux')
    shutil.copyfile(library, folder / 'libflutter_linux_gtk.so')
    front = folder / 'flutter_linux' / 'flutter_linux.h'
    text = front.read_text()
    if 'FLUTTER_LINUX_STAND_IN' in text:  # It refuses to be taken by mistake.
        front.write_text('#define FLUTTER_LINUX_STAND_IN\n' + text)


def dynamic(library, *tags):
    """Returns the texts that a library's dynamic section has for `tags`."""
    lines = run('readelf', '--dynamic', library).splitlines()
    return [line.partition('[')[2].rstrip(']') for line in lines
            if any(f'({tag})' in line for tag in tags)]


def runpath(library):
    """Returns the run path of a library, empty when it has none."""
    return ''.join(dynamic(library, 'RUNPATH', 'RPATH'))


def main(test):
    """Runs a test and tells its failure in one piece."""
    try:
        test()
    except Failure as failure:
        sys.exit(f'FAILED: {failure}')
