// The plot's frame time, measured in headless chromium against TavroTest serving the real plot.js
// and uPlot: a plot of four channels holding 30,000 points each (10 minutes at 20 ms), redrawn
//   pan         the x scale moved a little each frame (a drag or the wheel), every point in view
//   follow      one new row added and the oldest dropped, then the scale moved (live follow)
//   bands       the pan again over 30,000 seconds of history, each channel a band between its
//               minimum and maximum of each second (8 series)
// Each frame is timed with performance.now() in the page from the change to the end of the
// canvas's raster (a one-pixel read forces it), once per animation frame.
// Run through `bench/browser_bench.sh plot`; prints one line per measure.
import {
  launchBrowser, startBoard, startTavroTest, eventually,
} from '../tests/browser/harness.mjs';

const FRAMES = Number(process.env.FRAMES || 300);
const POINTS = 30000;
const CHANNELS = ['status.LinearPosition.X', 'status.LinearPosition.Y', 'status.LinearPosition.Z',
  'status.LinearPosition.Zoom'];

const board = await startBoard('autovision');
const app = await startTavroTest(board.dir);
const browser = await launchBrowser({ width: 1280, height: 800 });
try {
  const page = await browser.context.newPage();
  await page.goto(app.url);
  await eventually(() => page.locator('#title').textContent(), 'TavroTest : Connected');
  if (process.env.NO_RASTER) await page.evaluate(() => { window.NO_RASTER = true; });
  const results = await page.evaluate(async ({ names, points, frames }) => {
    // A plot of `names` over `points` rows `step` seconds apart up to now, filled with made-up
    // values (a band of a second's minimum and maximum when the plot draws the history).
    const load = async (step) => {
      const now = Date.now() / 1000;
      const from = now - points * step;
      const panel = window.tavroPlots.open(names, { follow: false, view: [from, now],
        pos: { left: 40, top: 60, width: 1100, height: 600 } });
      const p = panel.plot;
      // Whatever the plot asked the recorder for first is let in before its data is replaced.
      for (let i = 0; i < 200 && p.busy; i += 1) await new Promise((r) => setTimeout(r, 25));
      const perChannel = p.cols.length / names.length;
      p.times.length = 0;
      for (const c of p.cols) c.length = 0;
      for (let i = 0; i < points; i += 1) {
        const t = from + i * step;
        p.times.push(t);
        names.forEach((n, k) => {
          const v = Math.round(100000 * Math.sin(t / (7 + k) / step * 0.02) + 500 * Math.random());
          if (perChannel === 1) p.cols[k].push(v);
          else p.cols[2 * k].push(v - 300), p.cols[2 * k + 1].push(v + 300);
        });
      }
      p.events = Array.from({ length: 12 }, (_, i) => ({ time: from + (i + 0.5) * points * step / 12,
        kind: i % 2 ? 'estop-off' : 'estop-on', text: '' }));
      const u = panel.uplot;
      p.show();
      return { panel, p, u, from, now };
    };
    let { panel, p, u, from, now } = await load(0.02);

    const frame = () => new Promise((r) => requestAnimationFrame(r));
    const flush = () => new Promise((r) => queueMicrotask(r));
    const stats = (ms) => {
      const s = [...ms].sort((a, b) => a - b);
      const at = (q) => s[Math.min(s.length - 1, Math.ceil(q * s.length) - 1)];
      return { median: at(0.5), p99: at(0.99), max: s[s.length - 1], n: s.length };
    };
    const run = async (step) => {
      const ms = [];
      for (let i = 0; i < frames; i += 1) {
        await frame();
        const t0 = performance.now();
        step(i);
        await flush();                    // uPlot redraws in a microtask after the change
        if (!window.NO_RASTER) u.ctx.getImageData(0, 0, 1, 1);   // and the canvas is rastered by the time this returns
        ms.push(performance.now() - t0);
      }
      return stats(ms);
    };
    const width = now - from;
    const idle = await run(() => { u.ctx.fillRect(0, 0, 1, 1); });
    const pan = await run((i) => {
      const shift = width * 0.002 * (i % 100 < 50 ? i % 50 : 50 - (i % 50));
      u.setScale('x', { min: from - shift, max: now - shift });
    });
    let last = now;
    const follow = await run(() => {
      last += 0.02;
      p.times.push(last);
      p.times.shift();
      p.cols.forEach((c, k) => {
        c.push(Math.round(100000 * Math.sin(last / (7 + k))));
        c.shift();
      });
      u.setData([p.times, ...p.cols], false);
      u.setScale('x', { min: last - width, max: last });
    });
    const size = [u.width, u.height];
    const rows = p.times.length;
    panel.querySelector('.plot-close').click();
    // The per-second history: two series a channel and the band between them.
    ({ panel, p, u, from, now } = await load(1));
    const bands = await run((i) => {
      const shift = (now - from) * 0.002 * (i % 100 < 50 ? i % 50 : 50 - (i % 50));
      u.setScale('x', { min: from - shift, max: now - shift });
    });
    return { idle, pan, follow, bands, drawn: u.data[0].length, size, points: rows };
  }, { names: CHANNELS, points: POINTS, frames: FRAMES });
  const line = (what, s) => console.log(`plot frame, ${what}, ${CHANNELS.length} channels x ` +
    `${results.points} points, ${results.size[0]}x${results.size[1]} px: median ` +
    `${s.median.toFixed(2)} ms, p99 ${s.p99.toFixed(2)} ms, max ${s.max.toFixed(2)} ms ` +
    `(${s.n} frames)`);
  line('a pixel drawn (the raster read-back alone)', results.idle);
  line('pan (setScale)', results.pan);
  line('follow (setData + setScale)', results.follow);
  line(`pan of the per-second history (a band of min and max, ${results.drawn} buckets drawn)`,
    results.bands);
} finally {
  await browser.close();
  await app.stop();
  await board.stop();
}
