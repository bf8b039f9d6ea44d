// One server: its timeline and its jobs.
import { html, useState, useNow, useMemo, clean, link, Time, State, Progress, Title, note, Scroll } from "./ui.js";
import { span } from "./time.js";
import { call, segment } from "./api.js";
import { summary, skew, usual, runsOf, lastSuccess, running, rights } from "./health.js";
import { inWords } from "./cron.js";
import { Timeline, Spark } from "./charts.js";

const CANCEL_DELAY_S = 4;

// Asks the daemon to run the job now.
export async function runJob(server, job) {
  try {
    const reply = await call(server.name, "POST", `jobs/${segment(job)}/run`);
    note(`${job}: ${reply.already_queued ? "already in the queue" : "queued"}${reply.running_job ? `, after ${reply.running_job}` : ""}`);
  } catch (error) {
    note(error.message, { bad: true });
  }
}

// Ends a run. What has run for hours is not to be lost by one wrong click: for a moment it can be
// taken back. A page that is left in that moment sends it at once.
export function cancelJob(server, job) {
  const send = async (last) => {
    clearTimeout(timer);
    removeEventListener("pagehide", leaving);
    try {
      const reply = await call(server.name, "POST", `jobs/${segment(job)}/cancel`, { last });
      note(`${job}: ${reply.cancelled === "stop_requested" ? "told to stop" : "taken out of the queue"}`);
    } catch (error) {
      note(error.message, { bad: true });
    }
  };
  const leaving = () => send(true);
  const timer = setTimeout(send, CANCEL_DELAY_S * 1000, false);
  addEventListener("pagehide", leaving);
  const undo = () => {
    clearTimeout(timer);
    removeEventListener("pagehide", leaving);
    note(`${job} goes on.`);
  };
  note(`${job} will be cancelled.`, { action: "Undo", run: undo, seconds: CANCEL_DELAY_S });
}

export function RunButtons({ server, job, state }) {
  const may = rights(server);
  if (!may.run) return null;
  const blocked = job.api_allowed === false ? "The server does not allow its command through the API ([api] allowed-commands)." : undefined;
  const about = `job-${segment(job.name)}`;
  return state === "RUNNING" || state === "QUEUED"
    ? html`<button aria-describedby=${about} disabled=${!!blocked} title=${blocked} onClick=${() => cancelJob(server, job.name)}>Cancel</button>`
    : html`<button aria-describedby=${about} disabled=${!!blocked} title=${blocked} onClick=${() => runJob(server, job.name)}>Run</button>`;
}

export const schedule = (job) => {
  if (job.schedule) return inWords(job.schedule) ?? job.schedule;
  if (job.once) return `once, ${job.once}`;
  return job.after?.length ? "when what it waits for has ended" : "by hand only";
};

const ORDER = ["RUNNING", "QUEUED", "FAILED", "STALE", "PENDING", "DONE", "DISABLED"];
const columns = [
  ["Job", (r) => r.job.name],
  ["State", (r) => ORDER.indexOf(r.state)],
  ["Schedule", (r) => schedule(r.job)],
  ["Last run", (r) => -(r.job.state?.last_run ?? 0)],
  ["Durations", (r) => -r.usual],
  ["Last success", (r) => r.success],
  ["Next run", (r) => r.job.state?.next_run || Infinity],
  ["Waits for", (r) => (r.job.after ?? []).join()],
];
const compare = (a, b) => (typeof a === "string" ? a.localeCompare(b, undefined, { numeric: true }) : a - b);

function JobRow({ server, row }) {
  const { job, state, runs } = row;
  const s = job.state;
  return useMemo(() => html`<tr class=${job.enabled ? "" : "off"}>
    <th scope="row"><a id=${`job-${segment(job.name)}`} class="name" href=${link(server.name, "job", job.name)}>${clean(job.name)}</a><span class="small">${clean(job.command)}${job.profile ? ` · ${clean(job.profile)}` : ""}</span></th>
    <td data-label="State"><${State} word=${state} />${state === "RUNNING" ? html`<${Progress} start=${s?.last_run} usual=${row.usual} offset=${skew(server)} />` : null}</td>
    <td data-label="Schedule" title=${job.schedule ?? ""}>${clean(schedule(job))}</td>
    <td data-label="Last run"><${Time} at=${s?.last_run} none="never" />${s?.last_finish > 0 && s.last_finish >= s.last_run ? html`<span class="small">${span(s.last_finish - s.last_run)}${s.last_exit_code ? html`, <span class="bad-text">exit ${s.last_exit_code}</span>` : ""}</span>` : null}</td>
    <td data-label="Durations"><${Spark} runs=${runs} /></td>
    <td data-label="Last success"><${Time} at=${row.success} none="none known" /></td>
    <td data-label="Next run"><${Time} at=${job.enabled && state !== "RUNNING" ? s?.next_run : 0} /></td>
    <td data-label="Waits for">${job.after?.length ? job.after.map((name, i) => html`${i ? ", " : ""}<a href=${link(server.name, "job", name)}>${clean(name)}</a>`) : html`<span class="none">–</span>`}</td>
    <td class="actions"><${RunButtons} server=${server} job=${job} state=${state} /></td></tr>`, [server, state]);
}

export const Away = ({ server }) => server.error
  ? html`<p class="banner bad" role="alert"><b>${!server.reachable ? "Not reachable." : !server.trusted ? "Not trusted." : "The server refuses."}</b> ${clean(server.error)} ${server.asked ? html`Last tried <${Time} at=${server.asked} />.` : ""}</p>` : null;

export function Server({ server }) {
  const [sort, setSort] = useState({ column: 1, down: false });
  const minute = Math.floor(useNow(20) / 60);
  const now = Date.now() / 1000;
  const s = summary(server, now);
  const info = server.info;
  const may = rights(server);
  const rows = useMemo(() => (server.jobs ?? []).map((job) => {
    const runs = runsOf(server, job.name);
    return { job, runs, state: s.words.get(job.name), usual: usual(job, runs), success: lastSuccess(job, runs) };
  }), [server, minute]);
  const key = columns[sort.column][1];
  const sorted = [...rows].sort((a, b) => (compare(key(a), key(b)) || compare(a.job.name, b.job.name)) * (sort.down ? -1 : 1));
  return html`<div class="head"><${Title}>${clean(server.name)}</${Title}><${State} word=${s.state} />
      <span class="grow"></span>
      ${info && may.write ? html`<a class="button" href=${link(server.name, "new")}>New job</a>` : null}
      ${info ? html`<a class="button" href=${link(server.name, "settings")}>Settings</a>` : null}</div>
    <${Away} server=${server} />
    ${info ? html`<dl class="facts"><div><dt>Host</dt><dd>${clean(info.host)}</dd></div><div><dt>Version</dt><dd>${clean(info.version)}</dd></div>
      <div><dt>Daemon since</dt><dd><${Time} at=${info.daemon_started} /></dd></div>
      <div><dt>Token</dt><dd>${clean(info.token?.name)} (${clean(info.token?.role)})</dd></div>
      <div><dt>Queue</dt><dd>${info.run_queue?.length ? info.run_queue.map(clean).join(", ") : "empty"}</dd></div></dl>` : null}
    ${info && may.why ? html`<p class="banner">${may.why}</p>` : null}
    ${server.jobs ? html`<section aria-label="Timeline"><h2>Last and next 24 hours</h2>${useMemo(() => html`<${Timeline} server=${server} now=${now} />`, [server, minute])}</section>
    <section><h2>Jobs <span class="count">${rows.length}</span></h2>
      ${rows.length ? html`<${Scroll} label="Jobs"><table class="cards jobs">
        <thead><tr>${columns.map(([name], i) => html`<th key=${name} scope="col" aria-sort=${sort.column === i ? (sort.down ? "descending" : "ascending") : null}>
          <button class="sort" onClick=${() => setSort({ column: i, down: sort.column === i && !sort.down })}>${name}<span aria-hidden="true">${sort.column === i ? (sort.down ? " ▾" : " ▴") : ""}</span></button></th>`)}
          <th scope="col"><span class="hidden">Actions</span></th></tr></thead>
        <tbody>${sorted.map((row) => html`<${JobRow} key=${row.job.name} server=${server} row=${row} />`)}</tbody></table></${Scroll}>` : html`<p class="empty">This server has no jobs yet.</p>`}</section>` : null}`;
}
