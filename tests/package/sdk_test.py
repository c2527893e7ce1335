#!/usr/bin/python3
"""Builds on a folder as an SDK has it, LUMSO_FLUTTER_SDK, made from the
stand-in: the library and test programs, which then have to pass. Everything
else builds there, too, but takes longer than it tells."""

import argparse
import pathlib
import subprocess

import tool

# GTK as pkg-config sees it. The stand-in's headers do without it, so its
# development files need not be installed here.
GTK = '''Name: GTK+
Description: nothing but what the stand-in needs
Version: 3.24
Requires: gio-2.0 gmodule-2.0
'''

PROGRAMS = ('package_embedding_test', 'package_plugin_test')


def configure(work, sdk, **environment):
    return subprocess.run(
        ['cmake', '-G', 'Ninja', '-S', tool.ROOT, '-B', work / 'build',
         '-DCMAKE_BUILD_TYPE=Debug', '-DCMAKE_CXX_FLAGS_DEBUG=-O0',
         '-DLUMSO_WERROR=ON',
         f'-DLUMSO_FLUTTER_SDK={sdk}'],
        env=tool.environment(**environment), text=True, check=False,
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def check_without_gtk(work, sdk):
    nothing = work / 'no packages'
    nothing.mkdir()
    done = configure(work, sdk, PKG_CONFIG_LIBDIR=nothing)
    tool.check(done.returncode != 0 and 'libgtk-3-dev' in done.stdout,
               f'without GTK, configuring says:\n{done.stdout}')


def test():
    parser = argparse.ArgumentParser()
    parser.add_argument('--headers', type=pathlib.Path, required=True)
    parser.add_argument('--library', type=pathlib.Path, required=True)
    parser.add_argument('--work', type=pathlib.Path, required=True)
    arguments = parser.parse_args()

    work = tool.fresh(arguments.work)
    sdk = work / 'an sdk'
    tool.lay_out_engine(sdk, arguments.headers, arguments.library)
    check_without_gtk(work, sdk)

    packages = work / 'packages'
    packages.mkdir()
    (packages / 'gtk+-3.0.pc').write_text(GTK)
    done = configure(work, sdk, PKG_CONFIG_PATH=packages)
    tool.check(done.returncode == 0, f'configuring fails:\n{done.stdout}')
    build = work / 'build'
    tool.run('ninja', '-C', build, *PROGRAMS)
    tool.check(not list(build.rglob('libflutter_linux_gtk.so')),
               'the stand-in was built, too')
    loaded = tool.run('ldd', build / 'liblumso_bluetooth_plugin.so')
    tool.check(str(sdk / 'libflutter_linux_gtk.so') in loaded,
               f'the library loads another engine:\n{loaded}')
    output = tool.run('ctest', '--test-dir', build, '--output-on-failure',
                      '--no-tests=error', '-R', f"^({'|'.join(PROGRAMS)})/")
    for program in PROGRAMS:
        tool.check(f'{program}/' in output, f'{program} did not run:\n{output}')


tool.main(test)
