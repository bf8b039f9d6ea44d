// All servers, trouble first, and a filter that finds a job anywhere.
import { html, useState, useRef, useMemo, useNow, clean, link, Time, State, Progress, Title, Scroll, Heads } from "./ui.js";
import { useStore } from "./store.js";
import { summary, skew, usual, runsOf, running } from "./health.js";
import { Strip } from "./charts.js";

const MOST_FOUND = 200;

export function Running({ server, job }) {
  if (!job) return html`<span class="none">–</span>`;
  return html`<a href=${link(server.name, "job", job.name)}>${clean(job.name)}</a>
    <${Progress} start=${job.state?.last_run ?? server.info.time} usual=${usual(job, runsOf(server, job.name))} offset=${skew(server)} />`;
}

const Names = ({ server, jobs, state }) =>
  html`${jobs.slice(0, 3).map((job, i) => html`${i ? ", " : ""}<a key=${job.name} class=${state} href=${link(server.name, "job", job.name)}>${clean(job.name)}</a>`)}${jobs.length > 3 ? html` <span class="small">and ${jobs.length - 3} more</span>` : null}`;

function Row({ server, minute }) {
  return useMemo(() => {
    const now = minute * 60;
    const s = summary(server, now);
    const trouble = s.failed.length + s.stale.length;
    return html`<tr>
      <th scope="row"><a class="name" href=${link(server.name)}>${clean(server.name)}</a>
        <span class="small">${server.info ? clean(server.info.host) : "not known yet"}</span></th>
      <td data-label="State"><${State} word=${s.state} />${server.error ? html`<span class="small bad-text">${clean(server.error)}</span>` : null}</td>
      <td data-label="Running"><${Running} server=${server} job=${s.active} /></td>
      <td data-label="Failed and stale">${trouble ? null : html`<span class="none">${server.jobs ? "none" : "–"}</span>`}
        ${s.failed.length ? html`<div><b class="bad-text">${s.failed.length} failed</b> <${Names} server=${server} jobs=${s.failed} /></div>` : null}
        ${s.stale.length ? html`<div><b class="warn-text">${s.stale.length} stale</b> <${Names} server=${server} jobs=${s.stale} /></div>` : null}</td>
      <td data-label="Next run">${s.next ? html`<${Time} at=${s.next.state.next_run} /> <a class="small" href=${link(server.name, "job", s.next.name)}>${clean(s.next.name)}</a>` : html`<span class="none">–</span>`}</td>
      <td class="wide" data-label="Last and next 24 hours"><${Strip} server=${server} now=${now} /></td>
    </tr>`;
  }, [server, minute]);
}

const contains = (text, wanted) => text != null && String(text).toLowerCase().includes(wanted);
function findJobs(servers, wanted) {
  const found = [];
  for (const server of servers) {
    for (const job of server.jobs ?? []) {
      if ([job.name, job.command, job.profile, job.args, server.name].some((text) => contains(text, wanted))) found.push({ server, job });
    }
  }
  return found;
}

function Found({ servers, wanted, now }) {
  const found = findJobs(servers, wanted);
  return html`<section><h2>Jobs that match <span class="count" role="status">${found.length}</span></h2>
    <${Scroll} label="Jobs that match"><table class="cards"><${Heads} names=${["Job", "Server", "State", "Last run", "Next run"]} />
      <tbody>${found.slice(0, MOST_FOUND).map(({ server, job }) => html`<tr key=${server.name + "/" + job.name}>
        <th scope="row"><a href=${link(server.name, "job", job.name)}>${clean(job.name)}</a></th>
        <td data-label="Server"><a href=${link(server.name)}>${clean(server.name)}</a></td>
        <td data-label="State"><${State} word=${summary(server, now).words.get(job.name)} /></td>
        <td data-label="Last run"><${Time} at=${job.state?.last_run} none="never" /></td>
        <td data-label="Next run"><${Time} at=${running(server, job) ? 0 : job.state?.next_run} /></td></tr>`)}</tbody></table></${Scroll}>
    ${found.length > MOST_FOUND ? html`<p class="small">Only the first ${MOST_FOUND} are shown.</p>` : null}
  </section>`;
}

// Rows stay where they are while the pointer or the focus is among them.
function useSteadyOrder(servers, now) {
  const order = useRef([]);
  const held = useRef(false);
  const wanted = [...servers].sort((a, b) => summary(a, now).rank - summary(b, now).rank || a.name.localeCompare(b.name, undefined, { numeric: true }));
  const same = order.current.length === wanted.length && wanted.every((s) => order.current.includes(s.name));
  if (!held.current || !same) order.current = wanted.map((s) => s.name);
  const hold = (on) => () => { held.current = on; };
  const places = new Map(order.current.map((name, i) => [name, i]));
  return [wanted.sort((a, b) => places.get(a.name) - places.get(b.name)),
    { onMouseEnter: hold(true), onMouseLeave: hold(false), onFocusIn: hold(true), onFocusOut: hold(false) }];
}

export function Overview() {
  const { servers } = useStore();
  const [filter, setFilter] = useState("");
  const minute = Math.floor(useNow(20) / 60);
  const now = minute * 60;
  const all = [...servers.values()];
  const [rows, hold] = useSteadyOrder(all, now);
  const wanted = filter.trim().toLowerCase();
  const shown = wanted ? rows.filter((s) => contains(s.name, wanted) || contains(s.info?.host, wanted)) : rows;
  const count = (test) => all.filter((s) => test(summary(s, now))).length;
  const sum = (list) => all.reduce((n, s) => n + summary(s, now)[list].length, 0);
  const away = count((s) => s.state === "unreachable" || s.state === "not trusted" || s.state === "error");
  return html`<${Title}>Overview</${Title}>
    <div class="facts" role="group" aria-label="Summary">
      <span><b>${all.length}</b> ${all.length === 1 ? "server" : "servers"}</span>
      <span class=${away ? "bad-text" : ""}><b>${away}</b> not available</span>
      <span class=${sum("failed") ? "bad-text" : ""}><b>${sum("failed")}</b> failed ${sum("failed") === 1 ? "job" : "jobs"}</span>
      <span class=${sum("stale") ? "warn-text" : ""}><b>${sum("stale")}</b> stale</span>
      <span><b>${count((s) => s.active)}</b> running</span>
      <label class="filter"><span class="hidden">Find a server or a job</span>
        <input id="filter" type="search" placeholder="Find a server or a job  ( / )" value=${filter} onInput=${(e) => setFilter(e.target.value)} /></label>
    </div>
    ${shown.length ? html`<${Scroll} label="Servers"><table class="cards overview" ...${hold}><${Heads} names=${["Server", "State", "Running", "Failed and stale", "Next run", "Last and next 24 hours"]} />
      <tbody>${shown.map((server) => html`<${Row} key=${server.name} server=${server} minute=${minute} />`)}</tbody></table></${Scroll}>`
      : html`<p class="empty">${all.length ? "No server matches." : "No server has been asked yet."}</p>`}
    ${wanted ? html`<${Found} servers=${all} wanted=${wanted} now=${now} />` : null}`;
}
