// The Dart grammar from npm, and what the checks ask of its trees.

import { createRequire } from 'node:module';
import path from 'node:path';

// Returns a function from a text to its tree's root. MODULES is the folder into
// which npm installed.
export async function loadGrammar(modules) {
  const require = createRequire(path.join(path.resolve(modules), 'package.json'));
  const { Language, Parser } = require('web-tree-sitter');
  await Parser.init();
  const parser = new Parser();
  parser.setLanguage(
      await Language.load(require.resolve('tree-sitter-wasms/out/tree-sitter-dart.wasm')));
  // The grammar does not know a library directive without a name.
  return (text) => parser.parse(text.replace(/^library;$/m, ' '.repeat(8))).rootNode;
}

// Calls visit for a node and everything below it, in order.
export function walk(node, visit) {
  visit(node);
  node.namedChildren.forEach((child) => walk(child, visit));
}

export function all(node, ...types) {
  const found = [];
  walk(node, (each) => { if (types.includes(each.type)) found.push(each); });
  return found;
}

// Returns what the grammar does not accept, as lines of text.
export function syntaxErrors(root, firstLine = 1) {
  const errors = [];
  const visit = (node) => {
    if (node.isError || node.isMissing) {
      const text = node.isMissing ? `missing ${node.type}` : node.text.split('\n')[0];
      errors.push(`line ${firstLine + node.startPosition.row}: ${text}`);
    } else if (node.hasError) {
      node.children.forEach(visit);
    }
  };
  visit(root);
  return errors;
}

// A parser that takes everything would prove nothing.
export function grammarFaults(parse) {
  const right = [
    '/// Text.\nlibrary;\n\nexport "a.dart";\n',
    'Future<int> f() async => await g() ?? 1;\n',
    'void f(A a) { switch (a) { case B(:final int c): print(c); default: } }\n',
  ];
  const wrong = [
    'Future<int> f() async => await g( ?? 1;\n',
    'class C { void f() { if (true) { } }\n',
    'final int x = ;\n',
    'void f() { g(1 2); }\n',
  ];
  return [
    ...right.filter((text) => syntaxErrors(parse(text)).length > 0)
        .map((text) => `the grammar rejects ${text}`),
    ...wrong.filter((text) => syntaxErrors(parse(text)).length === 0)
        .map((text) => `the grammar accepts ${text}`),
  ];
}

const containers = new Set([
  'class_definition', 'enum_declaration', 'extension_declaration',
  'extension_type_declaration', 'mixin_declaration',
]);
const bodies = new Set(['class_body', 'enum_body', 'extension_body']);

const isPrivate = (name) => name.split('.').some((part) => part.startsWith('_'));

function memberNames(node) {
  if (node.type === 'enum_constant') return [node.namedChildren[0].text];
  for (const part of node.namedChildren) {
    const identifiers = part.namedChildren
        .filter((child) => child.type === 'identifier').map((child) => child.text);
    if (part.type === 'operator_signature') return ['operator'];
    if (part.type.endsWith('constructor_signature')) return [identifiers.join('.')];
    if (part.type.endsWith('_signature')) return [identifiers[0]];
    if (part.type.endsWith('_list')) {
      return part.namedChildren.map((child) => child.namedChildren[0].text);
    }
  }
  return [];
}

// Returns what `body` declares, its members or a file's classes: { name, line,
// isDocumented, isInherited, isPrivate, members }. `onOther` gets nodes that the
// checks cannot read.
function declarationsIn(nodes, onOther) {
  const found = [];
  let isDocumented = false;
  let isInherited = false;
  for (const node of nodes) {
    const line = node.startPosition.row + 1;
    const add = (name, members) => found.push(
        { name, line, isDocumented, isInherited, isPrivate: isPrivate(name), members });
    if (node.type === 'documentation_comment') {
      isDocumented ||= node.text.replaceAll('/', '').trim() !== '';
      continue;
    } else if (node.type === 'annotation') {
      isInherited ||= node.text === '@override';
      continue;
    } else if (containers.has(node.type)) {
      const name = node.namedChildren.find((child) => child.type === 'identifier').text;
      const body = node.namedChildren.find((child) => bodies.has(child.type));
      add(name, declarationsIn(body.namedChildren, onOther));
    } else if (node.type === 'type_alias') {
      add(node.namedChildren.find((child) => child.type === 'type_identifier').text, []);
    } else if (['declaration', 'enum_constant', 'method_signature'].includes(node.type)) {
      const names = memberNames(node);
      if (names.length === 0) onOther(node);
      names.forEach((name) => add(name, []));
    } else if (!['comment', 'function_body', 'import_or_export'].includes(node.type)) {
      onOther(node);
    }
    isDocumented = isInherited = false;
  }
  return found;
}

export function declarations(root, onOther) {
  return declarationsIn(root.namedChildren, onOther);
}

// Returns what a file imports or exports: [{ kind, uri, isWhole }].
export function directives(root) {
  return all(root, 'library_import', 'library_export').map((node) => ({
    kind: node.type.split('_')[1],
    uri: all(node, 'uri')[0].text.slice(1, -1),
    isWhole: all(node, 'combinator').length === 0,
  }));
}

// The names that a file's code uses, comments and directives left out.
export function usedNames(root) {
  return new Set(root.namedChildren
      .filter((node) => node.type !== 'import_or_export')
      .flatMap((node) => all(node, 'identifier', 'type_identifier'))
      .map((node) => node.text));
}
