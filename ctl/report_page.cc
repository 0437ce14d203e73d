#include "ctl/report_page.h"

#include <string_view>

// The data stands in the page as JSON in which no character can end the element that holds it.  The page's
// script makes elements and sets their text; it never makes markup out of data.  The policy in the head
// forbids everything that is not in the page itself, should that ever fail.

namespace zem::ctl {
namespace {

constexpr std::string_view kHead = R"html(<!doctype html>
<html lang="en"><head><meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'">
<title>zem-tarvik report</title>
<style>
:root { --good: #2e7d32; --bad: #c62828; --warn: #b26a00; --line: #d0d7de; --faint: #6e7781; --bar: #4c8bf5; }
* { box-sizing: border-box; }
body { font: 14px/1.45 system-ui, sans-serif; margin: 0; color: #1f2328; background: #f6f8fa; }
header { background: #1f2933; color: #fff; padding: 14px 24px; }
header h1 { font-size: 18px; margin: 0; } header p { margin: 2px 0 0; color: #c3cbd4; }
main { max-width: 1180px; margin: 0 auto; padding: 8px 24px 40px; }
section { background: #fff; border: 1px solid var(--line); border-radius: 8px; padding: 12px 18px; margin: 14px 0; }
h2 { font-size: 15px; margin: 0 0 8px; } .faint { color: var(--faint); } .bad { color: var(--bad); } .good { color: var(--good); }
.warn { color: var(--warn); } .scroll { overflow-x: auto; }
table { border-collapse: collapse; width: 100%; } th, td { text-align: left; padding: 3px 10px 3px 0; vertical-align: top; }
th { color: var(--faint); font-weight: 500; border-bottom: 1px solid var(--line); } td.number { text-align: right; font-variant-numeric: tabular-nums; }
details { border-top: 1px solid var(--line); padding: 4px 0; } summary { cursor: pointer; overflow-wrap: anywhere; }
.step { display: grid; grid-template-columns: 110px 1fr 90px; gap: 8px; align-items: center; font-size: 12px; padding: 1px 0; }
.step .where { color: var(--faint); overflow: hidden; text-overflow: ellipsis; white-space: nowrap; }
.lane { position: relative; min-height: 18px; background: #f6f8fa; overflow: hidden; }
.lane .bar { position: absolute; top: 2px; bottom: 2px; background: var(--bar); opacity: .35; border-radius: 2px; min-width: 2px; }
.lane .bar.bad { background: var(--bad); } .lane .text { position: relative; padding: 0 4px; overflow-wrap: anywhere; }
.step .took { text-align: right; font-variant-numeric: tabular-nums; } .error { color: var(--bad); overflow-wrap: anywhere; margin: 2px 0 6px; }
svg text { font: 12px system-ui, sans-serif; fill: #1f2328; } svg .small { font-size: 10px; fill: #6e7781; }
</style></head><body>
<header><h1 id="title">zem-tarvik</h1><p id="subtitle"></p></header><main id="main"></main>
<script type="application/json" id="data">)html";

constexpr std::string_view kScript = R"html(</script>
<script>
"use strict";
const data = JSON.parse(document.getElementById("data").textContent);
const main = document.getElementById("main");
const list = value => Array.isArray(value) ? value : [];
const objects = value => list(value).filter(each => each && typeof each === "object");
const text = value => value === undefined || value === null ? "" : String(value);
const number = value => typeof value === "number" && isFinite(value) ? value : 0;
function make(parent, tag, content, kind) {
  const element = document.createElement(tag);
  if (content !== undefined) element.textContent = text(content);
  if (kind) element.className = kind;
  parent.appendChild(element);
  return element;
}
function draw(parent, tag, attributes, content) {
  const element = document.createElementNS("http://www.w3.org/2000/svg", tag);
  for (const name in attributes) element.setAttribute(name, attributes[name]);
  if (content !== undefined) element.textContent = text(content);
  parent.appendChild(element);
  return element;
}
function section(title) {
  const element = make(main, "section");
  make(element, "h2", title);
  return element;
}
function took(us) {
  if (us < 0) return "under way";
  return us >= 1e6 ? (us / 1e6).toFixed(2) + " s" : us >= 1e3 ? (us / 1e3).toFixed(2) + " ms" : us.toFixed(0) + " us";
}
const short = (value, most) => text(value).length > most ? text(value).slice(0, most - 1) + "\u2026" : text(value);
const refused = part => data[part] && data[part].refused;

// ---- What is degraded, and why.
const status = data.status || {};
document.getElementById("title").textContent = "zem-tarvik " + text(status.version) +
  (status.node_id ? " on node " + text(status.node_id) : "");
document.getElementById("subtitle").textContent = "made " + text(data.made);
{
  const part = section("State");
  part.id = "state";
  if (refused("status")) make(part, "p", refused("status"), "faint");
  if (status.state) make(part, "p", status.state, status.state === "healthy" ? "good" : status.state === "degraded" ? "bad" : "warn");
  for (const fault of objects(status.faults)) {
    make(part, "p", text(fault.part) + ": " + text(fault.what), "bad");
    make(part, "p", "since " + text(fault.since) + "; what heals it: " + text(fault.heals));
  }
  if (list(status.well).length) make(part, "p", "well: " + list(status.well).map(text).join(", "), "faint");
}

// ---- The node.
{
  const part = section("Node");
  part.id = "node";
  const switches = objects((data.switches || {}).switches);
  const ports = objects((data.ports || {}).ports);
  const vifs = objects((data.vifs || {}).vifs);
  for (const name of ["switches", "ports", "vifs"]) if (refused(name)) make(part, "p", name + ": " + refused(name), "faint");
  const most = 120, across = 20, step = 26, width = 1100;
  const is = (port, one) => [port.switch, port.switch_id, port.switch_name, port.dvs].some(
    id => id !== undefined && (id === one.id || id === one.name));
  const vifOf = port => text(port.vif || port.vif_id) ||
    text((vifs.find(vif => vif.port !== undefined && (vif.port === port.id || vif.port === port.port)) || {}).vif);
  const nameOf = value => typeof value === "object" && value ? text(value.name || value.device || value.uplink || value.id) : text(value);
  if (switches.length) {
    const svg = draw(part, "svg", {width: "100%", role: "img"});
    let y = 8;
    for (const one of switches) {
      const mine = objects(one.ports).length ? objects(one.ports) : ports.filter(port => is(port, one));
      const uplinks = list(one.uplinks).length ? list(one.uplinks) : list(one.pnics);
      uplinks.forEach((uplink, i) => {
        const down = typeof uplink === "object" && uplink && (uplink.up === false || uplink.state === "down");
        draw(svg, "rect", {x: 30 + i * 170, y: y, width: 156, height: 22, rx: 4, fill: down ? "#fde7e7" : "#e6f4ea", stroke: down ? "#c62828" : "#2e7d32"});
        draw(svg, "text", {x: 38 + i * 170, y: y + 15}, short(nameOf(uplink), 22));
        draw(svg, "line", {x1: 108 + i * 170, y1: y + 22, x2: 108 + i * 170, y2: y + 36, stroke: "#6e7781"});
      });
      y += uplinks.length ? 36 : 0;
      draw(svg, "rect", {x: 10, y: y, width: width - 20, height: 30, rx: 5, fill: "#e8f0fe", stroke: "#4c8bf5"});
      draw(svg, "text", {x: 20, y: y + 20, "font-weight": 600}, short(one.name || one.id, 60));
      draw(svg, "text", {x: width - 20, y: y + 20, "text-anchor": "end", class: "small"},
        mine.length + " ports, " + mine.filter(vifOf).length + " with a VIF" + (one.mtu ? ", MTU " + text(one.mtu) : "") + (list(one.endpoints).length ? ", endpoints " + short(list(one.endpoints).map(nameOf).join(" "), 70) : ""));
      y += 38;
      mine.slice(0, most).forEach((port, i) => {
        const used = vifOf(port), fault = port.pending || port.error;
        const cell = draw(svg, "rect", {x: 20 + (i % across) * (step + 27), y: y + Math.floor(i / across) * step, width: 46, height: 18, rx: 3,
          fill: fault ? "#fde7e7" : used ? "#cfe2ff" : "#f1f3f5", stroke: fault ? "#c62828" : used ? "#4c8bf5" : "#d0d7de"});
        draw(cell, "title", {}, "port " + nameOf(port.id || port.port) + (used ? ", VIF " + used : ", no VIF") + (fault ? ", " + text(fault) : ""));
        if (used) draw(svg, "text", {x: 23 + (i % across) * (step + 27), y: y + 13 + Math.floor(i / across) * step, class: "small"}, short(used, 7));
      });
      y += Math.ceil(Math.min(mine.length, most) / across) * step;
      if (mine.length > most) { draw(svg, "text", {x: 20, y: y + 12, class: "small"}, "and " + (mine.length - most) + " more"); y += 18; }
      y += 16;
    }
    svg.setAttribute("viewBox", "0 0 " + width + " " + y);
  } else if (!refused("switches")) {
    make(part, "p", "The node has no switch.", "faint");
  }
}

// ---- Operations over time, then each as bars.
function timeline(parent, one, open) {
  const details = make(parent, "details");
  details.open = open;
  const summary = make(details, "summary");
  make(summary, "span", one.state, one.state === "failed" ? "bad" : one.state === "done" ? "good" : "warn");
  make(summary, "span", " " + text(one.kind) + " " + text(list(one.keys)[0]) + ", " + text(one.what) + ", " +
    took(number(one.duration_us)) + ", " + text(one.begun) + (one.earlier_life ? ", in an earlier life" : ""));
  if (one.error) make(details, "p", one.error, "error");
  const steps = objects(one.steps);
  const whole = Math.max(1, number(one.duration_us), ...steps.map(s => number(s.start_us) + Math.max(0, number(s.duration_us))));
  for (const each of steps) {
    const row = make(details, "div", undefined, "step");
    make(row, "span", each.thread, "where");
    const lane = make(row, "div", undefined, "lane");
    const bar = make(lane, "div", undefined, each.failed ? "bar bad" : "bar");
    const lasts = each.duration_us < 0 ? whole - number(each.start_us) : number(each.duration_us);
    bar.style.left = Math.max(0, 100 * number(each.start_us) / whole) + "%";
    bar.style.width = 100 * lasts / whole + "%";
    const words = make(lane, "div", text(each.name) + (each.detail ? " " + text(each.detail) : "") +
      (each.result ? " \u2192 " + text(each.result) : ""), each.failed ? "text bad" : "text");
    words.style.paddingLeft = 4 + 12 * number(each.depth) + "px";
    make(row, "span", took(number(each.duration_us)), "took");
  }
  if (one.left_out) make(details, "p", text(one.left_out) + " steps had no room", "faint");
}
{
  const all = objects(data.operations);
  const part = section("Operations");
  part.id = "operations";
  if (all.length) {
    const svg = draw(part, "svg", {width: "100%", viewBox: "0 0 1100 190", role: "img"});
    const times = all.map(one => number(one.begun_us)), first = Math.min(...times), last = Math.max(...times, first + 1);
    const height = us => 160 - 140 * Math.min(1, Math.log10(Math.max(1, us)) / 8);
    for (const [us, name] of [[1, "1 us"], [1e3, "1 ms"], [1e6, "1 s"], [1e8, "100 s"]]) {
      draw(svg, "line", {x1: 60, x2: 1090, y1: height(us), y2: height(us), stroke: "#d0d7de"});
      draw(svg, "text", {x: 54, y: height(us) + 4, "text-anchor": "end", class: "small"}, name);
    }
    for (const one of all) {
      const dot = draw(svg, "circle", {cx: 66 + 1018 * (number(one.begun_us) - first) / (last - first), cy: height(number(one.duration_us)), r: 4,
        fill: one.state === "failed" ? "#c62828" : one.state === "done" ? "#4c8bf5" : "#b26a00", "fill-opacity": .6});
      draw(dot, "title", {}, text(one.kind) + " " + text(list(one.keys)[0]) + ", " + took(number(one.duration_us)) + ", " + text(one.state));
    }
    draw(svg, "text", {x: 60, y: 182, class: "small"}, new Date(first / 1000).toISOString());
    draw(svg, "text", {x: 1090, y: 182, "text-anchor": "end", class: "small"}, new Date(last / 1000).toISOString());
  } else {
    make(part, "p", "The daemon knows of no operation.", "faint");
  }
  const shown = objects(data.timelines);
  const failed = shown.filter(one => one.state === "failed");
  if (failed.length) make(part, "h2", "Failed");
  failed.forEach((one, i) => timeline(part, one, i === 0));
  const others = shown.filter(one => one.state !== "failed");
  if (others.length) make(part, "h2", "Newest others");
  others.forEach(one => timeline(part, one, one.state === "under way"));
}

// ---- Queues and latencies.
function bars(title, id, rows, label, value, shown) {
  const part = section(title);
  part.id = id;
  const sorted = rows.filter(row => value(row) > 0).sort((a, b) => value(b) - value(a)).slice(0, 25);
  if (!sorted.length) return make(part, "p", "nothing to show", "faint");
  const most = value(sorted[0]);
  const svg = draw(part, "svg", {width: "100%", viewBox: "0 0 1100 " + (sorted.length * 22 + 4), role: "img"});
  sorted.forEach((row, i) => {
    draw(svg, "text", {x: 250, y: 16 + i * 22, "text-anchor": "end"}, short(label(row), 38));
    draw(svg, "rect", {x: 258, y: 5 + i * 22, width: Math.max(2, 480 * value(row) / most), height: 14, rx: 2, fill: "#4c8bf5"});
    draw(svg, "text", {x: 1090, y: 16 + i * 22, "text-anchor": "end"}, shown(row));
  });
}
const queues = objects((data.queues || {}).queues);
bars("Queues: longest wait", "queues", queues, row => row.name, row => number(row.longest_wait_us), row => took(number(row.longest_wait_us)) +
  ", " + text(row.depth) + " now, " + text(row.most) + " at most" + (row.dropped ? ", " + text(row.dropped) + " dropped" : ""));
bars("Verticals: latency (p99)", "latencies", objects((data.verticals || {}).verticals), row => row.name, row => number(row.p99_us), row => took(number(row.p99_us)) +
  ", longest " + took(number(row.max_us)) + ", " + text(row.state));
bars("Loops: longest step", "loops", objects((data.tasks || {}).tasks), row => row.name, row => number(row.longest_us),
  row => took(number(row.longest_us)) + (row.longest_step ? ", " + short(row.longest_step, 30) : ""));
document.body.dataset.drawn = "yes";
</script></body></html>
)html";

}  // namespace

std::string ReportPage(const std::string& data) {
  std::string page(kHead);
  page.reserve(kHead.size() + kScript.size() + data.size() + data.size() / 8);
  for (const char c : data) {
    switch (c) {
      case '<':
        page += "\\u003c";
        break;
      case '>':
        page += "\\u003e";
        break;
      case '&':
        page += "\\u0026";
        break;
      default:
        page += c;
    }
  }
  page += kScript;
  return page;
}

}  // namespace zem::ctl
