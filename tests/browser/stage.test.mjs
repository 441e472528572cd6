// The guided motion tests through the real window, as a service engineer runs them: the Stage
// tab, a test button, the start dialog's voltage limit, every box answered by its caption, the
// running texts and the title bar's STOP while the axis moves, and the report on disk. TavroTest
// runs from a copy in a scratch folder, since reports go beside the program.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { existsSync, readFileSync } from 'node:fs';
import { join } from 'node:path';
import {
  launchBrowser, withSession, withProgramCopy, eventually, field, answerUntil,
} from './harness.mjs';

const SHOTS = process.env.TAVRO_SCREENSHOT_DIR;
const STAGE = 1;
let browser;

before(async () => { browser = await launchBrowser({ width: 1000, height: 700 }); });
after(async () => { if (browser) await browser.close(); });

// A session on the Stage tab, TavroTest running from a copy in a scratch folder of its own.
const withStage = (profile, body, setUp = []) => withProgramCopy((program, folder) =>
  withSession(browser, { profile, program, tab: STAGE, setUp }, async ({ page, board, app }) => {
    await field(page, STAGE, 'EStop').waitFor();
    await body({ page, folder, board, app });
  }));

// A report as text: UTF-16LE behind its mark.
function readReport(path) {
  const bytes = readFileSync(path);
  assert.deepEqual([...bytes.subarray(0, 2)], [0xff, 0xfe], 'the UTF-16LE mark');
  return bytes.subarray(2).toString('utf16le');
}

// Standard is the choice the start dialog opens with, as an operator leaves it.
const leftStandard = (page) => async () => {
  assert.ok(await page.getByRole('radio', { name: 'Standard' }).isChecked());
};

test('an axis test runs from its button to its report, with the running texts and STOP shown',
  () => withStage('autovision', async ({ page, folder }) => {
    // The page has read the machine once its 200 ms tick has run.
    await eventually(async () => (await field(page, STAGE, 'SettledX').inputValue()) !== '', true);
    if (SHOTS) await page.screenshot({ path: join(SHOTS, 'stage.png') });
    const running = field(page, STAGE, 'RunningTestX');
    assert.equal(await running.inputValue(), 'Ready');
    const stop = page.getByRole('button', { name: /^STOP/ });
    const report = join(folder, 'AxisTest_X_0.dat');
    let sawRamp = false;
    await field(page, STAGE, 'XAxisTest').click();
    const boxes = await answerUntil(page, async () => existsSync(report)
      && (await page.getByRole('alertdialog').count()) === 0 && !(await stop.isVisible()),
    { onStart: leftStandard(page), onStep: async () => {
      // A shot once the bias has climbed a few steps, with the axis on its way.
      const mb = /^MB: (\d+)$/.exec(await running.inputValue());
      if (sawRamp || !mb || Number(mb[1]) < 1000) return;
      sawRamp = true;
      assert.match(await stop.textContent(), /X Axis/, 'the title bar names the running test');
      if (SHOTS) await page.screenshot({ path: join(SHOTS, 'stage-running.png') });
    } });
    assert.ok(sawRamp, 'the running text showed the bias while the axis moved');
    assert.equal(boxes[0], '[start dialog]');
    assert.ok(boxes.some((b) => b.includes('Did the machine move correctly?')), boxes.join('\n'));
    const body = readReport(report);
    assert.equal((body.match(/Correct Distance: Yes/g) || []).length, 2, body);
    assert.ok(body.includes('\r\n'), 'CR LF line ends');
    assert.ok(existsSync(join(folder, 'AxisTest_X_0.csv')), 'the trace beside the report');
    await eventually(() => running.inputValue(), 'Ready', 5000);
  }));

test('a platen test runs the count typed into the page and reports each cycle',
  () => withStage('servo', async ({ page, folder }) => {
    // What was typed lasts until the page's next push of its values; when one came between the
    // typing and the click, the box offers another count, and the operator cancels and types
    // again.
    const count = field(page, STAGE, 'PlatenCount');
    for (let attempt = 1; ; attempt += 1) {
      await count.fill('2');
      await count.blur();  // a text box's change reaches the program on blur
      await field(page, STAGE, 'PlatenTest').click();
      const box = page.getByRole('alertdialog');
      await box.waitFor();
      if ((await box.textContent()).includes(' The Platen test will run 2 ')) break;
      assert.ok(attempt < 3, await box.textContent());
      await box.getByRole('button', { name: 'Cancel' }).click();
      await box.waitFor({ state: 'detached' });
      await eventually(() => field(page, STAGE, 'PlatenStatus').inputValue(), 'Ready', 5000);
    }
    const report = join(folder, 'PlatenTest_0.dat');
    const boxes = await answerUntil(page, async () => existsSync(report)
      && (await page.getByRole('alertdialog').count()) === 0, { onStart: leftStandard(page) });
    assert.ok(boxes.some((b) => b.includes(' The Platen test will run 2 ')), boxes.join('\n'));
    assert.ok(boxes.some((b) => b.includes('Platen test completed cycle 2')), boxes.join('\n'));
    await eventually(() => field(page, STAGE, 'PlatenStatus').inputValue(), 'Ready', 5000);
  }));

// The last tuning record the board took for axis `axis`, as hex, from its log of recent transfers
// (a SetAxisPid packet: code 0x73, the axis, then the record). A take-over record carries the
// largest following error, 7fffffff; an axis's own record does not.
async function lastRecordOf(board, axis) {
  const answer = await board.control('recent 0x73');
  const mine = answer.split(' ').slice(1).map((t) => t.split(':')[2])
    .filter((bytes) => bytes.slice(2, 4) === axis.toString(16).padStart(2, '0'));
  return mine.at(-1) || '';
}
const handedBack = async (board) => !(await lastRecordOf(board, 0)).includes('7fffffff');

// Waits until the X axis test drives: its running text shows a bias of at least 500.
async function startDrivingX(page, limit = 'Standard') {
  await field(page, STAGE, 'XAxisTest').click();
  const start = page.getByRole('dialog');
  await start.getByRole('radio', { name: limit }).check();
  await start.getByRole('button', { name: 'OK' }).click();
  await eventually(async () => {
    const mb = /^MB: (\d+)$/.exec(await field(page, STAGE, 'RunningTestX').inputValue());
    return Boolean(mb) && Number(mb[1]) >= 500;
  }, true, 30000);
}

// The axis is blocked, so the ramp climbs for 9 s
// towards the highest limit: whatever the machine's load, only the missing browser can end it.
test('a tab closed mid ramp stops the drive; the tab opened again takes the test up',
  () => withStage('autovision', async ({ page, folder, board, app }) => {
    await startDrivingX(page, 'No Limit');
    assert.equal(await handedBack(board), false, 'driven open loop');
    await page.close();
    // No browser: the axis is handed back within about two seconds.
    await eventually(() => handedBack(board), true, 10000);
    const again = await browser.context.newPage();
    try {
      await again.goto(app.url);
      // The question waited for a browser, and the title bar still offers the running test's STOP.
      const question = again.getByRole('alertdialog');
      await question.waitFor();
      assert.match(await question.textContent(), /X axis position moved/);
      assert.match(await again.getByRole('button', { name: /^STOP/ }).textContent(), /X Axis Test/);
      const report = join(folder, 'AxisTest_X_0.dat');
      await answerUntil(again, async () => existsSync(report)
        && (await again.getByRole('alertdialog').count()) === 0);
      const body = readReport(report);
      const negative = body.split('(+)')[0];
      assert.match(negative, /Manually Stopped: Yes/, 'stopped for want of a browser');
      assert.doesNotMatch(negative, /VOLTAGE LIMIT/);
      assert.equal(await handedBack(board), true);
    } finally {
      await again.close();
    }
  }, ['block x']));

test('the window closed at a question ends the program with the axis handed back',
  () => withStage('autovision', async ({ page, folder, board, app }) => {
    await startDrivingX(page);
    const question = page.getByRole('alertdialog');
    await question.waitFor({ timeout: 60000 });
    // The window's frame stays in reach above the question: its menu opens over the box.
    await page.locator('#menu-button').click();
    if (SHOTS) await page.screenshot({ path: join(SHOTS, 'stage-question-menu.png') });
    await page.locator('#menu-close').click();
    // Close during a test asks first, naming the test.
    const ask = page.locator('.dialog[role="dialog"]', { hasText: 'Stop it and close TavroTest?' });
    assert.match(await ask.textContent(), /X Axis Test/);
    await ask.getByRole('button', { name: 'Yes' }).click();
    assert.equal(await app.exited(), 0);
    assert.equal(await handedBack(board), true);
    // The question got the cautious answer and the report tells what happened: the positive run
    // never began.
    const body = readReport(join(folder, 'AxisTest_X_0.dat'));
    const positive = body.split('(+)')[1];
    assert.match(positive, /Starting Voltage: 0\r\n/);
    assert.match(positive, /Correct Direction: No\r\n/);
    await page.locator('#link-state[data-state="ended"]').waitFor();
    assert.equal(await page.getByRole('alertdialog').count(), 0);
    assert.equal(await page.getByRole('button', { name: /^STOP/ }).isVisible(), false);
    assert.equal(await page.locator('#ended-page').getAttribute('data-reason'), 'closed');
  }));
