// The scheduler's settings, the mail settings, and a test mail.
import { html, useState, clean, Title, wait } from "./ui.js";
import { call } from "./api.js";
import { Editor } from "./editor.js";
import { rights } from "./health.js";
import { Away } from "./server.js";

const SCHED = [
  { key: "poll_interval", name: "poll-interval", kind: "number", placeholder: "30", help: "Seconds between two looks when nothing is due." },
  { key: "busy_retry_seconds", name: "busy-retry-seconds", kind: "number", help: "When a job is tried again whose tool was busy. Empty: the poll interval." },
  { key: "job_timeout_seconds", name: "job-timeout-seconds", kind: "number", placeholder: "86400", help: "Time limit of jobs that have none of their own." },
  { key: "job_log_keep", name: "job-log-keep", kind: "number", placeholder: "20", help: "Logs kept for each job." },
  { key: "job_log_dir", name: "job-log-dir", locked: true, help: "Where job logs are written. It cannot be changed from here." },
];
const mailFields = (mail) => [
  { key: "smtp_host", name: "smtp-host", help: "The mail server; required." },
  { key: "smtp_port", name: "smtp-port", kind: "number", help: "587 with starttls, 465 with smtps, 25 with none unless set." },
  { key: "tls", name: "tls", none: "starttls", choices: [["starttls"], ["smtps"], ["none"]], help: "How the connection is encrypted." },
  { key: "smtp_user", name: "smtp-user", help: "Goes together with smtp-password." },
  { key: "smtp_password", name: "smtp-password", kind: "secret", placeholder: mail?.smtp_password_set ? `set (${mail.smtp_password_source}); empty: unchanged` : "not set", help: "1 to 64 bytes. It is never shown." },
  { key: "from", name: "from", help: "The sender, a plain address; required." },
  { key: "to", name: "to", kind: "list", help: "Up to 16 recipients, separated by commas; required." },
  { key: "ca_file", name: "ca-file", help: "A file of certificates on the server, in the place of the system's." },
  { key: "timeout_seconds", name: "timeout-seconds", kind: "number", placeholder: "60", help: "Seconds for delivering one mail." },
  { key: "notify", name: "notify", none: "inherit", choices: [["inherit", "not set"], ["never"], ["failed"], ["always"]], help: "After which runs a mail is sent." },
];

function TestMail({ server }) {
  const [outcome, setOutcome] = useState(null);
  const send = async () => {
    setOutcome({ state: "pending" });
    try {
      const { mail_id } = await call(server.name, "POST", "mail/test");
      for (let i = 0; i < 60; ++i) {
        const result = await call(server.name, "GET", `mail/results/${mail_id}`);
        setOutcome(result);
        if (result.state !== "pending") return;
        await wait(2000);
      }
    } catch (error) {
      setOutcome({ state: "failed", error: error.message });
    }
  };
  const pending = outcome?.state === "pending";
  return html`<div class="row"><button onClick=${send} disabled=${pending}>Send test mail</button>
    <span role="status">${outcome ? html`<b class=${outcome.state === "failed" ? "bad-text" : ""}>${outcome.state}</b> ${clean(outcome.error ?? "")}` : ""}</span></div>`;
}

export function Settings({ server }) {
  const may = rights(server);
  const [mail, setMail] = useState(undefined);
  const version = server.info?.config_etag;
  const load = (what) => async () => {
    const reply = await call(server.name, "GET", `settings/${what}`);
    if (what === "mail") setMail(reply.mail);
    return { etag: reply.config_etag, value: reply[what] };
  };
  const save = (what) => (body, etag) => {
    if (body.smtp_password === null) delete body.smtp_password;
    return call(server.name, "PUT", `settings/${what}`, { body: { [what]: body }, etag });
  };
  return html`<${Title}>Settings of ${clean(server.name)}</${Title}><${Away} server=${server} />
    <div class="columns even"><section><h2>Scheduler</h2><p class="small">The daemon reads these when it starts. Empty: the default.</p>
      <${Editor} fields=${SCHED} load=${load("sched")} save=${save("sched")} version=${version} locked=${!may.write} why=${may.why} saved="Scheduler: saved" /></section>
    <section><h2>Mail</h2>${mail === null ? html`<p class="small">There is no [mail] section: no mail is sent.</p>` : null}
      <${Editor} fields=${mailFields(mail)} load=${load("mail")} save=${save("mail")} version=${version} locked=${!may.write} always=${["smtp_host", "from", "to"]} saved="Mail: saved" />
      ${may.run && server.info?.mail_configured ? html`<h2>Test mail</h2><${TestMail} server=${server} />` : null}
    </section></div>`;
}
