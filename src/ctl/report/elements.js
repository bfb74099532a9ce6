"use strict";
// What the other files build the page with. Names come from whoever may write to a volume: they only ever become text.

const categories = ["empty", "video", "audio", "image", "other"]; // by their numbers

/** Makes an element. `properties` are attributes; strings among the children become text nodes. */
function make(tag, properties = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (value !== null && value !== undefined)
      element.setAttribute(name, value);
  }
  element.append(...children);
  return element;
}

function on(element, event, listener) {
  element.addEventListener(event, listener);
  return element;
}

const sum = numbers => numbers.reduce((total, number) => total + number, 0);

const count = number => number.toLocaleString("en");

const files = number => `${count(number)} ${number === 1 ? "file" : "files"}`;

const folders = number => `${count(number)} ${number === 1 ? "folder" : "folders"}`;

const byteUnits = ["bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"];

/** The unit, as an index of byteUnits, in which a number of bytes reads best. */
function byteUnit(bytes) {
  let unit = 0;
  for (let rest = bytes; rest >= 1024 && unit + 1 < byteUnits.length; rest /= 1024)
    ++unit;
  return unit;
}

function size(bytes) {
  const unit = byteUnit(bytes);
  return `${unit === 0 ? count(bytes) : (bytes / 1024 ** unit).toFixed(1)} ${byteUnits[unit]}`;
}

function share(part, whole) {
  const percent = whole > 0 ? part * 100 / whole : 0;
  return percent > 0 && percent < 0.1 ? "< 0.1 %" : `${percent.toFixed(1)} %`;
}

/** The coloured square that stands for a category. */
const key = category => make("span", { class: "key", style: `background: var(--c${category})`, "aria-hidden": "true" });

/** A table: `heads` are [text, class], `rows` lists of cells, each the children of one. The first of a row is its head. */
function table(caption, heads, rows) {
  const body = make("tbody");
  for (const row of rows) {
    body.append(make("tr", {}, ...row.map((cell, i) => make(i === 0 ? "th" : "td",
      { scope: i === 0 ? "row" : null, class: heads[i][1] }, ...[cell].flat()))));
  }
  return make("table", { "aria-label": caption },
    make("thead", {}, make("tr", {}, ...heads.map(([text, kind]) => make("th", { scope: "col", class: kind }, text)))), body);
}

/** A section of the page with its heading, and a remark below that. */
function section(title, remark, kind, ...children) {
  const id = `section-${title.toLowerCase().replaceAll(" ", "-")}`;
  return make("section", { class: kind, "aria-labelledby": id },
    make("h2", { id }, title), make("p", { class: "note" }, remark), ...children);
}

/** A part that is folded away and only made, by `fill`, when it is opened. */
function folded(summary, fill) {
  const place = make("div", { tabindex: "0", role: "region", "aria-label": summary });
  const details = make("details", {}, make("summary", {}, summary), place);
  details.refresh = () => place.replaceChildren(...(details.open ? [fill()] : []));
  return on(details, "toggle", details.refresh);
}

/** Calls `draw` with the element's width, now that it has one and whenever it changes. */
function drawToWidth(element, draw) {
  let width = 0;
  new ResizeObserver(() => {
    if (element.clientWidth > 0 && element.clientWidth !== width) {
      width = element.clientWidth;
      draw(width);
    }
  }).observe(element);
}
