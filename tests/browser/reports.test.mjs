// The report viewer through the real window: an X axis test run from the Stage tab is listed
// first under "Reports..." with its outcome and its trace plotted exactly as the .csv holds it;
// a test cancelled in its start dialog is listed as cancelled and greyed in the axis history,
// where it is neither baseline nor drift; after the simulator was told to raise X's friction, a
// third X axis test shows in the axis history as a drift of the starting voltage. TavroTest runs from a copy in a scratch folder, since reports go
// beside the program.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { copyFileSync, existsSync, readFileSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import {
  launchBrowser, withSession, withProgramCopy, eventually, field, answerUntil,
} from './harness.mjs';

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

// Starts an X axis test and cancels it in its start dialog: the test still files its report.
async function cancelAxisTest(page, folder, n) {
  await field(page, STAGE, 'XAxisTest').click();
  const start = page.locator('[role="dialog"]:has(input[type="radio"])');
  await start.getByRole('button', { name: 'Cancel' }).click();
  await start.waitFor({ state: 'hidden' });
  await eventually(() => existsSync(join(folder, `AxisTest_X_${n}.dat`)), true);
  await eventually(() => field(page, STAGE, 'RunningTestX').inputValue(), 'Ready', 5000);
}

async function openViewer(page) {
  await page.locator('#menu-button').click();
  await page.locator('#menu-reports').click();
  const panel = page.getByRole('dialog', { name: 'Reports' });
  await panel.waitFor();
  return panel;
}

test('the viewer lists a test run a moment ago, plots its trace and marks a caused drift',
  () => withProgramCopy((program, folder) => withSession(browser, { profile: 'autovision', program, tab: STAGE },
    async ({ page, board }) => {
      await eventually(async () => (await field(page, STAGE, 'SettledX').inputValue()) !== '',
        true);
      await runAxisTest(page, folder, 0);

      // Listed first, with both files; its trace plotted row for row as the .csv holds it.
      const panel = await openViewer(page);
      const first = panel.locator('.viewer-list tbody tr').first();
      await eventually(() => first.getAttribute('data-base'), 'AxisTest_X_0');
      assert.equal(await first.locator('.viewer-badge').count(), 0);
      assert.equal(await first.locator('.viewer-outcome').textContent(), 'Completed');
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
      // The true travel in mm beside the report's text, by the connected machine's scale.
      const scale = await page.evaluate(async () => {
        const token = new URL(location.href).searchParams.get('token');
        return (await (await fetch(`/reports?token=${token}`)).json()).countsPerMm.X;
      });
      assert.ok(scale > 0, `counts per mm of X: ${scale}`);
      const reportText = readFileSync(join(folder, 'AxisTest_X_0.dat')).subarray(2)
        .toString('utf16le');
      const changes = [...reportText.matchAll(/Change: (-?\d+)/g)].map((m) => Number(m[1]));
      // Linear, then rotary, per direction.
      const mm = [changes[0], changes[2]].map((c) => (c / scale).toFixed(3).replace('-', '\u2212'));
      assert.equal(await panel.locator('.viewer-travel').textContent(),
        `True travel \u2014 X Axis (-): ${mm[0]} mm \u00b7 X Axis (+): ${mm[1]} mm (the report's `
        + `counts \u00f7 ${scale} counts per mm of X, from the machine image of the board `
        + 'connected now)');
      assert.equal(await panel.getByRole('link', { name: 'Download .csv' }).getAttribute('href'),
        `/report-file?token=${new URL(page.url()).searchParams.get('token')}`
        + '&name=AxisTest_X_0&ext=csv');
      const download = await page.evaluate(async () => {
        const r = await fetch(document.querySelector('a.viewer-download[href*="ext=csv"]').href);
        return [r.status, await r.text()];
      });
      assert.deepEqual(download, [200, readFileSync(join(folder, 'AxisTest_X_0.csv'), 'latin1')]);
      if (SHOTS) await page.screenshot({ path: join(SHOTS, 'reports.png') });
      // A trace a simulated board made says so in its first line; the viewer marks it.
      copyFileSync(join(folder, 'AxisTest_X_0.dat'), join(folder, 'AxisTest_Y_0.dat'));
      writeFileSync(join(folder, 'AxisTest_Y_0.csv'),
        `# board: simulated autovision\n${csv.join('\n')}\n`);
      await panel.getByRole('button', { name: 'Refresh' }).click();
      const simulated = panel.locator('.viewer-list tbody tr[data-base="AxisTest_Y_0"]');
      await simulated.click();
      await eventually(() => panel.locator('.viewer-name').textContent(), 'AxisTest_Y_0');
      const mark = panel.locator('.viewer-simulated');
      await mark.waitFor();
      assert.equal(await mark.textContent(), 'Simulated board');
      assert.equal(await mark.getAttribute('title'), "The trace's board: simulated autovision");
      await panel.locator('.viewer-list tbody tr[data-base="AxisTest_X_0"]').click();
      await eventually(() => panel.locator('.viewer-name').textContent(), 'AxisTest_X_0');
      // The filter by test: no limit test was run.
      const kind = panel.getByRole('combobox', { name: 'Test' });
      await kind.selectOption('limit');
      assert.equal(await panel.locator('.viewer-list tbody tr').count(), 0);
      await kind.selectOption('');
      assert.equal(await panel.locator('.viewer-list tbody tr').count(), 2);
      await panel.getByRole('button', { name: 'Close' }).click();
      await panel.waitFor({ state: 'hidden' });

      // A run cancelled before it moved: listed first, as cancelled.
      await cancelAxisTest(page, folder, 1);
      assert.deepEqual(startingVoltages(folder, 1), [0, 0]);
      await openViewer(page);
      await eventually(() => first.getAttribute('data-base'), 'AxisTest_X_1');
      assert.equal(await first.locator('.viewer-outcome').textContent(), 'Cancelled');
      await first.click();
      await eventually(() => panel.locator('.viewer-name').textContent(), 'AxisTest_X_1');
      assert.equal(await panel.locator('.viewer-info .viewer-outcome').textContent(), 'Cancelled');
      await panel.getByRole('button', { name: 'Close' }).click();
      await panel.waitFor({ state: 'hidden' });

      // The third run against three times the friction.
      await board.control(`friction x ${FRICTION}`);
      await runAxisTest(page, folder, 2);
      const before = startingVoltages(folder, 0);
      const afterward = startingVoltages(folder, 2);
      console.log(`starting voltages (-, +): friction 1: ${before}; ${FRICTION}: ${afterward}`);

      await openViewer(page);
      await page.getByRole('tab', { name: 'Axis history' }).click();
      const history = page.locator('.viewer-history-grid tbody tr');
      await eventually(() => history.count(), 3);
      assert.equal(await page.locator('.viewer-history-bar select').inputValue(), 'X');
      assert.equal(await page.getByLabel('Drift threshold (%)').inputValue(), '25');
      assert.deepEqual(await history.evaluateAll((trs) => trs.map((tr) => [tr.dataset.base,
        tr.classList.contains('unmeasured'), tr.querySelector('.viewer-outcome').textContent])),
      [['AxisTest_X_0', false, 'Completed'], ['AxisTest_X_1', true, 'Cancelled'],
        ['AxisTest_X_2', false, 'Completed']]);
      const cells = (row) => history.nth(row).locator('td[data-series^="Start"]')
        .evaluateAll((tds) => tds.map((td) => [Number(td.textContent),
          td.classList.contains('drift')]));
      assert.deepEqual(await cells(0), before.map((v) => [v, false]));
      // A direction is marked where its starting voltage moved more than 25%.
      const moved = before.map((v, d) => Math.abs(afterward[d] - v) / Math.abs(v) > 0.25);
      assert.ok(moved.every(Boolean),
        `the friction moved the starting voltages ${before} -> ${afterward}`);
      // The cancelled run's zeros are shown, greyed, and are no drift.
      assert.deepEqual(await cells(1), [[0, false], [0, false]]);
      assert.equal(await history.nth(1).locator('td.unmeasured').count(), 2);
      assert.deepEqual(await cells(2), afterward.map((v, d) => [v, moved[d]]));
      const plot = await page.evaluate(() => {
        const box = document.querySelector('.viewer-history-plot');
        return { drift: box.drift, unmeasured: box.unmeasured, line: box.uplot.data[1] };
      });
      assert.deepEqual(plot.drift,
        [{ series: 'Start \u2212', index: 2 }, { series: 'Start +', index: 2 }]);
      assert.deepEqual(plot.unmeasured,
        [{ series: 'Start \u2212', index: 1 }, { series: 'Start +', index: 1 }]);
      // No line down to the cancelled run's zero.
      assert.deepEqual(plot.line, [before[0], null, afterward[0]]);

      // A higher threshold takes the marks away.
      await page.getByLabel('Drift threshold (%)').fill('1000');
      await eventually(() => page.locator('.viewer-history-grid td.drift').count(), 0);
      await page.getByLabel('Drift threshold (%)').fill('25');
      await eventually(() => page.locator('.viewer-history-grid td.drift').count(), 2);
      // A threshold out of bounds is said, and the marks keep the last good one.
      const alert = page.locator('.viewer-history-bar [role="alert"]');
      for (const bad of ['-5', '1000000']) {
        await page.getByLabel('Drift threshold (%)').fill(bad);
        await eventually(() => alert.textContent(), 'The drift threshold is between 0 and 100000 %.');
        assert.equal(await page.getByLabel('Drift threshold (%)').getAttribute('aria-invalid'),
          'true');
        assert.equal(await page.locator('.viewer-history-grid td.drift').count(), 2);
      }
      await page.getByLabel('Drift threshold (%)').fill('100000');
      await eventually(() => alert.isHidden(), true);
      assert.equal(await page.getByLabel('Drift threshold (%)').evaluate(
        (input) => input.scrollWidth <= input.clientWidth), true, 'six digits fit the field');
      await page.getByLabel('Drift threshold (%)').fill('25');
      await eventually(() => page.locator('.viewer-history-grid td.drift').count(), 2);
      if (SHOTS) await page.screenshot({ path: join(SHOTS, 'axis-history.png') });
      // Escape closes the panel, and is not the page's cancel: the Stage page stays as it was.
      await page.keyboard.press('Escape');
      await page.getByRole('dialog', { name: 'Reports' }).waitFor({ state: 'hidden' });
      assert.equal(await field(page, STAGE, 'RunningTestX').inputValue(), 'Ready');
    })));
