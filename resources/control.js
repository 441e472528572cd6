// One operator at a time, as this tab shows it. TavroTest decides who holds control (the tab whose
// click started the running test) and refuses the others' input; this script only names the tab,
// tells its user when another window runs the test, and asks before it takes control over.
'use strict';

(() => {
  const TAB_KEY = 'tavrotest.tab';
  const FORM = /^[A-Za-z0-9_-]{8,64}$/;

  // The tab's own id: random, and kept in the tab's session storage so that a reload is still the
  // operator of the test it started. (A tab the browser duplicates copies that storage and shares
  // the id with its original until one of them is closed.)
  function tabId() {
    let id = null;
    try { id = sessionStorage.getItem(TAB_KEY); } catch (e) { /* storage off: an id per load */ }
    if (id && FORM.test(id)) return id;
    const bytes = crypto.getRandomValues(new Uint8Array(16));
    id = [...bytes].map((b) => b.toString(16).padStart(2, '0')).join('');
    try { sessionStorage.setItem(TAB_KEY, id); } catch (e) { /* as above */ }
    return id;
  }

  const id = tabId();
  let send = () => {};
  let control = { state: 'free', test: '' };

  const make = window.tavroCommon.el;

  // The notice in the title bar, which stays within reach while a test's box is up.
  function notice() {
    let el = document.getElementById('control-notice');
    if (el) return el;
    el = make('div', 'control-notice');
    el.id = 'control-notice';
    el.setAttribute('role', 'status');
    el.hidden = true;
    el.appendChild(make('span', 'control-text', 'Test run from another window'));
    const test = make('span', 'control-test');
    test.id = 'control-test';
    el.appendChild(test);
    const take = make('button', 'control-take', 'Take control\u2026');
    take.type = 'button';
    take.id = 'control-take';
    take.addEventListener('click', confirmTake);
    el.appendChild(take);
    const bar = document.querySelector('.titlebar');
    const link = document.getElementById('link-state');
    bar.insertBefore(el, link && link.parentNode === bar ? link : null);
    return el;
  }

  function show(m) {
    control = { state: m.state, test: m.test };
    document.body.dataset.control = m.state;
    const el = notice();
    el.hidden = m.state !== 'other';
    document.getElementById('control-test').textContent = m.test;
    el.classList.remove('refused');
    // A question about a test that has ended, or that this tab holds now, asks nothing.
    const asked = document.getElementById('control-confirm');
    if (asked && (m.state !== 'other' || asked.dataset.test !== m.test)) closeConfirm();
  }

  // Input of this tab that TavroTest refused: said where the user looks. A refused answer leaves
  // its box open for the operator, so the box's buttons work again (the shell disabled them).
  function refused(m) {
    const said = `${m.text}: ${m.test}`;
    const el = notice();
    el.classList.remove('refused');
    void el.offsetWidth;  // starts the flash again for each refusal
    el.classList.add('refused');
    el.dataset.refused = String(Number(el.dataset.refused || 0) + 1);
    if (m.dialog === undefined) return;
    const box = document.getElementById(`dialog-${m.dialog}`);
    if (!box) return;
    box.querySelectorAll('.buttons button').forEach((b) => { b.disabled = false; });
    let note = box.querySelector('.control-refused');
    if (!note) {
      note = make('p', 'control-refused');
      note.setAttribute('role', 'alert');
      box.querySelector('.buttons').before(note);
    }
    note.textContent = said;
  }

  function closeConfirm() {
    const node = document.getElementById('control-confirm');
    if (!node) return;
    node.remove();
    const layer = document.getElementById('dialog-layer');
    layer.hidden = layer.children.length === 0;
  }

  // The take-over asks first, naming what it takes; TavroTest takes nothing when that test is no
  // longer the one that runs.
  function confirmTake() {
    if (control.state !== 'other' || document.getElementById('control-confirm')) return;
    const test = control.test;
    const node = make('div', 'dialog control-confirm');
    node.id = 'control-confirm';
    node.dataset.test = test;
    node.setAttribute('role', 'dialog');
    node.setAttribute('aria-modal', 'true');
    const caption = make('div', 'caption');
    const title = make('span', 'caption-text', 'Take control');
    title.id = 'control-confirm-title';
    caption.appendChild(title);
    node.setAttribute('aria-labelledby', title.id);
    node.appendChild(caption);
    const body = make('div', 'body');
    body.appendChild(make('div', 'icon question', '?'));
    body.appendChild(make('p', 'text',
      `Take control of the ${test} from the other window?\n\n` +
      'That window can then only watch it and press STOP.'));
    node.appendChild(body);
    const row = make('div', 'buttons');
    const button = (label, onClick) => {
      const b = make('button', '', label);
      b.type = 'button';
      b.addEventListener('click', onClick);
      row.appendChild(b);
      return b;
    };
    button('Yes', () => { send({ t: 'take', test }); closeConfirm(); });
    button('No', closeConfirm);
    node.appendChild(row);
    node.addEventListener('keydown', (e) => { if (e.key === 'Escape') closeConfirm(); });
    const layer = document.getElementById('dialog-layer');
    layer.appendChild(node);
    layer.hidden = false;
    row.querySelector('button:last-child').focus();
  }

  window.tavroShell.hook({
    open(sendMessage) {
      send = sendMessage;
      send({ t: 'hello', tab: id });
    },
    message(m) {
      if (m.t === 'control') show(m);
      else if (m.t === 'refused') refused(m);
    },
  });
})();
