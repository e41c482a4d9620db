// The live picture, what stream it is, and what can be kept of it.
import { byId, keep, make, notice } from "./dom.js";

let formats = [];

function showSizes() {
  const format = formats.find((each) => each.format === byId("format").value);
  byId("size").replaceChildren(...format.sizes.map(({ width, height }) => make("option", {}, `${width}x${height}`)));
  if (format.sizes.some(({ width, height }) => width === 1280 && height === 720)) byId("size").value = "1280x720";
}

async function askFormats(connection) {
  const answer = await connection.ask("formats");
  if (answer.status !== 200 || formats.length) return;
  formats = answer.formats;
  byId("format").replaceChildren(...formats.map(({ format }) => make("option", {}, format)));
  byId("rate").value = answer.rate;
  showSizes();
}

// The server sends the next picture when this one was drawn: a page that nobody sees gets none.
async function draw(connection, { number, jpeg }) {
  if (document.hidden) await new Promise((go) => document.addEventListener("visibilitychange", go, { once: true }));
  try {
    const bitmap = await createImageBitmap(new Blob([jpeg], { type: "image/jpeg" }));
    const canvas = byId("view");
    if (canvas.width !== bitmap.width || canvas.height !== bitmap.height) {
      canvas.width = bitmap.width;
      canvas.height = bitmap.height;
    }
    canvas.getContext("2d").drawImage(bitmap, 0, 0);
    canvas.dataset.pictures = Number(canvas.dataset.pictures ?? 0) + 1;
    bitmap.close();
  } catch {
    // A damaged picture is not shown; the counters tell of it.
  }
  connection.drawn(number);
}

function why(state) {
  if (!state.service.running) return "the service does not run";
  if (!state.plugged) return "the cable is unplugged";
  if (!state.stream) return "no stream";
  return state.stream.running ? "" : `the stream does not start: ${state.stream.trouble}`;
}

function show(state) {
  const reason = why(state);
  byId("no-picture").hidden = reason === "";
  byId("no-picture").style.display = reason === "" ? "none" : "";
  byId("no-picture").textContent = reason;
  const stream = state.stream;
  byId("figures").textContent = !stream ? "no stream"
    : `${stream.format} ${stream.width}x${stream.height}, ${stream.rate}/s wanted: ${stream.frames} frames, `
      + `latency ${stream.latency_ms.toFixed(1)} ms, lost ${stream.lost}, torn ${stream.torn}, `
      + `repeated ${stream.repeated}, empty ${stream.empty}`;
  const recording = state.recording;
  byId("record").disabled = recording.running;
  byId("record-stop").disabled = !recording.running;
  const link = byId("recording");
  link.hidden = recording.running || recording.frames === 0;
  link.textContent = `Download ${recording.file} (${(recording.bytes / 1e6).toFixed(1)} MB)`;
  if (recording.running) byId("record-stop").textContent = `End recording (${recording.seconds.toFixed(0)} s)`;
  else byId("record-stop").textContent = "End recording";
}

async function save() {
  const answer = await fetch("api/picture");
  if (!answer.ok) return notice(`picture: ${(await answer.json()).error}`);
  notice("");
  keep("picture.png", await answer.blob());
}

export function begin(connection) {
  connection.addEventListener("open", () => askFormats(connection));
  connection.addEventListener("picture", (event) => draw(connection, event.detail));
  connection.addEventListener("news", (event) => show(event.detail.state));
  byId("format").addEventListener("change", showSizes);
  byId("stream-form").addEventListener("submit", (event) => {
    event.preventDefault();
    connection.do("stream", { format: byId("format").value, size: byId("size").value, rate: Number(byId("rate").value) });
  });
  for (const command of ["stop", "plug", "unplug", "record", "record-stop"])
    byId(command).addEventListener("click", () => connection.do(command));
  byId("save").addEventListener("click", save);
}
