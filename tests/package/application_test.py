#!/usr/bin/python3
"""Builds the plug-in as the Flutter tool does, inside an application: with
clang and Ninja, from a published package behind a symbolic link, on paths with
spaces. Then runs the application's bundle with the build gone."""

import argparse
import os
import pathlib
import re
import shutil

import tool

# What the plug-in may need at run time: the engine, GLib, BlueZ's library and
# the compiler's own. Before glibc 2.34 threads were a library beside libc.
NEEDED = {
    'libflutter_linux_gtk.so', 'libgio-2.0.so.0', 'libgobject-2.0.so.0',
    'libglib-2.0.so.0', 'libbluetooth.so.3', 'libstdc++.so.6', 'libm.so.6',
    'libgcc_s.so.1', 'libc.so.6', 'libpthread.so.0'}

APPLICATION = pathlib.Path(__file__).resolve().parent / 'application'

REGISTRANT = '''#include "generated_plugin_registrant.h"

#include <{package}/{snake}.h>

void fl_register_plugins(FlPluginRegistry* registry) {{
  g_autoptr(FlPluginRegistrar) {package}_registrar =
      fl_plugin_registry_get_registrar_for_plugin(registry, "{plugin_class}");
  {snake}_register_with_registrar({package}_registrar);
}}
'''

REGISTRANT_HEADER = '''#ifndef GENERATED_PLUGIN_REGISTRANT_
#define GENERATED_PLUGIN_REGISTRANT_

#include <flutter_linux/flutter_linux.h>

void fl_register_plugins(FlPluginRegistry* registry);

#endif  // GENERATED_PLUGIN_REGISTRANT_
'''

PLUGINS = '''list(APPEND FLUTTER_PLUGIN_LIST {package})
set(PLUGIN_BUNDLED_LIBRARIES)
foreach(plugin ${{FLUTTER_PLUGIN_LIST}})
  add_subdirectory(flutter/ephemeral/.plugin_symlinks/${{plugin}}/linux plugins/${{plugin}})
  target_link_libraries(${{BINARY_NAME}} PRIVATE ${{plugin}}_plugin)
  list(APPEND PLUGIN_BUNDLED_LIBRARIES $<TARGET_FILE:${{plugin}}_plugin>)
  list(APPEND PLUGIN_BUNDLED_LIBRARIES ${{${{plugin}}_bundled_libraries}})
endforeach()
'''


def snake_case(name):
    return re.sub(r'(?<!^)(?=[A-Z])', '_', name).lower()


def lay_out(application, package, pubspec, arguments):
    """Writes the application's linux/ folder, with what the tool generates from
    the package's pubspec."""
    linux = application / 'linux'
    shutil.copytree(APPLICATION, linux)
    ephemeral = linux / 'flutter' / 'ephemeral'
    tool.lay_out_engine(ephemeral, arguments.headers, arguments.library)

    links = ephemeral / '.plugin_symlinks'
    links.mkdir()
    (links / pubspec['name']).symlink_to(package, target_is_directory=True)

    plugin_class = pubspec['flutter']['plugin']['platforms']['linux']['pluginClass']
    names = {'package': pubspec['name'], 'plugin_class': plugin_class,
             'snake': snake_case(plugin_class)}
    generated = linux / 'flutter'
    (generated / 'generated_plugins.cmake').write_text(PLUGINS.format(**names))
    (generated / 'generated_plugin_registrant.cc').write_text(REGISTRANT.format(**names))
    (generated / 'generated_plugin_registrant.h').write_text(REGISTRANT_HEADER)
    return links / pubspec['name']


def build(application, link, arguments):
    """Returns the build folder; the bundle is installed in it."""
    folder = application / 'build' / 'linux' / 'x64' / arguments.mode.lower()
    tests = [f'-Dinclude_{link.name}_tests=TRUE'] if arguments.tests else []
    clang = tool.environment(CC='clang', CXX='clang++')
    tool.run('cmake', '-G', 'Ninja', f'-DCMAKE_BUILD_TYPE={arguments.mode}',
             '-DFLUTTER_TARGET_PLATFORM=linux-x64',
             f'-DGTK_MODULES={arguments.gtk_modules}',
             f"-DPLUGIN_HOST_DIR={link / 'host'}", *tests,
             '-S', application / 'linux', '-B', folder, env=clang)
    output = tool.run('ninja', '-C', folder, 'install', env=clang)
    tool.check('warning:' not in output, f'the build warns:\n{output}')
    return folder


def check_own_tests(folder, package):
    program = folder / 'plugins' / package / f'{package}_test'
    output = tool.run(program, env=tool.environment())
    passed = re.search(r'\[  PASSED  \] (\d+) tests?\.', output)
    tool.check(passed and int(passed[1]) > 0, f'no test passed:\n{output}')


def check_bundle(bundle, pubspec):
    """The bundle alone has to do: nothing else of the build is there."""
    library = f"lib{pubspec['name']}_plugin.so"
    libraries = sorted(file.name for file in (bundle / 'lib').iterdir())
    tool.check(libraries == ['libflutter_linux_gtk.so', library],
               f'the bundle has {libraries}')
    runpath = tool.runpath(bundle / 'lib' / library)
    tool.check(runpath == '$ORIGIN', f'the run path is "{runpath}"')
    needed = {name for name in tool.dynamic(bundle / 'lib' / library, 'NEEDED')
              if not name.startswith('ld-linux')}
    tool.check('libflutter_linux_gtk.so' in needed and needed <= NEEDED,
               f'the library needs {sorted(needed)}')

    output = tool.run(bundle / 'application', 'getPlatformVersion',
                      'isAvailable', 'unheardOf', env=tool.environment())
    plugin_class = pubspec['flutter']['plugin']['platforms']['linux']['pluginClass']
    for line in (f'registrar for {plugin_class}',
                 f'getPlatformVersion: Linux {os.uname().version}',
                 'isAvailable: false', 'unheardOf: no success'):
        tool.check(line in output.splitlines(), f'no "{line}" in:\n{output}')


def test():
    parser = argparse.ArgumentParser()
    parser.add_argument('--mode', required=True)
    parser.add_argument('--headers', type=pathlib.Path, required=True)
    parser.add_argument('--library', type=pathlib.Path, required=True)
    parser.add_argument('--gtk-modules', required=True)
    parser.add_argument('--work', type=pathlib.Path, required=True)
    parser.add_argument('--tests', action='store_true')
    arguments = parser.parse_args()

    work = tool.fresh(arguments.work)
    package, pubspec = tool.publish(work / 'pub cache')
    application = work / 'An Application'
    link = lay_out(application, package, pubspec, arguments)
    folder = build(application, link, arguments)
    if arguments.tests:
        check_own_tests(folder, pubspec['name'])

    bundle = (folder / 'bundle').rename(work / 'bundle')
    shutil.rmtree(application)
    shutil.rmtree(work / 'pub cache')
    check_bundle(bundle, pubspec)


tool.main(test)
