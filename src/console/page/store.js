// What the console knows of the servers, kept current by its events. Every tab that is looked at has
// one stream; a browser allows six connections to one address, so hidden tabs give theirs back.
import { useState, useEffect } from "./ui.js";

const state = { servers: new Map(), link: "connecting" };
const listeners = new Set();
let source = null;
let drawing = false;

function changed() {
  if (drawing) return;
  drawing = true;
  setTimeout(() => {
    drawing = false;
    listeners.forEach((listen) => listen({}));
  }, 50);
}
function setLink(link) {
  if (state.link === link) return;
  state.link = link;
  changed();
}
function connect() {
  if (source) return;
  source = new EventSource("/api/events");
  source.onopen = () => setLink("live");
  source.onmessage = (event) => {
    const server = JSON.parse(event.data);
    state.servers.set(server.name, server);
    changed();
  };
  source.onerror = async () => {
    if (source.readyState === EventSource.CONNECTING) setLink("console not answering");
    // The browser tries again by itself unless the console refused: it was started anew.
    const ended = source.readyState === EventSource.CLOSED;
    const refused = await fetch("/api/events", { method: "HEAD" }).then((r) => r.status === 403, () => false);
    if (refused) setLink("signed out");
    else if (ended) {
      disconnect();
      setTimeout(connect, 3000);
    }
  };
}
function disconnect() {
  source?.close();
  source = null;
}

let hidden = 0;
document.addEventListener("visibilitychange", () => {
  clearTimeout(hidden);
  if (document.hidden) hidden = setTimeout(disconnect, 5000);
  else connect();
});
// A page that is kept for the way back would keep its stream, too.
addEventListener("pagehide", disconnect);
addEventListener("pageshow", connect);
connect();

// A fresh look at the servers with every change: {servers: Map by name, link}.
export function useStore() {
  const [, draw] = useState({});
  useEffect(() => {
    listeners.add(draw);
    return () => listeners.delete(draw);
  }, []);
  return state;
}
