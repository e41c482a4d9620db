// How it runs, as plots over the last minute.
import { byId, make } from "./dom.js";

const kMinuteMs = 60000;
const kSpanMs = 1000; // that a figure covers

const difference = (name) => (now, before) => now[name] - before[name];
const rate = (name) => (now, before, seconds) => (now[name] - before[name]) / seconds;

// Each is computed from two samples a second apart.
const kPlots = [
  { name: "frames/s", digits: 1, value: rate("frames") },
  { name: "bytes/frame", digits: 0, value: (now, before) => (now.bytes - before.bytes) / (now.frames - before.frames) },
  { name: "latency ms", digits: 1,
    value: (now, before) => (now.latency * now.frames - before.latency * before.frames) / (now.frames - before.frames) },
  { name: "lost", digits: 0, value: difference("lost") },
  { name: "torn", digits: 0, value: difference("torn") },
  { name: "repeated", digits: 0, value: difference("repeated") },
  { name: "empty", digits: 0, value: difference("empty") },
  { name: "service CPU %", digits: 1, value: (now) => now.cpu },
  { name: "service memory MB", digits: 1, value: (now) => now.memory },
];

class Plot {
  #points = [];
  #canvas = make("canvas", { width: 240, height: 60 });
  #caption = make("figcaption", {});

  constructor(kind) {
    this.kind = kind;
    this.#canvas.setAttribute("role", "img");
    this.#canvas.setAttribute("aria-label", `${kind.name} over the last minute`);
    this.#caption.textContent = kind.name;
    byId("plots").append(make("figure", {}, this.#canvas, this.#caption));
  }

  add(time, value) {
    this.#points.push({ time, value: Number.isFinite(value) ? value : 0 });
    while (this.#points[0].time < time - kMinuteMs) this.#points.shift();
    this.#caption.textContent = `${this.kind.name}: ${this.#points.at(-1).value.toFixed(this.kind.digits)}`;
    this.#draw(time);
  }

  #draw(time) {
    const { width, height } = this.#canvas;
    const most = Math.max(1e-9, ...this.#points.map(({ value }) => value));
    const context = this.#canvas.getContext("2d");
    context.clearRect(0, 0, width, height);
    context.strokeStyle = getComputedStyle(document.body).getPropertyValue("--accent");
    context.lineWidth = 2;
    context.beginPath();
    for (const point of this.#points)
      context.lineTo(width * (1 - (time - point.time) / kMinuteMs), height - 3 - (height - 6) * (point.value / most));
    context.stroke();
  }
}

export function begin(connection) {
  const plots = kPlots.map((kind) => new Plot(kind));
  const samples = [];
  connection.addEventListener("news", ({ detail: { state } }) => {
    const time = performance.now();
    const { stream, service } = state;
    const now = {
      time, cpu: service.cpu_percent, memory: service.memory_kb / 1024, frames: 0, bytes: 0, latency: 0, lost: 0, torn: 0, repeated: 0, empty: 0,
      ...stream && { frames: stream.frames, bytes: stream.bytes, latency: stream.latency_ms, lost: stream.lost,
                     torn: stream.torn, repeated: stream.repeated, empty: stream.empty },
    };
    if (samples.length && now.frames < samples.at(-1).frames) samples.length = 0; // another stream
    samples.push(now);
    while (samples.length > 1 && samples[1].time <= time - kSpanMs) samples.shift();
    const before = samples[0];
    if (before === now) return;
    for (const plot of plots) plot.add(time, plot.kind.value(now, before, (time - before.time) / 1000));
  });
}
