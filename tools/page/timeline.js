// The charts over time share one horizontal axis, of milliseconds or of rows, and one zoom.

// `view` is what is visible, in units of the axis. A row ends at its number.
const axis = { byTime: true, view: [0, 1] };
const charts = {}; // the instances by name
const overTime = { memory: 2, problems: 1, pool: 1 }; // and how many of these axes they have

function axisRange(trace) { return [0, Math.max(1, axis.byTime ? trace.duration : trace.events)]; }

function axisText(value) { return axis.byTime ? time(value) : number(Math.round(value)); }

function lastRowOfStep(trace, step) { return Math.min(trace.events, (step + 1) * trace.steps.events); }

function stepEnd(trace, step) { return axis.byTime ? trace.steps.time[step] : lastRowOfStep(trace, step); }

// The first place in an ascending list whose value reaches `value`.
function firstReaching(list, value) {
  let low = 0;
  let high = list.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (list[middle] < value) { low = middle + 1; } else { high = middle; }
  }
  return low;
}

function timeOfRow(trace, row) {
  return row <= 0 ? 0 : trace.steps.time[Math.min(Math.ceil(row / trace.steps.events), trace.steps.time.length) - 1] ?? 0;
}

function rowOfTime(trace, ms) { return ms <= 0 ? 0 : lastRowOfStep(trace, firstReaching(trace.steps.time, ms)); }

// A distance between ticks that reads well in binary sizes, or in minutes and hours.
function tickOfBytes(span) {
  let tick = 1;
  while (span / tick > 6) { tick *= 2; }
  return tick;
}

function tickOfTime(span, most) {
  const minutes = [1, 2, 5, 10, 15, 30].map((count) => count * 60000);
  const seconds = [1, 2, 5, 10, 15, 30].map((count) => count * 1000);
  const hours = [1, 2, 3, 6, 12, 24].map((count) => count * 3600000);
  return [1, 2, 5, 10, 20, 50, 100, 200, 500, ...seconds, ...minutes, ...hours].find((tick) => span / tick <= most)
    ?? Math.ceil(span / most / 86400000) * 86400000;
}

function tickOfRows(span, most) {
  const power = 10 ** Math.floor(Math.log10(Math.max(1, span / most)));
  return [1, 2, 5, 10].map((factor) => factor * power).find((tick) => span / tick <= most);
}

// All multiples of `tick` in sight. Left to itself, the axis counts from its edge.
function ticksAt(tick, [from, to]) {
  const customValues = [];
  for (let count = Math.ceil(from / tick); count * tick <= to; count++) { customValues.push(count * tick); }
  return { axisTick: { customValues }, axisLabel: { customValues } };
}

function ticksOfView(chart) {
  const most = Math.max(2, Math.floor(chart.getWidth() / 110));
  const span = axis.view[1] - axis.view[0];
  return ticksAt(Math.max(1, axis.byTime ? tickOfTime(span, most) : tickOfRows(span, most)), axis.view);
}

function valueAxis(options) {
  return {
    type: 'value',
    axisLine: { show: false },
    axisTick: { show: false },
    axisLabel: { color: colour('soft'), fontSize: 11, hideOverlap: true, ...options.axisLabel },
    splitLine: { lineStyle: { color: colour('line') } },
    ...options.rest,
  };
}

function timeAxis(trace, gridIndex, rest = {}) {
  const [min, max] = axisRange(trace);
  return valueAxis({
    axisLabel: { formatter: axisText },
    rest: {
      gridIndex, min, max, splitLine: { show: false },
      axisLine: { show: true, onZero: false, lineStyle: { color: colour('line') } },
      axisPointer: { show: true, triggerTooltip: false, lineStyle: { color: colour('soft'), type: 'solid' }, label: { show: false } },
      ...rest,
    },
  });
}

function timeZoom(xAxisIndex) {
  const [startValue, endValue] = axis.view;
  const shared = { xAxisIndex, filterMode: 'none', startValue, endValue };
  return [
    { id: 'xInside', type: 'inside', ...shared },
    {
      id: 'xSlider', type: 'slider', height: 20, bottom: 8, left: gridSides.left, right: gridSides.right, brushSelect: false,
      showDataShadow: false, labelFormatter: axisText, ...sliderColours(), ...shared,
    },
  ];
}

function sliderColours() {
  return {
    borderColor: colour('line'), fillerColor: 'rgba(120, 150, 190, 0.22)', textStyle: { color: colour('soft'), fontSize: 11 },
    handleStyle: { color: colour('card'), borderColor: colour('soft') },
    moveHandleStyle: { color: colour('soft'), opacity: 0.5 },
    emphasis: { handleStyle: { color: colour('card'), borderColor: colour('accent') }, moveHandleStyle: { color: colour('accent') } },
  };
}

// The same on all charts over time, so that a moment stands in one column of the page.
const gridSides = { left: 80, right: 44 };

function tooltipBase() {
  return {
    confine: true, transitionDuration: 0, backgroundColor: colour('card'), borderColor: colour('line'),
    textStyle: { color: colour('ink') }, extraCssText: 'border-radius: 6px; max-width: min(440px, 90vw); white-space: normal',
  };
}

// What was turned off in a chart stays so when it is drawn anew.
function legendBase(chart) {
  return {
    type: 'scroll', top: 0, left: 0, width: chart.getWidth() - gridSides.right - 60, icon: 'roundRect', itemWidth: 12, itemHeight: 10,
    selected: chart.getOption()?.legend?.[0].selected ?? {}, inactiveColor: colour('line'),
    textStyle: { color: colour('ink'), fontSize: 12 }, pageTextStyle: { color: colour('soft') },
    pageIconColor: colour('soft'), pageIconInactiveColor: colour('line'),
  };
}

function areaZoom(rest) {
  return {
    right: gridSides.right - 6, top: -6, itemSize: 14, iconStyle: { borderColor: colour('soft') },
    emphasis: { iconStyle: { borderColor: colour('accent'), textFill: colour('accent') } },
    feature: { dataZoom: { filterMode: 'none', title: { zoom: 'Zoom to an area', back: 'Back' }, brushStyle: { color: 'rgba(120, 150, 190, 0.25)' }, ...rest } },
  };
}

// ---- the zoom ---------------------------------------------------------------------------------------------------

function chartsOverTime() { return Object.entries(charts).filter(([name]) => name in overTime); }

function showView(trace, source) {
  const [from, to] = axis.view;
  const [min, max] = axisRange(trace);
  for (const [name, chart] of chartsOverTime()) {
    const option = { xAxis: Array(overTime[name]).fill(ticksOfView(chart)) };
    if (chart !== source) { option.dataZoom = ['xInside', 'xSlider'].map((id) => ({ id, startValue: from, endValue: to })); }
    chart.setOption(option);
  }
  byId('reset').disabled = from <= min && to >= max && !zoomedAcross();
  byId('range').textContent = axis.byTime ? `${time(from)} \u2013 ${time(to)}` : `rows ${axisText(Math.max(1, from))} \u2013 ${axisText(to)}`;
}

// Takes over what the user did in one chart: by the wheel, the slider, or the area tool.
function followZoom(trace, chart) {
  chart.on('datazoom', (event) => {
    const change = (event.batch ?? [event]).find((one) => /^xInside|^xSlider|xAxis/.test(one.dataZoomId));
    if (!change) { return; }
    const [min, max] = axisRange(trace);
    const at = (percent) => min + (max - min) * percent / 100;
    axis.view = change.startValue === undefined
      ? [at(change.start), at(change.end)]
      : [Math.max(min, change.startValue), Math.min(max, change.endValue)];
    showView(trace, chart);
  });
  chart.getZr().on('dblclick', () => showAll(trace));
}

function showAll(trace) {
  axis.view = axisRange(trace);
  showView(trace);
  showAllAddresses(trace);
}

// The same moments stay in sight when the axis changes its unit.
function switchAxis(trace, byTime) {
  const [min, max] = axisRange(trace);
  const whole = axis.view[0] <= min && axis.view[1] >= max;
  const convert = byTime ? timeOfRow : rowOfTime;
  const view = axis.view.map((value) => convert(trace, value));
  axis.byTime = byTime;
  axis.view = whole || view[0] >= view[1] ? axisRange(trace) : view;
}

// The cursor of one chart stands in the others as well.
function followCursor(chart) {
  chart.on('updateAxisPointer', (event) => {
    const value = event.axesInfo?.find((info) => info.axisDim === 'x')?.value;
    for (const [, other] of chartsOverTime()) {
      if (other !== chart) { moveCursor(other, value); }
    }
  });
}

function moveCursor(chart, value) {
  const at = value === undefined ? { currTrigger: 'leave' } : {
    currTrigger: 'mousemove', x: chart.convertToPixel({ xAxisIndex: 0 }, value), y: chart.getModel().getComponent('grid').coordinateSystem.getRect().y + 1,
  };
  chart.dispatchAction({ type: 'updateAxisPointer', ...at }, { silent: true });
}

// ---- live memory ------------------------------------------------------------------------------------------------

const kindTexts = { dframe: 'frame headers (dframe)', phys: 'data in pools and heaps (phys)', local: 'data in the local heap (local)' };

function kindText(kind) { return kindTexts[kind] ?? kind; }

function kindLegend(chart) { return chart.getWidth() < 600 ? (kind) => kind : kindText; }

function stepLine(trace, values) {
  return [[axisRange(trace)[0], values[0]], ...values.map((value, step) => [stepEnd(trace, step), value])];
}

// A kind that never was gets no line, which would lie over the others' feet.
function kindsAlive(trace) { return trace.totals.filter(({ kind, peakCount }) => kind !== 'all' && peakCount > 0).map(({ kind }) => kind); }

function memorySeries(trace, measure, index) {
  return kindsAlive(trace).map((kind, place) => ({
    type: 'line', id: `${measure}:${kind}`, name: kind, xAxisIndex: index, yAxisIndex: index, step: 'start', symbol: 'none',
    data: stepLine(trace, trace.steps[measure][trace.kinds.indexOf(kind)].high), color: colour(kind), lineStyle: { width: 1.5 }, z: 3 + place,
    areaStyle: { opacity: 0.1 }, emphasis: { disabled: true },
  }));
}

function memoryTip(trace, step) {
  const from = step * trace.steps.events + 1;
  const to = lastRowOfStep(trace, step);
  const head = ['', 'bytes, low \u2013 high', 'at the end', 'count', 'at the end'].map((text) => element('th', { class: 'number' }, text));
  const range = (values, text) => {
    const [low, high] = [text(values.low[step]), text(values.high[step])];
    return low === high ? high : `${low} \u2013 ${high}`;
  };
  const rows = trace.kinds.map((kind, place) => {
    const [bytes, count] = [trace.steps.bytes[place], trace.steps.count[place]];
    return tableRow(element('span', {}, key(kind), kind),
      [range(bytes, size), size(bytes.last[step]), range(count, number), number(count.last[step])]);
  });
  const rowText = from === to ? `Row ${number(from)}` : `Rows ${number(from)} \u2013 ${number(to)}`;
  return element('div', { class: 'tip' }, element('strong', {}, `${rowText}, to ${time(trace.steps.time[step])}`),
    element('table', {}, element('tr', {}, ...head), ...rows));
}

function drawMemory(trace, chart) {
  const highest = Math.max(1, ...trace.steps.bytes.flatMap((values) => values.high.reduce((a, b) => Math.max(a, b), 0)));
  const tick = tickOfBytes(highest);
  const name = (text) => ({ text, left: 0, textStyle: { color: colour('soft'), fontSize: 12, fontWeight: 500 } });
  chart.setOption({
    animation: false,
    title: [{ ...name('Bytes'), top: 30 }, { ...name('Count'), top: 262 }],
    legend: { ...legendBase(chart), data: kindsAlive(trace), formatter: kindLegend(chart) },
    toolbox: areaZoom({ yAxisIndex: 'none' }),
    grid: [{ ...gridSides, top: 54, height: 190 }, { ...gridSides, top: 286, height: 120 }],
    axisPointer: { link: [{ xAxisIndex: 'all' }] },
    xAxis: [timeAxis(trace, 0, { axisLabel: { show: false } }), timeAxis(trace, 1)],
    yAxis: [
      valueAxis({ axisLabel: { formatter: size }, rest: { gridIndex: 0, min: 0, max: Math.ceil(highest / tick) * tick, interval: tick } }),
      valueAxis({ axisLabel: { formatter: number }, rest: { gridIndex: 1, min: 0, minInterval: 1, splitNumber: 4 } }),
    ],
    dataZoom: timeZoom([0, 1]),
    tooltip: {
      ...tooltipBase(), trigger: 'axis',
      formatter: (items) => memoryTip(trace, Math.max(0, items[0].dataIndex - 1)), // the line has one point in front
    },
    series: [...memorySeries(trace, 'bytes', 0), ...memorySeries(trace, 'count', 1)],
  }, { notMerge: true });
}

// ---- problems ---------------------------------------------------------------------------------------------------

const problemRow = 42;

function problemTip(trace, point) {
  return tip(trace.problems.actions[point.action], [
    ['row', number(point.event)], ['time', time(point.time)], ['call site', siteName(point.site)], ['detail', point.detail],
    ['alloc_id', point.id === 0 ? 'none' : point.id],
    ...(point.count > 1 ? [['count', `${number(point.count)} in this step; the texts are the first one\u2019s`]] : []),
  ]);
}

function problemsHeight(trace) { return trace.problems.actions.length * problemRow + 64; }

function drawProblems(trace, chart) {
  const { actions, points } = trace.problems;
  chart.setOption({
    animation: false,
    grid: { ...gridSides, top: 4, bottom: 60 },
    xAxis: timeAxis(trace, 0),
    yAxis: {
      type: 'category', inverse: true, data: actions.map((_, index) => String(index)), // names may be equal to others
      axisLine: { show: false }, axisTick: { show: false }, splitLine: { show: true, lineStyle: { color: colour('line') } },
      axisLabel: {
        inside: true, margin: 4, align: 'left', verticalAlign: 'bottom', padding: [0, 0, 6, 0], color: colour('soft'), fontSize: 11, interval: 0,
        formatter: (index) => shorten(actions[index], 60),
      },
      z: 1,
    },
    dataZoom: timeZoom([0]),
    tooltip: { ...tooltipBase(), trigger: 'item', formatter: (item) => problemTip(trace, points[item.dataIndex]) },
    series: [{
      type: 'scatter', id: 'problems', z: 3, color: colour('alert'),
      data: points.map((point) => [axis.byTime ? point.time : point.event, point.action]),
      symbolSize: (_, item) => Math.min(30, 8 + 3 * Math.log2(points[item.dataIndex].count)), symbolOffset: [0, 8],
      itemStyle: { opacity: 0.75, borderColor: colour('card'), borderWidth: 1 },
      emphasis: { itemStyle: { opacity: 1, borderColor: colour('ink') } },
    }],
  }, { notMerge: true });
}
