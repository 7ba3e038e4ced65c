// Charts over the last minutes, drawn by uPlot on canvases. Colors come from the page's style, so a change of
// theme draws them anew.

const { uPlot } = window;

const WINDOW_SECONDS = 180;

const probe = document.createElement("span");
probe.hidden = true;

// The color of a custom property as the present theme has it.
function color(name) {
  if (!probe.isConnected) {
    document.body.append(probe);
  }
  probe.style.color = `var(${name})`;
  return getComputedStyle(probe).color;
}

const charts = new Set();

export function redrawCharts() {
  for (const chart of charts) {
    chart.plot.redraw(false, true);
  }
}

// A chart in `element`: series is a list of { color, width, step, fill }, colors being custom properties.
// `format` makes the texts of the vertical axis. The height is that which the style gives the element.
export function createChart(element, { series, format, showTimes = true, fromZero = false }) {
  const chart = { element, data: [[], ...series.map(() => [])], marks: [], plot: null };
  const axis = (extra) => ({
    stroke: () => color("--muted"),
    grid: { stroke: () => color("--grid"), width: 1 },
    ticks: { show: false },
    font: "11px system-ui, sans-serif",
    ...extra,
  });
  chart.plot = new uPlot(
    {
      width: Math.max(element.clientWidth, 100),
      height: element.clientHeight,
      legend: { show: false },
      padding: [6, 4, 0, 0],
      cursor: { show: false },
      pxAlign: 1,
      scales: {
        x: { time: true, range: () => [Date.now() / 1000 - WINDOW_SECONDS, Date.now() / 1000] },
        y: { range: (plot, low, high) => rangeOf(low, high, fromZero) },
      },
      axes: [
        axis({
          show: true,
          size: showTimes ? 22 : 4,
          space: 70,
          values: (plot, times) => (showTimes ? times.map(timeLabel) : times.map(() => "")),
        }),
        axis({ size: 58, space: 26, values: (plot, values) => values.map(format) }),
      ],
      series: [
        {},
        ...series.map((each) => ({
          stroke: () => color(each.color),
          width: each.width || 1.5,
          points: { show: false },
          fill: each.fill ? () => color(each.fill) : undefined,
          spanGaps: false,
          paths: each.step ? uPlot.paths.stepped({ align: 1 }) : undefined,
        })),
      ],
      hooks: { draw: [(plot) => drawMarks(plot, chart.marks)] },
    },
    chart.data,
    element,
  );
  new ResizeObserver(() => fit(chart)).observe(element);
  charts.add(chart);
  return chart;
}

function fit(chart) {
  const width = chart.element.clientWidth;
  const height = chart.element.clientHeight;
  if (width > 0 && (width !== chart.plot.width || height !== chart.plot.height)) {
    chart.plot.setSize({ width, height });
  }
}

function rangeOf(low, high, fromZero) {
  if (low === null || high === null || !Number.isFinite(low)) {
    return [0, 1];
  }
  const bottom = fromZero ? 0 : low;
  const room = (high - bottom) * 0.12 || Math.abs(high) * 0.001 || 1;
  return [fromZero ? 0 : low - room, high + room];
}

function timeLabel(time) {
  const date = new Date(time * 1000);
  const two = (value) => String(value).padStart(2, "0");
  return `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`;
}

// Adds one moment: a value for each series, null where there is none. What has left the window is dropped.
export function addPoint(chart, time, values) {
  chart.data[0].push(time);
  values.forEach((value, index) => chart.data[index + 1].push(value));
  const oldest = time - WINDOW_SECONDS - 5;
  let gone = 0;
  while (chart.data[0][gone] < oldest) {
    ++gone;
  }
  if (gone > 0) {
    chart.data.forEach((column) => column.splice(0, gone));
  }
  chart.marks = chart.marks.filter((mark) => mark.time >= oldest);
  chart.plot.setData(chart.data);
}

export function clearChart(chart) {
  chart.data.forEach((column) => {
    column.length = 0;
  });
  chart.marks = [];
  chart.plot.setData(chart.data);
}

// Marks are { time, text }, drawn as lines through the chart with their texts where there is room.
export function setMarks(chart, marks) {
  chart.marks = marks;
}

function drawMarks(plot, marks) {
  const { left, top, width, height } = plot.bbox;
  const context = plot.ctx;
  const ratio = window.devicePixelRatio || 1;
  context.save();
  context.beginPath();
  context.rect(left, top, width, height);
  context.clip();
  context.strokeStyle = context.fillStyle = color("--mark");
  context.lineWidth = ratio;
  context.setLineDash([3 * ratio, 3 * ratio]);
  context.font = `${10 * ratio}px system-ui, sans-serif`;
  context.textBaseline = "top";
  context.textAlign = "left";
  let free = 0;
  for (const mark of marks) {
    const place = Math.round(plot.valToPos(mark.time, "x", true)) + 0.5;
    context.beginPath();
    context.moveTo(place, top);
    context.lineTo(place, top + height);
    context.stroke();
    const text = mark.text.length > 24 ? `${mark.text.slice(0, 23)}…` : mark.text;
    const room = context.measureText(text).width + 6 * ratio;
    const start = place + room > left + width ? place - room : place;
    if (start >= free) {
      context.fillText(text, start + 3 * ratio, top + 1);
      free = start + room;
    }
  }
  context.restore();
}
