// The controls of camera terminal and processing unit, with the limits and values that the camera answers.
import { byId, make } from "./dom.js";

const kChoices = { power_line_frequency: ["off", "50 Hz", "60 Hz"] };

let connection;

const isSwitch = ({ min, max }) => min === null || (min === 0 && max === 1);

function limits({ min, max, res, def, len, info }) {
  const text = (value) => value ?? "not told";
  return `${text(min)} to ${text(max)}, step ${text(res)}, default ${text(def)}; length ${text(len)}, info ${text(info)}`;
}

// One value on its way at a time: the newest goes when the one before is answered.
function setter(control, show) {
  let underway = false;
  let next;
  return async function send(value) {
    next = value;
    if (underway) return;
    underway = true;
    while (next !== undefined) {
      const wanted = next;
      next = undefined;
      show(await connection.ask("set", { name: control.name, value: wanted }), wanted);
    }
    underway = false;
  };
}

function makeInputs(control, id) {
  if (isSwitch(control)) return [make("input", { type: "checkbox", id })];
  if (kChoices[control.name])
    return [make("select", { id }, ...kChoices[control.name].map((text, value) => make("option", { value }, text)))];
  const step = control.res || 1;
  const slider = make("input", { type: "range", id, min: control.min, max: control.max, step });
  const number = make("input", { type: "number", step: 1 });
  number.setAttribute("aria-label", `${control.name} as a number`);
  return [slider, number];
}

function makeRow(control) {
  const id = `control-${control.name}`;
  const note = make("p", { className: "note" }, limits(control));
  const output = make("output", { id: `${id}-value` });
  const inputs = makeInputs(control, id);
  const fill = (value) => {
    output.textContent = value ?? "no answer";
    for (const input of inputs) {
      if (input.type === "checkbox") input.checked = value !== 0;
      else if (document.activeElement !== input || input.type === "number") input.value = value ?? "";
    }
  };
  const show = (answer, wanted) => {
    const good = answer.status === 200;
    note.classList.toggle("refused", !good);
    note.textContent = good ? limits(control) : `${wanted} is refused: ${answer.error}`;
    if ("value" in answer) fill(answer.value);
  };
  const send = setter(control, show);
  for (const input of inputs) {
    input.addEventListener(input.type === "range" ? "input" : "change", () => {
      const value = input.type === "checkbox" ? Number(input.checked) : Number(input.value);
      if (input.value !== "") send(value);
    });
  }
  fill(control.value);
  return make("div", { className: "row" },
    make("label", { htmlFor: id }, control.name.replaceAll("_", " ")),
    make("div", { className: "widget" }, ...inputs), output, note);
}

async function ask() {
  byId("asked").textContent = "asking";
  const answer = await connection.do("controls");
  if (answer.status !== 200) {
    byId("asked").textContent = `not asked: ${answer.error}`;
    return;
  }
  const rows = [];
  let unit = "";
  for (const control of answer.controls) {
    if (control.unit !== unit) rows.push(make("h3", {}, (unit = control.unit)));
    if (control.motion) {
      rows.push(make("p", { className: "note" }, `${control.name.replaceAll("_", " ")}: moved under "Head and lens"; ${limits(control)}`));
    } else {
      rows.push(makeRow(control));
    }
  }
  byId("control-rows").replaceChildren(...rows);
  byId("asked").textContent = `${answer.controls.length} controls answered`;
}

export function begin(theConnection) {
  connection = theConnection;
  let asked = false;
  connection.addEventListener("open", () => (asked = false));
  connection.addEventListener("news", ({ detail: { state } }) => {
    if (!state.plugged || !state.service.running) asked = false;
    else if (!asked) {
      asked = true;
      ask();
    }
  });
  byId("ask").addEventListener("click", ask);
}
