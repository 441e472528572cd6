// TavroTest itself in a real browser, against the simulated board: what Board Information shows
// for each kind of machine, the title through a lost and a refused link, Diag Output's log and
// scrolling, and the banner.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { join } from 'node:path';
import { launchBrowser, eventually, field, roundTrip, withSession as session } from './harness.mjs';

const SHOTS = process.env.TAVRO_SCREENSHOT_DIR;
let browser;

before(async () => { browser = await launchBrowser(); });
after(async () => { if (browser) await browser.close(); });

const title = (page) => page.locator('#title').textContent();

// Runs `body` with a board of `profile`, TavroTest against it, and a page showing its window
// once it is connected and its first page is there.
const withSession = (profile, body) => session(browser, { profile }, async (s) => {
  await field(s.page, 0, 'WarningLabel').waitFor({ state: 'attached' });
  await body(s);
});

// The `board` answer of the simulator as the values Board Information should show, by element
// id. A size the answer does not carry ("-") shows as TavroTest takes it: 0, and for the page
// and transfer sizes the 32 and 64 that every such board has.
function expectedFields(answer, chips) {
  const b = {};
  for (const m of answer.matchAll(/(\w+)=("[^"]*"|\S+)/g)) b[m[1]] = m[2].replace(/^"|"$/g, '');
  const [user, machine, update, pageSize, maxRW] = b.eeprom.split(',');
  const or = (v, d) => (v === '-' ? d : v);
  const out = {
    FirmwareName: b.firmware, FirmwareVersion: String(Number(b.version)), BoardRevision: b.revision,
    SerialNumber: b.serial, MachineName: b.machine, ModelName: b.model, EEPROMUser: user,
    EEPROMMachine: or(machine, '0'), EEPROMUpdate: or(update, '0'),
    EEPROMPage: or(pageSize, '32'), EEPROMMaxRW: or(maxRW, '64'),
  };
  for (let chip = 0; chip < chips; chip += 1) {
    const [family, motor, axes, attributes, customer, major, minor] = b[`chip${chip}`].split(',');
    const s = chip ? '1' : '';
    Object.assign(out, {
      [`PMDName${s}`]: `MC${family}${motor}${axes}0`, [`PMDFamily${s}`]: family,
      [`PMDMotor${s}`]: motor, [`PMDAxes${s}`]: axes, [`PMDAttributes${s}`]: attributes,
      [`PMDCustomer${s}`]: customer, [`PMDVersion${s}`]: `${major}.${minor}`,
    });
  }
  return { fields: out, copy: b.eeprom.split(',')[5] === '1', fpga: b.fpga };
}

test('Board Information shows what each kind of board says about itself', async () => {
  const cases = [
    { profile: 'autovision', chips: 2, fpga: (f) => f, shot: 'board-information.png',
      tabs: ['Board Information', 'Stage', 'Pendant', 'Lights', 'Readings', 'Probes',
        'Diag Output'] },
    { profile: 'servo', chips: 1, fpga: () => undefined, shot: 'board-information-servo.png',
      tabs: ['Board Information', 'Stage', 'Pendant', 'Lights', 'Probes', 'Diag Output'] },
    { profile: 'manualvision', chips: 0, fpga: (f) => f,
      tabs: ['Board Information', 'Stage', 'Lights', 'Readings', 'Probes', 'Diag Output'] },
    // Below protocol 5 a manual-vision board has no FPGA word: "N/A".
    { profile: 'manualvision-pv4', chips: 0, fpga: () => 'N/A',
      shot: 'board-information-manual-vision.png',
      tabs: ['Board Information', 'Stage', 'Lights', 'Readings', 'Probes', 'Diag Output'] },
  ];
  for (const c of cases) {
    await withSession(c.profile, async ({ board, page }) => {
      const { fields, copy, fpga } = expectedFields(await board.control('board'), c.chips);
      const value = (id) => field(page, 0, id).inputValue();
      await eventually(() => value('FirmwareName'), fields.FirmwareName);
      for (const [id, expected] of Object.entries(fields)) {
        assert.equal(await value(id), expected, `${c.profile} ${id}`);
      }
      assert.equal(await field(page, 0, 'EEPROMCopy').isChecked(), copy);
      const fpgaShown = c.fpga(fpga);
      if (fpgaShown === undefined) assert.equal(await field(page, 0, 'FPGAVersion').count(), 0);
      else assert.equal(await value('FPGAVersion'), fpgaShown);
      // No element of a chip the board does not have.
      for (const sfx of ['', '1'].slice(c.chips)) {
        assert.equal(await field(page, 0, `PMDName${sfx}`).count(), 0);
      }
      const tabs = await page.locator('.tabs button').allTextContents();
      assert.deepEqual(tabs, c.tabs, c.profile);
      if (SHOTS && c.shot) await page.screenshot({ path: join(SHOTS, c.shot) });
    });
  }
});

test('a lost board turns the title and comes back, pages reset', () => withSession('autovision',
  async ({ board, page }) => {
    const identityReads = async () => Number((await board.control('count 0x60')).split(' ')[1]);
    const before = await identityReads();
    await board.control('unplug');
    await eventually(() => title(page), 'TavroTest : Disconnected');
    if (SHOTS) await page.screenshot({ path: join(SHOTS, 'disconnected.png') });

    await board.control('replug');
    await eventually(() => title(page), 'TavroTest : Connected');
    // Board Information read its static data again.
    assert.equal(await identityReads(), before + 1);
  }));

test('a board of another kind plugged in meanwhile stays disconnected', () => withSession(
  'autovision', async ({ board, page }) => {
    await board.control('unplug');
    await eventually(() => title(page), 'TavroTest : Disconnected');
    await board.control('profile manualvision');
    const opens = async () => Number((await board.control('count link')).split(' ')[1]);
    const before = await opens();
    await board.control('replug');
    // Two attempts at the board of the wrong kind, and the title stays.
    await eventually(async () => (await opens()) >= before + 2, true);
    assert.equal(await title(page), 'TavroTest : Disconnected');

    await board.control('profile autovision');
    await eventually(() => title(page), 'TavroTest : Connected');
  }));

test('Diag Output collects the board text, follows the end, and stays put when scrolled back',
  () => withSession('autovision', async ({ board, page }) => {
    // The last tab, whatever the family has before it.
    await eventually(async () => (await page.locator('.tabs button').allTextContents()).at(-1),
      'Diag Output');
    const diagTab = (await page.locator('.tabs button').count()) - 1;
    const log = field(page, diagTab, 'UsbSerial');
    const has = (i) => async () => (await log.inputValue()).includes(`line ${i} of`);
    const diag = (i) => board.control(`diag "line ${i} of the board's text"`);
    const scrollTo = async (top) => {
      await log.evaluate((el, t) => { el.scrollTop = t; el.dispatchEvent(new Event('scroll')); }, top);
      await roundTrip(page);  // the report has reached the program
    };
    await page.locator(`#tab-${diagTab}`).click();
    // Text that came while the tab was hidden is there too.
    for (let i = 0; i < 40; i += 1) await diag(i);
    await eventually(has(39), true);
    assert.ok(await has(0)(), 'nothing lost');

    // The reader goes to the end once; from then on the view follows new text.
    await scrollTo(1e6);
    const atEnd = () => log.evaluate((el) => el.scrollHeight - el.scrollTop <= el.clientHeight);
    for (let i = 40; i < 50; i += 1) {
      await diag(i);
      await eventually(has(i), true);
      await eventually(atEnd, true);
    }
    if (SHOTS) await page.screenshot({ path: join(SHOTS, 'diag-output.png') });

    // Scrolled back, it stays where the reader left it.
    await scrollTo(40);
    for (let i = 50; i < 60; i += 1) await diag(i);
    await eventually(has(59), true);
    await roundTrip(page);  // whatever the program sent with the last line has been shown
    assert.equal(await log.evaluate((el) => el.scrollTop), 40);
  }));

test('the banner shows on every page while the measuring application runs', () => withSession(
  'autovision', async ({ board, page }) => {
    const display = (tab) => field(page, tab, 'WarningLabel').evaluate((el) => el.style.display);
    assert.equal(await display(0), 'none');
    await board.control('app on');
    // Each page's label is its own message, so the hidden one may come a moment later.
    await eventually(() => display(0), 'inline');
    await eventually(() => display(1), 'inline');
    assert.equal(await field(page, 0, 'MiravaIsRunning').textContent(),
      'Conflicts with Mirava may occur. We recommend closing Mirava before continuing.');
    if (SHOTS) await page.screenshot({ path: join(SHOTS, 'banner.png') });
    await board.control('app off');
    await eventually(() => display(1), 'none');
    await eventually(() => display(0), 'none');
  }));
