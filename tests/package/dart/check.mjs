// Checks the package's Dart code as far as that goes without a compiler: syntax, the
// look of its lines, documentation, exports, imports, and the names that are shared
// with the channels' page. Types are not checked.
// Usage: node check.mjs MODULES ROOT, where MODULES is the folder into which npm
// installed.

import fs from 'node:fs';
import path from 'node:path';

import {
  all, declarations, directives, grammarFaults, loadGrammar, syntaxErrors, usedNames,
} from './grammar.mjs';
import { dartBlocks, readChannelsPage } from './pages.mjs';

const [modules, root] = process.argv.slice(2);
const parse = await loadGrammar(modules);
const failures = grammarFaults(parse);

function check(condition, message) {
  if (!condition) failures.push(message);
}

// Every Dart file of the tree, by its path from the root. Builds and what tools
// fetch are no part of it.
function dartFiles(folder = '') {
  return fs.readdirSync(path.join(root, folder), { withFileTypes: true }).flatMap((entry) => {
    const name = path.posix.join(folder, entry.name);
    if (entry.name.startsWith('.') || entry.name === 'build') return [];
    if (entry.isDirectory()) return dartFiles(name);
    return name.endsWith('.dart') ? [name] : [];
  });
}

const read = (name) => fs.readFileSync(path.join(root, name), 'utf8');
const files = new Map(dartFiles().map((name) => [name, parse(read(name))]));
const pages = ['README.md', 'doc/channels.md', 'doc/dart.md'];
const blocks = pages.flatMap((page) =>
  dartBlocks(read(page)).map((block) => ({ page, ...block, tree: parse(block.source) })));

// What each library hands on, whole: one place for each file of lib/src.
const libraries = {
  'lib/channels.dart': ['channel_codec', 'channels'],
  'lib/lumso_bluetooth.dart': ['adapter', 'adapter_state', 'bonding', 'connection', 'device',
    'discovery', 'discovery_event', 'exception', 'prober'],
  'lib/testing.dart': ['fake_plugin'],
};
const fake = 'lib/src/fake_plugin.dart';
const sources = new Map([...files].filter(([name]) => name.startsWith('lib/src/')));
const declared = new Map([...sources].map(([name, tree]) => [name, declarations(tree,
    (node) => check(false, `${name}: line ${node.startPosition.row + 1}: ` +
        `only classes and type names are looked at, not ${node.type}`))]));
const publicClasses = [...declared.values()].flat().filter((each) => !each.isPrivate);

function checkSyntax() {
  for (const folder of ['lib/', 'lib/src/', 'test/', 'example/lib/', 'example/test/']) {
    check([...files.keys()].some((name) => name.startsWith(folder)), `no Dart file in ${folder}`);
  }
  for (const [name, tree] of files) {
    failures.push(...syntaxErrors(tree).map((error) => `${name}: ${error}`));
  }
  for (const page of pages) {
    check(blocks.some((block) => block.page === page), `${page} shows no Dart code`);
  }
  for (const { page, firstLine, tree } of blocks) {
    failures.push(...syntaxErrors(tree, firstLine).map((error) => `${page}: ${error}`));
  }
}

// What of the formatter's work can be seen without it.
function checkLines() {
  const texts = [...[...files.keys()].map((name) => [name, 1, read(name)]),
    ...blocks.map(({ page, firstLine, source }) => [page, firstLine, source])];
  for (const [name, firstLine, source] of texts) {
    source.split('\n').forEach((line, index) => {
      const where = `${name}: line ${firstLine + index}`;
      check([...line].length <= 80, `${where} is wider than 80 columns`);
      check(!/\s$/.test(line), `${where} ends with a blank`);
      check(!line.includes('\t'), `${where} has a tab`);
      check((line.match(/^ */)[0].length) % 2 === 0 || /^ +\/\/|^ +\*/.test(line),
          `${where} is indented by an odd number of blanks`);
    });
    check(/[^\n]\n$/.test(source), `${name} does not end with one line's end`);
  }
}

function checkDocumentation() {
  for (const [name, classes] of declared) {
    for (const each of classes.filter((one) => !one.isPrivate)) {
      // A setter has its getter's.
      const documented = new Set(
          each.members.filter((one) => one.isDocumented).map((one) => one.name));
      for (const one of [each, ...each.members]) {
        check(one.isPrivate || one.isInherited || one.isDocumented || documented.has(one.name),
            `${name}: line ${one.line}: ${one.name} has no documentation`);
      }
    }
  }
  for (const library of Object.keys(libraries)) {
    check(/^\/\/\/ /.test(read(library)), `${library} has no documentation`);
  }
}

function checkExports() {
  const listed = Object.values(libraries).flat().map((name) => `lib/src/${name}.dart`).sort();
  check(listed.join() === [...sources.keys()].sort().join(), `the libraries hand on ${listed}`);
  for (const name of files.keys()) {
    if (!/^lib\/\w+\.dart$/.test(name)) continue;
    const exports = directives(files.get(name));
    check(exports.every(({ kind, isWhole }) => kind === 'export' && isWhole),
        `${name} does more than export files`);
    const exported = exports.map(({ uri }) => path.basename(uri, '.dart')).sort();
    check(exported.join() === (libraries[name] ?? []).join(), `${name} exports ${exported}`);
  }
}

// Which names of Dart's and Flutter's libraries make an import necessary. Only
// these count as a use of it.
const otherLibraries = {
  'dart:async': ['Completer', 'FutureOr', 'MultiStreamController', 'StreamController',
    'StreamSubscription', 'Timer', 'unawaited'],
  'dart:math': ['min', 'max'],
  'dart:convert': ['LineSplitter', 'Utf8Decoder', 'utf8'],
  'package:flutter/foundation.dart': ['FlutterErrorDetails', 'immutable', 'kDebugMode'],
  'package:flutter/material.dart': ['LinearProgressIndicator', 'MaterialApp', 'StatefulWidget',
    'StatelessWidget'],
  'package:flutter/services.dart': ['EventChannel', 'MethodCall', 'MethodChannel',
    'MissingPluginException', 'PlatformException'],
  'package:flutter_test/flutter_test.dart': ['addTearDown', 'expect', 'testWidgets'],
};

function checkImports() {
  for (const [name, tree] of files) {
    const used = usedNames(tree);
    const own = declared.get(name) ?? [];
    const imported = new Set(directives(tree).map(({ uri }) => uri.includes(':') ?
        uri : path.posix.join(path.posix.dirname(name), uri)));
    const compare = (uri, names) => {
      const needed = names.filter((each) => used.has(each));
      check(imported.has(uri) === needed.length > 0, imported.has(uri) ?
          `${name}: imports ${uri} in vain` : `${name}: uses ${needed} without ${uri}`);
    };
    for (const [uri, names] of Object.entries(otherLibraries)) compare(uri, names);
    if (name.startsWith('lib/src/')) {
      for (const [other, classes] of declared) {
        if (classes !== own) compare(other, classes.map((each) => each.name));
      }
    } else if (!(name in libraries)) {
      for (const [library, parts] of Object.entries(libraries)) {
        const classes = parts.flatMap((part) => declared.get(`lib/src/${part}.dart`) ?? []);
        compare(library.replace('lib/', 'package:lumso_bluetooth/'),
            classes.filter((each) => !each.isPrivate).map((each) => each.name));
      }
    }
    for (const uri of imported) {
      const target = uri.replace(/^package:lumso_bluetooth\//, 'lib/')
          .replace(/^package:lumso_bluetooth_example\//, 'example/lib/');
      check(target.includes(':') || files.has(target), `${name}: there is no ${uri}`);
    }
  }
}

// Whoever names a class of the library, or a member after it, has to get the
// name right, in prose as well. What an object of it is asked for is not looked
// at.
function checkUses() {
  const members = new Map(publicClasses.map((each) =>
    [each.name, new Set(['values', ...each.members.map((one) => one.name.split('.').pop())])]));
  const named = new RegExp(
      `\\b((?:Fake)?Bluetooth[A-Z]\\w*|${[...members.keys()].join('|')})\\b(?:\\.(\\w+))?`, 'g');
  for (const name of [...files.keys(), ...pages]) {
    for (const [, owner, member] of read(name).matchAll(named)) {
      check(members.has(owner), `${name}: there is no ${owner}`);
      check(!member || !members.has(owner) || members.get(owner).has(member),
          `${name}: there is no ${owner}.${member}`);
    }
  }
}

const text = (literal) => literal.text.slice(1, -1);

// What the library's functions that call a method expect of its answer, beside
// `invoke`, which is told.
const helperTypes = { _devices: 'List<Object?>', _text: 'String', request: 'bool' };

// Compares what the calls in a file give and take with the channels' page, and
// returns the names of the called methods. The grammar takes a generic call with
// one argument for a comparison, hence the pattern.
function checkCalls(name, methods) {
  const code = read(name).replace(/^ *\/\/.*$/gm, '');
  const call = /\b(\w+)(?:<([\w<>?]+)>)?\(\s*'(\w+)'(?:,\s*<String, Object\?>\{([^}]*)\})?,?\s*\)/g;
  return [...code.matchAll(call)].map(([, helper, type, method, args]) => {
    const where = `${name}: ${helper}('${method}')`;
    const wanted = methods.get(method);
    if (wanted === undefined) {
      check(false, `${where} calls no method`);
      return method;
    }
    const keys = [...(args ?? '').matchAll(/'(\w+)':/g)].map((match) => match[1]);
    check(keys.join() === wanted.keys.join(), `${where} gives [${keys}]`);
    const answer = helper === 'invoke' ? type : helperTypes[helper];
    check(answer === wanted.type, `${where} expects ${answer}`);
    return method;
  });
}

// The library uses every name of the channels' page, and no other.
function checkNames() {
  const page = readChannelsPage(read('doc/channels.md'));
  check(page.methods.size > 20 && page.keys.size > 8 && page.kinds.length > 1,
      "the tables of the channels' page were not found");
  const known = new Set([
    ...page.methods.keys(), ...page.keys, ...page.kinds, ...page.codes, 'ENOSYS']);
  // What an event channel is asked: the framework's names.
  const listening = ['listen', 'cancel'];
  const literals = new Set();
  const called = new Set();
  for (const [name, tree] of sources) {
    for (const method of checkCalls(name, page.methods)) called.add(method);
    for (const node of all(tree, 'string_literal')) {
      if (node.parent.type === 'uri') continue;
      if (name !== fake) literals.add(text(node));
      check(known.has(text(node)) || !/^\w+$/.test(text(node)) ||
          name === fake && listening.includes(text(node)),
          `${name}: line ${node.startPosition.row + 1}: ${node.text} is no name of the channels`);
    }
    for (const node of all(tree, 'index_selector')) {
      const [key] = node.namedChildren;
      check(key.type !== 'string_literal' || page.keys.has(text(key)),
          `${name}: there is no key ${node.text}`);
    }
  }
  for (const name of known) check(literals.has(name), `the library does not use ${name}`);

  const channels = [...literals].filter((each) => each.startsWith('lumso_bluetooth/'))
      .map((each) => each.replace('$id', '<id>'));
  check(channels.sort().join() === page.channels.sort().join(),
      `the library uses the channels ${channels}`);
  // Everything but second names and fixed answers has a call of its own.
  const listed = new Set(all(sources.get('lib/src/channels.dart'), 'list_literal', 'pair')
      .map((node) => node.type === 'pair' ? node.namedChildren.slice(0, 1) : node.namedChildren)
      .flat().filter((node) => node.type === 'string_literal').map(text));
  for (const method of page.methods.keys()) {
    check(called.has(method) !== listed.has(method),
        `${method} is ${called.has(method) ? 'called and listed' : 'not called'}`);
  }

  const answered = [...read(fake).matchAll(/^ *case '(\w+)':$/gm)].map(([, method]) => method)
      .filter((method) => !listening.includes(method));
  check(answered.sort().join() === [...called].sort().join(),
      `the fake plug-in answers ${answered}, the library calls ${[...called]}`);
  const messages = [...read(fake).matchAll(/^ *message: '(.*)',$/gm)].map((match) => match[1]);
  check(messages.sort().join() === page.messages.sort().join(),
      `the fake plug-in's errors say ${messages}`);
}

// A channel has one receiver: the shared streams', and each connection's own.
// And the page makes room for a connection as the library does.
function checkReceivers() {
  const receivers = [...sources.keys()].filter((name) =>
    usedNames(sources.get(name)).has('receiveBroadcastStream'));
  check(receivers.sort().join() === 'lib/src/channels.dart,lib/src/connection.dart',
      `these listen to channels: ${receivers}`);
  const resizes = (text) => [...text.matchAll(/\bresize\(.*?, (\d+)\)/g)].map(([, size]) => size);
  const room = resizes(read('lib/src/channels.dart').split('static void bufferRead(')[1]
      .split('\n  }\n')[0]);
  const shown = resizes(blocks.find(({ page }) => page === 'doc/channels.md').source);
  check(room.length === 2 && shown.join() === room.join(),
      `doc/channels.md makes room with ${shown}, the library with ${room}`);
}

checkSyntax();
checkLines();
checkDocumentation();
checkExports();
checkImports();
checkUses();
checkNames();
checkReceivers();
for (const failure of failures) console.error(failure);
console.log(`${files.size} files, ${blocks.length} blocks, ${publicClasses.length} classes, ` +
    `${failures.length} failures`);
process.exitCode = failures.length === 0 ? 0 : 1;
