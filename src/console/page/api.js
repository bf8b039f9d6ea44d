// Requests to a server's API, which the console signs and passes on.
import { clean } from "./ui.js";

export class Refused extends Error {
  constructor(status, code, message) {
    super(clean(message));
    this.status = status;
    this.code = code;
  }
}

export const segment = encodeURIComponent;

// The reply's object; Refused with the server's own words, or with the console's.
export async function call(server, method, path, { body, etag, signal, last } = {}) {
  let reply;
  try {
    reply = await fetch(`/api/servers/${segment(server)}/v1/${path}`, {
      method, signal, keepalive: last,
      headers: { ...(etag && { "If-Match": etag }), ...(body && { "Content-Type": "application/json" }) },
      body: body && JSON.stringify(body),
    });
  } catch (error) {
    if (error.name === "AbortError") throw error;
    throw new Refused(0, "console", "the console does not answer");
  }
  const value = await reply.json().catch(() => null);
  if (reply.ok && value) return value;
  throw new Refused(reply.status, value?.error?.code ?? "?", value?.error?.message ?? `the answer (${reply.status}) is no JSON`);
}
