'use strict';
// A timeline of calls on a canvas: a lane for each thread, a row in it for each depth of calls.
(() => {
  const byId = (id) => document.getElementById(id);
  const data = JSON.parse(byId('calls').textContent);
  const OUTCOMES = ['done', 'over', 'failed', 'unfinished'];
  const SIDES = ['', 'remote', 'host', 'both'];
  const GUTTER = 150, AXIS = 24, ROW = 16, LANE_GAP = 8, LEAST_BAR = 1.5;
  const COLUMNS = 8;  // of data.places

  const count = data.begins.length;
  const begins = Float64Array.from(data.begins);
  const durations = Float64Array.from(data.durations);
  const places = Uint32Array.from(data.places);
  const thread = (call) => places[call * COLUMNS];
  const depth = (call) => places[call * COLUMNS + 1];
  const nameOf = (call) => data.functions[places[call * COLUMNS + 2]];
  const subjectOf = (call) => data.subjects[places[call * COLUMNS + 3]];
  const resultOf = (call) => data.results[places[call * COLUMNS + 4]];
  const sideOf = (call) => SIDES[places[call * COLUMNS + 5]];
  const outcome = (call) => places[call * COLUMNS + 6];
  const isWait = (call) => places[call * COLUMNS + 7] === 1;
  const isFailure = (call) => outcome(call) >= 2;
  const endOf = (call) => begins[call] + durations[call];

  // The log's lines are most of the page and are wanted late: by a click or a search.
  let parsedLines = null;
  const linesOf = (call) => {
    parsedLines = parsedLines || JSON.parse(byId('lines').textContent);
    return parsedLines[call];
  };

  // Rows: the calls of one depth of one thread, which follow each other in time.
  const lanes = data.threads.map((label) => ({label, rows: [], top: 0}));
  for (let call = 0; call < count; ++call) {
    const rows = lanes[thread(call)].rows;
    while (rows.length <= depth(call)) rows.push([]);
    rows[depth(call)].push(call);
  }
  let height = AXIS;
  for (const lane of lanes) {
    lane.top = height;
    height += lane.rows.length * ROW + LANE_GAP;
  }
  let whole = 1;
  for (let call = 0; call < count; ++call) whole = Math.max(whole, endOf(call));

  const canvas = byId('timeline');
  const pen = canvas.getContext('2d');
  const style = getComputedStyle(document.documentElement);
  const colours = OUTCOMES.map((name) => style.getPropertyValue('--' + name).trim());
  const ink = style.getPropertyValue('--ink').trim();
  const rule = style.getPropertyValue('--rule').trim();

  const view = {from: 0, span: whole};
  let width = 0, selected = -1;
  let matching = null;  // Uint8Array with 1 for the calls that are searched for, or null for all
  const plotWidth = () => Math.max(1, width - GUTTER);
  const xOf = (time) => GUTTER + (time - view.from) / view.span * plotWidth();
  const timeAt = (x) => view.from + (x - GUTTER) / plotWidth() * view.span;

  const clock = (time) => {
    const total = data.startOfDay + time;
    const part = (value, digits) => String(Math.floor(value)).padStart(digits, '0');
    const seconds = total / 1e6;
    return part(seconds / 3600 % 24, 2) + ':' + part(seconds / 60 % 60, 2) + ':' +
        part(seconds % 60, 2) + '.' + part(total % 1e6, 6);
  };
  const milliseconds = (time) => (time / 1000).toFixed(3) + ' ms';

  // The first call of a row that ends behind a time.
  const firstEndingAfter = (row, time) => {
    let low = 0, high = row.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (endOf(row[middle]) < time) low = middle + 1; else high = middle;
    }
    return low;
  };

  let drawnBars = 0;
  const drawBar = (left, right, top, call, worst, thin) => {
    pen.globalAlpha = matching && !matching[call] ? 0.15 : 1;
    pen.fillStyle = colours[worst];
    pen.fillRect(left, thin ? top + 5 : top + 1, Math.max(LEAST_BAR, right - left),
                 thin ? 4 : ROW - 3);
    ++drawnBars;
  };

  // Calls that would share a pixel are one bar in the colour of the worst of them.
  const drawRow = (row, top) => {
    const until = view.from + view.span;
    let left = 0, right = -1, worst = 0, thin = true, last = -1;
    const flush = () => {
      if (last >= 0) drawBar(left, right, top, last, worst, thin);
    };
    for (let index = firstEndingAfter(row, view.from); index < row.length; ++index) {
      const call = row[index];
      if (begins[call] > until) break;
      const isShown = !matching || matching[call];
      const x = Math.max(GUTTER, xOf(begins[call])), end = Math.min(width, xOf(endOf(call)));
      const isNarrow = end - x < 2 && right - left < 2;
      const shares = last >= 0 && isNarrow && x < right + 0.5 && x - left < 2;
      if (shares) {
        right = Math.max(right, end);
        if (isShown) {
          worst = Math.max(worst, outcome(call));
          last = call;
        }
        thin = thin && isWait(call);
        continue;
      }
      flush();
      left = x;
      right = Math.max(end, x + LEAST_BAR);
      worst = outcome(call);
      thin = isWait(call);
      last = call;
    }
    flush();
    pen.globalAlpha = 1;
  };

  const drawLabels = (row, top) => {
    pen.fillStyle = '#fff';
    for (let index = firstEndingAfter(row, view.from); index < row.length; ++index) {
      const call = row[index];
      const x = Math.max(GUTTER, xOf(begins[call]));
      if (x > width) break;
      const room = Math.min(width, xOf(endOf(call))) - x - 6;
      const text = nameOf(call).replace(/^SCard/, '');
      if (room > 40 && !isWait(call) && pen.measureText(text).width < room) {
        pen.fillText(text, x + 3, top + 12);
      }
    }
  };

  const drawAxis = () => {
    const rough = view.span / (plotWidth() / 130);
    const power = Math.pow(10, Math.floor(Math.log10(rough)));
    const step = [1, 2, 5, 10].map((factor) => factor * power).find((each) => each >= rough);
    pen.font = '11px system-ui, sans-serif';
    const offset = data.startOfDay % step;
    for (let time = Math.ceil((view.from + offset) / step) * step - offset;
         time < view.from + view.span; time += step) {
      const x = Math.round(xOf(time)) + 0.5;
      pen.strokeStyle = rule;
      pen.beginPath();
      pen.moveTo(x, AXIS - 6);
      pen.lineTo(x, height);
      pen.stroke();
      pen.fillStyle = ink;
      const text = clock(Math.max(0, time));
      pen.fillText(step >= 1e6 ? text.slice(0, 8) : step >= 1000 ? text.slice(0, 12) : text, x + 3, 12);
    }
    pen.fillText(data.day + ' UTC', 8, 12);
  };

  const draw = () => {
    drawnBars = 0;
    pen.clearRect(0, 0, width, height);
    drawAxis();
    for (const lane of lanes) {
      pen.fillStyle = ink;
      pen.font = '12px system-ui, sans-serif';
      pen.fillText(lane.label, 8, lane.top + 12);
      lane.rows.forEach((row, index) => {
        drawRow(row, lane.top + index * ROW);
        drawLabels(row, lane.top + index * ROW);
      });
    }
    if (selected >= 0) {
      const top = lanes[thread(selected)].top + depth(selected) * ROW;
      const left = Math.max(GUTTER, xOf(begins[selected]));
      const right = Math.min(width, Math.max(xOf(endOf(selected)), left + LEAST_BAR));
      pen.strokeStyle = ink;
      pen.lineWidth = 2;
      if (right >= GUTTER && left <= width) pen.strokeRect(left - 1, top, right - left + 2, ROW - 1);
      pen.lineWidth = 1;
    }
    canvas.dataset.bars = drawnBars;
  };
  let isDrawWanted = false;
  const redraw = () => {
    if (isDrawWanted) return;
    isDrawWanted = true;
    requestAnimationFrame(() => {
      isDrawWanted = false;
      draw();
    });
  };

  const resize = () => {
    const scale = window.devicePixelRatio || 1;
    width = byId('lanes').clientWidth;
    canvas.width = width * scale;
    canvas.height = height * scale;
    canvas.style.width = width + 'px';
    canvas.style.height = height + 'px';
    pen.setTransform(scale, 0, 0, scale, 0, 0);
    draw();
  };

  const show = (from, span) => {
    view.span = Math.min(whole, Math.max(20, span));
    view.from = Math.min(whole - view.span, Math.max(0, from));
    redraw();
  };
  const zoom = (factor, x) => {
    const time = timeAt(x === undefined ? GUTTER + plotWidth() / 2 : x);
    show(time - (time - view.from) * factor, view.span * factor);
  };

  // The call under the mouse, or the nearest within two pixels; many calls are thinner than one.
  const callAt = (x, y) => {
    const lane = lanes.find((each) => y >= each.top && y < each.top + each.rows.length * ROW);
    if (!lane || x < GUTTER) return -1;
    const row = lane.rows[Math.floor((y - lane.top) / ROW)];
    const near = 2 * view.span / plotWidth();
    const time = timeAt(x);
    let best = -1, least = near;
    for (let index = firstEndingAfter(row, time - near); index < row.length; ++index) {
      const call = row[index];
      if (begins[call] > time + near) break;
      const apart = Math.max(begins[call] - time, time - endOf(call), 0);
      const isBetter = apart < least || (apart === least && best >= 0 && isFailure(call));
      if ((!matching || matching[call]) && (best < 0 || isBetter)) {
        best = call;
        least = apart;
      }
    }
    return best;
  };

  const describe = (call) => nameOf(call) + (subjectOf(call) ? '  ' + subjectOf(call) : '') +
      (sideOf(call) ? '  (' + sideOf(call) + ')' : '') + '\n' + clock(begins[call]) + ', ' +
      milliseconds(durations[call]) + '\n' + resultOf(call);

  const element = (tag, text, className) => {
    const made = document.createElement(tag);
    made.textContent = text;
    if (className) made.className = className;
    return made;
  };

  const select = (call) => {
    selected = call;
    const [title, when, result] = describe(call).split('\n');
    byId('details').replaceChildren(
        element('h2', title),
        element('p', 'thread ' + data.threads[thread(call)] + ', ' + when + ': ' + result,
                isFailure(call) ? 'some-failed' : ''),
        element('pre', linesOf(call)));
    const outside = begins[call] < view.from || begins[call] > view.from + view.span;
    if (outside) show(begins[call] - view.span / 2, view.span); else redraw();
  };

  // The next call in this direction that is searched for.
  const step = (direction) => {
    for (let call = selected + direction; call >= 0 && call < count; call += direction) {
      if (!matching || matching[call]) return select(call);
    }
  };

  const search = () => {
    const text = byId('search').value.trim().toLowerCase();
    const failuresOnly = byId('failures').checked;
    matching = null;
    let found = count;
    if (text || failuresOnly) {
      matching = new Uint8Array(count);
      found = 0;
      for (let call = 0; call < count; ++call) {
        const fits = (!failuresOnly || isFailure(call)) &&
            (!text || nameOf(call).toLowerCase().includes(text) ||
             subjectOf(call).toLowerCase().includes(text) ||
             resultOf(call).toLowerCase().includes(text) ||
             sideOf(call) === text || linesOf(call).toLowerCase().includes(text));
        matching[call] = fits ? 1 : 0;
        found += matching[call];
      }
    }
    byId('matches').textContent = matching ? found + ' of ' + count + ' calls' : '';
    redraw();
  };

  const fillTotals = () => {
    const groups = new Map();
    for (let call = 0; call < count; ++call) {
      const group = groups.get(nameOf(call)) || {times: [], failed: 0};
      group.times.push(durations[call]);
      group.failed += isFailure(call) ? 1 : 0;
      groups.set(nameOf(call), group);
    }
    const rows = [...groups].sort((a, b) => b[1].times.length - a[1].times.length);
    const body = byId('totals').tBodies[0];
    for (const [name, group] of rows) {
      const times = Float64Array.from(group.times).sort();
      const row = body.insertRow();
      const button = element('button', name);
      button.addEventListener('click', () => {
        byId('search').value = name;
        search();
      });
      row.insertCell().append(button);
      row.insertCell().textContent = times.length;
      row.insertCell().append(element('span', group.failed, group.failed ? 'some-failed' : ''));
      row.insertCell().textContent = (times[times.length >> 1] / 1000).toFixed(3);
      row.insertCell().textContent = (times[times.length - 1] / 1000).toFixed(3);
    }
  };

  const summarize = () => {
    let failed = 0, unfinished = 0;
    for (let call = 0; call < count; ++call) {
      failed += outcome(call) === 2 ? 1 : 0;
      unfinished += outcome(call) === 3 ? 1 : 0;
    }
    const processes = new Set(data.threads.map((label) => label.split(':')[0]));
    byId('summary').textContent = count + ' calls, ' + failed + ' failed, ' + unfinished +
        ' not finished; processes: ' + processes.size + ', threads: ' + lanes.length + '; ' +
        data.day + ' ' + clock(0) + ' to ' + clock(whole) + ' UTC';
  };

  let drag = null;
  const tip = byId('tip');
  canvas.addEventListener('mousemove', (event) => {
    if (drag) {
      show(drag.from - (event.offsetX - drag.x) / plotWidth() * view.span, view.span);
      return;
    }
    const call = callAt(event.offsetX, event.offsetY);
    tip.hidden = call < 0;
    if (call >= 0) {
      tip.textContent = describe(call);
      tip.style.left = Math.min(event.clientX + 12, window.innerWidth - 320) + 'px';
      tip.style.top = event.clientY + 14 + 'px';
    }
  });
  canvas.addEventListener('mouseleave', () => { tip.hidden = true; });
  canvas.addEventListener('mousedown', (event) => {
    drag = {x: event.offsetX, from: view.from};
    tip.hidden = true;
  });
  window.addEventListener('mouseup', () => { drag = null; });
  canvas.addEventListener('click', (event) => {
    const call = callAt(event.offsetX, event.offsetY);
    if (call >= 0) select(call);
  });
  canvas.addEventListener('wheel', (event) => {
    event.preventDefault();
    if (event.shiftKey) {
      show(view.from + Math.sign(event.deltaY || event.deltaX) * view.span / 8, view.span);
    } else {
      zoom(event.deltaY < 0 ? 0.8 : 1.25, event.offsetX);
    }
  }, {passive: false});
  const actions = {
    'previous': () => step(-1),
    'next': () => step(1),
    'zoom-in': () => zoom(0.5),
    'zoom-out': () => zoom(2),
    'fit': () => show(0, whole),
  };
  for (const [id, act] of Object.entries(actions)) byId(id).addEventListener('click', act);
  const keys = {
    'ArrowLeft': 'previous', 'ArrowRight': 'next', '+': 'zoom-in', '-': 'zoom-out', '0': 'fit',
  };
  canvas.addEventListener('keydown', (event) => {
    if (!keys[event.key]) return;
    event.preventDefault();
    actions[keys[event.key]]();
  });
  let pause = 0;
  byId('search').addEventListener('input', () => {
    clearTimeout(pause);
    pause = setTimeout(search, 200);
  });
  byId('failures').addEventListener('change', search);
  byId('tools').addEventListener('submit', (event) => {
    event.preventDefault();
    clearTimeout(pause);
    search();
    step(1);
  });
  window.addEventListener('resize', resize);

  summarize();
  fillTotals();
  resize();
})();
