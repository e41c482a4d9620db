// The faults, as buttons with fields for their parameters. The forms are those of --fault.
import { byId, make } from "./dom.js";

const kExamples = { TIME: "1s", N: "1", CALL: "QBUF", "N|N-M|*": "2", "[errno=E]": "" };

// What stands for a word of a form: the word, a choice or a field.
function makeWord(word, shape) {
  if (/^[A-Z]{4,}(\|[A-Z]{4,})+$/.test(word))
    return make("select", { ariaLabel: `call: ${shape}` }, ...word.split("|").map((each) => make("option", {}, each)));
  if (!(word in kExamples)) return word;
  return make("input", { size: 7, value: kExamples[word], placeholder: word, ariaLabel: `${word} of: ${shape}` });
}

const textOf = (words) => words.map((word) => (typeof word === "string" ? word : word.value.trim())).filter(Boolean).join(" ");

function makeRow(connection, { shape, meaning }) {
  const words = shape.split(" ").map((word) => makeWord(word, shape));
  const fields = words.filter((word) => typeof word !== "string");
  const press = () => {
    let text = textOf(words);
    const time = byId("fault-time").value.trim();
    if (time && !/\bfor\b/.test(text)) text += ` for ${time}`;
    connection.do("fault", { text });
  };
  return make("div", { className: "row" }, make("span", { className: "name" }, shape),
    make("div", { className: "widget" }, ...fields),
    make("button", { type: "button", onclick: press, ariaLabel: `Play: ${shape}` }, "Play"), make("p", { className: "note" }, meaning));
}

export function begin(connection) {
  byId("fault-clear").addEventListener("click", () => connection.do("fault-clear"));
  connection.addEventListener("open", async () => {
    const answer = await connection.ask("faults");
    if (answer.status === 200) byId("fault-rows").replaceChildren(...answer.faults.map((each) => makeRow(connection, each)));
  });
  connection.addEventListener("news", ({ detail: { state } }) => {
    const text = state.faults.length ? `set: ${state.faults.join("; ")}` : "none is set";
    if (byId("fault-list").textContent !== text) byId("fault-list").textContent = text;
  });
}
