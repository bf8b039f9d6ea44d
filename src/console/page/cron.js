// Cron expressions as the scheduler reads them: five fields of numbers; day of month and day of week
// must both match; times are the server's local time.
const FIELDS = [[0, 59], [0, 23], [1, 31], [1, 12], [0, 7]];
const HORIZON_DAYS = 2929;
const WEEKDAYS = ["Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"];
const MONTHS = ["", "January", "February", "March", "April", "May", "June", "July", "August", "September", "October", "November", "December"];

function field(text, [low, high]) {
  const values = new Set();
  for (const item of text.split(",")) {
    const m = /^(?:(\*)|(\d{1,2})(?:-(\d{1,2}))?)(?:\/(\d{1,2}))?$/.exec(item);
    if (!m) return null;
    const from = m[1] ? low : +m[2];
    const to = m[1] ? high : m[3] === undefined ? from : +m[3];
    const step = m[4] === undefined ? 1 : +m[4];
    if (from < low || to > high || from > to || step < 1) return null;
    for (let v = from; v <= to; v += step) values.add(v);
  }
  return values;
}

const known = new Map();
// The sets of the five fields; null when the text is no expression.
export function parse(text) {
  if (known.has(text)) return known.get(text);
  const parts = String(text).trim().split(/\s+/);
  let rule = parts.length === 5 ? parts.map((part, i) => field(part, FIELDS[i])) : null;
  if (rule && rule.includes(null)) rule = null;
  if (rule) {
    if (rule[4].delete(7)) rule[4].add(0);
    rule = { minutes: sorted(rule[0]), hours: sorted(rule[1]), days: rule[2], months: rule[3], weekdays: rule[4], parts };
  }
  if (known.size > 5000) known.clear();
  known.set(text, rule);
  return rule;
}
const sorted = (set) => [...set].sort((a, b) => a - b);

const dayMatches = (rule, d) =>
  rule.days.has(d.getUTCDate()) && rule.months.has(d.getUTCMonth() + 1) && rule.weekdays.has(d.getUTCDay());

export function matches(rule, t, offset) {
  const d = new Date((t + offset) * 1000);
  return dayMatches(rule, d) && rule.hours.includes(d.getUTCHours()) && rule.minutes.includes(d.getUTCMinutes());
}

// Up to `count` times on one side of `t`, the nearest first; `direction` is 1 or -1.
export function times(rule, t, offset, count, direction = 1, horizon = HORIZON_DAYS) {
  const found = [];
  const local = t + offset;
  const day = new Date(Math.floor(local / 86400) * 86400000);
  const hours = direction > 0 ? rule.hours : [...rule.hours].reverse();
  const minutes = direction > 0 ? rule.minutes : [...rule.minutes].reverse();
  for (let n = 0; n < horizon && found.length < count; ++n, day.setUTCDate(day.getUTCDate() + direction)) {
    if (!dayMatches(rule, day)) continue;
    const base = day.getTime() / 1000;
    for (const hour of hours) {
      for (const minute of minutes) {
        const at = base + hour * 3600 + minute * 60;
        if ((at - local) * direction <= 0) continue;
        found.push(at - offset);
        if (found.length === count) return found;
      }
    }
  }
  return found;
}

// The longest time between two of the ten nominal times on either side of `t`; 0: fewer than two.
export function longestGap(text, t) {
  const rule = parse(text);
  const hour = Math.floor(t / 3600);
  if (!rule || rule.gapAt === hour) return rule?.gap ?? 0;
  const row = [...times(rule, t, 0, 10, -1, 800).reverse(), ...times(rule, t, 0, 10, 1, 800)];
  rule.gapAt = hour;
  rule.gap = row.reduce((most, at, i) => Math.max(most, i ? at - row[i - 1] : 0), 0);
  return rule.gap;
}

// The server's distance from UTC, which the API does not say: the one at which its next runs are
// times of their schedules, the browser's own first and then the nearest.
export function zoneOffset(jobs, t) {
  const own = -new Date(t * 1000).getTimezoneOffset() * 60;
  const known = [];
  for (const job of jobs) {
    const rule = job.schedule && job.enabled && job.state?.next_run > t ? parse(job.schedule) : null;
    if (rule && rule.hours.length < 24 && known.length < 20) known.push([rule, job.state.next_run]);
  }
  const fits = (offset) => known.every(([rule, at]) => matches(rule, at, offset));
  if (fits(own)) return own;
  for (let step = 900; step <= 26 * 3600; step += 900) {
    if (fits(own + step)) return own + step;
    if (fits(own - step)) return own - step;
  }
  return own;
}

const two = (n) => String(n).padStart(2, "0");
const list = (words) => (words.length < 2 ? words.join("") : words.slice(0, -1).join(", ") + " and " + words.at(-1));
function ranges(values, name) {
  const row = sorted(values);
  const out = [];
  for (let i = 0; i < row.length; ) {
    let j = i;
    while (j + 1 < row.length && row[j + 1] === row[j] + 1) ++j;
    out.push(...(j - i > 1 ? [`${name(row[i])} to ${name(row[j])}`] : row.slice(i, j + 1).map(name)));
    i = j + 1;
  }
  return list(out);
}
function clockWords(rule) {
  const [minute, hour] = rule.parts;
  const every = /^\*\/(\d+)$/.exec(minute);
  const hours = hour === "*" ? "" : ` in the hours ${ranges(new Set(rule.hours), two)}`;
  if (minute === "*") return "every minute" + hours;
  if (every && 60 % every[1] === 0) return `every ${every[1]} minutes` + hours;
  if (hour === "*") return `every hour at minute ${list(rule.minutes.map(two))}`;
  const clock = rule.hours.flatMap((h) => rule.minutes.map((m) => `${two(h)}:${two(m)}`));
  return clock.length <= 6 ? `at ${list(clock)}` : `at minute ${list(rule.minutes.map(two))} of the hours ${ranges(new Set(rule.hours), two)}`;
}
// The schedule in words; null when it is no expression.
export function inWords(text) {
  const rule = parse(text);
  if (!rule) return null;
  const limits = [];
  if (rule.weekdays.size < 7) limits.push("on " + ranges(rule.weekdays, (n) => WEEKDAYS[n]));
  if (rule.days.size < 31) limits.push((limits.length ? "when it is" : "on") + " day " + ranges(rule.days, String) + " of the month");
  if (rule.months.size < 12) limits.push("in " + ranges(rule.months, (n) => MONTHS[n]));
  const clock = clockWords(rule);
  if (!limits.length) return clock.startsWith("at ") ? "every day " + clock : clock;
  return clock + " " + limits.join(", ");
}
