// What the shell says of its own state, through every way a run can go: the board unplugged and
// back, a board that says it is simulated or says nothing, TavroTest ended by its menu, by a
// signal, by finding no board, or gone without a word; and the tab strip's keyboard.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { mkdirSync, mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { launchBrowser, withSession, withProgramCopy, startTavroTest, field } from './harness.mjs';

const SHOTS = process.env.TAVRO_SCREENSHOT_DIR;
const STAGE = 1;
let browser;

before(async () => { browser = await launchBrowser({ width: 1000, height: 640 }); });
after(async () => { if (browser) await browser.close(); });

// Resolves once the shell shows `state`; fails after `timeout` ms.
const shows = (page, state, timeout = 10000) =>
  page.locator(`#link-state[data-state="${state}"]`).waitFor({ timeout });
const badge = (page) => page.locator('#link-state').textContent();
const reason = (page) => page.locator('#ended-reason').textContent();
const stale = (page, tab) => page.locator(`#page-${tab}`).evaluate(
  (frame) => frame.contentDocument.documentElement.classList.contains('stale'));
const ink = (page, tab, id) => field(page, tab, id).evaluate((el) => getComputedStyle(el).color);
const look = (page, tab, id) => field(page, tab, id).evaluate((el) => {
  const s = getComputedStyle(el);
  return { opacity: s.opacity, cursor: s.cursor };
});

// The end of a run leaves nothing to be taken for current.
async function assertNothingStale(page) {
  assert.equal(await page.getByRole('button', { name: /^STOP/ }).isVisible(), false);
  assert.equal(await page.locator('.dialog, .msgwin').count(), 0);
  assert.equal(await page.locator('#pages').isVisible(), false);
  assert.equal(await page.locator('#tabs').isVisible(), false);
  assert.equal(await page.locator('#board-simulated').count(), 0);
  assert.equal(await page.title(), 'TavroTest : Ended');
  assert.equal(await page.locator('#title').textContent(), 'TavroTest : Ended');
}

test('an unplugged board greys the values with their time, and the replug makes them live',
  () => withSession(browser, { profile: 'autovision', tab: STAGE }, async ({ board, page }) => {
    await field(page, STAGE, 'EStop').waitFor();
    await shows(page, 'live');
    assert.equal(await badge(page), 'Live');
    const liveInk = await ink(page, STAGE, 'RunningTestX');
    assert.equal(await page.locator('#board-simulated').textContent(),
      'Simulated board: autovision');

    await board.control('unplug');
    await shows(page, 'board-lost', 2000);
    assert.equal(await badge(page), 'Board lost');
    assert.match(await page.locator('#stale-note').textContent(),
      /^Board lost \u2014 values as last read at \d\d:\d\d:\d\d$/);
    assert.equal(await stale(page, STAGE), true);
    assert.notEqual(await ink(page, STAGE, 'RunningTestX'), liveInk, 'values greyed');
    assert.deepEqual(await look(page, STAGE, 'XAxisTest'), { opacity: '0.45', cursor: 'not-allowed' });
    assert.equal(await field(page, STAGE, 'XAxisTest').isDisabled(), false, 'clicks still reach the page');
    // A tab shown for the first time now is greyed too, and the mark stays on every tab.
    await page.locator('#tab-3').click();
    assert.equal(await stale(page, 3), true);
    assert.equal(await page.locator('#board-simulated').isVisible(), true);
    if (SHOTS) await page.screenshot({ path: join(SHOTS, 'board-lost.png') });

    await board.control('replug');
    await shows(page, 'live');
    assert.equal(await page.locator('#stale-note').isVisible(), false);
    assert.equal(await stale(page, 3), false);
    assert.equal(await stale(page, STAGE), false);
    assert.equal(await ink(page, STAGE, 'RunningTestX'), liveInk);
  }));

test('the simulated mark follows what the board says after each reconnection',
  () => withSession(browser, { profile: 'servo' }, async ({ board, page }) => {
    const mark = page.locator('#board-simulated');
    await mark.waitFor();
    assert.equal(await mark.textContent(), 'Simulated board: servo');
    if (SHOTS) await page.screenshot({ path: join(SHOTS, 'simulated-board.png') });
    // Once per connection: as many describe requests as times the link was opened.
    const count = async (what) => Number((await board.control(`count ${what}`)).split(' ')[1]);
    const oncePerConnection = async () => assert.equal(await count('describe'), await count('link'));
    await oncePerConnection();

    await board.control('describe off');
    await board.control('unplug');
    await shows(page, 'board-lost');
    await board.control('replug');
    await shows(page, 'live');
    await mark.waitFor({ state: 'detached' });
    await oncePerConnection();

    await board.control('describe on');
    await board.control('unplug');
    await shows(page, 'board-lost');
    await board.control('replug');
    await mark.waitFor();
    await oncePerConnection();
  }));

test('SIGTERM ends the window with its reason, nothing of the run left on it',
  () => withSession(browser, { profile: 'autovision' }, async ({ page, app }) => {
    await shows(page, 'live');
    app.child.kill('SIGTERM');
    await shows(page, 'ended', 3000);
    assert.equal(await badge(page), 'Ended');
    assert.match(await reason(page), /interrupted/);
    await assertNothingStale(page);
    if (SHOTS) await page.screenshot({ path: join(SHOTS, 'ended.png') });
    assert.equal(await app.exited(), 0);
  }));

test('Close asks during a test, and its Yes ends the window as closed',
  () => withProgramCopy((program) =>
    withSession(browser, { profile: 'autovision', program, tab: STAGE },
      async ({ page, app }) => {
        await field(page, STAGE, 'EStop').waitFor();
        await field(page, STAGE, 'XAxisTest').click();
        // The start dialog carries its test's name.
        const start = page.locator('.dialog[role="dialog"]:has(input[type="radio"])');
        assert.equal(await start.locator('.caption-text').textContent(), 'X Axis Test');

        const close = async () => {
          await page.locator('#menu-button').click();
          await page.locator('#menu-close').click();
        };
        const ask = page.locator('.dialog[role="dialog"]', { hasText: 'close TavroTest?' });
        await close();
        assert.match(await ask.textContent(), /The X Axis Test is running/);
        await ask.getByRole('button', { name: 'No' }).click();
        await ask.waitFor({ state: 'detached' });
        assert.equal(await page.locator('#link-state').getAttribute('data-state'), 'live');

        await close();
        await ask.getByRole('button', { name: 'Yes' }).click();
        await shows(page, 'ended');
        assert.equal(await page.locator('#ended-page').getAttribute('data-reason'), 'closed');
        assert.match(await reason(page), /closed from its menu/);
        await assertNothingStale(page);
        assert.equal(await app.exited(), 0);
      })));

test('Close with no test running ends at once as closed', () => withSession(browser,
  { profile: 'manualvision' }, async ({ page, app }) => {
    await shows(page, 'live');
    await page.locator('#menu-button').click();
    await page.locator('#menu-close').click();
    await shows(page, 'ended');
    assert.equal(await page.locator('#ended-page').getAttribute('data-reason'), 'closed');
    assert.equal(await app.exited(), 0);
  }));

test('a TavroTest that vanishes without a word is tried again, then shown as lost',
  () => withSession(browser, { profile: 'autovision' }, async ({ page, app }) => {
    await shows(page, 'live');
    app.child.kill('SIGKILL');
    await shows(page, 'reconnecting');
    assert.equal(await badge(page), 'Reconnecting');
    await shows(page, 'ended', 30000);
    assert.equal(await page.locator('#ended-page').getAttribute('data-reason'), 'lost');
    await assertNothingStale(page);
  }));

// The box of a start-up without a board shows in the browser and on stderr.
test('the start-up that finds no board ends the window naming the folder searched', async () => {
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
    assert.equal(await page.locator('#link-state').getAttribute('data-state'), 'board-lost');
    if (SHOTS) await page.screenshot({ path: join(SHOTS, 'startup-error.png') });
    await box.locator('button[data-result="1"]').click();
    await shows(page, 'ended');
    assert.equal(await page.locator('#ended-page').getAttribute('data-reason'), 'no-board');
    assert.equal(await reason(page), `No board found in ${dir}.`);
    assert.equal(await app.exited(), 0);
  } finally {
    await page.close();
    await app.stop();
    rmSync(dir, { recursive: true, force: true });
  }
});

test('the arrow keys move the focus with the selected tab, and the load is free of CSP errors',
  async () => {
    const errors = [];
    await withSession(browser, { profile: 'autovision' }, async ({ page }) => {
      page.on('console', (m) => { if (m.type() === 'error') errors.push(m.text()); });
      await page.reload();
      await page.locator('#tab-0[aria-selected="true"]').waitFor();
      await field(page, 0, 'WarningLabel').waitFor({ state: 'attached' });
      const focused = () => page.evaluate(() => document.activeElement.id);
      await page.locator('#tab-0').focus();
      await page.keyboard.press('ArrowRight');
      assert.equal(await focused(), 'tab-1');
      assert.equal(await page.locator('#tab-1').getAttribute('aria-selected'), 'true');
      await page.keyboard.press('ArrowLeft');
      await page.keyboard.press('ArrowLeft');
      const last = (await page.locator('.tabs button').count()) - 1;
      assert.equal(await focused(), `tab-${last}`, 'wraps around');
      await page.keyboard.press('Home');
      assert.equal(await focused(), 'tab-0');
      // One tab stop for the strip.
      const stops = await page.locator('.tabs button[tabindex="0"]').count();
      assert.equal(stops, 1);
    });
    assert.deepEqual(errors.filter((e) => /Content Security Policy/.test(e)), []);
  });
