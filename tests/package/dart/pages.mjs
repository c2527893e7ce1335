// What the pages of the documents hold: Dart blocks, and the tables of the
// channels' page.

// Returns the ```dart blocks of a page, each with its first line's number.
export function dartBlocks(text) {
  const lines = text.split('\n');
  const blocks = [];
  for (let first = 0; first < lines.length; ++first) {
    if (lines[first] !== '```dart') continue;
    const end = lines.indexOf('```', first);
    if (end < 0) throw new Error(`the block at line ${first + 1} is not closed`);
    blocks.push({ firstLine: first + 2, source: lines.slice(first + 1, end).join('\n') + '\n' });
    first = end;
  }
  return blocks;
}

const matches = (text, pattern) => [...text.matchAll(pattern)].map((match) => match[1]);

// The cells of the table below a heading, row by row, without the table's own
// heading.
function tableRows(page, heading) {
  const section = `\n${page}`.split(`\n${heading}\n`)[1];
  if (section === undefined) throw new Error(`the channels' page has no "${heading}"`);
  return section.split(/\n#/)[0].split('\n')
      .filter((line) => line.startsWith('| '))
      .slice(1)
      .map((line) => line.split('|').slice(1, -1).map((cell) => cell.trim()));
}

const answerTypes = {
  'bool': 'bool', 'int': 'int', 'string': 'String', 'null': 'Object?',
  'list of device maps': 'List<Object?>',
};

// Returns what doc/channels.md lays down: channels, methods with their
// arguments and the Dart type of their answer, keys of maps, kinds of event and
// error codes.
export function readChannelsPage(page) {
  const methods = new Map();
  for (const [names, args, answer] of tableRows(page, '## Methods')) {
    for (const name of matches(names, /`(\w+)`/g)) {
      methods.set(name, {
        keys: matches(args, /`(\w+)`:/g),
        type: answerTypes[answer.split(':')[0]],
      });
    }
  }
  const events = tableRows(page, '### `lumso_bluetooth/discovery`').map((row) => row[1]).join();
  return {
    channels: tableRows(page, '# Channels').map((row) => row[0].replaceAll('`', '')),
    methods,
    keys: new Set([
      ...[...methods.values()].flatMap((method) => method.keys),
      ...tableRows(page, '## The device map').map((row) => row[0].replaceAll('`', '')),
      ...matches(events, /`(\w+)`:/g),
    ]),
    kinds: matches(events, /`"(\w+)"`/g),
    codes: [...new Set(tableRows(page, '### Errors').map((row) => row[1].replaceAll('`', '')))],
    messages: tableRows(page, '### Errors').map((row) => row[2].replaceAll('`', '')),
  };
}
