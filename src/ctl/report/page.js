// Puts the page together, a volume at a time.

const data = JSON.parse(document.getElementById("data").textContent);
let treemap = null;

function figures(volume) {
  const entries = [[size(sum(volume.bytes)), "in all"], [count(sum(volume.files)), "files"],
    [count(volume.folders), "folders"], [volume.newestChange.slice(0, 16) || "never", "newest change"]];
  return make("dl", { class: "figures" }, ...entries.map(([value, name]) => make("div", {}, make("dt", {}, name),
    make("dd", {}, value))));
}

function show(volume) {
  const place = document.getElementById("volume");
  for (const button of document.querySelectorAll("#volumes button"))
    button.setAttribute("aria-pressed", button.volume === volume);
  if (volume.problem !== undefined) {
    treemap = null;
    place.replaceChildren(make("p", { class: "problem", role: "alert" }, volume.problem));
    return;
  }
  const [mapSection, map] = treemapSection(volume, data.volumes.indexOf(volume));
  treemap = map;
  history.replaceState(null, "");
  place.replaceChildren(figures(volume), make("div", { class: "sections" },
    categoriesSection(volume), growthSection(volume), mapSection,
    filesSection("Newest files", "By arrival: created_time.", volume.newest, "Arrived"),
    filesSection("Largest files", "With the time of their last change.", volume.largest, "Changed"),
    duplicatesSection(volume), deletedSection(volume)));
  if (volume.negativeSizes > 0) {
    place.append(make("p", { class: "note" }, `Of ${files(volume.negativeSizes)} the catalogue has only the low 32 bits `
      + "of the size, until the next walk: counted is the smallest size that fits."));
  }
}

function volumeButtons() {
  if (data.volumes.length < 2)
    return [];
  return data.volumes.map(volume => {
    const broken = volume.problem !== undefined;
    const words = broken ? "cannot be read" : `${size(sum(volume.bytes))}, ${files(sum(volume.files))}`;
    const button = make("button", { type: "button", class: broken ? "broken" : null }, make("strong", {}, volume.name),
      make("span", {}, volume.root), make("span", {}, words));
    button.volume = volume;
    return on(button, "click", () => show(volume));
  });
}

/** The colours: as the system has them, unless the reader has chosen. A browser may forbid to remember the choice. */
function prepareScheme() {
  const select = document.getElementById("scheme");
  const apply = () => { document.documentElement.dataset.scheme = select.value; };
  try {
    select.value = localStorage.getItem("quarrow-report-scheme") ?? "";
  } catch {
    select.value = "";
  }
  on(select, "change", () => {
    apply();
    try {
      localStorage.setItem("quarrow-report-scheme", select.value);
    } catch {
      // It lasts as long as the page.
    }
  });
  apply();
}

function fillPage() {
  document.title = `Storage report of ${data.host}`;
  document.getElementById("made").textContent = `${data.host}, made ${data.made} ${data.zone}`;
  document.getElementById("volumes").append(...volumeButtons());
  document.getElementById("footer").append(
    make("p", {}, `Made by quarrowctl report from ${data.volumes.map(volume => `${volume.root}/.quarrow/quarrow.db`
      + (volume.newestChange ? ` (newest change ${volume.newestChange})` : "")).join(", ")}.`),
    make("p", {}, `Times are those of the machine it was made on (${data.zone}). Nothing was loaded, and nothing is sent. `
      + "The charts are drawn by D3; its licences are in this page's source."));
  prepareScheme();
  show(data.volumes.find(volume => volume.problem === undefined) ?? data.volumes[0]);
  on(window, "popstate", event => treemap?.restore(event.state));
}

fillPage();
