// What the window's scripts share: the window's token, the one way they ask the server for JSON,
// and small builders of elements and times. Loaded before all of them.
(() => {
  'use strict';

  const token = new URLSearchParams(location.search).get('token') || '';
  const pad = (n) => String(n).padStart(2, '0');

  // GETs `path` (which carries the token) and parses its JSON. Gives up after `timeoutMs` or when
  // `signal` aborts (an AbortError). A refusal throws an Error whose message is the path and the
  // first line of the server's reason, with the answer's `status` and `statusText` on it.
  async function getJson(path, { timeoutMs, signal } = {}) {
    const ctl = new AbortController();
    const timer = setTimeout(() => ctl.abort(), timeoutMs);
    const stop = () => ctl.abort();
    if (signal) signal.addEventListener('abort', stop);
    try {
      const r = await fetch(path, { signal: ctl.signal, cache: 'no-store' });
      if (!r.ok) {
        const reason = (await r.text()).split('\n')[0].slice(0, 200);
        const e = new Error(`${path.split('?')[0]}: ${reason || r.status}`);
        e.status = r.status;
        e.statusText = r.statusText;
        throw e;
      }
      return await r.json();
    } finally {
      clearTimeout(timer);
      if (signal) signal.removeEventListener('abort', stop);
    }
  }

  function el(tag, className, text) {
    const node = document.createElement(tag);
    if (className) node.className = className;
    if (text !== undefined) node.textContent = text;
    return node;
  }

  function button(text, onClick, label) {
    const b = el('button', '', text);
    b.type = 'button';
    if (label) b.setAttribute('aria-label', label);
    b.addEventListener('click', onClick);
    return b;
  }

  // "2026-11-25 14:03:07" local time (without the seconds when asked); '' for no number.
  function dateText(seconds, withSeconds = true) {
    if (typeof seconds !== 'number' || !Number.isFinite(seconds)) return '';
    const d = new Date(seconds * 1000);
    const day = `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())}`;
    const time = `${pad(d.getHours())}:${pad(d.getMinutes())}`;
    return `${day} ${time}${withSeconds ? `:${pad(d.getSeconds())}` : ''}`;
  }

  window.tavroCommon = {
    token,
    q: (v) => encodeURIComponent(v),
    pad,
    clamp: (v, lo, hi) => Math.min(Math.max(v, lo), hi),
    getJson,
    el,
    button,
    dateText,
  };
})();
