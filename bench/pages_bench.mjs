// The pages' costs, measured with TavroTest against the simulated board in real time and one
// headless chromium connected:
//   idle CPU    tavrotest's user+system time with each tab in front and nothing moving, as a
//               share of one core (goal for every page: at most 1 %)
//   cycle CPU   the same while the Lights page runs its ring cycle (goal: at most 3 %)
//   cycle ticks the spacing of the cycle's light writes at the board, one a 20 ms tick (goal:
//               p99 within 5 ms of 20 ms)
//   ramp CPU    the same while an axis test ramps its bias, from its first write to its last
//   ramp passes the spacing of the bias writes at the board: a ramp writes after a whole number
//               of 100 ms passes, so each interval's distance from the nearest multiple of
//               100 ms is what the passes lost (goal: p99 within 10 ms)
// Run through `bench/browser_bench.sh pages`; prints one line per measure.
import { readFileSync } from 'node:fs';
import { performance } from 'node:perf_hooks';
import { launchBrowser, startBoard, startTavroTest, eventually, field } from '../tests/browser/harness.mjs';

const QUIET_SECONDS = Number(process.env.QUIET_SECONDS || 20);
const RUNS = Number(process.env.RUNS || 4);
const TICKS_PER_SECOND = 100;  // USER_HZ on Linux
const SET_TUNING = '0x73';     // the command that carries the bias
const SET_LIGHTS = '0x6E';     // the command that carries the light values

function cpuSeconds(pid) {
  const fields = readFileSync(`/proc/${pid}/stat`, 'utf8').split(') ')[1].split(' ');
  return (Number(fields[11]) + Number(fields[12])) / TICKS_PER_SECOND;  // utime, stime
}
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const percentile = (sorted, p) => sorted[Math.min(sorted.length - 1, Math.ceil(p * sorted.length) - 1)];

// Answers the test's start dialog and boxes (OK, Yes) until no box is left and the title bar's
// STOP is gone; `onStep` runs every 50 ms meanwhile.
async function runTest(page, button, onStep) {
  await field(page, 1, button).click();
  const stop = page.getByRole('button', { name: /^STOP/ });
  await stop.waitFor();
  for (;;) {
    await onStep();
    const node = await page.$('[role="dialog"]:has(input[type="radio"]), [role="alertdialog"]');
    if (node) {
      const b = (await node.$('.buttons button:text-is("Yes")')) || (await node.$('.buttons button:text-is("OK")'));
      if (b) await b.click({ timeout: 2000 }).catch(() => {});
      await node.waitForElementState('hidden', { timeout: 5000 }).catch(() => {});
      continue;
    }
    if (!(await stop.isVisible())) return;
    await sleep(50);
  }
}

// The ring cycle of the Lights page, RUNS times: each tick writes the first channels in a packet
// of their own (byte 1 is the first channel, 0), so those packets' spacing is the tick's.
async function lightCycles(page) {
  await page.locator(`#tab-${lightsTab}`).click();
  const seen = new Map();  // sequence -> microseconds
  const cpuAt = [];        // [wall milliseconds, tavrotest CPU seconds]
  let lastNew = 0;
  const look = async () => {
    const answer = await board.control(`recent ${SET_LIGHTS}`);
    for (const entry of answer.split(' ').slice(1)) {
      const [seq, us, hex] = entry.split(':');
      if (hex.startsWith('6e00') && !seen.has(Number(seq))) {
        seen.set(Number(seq), Number(us));
        lastNew = performance.now();
      }
    }
    cpuAt.push([performance.now(), cpuSeconds(app.child.pid)]);
  };
  for (let run = 0; run < RUNS; run += 1) {
    await field(page, lightsTab, 'SurfaceCycleRing').click();
    lastNew = performance.now();
    // The cycle has ended once no light write came for a second.
    while (performance.now() - lastNew < 1000) {
      await sleep(100);
      await look();
    }
  }
  const times = [...seen.entries()].sort((a, b) => a[0] - b[0]).map(([, us]) => us);
  const gaps = [];
  for (let k = 1; k < times.length; k += 1) {
    const ms = (times[k] - times[k - 1]) / 1000;
    if (ms < 200) gaps.push(Math.abs(ms - 20));  // longer: between two cycles
  }
  gaps.sort((a, b) => a - b);
  const cpu = cpuAt.at(-1)[1] - cpuAt[0][1];
  const seconds = (cpuAt.at(-1)[0] - cpuAt[0][0]) / 1000;
  console.log(`cycle CPU: ${(100 * cpu / seconds).toFixed(2)} % of one core ` +
    `(${cpu.toFixed(2)} s in ${seconds.toFixed(1)} s, ${RUNS} ring cycles; goal <= 3 %)`);
  console.log(`cycle ticks, ${gaps.length} light writes: distance from 20 ms: ` +
    `median ${percentile(gaps, 0.5).toFixed(2)} ms, p99 ${percentile(gaps, 0.99).toFixed(2)} ms, ` +
    `max ${gaps.at(-1).toFixed(2)} ms (goal: p99 within 5 ms)`);
}

let lightsTab = -1;
const board = await startBoard('autovision', ['--diag-every', '0']);
const app = await startTavroTest(board.dir);
const browser = await launchBrowser();
try {
  const page = await browser.context.newPage();
  await page.goto(app.url);
  await eventually(() => page.locator('#title').textContent(), 'TavroTest : Connected');
  const tabs = await page.locator('[id^="tab-"]').allTextContents();
  lightsTab = tabs.indexOf('Lights');

  // Each tab in front in turn, the Stage page first.
  for (const i of [1, ...tabs.keys()].filter((v, k, all) => all.indexOf(v) === k)) {
    await page.locator(`#tab-${i}`).click();
    await sleep(2000);  // let the page settle
    const cpu0 = cpuSeconds(app.child.pid);
    const t0 = performance.now();
    await sleep(QUIET_SECONDS * 1000);
    const seconds = (performance.now() - t0) / 1000;
    const cpu = cpuSeconds(app.child.pid) - cpu0;
    console.log(`idle CPU, ${tabs[i]} in front: ${(100 * cpu / seconds).toFixed(2)} % of one core ` +
      `(${cpu.toFixed(2)} s in ${seconds.toFixed(1)} s; goal <= 1 %)`);
  }

  // Axis tests of X; the board's recent transfers are read often enough that none is missed.
  await page.locator('#tab-1').click();
  const writes = new Map();  // sequence -> [microseconds, bias], X's tuning writes
  const cpuAt = [];          // [microseconds on the board's clock, tavrotest CPU seconds]
  const look = async () => {
    const answer = await board.control(`recent ${SET_TUNING}`);
    let last = 0;
    for (const entry of answer.split(' ').slice(1)) {
      const [seq, us, hex] = entry.split(':');
      // Byte 1 is the axis, bytes 16 and 17 the bias (big-endian, signed).
      if (hex.startsWith('7300')) writes.set(Number(seq), [Number(us), Buffer.from(hex, 'hex').readInt16BE(16)]);
      last = Math.max(last, Number(us));
    }
    if (last) cpuAt.push([last, cpuSeconds(app.child.pid)]);
  };
  const intervals = [];
  let rampCpu = 0;
  let rampSeconds = 0;
  for (let run = 0; run < RUNS; run += 1) {
    writes.clear();
    cpuAt.length = 0;
    await runTest(page, 'XAxisTest', look);
    const seen = [...writes.entries()].sort((a, b) => a[0] - b[0]).map(([, w]) => w);
    // One step of a ramp: the bias grows by 250 from one write to the next. Other writes (the
    // hand-over and the hand-back) follow the operator's boxes, not the passes.
    for (let k = 1; k < seen.length; k += 1) {
      if (Math.abs(seen[k][1]) - Math.abs(seen[k - 1][1]) !== 250) continue;
      const ms = (seen[k][0] - seen[k - 1][0]) / 1000;
      intervals.push(Math.abs(ms - 100 * Math.round(ms / 100)));
      const inStep = cpuAt.filter(([us]) => us >= seen[k - 1][0] && us <= seen[k][0]);
      if (inStep.length > 1) {
        rampCpu += inStep.at(-1)[1] - inStep[0][1];
        rampSeconds += (inStep.at(-1)[0] - inStep[0][0]) / 1e6;
      }
    }
  }
  await lightCycles(page);
  console.log(`ramp CPU: ${(100 * rampCpu / rampSeconds).toFixed(2)} % of one core ` +
    `(${rampCpu.toFixed(2)} s in ${rampSeconds.toFixed(1)} s of ramps, ${RUNS} axis tests)`);
  intervals.sort((a, b) => a - b);
  console.log(`ramp passes, ${intervals.length} bias-write intervals: distance from a whole number ` +
    `of 100 ms: median ${percentile(intervals, 0.5).toFixed(2)} ms, ` +
    `p99 ${percentile(intervals, 0.99).toFixed(2)} ms, max ${intervals.at(-1).toFixed(2)} ms ` +
    '(goal: p99 within 10 ms)');
} finally {
  await browser.close();
  await app.stop();
  await board.stop();
}
