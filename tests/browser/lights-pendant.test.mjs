// The Lights and Pendant pages in a real browser against the simulated board: a cycle the board
// sees run, raw numbers accepted and refused, a slider's step reaching the board, buttons and the
// joystick pressed at the board appearing on the Pendant page.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { join } from 'node:path';
import { launchBrowser, withSession, eventually, field } from './harness.mjs';

const SHOTS = process.env.TAVRO_SCREENSHOT_DIR;
const PENDANT_TAB = 2;
const LIGHTS_TAB = 3;
let browser;

before(async () => { browser = await launchBrowser({ width: 1000, height: 560 }); });
after(async () => { if (browser) await browser.close(); });

// What the board's light channels hold now.
async function boardLights(board) {
  const answer = await board.control('lights');
  return answer.split('values=')[1].split(',').map(Number);
}

test('Lights: a cycle runs on the board, raw numbers are taken or refused, a slider steps',
  () => withSession(browser, { profile: 'autovision', setUp: ['lights 10', 'lightmax all 1000'], tab: LIGHTS_TAB },
    async ({ board, page }) => {
      const value = (id) => field(page, LIGHTS_TAB, id).inputValue();
      assert.equal(await page.locator(`#tab-${LIGHTS_TAB}`).textContent(), 'Lights');
      await eventually(() => value('NumChannels'), '10');
      assert.equal(await value('ProfileChannelNum'), '8');
      assert.equal(await value('CoaxChannelNum'), '9');
      assert.equal(await value('SurfaceChannelNums'), '0 - 7');
      assert.equal(await value('ProfileMaxValue'), '1000');

      // Accepted: the board's coaxial channel takes it and the slider follows.
      const raw = field(page, LIGHTS_TAB, 'RawCoax');
      await raw.fill(' 500 ');
      await raw.press('Tab');
      await eventually(async () => (await boardLights(board))[9], 500);
      await eventually(() => value('CoaxSlider'), '500');
      // Refused: the box goes back to the last number taken, and the board keeps it.
      await raw.fill('12a');
      await raw.press('Tab');
      await eventually(() => value('RawCoax'), '500');
      assert.equal((await boardLights(board))[9], 500);

      // A page step of the profile slider (16 for a maximum of 1000) reaches the board.
      const slider = field(page, LIGHTS_TAB, 'ProfileSlider');
      await slider.focus();
      await slider.press('PageDown');
      await slider.press('PageDown');
      await eventually(async () => (await boardLights(board))[8], 32);
      await eventually(() => value('RawProfile'), '32');

      // The surface cycle: the board sees its channels climb, then the ramp ends dark.
      await field(page, LIGHTS_TAB, 'SurfaceCycle').click();
      await eventually(async () => (await boardLights(board))[0] > 400, true, 3000);
      if (SHOTS) await page.screenshot({ path: join(SHOTS, 'lights.png') });
      await eventually(async () => (await boardLights(board)).slice(0, 8).every((v) => v === 0),
        true, 5000);
    }));

test('Pendant: buttons, joystick, accelerometer and e-stop at the board show on the page',
  () => withSession(browser, { profile: 'autovision', tab: PENDANT_TAB }, async ({ board, page }) => {
    const value = (id) => field(page, PENDANT_TAB, id).inputValue();
    assert.equal(await page.locator(`#tab-${PENDANT_TAB}`).textContent(), 'Pendant');
    await board.control('press b3');
    await board.control('press b6');
    await eventually(() => value('PenButton3'), 'B 3');
    await eventually(() => value('PenButton6'), 'B 6');
    assert.equal(await value('PenButton1'), '');

    await board.control('joystick 0.25 -0.4 0');
    await board.control('accel 0 -1 0');
    await board.control('estop on');
    await eventually(() => value('PendantPosXPos'), '25');
    await eventually(() => value('PendantPosYNeg'), '-40');
    assert.equal(await value('PendantPosXNeg'), '');
    assert.equal(await value('PendantPosZPos'), '');
    await eventually(() => value('EStop'), 'EStop');
    assert.ok(Number(await value('AccelerometerPosY')) < -900);
    if (SHOTS) await page.screenshot({ path: join(SHOTS, 'pendant.png') });

    await board.control('release b3');
    await board.control('joystick -0.25 0 0');
    await eventually(() => value('PenButton3'), '');
    await eventually(() => value('PendantPosXNeg'), '-25');
    assert.equal(await value('PendantPosXPos'), '');
  }));
