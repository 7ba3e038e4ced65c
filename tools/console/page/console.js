// The page of tessel-console: joins the stream of events with the table, the chosen instrument, the feed and
// the commands.

import { byId, setAttribute, setText, timeOfDay } from "./dom.js";
import { redrawCharts } from "./charts.js";
import {
  addEvent,
  addSkipped,
  clearEvents,
  createFeed,
  eventText,
  explainCounters,
  updateFeed,
} from "./feed.js";
import { chooseInstrument, createInstrument, markInstrument, updateInstrument } from "./instrument.js";
import { createSteer, send, updateSteer } from "./steer.js";
import { createStream, watch } from "./stream.js";
import { createTable, currentView, showChosen, toTop, updateTable } from "./table.js";

const VIEW_DELAY_MS = 120;
const MISSES_MAX = 12;
// Events of before that a stream begins with; those that are listed already are not listed again.
const BACKLOG = 100;

const page = {
  search: "",
  chosen: "",
  trouble: "",
  up: null,
  lastPacket: 0,
  runs: 0,
  misses: 0,
  viewTimer: 0,
};

function query() {
  const { offset, limit, sort } = currentView(table);
  const wanted = { offset, limit, search: page.search, sort, backlog: BACKLOG };
  return page.chosen === "" ? wanted : { ...wanted, symbol: page.chosen };
}

// Scrolling asks for a view many times; the stream is opened for the one that stays.
function askSoon() {
  clearTimeout(page.viewTimer);
  page.viewTimer = setTimeout(() => watch(stream, query()), VIEW_DELAY_MS);
}

function choose(symbol) {
  if (symbol === page.chosen) {
    return;
  }
  page.chosen = symbol;
  chooseInstrument(instrument, symbol);
  showChosen(table, symbol);
  askSoon();
}

function onState(text, state) {
  const asked = new URLSearchParams(text);
  const { feed } = state;
  if (feed.up) {
    page.lastPacket = Date.now() / 1000;
  }
  if (page.runs !== 0 && feed.runs !== page.runs) {
    clearEvents(feedView);
    chooseInstrument(instrument, page.chosen);
  }
  page.runs = feed.runs;
  page.up = feed.up;
  updateFeed(feedView, state);
  // A view that is no longer wanted still says how the feed is.
  if (asked.get("search") === page.search && asked.get("sort") === table.sort) {
    updateTable(table, Number(asked.get("offset")), state.total, state.instruments);
  }
  updateSteer(state);
  showHealth();
}

// Null when the feed has no instrument of that name: after a while, since a new run takes a moment to name
// its instruments, another one is chosen.
function onInstrument(data) {
  if (data !== null) {
    page.misses = 0;
    updateInstrument(instrument, data);
  } else if (++page.misses >= MISSES_MAX && page.up) {
    page.misses = 0;
    choose("");
  }
}

function onMarket(event) {
  const isMark = event.kind !== "cancel" && event.kind !== "correction";
  if (addEvent(feedView, event) && isMark && (event.symbol === page.chosen || !event.symbol)) {
    markInstrument(instrument, event.time, eventText(event));
  }
}

function onTrouble(kind) {
  page.trouble = kind;
  showHealth();
}

const TROUBLES = {
  away: "The console itself does not answer. This page recovers by itself when it does.",
  refused: "The console was restarted and has a new token: open the address that it printed.",
};

// What the page says about its source: the state beside the title, and the banner when something is wrong.
function showHealth() {
  let title = "";
  let text = "";
  if (page.trouble === "full") {
    title = "No stream is free";
    text =
      "The console serves 16 streams, and all are in use. Close another page; this one retries by itself.";
  } else if (page.trouble !== "") {
    title = "The feed is gone";
    text = TROUBLES[page.trouble];
  } else if (page.up === false) {
    title = "The feed is gone";
    const last = page.lastPacket > 0 ? `Last packet about ${timeOfDay(page.lastPacket)}` : "No packet yet";
    text = `${last}. This page recovers by itself when packets arrive.`;
  }
  const banner = byId("banner");
  if (banner.hidden !== (title === "")) {
    banner.hidden = title === "";
  }
  setText(byId("banner-title"), title);
  setText(byId("banner-text"), text);
  const state =
    title === "" ? (page.up ? "Live" : "Connecting") : page.trouble === "full" ? "Waiting" : "Gone";
  setText(byId("feed-state"), state);
  setAttribute(document.documentElement, "data-feed", state.toLowerCase());
  document.title = state === "Live" ? "tessel console" : `${state} – tessel console`;
}

function startTheme() {
  const select = byId("theme");
  const apply = (value) => {
    document.documentElement.dataset.theme = value;
    redrawCharts();
  };
  try {
    select.value = localStorage.getItem("theme") || "auto";
  } catch {
    select.value = "auto";
  }
  select.value ||= "auto";
  apply(select.value);
  select.addEventListener("change", () => {
    apply(select.value);
    try {
      localStorage.setItem("theme", select.value);
    } catch {
      // Without storage the choice lasts as long as the page.
    }
  });
  matchMedia("(prefers-color-scheme: dark)").addEventListener("change", redrawCharts);
}

async function loadExplanations() {
  try {
    const response = await fetch("/api/counters");
    if (response.ok) {
      explainCounters(feedView, await response.json());
    }
  } catch {
    // The stream reports a console that does not answer.
  }
}

// The token is in a cookie by now; the address need not show it.
if (location.search !== "") {
  history.replaceState(null, "", location.pathname);
}
const steer = createSteer();
const command = (text) => send(steer, text);
const instrument = createInstrument({ command });
const feedView = createFeed({ choose });
const table = createTable({ view: askSoon, choose, command });
const stream = createStream({
  state: onState,
  instrument: onInstrument,
  market: onMarket,
  skipped: ({ count }) => addSkipped(feedView, count),
  trouble: onTrouble,
});

startTheme();
loadExplanations();
byId("search").addEventListener("input", (event) => {
  page.search = event.target.value.trim();
  toTop(table);
  askSoon();
});
watch(stream, query());
