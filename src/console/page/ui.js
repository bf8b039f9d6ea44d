// The few pieces that every view is made of. Texts of a server reach the page as text nodes and
// attribute values only; the page's policy makes anything else an error.
import { html, render, useState, useEffect, useRef, useMemo, useCallback } from "/vendor/preact.js";
import { ago, absolute, span } from "./time.js";

export { html, render, useState, useEffect, useRef, useMemo, useCallback };

// What steers a terminal or turns the direction of writing is shown as a mark.
export const clean = (text) =>
  String(text ?? "").replace(/[\u0000-\u0008\u000b-\u001f\u007f-\u009f\u200e\u200f\u202a-\u202e\u2066-\u2069]/g, "\ufffd");

// The present time in seconds, renewed every `step` of them; all users of one step share a timer.
const clocks = new Map();
export function useNow(step = 1) {
  const [now, set] = useState(() => Date.now() / 1000);
  useEffect(() => {
    let clock = clocks.get(step);
    if (!clock) clocks.set(step, (clock = { users: new Set() }));
    if (!clock.users.size) {
      clock.timer = setInterval(() => clock.users.forEach((use) => use(Date.now() / 1000)), step * 1000);
    }
    clock.users.add(set);
    return () => {
      clock.users.delete(set);
      if (!clock.users.size) clearInterval(clock.timer);
    };
  }, [step]);
  return now;
}

export const link = (...parts) => "#/" + parts.map(encodeURIComponent).join("/");

export function Time({ at, none = "–" }) {
  const now = useNow(20);
  if (!at) return html`<span class="none">${none}</span>`;
  return html`<time datetime=${new Date(at * 1000).toISOString()} title=${absolute(at)}>${ago(at, now)}</time>`;
}

const marks = {
  ok: "✓", DONE: "✓", done: "✓", RUNNING: "▶", FAILED: "✕", failed: "✕", "timed out": "✕", lost: "✕",
  STALE: "!", PENDING: "·", DISABLED: "–", QUEUED: "…", cancelled: "–", busy: "…", running: "▶",
  "not trusted": "✕", unreachable: "✕", error: "!", asking: "…", "needs attention": "!",
};
const tones = {
  DONE: "good", ok: "good", done: "good", RUNNING: "run", running: "run", FAILED: "bad", failed: "bad", "timed out": "bad",
  lost: "bad", next: "next", cancelled: "calm", "not trusted": "bad", unreachable: "bad", error: "warn", STALE: "warn", "needs attention": "bad",
};
export const tone = (word) => tones[word] || "calm";
// A state: a mark, a word and a colour, never the colour alone.
export const State = ({ word }) =>
  html`<span class=${"state " + tone(word)}><span aria-hidden="true">${marks[word] || "·"}</span> ${word}</span>`;

export function Progress({ start, usual, offset = 0 }) {
  const now = useNow(1) + offset;
  const elapsed = Math.max(0, now - start);
  const part = usual ? Math.min(1, elapsed / usual) : 0;
  const words = usual ? `${span(elapsed)} of usually ${span(usual)}` : `for ${span(elapsed)}`;
  return html`<span class="progress">
    ${usual ? html`<progress max="1" value=${part} aria-label="progress against the usual duration" class=${elapsed > usual * 1.5 ? "long" : ""} />` : null}
    <span class="small">${words}</span></span>`;
}

// Messages at the edge of the page, read out politely. An action stays until it is over.
const notes = { list: [], changed: () => {} };
let noteId = 0;
export function note(text, { action, run, bad, seconds = 7 } = {}) {
  const one = { id: ++noteId, text: clean(text), action, run, bad };
  one.close = () => {
    notes.list = notes.list.filter((n) => n !== one);
    notes.changed();
  };
  notes.list = [...notes.list, one].slice(-4);
  notes.changed();
  setTimeout(one.close, (bad ? 15 : seconds) * 1000);
  return one;
}
export function Notes() {
  const [, draw] = useState(0);
  notes.changed = () => draw((n) => n + 1);
  return html`<div class="notes" role="status">
    ${notes.list.map((n) => html`<div key=${n.id} class=${n.bad ? "note bad" : "note"}>
      <span>${n.text}</span>
      ${n.action ? html`<button onClick=${() => { n.run(); n.close(); }}>${n.action}</button>` : null}
      <button class="plain" aria-label="Close this message" onClick=${n.close}>×</button>
    </div>`)}
  </div>`;
}

// A question that needs the name of a thing typed before it can be answered with yes.
export function AskName({ title, name, yes, onYes, onNo, children }) {
  const dialog = useRef(null);
  const [typed, setTyped] = useState("");
  useEffect(() => { dialog.current.showModal(); }, []);
  const submit = (event) => {
    event.preventDefault();
    if (typed === name) onYes();
  };
  return html`<dialog ref=${dialog} onClose=${onNo} aria-labelledby="ask-title">
    <form onSubmit=${submit}>
      <h2 id="ask-title">${title}</h2>
      ${children}
      <label class="field"><span>Type <b>${clean(name)}</b> to confirm</span>
        <input name="confirm" autocomplete="off" value=${typed} onInput=${(e) => setTyped(e.target.value)} autofocus /></label>
      <div class="row end"><button type="button" onClick=${() => dialog.current.close()}>Keep it</button>
        <button class="danger" disabled=${typed !== name}>${yes}</button></div>
    </form>
  </dialog>`;
}

// A table that scrolls by itself where it is too wide; the keyboard reaches it, too.
export const Scroll = ({ label, name = "", children }) => html`<div class=${"scroll " + name} tabindex="0" role="region" aria-label=${label}>${children}</div>`;
export const Heads = ({ names }) => html`<thead><tr>${names.map((name) => html`<th scope="col" key=${name}>${name}</th>`)}</tr></thead>`;

export const wait = (ms) => new Promise((done) => setTimeout(done, ms));

// The head of a view. It takes the focus when the reader has gone there, so that a screen reader
// says where one is.
let visited = false;
export function Title({ children, ...rest }) {
  const heading = useRef(null);
  useEffect(() => {
    if (visited) heading.current.focus({ preventScroll: true });
    visited = true;
  }, []);
  return html`<h1 ref=${heading} tabindex="-1" ...${rest}>${children}</h1>`;
}
