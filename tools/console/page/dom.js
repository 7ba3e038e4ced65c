// Small helpers for elements and texts. Everything that comes from the feed reaches the page as text nodes,
// never as markup.

export const byId = (id) => document.getElementById(id);

// A new element: properties such as className and type, attributes by their names with a dash or "role".
export function make(tag, properties = {}, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (name.includes("-") || !(name in node)) {
      node.setAttribute(name, value);
    } else {
      node[name] = value;
    }
  }
  node.append(...children);
  return node;
}

// Sets the text of an element whose only child is a text. Writes nothing when it is the same, so that nothing
// is laid out anew four times a second.
export function setText(node, text) {
  const value = String(text);
  const child = node.firstChild;
  if (child === null) {
    if (value !== "") {
      node.append(value);
    }
  } else if (child.nodeValue !== value) {
    child.nodeValue = value;
  }
}

export function setAttribute(node, name, value) {
  if (node.getAttribute(name) !== value) {
    node.setAttribute(name, value);
  }
}

// Gives a table body `count` rows, made by `makeRow`, and returns them.
export function sizeRows(body, count, makeRow) {
  while (body.children.length > count) {
    body.lastElementChild.remove();
  }
  while (body.children.length < count) {
    body.append(makeRow());
  }
  return body.children;
}

// Draws attention to a value that has risen or fallen. The two names by turns start the animation again.
export function flash(node, rises) {
  const name = rises ? "rise" : "fall";
  node.className = node.className.replace(/ ?\b(rise|fall)[01]\b/, "");
  node.flashes = 1 - (node.flashes || 0);
  node.classList.add(name + node.flashes);
}

const wholeNumber = new Intl.NumberFormat("en-US", { maximumFractionDigits: 0 });

export const NONE = "–";

export function count(value) {
  return typeof value === "number" ? wholeNumber.format(value) : NONE;
}

// Dollars: two decimals, or four where the price has them; a dash for none.
export function price(value) {
  if (!value) {
    return NONE;
  }
  const cents = value * 100;
  return Math.abs(cents - Math.round(cents)) < 1e-6 ? value.toFixed(2) : value.toFixed(4);
}

export function size(value) {
  return value ? count(value) : NONE;
}

// A rate with three digits or so: 84.2, 1,730, 232k, 1.55M.
export function rate(value) {
  if (typeof value !== "number") {
    return NONE;
  }
  if (value >= 1e6) {
    return `${(value / 1e6).toFixed(2)}M`;
  }
  if (value >= 1e5) {
    return `${(value / 1e3).toFixed(0)}k`;
  }
  return value < 100 ? value.toFixed(1) : count(value);
}

// Seconds as a short time: 812 ns, 4.31 µs, 1.20 ms, 2.00 s.
export function duration(seconds) {
  for (const [unit, scale] of [
    ["ns", 1e9],
    ["µs", 1e6],
    ["ms", 1e3],
  ]) {
    const value = seconds * scale;
    if (value < 999.5) {
      return `${value.toPrecision(3)} ${unit}`;
    }
  }
  return `${seconds.toFixed(2)} s`;
}

// Seconds as hours, minutes, seconds: 1:02:03.
export function clockSpan(seconds) {
  const whole = Math.floor(seconds);
  const two = (value) => String(value).padStart(2, "0");
  return `${Math.floor(whole / 3600)}:${two(Math.floor(whole / 60) % 60)}:${two(whole % 60)}`;
}

// The time of day of a moment in seconds since 1970.
export function timeOfDay(seconds = Date.now() / 1000) {
  return new Date(seconds * 1000).toLocaleTimeString("en-GB", { hour12: false });
}

const STATUS_WORDS = { T: "Trading", H: "Halted", P: "Paused", Q: "Quotes only" };

// The word for a status letter; a status that is not known is shown as it came.
export function statusWord(status) {
  return STATUS_WORDS[status] || String(status || "");
}

export function statusLetter(status) {
  const known = Object.entries(STATUS_WORDS).find(
    ([letter, word]) => status === letter || String(status).toLowerCase() === word.toLowerCase(),
  );
  return known ? known[0] : "other";
}
