// Short ways to the document.
export const byId = (id) => document.getElementById(id);

export function make(tag, properties = {}, ...children) {
  const element = Object.assign(document.createElement(tag), properties);
  element.append(...children);
  return element;
}

// Offers bytes or a text as a file.
export function keep(name, blob) {
  const link = make("a", { href: URL.createObjectURL(blob), download: name });
  link.click();
  setTimeout(() => URL.revokeObjectURL(link.href), 10000);
}

export function notice(text) {
  byId("notice").textContent = text;
}
