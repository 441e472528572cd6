// The shell in a real browser against the demo server (tests/ui/ui_demo.cpp): what the program
// sets shows up, what the user does reaches the program, boxes and dialogs go both ways, and a
// second browser sees the same window.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { launchBrowser, startUi, eventually, field } from './harness.mjs';

let demo;
let browser;
let first;

async function openShell() {
  const page = await browser.context.newPage();
  await page.goto(demo.url);
  await field(page, 0, 'Greeting').waitFor();
  return page;
}

before(async () => {
  demo = await startUi(process.env.TAVRO_UI_DEMO, ['--port', '0']);
  browser = await launchBrowser({ width: 1100, height: 700 });
  first = await openShell();
});

after(async () => {
  if (browser) await browser.close();
  if (demo) await demo.stop();
});

test('the shell shows the title, the tab and the values the program set', async () => {
  await eventually(() => first.locator('#title').textContent(), 'TavroTest : Connected');
  assert.equal(await first.title(), 'TavroTest : Connected');
  assert.equal(await first.locator('#tab-0').textContent(), 'Demo Controls');
  await eventually(() => field(first, 0, 'Greeting').inputValue(), 'Hello from the program');
  // A page knows that a browser shows it.
  await eventually(() => field(first, 0, 'State').textContent(), 'Shown');
});

test('clicks and check box changes reach the program and its answers come back', async () => {
  await field(first, 0, 'CountButton').click();
  await field(first, 0, 'CountButton').click();
  await eventually(() => field(first, 0, 'ClickCount').inputValue(), '2');
  await field(first, 0, 'EnableBox').click();
  await eventually(() => field(first, 0, 'CountButton').isDisabled(), true);
  await field(first, 0, 'EnableBox').click();
  await eventually(() => field(first, 0, 'CountButton').isDisabled(), false);
});

test('a box from a worker shows in every browser and either can answer it', async () => {
  const box = first.locator('.dialog[role="alertdialog"]');
  await field(first, 0, 'AskButton').click();
  await box.waitFor();
  assert.match(await box.locator('.text').textContent(), /Did the machine move correctly\?/);
  await box.locator('button[data-result="6"]').click();
  await eventually(() => field(first, 0, 'Answer').inputValue(), 'Yes');
  await eventually(() => box.count(), 0);

  const second = await openShell();
  await eventually(() => field(second, 0, 'ClickCount').inputValue(), '2');
  await eventually(() => field(second, 0, 'Answer').inputValue(), 'Yes');
  await field(first, 0, 'AskButton').click();
  const inSecond = second.locator('.dialog[role="alertdialog"]');
  await box.waitFor();
  await inSecond.waitFor();
  await inSecond.locator('button[data-result="7"]').click();
  await eventually(() => field(first, 0, 'Answer').inputValue(), 'No');
  await eventually(() => box.count(), 0);
  await second.close();
});

test('the slider and its text box move each other through the program', async () => {
  const level = field(first, 0, 'Level');
  const raw = field(first, 0, 'RawLevel');
  await eventually(() => level.inputValue(), '250');
  await level.focus();
  await level.press('PageDown');  // one page step of 16
  await eventually(() => raw.inputValue(), '266');
  await raw.fill('500');
  await raw.press('Enter');  // Enter moves on, and leaving the box reports the change
  await eventually(() => level.inputValue(), '500');
  await raw.fill('12a');
  await raw.press('Tab');
  await eventually(() => raw.inputValue(), '500');
});

test('a choice dialog returns the picked option', async () => {
  await field(first, 0, 'ChooseButton').click();
  const dialog = first.locator('.dialog[role="dialog"]');
  await dialog.waitFor();
  assert.equal(await dialog.locator('legend').textContent(), 'Voltage Limit');
  await dialog.getByLabel('High').check();
  await dialog.locator('button[data-result="1"]').click();
  await eventually(() => field(first, 0, 'Choice').inputValue(), 'OK 1');
});

test('the message window shows progress and reports its buttons', async () => {
  await field(first, 0, 'WindowButton').click();
  const win = first.locator('.msgwin');
  await win.waitFor();
  assert.equal(await win.locator('.caption-text').textContent(), 'Copying data');
  await eventually(async () => (await win.locator('progress').evaluate((p) => p.value)) > 0, true);
  await win.locator('button[data-result="0"]').click();
  await eventually(() => win.locator('.wintext').textContent(), 'Paused.');
  await win.locator('button[data-result="1"]').click();
  await eventually(() => win.count(), 0);
});

test('the file access warning is placed by the program and answers the keyboard', async () => {
  await field(first, 0, 'FileWarningButton').click();
  const win = first.locator('.msgwin.placed');
  await win.waitFor();
  assert.equal(await win.locator('.caption-text').textContent(), 'File Access Warning');
  // Both failures, the second added to the open window's text.
  await eventually(async () => (await win.locator('.wintext').textContent()).includes('users.dat'), true);
  const text = await win.locator('.wintext').textContent();
  assert.match(text, /^Could not open for writing .*: '.*Mirava\.ini'\. Permission denied\n\nCould not open for reading: '.*users\.dat'\. No such file or directory\n$/);
  // The program measured the text in the shell's font: every line fits, nothing scrolls.
  const fits = await win.locator('.wintext').evaluate((el) =>
    el.scrollWidth <= el.clientWidth && el.scrollHeight <= el.clientHeight);
  assert.equal(fits, true);
  // The window and its button stand inside the viewport, the button below the text.
  const box = await win.boundingBox();
  const button = await win.locator('.buttons button').boundingBox();
  const textBox = await win.locator('.wintext').boundingBox();
  assert.ok(box.x >= 0 && box.y >= 0 && box.x + box.width <= 1100 && box.y + box.height <= 700);
  assert.ok(button.y >= textBox.y + textBox.height);
  assert.equal(await win.locator('.buttons button').textContent(), 'OK');

  if (process.env.TAVRO_SCREENSHOT_WINDOW) {
    await first.screenshot({ path: process.env.TAVRO_SCREENSHOT_WINDOW });
  }
  // The text takes the focus; Escape, let go, closes the window.
  await win.locator('.wintext').click();
  await first.keyboard.press('Escape');
  await eventually(() => first.locator('.msgwin.placed').count(), 0);
});

test('Escape goes to the page in front unless a dialog or message window takes it', async () => {
  const cancels = field(first, 0, 'CancelCount');
  // The message window's Escape in the test before reached no page.
  assert.equal(await cancels.inputValue(), '');
  await field(first, 0, 'Greeting').click();  // the focus in the page's frame
  await first.keyboard.press('Escape');
  await eventually(() => cancels.inputValue(), '1');
  await first.locator('#title').click();  // the focus in the shell
  await first.keyboard.press('Escape');
  await eventually(() => cancels.inputValue(), '2');

  // A Yes/No box keeps Escape to itself and stays up; the page is not told.
  await field(first, 0, 'AskButton').click();
  const box = first.locator('.dialog[role="alertdialog"]');
  await box.waitFor();
  await first.keyboard.press('Escape');
  await box.locator('button[data-result="7"]').click();
  await eventually(() => field(first, 0, 'Answer').inputValue(), 'No');
  // The answer went after the Escape on the same socket: a cancel would be in by now.
  assert.equal(await cancels.inputValue(), '2');
  await field(first, 0, 'Greeting').click();
  await first.keyboard.press('Escape');
  await eventually(() => cancels.inputValue(), '3');
});

test('the title bar shows STOP with the running test and one click stops it', async () => {
  const stop = first.getByRole('button', { name: 'STOP' });
  assert.equal(await stop.isVisible(), false);
  await field(first, 0, 'RunButton').click();
  await stop.waitFor();
  assert.equal(await stop.textContent(), 'STOP \u2014 Demo Axis Test');
  // A browser that comes while the test runs sees the control too.
  const second = await openShell();
  await second.getByRole('button', { name: 'STOP' }).waitFor();
  await second.close();
  await stop.click();
  await eventually(() => field(first, 0, 'RunState').inputValue(), 'Stopped');
  await eventually(() => stop.isVisible(), false);
});
