// The map of a pool: addresses upwards, time to the right. Below lies a raster of how much of each cell is in use, above it
// the blocks that lived longest, and those that nobody has released over all of them.

// `across` is the visible part of the addresses in percent; `shown` tells which layers are turned on, and `mouse` is where
// it is, and over which block.
const map = { pool: null, across: [0, 100], shown: {}, mouse: { x: 0, y: 0, block: -1 } };

const siteColours = ['site0', 'site1', 'site2', 'site3', 'site4'];

// A pool as the drawing needs it: the raster's bytes, and the blocks in groups of one colour each, the uppermost first.
function readPool(trace, pool) {
  const [fill, fillTime] = [pool.fill, pool.fillTime].map((text) => Uint8Array.from(atob(text), (character) => character.charCodeAt(0)));
  const span = Number(BigInt(`0x${pool.high}`) - BigInt(`0x${pool.low}`));
  const base = Number(BigInt(`0x${pool.cellBase}`) - BigInt(`0x${pool.low}`));
  return { ...pool, fill, fillTime, span, base, groups: groupBlocks(trace, pool.blocks) };
}

// The call sites whose blocks cover most of the map get colours of their own.
function groupBlocks(trace, blocks) {
  const covered = new Map();
  const released = [];
  const outstanding = [];
  blocks.id.forEach((_, index) => {
    if (blocks.to[index] === 0) { outstanding.push(index); return; }
    released.push(index);
    const site = blocks.site[index];
    covered.set(site, (covered.get(site) ?? 0) + blocks.bytes[index] * (blocks.to[index] - blocks.from[index]));
  });
  const first = [...covered.keys()].sort((a, b) => covered.get(b) - covered.get(a)).slice(0, siteColours.length);
  const rest = released.filter((index) => !first.includes(blocks.site[index]));
  return [
    { id: 'outstanding', text: 'outstanding', colour: 'alert', members: outstanding },
    ...first.map((site, place) => ({
      id: `site${place}`, text: siteName(trace.callSites[site]), colour: siteColours[place],
      members: released.filter((index) => blocks.site[index] === site),
    })),
    { id: 'other', text: 'other call sites', colour: 'other', members: rest },
  ].filter(({ members }) => members.length > 0);
}

// ---- where things are -------------------------------------------------------------------------------------------

function blockSpan(trace, pool, index) {
  const { from, to, fromTime, toTime, offset, bytes } = pool.blocks;
  const end = axisRange(trace)[1];
  const [left, right] = axis.byTime ? [fromTime[index], toTime[index]] : [from[index] - 1, to[index]];
  return { left, right: to[index] === 0 ? end : right, bottom: offset[index], top: offset[index] + bytes[index] };
}

// The column of the raster that holds a place on the axis.
function columnAt(pool, x) {
  const column = axis.byTime ? firstReaching(pool.columnTime, x) : Math.ceil(x / pool.stepEvents) - 1;
  return Math.max(0, Math.min(pool.columns - 1, column));
}

// How much of a cell is in use, of 255: on the average over the column's rows, or over its time.
function usedOf(pool, column, cell) { return (axis.byTime ? pool.fillTime : pool.fill)[column * pool.cells + cell]; }

// Places on the canvas are straight lines over the values. `pixel` gives a place for values.
function placing(pool, trace, pixel) {
  const [min, max] = axisRange(trace);
  const [x0, y0] = pixel([min, 0]);
  const [x1, y1] = pixel([max, pool.span]);
  return {
    x: (value) => x0 + (value - min) * (x1 - x0) / (max - min), y: (value) => y0 + value * (y1 - y0) / pool.span,
    xValue: (place) => min + (place - x0) * (max - min) / (x1 - x0), yValue: (place) => (place - y0) * pool.span / (y1 - y0),
  };
}

// Nothing gets so small that it can't be seen.
function blockPlace(trace, pool, place, index) {
  const { left, right, bottom, top } = blockSpan(trace, pool, index);
  const least = pool.blocks.to[index] === 0 ? 2 : 1;
  const [x, y] = [place.x(left), place.y(top)];
  return { x, y, width: Math.max(least, place.x(right) - x), height: Math.max(least, place.y(bottom) - y) };
}

// The block under a place on the canvas, or the closest within two pixels; -1 if there is none.
function blockAt(trace, pool, place, x, y, shown) {
  let best = -1;
  let least = 2;
  for (const { members } of pool.groups.filter(({ id }) => shown(id))) {
    for (const index of members) {
      const at = blockPlace(trace, pool, place, index);
      const away = Math.max(at.x - x, x - at.x - at.width, at.y - y, y - at.y - at.height, 0);
      if (away < least) { least = away; best = index; }
    }
  }
  return best;
}

// ---- drawing ----------------------------------------------------------------------------------------------------

// Many rectangles of one colour as one path: ten thousand of them follow the wheel.
const Blocks = echarts.graphic.extendShape({
  type: 'blocks',
  shape: { places: [] },
  buildPath(context, { places }) { for (const { x, y, width, height } of places) { context.rect(x, y, width, height); } },
});
echarts.graphic.registerShape('blocks', Blocks);

// One pixel for each cell in each column of rows, the lowest address at the bottom.
function rasterOf(pool, ink) {
  const canvas = document.createElement('canvas');
  canvas.width = Math.max(1, pool.columns);
  canvas.height = Math.max(1, pool.cells);
  const context = canvas.getContext('2d');
  context.fillStyle = ink;
  context.fillRect(0, 0, 1, 1);
  const [red, green, blue] = context.getImageData(0, 0, 1, 1).data;
  const image = context.createImageData(canvas.width, canvas.height);
  for (let column = 0; column < pool.columns; column++) {
    for (let cell = 0; cell < pool.cells; cell++) {
      const used = usedOf(pool, column, cell);
      image.data.set([red, green, blue, used * 0.55], ((pool.cells - 1 - cell) * pool.columns + column) * 4);
    }
  }
  context.putImageData(image, 0, 0);
  return canvas;
}

// The visible part of the raster in the canvas's own pixels, each of which shows the column that holds its place.
function rasterImage(trace, pool, raster, place, area) {
  const scale = window.devicePixelRatio;
  const canvas = document.createElement('canvas');
  canvas.width = Math.max(1, Math.round(area.width * scale));
  canvas.height = Math.max(1, Math.round(area.height * scale));
  const context = canvas.getContext('2d');
  context.imageSmoothingEnabled = false;
  const top = (place.y(pool.base + pool.cells * pool.cellBytes) - area.y) * scale;
  const bottom = (place.y(pool.base) - area.y) * scale;
  const columnOf = (pixel) => columnAt(pool, place.xValue(area.x + (pixel + 0.5) / scale));
  for (let from = 0; from < canvas.width;) {
    const column = columnOf(from);
    let to = from + 1;
    while (to < canvas.width && columnOf(to) === column) { to++; }
    context.drawImage(raster, column, 0, 1, pool.cells, from, top, to - from, bottom - top);
    from = to;
  }
  return canvas;
}

function inside({ x, y, width, height }, area) {
  return x < area.x + area.width && x + width > area.x && y < area.y + area.height && y + height > area.y;
}

function cut({ x, y, width, height }, area) {
  const [left, top] = [Math.max(x, area.x), Math.max(y, area.y)];
  return { x: left, y: top, width: Math.min(x + width, area.x + area.width) - left, height: Math.min(y + height, area.y + area.height) - top };
}

function layer(id, name, z, renderItem) {
  return { type: 'custom', id, name, z, silent: true, clip: true, data: [[0, 0]], encode: { x: 0, y: 1 }, renderItem };
}

function poolSeries(trace, pool) {
  const raster = rasterOf(pool, colour('soft'));
  const groupLayer = (group, order) => ({
    ...layer(group.id, group.id, 20 - order, ({ coordSys }, api) => {
      const place = placing(pool, trace, api.coord);
      const places = group.members.map((index) => blockPlace(trace, pool, place, index)).filter((at) => inside(at, coordSys));
      const strong = group.id === 'outstanding';
      const style = { fill: colour(group.colour), opacity: strong ? 1 : 0.8, stroke: colour('card'), lineWidth: strong ? 0 : 0.4 };
      return { type: 'blocks', shape: { places }, style };
    }),
    itemStyle: { color: colour(group.colour) },
  });
  return [
    {
      ...layer('raster', 'raster', 3, ({ coordSys }, api) => {
        const image = rasterImage(trace, pool, raster, placing(pool, trace, api.coord), coordSys);
        const { x, y, width, height } = coordSys;
        return { type: 'image', style: { image, x, y, width, height } };
      }),
      itemStyle: { color: colour('soft') },
    },
    ...pool.groups.map(groupLayer),
    { // takes the mouse for all layers; what lies below it is looked up
      ...layer('mouse', 'mouse', 30, ({ coordSys: { x, y, width, height } }) => (
        { type: 'rect', shape: { x, y, width, height }, style: { fill: 'transparent' } })),
      silent: false,
    },
  ];
}

function zoomedAcross() { return map.across[1] - map.across[0] < 100; }

function poolTicks() {
  const view = map.across.map((percent) => percent * map.pool.span / 100);
  return ticksAt(tickOfBytes(view[1] - view[0]), view);
}

function drawPool(trace, chart, pool) {
  const texts = new Map([...pool.groups.map(({ id, text }) => [id, text]), ['raster', 'share in use']]);
  const [start, end] = map.across;
  map.pool = pool;
  chart.setOption({
    animation: false,
    legend: {
      ...legendBase(chart), data: [...texts.keys()],
      formatter: (id) => shorten(texts.get(id), 40),
    },
    toolbox: areaZoom({}),
    grid: { ...gridSides, top: 34, bottom: 60 },
    xAxis: timeAxis(trace, 0),
    yAxis: valueAxis({
      axisLabel: { formatter: (offset) => `+${size(offset)}`, ...poolTicks().axisLabel },
      rest: { min: 0, max: pool.span, axisTick: { show: false, ...poolTicks().axisTick } },
    }),
    dataZoom: [
      ...timeZoom([0]),
      { id: 'yInside', type: 'inside', yAxisIndex: 0, filterMode: 'none', start, end },
      {
        id: 'ySlider', type: 'slider', yAxisIndex: 0, filterMode: 'none', start, end, width: 16, right: 8, top: 34, bottom: 60, brushSelect: false,
        showDataShadow: false, showDetail: false, ...sliderColours(),
      },
    ],
    tooltip: { ...tooltipBase(), trigger: 'item', formatter: () => poolTip(trace, chart) },
    series: poolSeries(trace, pool),
  }, { notMerge: true });
}

function showAllAddresses(trace) {
  map.across = [0, 100];
  if (charts.pool) { drawPool(trace, charts.pool, map.pool); }
  showView(trace);
}

// ---- the mouse --------------------------------------------------------------------------------------------------

function blockTip(trace, pool, index) {
  const { id, from, to, fromTime, toTime, offset, bytes, site } = pool.blocks;
  const moment = (row, ms) => `row ${number(row)}, ${time(ms)}`;
  return tip(siteName(trace.callSites[site[index]]), [
    ['alloc_id', id[index]], ['bytes', sizeWithBytes(bytes[index])],
    ['address', `${address(pool.low, offset[index])} (+${size(offset[index])})`],
    ['made', moment(from[index], fromTime[index])],
    ['released', to[index] === 0 ? 'never' : moment(to[index], toTime[index])],
  ]);
}

function cellTip(pool, x, y) {
  const column = columnAt(pool, x);
  const cell = Math.max(0, Math.min(pool.cells - 1, Math.floor((y - pool.base) / pool.cellBytes)));
  const used = usedOf(pool, column, cell) / 255;
  const start = cell * pool.cellBytes;
  return tip(`${(used * 100).toFixed(used > 0 && used < 0.1 ? 1 : 0)} % in use`, [
    ['from', address(pool.cellBase, start)], ['to', address(pool.cellBase, start + pool.cellBytes - 1)],
    ['rows', `${number(column * pool.stepEvents + 1)} \u2013 ${number((column + 1) * pool.stepEvents)}`],
    ['time', `to ${time(pool.columnTime[column])}`],
  ]);
}

function poolPlacing(trace, chart) {
  return placing(map.pool, trace, (values) => chart.convertToPixel({ xAxisIndex: 0, yAxisIndex: 0 }, values));
}

function poolTip(trace, chart) {
  const { pool, mouse } = map;
  const place = poolPlacing(trace, chart);
  return mouse.block >= 0 ? blockTip(trace, pool, mouse.block) : cellTip(pool, place.xValue(mouse.x), place.yValue(mouse.y));
}

// Keeps what lies under the mouse, and puts a frame around a block. Registered before anything is drawn, so that the
// tooltip finds it done.
function followMouse(trace, chart) {
  const frame = new echarts.graphic.Rect({ silent: true, invisible: true, z: 100, style: { fill: 'none', lineWidth: 2 } });
  chart.getZr().add(frame);
  const hide = () => { map.mouse.block = -1; frame.attr({ invisible: true }); };
  chart.getZr().on('mousemove', ({ offsetX, offsetY }) => {
    const place = poolPlacing(trace, chart);
    const within = chart.containPixel({ gridIndex: 0 }, [offsetX, offsetY]);
    const block = within ? blockAt(trace, map.pool, place, offsetX, offsetY, (id) => map.shown[id] !== false) : -1;
    map.mouse = { x: offsetX, y: offsetY, block };
    if (block < 0) { hide(); return; }
    const area = chart.getModel().getComponent('grid').coordinateSystem.getRect();
    frame.attr({ invisible: false, shape: cut(blockPlace(trace, map.pool, place, block), area), style: { stroke: colour('ink') } });
  });
  chart.getZr().on('globalout', hide);
  chart.on('legendselectchanged', ({ selected }) => { map.shown = selected; });
  chart.on('datazoom', (event) => {
    hide();
    const change = (event.batch ?? [event]).find((one) => /^yInside|^ySlider|yAxis/.test(one.dataZoomId));
    if (!change) { return; }
    const { start, end } = chart.getOption().dataZoom.find(({ id }) => id === 'yInside');
    map.across = [start, end];
    chart.setOption({ yAxis: poolTicks() });
    showView(trace, chart);
  });
}
