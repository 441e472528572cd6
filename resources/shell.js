// The shell: mirrors the program's window. The program holds every document's state; this
// script draws it into the tab pages (same-origin frames), sends clicks and changes back, and
// draws the message boxes, choice dialogs and message windows the program opens.
'use strict';

(() => {
  const { token } = window.tavroCommon;
  const SHELL = -1;

  const tabs = [];          // [{title, src, events, scroll, frame, button, loaded}]
  const docs = new Map();   // page -> {id: props}; the last state the program sent
  const dialogs = new Map();  // id -> {kind, node}
  let selected = 0;
  let socket = null;
  let dragging = null;      // the slider under the pointer: program echoes must not move it

  // --- Connection ---------------------------------------------------------------------------

  function send(message) {
    if (socket && socket.readyState === WebSocket.OPEN) socket.send(JSON.stringify(message));
  }

  // Scripts that add to the shell (control.js): `open(send)` when a connection opens, before
  // anything else goes out on it, and `message(m)` for each message the shell does not know.
  const hooks = [];
  window.tavroShell = { hook(h) { hooks.push(h); } };

  // The viewport is the work area that the program places message windows in.
  function sendViewport() {
    send({ t: 'viewport', width: innerWidth, height: innerHeight });
  }

  // Signs of life: while a motion test drives an axis, the program stops it once no browser has
  // sent one for 2 s. They come from this page's own thread, so a tab that hangs stops sending
  // them although its connection stays open. A tab in the background still counts while the
  // browser runs its timers about once a second; once it throttles them harder (after minutes
  // hidden), the test stops as if no browser were there.
  const BEAT_MS = 500;
  setInterval(() => send({ t: 'beat' }), BEAT_MS);
  document.addEventListener('visibilitychange', () => send({ t: 'beat' }));

  function connect() {
    const ws = new WebSocket(`ws://${location.host}/ws?token=${encodeURIComponent(token)}`);
    socket = ws;
    ws.onopen = () => {
      for (const h of hooks) if (h.open) h.open(send);
      TavroLink.opened();
      sendViewport();
      send({ t: 'shown', page: tabs.length ? selected : -1 });
      tabs.forEach((tab, i) => { if (tab.loaded) send({ t: 'loaded', page: i }); });
    };
    ws.onmessage = (e) => {
      let message;
      try { message = JSON.parse(e.data); } catch (err) { return; }
      handle(message);
    };
    ws.onclose = () => {
      if (socket !== ws) return;
      socket = null;
      // Open dialogs come back with the full state on reconnection.
      for (const id of [...dialogs.keys()]) closeDialog(id);
      TavroLink.closed(connect);
    };
  }

  function handle(m) {
    switch (m.t) {
      case 'tabs': setTabs(m.tabs); break;
      case 'doc': applyDoc(m); break;
      case 'dialog': openDialog(m); break;
      case 'closeDialog': closeDialog(m.id); break;
      case 'bye': TavroLink.goodbye(m); break;
      default: for (const h of hooks) if (h.message) h.message(m); break;
    }
  }

  // --- Tabs and page frames -----------------------------------------------------------------

  function setTabs(list) {
    const strip = document.getElementById('tabs');
    const pages = document.getElementById('pages');
    document.getElementById('no-pages').classList.toggle('hidden', list.length > 0);
    list.forEach((info, i) => {
      let tab = tabs[i];
      if (tab && tab.src === info.src) {
        Object.assign(tab, { title: info.title, events: info.events, scroll: info.scroll });
        tab.button.textContent = info.title;
        return;
      }
      if (tab) { tab.frame.remove(); tab.button.remove(); }
      tab = { ...info, loaded: false };
      tab.button = document.createElement('button');
      tab.button.type = 'button';
      tab.button.role = 'tab';
      tab.button.id = `tab-${i}`;
      tab.button.textContent = info.title;
      tab.button.addEventListener('click', () => select(i));
      strip.appendChild(tab.button);
      tab.frame = document.createElement('iframe');
      tab.frame.id = `page-${i}`;
      tab.frame.title = info.title;
      tab.frame.addEventListener('load', () => pageLoaded(i));
      // The token goes with every request; the document adds it to what it loads itself.
      tab.frame.src = `${info.src}${info.src.includes('?') ? '&' : '?'}token=${encodeURIComponent(token)}`;
      pages.appendChild(tab.frame);
      tabs[i] = tab;
    });
    select(Math.min(selected, Math.max(list.length - 1, 0)));
  }

  function select(index) {
    selected = index;
    tabs.forEach((tab, i) => {
      tab.button.setAttribute('aria-selected', String(i === index));
      // One tab stop for the strip: Tab reaches the selected tab, the arrows the others.
      tab.button.tabIndex = i === index ? 0 : -1;
      tab.frame.classList.toggle('selected', i === index);
    });
    send({ t: 'shown', page: tabs.length ? index : -1 });
  }

  function pageDocument(page) {
    if (page === SHELL) return document;
    const tab = tabs[page];
    return tab && tab.loaded ? tab.frame.contentDocument : null;
  }

  function pageLoaded(page) {
    const tab = tabs[page];
    const doc = tab.frame.contentDocument;
    if (!doc || !doc.body) return;
    tab.loaded = true;
    for (const [id, kind] of tab.events) bindEvent(doc, page, id, kind);
    for (const id of tab.scroll) {
      const el = doc.getElementById(id);
      if (el) el.addEventListener('scroll', () => reportScroll(page), { passive: true });
    }
    doc.addEventListener('keydown', enterMovesFocus, true);
    doc.addEventListener('keydown', escapeToPage);
    const state = docs.get(page);
    if (state) for (const [id, props] of Object.entries(state)) applyElement(doc, id, props);
    send({ t: 'loaded', page });
    reportScroll(page);
  }

  // --- Documents ----------------------------------------------------------------------------

  function applyDoc(m) {
    const state = m.full ? {} : (docs.get(m.page) || {});
    for (const [id, props] of Object.entries(m.el)) state[id] = { ...state[id], ...props };
    docs.set(m.page, state);
    const doc = pageDocument(m.page);
    if (!doc) return;
    for (const [id, props] of Object.entries(m.el)) applyElement(doc, id, props);
    if (m.page === SHELL && m.el.title && 'v' in m.el.title) document.title = m.el.title.v;
    for (const [id, command] of m.scroll) {
      const el = doc.getElementById(id);
      if (!el) continue;
      el.scrollTop = command === 'end' ? el.scrollHeight : el.scrollTop + el.clientHeight;
    }
    if (m.page !== SHELL) reportScroll(m.page);
  }

  function holdsValue(el) {
    return el.tagName === 'INPUT' || el.tagName === 'TEXTAREA' || el.tagName === 'SELECT';
  }

  function applyElement(doc, id, p) {
    const el = doc.getElementById(id);
    if (!el) return;
    // Range first, so that the position is not cut to the old range.
    if ('min' in p) el.min = p.min;
    if ('max' in p) el.max = p.max;
    if ('line' in p) el.step = p.line;
    if ('pageStep' in p) el.dataset.pageStep = p.pageStep;
    if ('tick' in p || (('min' in p || 'max' in p) && el.dataset.tick)) {
      if ('tick' in p) el.dataset.tick = p.tick;
      setTicks(doc, el);
    }
    if ('v' in p) {
      if (!holdsValue(el)) el.textContent = p.v;
      else if (el !== dragging && el.value !== p.v) el.value = p.v;
    }
    if ('c' in p) el.checked = p.c;
    if ('d' in p) el.disabled = p.d;
    if ('s' in p) el.style.display = p.s;
    if ('b' in p) el.style.backgroundColor = p.b;
    if (el.type === 'range' && !el.dataset.keys) {
      el.dataset.keys = '1';
      el.addEventListener('keydown', pageKeys);
    }
  }

  // Tick marks through a datalist; a slider with very many ticks gets none.
  function setTicks(doc, el) {
    const spacing = Number(el.dataset.tick) || 0;
    const listId = `${el.id}-ticks`;
    let list = doc.getElementById(listId);
    if (list) list.remove();
    el.removeAttribute('list');
    const min = Number(el.min) || 0;
    const max = Number(el.max) || 0;
    if (spacing <= 0 || max <= min || (max - min) / spacing > 256) return;
    list = doc.createElement('datalist');
    list.id = listId;
    for (let v = min; v <= max; v += spacing) {
      const option = doc.createElement('option');
      option.value = v;
      list.appendChild(option);
    }
    el.after(list);
    el.setAttribute('list', listId);
  }

  // Page Down and Page Up move a slider by its page step, Page Down towards the maximum.
  function pageKeys(e) {
    if (e.key !== 'PageDown' && e.key !== 'PageUp') return;
    const el = e.target;
    const step = Number(el.dataset.pageStep) || 0;
    if (!step) return;
    e.preventDefault();
    const next = Number(el.value) + (e.key === 'PageDown' ? step : -step);
    el.value = Math.max(Number(el.min), Math.min(Number(el.max), next));
    el.dispatchEvent(new Event('input', { bubbles: true }));
  }

  function reportScroll(page) {
    const tab = tabs[page];
    const doc = pageDocument(page);
    if (!tab || !doc) return;
    requestAnimationFrame(() => {
      for (const id of tab.scroll) {
        const el = doc.getElementById(id);
        if (!el) continue;
        send({ t: 'scroll', page, id, height: Math.round(el.scrollHeight),
               top: Math.round(el.scrollTop), client: Math.round(el.clientHeight) });
      }
    });
  }

  // --- Events -------------------------------------------------------------------------------

  function elementState(el) {
    const state = {};
    if (el.type === 'checkbox' || el.type === 'radio') state.checked = el.checked;
    else if (holdsValue(el)) state.value = el.value;
    return state;
  }

  function bindEvent(doc, page, id, kind) {
    const el = doc.getElementById(id);
    if (!el) return;
    const fire = () => send({ t: 'event', page, id, kind, ...elementState(el) });
    if (kind === 'click') {
      el.addEventListener('click', fire);
    } else if (el.type === 'range') {
      // A slider reports every move, as a trackbar does while it is dragged.
      el.addEventListener('input', fire);
      el.addEventListener('pointerdown', () => { dragging = el; });
      el.addEventListener('pointerup', () => { dragging = null; });
    } else {
      el.addEventListener('change', fire);
    }
  }

  // Enter moves on to the next field instead of pressing a button or ending anything.
  function enterMovesFocus(e) {
    if (e.key !== 'Enter' || e.target.tagName === 'TEXTAREA') return;
    e.preventDefault();
    const doc = e.target.ownerDocument;
    const focusable = [...doc.querySelectorAll(
      'input:not([disabled]):not([type="hidden"]), button:not([disabled]), select, textarea, [tabindex]')]
      .filter((el) => el.tabIndex >= 0);
    const at = focusable.indexOf(e.target);
    const next = focusable[(at + (e.shiftKey ? -1 : 1) + focusable.length) % focusable.length];
    if (next) next.focus();
  }

  // --- Shell menu ---------------------------------------------------------------------------

  function setUpMenu() {
    const button = document.getElementById('menu-button');
    const menu = document.getElementById('menu');
    const show = (open) => {
      menu.hidden = !open;
      button.setAttribute('aria-expanded', String(open));
    };
    button.addEventListener('click', (e) => { e.stopPropagation(); show(menu.hidden); });
    document.addEventListener('click', () => show(false));
    for (const id of ['menu-about', 'menu-close']) {
      document.getElementById(id).addEventListener('click', () => {
        show(false);
        send({ t: 'event', page: SHELL, id, kind: 'click' });
      });
    }
    document.getElementById('stop-test').addEventListener('click', () => {
      send({ t: 'event', page: SHELL, id: 'stop-test', kind: 'click' });
    });
    document.addEventListener('keydown', escapeToPage);
  }

  // Escape, in the shell or in a page's frame, is the page in front's cancel. Boxes, choice
  // dialogs and message windows answer Escape themselves, so the key is left to them whenever
  // the focus is in one or a modal one is up; an open menu just closes.
  function escapeToPage(e) {
    if (e.key !== 'Escape' || e.repeat || e.defaultPrevented) return;
    const target = e.target;
    if (target && target.closest && target.closest('.dialog, .msgwin')) return;
    if (!document.getElementById('dialog-layer').hidden) return;
    const menu = document.getElementById('menu');
    if (!menu.hidden) {
      menu.hidden = true;
      document.getElementById('menu-button').setAttribute('aria-expanded', 'false');
      return;
    }
    if (tabs.length) send({ t: 'cancel', page: selected });
  }

  // --- Dialogs ------------------------------------------------------------------------------

  const BOX_BUTTONS = {
    ok: [['OK', 1]],
    okcancel: [['OK', 1], ['Cancel', 2]],
    yesno: [['Yes', 6], ['No', 7]],
  };

  const make = window.tavroCommon.el;

  // Line ends from the program may be CR LF.
  const plain = (text) => String(text).replace(/\r\n?/g, '\n');

  function caption(title, onClose) {
    const bar = make('div', 'caption');
    bar.appendChild(make('span', 'caption-text', title));
    if (onClose) {
      const close = make('button', 'close-box', '\u00d7');
      close.type = 'button';
      close.title = 'Close';
      close.addEventListener('click', onClose);
      bar.appendChild(close);
    }
    return bar;
  }

  function answer(id, result, choice) {
    const open = dialogs.get(id);
    if (!open) return;
    if (open.kind !== 'window') open.node.querySelectorAll('button').forEach((b) => { b.disabled = true; });
    send({ t: 'answer', dialog: id, result, ...(choice === undefined ? {} : { choice }) });
  }

  function buttonRow(rows) {
    const row = make('div', 'buttons');
    for (const [label, onClick, name] of rows) {
      const b = make('button', '', label);
      b.type = 'button';
      if (name) b.dataset.result = name;
      b.addEventListener('click', onClick);
      row.appendChild(b);
    }
    return row;
  }

  function boxNode(m) {
    const node = make('div', 'dialog');
    // The window's own questions are dialogs; the program's message boxes alert.
    node.setAttribute('role', m.role === 'dialog' ? 'dialog' : 'alertdialog');
    node.appendChild(caption(m.title));
    const body = make('div', 'body');
    const icon = make('div', `icon ${m.stop ? 'stop' : m.buttons === 'ok' ? 'info' : 'question'}`,
                      m.stop ? '\u2715' : m.buttons === 'ok' ? 'i' : '?');
    body.appendChild(icon);
    body.appendChild(make('p', 'text', plain(m.text)));
    node.appendChild(body);
    const rows = BOX_BUTTONS[m.buttons].map(([label, result]) =>
      [label, () => answer(m.id, result), String(result)]);
    node.appendChild(buttonRow(rows));
    node.addEventListener('keydown', (e) => {
      if (e.key !== 'Escape') return;
      if (m.buttons === 'ok') answer(m.id, 1);
      if (m.buttons === 'okcancel') answer(m.id, 2);
    });
    return node;
  }

  function choiceNode(m) {
    const node = make('div', 'dialog');
    node.setAttribute('role', 'dialog');
    node.appendChild(caption(m.title, () => answer(m.id, 2)));
    const body = make('div', 'body');
    const column = make('div', 'texts');
    for (const t of m.texts) column.appendChild(make('p', '', plain(t)));
    const group = make('fieldset');
    group.appendChild(make('legend', '', m.group));
    m.options.forEach((label, i) => {
      const line = make('label');
      const radio = make('input');
      radio.type = 'radio';
      radio.name = `choice-${m.id}`;
      radio.value = String(i);
      radio.checked = i === m.initial;
      line.appendChild(radio);
      line.appendChild(document.createTextNode(` ${label}`));
      group.appendChild(line);
    });
    column.appendChild(group);
    body.appendChild(column);
    node.appendChild(body);
    const picked = () => Number((node.querySelector('input:checked') || { value: m.initial }).value);
    node.appendChild(buttonRow([
      ['OK', () => answer(m.id, 1, picked()), '1'],
      ['Cancel', () => answer(m.id, 2), '2'],
    ]));
    node.addEventListener('keydown', (e) => { if (e.key === 'Escape') answer(m.id, 2); });
    return node;
  }

  function showModal(m, node) {
    const layer = document.getElementById('dialog-layer');
    node.id = `dialog-${m.id}`;
    layer.appendChild(node);
    layer.hidden = false;
    dialogs.set(m.id, { kind: m.kind, node });
    const first = node.querySelector('.buttons button');
    if (first) first.focus();
  }

  function openDialog(m) {
    if (m.kind === 'window') { messageWindow(m); return; }
    if (dialogs.has(m.id)) return;
    showModal(m, m.kind === 'choice' ? choiceNode(m) : boxNode(m));
  }

  function closeDialog(id) {
    const open = dialogs.get(id);
    if (!open) return;
    if (open.observer) open.observer.disconnect();
    open.node.remove();
    dialogs.delete(id);
    if (open.kind === 'window') updateBlocker();
    const layer = document.getElementById('dialog-layer');
    layer.hidden = layer.children.length === 0;
    const top = layer.lastElementChild;
    if (top) { const b = top.querySelector('.buttons button'); if (b) b.focus(); }
  }

  // The non-modal message window: built once, then brought up to date by later messages. A
  // window with a layout stands where the program placed it, its controls at the program's
  // rectangles (client coordinates, below the caption); without one it arranges itself.
  const ICON_SIGNS = { information: 'i', warning: '!', error: '\u2715', question: '?' };

  function place(el, box) {
    const [left, top, width, height] = box;
    el.classList.toggle('hidden', !(width > 0 && height > 0));
    Object.assign(el.style, { left: `${left}px`, top: `${top}px`, width: `${width}px`, height: `${height}px` });
  }

  function moveAlongButtons(node, step) {
    const buttons = [...node.querySelectorAll('.buttons button')]
      .filter((b) => !b.classList.contains('hidden'));
    if (!buttons.length) return;
    const at = buttons.indexOf(document.activeElement);
    const next = at < 0 ? 0 : (at + step + buttons.length) % buttons.length;
    buttons[next].focus();
  }

  function windowKeys(open, e) {
    const m = open.last;
    if (!m.keyboard) return;
    const onButton = e.target.closest && e.target.closest('.buttons button');
    if (e.type === 'keydown') {
      // The keys act when they are let go; a focused button must not click on the press too.
      if (e.key === 'Enter' || e.key === 'Escape') e.preventDefault();
      return;
    }
    if (e.key === 'Escape') answer(m.id, -2);
    else if (e.key === 'Enter' && onButton && !onButton.disabled) onButton.click();
    else if (e.key === 'ArrowLeft') moveAlongButtons(open.node, -1);
    else if (e.key === 'ArrowRight') moveAlongButtons(open.node, 1);
  }

  function updateBlocker() {
    const blocking = [...dialogs.values()].some((d) => d.kind === 'window' && d.last && d.last.blocksPages);
    document.getElementById('window-blocker').hidden = !blocking;
  }

  function messageWindow(m) {
    let open = dialogs.get(m.id);
    if (!open) {
      const node = make('div', 'msgwin');
      node.id = `dialog-${m.id}`;
      node.setAttribute('role', 'dialog');
      document.getElementById('window-layer').appendChild(node);
      open = { kind: 'window', node, built: null, moved: false, last: m };
      node.addEventListener('keydown', (e) => windowKeys(open, e));
      node.addEventListener('keyup', (e) => windowKeys(open, e));
      dialogs.set(m.id, open);
    }
    open.last = m;
    const node = open.node;
    const layout = m.layout;
    const shape = JSON.stringify([m.buttons, m.closeBox, 'progress' in m, !!layout]);
    const fresh = open.built !== shape;
    if (fresh) {
      node.textContent = '';
      node.appendChild(caption(m.title, m.closeBox ? () => answer(m.id, -2) : null));
      const client = layout ? make('div', 'client') : node;
      if (layout) node.appendChild(client);
      client.appendChild(make('div', 'winicon hidden'));
      client.appendChild(make('div', 'wintext'));
      if ('progress' in m) { const bar = make('progress'); bar.max = 200; client.appendChild(bar); }
      client.appendChild(buttonRow(m.buttons.map((label, i) =>
        [label, () => answer(m.id, i), String(i)])));
      makeDraggable(node, open);
      open.built = shape;
    }
    node.classList.toggle('placed', !!layout);
    node.querySelector('.caption-text').textContent = m.title;
    const text = node.querySelector('.wintext');
    text.classList.toggle('hidden', m.text === '');
    if (text.textContent !== plain(m.text)) text.textContent = plain(m.text);
    text.classList.toggle('wrap', m.wrap);
    text.classList.toggle('fixed', m.fixedFont);
    text.classList.toggle('selectable', m.selectable);
    text.tabIndex = m.selectable ? 0 : -1;
    const icon = node.querySelector('.winicon');
    icon.textContent = ICON_SIGNS[m.icon] || '';
    icon.className = `winicon ${m.icon || 'hidden'}`;
    const bar = node.querySelector('progress');
    if (bar) bar.value = m.progress;
    node.querySelectorAll('.buttons button').forEach((b, i) => {
      b.disabled = !m.enabled[i];
      b.classList.toggle('hidden', !m.shown[i]);
      b.classList.toggle('checked', !!m.checks[i]);
      b.setAttribute('aria-pressed', m.checks[i] ? 'true' : 'false');
    });
    if (layout) placeWindow(open, m, layout);
    else {
      if (m.width > 0) node.style.width = `${m.width}px`;
      if (m.height > 0) node.style.height = `${m.height}px`;
      if (!node.style.left) {
        node.style.left = `${Math.max(0, (innerWidth - node.offsetWidth) / 2)}px`;
        node.style.top = `${Math.max(0, (innerHeight - node.offsetHeight) / 2)}px`;
      }
    }
    if (fresh && m.focusFirst) {
      const first = [...node.querySelectorAll('.buttons button')].find((b) => !b.classList.contains('hidden'));
      if (first) { first.classList.add('default'); first.focus(); }
    }
    if ('scrollToLine' in m) {
      const lineHeight = parseFloat(getComputedStyle(text).lineHeight) || 17;
      const top = m.scrollToLine * lineHeight;
      if (top < text.scrollTop) text.scrollTop = top;
      else if (top + lineHeight > text.scrollTop + text.clientHeight) {
        text.scrollTop = top + lineHeight - text.clientHeight;
      }
    }
    updateBlocker();
  }

  function placeWindow(open, m, layout) {
    const node = open.node;
    const [left, top, width, height] = layout.window;
    // A window the user has dragged stays where it was put; only its size follows.
    if (!open.moved) Object.assign(node.style, { left: `${left}px`, top: `${top}px` });
    open.size = [width, height];
    Object.assign(node.style, { width: `${width}px`, height: `${height}px` });
    node.classList.toggle('resizable', m.resizable);
    if (m.resizable) {
      Object.assign(node.style, {
        minWidth: `${layout.min[0]}px`, minHeight: `${layout.min[1]}px`,
        maxWidth: `${layout.max[0]}px`, maxHeight: `${layout.max[1]}px`,
      });
      if (!open.observer) {
        // The user's new size goes to the program, which places the controls for it.
        open.observer = new ResizeObserver(() => {
          const w = node.offsetWidth;
          const h = node.offsetHeight;
          if (w === open.size[0] && h === open.size[1]) return;
          open.size = [w, h];
          send({ t: 'resize', dialog: m.id, width: w - 2, height: h - 32 });
        });
        open.observer.observe(node);
      }
    }
    place(node.querySelector('.winicon'), m.icon ? layout.icon : [0, 0, 0, 0]);
    const text = node.querySelector('.wintext');
    if (m.text !== '') {
      place(text, layout.text);
      text.style.paddingRight = `${layout.textPadRight}px`;
      text.style.overflowY = layout.vScroll ? 'scroll' : 'hidden';
      text.style.overflowX = layout.hScroll ? 'scroll' : 'hidden';
    }
    const bar = node.querySelector('progress');
    if (bar) place(bar, layout.progress);
    node.querySelectorAll('.buttons button').forEach((b, i) => {
      if (layout.buttons[i]) {
        const [bl, bt, bw, bh] = layout.buttons[i];
        Object.assign(b.style, { left: `${bl}px`, top: `${bt}px`, width: `${bw}px`, height: `${bh}px` });
      }
    });
  }

  function makeDraggable(node, open) {
    const bar = node.querySelector('.caption');
    bar.addEventListener('pointerdown', (e) => {
      if (e.target.closest('button')) return;
      open.moved = true;
      const dx = e.clientX - node.offsetLeft;
      const dy = e.clientY - node.offsetTop;
      const move = (ev) => {
        node.style.left = `${ev.clientX - dx}px`;
        node.style.top = `${ev.clientY - dy}px`;
      };
      const up = () => {
        removeEventListener('pointermove', move);
        removeEventListener('pointerup', up);
      };
      addEventListener('pointermove', move);
      addEventListener('pointerup', up);
    });
  }

  // The arrow keys, Home and End move the selection along the tab strip, and the focus with it.
  document.getElementById('tabs').addEventListener('keydown', (e) => {
    const moves = { ArrowLeft: -1, ArrowRight: 1 };
    if (!tabs.length || !(e.key in moves || e.key === 'Home' || e.key === 'End')) return;
    e.preventDefault();
    const last = tabs.length - 1;
    const next = e.key === 'Home' ? 0 : e.key === 'End' ? last
      : (selected + moves[e.key] + tabs.length) % tabs.length;
    select(next);
    tabs[next].button.focus();
  });

  addEventListener('resize', sendViewport);
  setUpMenu();
  connect();
})();
