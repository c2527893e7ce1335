// Parses the Dart blocks of a page, alone and as one file, and compares the
// names of methods and channels in them with the channels' own page.
// Usage: node check.mjs MODULES DART_PAGE CHANNELS_PAGE, where MODULES is the
// folder into which npm installed.

import fs from 'node:fs';
import { createRequire } from 'node:module';
import path from 'node:path';

const [modules, dartPage, channelsPage] = process.argv.slice(2);
const require = createRequire(path.join(path.resolve(modules), 'package.json'));
const { Language, Parser } = require('web-tree-sitter');

const failures = [];

function check(condition, message) {
  if (!condition) failures.push(message);
}

// Returns what the grammar does not accept, as lines of text.
function syntaxErrors(parser, source, firstLine) {
  const errors = [];
  const visit = (node) => {
    if (node.isError || node.isMissing) {
      const text = node.isMissing ? `missing ${node.type}` : node.text.split('\n')[0];
      errors.push(`line ${firstLine + node.startPosition.row}: ${text}`);
    } else if (node.hasError) {
      node.children.forEach(visit);
    }
  };
  visit(parser.parse(source).rootNode);
  return errors;
}

// Returns the ```dart blocks of a page, each with its first line's number.
function dartBlocks(text) {
  const blocks = [];
  let block = null;
  text.split('\n').forEach((line, index) => {
    if (block === null && line === '```dart') {
      block = { firstLine: index + 2, lines: [] };
    } else if (block !== null && line === '```') {
      blocks.push({ firstLine: block.firstLine, source: block.lines.join('\n') + '\n' });
      block = null;
    } else if (block !== null) {
      block.lines.push(line);
    }
  });
  check(block === null, 'a block is not closed');
  return blocks;
}

// A parser that takes everything would prove nothing.
function checkParser(parser) {
  const right = 'Future<int> f() async => await g() ?? 1;\n';
  check(syntaxErrors(parser, right, 1).length === 0, 'the grammar rejects right code');
  const wrong = [
    'Future<int> f() async => await g( ?? 1;\n',
    'class C { void f() { if (true) { } }\n',
    'final int x = ;\n',
    'void f() { g(1 2); }\n',
  ];
  for (const source of wrong) {
    check(syntaxErrors(parser, source, 1).length > 0, `the grammar accepts ${source}`);
  }
}

function checkSyntax(parser, blocks) {
  check(blocks.length > 0, 'the page has no Dart block');
  for (const block of blocks) {
    failures.push(...syntaxErrors(parser, block.source, block.firstLine));
  }
  const file = blocks.map((block) => block.source).join('\n');
  check(syntaxErrors(parser, file, 1).length === 0, 'the blocks do not make one file');
}

function matches(text, pattern) {
  return new Set([...text.matchAll(pattern)].map((match) => match[1]));
}

// The rows of the table below a heading; each first cell's `names`.
function tableNames(text, heading) {
  const section = `\n${text}`.split(`\n${heading}\n`)[1].split(/\n#/)[0];
  const cells = [...section.matchAll(/^\|([^|]*)\|/gm)].map((match) => match[1]);
  return matches(cells.join('\n'), /`([^`]+)`/g);
}

function checkNames(blocks, page, channels) {
  const code = blocks.map((block) => block.source).join('\n');
  const methods = tableNames(channels, '## Methods');
  check(methods.size > 20, 'the methods of the channels page were not found');
  const written = new Set([
    ...matches(code, /'(\w+)'/g),
    ...matches(page, /`(\w+)` is another name for/g),
  ]);
  for (const name of methods) {
    check(written.has(name), `the page does not show ${name}`);
  }
  for (const name of matches(code, /(?:_call|_list)(?:<[\w<>?]+>)?\(\s*'(\w+)'/g)) {
    check(methods.has(name), `the page calls ${name}, which is no method`);
  }
  const wanted = tableNames(channels, '# Channels');
  const used = matches(code.replaceAll('$id', '<id>'), /'(lumso_bluetooth\/[^']+)'/g);
  check([...wanted].sort().join() === [...used].sort().join(),
      `the page uses the channels ${[...used].sort()}`);
}

await Parser.init();
const grammar = require.resolve('tree-sitter-wasms/out/tree-sitter-dart.wasm');
const parser = new Parser();
parser.setLanguage(await Language.load(grammar));

const page = fs.readFileSync(dartPage, 'utf8');
const blocks = dartBlocks(page);
checkParser(parser);
checkSyntax(parser, blocks);
checkNames(blocks, page, fs.readFileSync(channelsPage, 'utf8'));
for (const failure of failures) console.error(`${dartPage}: ${failure}`);
console.log(`${blocks.length} blocks, ${failures.length} failures`);
process.exitCode = failures.length === 0 ? 0 : 1;
