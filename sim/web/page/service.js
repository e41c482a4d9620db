// The state of page, service, cable and stream, and the service's end and restart.
import { byId } from "./dom.js";

function lamp(id, good, text) {
  const element = byId(`lamp-${id}`);
  element.className = good ? "good" : "bad";
  if (element.textContent !== text) element.textContent = text;
}

function show({ service, plugged, stream, simulator }) {
  lamp("service", service.running, service.running ? `service ${service.pid} runs` : `service ended: ${service.ended}`);
  lamp("cable", plugged, plugged ? "cable plugged in" : "cable unplugged");
  lamp("stream", stream?.running, stream?.running ? `${stream.format} ${stream.width}x${stream.height}` : "no stream");
  byId("service-state").textContent = service.running
    ? `process ${service.pid}, CPU ${service.cpu_percent.toFixed(1)} %, ${(service.memory_kb / 1024).toFixed(1)} MB; `
      + `simulator CPU ${simulator.cpu_percent.toFixed(1)} %`
    : `the service does not run: ${service.ended}`;
  byId("service-start").disabled = service.running;
  byId("service-stop").disabled = byId("service-kill").disabled = !service.running;
}

export function begin(connection) {
  lamp("page", false, "page: connecting");
  connection.addEventListener("open", () => lamp("page", true, "page connected"));
  connection.addEventListener("close", () => lamp("page", false, "page: the connection was lost"));
  connection.addEventListener("news", (event) => show(event.detail.state));
  for (const order of ["start", "stop", "kill"])
    byId(`service-${order}`).addEventListener("click", () => connection.do("service", { order }));
}
