// The simulator's panel: it reads the board's state a few times a second and posts one control
// line for each thing a person does, in the simulator's own control language.
'use strict';

const token = new URLSearchParams(location.search).get('token') || '';
const $ = (id) => document.getElementById(id);
const POLL_MS = 250;
let state = null;

// ---- talking to tavrosim --------------------------------------------------------------------

function showError(text) {
  $('error').textContent = text;
}

async function refresh() {
  const res = await fetch(`state?token=${token}`, { cache: 'no-store' });
  if (!res.ok) throw new Error(`state: ${res.status}`);
  state = await res.json();
  render(state);
}

// Posts one control line and shows its answer; the state is read again at once.
async function post(line) {
  let answer;
  try {
    const res = await fetch(`command?token=${token}`, {
      method: 'POST', headers: { 'Content-Type': 'text/plain' }, body: line,
    });
    answer = res.ok ? (await res.json()).answer : `error: the panel answered ${res.status}`;
  } catch (e) {
    answer = 'error: tavrosim does not answer';
  }
  $('answer').textContent = `> ${line}\n${answer}`;
  showError(answer.startsWith('ok') ? '' : answer);
  await refresh().catch(() => {});
  return answer;
}

// For controls that send while they move (a slider dragged): at most one line in flight, and the
// latest value wins.
const pending = new Map();
function postLatest(key, line) {
  const entry = pending.get(key);
  if (entry) {
    entry.next = line;
    return;
  }
  const slot = { next: null };
  pending.set(key, slot);
  post(line).finally(() => {
    pending.delete(key);
    if (slot.next) postLatest(key, slot.next);
  });
}

async function poll() {
  try {
    await refresh();
    if ($('error').textContent.startsWith('The panel lost')) showError('');
  } catch (e) {
    showError('The panel lost tavrosim: it has ended, or its panel was stopped.');
    $('link-badge').dataset.state = 'ended';
    $('link-badge').textContent = 'No answer';
  }
  setTimeout(poll, POLL_MS);
}

// ---- small helpers ----------------------------------------------------------------------------

// A control the person is working (focused, or a slider held) is not overwritten from the state.
const held = new Set();
function busy(el) {
  return el === document.activeElement || held.has(el);
}
function setValue(el, value) {
  if (!busy(el) && String(el.value) !== String(value)) el.value = value;
}
function setPressed(el, on) {
  el.setAttribute('aria-pressed', on ? 'true' : 'false');
}
function make(tag, props = {}, children = []) {
  const el = document.createElement(tag);
  Object.assign(el, props);
  for (const c of children) el.append(c);
  return el;
}
function fixed(v, digits) {
  return v === null || v === undefined ? '–' : Number(v).toFixed(digits);
}
function slider(id, min, max, step, onInput) {
  const input = make('input', { type: 'range', id, min, max, step });
  input.addEventListener('pointerdown', () => held.add(input));
  input.addEventListener('pointerup', () => held.delete(input));
  input.addEventListener('input', () => onInput(input.value));
  return input;
}
// A button that is on while held down: `down` when pressed, `up` when let go.
function holdButton(el, down, up) {
  let isDown = false;
  const press = (e) => {
    e.preventDefault();
    isDown = true;
    post(down());
  };
  const release = () => {
    if (!isDown) return;
    isDown = false;
    post(up());
  };
  el.addEventListener('pointerdown', press);
  el.addEventListener('pointerup', release);
  el.addEventListener('pointerleave', release);
  el.addEventListener('keydown', (e) => { if ((e.key === ' ' || e.key === 'Enter') && !e.repeat) press(e); });
  el.addEventListener('keyup', (e) => { if (e.key === ' ' || e.key === 'Enter') release(); });
}
// A button that switches something: `line(isOn)` is what to send to change it.
function switchButton(id, line) {
  $(id).addEventListener('click', () => post(line($(id).getAttribute('aria-pressed') === 'true')));
}

// ---- building the controls --------------------------------------------------------------------

const AXES = ['x', 'y', 'z', 'zoom'];
function buildAxes() {
  const body = $('axes').tBodies[0];
  for (const name of AXES) {
    const friction = slider(`friction-${name}`, 0, 5, 0.1, (v) => postLatest(`f-${name}`, `friction ${name} ${v}`));
    friction.setAttribute('aria-label', `Friction of ${name}`);
    const block = make('input', { type: 'checkbox', id: `block-${name}` });
    block.setAttribute('aria-label', `${name} blocked`);
    block.addEventListener('change', () => post(`${block.checked ? 'block' : 'unblock'} ${name}`));
    const cells = ['name', 'pos', 'counts', 'rotary', 'bias', 'held', 'limit', 'state']
      .map((k) => make('td', { className: `c-${k}` }));
    cells[0].textContent = name.toUpperCase();
    body.append(make('tr', { id: `axis-${name}` },
      [...cells, make('td', {}, [friction, make('output', { id: `friction-${name}-v` })]),
        make('td', {}, [block])]));
  }
}

function buildPendant() {
  const box = $('pendant-buttons');
  for (let i = 1; i <= 8; ++i) {
    const b = make('button', { type: 'button', id: `b${i}`, textContent: `B${i}` });
    b.setAttribute('aria-pressed', 'false');
    holdButton(b, () => `press b${i}`, () => `release b${i}`);
    box.append(b);
  }
  const joystick = () => ['x', 'y', 'z'].map((a) => $(`joy-${a}`).value).join(' ');
  for (const a of ['x', 'y', 'z']) {
    const el = $(`joy-${a}`);
    el.addEventListener('pointerdown', () => held.add(el));
    el.addEventListener('input', () => postLatest('joystick', `joystick ${joystick()}`));
    // Let go, the stick springs back to the middle.
    const spring = () => {
      held.delete(el);
      el.value = 0;
      postLatest('joystick', `joystick ${joystick()}`);
    };
    el.addEventListener('pointerup', spring);
    el.addEventListener('change', spring);
  }
  const accel = () => ['x', 'y', 'z'].map((a) => $(`acc-${a}`).value).join(' ');
  for (const a of ['x', 'y', 'z']) {
    const el = $(`acc-${a}`);
    el.addEventListener('pointerdown', () => held.add(el));
    el.addEventListener('pointerup', () => held.delete(el));
    el.addEventListener('input', () => postLatest('accel', `accel ${accel()}`));
  }
}

function buildReadings() {
  const temps = $('temps');
  for (const sensor of ['0', '1', '2', '3', '4', '5', '6', '7', 'w']) {
    const label = sensor === 'w' ? 'W' : `Sensor ${sensor}`;
    const input = slider(`temp-${sensor}`, -10, 90, 0.5, (v) => postLatest(`t-${sensor}`, `temp ${sensor} ${v}`));
    temps.append(make('label', { id: `temp-${sensor}-row` },
      [make('span', { textContent: label }), input, make('output', { id: `temp-${sensor}-v` })]));
  }
  const rails = $('rails');
  for (let i = 0; i < 16; ++i) {
    const input = slider(`rail-${i}`, -20, 20, 0.5, (v) => postLatest(`r-${i}`, `supply ${i} ${v}`));
    rails.append(make('label', { id: `rail-${i}-row` },
      [make('span', { textContent: `Rail ${i}` }), input, make('output', { id: `rail-${i}-v` })]));
  }
}

function buildControls() {
  buildAxes();
  buildPendant();
  buildReadings();
  switchButton('estop', (on) => `estop ${on ? 'off' : 'on'}`);
  switchButton('footswitch', (on) => `footswitch ${on ? 'off' : 'on'}`);
  switchButton('sleep', (on) => `sleep ${on ? 'off' : 'on'}`);
  switchButton('w-plug', (on) => `wplug ${on ? 'out' : 'in'}`);
  switchButton('platen-plug', (on) => `platen ${on ? 'out' : 'in'}`);
  switchButton('platen-stick', (on) => `platen ${on ? 'free' : 'stick'}`);
  switchButton('laser-ready', (on) => `laser ${on ? 'notready' : 'ready'}`);
  switchButton('laser-on', (on) => `laser ${on ? 'off' : 'on'}`);
  switchButton('unplug', (on) => (on ? 'replug' : 'unplug'));
  switchButton('describe', (on) => `describe ${on ? 'off' : 'on'}`);
  switchButton('app', (on) => `app ${on ? 'off' : 'on'}`);
  holdButton($('probe'), () => 'probe trip', () => 'probe release');
  $('reset').addEventListener('click', () => post('reset'));
  $('sens-max').addEventListener('change', (e) => post(`sensitivity max ${e.target.value}`));
  $('light-count').addEventListener('change', (e) => post(`lights ${e.target.value}`));
  $('laser-points').addEventListener('change', (e) => post(`laser points ${e.target.value}`));
  const rate = $('laser-rate');
  for (let n = 0; n <= 15; ++n) rate.append(make('option', { value: n, textContent: `${(2500 / 2 ** n).toFixed(2)} /s` }));
  rate.addEventListener('change', () => post(`laser rate ${rate.value}`));
  $('encoders').addEventListener('change', (e) => post(`encoders ${e.target.value}`));
  $('switches').addEventListener('change', (e) => post(`switches ${e.target.value}`));
  $('script-name').addEventListener('change', () => showSummary());
  $('script-start').addEventListener('click', () => post(`script ${$('script-name').value}`));
  $('script-stop').addEventListener('click', () => post('script stop'));
  $('profile-use').addEventListener('click', () => post(`profile ${$('profile-select').value}`));
  $('command-form').addEventListener('submit', (e) => {
    e.preventDefault();
    const line = $('command').value.trim();
    if (line) post(line);
  });
}

// ---- showing the state ------------------------------------------------------------------------

function showSummary() {
  const s = state && state.script.available.find((x) => x.name === $('script-name').value);
  $('script-summary').textContent = s ? s.summary : '';
}

function fillOptions(select, items, current) {
  if (select.options.length !== items.length) {
    select.replaceChildren(...items.map((i) => make('option', { value: i.name, textContent: i.name, title: i.description || i.summary || '' })));
  }
  if (current !== undefined) setValue(select, current);
}

function renderAxes(m) {
  for (const a of m.axes) {
    const row = $(`axis-${a.name}`);
    const cell = (k) => row.querySelector(`.c-${k}`);
    cell('pos').textContent = `${fixed(a.pos, 3)} mm`;
    cell('counts').textContent = a.counts;
    cell('rotary').textContent = a.rotary;
    cell('bias').textContent = a.held ? '–' : a.bias;
    cell('held').textContent = a.held ? 'its own record' : 'a test (loop open)';
    cell('held').className = `c-held ${a.held ? '' : 'warn'}`;
    cell('limit').textContent = a.limit < 0 ? 'low' : a.limit > 0 ? 'high' : '';
    const flags = [a.moving ? 'moving' : 'at rest'];
    if (a.stalled) flags.push('stalled');
    if (a.failed) flags.push('FAILED');
    if (a.obstacle !== null) flags.push(`obstacle at ${fixed(a.obstacle, 1)}`);
    cell('state').textContent = flags.join(', ');
    cell('state').className = `c-state ${a.failed || a.stalled ? 'bad' : ''}`;
    setValue($(`friction-${a.name}`), a.friction);
    $(`friction-${a.name}-v`).textContent = `×${fixed(a.friction, 1)}`;
    if (!busy($(`block-${a.name}`))) $(`block-${a.name}`).checked = a.blocked;
  }
  const channel = (c) => (c.fitted ? `${fixed(c.pos, 2)} mm${c.moving ? ' (moving)' : ''}` : 'not fitted');
  $('w-pos').textContent = channel(m.w);
  $('platen-pos').textContent = channel(m.platen) + (m.platen.limit < 0 ? ', closed' : m.platen.limit > 0 ? ', open' : '');
  setPressed($('w-plug'), m.w.fitted);
  setPressed($('platen-plug'), m.platen.fitted);
  setPressed($('platen-stick'), m.platen.stuck);
}

function renderPendant(s) {
  const m = s.machine;
  s.buttons.forEach((input, i) => {
    const b = $(`b${i + 1}`);
    b.disabled = input < 0;
    setPressed(b, input >= 0 && m.inputs[input]);
  });
  ['x', 'y', 'z'].forEach((a, i) => {
    setValue($(`joy-${a}`), m.joystick[i]);
    setValue($(`acc-${a}`), m.accel[i]);
    $(`acc-${a}-v`).textContent = fixed(m.accel[i], 1);
  });
}

function renderSafety(m) {
  setPressed($('estop'), m.estop);
  $('estop').textContent = m.estop ? 'E-STOP PRESSED' : 'E-STOP';
  setPressed($('footswitch'), m.footswitch);
  setPressed($('sleep'), m.sleep);
  setPressed($('probe'), m.probe.touching);
  $('probe-state').textContent = `${m.probe.enabled ? 'enabled' : 'disabled'}, ${m.probe.tripped ? 'tripped' : 'not tripped'}`;
  setValue($('sens-max'), m.probe.max);
  $('sens-value').textContent = m.probe.sensitivity;
  setPressed($('laser-ready'), m.laser.ready);
  setPressed($('laser-on'), m.laser.on);
  setValue($('laser-rate'), m.laser.rate);
  setValue($('laser-points'), m.laser.points);
  const armed = Object.entries(m.interrupts).filter(([, on]) => on).map(([k]) => k);
  $('interrupts').textContent = armed.length ? armed.join(', ') : 'none';
}

const STATUS_LIGHTS = ['off', 'green', 'amber', 'red'];
function renderLights(m) {
  const { values, maxima } = m.lights;
  $('status-light').textContent = STATUS_LIGHTS[m.statusLight] || m.statusLight;
  $('status-light').dataset.colour = STATUS_LIGHTS[m.statusLight] || 'off';
  setValue($('light-count'), values.length);
  const bars = $('light-bars');
  if (bars.children.length !== values.length) {
    bars.replaceChildren(...values.map((_, i) => make('span', { className: 'bar', title: `Channel ${i}` }, [make('i')])));
  }
  values.forEach((v, i) => {
    const bar = bars.children[i];
    bar.title = `Channel ${i}: ${v} of ${maxima[i]}`;
    bar.firstChild.style.height = `${maxima[i] ? Math.min(100, (100 * v) / maxima[i]) : 0}%`;
  });
}

function renderReadings(m) {
  m.temperatures.forEach((c, i) => {
    $(`temp-${i}-row`).hidden = c === null;
    if (c !== null) setValue($(`temp-${i}`), c);
    $(`temp-${i}-v`).textContent = `${fixed(c, 1)} °C`;
  });
  $('temp-w-row').hidden = !m.w.fitted;
  setValue($('temp-w'), m.wTemperature);
  $('temp-w-v').textContent = `${fixed(m.wTemperature, 1)} °C`;
  m.supplies.forEach((r, i) => {
    setValue($(`rail-${i}`), Math.round(r.percent * 2) / 2);
    const drift = r.drift ? `, ${r.drift > 0 ? '+' : ''}${fixed(r.drift, 2)} %/s` : '';
    $(`rail-${i}-v`).textContent = `${r.percent >= 0 ? '+' : ''}${fixed(r.percent, 2)} %${drift}`;
    $(`rail-${i}-row`).classList.toggle('warn', Math.abs(r.percent) > 5);
  });
}

function renderFaults(s) {
  const script = s.script;
  fillOptions($('script-name'), script.available);
  if (!$('script-summary').textContent) showSummary();
  const running = script.running ? `${script.running}, step ${script.step} of ${script.steps}` : 'none';
  $('script-state').textContent = running + (script.last ? ` (${script.last})` : '');
  $('script-badge').hidden = !script.running;
  $('script-badge').textContent = `fault: ${script.running}`;
  setValue($('encoders'), s.machine.encoders);
  setValue($('switches'), s.machine.switches);
  setPressed($('unplug'), !s.link.plugged);
  $('unplug').textContent = s.link.plugged ? 'Unplug' : 'Plug back in';
  setPressed($('describe'), s.link.describes);
  setPressed($('app'), s.app);
  $('rules-none').hidden = s.faults.length > 0;
  $('rules').replaceChildren(...s.faults.map((r) => {
    const clear = make('button', { type: 'button', textContent: 'clear' });
    clear.addEventListener('click', () => post(`fault clear ${r.id}`));
    return make('li', {}, [make('code', { textContent: r.text }), ' ', clear]);
  }));
}

function renderTransfers(list) {
  const codes = { 2147491840: 'normal', 2147491848: 'capture', 2147491856: 'link', 2147491864: 'describe' };
  $('transfers').tBodies[0].replaceChildren(...list.map((t) => make('tr', {}, [
    make('td', { textContent: t.seq }),
    make('td', { textContent: (t.agoMs / 1000).toFixed(2) }),
    make('td', { textContent: codes[t.code] || `0x${t.code.toString(16)}` }),
    make('td', { textContent: t.command || '' }),
    make('td', { className: 'bytes', textContent: t.bytes || '–', title: `${t.length} bytes` }),
    make('td', { textContent: t.replyLength }),
    make('td', { textContent: t.answered ? t.status : 'no reply', className: t.answered && !t.status ? '' : 'warn' }),
    make('td', { textContent: t.answered ? t.returned : '–' }),
  ])));
}

function render(s) {
  const p = s.profile;
  $('profile-name').textContent = `${p.name} · ${p.firmware} ${fixed(p.version, 2)}, protocol ${p.protocol}`;
  $('profile-description').textContent = p.description;
  fillOptions($('profile-select'), s.profiles, p.name);
  const badge = $('link-badge');
  badge.dataset.state = s.link.plugged ? 'plugged' : 'unplugged';
  badge.textContent = s.link.plugged
    ? `plugged in · ${s.link.connections} connected · ${s.link.requests} requests`
    : 'unplugged';
  badge.title = s.link.entry;
  renderAxes(s.machine);
  renderPendant(s);
  renderSafety(s.machine);
  renderLights(s.machine);
  renderReadings(s.machine);
  renderFaults(s);
  renderTransfers(s.transfers);
  document.body.dataset.ready = 'true';
}

buildControls();
poll();
