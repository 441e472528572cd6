// The guided motion tests through the real window, as a service engineer runs them: the Stage
// tab, a test button, the start dialog's voltage limit, every box answered by its caption, the
// running texts and the title bar's STOP while the axis moves, and the report on disk. TavroTest
// runs from a copy in a scratch folder, since reports go beside the program.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { copyFileSync, existsSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { launchBrowser, withSession, eventually, field, answerUntil } from './harness.mjs';

const SHOTS = process.env.TAVRO_SCREENSHOT_DIR;
const STAGE = 1;
let browser;

before(async () => { browser = await launchBrowser({ width: 1000, height: 700 }); });
after(async () => { if (browser) await browser.close(); });

// A session on the Stage tab, TavroTest running from a copy in a scratch folder of its own.
async function withStage(profile, body) {
  const folder = mkdtempSync(join(tmpdir(), 'tavro-program-'));
  const program = join(folder, 'tavrotest');
  copyFileSync(process.env.TAVROTEST, program);
  try {
    await withSession(browser, { profile, program, tab: STAGE }, async ({ page }) => {
      await field(page, STAGE, 'EStop').waitFor();
      await body({ page, folder });
    });
  } finally {
    rmSync(folder, { recursive: true, force: true });
  }
}

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
