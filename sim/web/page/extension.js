// The extension unit's selectors with their fields.
import { byId, make } from "./dom.js";

const hex = (bytes) => bytes.map((byte) => byte.toString(16).toUpperCase().padStart(2, "0")).join(" ");

function fieldIn(bytes, { offset, size, high_byte_first }) {
  const part = bytes.slice(offset, offset + size);
  if (!high_byte_first) part.reverse();
  return part.reduce((sum, byte) => sum * 256 + byte, 0);
}

function putField(bytes, { offset, size, high_byte_first }, value) {
  for (let i = 0; i < size; i++) bytes[offset + (high_byte_first ? size - 1 - i : i)] = (value >> (8 * i)) & 255;
}

function makeRow(connection, selector) {
  const number = selector.selector;
  const inputs = selector.fields.map((field) => make("input", { type: "number", min: 0, max: field.most, disabled: selector.read_only }));
  const raw = make("output", {});
  const note = make("p", { className: "note" }, selector.meaning);
  const show = (answer) => {
    note.classList.toggle("refused", answer.status !== 200);
    note.textContent = answer.status === 200 ? selector.meaning : `refused: ${answer.error}`;
    return answer.status === 200;
  };
  const read = async () => {
    const answer = await connection.ask("extension", { selector: number, request: "get" });
    if (!show(answer)) return;
    raw.textContent = hex(answer.bytes);
    selector.fields.forEach((field, i) => (inputs[i].value = fieldIn(answer.bytes, field)));
  };
  const write = async () => {
    if (selector.caution && !confirm(`${selector.name}: ${selector.meaning}. Send it?`)) return;
    const bytes = new Array(selector.length).fill(0);
    selector.fields.forEach((field, i) => putField(bytes, field, Number(inputs[i].value)));
    if (show(await connection.ask("extension", { selector: number, request: "set", bytes }))) read();
  };
  const buttons = [make("button", { type: "button", onclick: read, ariaLabel: `Read ${selector.name}` }, "Read")];
  if (!selector.read_only) buttons.push(make("button", { type: "button", onclick: write, ariaLabel: `Set ${selector.name}` }, "Set"));
  const labelled = selector.fields.map((field, i) => make("label", {}, `${field.name} `, inputs[i]));
  return make("div", { className: "row" }, make("span", { className: "name" }, `${number} ${selector.name.replaceAll("_", " ")}`),
    make("div", { className: "widget" }, ...labelled, ...buttons), raw, note);
}

export function begin(connection) {
  connection.addEventListener("open", async () => {
    const answer = await connection.ask("selectors");
    if (answer.status !== 200) return;
    byId("selector-rows").replaceChildren(...answer.selectors.map((selector) => makeRow(connection, selector)));
  });
}
