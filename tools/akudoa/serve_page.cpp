// The live view's page: self-contained (cameras and their laptops are often
// offline), the colour map filled in by the program.
#include <string>

#include "colormap.h"
#include "serve.h"

namespace akutool {

namespace {

const char* const kPage = R"HTML(<!doctype html>
<html><head><meta charset="utf-8"><title>akudoa live view</title>
<style>
body{background:#111;color:#ddd;font:14px sans-serif;margin:12px}
#stage{position:relative;display:inline-block;vertical-align:top;background:#000}
#stage canvas,#stage video{position:absolute;left:0;top:0;width:640px;height:480px}
#stage{width:640px;height:480px}
#video{object-fit:cover;display:none}
#bar{vertical-align:top;margin-left:6px;background:#111}
#panel{display:inline-block;vertical-align:top;margin-left:12px;width:270px}
#panel div{margin:4px 0}
input[type=number]{width:70px}
.v{color:#fff;font-weight:bold}
</style></head><body>
<div id="stage"><video id="video" autoplay muted playsinline></video><canvas id="heat"></canvas><canvas id="mark"></canvas></div><canvas id="bar" width="70" height="480"></canvas>
<div id="panel">
<div>frame <span class="v" id="frame">-</span> &middot; <span class="v" id="fps">-</span> frames/s</div>
<div>peak <span class="v" id="peak">-</span> at <span id="peakAt">-</span></div>
<div>latency <span class="v" id="lat">-</span> ms</div>
<div><label>range <input id="range" type="number" min="1" max="120" step="1"> dB</label></div>
<div><label>program <select id="program"><option>3</option><option>4</option><option>53</option><option>54</option></select></label></div>
<div><label><input id="focus" type="checkbox"> focus at</label> <input id="distance" type="number" min="0.1" max="1000" step="0.1"> m</div>
<div><label>band <input id="low" type="number" min="0" step="100"></label> &ndash; <input id="high" type="number" min="0" step="100"> Hz</div>
<div><label><input id="pause" type="checkbox"> pause</label></div>
<div><button id="cam">camera</button> <label>opacity <input id="opacity" type="range" min="0" max="1" step="0.05" value="0.75"></label> <label><input id="mirror" type="checkbox"> mirror</label></div>
<div id="msg" style="color:#f88"></div>
<hr><div>click the map to listen</div>
<div>cell <span class="v" id="cell">-</span> <button id="stop">stop</button></div>
<div>power <span class="v" id="power">-</span> dB, <span id="band">-</span> Hz</div>
<div id="distRow" style="display:none">distance <span class="v" id="dist">-</span> m</div>
<div>sound <span class="v" id="level">-</span> dB</div>
</div>
<script>
"use strict";
const CMAP = __COLORMAP__;
const $ = id => document.getElementById(id);
const heat = $("heat"), mark = $("mark"), bar = $("bar");
const A = window.akudoa = {frames: 0, rows: 0, cols: 0, latency: [], audioDb: -Infinity, audioBlocks: 0, cmap: CMAP};
let state = {}, camOn = false, refreshing = false, rows = 0, cols = 0, img = null, small = null;
async function control(body) {
  const r = await fetch("/control", {method: "POST", body});
  const t = await r.text();
  if (!r.ok) { $("msg").textContent = t; return false; }
  $("msg").textContent = ""; state = JSON.parse(t); showState(); return true;
}
function showState() {
  $("range").value = state.range; $("program").value = String(state.program);
  $("focus").checked = state.focus; $("distance").value = state.distance;
  $("low").value = state.low; $("high").value = state.high; $("pause").checked = state.pause;
  $("distRow").style.display = state.distance_measure ? "" : "none";
  drawBar();
}
function drawBar() {
  const g = bar.getContext("2d"), h = bar.height - 20, r = state.range || 10;
  g.clearRect(0, 0, bar.width, bar.height);
  for (let y = 0; y < h; y++) {
    const c = CMAP[Math.round(255 * (1 - y / (h - 1)))];
    g.fillStyle = `rgb(${c[0]},${c[1]},${c[2]})`; g.fillRect(0, y + 10, 20, 1);
  }
  g.fillStyle = "#ddd"; g.font = "12px sans-serif";
  for (let i = 0; i <= 4; i++) g.fillText(`${(-r * i / 4).toFixed(0)} dB`, 24, 14 + (h - 1) * i / 4);
}
for (const [id, key] of [["range", "range"], ["program", "program"], ["distance", "distance"], ["low", "low"], ["high", "high"]])
  $(id).onchange = () => control(`${key}=${$(id).value}`);
$("focus").onchange = () => control(`focus=${$("focus").checked ? "on" : "off"}&distance=${$("distance").value}`);
$("pause").onchange = () => control(`pause=${$("pause").checked ? "on" : "off"}`);
$("opacity").oninput = () => heat.style.opacity = $("opacity").value;
$("mirror").onchange = () => $("video").style.transform = $("mirror").checked ? "scaleX(-1)" : "";
$("cam").onclick = async () => {
  try {
    const v = $("video"); v.srcObject = await navigator.mediaDevices.getUserMedia({video: true});
    v.style.display = "block"; camOn = true; heat.style.opacity = $("opacity").value;
  } catch (e) { $("msg").textContent = "no camera: " + e; }
};
function draw(buf) {
  const dv = new DataView(buf), r = dv.getUint16(8, true), c = dv.getUint16(10, true);
  if (!r) return; // a heartbeat
  if (r !== rows || c !== cols) {
    rows = A.rows = r; cols = A.cols = c;
    small = document.createElement("canvas"); small.width = cols; small.height = rows;
    img = small.getContext("2d").createImageData(cols, rows);
    heat.width = mark.width = 640; heat.height = mark.height = 480;
  }
  const px = new Uint8Array(buf, 56, rows * cols);
  for (let i = 0; i < px.length; i++) {
    const col = CMAP[px[i]];
    img.data[4 * i] = col[0]; img.data[4 * i + 1] = col[1]; img.data[4 * i + 2] = col[2]; img.data[4 * i + 3] = px[i] || !camOn ? 255 : 0;
  }
  small.getContext("2d").putImageData(img, 0, 0);
  const g = heat.getContext("2d");
  g.imageSmoothingEnabled = false; g.clearRect(0, 0, heat.width, heat.height);
  g.drawImage(small, 0, 0, heat.width, heat.height);
  const pr = dv.getUint16(12, true), pc = dv.getUint16(14, true), cw = heat.width / cols, ch = heat.height / rows;
  const m = mark.getContext("2d"); m.clearRect(0, 0, mark.width, mark.height);
  for (const [w, s] of [[4, "#000"], [2, "#fff"]]) {
    m.lineWidth = w; m.strokeStyle = s; m.beginPath();
    m.arc((pc + 0.5) * cw, (pr + 0.5) * ch, Math.max(cw, ch) * 0.6, 0, 2 * Math.PI); m.stroke();
  }
  const sr = dv.getInt16(28, true), sc = dv.getInt16(30, true);
  if (sr >= 0) { m.strokeStyle = "#0f0"; m.lineWidth = 2; m.strokeRect(sc * cw, sr * ch, cw, ch); }
  A.frames++;
  const lat = Date.now() - dv.getFloat64(48, true);
  A.latency.push(lat); if (A.latency.length > 2000) A.latency.shift();
  $("frame").textContent = dv.getUint32(4, true); $("fps").textContent = dv.getFloat32(24, true).toFixed(1);
  $("peak").textContent = dv.getFloat32(16, true).toFixed(1) + " dB"; $("peakAt").textContent = `(${pr}, ${pc})`;
  $("lat").textContent = lat.toFixed(1);
  if (Math.abs(dv.getFloat32(20, true) - state.range) > 1e-3 && !refreshing) { // another page changed it
    refreshing = true; fetch("/state").then(r => r.json()).then(s => { state = s; showState(); }).finally(() => refreshing = false);
  }
  const p = dv.getFloat32(32, true), lo = dv.getFloat32(36, true), hi = dv.getFloat32(40, true), d = dv.getFloat32(44, true);
  if (sr >= 0) {
    A.target = [p, lo, hi];
    $("power").textContent = isNaN(p) ? "-" : p.toFixed(1); $("band").textContent = isNaN(lo) ? "-" : `${lo.toFixed(0)} - ${hi.toFixed(0)}`;
    $("dist").textContent = isNaN(d) ? "-" : d.toFixed(2);
  }
}
async function readStream(url, onChunk, signal) {
  const r = await fetch(url, {signal});
  if (!r.ok) throw new Error(await r.text());
  const rd = r.body.getReader();
  for (;;) { const {value, done} = await rd.read(); if (done) return; onChunk(value); }
}
async function frames() {
  let pend = new Uint8Array(0);
  for (;;) {
    try {
      await readStream("/frames", chunk => {
        const b = new Uint8Array(pend.length + chunk.length); b.set(pend); b.set(chunk, pend.length); pend = b;
        while (pend.length >= 56) {
          const dv = new DataView(pend.buffer, pend.byteOffset);
          const n = 56 + dv.getUint16(8, true) * dv.getUint16(10, true);
          if (pend.length < n) break;
          draw(pend.slice(0, n).buffer); pend = pend.slice(n);
        }
      });
    } catch (e) { $("msg").textContent = "stream: " + e.message; }
    pend = new Uint8Array(0); await new Promise(r => setTimeout(r, 1000));
  }
}
// Sound of the clicked cell: float samples played as they come; the level
// shown is that of the last 8 blocks played.
let audioCtx = null, audioAbort = null, playAt = 0, tail = new Uint8Array(0), recent = [];
function stopAudio() { if (audioAbort) audioAbort.abort(); audioAbort = null; }
function play(chunk) {
  const b = new Uint8Array(tail.length + chunk.length); b.set(tail); b.set(chunk, tail.length);
  const n = Math.floor(b.length / 4) * 4; tail = b.slice(n);
  if (!n) return;
  const x = new Float32Array(b.slice(0, n).buffer);
  let e = 0; for (const v of x) e += v * v;
  recent.push([e, x.length]); if (recent.length > 8) recent.shift();
  let es = 0, ns = 0; for (const [a, k] of recent) { es += a; ns += k; }
  A.audioDb = 10 * Math.log10(es / ns + 1e-30); A.audioBlocks++;
  $("level").textContent = A.audioDb.toFixed(1);
  const buf = audioCtx.createBuffer(1, x.length, state.rate); buf.copyToChannel(x, 0);
  const src = audioCtx.createBufferSource(); src.buffer = buf; src.connect(audioCtx.destination);
  playAt = Math.max(playAt, audioCtx.currentTime + 0.05); src.start(playAt); playAt += buf.duration;
}
mark.onclick = async ev => {
  if (!rows) return;
  const b = mark.getBoundingClientRect();
  const r = Math.floor((ev.clientY - b.top) / b.height * rows), c = Math.floor((ev.clientX - b.left) / b.width * cols);
  if (!await control(`row=${r}&col=${c}`)) return;
  $("cell").textContent = `(${r}, ${c})`; A.cell = [r, c]; recent = []; A.audioBlocks = 0; A.audioDb = -Infinity;
  if (!audioCtx) audioCtx = new AudioContext({sampleRate: state.rate});
  audioCtx.resume();
  if (!audioAbort) {
    audioAbort = new AbortController(); tail = new Uint8Array(0);
    readStream("/audio", play, audioAbort.signal).catch(() => {}).finally(() => { audioAbort = null; });
  }
};
$("stop").onclick = () => { stopAudio(); control("row=-1&col=-1"); $("cell").textContent = "-"; };
fetch("/state").then(r => r.json()).then(s => { state = s; showState(); frames(); });
</script></body></html>
)HTML";

} // namespace

std::string livePage()
{
    std::string table = "[";
    for (const auto& c : colorMap("inferno"))
        table += "[" + std::to_string(c[0]) + "," + std::to_string(c[1]) + "," + std::to_string(c[2]) + "],";
    table.back() = ']';
    std::string page = kPage;
    const std::string key = "__COLORMAP__";
    page.replace(page.find(key), key.size(), table);
    return page;
}

} // namespace akutool
