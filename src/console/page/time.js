// Times and durations as words, in the browser's zone.
const clock = new Intl.DateTimeFormat(undefined, { hour: "2-digit", minute: "2-digit", hourCycle: "h23" });
const day = new Intl.DateTimeFormat(undefined, { weekday: "short" });
const date = new Intl.DateTimeFormat(undefined, { day: "numeric", month: "short", year: "numeric" });
const full = new Intl.DateTimeFormat(undefined, {
  year: "numeric", month: "2-digit", day: "2-digit", hour: "2-digit", minute: "2-digit", second: "2-digit",
  hourCycle: "h23", timeZoneName: "short",
});
const DAY = 86400;

export const absolute = (t) => full.format(t * 1000);
export const hhmm = (t) => clock.format(t * 1000);

// "45 s", "12 min", "1 h 05 min", "2 d 3 h"
export function span(seconds) {
  const s = Math.max(0, Math.round(seconds));
  if (s < 90) return `${s} s`;
  const min = Math.round(s / 60);
  if (min < 60) return `${min} min`;
  if (s < 2 * DAY) return `${Math.floor(min / 60)} h ${String(min % 60).padStart(2, "0")} min`;
  return `${Math.floor(s / DAY)} d ${Math.round((s % DAY) / 3600)} h`;
}

// Near times as a distance, others as the day and the hour.
export function ago(t, now) {
  const distance = t - now;
  const size = Math.abs(distance);
  if (size < 20) return "now";
  if (size < 6 * 3600) {
    const text = size < 90 ? `${Math.round(size / 10) * 10} s` : span(size);
    return distance < 0 ? `${text} ago` : `in ${text}`;
  }
  if (size < 6 * DAY) return `${day.format(t * 1000)} ${hhmm(t)}`;
  return date.format(t * 1000);
}
