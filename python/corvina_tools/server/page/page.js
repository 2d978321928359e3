// Microphone to the server and back to the speakers. Capture runs at the
// model's 16 kHz and playback at its 24 kHz (the browser resamples to and
// from the devices), so the server converts without resampling.
"use strict";

const IN_RATE = 16000, OUT_RATE = 24000, BLOCK = 160, OUT_BLOCK = 240;
const CUSHION_SECONDS = 0.03;
const KEEP_SECONDS = 60;                 // what the page keeps for inspection

const $ = (id) => document.getElementById(id);
const state = {
  ws: null, capture: null, playback: null, pending: new Float32Array(0),
  sentCount: 0, sendTimes: [], received: 0, latencies: [], ending: false,
  // Everything sent and received, and when controls changed (in blocks sent),
  // so a test can convert the same input offline and compare.
  record: {sent: [], received: [], controls: [], underruns: 0},
};
window.corvinaPage = state.record;

function status(text) { $("status").textContent = text; }

async function start() {
  $("start").disabled = true;
  Object.assign(state, {pending: new Float32Array(0), sentCount: 0, sendTimes: [], received: 0, latencies: [],
                        ending: false});
  Object.assign(state.record, {sent: [], received: [], controls: [], underruns: 0});
  const token = new URLSearchParams(location.search).get("token");
  const scheme = location.protocol === "https:" ? "wss" : "ws";
  const ws = new WebSocket(`${scheme}://${location.host}/stream`);
  ws.binaryType = "arraybuffer";
  state.ws = ws;
  ws.onopen = () => ws.send(JSON.stringify(Object.assign(
      {type: "start", input_rate: IN_RATE, output_rate: OUT_RATE, format: "f32le",
       speaker: Number($("speaker").value || 0), pitch: Number($("pitch").value)},
      token ? {token} : {})));
  ws.onmessage = (event) => onMessage(event.data);
  ws.onclose = (event) => { status(`closed: ${event.reason || event.code}`); stopAudio(); $("start").disabled = false; };
}

async function onMessage(data) {
  if (typeof data === "string") {
    const message = JSON.parse(data);
    if (message.type === "ready") await startAudio(message);
    return;
  }
  const samples = new Float32Array(data);
  state.playback.port.postMessage(samples);
  keep(state.record.received, samples);
  state.received += samples.length;
  const now = performance.now();
  // Block i is back once its 240 converted samples are.
  while (state.sendTimes.length && state.sendTimes[0].until <= state.received) {
    state.latencies.push(now - state.sendTimes.shift().at);
  }
  if (state.latencies.length > 200) state.latencies.splice(0, state.latencies.length - 200);
}

async function startAudio(ready) {
  fillSpeakers(ready.speakers);
  const stream = await navigator.mediaDevices.getUserMedia(
      {audio: {echoCancellation: false, noiseSuppression: false, autoGainControl: false, channelCount: 1}});
  const inCtx = new AudioContext({sampleRate: IN_RATE, latencyHint: "interactive"});
  const outCtx = new AudioContext({sampleRate: OUT_RATE, latencyHint: "interactive"});
  await Promise.all([inCtx.audioWorklet.addModule("page/worklet.js"), outCtx.audioWorklet.addModule("page/worklet.js")]);
  const capture = new AudioWorkletNode(inCtx, "corvina-capture", {numberOfOutputs: 0});
  capture.port.onmessage = (event) => onCaptured(event.data);
  inCtx.createMediaStreamSource(stream).connect(capture);
  const playback = new AudioWorkletNode(outCtx, "corvina-playback",
      {numberOfInputs: 0, outputChannelCount: [1], processorOptions: {cushionSeconds: CUSHION_SECONDS}});
  playback.port.onmessage = (event) => { state.record.underruns = event.data.underruns; };
  playback.connect(outCtx.destination);
  await Promise.all([inCtx.resume(), outCtx.resume()]);
  Object.assign(state, {capture, playback, inCtx, outCtx, mic: stream});
  $("stop").disabled = false;
  status("streaming");
  state.timer = setInterval(showLatency, 500);
}

function onCaptured(samples) {
  if (!state.ws || state.ws.readyState !== WebSocket.OPEN || state.ending) return;
  const all = new Float32Array(state.pending.length + samples.length);
  all.set(state.pending);
  all.set(samples, state.pending.length);
  const whole = all.length - all.length % BLOCK;
  for (let i = 0; i < whole; i += BLOCK) {
    const block = all.slice(i, i + BLOCK);
    state.ws.send(block.buffer);
    keep(state.record.sent, block);
    state.sentCount += 1;
    state.sendTimes.push({at: performance.now(), until: state.sentCount * OUT_BLOCK});
  }
  state.pending = all.slice(whole);
}

function keep(list, samples) {
  if (list.length < KEEP_SECONDS * 100) list.push(samples);
}

function sendControl(change) {
  if (!state.ws || state.ws.readyState !== WebSocket.OPEN) return;
  state.ws.send(JSON.stringify(Object.assign({type: "control"}, change)));
  state.record.controls.push(Object.assign({block: state.sentCount}, change));
}

function median(values) {
  const sorted = values.slice().sort((a, b) => a - b);
  return sorted[Math.floor(sorted.length / 2)];
}

function showLatency() {
  if (!state.latencies.length) return;
  const roundTrip = median(state.latencies);
  const devices = 1000 * ((state.inCtx.baseLatency || 0) + (state.outCtx.baseLatency || 0) + (state.outCtx.outputLatency || 0));
  $("latency").textContent = roundTrip.toFixed(1);
  $("total").textContent = (roundTrip + CUSHION_SECONDS * 1000 + devices).toFixed(1);
  $("underruns").textContent = state.record.underruns;
  window.corvinaPage.roundTripMs = roundTrip;
}

function stopAudio() {
  clearInterval(state.timer);
  for (const ctx of [state.inCtx, state.outCtx]) if (ctx) ctx.close();
  if (state.mic) state.mic.getTracks().forEach((t) => t.stop());
  $("stop").disabled = true;
}

function stop() {
  if (state.ws && state.ws.readyState === WebSocket.OPEN) {
    state.ending = true;            // the last block sent is the end of the stream
    state.ws.send(JSON.stringify({type: "end"}));
  }
}

function fillSpeakers(n) {
  const select = $("speaker");
  if (select.options.length === n) return;
  const chosen = Number(select.value || 0);
  select.innerHTML = "";
  for (let i = 0; i < n; i++) select.add(new Option(`speaker ${i}`, i, false, i === chosen));
}

$("start").onclick = start;
$("stop").onclick = stop;
$("speaker").onchange = () => sendControl({speaker: Number($("speaker").value)});
$("pitch").oninput = () => { $("pitch-value").textContent = $("pitch").value; };
$("pitch").onchange = () => {
  $("pitch-value").textContent = $("pitch").value;
  sendControl({pitch: Number($("pitch").value)});
};
