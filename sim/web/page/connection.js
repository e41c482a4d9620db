// The page's web socket: commands with their answers, news and pictures.
import { notice } from "./dom.js";

const kRetryMs = 1000;

export class Connection extends EventTarget {
  #socket = null;
  #next = 1;
  #waiting = new Map();

  constructor() {
    super();
    this.#open();
  }

  get open() {
    return this.#socket?.readyState === WebSocket.OPEN;
  }

  #open() {
    this.#socket = new WebSocket(`ws://${location.host}/socket`);
    this.#socket.binaryType = "arraybuffer";
    this.#socket.onopen = () => this.dispatchEvent(new Event("open"));
    this.#socket.onmessage = (event) => this.#take(event.data);
    this.#socket.onclose = () => {
      for (const answer of this.#waiting.values()) answer({ status: 0, error: "the connection was lost" });
      this.#waiting.clear();
      this.dispatchEvent(new Event("close"));
      setTimeout(() => this.#open(), kRetryMs);
    };
  }

  #take(data) {
    if (typeof data !== "string") {
      const number = new DataView(data).getUint32(0, true);
      this.dispatchEvent(new CustomEvent("picture", { detail: { number, jpeg: data.slice(4) } }));
      return;
    }
    const message = JSON.parse(data);
    if (message.state) {
      this.dispatchEvent(new CustomEvent("news", { detail: message }));
      return;
    }
    this.#waiting.get(message.id)?.(message);
    this.#waiting.delete(message.id);
  }

  // The answer to a command, whose member "status" is 200 if it was carried out.
  ask(command, more = {}) {
    if (!this.open) return Promise.resolve({ status: 0, error: "there is no connection" });
    const id = this.#next++;
    this.#socket.send(JSON.stringify({ id, command, ...more }));
    return new Promise((answer) => this.#waiting.set(id, answer));
  }

  // The same; a refusal is shown.
  async do(command, more) {
    const answer = await this.ask(command, more);
    notice(answer.status === 200 ? "" : `${command}: ${answer.error}`);
    return answer;
  }

  drawn(number) {
    if (this.open) this.#socket.send(JSON.stringify({ drawn: number }));
  }
}
