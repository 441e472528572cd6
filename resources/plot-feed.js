// The plots' recorder client: the channel list, the export addresses, and a plot's feed of rows
// and event marks from /export and /events, read whole for a new window and after that only what
// came since the last row. The panels (plot.js) draw what a feed holds; a feed tells its panel
// through three calls on the plot: `rebuild(resolution)` when the resolution changes, `show()`
// when new rows are in, `showProblem(text)` when a read failed ('' once one works again).
(() => {
  'use strict';

  const { token, q, getJson } = window.tavroCommon;
  const EVENTS_EVERY = 4;          // polls between looks at the event marks
  const FULL_RATE_S = 600;         // how far back the recorder keeps every tick
  const OVERLAP_S = 1;             // re-read at each poll: a slower timer's tick may land late
  const MAX_POINTS = 100000;       // rows kept per plot: 24 h of seconds, 10 min of 20 ms ticks
  const MAX_EVENTS = 2000;
  const FETCH_TIMEOUT_MS = 15000;
  const RETRY_MS = 3000;

  let channels = [];               // as /channels lists them
  let byName = new Map();
  let byPageElement = new Map();   // "page\0element" -> channel
  let byElement = new Map();       // element -> [channels], for a frame titled otherwise
  let channelsLoaded = null;       // the promise of the current /channels look

  const nowS = () => Date.now() / 1000;
  const ask = (path, signal) => getJson(path, { timeoutMs: FETCH_TIMEOUT_MS, signal });
  // Times go out to the millisecond, `from` rounded down and `to` up, so that a sample at the
  // edge is in the answer: the plot replaces what it holds from `from` on with it.
  const floorMs = (t) => Math.floor(t * 1000) / 1000;
  const ceilMs = (t) => Math.ceil(t * 1000) / 1000;
  const timeText = (t) => t.toFixed(3);
  const resolutionFor = (from, to) => (to - from <= FULL_RATE_S + 1
    && from >= nowS() - FULL_RATE_S - 5 ? 'full' : '1s');

  function exportUrl(names, from, to, format, resolution) {
    return `/export?token=${q(token)}&channels=${names.map(q).join(',')}`
      + `&from=${timeText(floorMs(from))}${to === undefined ? '' : `&to=${timeText(ceilMs(to))}`}`
      + `&format=${format}&resolution=${resolution}`;
  }

  // --- The channels ---------------------------------------------------------------------------

  // Looks at /channels anew; resolves once the list is in (or could not be had).
  function loadChannels() {
    channelsLoaded = ask(`/channels?token=${q(token)}`).then((list) => {
      if (!Array.isArray(list)) return;
      channels = list.filter((c) => c && typeof c.name === 'string');
      byName = new Map(channels.map((c) => [c.name, c]));
      byPageElement = new Map();
      byElement = new Map();
      for (const c of channels) {
        if (!c.element) continue;
        byPageElement.set(`${c.page}\0${c.element}`, c);
        if (!byElement.has(c.element)) byElement.set(c.element, []);
        byElement.get(c.element).push(c);
      }
    }).catch(() => {});
    return channelsLoaded;
  }

  function channelOf(name) {
    return byName.get(name) || { name, unit: '', rate_ms: 0, page: '', element: '' };
  }

  // The channel that element `id` of the page titled `page` shows; an element of another title
  // when only one page has it.
  function channelAt(page, id) {
    const c = byPageElement.get(`${page}\0${id}`);
    if (c) return c;
    const list = byElement.get(id);
    return list && list.length === 1 ? list[0] : null;
  }

  // --- A plot's rows --------------------------------------------------------------------------

  const lastTime = (p) => (p.times.length ? p.times[p.times.length - 1] : null);

  // The window the plot should hold: the span up to now when following, else the view.
  function wanted(p) {
    if (p.follow) {
      const to = Math.max(nowS(), lastTime(p) || 0);
      return [to - p.span, to];
    }
    return p.view;
  }

  // Reads the whole window anew (opening, a new span, a view outside what is held).
  function refetch(p) {
    const [from, to] = wanted(p);
    const resolution = resolutionFor(from, to);
    if (resolution !== p.resolution) p.rebuild(resolution);
    p.loaded = null;
    p.times.length = 0;
    for (const c of p.cols) c.length = 0;
    p.events = [];
    p.eventsTo = null;
    const generation = p.generation += 1;
    p.busy = true;
    const fetchFrom = floorMs(from);
    const fetchTo = p.follow ? undefined : to;
    Promise.all([
      ask(exportUrl(p.names, fetchFrom, fetchTo, 'json', resolution), p.abort.signal),
      fetchEvents(p, from, fetchTo),
    ]).then(([answer]) => {
      if (generation !== p.generation) return;
      merge(p, answer, fetchFrom);
      p.loaded = [from, fetchTo === undefined ? lastTime(p) || from : to];
      p.showProblem('');
      p.show();
    }).catch((e) => {
      // Following tries again a few seconds on; a paused view at its next move.
      if (generation !== p.generation) return;
      p.failedAt = Date.now();
      p.showProblem(e.name === 'AbortError' ? 'The recorder did not answer.' : e.message);
    }).finally(() => {
      if (generation === p.generation) p.busy = false;
    });
  }

  // Following: what came since the last row, with a little overlap for late ticks.
  function poll(p) {
    // A hidden window catches up at its next look: the poll asks from its last row on.
    if (!p.follow || p.busy || document.hidden) return;
    // The history's rows come once a second; so do looks for them.
    if (p.resolution === '1s' && Date.now() - p.lastPoll < 1000) return;
    p.lastPoll = Date.now();
    if (!p.loaded) {
      if (Date.now() - p.failedAt > RETRY_MS) refetch(p);
      return;
    }
    const generation = p.generation;
    const last = lastTime(p);
    const from = floorMs(last === null ? p.loaded[0] : last - OVERLAP_S);
    p.busy = true;
    p.polls += 1;
    const events = p.polls % EVENTS_EVERY === 0
      ? fetchEvents(p, p.eventsTo === null ? p.loaded[0] : p.eventsTo - OVERLAP_S) : null;
    Promise.all([ask(exportUrl(p.names, from, undefined, 'json', p.resolution), p.abort.signal),
      events]).then(([answer]) => {
      if (generation !== p.generation || !p.follow) return;
      merge(p, answer, from);
      const to = wanted(p)[1];
      p.loaded = [to - p.span, to];
      trim(p, to - p.span);
      p.showProblem('');
      p.show();
    }).catch((e) => {
      if (generation === p.generation && e.name !== 'AbortError') p.showProblem(e.message);
    }).finally(() => {
      if (generation === p.generation) p.busy = false;
    });
  }

  // Puts the rows of an export answer in place of what the plot held from `from` on.
  function merge(p, answer, from) {
    if (!answer || !Array.isArray(answer.columns) || !Array.isArray(answer.rows)) return;
    const wantedColumns = p.resolution === '1s'
      ? p.names.flatMap((n) => [`${n}.min`, `${n}.max`]) : p.names;
    const at = wantedColumns.map((n) => answer.columns.indexOf(n));
    const cut = lowerBound(p.times, from);
    p.times.length = cut;
    for (const c of p.cols) c.length = cut;
    let prev = cut ? p.times[cut - 1] : -Infinity;
    for (const row of answer.rows) {
      if (!Array.isArray(row) || typeof row[0] !== 'number' || row[0] <= prev) continue;
      prev = row[0];
      p.times.push(row[0]);
      for (let i = 0; i < at.length; i += 1) {
        const v = at[i] > 0 ? row[at[i]] : null;
        p.cols[i].push(typeof v === 'number' ? v : null);
      }
    }
    if (p.times.length > MAX_POINTS) dropFront(p, p.times.length - MAX_POINTS);
  }

  function trim(p, keepFrom) {
    const n = lowerBound(p.times, keepFrom);
    if (n > 0) dropFront(p, n);
  }

  function dropFront(p, n) {
    p.times.splice(0, n);
    for (const c of p.cols) c.splice(0, n);
  }

  function lowerBound(a, v) {
    let lo = 0;
    let hi = a.length;
    while (lo < hi) {
      const mid = (lo + hi) >> 1;
      if (a[mid] < v) lo = mid + 1;
      else hi = mid;
    }
    return lo;
  }

  async function fetchEvents(p, from, to) {
    const path = `/events?token=${q(token)}&from=${timeText(floorMs(from))}`
      + `${to === undefined ? '' : `&to=${timeText(ceilMs(to))}`}`;
    try {
      const answer = await ask(path, p.abort.signal);
      if (!answer || !Array.isArray(answer.events)) return;
      const seen = new Set(p.events.map((e) => `${e.time}|${e.kind}|${e.text}`));
      for (const e of answer.events) {
        if (!e || typeof e.time !== 'number') continue;
        const ev = { time: e.time, kind: String(e.kind || ''), text: String(e.text || '') };
        const key = `${ev.time}|${ev.kind}|${ev.text}`;
        if (seen.has(key)) continue;
        seen.add(key);
        p.events.push(ev);
        p.eventsTo = Math.max(p.eventsTo || 0, ev.time);
      }
      if (p.eventsTo === null) p.eventsTo = to === undefined ? nowS() : to;
      p.events.sort((a, b) => a.time - b.time);
      const keep = wanted(p)[0] - p.span;
      p.events = p.events.filter((e) => e.time >= keep).slice(-MAX_EVENTS);
    } catch { /* the next look tries again */ }
  }

  window.tavroRecorder = {
    nowS,
    resolutionFor,
    exportUrl,
    loadChannels,
    loaded: () => channelsLoaded || loadChannels(),
    channels: () => channels,
    channelOf,
    channelAt,
    wanted,
    refetch,
    poll,
  };
})();
