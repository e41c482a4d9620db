// Pad and rocker: the head moves as long as one is held, and the page says so again and again.
import { byId } from "./dom.js";

const kAgainMs = 120;
const kFastest = { pan: 7, tilt: 7, zoom: 4 };
const kStill = { pan: 0, tilt: 0, zoom: 0 };
const kKeys = { ArrowLeft: { pan: -1 }, ArrowRight: { pan: 1 }, ArrowUp: { tilt: 1 }, ArrowDown: { tilt: -1 } };

let connection;
let speeds = { ...kStill };
let timer = 0;
const held = new Set();

function send() {
  connection.ask("move", speeds);
}

function hold(wanted) {
  speeds = { ...kStill, ...wanted };
  byId("knob").style.transform = `translate(${speeds.pan * 10}px, ${speeds.tilt * -10}px)`;
  clearInterval(timer);
  timer = Object.values(speeds).some((speed) => speed !== 0) ? setInterval(send, kAgainMs) : 0;
  send();
}

function letGo() {
  held.clear();
  if (timer) hold(kStill);
}

function follow(event) {
  const pad = byId("pad").getBoundingClientRect();
  const part = (at, from, size) => Math.max(-1, Math.min(1, ((at - from) / size) * 2 - 1));
  hold({
    pan: Math.round(part(event.clientX, pad.left, pad.width) * kFastest.pan),
    tilt: -Math.round(part(event.clientY, pad.top, pad.height) * kFastest.tilt),
  });
}

function followKeys() {
  const speed = Number(byId("speed").value);
  const sum = { ...kStill };
  for (const key of held) for (const [axis, way] of Object.entries(kKeys[key])) sum[axis] += way * speed;
  hold(sum);
}

function beginPad() {
  const pad = byId("pad");
  pad.addEventListener("pointerdown", (event) => {
    pad.setPointerCapture(event.pointerId);
    follow(event);
  });
  pad.addEventListener("pointermove", (event) => {
    if (pad.hasPointerCapture(event.pointerId)) follow(event);
  });
  pad.addEventListener("lostpointercapture", letGo);
  pad.addEventListener("keydown", (event) => {
    if (event.key === "Home") {
      for (const name of ["pan_absolute", "tilt_absolute"]) connection.do("set", { name, value: 0 });
      event.preventDefault();
    }
    if (!(event.key in kKeys)) return;
    event.preventDefault();
    if (event.repeat) return;
    held.add(event.key);
    followKeys();
  });
  pad.addEventListener("keyup", (event) => {
    if (held.delete(event.key)) followKeys();
  });
  pad.addEventListener("blur", letGo);
}

function beginButton(id, way) {
  const button = byId(id);
  const go = () => hold({ zoom: way * Math.min(Number(byId("speed").value), kFastest.zoom) });
  button.addEventListener("pointerdown", (event) => {
    button.setPointerCapture(event.pointerId);
    go();
  });
  button.addEventListener("lostpointercapture", letGo);
  button.addEventListener("keydown", (event) => {
    if ((event.key === " " || event.key === "Enter") && !event.repeat) go();
  });
  button.addEventListener("keyup", letGo);
  button.addEventListener("blur", letGo);
}

export function begin(theConnection) {
  connection = theConnection;
  beginPad();
  beginButton("tele", 1);
  beginButton("wide", -1);
  for (const event of ["blur", "pagehide"]) window.addEventListener(event, letGo);
  document.addEventListener("visibilitychange", letGo);
  connection.addEventListener("close", letGo);
  connection.addEventListener("news", ({ detail: { state: { head } } }) => {
    byId("where").textContent = `pan ${head.pan.toFixed(1)}°, tilt ${head.tilt.toFixed(1)}°, zoom ${head.zoom.toFixed(2)}`
      + (head.moving ? ", moving" : "");
  });
}
