// Plots of recorded channels: a click on a value in a page (or the "Plot..." menu entry) opens a
// floating panel that follows the recorder live, pauses, zooms and pans over the full-rate window
// and the history, marks the recorder's events, exports what it shows, and is reopened after a
// reload of the window.
(() => {
  'use strict';

  const { clamp, button, getJson, pad } = window.tavroCommon;
  const recorder = window.tavroRecorder;
  const { nowS, resolutionFor, channelOf } = recorder;
  const STORE_KEY = 'tavro.plots';
  const POLL_MS = 250;
  const MAX_CHANNELS = 8;
  const SPANS = [[60, '1 min'], [600, '10 min'], [3600, '1 h'], [86400, '24 h']];
  const COLORS = ['#2f6fb0', '#c62828', '#2e7d32', '#8e44ad', '#e67e22', '#00838f', '#6d4c41',
    '#ad1457'];
  // By the kind's name as /events gives it.
  const EVENT_COLORS = {
    'link-lost': '#c62828', 'link-back': '#2e7d32', 'estop-on': '#d84315', 'estop-off': '#558b2f',
    sleep: '#6d4c41', 'test-started': '#1565c0', 'test-ended': '#1565c0', answer: '#8e44ad',
  };
  const eventColor = (kind) => EVENT_COLORS[kind] || '#5b6776';
  const CSV_TIMEOUT_MS = 60000;

  const plots = [];                // open plots, the front one last
  let layer = null;
  let zTop = 10;

  // --- Values in the pages --------------------------------------------------------------------

  // Looks at the channel list anew and marks the pages' values by it.
  function loadChannels() {
    return recorder.loadChannels().then(() => {
      for (const frame of document.querySelectorAll('#pages iframe')) markFrame(frame);
    });
  }

  const seenFrames = new WeakSet();

  let reloadTimer = 0;

  function frameLoaded(frame) {
    // A page document loaded again may be another machine's: its channels are looked up anew,
    // once for all the frames that load together.
    if (seenFrames.has(frame)) {
      clearTimeout(reloadTimer);
      reloadTimer = setTimeout(loadChannels, 300);
    } else {
      seenFrames.add(frame);
      markFrame(frame);
    }
  }

  // A control the operator types into or sets is left to do that; its channel is in the menu's
  // list.
  function setsSomething(el) {
    const tag = el.tagName;
    if (tag === 'SELECT' || tag === 'TEXTAREA' || tag === 'BUTTON') return true;
    if (tag !== 'INPUT') return el.isContentEditable;
    return ['range', 'checkbox', 'radio', 'button', 'submit', 'number'].includes(el.type)
      || !el.readOnly;
  }

  const channelAt = (frame, id) => recorder.channelAt(frame.title, id);

  function markFrame(frame) {
    let doc;
    try { doc = frame.contentDocument; } catch { return; }
    if (!doc || !doc.body) return;
    if (!doc.getElementById('plot-marks')) {
      const style = doc.createElement('style');
      style.id = 'plot-marks';
      style.textContent = '[data-plot-channel] { cursor: zoom-in; }';
      (doc.head || doc.body).appendChild(style);
      doc.addEventListener('click', (e) => valueClicked(frame, e));
    }
    for (const el of doc.querySelectorAll('[data-plot-channel]')) {
      if (!channelAt(frame, el.id) || setsSomething(el)) {
        delete el.dataset.plotChannel;
        if (el.title === 'Click to plot') el.removeAttribute('title');
      }
    }
    for (const el of doc.querySelectorAll('[id]')) {
      const c = channelAt(frame, el.id);
      if (!c || setsSomething(el)) continue;
      el.dataset.plotChannel = c.name;
      if (!el.title) el.title = 'Click to plot';
    }
    for (const p of plots) relabel(p);
  }

  function valueClicked(frame, e) {
    const el = e.target && e.target.closest ? e.target.closest('[data-plot-channel]') : null;
    if (!el || e.button !== 0 || setsSomething(el)) return;
    const c = channelAt(frame, el.id);
    if (!c) return;
    const front = plots[plots.length - 1];
    if (front && !e.shiftKey && front.names.length < MAX_CHANNELS) addChannel(front, c.name);
    else openPlot({ channels: [c.name] });
  }

  // The words people read for a channel: its tab and the label its page gives the value
  // ("Stage \u00b7 Linear X"); the channel's id where no page shows it.
  function channelLabel(name) {
    const c = channelOf(name);
    let label = '';
    for (const frame of document.querySelectorAll('#pages iframe')) {
      if (frame.title !== c.page || !c.element) continue;
      let el = null;
      try { el = frame.contentDocument && frame.contentDocument.getElementById(c.element); } catch {
        el = null;
      }
      if (!el) continue;
      label = el.getAttribute('aria-label')
        || (el.labels && el.labels.length ? el.labels[0].textContent.trim() : '');
      if (label) break;
    }
    if (!label) return name;
    return c.page ? `${c.page} \u00b7 ${label}` : label;
  }

  const isFlag = (name) => channelOf(name).kind === 'flag';

  // --- A plot ---------------------------------------------------------------------------------

  function ensureLayer() {
    if (!layer) {
      layer = document.createElement('div');
      layer.id = 'plot-layer';
      layer.className = 'plot-layer';
      document.body.appendChild(layer);
    }
    return layer;
  }

  // Opens a plot of `state.channels` (names); the rest of `state` (span, follow, view, pos) is
  // what a reload kept. Returns the panel element, which carries the plot as `.plot` and the
  // uPlot as `.uplot`.
  function openPlot(state) {
    const names = [...new Set(state.channels.filter((n) => typeof n === 'string'))]
      .slice(0, MAX_CHANNELS);
    if (!names.length) return null;
    const span = SPANS.some(([s]) => s === state.span) ? state.span : 60;
    const view = Array.isArray(state.view) && state.view.length === 2
      && state.view.every(Number.isFinite) && state.view[1] > state.view[0] ? state.view : null;
    const p = {
      names, span,
      follow: state.follow !== false || !view,
      view,
      resolution: null, times: [], cols: [], events: [], loaded: null,
      polls: 0, busy: false, abort: new AbortController(), timer: 0, uplot: null,
      setTo: null, refetchTimer: 0, generation: 0, failedAt: 0, lastPoll: 0, bucket: 0,
    };
    const panel = document.createElement('section');
    panel.className = 'plot-panel';
    panel.setAttribute('role', 'dialog');
    panel.tabIndex = -1;
    p.panel = panel;
    panel.plot = p;
    // What the feed calls; `show` is also the benchmark's, which fills the plot itself.
    p.show = () => showView(p);
    p.rebuild = (resolution) => build(p, resolution);
    p.showProblem = (text) => showProblem(p, text);

    const head = panelParts(p);

    const pos = state.pos || freePlace(plots.length);
    const n = plots.length;
    const width = clamp(Number(pos.width) || 640, 320, Math.max(320, innerWidth - 8));
    const height = clamp(Number(pos.height) || 360, 220, Math.max(220, innerHeight - 8));
    panel.style.width = `${width}px`;
    panel.style.height = `${height}px`;
    // Where the page leaves no room, a new plot goes to the lower right, off the values at the
    // top of the pages.
    const left = 'left' in pos ? Number(pos.left) : innerWidth - width - 16 - 28 * n;
    const top = 'top' in pos ? Number(pos.top) : innerHeight - height - 16 - 28 * n;
    panel.style.left = `${clamp(left || 0, 0, Math.max(0, innerWidth - 120))}px`;
    panel.style.top = `${clamp(top || 0, 0, Math.max(0, innerHeight - 40))}px`;
    ensureLayer().appendChild(panel);
    plots.push(p);
    raise(p);

    panel.addEventListener('mousedown', () => raise(p), true);
    panel.addEventListener('keydown', (e) => {
      // Escape closes the plot, not the page's test behind it.
      if (e.key === 'Escape' && !e.defaultPrevented) {
        e.stopPropagation();
        closePlot(p);
      }
    });
    dragBy(head, panel, () => save());
    p.resize = new ResizeObserver(() => {
      fit(p);
      save();
    });
    p.resize.observe(p.body);

    build(p, p.follow ? resolutionFor(nowS() - span, nowS()) : resolutionFor(...p.view));
    recorder.refetch(p);
    p.timer = setInterval(() => recorder.poll(p), POLL_MS);
    save();
    return panel;
  }

  // A new plot's place where it covers nothing of the page shown: beside what the page holds when
  // there is room for a plot there, else below it; none (the lower right) when the page fills
  // the window. Later plots go a little down and left of the first.
  function freePlace(n) {
    const frame = document.querySelector('#pages iframe.selected');
    let right = 0;
    let bottom = 0;
    let top = 0;
    try {
      const box = frame.getBoundingClientRect();
      top = box.top;
      for (const child of frame.contentDocument.body.children) {
        const r = child.getBoundingClientRect();
        if (!r.width || !r.height) continue;
        right = Math.max(right, box.left + r.right);
        bottom = Math.max(bottom, box.top + r.bottom);
      }
    } catch {
      return {};
    }
    const step = 28 * n;
    const room = { right: innerWidth - right - 24, below: innerHeight - bottom - 24 };
    if (room.right >= 360) {
      return { left: right + 12 + step, top: top + 8 + step, width: Math.min(640, room.right),
        height: Math.min(360, innerHeight - top - 16) };
    }
    if (room.below >= 240) {
      return { left: 12 + step, top: bottom + 12 + step, width: Math.min(640, innerWidth - 24),
        height: Math.min(360, room.below) };
    }
    return {};
  }

  // The panel's head (title, follow, span, exports, close), problem line, body and tip, kept on
  // the plot; returns the head, by which the panel is moved.
  function panelParts(p) {
    const head = document.createElement('header');
    head.className = 'plot-head';
    p.title = document.createElement('span');
    p.title.className = 'plot-title';
    head.appendChild(p.title);
    p.followButton = button('Pause', () => setFollow(p, !p.follow));
    p.spanSelect = document.createElement('select');
    p.spanSelect.setAttribute('aria-label', 'Span');
    for (const [s, text] of SPANS) p.spanSelect.add(new Option(text, String(s)));
    p.spanSelect.value = String(p.span);
    p.spanSelect.addEventListener('change', () => setSpan(p, Number(p.spanSelect.value)));
    p.csv = document.createElement('a');
    p.csv.textContent = 'CSV';
    p.csv.className = 'plot-export';
    p.json = document.createElement('a');
    p.json.textContent = 'JSON';
    p.json.className = 'plot-export';
    for (const a of [p.csv, p.json]) a.addEventListener('click', () => updateExports(p));
    p.csv.addEventListener('click', (e) => {
      e.preventDefault();
      downloadCsv(p);
    });
    const close = button('\u00d7', () => closePlot(p), 'Close');
    close.className = 'plot-close';
    head.append(p.followButton, p.spanSelect, p.csv, p.json, close);
    p.body = document.createElement('div');
    p.body.className = 'plot-body';
    p.problem = document.createElement('div');
    p.problem.className = 'plot-problem';
    p.problem.setAttribute('role', 'status');
    p.problem.hidden = true;
    p.tip = document.createElement('div');
    p.tip.className = 'plot-tip';
    p.tip.hidden = true;
    p.panel.append(head, p.problem, p.body, p.tip);
    return head;
  }

  // 14:03:07.420 local time: the legend's time under the cursor, to the sample.
  function clockText(t) {
    const d = new Date(t * 1000);
    return `${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}.`
      + `${String(d.getMilliseconds()).padStart(3, '0')}`;
  }

  // The time axis's tick labels, 24-hour and as precise as the ticks' spacing needs, with the
  // date under the first tick and under each tick that starts a new day.
  function timeTicks(u, splits, axisIdx, space, incr) {
    let lastDay = null;
    return splits.map((t) => {
      const d = new Date(t * 1000);
      let text = `${pad(d.getHours())}:${pad(d.getMinutes())}`;
      if (incr < 60) text += `:${pad(d.getSeconds())}`;
      if (incr < 1) text += `.${String(d.getMilliseconds()).padStart(3, '0')}`;
      const day = `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())}`;
      if (day !== lastDay) text += `\n${day}`;
      lastDay = day;
      return text;
    });
  }

  function raise(p) {
    const i = plots.indexOf(p);
    if (i >= 0 && i !== plots.length - 1) {
      plots.splice(i, 1);
      plots.push(p);
      save();
    }
    p.panel.style.zIndex = String(++zTop);
  }

  function closePlot(p) {
    const i = plots.indexOf(p);
    if (i < 0) return;
    plots.splice(i, 1);
    clearInterval(p.timer);
    clearTimeout(p.refetchTimer);
    p.abort.abort();
    p.resize.disconnect();
    if (p.uplot) p.uplot.destroy();
    p.panel.remove();
    save();
  }

  function addChannel(p, name) {
    raise(p);
    if (p.names.includes(name) || p.names.length >= MAX_CHANNELS) return;
    p.names.push(name);
    build(p, p.resolution);
    recorder.refetch(p);
    save();
  }

  // Dragging `handle` moves `panel`, kept inside the window.
  function dragBy(handle, panel, done) {
    handle.addEventListener('mousedown', (e) => {
      if (e.button !== 0 || e.target.closest('button, select, a, input')) return;
      e.preventDefault();
      const x0 = e.clientX - panel.offsetLeft;
      const y0 = e.clientY - panel.offsetTop;
      const move = (m) => {
        panel.style.left = `${clamp(m.clientX - x0, 0, Math.max(0, innerWidth - 60))}px`;
        panel.style.top = `${clamp(m.clientY - y0, 0, Math.max(0, innerHeight - 30))}px`;
      };
      const up = () => {
        removeEventListener('mousemove', move);
        removeEventListener('mouseup', up);
        done();
      };
      addEventListener('mousemove', move);
      addEventListener('mouseup', up);
    });
  }

  // One value axis per channel, alternating sides, and one shared axis for the on/off flags;
  // at a second's resolution each channel is a min and a max line with a band between.
  function seriesAndAxes(p, perChannel) {
    const series = [{ label: 'Time', value: (u, v) => (v == null ? '--' : clockText(v)) }];
    const axes = [{ grid: { stroke: '#e3e8ee' }, ticks: { stroke: '#c9d1da' }, values: timeTicks }];
    const scales = { x: { time: true, auto: false } };
    const bands = [];
    const font = '11px "DejaVu Sans", sans-serif';
    // On/off flags are steps on one axis of their own, 0 to 1, whatever the other values' range.
    const steps = uPlot.paths && uPlot.paths.stepped ? uPlot.paths.stepped({ align: 1 }) : undefined;
    if (p.names.some(isFlag)) {
      scales.flag = { auto: false, range: [-0.1, 1.1] };
      axes.push({
        scale: 'flag', side: 1, label: 'On/off', labelSize: 18, size: 40, splits: [0, 1],
        values: (u, splits) => splits.map((v) => (v === 1 ? 'on' : 'off')),
        grid: { show: false }, ticks: { stroke: '#c9d1da' }, labelFont: font, font,
      });
    }
    let valueAxes = 0;
    p.names.forEach((name, i) => {
      const c = channelOf(name);
      const color = COLORS[i % COLORS.length];
      const flag = isFlag(name);
      const key = flag ? 'flag' : `y${i}`;
      const label = withUnit(name, p.labels[i]);
      // Lines break where a channel was not recorded (null); they pass over the rows of other
      // channels' timers (undefined).
      const line = { scale: key, stroke: color, width: flag ? 1.5 : 1, spanGaps: false,
        points: { show: false }, paths: flag ? steps : undefined };
      if (!flag) {
        scales[key] = { auto: true };
        axes.push({
          scale: key, side: valueAxes % 2 ? 1 : 3, label, stroke: color, labelSize: 18, size: 64,
          grid: { show: valueAxes === 0, stroke: '#eef1f4' }, ticks: { stroke: '#c9d1da' },
          labelFont: font, font,
        });
        valueAxes += 1;
      }
      if (perChannel === 1) {
        series.push({ ...line, label });
      } else {
        series.push({ ...line, label: `${label} min` });
        series.push({ ...line, label: `${label} max` });
        bands.push({ series: [series.length - 1, series.length - 2], fill: `${color}33` });
      }
    });
    return { series, axes, scales, bands };
  }

  // Drag zooms the time axis, shift-drag pans it, a double click follows the newest values again.
  function cursorOptions(p) {
    return {
      drag: { x: true, y: false, setScale: true },
      bind: {
        mousedown: (u, targ, handler) => (e) => {
          if (e.shiftKey && e.button === 0) {
            startPan(p, e);
            return null;
          }
          return handler(e);
        },
        dblclick: () => () => { setFollow(p, true); return null; },
      },
    };
  }

  // The series of a resolution: one per channel at full rate, a min and a max a second.
  function build(p, resolution) {
    p.generation += 1;
    p.resolution = resolution;
    const perChannel = resolution === '1s' ? 2 : 1;
    p.times = [];
    p.cols = p.names.flatMap(() => Array.from({ length: perChannel }, () => []));
    p.loaded = null;
    p.labels = p.names.map(channelLabel);
    showTitle(p);

    const { series, axes, scales, bands } = seriesAndAxes(p, perChannel);

    if (p.uplot) p.uplot.destroy();
    const size = plotSize(p, p.names.length * perChannel);
    const opts = {
      ...size, series, axes, scales, bands,
      legend: { live: true },
      cursor: cursorOptions(p),
      hooks: {
        setScale: [(u, key) => { if (key === 'x') scaleChanged(p); }],
        draw: [(u) => drawEvents(p, u)],
        setCursor: [(u) => eventTip(p, u)],
      },
    };
    p.uplot = new uPlot(opts, [p.times, ...p.cols], p.body);
    p.panel.uplot = p.uplot;
    // The id of each channel in a tooltip over its name in the legend.
    const legendRows = p.uplot.root.querySelectorAll('.u-legend .u-series');
    legendRows.forEach((row, k) => {
      if (k > 0) row.title = p.names[Math.floor((k - 1) / perChannel)];
    });
    // Values under the cursor can wrap the legend onto another line: the plot makes room.
    const legend = p.uplot.root.querySelector('.u-legend');
    if (legend) p.resize.observe(legend);
    p.uplot.over.addEventListener('wheel', (e) => wheelPan(p, e), { passive: false });
    p.uplot.over.addEventListener('mouseleave', () => { p.tip.hidden = true; });
    showView(p);
    updateFollowButton(p);
  }

  const withUnit = (name, label) => {
    const { unit } = channelOf(name);
    return unit ? `${label} (${unit})` : label;
  };

  function showTitle(p) {
    p.panel.setAttribute('aria-label', `Plot: ${p.labels[0]}`);
    p.title.textContent = `Plot: ${p.labels.join(', ')}`;
    p.title.title = p.names.join(', ');
  }

  // The labels come from the pages: a plot opened before its page had loaded (after a reload of
  // the window) takes them once it has.
  function relabel(p) {
    const labels = p.names.map(channelLabel);
    if (!p.uplot || labels.every((l, i) => l === p.labels[i])) return;
    p.labels = labels;
    showTitle(p);
    const perChannel = p.resolution === '1s' ? 2 : 1;
    const rows = p.uplot.root.querySelectorAll('.u-legend .u-series');
    p.names.forEach((name, i) => {
      const label = withUnit(name, labels[i]);
      for (let j = 0; j < perChannel; j += 1) {
        const k = 1 + i * perChannel + j;
        const text = perChannel === 1 ? label : `${label} ${j ? 'max' : 'min'}`;
        p.uplot.series[k].label = text;
        const node = rows[k] && rows[k].querySelector('.u-label');
        if (node) node.textContent = text;
      }
      const axis = p.uplot.axes.find((a) => a.scale === `y${i}`);
      if (axis) axis.label = label;
    });
    p.uplot.redraw(false, true);
  }

  function plotSize(p, nSeries) {
    const width = Math.max(200, p.body.clientWidth);
    const legendRows = Math.ceil((nSeries + 1) / 3);
    const height = Math.max(100, p.body.clientHeight - 8 - 22 * legendRows);
    return { width, height };
  }

  function fit(p) {
    if (!p.uplot) return;
    const legend = p.uplot.root.querySelector('.u-legend');
    const width = Math.max(200, p.body.clientWidth);
    const height = Math.max(100, p.body.clientHeight - (legend ? legend.offsetHeight : 0) - 8);
    if (width !== p.uplot.width || height !== p.uplot.height) p.uplot.setSize({ width, height });
  }

  // What the plot shows: what it holds, except that while the recorder's past is shorter than
  // the span, following shows from its first sample (at least 10 s) instead of empty time.
  function viewRange(p) {
    const [from, to] = recorder.wanted(p);
    if (!p.follow || !p.times.length || p.times[0] <= from) return [from, to];
    return [Math.min(p.times[0], to - Math.min(p.span, 10)), to];
  }

  function showProblem(p, text) {
    if (p.problem.textContent === text) return;
    p.problem.textContent = text;
    p.problem.hidden = !text;
  }

  // --- The view -------------------------------------------------------------------------------

  function showView(p) {
    const u = p.uplot;
    if (!u) return;
    const [min, max] = viewRange(p);
    u.setData(shownData(p, min, max), false);
    setX(p, min, max);
    updateExports(p);
  }

  // What uPlot draws. At full rate, the rows as read. Of the history (up to a day of seconds),
  // at most about two buckets a pixel of the view: each bucket's first time, the least of its
  // minima and the greatest of its maxima, so that a band over hours is not drawn a second at a
  // time. Buckets fall on whole multiples of their length, so a pan does not move them.
  function shownData(p, min, max) {
    if (p.resolution !== '1s') return withGaps(p.times, p.cols, gapLimits(p, 0));
    const pixels = Math.max(200, p.uplot ? p.uplot.bbox.width / devicePixelRatio : 1000);
    const size = (max - min) / (2 * pixels);
    p.bucket = size;
    if (size < 2) return withGaps(p.times, p.cols, gapLimits(p, 0));
    const times = [];
    const cols = p.cols.map(() => []);
    let bucket = null;
    for (let i = 0; i < p.times.length; i += 1) {
      const b = Math.floor(p.times[i] / size);
      if (b !== bucket) {
        bucket = b;
        times.push(p.times[i]);
        for (const c of cols) c.push(null);
      }
      const at = times.length - 1;
      for (let k = 0; k < cols.length; k += 1) {
        const v = p.cols[k][i];
        if (v === null) continue;
        const held = cols[k][at];
        // Columns go minimum, maximum for each channel.
        cols[k][at] = held === null ? v : k % 2 ? Math.max(held, v) : Math.min(held, v);
      }
    }
    return withGaps(times, cols, gapLimits(p, size));
  }

  // How long each column may go without a value before its line breaks: a few of its channel's
  // periods (of seconds in the history, or of the buckets it is drawn in). The recorder gives a
  // tick no value while the page is not read (another tab, the board lost), and keeps no tick at
  // all while nothing runs.
  function gapLimits(p, bucket) {
    const perChannel = p.resolution === '1s' ? 2 : 1;
    return p.names.flatMap((name) => {
      const rate = Math.max(0.001, (channelOf(name).rate_ms || 1000) / 1000);
      const period = p.resolution === '1s' ? Math.max(1, rate) : rate;
      return Array(perChannel).fill(Math.max(3 * period, period + 0.5, 2.5 * bucket));
    });
  }

  // The columns as uPlot draws them: a row without a value of a column is passed over
  // (undefined), and where the column went longer than its limit without one, a row between
  // holds null, which breaks its line.
  function withGaps(times, cols, limits) {
    const outTimes = [];
    const out = cols.map(() => []);
    const last = cols.map(() => null);
    const has = (v) => v !== null && v !== undefined;
    for (let i = 0; i < times.length; i += 1) {
      const t = times[i];
      const broken = cols.map((c, k) => has(c[i]) && last[k] !== null && t - last[k] > limits[k]);
      if (broken.some(Boolean)) {
        outTimes.push((times[i - 1] + t) / 2);
        for (let k = 0; k < cols.length; k += 1) out[k].push(broken[k] ? null : undefined);
      }
      outTimes.push(t);
      for (let k = 0; k < cols.length; k += 1) {
        const v = cols[k][i];
        out[k].push(has(v) ? v : undefined);
        if (has(v)) last[k] = t;
      }
    }
    return [outTimes, ...out];
  }

  // uPlot tells of a new scale later, in a batch: a scale the plot set itself is known by its
  // bounds.
  function setX(p, min, max) {
    p.setTo = [min, max];
    p.uplot.setScale('x', { min, max });
  }

  // A zoom by the operator (a drag on the plot) stops following at what it shows.
  function scaleChanged(p) {
    const { min, max } = p.uplot.scales.x;
    if (min === null || max === null) return;
    updateExports(p);
    if (p.setTo && Math.abs(min - p.setTo[0]) < 1e-6 && Math.abs(max - p.setTo[1]) < 1e-6) return;
    p.follow = false;
    p.view = [min, max];
    updateFollowButton(p);
    updateExports(p);
    viewMoved(p);
  }

  function setView(p, min, max) {
    p.follow = false;
    p.view = [min, max];
    setX(p, min, max);
    updateFollowButton(p);
    updateExports(p);
    viewMoved(p);
  }

  // Once the view has rested, reads it when the plot does not hold it in the resolution it needs.
  function viewMoved(p) {
    clearTimeout(p.refetchTimer);
    p.refetchTimer = setTimeout(() => {
      if (p.follow || !p.view) return;
      const [min, max] = p.view;
      const held = p.loaded && p.loaded[0] <= min + 0.5 && p.loaded[1] >= max - 0.5;
      if (!held || resolutionFor(min, max) !== p.resolution) recorder.refetch(p);
      else if (p.resolution === '1s') {
        // A zoom in or out of the history buckets it anew for the view's width.
        const size = (max - min) / (2 * Math.max(200, p.uplot.bbox.width / devicePixelRatio));
        if (!p.bucket || size / p.bucket > 1.5 || p.bucket / size > 1.5) showView(p);
      }
      save();
    }, 200);
  }

  function startPan(p, e) {
    const u = p.uplot;
    const x0 = e.clientX;
    const { min, max } = u.scales.x;
    const width = u.over.clientWidth || 1;
    const move = (m) => {
      const dx = ((m.clientX - x0) / width) * (max - min);
      setView(p, min - dx, max - dx);
    };
    const up = () => {
      removeEventListener('mousemove', move);
      removeEventListener('mouseup', up);
    };
    addEventListener('mousemove', move);
    addEventListener('mouseup', up);
  }

  function wheelPan(p, e) {
    e.preventDefault();
    const { min, max } = p.uplot.scales.x;
    if (min === null || max === null) return;
    const delta = Math.abs(e.deltaX) > Math.abs(e.deltaY) ? e.deltaX : e.deltaY;
    const dx = clamp(delta / 1000, -0.5, 0.5) * (max - min);
    setView(p, min + dx, max + dx);
  }

  function setFollow(p, follow) {
    if (follow === p.follow) return;
    p.follow = follow;
    if (follow) {
      p.view = null;
      recorder.refetch(p);
    } else {
      const { min, max } = p.uplot.scales.x;
      p.view = [min, max];
    }
    updateFollowButton(p);
    save();
  }

  function setSpan(p, span) {
    p.span = span;
    if (!p.follow && p.view) p.view = [p.view[1] - span, p.view[1]];
    recorder.refetch(p);
    save();
  }

  function updateFollowButton(p) {
    p.followButton.textContent = p.follow ? 'Pause' : 'Follow';
    p.followButton.title = p.follow ? 'Stop following the present' : 'Follow the present';
    p.spanSelect.value = String(p.span);
  }

  // The export links name the plot's channels over what the plot shows.
  function updateExports(p) {
    const u = p.uplot;
    if (!u || u.scales.x.min === null) return;
    const { min, max } = u.scales.x;
    const resolution = resolutionFor(min, max);
    for (const [a, format] of [[p.csv, 'csv'], [p.json, 'json']]) {
      a.href = recorder.exportUrl(p.names, min, max, format, resolution);
      a.download = exportName(p, min, format);
    }
  }

  // "plot-status.LinearPosition.X+status.Moving.X-2026-11-25T21-40-03.csv": what the file holds
  // and from when.
  function exportName(p, min, format) {
    const stamp = new Date(min * 1000).toISOString().replace(/[:.]/g, '-').slice(0, 19);
    let channels = p.names.join('+');
    if (channels.length > 160) channels = `${channels.slice(0, 150)}+${p.names.length}-channels`;
    return `plot-${channels}-${stamp}.${format}`;
  }

  // The CSV of what the plot shows: the recorder's rows with the time also as ISO 8601 (UTC)
  // beside its seconds, saved under the channels' names.
  async function downloadCsv(p) {
    const u = p.uplot;
    if (!u || u.scales.x.min === null) return;
    const { min, max } = u.scales.x;
    const url = recorder.exportUrl(p.names, min, max, 'json', resolutionFor(min, max));
    let answer;
    try {
      answer = await getJson(url, { timeoutMs: CSV_TIMEOUT_MS, signal: p.abort.signal });
    } catch (e) {
      showProblem(p, `The CSV could not be made: ${e.message}`);
      return;
    }
    const columns = Array.isArray(answer && answer.columns) ? answer.columns : [];
    const rows = Array.isArray(answer && answer.rows) ? answer.rows : [];
    const lines = [['time', 'time_iso', ...columns.slice(1)].join(',')];
    for (const row of rows) {
      if (!Array.isArray(row) || typeof row[0] !== 'number') continue;
      const cells = row.slice(1).map((v) => (typeof v === 'number' ? String(v) : ''));
      lines.push([String(row[0]), new Date(Math.round(row[0] * 1000)).toISOString(), ...cells].join(','));
    }
    const blob = new Blob([`${lines.join('\n')}\n`], { type: 'text/csv' });
    const link = document.createElement('a');
    link.href = URL.createObjectURL(blob);
    link.download = exportName(p, min, 'csv');
    document.body.appendChild(link);
    link.click();
    link.remove();
    setTimeout(() => URL.revokeObjectURL(link.href), CSV_TIMEOUT_MS);
  }

  // Event marks: a line across the plot at each event's time, its kind and text on hover.
  function drawEvents(p, u) {
    if (!p.events.length) return;
    const { min, max } = u.scales.x;
    const ctx = u.ctx;
    const { top, height } = u.bbox;
    ctx.save();
    ctx.lineWidth = Math.max(1, devicePixelRatio);
    ctx.setLineDash([4 * devicePixelRatio, 3 * devicePixelRatio]);
    for (const e of p.events) {
      if (e.time < min || e.time > max) continue;
      const x = Math.round(u.valToPos(e.time, 'x', true)) + 0.5;
      ctx.strokeStyle = eventColor(e.kind);
      ctx.beginPath();
      ctx.moveTo(x, top);
      ctx.lineTo(x, top + height);
      ctx.stroke();
      ctx.fillStyle = ctx.strokeStyle;
      ctx.fillRect(x - 3 * devicePixelRatio, top, 6 * devicePixelRatio, 6 * devicePixelRatio);
    }
    ctx.restore();
  }

  function eventTip(p, u) {
    const left = u.cursor.left;
    if (left === undefined || left < 0 || !p.events.length) {
      p.tip.hidden = true;
      return;
    }
    let near = null;
    for (const e of p.events) {
      const x = u.valToPos(e.time, 'x');
      if (Math.abs(x - left) <= 4) near = e;
    }
    if (!near) {
      p.tip.hidden = true;
      return;
    }
    p.tip.textContent = near.text ? `${near.kind}: ${near.text}` : near.kind;
    const over = u.over.getBoundingClientRect();
    const panel = p.panel.getBoundingClientRect();
    p.tip.style.left = `${over.left - panel.left + left + 8}px`;
    p.tip.style.top = `${over.top - panel.top + 4}px`;
    p.tip.hidden = false;
  }

  // --- Kept across a reload -------------------------------------------------------------------

  function save() {
    try {
      sessionStorage.setItem(STORE_KEY, JSON.stringify(plots.map((p) => ({
        channels: p.names,
        span: p.span,
        follow: p.follow,
        view: p.follow ? null : p.view,
        pos: {
          left: p.panel.offsetLeft, top: p.panel.offsetTop,
          width: p.panel.offsetWidth, height: p.panel.offsetHeight,
        },
      }))));
    } catch { /* storage full or off: the plots just do not come back */ }
  }

  function restore() {
    let kept = [];
    try { kept = JSON.parse(sessionStorage.getItem(STORE_KEY) || '[]'); } catch { kept = []; }
    if (!Array.isArray(kept)) return;
    for (const s of kept.slice(0, 16)) {
      if (s && Array.isArray(s.channels)) openPlot(s);
    }
  }

  // --- Start ----------------------------------------------------------------------------------

  function start() {
    const pages = document.getElementById('pages');
    if (pages) {
      pages.addEventListener('load', (e) => {
        if (e.target && e.target.tagName === 'IFRAME') frameLoaded(e.target);
      }, true);
      for (const frame of pages.querySelectorAll('iframe')) {
        if (frame.contentDocument && frame.contentDocument.readyState === 'complete') {
          frameLoaded(frame);
        }
      }
    }
    loadChannels().then(restore);
  }

  // What the channel picker (plot-picker.js), the tests and the benchmark reach: the open plots'
  // panels, a way to open one, and the parts a panel of the plots' layer is made with.
  window.tavroPlots = {
    open: (names, state = {}) => openPlot({ ...state, channels: names }),
    panels: () => plots.map((p) => p.panel),
    channels: recorder.channels,
    channelLabel,
    layer: ensureLayer,
    raise: () => ++zTop,
    dragBy,
  };

  start();
})();
