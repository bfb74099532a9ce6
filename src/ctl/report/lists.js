// Categories, and the lists of files.

const shortList = 10; // entries of a list before it is unfolded

function categoriesSection(volume) {
  const most = Math.max(1, ...volume.bytes);
  const all = sum(volume.bytes);
  const rows = [1, 2, 3, 4].map(i => {
    const bytes = volume.bytes[i - 1];
    const bar = make("span", { class: "bar", "aria-hidden": "true" });
    if (bytes > 0)
      bar.append(make("i", { style: `width: ${bytes * 100 / most}%; background: var(--c${i})` }));
    return [[key(i), categories[i], bar], count(volume.files[i - 1]), size(bytes), share(bytes, all)];
  });
  const whole = table("Categories", [["Category"], ["Files", "number"], ["Size", "number"], ["Share", "number"]], rows);
  whole.className = "categories";
  return section("Categories", "By the file names' extensions.", "tall", whole);
}

/** The name of a file above the folder that it lies in. */
function nameCell(path) {
  const slash = path.lastIndexOf("/");
  return [make("span", { class: "name" }, path.slice(slash + 1)), make("span", { class: "folder" }, path.slice(0, slash) || "/")];
}

/** The date, and the time of day where there is room for it. */
const timeCell = time => [time.slice(0, 10), make("span", { class: "time-of-day" }, time.slice(10, 16))];

/** A table that shows its first rows, and the others on request. */
function longTable(caption, heads, rows) {
  const place = make("div", {}, table(caption, heads, rows.slice(0, shortList)));
  if (rows.length > shortList) {
    const more = make("button", { class: "more" }, `Show all ${rows.length}`);
    on(more, "click", () => {
      const whole = table(caption, heads, rows);
      whole.tabIndex = -1;
      place.replaceChildren(whole);
      whole.focus(); // the button that had it is gone
    });
    place.append(more);
  }
  return place;
}

function filesSection(title, remark, list, timeName, kind = "") {
  if (list.length === 0)
    return section(title, remark, kind, make("p", {}, "None."));
  return section(title, remark, kind, longTable(title, [["File"], ["Size", "number"], [timeName, "number"]],
    list.map(file => [nameCell(file.path), size(file.size), timeCell(file.time)])));
}

function duplicatesSection(volume) {
  const { groups, files: number, wasted, list } = volume.duplicates;
  const title = "Likely duplicates";
  if (groups === 0)
    return section(title, "Files with the same name and the same size.", "wide", make("p", {}, "None."));
  const copies = group => make("ul", { class: "copies" }, ...group.paths.map(path => make("li", {}, path)),
    ...(group.files > group.paths.length ? [make("li", {}, `and ${count(group.files - group.paths.length)} more`)] : []));
  const rows = list.map(group => [[make("span", { class: "name" }, group.name), copies(group)], count(group.files),
    size(group.size), size(group.wasted)]);
  return section(title, `Files with the same name and the same size: ${files(number)} in ${count(groups)} groups. All but one of `
    + `each take ${size(wasted)}. Their content has not been compared, and links to one file count as several.`, "wide",
  longTable(title, [["File"], ["Copies", "number"], ["Each", "number"], ["Wasted", "number"]], rows));
}

function deletedSection(volume) {
  const { files: number, folders: deletedFolders, recent } = volume.deleted;
  return filesSection("Recently deleted", `Rows that are marked deleted and not purged yet: ${files(number)}, `
    + `${folders(deletedFolders)}. A moved file counts as deleted at its old place.`, recent, "Deleted", "wide");
}
