// Commands: forms for those that concern the whole feed, a line for any other, the replies, and a recorder
// that makes a script of what was sent.

import { byId, make, setAttribute, setText, timeOfDay } from "./dom.js";

const REPLIES_KEPT = 100;

// Every command that takes no instrument, by what it is for; those for an instrument are beside the chosen
// one. `argument` is the field: its name, its first value, and for numbers the least that is allowed.
const GROUPS = [
  [
    "Market time",
    [
      { word: "pause", title: "Pause", effect: "No quotes and trades until resume; timers go on" },
      { word: "resume", title: "Resume", effect: "The market goes on" },
      {
        word: "rate",
        title: "Set rate",
        effect: "A tick every N milliseconds; negative: never",
        argument: { name: "Milliseconds between ticks", value: 100 },
      },
      {
        word: "mark",
        title: "Mark",
        effect: "A line in the truth log, a mark on the charts",
        argument: { name: "Label of the mark", text: true, placeholder: "label" },
      },
      { word: "stats", title: "Statistics", effect: "All counters as the feed replies them" },
      { word: "stop", title: "Stop the feed", effect: "The feed ends with status 0", danger: true },
    ],
  ],
  [
    "Damage",
    [
      { word: "drop", title: "Drop", effect: "The next N packets are not sent" },
      { word: "dup", title: "Duplicate", effect: "The next N packets are sent twice" },
      { word: "reorder", title: "Reorder", effect: "The next N packets are each held back for one packet" },
      { word: "drop_every", title: "Drop every", effect: "Every Nth packet is not sent; 0 ends it" },
      { word: "dup_every", title: "Duplicate every", effect: "Every Nth packet is sent twice; 0 ends it" },
      { word: "reorder_every", title: "Reorder every", effect: "Every Nth packet is held back; 0 ends it" },
    ],
  ],
  [
    "Trades and market-wide events",
    [
      { word: "trf", title: "TRF prints", effect: "The next N ticks print a TRF trade" },
      { word: "cancel", title: "Cancel", effect: "N trades are canceled or reported as errors" },
      { word: "correct", title: "Correct", effect: "N trades are corrected" },
      {
        word: "mwcb",
        title: "Breaker",
        effect: "Market-wide circuit breaker of level 1, 2 or 3",
        argument: { name: "Level of the breaker", value: 1, least: 1, most: 3 },
      },
      {
        word: "wipeout",
        title: "Wipe out",
        effect: "Every quote of a market center is wiped out",
        argument: { name: "Market center", text: true, placeholder: "Q", most: 1 },
      },
    ],
  ],
];

// Forms without a field; resume may have a symbol, which the buttons of the chosen instrument add.
const WITHOUT_ARGUMENT = ["pause", "resume", "stats", "stop"];
const INSTRUMENT_WORDS = ["halt", "luld_pause", "band", "close", "asof"];

export function createSteer() {
  const steer = { recording: false, start: 0, script: byId("script") };
  for (const [title, commands] of GROUPS) {
    const id = `group-${title.replaceAll(" ", "-").toLowerCase()}`;
    byId("command-groups").append(
      make(
        "div",
        { className: "block", role: "group", "aria-labelledby": id },
        make("h3", { id, textContent: title }),
        ...commands.map((each) => makeForm(steer, each)),
      ),
    );
  }
  const words = [
    ...GROUPS.flatMap(([, commands]) => commands.map((each) => each.word)),
    ...INSTRUMENT_WORDS,
  ];
  byId("command-words").append(...words.map((value) => make("option", { value })));
  makeLine(steer, "any-form", "any-command", "feed");
  makeLine(steer, "relay-form", "relay-command", "relay");
  byId("record").addEventListener("click", () => toggleRecorder(steer));
  byId("save-script").addEventListener("click", () => saveScript(steer));
  byId("clear-script").addEventListener("click", () => clearScript(steer));
  steer.script.addEventListener("input", () => showRecorder(steer));
  byId("confirm-stop").addEventListener("close", (event) => {
    if (event.target.returnValue === "stop") {
      send(steer, "stop");
    }
  });
  showRecorder(steer);
  return steer;
}

// What of the commands is possible here: nothing on a read-only console, the relay where there is one.
export function updateSteer({ control, relay }) {
  const readOnly = control?.read_only === true;
  setText(byId("steer-about"), readOnly ? "This console is read-only: it sends no commands" : "");
  document.body.classList.toggle("read-only", readOnly);
  byId("relay").hidden = !relay;
  setText(byId("relay-lines"), (relay?.lines || []).join("\n"));
}

function defaultArgument(word) {
  const every = word.endsWith("_every");
  return WITHOUT_ARGUMENT.includes(word)
    ? null
    : { name: every ? "Every Nth packet" : "How many", value: every ? 10 : 1, least: 0 };
}

function makeForm(steer, command) {
  const argument = command.argument || defaultArgument(command.word);
  const button = make("button", { textContent: command.title, className: command.danger ? "danger" : "" });
  const form = make("form", { className: "command", autocomplete: "off" }, button);
  let field = null;
  if (argument !== null) {
    field = make("input", {
      type: argument.text ? "text" : "number",
      "aria-label": `${command.title}: ${argument.name}`,
      name: command.word,
      required: true,
      spellcheck: false,
    });
    if (argument.text) {
      field.placeholder = argument.placeholder;
      field.maxLength = argument.most || 100;
      field.pattern = "[^\\s]+";
      field.title = "one word";
    } else {
      field.value = argument.value;
      field.step = 1;
      field.min = argument.least ?? -1;
      field.max = argument.most ?? 4294967295;
    }
    form.append(field);
  }
  form.append(make("span", { className: "muted", textContent: command.effect }));
  form.addEventListener("submit", (event) => {
    event.preventDefault();
    if (command.word === "stop") {
      byId("confirm-stop").returnValue = "cancel";
      byId("confirm-stop").showModal();
    } else {
      send(steer, field === null ? command.word : `${command.word} ${field.value.trim()}`);
    }
  });
  return form;
}

function makeLine(steer, formId, fieldId, to) {
  byId(formId).addEventListener("submit", (event) => {
    event.preventDefault();
    const field = byId(fieldId);
    if (field.value.trim() !== "") {
      send(steer, field.value.trim(), to);
      field.select();
    }
  });
}

// Sends one command and shows its reply.
export async function send(steer, command, to = "feed") {
  const moment = performance.now();
  let reply;
  try {
    const response = await fetch("/api/command", {
      method: "POST",
      headers: { "Content-Type": "application/json" },
      body: JSON.stringify(to === "feed" ? { command } : { command, to }),
    });
    reply = await readReply(response);
  } catch {
    reply = { ok: false, reply: "the console does not answer" };
  }
  if (reply.ok && to === "feed") {
    record(steer, command, moment);
  }
  showReply(to === "feed" ? command : `${to}: ${command}`, reply);
  return reply;
}

async function readReply(response) {
  const body = await response.json().catch(() => ({}));
  const reasons = {
    401: "not allowed: open the address that the console printed",
    403: "refused: this console is read-only",
    413: "the command is too long",
    502: "the feed does not answer",
  };
  return response.ok && typeof body.reply === "string"
    ? body
    : {
        ok: false,
        reply: body.error || body.reply || reasons[response.status] || `status ${response.status}`,
      };
}

function showReply(command, { ok, reply }) {
  const bar = byId("reply-bar");
  bar.className = `reply ${ok ? "ok" : "failed"}`;
  byId("reply").replaceChildren(make("b", { textContent: command }), make("span", { textContent: reply }));
  const row = make(
    "tr",
    { className: ok ? "" : "failed" },
    make("td", { className: "muted", textContent: timeOfDay() }),
    make("td", { className: "code", textContent: command }),
    make("td", { className: "code", textContent: reply }),
  );
  const body = byId("replies").tBodies[0];
  body.prepend(row);
  while (body.children.length > REPLIES_KEPT) {
    body.lastElementChild.remove();
  }
}

// The command as a script may have it. The feed reads one argument and ignores the rest of the line, which a
// script may not have; a number that the feed took for another one, and a '#', have no form there: "".
function scriptForm(text) {
  const [word, argument] = text.trim().split(/\s+/);
  const command = GROUPS.flatMap(([, commands]) => commands).find((each) => each.word === word);
  const isNumber = command !== undefined && !command.argument?.text && !WITHOUT_ARGUMENT.includes(word);
  if (text.includes("#") || (isNumber && argument !== undefined && !/^[+-]?\d{1,9}$/.test(argument))) {
    return "";
  }
  const takesNone = WITHOUT_ARGUMENT.includes(word) && word !== "resume";
  return argument === undefined || takesNone ? word : `${word} ${argument}`;
}

// A question changes nothing, so a script does without it.
function record(steer, command, moment) {
  if (!steer.recording || /^\s*stats\b/.test(command)) {
    return;
  }
  const text = scriptForm(command);
  const seconds = Math.max(0, moment - steer.start) / 1000;
  const line = text === "" ? `# not recorded: ${command}` : `+${seconds.toFixed(3)}s ${text}`;
  steer.script.value += `${line}\n`;
  steer.script.scrollTop = steer.script.scrollHeight;
  showRecorder(steer);
}

// Time counts from the beginning of the recording. One that goes on after a pause goes on after its last
// line.
function toggleRecorder(steer) {
  steer.recording = !steer.recording;
  if (steer.recording) {
    const moments = [...steer.script.value.matchAll(/^\+(\d+(?:\.\d+)?)s /gm)].map((found) =>
      Number(found[1]),
    );
    steer.start = performance.now() - 1000 * Math.max(0, ...moments);
  }
  showRecorder(steer);
}

function clearScript(steer) {
  steer.script.value = "";
  steer.start = performance.now();
  showRecorder(steer);
}

function showRecorder(steer) {
  const lines = steer.script.value.split("\n").filter((line) => line.trim() !== "").length;
  setAttribute(byId("record"), "aria-pressed", String(steer.recording));
  setText(byId("record"), steer.recording ? "Stop recording" : "Record");
  byId("save-script").disabled = lines === 0;
  byId("clear-script").disabled = lines === 0;
  const about = lines === 1 ? "1 line" : `${lines} lines`;
  setText(
    byId("recorder-about"),
    steer.recording
      ? `Recording: ${about}. What the feed accepts is added here.`
      : lines === 0
        ? "Commands sent while it records become a script with their moments."
        : `${about}, for tesselctl script and tessel-capture --script.`,
  );
}

function saveScript(steer) {
  const text = steer.script.value.endsWith("\n") ? steer.script.value : `${steer.script.value}\n`;
  const address = URL.createObjectURL(new Blob([text], { type: "text/plain" }));
  const link = make("a", { href: address, download: "recorded.timeline" });
  document.body.append(link);
  link.click();
  link.remove();
  setTimeout(() => URL.revokeObjectURL(address), 10000);
}
