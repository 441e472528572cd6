// The report viewer through the real window: an X axis test run from the Stage tab is listed
// first under "Reports..." and its trace plotted exactly as the .csv holds it; after the
// simulator was told to raise X's friction, a second X axis test shows in the axis history as a
// drift of the starting voltage. TavroTest runs from a copy in a scratch folder, since reports go
// beside the program.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { copyFileSync, existsSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { launchBrowser, withSession, eventually, field, answerUntil } from './harness.mjs';

const SHOTS = process.env.TAVRO_SCREENSHOT_DIR;
const STAGE = 1;
// The simulator's factor on X's dead band for the second run. The axis test's bias climbs in
// steps of 250: on the autovision profile X starts at 1250 (factor 1), 1500 (3: +20%, under the
// viewer's default drift threshold of 25%), 1750 (4) or 2000 (5: +60%, well past it).
const FRICTION = 5;
let browser;

before(async () => { browser = await launchBrowser({ width: 1000, height: 640 }); });
after(async () => { if (browser) await browser.close(); });

// Runs an X axis test from its button until its report and trace are on disk and the page is
// ready again.
async function runAxisTest(page, folder, n) {
  const report = join(folder, `AxisTest_X_${n}.dat`);
  const stop = page.getByRole('button', { name: /^STOP/ });
  await field(page, STAGE, 'XAxisTest').click();
  await answerUntil(page, async () => existsSync(report)
    && (await page.getByRole('alertdialog').count()) === 0 && !(await stop.isVisible()));
  assert.ok(existsSync(join(folder, `AxisTest_X_${n}.csv`)), 'the trace beside the report');
  await eventually(() => field(page, STAGE, 'RunningTestX').inputValue(), 'Ready', 5000);
}

function startingVoltages(folder, n) {
  const text = readFileSync(join(folder, `AxisTest_X_${n}.dat`)).subarray(2).toString('utf16le');
  return [...text.matchAll(/Starting Voltage: (-?\d+)/g)].map((m) => Number(m[1]));
}

async function openViewer(page) {
  await page.locator('#menu-button').click();
  await page.locator('#menu-reports').click();
  const panel = page.getByRole('dialog', { name: 'Reports' });
  await panel.waitFor();
  return panel;
}

test('the viewer lists a test run a moment ago, plots its trace and marks a caused drift', () => {
  const folder = mkdtempSync(join(tmpdir(), 'tavro-program-'));
  const program = join(folder, 'tavrotest');
  copyFileSync(process.env.TAVROTEST, program);
  return withSession(browser, { profile: 'autovision', program, tab: STAGE },
    async ({ page, board }) => {
      await eventually(async () => (await field(page, STAGE, 'SettledX').inputValue()) !== '',
        true);
      await runAxisTest(page, folder, 0);

      // Listed first, with both files; its trace plotted row for row as the .csv holds it.
      const panel = await openViewer(page);
      const first = panel.locator('.viewer-list tbody tr').first();
      await eventually(() => first.getAttribute('data-base'), 'AxisTest_X_0');
      assert.equal(await first.locator('.viewer-badge').count(), 0);
      await first.click();
      await panel.locator('.viewer-trace .uplot').waitFor();
      const csv = readFileSync(join(folder, 'AxisTest_X_0.csv'), 'latin1').trim().split(/\r?\n/);
      // A trace of the simulated board says so in its first line.
      assert.equal(csv.shift(), '# board: simulated autovision');
      assert.equal(csv[0], 'time,bias,linear,rotary,limit');
      const rows = csv.slice(1).map((line) => line.split(',').map(Number));
      assert.ok(rows.length > 50, `${rows.length} rows`);
      const data = await page.evaluate(() => document.querySelector('.viewer-trace').uplot.data);
      // The plot's columns: time, linear, rotary, bias, limit.
      assert.deepEqual(data, [0, 2, 3, 1, 4].map((c) => rows.map((r) => r[c])));
      assert.match(await panel.locator('.viewer-text').textContent(), /X Axis \(-\)/);
      assert.equal(await panel.getByRole('link', { name: 'Download .csv' }).getAttribute('href'),
        `/report-file?token=${new URL(page.url()).searchParams.get('token')}`
        + '&name=AxisTest_X_0&ext=csv');
      const download = await page.evaluate(async () => {
        const r = await fetch(document.querySelector('a.viewer-download[href*="ext=csv"]').href);
        return [r.status, await r.text()];
      });
      assert.deepEqual(download, [200, readFileSync(join(folder, 'AxisTest_X_0.csv'), 'latin1')]);
      if (SHOTS) await page.screenshot({ path: join(SHOTS, 'reports.png') });
      // The filter by test: no limit test was run.
      const kind = panel.getByRole('combobox', { name: 'Test' });
      await kind.selectOption('limit');
      assert.equal(await panel.locator('.viewer-list tbody tr').count(), 0);
      await kind.selectOption('');
      assert.equal(await panel.locator('.viewer-list tbody tr').count(), 1);
      await panel.getByRole('button', { name: 'Close' }).click();
      await panel.waitFor({ state: 'hidden' });

      // The second run against three times the friction.
      await board.control(`friction x ${FRICTION}`);
      await runAxisTest(page, folder, 1);
      const before = startingVoltages(folder, 0);
      const afterward = startingVoltages(folder, 1);
      console.log(`starting voltages (-, +): friction 1: ${before}; ${FRICTION}: ${afterward}`);

      await openViewer(page);
      await page.getByRole('tab', { name: 'Axis history' }).click();
      const history = page.locator('.viewer-history-grid tbody tr');
      await eventually(() => history.count(), 2);
      assert.equal(await page.locator('.viewer-history-bar select').inputValue(), 'X');
      assert.equal(await page.getByLabel('Drift threshold (%)').inputValue(), '25');
      assert.deepEqual(await history.evaluateAll((trs) => trs.map((tr) => tr.dataset.base)),
        ['AxisTest_X_0', 'AxisTest_X_1']);
      const cells = (row) => history.nth(row).locator('td[data-series^="Start"]')
        .evaluateAll((tds) => tds.map((td) => [Number(td.textContent),
          td.classList.contains('drift')]));
      assert.deepEqual(await cells(0), before.map((v) => [v, false]));
      // A direction is marked where its starting voltage moved more than 25%.
      const moved = before.map((v, d) => Math.abs(afterward[d] - v) / Math.abs(v) > 0.25);
      assert.ok(moved.every(Boolean),
        `the friction moved the starting voltages ${before} -> ${afterward}`);
      assert.deepEqual(await cells(1), afterward.map((v, d) => [v, moved[d]]));
      const marks = await page.evaluate(() => document.querySelector('.viewer-history-plot').drift);
      assert.deepEqual(marks,
        [{ series: 'Start \u2212', index: 1 }, { series: 'Start +', index: 1 }]);

      // A higher threshold takes the marks away.
      await page.getByLabel('Drift threshold (%)').fill('1000');
      await eventually(() => page.locator('.viewer-history-grid td.drift').count(), 0);
      await page.getByLabel('Drift threshold (%)').fill('25');
      await eventually(() => page.locator('.viewer-history-grid td.drift').count(), 2);
      if (SHOTS) await page.screenshot({ path: join(SHOTS, 'axis-history.png') });
      // Escape closes the panel, and is not the page's cancel: the Stage page stays as it was.
      await page.keyboard.press('Escape');
      await page.getByRole('dialog', { name: 'Reports' }).waitFor({ state: 'hidden' });
      assert.equal(await field(page, STAGE, 'RunningTestX').inputValue(), 'Ready');
    }).finally(() => rmSync(folder, { recursive: true, force: true }));
});
