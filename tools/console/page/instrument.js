// The chosen instrument: its figures, the quotes of every market center, price and spread over time, its
// trades and halts.

import {
  byId,
  count,
  flash,
  make,
  NONE,
  price,
  setAttribute,
  setText,
  size,
  sizeRows,
  statusLetter,
  statusWord,
} from "./dom.js";
import { addPoint, clearChart, createChart, setMarks } from "./charts.js";

const TRADES_SHOWN = 200;

const BUTTONS = [
  ["Halt", "halt"],
  ["LULD pause", "luld_pause"],
  ["Resume", "resume"],
  ["Band", "band"],
  ["Close", "close"],
  ["As-of trade", "asof"],
];

const FIGURES = ["Bid", "Ask", "Last", "Volume", "Band"];

const KINDS = { trade: "", correction: "correction", as_of: "as of" };
const ACTIONS = { H: "Halt", P: "LULD pause", Q: "Quotation resumes", T: "Trading resumes" };

export function createInstrument({ command }) {
  const view = { symbol: "", figures: {}, marks: [], shown: null };
  for (const [title, word] of BUTTONS) {
    const button = make("button", { type: "button", textContent: title, disabled: true });
    button.addEventListener("click", () => command(`${word} ${view.symbol}`));
    byId("chosen-buttons").append(button);
  }
  for (const title of FIGURES) {
    view.figures[title] = make("dd", { textContent: NONE });
    byId("chosen-figures").append(make("div", {}, make("dt", { textContent: title }), view.figures[title]));
  }
  for (const [title, name] of [
    ["bid", "bid"],
    ["ask", "ask"],
    ["last", "last"],
  ]) {
    byId("price-key").append(make("span", { className: name, textContent: title }));
  }
  view.prices = createChart(byId("price-chart"), {
    series: [
      { color: "--bid", step: true },
      { color: "--ask", step: true },
      { color: "--muted", width: 1, step: true },
    ],
    format: (value) => value.toFixed(2),
    showTimes: false,
  });
  view.spreads = createChart(byId("spread-chart"), {
    series: [{ color: "--accent", step: true, fill: "--accent-wash" }],
    format: (value) => value.toFixed(2),
    fromZero: true,
  });
  return view;
}

// Another instrument: what was shown of the one before goes.
export function chooseInstrument(view, symbol) {
  view.symbol = symbol;
  view.shown = null;
  view.marks = [];
  setText(byId("chosen-title"), symbol || "No instrument chosen");
  for (const id of ["chosen-status", "chosen-reason", "spread-now"]) {
    setText(byId(id), "");
  }
  for (const button of byId("chosen-buttons").children) {
    button.disabled = symbol === "";
  }
  for (const figure of Object.values(view.figures)) {
    setText(figure, NONE);
  }
  for (const id of ["bids", "asks", "tape", "halts"]) {
    byId(id).tBodies[0].replaceChildren();
  }
  clearChart(view.prices);
  clearChart(view.spreads);
}

// A market event of this instrument, as a mark on its charts.
export function markInstrument(view, time, text) {
  view.marks.push({ time, text });
  view.marks = view.marks.slice(-100);
}

export function updateInstrument(view, instrument) {
  if (instrument.symbol !== view.symbol) {
    return;
  }
  const { bid, ask, last, band } = instrument;
  const spread = bid && ask ? ask - bid : null;
  const badge = byId("chosen-status");
  setText(badge, statusWord(instrument.status));
  setAttribute(byId("chosen"), "data-status", statusLetter(instrument.status));
  const latest = (instrument.halts || []).at(-1);
  setText(
    byId("chosen-reason"),
    latest && statusLetter(instrument.status) !== "T" ? latest.reason || "" : "",
  );
  const spreadText = spread === null ? NONE : spread.toFixed(2);
  const texts = {
    Bid: bid ? `${price(bid)} × ${size(instrument.bid_size)}` : NONE,
    Ask: ask ? `${price(ask)} × ${size(instrument.ask_size)}` : NONE,
    Last: price(last),
    Volume: count(instrument.volume),
    Band: band ? `${price(band[0])} – ${price(band[1])}` : NONE,
  };
  for (const [title, text] of Object.entries(texts)) {
    setText(view.figures[title], text);
  }
  const was = view.shown;
  if (was !== null && was.last !== last) {
    flash(view.figures.Last, last > was.last);
  }
  setText(byId("spread-now"), spreadText);
  const now = Date.now() / 1000;
  setMarks(view.prices, view.marks);
  addPoint(view.prices, now, [bid || null, ask || null, last || null]);
  addPoint(view.spreads, now, [spread]);
  setAttribute(
    byId("price-chart"),
    "aria-label",
    `Bid ${price(bid)}, ask ${price(ask)}, last ${price(last)}, over the last three minutes`,
  );
  setAttribute(byId("spread-chart"), "aria-label", `Spread ${spreadText}, over the last three minutes`);
  drawLadder(view, instrument.quotes || []);
  drawTape(instrument.trades || []);
  drawHalts(instrument.halts || []);
  view.shown = instrument;
}

// Bids and asks each with the best first; centers without a price come last.
function drawLadder(view, quotes) {
  const most = Math.max(1, ...quotes.map((each) => Math.max(each.bid_size, each.ask_size)));
  const bids = [...quotes].sort((one, other) => (other.bid || 0) - (one.bid || 0));
  const asks = [...quotes].sort((one, other) => (one.ask || Infinity) - (other.ask || Infinity));
  const sides = [
    [byId("bids"), bids, "bid", [0, 1, 2, 3]],
    [byId("asks"), asks, "ask", [3, 2, 1, 0]],
  ];
  for (const [table, sorted, side, [center, condition, shares, dollars]] of sides) {
    const rows = sizeRows(table.tBodies[0], sorted.length, () => makeLadderRow(side));
    const best = sorted.length > 0 ? sorted[0][side] : 0;
    let level = -1;
    let before = null;
    sorted.forEach((quote, index) => {
      const row = rows[index];
      const value = quote[side];
      const there = value ? quote[`${side}_size`] : 0;
      level += value !== before ? 1 : 0;
      before = value;
      setText(row.cells[center], quote.center);
      setText(row.cells[condition], (quote.condition || "").trim());
      setText(row.cells[shares].lastElementChild, size(there));
      row.cells[shares].firstElementChild.style.width = `${(100 * there) / most}%`;
      setText(row.cells[dollars], price(value));
      row.className = !value ? "none" : value === best ? "best" : level % 2 === 0 ? "even" : "odd";
    });
  }
}

function makeLadderRow(side) {
  const shares = () =>
    make("td", { className: "number depth" }, make("i", { className: side }), make("span"));
  const dollars = () => make("td", { className: `number ${side}` });
  const name = () => make("td", { className: "center" });
  return side === "bid"
    ? make("tr", {}, name(), make("td", { className: "muted" }), shares(), dollars())
    : make("tr", {}, dollars(), shares(), make("td", { className: "muted" }), name());
}

function plainRow(cells, numbers) {
  return make(
    "tr",
    {},
    ...Array.from({ length: cells }, (_, index) =>
      make("td", numbers.includes(index) ? { className: "number" } : {}),
    ),
  );
}

function newestFirst(list) {
  return list.length > 1 && list[0].seq < list[list.length - 1].seq ? [...list].reverse() : list;
}

function drawTape(trades) {
  const shown = newestFirst(trades).slice(0, TRADES_SHOWN);
  const rows = sizeRows(byId("tape").tBodies[0], shown.length, () => plainRow(7, [0, 1, 2]));
  shown.forEach((trade, index) => {
    const { cells } = rows[index];
    const state = trade.state === "live" ? "" : trade.state;
    const texts = [
      count(trade.seq),
      price(trade.price),
      size(trade.size),
      trade.center,
      (trade.conditions || "").trim(),
      KINDS[trade.kind] ?? trade.kind,
      state,
    ];
    texts.forEach((text, column) => setText(cells[column], text));
    setAttribute(
      rows[index],
      "class",
      state === "canceled" || state === "error" ? "canceled" : state !== "" ? "corrected" : "",
    );
  });
}

function drawHalts(halts) {
  const shown = newestFirst(halts);
  const rows = sizeRows(byId("halts").tBodies[0], shown.length, () => plainRow(3, [0]));
  shown.forEach((halt, index) => {
    const { cells } = rows[index];
    setText(cells[0], count(halt.seq));
    setText(cells[1], ACTIONS[halt.action] || halt.action || "");
    setText(cells[2], halt.reason || "");
    setAttribute(rows[index], "data-status", statusLetter(halt.action));
  });
}
