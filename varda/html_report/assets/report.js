// SPDX-License-Identifier: Apache-2.0
//
// Draws what is in the element "data". Names of data become text nodes, never markup.
"use strict";
(function () {
  const report = JSON.parse(document.getElementById("data").textContent);
  const results = report.results;
  const subjects = report.subjects;
  const endpoints = report.data.endpoints;
  const isNumber = (v) => typeof v === "number" && isFinite(v);

  // The rows as objects, each knowing its subject.
  const columns = report.rows;
  const rows = columns.subject.map((subject, k) => ({
    subject: subject, time: columns.time[k], tad: columns.tad[k], dv: columns.dv[k], limit: columns.limit[k],
    endpoint: columns.endpoint[k], cens: columns.cens[k] !== 0, pred: columns.pred[k],
    ipred: columns.ipred[k], iwres: columns.iwres[k], npde: columns.npde[k],
  }));

  function shown(value, digits) {
    if (!isNumber(value)) return "–";
    const size = Math.abs(value);
    if (size !== 0 && (size < 1e-4 || size >= 1e7)) return value.toExponential(2);
    return String(Number(value.toPrecision(digits || 4)));
  }
  const fixedTo = (value, places) => (isNumber(value) ? value.toFixed(places) : "–");
  const section = (name) => d3.select("#" + name);
  const nameOf = (endpoint) => endpoints[endpoint].name || "observation";
  const idOf = (subject) => subjects[subject].id;

  function table(to, header, lines) {
    const made = to.append("div").attr("class", "scroll").append("table");
    made.append("thead").append("tr").selectAll("th").data(header).enter().append("th")
      .attr("scope", "col").text((d) => d);
    const body = made.append("tbody").selectAll("tr").data(lines).enter().append("tr");
    body.selectAll("td").data((d) => d).enter().append("td").text((d) => d);
    return made;
  }

  function figures(to, pairs) {
    const list = to.append("dl").attr("class", "figures");
    pairs.forEach(([name, value]) => {
      const pair = list.append("div");
      pair.append("dt").text(name);
      pair.append("dd").text(value);
    });
  }

  // Buttons of which one is pressed; act is called with its position.
  function choice(to, names, act) {
    const buttons = names.map((name, k) => to.append("button").attr("type", "button")
      .attr("aria-pressed", k === 0).text(name).on("click", () => {
        buttons.forEach((b, j) => b.attr("aria-pressed", j === k));
        act(k);
      }));
  }

  // ---- charts ---------------------------------------------------------------------------------

  function domainOf(values, log) {
    const usable = values.filter((v) => isNumber(v) && (!log || v > 0));
    if (usable.length === 0) return log ? [0.1, 1] : [0, 1];
    let [low, high] = d3.extent(usable);
    if (log) return low === high ? [low / 2, high * 2] : [low / 1.2, high * 1.2];
    const margin = low === high ? Math.abs(low) * 0.1 || 1 : (high - low) * 0.04;
    return [low - margin, high + margin];
  }

  // options: title, x, y (names), xs, ys (what has to fit), log ("", "y", "xy"), width, height, whole
  // (x counts).
  function chart(to, options) {
    const width = options.width || 360;
    const height = options.height || 260;
    const margin = { left: 52, right: 10, top: 8, bottom: 38 };
    const log = options.log || "";
    const figure = to.append("figure");
    if (options.title) figure.append("figcaption").text(options.title);
    const svg = figure.append("svg").attr("viewBox", `0 0 ${width} ${height}`).attr("role", "group")
      .attr("aria-label", options.label || `${options.title || ""} ${options.y} against ${options.x}`);
    const x = (log === "xy" ? d3.scaleLog() : d3.scaleLinear())
      .domain(options.xDomain || domainOf(options.xs, log === "xy"))
      .range([margin.left, width - margin.right]);
    const y = (log ? d3.scaleLog() : d3.scaleLinear())
      .domain(options.yDomain || domainOf(options.ys, log !== ""))
      .range([height - margin.bottom, margin.top]);
    const ticks = (scale, count) => {
      const axis = scale === x ? d3.axisBottom(scale) : d3.axisLeft(scale);
      if (scale === x && options.whole)
        return axis.ticks(count).tickFormat((v) => (Number.isInteger(v) ? String(v) : ""));
      if (!scale.base) return axis.ticks(count);
      // Where a logarithmic axis spans little, all its ticks are named; else the powers of ten.
      const decades = Math.log10(scale.domain()[1] / scale.domain()[0]);
      return axis.ticks(decades > 1.5 ? Math.ceil(decades) : count, "~g");
    };
    svg.append("g").attr("class", "axis").attr("transform", `translate(0,${height - margin.bottom})`)
      .call(ticks(x, width < 300 ? 4 : 6).tickSizeOuter(0));
    svg.append("g").attr("class", "axis").attr("transform", `translate(${margin.left},0)`)
      .call(ticks(y, 5).tickSizeOuter(0));
    svg.append("text").attr("x", (margin.left + width - margin.right) / 2).attr("y", height - 6)
      .attr("text-anchor", "middle").text(options.x);
    svg.append("text").attr("transform", `translate(12,${(margin.top + height - margin.bottom) / 2}) rotate(-90)`)
      .attr("text-anchor", "middle").text(options.y);
    const inside = (px, py) => isNumber(px) && isNumber(py) && (log !== "xy" || px > 0) && (!log || py > 0);
    return { figure, svg, x, y, width, height, margin, inside };
  }

  function line(on, kind, xs, ys) {
    const points = xs.map((v, k) => [v, ys[k]]);
    on.svg.append("path").attr("class", kind).attr("d", d3.line().defined((p) => on.inside(p[0], p[1]))
      .x((p) => on.x(p[0])).y((p) => on.y(p[1]))(points));
  }

  function band(on, kind, xs, lower, upper) {
    const floor = on.y.domain()[0];
    const cut = (v) => (on.y.base ? Math.max(v, floor) : v);
    const points = xs.map((v, k) => [v, lower[k], upper[k]]);
    on.svg.append("path").attr("class", kind)
      .attr("d", d3.area().defined((p) => isNumber(p[0]) && isNumber(p[1]) && isNumber(p[2]))
        .x((p) => on.x(p[0])).y0((p) => on.y(cut(p[1]))).y1((p) => on.y(cut(p[2])))(points));
  }

  function level(on, value, vertical) {
    const across = vertical
      ? { x1: on.x(value), x2: on.x(value), y1: on.margin.top, y2: on.height - on.margin.bottom }
      : { x1: on.margin.left, x2: on.width - on.margin.right, y1: on.y(value), y2: on.y(value) };
    const made = on.svg.append("line").attr("class", "reference");
    Object.keys(across).forEach((key) => made.attr(key, across[key]));
  }

  function identity(on) {
    const low = Math.max(on.x.domain()[0], on.y.domain()[0]);
    const high = Math.min(on.x.domain()[1], on.y.domain()[1]);
    if (low < high) line(on, "reference", [low, high], [low, high]);
  }

  // Points that open their subject. One of a chart is reached with the tab key, the others from
  // there with the arrow keys.
  function points(on, data, px, py, options) {
    const settings = options || {};
    const usable = data.filter((d) => on.inside(px(d), py(d)));
    const left = data.filter((d) => isNumber(px(d)) && isNumber(py(d))).length - usable.length;
    if (left > 0)
      on.figure.append("p").attr("class", "note").text(`${left} not above 0 and not on this scale`);
    const mark = d3.symbol().size(settings.size || 34);
    const made = on.svg.append("g").selectAll("path").data(usable).enter().append("path")
      .attr("class", (d) => "point" + (d.cens ? " censored" : "") +
        (settings.alarming && settings.alarming(d) ? " alarming" : ""))
      .attr("d", (d) => mark.type(d.cens ? d3.symbolTriangle : d3.symbolCircle)())
      .attr("transform", (d) => `translate(${on.x(px(d))},${on.y(py(d))})`);
    if (settings.still) {
      made.classed("still", true);
      return;
    }
    made.attr("role", "button").attr("data-subject", (d) => d.subject)
      .attr("tabindex", (d, k) => (k === 0 ? 0 : -1))
      .attr("aria-label", (d) => `subject ${idOf(d.subject)}, ${shown(px(d))}, ${shown(py(d))}` +
        (d.cens ? ", censored" : ""))
      .on("click", (d) => open(d.subject))
      .on("keydown", (d, k, nodes) => {
        const key = d3.event.key;
        const step = { ArrowRight: 1, ArrowDown: 1, ArrowLeft: -1, ArrowUp: -1 }[key];
        if (key === "Enter" || key === " ") open(d.subject);
        else if (step && nodes[k + step]) {
          nodes[k].setAttribute("tabindex", -1);
          nodes[k + step].setAttribute("tabindex", 0);
          nodes[k + step].focus();
        } else return;
        d3.event.preventDefault();
      });
    made.append("title").text((d) => `subject ${idOf(d.subject)}`);
  }

  function scatter(to, data, px, py, options) {
    const on = chart(to, Object.assign({ xs: data.map(px), ys: data.map(py) }, options));
    (options.levels || []).forEach((v) => level(on, v));
    if (options.identity) identity(on);
    points(on, data, px, py, options);
    return on;
  }

  // ---- text -------------------------------------------------------------------------------------

  function verdict() {
    d3.select("#program").text(`varda ${results.versions.varda}, ${results.task}`);
    const box = section("verdict").classed("good", results.converged);
    const said = results.task === "fit"
      ? (results.converged ? "Converged" : results.singular.length ? "Omega is singular" : "Not converged")
      : (results.converged ? "Evaluated" : "Evaluated, not reliable");
    const heading = results.task === "fit" ? `${said} after ${results.iterations} iterations` : said;
    box.append("strong").text(heading);
    box.append("p").text(results.reason);
    const c = results.criteria;
    figures(box, [
      ["-2 log-likelihood", fixedTo(results.minus2ll, 3)],
      ["its Monte Carlo error", shown(results.minus2ll_mc_se, 2)],
      ["AIC", fixedTo(c.aic, 2)],
      ["BIC (observations)", fixedTo(c.bic_observations, 2)],
      ["BIC (subjects)", fixedTo(c.bic_subjects, 2)],
      ["estimated quantities", c.estimated],
    ]);
    const nav = d3.select("#contents");
    d3.selectAll("main > section").each(function () {
      nav.append("a").attr("href", "#" + this.id).text(d3.select(this).select("h2").text());
    });
  }

  function warnings() {
    const to = section("warnings");
    if (results.warnings.length === 0) to.append("p").text("None.");
    results.warnings.forEach((w) => {
      const box = to.append("div").attr("class", "warning");
      const place = [w.subject && `subject ${w.subject}`, w.column, w.row && `row ${w.row}`].filter(Boolean);
      box.append("p").text(`${w.code}: ${w.message}` + (place.length ? ` (${place.join(", ")})` : ""));
      if (w.remedy) box.append("p").attr("class", "note").text(`What to do: ${w.remedy}`);
    });
  }

  function interval(ci) {
    return ci && isNumber(ci[0]) ? `${shown(ci[0])} to ${shown(ci[1])}` : "–";
  }

  function estimates() {
    const to = section("estimates");
    const marks = (q) => (q.fixed ? "fixed" : q.at_bound ? "at its bound" : "");
    const entry = (q) => [q.name, shown(q.estimate, 5), shown(q.se), fixedTo(q.rse, 1), interval(q.ci95), marks(q)];
    const head = (what) => [what, "estimate", "SE", "RSE %", "95 % interval", ""];
    to.append("h3").text("Parameters");
    table(to, head("parameter"), results.parameters.map(entry));
    to.append("h3").text("Random effects");
    const omega = results.omega;
    const at = (matrix, i, j) => (matrix && matrix[i] ? matrix[i][j] : null);
    const place = (name) => {
      const exact = omega.names.indexOf(name);
      return exact >= 0 ? exact : omega.names.findIndex((n) => n.indexOf(name + "@") === 0);
    };
    table(to, ["variance or covariance", "estimate", "SE", "RSE %", "95 % interval", "shrinkage %", ""],
      omega.elements.map((e) => {
        const names = e.name.slice(e.name.indexOf("(") + 1, -1).split(",");
        const onOccasion = e.name.indexOf("omega_occasion") === 0;
        const [i, j] = names.map((n) => (onOccasion ? place(n + "@1") : place(n)));
        const shrinkage = i === j && omega.shrinkage ? omega.shrinkage[i] : null;
        return [e.name, shown(e.estimate, 5), shown(at(omega.se, i, j)), fixedTo(e.rse, 1),
          interval(at(omega.ci95, i, j)), isNumber(shrinkage) ? fixedTo(100 * shrinkage, 1) : "",
          e.fixed ? "fixed" : ""];
      }));
    if (results.residual.length > 0) {
      to.append("h3").text("Residual error");
      table(to, head("parameter"), results.residual.map(entry));
    }
    const errors = results.standard_errors;
    if (errors && errors.reason) to.append("p").text(`No standard errors: ${errors.reason}`);
    else if (errors && errors.kind)
      to.append("p").attr("class", "note").text([`Standard errors: ${errors.kind}.`,
        ...(errors.kind === "score" ? [] : errors.from_scores || []).map((names) =>
          `Along ${names} the subjects' scores replace the information, whose sampling error is too large there.`),
      ].join(" "));
  }

  function model() {
    const to = section("model");
    const m = report.model;
    to.append("p").text(m.words.join(" "));
    [["Structure", m.structure], ["Individual parameters", m.individuals],
      ["Observations", m.observations]].forEach(([name, lines]) => {
      to.append("h3").text(name);
      to.append("div").attr("class", "equations").text(lines.join("\n"));
    });
    to.append("h3").text("Data");
    const d = report.data;
    figures(to, [["subjects", subjects.length], ["records", d.records], ["doses", d.doses],
      ["excluded (MDV 1)", d.excluded], ["covariates", d.covariates.join(", ") || "none"]]
      .concat(endpoints.map((e) => [e.name ? `observations of ${e.name}` : "observations",
        e.observations + (e.censored ? `, ${e.censored} censored` : "")])));
    const file = to.append("details");
    file.append("summary").text("The model file");
    file.append("pre").text(m.file);
  }

  function origin() {
    const to = section("origin");
    table(to, ["", ""], [["model", results.model], ["SHA-256", results.model_sha256],
      ["data", results.data.file], ["SHA-256", results.data.sha256],
      ["version", results.versions.varda], ["seed", results.settings.seed]]);
    const all = to.append("details");
    all.append("summary").text("Settings");
    table(all, ["setting", "value"], Object.keys(results.settings).map((k) => [k, results.settings[k]]));
  }

  // ---- goodness of fit ----------------------------------------------------------------------------

  const eachEndpoint = (to, draw) => endpoints.forEach((e, k) => {
    if (endpoints.length > 1) to.append("h3").text(e.name);
    draw(rows.filter((r) => r.endpoint === k), k);
  });

  function empty(name) {
    section(name).append("p").text("The run was stopped before this was computed.");
  }

  function predictions() {
    if (rows.length === 0) return empty("predictions");
    const to = section("predictions");
    const tools = to.append("div").attr("class", "tools");
    const place = to.append("div");
    const draw = (log) => {
      place.selectAll("*").remove();
      eachEndpoint(place, (mine, k) => {
        const charts = place.append("div").attr("class", "charts");
        [["population prediction (PRED)", "pred"], ["individual prediction (IPRED)", "ipred"]].forEach(
          ([name, key]) => scatter(charts, mine, (r) => r[key], (r) => r.dv,
            { title: `Against the ${name}`, x: name, y: nameOf(k), log: log ? "xy" : "", identity: true }));
      });
      place.append("p").attr("class", "note").text("Triangles are censored values, at their limits. " +
        "A click on a point, or Enter, opens its subject; arrow keys move between points.");
    };
    choice(tools, ["linear", "logarithmic"], draw);
    draw(0);
  }

  // Quantile of the standard normal distribution (Abramowitz and Stegun 26.2.23), to 5e-4.
  function normalQuantile(p) {
    const tail = Math.min(p, 1 - p);
    const t = Math.sqrt(-2 * Math.log(tail));
    const q = t - (2.515517 + 0.802853 * t + 0.010328 * t * t) /
      (1 + 1.432788 * t + 0.189269 * t * t + 0.001308 * t * t * t);
    return p < 0.5 ? -q : q;
  }

  function quantiles(to, mine, key, title) {
    const sorted = mine.filter((r) => isNumber(r[key])).sort((a, b) => a[key] - b[key]);
    if (sorted.length === 0) return;
    const data = sorted.map((r, k) => ({ subject: r.subject, cens: r.cens, value: r[key],
      normal: normalQuantile((k + 0.5) / sorted.length) }));
    scatter(to, data, (d) => d.normal, (d) => d.value,
      { title: `Quantiles of ${title}`, x: "standard normal", y: title, identity: true });
  }

  function residuals() {
    if (rows.length === 0) return empty("residuals");
    const to = section("residuals");
    if (!rows.some((r) => isNumber(r.npde) || isNumber(r.iwres)))
      return to.append("p").text("No endpoint has residuals that would be standard normal.");
    eachEndpoint(to, (mine) => {
      const charts = to.append("div").attr("class", "charts");
      const xs = [["time", "time"], ["time after dose", "tad"]];
      [["NPDE", "npde", ["population prediction", "pred"]], ["IWRES", "iwres", ["individual prediction", "ipred"]]]
        .forEach(([name, key, prediction]) => {
          if (!mine.some((r) => isNumber(r[key]))) return;
          xs.concat([prediction]).forEach(([xName, xKey]) =>
            scatter(charts, mine, (r) => r[xKey], (r) => r[key],
              { title: `${name} against ${xName}`, x: xName, y: name, levels: [-1.96, 0, 1.96] }));
        });
      if (mine.some((r) => isNumber(r.iwres)))
        scatter(charts, mine, (r) => r.ipred, (r) => (isNumber(r.iwres) ? Math.abs(r.iwres) : null),
          { title: "|IWRES| against individual prediction", x: "individual prediction", y: "|IWRES|" });
      [["npde", "NPDE"], ["iwres", "IWRES"]].forEach(([key, name]) => {
        if (mine.some((r) => isNumber(r[key]))) quantiles(charts, mine, key, name);
      });
    });
    to.append("p").attr("class", "note")
      .text("Dashed: 0 and ±1.96, between which 95 % of standard normal values lie.");
  }

  // ---- subjects -----------------------------------------------------------------------------------

  function individualChart(to, subject, endpoint, options) {
    const mine = rows.filter((r) => r.subject === subject && r.endpoint === endpoint);
    const curve = subjects[subject].curves[endpoint];
    const doses = subjects[subject].doses;
    const on = chart(to, Object.assign({
      x: "time", y: nameOf(endpoint), label: `Individual fit of subject ${idOf(subject)}`,
      xs: curve.time.concat(mine.map((r) => r.time)),
      ys: curve.ipred.concat(curve.pred, curve.upper, curve.lower, mine.map((r) => r.dv)),
    }, options, options.log
      ? { ys: mine.map((r) => r.dv).concat(mine.map((r) => r.ipred), mine.map((r) => r.pred)) } : {}));
    const clip = `clip${clips += 1}`;
    on.svg.append("clipPath").attr("id", clip).append("rect").attr("x", on.margin.left).attr("y", 0)
      .attr("width", on.width - on.margin.left - on.margin.right).attr("height", on.height - on.margin.bottom);
    const whole = on.svg;
    on.svg = whole.append("g").attr("clip-path", `url(#${clip})`);
    band(on, "band", curve.time, curve.lower, curve.upper);
    line(on, "typical", curve.time, curve.pred);
    line(on, "fitted", curve.time, curve.ipred);
    on.svg = whole;
    const floor = on.height - on.margin.bottom;
    doses.filter((d) => d.time >= on.x.domain()[0] && d.time <= on.x.domain()[1]).forEach((d) =>
      whole.append("line").attr("class", "dose").attr("x1", on.x(d.time)).attr("x2", on.x(d.time))
        .attr("y1", floor).attr("y2", floor - 8).append("title").text(`dose ${shown(d.amount)}`));
    points(on, mine, (r) => r.time, (r) => r.dv, options);
    return on;
  }
  let clips = 0;

  function individuals() {
    const to = section("individuals");
    to.append("p").attr("class", "note").text("Line: individual prediction, with the band that holds 90 % " +
      "of its conditional distribution; dashed: population prediction; ticks on the axis: doses.");
    const tools = to.append("div").attr("class", "tools");
    const place = to.append("div").attr("class", "charts small");
    const more = to.append("button").attr("type", "button");
    const atOnce = 24;
    let count = Math.min(atOnce, subjects.length);
    let log = "";
    const add = (from, until) => {
      for (let i = from; i < until; i += 1)
        endpoints.forEach((e, k) => {
          const on = individualChart(place, i, k, { width: 260, height: 200, log: log, size: 26 });
          on.figure.insert("figcaption", "svg").append("button").attr("type", "button")
            .attr("data-subject", i).text(`subject ${idOf(i)}${e.name ? ", " + e.name : ""}`)
            .on("click", () => open(i));
        });
      more.text(`${subjects.length - until} more`).style("display", until < subjects.length ? null : "none");
    };
    choice(tools, ["linear", "logarithmic"], (k) => {
      log = k ? "y" : "";
      place.selectAll("*").remove();
      add(0, count);
    });
    more.on("click", () => {
      const before = count;
      count = Math.min(count + atOnce, subjects.length);
      add(before, count);
    });
    add(0, count);
  }

  let returnTo = null;
  let current = -1;

  function open(subject) {
    const wanted = "#subject=" + encodeURIComponent(idOf(subject));
    if (current < 0) returnTo = document.activeElement;
    if (location.hash !== wanted) history.replaceState(null, "", wanted);
    show(subject);
  }

  function close() {
    current = -1;
    section("subject").attr("hidden", true).selectAll("*").remove();
    d3.selectAll(".point.chosen").classed("chosen", false);
    history.replaceState(null, "", location.pathname + location.search);
    if (returnTo && returnTo.isConnected && returnTo.focus) returnTo.focus();
    returnTo = null;
  }

  function show(subject) {
    current = subject;
    const who = subjects[subject];
    const panel = section("subject").attr("hidden", null);
    panel.selectAll("*").remove();
    const tools = panel.append("div").attr("class", "tools");
    tools.append("button").attr("type", "button").text("Close").on("click", close);
    [["Previous", subject - 1], ["Next", subject + 1]].forEach(([name, k]) => {
      if (k >= 0 && k < subjects.length)
        tools.append("button").attr("type", "button").text(name).on("click", () => open(k));
    });
    panel.append("h2").attr("id", "subject-name").text(`Subject ${who.id}`);
    const found = results.subjects[subject];
    const list = report.data.covariates.map((c, k) => [c, shown(who.covariates[k])]);
    if (found) {
      list.push(["observations", found.observations],
        ["-2 log-likelihood, without constant", fixedTo(found.minus2ll_without_constant, 3)],
        ["effective samples", fixedTo(found.ess, 0) + (found.points > 0 ? ` of ${found.points}` : "")],
        ["Pareto k", fixedTo(found.pareto_k, 2)],
        ["largest weight", isNumber(found.largest_weight) ? shown(100 * found.largest_weight, 3) + " %" : "–"]);
      found.eta_mean.forEach((eta, k) => list.push([`η(${results.omega.names[k]})`, shown(eta, 3)]));
    }
    figures(panel, list);
    const scales = panel.append("div").attr("class", "tools");
    const place = panel.append("div").attr("class", "charts wide");
    const draw = (log) => {
      place.selectAll("*").remove();
      endpoints.forEach((e, k) => individualChart(place, subject, k,
        { title: e.name, width: 520, height: 330, log: log ? "y" : "", still: true }));
    };
    choice(scales, ["linear", "logarithmic"], draw);
    draw(0);
    panel.append("h3").text("Doses");
    table(panel, ["time", "amount", "compartment"], who.doses.map((d) =>
      [shown(d.time), shown(d.amount) + (d.steady_state ? ", steady state" : ""), d.compartment]));
    panel.append("h3").text("Observations");
    table(panel, ["time", "DV", "PRED", "IPRED", "IWRES", "NPDE"],
      rows.filter((r) => r.subject === subject).map((r) => [shown(r.time), (r.cens ? "censored " : "") + shown(r.dv),
        shown(r.pred), shown(r.ipred), fixedTo(r.iwres, 2), fixedTo(r.npde, 2)]));
    d3.selectAll(".point").classed("chosen", function () {
      return this.getAttribute("data-subject") === String(subject);
    });
    panel.node().focus();
  }

  function followLink() {
    const match = /^#subject=(.*)$/.exec(location.hash);
    if (!match) return;
    let id = match[1];
    try { id = decodeURIComponent(id); } catch (error) { /* a "%" that stands for itself */ }
    const at = subjects.findIndex((s) => s.id === id);
    if (at >= 0) show(at);
  }

  // ---- random effects -------------------------------------------------------------------------------

  function histogram(to, values, deviation, name) {
    const bins = d3.histogram().thresholds(Math.max(5, Math.ceil(Math.sqrt(values.length))))(values);
    const step = bins.length > 1 ? bins[1].x1 - bins[1].x0 : 1;
    const density = (v) => Math.exp(-0.5 * (v / deviation) * (v / deviation)) /
      (deviation * Math.sqrt(2 * Math.PI)) * values.length * step;
    const most = Math.max(d3.max(bins, (b) => b.length), deviation > 0 ? density(0) : 0);
    const reach = Math.max(3 * deviation, d3.max(values, Math.abs));
    const on = chart(to, { title: `η(${name})`, x: `η(${name})`, y: "subjects", width: 300, height: 210,
      xDomain: [-reach, reach], yDomain: [0, most * 1.05] });
    on.svg.append("g").selectAll("rect").data(bins).enter().append("rect").attr("class", "bar")
      .attr("x", (b) => on.x(b.x0)).attr("width", (b) => Math.max(0, on.x(b.x1) - on.x(b.x0) - 1))
      .attr("y", (b) => on.y(b.length)).attr("height", (b) => on.y(0) - on.y(b.length));
    if (deviation > 0) {
      const grid = d3.range(-reach, reach * 1.001, reach / 60);
      line(on, "fitted", grid, grid.map(density));
    }
  }

  function effects() {
    if (results.subjects.length === 0) return empty("effects");
    const to = section("effects");
    const names = results.omega.names;
    const data = results.subjects.map((s, i) => ({ subject: i, eta: s.eta_mean, covariates: subjects[i].covariates }));
    to.append("p").attr("class", "note").text("Conditional means of the subjects and the normal density with " +
      "the estimated variance; shrinkage makes the means narrower.");
    const histograms = to.append("div").attr("class", "charts small");
    names.forEach((name, k) =>
      histogram(histograms, data.map((d) => d.eta[k]), Math.sqrt(results.omega.matrix[k][k]), name));
    const most = 6;
    if (names.length > 1) {
      to.append("h3").text("In pairs" + (names.length > most ? `, the first ${most}` : ""));
      const pairs = to.append("div").attr("class", "charts small");
      for (let i = 0; i < Math.min(most, names.length); i += 1)
        for (let j = 0; j < i; j += 1)
          scatter(pairs, data, (d) => d.eta[j], (d) => d.eta[i], { width: 300, height: 210,
            x: `η(${names[j]})`, y: `η(${names[i]})`, levels: [0] });
    }
    report.data.covariates.forEach((covariate, c) => {
      to.append("h3").text(`Against ${covariate}`);
      const charts = to.append("div").attr("class", "charts small");
      names.slice(0, 2 * most).forEach((name, k) => scatter(charts, data, (d) => d.covariates[c], (d) => d.eta[k],
        { width: 300, height: 210, x: covariate, y: `η(${name})`, levels: [0] }));
    });
  }

  // ---- visual predictive check ------------------------------------------------------------------------

  function vpcPanel(to, panel, corrected, log) {
    if (panel.bins.length === 0) return;
    // The panel's points are the endpoint's rows in their order, less those that cannot be corrected.
    const mine = rows.filter((r) => r.endpoint === panel.endpoint && (!corrected || r.pred > 0));
    const known = mine.length === panel.times.length && mine.every((r, k) => Math.abs(r.time - panel.times[k]) <=
      1e-5 * (1 + Math.abs(r.time)));
    const data = panel.times.map((time, k) => ({ time: time, value: panel.values[k],
      subject: known ? mine[k].subject : -1, cens: known && mine[k].cens }));
    const all = [].concat(...panel.bins.map((b) => [].concat(...b.percentiles.map((p) => [p.lower, p.upper, p.observed]))));
    const name = nameOf(panel.endpoint) + (corrected ? ", prediction-corrected" : "");
    const on = chart(to, { title: endpoints.length > 1 ? nameOf(panel.endpoint) : "", x: "time", y: name, width: 760,
      height: 380, log: log ? "y" : "", xs: data.map((d) => d.time).concat(panel.bins.map((b) => b.to)),
      ys: data.map((d) => d.value).concat(all), label: `Visual predictive check of ${name}` });
    const floor = on.y.domain()[0];
    panel.bins.forEach((b) => b.percentiles.forEach((p, k) => {
      if (!isNumber(p.lower) || !isNumber(p.upper) || (log && p.upper <= 0)) return;
      const [left, right] = [on.x(b.from), on.x(b.to)];
      const [top, bottom] = [on.y(p.upper), on.y(log ? Math.max(p.lower, floor) : p.lower)];
      on.svg.append("rect").attr("class", k === 1 ? "band middle" : "band").attr("x", left).attr("y", top)
        .attr("width", Math.max(2, right - left)).attr("height", Math.max(1, bottom - top));
    }));
    [0, 1, 2].forEach((k) => {
      const centres = panel.bins.map((b) => b.centre);
      line(on, "simulated", centres, panel.bins.map((b) => b.percentiles[k].median));
      line(on, k === 1 ? "observed" : "observed outer", centres, panel.bins.map((b) => b.percentiles[k].observed));
    });
    points(on, data, (d) => d.time, (d) => d.value, { size: 18, still: !known });
    if (panel.left_out > 0)
      to.append("p").attr("class", "note")
        .text(`${panel.left_out} observation${panel.left_out === 1 ? "" : "s"} left out: prediction not above 0.`);
    if (!panel.bins.some((b) => b.censored.observed > 0)) return;
    const share = chart(to, { x: "time", y: "share censored", width: 760, height: 180,
      xDomain: on.x.domain(), yDomain: [0, 1], label: "Share of censored values" });
    panel.bins.forEach((b) => share.svg.append("rect").attr("class", "band").attr("x", share.x(b.from))
      .attr("width", Math.max(2, share.x(b.to) - share.x(b.from))).attr("y", share.y(b.censored.upper))
      .attr("height", Math.max(1, share.y(b.censored.lower) - share.y(b.censored.upper))));
    line(share, "observed", panel.bins.map((b) => b.centre), panel.bins.map((b) => b.censored.observed));
  }

  function eventPanel(to, panel) {
    const name = panel.repeated ? "mean number of events" : "share without an event";
    const on = chart(to, { title: endpoints.length > 1 ? nameOf(panel.endpoint) : "", x: "time", y: name, width: 760,
      height: 380, xs: panel.times, ys: [].concat(panel.observed, panel.lower, panel.upper).filter(isNumber).concat([0, 1]),
      label: `${name} of ${nameOf(panel.endpoint)}, observed and simulated` });
    band(on, "band", panel.times, panel.lower, panel.upper);
    line(on, "simulated", panel.times, panel.median);
    line(on, "observed", panel.times, panel.observed);
  }

  function vpc() {
    const to = section("vpc");
    to.append("p").attr("class", "note").text("Blue: 5th, 50th and 95th percentile of the observations; " +
      `orange: medians of ${report.vpc.replicates} simulations, boxes the intervals that hold 95 % of them.`);
    if (report.vpc.events.length > 0) {
      to.append("p").attr("class", "note").text("Events: blue the data (Kaplan and Meier; of events that come again " +
        "the mean number of a subject), orange the median of the simulations, the band the interval that holds 95 % of them.");
      const curves = to.append("div").attr("class", "charts wide");
      report.vpc.events.forEach((panel) => eventPanel(curves, panel));
    }
    if (report.vpc.plain.length === 0) return;
    const tools = to.append("div").attr("class", "tools");
    const place = to.append("div").attr("class", "charts wide");
    let corrected = 0;
    let log = 0;
    const draw = () => {
      place.selectAll("*").remove();
      (corrected ? report.vpc.corrected : report.vpc.plain).forEach((panel) => vpcPanel(place, panel, corrected, log));
    };
    choice(tools, ["plain", "prediction-corrected"], (k) => { corrected = k; draw(); });
    tools.append("span").attr("aria-hidden", true).text("|");
    choice(tools, ["linear", "logarithmic"], (k) => { log = k; draw(); });
    draw();
  }

  // ---- how the numbers came about -----------------------------------------------------------------------

  function iterations() {
    const to = section("iterations");
    const { names, rows: lines } = report.iterations;
    if (lines.length === 0) return to.append("p").text("There were none.");
    to.append("p").attr("class", "note").text("Band: the reported -2 log-likelihood with twice its Monte " +
      "Carlo error. The iterations use other points, and fewer, than the reported value.");
    const charts = to.append("div").attr("class", "charts small");
    const at = lines.map((l) => l[0]);
    names.forEach((name, k) => {
      if (k === 0 || k === 2) return;
      const values = lines.map((l) => l[k]);
      const se = results.minus2ll_mc_se;
      const goal = k === 1 && isNumber(results.minus2ll) ? [results.minus2ll - 2 * se, results.minus2ll + 2 * se] : [];
      const on = chart(charts, { title: k === 1 ? "-2 log-likelihood" : name, x: "iteration", y: "", whole: true, width: 300,
        height: 200, xs: at, ys: values.concat(goal), label: `${name} by iteration` });
      if (goal.length) band(on, "band", on.x.domain(), [goal[0], goal[0]], [goal[1], goal[1]]);
      line(on, "fitted", at, values);
      points(on, lines, (l) => l[0], (l) => l[k], { still: true, size: 16 });
    });
    return undefined;
  }

  function sampler() {
    if (results.subjects.length === 0) return empty("sampler");
    const to = section("sampler");
    const data = results.subjects.map((s, i) => ({ subject: i, position: i + 1, k: s.pareto_k,
      share: 100 * s.ess / (s.points > 0 ? s.points : results.likelihood_samples), bad: s.badly_sampled }));
    const charts = to.append("div").attr("class", "charts");
    const alarming = (d) => d.bad;
    const most = d3.max(data, (d) => d.share) * 1.05;
    scatter(charts, data, (d) => d.position, (d) => d.share, { alarming, title: "Effective samples",
      whole: true, x: "subject, in the order of the data", y: "% of the subject's points", yDomain: [0, most] });
    if (data.some((d) => isNumber(d.k)))
      scatter(charts, data, (d) => d.position, (d) => d.k, { alarming, title: "Pareto k",
        whole: true, x: "subject, in the order of the data", y: "Pareto k", levels: [0.7],
        ys: data.map((d) => d.k).concat([0.75]) });
    const bad = data.filter(alarming);
    to.append("p").attr("class", "note").text("Above 0.7 (dashed) the tail of the weights is so heavy that the " +
      "subject's contribution cannot be trusted. " + (bad.length ? "Poorly sampled: " +
      bad.map((d) => idOf(d.subject)).join(", ") + "." : "No subject is poorly sampled."));
    return undefined;
  }

  function correlation() {
    const to = section("correlation");
    const errors = results.standard_errors;
    if (!errors || !errors.correlation || errors.correlation.length === 0)
      return to.append("p").text("There are no standard errors.");
    const names = errors.names;
    const made = table(to, [""].concat(names), names.map((name, i) =>
      [name].concat(errors.correlation[i].slice(0, i + 1).map((r) => fixedTo(r, 2)))));
    made.classed("matrix", true);
    made.selectAll("tbody tr").each(function (line, i) {
      d3.select(this).selectAll("td").each(function (text, j) {
        const r = j > 0 ? errors.correlation[i][j - 1] : 0;
        if (j === 0 || i === j - 1 || !isNumber(r)) return;
        d3.select(this).style("background-color", r > 0 ? `rgba(213,94,0,${0.75 * r})` : `rgba(0,114,178,${-0.75 * r})`);
      });
    });
    if (isNumber(errors.condition_number))
      to.append("p").attr("class", "note").text(`Condition number ${shown(errors.condition_number)}.`);
    return undefined;
  }

  [verdict, warnings, estimates, model, predictions, residuals, individuals, effects, vpc, iterations, sampler,
    correlation, origin].forEach((draw) => draw());
  window.addEventListener("hashchange", followLink);
  document.addEventListener("keydown", (event) => {
    if (event.key === "Escape" && current >= 0) close();
  });
  followLink();
}());
