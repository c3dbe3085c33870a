// Puts the page together and writes it as C++: node assemble.mjs SOURCES NODE_MODULES OUTPUT
import { readFileSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';

const [sources, modules, output] = process.argv.slice(2);
const read = (folder) => (name) => readFileSync(join(folder, name), 'utf8').replaceAll('\r\n', '\n');
const source = read(sources);
const module = read(modules);

const library = module('echarts/dist/echarts.min.js');
const script = ['text.js', 'timeline.js', 'sites.js', 'pool.js', 'report.js'].map(source).join('\n');
for (const [name, text] of Object.entries({ library, script })) {
  if (/<\/script|<!--/i.test(text)) { // either of them would end the element, or change how it is read
    throw new Error(`the ${name} of the page can't stand inside a script element`);
  }
}

const licences = [ // of the library, and of what its file holds of others
  'echarts/LICENSE', 'echarts/NOTICE', 'echarts/licenses/LICENSE-d3', 'zrender/LICENSE', 'tslib/CopyrightNotice.txt',
].map((name) => `${name}\n\n${module(name).trim()}\n`).join('\n\n').replaceAll('&', '&amp;').replaceAll('<', '&lt;');

const parts = { style: source('report.css'), licences, library, script };
const page = source('report.html').replace(/@(style|licences|library|script)@/g, (_, name) => parts[name].trim());
const [begin, end, more] = page.split('@trace@');
if (end === undefined || more !== undefined) {
  throw new Error('the page needs one place for the trace');
}

const delimiter = 'brenvole_page'; // 16 characters at most
for (const text of [begin, end]) {
  if (text.includes(`)${delimiter}"`) || /[\0\r]/.test(text)) {
    throw new Error("the page can't stand in a raw string literal");
  }
}
const literal = (text) => `R"${delimiter}(${text})${delimiter}"sv`;
writeFileSync(output, `#include "page.h"
using namespace std::string_view_literals;
const std::string_view traceview::kPageBegin = ${literal(begin)};
const std::string_view traceview::kPageEnd = ${literal(end)};
`);
