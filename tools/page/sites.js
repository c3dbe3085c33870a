// What is outstanding at the end, by the call site that made it.

const mostBars = 30;
const barRow = 24;

function siteTip(site) {
  return tip(siteName(site.site), [
    ['kind', kindText(site.kind)], ['count', number(site.count)], ['bytes', sizeWithBytes(site.bytes)],
    ['oldest', `alloc_id ${site.oldestId}, row ${number(site.oldestEvent)}, ${time(site.oldestTime)}`],
    ['last touched by', lastSites(site)], ['alloc_id of some', site.example.join(', ')],
  ]);
}

function lastSites(site) {
  return siteName(site.lastSite) + (site.otherLastSites > 0 ? ` and ${plural(site.otherLastSites, 'other', 'others')}` : '');
}

function sitesHeight(trace) { return Math.min(mostBars, trace.sites.rows.length) * barRow + 66; }

function drawSites(trace, chart) {
  const rows = trace.sites.rows.slice(0, mostBars);
  const names = Math.round(Math.min(300, chart.getWidth() * 0.36));
  const largest = Math.max(1, ...rows.map((row) => row.bytes));
  const tick = tickOfBytes(largest * (chart.getWidth() < 600 ? 2 : 1));
  const kinds = trace.kinds.filter((kind) => rows.some((row) => row.kind === kind));
  chart.setOption({
    animation: false,
    legend: { ...legendBase(chart), data: kinds, formatter: kindLegend(chart) },
    grid: { left: names + 12, right: 90, top: 34, bottom: 28 },
    xAxis: valueAxis({ axisLabel: { formatter: size }, rest: { min: 0, max: Math.ceil(largest / tick) * tick, interval: tick } }),
    yAxis: {
      type: 'category', inverse: true, data: rows.map((_, index) => String(index)), // a site stands once for each kind
      axisTick: { show: false }, axisLine: { lineStyle: { color: colour('line') } },
      axisLabel: {
        color: colour('ink'), fontSize: 12, interval: 0, width: names, overflow: 'truncate',
        formatter: (index) => shorten(siteName(rows[index].site), 120),
      },
    },
    dataZoom: [{ id: 'yInside', type: 'inside', yAxisIndex: 0, zoomOnMouseWheel: 'ctrl', moveOnMouseMove: false, moveOnMouseWheel: false, minValueSpan: 4 }],
    tooltip: { ...tooltipBase(), trigger: 'item', formatter: (item) => siteTip(rows[item.dataIndex]) },
    series: kinds.map((kind) => ({
      type: 'bar', id: kind, name: kind, stack: 'bytes', barMaxWidth: 15, color: colour(kind), // one of a stack is there in each row
      data: rows.map((row) => (row.kind === kind ? row.bytes : null)),
      itemStyle: { borderRadius: [0, 3, 3, 0] },
      label: {
        show: true, position: 'right', color: colour('soft'), fontSize: 11,
        formatter: (item) => `${size(rows[item.dataIndex].bytes)} \u00b7 ${number(rows[item.dataIndex].count)}`,
      },
    })),
  }, { notMerge: true });
}

// ---- the table --------------------------------------------------------------------------------------------------

const siteColumns = [
  { text: 'Call site', cell: (row) => siteName(row.site), attributes: { class: 'site' } },
  { text: 'Kind', cell: (row) => element('span', {}, key(row.kind), row.kind) },
  { text: 'Count', cell: (row) => number(row.count), order: (row) => row.count, attributes: { class: 'number' } },
  { text: 'Bytes', cell: (row) => size(row.bytes), order: (row) => row.bytes, attributes: { class: 'number' } },
  { text: 'Oldest', cell: (row) => `row ${number(row.oldestEvent)}, ${time(row.oldestTime)}`, order: (row) => row.oldestEvent, attributes: { class: 'number' } },
  { text: 'Last touched by', cell: lastSites, attributes: { class: 'site' } },
  { text: 'alloc_id of some', cell: (row) => row.example.join(', ') },
];

function sitesBody(rows) {
  return element('tbody', {}, ...rows.map((row) => element('tr', {},
    ...siteColumns.map(({ cell, attributes = {} }) => element('td', attributes, cell(row))))));
}

// A heading sorts by its column, the largest first but the oldest first of all; once more turns it round.
function fillSitesTable(trace, table) {
  const headings = siteColumns.map(({ text, order, attributes = {} }) => element('th', { ...attributes, scope: 'col' },
    order ? element('button', { type: 'button' }, text) : text));
  const sortBy = (column, direction) => {
    headings.forEach((heading) => heading.removeAttribute('aria-sort'));
    headings[column].setAttribute('aria-sort', direction);
    const sign = direction === 'ascending' ? 1 : -1;
    const { order } = siteColumns[column];
    table.tBodies[0].replaceWith(sitesBody([...trace.sites.rows].sort((a, b) => sign * (order(a) - order(b)))));
  };
  headings.forEach((heading, column) => heading.querySelector('button')?.addEventListener('click', () => {
    const opposite = { ascending: 'descending', descending: 'ascending' };
    sortBy(column, opposite[heading.getAttribute('aria-sort')] ?? (siteColumns[column].text === 'Oldest' ? 'ascending' : 'descending'));
  }));
  table.replaceChildren(element('thead', {}, element('tr', {}, ...headings)), element('tbody', {}));
  sortBy(siteColumns.findIndex(({ text }) => text === 'Bytes'), 'descending');
}
