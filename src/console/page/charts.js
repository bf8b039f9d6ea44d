// Small pictures: the strip of a server, the timeline, spark lines. Each says in words what it shows.
import { html, clean, link, tone } from "./ui.js";
import { hhmm, span, absolute } from "./time.js";
import { pastRuns, nextRuns } from "./health.js";

const DAY = 86400;

function inWords(past, next) {
  const failed = past.filter((r) => tone(r.outcome) === "bad").length;
  const runs = past.length === 1 ? "1 run" : `${past.length} runs`;
  return `Last 24 hours: ${runs}, ${failed || "none"} failed. Next 24 hours: ${next.length} due.`;
}

// One path for each kind, however many runs there are: 200 servers draw in one go.
export function Strip({ server, now }) {
  const past = pastRuns(server, now);
  const next = nextRuns(server, now);
  const paths = { next: "", calm: "", good: "", run: "", bad: "" };
  for (const r of [...past, ...next]) {
    const x = Math.max(0, ((r.start - now + DAY) / (2 * DAY)) * 400);
    const w = Math.max(1.5, ((r.end - r.start) / (2 * DAY)) * 400);
    const bad = tone(r.outcome) === "bad";
    paths[tone(r.outcome)] += `M${x.toFixed(1)} ${bad ? 1 : 5}h${w.toFixed(1)}v${bad ? 18 : 10}h-${w.toFixed(1)}z`;
  }
  return html`<svg class="strip" viewBox="0 0 400 20" preserveAspectRatio="none" role="img" aria-label=${inWords(past, next)}>
    <title>${inWords(past, next)}</title>
    <path class="base" d="M0 10h400" /><path class="now" d="M200 0v20" />
    ${Object.entries(paths).map(([name, d]) => (d ? html`<path class=${name} d=${d} />` : null))}
  </svg>`;
}

export function Timeline({ server, now }) {
  const past = pastRuns(server, now);
  const next = nextRuns(server, now);
  const left = (t) => ((t - now + DAY) / (2 * DAY)) * 100;
  const step = 3 * 3600;
  const first = Math.ceil((now - DAY) / step) * step;
  const hours = Array.from({ length: 17 }, (_, i) => first + i * step).filter((t) => t <= now + DAY);
  return html`<figure class="timeline">
    <div class="lane" aria-hidden="true">
      ${hours.map((t) => html`<i key=${"h" + t} class="hour" style=${{ left: left(t) + "%" }}></i>`)}
      ${[...past, ...next].map((r) => {
        const from = Math.max(0, left(r.start));
        const width = Math.min(100, left(r.end)) - from;
        const words = `${clean(r.job)}: ${r.outcome === "next" ? "due" : r.outcome} ${absolute(r.start)}, ${r.outcome === "next" ? "about " : ""}${span(r.end - r.start)}`;
        return html`<a key=${r.job + r.start} tabindex="-1" class=${"bar " + tone(r.outcome)} href=${link(server.name, "job", r.job)}
          title=${words} style=${{ left: from + "%", width: width + "%" }}>${width > 5 ? clean(r.job) : ""}</a>`;
      })}
      <i class="now" style=${{ left: "50%" }}></i>
    </div>
    <div class="hours" aria-hidden="true">${hours.map((t, i) => html`<span key=${t} class=${i % 2 ? "odd" : ""} style=${{ left: left(t) + "%" }}>${hhmm(t)}</span>`)}</div>
    <figcaption>${inWords(past, next)} <span class="legend">${["done", "failed", "running", "other", "next"].map((word) => html`<i class=${tone(word)}></i>${word === "next" ? "due" : word} `)}</span></figcaption>
  </figure>`;
}

// Durations of the last runs, the newest on the right, failures marked.
export function Spark({ runs, count = 20, tall = false }) {
  const row = runs.filter((r) => r.finish).slice(0, count).reverse();
  if (!row.length) return html`<span class="none">–</span>`;
  const top = Math.max(...row.map((r) => r.finish - r.start), 1);
  const height = tall ? 60 : 18;
  const width = 100 / count;
  const paths = { good: "", calm: "", bad: "" };
  row.forEach((r, i) => {
    const h = Math.max(2, ((r.finish - r.start) / top) * (height - 2));
    const x = (count - row.length + i) * width;
    const name = tone(r.outcome);
    paths[name] = (paths[name] ?? "") + `M${x.toFixed(2)} ${height}v-${h.toFixed(1)}h${(width * 0.7).toFixed(2)}v${h.toFixed(1)}z`;
    if (name === "bad") paths.bad += `M${x.toFixed(2)} 0h${(width * 0.7).toFixed(2)}v2h-${(width * 0.7).toFixed(2)}z`;
  });
  const failed = row.filter((r) => tone(r.outcome) === "bad").length;
  const words = `Last ${row.length} runs: ${failed || "none"} failed, the last took ${span(row.at(-1).finish - row.at(-1).start)}, the longest ${span(top)}.`;
  return html`<svg class=${tall ? "spark tall" : "spark"} viewBox=${`0 0 100 ${height}`} preserveAspectRatio="none" role="img" aria-label=${words}>
    <title>${words}</title>${Object.entries(paths).map(([name, d]) => (d ? html`<path class=${name} d=${d} />` : null))}</svg>`;
}
