// The simulator's panel in a real browser: what the board sees shows on the page (TavroTest's
// transfers among it), the page's controls reach the board (checked through the control socket,
// not the panel), a fault script runs from it, and its token, host and origin checks refuse
// strangers. A screenshot of it with TAVRO_SCREENSHOT_DIR=<folder> in the environment.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { request } from 'node:http';
import { join } from 'node:path';
import { launchBrowser, startBoard, startTavroTest, eventually } from './harness.mjs';

const SHOTS = process.env.TAVRO_SCREENSHOT_DIR;
let browser;

before(async () => { browser = await launchBrowser({ width: 1280, height: 1180 }); });
after(async () => { if (browser) await browser.close(); });

// One plain HTTP exchange with the panel; resolves with the status.
function statusOf(url, { method = 'GET', origin, host, body } = {}) {
  return new Promise((resolve, reject) => {
    const headers = {};
    if (origin) headers.Origin = origin;
    if (host) headers.Host = host;
    const req = request(url, { method, headers }, (res) => {
      res.resume();
      res.on('end', () => resolve(res.statusCode));
    });
    req.on('error', reject);
    req.end(body);
  });
}

async function withPanel(profile, body) {
  const board = await startBoard(profile, ['--panel', '0']);
  const [, url] = await board.printed(/^tavrosim panel: (http:\/\/127\.0\.0\.1:\d+\/\?token=[0-9a-f]{32})$/m);
  const page = await browser.context.newPage();
  try {
    await page.goto(url);
    await page.locator('body[data-ready="true"]').waitFor();
    await body({ board, page, url });
  } finally {
    await page.close();
    await board.stop();
  }
}

const stateWord = async (board, word) => (await board.control('state')).match(new RegExp(` ${word}=(\\S+)`))[1];

test('the panel shows the board and works it with the control commands', () =>
  withPanel('autovision', async ({ board, page }) => {
    const cell = (axis, column) => page.locator(`#axis-${axis} .c-${column}`);
    assert.match(await page.locator('#profile-name').textContent(), /^autovision · Auto Vision 2\.30/);
    await eventually(() => cell('x', 'pos').textContent(), '150.000 mm');
    assert.equal(await cell('y', 'held').textContent(), 'its own record');
    assert.match(await page.locator('#link-badge').textContent(), /^plugged in/);

    // What a person does at the machine reaches the board.
    await page.locator('#estop').click();
    await eventually(() => stateWord(board, 'estop'), 'on');
    await eventually(() => page.locator('#estop').getAttribute('aria-pressed'), 'true');
    const b3 = page.locator('#b3');
    await b3.dispatchEvent('pointerdown');
    await eventually(() => stateWord(board, 'inputs'), '2');
    await b3.dispatchEvent('pointerup');
    await eventually(() => stateWord(board, 'inputs'), 'none');
    await page.locator('#rail-3').fill('7');
    await eventually(async () => (await board.control('supply 3')).startsWith('ok supply 3 +7.00%'), true);
    await eventually(() => page.locator('#rail-3-v').textContent(), '+7.00 %');
    await page.locator('#light-count').fill('20');
    await page.locator('#light-count').press('Enter');
    await eventually(() => stateWord(board, 'lights'), '20');

    // And what the board does shows on the page: an axis placed, a test's drive, a transfer.
    await board.control('place y 42.5');
    await eventually(() => cell('y', 'pos').textContent(), '42.500 mm');
    await board.control('friction z 2.5');
    await eventually(() => page.locator('#friction-z-v').textContent(), '×2.5');

    // A fault script from the panel: it says what it does and that it waits for its moment.
    await page.locator('#script-name').selectOption('stall-mid-move');
    assert.match(await page.locator('#script-summary').textContent(), /blocks the axis/);
    await page.locator('#script-start').click();
    await eventually(() => board.control('script'), 'ok script=stall-mid-move step=0/1');
    await eventually(() => page.locator('#script-badge').isVisible(), true);
    assert.match(await page.locator('#script-state').textContent(), /^stall-mid-move, step 0 of 1/);

    // The control line of the page is the same language.
    await page.locator('#command').fill('temp 2 61.5');
    await page.locator('#command').press('Enter');
    await eventually(() => page.locator('#answer').textContent(), '> temp 2 61.5\nok temp 2 61.5');
    await eventually(() => page.locator('#temp-2-v').textContent(), '61.5 °C');
    await page.locator('#command').fill('');
    await page.locator('#estop').click();
    await eventually(() => stateWord(board, 'estop'), 'off');
    // TavroTest connects: the board's transfers show as they come.
    const app = await startTavroTest(board.dir);
    try {
      await eventually(async () => (await page.locator('#transfers tbody tr').count()) > 5, true);
      await eventually(async () => /1 connected/.test(await page.locator('#link-badge').textContent()), true);
      // Its polls follow the one describe request it makes on connecting.
      await eventually(() => page.locator('#transfers tbody tr').first().locator('td').nth(2).textContent(), 'normal');
      if (SHOTS) await page.screenshot({ path: join(SHOTS, 'simulator-panel.png'), fullPage: true });
    } finally {
      await app.stop();
    }


    // Unplugged from the panel, the board's entry goes; plugged in again, it comes back.
    await page.locator('#unplug').click();
    await eventually(async () => (await board.control('status')).includes('plugged=no'), true);
    await eventually(() => page.locator('#link-badge').textContent(), 'unplugged');
    await page.locator('#unplug').click();
    await eventually(async () => (await board.control('status')).includes('plugged=yes'), true);
  }));

test('the panel refuses requests without its token, host or origin', () =>
  withPanel('servo', async ({ url }) => {
    const base = new URL(url);
    const token = base.searchParams.get('token');
    const at = (path, t = token) => `http://127.0.0.1:${base.port}${path}?token=${t}`;
    const self = `http://127.0.0.1:${base.port}`;
    assert.equal(await statusOf(at('/state')), 200);
    assert.equal(await statusOf(at('/state', '0'.repeat(32))), 403, 'a wrong token');
    assert.equal(await statusOf(`http://127.0.0.1:${base.port}/state`), 403, 'no token');
    assert.equal(await statusOf(at('/state'), { host: `localhost:${base.port}` }), 200);
    assert.equal(await statusOf(at('/state'), { host: `panel.example:${base.port}` }), 403,
      'a name of another site that resolves here');
    assert.equal(await statusOf(at('/command'), { method: 'POST', origin: self, body: 'status' }), 200);
    assert.equal(await statusOf(at('/command'), { method: 'POST', body: 'estop on' }), 403, 'no origin');
    assert.equal(await statusOf(at('/command'), { method: 'POST', origin: 'http://evil.example', body: 'estop on' }), 403);
    assert.equal(await statusOf(at('/command'), { method: 'GET' }), 405);
    assert.equal(await statusOf(at('/command'), { method: 'POST', origin: self, body: 'a\nb' }), 400, 'one line only');
    assert.equal(await statusOf(at('/index.html.bak')), 404);
  }));
