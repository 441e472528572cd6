// The "Plot..." menu entry's channel picker: every recorded channel by its tab, with a filter;
// the ticked ones open in a plot (plot.js).
(() => {
  'use strict';

  const { button } = window.tavroCommon;
  const recorder = window.tavroRecorder;
  const plots = window.tavroPlots;

  // Every recorded channel, one fieldset per page; each label keeps the words a filter matches.
  function channelList() {
    const list = document.createElement('div');
    list.className = 'plot-list';
    const groups = new Map();
    const channels = recorder.channels();
    for (const c of channels) {
      const page = c.page || 'Other';
      if (!groups.has(page)) {
        const fieldset = document.createElement('fieldset');
        const legend = document.createElement('legend');
        legend.textContent = page;
        fieldset.appendChild(legend);
        list.appendChild(fieldset);
        groups.set(page, fieldset);
      }
      const label = document.createElement('label');
      const tick = document.createElement('input');
      tick.type = 'checkbox';
      tick.value = c.name;
      // The words of the page, then the id, dimmer, that scripts and exports use.
      const words = plots.channelLabel(c.name);
      const id = document.createElement('span');
      id.className = 'plot-id';
      id.textContent = c.name;
      label.append(tick, ` ${words}${c.unit ? ` (${c.unit})` : ''} `, id);
      label.title = c.name;
      label.dataset.text = `${page} ${words} ${c.name} ${c.element} ${c.unit}`.toLowerCase();
      groups.get(page).appendChild(label);
    }
    if (!channels.length) list.textContent = 'Nothing is recorded.';
    return { list, groups };
  }

  // Shows the labels that hold every word of the filter, and the pages that have one.
  function filterBy(filter, groups) {
    filter.addEventListener('input', () => {
      const words = filter.value.toLowerCase().split(/\s+/).filter(Boolean);
      for (const fieldset of groups.values()) {
        let any = false;
        for (const label of fieldset.querySelectorAll('label')) {
          const show = words.every((w) => label.dataset.text.includes(w));
          label.hidden = !show;
          any = any || show;
        }
        fieldset.hidden = !any;
      }
    });
  }

  function openPicker() {
    const old = document.getElementById('plot-picker');
    if (old) old.remove();
    const box = document.createElement('section');
    box.id = 'plot-picker';
    box.className = 'plot-panel plot-picker';
    box.setAttribute('role', 'dialog');
    box.setAttribute('aria-label', 'Plot channels');
    box.style.zIndex = String(plots.raise());
    const head = document.createElement('header');
    head.className = 'plot-head';
    const title = document.createElement('span');
    title.className = 'plot-title';
    title.textContent = 'Plot channels';
    const close = button('\u00d7', () => box.remove(), 'Close');
    close.className = 'plot-close';
    head.append(title, close);
    const filter = document.createElement('input');
    filter.type = 'search';
    filter.placeholder = 'Filter';
    filter.setAttribute('aria-label', 'Filter');
    filter.className = 'plot-filter';
    const { list, groups } = channelList();
    filterBy(filter, groups);
    const buttons = document.createElement('div');
    buttons.className = 'plot-buttons';
    const hint = document.createElement('span');
    hint.className = 'plot-hint';
    hint.setAttribute('role', 'alert');
    hint.hidden = true;
    list.addEventListener('change', () => { hint.hidden = true; });
    const ok = button('Plot', () => {
      const chosen = [...list.querySelectorAll('input:checked')].map((i) => i.value);
      if (!chosen.length) {
        hint.textContent = 'Tick the values to plot first.';
        hint.hidden = false;
        return;
      }
      box.remove();
      plots.open(chosen);
    });
    buttons.append(hint, ok, button('Cancel', () => box.remove()));
    box.append(head, filter, list, buttons);
    box.addEventListener('keydown', (e) => {
      if (e.key === 'Escape') {
        e.stopPropagation();
        box.remove();
      }
    });
    box.style.left = `${Math.max(0, innerWidth / 2 - 200)}px`;
    box.style.top = '60px';
    plots.layer().appendChild(box);
    plots.dragBy(head, box, () => {});
    filter.focus();
  }

  const entry = document.getElementById('menu-plot');
  if (entry) {
    entry.addEventListener('click', () => {
      const menu = document.getElementById('menu');
      if (menu) menu.hidden = true;
      document.getElementById('menu-button')?.setAttribute('aria-expanded', 'false');
      recorder.loaded().then(openPicker);
    });
  }
})();
