// The stream of events from the server: keeps one open, opens another when the page wants to see other rows,
// and comes back by itself.

const RETRY_MS = 1000;
const FULL_RETRY_MS = 3000;
const SILENCE_MS = 4000;

// `handlers` has state(query, data), instrument(data), market(data), skipped({ count }) for market events
// that were left out, and trouble(kind), where kind is "" while all is well, "away" (the console does not
// answer), "full" (all streams are taken) or "refused" (the token is no longer valid).
export function createStream(handlers) {
  const now = performance.now();
  const stream = {
    handlers,
    query: null,
    current: null,
    next: null,
    timer: 0,
    opened: now,
    heard: now,
    refusals: 0,
  };
  setInterval(() => checkSilence(stream), 1000);
  window.addEventListener("pagehide", () => closeAll(stream));
  window.addEventListener("pageshow", (event) => event.persisted && open(stream));
  return stream;
}

// Asks for the events of a view: { offset, limit, search, sort, symbol }.
export function watch(stream, query) {
  const text = new URLSearchParams(query).toString();
  if (text === stream.query) {
    return;
  }
  stream.query = text;
  open(stream);
}

function open(stream) {
  clearTimeout(stream.timer);
  close(stream.next);
  const query = stream.query;
  const source = new EventSource(`/api/events?${query}`);
  stream.next = source;
  source.onopen = () => settle(stream, source);
  source.onerror = () => fail(stream, source);
  source.addEventListener("state", (event) => {
    hear(stream, source);
    stream.handlers.state(query, JSON.parse(event.data));
  });
  source.addEventListener("instrument", (event) => {
    hear(stream, source);
    stream.handlers.instrument(JSON.parse(event.data));
  });
  source.addEventListener("skipped", (event) => stream.handlers.skipped(JSON.parse(event.data)));
  source.addEventListener("market", (event) => stream.handlers.market(JSON.parse(event.data)));
}

function close(source) {
  if (source !== null) {
    source.close();
  }
}

function closeAll(stream) {
  close(stream.current);
  close(stream.next);
  stream.current = stream.next = null;
}

// The new stream is open: the one before it goes. Both are heard in between, so no market event is missed.
function settle(stream, source) {
  if (stream.next === source) {
    close(stream.current);
    stream.current = source;
    stream.next = null;
    stream.opened = performance.now();
  }
}

function hear(stream, source) {
  settle(stream, source);
  stream.heard = performance.now();
  stream.refusals = 0;
  stream.handlers.trouble("");
}

function checkSilence(stream) {
  const now = performance.now();
  if (now - stream.heard <= SILENCE_MS) {
    return;
  }
  if (stream.refusals === 0) {
    stream.handlers.trouble("away");
  }
  if (stream.current !== null && now - stream.opened > SILENCE_MS) {
    fail(stream, stream.current);
  }
}

// A stream that broke or was refused. The status of a refusal is not visible here: another request asks for
// it.
async function fail(stream, source) {
  source.close();
  if (source !== stream.current && source !== stream.next) {
    return;
  }
  closeAll(stream);
  clearTimeout(stream.timer);
  const kind = await refusal(stream.query);
  if (stream.current !== null || stream.next !== null) {
    return;
  }
  let wait = RETRY_MS;
  if (kind === "full") {
    // One's own stream from a moment ago may still count: only a second refusal is reported.
    stream.refusals += 1;
    if (stream.refusals > 1) {
      stream.handlers.trouble(kind);
      wait = FULL_RETRY_MS;
    }
  } else if (kind !== "") {
    stream.refusals = kind === "refused" ? 1 : 0;
    stream.handlers.trouble(kind);
  }
  clearTimeout(stream.timer);
  stream.timer = setTimeout(() => open(stream), wait);
}

// Why a stream does not open: "away", "full", "refused", or "" when it would open now.
async function refusal(query) {
  const abort = new AbortController();
  const timer = setTimeout(() => abort.abort(), 2000);
  try {
    const response = await fetch(`/api/events?${query}`, { signal: abort.signal, cache: "no-store" });
    if (response.status === 503) {
      return "full";
    }
    return response.status === 401 || response.status === 403 ? "refused" : "";
  } catch {
    return "away";
  } finally {
    clearTimeout(timer);
    abort.abort();
  }
}
