#!/usr/bin/python3
"""Looks at what a published package holds, and at what its pubspec, its change
log and its example say."""

import argparse
import pathlib
import re

import tool
import yaml

# What an application's build needs and what its developer reads. The host is
# there for the plug-in's own test in an application's build.
FOLDERS = {'doc', 'doctor', 'example', 'host', 'include', 'lib', 'linux', 'src'}
FILES = {'CHANGELOG.md', 'LICENSE', 'README.md', 'pubspec.yaml'}
HOST_FILES = {'channel_codec.cc', 'channel_codec.h',
              'in_process_messenger.cc', 'in_process_messenger.h'}
EXAMPLE_FILES = {'README.md', 'analysis_options.yaml', 'pubspec.yaml'}


def check_files(package):
    files = {file.relative_to(package) for file in package.rglob('*')
             if not file.is_dir()}
    for file in sorted(files):
        tool.check(file.parts[0] in FOLDERS or str(file) in FILES,
                   f'the package brings {file}')
        tool.check(file.parts[0] != 'host' or file.name in HOST_FILES,
                   f"the package brings the host's {file}")
        tool.check(file.parts[0] != 'example'
                   or file.parts[1] in {'lib', 'test'} | EXAMPLE_FILES,
                   f'the example brings {file}')
        tool.check(not any(part.startswith('.') for part in file.parts)
                   and file.name != 'pubspec.lock', f'the package brings {file}')

    wanted = [pathlib.Path(name) for name in FILES]
    wanted += [pathlib.Path('example') / name for name in EXAMPLE_FILES]
    for folder in ('doctor', 'include', 'lib', 'linux', 'src', 'example/lib'):
        found = [file.relative_to(tool.ROOT) for file
                 in (tool.ROOT / folder).rglob('*') if file.is_file()]
        tool.check(found, f'{folder} is empty')
        wanted += found
    missing = sorted(str(file) for file in wanted if file not in files)
    tool.check(not missing, f'the package lacks {missing}')


def check_pubspec(pubspec, version):
    tool.check(pubspec['version'] == version,
               f"pubspec.yaml is of version {pubspec['version']}, "
               f'the library of {version}')
    description = pubspec['description'].strip()
    tool.check(60 <= len(description) <= 180,
               f'the description has {len(description)} characters')
    topics = pubspec['topics']
    tool.check(1 <= len(topics) <= 5 and all(
        re.fullmatch(r'[a-z](-?[a-z0-9])+', topic) and len(topic) <= 32
        for topic in topics), f'these are no topics: {topics}')
    platforms = pubspec['flutter']['plugin']['platforms']
    tool.check(list(platforms) == ['linux'], f'the platforms are {platforms}')


def check_change_log(version):
    text = (tool.ROOT / 'CHANGELOG.md').read_text()
    released = re.findall(r'^## (\d\S*)', text, re.MULTILINE)
    tool.check(released and released[0] == version,
               f'the change log ends with {released[:1]}, '
               f'the library is of version {version}')


def check_example(pubspec):
    folder = tool.ROOT / 'example'
    example = yaml.safe_load((folder / 'pubspec.yaml').read_text())
    path = example['dependencies'][pubspec['name']]['path']
    tool.check((folder / path).resolve() == tool.ROOT,
               f'the example depends on {path}')
    tool.check(example['environment'] == pubspec['environment'],
               'the example wants another Flutter than the package')
    tool.check(example['publish_to'] == 'none', 'the example can be published')
    lines = (folder / 'README.md').read_text().splitlines()
    for command in ('flutter create --platforms=linux .', 'flutter pub get',
                    'flutter run'):
        tool.check(command in lines, f"the example's page lacks: {command}")


def test():
    parser = argparse.ArgumentParser()
    parser.add_argument('--version', required=True)
    parser.add_argument('--work', type=pathlib.Path, required=True)
    arguments = parser.parse_args()

    package, pubspec = tool.publish(tool.fresh(arguments.work) / 'pub cache')
    check_files(package)
    check_pubspec(pubspec, arguments.version)
    check_change_log(arguments.version)
    check_example(pubspec)


tool.main(test)
