// Reads the trace that stands in the page and shows it.

function figure(text, value, more, alert = false) {
  return element('div', alert ? { class: 'alert' } : {}, element('dt', {}, text),
    element('dd', {}, value, element('span', { class: 'more' }, more)));
}

function fillHeader(trace) {
  const all = trace.totals.at(-1);
  document.title = `${trace.file} \u2013 trace report`;
  byId('tool').textContent = trace.tool;
  byId('file').textContent = trace.file;
  byId('remarks').hidden = trace.remarks.length === 0;
  byId('remarks').replaceChildren(...trace.remarks.map((remark) => element('li', {}, remark)));
  byId('figures').replaceChildren(
    figure('Duration', time(trace.duration), `from time_ms ${trace.begin}`),
    figure('Rows', number(trace.events), `${size(trace.bytesOfFile)} of file`),
    figure('Peak', size(all.peakBytes), `at ${time(all.peakBytesTime)}`),
    figure('Outstanding', number(all.count), all.count === 0 ? 'all was released' : size(all.bytes), all.count > 0),
    figure('Problems', number(trace.problems.total), problemsOfKinds(trace), trace.problems.total > 0),
  );
}

function problemsOfKinds(trace) {
  return trace.problems.total === 0 ? 'none was recorded' : `of ${plural(trace.problems.actions.length, 'kind', 'kinds')}`;
}

function fillTotals(trace) {
  const headings = ['Kind', 'Made', 'Released', 'Outstanding', 'Bytes', 'Peak count', 'at', 'Peak bytes', 'at'];
  const head = headings.map((text, place) => element('th', { scope: 'col', ...(place > 0 ? { class: 'number' } : {}) }, text));
  const rows = trace.totals.map((of) => tableRow(
    element('span', {}, key(of.kind), of.kind === 'all' ? 'all' : kindText(of.kind)),
    [number(of.made), number(of.released), number(of.count), size(of.bytes), number(of.peakCount), time(of.peakCountTime),
      size(of.peakBytes), time(of.peakBytesTime)],
  ));
  byId('totals').replaceChildren(element('thead', {}, element('tr', {}, ...head)), element('tbody', {}, ...rows));
}

function fillTexts(trace) {
  const { problems, sites, pools } = trace;
  byId('problemsText').textContent = problems.total === 0
    ? 'No problem was recorded.'
    : `${plural(problems.total, 'problem', 'problems')} ${problemsOfKinds(trace)}; a larger dot stands for more of them.`;
  byId('sitesText').textContent = sites.total === 0 ? 'Nothing is outstanding.' : 'Who made what nobody has released.'
    + (sites.rows.length > mostBars ? ` The chart has the ${mostBars} largest.` : '')
    + (sites.rows.length < sites.total ? ` The table has the largest ${number(sites.rows.length)} of ${number(sites.total)}.` : '');
  byId('sitesTable').parentElement.hidden = sites.total === 0;
  if (pools.length === 0) { byId('poolText').textContent = 'No data lay in a pool.'; }
  if (kindsAlive(trace).length === 0) { byId('memoryText').textContent = 'Nothing was allocated.'; }
}

function fillPoolText(pool) {
  const shown = pool.blocks.id.length;
  const which = shown < pool.blocksTotal
    ? `Of ${number(pool.blocksTotal)} blocks the ${number(shown)} that lived longest are drawn, with all that are outstanding`
    : `${plural(shown, 'block', 'blocks')} by the call site that made them`;
  byId('poolText').textContent = `From ${pool.low} to ${pool.high}, ${size(pool.span)}. ${which}; the grey below is the share in use.`;
}

// ---- putting it together ----------------------------------------------------------------------------------------

function startChart(name, height, text) {
  const place = byId(name);
  place.style.height = `${height}px`;
  place.setAttribute('role', 'img');
  place.setAttribute('aria-label', text);
  charts[name] = echarts.init(place, null, { renderer: 'canvas' });
}

function startCharts(trace) {
  if (kindsAlive(trace).length > 0) { startChart('memory', 460, 'Live bytes and live count by kind'); }
  if (trace.problems.points.length > 0) { startChart('problems', problemsHeight(trace), 'Problems by kind'); }
  if (trace.sites.rows.length > 0) { startChart('sites', sitesHeight(trace), 'Outstanding bytes by call site'); }
  if (trace.pools.length > 0) {
    startChart('pool', 540, 'Blocks of the pool by address');
    followMouse(trace, charts.pool);
  }
  for (const [, chart] of chartsOverTime()) {
    followZoom(trace, chart);
    followCursor(chart);
  }
}

function draw(trace, pools) {
  if (charts.memory) { drawMemory(trace, charts.memory); }
  if (charts.problems) { drawProblems(trace, charts.problems); }
  if (charts.sites) { drawSites(trace, charts.sites); }
  if (charts.pool) { drawPool(trace, charts.pool, pools[byId('poolSelect').selectedIndex]); }
  showView(trace);
}

function startPools(trace, pools) {
  const select = byId('poolSelect');
  select.replaceChildren(...pools.map((pool) => element('option', {},
    `${pool.low} \u2013 ${pool.high}, ${plural(pool.blocksTotal, 'block', 'blocks')}`)));
  byId('poolChoice').hidden = pools.length < 2;
  const choose = () => fillPoolText(pools[select.selectedIndex]);
  select.addEventListener('change', () => {
    map.across = [0, 100];
    choose();
    draw(trace, pools);
  });
  if (pools.length > 0) { choose(); }
}

const shortestByTime = 50; // milliseconds: in a shorter run too many rows share a moment

function start() {
  const trace = JSON.parse(byId('trace').textContent);
  const pools = trace.pools.map((pool) => readPool(trace, pool));
  fillHeader(trace);
  fillTotals(trace);
  fillTexts(trace);
  fillSitesTable(trace, byId('sitesTable'));
  startPools(trace, pools);
  startCharts(trace);
  axis.view = axisRange(trace);
  const again = () => draw(trace, pools);

  const setAxis = (byTime) => {
    switchAxis(trace, byTime);
    byId('byTime').setAttribute('aria-pressed', String(byTime));
    byId('byRow').setAttribute('aria-pressed', String(!byTime));
    again();
  };
  setAxis(trace.duration >= shortestByTime);
  document.querySelector('nav').hidden = chartsOverTime().length === 0;
  byId('byTime').addEventListener('click', () => setAxis(true));
  byId('byRow').addEventListener('click', () => setAxis(false));
  byId('reset').addEventListener('click', () => showAll(trace));
  window.addEventListener('resize', () => {
    Object.values(charts).forEach((chart) => chart.resize());
    again();
  });
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', again);
  const print = (on) => () => { document.documentElement.toggleAttribute('data-print', on); again(); };
  window.addEventListener('beforeprint', print(true)); // paper is white
  window.addEventListener('afterprint', print(false));
  window.brenvoleReport = { charts, ready: true };
}

start();
