// Opens pages of `brenvole-trace report` in a browser and uses them: node check.mjs REPORT.html...
// What a page must show is told by the data that stands in it. The browser is $CHROMIUM.
import { resolve } from 'node:path';
import { pathToFileURL } from 'node:url';
import { chromium } from 'playwright-core';

const files = process.argv.slice(2);
const patience = 15000; // milliseconds; a busy machine takes its time
const charts = ['memory', 'problems', 'sites', 'pool'];
const overTime = ['memory', 'problems', 'pool'];
let passed = 0;
let failed = 0;

async function check(text, work, applies = true) {
  if (!applies) { return; }
  try {
    await work();
    passed++;
    console.log(`ok      ${text}`);
  } catch (error) {
    failed++;
    console.log(`FAILED  ${text}: ${String(error.message).split('\n')[0]}`);
  }
}

function expect(condition, text) { if (!condition) { throw new Error(text); } }

function expectSame(found, wanted, text) {
  const [a, b] = [found, wanted].map((value) => JSON.stringify(value));
  expect(a === b, `${text}: ${a?.slice(0, 200)}, not ${b?.slice(0, 200)}`);
}

// Looks again and again, since what the mouse or the system changes is drawn a little later.
async function eventually(look, accept) {
  const limit = Date.now() + patience;
  let found = await look();
  while (!accept(found) && Date.now() < limit) { found = await look(); }
  return found;
}

// ---- looking at a page --------------------------------------------------------------------------------------------

function chartNames(page) { return page.evaluate(() => Object.keys(window.brenvoleReport.charts)); }

// How many pixels of a chart have about the colour that the style sheet gives this name.
function pixelsOf(page, chart, name) {
  return page.evaluate(([id, variable]) => {
    const probe = document.createElement('canvas').getContext('2d', { willReadFrequently: true });
    probe.fillStyle = getComputedStyle(document.documentElement).getPropertyValue(`--${variable}`).trim();
    probe.fillRect(0, 0, 1, 1);
    const wanted = probe.getImageData(0, 0, 1, 1).data;
    let count = 0;
    for (const canvas of document.querySelectorAll(`#${id} canvas`)) {
      const ratio = canvas.width / canvas.clientWidth;
      const grid = window.brenvoleReport.charts[id].getModel().getComponent('grid').coordinateSystem.getRect();
      const copy = document.createElement('canvas');
      copy.width = canvas.width;
      copy.height = canvas.height;
      const context = copy.getContext('2d', { willReadFrequently: true });
      context.drawImage(canvas, 0, 0);
      const { data } = context.getImageData(grid.x * ratio, grid.y * ratio, grid.width * ratio, grid.height * ratio);
      for (let at = 0; at < data.length; at += 4) {
        const away = Math.max(...[0, 1, 2].map((part) => Math.abs(data[at + part] - wanted[part])));
        if (data[at + 3] > 150 && away < 24) { count++; }
      }
    }
    return count;
  }, [chart, name]);
}

// A chart's first grid as a picture.
function picture(page, chart) {
  return page.evaluate((id) => {
    window.brenvoleReport.charts[id].getZr().flush();
    const grid = window.brenvoleReport.charts[id].getModel().getComponent('grid').coordinateSystem.getRect();
    return [...document.querySelectorAll(`#${id} canvas`)].map((canvas) => {
      const copy = document.createElement('canvas');
      [copy.width, copy.height] = [grid.width, grid.height];
      const ratio = canvas.width / canvas.clientWidth;
      copy.getContext('2d').drawImage(canvas, grid.x * ratio, grid.y * ratio, grid.width * ratio, grid.height * ratio, 0, 0, grid.width, grid.height);
      return copy.toDataURL();
    }).join();
  }, chart);
}

// The place in the window of a value in a chart's first grid, and the chart in the middle of the window.
function placeOf(page, chart, value) {
  return page.evaluate(([id, at]) => {
    const box = document.getElementById(id);
    box.scrollIntoView({ block: 'center' });
    const [x, y] = window.brenvoleReport.charts[id].convertToPixel({ xAxisIndex: 0, yAxisIndex: 0 }, at);
    const { left, top } = box.getBoundingClientRect();
    return { x: left + x, y: top + y };
  }, [chart, value]);
}

async function hover(page, chart, value, texts, shift = 0) {
  const { x, y } = await placeOf(page, chart, value);
  await page.mouse.move(x - 3, y + shift);
  await page.mouse.move(x, y + shift);
  const tip = page.locator(`#${chart} .tip`);
  await tip.waitFor({ state: 'visible', timeout: patience });
  await page.waitForFunction(([id, wanted]) => {
    const shown = document.querySelector(`#${id} .tip`)?.textContent ?? '';
    return wanted.every((text) => shown.includes(text));
  }, [chart, texts], { timeout: patience }).catch(async () => {
    throw new Error(`the tooltip says "${(await tip.textContent())?.slice(0, 200)}" and lacks one of ${JSON.stringify(texts).slice(0, 200)}`);
  });
}

// What a chart shows of its axes, in their units.
function zoomOf(page, chart, id) {
  return page.evaluate(([name, zoom]) => {
    const { startValue, endValue } = window.brenvoleReport.charts[name].getOption().dataZoom.find((one) => one.id === zoom);
    return [startValue, endValue];
  }, [chart, id]);
}

async function waitForZoom(page, chart, id, accept, text) {
  const now = await eventually(() => zoomOf(page, chart, id), accept);
  expect(accept(now), `${text}: ${chart} shows ${now}`);
  return now;
}

async function wheelOver(page, chart, value) {
  const { x, y } = await placeOf(page, chart, value);
  await page.mouse.move(x, y);
  await page.mouse.wheel(0, -400);
}

const siteName = (site) => (site === '' ? '(no call site)' : site);

// The block that covers most, of the outstanding ones if there are any: it lies on top.
function largestBlock({ blocks }, events) {
  const all = blocks.id.map((_, index) => index);
  const outstanding = all.filter((index) => blocks.to[index] === 0);
  const end = (index) => blocks.to[index] || events;
  const area = (index) => blocks.bytes[index] * (end(index) - blocks.from[index] + 1);
  const best = (outstanding.length > 0 ? outstanding : all).reduce((a, b) => (area(b) > area(a) ? b : a));
  return { index: best, value: [(blocks.from[best] + end(best)) / 2, blocks.offset[best] + blocks.bytes[best] / 2] };
}

function plainNumber(text) { return Number(text.replaceAll(',', '')); }

function cells(page, table) {
  return page.locator(`${table} tbody tr`).evaluateAll((rows) => rows.map((row) => [...row.cells].map((cell) => cell.textContent)));
}

// ---- the checks ---------------------------------------------------------------------------------------------------

async function checkTexts(page, trace) {
  await check('file, remarks and totals are shown letter by letter', async () => {
    expectSame(await page.locator('#file').evaluate((node) => node.textContent), trace.file, 'file');
    expectSame(await page.locator('#remarks li').evaluateAll((nodes) => nodes.map((node) => node.textContent)), trace.remarks, 'remarks');
    expectSame(await page.locator('#remarks').isVisible(), trace.remarks.length > 0, 'remarks are visible');
    expectSame(await page.locator('#totals tbody tr').count(), trace.totals.length, 'rows of totals');
    const made = (await cells(page, '#totals')).map((row) => plainNumber(row[1]));
    expectSame(made, trace.totals.map((total) => total.made), 'made');
  });
  await check('each chart is there if it has data, else a sentence', async () => {
    const wanted = {
      memory: trace.totals.at(-1).made > 0, problems: trace.problems.points.length > 0,
      sites: trace.sites.rows.length > 0, pool: trace.pools.length > 0,
    };
    expectSame((await chartNames(page)).sort(), charts.filter((name) => wanted[name]).sort(), 'charts');
    for (const name of charts) {
      expect((await page.locator(`#${name}Text`).textContent()).length > 10, `${name} has no sentence`);
      expectSame(await page.locator(`#${name} canvas`).count() > 0, wanted[name], `canvas of ${name}`);
    }
  });
}

async function checkTable(page, trace) {
  const rows = trace.sites.rows;
  await check('the table has all call sites, letter by letter', async () => {
    const shown = (await cells(page, '#sitesTable')).map((row) => row[0]);
    expectSame(shown, rows.map((row) => siteName(row.site)), 'call sites');
  });
  for (const [text, field] of [['Count', 'count'], ['Bytes', 'bytes'], ['Oldest', 'oldestEvent']]) {
    await check(`the table is sorted by ${text}, both ways`, async () => {
      const button = page.locator('#sitesTable th button', { hasText: text });
      const directions = [];
      for (let click = 0; click < 2; click++) {
        await button.click();
        const direction = await button.evaluate((node) => node.parentElement.getAttribute('aria-sort'));
        directions.push(direction);
        const sign = direction === 'ascending' ? 1 : -1;
        const wanted = [...rows].sort((a, b) => sign * (a[field] - b[field])).map((row) => [siteName(row.site), row.count]);
        const shown = (await cells(page, '#sitesTable')).map((row) => [row[0], plainNumber(row[2])]);
        expectSame(shown, wanted, `${direction} by ${text}`);
      }
      expectSame(directions.sort(), ['ascending', 'descending'], 'directions');
      expectSame(await page.locator('#sitesTable th[aria-sort]').count(), 1, 'sorted columns');
    });
  }
}

async function checkPixels(page, trace, name) {
  const wanted = {
    memory: trace.totals.slice(0, -1).filter((total) => total.peakBytes > 0).map((total) => total.kind),
    problems: ['alert'],
    sites: trace.sites.rows.slice(0, 1).map((row) => row.kind),
    pool: trace.pools[0]?.blocks.to.includes(0) ? ['alert'] : [], // others may be thinner than a pixel
  };
  await check(`${name} has pixels of ${wanted[name].join(', ')}`, async () => {
    for (const variable of wanted[name]) { expect(await pixelsOf(page, name, variable) > 0, `none of ${variable}`); }
  });
}

async function checkTooltips(page, trace, names) {
  const byTime = await page.locator('#byTime').getAttribute('aria-pressed') === 'true'; // a short run begins by row
  await check('memory: the tooltip has the kinds and the rows', async () => {
    const half = trace.steps.bytes.map((values) => Math.max(...values.high)).reduce((a, b) => Math.max(a, b)) / 2;
    await hover(page, 'memory', [(byTime ? trace.duration : trace.events) / 2, half], [...trace.kinds, 'Row']);
  }, names.includes('memory'));
  await check('problems: the tooltip has all fields, letter by letter', async () => {
    const last = trace.problems.points.at(-1); // it lies on top
    const down = await page.evaluate(() => window.brenvoleReport.charts.problems.getOption().series[0].symbolOffset[1]);
    await hover(page, 'problems', [byTime ? last.time : last.event, last.action],
      [trace.problems.actions[last.action], siteName(last.site), last.detail, last.event.toLocaleString('en')], down);
  }, names.includes('problems'));
  await check('sites: the tooltip has all fields, letter by letter', async () => {
    const first = trace.sites.rows[0];
    await hover(page, 'sites', [first.bytes / 2, 0],
      [siteName(first.site), siteName(first.lastSite), String(first.oldestId), first.example.join(', ')]);
  }, names.includes('sites'));
}

async function checkPool(page, trace) {
  const pool = trace.pools[0];
  const layers = await page.evaluate(() => window.brenvoleReport.charts.pool.getOption().legend[0].data);
  const groups = layers.filter((name) => name !== 'raster');
  const toggle = (names) => page.evaluate((list) => {
    const { pool: chart } = window.brenvoleReport.charts;
    list.forEach((name) => chart.dispatchAction({ type: 'legendToggleSelect', name }));
  }, names);
  const middle = [trace.events / 2, Number(BigInt(`0x${pool.high}`) - BigInt(`0x${pool.low}`)) / 2];
  await check('pool: the raster is drawn, and its tooltip has the share in use', async () => {
    const all = await picture(page, 'pool');
    await toggle(groups);
    const withRaster = await picture(page, 'pool');
    expect(withRaster !== all, 'no blocks');
    await toggle(['raster']);
    expect(await picture(page, 'pool') !== withRaster, 'nothing of it');
    await toggle(['raster']);
    await hover(page, 'pool', middle, ['% in use', 'rows']);
    await toggle(groups);
  });
  await check('pool: the tooltip of a block has its number, call site and address', async () => {
    const { index, value } = largestBlock(pool, trace.events);
    const start = (BigInt(`0x${pool.low}`) + BigInt(pool.blocks.offset[index])).toString(16).toUpperCase().padStart(16, '0');
    await page.evaluate(([startValue, endValue]) => {
      window.brenvoleReport.charts.pool.dispatchAction({ type: 'dataZoom', dataZoomId: 'xInside', startValue, endValue });
    }, [pool.blocks.from[index] - 5, (pool.blocks.to[index] || trace.events) + 5]);
    await hover(page, 'pool', value, [siteName(trace.callSites[pool.blocks.site[index]]), String(pool.blocks.id[index]), start]);
    await page.locator('#reset').click();
  }, pool.blocks.id.length > 0);
  await check('pool: the wheel zooms the addresses as well', async () => {
    const before = await zoomOf(page, 'pool', 'yInside');
    await wheelOver(page, 'pool', middle);
    await waitForZoom(page, 'pool', 'yInside', ([from, to]) => to - from < before[1] - before[0], 'no zoom');
    await page.locator('#reset').click();
    await waitForZoom(page, 'pool', 'yInside', (now) => now.join() === before.join(), 'not reset');
  });
  await check('pool: another one can be chosen', async () => {
    for (const [index, { low, high }] of [...trace.pools.entries()].reverse()) {
      await page.locator('#poolSelect').selectOption({ index });
      const text = await page.locator('#poolText').textContent();
      expect(text.includes(low) && text.includes(high), `the text is "${text}"`);
    }
  }, trace.pools.length > 1);
}

async function checkAxis(page, trace, names) {
  const linked = overTime.filter((name) => names.includes(name));
  const ends = () => Promise.all(linked.map((name) => page.evaluate((id) => window.brenvoleReport.charts[id].getOption().xAxis[0].max, name)));
  await check('wheel and "Show all" zoom all charts over time', async () => {
    for (const name of linked) {
      const whole = await zoomOf(page, name, 'xInside');
      const third = whole[0] + (whole[1] - whole[0]) / 3;
      const height = name === 'problems' ? 0 : 1;
      await wheelOver(page, name, [third, height]);
      const now = await waitForZoom(page, name, 'xInside', ([from, to]) => to - from < whole[1] - whole[0], 'the wheel does nothing');
      for (const other of linked) {
        const close = (value, end) => Math.abs(value - now[end]) <= (whole[1] - whole[0]) / 1000;
        await waitForZoom(page, other, 'xInside', (view) => view.every(close), `unlike ${name} with ${now}`);
      }
      expect(!await page.locator('#reset').isDisabled(), '"Show all" is off');
      await page.locator('#reset').click();
      for (const other of linked) { await waitForZoom(page, other, 'xInside', (view) => view.join() === whole.join(), 'not reset'); }
    }
  });
  await check('the axis is switched to row numbers and back', async () => {
    await page.locator('#byTime').click();
    expectSame(await ends(), linked.map(() => Math.max(1, trace.duration)), 'ends in time');
    const inTime = await picture(page, linked[0]);
    await page.locator('#byTime').click();
    expect(await picture(page, linked[0]) === inTime, 'the picture changes without a cause');
    await page.locator('#byRow').click();
    expectSame(await ends(), linked.map(() => trace.events), 'ends in rows');
    expect(await picture(page, linked[0]) !== inTime, 'the picture is the same');
    expectSame(await page.locator('nav [aria-pressed=true]').textContent(), 'Row number', 'pressed');
  });
  if (names.includes('pool')) { await checkPool(page, trace); } // by row, where blocks of the same millisecond lie apart
  await check('and back', async () => {
    await page.locator('#byTime').click();
    expectSame(await ends(), linked.map(() => Math.max(1, trace.duration)), 'ends in time');
  });
}

async function checkLook(page, names, kind) {
  await check('dark: the page and its charts change their colours', async () => {
    const look = () => page.evaluate((variable) => [
      getComputedStyle(document.body).backgroundColor, getComputedStyle(document.documentElement).getPropertyValue(`--${variable}`),
    ], kind);
    const light = await look();
    await page.emulateMedia({ colorScheme: 'dark' });
    const dark = await look();
    expect(light.every((value, index) => value !== dark[index]), `${dark}`);
    if (names.includes('memory')) {
      expect(await eventually(() => pixelsOf(page, 'memory', kind), (count) => count > 0) > 0, `no dark ${kind}`);
    }
    await page.emulateMedia({ colorScheme: 'light' });
  });
  await check('narrow: nothing sticks out', async () => {
    await page.setViewportSize({ width: 380, height: 800 });
    await page.waitForFunction(() => [...document.querySelectorAll('.chart canvas')].every((canvas) => canvas.clientWidth < 380), null, { timeout: patience });
    expect(await page.evaluate(() => document.documentElement.scrollWidth) <= 380, 'the page scrolls sideways');
  });
}

async function checkPage(browser, file) {
  console.log(file);
  const url = pathToFileURL(resolve(file)).href;
  const page = await browser.newPage({ viewport: { width: 1280, height: 900 }, colorScheme: 'light' });
  const complaints = [];
  const requests = [];
  page.on('console', (message) => { if (['error', 'warning'].includes(message.type())) { complaints.push(message.text()); } });
  page.on('pageerror', (error) => complaints.push(error.message));
  page.on('request', (request) => requests.push(request.url()));
  await page.goto(url);
  await check('the page gets ready', () => page.waitForFunction(() => window.brenvoleReport?.ready === true, null, { timeout: patience }));
  if (await page.evaluate(() => window.brenvoleReport?.ready === true)) {
    const trace = await page.evaluate(() => JSON.parse(document.getElementById('trace').textContent));
    const names = await chartNames(page);
    await checkTexts(page, trace);
    if (trace.sites.rows.length > 0) { await checkTable(page, trace); }
    for (const name of names) { await checkPixels(page, trace, name); }
    await checkTooltips(page, trace, names);
    if (overTime.some((name) => names.includes(name))) { await checkAxis(page, trace, names); }
    await checkLook(page, names, trace.totals.slice(0, -1).reduce((a, b) => (b.peakBytes > a.peakBytes ? b : a)).kind);
  }
  await check('no text of the trace became an element, or ran', async () => {
    const foreign = 'a, b, i, img, svg, link, iframe, object, embed, form, input, video, audio'; // the page has none of these
    const strange = await page.locator(foreign).evaluateAll((nodes) => nodes.map((node) => node.outerHTML));
    expectSame(strange, [], 'elements');
    expectSame(await page.locator('script').count(), 3, 'scripts');
    expectSame(await page.evaluate(() => typeof window.hacked), 'undefined', 'window.hacked');
  });
  await check('the console has no complaint', async () => expectSame(complaints, [], 'console'));
  await check('nothing but the page itself is loaded', async () => expectSame(requests.filter((one) => one !== url), [], 'requests'));
  await page.close();
}

const browser = await chromium.launch({
  executablePath: process.env.CHROMIUM,
  args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking', '--disable-component-update', '--disable-sync'],
});
for (const file of files) { await checkPage(browser, file); }
await browser.close();
console.log(`${passed} passed, ${failed} failed`);
process.exit(failed > 0 ? 1 : 0);
