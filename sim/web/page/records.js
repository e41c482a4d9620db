// What happened: conversation, log and server's requests, each with a filter and a way to keep it.
import { byId, keep, make } from "./dom.js";

const kMostLines = 1000;
const kLevels = { A: "assert", E: "error", W: "warning", I: "information", D: "debug", V: "verbose" };

const conversationText = ({ seconds, request, status, ms, data, server }) =>
  `${seconds.toFixed(3).padStart(8)}  ${request}  ${status} ${ms.toFixed(2)} ms` + (data ? `  [${data}]` : "")
  + server.map((line) => ` | ${line}`).join("");

class Lines {
  #list = make("div", { className: "lines", tabIndex: 0 });
  #filter = make("input", { type: "search", placeholder: "filter" });
  #level = null;
  #all = [];

  constructor(id, withLevel) {
    this.id = id;
    const title = byId(`${id}-title`).textContent;
    this.#list.setAttribute("role", "log");
    this.#list.setAttribute("aria-live", "off");
    this.#list.setAttribute("aria-label", title);
    const tools = [make("label", {}, "Filter ", this.#filter)];
    if (withLevel) {
      this.#level = make("select", {}, ...Object.entries(kLevels).map(([value, text]) => make("option", { value }, text)));
      this.#level.value = "V";
      tools.push(make("label", {}, "Up to level ", this.#level));
      this.#level.addEventListener("change", () => this.#showAll());
    }
    tools.push(make("button", { type: "button", ariaLabel: `Keep: ${title}`, onclick: () => this.#keep() }, "Keep"));
    tools.push(make("button", { type: "button", ariaLabel: `Empty: ${title}`, onclick: () => this.#empty() }, "Empty"));
    byId(id).append(make("div", { className: "buttons" }, ...tools), this.#list);
    this.#filter.addEventListener("input", () => this.#showAll());
  }

  #admits({ text, level }) {
    const order = Object.keys(kLevels);
    return text.toLowerCase().includes(this.#filter.value.toLowerCase())
      && (!this.#level || !level || order.indexOf(level) <= order.indexOf(this.#level.value));
  }

  #show(entries) {
    const list = this.#list;
    const atEnd = list.scrollTop + list.clientHeight >= list.scrollHeight - 8;
    list.append(...entries.filter((entry) => this.#admits(entry)).map(({ text, kind }) =>
      make("div", { className: `line ${kind ?? ""}` }, text)));
    while (list.childElementCount > kMostLines) list.firstElementChild.remove();
    if (atEnd) list.scrollTop = list.scrollHeight;
  }

  #showAll() {
    this.#list.replaceChildren();
    this.#show(this.#all);
  }

  #empty() {
    this.#all = [];
    this.#showAll();
  }

  #keep() {
    const lines = this.#all.filter((entry) => this.#admits(entry)).map(({ text }) => `${text}\n`);
    keep(`${this.id}.txt`, new Blob(lines, { type: "text/plain" }));
  }

  add(entries, missed) {
    if (missed) entries.unshift({ text: `(${missed} more are not shown)` });
    if (!entries.length) return;
    this.#all.push(...entries);
    this.#all.splice(0, this.#all.length - kMostLines);
    this.#show(entries);
  }

  begin() {
    this.#empty();
  }
}

export function begin(connection) {
  const conversation = new Lines("conversation");
  const log = new Lines("log", true);
  const server = new Lines("server");
  connection.addEventListener("open", () => [conversation, log, server].forEach((lines) => lines.begin()));
  connection.addEventListener("news", ({ detail: news }) => {
    conversation.add(news.conversation.map((entry) => ({ text: conversationText(entry), kind: entry.status })), news.missed.conversation);
    log.add(news.log.map(({ level, text }) => ({ text: `${level} ${text}`, level, kind: level })), news.missed.log);
    server.add(news.server.map(({ text }) => ({ text })), news.missed.server);
  });
}
