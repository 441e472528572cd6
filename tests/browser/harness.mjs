// What the browser tests and the window benchmark share: a simulated board with its control
// socket, TavroTest (or the shell's demo) against it, and Debian's chromium driven by
// playwright-core.
import { spawn } from 'node:child_process';
import { copyFileSync, mkdtempSync, rmSync } from 'node:fs';
import { createConnection } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import assert from 'node:assert/strict';
import { chromium } from 'playwright-core';

export async function launchBrowser(viewport = { width: 1000, height: 640 }) {
  const profile = mkdtempSync(join(tmpdir(), 'tavro-browser-'));
  const context = await chromium.launchPersistentContext(profile, {
    executablePath: '/usr/bin/chromium',
    headless: true,
    viewport,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
  return {
    context,
    async close() {
      await context.close();
      rmSync(profile, { recursive: true, force: true });
    },
  };
}

// Waits for the first line of `child`'s stdout that matches `pattern`; rejects if it ends first.
function lineOf(child, pattern, what) {
  return new Promise((resolve, reject) => {
    let text = '';
    const onData = (chunk) => {
      text += chunk;
      const m = text.match(pattern);
      if (m) {
        child.stdout.off('data', onData);
        resolve(m);
      }
    };
    child.stdout.on('data', onData);
    child.once('exit', (code) => reject(new Error(`${what} ended (${code}) before: ${pattern}\n${text}`)));
  });
}

// A child that a signal ended has no exit code, only its signal.
const running = (child) => child.exitCode === null && child.signalCode === null;

async function stopChild(child) {
  if (running(child)) {
    child.kill('SIGTERM');
    await new Promise((r) => child.once('exit', r));
  }
}

// A simulated board of `profile` in a fresh device folder, with its control socket.
export async function startBoard(profile, extraArgs = []) {
  const dir = mkdtempSync(join(tmpdir(), 'tavro-dev-'));
  const controlPath = join(dir, 'control.sock');
  const child = spawn(process.env.TAVROSIM,
    ['--profile', profile, '--dir', dir, '--control', controlPath, ...extraArgs],
    { stdio: ['ignore', 'pipe', 'pipe'] });
  child.stderr.on('data', () => {});
  let output = '';
  child.stdout.on('data', (chunk) => { output += chunk; });
  await lineOf(child, /^tavrosim: serving .*$/m, 'tavrosim');
  return {
    dir,
    child,
    // The first match of `pattern` in what the board printed, as soon as it has printed it.
    printed(pattern) {
      return new Promise((resolve, reject) => {
        const gone = (code) => reject(new Error(`tavrosim ended (${code}) before: ${pattern}`));
        const look = () => {
          const m = output.match(pattern);
          if (!m) return;
          child.stdout.off('data', look);
          child.off('exit', gone);
          resolve(m);
        };
        child.stdout.on('data', look);
        child.once('exit', gone);
        look();
      });
    },
    // One control command; resolves with the answer line, and fails the test on an error.
    control(line) {
      return new Promise((resolve, reject) => {
        const socket = createConnection(controlPath);
        let answer = '';
        socket.on('data', (chunk) => {
          answer += chunk;
          const end = answer.indexOf('\n');
          if (end >= 0) {
            socket.end();
            const text = answer.slice(0, end);
            if (text.startsWith('ok')) resolve(text);
            else reject(new Error(`tavrosim: ${line} -> ${text}`));
          }
        });
        socket.on('error', reject);
        socket.write(`${line}\n`);
      });
    },
    async stop() {
      await stopChild(child);
      rmSync(dir, { recursive: true, force: true });
    },
  };
}

// A program with the window; resolves once it printed its UI line.
export async function startUi(program, args = [], env = {}) {
  const child = spawn(program, args, {
    stdio: ['ignore', 'pipe', 'pipe'],
    env: { ...process.env, ...env },
  });
  let stderr = '';
  child.stderr.on('data', (chunk) => { stderr += chunk; });
  const m = await lineOf(child,
    /^TavroTest UI: (http:\/\/127\.0\.0\.1:\d+\/\?token=[0-9a-f]+)$/m, program);
  return {
    url: m[1],
    child,
    stderr: () => stderr,
    exited: () => new Promise((r) => {
      if (!running(child)) r(child.exitCode);
      else child.once('exit', (code) => r(code));
    }),
    stop: () => stopChild(child),
  };
}

// TavroTest (`program`, else the one under test) against the device folder `dir`.
export function startTavroTest(dir, program = process.env.TAVROTEST) {
  const port = 20000 + Math.floor(Math.random() * 30000);
  return startUi(program, [], { TAVRO_DEVICE_DIR: dir, TAVROTEST_PORT: String(port) });
}

// Runs `body(program, folder)` with TavroTest copied into a scratch folder of its own (reports go
// beside the program); the folder goes once `body` is done.
export async function withProgramCopy(body) {
  const folder = mkdtempSync(join(tmpdir(), 'tavro-program-'));
  const program = join(folder, 'tavrotest');
  copyFileSync(process.env.TAVROTEST, program);
  try {
    return await body(program, folder);
  } finally {
    rmSync(folder, { recursive: true, force: true });
  }
}

// A board of `profile`, set up by the control lines `setUp` before TavroTest opens it, TavroTest
// (`program`, else the one under test) against it, and a page of `browser` showing its window
// once connected, on tab `tab` when one is named. All of it is stopped once `body` is done.
export async function withSession(browser, { profile, setUp = [], program, tab }, body) {
  const board = await startBoard(profile);
  const app = await (async () => {
    for (const line of setUp) await board.control(line);
    return startTavroTest(board.dir, program);
  })().catch(async (e) => { await board.stop(); throw e; });
  const page = await browser.context.newPage();
  try {
    await page.goto(app.url);
    await eventually(() => page.locator('#title').textContent(), 'TavroTest : Connected');
    if (tab !== undefined) await page.locator(`#tab-${tab}`).click();
    await body({ board, page, app });
  } finally {
    await page.close();
    await app.stop();
    await board.stop();
  }
}

// Polls until `read` gives `expected`; fails with the last value after the time-out.
export async function eventually(read, expected, timeout = 10000) {
  const end = Date.now() + timeout;
  let last;
  while (Date.now() < end) {
    last = await read();
    if (last === expected) return;
    await new Promise((r) => setTimeout(r, 20));
  }
  assert.equal(last, expected);
}

export const field = (page, tab, id) => page.frameLocator(`#page-${tab}`).locator(`#${id}`);

// Resolves once TavroTest has taken every message this window sent it, and the window has shown
// every message TavroTest sent before answering: the About box is asked for behind them on the
// same socket, and comes back behind what went out before it. A report that a page sends in an
// animation frame (a scroll) is let out first.
export async function roundTrip(page) {
  await page.evaluate(() => new Promise((r) => requestAnimationFrame(() => r())));
  await page.locator('#menu-button').click();
  await page.locator('#menu-about').click();
  const box = page.locator('[role="alertdialog"]', { hasText: 'About TavroTest' });
  await box.locator('.buttons button:text-is("OK")').click();
  await box.waitFor({ state: 'detached' });
}

// Answers every box and dialog as an operator who agrees with everything would, until `done`
// holds: a start dialog with OK (after `onStart(dialog)`), a box with Yes, else OK; `onStep` runs
// between looks. Returns the texts of the boxes, in order. A box stays in the page until the
// program closes it, so each answer waits for its box to go.
export async function answerUntil(page, done,
  { onStep = async () => {}, onStart = async () => {}, timeout = 90000 } = {}) {
  const texts = [];
  const end = Date.now() + timeout;
  const answer = async (node, caption) => {
    const button = await node.$(`.buttons button:text-is("${caption}")`);
    if (!button) return false;
    await button.click({ timeout: 2000 }).catch(() => {});
    await node.waitForElementState('hidden', { timeout: 5000 }).catch(() => {});
    return true;
  };
  while (!(await done())) {
    assert.ok(Date.now() < end, `the test did not end; boxes so far:\n${texts.join('\n---\n')}`);
    const start = await page.$('[role="dialog"]:has(input[type="radio"])');
    if (start) {
      await onStart(start);
      if (await answer(start, 'OK')) texts.push('[start dialog]');
      continue;
    }
    const box = await page.$('[role="alertdialog"]');
    if (box) {
      const text = await box.textContent();
      if ((await answer(box, 'Yes')) || (await answer(box, 'OK'))) texts.push(text);
      continue;
    }
    await onStep();
    await new Promise((r) => setTimeout(r, 50));
  }
  return texts;
}
