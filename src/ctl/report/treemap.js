// The folders by size. Each tile is a folder in the one that is open; what is in the tile's folder is drawn in it.

const mostTiles = 100; // of one folder
const innerBoxes = 600; // in all tiles together, by their sizes

/** Links the rows of the data to a tree with sums, largest children first. Parents stand in front of their children. */
function folderTree(rows, rootName) {
  const nodes = rows.map(([parent, name, category, ownFiles, ownBytes, otherFolders, otherFiles, otherBytes]) => ({
    parent, name, category, ownFiles, ownBytes, otherFolders, otherFiles, otherBytes,
    files: ownFiles + otherFiles, bytes: ownBytes + otherBytes, folders: otherFolders, children: [] }));
  for (let i = nodes.length - 1; i > 0; --i) {
    const parent = nodes[i].parent = nodes[nodes[i].parent];
    parent.files += nodes[i].files;
    parent.bytes += nodes[i].bytes;
    parent.folders += nodes[i].folders + 1;
    parent.children.push(nodes[i]);
  }
  nodes.forEach(node => node.children.sort((a, b) => b.bytes - a.bytes));
  Object.assign(nodes[0], { parent: null, name: rootName });
  return nodes[0];
}

const lineage = node => node === null ? [] : [...lineage(node.parent), node];

const opens = node => node.folders > 0;

/** What a folder is made of: its largest subfolders, its other subfolders as one, its own files as one. */
function partsOf(node, limit) {
  const parts = node.children.slice(0, limit).map(child => ({ node: child, label: child.name, category: child.category,
    bytes: child.bytes, files: child.files }));
  const rest = node.children.slice(limit);
  const others = node.otherFolders + sum(rest.map(child => child.folders + 1));
  if (others > 0) {
    parts.push({ label: `${count(others)} smaller ${others === 1 ? "folder" : "folders"}`, category: 0,
      bytes: node.otherBytes + sum(rest.map(child => child.bytes)),
      files: node.otherFiles + sum(rest.map(child => child.files)) });
  }
  if (node.ownFiles > 0)
    parts.push({ label: "files in this folder itself", category: 0, bytes: node.ownBytes, files: node.ownFiles });
  return parts.sort((a, b) => b.bytes - a.bytes);
}

class Treemap {
  constructor(root, volumeName) {
    this.root = this.open = root;
    this.volumeName = volumeName;
    this.crumbs = make("ol", { class: "crumbs" });
    this.map = make("div", { class: "map", role: "group" });
    this.status = make("p", { class: "readout", role: "status" });
    this.table = folded("Show as a table", () => this.partsTable());
    this.element = make("div", {}, make("nav", { "aria-label": "Open folder" }, this.crumbs), this.status, this.map,
      this.table);
    on(this.element, "keydown", event => this.press(event));
    drawToWidth(this.map, () => this.draw());
    this.describe();
  }

  /** Opens a folder; the tile of `origin` gets the focus, else the first one. */
  go(node, origin = null) {
    if (node === null || node === this.open)
      return;
    const hadFocus = this.element.contains(document.activeElement);
    this.open = node;
    this.describe();
    this.draw();
    if (hadFocus)
      (this.tiles().find(tile => tile.part.node === origin) ?? this.tiles()[0] ?? this.crumbs.querySelector("button"))?.focus();
    this.changed?.(node);
  }

  up() {
    this.go(this.open.parent, this.open);
  }

  tiles() {
    return [...this.map.querySelectorAll(".tile")];
  }

  describe() {
    const node = this.open;
    const path = `/${lineage(node).slice(1).map(folder => folder.name).join("/")}`;
    this.crumbs.replaceChildren(...lineage(node).map(folder => make("li", {}, folder === node
      ? make("span", { "aria-current": "location" }, folder.name)
      : on(make("button", { class: "link" }, folder.name), "click", () => this.go(folder)))));
    this.status.textContent = `${size(node.bytes)} in ${files(node.files)} and ${folders(node.folders)} below`;
    this.map.setAttribute("aria-label", `Folders in ${path} by size. Arrow keys move, Enter opens a folder, Escape goes up.`);
    this.table.refresh();
  }

  draw() {
    const { clientWidth: width, clientHeight: height } = this.map;
    const parts = partsOf(this.open, mostTiles).map(part => ({ ...part, children: part.node !== undefined && opens(part.node)
      ? partsOf(part.node, Math.ceil(innerBoxes * part.bytes / Math.max(1, this.open.bytes))) : null }));
    const layout = d3.hierarchy({ children: parts }).sum(item => item.children ? 0 : item.bytes);
    d3.treemap().size([width, height]).round(true).paddingInner(1).paddingTop(box => box.depth === 1 ? 22 : 0)(layout);
    const tiles = (layout.children ?? []).filter(box => box.x1 - box.x0 > 2 && box.y1 - box.y0 > 2).map(box => this.tile(box));
    this.map.replaceChildren(...tiles);
    if (tiles.length === 0)
      this.map.append(make("p", { class: "note" }, "Nothing in this folder takes any space."));
    else
      tiles[0].tabIndex = 0;
  }

  tile(box) {
    const part = box.data;
    const [width, height] = [box.x1 - box.x0, box.y1 - box.y0];
    const canOpen = part.node !== undefined && opens(part.node);
    const place = (left, top, right, bottom, category) =>
      `left: ${left}px; top: ${top}px; width: ${right - left}px; height: ${bottom - top}px; background: var(--t${category})`;
    const words = `${part.label}: ${size(part.bytes)}, ${share(part.bytes, this.open.bytes)}, ${files(part.files)}`;
    const tile = make("button", { class: "tile", type: "button", tabindex: "-1", title: words, "aria-label": words,
      "aria-disabled": canOpen ? null : "true", style: place(box.x0, box.y0, box.x1, box.y1, part.category) });
    for (const inner of box.children ?? []) {
      const [innerWidth, innerHeight] = [inner.x1 - inner.x0, inner.y1 - inner.y0];
      if (innerWidth > 3 && innerHeight > 3) {
        tile.append(make("i", { style: place(inner.x0 - box.x0, inner.y0 - box.y0, inner.x1 - box.x0, inner.y1 - box.y0,
          inner.data.category) }, ...(innerWidth > 48 && innerHeight > 18 ? [inner.data.label] : [])));
      }
    }
    if (width > 36 && height > 20)
      tile.append(make("span", {}, part.label));
    if (width > 60 && height > 40 && !canOpen)
      tile.append(make("span", {}, size(part.bytes)));
    tile.part = part;
    on(tile, "focus", () => this.tiles().forEach(other => { other.tabIndex = other === tile ? 0 : -1; }));
    return on(tile, "click", () => canOpen && this.go(part.node));
  }

  press(event) {
    if (event.key === "Escape" || event.key === "Backspace") {
      event.preventDefault();
      this.up();
    }
    const directions = { ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, -1], ArrowDown: [0, 1] };
    if (event.key in directions && event.target.classList.contains("tile")) {
      event.preventDefault();
      this.neighbour(event.target, ...directions[event.key])?.focus();
    }
  }

  /** The nearest tile in that direction: one that lies beside this one before one that lies askew. */
  neighbour(tile, x, y) {
    const from = tile.getBoundingClientRect();
    const gap = (low, high, otherLow, otherHigh) => Math.max(0, otherLow - high, low - otherHigh);
    let [best, least] = [null, Infinity];
    for (const other of this.tiles()) {
      const to = other.getBoundingClientRect();
      const ahead = x > 0 ? to.left - from.right : x < 0 ? from.left - to.right
        : y > 0 ? to.top - from.bottom : from.top - to.bottom;
      const aside = x !== 0 ? gap(from.top, from.bottom, to.top, to.bottom)
        : gap(from.left, from.right, to.left, to.right);
      if (other !== tile && ahead >= -2 && ahead + 4 * aside < least)
        [best, least] = [other, ahead + 4 * aside];
    }
    return best;
  }

  partsTable() {
    const parts = partsOf(this.open, 1000);
    return table("Folders by size", [["Folder", "name"], ["Files", "number"], ["Size", "number"], ["Share", "number"]],
      parts.map(part => [part.node !== undefined && opens(part.node)
        ? on(make("button", { class: "link" }, part.label), "click", () => this.go(part.node)) : part.label,
      count(part.files), size(part.bytes), share(part.bytes, this.open.bytes)]));
  }
}

function treemapSection(volume, place) {
  const map = new Treemap(folderTree(volume.tree, volume.name), volume.name);
  const legend = make("p", { class: "legend" }, ...[1, 2, 3, 4].map(i => make("span", {}, key(i), `mostly ${categories[i]}`)));
  // The browser's way back leads to the folder before. What it knows of another volume, or of a former report in this
  // file's place, is left alone.
  const step = node => history.pushState(
    { volume: place, folder: lineage(node).slice(1).map(folder => folder.parent.children.indexOf(folder)) }, "");
  map.changed = step;
  map.restore = state => {
    if (state !== null && state.volume !== place)
      return;
    map.changed = null;
    map.go((state?.folder ?? []).reduce((node, i) => node.children?.[i] ?? node, map.root), map.open);
    map.changed = step;
  };
  return [section("Folders by size", "Open a folder with a click or Enter, go up with Escape. The arrow keys move between "
    + "folders.", "wide", map.element, legend), map];
}
