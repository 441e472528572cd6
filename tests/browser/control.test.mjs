// One operator at a time, with two browsers on one TavroTest against the simulated board: the
// tab that starts a test runs it, the other watches. The watcher cannot answer the operator's
// dialogs or start a test, can press STOP, and can take control after confirming, after which
// the former operator is the one refused.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { existsSync } from 'node:fs';
import { join } from 'node:path';
import {
  launchBrowser, startBoard, startTavroTest, withProgramCopy, eventually, field, answerUntil,
} from './harness.mjs';

const SHOTS = process.env.TAVRO_SCREENSHOT_DIR;
const STAGE = 1;
let operatorBrowser;
let watcherBrowser;

before(async () => {
  operatorBrowser = await launchBrowser({ width: 1000, height: 700 });
  watcherBrowser = await launchBrowser({ width: 1000, height: 700 });
});
after(async () => {
  if (operatorBrowser) await operatorBrowser.close();
  if (watcherBrowser) await watcherBrowser.close();
});

async function openStage(browser, url) {
  const page = await browser.context.newPage();
  await page.goto(url);
  await page.locator('body[data-control="free"]').waitFor();
  await page.locator(`#tab-${STAGE}`).click();
  await field(page, STAGE, 'EStop').waitFor();
  return page;
}

// The last tuning record the board took for the X axis carries no take-over's following error.
async function xHandedBack(board) {
  const answer = await board.control('recent 0x73');
  const records = answer.split(' ').slice(1).map((t) => t.split(':')[2])
    .filter((bytes) => bytes.slice(2, 4) === '00');
  return !(records.at(-1) || '').includes('7fffffff');
}

// Until the running text of the X axis shows a bias of at least 500: the axis is driven. (The
// page's policy forbids a predicate evaluated in it, so the value is read until it holds.)
function driving(page) {
  return eventually(async () => {
    const mb = /^MB: (\d+)$/.exec(await field(page, STAGE, 'RunningTestX').inputValue());
    return Boolean(mb) && Number(mb[1]) >= 500;
  }, true, 60000);
}

// What a refused answer leaves in a box of `page`.
const refusedNote = (box) => box.locator('.control-refused');

test('a watcher is refused, may STOP, and takes control after confirming',
  () => withProgramCopy(async (program, folder) => {
    // A blocked axis: the ramp climbs until something ends it, whatever the machine's load.
    const board = await startBoard('autovision');
    await board.control('block x');
    const app = await startTavroTest(board.dir, program);
    try {
      const operator = await openStage(operatorBrowser, app.url);
      const watcher = await openStage(watcherBrowser, app.url);

      // The operator starts; the watcher is told who runs what, and its answer is refused.
      await field(operator, STAGE, 'XAxisTest').click();
      await operator.locator('body[data-control="yours"]').waitFor();
      const notice = watcher.locator('#control-notice');
      await notice.waitFor();
      assert.match(await notice.textContent(), /Test run from another window.*X Axis Test/);
      assert.equal(await operator.locator('#control-notice').isVisible(), false);
      const start = watcher.locator('[role="dialog"]:has(input[type="radio"])');
      await start.getByRole('button', { name: 'OK' }).click();
      await refusedNote(start).waitFor();
      assert.equal(await refusedNote(start).textContent(), 'Test run from another window: X Axis Test');
      assert.equal(await start.getByRole('button', { name: 'OK' }).isEnabled(), true,
        'the box stays usable for whoever may answer it');
      if (SHOTS) {
        // The notice's flash over first, so that the shot shows what a watcher sees most of the time.
        await notice.evaluate((el) => Promise.all(el.getAnimations().map((a) => a.finished)));
        await watcher.screenshot({ path: join(SHOTS, 'control-watcher.png') });
      }

      // The operator's own choice goes through; the watcher's STOP ends the drive.
      const operatorStart = operator.locator('[role="dialog"]:has(input[type="radio"])');
      await operatorStart.getByRole('radio', { name: 'No Limit' }).check();
      await operatorStart.getByRole('button', { name: 'OK' }).click();
      await driving(watcher);
      // While the axis moves, another test button of the watcher's is refused, and it is told so.
      const refusals = Number(await notice.getAttribute('data-refused'));
      await field(watcher, STAGE, 'YAxisTest').click();
      await watcher.locator(`#control-notice[data-refused="${refusals + 1}"]`).waitFor();
      assert.equal(await xHandedBack(board), false, 'driven by the test');
      await watcher.getByRole('button', { name: /^STOP/ }).click();
      await eventually(() => xHandedBack(board), true, 10000);

      // The stopped run asks the operator; the watcher's answer is refused.
      const question = watcher.getByRole('alertdialog');
      await question.waitFor();
      await question.locator('.buttons button').first().click();
      await refusedNote(question).waitFor();

      // The watcher takes control after a question that names the test.
      await watcher.locator('#control-take').click();
      const confirm = watcher.getByRole('dialog', { name: 'Take control' });
      assert.match(await confirm.textContent(), /Take control of the X Axis Test from the other window\?/);
      await confirm.getByRole('button', { name: 'Yes' }).click();
      await watcher.locator('body[data-control="yours"]').waitFor();
      await operator.locator('#control-notice').waitFor();
      assert.equal(await watcher.locator('#control-notice').isVisible(), false);

      // Now the former operator is the one refused, and the new one answers.
      const operatorQuestion = operator.getByRole('alertdialog');
      await operatorQuestion.locator('.buttons button').first().click();
      await refusedNote(operatorQuestion).waitFor();
      const report = join(folder, 'AxisTest_X_0.dat');
      const boxes = await answerUntil(watcher, async () => existsSync(report)
        && (await watcher.getByRole('alertdialog').count()) === 0
        && (await watcher.locator('body[data-control="free"]').count()) === 1);
      assert.ok(boxes.length >= 1, 'the new operator answered the open question');
      await operator.locator('body[data-control="free"]').waitFor();
      assert.equal(await operator.locator('#control-notice').isVisible(), false,
        'nobody holds control once the test has ended');
    } finally {
      await app.stop();
      await board.stop();
    }
  }));
