// The window's costs, measured with TavroTest against the simulated board and one headless
// chromium connected:
//   idle CPU    tavrotest's user+system time over a quiet stretch, as a share of one core
//   idle bytes  WebSocket bytes pushed to the browser per second while nothing changes
//   latency     from a change on the board (a diagnostic line) to the changed element in the
//               browser, for Diag Output, whose timer is 200 ms
// Run through `bench/browser_bench.sh window`; prints one line per measure.
import { readFileSync } from 'node:fs';
import { performance } from 'node:perf_hooks';
import {
  launchBrowser, startBoard, startTavroTest, eventually, field,
} from '../tests/browser/harness.mjs';

const QUIET_SECONDS = Number(process.env.QUIET_SECONDS || 30);
const SAMPLES = Number(process.env.SAMPLES || 200);
const TICKS_PER_SECOND = 100;  // USER_HZ on Linux

function cpuSeconds(pid) {
  const fields = readFileSync(`/proc/${pid}/stat`, 'utf8').split(') ')[1].split(' ');
  return (Number(fields[11]) + Number(fields[12])) / TICKS_PER_SECOND;  // utime, stime
}

const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const percentile = (sorted, p) => sorted[Math.min(sorted.length - 1, Math.ceil(p * sorted.length) - 1)];

const board = await startBoard('autovision', ['--diag-every', '0']);
const app = await startTavroTest(board.dir);
const browser = await launchBrowser();
try {
  const page = await browser.context.newPage();
  let bytes = 0;
  let frames = 0;
  page.on('websocket', (ws) => ws.on('framereceived', (f) => {
    bytes += Buffer.byteLength(f.payload);
    frames += 1;
  }));
  await page.goto(app.url);
  await eventually(() => page.locator('#title').textContent(), 'TavroTest : Connected');
  // Diag Output, the last tab of every family.
  const diag = (await page.locator('[id^="tab-"]').count()) - 1;
  await page.locator(`#tab-${diag}`).click();
  await sleep(2000);  // let the start settle

  // Quiet stretch: nothing changes on the board or in the window.
  bytes = 0;
  frames = 0;
  const cpu0 = cpuSeconds(app.child.pid);
  const t0 = performance.now();
  await sleep(QUIET_SECONDS * 1000);
  const seconds = (performance.now() - t0) / 1000;
  const cpu = cpuSeconds(app.child.pid) - cpu0;
  console.log(`idle CPU: ${(100 * cpu / seconds).toFixed(2)} % of one core ` +
    `(${cpu.toFixed(2)} s in ${seconds.toFixed(1)} s)`);
  console.log(`idle bytes pushed: ${(bytes / seconds).toFixed(1)} B/s ` +
    `(${frames} frames, ${bytes} bytes in ${seconds.toFixed(1)} s)`);

  // Latency: a line on the board to the text in the browser. The page watches the element
  // itself; both clocks are the wall clock at sub-millisecond resolution.
  const log = field(page, diag, 'UsbSerial');
  await log.evaluate((el) => {
    window.seen = new Map();
    setInterval(() => {
      for (const m of el.value.matchAll(/mark(\d+)/g)) {
        if (!window.seen.has(m[1])) window.seen.set(m[1], performance.timeOrigin + performance.now());
      }
    }, 1);
  });
  const latencies = [];
  for (let i = 0; i < SAMPLES; i += 1) {
    await sleep(Math.random() * 200);  // anywhere in the page's timer period
    const sent = performance.timeOrigin + performance.now();
    await board.control(`diag "mark${i}"`);
    let seenAt;
    for (;;) {
      seenAt = await log.evaluate((el, k) => window.seen.get(String(k)), i);
      if (seenAt !== undefined) break;
      await sleep(5);
    }
    latencies.push(seenAt - sent);
  }
  latencies.sort((a, b) => a - b);
  console.log(`change to DOM (Diag Output, 200 ms timer), ${SAMPLES} samples: ` +
    `median ${percentile(latencies, 0.5).toFixed(1)} ms, ` +
    `p99 ${percentile(latencies, 0.99).toFixed(1)} ms, max ${latencies.at(-1).toFixed(1)} ms ` +
    '(goal: p99 within 220 ms)');
} finally {
  await browser.close();
  await app.stop();
  await board.stop();
}
