// Files by month, as bars that are stacked by category.

const mostMonths = 120; // more than these are shown by year

/** Every period from the first to the last, also those without files. A period is { name, files, bytes: [4] }. */
function periodsOf(months) {
  if (months.length === 0)
    return [];
  const number = month => Number(month.slice(0, 4)) * 12 + Number(month.slice(5)) - 1;
  const first = number(months[0][0]);
  const last = number(months[months.length - 1][0]);
  const inYears = last - first >= mostMonths;
  const place = month => inYears ? Math.floor(month / 12) - Math.floor(first / 12) : month - first;
  const name = i => inYears ? `${Math.floor(first / 12) + i}`
    : `${Math.floor((first + i) / 12)}-${String((first + i) % 12 + 1).padStart(2, "0")}`;
  const periods = Array.from({ length: place(last) + 1 }, (_, i) => ({ name: name(i), files: 0, bytes: [0, 0, 0, 0] }));
  for (const [month, files, bytes] of months) {
    const period = periods[place(number(month))];
    period.files += files;
    bytes.forEach((more, i) => { period.bytes[i] += more; });
  }
  return periods;
}

/** Draws the bars into `place`; calls `choose` with the number of the period that is pointed at. */
function drawBars(place, periods, width, choose) {
  const height = 220;
  const edge = { left: 62, right: 6, top: 10, bottom: 22 };
  const most = Math.max(1, ...periods.map(period => sum(period.bytes)));
  const unit = byteUnit(most);
  const x = d3.scaleBand().domain(periods.map(period => period.name)).range([edge.left, width - edge.right]).padding(0.15);
  const y = d3.scaleLinear().domain([0, most / 1024 ** unit]).nice(4).range([height - edge.bottom, edge.top]);
  const svg = d3.select(place).append("svg").attr("viewBox", `0 0 ${width} ${height}`).attr("height", height);
  const every = Math.ceil(periods.length / Math.max(1, (width - edge.left) / 64));
  svg.append("g").attr("transform", `translate(${edge.left},0)`)
    .call(d3.axisLeft(y).ticks(4).tickSize(-(width - edge.left - edge.right))
      .tickFormat(value => `${value.toLocaleString("en")} ${byteUnits[unit]}`))
    .call(axis => axis.select(".domain").remove());
  svg.append("g").attr("transform", `translate(0,${height - edge.bottom})`)
    .call(d3.axisBottom(x).tickSize(4).tickValues(x.domain().filter((_, i) => i % every === 0)));
  const bars = svg.selectAll(".period").data(periods).enter().append("g").attr("class", "period");
  for (let category = 1; category <= 4; ++category) {
    const below = period => sum(period.bytes.slice(0, category - 1)) / 1024 ** unit;
    const upTo = period => sum(period.bytes.slice(0, category)) / 1024 ** unit;
    bars.filter(period => period.bytes[category - 1] > 0).append("rect").attr("x", period => x(period.name))
      .attr("width", x.bandwidth()).attr("y", period => y(upTo(period)))
      .attr("height", period => y(below(period)) - y(upTo(period))).attr("fill", `var(--c${category})`);
  }
  bars.append("rect").attr("class", "hover").attr("x", period => x(period.name) - x.step() * x.padding() / 2)
    .attr("width", x.step()).attr("y", edge.top).attr("height", height - edge.top - edge.bottom)
    .each(function follow(_, i) {
      for (const event of ["pointermove", "pointerdown"])
        on(this, event, () => choose(i));
    });
  return svg;
}

/** The chart of one list of months. The arrow keys go from bar to bar. */
function growthChart(months, what) {
  const periods = periodsOf(months);
  const place = make("div", { class: "chart" });
  const readout = make("p", { class: "readout" });
  let chosen = periods.length - 1;
  let svg = null;
  const say = period => `${period.name}: ${size(sum(period.bytes))} in ${files(period.files)}`;
  const choose = i => {
    chosen = Math.min(Math.max(i, 0), periods.length - 1);
    svg.selectAll(".hover").classed("chosen", (_, at) => at === chosen);
    svg.attr("aria-valuenow", chosen).attr("aria-valuetext", say(periods[chosen]));
    readout.textContent = say(periods[chosen]);
  };
  const steps = { ArrowLeft: -1, ArrowDown: -1, ArrowRight: 1, ArrowUp: 1, PageDown: -12, PageUp: 12,
    Home: -periods.length, End: periods.length };
  if (periods.length === 0)
    return make("p", {}, "There are no files.");
  drawToWidth(place, width => {
    place.replaceChildren();
    svg = drawBars(place, periods, width, choose).attr("tabindex", 0).attr("role", "slider")
      .attr("aria-label", `Files by the month of ${what}`).attr("aria-valuemin", 0).attr("aria-valuemax", periods.length - 1);
    choose(chosen);
  });
  on(place, "keydown", event => {
    if (event.key in steps) {
      event.preventDefault();
      choose(chosen + steps[event.key]);
    }
  });
  const rows = () => table(`Files by the month of ${what}`, [["Month"], ["Files", "number"], ["Size", "number"]],
    months.map(([month, number, bytes]) => [month, count(number), size(sum(bytes))]).reverse());
  return make("div", {}, place, readout, folded("Show as a table", rows));
}

function growthSection(volume) {
  const place = make("div");
  const bases = { arrived: "arrival", modified: "last change" };
  const choice = make("div", { class: "choice", role: "radiogroup", "aria-label": "By the month of" },
    make("span", { "aria-hidden": "true" }, "By the month of"));
  const show = basis => place.replaceChildren(growthChart(volume[basis], bases[basis]));
  for (const basis of Object.keys(bases)) {
    const radio = make("input", { type: "radio", name: "basis", value: basis });
    radio.checked = basis === "arrived";
    choice.append(make("label", {}, on(radio, "change", () => show(basis)), bases[basis]));
  }
  show("arrived");
  return section("Growth", "The files that are there today. Arrival is created_time: the inode's change time when the file was "
    + "first catalogued. Last change is modified_time. More than ten years are shown by year.", "", choice, place);
}
