#!/usr/bin/python3
"""Looks at what a published package holds, and at what its pubspec, its pages,
its change log and its example say: with the package's own sense, and for what
the registry's dry run warns of.

With --release, at what only a release needs as well."""

import argparse
import io
import pathlib
import re
import tarfile
import tempfile

import tool
import yaml

# What an application's build needs, what its developer reads, and the doctor. The
# host is there for the plug-in's own test in an application's build.
FOLDERS = {'doc', 'doctor', 'example', 'host', 'include', 'lib', 'linux', 'src'}
FILES = {'CHANGELOG.md', 'CONTRIBUTING.md', 'LICENSE', 'README.md', 'pubspec.yaml'}
HOST_FILES = {'channel_codec.cc', 'channel_codec.h',
              'in_process_messenger.cc', 'in_process_messenger.h'}
EXAMPLE_FILES = {'README.md', 'analysis_options.yaml', 'pubspec.yaml'}

# What a pubspec may have, so that a name typed wrong is seen.
FIELDS = {'name', 'description', 'version', 'repository', 'issue_tracker', 'topics',
          'environment', 'dependencies', 'dev_dependencies', 'flutter'}

# The registry takes 100 MB. Sources and pages need a hundredth of it; what is
# larger has brought something along.
ARCHIVE_BYTES = 1_000_000

SECRET = re.compile(r'-----BEGIN [A-Z ]*PRIVATE KEY-----|\bAKIA[0-9A-Z]{16}\b|'
                    r'\bgh[pousr]_\w{36}\b|\bAIza[\w-]{35}\b')


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
    lower = [str(file).lower() for file in files]
    tool.check(len(set(lower)) == len(files), 'names differ only in their case')

    wanted = [pathlib.Path(name) for name in FILES]
    wanted += [pathlib.Path('example') / name for name in EXAMPLE_FILES]
    for folder in ('doc', 'doctor', 'include', 'lib', 'linux', 'src', 'example/lib', 'example/test'):
        found = [file.relative_to(tool.ROOT) for file
                 in (tool.ROOT / folder).rglob('*') if file.is_file()]
        tool.check(found, f'{folder} is empty')
        wanted += found
    missing = sorted(str(file) for file in wanted if file not in files)
    tool.check(not missing, f'the package lacks {missing}')
    return sorted(files)


def check_contents(package, files):
    for file in files:
        text = (package / file).read_bytes().decode(errors='ignore')
        tool.check(not SECRET.search(text), f'{file} holds a secret')
    tool.check((package / 'LICENSE').stat().st_size > 0, 'the licence is empty')

    archive = io.BytesIO()
    with tarfile.open(fileobj=archive, mode='w:gz') as tar:
        tar.add(package, arcname='.')
    size = len(archive.getvalue())
    tool.check(size <= ARCHIVE_BYTES, f'the archive has {size} bytes')


def check_ignored(work):
    """Lays a file for each pattern of .gitignore into a copy of the tree: what
    is not kept is not published either. With a .pubignore the registry's tool
    does not look into .gitignore."""
    tree = tool.fresh(work / 'tree')
    (tree / '.pubignore').write_bytes((tool.ROOT / '.pubignore').read_bytes())
    patterns = [line for line in (tool.ROOT / '.gitignore').read_text().splitlines()
                if line and not line.startswith('#')]
    for pattern in patterns:
        name = pattern.lstrip('/').replace('*', 'x')
        # A pattern without a slash in it holds everywhere.
        places = [''] if '/' in pattern.rstrip('/') else ['', 'lib/', 'example/']
        for place in places:
            target = tree / place / (name + 'file' if name.endswith('/') else name)
            target.parent.mkdir(parents=True, exist_ok=True)
            target.touch()
    published = tool.published_files(tree, work / 'no history of the tree')
    tool.check(patterns and not published,
               f'git ignores what the package would bring: {published}')


def headings(page):
    """The anchors of a page's headings."""
    titles = re.findall(r'^#+ (.+)$', page.read_text(), re.MULTILINE)
    return {re.sub(r'[^\w -]', '', title.lower()).replace(' ', '-') for title in titles}


def check_links(package, files):
    links = 0
    for name in files:
        if name.suffix != '.md':
            continue
        text = re.sub(r'^```.*?^```$', '', (package / name).read_text(),
                      flags=re.MULTILINE | re.DOTALL)
        targets = re.findall(r'\]\(([^)\s]+)\)|\b(?:src|srcset|href)="([^"]+)"', text)
        for target in filter(None, (one for pair in targets for one in pair)):
            if re.match(r'https://|mailto:', target):
                continue
            links += 1
            tool.check(not re.match(r'\w+:|/', target), f'{name} links to {target}')
            file, _, anchor = target.partition('#')
            page = ((package / name).parent / file).resolve() if file else package / name
            tool.check(page.is_relative_to(package.resolve()) and page.exists(),
                       f'{name} links to {target}, which the package lacks')
            tool.check(not anchor or anchor in headings(page),
                       f'{name} links to {target}, and there is no such heading')
    tool.check(links > 0, 'no links were found')


def check_imports(package, files, pubspec):
    """Every imported package is a dependency: of the package what lib/ imports,
    and what tests import at least of its development."""
    example = yaml.safe_load((package / 'example' / 'pubspec.yaml').read_text())
    sources = [(package / file, file.parts) for file in files if file.suffix == '.dart']
    # The package's own tests are not published, and need the same.
    sources += [(file, ('test',)) for file in (tool.ROOT / 'test').glob('*.dart')]
    for file, parts in sources:
        spec = example if parts[0] == 'example' else pubspec
        known = {spec['name'], *spec['dependencies']}
        if 'test' in parts[:2]:
            known |= set(spec['dev_dependencies'])
        imported = set(re.findall(r"^(?:im|ex)port 'package:(\w+)/", file.read_text(),
                                  re.MULTILINE))
        tool.check(imported <= known, f'{file} imports {sorted(imported - known)}, '
                                      'which its pubspec does not name')


def check_pubspec(pubspec, version):
    tool.check(set(pubspec) <= FIELDS, f'fields that nobody knows: {set(pubspec) - FIELDS}')
    tool.check(re.fullmatch(r'[a-z][a-z0-9_]*', pubspec['name']),
               f"a package cannot be called {pubspec['name']}")
    tool.check((tool.ROOT / 'lib' / f"{pubspec['name']}.dart").is_file(),
               'no library has the name of the package')
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
    environment = pubspec['environment']
    tool.check(re.fullmatch(r'>=[\d.]+ <[\d.]+', environment['sdk']),
               f"the SDK's versions have no two ends: {environment['sdk']}")
    tool.check(re.fullmatch(r'>=[\d.]+', environment['flutter']),
               f"Flutter's versions need a lower end alone: {environment['flutter']}")
    for field in ('dependencies', 'dev_dependencies'):
        for name, wanted in pubspec[field].items():
            tool.check(wanted == {'sdk': 'flutter'}
                       or re.fullmatch(r'>=[\d.]+ <[\d.]+|\^[\d.]+', str(wanted)),
                       f'{name} is wanted as {wanted}')


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


def check_addresses(pubspec):
    for field in ('repository', 'issue_tracker'):
        tool.check(re.fullmatch(r'https://[\w.-]+\.\w+/\S+', pubspec.get(field, '')),
                   f'a release needs {field} in pubspec.yaml')


def check_check_addresses(pubspec):
    """The other tests run between releases; this one sees that the check of a
    release does not pass everything."""
    fields = {'repository': 'https://example.org/lumso_bluetooth',
              'issue_tracker': 'https://example.org/lumso_bluetooth/issues'}
    check_addresses({**pubspec, **fields})
    for field in fields:
        for value in (None, 'example.org', 'http://example.org/lumso_bluetooth'):
            wrong = {**pubspec, **fields, field: value}
            if value is None:
                del wrong[field]
            try:
                check_addresses(wrong)
            except tool.Failure:
                continue
            raise tool.Failure(f'a release is made with {field} as {value}')


def check_release(pubspec):
    check_addresses(pubspec)
    tool.check('\n## Unreleased' not in (tool.ROOT / 'CHANGELOG.md').read_text(),
               "the change log's newest part has no version")
    changed = tool.run('git', '-C', tool.ROOT, 'status', '--porcelain')
    tool.check(not changed, f'not committed:\n{changed}')


def library_version():
    text = (tool.ROOT / 'CMakeLists.txt').read_text()
    return re.search(r'\bVERSION (\d+\.\d+\.\d+)\b', text.partition('project(')[2])[1]


def test():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument('--work', type=pathlib.Path,
                        help='a folder to work in; without, one that goes again')
    parser.add_argument('--release', action='store_true')
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory() as temporary:
        work = tool.fresh(arguments.work or pathlib.Path(temporary) / 'work')
        package, pubspec = tool.publish(work / 'pub cache')
        version = library_version()
        files = check_files(package)
        check_contents(package, files)
        check_ignored(work)
        check_links(package, files)
        check_imports(package, files, pubspec)
        check_pubspec(pubspec, version)
        check_change_log(version)
        check_example(pubspec)
        check_check_addresses(pubspec)
        if arguments.release:
            check_release(pubspec)


tool.main(test)
