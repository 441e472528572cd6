// What the shell says about its own truth: whether the values on the pages are live, stale
// because the board went away, stale because TavroTest itself cannot be reached, or final
// because TavroTest has ended. It also marks a simulated board on every tab.
//
// The program tells the board's state through two hidden shell elements it keeps in the shell's
// document ("board-link": "live" or "lost <ms>", "board-describe": what the board's driver said
// it is), and its end through a goodbye message. A connection that closes without a goodbye is
// a program that may come back: the shell tries again for a while, then says it was lost.
'use strict';

window.TavroLink = (() => {
  const WORDS = {
    live: 'Live',
    'board-lost': 'Board lost',
    reconnecting: 'Reconnecting',
    ended: 'Ended',
  };
  const REASONS = {
    closed: () => 'It was closed from its menu.',
    interrupted: () => 'It was interrupted (Ctrl-C or a stop signal).',
    'no-board': (folder) => `No board found in ${folder || 'the device folder'}.`,
    lost: () => 'Its connection went away without a word from it: it may have crashed.',
    ended: () => 'It ended after its start-up message.',
  };
  // How long a lost connection is tried again before the shell gives TavroTest up, and how
  // often.
  const RETRY_FOR_MS = 8000;
  const RETRY_EVERY_MS = 500;

  const { token } = window.tavroCommon;
  let socketOpen = false;
  let ended = false;
  let retryUntil = 0;
  let board = '';      // "live", "lost <ms>" or "" (no board yet)
  let described = '';  // the board driver's word on itself

  const byId = (id) => document.getElementById(id);

  function state() {
    if (ended) return 'ended';
    if (!socketOpen) return 'reconnecting';
    return board === 'live' ? 'live' : 'board-lost';
  }

  // "21:43:07" in the computer's own time.
  const clock = (ms) => new Date(ms).toLocaleTimeString('en-GB', { hour12: false });

  function staleNote(now) {
    if (now === 'reconnecting') return 'TavroTest cannot be reached \u2014 values as last shown';
    if (now !== 'board-lost') return '';
    const ms = Number(board.split(' ')[1]);
    return ms > 0 ? `Board lost \u2014 values as last read at ${clock(ms)}` : 'No board connected';
  }

  function markFrames(stale) {
    for (const frame of document.querySelectorAll('#pages iframe')) {
      const root = frame.contentDocument && frame.contentDocument.documentElement;
      if (root) root.classList.toggle('stale', stale);
    }
  }

  function showSimulated(show) {
    let pill = byId('board-simulated');
    const profile = described.slice('simulated '.length);
    if (!show) {
      if (pill) pill.remove();
      return;
    }
    if (!pill) {
      pill = document.createElement('span');
      pill.id = 'board-simulated';
      pill.className = 'board-simulated';
      pill.title = 'The board is the simulator, not a machine';
      byId('link-state').before(pill);
    }
    pill.textContent = `Simulated board: ${profile}`;
  }

  function render() {
    const now = state();
    const badge = byId('link-state');
    if (badge.dataset.state !== now) {
      badge.dataset.state = now;
      badge.textContent = WORDS[now];
    }
    const note = byId('stale-note');
    note.textContent = staleNote(now);
    note.hidden = note.textContent === '';
    markFrames(now !== 'live' && now !== 'ended');
    showSimulated(now !== 'ended' && described.startsWith('simulated '));
  }

  // The end: nothing of the run stays on the page to be taken for current (no STOP, no page
  // with "Moving", no box waiting for an answer that nobody can take any more).
  function end(reason, folder) {
    if (ended) return;
    ended = true;
    const say = REASONS[reason] || REASONS.ended;
    byId('ended-reason').textContent = say(folder);
    byId('ended-page').hidden = false;
    byId('ended-page').dataset.reason = reason in REASONS ? reason : 'ended';
    for (const id of ['tabs', 'pages', 'stop-test', 'menu']) {
      const el = byId(id);
      if (id === 'stop-test') el.style.display = 'none';
      else el.hidden = true;
    }
    byId('menu-button').hidden = true;
    for (const layer of ['dialog-layer', 'window-layer']) byId(layer).replaceChildren();
    byId('dialog-layer').hidden = true;
    byId('window-blocker').hidden = true;
    document.title = 'TavroTest : Ended';
    byId('title').textContent = document.title;
    render();
  }

  // Whether the port still answers, and as this run: another TavroTest there refuses our token.
  async function probe() {
    try {
      const reply = await fetch(`/shell.js?token=${encodeURIComponent(token)}`,
        { cache: 'no-store', method: 'HEAD' });
      return reply.status === 403 ? 'other' : 'same';
    } catch (e) {
      return 'none';
    }
  }

  async function retry(connect) {
    if (ended) return;
    if (Date.now() > retryUntil) { end('lost'); return; }
    const answer = await probe();
    if (ended) return;
    if (answer === 'other') end('lost');
    else if (answer === 'same') connect();
    else setTimeout(() => retry(connect), RETRY_EVERY_MS);
  }

  function watch(id, onText) {
    const el = byId(id);
    const read = () => { onText(el.textContent); render(); };
    new MutationObserver(read).observe(el, { childList: true, characterData: true, subtree: true });
  }

  document.addEventListener('DOMContentLoaded', () => {
    watch('board-link', (text) => { board = text; });
    watch('board-describe', (text) => { described = text; });
    // A page loaded while the values are stale shows them stale too.
    byId('pages').addEventListener('load', () => render(), true);
    render();
  });

  return {
    // The shell's WebSocket is open.
    opened() {
      socketOpen = true;
      retryUntil = 0;
      render();
    },
    // It closed: `connect` opens a new one, unless the program said goodbye or stays away.
    closed(connect) {
      socketOpen = false;
      if (ended) return;
      if (!retryUntil) retryUntil = Date.now() + RETRY_FOR_MS;
      render();
      setTimeout(() => retry(connect), RETRY_EVERY_MS);
    },
    // The program's last message: it ends, and says why.
    goodbye(message) {
      end(String(message.reason || 'ended'), String(message.folder || ''));
    },
    ended: () => ended,
  };
})();
