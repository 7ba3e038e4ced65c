// The feed as a whole: what it sends, what is damaged and repaired, how late it is, what happens in the
// market.

import {
  byId,
  clockSpan,
  count,
  duration,
  make,
  NONE,
  rate,
  setAttribute,
  setText,
  timeOfDay,
} from "./dom.js";
import { addPoint, createChart, setMarks } from "./charts.js";

const EVENTS_KEPT = 200;
const MARKS_SHOWN = 50;

const EVENT_WORDS = {
  halt: "Halt",
  resume: "Resumption",
  pause: "LULD pause",
  band: "LULD band",
  mwcb: "Circuit breaker",
  wipeout: "Quote wipe-out",
  cancel: "Trade canceled",
  correction: "Trade corrected",
};

const HEADLINE = ["Next seq", "Msg/s", "Pkt/s", "Lost"];
const FAULTS = [
  ["sent", "Sent"],
  ["dropped", "Dropped"],
  ["duplicated", "Duplicated"],
  ["reordered", "Reordered"],
];
const RECEIVER = [
  ["messages", "Messages"],
  ["packets", "Packets"],
  ["gaps", "Gaps"],
  ["recovered", "Recovered"],
  ["lost", "Lost"],
  ["requests", "Requests"],
  ["duplicates", "Duplicates"],
  ["reordered", "Reordered"],
  ["kernel_drops", "Kernel drops"],
];
const LATENCY = [
  ["p50", "p50"],
  ["p90", "p90"],
  ["p99", "p99"],
  ["p999", "p99.9"],
  ["max", "max"],
];

export function createFeed({ choose }) {
  const view = {
    choose,
    figures: {},
    counters: new Map(),
    seen: new Set(),
    marks: "",
    latest: 0,
    runBegan: 0,
  };
  makeFigures(
    view,
    "headline",
    HEADLINE.map((title) => [title, title]),
  );
  makeFigures(view, "faults", FAULTS);
  makeFigures(view, "receiver", RECEIVER);
  makeFigures(view, "latency", LATENCY);
  const look = (name) => ({
    series: [{ color: name, fill: `${name}-wash` }],
    format: rate,
    fromZero: true,
  });
  view.messages = createChart(byId("messages-chart"), { ...look("--accent"), showTimes: false });
  view.packets = createChart(byId("packets-chart"), { ...look("--second") });
  return view;
}

function makeFigures(view, id, list) {
  for (const [name, title] of list) {
    const value = make("dd", { textContent: NONE });
    view.figures[`${id} ${name}`] = value;
    byId(id).append(make("div", {}, make("dt", { textContent: title }), value));
  }
}

function setFigures(view, id, list, values, show = count) {
  for (const [name] of list) {
    setText(view.figures[`${id} ${name}`], values ? show(values[name]) : NONE);
  }
}

// The explanations of the counters, { name: text }, which also give their order.
export function explainCounters(view, texts) {
  for (const [name, text] of Object.entries(texts)) {
    setText(counterRow(view, name).cells[2], text);
  }
}

function counterRow(view, name) {
  let row = view.counters.get(name);
  if (row === undefined) {
    row = make(
      "tr",
      {},
      make("th", { scope: "row", textContent: name }),
      make("td", { className: "number" }),
      make("td", { className: "muted" }),
    );
    view.counters.set(name, row);
    byId("counters").tBodies[0].append(row);
  }
  return row;
}

export function updateFeed(view, state) {
  const { feed, rates, receiver } = state;
  const values = [count(feed.next_seq), rate(rates?.messages), rate(rates?.packets), count(receiver?.lost)];
  const since = typeof state.uptime === "number" ? `, console up for ${clockSpan(state.uptime)}` : "";
  setText(byId("feed-about"), `Session ${feed.session}, next number ${count(feed.next_seq)}${since}`);
  HEADLINE.forEach((title, index) => setText(view.figures[`headline ${title}`], values[index] || NONE));
  setFigures(view, "faults", FAULTS, state.faults);
  setFigures(view, "receiver", RECEIVER, receiver);
  setFigures(view, "latency", LATENCY, state.latency, duration);
  setText(
    byId("latency-about"),
    state.latency ? "from the SIP time of a message to its reception" : "no figures yet",
  );
  setText(byId("faults-about"), state.control?.up === false ? "the control channel does not answer" : "");
  setAttribute(view.figures["receiver lost"].parentElement, "class", receiver?.lost > 0 ? "bad" : "");
  for (const [name, value] of Object.entries(state.counters || {})) {
    drawCounter(counterRow(view, name), value);
  }
  drawRates(view, rates, state.marks || []);
}

function drawCounter(row, value) {
  const cell = row.cells[1];
  const text = count(value);
  if (cell.textContent !== text) {
    setText(cell, text);
    row.moves = 4;
  }
  setAttribute(row, "class", row.moves > 0 ? "moving" : "");
  row.moves -= 1;
}

function drawRates(view, rates, marks) {
  const now = Date.now() / 1000;
  for (const [chart, name, title] of [
    [view.messages, "messages", "Messages"],
    [view.packets, "packets", "Packets"],
  ]) {
    setMarks(chart, marks);
    addPoint(chart, now, [rates ? rates[name] : null]);
    setText(byId(`${name}-now`), rate(rates?.[name]));
    setAttribute(
      byId(`${name}-chart`),
      "aria-label",
      `${title} a second: ${rate(rates?.[name])} now; the last three minutes, with ${marks.length} marks`,
    );
  }
  const key = JSON.stringify(marks);
  if (key !== view.marks) {
    view.marks = key;
    const items = marks
      .slice(-MARKS_SHOWN)
      .reverse()
      .map((mark) =>
        make(
          "li",
          {},
          make("time", { textContent: timeOfDay(mark.time) }),
          make("span", { textContent: mark.text }),
        ),
      );
    byId("marks").replaceChildren(
      ...(items.length > 0
        ? items
        : [make("li", { className: "muted", textContent: "No fault and no mark so far" })]),
    );
  }
}

// One event of the market; true when it is new.
export function addEvent(view, event) {
  const key = `${event.seq} ${event.kind} ${event.symbol}`;
  if (view.seen.has(key) || event.time <= view.runBegan) {
    return false;
  }
  view.seen.add(key);
  view.latest = Math.max(view.latest, event.time);
  const symbol = make("td");
  if (event.symbol) {
    const button = make("button", { type: "button", className: "link", textContent: event.symbol });
    button.addEventListener("click", () => view.choose(event.symbol));
    symbol.append(button);
  } else {
    setText(symbol, "all");
  }
  const row = make(
    "tr",
    { className: `event-${event.kind in EVENT_WORDS ? event.kind : "other"}` },
    make("td", { className: "muted", textContent: timeOfDay(event.time) }),
    make("td", { className: "number", textContent: count(event.seq) }),
    symbol,
    make("td", { textContent: eventText(event) }),
  );
  row.key = key;
  prependEvent(view, row);
  return true;
}

function prependEvent(view, row) {
  const body = byId("events").tBodies[0];
  body.prepend(row);
  while (body.children.length > EVENTS_KEPT) {
    view.seen.delete(body.lastElementChild.key);
    body.lastElementChild.remove();
  }
}

// More happened than the stream carries.
export function addSkipped(view, number) {
  const text = make("td", {
    className: "muted",
    colSpan: 4,
    textContent: `${count(number)} events left out`,
  });
  prependEvent(view, make("tr", {}, text));
}

const RESUMPTIONS = { Q: "Quotation resumes", T: "Trading resumes" };

// What an event was, with what came with it: the reason, the market center, the level.
export function eventText({ kind, action, reason, center, level }) {
  const word = (kind === "resume" && RESUMPTIONS[action]) || EVENT_WORDS[kind] || String(kind);
  const detail = [reason, center, level && `level ${level}`]
    .filter((each) => each && each.trim() !== "")
    .join(" ");
  return detail === "" ? word : `${word} (${detail})`;
}

// A new run of the feed: what happened in the one before would be taken for events of this one.
export function clearEvents(view) {
  view.runBegan = view.latest;
  view.seen.clear();
  byId("events").tBodies[0].replaceChildren();
}
