// How fast a motion test lets go of its axis, measured with TavroTest against the simulated board
// in real time and one headless chromium:
//   floor       a click that costs one transfer: "Clear Sleep" on a sleeping board, from the
//               click to the board's receipt of its command (a WebSocket message plus one
//               transfer)
//   stop        the title bar's STOP while an axis test ramps, from the click to the board's
//               receipt of the axis's own record (goal: p99 at most 50 ms)
//   hung tab    the page's script hangs (its connection stays open) while the axis is driven,
//               from the last sign of life the page sent to the same receipt (goal: at most
//               2.5 s)
// Times are taken on CLOCK_MONOTONIC on both sides: node's hrtime and the board's record of when
// each request came. Run through `bench/browser_bench.sh stop`; prints one line per measure.
import { launchBrowser, startBoard, startTavroTest, eventually, field } from '../tests/browser/harness.mjs';

const SAMPLES = Number(process.env.SAMPLES || 40);
const HANGS = Number(process.env.HANGS || 5);
const STAGE = 1;
const SET_TUNING = '0x73';
const CLEAR_SLEEP = '0x5a';

const nowUs = () => Number(process.hrtime.bigint() / 1000n);
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const percentile = (sorted, p) => sorted[Math.min(sorted.length - 1, Math.ceil(p * sorted.length) - 1)];
const summary = (name, ms) => {
  const s = [...ms].sort((a, b) => a - b);
  console.log(`${name}: n=${s.length} median=${percentile(s, 0.5).toFixed(1)} ms `
    + `p99=${percentile(s, 0.99).toFixed(1)} ms max=${s.at(-1).toFixed(1)} ms`);
};

// The board's transfers of one command since `fromUs`: [{us, hex}].
async function received(board, code, fromUs) {
  const answer = await board.control(`recent ${code}`);
  return answer.split(' ').slice(1).map((entry) => {
    const [, us, hex] = entry.split(':');
    return { us: Number(us), hex };
  }).filter((t) => t.us >= fromUs);
}

// The first record of axis X the board took after `fromUs` that is not a take-over record (whose
// following error is the largest there is).
async function handBackAfter(board, fromUs, timeoutMs) {
  const end = Date.now() + timeoutMs;
  while (Date.now() < end) {
    const own = (await received(board, SET_TUNING, fromUs))
      .find((t) => t.hex.slice(2, 4) === '00' && !t.hex.includes('7fffffff'));
    if (own) return own.us;
    await sleep(5);
  }
  throw new Error('the axis was not handed back');
}

// Clicks through JavaScript in the page, so that the time taken is the click's, not the driver's
// search for the element.
const clickNow = (page, selector, frame) => page.evaluate(([s, f]) => {
  const root = f === null ? document : document.getElementById(`page-${f}`).contentDocument;
  root.querySelector(s).click();
}, [selector, frame]);

// Starts the X axis test with the voltage limit `limit` and waits until it drives with a bias of
// at least 500.
async function driving(page, limit = 'Standard') {
  await field(page, STAGE, 'XAxisTest').click();
  const start = page.getByRole('dialog');
  await start.getByRole('radio', { name: limit }).check();
  await start.getByRole('button', { name: 'OK' }).click();
  await eventually(async () => {
    const mb = /^MB: (\d+)$/.exec(await field(page, STAGE, 'RunningTestX').inputValue());
    return Boolean(mb) && Number(mb[1]) >= 500;
  }, true, 30000);
}

// Answers boxes (No to questions, Cancel to the positive run's prompt) until the test is over.
async function finish(page) {
  const stop = page.getByRole('button', { name: /^STOP/ });
  for (;;) {
    const box = await page.$('[role="alertdialog"]');
    if (box) {
      const b = (await box.$('.buttons button:text-is("Yes")')) || (await box.$('.buttons button:text-is("Cancel")'))
        || (await box.$('.buttons button:text-is("OK")'));
      if (b) await b.click({ timeout: 2000 }).catch(() => {});
      await box.waitForElementState('hidden', { timeout: 5000 }).catch(() => {});
      continue;
    }
    if (!(await stop.isVisible())) return;
    await sleep(20);
  }
}

// The time of the last sign of life each page sent, on node's clock: the browser's own record
// of when the frame left, moved onto node's clock by the smallest gap seen between that record
// and node's receipt of the notice (the browser's clock has an origin of its own).
const beats = new WeakMap();  // page -> {last, offset} in microseconds
async function watchBeats(page) {
  const cdp = await page.context().newCDPSession(page);
  await cdp.send('Network.enable');
  const seen = { last: 0, offset: Infinity };
  beats.set(page, seen);
  cdp.on('Network.webSocketFrameSent', (e) => {
    if (!e.response.payloadData.includes('"beat"')) return;
    const sent = e.timestamp * 1e6;
    seen.offset = Math.min(seen.offset, nowUs() - sent);
    seen.last = sent;
  });
}
const lastBeatOf = (page) => beats.get(page).last + beats.get(page).offset;

const board = await startBoard('autovision');
const app = await startTavroTest(board.dir);
const browser = await launchBrowser();
try {
  let page = await browser.context.newPage();
  await watchBeats(page);
  await page.goto(app.url);
  await eventually(() => page.locator('#title').textContent(), 'TavroTest : Connected');
  await page.locator(`#tab-${STAGE}`).click();
  await field(page, STAGE, 'EStop').waitFor();

  const floor = [];
  for (let i = 0; i < SAMPLES; i += 1) {
    await board.control('sleep on');
    await eventually(() => field(page, STAGE, 'StatusClearSleep').isEnabled(), true);
    const t0 = nowUs();
    await clickNow(page, '#StatusClearSleep', STAGE);
    let seen = [];
    while (!seen.length) seen = await received(board, CLEAR_SLEEP, t0);
    floor.push((seen[0].us - t0) / 1000);
    await board.control('sleep off');
    await eventually(() => field(page, STAGE, 'StatusClearSleep').isEnabled(), false);
  }
  summary('floor (click to one transfer)', floor);

  const stops = [];
  for (let i = 0; i < SAMPLES; i += 1) {
    await driving(page);
    await sleep(Math.random() * 100);  // anywhere in a pass
    const t0 = nowUs();
    await clickNow(page, '#stop-test', null);
    stops.push((await handBackAfter(board, t0, 5000) - t0) / 1000);
    await finish(page);
  }
  summary('stop (click to hand-back)', stops);

  // The axis is blocked and the limit the highest: the ramp would climb for 9 s, so only the
  // missing signs of life can end it within the goal.
  await board.control('block x');
  const hangs = [];
  for (let i = 0; i < HANGS; i += 1) {
    await driving(page, 'No Limit');
    const t0 = nowUs();
    page.evaluate('for (;;) {}').catch(() => {});  // the page's thread never comes back
    const handedBack = await handBackAfter(board, t0, 10000);
    hangs.push((handedBack - lastBeatOf(page)) / 1000);
    await page.close({ runBeforeUnload: false }).catch(() => {});
    page = await browser.context.newPage();
    await watchBeats(page);
    await page.goto(app.url);
    await eventually(() => page.locator('#title').textContent(), 'TavroTest : Connected');
    await finish(page);  // the question waited for this browser
    await page.locator(`#tab-${STAGE}`).click();
    await field(page, STAGE, 'EStop').waitFor();
  }
  summary('hung tab (last sign of life to hand-back)', hangs);
} finally {
  await browser.close();
  await app.stop();
  await board.stop();
}
