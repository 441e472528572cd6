// The Probes and Readings pages in a real browser against the simulated board: a touch probe
// armed and tripped at the board, the camera's trigger capturing where the stage stands, the
// laser's settings changed by the board itself; a supply rail walked off its nominal turning its
// cell yellow, then red.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { join } from 'node:path';
import { launchBrowser, withSession, eventually, field } from './harness.mjs';

const SHOTS = process.env.TAVRO_SCREENSHOT_DIR;
const READINGS_TAB = 4;
const PROBES_TAB = 5;
const WHITE = 'rgb(255, 255, 255)';
const YELLOW = 'rgb(255, 255, 0)';
const RED = 'rgb(255, 0, 0)';
let browser;

before(async () => { browser = await launchBrowser({ width: 1000, height: 640 }); });
after(async () => { if (browser) await browser.close(); });

// The stage's linear count on `axis` as the board has it.
async function counts(board, axis) {
  const answer = await board.control(`axis ${axis}`);
  return answer.match(/counts=(-?\d+)/)[1];
}

test('Probes: a touch probe armed and tripped, a video capture, the laser as the board sets it',
  () => withSession(browser, { profile: 'autovision', tab: PROBES_TAB }, async ({ board, page }) => {
    const value = (id) => field(page, PROBES_TAB, id).inputValue();
    const checked = (id) => field(page, PROBES_TAB, id).isChecked();
    assert.equal(await page.locator(`#tab-${PROBES_TAB}`).textContent(), 'Probes');

    // The touch probe: switched on, made the interrupt source, then touched at the board.
    await field(page, PROBES_TAB, 'TouchProbeEnable').click();
    await field(page, PROBES_TAB, 'TouchProbeInterruptEnable').click();
    await eventually(() => checked('TouchProbeInterruptEnable'), true);
    // The box is checked in the browser at once; the board must have armed the source first.
    await eventually(async () => (await board.control('state')).endsWith(' interrupts=touch'), true);
    await board.control('place y 42.5');
    await board.control('probe trip');
    await eventually(() => value('TouchProbeTrip'), 'Trip');
    const y = await counts(board, 'y');
    await eventually(() => value('TouchProbeCaptureY'), y);
    assert.equal(await value('TouchProbeCaptureX'), await counts(board, 'x'));

    // The camera's trigger: armed, it takes the place of the touch probe and captures where the
    // stage stands, again after the stage has moved.
    await field(page, PROBES_TAB, 'VideoInterruptEnable').click();
    await eventually(() => checked('TouchProbeInterruptEnable'), false);
    assert.equal(await checked('VideoInterruptEnable'), true);
    await board.control('place x 180');
    await eventually(async () => value('VideoCaptureX'), await counts(board, 'x'));
    assert.equal(await value('VideoCaptureY'), y);

    // The laser: the board changes its rate by itself, and a point waits to be read.
    await board.control('laser rate 2');
    await eventually(() => value('LaserMeasurementSpeed'), '625.00', 3000);
    assert.equal(await value('LaserStatus'), 'On');
    await board.control('laser points 3');
    await eventually(() => value('LaserCaptureInfo'), 'Poll');
    assert.notEqual(await value('LaserValue'), '0');
    // The laser reads the stage's position with a few counts of its own scatter.
    const scatter = Number(await value('LaserCaptureX')) - Number(await counts(board, 'x'));
    assert.ok(Math.abs(scatter) <= 5, `laser X ${scatter} counts off`);

    // The sensitivity is the first generation's: disabled on this board.
    assert.equal(await field(page, PROBES_TAB, 'TPSensSlider').isDisabled(), true);
    if (SHOTS) await page.screenshot({ path: join(SHOTS, 'probes.png') });

    // Clicked again, the armed source is disarmed.
    await field(page, PROBES_TAB, 'VideoInterruptEnable').click();
    await eventually(() => checked('VideoInterruptEnable'), false);
    await board.control('probe release');
    await eventually(() => value('TouchProbeTrip'), '');
  }));

test('Readings: a supply rail walked off its nominal turns its cell yellow, then red',
  () => withSession(browser, { profile: 'autovision', tab: READINGS_TAB }, async ({ board, page }) => {
    const value = (id) => field(page, READINGS_TAB, id).inputValue();
    const colour = (id) => field(page, READINGS_TAB, id)
      .evaluate((e) => getComputedStyle(e).backgroundColor);
    assert.equal(await page.locator(`#tab-${READINGS_TAB}`).textContent(), 'Readings');
    assert.equal(await field(page, READINGS_TAB, 'AnalogLabel10').textContent(),
      'Probe/Zoom Board 24V');
    await eventually(async () => (await value('Analog10')).trim() !== '', true);
    assert.equal(await colour('Analog10'), WHITE);
    assert.match(await value('Temp0'), /^\d\d\.\d\d C$/);

    // 24 V less 3 %: still within 5 %; less 7 %: yellow; less 12 %: red.
    const steps = [['-3', WHITE], ['-7', YELLOW], ['-12', RED]];
    for (const [percent, expected] of steps) {
      await board.control(`supply 10 ${percent}`);
      const volts = 24 * (1 + Number(percent) / 100);
      await eventually(async () => Math.abs(Number(await value('Analog10')) - volts) < 0.2, true,
        3000);
      assert.equal(await colour('Analog10'), expected, `${percent}%`);
    }
    assert.equal(await colour('Analog9'), WHITE);

    await board.control('supply 1 6');
    await eventually(() => colour('Analog1'), YELLOW, 3000);
    if (SHOTS) await page.screenshot({ path: join(SHOTS, 'readings.png') });
  }));
