// The log of one run: loaded in chunks, followed while it grows, searched in place, downloaded whole.
import { html, useState, useEffect, useRef, clean, note, wait } from "./ui.js";
import { call, segment } from "./api.js";

const FOLLOW_MS = 2500; // under one request in two seconds
const CHUNK = 49152; // bytes, the most that a server gives at once
const MOST_SHOWN = 2 << 20; // bytes; of a longer log, its end
const MOST_MATCHES = 2000;

const chunk = (server, job, id, offset, signal) => call(server, "GET", `jobs/${segment(job)}/runs/${segment(id)}/log?offset=${offset}&length=${CHUNK}`, { signal });
const ended = (part) => part.finished && part.next_offset >= part.size;
const mb = (bytes) => (bytes / 1048576).toFixed(1);

// Hands each piece of the log to `take` until the run has ended.
async function follow(server, job, id, signal, take) {
  let offset = 0;
  let failed = 0;
  while (!signal.aborted) {
    try {
      const part = await chunk(server, job, id, offset, signal);
      failed = 0;
      if (offset === 0 && part.size > MOST_SHOWN) {
        offset = part.size - MOST_SHOWN / 2;
        take({ text: "", skipped: offset, size: part.size });
        continue;
      }
      take({ text: part.data, size: part.size, done: ended(part) });
      if (ended(part)) return;
      const grew = part.next_offset > offset;
      offset = part.next_offset;
      if (!grew || offset >= part.size) await wait(FOLLOW_MS);
    } catch (error) {
      if (signal.aborted) return;
      if (error.status >= 400 && error.status < 500 && error.status !== 429) return take({ text: "", error: error.message });
      take({ text: "", error: error.message });
      await wait(Math.min(30000, FOLLOW_MS * 2 ** failed++));
    }
  }
}

async function download(server, job, id, progress) {
  const parts = [];
  let part = { next_offset: 0, size: 1, finished: false };
  while (part.next_offset < part.size) {
    const before = part.next_offset;
    part = await chunk(server, job, id, before);
    parts.push(part.data);
    progress(Math.round((part.next_offset / Math.max(1, part.size)) * 100));
    if (part.next_offset <= before) break;
  }
  const url = URL.createObjectURL(new Blob(parts, { type: "text/plain" }));
  const a = document.createElement("a");
  a.href = url;
  a.download = `${server}-${job}-${id}.log`.replace(/[^\w.-]/g, "_");
  a.click();
  setTimeout(() => URL.revokeObjectURL(url), 10000);
}

function findAll(text, wanted) {
  const all = text.toLowerCase();
  const found = [];
  for (let at = all.indexOf(wanted); at >= 0 && found.length < MOST_MATCHES; at = all.indexOf(wanted, at + wanted.length)) found.push(at);
  return found;
}

export function Log({ server, job, run }) {
  const box = useRef(null);
  const stick = useRef(true);
  const [status, setStatus] = useState({ size: run.size });
  const [wanted, setWanted] = useState("");
  const [place, setPlace] = useState(0);
  const [loading, setLoading] = useState("");

  useEffect(() => {
    const stop = new AbortController();
    const text = document.createTextNode("");
    box.current.replaceChildren(text);
    follow(server, job, run.id, stop.signal, (piece) => {
      // A chunk from the middle begins inside a line.
      const data = status.cut ? piece.text.slice(piece.text.indexOf("\n") + 1) : piece.text;
      status.cut = Boolean(piece.skipped);
      if (data) text.appendData(clean(data.replaceAll("\r", "")));
      if (stick.current && box.current) box.current.scrollTop = box.current.scrollHeight;
      setStatus((s) => ({ ...s, error: "", ...piece, text: undefined, length: text.length }));
    });
    return () => stop.abort();
  }, [server, job, run.id]);

  const needle = wanted.toLowerCase();
  const content = box.current?.firstChild;
  const matches = needle && content ? findAll(content.data, needle) : [];
  useEffect(() => {
    if (!CSS.highlights) return;
    const range = (at) => {
      const r = new Range();
      r.setStart(content, at);
      r.setEnd(content, at + needle.length);
      return r;
    };
    CSS.highlights.delete("match");
    CSS.highlights.delete("here");
    if (!matches.length) return;
    CSS.highlights.set("match", new Highlight(...matches.map(range)));
    const here = range(matches[place % matches.length]);
    CSS.highlights.set("here", new Highlight(here));
    const line = here.getBoundingClientRect();
    const frame = box.current.getBoundingClientRect();
    if (line.top < frame.top || line.bottom > frame.bottom) box.current.scrollTop += line.top - frame.top - frame.height / 2;
    return () => { CSS.highlights.delete("match"); CSS.highlights.delete("here"); };
  }, [needle, place, status.length]);

  const step = (n) => setPlace((p) => (matches.length ? (p + n + matches.length) % matches.length : 0));
  const save = async () => {
    try {
      await download(server, job, run.id, (part) => setLoading(`${part} %`));
    } catch (error) {
      note(error.message, { bad: true });
    }
    setLoading("");
  };
  const onScroll = (e) => { stick.current = e.target.scrollHeight - e.target.scrollTop - e.target.clientHeight < 24; };
  return html`<div class="log"><div class="row">
      <label class="grow"><span class="hidden">Search in the log</span><input type="search" placeholder="Search in the log" value=${wanted}
        onInput=${(e) => { setWanted(e.target.value); setPlace(0); stick.current = false; }} onKeyDown=${(e) => { if (e.key === "Enter") step(e.shiftKey ? -1 : 1); }} /></label>
      ${needle ? html`<span class="small" role="status">${matches.length ? `${(place % matches.length) + 1} of ${matches.length}${matches.length === MOST_MATCHES ? "+" : ""}` : "not found"}</span>
        <button aria-label="Previous match" onClick=${() => step(-1)}>↑</button><button aria-label="Next match" onClick=${() => step(1)}>↓</button>` : null}
      <button disabled=${!!loading} onClick=${save}>Download${loading ? ` ${loading}` : ""}</button></div>
    ${status.skipped ? html`<p class="small">The first ${mb(status.skipped)} MB are left out here. The download has all ${mb(status.size)} MB.</p>` : null}
    <pre ref=${box} tabindex="0" role="region" aria-label="Log of the run" onScroll=${onScroll}></pre>
    <p class="small">${status.error ? html`<span class="bad-text">${status.error}</span>` : status.done ? "The end of the log." : html`<span class="live" aria-hidden="true"></span> Following the run as it goes on.`}</p></div>`;
}
