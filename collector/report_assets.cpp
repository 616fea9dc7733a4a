// The page's template, style and script. The served page links the scripts (its security
// policy allows only the collector's own); the file has them inlined.
#include "report_assets.hpp"

namespace usemeter_collector {

const char* const report_template = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
@POLICY@
<title>Feature use report</title>
@STYLE@
</head>
<body data-state="loading">
<header>
<h1>Feature use report</h1>
<p id="scope"></p>
</header>
<section class="figures">
<div><span class="figure" id="figure-dau"></span>daily active users</div>
<div><span class="figure" id="figure-wau"></span>weekly active users</div>
<div><span class="figure" id="figure-mau"></span>monthly active users</div>
<div><span class="figure" id="figure-new"></span>new users in the range</div>
<div><span class="figure" id="figure-share"></span>active-user share</div>
<div><span class="figure" id="figure-newest"></span>on the newest version</div>
</section>
<section><h2>Active users per day</h2><canvas id="chart-active"></canvas></section>
<section><h2>New users per day</h2><canvas id="chart-new"></canvas></section>
<section><h2>Features (hits and users per category)</h2><canvas id="chart-features"></canvas>
<table id="table-features"><thead><tr><th>category</th><th>label</th><th>hits</th><th>users</th></tr></thead><tbody></tbody></table></section>
<section><h2>Weekly trend (hits per category and week)</h2><canvas id="chart-trend"></canvas></section>
<section><h2>Version adoption (users per day)</h2><canvas id="chart-versions"></canvas></section>
<section><h2>Systems (users)</h2><canvas id="chart-systems"></canvas></section>
<footer id="status"></footer>
@SCRIPTS@
</body>
</html>
)html";

const char* const report_style = R"css(
body { font-family: sans-serif; margin: 1.5em auto; max-width: 70em; color: #222; }
header p { color: #555; }
section { margin: 2em 0; }
canvas { max-height: 22em; }
.figures { display: flex; flex-wrap: wrap; gap: 1em; }
.figures div { border: 1px solid #ccc; border-radius: 6px; padding: 0.6em 1em; min-width: 9em; }
.figure { display: block; font-size: 1.8em; font-weight: bold; }
table { border-collapse: collapse; margin-top: 1em; }
th, td { padding: 0.2em 0.8em; text-align: left; border-bottom: 1px solid #eee; }
td.number { text-align: right; }
tr.subtotal td { font-weight: bold; }
footer { color: #a00; }
)css";

const char* const report_script = R"js(
(function () {
  'use strict';
  var kinds = ['active', 'features', 'versions', 'systems'];
  var problems = [];
  function note(problem) {
    problems.push(String(problem));
    document.body.dataset.problems = problems.join(' | ');
    document.getElementById('status').textContent = problems.join('; ');
  }
  window.addEventListener('error', function (e) { note(e.message); });
  document.addEventListener('securitypolicyviolation', function (e) {
    note('blocked by the security policy: ' + e.violatedDirective + ' ' + e.blockedURI);
  });

  function load() {
    if (window.usemeterReport) return Promise.resolve(window.usemeterReport);
    var query = window.location.search;
    return Promise.all(kinds.map(function (kind) {
      return fetch('/api/stats/' + kind + query).then(function (r) {
        if (!r.ok) throw new Error(kind + ': HTTP ' + r.status);
        return r.json();
      });
    })).then(function (parts) {
      var params = new URLSearchParams(query);
      return { scope: { product: params.get('product') || '', version: params.get('version') || '' },
               active: parts[0], features: parts[1], versions: parts[2], systems: parts[3] };
    });
  }

  function text(id, value) { document.getElementById(id).textContent = value; }
  function percent(share) { return (100 * share).toFixed(1) + '%'; }

  var palette = ['#1f77b4', '#ff7f0e', '#2ca02c', '#d62728', '#9467bd', '#8c564b', '#e377c2',
                 '#7f7f7f', '#bcbd22', '#17becf'];
  function paint(config) {
    var round = config.type === 'doughnut';
    config.data.datasets.forEach(function (d, i) {
      d.backgroundColor = round ? palette.slice(0, d.data.length) : palette[i % palette.length];
      d.borderColor = round ? '#fff' : palette[i % palette.length];
    });
  }

  // Drawn synchronously (no animation) and marked, so a reader of the DOM knows it happened.
  function chart(id, config) {
    var canvas = document.getElementById(id);
    paint(config);
    config.options = Object.assign({ animation: false, responsive: true }, config.options || {});
    var drawn = new Chart(canvas, config);
    var points = drawn.data.datasets.reduce(function (n, d) { return n + d.data.length; }, 0);
    var pixels = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
    var painted = false;
    for (var i = 3; i < pixels.length && !painted; i += 4) painted = pixels[i] !== 0;
    canvas.dataset.points = points;
    canvas.dataset.painted = painted ? 'yes' : 'no';
  }

  // The newest version is the last in the versions report's order; its share is of the
  // last day's active users.
  function newestShare(days, versions) {
    var last = days[days.length - 1];
    var rows = versions.filter(function (v) { return v.day === last.day; });
    if (!rows.length || !last.dau) return 0;
    return rows[rows.length - 1].users / last.dau;
  }

  function showFigures(data) {
    var days = data.active.days, last = days[days.length - 1];
    var scope = days[0].day + ' to ' + last.day + ' (UTC)';
    if (data.scope.product) scope = data.scope.product + ', ' + scope;
    if (data.scope.version) scope += ', version ' + data.scope.version;
    text('scope', scope);
    text('figure-dau', last.dau);
    text('figure-wau', last.wau);
    text('figure-mau', last.mau);
    text('figure-new', days.reduce(function (n, d) { return n + d.new; }, 0));
    text('figure-share', percent(last.active_share));
    text('figure-newest', percent(newestShare(days, data.versions.versions)));
  }

  function showFeatureTable(features) {
    var body = document.querySelector('#table-features tbody');
    features.forEach(function (f) {
      var row = body.insertRow();
      if (f.label === null) row.className = 'subtotal';
      [f.category, f.label === null ? '(all)' : f.label, f.hits, f.users].forEach(function (v, i) {
        var cell = row.insertCell();
        cell.textContent = v;
        if (i > 1) cell.className = 'number';
      });
    });
  }

  function showCharts(data) {
    var days = data.active.days, labels = days.map(function (d) { return d.day; });
    function series(key) { return days.map(function (d) { return d[key]; }); }
    chart('chart-active', { type: 'line', data: { labels: labels, datasets: [
      { label: 'daily', data: series('dau') }, { label: 'weekly', data: series('wau') },
      { label: 'monthly', data: series('mau') }] } });
    chart('chart-new', { type: 'bar', data: { labels: labels, datasets: [
      { label: 'new users', data: series('new') }] } });
    var categories = data.features.features.filter(function (f) { return f.label === null; });
    chart('chart-features', { type: 'bar', options: { indexAxis: 'y' }, data: {
      labels: categories.map(function (f) { return f.category; }), datasets: [
        { label: 'hits', data: categories.map(function (f) { return f.hits; }) },
        { label: 'users', data: categories.map(function (f) { return f.users; }) }] } });
    var trend = data.features.trend, weeks = [];
    trend.forEach(function (t) { if (weeks.indexOf(t.week) < 0) weeks.push(t.week); });
    chart('chart-trend', { type: 'line', data: { labels: weeks, datasets: categories.map(function (f) {
      return { label: f.category, data: trend.filter(function (t) { return t.category === f.category; })
        .map(function (t) { return t.hits; }) };
    }) } });
    var versions = [];
    data.versions.versions.forEach(function (v) {
      if (versions.indexOf(v.version) < 0) versions.push(v.version);
    });
    chart('chart-versions', { type: 'line', data: { labels: labels, datasets: versions.map(function (version) {
      return { label: version, data: labels.map(function (day) {
        var row = data.versions.versions.find(function (v) { return v.day === day && v.version === version; });
        return row ? row.users : 0;
      }) };
    }) } });
    var systems = data.systems.systems;
    chart('chart-systems', { type: 'doughnut', options: { maintainAspectRatio: false }, data: {
      labels: systems.map(function (s) { return s.system; }),
      datasets: [{ label: 'users', data: systems.map(function (s) { return s.users; }) }] } });
  }

  load().then(function (data) {
    showFigures(data);
    showFeatureTable(data.features.features);
    showCharts(data);
    document.body.dataset.state = problems.length ? 'problems' : 'ready';
  }).catch(function (e) {
    note(e.message);
    document.body.dataset.state = 'failed';
  });
})();
)js";

}  // namespace usemeter_collector
