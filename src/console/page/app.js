// The frame of the page: where one is, and which view that is.
import { html, render, useState, useEffect, clean, link, Notes, Title } from "./ui.js";
import { useStore } from "./store.js";
import { summary } from "./health.js";
import { Overview } from "./overview.js";
import { Server } from "./server.js";
import { Job, NewJob } from "./job.js";
import { Settings } from "./settings.js";

const read = () => location.hash.replace(/^#\/?/, "").split("/").filter(Boolean).map((part) => {
  try {
    return decodeURIComponent(part);
  } catch {
    return part;
  }
});
function useRoute() {
  const [route, setRoute] = useState(read);
  useEffect(() => {
    const changed = () => {
      setRoute(read());
      scrollTo(0, 0);
    };
    addEventListener("hashchange", changed);
    return () => removeEventListener("hashchange", changed);
  }, []);
  return route;
}

const Link = ({ state }) => html`<span class=${"link " + (state === "live" ? "good-text" : "bad-text")} role="status"><span aria-hidden="true">●</span> ${state}</span>`;

function View({ route, store }) {
  const [name, kind, job] = route;
  if (!name) return html`<${Overview} />`;
  const server = store.servers.get(name);
  if (!server) return html`<${Title}>${clean(name)}</${Title}><p class="empty">${store.link === "live" && store.servers.size ? "There is no server of this name in the list." : "Loading …"}</p>`;
  if (kind === "job" && job) return html`<${Job} key=${name + "/" + job} server=${server} name=${job} />`;
  if (kind === "settings") return html`<${Settings} key=${name} server=${server} />`;
  if (kind === "new") return html`<${NewJob} key=${name} server=${server} />`;
  return html`<${Server} key=${name} server=${server} />`;
}

function Path({ route }) {
  const [name, kind, job] = route;
  const last = kind === "job" ? job : kind;
  const here = (yes) => (yes ? "page" : null);
  return html`<nav aria-label="Where you are"><ol>
    <li><a href="#/" aria-current=${here(!name)}>Overview</a></li>
    ${name ? html`<li><a href=${link(name)} aria-current=${here(!kind)}>${clean(name)}</a></li>` : null}
    ${name && kind ? html`<li><a href=${link(...route)} aria-current="page">${clean(last)}</a></li>` : null}</ol></nav>`;
}

function keys(event) {
  const typing = /^(INPUT|SELECT|TEXTAREA)$/.test(event.target.tagName);
  if (typing || event.ctrlKey || event.metaKey || event.altKey) return;
  if (event.key === "/") {
    event.preventDefault();
    if (location.hash.length > 2) location.hash = "#/";
    setTimeout(() => document.getElementById("filter")?.focus(), 50);
  }
}

function App() {
  const store = useStore();
  const route = useRoute();
  useEffect(() => {
    addEventListener("keydown", keys);
    return () => removeEventListener("keydown", keys);
  }, []);
  const trouble = [...store.servers.values()].filter((s) => !["ok", "running", "asking"].includes(summary(s, Date.now() / 1000).state)).length;
  const where = [...route].reverse().filter((part) => part !== "job").map(clean);
  document.title = [trouble ? `(${trouble})` : "", ...where, "orv console"].filter(Boolean).join(" · ").replace(") ·", ")");
  return html`<header><${Path} route=${route} /><span class="grow"></span><${Link} state=${store.link} /></header>
    ${store.link === "signed out" ? html`<p class="banner bad" role="alert">This page is no longer signed in: the console was started anew. Open the URL that it printed.</p>` : null}
    <main tabindex="-1" key=${route.join("/")}><${View} route=${route} store=${store} /></main><${Notes} />`;
}

render(html`<${App} />`, document.getElementById("app"));
