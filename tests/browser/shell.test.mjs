// The shell in a real browser against the demo server (tests/ui/ui_demo.cpp): what the program
// sets shows up, what the user does reaches the program, boxes and dialogs go both ways, and a
// second browser sees the same window.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { launchBrowser, eventually, field } from './harness.mjs';

let demo;
let url;
let browser;
let context;
let first;

function startDemo() {
  return new Promise((resolve, reject) => {
    demo = spawn(process.env.TAVRO_UI_DEMO, ['--port', '0'], { stdio: ['ignore', 'pipe', 'pipe'] });
    let out = '';
    demo.stdout.on('data', (chunk) => {
      out += chunk;
      const m = out.match(/^TavroTest UI: (http:\/\/127\.0\.0\.1:\d+\/\?token=[0-9a-f]+)$/m);
      if (m) resolve(m[1]);
    });
    demo.stderr.on('data', () => {});
    demo.on('exit', (code) => reject(new Error(`ui_demo ended early (${code})`)));
  });
}

async function openShell() {
  const page = await context.newPage();
  await page.goto(url);
  await page.frameLocator('#page-0').locator('#Greeting').waitFor();
  return page;
}

before(async () => {
  url = await startDemo();
  browser = await launchBrowser({ width: 1100, height: 700 });
  ({ context } = browser);
  first = await openShell();
});

after(async () => {
  if (browser) await browser.close();
  if (demo) { demo.removeAllListeners('exit'); demo.kill('SIGTERM'); }
});

test('the shell shows the title, the tabs and the values the program set', async () => {
  await eventually(() => first.locator('#title').textContent(), 'TavroTest : Connected');
  assert.equal(await first.title(), 'TavroTest : Connected');
  assert.equal(await first.locator('#tab-0').textContent(), 'Demo Controls');
  assert.equal(await first.locator('#tab-1').textContent(), 'Demo Log');
  await eventually(() => field(first, 0, 'Greeting').inputValue(), 'Hello from the program');
  // A page knows that a browser shows it.
  await eventually(() => field(first, 0, 'State').textContent(), 'Shown');
  // Timer 4 counts seconds on the program's side.
  await eventually(async () => Number(await field(first, 0, 'Seconds').inputValue()) > 0, true);
});

test('a click reaches the program and its answer comes back', async () => {
  await field(first, 0, 'CountButton').click();
  await field(first, 0, 'CountButton').click();
  await eventually(() => field(first, 0, 'ClickCount').inputValue(), '2');
});

test('a check box change reaches the program, which disables a button', async () => {
  await field(first, 0, 'EnableBox').click();
  await eventually(() => field(first, 0, 'CountButton').isDisabled(), true);
  await field(first, 0, 'EnableBox').click();
  await eventually(() => field(first, 0, 'CountButton').isDisabled(), false);
});

test('a message box from a worker appears and its answer returns', async () => {
  await field(first, 0, 'AskButton').click();
  const box = first.locator('.dialog[role="alertdialog"]');
  await box.waitFor();
  assert.match(await box.locator('.text').textContent(), /Did the machine move correctly\?/);
  await box.locator('button[data-result="6"]').click();
  await eventually(() => field(first, 0, 'Answer').inputValue(), 'Yes');
  await eventually(() => box.count(), 0);
});

test('a second browser sees the same state and can answer a box of the first', async () => {
  const second = await openShell();
  await eventually(() => field(second, 0, 'ClickCount').inputValue(), '2');
  await eventually(() => field(second, 0, 'Answer').inputValue(), 'Yes');

  await field(first, 0, 'AskButton').click();
  const inFirst = first.locator('.dialog[role="alertdialog"]');
  const inSecond = second.locator('.dialog[role="alertdialog"]');
  await inFirst.waitFor();
  await inSecond.waitFor();
  await inSecond.locator('button[data-result="7"]').click();
  await eventually(() => field(first, 0, 'Answer').inputValue(), 'No');
  await eventually(() => inFirst.count(), 0);
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
  await eventually(async () => Number(await win.locator('progress').getAttribute('value')) > 0 ||
    (await win.locator('progress').evaluate((p) => p.value)) > 0, true);
  await win.locator('button[data-result="0"]').click();
  await eventually(() => win.locator('.wintext').textContent(), 'Paused.');

  if (process.env.TAVRO_SCREENSHOT) {
    // Set the message window beside the box so that both show.
    await win.evaluate((el) => { el.style.left = '640px'; el.style.top = '440px'; });
    await field(first, 0, 'AskButton').click();
    await first.locator('.dialog[role="alertdialog"]').waitFor();
    await first.screenshot({ path: process.env.TAVRO_SCREENSHOT });
    await first.locator('.dialog[role="alertdialog"] button[data-result="6"]').click();
  }
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

test('the log page follows its end once the reader is there, and stays put otherwise', async () => {
  await first.locator('#tab-1').click();
  const output = field(first, 1, 'Output');
  await eventually(async () => (await output.inputValue()).split('\n').length > 25, true, 15000);
  const atEnd = () => output.evaluate((el) => el.scrollHeight - el.scrollTop <= el.clientHeight + 1);
  // Not at the end yet: the view stays at the top while lines arrive.
  assert.equal(await output.evaluate((el) => el.scrollTop), 0);
  await output.evaluate((el) => { el.scrollTop = el.scrollHeight; });
  const lines = (await output.inputValue()).split('\n').length;
  await eventually(async () => (await output.inputValue()).split('\n').length > lines + 3, true);
  await eventually(atEnd, true);
  await first.locator('#tab-0').click();
});
