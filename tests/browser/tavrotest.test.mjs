// TavroTest itself in a real browser, against the simulated board: what Board Information shows
// for each kind of machine, the title through a lost and a refused link, Diag Output's log and
// scrolling, the banner, and a start-up failure's box.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { mkdirSync, mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import {
  launchBrowser, startBoard, startTavroTest, eventually, field,
} from './harness.mjs';

const SHOTS = process.env.TAVRO_SCREENSHOT_DIR;
let browser;

before(async () => { browser = await launchBrowser(); });
after(async () => { if (browser) await browser.close(); });

// A board of `profile`, TavroTest against it, and a page showing its window.
async function session(profile, boardArgs = []) {
  const board = await startBoard(profile, boardArgs);
  const app = await startTavroTest(board.dir);
  const page = await browser.context.newPage();
  await page.goto(app.url);
  await field(page, 0, 'WarningLabel').waitFor({ state: 'attached' });
  return {
    board, app, page,
    async end() {
      await page.close();
      await app.stop();
      await board.stop();
    },
  };
}

const title = (page) => page.locator('#title').textContent();

// The `board` answer of the simulator as a record.
function parseBoard(answer) {
  const out = {};
  for (const m of answer.matchAll(/(\w+)=("[^"]*"|\S+)/g)) out[m[1]] = m[2].replace(/^"|"$/g, '');
  // A size the board's answer does not carry ("-") shows as TavroTest takes it: 0, and for the
  // page and transfer sizes the 32 and 64 that every such board has.
  const [user, machine, update, pageSize, maxRW, copy] = out.eeprom.split(',');
  const or = (v, d) => (v === '-' ? d : v);
  out.eeprom = {
    user, machine: or(machine, '0'), update: or(update, '0'), pageSize: or(pageSize, '32'),
    maxRW: or(maxRW, '64'), copy: copy === '1',
  };
  out.chips = [out.chip0, out.chip1].map((c) => c.split(',').map(Number));
  return out;
}

async function expectBoardInformation(page, truth, { chips, fpga }) {
  const value = (id) => field(page, 0, id).inputValue();
  await eventually(() => value('FirmwareName'), truth.firmware);
  assert.equal(await value('FirmwareVersion'), String(Number(truth.version)));
  assert.equal(await value('BoardRevision'), truth.revision);
  assert.equal(await value('SerialNumber'), truth.serial);
  assert.equal(await value('MachineName'), truth.machine);
  assert.equal(await value('ModelName'), truth.model);
  assert.equal(await value('EEPROMUser'), truth.eeprom.user);
  assert.equal(await value('EEPROMMachine'), truth.eeprom.machine);
  assert.equal(await value('EEPROMUpdate'), truth.eeprom.update);
  assert.equal(await value('EEPROMPage'), truth.eeprom.pageSize);
  assert.equal(await value('EEPROMMaxRW'), truth.eeprom.maxRW);
  assert.equal(await field(page, 0, 'EEPROMCopy').isChecked(), truth.eeprom.copy);

  if (fpga === undefined) assert.equal(await field(page, 0, 'FPGAVersion').count(), 0);
  else assert.equal(await value('FPGAVersion'), fpga);

  const suffix = ['', '1'];
  for (let chip = 0; chip < 2; chip += 1) {
    const there = await field(page, 0, `PMDName${suffix[chip]}`).count();
    assert.equal(there, chip < chips ? 1 : 0, `chip ${chip} elements`);
    if (chip >= chips) continue;
    const [family, motor, axes, attributes, customer, major, minor] = truth.chips[chip];
    const id = (stem) => `${stem}${suffix[chip]}`;
    assert.equal(await value(id('PMDName')), `MC${family}${motor}${axes}0`);
    assert.equal(await value(id('PMDFamily')), String(family));
    assert.equal(await value(id('PMDMotor')), String(motor));
    assert.equal(await value(id('PMDAxes')), String(axes));
    assert.equal(await value(id('PMDAttributes')), String(attributes));
    assert.equal(await value(id('PMDCustomer')), String(customer));
    assert.equal(await value(id('PMDVersion')), `${major}.${minor}`);
  }
}

test('Board Information shows what each kind of board says about itself', async () => {
  const cases = [
    { profile: 'autovision', chips: 2, fpga: (t) => t.fpga, shot: 'board-information.png' },
    { profile: 'servo', chips: 1, fpga: () => undefined, shot: 'board-information-servo.png' },
    { profile: 'manualvision', chips: 0, fpga: (t) => t.fpga },
    // Below protocol 5 a manual-vision board has no FPGA word: "N/A".
    { profile: 'manualvision-pv4', chips: 0, fpga: () => 'N/A',
      shot: 'board-information-manual-vision.png' },
  ];
  for (const c of cases) {
    const s = await session(c.profile);
    try {
      const truth = parseBoard(await s.board.control('board'));
      await eventually(() => title(s.page), 'TavroTest : Connected');
      await expectBoardInformation(s.page, truth, { chips: c.chips, fpga: c.fpga(truth) });
      const tabs = await s.page.locator('.tabs button').allTextContents();
      assert.deepEqual(tabs, ['Board Information', 'Diag Output'], c.profile);
      if (SHOTS && c.shot) await s.page.screenshot({ path: join(SHOTS, c.shot) });
    } finally {
      await s.end();
    }
  }
});

test('a lost board turns the title and comes back, pages reset', async () => {
  const s = await session('autovision');
  try {
    await eventually(() => title(s.page), 'TavroTest : Connected');
    const identityReads = Number((await s.board.control('count 0x60')).split(' ')[1]);

    await s.board.control('unplug');
    await eventually(() => title(s.page), 'TavroTest : Disconnected', 5000);
    if (SHOTS) await s.page.screenshot({ path: join(SHOTS, 'disconnected.png') });

    await s.board.control('replug');
    await eventually(() => title(s.page), 'TavroTest : Connected', 5000);
    // Board Information read its static data again.
    const after = Number((await s.board.control('count 0x60')).split(' ')[1]);
    assert.equal(after, identityReads + 1);
  } finally {
    await s.end();
  }
});

test('a board of another kind plugged in meanwhile stays disconnected', async () => {
  const s = await session('autovision');
  try {
    await eventually(() => title(s.page), 'TavroTest : Connected');
    await s.board.control('unplug');
    await eventually(() => title(s.page), 'TavroTest : Disconnected');
    await s.board.control('profile manualvision');
    await s.board.control('replug');
    await new Promise((r) => setTimeout(r, 2500));  // two attempts and a half
    assert.equal(await title(s.page), 'TavroTest : Disconnected');
    const opens = Number((await s.board.control('count link')).split(' ')[1]);
    assert.ok(opens >= 3, `the board was tried (${opens} opens)`);

    await s.board.control('profile autovision');
    await eventually(() => title(s.page), 'TavroTest : Connected', 3000);
  } finally {
    await s.end();
  }
});

test('Diag Output collects the board text, follows the end, and stays put when scrolled back', async () => {
  const s = await session('autovision');
  const log = field(s.page, 1, 'UsbSerial');
  const view = () => log.evaluate((el) => ({
    top: el.scrollTop, height: el.scrollHeight, client: el.clientHeight,
  }));
  const atEnd = async () => { const v = await view(); return v.height - v.top <= v.client; };
  try {
    await s.page.locator('#tab-1').click();
    // Text that came while the tab was hidden is there too.
    for (let i = 0; i < 40; i += 1) await s.board.control(`diag "line ${i} of the board's text"`);
    await eventually(async () => (await log.inputValue()).includes('line 39 of'), true);
    const text = await log.inputValue();
    assert.ok(text.startsWith('line 0 of') || text.includes('line 0 of'), 'nothing lost');

    // The reader goes to the end once; from then on the view follows new text.
    await log.evaluate((el) => { el.scrollTop = el.scrollHeight; el.dispatchEvent(new Event('scroll')); });
    await new Promise((r) => setTimeout(r, 300));
    for (let i = 40; i < 60; i += 1) {
      await s.board.control(`diag "line ${i} of the board's text"`);
      await eventually(async () => (await log.inputValue()).includes(`line ${i} of`), true);
      await eventually(atEnd, true, 2000);
    }
    if (SHOTS) await s.page.screenshot({ path: join(SHOTS, 'diag-output.png') });

    // Scrolled back, it stays where the reader left it.
    await log.evaluate((el) => { el.scrollTop = 40; el.dispatchEvent(new Event('scroll')); });
    await new Promise((r) => setTimeout(r, 300));
    for (let i = 60; i < 70; i += 1) await s.board.control(`diag "line ${i} of the board's text"`);
    await eventually(async () => (await log.inputValue()).includes('line 69 of'), true);
    await new Promise((r) => setTimeout(r, 400));
    assert.equal((await view()).top, 40);
  } finally {
    await s.end();
  }
});

test('the banner shows on every page while the measuring application runs', async () => {
  const s = await session('autovision');
  const display = (tab) => field(s.page, tab, 'WarningLabel').evaluate((el) => el.style.display);
  try {
    await eventually(() => title(s.page), 'TavroTest : Connected');
    assert.equal(await display(0), 'none');
    await s.board.control('app on');
    await eventually(() => display(0), 'inline', 5000);
    // Each page's label is its own message, so the hidden one may come a moment later.
    await eventually(() => display(1), 'inline', 2000);
    assert.equal(await field(s.page, 0, 'MiravaIsRunning').textContent(),
      'Conflicts with Mirava may occur. We recommend closing Mirava before continuing.');
    if (SHOTS) await s.page.screenshot({ path: join(SHOTS, 'banner.png') });
    await s.board.control('app off');
    await eventually(() => display(1), 'none', 5000);
    await eventually(() => display(0), 'none', 2000);
  } finally {
    await s.end();
  }
});

test('a start-up failure shows its box in the browser and on stderr, and OK ends the run', async () => {
  const dir = mkdtempSync(join(tmpdir(), 'tavro-empty-'));
  mkdirSync(join(dir, 'nothing-here'));
  const app = await startTavroTest(dir);
  const page = await browser.context.newPage();
  try {
    await page.goto(app.url);
    const box = page.locator('.dialog[role="alertdialog"]');
    await box.waitFor();
    assert.equal(await box.locator('.caption-text').textContent(), 'Error');
    const text = (await box.locator('.text').textContent()).trim();
    assert.ok(text.length > 0);
    assert.ok(app.stderr().includes(text.split('\n')[0]), `stderr: ${app.stderr()}`);
    if (SHOTS) await page.screenshot({ path: join(SHOTS, 'startup-error.png') });
    await box.locator('button[data-result="1"]').click();
    assert.equal(await app.exited(), 0);
  } finally {
    await page.close();
    await app.stop();
    rmSync(dir, { recursive: true, force: true });
  }
});
