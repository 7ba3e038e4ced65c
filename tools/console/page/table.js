// The table of instruments. Only the rows in sight exist and are asked for: the rows above and below are two
// empty ones of the right height.

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

// Rows asked for beyond those in sight, above and below, so that a little scrolling asks for nothing.
const MARGIN = 12;
const LIMIT_MAX = 500;
const ROWS_MAX = 200;

const COLUMNS = [
  { key: "symbol", title: "Symbol" },
  { key: "status", title: "Status" },
  { key: "bid_size", title: "Size", name: "Bid size", number: true, show: size },
  { key: "bid", title: "Bid", number: true, show: price, flashes: true },
  { key: "ask", title: "Ask", number: true, show: price, flashes: true },
  { key: "ask_size", title: "Size", name: "Ask size", number: true, show: size },
  { key: "last", title: "Last", number: true, show: price, flashes: true },
  { key: "volume", title: "Volume", number: true, show: count },
  {
    key: "band",
    title: "Band",
    number: true,
    unsorted: true,
    show: (band) => (band ? `${price(band[0])} – ${price(band[1])}` : NONE),
  },
];

// `handlers` has view({ offset, limit, sort }), choose(symbol) and command(text).
export function createTable(handlers) {
  const table = {
    handlers,
    element: byId("table"),
    scroller: byId("table-scroller"),
    body: byId("table-rows"),
    above: byId("pad-above"),
    below: byId("pad-below"),
    heads: [],
    sort: "symbol",
    total: 0,
    offset: 0,
    instruments: [],
    chosen: "",
    chosenIndex: -1,
    wantedIndex: -1,
    before: new Map(),
    pressed: "",
    rowHeight: 28,
  };
  makeHead(table);
  const redraw = () => {
    drawRows(table);
    askForView(table);
  };
  table.scroller.addEventListener("scroll", redraw, { passive: true });
  new ResizeObserver(redraw).observe(table.scroller);
  table.element.addEventListener("keydown", (event) => onKey(table, event));
  // Rows may change place between press and release: what was pressed counts.
  table.body.addEventListener(
    "pointerdown",
    (event) => {
      table.pressed = symbolAt(event.target);
    },
    true,
  );
  table.body.addEventListener("click", (event) => onClick(table, event));
  return table;
}

function makeHead(table) {
  for (const column of COLUMNS) {
    const head = make("th", {
      scope: "col",
      className: `c-${column.key}${column.number ? " number" : ""}`,
    });
    if (column.unsorted) {
      head.append(column.title);
    } else {
      const button = make("button", { type: "button", textContent: column.title });
      if (column.name) {
        setAttribute(button, "aria-label", column.name);
      }
      button.addEventListener("click", () => sortBy(table, column.key));
      head.append(button);
    }
    table.heads.push(head);
  }
  byId("table-head").append(
    ...table.heads,
    make(
      "th",
      { scope: "col", className: "c-act" },
      make("span", { className: "hidden", textContent: "Commands" }),
    ),
  );
  showSort(table);
}

function sortBy(table, key) {
  table.sort = table.sort === key ? `-${key}` : key;
  table.chosenIndex = -1;
  table.scroller.scrollTop = 0;
  showSort(table);
  askForView(table);
}

function showSort(table) {
  table.heads.forEach((head, index) => {
    const { key, unsorted } = COLUMNS[index];
    const order = table.sort === key ? "ascending" : table.sort === `-${key}` ? "descending" : "none";
    if (!unsorted) {
      setAttribute(head, "aria-sort", order);
    }
  });
}

// A new search begins at the top.
export function toTop(table) {
  table.scroller.scrollTop = 0;
  table.chosenIndex = -1;
}

// The rows in sight: [first, last). The limit holds even where the style gave the table no height.
function rowsInSight(table) {
  const height = table.rowHeight;
  const first = Math.max(0, Math.floor(table.scroller.scrollTop / height));
  const shown = Math.ceil((table.scroller.clientHeight - height) / height) + 1;
  return [first, first + Math.min(Math.max(shown, 1), ROWS_MAX)];
}

export function currentView(table) {
  const [first, last] = rowsInSight(table);
  const offset = Math.max(0, first - MARGIN);
  return { offset, limit: Math.min(last + MARGIN - offset, LIMIT_MAX), sort: table.sort };
}

// Asks for other rows only when those in sight are not all there.
function askForView(table) {
  const [first, last] = rowsInSight(table);
  const end = table.offset + table.instruments.length;
  const there = first >= table.offset && Math.min(last, table.total) <= end && table.asked === table.sort;
  if (!there || table.total === 0) {
    table.asked = table.sort;
    table.handlers.view(currentView(table));
  }
}

export function updateTable(table, offset, total, instruments) {
  table.offset = offset;
  table.total = total;
  table.instruments = instruments;
  table.asked = table.sort;
  setText(byId("instruments-total"), total === 1 ? "1 instrument" : `${count(total)} instruments`);
  setAttribute(table.element, "aria-rowcount", String(total + 1));
  const found = instruments.findIndex((each) => each.symbol === table.chosen);
  if (found >= 0) {
    table.chosenIndex = offset + found;
  }
  const wanted = table.wantedIndex - offset;
  if (table.wantedIndex >= 0 && wanted >= 0 && wanted < instruments.length) {
    chooseIndex(table, table.wantedIndex);
  } else if (table.chosen === "" && instruments.length > 0) {
    chooseIndex(table, Math.max(offset, rowsInSight(table)[0]));
  }
  drawRows(table);
  flashChanges(table);
  askForView(table);
}

export function showChosen(table, symbol) {
  table.chosen = symbol;
  const found = table.instruments.findIndex((each) => each.symbol === symbol);
  table.chosenIndex = found >= 0 ? table.offset + found : -1;
  table.wantedIndex = -1;
  drawRows(table);
}

function makeRow() {
  const cells = COLUMNS.map((column) =>
    make("td", { className: `c-${column.key}${column.number ? " number" : ""}` }),
  );
  const badge = make("span", { className: "badge" });
  cells[1].append(badge);
  const halt = make(
    "button",
    { type: "button", tabIndex: -1 },
    "Halt",
    make("span", { className: "hidden" }),
  );
  const resume = make(
    "button",
    { type: "button", tabIndex: -1 },
    "Resume",
    make("span", { className: "hidden" }),
  );
  const row = make("tr", {}, ...cells, make("td", { className: "c-act" }, halt, resume));
  return Object.assign(row, { cells_: cells, badge, halt, resume, symbol: "" });
}

function drawRows(table) {
  const head = table.element.tHead.rows[0];
  const height = parseFloat(getComputedStyle(table.element).getPropertyValue("--row")) || 28;
  table.rowHeight = height;
  const [inSight, last] = rowsInSight(table);
  const first = Math.min(inSight, Math.max(0, table.total - (last - inSight)));
  const end = Math.min(last, table.total);
  const rows = sizeRows(table.body, Math.max(0, end - first), makeRow);
  for (let index = first; index < end; ++index) {
    drawRow(table, rows[index - first], index, table.instruments[index - table.offset]);
  }
  table.above.style.height = `${first * height}px`;
  table.below.style.height = `${Math.max(0, table.total - end) * height}px`;
  setAttribute(head, "aria-rowindex", "1");
  const active = [...rows].find((row) => row.symbol !== "" && row.symbol === table.chosen);
  setAttribute(table.element, "aria-activedescendant", active ? active.id : "");
}

function drawRow(table, row, index, instrument) {
  const symbol = instrument ? instrument.symbol : "";
  if (row.symbol !== symbol) {
    row.symbol = symbol;
    setText(row.cells_[0], symbol || "…");
    row.cells_.forEach((cell) => cell.classList.remove("rise0", "rise1", "fall0", "fall1"));
    for (const [button, word] of [
      [row.halt, "Halt"],
      [row.resume, "Resume"],
    ]) {
      setText(button.lastElementChild, ` ${symbol}`);
      setAttribute(button, "aria-label", `${word} ${symbol}`);
      button.disabled = symbol === "";
      if (button === document.activeElement) {
        table.element.focus({ preventScroll: true });
      }
    }
  }
  const chosen = symbol !== "" && symbol === table.chosen;
  setAttribute(row, "id", `row-${index}`);
  setAttribute(row, "aria-rowindex", String(index + 2));
  setAttribute(row, "aria-selected", String(chosen));
  setAttribute(row, "data-status", instrument ? statusLetter(instrument.status) : "");
  row.halt.tabIndex = row.resume.tabIndex = chosen ? 0 : -1;
  setText(row.badge, instrument ? statusWord(instrument.status) : "");
  for (let column = 2; column < COLUMNS.length; ++column) {
    const { key, show } = COLUMNS[column];
    setText(row.cells_[column], instrument ? show(instrument[key]) : "");
  }
}

// Flashes the prices in sight that differ from the last time their instrument was in a view.
function flashChanges(table) {
  const before = table.before;
  table.before = new Map(table.instruments.map((each) => [each.symbol, each]));
  for (const row of table.body.children) {
    const was = before.get(row.symbol);
    const is = table.before.get(row.symbol);
    for (let column = 0; was && is && column < COLUMNS.length; ++column) {
      const key = COLUMNS[column].key;
      if (COLUMNS[column].flashes && was[key] !== is[key]) {
        flash(row.cells_[column], is[key] > was[key]);
      }
    }
  }
}

function symbolAt(target) {
  const row = target.closest("tr");
  return row ? row.symbol : "";
}

function onClick(table, event) {
  // A click by keyboard has no press before it.
  const symbol = event.detail > 0 && table.pressed ? table.pressed : symbolAt(event.target);
  table.pressed = "";
  if (symbol === "" || symbol === undefined) {
    return;
  }
  const button = event.target.closest("button");
  if (button !== null) {
    table.handlers.command(`${button.textContent.startsWith("Halt") ? "halt" : "resume"} ${symbol}`);
  } else {
    table.handlers.choose(symbol);
  }
}

function onKey(table, event) {
  if (
    event.target !== table.element ||
    event.ctrlKey ||
    event.altKey ||
    event.metaKey ||
    table.total === 0
  ) {
    return;
  }
  const page = Math.max(1, Math.floor(table.scroller.clientHeight / table.rowHeight) - 2);
  const from = table.wantedIndex >= 0 ? table.wantedIndex : table.chosenIndex;
  const targets = {
    ArrowDown: from + 1,
    ArrowUp: from - 1,
    PageDown: from + page,
    PageUp: from - page,
    Home: 0,
    End: table.total - 1,
  };
  if (event.key in targets) {
    event.preventDefault();
    chooseIndex(table, Math.min(Math.max(targets[event.key], 0), table.total - 1));
  }
}

// Chooses the instrument at a place and brings it in sight; one that is not there yet is chosen when it
// comes.
function chooseIndex(table, index) {
  scrollTo(table, index);
  const instrument = table.instruments[index - table.offset];
  if (instrument === undefined) {
    table.wantedIndex = index;
    askForView(table);
    return;
  }
  table.wantedIndex = -1;
  table.chosenIndex = index;
  table.handlers.choose(instrument.symbol);
}

function scrollTo(table, index) {
  const top = index * table.rowHeight;
  const room = table.scroller.clientHeight - 2 * table.rowHeight;
  if (top < table.scroller.scrollTop) {
    table.scroller.scrollTop = top;
  } else if (top > table.scroller.scrollTop + room) {
    table.scroller.scrollTop = top - room;
  }
}
