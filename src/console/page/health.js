// What the page concludes from what the console knows: states as words, trouble, usual durations,
// and the serial timeline of the past and the next 24 hours.
import { parse, times, longestGap, zoneOffset } from "./cron.js";

const DAY = 86400;
const TROUBLE = ["not trusted", "unreachable", "error", "needs attention", "asking", "running", "ok"];

export const runsOf = (server, name) => (server.runs?.[name] ?? []).map(([start, finish, outcome]) => ({ start, finish, outcome }));

// Seconds that the server's clock is ahead of ours.
export const skew = (server) => (server.info && server.asked ? server.info.time - server.asked : 0);

function median(values) {
  const row = values.sort((a, b) => a - b);
  return row.length ? row[Math.floor((row.length - 1) / 2)] : 0;
}

// The usual duration of a job in seconds, from its successful runs; 0 when there is none.
export function usual(job, runs) {
  const done = runs.filter((r) => r.outcome === "done" && r.finish).slice(0, 20).map((r) => r.finish - r.start);
  if (done.length) return Math.max(1, median(done));
  const s = job.state;
  return s?.last_exit_code === 0 && s.last_finish > s.last_run ? s.last_finish - s.last_run : 0;
}

export const running = (server, job) => job.state?.status === "RUNNING" || server.info?.running_job === job.name;

// The word for a job's state.
export function word(server, job, now) {
  if (running(server, job)) return "RUNNING";
  if (job.state?.run_requested || server.info?.run_queue?.includes(job.name)) return "QUEUED";
  const status = job.state?.status ?? "PENDING";
  if (!job.enabled) return "DISABLED";
  if (status === "FAILED") return "FAILED";
  return stale(server, job, now) ? "STALE" : status;
}

// The end of the newest success; 0 when none is known.
export function lastSuccess(job, runs) {
  const newest = runs.find((r) => r.outcome === "done")?.finish ?? 0;
  const s = job.state;
  return Math.max(newest, s?.last_exit_code === 0 ? (s.last_finish ?? 0) : 0);
}

// The longest gap between two of its times, and of those that it waits for.
function gapOf(job, byName, now, seen = new Set()) {
  if (job.once || seen.has(job.name)) return 0;
  seen.add(job.name);
  return Math.max(job.schedule ? longestGap(job.schedule, now) : 0, ...(job.after ?? []).map((name) => (byName.has(name) ? gapOf(byName.get(name), byName, now, seen) : 0)));
}

// No success for more than twice the longest gap. Without a known success it counts from the oldest
// known run.
function stale(server, job, now) {
  if (!job.enabled || job.once || !job.state?.last_run) return false;
  const runs = runsOf(server, job.name);
  const gap = gapOf(job, jobsByName(server), now);
  const since = lastSuccess(job, runs) || (runs.at(-1)?.start ?? job.state.last_run);
  return gap > 0 && now - since > 2 * gap;
}

const names = new WeakMap();
function jobsByName(server) {
  if (!names.has(server)) names.set(server, new Map((server.jobs ?? []).map((job) => [job.name, job])));
  return names.get(server);
}

const summaries = new WeakMap();
// Everything that the overview says of a server, renewed every minute and when the server changes.
export function summary(server, now) {
  const minute = Math.floor(now / 60);
  const known = summaries.get(server);
  if (known?.minute === minute) return known;
  const jobs = server.jobs ?? [];
  const words = new Map(jobs.map((job) => [job.name, word(server, job, now)]));
  const of = (state) => jobs.filter((job) => words.get(job.name) === state);
  const failed = of("FAILED");
  const old = of("STALE");
  const active = of("RUNNING")[0] ?? null;
  const next = jobs.filter((job) => job.enabled && job.state?.next_run > 0 && !running(server, job))
    .reduce((best, job) => (!best || job.state.next_run < best.state.next_run ? job : best), null);
  let state = "ok";
  if (!server.asked) state = "asking";
  else if (server.reachable && !server.trusted) state = "not trusted";
  else if (!server.reachable) state = "unreachable";
  else if (server.error) state = "error";
  else if (failed.length || old.length) state = "needs attention";
  else if (active) state = "running";
  const rank = TROUBLE.indexOf(state) * 1000 - failed.length - old.length / 300;
  const result = { minute, words, failed, stale: old, active, next, state, rank };
  summaries.set(server, result);
  return result;
}

// Runs of the last 24 hours, the oldest first: {job, start, end, outcome}.
export function pastRuns(server, now) {
  const out = [];
  for (const job of server.jobs ?? []) {
    const runs = runsOf(server, job.name);
    const s = job.state;
    // Before the runs were asked for, the job's state has the newest of them.
    if (s?.last_run && runs[0]?.start !== s.last_run) {
      const outcome = running(server, job) ? "running" : s.status === "FAILED" ? "failed" : "done";
      runs.unshift({ start: s.last_run, finish: outcome === "running" ? null : s.last_finish, outcome });
    }
    for (const run of runs) {
      const going = !run.finish && running(server, job) && run === runs[0];
      const end = run.finish ?? (going ? now : run.start);
      if (end < now - DAY) continue;
      out.push({ job: job.name, start: run.start, end, outcome: going ? "running" : run.outcome === "unfinished" ? "lost" : run.outcome });
    }
  }
  return out.sort((a, b) => a.start - b.start);
}

const MOST_AHEAD = 400;
// What is due in the next 24 hours, one after the other as the scheduler runs it, each for its usual
// duration; what waits for others follows them.
export function nextRuns(server, now) {
  const jobs = (server.jobs ?? []).filter((job) => job.enabled);
  const offset = zoneOffset(jobs, now);
  const due = [];
  for (const job of jobs) {
    const first = job.state?.next_run;
    if (first > 0 && first < now + DAY) due.push({ job, at: Math.max(first, now) });
    const rule = job.schedule ? parse(job.schedule) : null;
    if (!rule || !(first > 0)) continue;
    const more = times(rule, Math.max(first, now), offset, 288, 1, 3).filter((t) => t < now + DAY);
    due.push(...more.map((at) => ({ job, at })));
  }
  return serial(server, jobs, due, now);
}

function serial(server, jobs, due, now) {
  const followers = jobs.filter((job) => job.after?.length && !job.schedule && !job.once);
  const waits = new Map(followers.map((job) => [job.name, new Set(job.after)]));
  due.sort((a, b) => a.at - b.at);
  const out = [];
  let free = now;
  while (due.length && out.length < MOST_AHEAD) {
    const { job, at } = due.shift();
    const start = Math.max(at, free);
    if (start > now + DAY) break;
    const end = start + (usual(job, runsOf(server, job.name)) || 60);
    out.push({ job: job.name, start, end, outcome: "next" });
    free = end;
    for (const follower of followers) {
      const left = waits.get(follower.name);
      if (!left.delete(job.name) || left.size) continue;
      waits.set(follower.name, new Set(follower.after));
      const index = due.findIndex((d) => d.at > end);
      due.splice(index < 0 ? due.length : index, 0, { job: follower, at: end });
    }
  }
  return out;
}

// What this page may do on the server, and why not.
export function rights(server) {
  const token = server.info?.token;
  if (server.read_only) return { run: false, write: false, why: "The console was started with --read-only." };
  if (token?.role !== "admin") return { run: false, write: false, why: "The token of this server is a read token." };
  if (!server.info.policy?.allow_config_write) return { run: true, write: false, why: "The server allows no changes of its configuration ([api] allow-config-write=no)." };
  return { run: true, write: true, why: "" };
}
