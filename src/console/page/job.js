// One job: its definition, its history and the log of a run.
import { html, useState, useEffect, useMemo, useNow, clean, link, Time, State, Progress, Title, AskName, note, Scroll } from "./ui.js";
import { call, segment } from "./api.js";
import { Editor } from "./editor.js";
import { inWords, parse, times, zoneOffset } from "./cron.js";
import { absolute, span } from "./time.js";
import { word, usual, runsOf, running, rights, skew } from "./health.js";
import { RunButtons, Away } from "./server.js";
import { Spark } from "./charts.js";
import { Log } from "./log.js";

const yesNo = [["", "not set"], ["yes"], ["no"]];

function jobFields(server) {
  const info = server.info ?? {};
  const allowed = info.policy?.allowed_commands ?? [];
  const takes = (what) => (form) => !(info.commands ?? []).some((c) => c.name === form.command && c[what]);
  return [
    { key: "command", name: "command", choices: (info.commands ?? []).map((c) => [c.name, allowed.includes(c.name) ? c.name : `${c.name} (not allowed through the API)`, !allowed.includes(c.name)]), help: "What the job does." },
    { key: "profile", name: "profile", help: "The tool's profile, passed as --name.", hide: (form) => takes("profile")(form) && !form.profile },
    { key: "args", name: "args", help: "Further arguments; double quotes keep blanks together.", locked: info.policy?.allow_args === false },
    { key: "schedule", name: "schedule", help: "Minute, hour, day of month, month, day of week.", placeholder: "30 1 * * *" },
    { key: "once", name: "once", help: "Runs the job once: YYYY-MM-DD HH:MM in the server's local time. Not together with schedule." },
    { key: "after", name: "after", kind: "list", help: "Runs the job when all of these jobs have ended." },
    { key: "after_mode", name: "after-mode", none: "success", choices: [["success"], ["finished"]], help: "Whether those jobs must have succeeded, or only ended." },
    { key: "enabled", name: "enabled", kind: "bool", none: "yes", choices: [["yes"], ["no"]], help: "Enabled again, it starts with a fresh next run." },
    { key: "timeout_seconds", name: "timeout-seconds", kind: "number", help: "The job's own time limit." },
    { key: "notify", name: "notify", none: "inherit", choices: [["inherit"], ["never"], ["failed"], ["always"]], help: "After which runs a mail is sent." },
    { key: "run_background", name: "run-background", kind: "bool", choices: yesNo, help: "Whether orv_sched run passes --background to the tool.", hide: takes("profile") },
    { key: "start_background", name: "start-background", kind: "bool", choices: yesNo, help: "Whether orv_sched start passes --background to the tool.", hide: takes("profile") },
    { key: "retention", name: "retention", help: "How long the backup is to be kept: 14d, 4w, 12m, 2y or forever.", hide: (form) => takes("retention")(form) && !form.retention },
    { key: "retention_class", name: "retention-class", help: "A class for retention; needs a retention.", hide: (form) => takes("retention")(form) && !form.retention_class },
  ];
}

const hints = (server) => (key, form) => {
  if (key !== "schedule" || !form.schedule) return "";
  const rule = parse(form.schedule);
  if (!rule) return "Not a cron expression.";
  const now = Date.now() / 1000;
  const next = times(rule, now, zoneOffset(server.jobs ?? [], now), 2);
  return `${inWords(form.schedule)}${next.length ? `; next ${next.map(absolute).join(" and ")}` : "; never"}.`;
};

async function verdict(server, name, body) {
  const reply = await call(server.name, "POST", "validate/job", { body: { name, ...body } });
  return reply.valid ? "" : (reply.result?.error?.message ?? "not valid");
}

export function NewJob({ server }) {
  const [name, setName] = useState("");
  const [id] = useState(() => ({}));
  const may = rights(server);
  const fields = useMemo(() => jobFields(server), [server]);
  const save = async (body, etag) => {
    await call(server.name, "PUT", `jobs/${segment(name)}`, { body, etag });
    location.hash = link(server.name, "job", name);
  };
  return html`<${Title}>New job</${Title}>
    <${Editor} fields=${fields} version=${id} locked=${!may.write} why=${may.why} hints=${hints(server)} always=${["command"]}
      load=${async () => ({ etag: (await call(server.name, "GET", "info")).config_etag, value: { command: "agent" } })}
      check=${(body) => (name ? verdict(server, name, body) : Promise.resolve("A name is needed."))} save=${save} saved=${`${name}: created`}>
      <div class="field"><label for="f-name">name</label><input id="f-name" name="name" value=${name} onInput=${(e) => setName(e.target.value)} spellcheck="false" /><small>Letters, digits, ".", "_" and "-", at most 64.</small></div>
    </${Editor}>`;
}

async function setEnabled(server, name, enabled) {
  try {
    const { config_etag } = await call(server.name, "GET", `jobs/${segment(name)}`);
    await call(server.name, "PUT", `jobs/${segment(name)}`, { body: { enabled }, etag: config_etag });
    note(`${name} is ${enabled ? "enabled" : "disabled"}.`, { action: "Undo", run: () => setEnabled(server, name, !enabled), seconds: 20 });
  } catch (error) {
    note(error.message, { bad: true });
  }
}

async function remove(server, name) {
  try {
    const { config_etag } = await call(server.name, "GET", `jobs/${segment(name)}`);
    await call(server.name, "DELETE", `jobs/${segment(name)}`, { etag: config_etag });
    note(`${name} is deleted.`);
    location.hash = link(server.name);
  } catch (error) {
    note(error.message, { bad: true });
  }
}

const outcome = (run, going) => {
  if (!run.finished) return going ? "running" : "lost";
  if (run.timed_out) return "timed out";
  if (run.cancelled) return "cancelled";
  return run.exit_code === 0 ? "done" : run.exit_code === 75 ? "busy" : "failed";
};

function History({ runs, going, chosen, choose }) {
  return html`<${Scroll} label="History" name="history"><table>
    <thead><tr><th scope="col">Start</th><th scope="col">Result</th><th scope="col">Duration</th><th scope="col">Exit</th><th scope="col"><span class="hidden">Log</span></th></tr></thead>
    <tbody>${runs.map((run, i) => html`<tr key=${run.id} class=${run.id === chosen ? "chosen" : ""}>
      <th scope="row"><${Time} at=${run.start} /></th><td><${State} word=${outcome(run, going && i === 0)} /></td>
      <td>${run.finish ? span(run.finish - run.start) : "–"}</td><td>${run.exit_code ?? "–"}</td>
      <td class="actions"><button aria-pressed=${run.id === chosen} aria-label=${`Log of ${absolute(run.start)}`} onClick=${() => choose(run.id)}>Log</button></td></tr>`)}</tbody></table></${Scroll}>`;
}

// The runs from the server itself, asked for again when the job's last run is another one.
function useRuns(server, name, job) {
  const [runs, setRuns] = useState(null);
  const [error, setError] = useState("");
  const s = job?.state;
  useEffect(() => {
    let current = true;
    call(server.name, "GET", `jobs/${segment(name)}/runs`).then(
      (reply) => { if (current) { setRuns(reply.runs); setError(""); } },
      (e) => { if (current) setError(e.message); });
    return () => { current = false; };
  }, [server.name, name, s?.last_run, s?.last_finish, s?.status, server.reachable]);
  return [runs, error];
}

export function Job({ server, name }) {
  const job = server.jobs?.find((j) => j.name === name);
  const now = useNow(20);
  const [runs, error] = useRuns(server, name, job);
  const [chosen, choose] = useState(null);
  const [asking, setAsking] = useState(false);
  const may = rights(server);
  const fields = useMemo(() => jobFields(server), [server.info?.config_etag, server.info?.policy]);
  if (server.jobs && !job) return html`<${Title}>${clean(name)}</${Title}><p class="empty">${clean(server.name)} has no job of this name.</p>`;
  if (!job) return html`<${Title}>${clean(name)}</${Title}><${Away} server=${server} /><p class="empty">Nothing is known of this job yet.</p>`;
  const state = word(server, job, now);
  const going = running(server, job);
  const shown = runs?.find((r) => r.id === chosen) ?? runs?.[0];
  const about = `job-${segment(name)}`;
  const load = async () => {
    const reply = await call(server.name, "GET", `jobs/${segment(name)}`);
    return { etag: reply.config_etag, value: reply.job };
  };
  const history = runsOf(server, name);
  return html`<div class="head"><${Title} id=${about}>${clean(name)}</${Title}><${State} word=${state} />
      ${going ? html`<${Progress} start=${job.state.last_run} usual=${usual(job, history)} offset=${skew(server)} />` : null}
      <span class="grow"></span>
      <${RunButtons} server=${server} job=${job} state=${state} />
      ${may.write ? html`<button aria-describedby=${about} onClick=${() => setEnabled(server, name, !job.enabled)}>${job.enabled ? "Disable" : "Enable"}</button>
        <button class="danger" aria-describedby=${about} onClick=${() => setAsking(true)}>Delete</button>` : null}</div>
    ${asking ? html`<${AskName} title=${`Delete ${clean(name)}?`} name=${name} yes="Delete" onNo=${() => setAsking(false)} onYes=${() => { setAsking(false); remove(server, name); }}>
      <p>Its section is removed from the configuration; a copy of the file is kept on the server. Logs stay.</p></${AskName}>` : null}
    <${Away} server=${server} />
    <div class="columns"><section><h2>Log</h2>
        ${error ? html`<p class="banner bad">${error}</p>` : null}
        ${shown ? html`<${Log} key=${shown.id} server=${server.name} job=${name} run=${shown} />` : html`<p class="empty">${runs ? "It has not run yet, or no log is kept." : "Loading …"}</p>`}</section>
      <section><h2>History</h2>
        ${history.length ? html`<${Spark} runs=${history} count=${Math.max(20, Math.min(60, history.length))} tall=${true} />` : null}
        ${runs?.length ? html`<${History} runs=${runs} going=${going} chosen=${shown?.id} choose=${choose} />` : null}
        <dl class="facts"><div><dt>Next run</dt><dd><${Time} at=${job.enabled && !going ? job.state?.next_run : 0} /></dd></div><div><dt>Usually</dt><dd>${usual(job, history) ? span(usual(job, history)) : "–"}</dd></div></dl></section></div>
    <section><h2>Definition</h2><${Editor} fields=${fields} load=${load} version=${server.info?.config_etag} locked=${!may.write} why=${may.why} hints=${hints(server)}
      check=${(body) => verdict(server, name, body)} save=${(body, etag) => call(server.name, "PUT", `jobs/${segment(name)}`, { body, etag })} saved=${`${name}: saved`} /></section>`;
}
