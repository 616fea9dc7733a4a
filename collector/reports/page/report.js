(function () {
  'use strict';
  var kinds = ['active', 'features', 'versions', 'systems', 'retention', 'adoption'];
  // Charts and tables draw at most this many series; the rest are summed as "other" or left
  // out, so whatever senders send, the page stays as fast as a page of a few dozen series.
  var topSeries = 8, topCategories = 15, topLabels = 10, topVersions = 20;
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

  var dayMs = 86400000;
  function dayText(ms) { return new Date(ms).toISOString().slice(0, 10); }
  function dayMsOf(day) { return Date.parse(day + 'T00:00:00Z'); }
  function shiftDay(day, days) { return dayText(dayMsOf(day) + days * dayMs); }

  // The page's own query: product, version, and either days (7, 30 or 90 ending on until,
  // default today) or since and until; the endpoints get product, version, since, until.
  function wanted() {
    var params = new URLSearchParams(window.location.search), api = new URLSearchParams();
    ['product', 'version', 'since', 'until', 'top'].forEach(function (name) {
      if (params.get(name)) api.set(name, params.get(name));
    });
    var days = parseInt(params.get('days') || '', 10);
    if ([7, 30, 90].indexOf(days) >= 0) {
      var until = params.get('until') || dayText(Date.now());
      api.set('until', until);
      api.set('since', shiftDay(until, 1 - days));
    }
    return { params: params, api: api, days: days };
  }

  function fetchJson(kind, api) {
    return fetch('/api/stats/' + kind + '?' + api.toString()).then(function (r) {
      if (!r.ok) throw new Error(kind + ': HTTP ' + r.status);
      return r.json();
    });
  }

  // The range of the same length that ends the day before this one starts.
  function previousRange(api, days) {
    var previous = new URLSearchParams(api.toString());
    previous.set('until', shiftDay(days[0].day, -1));
    previous.set('since', shiftDay(days[0].day, -days.length));
    return previous;
  }

  function load(query) {
    if (window.usemeterReport) return Promise.resolve(window.usemeterReport);
    return Promise.all(kinds.map(function (kind) { return fetchJson(kind, query.api); })).then(function (parts) {
      var data = { scope: { product: query.params.get('product') || '', version: query.params.get('version') || '' } };
      kinds.forEach(function (kind, i) { data[kind] = parts[i]; });
      return fetchJson('active', previousRange(query.api, data.active.days)).then(function (previous) {
        data.previous = previous;
        return data;
      });
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
    canvas.dataset.series = drawn.data.datasets.map(function (d) { return d.label; }).join('|');
  }

  // Up or down from the previous range, by how much.
  function delta(id, now, before, asShare) {
    var element = document.getElementById('delta-' + id), change = now - before;
    var amount = asShare ? (change >= 0 ? '+' : '') + (100 * change).toFixed(1) + ' points'
                         : (change >= 0 ? '+' : '') + change;
    if (!asShare && before) amount += ' (' + (change >= 0 ? '+' : '') + (100 * change / before).toFixed(1) + '%)';
    element.textContent = (change > 0 ? '\u25b2 ' : change < 0 ? '\u25bc ' : '= ') + amount;
    element.className = 'delta ' + (change > 0 ? 'up' : change < 0 ? 'down' : '');
  }

  function sum(days, key) { return days.reduce(function (n, d) { return n + d[key]; }, 0); }

  function showFigures(data) {
    var days = data.active.days, last = days[days.length - 1];
    var scope = days[0].day + ' to ' + last.day + ' (UTC)';
    if (data.scope.product) scope = data.scope.product + ', ' + scope;
    if (data.scope.version) scope += ', version ' + data.scope.version;
    text('scope', scope);
    text('figure-dau', last.dau);
    text('figure-wau', last.wau);
    text('figure-mau', last.mau);
    text('figure-new', sum(days, 'new'));
    text('figure-share', percent(last.active_share));
    text('figure-stickiness', percent(last.stickiness));
    var newest = data.versions.newest;
    text('figure-newest', newest ? percent(newest.share) + ' (' + newest.version + ')' : '-');
    if (!data.previous) return;
    var before = data.previous.days, end = before[before.length - 1];
    text('previous-range', 'Compared with ' + before[0].day + ' to ' + end.day + '.');
    ['dau', 'wau', 'mau'].forEach(function (key) { delta(key, last[key], end[key], false); });
    delta('new', sum(days, 'new'), sum(before, 'new'), false);
    delta('share', last.active_share, end.active_share, true);
    delta('stickiness', last.stickiness, end.stickiness, true);
  }

  function cell(row, value, className) {
    var c = row.insertCell();
    c.textContent = value;
    if (className) c.className = className;
    return c;
  }

  function header(table, names) {
    var row = table.tHead.insertRow();
    names.forEach(function (name) {
      var th = document.createElement('th');
      th.textContent = name;
      row.appendChild(th);
    });
  }

  // Darker for a larger share; white text on the darkest.
  function shade(c, share) {
    c.style.backgroundColor = 'rgba(31, 119, 180, ' + (0.08 + 0.8 * share).toFixed(3) + ')';
    if (share > 0.55) c.classList.add('dark');
  }

  // Each category's labels beyond the first topLabels (by hits) fold into one line.
  function showFeatureTable(features) {
    var body = document.querySelector('#table-features tbody'), shown = 0, hidden = 0;
    function fold() {
      if (!hidden) return;
      var row = body.insertRow();
      ['', hidden + ' more labels', '', ''].forEach(function (v) { cell(row, v, null); });
      hidden = 0;
    }
    features.forEach(function (f) {
      if (f.label === null) { fold(); shown = 0; }
      else if (++shown > topLabels) { ++hidden; return; }
      var row = body.insertRow();
      if (f.label === null) row.className = 'subtotal';
      [f.category, f.label === null ? '(all)' : f.label, f.hits, f.users].forEach(function (v, i) {
        cell(row, v, i > 1 ? 'number' : null);
      });
    });
    fold();
  }

  // The cohort triangle: a cohort's users back in each later week, shaded by their share.
  function showRetention(cohorts) {
    var table = document.getElementById('table-retention'), body = table.tBodies[0];
    var names = ['cohort (week of first hit)', 'users'];
    cohorts.forEach(function (c, k) { names.push('week ' + k); });
    header(table, names);
    cohorts.forEach(function (c) {
      var row = body.insertRow();
      cell(row, c.week, null);
      cell(row, c.users, 'number');
      c.returning.forEach(function (count) {
        var share = c.users ? count / c.users : 0, td = cell(row, count, 'share');
        td.title = percent(share) + ' of ' + c.users;
        shade(td, share);
      });
    });
  }

  // Versions (newest topVersions, release order) by categories (most users first); a category
  // a version gains or loses against the version before it is outlined.
  function showAdoption(rows) {
    // Maps, not objects: a sender's category may be named like an object's own property.
    var versions = [], categories = new Map(), shares = new Map();
    rows.forEach(function (r) {
      if (versions[versions.length - 1] !== r.version) {
        versions.push(r.version);
        shares.set(r.version, new Map());
      }
      categories.set(r.category, (categories.get(r.category) || 0) + r.users);
      shares.get(r.version).set(r.category, r.share);
    });
    var columns = Array.from(categories.keys()).sort(function (a, b) {
      return categories.get(b) - categories.get(a) || (a < b ? -1 : a > b ? 1 : 0);
    });
    var hiddenColumns = Math.max(0, columns.length - topCategories), hiddenRows = Math.max(0, versions.length - topVersions);
    columns = columns.slice(0, topCategories);
    var table = document.getElementById('table-adoption'), body = table.tBodies[0];
    header(table, ['version'].concat(columns));
    versions.forEach(function (version, v) {
      if (v < hiddenRows) return;
      var row = body.insertRow();
      cell(row, version, null);
      columns.forEach(function (category) {
        var now = shares.get(version).get(category);
        var before = v > 0 ? shares.get(versions[v - 1]).get(category) : undefined;
        if (now === undefined) {
          cell(row, '-', before === undefined ? 'absent' : 'absent gone');
          return;
        }
        var td = cell(row, percent(now), v > 0 && before === undefined ? 'share appeared' : 'share');
        td.dataset.share = now;
        shade(td, now);
      });
    });
    var notes = [];
    if (hiddenRows) notes.push(hiddenRows + ' older versions not shown');
    if (hiddenColumns) notes.push(hiddenColumns + ' less used categories not shown');
    text('adoption-note', notes.join('; '));
  }

  // Series by key in one pass: the topSeries largest totals, the rest summed as "other".
  function topAndOther(rows, keyOf, slotOf, valueOf, slots) {
    var series = new Map();
    rows.forEach(function (r) {
      var key = keyOf(r), s = series.get(key);
      if (!s) series.set(key, s = { label: key, total: 0, data: new Array(slots).fill(0) });
      s.total += valueOf(r);
      s.data[slotOf(r)] += valueOf(r);
    });
    var all = Array.from(series.values()).sort(function (a, b) { return b.total - a.total; });
    var kept = all.slice(0, topSeries);
    if (all.length > topSeries) {
      var other = { label: 'other (' + (all.length - topSeries) + ')', data: new Array(slots).fill(0) };
      all.slice(topSeries).forEach(function (s) { s.data.forEach(function (v, i) { other.data[i] += v; }); });
      kept.push(other);
    }
    return kept.map(function (s) { return { label: s.label, data: s.data }; });
  }

  function indexOf(values) {
    var index = new Map();
    values.forEach(function (v, i) { index.set(v, i); });
    return index;
  }

  function showCharts(data) {
    var days = data.active.days, labels = days.map(function (d) { return d.day; });
    function series(key) { return days.map(function (d) { return d[key]; }); }
    chart('chart-active', { type: 'line', data: { labels: labels, datasets: [
      { label: 'daily', data: series('dau') }, { label: 'weekly', data: series('wau') },
      { label: 'monthly', data: series('mau') }] } });
    chart('chart-stickiness', { type: 'line', options: { scales: { y: { min: 0, max: 1 } } }, data: {
      labels: labels, datasets: [{ label: 'stickiness', data: series('stickiness') }] } });
    chart('chart-new', { type: 'bar', data: { labels: labels, datasets: [
      { label: 'new users', data: series('new') }] } });
    var categories = data.features.features.filter(function (f) { return f.label === null; });
    var shown = categories.slice(0, topCategories);
    chart('chart-features', { type: 'bar', options: { indexAxis: 'y', scales: {
      x: { position: 'bottom', title: { display: true, text: 'hits' } },
      users: { position: 'top', beginAtZero: true, grid: { drawOnChartArea: false },
               title: { display: true, text: 'users' } } } }, data: {
      labels: shown.map(function (f) { return f.category; }), datasets: [
        { label: 'hits', xAxisID: 'x', data: shown.map(function (f) { return f.hits; }) },
        { label: 'users', xAxisID: 'users', data: shown.map(function (f) { return f.users; }) }] } });
    var trend = data.features.trend, weeks = [], weekIndex = new Map();
    trend.forEach(function (t) { if (!weekIndex.has(t.week)) { weekIndex.set(t.week, weeks.length); weeks.push(t.week); } });
    chart('chart-trend', { type: 'line', data: { labels: weeks, datasets: topAndOther(trend,
      function (t) { return t.category; }, function (t) { return weekIndex.get(t.week); },
      function (t) { return t.hits; }, weeks.length) } });
    var dayIndex = indexOf(labels);
    chart('chart-versions', { type: 'line', data: { labels: labels, datasets: topAndOther(data.versions.versions,
      function (v) { return v.version; }, function (v) { return dayIndex.get(v.day); },
      function (v) { return v.users; }, labels.length) } });
    var systems = topAndOther(data.systems.systems, function (s) { return s.system; },
                              function () { return 0; }, function (s) { return s.users; }, 1);
    chart('chart-systems', { type: 'doughnut', options: { maintainAspectRatio: false }, data: {
      labels: systems.map(function (s) { return s.label; }),
      datasets: [{ label: 'users', data: systems.map(function (s) { return s.data[0]; }) }] } });
  }

  // The served page's controls set the query string; the file keeps the range it was written for.
  function showControls(query, data) {
    if (window.usemeterReport) return;
    var days = data.active.days, form = document.getElementById('controls');
    var version = document.getElementById('control-version'), seen = new Set(['']);
    var choices = data.versions.versions.map(function (v) { return v.version; }).concat([data.scope.version]);
    choices.forEach(function (v) {
      if (seen.has(v)) return;
      seen.add(v);
      version.add(new Option(v, v));
    });
    version.value = data.scope.version;
    document.getElementById('control-product').value = data.scope.product;
    document.getElementById('control-range').value = query.days ? String(query.days) :
      (query.params.get('since') || query.params.get('until') ? 'dates' : '30');
    document.getElementById('control-since').value = days[0].day;
    document.getElementById('control-until').value = days[days.length - 1].day;
    form.hidden = false;
    function apply() {
      var params = new URLSearchParams(), range = document.getElementById('control-range').value;
      var product = document.getElementById('control-product').value.trim();
      if (product) params.set('product', product);
      if (version.value) params.set('version', version.value);
      if (range !== 'dates') params.set('days', range);
      else params.set('since', document.getElementById('control-since').value);
      params.set('until', document.getElementById('control-until').value);
      window.location.search = params.toString();
    }
    document.getElementById('control-show').addEventListener('click', apply);
    ['control-version', 'control-range'].forEach(function (id) {
      document.getElementById(id).addEventListener('change', apply);
    });
  }

  var query = wanted();
  load(query).then(function (data) {
    showFigures(data);
    showControls(query, data);
    showRetention(data.retention.cohorts);
    showFeatureTable(data.features.features);
    showAdoption(data.adoption.adoption);
    showCharts(data);
    document.body.dataset.state = problems.length ? 'problems' : 'ready';
  }).catch(function (e) {
    note(e.message);
    document.body.dataset.state = 'failed';
  });
})();
