// Numbers as people read them, and elements. Every text of the trace reaches the page as the text of a node, so that
// none of it can become markup.
'use strict';

const wholeNumber = new Intl.NumberFormat('en');

function number(value) { return wholeNumber.format(value); }

function plural(count, one, many) { return `${number(count)} ${count === 1 ? one : many}`; }

// Three digits are enough to compare by eye.
function size(bytes) {
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB', 'PiB'];
  let unit = 0;
  let value = bytes;
  while (Math.abs(value) >= 1024 && unit < units.length - 1) { value /= 1024; unit++; }
  const digits = unit === 0 || Number.isInteger(value) || value >= 100 ? 0 : value >= 10 ? 1 : 2;
  return `${value.toFixed(digits)} ${units[unit]}`;
}

function sizeWithBytes(bytes) { return bytes < 1024 ? size(bytes) : `${size(bytes)} (${number(bytes)} bytes)`; }

function time(ms) {
  if (ms < 1000) { return `${Math.round(ms)} ms`; }
  if (ms < 60000) { return `${Number((ms / 1000).toFixed(3))} s`; }
  const seconds = Math.floor(ms / 1000);
  const rest = Math.round(ms % 1000);
  const two = (value) => String(value).padStart(2, '0');
  const clock = `${two(Math.floor(seconds / 60) % 60)}:${two(seconds % 60)}${rest ? `.${String(rest).padStart(3, '0')}` : ''}`;
  return seconds < 3600 ? `${clock} min` : `${Math.floor(seconds / 3600)}:${clock} h`;
}

function address(low, offset) { return (BigInt(`0x${low}`) + BigInt(offset)).toString(16).toUpperCase().padStart(16, '0'); }

function siteName(site) { return site === '' ? '(no call site)' : site; }

function shorten(text, length) { return text.length > length ? `${text.slice(0, length - 1)}\u2026` : text; }

function byId(id) { return document.getElementById(id); }

function element(tag, attributes, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) { made.setAttribute(name, value); }
  made.append(...children.map((child) => (child instanceof Node ? child : String(child))));
  return made;
}

function tableRow(head, cells) {
  return element('tr', {}, element('th', { scope: 'row' }, head), ...cells.map((cell) => element('td', { class: 'number' }, cell)));
}

function key(variable) { return element('span', { class: 'key', style: `--key: var(--${variable})` }); }

// The content of a tooltip: a heading and pairs of label and text.
function tip(heading, pairs) {
  const rows = pairs.map(([label, text]) => element('tr', {}, element('th', {}, label), element('td', {}, text)));
  return element('div', { class: 'tip' }, element('strong', {}, heading), element('table', {}, ...rows));
}

// Colours stand in the style sheet alone.
function colour(name) { return getComputedStyle(document.documentElement).getPropertyValue(`--${name}`).trim(); }
