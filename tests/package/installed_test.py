#!/usr/bin/python3
"""Installs the build, and builds an embedder from the installed files: once
through CMake's find_package, once through pkg-config. Staged with DESTDIR and
with a prefix that has a space in it, so that nothing may rely on the prefix."""

import argparse
import os
import pathlib

import tool

EMBEDDER = pathlib.Path(__file__).resolve().parent / 'embedder'
LIBRARY = 'liblumso_bluetooth_plugin.so'


def install(build, stage, libdir):
    """Returns the folder that stands for the prefix; checks what is in it."""
    prefix = pathlib.Path('/opt/a prefix')
    tool.run('cmake', '--install', build, '--prefix', prefix,
             env=tool.environment(DESTDIR=stage))
    installed = stage / prefix.relative_to('/')
    files = {str(file.relative_to(stage)) for file in stage.rglob('*')
             if not file.is_dir()}
    root = installed.relative_to(stage)
    config = root / libdir / 'cmake' / 'lumso_bluetooth'
    wanted = {str(file) for file in (
        root / 'bin' / 'lumso_doctor',
        root / libdir / LIBRARY,
        root / libdir / 'pkgconfig' / 'lumso_bluetooth.pc',
        config / 'lumso_bluetooth-config.cmake',
        config / 'lumso_bluetooth-config-version.cmake',
        root / 'include' / 'lumso_bluetooth' / 'lumso_bluetooth_plugin.h')}
    tool.check(files == wanted, f'installed: {sorted(files)}')
    runpath = tool.runpath(installed / libdir / LIBRARY)
    tool.check(runpath == '', f'the library has the run path "{runpath}"')
    return installed


def build_embedder(work, installed, arguments):
    engine = work / 'an engine'
    tool.lay_out_engine(engine, arguments.headers, arguments.library)
    folder = work / 'embedder'
    env = tool.environment(
        PKG_CONFIG_PATH=installed / arguments.libdir / 'pkgconfig')
    tool.run('cmake', '-G', 'Ninja', '-S', EMBEDDER, '-B', folder,
             f'-DCMAKE_PREFIX_PATH={installed}', f'-DENGINE={engine}',
             f'-DSUPPORT={tool.ROOT}', f'-DVERSION={arguments.version}',
             f'-DGTK_MODULES={arguments.gtk_modules}', env=env)
    tool.run('ninja', '-C', folder, env=env)
    return folder


def test():
    parser = argparse.ArgumentParser()
    parser.add_argument('--build', type=pathlib.Path, required=True)
    parser.add_argument('--version', required=True)
    parser.add_argument('--libdir', required=True)
    parser.add_argument('--headers', type=pathlib.Path, required=True)
    parser.add_argument('--library', type=pathlib.Path, required=True)
    parser.add_argument('--gtk-modules', required=True)
    parser.add_argument('--work', type=pathlib.Path, required=True)
    arguments = parser.parse_args()

    work = tool.fresh(arguments.work)
    installed = install(arguments.build, work / 'stage', arguments.libdir)
    folder = build_embedder(work, installed, arguments)
    wanted = f'Linux {os.uname().version}, LumsoBluetoothPlugin'
    for program in ('by_cmake', 'by_pkg_config'):
        output = tool.run(folder / program, env=tool.environment())
        tool.check(wanted in output.splitlines(), f'{program} prints:\n{output}')
        loaded = tool.run('ldd', folder / program, env=tool.environment())
        tool.check(str(installed / arguments.libdir / LIBRARY) in loaded,
                   f'{program} loads another library:\n{loaded}')


tool.main(test)
