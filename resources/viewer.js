// The report viewer ("Reports..." in the menu): the program folder's test reports newest first,
// a report's text as the test wrote it with its run's trace plotted, the two files for download,
// and per axis the results of its axis and limit tests over time, with the values that drifted
// from the first report marked. A non-modal panel: the pages stay usable behind it.
(() => {
  'use strict';

  const { token, q, pad, el, button, dateText } = window.tavroCommon;
  const LIST_TIMEOUT_MS = 20000;
  const REPORT_TIMEOUT_MS = 60000;  // a trace may be 32 MiB
  const ROWS_SHOWN = 400;           // list rows drawn at once; "Show more" adds as many again
  const DEFAULT_DRIFT = 25;
  const KIND_TEXT = {
    axis: 'Axis test', zoom: 'Zoom test', limit: 'Limit test', platen: 'Platen test',
  };
  const KIND_SHORT = { axis: 'Axis', zoom: 'Zoom', limit: 'Limit', platen: 'Platen' };
  // How a run ended, as the server read it from the report.
  const OUTCOME_TEXT = {
    completed: 'Completed',
    'manually stopped': 'Manually stopped',
    'voltage limit': 'Voltage limit',
    'limit not registered': 'Limit not registered',
    cancelled: 'Cancelled',
    'platen time-out': 'Platen time-out',
  };
  const outcomeText = (o) => OUTCOME_TEXT[o] || (o ? String(o) : '');
  // The drift threshold's bounds, in percent.
  const DRIFT_MAX = 100000;
  // Each series of a trace: its column in the .csv, label, scale and colour.
  const TRACE_SERIES = [
    { column: 'linear', label: 'Linear', scale: 'pos', stroke: '#2f6fb0' },
    { column: 'rotary', label: 'Rotary', scale: 'pos', stroke: '#2e7d32' },
    { column: 'bias', label: 'Bias', scale: 'bias', stroke: '#c62828' },
    { column: 'limit', label: 'Limit', scale: 'limit', stroke: '#d99a00' },
  ];
  // Each series of the axis history: the field of a /history row, which end of a [min, max] pair
  // (`pair` 0 or 1; none for a single value), label, scale and colour.
  const HISTORY_SERIES = [
    { field: 'startNeg', label: 'Start \u2212', scale: 'v', stroke: '#2f6fb0' },
    { field: 'startPos', label: 'Start +', scale: 'v', stroke: '#c62828' },
    { field: 'movingNeg', pair: 0, label: 'Moving \u2212 min', scale: 'v', stroke: '#5c9bd6' },
    { field: 'movingNeg', pair: 1, label: 'Moving \u2212 max', scale: 'v', stroke: '#1b4f80' },
    { field: 'movingPos', pair: 0, label: 'Moving + min', scale: 'v', stroke: '#e57373' },
    { field: 'movingPos', pair: 1, label: 'Moving + max', scale: 'v', stroke: '#8e1b1b' },
    { field: 'travel', label: 'Travel', scale: 'travel', stroke: '#2e7d32' },
  ];

  let ui = null;  // the panel's parts once it was opened

  // --- The server -----------------------------------------------------------------------------

  const getJson = (path, timeoutMs, signal) => window.tavroCommon.getJson(path,
    { timeoutMs, signal });
  // Why a read failed, as the panel says it.
  const failure = (e) => {
    if (e.status === 404) return 'not found';
    return e.status ? `${e.status} ${e.statusText}` : e.message;
  };

  const fileUrl = (base, ext) => `/report-file?token=${q(token)}&name=${q(base)}&ext=${ext}`;

  // --- Small helpers --------------------------------------------------------------------------

  const str = (v) => (typeof v === 'string' ? v : '');
  const num = (v) => (typeof v === 'number' && Number.isFinite(v) ? v : null);
  const pair = (v) => (Array.isArray(v) && v.length === 2 ? [num(v[0]), num(v[1])] : null);

  // The history's time axis: ticks on whole seconds, minutes, hours, days; labels as precise as
  // the ticks' spacing needs.
  const TIME_STEPS = [1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600,
    43200, 86400, 172800, 604800, 2592000, 7776000, 31536000];
  function timeLabels(u, splits, axisIdx, space, step) {
    return splits.map((v) => {
      const t = dateText(v);
      if (step < 60) return t.slice(11);
      if (step < 86400) return t.slice(5, 16);
      return t.slice(0, 10);
    });
  }

  // A y axis as wide as its longest label (positions run to ten digits with their commas).
  const axisSize = (u, values) => 26
    + 7 * Math.max(3, ...(values || []).map((v) => String(v).length));

  // A uPlot kept to the size of its box.
  function fitPlot(box, make) {
    let legend = 34;
    const size = () => ({
      width: Math.max(200, box.clientWidth),
      height: Math.max(120, box.clientHeight - legend),
    });
    const u = make(size());
    // The legend wraps onto more lines in a narrow box: the plot gives it the room it takes.
    const legendNode = u.root.querySelector('.u-legend');
    if (legendNode) {
      legend = legendNode.offsetHeight + 4;
      u.setSize(size());
    }
    const observer = new ResizeObserver(() => {
      if (legendNode) legend = legendNode.offsetHeight + 4;
      const s = size();
      if (s.width !== u.width || s.height !== u.height) u.setSize(s);
    });
    observer.observe(box);
    const destroy = u.destroy.bind(u);
    u.destroy = () => { observer.disconnect(); destroy(); };
    return u;
  }

  // --- The panel ------------------------------------------------------------------------------

  function build() {
    const panel = el('section', 'viewer-panel');
    panel.id = 'viewer';
    panel.setAttribute('role', 'dialog');
    panel.setAttribute('aria-label', 'Reports');
    panel.tabIndex = -1;
    panel.hidden = true;

    const head = el('header', 'viewer-head');
    const tabs = el('div', 'viewer-tabs');
    tabs.setAttribute('role', 'tablist');
    const tabReports = button('Reports', () => show('reports'));
    const tabHistory = button('Axis history', () => show('history'));
    for (const t of [tabReports, tabHistory]) t.setAttribute('role', 'tab');
    tabs.append(tabReports, tabHistory);
    const refresh = button('Refresh', () => (ui.view === 'reports' ? loadList() : loadHistory()));
    const close = button('\u00d7', () => closeViewer(), 'Close');
    close.className = 'viewer-close';
    head.append(el('span', 'viewer-title', 'Reports'), tabs, el('span', 'viewer-status'), refresh,
      close);

    panel.append(head, buildReports(), buildHistory());
    panel.addEventListener('keydown', (e) => {
      if (e.key !== 'Escape' || e.defaultPrevented) return;
      e.preventDefault();  // not the page's cancel: the shell leaves a handled Escape alone
      closeViewer();
    });
    document.body.appendChild(panel);
    ui = {
      ...ui, panel, tabReports, tabHistory, refresh, status: head.querySelector('.viewer-status'),
      view: 'reports',
    };
    clearDetail('Select a report.');
  }

  function buildReports() {
    const view = el('div', 'viewer-reports');
    view.setAttribute('role', 'tabpanel');
    const side = el('div', 'viewer-side');
    const filters = el('div', 'viewer-filters');
    const kind = document.createElement('select');
    kind.setAttribute('aria-label', 'Test');
    kind.add(new Option('All tests', ''));
    for (const [k, text] of Object.entries(KIND_TEXT)) kind.add(new Option(text, k));
    const axis = document.createElement('select');
    axis.setAttribute('aria-label', 'Axis');
    axis.add(new Option('All axes', ''));
    for (const s of [kind, axis]) s.addEventListener('change', () => drawList());
    filters.append(kind, axis);
    const count = el('div', 'viewer-count');
    const listBox = el('div', 'viewer-list');
    const table = el('table', 'viewer-table');
    const headRow = table.createTHead().insertRow();
    for (const h of ['Test', 'Axis', 'N', 'Date', 'Outcome', '']) {
      headRow.appendChild(el('th', '', h));
    }
    const body = table.createTBody();
    body.setAttribute('role', 'listbox');
    body.setAttribute('aria-label', 'Reports');
    const more = button('Show more', () => { ui.shown += ROWS_SHOWN; drawList(); });
    more.className = 'viewer-more';
    listBox.append(table, more);
    side.append(filters, count, listBox);

    const detail = el('div', 'viewer-detail');
    const info = el('div', 'viewer-info');
    const name = el('span', 'viewer-name');
    const when = el('span', 'viewer-when');
    const dat = el('a', 'viewer-download', 'Download .dat');
    const csv = el('a', 'viewer-download', 'Download .csv');
    const outcome = el('span', 'viewer-badge viewer-outcome');
    const simulated = el('span', 'viewer-badge viewer-simulated', 'Simulated board');
    info.append(name, when, outcome, simulated, dat, csv);
    const problem = el('div', 'viewer-problem');
    problem.setAttribute('role', 'status');
    const travel = el('div', 'viewer-travel');
    const plotBox = el('div', 'viewer-trace');
    const text = el('pre', 'viewer-text');
    text.setAttribute('aria-label', 'Report text');
    text.tabIndex = 0;
    const empty = el('p', 'viewer-empty', 'Select a report.');
    detail.append(info, problem, plotBox, travel, text, empty);
    view.append(side, detail);

    body.addEventListener('keydown', (e) => {
      const rows = [...body.rows];
      const i = rows.indexOf(document.activeElement);
      if (i < 0) return;
      let next = -1;
      if (e.key === 'ArrowDown') next = Math.min(rows.length - 1, i + 1);
      else if (e.key === 'ArrowUp') next = Math.max(0, i - 1);
      else if (e.key === 'Enter' || e.key === ' ') next = i;
      if (next < 0) return;
      e.preventDefault();
      rows[next].focus();
      if (next !== i || e.key !== 'ArrowDown') select(rows[next].dataset.base);
    });
    ui = {
      ...ui, reportsView: view, kind, axis, count, body, more, info, name, when, outcome, simulated,
      dat, csv, problem, travel, scale: {},
      plotBox, text, empty, list: [], truncated: false, shown: ROWS_SHOWN, selected: null,
      trace: null, loadCtl: null,
    };
    return view;
  }

  function buildHistory() {
    const view = el('div', 'viewer-history');
    view.setAttribute('role', 'tabpanel');
    view.hidden = true;
    const bar = el('div', 'viewer-history-bar');
    const axisLabel = el('label', '', 'Axis ');
    const axis = document.createElement('select');
    axis.addEventListener('change', () => drawHistory());
    axisLabel.appendChild(axis);
    const thresholdLabel = el('label', '', 'Drift threshold (%) ');
    const threshold = document.createElement('input');
    threshold.type = 'number';
    threshold.min = '0';
    threshold.max = String(DRIFT_MAX);
    threshold.step = 'any';
    threshold.value = String(DEFAULT_DRIFT);
    threshold.addEventListener('input', () => drawHistory());
    thresholdLabel.appendChild(threshold);
    const thresholdError = el('span', 'viewer-history-error');
    thresholdError.setAttribute('role', 'alert');
    thresholdError.hidden = true;
    threshold.setAttribute('aria-describedby', 'viewer-threshold-error');
    thresholdError.id = 'viewer-threshold-error';
    const note = el('span', 'viewer-history-note',
      'Baseline: the first report that measured each value. Marked: more than the threshold from '
      + 'it. Greyed: runs that measured nothing (cancelled, stopped before moving).');
    bar.append(axisLabel, thresholdLabel, thresholdError, note);
    const plotBox = el('div', 'viewer-history-plot');
    const tableBox = el('div', 'viewer-history-table');
    const empty = el('p', 'viewer-empty', '');
    view.append(bar, plotBox, tableBox, empty);
    ui = { ...ui, historyView: view, hAxis: axis, threshold, thresholdError, hPlotBox: plotBox,
      hTableBox: tableBox, hEmpty: empty, history: null, hPlot: null, lastThreshold: DEFAULT_DRIFT };
    return view;
  }

  function show(view) {
    ui.view = view;
    ui.reportsView.hidden = view !== 'reports';
    ui.historyView.hidden = view !== 'history';
    ui.tabReports.setAttribute('aria-selected', String(view === 'reports'));
    ui.tabHistory.setAttribute('aria-selected', String(view === 'history'));
    if (view === 'history') loadHistory();
  }

  function openViewer() {
    if (!ui || !ui.panel) build();
    const wasHidden = ui.panel.hidden;
    ui.panel.hidden = false;
    if (wasHidden) show(ui.view);
    loadList();
    ui.panel.focus();
  }

  function closeViewer() {
    if (!ui) return;
    ui.panel.hidden = true;
    if (ui.loadCtl) {
      // A report still on its way is dropped, and chosen afresh after reopening.
      const ctl = ui.loadCtl;
      ui.loadCtl = null;
      ctl.abort();
      ui.selected = null;
      clearDetail('Select a report.');
      for (const tr of ui.body.rows) tr.setAttribute('aria-selected', 'false');
    }
  }

  function setStatus(text) { ui.status.textContent = text; }

  // --- Reports --------------------------------------------------------------------------------

  async function loadList() {
    setStatus('Reading the folder\u2026');
    try {
      const answer = await getJson(`/reports?token=${q(token)}`, LIST_TIMEOUT_MS);
      const reports = Array.isArray(answer && answer.reports) ? answer.reports : [];
      ui.list = reports.filter((r) => r && typeof r.base === 'string').map((r) => ({
        base: r.base, kind: str(r.kind), axis: str(r.axis), number: num(r.number),
        hasReport: r.hasReport === true, hasTrace: r.hasTrace === true, modified: num(r.modified),
        outcome: str(r.outcome),
      }));
      ui.truncated = answer.truncated === true;
      ui.scale = answer.countsPerMm && typeof answer.countsPerMm === 'object'
        ? answer.countsPerMm : {};
      setStatus('');
    } catch (e) {
      setStatus(`The list could not be read: ${failure(e)}`);
    }
    const axes = [...new Set(ui.list.map((r) => r.axis).filter(Boolean))].sort();
    const keep = ui.axis.value;
    while (ui.axis.options.length > 1) ui.axis.remove(1);
    for (const a of axes) ui.axis.add(new Option(a, a));
    ui.axis.value = axes.includes(keep) ? keep : '';
    drawList();
  }

  function drawList() {
    const kind = ui.kind.value;
    const axis = ui.axis.value;
    const rows = ui.list.filter((r) => (!kind || r.kind === kind) && (!axis || r.axis === axis));
    ui.body.textContent = '';
    for (const r of rows.slice(0, ui.shown)) {
      const tr = ui.body.insertRow();
      tr.dataset.base = r.base;
      tr.tabIndex = 0;
      tr.setAttribute('role', 'option');
      tr.setAttribute('aria-selected', String(r.base === ui.selected));
      tr.title = r.base;
      tr.insertCell().textContent = KIND_SHORT[r.kind] || r.kind;
      tr.insertCell().textContent = r.axis;
      tr.insertCell().textContent = r.number === null ? '' : String(r.number);
      tr.insertCell().textContent = dateText(r.modified, false);
      const outcome = tr.insertCell();
      outcome.className = 'viewer-outcome';
      outcome.dataset.outcome = r.outcome;
      outcome.textContent = outcomeText(r.outcome);
      const badges = tr.insertCell();
      if (!r.hasReport) badges.appendChild(el('span', 'viewer-badge', 'no .dat'));
      if (!r.hasTrace) badges.appendChild(el('span', 'viewer-badge', 'no .csv'));
      tr.addEventListener('click', () => select(r.base));
    }
    ui.more.hidden = rows.length <= ui.shown;
    ui.count.textContent = `${rows.length} of ${ui.list.length} reports`
      + (ui.truncated ? ' (the folder holds more than can be listed)' : '');
  }

  function clearDetail(message) {
    if (ui.trace) ui.trace.destroy();
    ui.trace = null;
    ui.plotBox.uplot = null;
    ui.plotBox.textContent = '';
    ui.plotBox.hidden = true;
    ui.text.textContent = '';
    ui.text.hidden = true;
    ui.travel.textContent = '';
    ui.travel.hidden = true;
    ui.info.hidden = true;
    ui.problem.textContent = '';
    ui.problem.hidden = true;
    ui.empty.textContent = message;
    ui.empty.hidden = !message;
  }

  async function select(base) {
    const entry = ui.list.find((r) => r.base === base);
    if (!entry) return;
    ui.selected = base;
    for (const tr of ui.body.rows) {
      tr.setAttribute('aria-selected', String(tr.dataset.base === base));
    }
    if (ui.loadCtl) ui.loadCtl.abort();
    const ctl = new AbortController();
    ui.loadCtl = ctl;
    clearDetail('Reading\u2026');
    let report;
    try {
      report = await getJson(`/report?token=${q(token)}&name=${q(base)}`, REPORT_TIMEOUT_MS,
        ctl.signal);
    } catch (e) {
      if (ctl.signal.aborted && ui.loadCtl !== ctl) return;
      clearDetail(e.status === 404 ? `${base} is no longer in the folder.`
        : `${base} could not be read: ${failure(e)}`);
      return;
    }
    if (ui.loadCtl !== ctl) return;
    ui.loadCtl = null;
    showReport(entry, report);
  }

  function showReport(entry, report) {
    clearDetail('');
    ui.info.hidden = false;
    ui.name.textContent = entry.base;
    const axis = entry.axis ? ` ${entry.axis}` : '';
    ui.name.title = `${KIND_TEXT[entry.kind] || entry.kind}${axis} #${entry.number}`;
    ui.when.textContent = dateText(entry.modified);
    ui.outcome.textContent = outcomeText(entry.outcome);
    ui.outcome.dataset.outcome = entry.outcome;
    ui.outcome.hidden = !entry.outcome;
    const files = [[ui.dat, entry.hasReport, 'dat'], [ui.csv, entry.hasTrace, 'csv']];
    for (const [a, has, ext] of files) {
      if (has) {
        a.href = fileUrl(entry.base, ext);
        a.setAttribute('download', `${entry.base}.${ext}`);
        a.removeAttribute('aria-disabled');
      } else {
        a.removeAttribute('href');
        a.setAttribute('aria-disabled', 'true');
      }
    }
    const problems = [];
    if (str(report.problem)) problems.push(`Report problem: ${report.problem}`);
    const trace = report.trace && typeof report.trace === 'object' ? report.trace : null;
    // The trace says when a simulated board made it; a real board's says nothing.
    const board = trace ? str(trace.board) : '';
    ui.simulated.hidden = !board.startsWith('simulated');
    ui.simulated.title = board ? `The trace's board: ${board}` : '';
    if (trace && str(trace.problem)) problems.push(`Trace problem: ${trace.problem}`);
    ui.problem.textContent = problems.join('\n');
    ui.problem.hidden = !problems.length;
    if (trace) plotTrace(trace);
    showTravel(entry, Array.isArray(report.moves) ? report.moves : []);
    ui.text.hidden = false;
    ui.text.textContent = typeof report.text === 'string' ? report.text
      : 'No report (.dat) beside this trace.';
    ui.text.classList.toggle('missing', typeof report.text !== 'string');
  }

  // The moves of the report in mm, worked out here: the report's own text gives whole mm, a dot
  // and the counts left over. The scale is the one of the machine connected now.
  function showTravel(entry, moves) {
    const shown = moves.filter((m) => m && typeof m.what === 'string' && num(m.counts) !== null);
    if (!shown.length) return;
    const perMm = num(ui.scale[entry.axis]);
    const parts = shown.map((m) => (perMm > 0
      ? `${m.what}: ${(m.counts / perMm).toFixed(3).replace('-', '\u2212')} mm`
      : `${m.what}: ${m.counts} counts`));
    const source = perMm > 0
      ? `the report's counts \u00f7 ${perMm} counts per mm of ${entry.axis}, from the machine `
        + 'image of the board connected now'
      : 'in counts: no board is connected to give the counts per mm';
    ui.travel.textContent = `True travel \u2014 ${parts.join(' \u00b7 ')} (${source})`;
    ui.travel.hidden = false;
  }

  // The trace's rows as uPlot's columns: time, then each series of TRACE_SERIES.
  function traceColumns(trace) {
    const names = Array.isArray(trace.columns) ? trace.columns : [];
    const at = ['time', ...TRACE_SERIES.map((s) => s.column)].map((c) => names.indexOf(c));
    const rows = Array.isArray(trace.rows) ? trace.rows : [];
    const data = at.map(() => new Array(rows.length));
    let n = 0;
    for (const row of rows) {
      if (!Array.isArray(row) || at.some((i) => i < 0 || typeof row[i] !== 'number')) continue;
      for (let k = 0; k < at.length; k += 1) data[k][n] = row[at[k]];
      n += 1;
    }
    for (const column of data) column.length = n;
    return data;
  }

  // The spans of time in which the limit byte was not 0: { from, to, value, last } with `last`
  // the index of the span's last row.
  function limitSpans(data) {
    const t = data[0];
    const limit = data[data.length - 1];
    const spans = [];
    for (let i = 0; i < t.length; i += 1) {
      if (limit[i] === 0) continue;
      const span = spans[spans.length - 1];
      if (span && span.last === i - 1 && span.value === limit[i]) {
        span.to = t[i];
        span.last = i;
      } else {
        spans.push({ from: t[i], to: t[i], value: limit[i], last: i });
      }
    }
    // A span reaches on to the next row's time: the byte held until then.
    for (const span of spans) if (span.last + 1 < t.length) span.to = t[span.last + 1];
    return spans;
  }

  function plotTrace(trace) {
    const data = traceColumns(trace);
    ui.plotBox.hidden = false;
    if (!data[0].length) {
      ui.plotBox.appendChild(el('p', 'viewer-empty', 'The trace holds no rows.'));
      return;
    }
    if (typeof uPlot !== 'function') {
      ui.plotBox.appendChild(el('p', 'viewer-empty', 'The plot library did not load.'));
      return;
    }
    const spans = limitSpans(data);
    ui.plotBox.limitSpans = spans.map(({ from, to, value }) => [from, to, value]);
    const shade = (u) => {
      const { ctx } = u;
      const { top, height } = u.bbox;
      ctx.save();
      for (const { from, to, value } of spans) {
        const x0 = u.valToPos(from, 'x', true);
        const x1 = Math.max(x0 + 1, u.valToPos(to, 'x', true));
        ctx.fillStyle = value < 0 ? 'rgba(217, 154, 0, 0.16)' : 'rgba(142, 68, 173, 0.16)';
        ctx.fillRect(x0, top, x1 - x0, height);
        ctx.fillStyle = value < 0 ? '#d99a00' : '#8e44ad';
        ctx.fillRect(x0, top, Math.max(1, devicePixelRatio), height);
      }
      ctx.restore();
    };
    ui.trace = fitPlot(ui.plotBox, (size) => new uPlot({
      ...size,
      scales: { x: { time: false }, limit: { auto: false, range: [-8, 8] } },
      series: [
        { label: 'Time (s)', value: (u, v) => (v == null ? '' : v.toFixed(3)) },
        ...TRACE_SERIES.map(({ label, scale, stroke }) => ({
          label, scale, stroke, width: 1.25, show: scale !== 'limit', points: { show: false },
        })),
      ],
      axes: [
        { label: 'Time (s)', labelSize: 18, size: 34 },
        { scale: 'pos', label: 'Position (counts)', labelSize: 18, size: axisSize },
        {
          scale: 'bias', side: 1, label: 'Bias', labelSize: 18, size: axisSize,
          grid: { show: false },
        },
      ],
      hooks: { drawClear: [shade] },
      legend: { live: true },
    }, data, ui.plotBox));
    ui.plotBox.uplot = ui.trace;
  }

  // --- Axis history ---------------------------------------------------------------------------

  async function loadHistory() {
    setStatus('Reading the reports\u2026');
    try {
      const answer = await getJson(`/history?token=${q(token)}`, LIST_TIMEOUT_MS);
      ui.history = answer && typeof answer.axes === 'object' && answer.axes ? answer.axes : {};
      setStatus('');
    } catch (e) {
      ui.history = {};
      setStatus(`The history could not be read: ${failure(e)}`);
    }
    const axes = Object.keys(ui.history).filter((a) => Array.isArray(ui.history[a])
      && ui.history[a].length).sort();
    const keep = ui.hAxis.value;
    ui.hAxis.textContent = '';
    for (const a of axes) ui.hAxis.add(new Option(a, a));
    if (axes.includes(keep)) ui.hAxis.value = keep;
    drawHistory();
  }

  // Whether a run's value of a series is a measurement: the server names the values a run did
  // not measure (a cancelled direction, a seek stopped by hand).
  const measured = (run, series) => !(Array.isArray(run.unmeasured)
    && run.unmeasured.includes(series.field));
  // A run that measured none of its values: cancelled, stopped before moving, quit.
  const measuredNothing = (run) => HISTORY_SERIES.every((s) => !measured(run, s)
    || (s.pair === undefined ? num(run[s.field]) : pair(run[s.field])) === null);

  // Each series' values over the runs, the baseline of each (its first measured value) and
  // whether each measured value drifted from it by more than `threshold` percent.
  function historyColumns(runs, threshold) {
    const columns = HISTORY_SERIES.map((s) => runs.map((r) => {
      if (s.pair === undefined) return num(r[s.field]);
      const p = pair(r[s.field]);
      return p ? p[s.pair] : null;
    }));
    const counts = HISTORY_SERIES.map((s) => runs.map((r) => measured(r, s)));
    const baseAt = columns.map((values, s) => values.findIndex((v, i) => v !== null
      && counts[s][i]));
    const drift = columns.map((values, s) => values.map((v, i) => {
      const base = values[baseAt[s]];
      if (v === null || !counts[s][i] || baseAt[s] < 0 || i <= baseAt[s]) return false;
      if (base === 0) return v !== 0;
      return (Math.abs(v - base) / Math.abs(base)) * 100 > threshold;
    }));
    return { columns, counts, drift, baseAt };
  }

  // The drift threshold typed in, or why it is not one.
  function readThreshold() {
    const text = ui.threshold.value.trim();
    const t = Number(text);
    if (text === '' || !Number.isFinite(t)) {
      return { error: 'The drift threshold is a number of percent.' };
    }
    if (t < 0 || t > DRIFT_MAX) {
      return { error: `The drift threshold is between 0 and ${DRIFT_MAX} %.` };
    }
    return { value: t };
  }

  // The drift marks (red rings) and the unmeasured points (grey rings), drawn over the plot.
  function historyRings(marks, unmeasured) {
    return (u) => {
      const { ctx } = u;
      const circle = (k, i, v, radius) => {
        if (!u.series[k].show) return;
        const x = u.valToPos(u.data[0][i], 'x', true);
        const y = u.valToPos(v, u.series[k].scale, true);
        ctx.beginPath();
        ctx.arc(x, y, radius * devicePixelRatio, 0, 2 * Math.PI);
        ctx.stroke();
      };
      ctx.save();
      ctx.lineWidth = 2 * devicePixelRatio;
      ctx.strokeStyle = '#c62828';
      for (const [k, i] of marks) circle(k, i, u.data[k][i], 7);
      ctx.strokeStyle = '#9aa3ad';
      for (const [k, i, v] of unmeasured) circle(k, i, v, 4);
      ctx.restore();
    };
  }

  // The history plot: a time axis with a margin, a voltage axis and a travel axis where some
  // shown series needs them.
  function historyOptions(size, shown, rings) {
    const axes = [{ size: 40, space: 90, incrs: TIME_STEPS, values: timeLabels }];
    if (shown.some((s) => HISTORY_SERIES[s].scale === 'v')) {
      axes.push({ scale: 'v', label: 'Voltage', labelSize: 18, size: axisSize });
    }
    if (shown.some((s) => HISTORY_SERIES[s].scale === 'travel')) {
      axes.push({
        scale: 'travel', side: 1, label: 'Travel (counts)', labelSize: 18, size: axisSize,
        grid: { show: false },
      });
    }
    return {
      ...size,
      // A margin on both sides, so that the first and last runs' marks are not cut.
      scales: {
        x: {
          time: true,
          range: (u, min, max) => {
            const margin = Math.max(1, (max - min) * 0.04);
            return [min - margin, max + margin];
          },
        },
      },
      series: [
        { label: 'Date', value: (u, v) => (v == null ? '' : dateText(v)) },
        ...shown.map((s) => {
          const { label, scale, stroke } = HISTORY_SERIES[s];
          // The + direction dashed: the two directions often lie on one another.
          const dash = label.includes('+') ? [6, 4] : undefined;
          return {
            label, scale, stroke, dash, width: 1.5, spanGaps: true, points: { show: true, size: 6 },
          };
        }),
      ],
      axes,
      hooks: { draw: [rings] },
    };
  }

  function drawHistory() {
    if (ui.hPlot) ui.hPlot.destroy();
    ui.hPlot = null;
    ui.hPlotBox.textContent = '';
    ui.hPlotBox.uplot = null;
    ui.hTableBox.textContent = '';
    const axis = ui.hAxis.value;
    const runs = (ui.history && Array.isArray(ui.history[axis]) ? ui.history[axis] : [])
      .filter((r) => r && typeof r === 'object');
    ui.hEmpty.hidden = runs.length > 0;
    ui.hEmpty.textContent = runs.length ? '' : 'No axis or limit test reports in the folder.';
    ui.hPlotBox.hidden = !runs.length;
    if (!runs.length) return;
    // A threshold out of bounds is said beside the field; the marks keep the last good one.
    const read = readThreshold();
    if (read.error === undefined) ui.lastThreshold = read.value;
    ui.thresholdError.textContent = read.error || '';
    ui.thresholdError.hidden = read.error === undefined;
    ui.threshold.setAttribute('aria-invalid', String(read.error !== undefined));
    const threshold = ui.lastThreshold ?? DEFAULT_DRIFT;
    const { columns, counts, drift, baseAt } = historyColumns(runs, threshold);
    drawHistoryTable(runs, { columns, counts, drift, baseAt }, threshold);
    // Only the series some report gives are drawn (a folder of axis tests alone has no travel).
    const shown = HISTORY_SERIES.map((_, s) => s).filter((s) => columns[s].some((v) => v !== null));
    const marks = [];
    shown.forEach((s, k) => drift[s].forEach((f, i) => { if (f) marks.push([k + 1, i]); }));
    ui.hPlotBox.drift = marks.map(([k, i]) => ({
      series: HISTORY_SERIES[shown[k - 1]].label, index: i,
    }));
    if (typeof uPlot !== 'function' || !shown.length) return;
    const times = runs.map((r, i) => num(r.time) ?? i);
    // What a run did not measure is no point of its line: drawn apart, as a grey ring.
    const unmeasured = [];
    shown.forEach((s, k) => columns[s].forEach((v, i) => {
      if (v !== null && !counts[s][i]) unmeasured.push([k + 1, i, v]);
    }));
    ui.hPlotBox.unmeasured = unmeasured.map(([k, i]) => ({
      series: HISTORY_SERIES[shown[k - 1]].label, index: i,
    }));
    const lines = shown.map((s) => columns[s].map((v, i) => (counts[s][i] ? v : null)));
    ui.hPlot = fitPlot(ui.hPlotBox, (size) => new uPlot(
      historyOptions(size, shown, historyRings(marks, unmeasured)), [times, ...lines], ui.hPlotBox));
    ui.hPlotBox.uplot = ui.hPlot;
  }

  function drawHistoryTable(runs, { columns, counts, drift, baseAt }, threshold) {
    const table = el('table', 'viewer-table viewer-history-grid');
    const head = table.createTHead();
    const top = head.insertRow();
    const second = head.insertRow();
    for (const [text, span] of [['Date', 1], ['Report', 1], ['Outcome', 1],
      ['Starting voltage', 2], ['Travel', 1],
      ['Moving voltage \u2212', 2], ['Moving voltage +', 2]]) {
      const th = el('th', '', text);
      if (span > 1) th.colSpan = span;
      else th.rowSpan = 2;
      top.appendChild(th);
    }
    for (const text of ['\u2212', '+', 'min', 'max', 'min', 'max']) {
      second.appendChild(el('th', '', text));
    }
    // Table order: start -, start +, travel, moving - min/max, moving + min/max.
    const order = [0, 1, 6, 2, 3, 4, 5];
    const body = table.createTBody();
    runs.forEach((r, i) => {
      const tr = body.insertRow();
      tr.dataset.base = str(r.base);
      const nothing = measuredNothing(r);
      tr.classList.toggle('unmeasured', nothing);
      if (nothing) tr.title = 'This run measured nothing: it is no baseline and no drift.';
      tr.insertCell().textContent = dateText(num(r.time));
      const name = tr.insertCell();
      const link = button(str(r.base), () => { show('reports'); select(str(r.base)); });
      link.className = 'viewer-link';
      name.appendChild(link);
      if (baseAt.includes(i)) name.appendChild(el('span', 'viewer-badge baseline', 'baseline'));
      const outcome = tr.insertCell();
      outcome.className = 'viewer-outcome';
      outcome.dataset.outcome = str(r.outcome);
      outcome.textContent = outcomeText(str(r.outcome));
      for (const s of order) {
        const td = tr.insertCell();
        const v = columns[s][i];
        td.textContent = v === null ? '' : String(v);
        td.className = 'num';
        td.dataset.series = HISTORY_SERIES[s].label;
        if (v !== null && !counts[s][i]) {
          td.classList.add('unmeasured');
          td.title = 'Not measured: no baseline, no drift';
        } else if (baseAt[s] === i) {
          td.classList.add('base');
          td.title = 'Baseline';
        } else if (drift[s][i]) {
          td.classList.add('drift');
          td.title = `More than ${threshold}% from the baseline ${columns[s][baseAt[s]]}`;
        }
      }
    });
    ui.hTableBox.appendChild(table);
  }

  // --- Start ----------------------------------------------------------------------------------

  function start() {
    const entry = document.getElementById('menu-reports');
    if (entry) entry.addEventListener('click', () => openViewer());
  }

  if (document.readyState === 'loading') document.addEventListener('DOMContentLoaded', start);
  else start();
})();
