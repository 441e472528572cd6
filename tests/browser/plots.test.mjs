// Plots of recorded values through the real window: a value on the Stage page clicked opens a
// plot that grows and follows while the simulated axis moves under the joystick, a reload of the
// window brings the plot back with its past, and the CSV the plot's button points to holds what
// the simulator did. A servo machine, whose stage axes follow the pendant's joystick.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { join } from 'node:path';
import { launchBrowser, withSession, eventually, field } from './harness.mjs';

const SHOTS = process.env.TAVRO_SCREENSHOT_DIR;
const STAGE = 1;
let browser;

before(async () => { browser = await launchBrowser({ width: 1000, height: 700 }); });
after(async () => { if (browser) await browser.close(); });

function withStage(body) {
  return withSession(browser, { profile: 'servo', tab: STAGE }, async ({ page, board }) => {
    await field(page, STAGE, 'EStop').waitFor();
    await body({ page, board });
  });
}

// The channel a value of the Stage page plots, once the page has been marked with the list.
async function channelOf(page, id) {
  const value = field(page, STAGE, id);
  await eventually(async () => (await value.getAttribute('data-plot-channel')) !== null, true);
  assert.equal(await value.getAttribute('title'), 'Click to plot');
  return value.getAttribute('data-plot-channel');
}

// The words a plot shows for a value of the Stage page: the tab and the value's label.
async function labelOf(page, id) {
  return `Stage \u00b7 ${await field(page, STAGE, id).getAttribute('aria-label')}`;
}

// What a plot panel holds: its uPlot's data (a row without a value of a column as null, as a
// gap is) and x scale, its channels and their labels, and its CSV link.
const plotState = (panel) => panel.evaluate((el) => ({
  data: el.uplot.data.map((s) => [...s].map((v) => (v === undefined ? null : v))),
  x: [el.uplot.scales.x.min, el.uplot.scales.x.max],
  ids: [...el.plot.names],
  series: el.uplot.series.slice(1).map((s) => s.label),
  csv: el.querySelector('a.plot-export').getAttribute('href'),
  now: Date.now() / 1000,
}));

// Drives `axis` with the joystick at `speed` until the page shows it `counts` away from where it
// was, then lets go and waits until the simulator no longer calls it moving; answers where it
// started. It may still creep a count or two to rest: see caughtUp.
async function jog(page, board, axis, speed, counts) {
  const id = `Linear${axis.toUpperCase()}`;
  // The page may not have shown the value yet: an empty box is no position.
  const shown = async () => {
    const text = await field(page, STAGE, id).inputValue();
    return /^-?\d+$/.test(text) ? Number(text) : null;
  };
  let start = null;
  await eventually(async () => (start = await shown()) !== null, true);
  const stick = { x: [speed, 0, 0], y: [0, speed, 0] }[axis];
  await board.control(`joystick ${stick.join(' ')}`);
  try {
    await eventually(async () => {
      const now = await shown();
      return now !== null && Math.abs(now - start) >= counts;
    }, true, 15000);
  } finally {
    await board.control('joystick 0 0 0');
  }
  await eventually(async () => /moving=0/.test(await board.control(`axis ${axis}`)), true);
  return { start };
}

async function countsOf(board, axis) {
  return Number(/counts=(-?\d+)/.exec(await board.control(`axis ${axis}`))[1]);
}

// The plot's state once the last value of its column `column` is where the simulator says `axis`
// stands, read before and after the plot: an axis that still creeps to rest is followed until the
// plot holds a count that the simulator held on both sides of it.
async function caughtUp(panel, board, axis, column) {
  let state;
  let stands;
  await eventually(async () => {
    const before = await countsOf(board, axis);
    state = await plotState(panel);
    stands = await countsOf(board, axis);
    return before === stands && lastValue(state.data[column]) === stands;
  }, true, 30000);
  return { state, stands };
}

const lastValue = (values) => values.findLast((v) => v !== null);
const nonDecreasing = (values) => values.every((v, i) => i === 0 || v >= values[i - 1]);

test('a value clicked on the Stage page opens a plot that grows and follows while the axis moves',
  () => withStage(async ({ page, board }) => {
    const name = await channelOf(page, 'LinearX');
    await field(page, STAGE, 'LinearX').click();
    const label = await labelOf(page, 'LinearX');
    const panel = page.getByRole('dialog', { name: `Plot: ${label}` });
    await panel.waitFor();
    assert.equal(await panel.getAttribute('aria-modal'), null, 'the plot leaves the window usable');
    await eventually(async () => (await plotState(panel)).data[0].length > 10, true);
    const before = await plotState(panel);
    assert.deepEqual(before.ids, [name]);
    assert.deepEqual(before.series, [`${label} (counts)`]);
    // The id is in the tooltips: of the title and of the legend's name.
    assert.equal(await panel.locator('.plot-title').getAttribute('title'), name);
    assert.equal(await panel.locator('.u-legend .u-series').nth(1).getAttribute('title'), name);

    const { start } = await jog(page, board, 'x', 0.6, 20000);
    const { state: moved, stands } = await caughtUp(panel, board, 'x', 1);
    assert.ok(stands - start >= 20000, `X went from ${start} to ${stands}`);
    const [times, xs] = moved.data;
    assert.ok(times.length > before.data[0].length, 'new samples were fetched');
    assert.ok(nonDecreasing(times), 'times in order, none twice');
    const fresh = xs.filter((v, i) => v !== null && times[i] > before.data[0].at(-1));
    assert.ok(fresh.includes(start) || fresh[0] >= start, 'the move starts where the axis was');
    assert.ok(nonDecreasing(fresh), `the joystick moved X one way: ${fresh.slice(0, 20)}`);
    assert.equal(fresh.at(-1), stands, 'the plot ends where the simulator says X stands');
    // Following: the right edge is now (no earlier than the newest row, and on past the time
    // it was read at); a minute behind it, or the recorder's first sample when it began less
    // than a minute ago.
    assert.ok(moved.x[1] >= times.at(-1), `right edge ${moved.x[1]} behind ${times.at(-1)}`);
    await eventually(async () => (await plotState(panel)).x[1] >= moved.now, true);
    assert.ok(moved.x[1] > before.x[1]);
    const left = Math.max(moved.x[1] - 60, moved.data[0][0]);
    assert.ok(Math.abs(moved.x[0] - Math.min(left, moved.x[1] - 10)) < 1e-3, `${moved.x}`);

    // A second value joins the plot in front with its own axis, and moves the other way.
    const other = await channelOf(page, 'LinearY');
    await field(page, STAGE, 'LinearY').click();
    await eventually(async () => (await plotState(panel)).ids.join(), `${name},${other}`);
    await jog(page, board, 'y', -0.6, 20000);
    await caughtUp(panel, board, 'y', 2);
    // An e-stop pressed and let go at the board marks the time axis, once the page saw each.
    const estop = () => field(page, STAGE, 'EStop').inputValue();
    await board.control('estop on');
    await eventually(estop, 'EStop');
    await board.control('estop off');
    await eventually(estop, '');
    await eventually(async () => {
      const kinds = await panel.evaluate((el) => el.plot.events.map((e) => e.kind));
      return kinds.includes('estop-on') && kinds.includes('estop-off');
    }, true);
    if (SHOTS) {
      await page.mouse.move(0, 0);
      await page.screenshot({ path: join(SHOTS, 'plot.png') });
    }

    // Pause stops the right edge, while the recorder goes on: Follow brings it back to now.
    await panel.getByRole('button', { name: 'Pause' }).click();
    const paused = (await plotState(panel)).x;
    const json = (await plotState(panel)).csv.replace(/&from=[^&]*&to=[^&]*/, '&from=-60')
      .replace('format=csv', 'format=json');
    const recordedAfter = (t) => page.evaluate(async ([url, from]) => {
      const rows = (await (await fetch(url)).json()).rows;
      return rows.some((r) => r[0] > from);
    }, [json, t]);
    await eventually(() => recordedAfter(paused[1] + 1), true);
    assert.deepEqual((await plotState(panel)).x, paused);
    await panel.getByRole('button', { name: 'Follow' }).click();
    await eventually(async () => (await plotState(panel)).x[1] > paused[1] + 0.5, true);
    // A drag across the plot zooms into what it spans and stops following there. A following
    // plot moves on under the mouse, and while the recorder's past is shorter than the span its
    // width grows: the zoom is a fifth of the width at the moment the button is let go.
    const over = await panel.locator('.u-over').boundingBox();
    await panel.evaluate((el) => addEventListener('mouseup', () => {
      el.widthAtRelease = el.uplot.scales.x.max - el.uplot.scales.x.min;
    }, { capture: true, once: true }));
    await page.mouse.move(over.x + over.width * 0.4, over.y + 30);
    await page.mouse.down();
    await page.mouse.move(over.x + over.width * 0.6, over.y + 40, { steps: 4 });
    await page.mouse.up();
    await panel.getByRole('button', { name: 'Follow' }).waitFor();
    const zoomed = (await plotState(panel)).x;
    const wide = await panel.evaluate((el) => el.widthAtRelease);
    assert.ok(Math.abs(zoomed[1] - zoomed[0] - wide * 0.2) < wide * 0.02, `${zoomed} of ${wide}`);
    await panel.getByRole('button', { name: 'Close' }).click();
    await panel.waitFor({ state: 'detached' });
  }));

test('a reload of the window brings the plot back with its past, span and place',
  () => withStage(async ({ page }) => {
    const name = await channelOf(page, 'LinearZ');
    await field(page, STAGE, 'LinearZ').click();
    const panel = page.getByRole('dialog', { name: `Plot: ${await labelOf(page, 'LinearZ')}` });
    await panel.getByLabel('Span').selectOption({ label: '10 min' });
    await eventually(async () => (await plotState(panel)).data[0].length > 50, true);
    const head = panel.locator('header');
    const box = await head.boundingBox();
    await page.mouse.move(box.x + 60, box.y + 10);
    await page.mouse.down();
    await page.mouse.move(box.x - 40, box.y - 200, { steps: 4 });
    await page.mouse.up();
    const place = await panel.boundingBox();
    const past = (await plotState(panel)).data;

    await page.reload();
    await eventually(() => page.locator('#title').textContent(), 'TavroTest : Connected');
    await panel.waitFor();
    await eventually(async () => (await plotState(panel)).data[0].length >= past[0].length, true);
    const back = await plotState(panel);
    assert.equal(await panel.getByLabel('Span').inputValue(), '600');
    assert.ok(back.x[1] - back.x[0] <= 600 + 1e-3);
    assert.deepEqual(await panel.boundingBox(), place);
    // The first samples from before the reload, with their values, come from the recorder.
    const at = back.data[0].indexOf(past[0][0]);
    assert.ok(at >= 0, `first time ${past[0][0]} is back; now from ${back.data[0][0]}`);
    assert.deepEqual(back.data[0].slice(at, at + 20), past[0].slice(0, 20));
    assert.deepEqual(back.data[1].slice(at, at + 20), past[1].slice(0, 20));
    assert.equal(await page.getByRole('dialog', { name: /^Plot: / }).count(), 1);

    // A page's document loaded again has its values marked again.
    await page.locator('#tab-1').click();
    await page.evaluate(() => {
      const frame = document.getElementById('page-1').contentWindow;
      frame.stale = true;
      frame.location.reload();
    });
    await eventually(() => page.evaluate(() => {
      const frame = document.getElementById('page-1');
      return !frame.contentWindow.stale && frame.contentDocument.readyState === 'complete';
    }), true);
    assert.equal(await channelOf(page, 'LinearZ'), name);
  }));

test('the CSV of a plot\'s window holds the axis moving to where the simulator says it stands',
  () => withStage(async ({ page, board }) => {
    const position = await channelOf(page, 'LinearX');
    const moving = await channelOf(page, 'MovingX');
    // Chosen from the menu's list this time, by page and filter.
    await page.locator('#menu-button').click();
    await page.locator('#menu-plot').click();
    const picker = page.getByRole('dialog', { name: 'Plot channels' });
    // "Plot" with nothing ticked says what to do, and goes away with the first tick.
    await picker.getByRole('button', { name: 'Plot', exact: true }).click();
    const hint = picker.getByRole('alert');
    assert.equal(await hint.textContent(), 'Tick the values to plot first.');
    assert.equal(await page.getByRole('dialog', { name: /^Plot: / }).count(), 0);
    await picker.getByLabel('Filter').fill('.X');
    const group = picker.locator('fieldset', { has: page.locator('legend', { hasText: 'Stage' }) });
    await group.getByRole('checkbox', { name: position, exact: false }).first().check();
    await group.getByRole('checkbox', { name: moving, exact: false }).first().check();
    await hint.waitFor({ state: 'hidden' });
    await picker.getByRole('button', { name: 'Plot', exact: true }).click();
    await picker.waitFor({ state: 'detached' });
    const panel = page.getByRole('dialog', { name: `Plot: ${await labelOf(page, 'LinearX')}` });
    await eventually(async () => (await plotState(panel)).ids.join(), `${position},${moving}`);
    const { start } = await jog(page, board, 'x', 0.5, 30000);
    // The window ends once the plot shows where X stands; should X creep a count meanwhile, the
    // plot follows again and pauses once more.
    let stands;
    let text;
    let file;
    for (;;) {
      ({ stands } = await caughtUp(panel, board, 'x', 1));
      await panel.getByRole('button', { name: 'Pause' }).click();
      const [download] = await Promise.all([page.waitForEvent('download'),
        panel.locator('a.plot-export', { hasText: 'CSV' }).click()]);
      file = download.suggestedFilename();
      text = readFileSync(await download.path(), 'utf8');
      if (stands === await countsOf(board, 'x')) break;
      await panel.getByRole('button', { name: 'Follow' }).click();
    }
    // The file's name says what it holds.
    assert.match(file, new RegExp(`^plot-${position}\\+${moving}-\\d{4}-\\d\\d-\\d\\dT[-\\d]+\\.csv$`),
      file);
    const lines = text.trim().split(/\r?\n/);
    assert.equal(lines[0], `time,time_iso,${position},${moving}`);
    const rows = lines.slice(1).map((l) => l.split(','));
    assert.ok(rows.length > 40, `${rows.length} rows`);
    // Both are read by the same poll, and a row is a tick of its timer: each row holds both, so
    // no tick went unrecorded, however late a loaded machine ran the timer.
    assert.ok(rows.every((r) => r.length === 4 && r.every((cell) => cell !== '')),
      `every row has its time and both values: ${rows.find((r) => r.includes(''))}`);
    const times = rows.map((r) => Number(r[0]));
    assert.ok(times.every((t, i) => i === 0 || t > times[i - 1]), 'one row per time, in order');
    // The ISO time is the seconds' time, to the millisecond, in UTC.
    assert.ok(rows.every((r) => new Date(Math.round(Number(r[0]) * 1000)).toISOString() === r[1]),
      rows.slice(0, 3).join(' '));
    const xs = rows.filter((r) => r[2] !== '').map((r) => Number(r[2]));
    assert.ok(xs.includes(start), `the window holds X at ${start} before the move`);
    assert.ok(nonDecreasing(xs), 'X moved one way');
    assert.equal(xs.at(-1), stands, 'and ends where the simulator says it stands');
    const flags = rows.filter((r) => r[3] !== '').map((r) => r[3]);
    assert.ok(flags.every((f) => f === '0' || f === '1'), flags.join());
    assert.ok(flags.includes('1') && flags.at(-1) === '0', 'moving while jogged, then still');
  }));

test('a plot breaks a line where its channel was not recorded and draws flags as on/off steps',
  () => withStage(async ({ page }) => {
    const position = await channelOf(page, 'LinearX');
    const moving = await channelOf(page, 'MovingX');
    // A paused view of five minutes ago, before this session recorded anything, filled with
    // rows as the recorder gives them: X every 50 ms tick, then not recorded for 20 s (another
    // tab, the board lost), then again; the flag only in every other row (the rows of another
    // timer), on for a second, off for a second.
    const shown = await page.evaluate(async ({ names }) => {
      const now = Date.now() / 1000;
      const from = now - 300;
      const panel = window.tavroPlots.open(names, { follow: false, view: [from, from + 40],
        pos: { left: 20, top: 60, width: 900, height: 420 } });
      const p = panel.plot;
      // The plot's own first read is let in before its rows are replaced.
      await new Promise((resolve) => {
        const check = () => (p.busy ? requestAnimationFrame(check) : resolve());
        check();
      });
      p.times.length = 0;
      for (const c of p.cols) c.length = 0;
      const gap = [10, 30];
      for (let i = 0; i * 0.05 <= 40; i += 1) {
        const t = i * 0.05;
        if (t > gap[0] && t < gap[1]) continue;
        p.times.push(from + t);
        p.cols[0].push(1000 + i);
        p.cols[1].push(i % 2 ? null : Math.floor(t) % 2);
      }
      p.show();
      const u = panel.uplot;
      const axis = u.axes.find((a) => a.scale === 'flag');
      return {
        from,
        gap: gap.map((t) => from + t),
        data: u.data.map((s) => [...s].map((v) => (v === undefined ? 'skip' : v))),
        scales: u.series.slice(1).map((s) => s.scale),
        flag: [u.scales.flag.min, u.scales.flag.max],
        flagAxis: axis ? [axis.label, axis.side] : null,
        flagTicks: axis ? axis.values(u, [0, 1], u.axes.indexOf(axis), 0, 1) : null,
      };
    }, { names: [position, moving] });
    const [times, xs, flags] = shown.data;
    // One row between the last value before the gap and the first after it, null in both
    // columns: their lines break there and nowhere else.
    const breaks = times.flatMap((t, i) => (xs[i] === null ? [t] : []));
    assert.equal(breaks.length, 1, `${breaks.length} breaks`);
    assert.ok(breaks[0] > shown.gap[0] && breaks[0] < shown.gap[1], `${breaks[0] - shown.from}`);
    assert.deepEqual(flags.filter((v) => v === null).length, 1);
    assert.equal(flags[times.indexOf(breaks[0])], null);
    // The rows without the flag are passed over, not broken at.
    assert.ok(flags.includes('skip'));
    assert.ok(xs.every((v) => v === null || typeof v === 'number'));
    // The flag on its own 0/1 axis, the position on its own.
    assert.deepEqual(shown.scales, ['y0', 'flag']);
    assert.deepEqual(shown.flag, [-0.1, 1.1]);
    assert.deepEqual(shown.flagAxis, ['On/off', 1]);
    assert.deepEqual(shown.flagTicks, ['off', 'on']);
    if (SHOTS) {
      await page.mouse.move(0, 0);
      await page.screenshot({ path: join(SHOTS, 'plot-gap.png') });
    }
    await page.getByRole('dialog', { name: /^Plot: / }).getByRole('button', { name: 'Close' })
      .click();

    // In a window with room beside the page, a new plot opens there, over none of its values.
    await page.setViewportSize({ width: 1500, height: 800 });
    await field(page, STAGE, 'LinearX').click();
    const panel = page.getByRole('dialog', { name: `Plot: ${await labelOf(page, 'LinearX')}` });
    await panel.waitFor();
    const plotBox = await panel.boundingBox();
    const content = await page.evaluate(() => {
      const frame = document.getElementById('page-1');
      const box = frame.getBoundingClientRect();
      const rects = [...frame.contentDocument.body.children].map((c) => c.getBoundingClientRect())
        .filter((r) => r.width && r.height);
      return { right: box.left + Math.max(...rects.map((r) => r.right)),
        bottom: box.top + Math.max(...rects.map((r) => r.bottom)) };
    });
    assert.ok(plotBox.x >= content.right, `plot at ${plotBox.x}, page to ${content.right}`);
    assert.ok(plotBox.x + plotBox.width <= 1500 && plotBox.width >= 320, JSON.stringify(plotBox));
  }));
