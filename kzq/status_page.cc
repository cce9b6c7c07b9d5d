#include "kzq/status_page.h"

namespace kzq {

// The page reads /status and the scheduler's cached samples of the
// database, session and job tables every 5 s (no extra work for the
// collector), and follows the error events. A token given as
// ?access_token= is passed on to every request the page makes, since
// EventSource cannot send an Authorization header.
const char* StatusPageHtml() {
  return R"html(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>kzq agent</title>
<meta name="viewport" content="width=device-width, initial-scale=1">
<style>
body{font:14px/1.4 system-ui,sans-serif;margin:1.5em;color:#222;background:#fafafa}
h1{font-size:1.4em;margin:0 0 .2em}h2{font-size:1.1em;margin:1.4em 0 .4em}
table{border-collapse:collapse;background:#fff}td,th{border:1px solid #ddd;padding:.25em .6em;text-align:left}
th{background:#f0f0f0}.up{color:#0a7d24;font-weight:bold}.down{color:#b3261e;font-weight:bold}
.warn{background:#fdecea;color:#b3261e;font-weight:bold}.num{text-align:right}.none{color:#666}
#events td{font-family:monospace;font-size:12px}#note{color:#666}
pre{background:#fff;border:1px solid #ddd;padding:.5em .8em;margin:0;display:inline-block;min-width:30em}
</style></head><body>
<h1>kzq agent <span id="server"></span></h1><div id="note">loading...</div>
<h2>Services</h2><table id="services"><thead><tr><th>role</th><th>service</th><th>state</th></tr></thead><tbody></tbody></table>
<h2>Databases</h2><table id="databases"><thead><tr><th>database</th><th>state</th><th class="num">data MB</th><th class="num">data used</th><th class="num">log MB</th><th class="num">log used</th></tr></thead><tbody></tbody></table>
<h2>Blocking</h2><pre id="blocking">loading...</pre>
<h2>Failed jobs</h2><table id="jobs"><thead><tr><th>job</th><th>last run</th><th>error</th></tr></thead><tbody></tbody></table>
<h2>Error events</h2><table id="events"><thead><tr><th>time</th><th>error</th><th>severity</th><th>message</th></tr></thead><tbody></tbody></table>
<h2>Tables</h2><table id="tables"><thead><tr><th>table</th><th>last sample</th><th class="num">rows</th><th class="num">samples</th><th class="num">errors</th><th>last failure</th></tr></thead><tbody></tbody></table>
<script>
"use strict";
const WARN_PERCENT = 90;
const token = new URLSearchParams(location.search).get("access_token");
const withToken = (url) => token ? url + (url.includes("?") ? "&" : "?") + "access_token=" + encodeURIComponent(token) : url;
const cell = (row, text, cls) => { const td = row.insertCell(); td.textContent = text ?? ""; if (cls) td.className = cls; };
const emptyRow = (body, columns, text) => { const td = body.insertRow().insertCell(); td.colSpan = columns; td.className = "none"; td.textContent = text; };
const clear = (id) => { const body = document.querySelector("#" + id + " tbody"); body.textContent = ""; return body; };
// A time stamp field in the browser's local time; its text when it is no stamp.
const when = (row, name) => row[name + "_ISO"] ? new Date(row[name + "_ISO"]).toLocaleString() : (row[name] || "");
const percent = (value) => value == null ? "" : value + " %";
async function cachedRows(table) {
  const answer = await fetch(withToken("/tables/" + table + "?cached"));
  return answer.ok ? (await answer.json()).rows : [];
}
function showStatus(s) {
  document.getElementById("server").textContent = s.server_id + " on " + s.host;
  const services = clear("services");
  for (const v of s.services) {
    const r = services.insertRow(); cell(r, v.role); cell(r, v.name);
    cell(r, (v.up ? "up" : "down") + (v.reachable === false ? ", unreachable" : ""), !v.up || v.reachable === false ? "down" : "up");
  }
  const tables = clear("tables");
  for (const t of s.tables) {
    const r = tables.insertRow(); r.id = "table-" + t.name;
    cell(r, t.name); cell(r, t.taken_at ? new Date(t.taken_at * 1000).toLocaleString() : "not yet");
    cell(r, t.rows, "num"); cell(r, t.samples, "num"); cell(r, t.errors, t.errors ? "num down" : "num");
    cell(r, t.failure || "", t.failure ? "down" : "");
  }
}
function showDatabases(rows) {
  const body = clear("databases");
  for (const d of rows) {
    const r = body.insertRow();
    const offline = d.DBSTAT != null && d.DBSTAT !== 0;
    cell(r, d.UDBNAME || d.DBNAME); cell(r, d.DBSTATE || (offline ? "state " + d.DBSTAT : "ONLINE"), offline ? "warn" : "");
    cell(r, d.DBSIZE, "num"); cell(r, percent(d.PCTDBUSE), d.PCTDBUSE >= WARN_PERCENT ? "num warn" : "num");
    cell(r, d.LOGSIZE, "num"); cell(r, percent(d.PCTLOGUSED), d.PCTLOGUSED >= WARN_PERCENT ? "num warn" : "num");
  }
  if (!rows.length) emptyRow(body, 6, "no databases in the last sample");
}
// Sessions that block others, each with the sessions waiting on it below.
function showBlocking(rows) {
  const byId = new Map(rows.map(p => [String(p.PROCESSID), p]));
  const waiting = new Map();
  for (const p of rows) if (p.BLOCKID && p.BLOCKID !== "0") { if (!waiting.has(p.BLOCKID)) waiting.set(p.BLOCKID, []); waiting.get(p.BLOCKID).push(String(p.PROCESSID)); }
  const describe = (id) => { const p = byId.get(id); if (!p) return "session " + id + " (not in the sample)";
    return "session " + id + " " + (p.PROCNTUSER || p.CLNTUSER || "") + " on " + (p.UDBNAME || p.DBNAME || "") + ": " + (p.UCMDNAME || p.CMDNAME || "") + (p.PROCDURSEC != null ? ", " + p.PROCDURSEC + " s" : ""); };
  const lines = []; const shown = new Set();
  const walk = (id, depth) => { if (shown.has(id)) return; shown.add(id); lines.push("  ".repeat(depth) + (depth ? "waits: " : "blocks: ") + describe(id)); for (const w of waiting.get(id) || []) walk(w, depth + 1); };
  const blocked = (id) => { const p = byId.get(id); return p && p.BLOCKID && p.BLOCKID !== "0"; };
  for (const head of waiting.keys()) if (!blocked(head)) walk(head, 0);
  for (const head of waiting.keys()) walk(head, 0);  // sessions waiting on each other in a circle
  document.getElementById("blocking").textContent = lines.length ? lines.join("\n") : "no session is blocked";
}
function showFailedJobs(rows) {
  const body = clear("jobs");
  const failed = rows.filter(j => j.LSTRUNSTAT === 0);
  for (const j of failed) { const r = body.insertRow(); cell(r, j.JOBNAME, "warn"); cell(r, when(j, "LSTRUNTIME")); cell(r, j.JOBERRCODE); }
  if (!failed.length) emptyRow(body, 3, "no job failed its last run");
}
const eventsShown = new Set();
let historyShown = false;
function addEvent(e, live) {
  const key = [e.MSGTIME, e.ERRORID, e.ERRSPID, e.UMSGTEXT].join("|");
  if (eventsShown.has(key)) return;
  eventsShown.add(key);
  const body = document.querySelector("#events tbody"); const r = body.insertRow(0);
  if (live) r.className = "live";
  cell(r, when(e, "MSGTIME")); cell(r, e.ERRORID); cell(r, e.SEVERITY, e.SEVERITY >= 17 ? "down" : ""); cell(r, e.UMSGTEXT);
  while (body.rows.length > 50) body.deleteRow(body.rows.length - 1);
}
async function refresh() {
  try {
    const a = await fetch(withToken("/status"));
    if (!a.ok) { document.getElementById("note").textContent = "status: HTTP " + a.status; return; }
    const status = await a.json();
    showStatus(status);
    // Errors from before the page opened; later ones come with the stream.
    if (!historyShown) for (const e of status.recent_errors) addEvent(e, false);
    historyShown = true;
    const [databases, sessions, jobs] = await Promise.all(["KZQDBD", "KZQPRCD", "KZQJOBD"].map(cachedRows));
    showDatabases(databases); showBlocking(sessions); showFailedJobs(jobs);
    document.getElementById("note").textContent = "updated " + new Date().toLocaleTimeString();
  } catch (err) { document.getElementById("note").textContent = "agent not reachable"; }
}
refresh(); setInterval(refresh, 5000);
const events = new EventSource(withToken("/events/KZQERROR"));
events.onmessage = (m) => addEvent(JSON.parse(m.data), true);
</script></body></html>
)html";
}

}  // namespace kzq
