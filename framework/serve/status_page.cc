#include "framework/serve/status_page.h"

namespace framework {

// A token given as ?access_token= is passed on to every request the page
// makes, since EventSource cannot send an Authorization header.
const char* StatusPageHtml() {
  return R"html(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>kzq agent</title>
<meta name="viewport" content="width=device-width, initial-scale=1">
<style>
body{font:14px/1.4 system-ui,sans-serif;margin:1.5em;color:#222;background:#fafafa}
h1{font-size:1.4em;margin:0 0 .2em}h2{font-size:1.1em;margin:1.4em 0 .4em}
table{border-collapse:collapse;background:#fff}td,th{border:1px solid #ddd;padding:.25em .6em;text-align:left}
th{background:#f0f0f0}.up{color:#0a7d24;font-weight:bold}.down{color:#b3261e;font-weight:bold}
.num{text-align:right}#events td{font-family:monospace;font-size:12px}#note{color:#666}
</style></head><body>
<h1>kzq agent <span id="server"></span></h1><div id="note">loading...</div>
<h2>Services</h2><table id="services"><thead><tr><th>role</th><th>service</th><th>state</th></tr></thead><tbody></tbody></table>
<h2>Error events</h2><table id="events"><thead><tr><th>time</th><th>error</th><th>severity</th><th>message</th></tr></thead><tbody></tbody></table>
<h2>Tables</h2><table id="tables"><thead><tr><th>table</th><th>last sample</th><th class="num">rows</th><th class="num">samples</th><th class="num">errors</th><th>last failure</th></tr></thead><tbody></tbody></table>
<script>
"use strict";
const token = new URLSearchParams(location.search).get("access_token");
const withToken = (url) => token ? url + (url.includes("?") ? "&" : "?") + "access_token=" + encodeURIComponent(token) : url;
const cell = (row, text, cls) => { const td = row.insertCell(); td.textContent = text; if (cls) td.className = cls; };
function showStatus(s) {
  document.getElementById("server").textContent = s.server_id + " on " + s.host;
  const services = document.querySelector("#services tbody"); services.textContent = "";
  for (const v of s.services) { const r = services.insertRow(); cell(r, v.role); cell(r, v.name); const bad = !v.up || v.reachable === false; cell(r, (v.up ? "up" : "down") + (v.reachable === false ? ", unreachable" : ""), bad ? "down" : "up"); }
  const tables = document.querySelector("#tables tbody"); tables.textContent = "";
  for (const t of s.tables) {
    const r = tables.insertRow(); r.id = "table-" + t.name;
    cell(r, t.name); cell(r, t.taken_at ? new Date(t.taken_at * 1000).toLocaleString() : "not yet");
    cell(r, t.rows, "num"); cell(r, t.samples, "num"); cell(r, t.errors, "num", t.errors ? "down" : "");
    cell(r, t.failure || "", t.failure ? "down" : "");
  }
  document.getElementById("note").textContent = "updated " + new Date().toLocaleTimeString();
}
function addEvent(e, live) {
  const body = document.querySelector("#events tbody"); const r = body.insertRow(0);
  if (live) r.className = "live";
  cell(r, e.MSGTIME || ""); cell(r, e.ERRORID || ""); cell(r, e.SEVERITY ?? ""); cell(r, e.UMSGTEXT || "");
  while (body.rows.length > 50) body.deleteRow(body.rows.length - 1);
}
async function refresh() {
  try { const a = await fetch(withToken("/status")); if (a.ok) showStatus(await a.json()); else document.getElementById("note").textContent = "status: HTTP " + a.status; }
  catch (err) { document.getElementById("note").textContent = "agent not reachable"; }
}
refresh(); setInterval(refresh, 5000);
fetch(withToken("/status")).then(r => r.ok ? r.json() : null).then(s => { if (s) for (const e of s.recent_errors) addEvent(e, false); });
const events = new EventSource(withToken("/events/KZQERROR"));
events.onmessage = (m) => addEvent(JSON.parse(m.data), true);
</script></body></html>
)html";
}

}  // namespace framework
