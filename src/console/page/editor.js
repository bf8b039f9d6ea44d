// A form for settings in the words of the manual: checked by the server while one types, with the
// lines that will change before they are saved. What was typed survives a conflict.
import { html, useState, useEffect, useRef, clean, note } from "./ui.js";

// Form values are texts; a field has {key, name, kind, help, choices}.
export function toForm(fields, value) {
  const form = {};
  for (const f of fields) {
    const v = value?.[f.key];
    if (f.kind === "list") form[f.key] = (v ?? []).join(", ");
    else if (typeof v === "boolean") form[f.key] = v ? "yes" : "no";
    else form[f.key] = v == null ? (f.none ?? "") : String(v);
  }
  return form;
}
export function fromForm(f, text) {
  if (f.kind === "list") return text.split(",").map((s) => s.trim()).filter(Boolean);
  if (text === "") return null;
  if (f.kind === "bool") return text === "yes";
  // What is no number goes to the server as it is, which says what is wrong with it.
  if (f.kind === "number") return /^-?\d{1,15}$/.test(text.trim()) ? Number(text) : text;
  return text;
}
const changedFields = (fields, base, form) => fields.filter((f) => form[f.key] !== base[f.key]);
const line = (f, text) => `${f.name} = ${f.kind === "secret" ? "(not shown)" : text}`;
function lines(fields, before, after) {
  return changedFields(fields, before, after).flatMap((f) => [
    ...(before[f.key] !== (f.none ?? "") ? [["-", line(f, before[f.key])]] : []),
    ...(after[f.key] !== (f.none ?? "") ? [["+", line(f, after[f.key])]] : []),
  ]);
}
const Lines = ({ of }) => html`<ul class="diff">${of.map(([sign, text]) => html`<li key=${sign + text} class=${sign === "+" ? "ins" : "del"}><span class="hidden">${sign === "+" ? "new: " : "old: "}</span><span aria-hidden="true">${sign}</span> ${clean(text)}</li>`)}</ul>`;

function Field({ f, value, set, hint, locked, fault }) {
  const id = "f-" + f.key;
  const take = (e) => set(f.key, e.target.value);
  const common = { id, name: f.key, disabled: locked, "aria-describedby": id + "-help", onInput: take, onChange: take };
  const input = f.choices
    ? html`<select ...${common} value=${value}>${f.choices.map(([v, text, off]) => html`<option key=${v} value=${v} disabled=${off && v !== value} selected=${v === value}>${text ?? v}</option>`)}</select>`
    : html`<input ...${common} value=${value} type=${f.kind === "secret" ? "password" : "text"} inputmode=${f.kind === "number" ? "numeric" : null} autocomplete=${f.kind === "secret" ? "new-password" : "off"} spellcheck="false" placeholder=${f.placeholder} aria-invalid=${fault ? "true" : null} />`;
  return html`<div class="field"><label for=${id}>${f.name}</label>${input}<small id=${id + "-help"}>${hint ? html`<b>${clean(hint)}</b> ` : null}${f.help}</small></div>`;
}

// load() -> {etag, value}; save(body, etag) -> reply; check(body) -> the server's words, or "".
export function Editor({ fields, load, save, check, version, locked, why, hints, always = [], saved, children }) {
  const [state, setState] = useState(null); // {base, etag}
  const [form, setForm] = useState(null);
  const [verdict, setVerdict] = useState({ text: "" });
  const [theirs, setTheirs] = useState(null);
  const [busy, setBusy] = useState(false);
  const latest = useRef({});
  const saving = useRef(false);
  latest.current = { form, state };
  const changes = state && form ? lines(fields, state.base, form) : [];
  const dirty = changes.length > 0;

  const take = async () => {
    try {
      const { etag, value } = await load();
      const base = toForm(fields, value);
      const { form: typed, state: known } = latest.current;
      if (typed && !saving.current && changedFields(fields, known.base, typed).length) return; // typed meanwhile
      setState({ base, etag });
      setForm(base);
      setVerdict({ text: "" });
    } catch (error) {
      setVerdict({ text: error.message });
    }
  };
  // The server's definition changed while nothing was typed: show the new one.
  useEffect(() => { if (!dirty && !busy) take(); }, [version]);

  const body = (base, now) => {
    const out = {};
    for (const f of fields) if (now[f.key] !== base[f.key] || always.includes(f.key)) out[f.key] = fromForm(f, now[f.key]);
    return out;
  };
  const checked = useRef(0);
  useEffect(() => {
    if (!check || !dirty || locked) { if (!dirty) setVerdict((v) => (v.good ? { text: "" } : v)); return; }
    const mine = ++checked.current;
    const timer = setTimeout(async () => {
      const text = await check(body(state.base, form)).catch((error) => error.message);
      if (mine === checked.current) setVerdict({ text: text || "The server accepts this.", good: !text });
    }, 400);
    return () => clearTimeout(timer);
  }, [form, state]);

  // Somebody else changed the configuration: what they changed is shown, what was typed stays.
  const conflict = async (words) => {
    const fresh = await load();
    const now = toForm(fields, fresh.value);
    const { form: typed, state: known } = latest.current;
    const other = lines(fields, known.base, now);
    // Something else of the file was changed: the change is as good as before.
    if (!other.length && fresh.etag !== known.etag) return save(body(known.base, typed), fresh.etag);
    const merged = { ...now };
    for (const f of changedFields(fields, known.base, typed)) merged[f.key] = typed[f.key];
    setTheirs(other);
    setState({ base: now, etag: fresh.etag });
    setForm(merged);
    throw new Error(words);
  };
  const submit = async (event) => {
    event.preventDefault();
    if (locked || busy || !dirty) return;
    setBusy((saving.current = true));
    ++checked.current;
    try {
      await save(body(state.base, form), state.etag).catch((error) => {
        if (error.status !== 412) throw error;
        return conflict(error.message);
      });
      setTheirs(null);
      note(saved);
      await take();
    } catch (error) {
      setVerdict({ text: error.message });
    }
    setBusy((saving.current = false));
  };
  if (!form) return html`<p class=${verdict.text ? "banner bad" : "empty"} role="status">${verdict.text || "Loading …"}</p>`;
  const set = (key, value) => setForm((known) => ({ ...known, [key]: value }));
  return html`<form class="editor" onSubmit=${submit} autocomplete="off">
    ${children}
    ${why ? html`<p class="banner">${why}</p>` : null}
    <div class="fields">${fields.map((f) => (f.hide?.(form) ? null : html`<${Field} key=${f.key} f=${f} value=${form[f.key]} set=${set} hint=${hints?.(f.key, form)} locked=${locked || f.locked} fault=${!verdict.good && [f.key, f.name].some((name) => verdict.text.includes(`'${name}'`))} />`))}</div>
    ${theirs ? html`<div class="banner" role="alert"><b>The configuration was changed meanwhile:</b><${Lines} of=${theirs} /> What you typed is kept. Press Save to make your change on top of it.</div>` : null}
    ${dirty ? html`<div class="changes" role="group" aria-label="What will change"><h3>What will change</h3><${Lines} of=${changes} /></div>` : null}
    <p class=${"verdict " + (verdict.good ? "good-text" : "bad-text")} role="status">${clean(verdict.text)}</p>
    ${locked ? null : html`<div class="row"><button class="primary" disabled=${!dirty || busy}>Save</button>
      <button type="button" disabled=${!dirty || busy} onClick=${() => { setForm(state.base); setTheirs(null); setVerdict({ text: "" }); }}>Reset</button></div>`}
  </form>`;
}
