'use strict';
// Appended to a page with a timeline: does with it what a person does, and writes what was not as it
// should be into the page's title. The page shows the log that timeline_test.sh has made.
(async () => {
  const mistakes = [];
  const expect = (fits, text) => { if (!fits) mistakes.push(text); };
  const byId = (id) => document.getElementById(id);
  const data = JSON.parse(byId('calls').textContent);
  const canvas = byId('timeline');
  // Without a window there are no frames to wait for.
  window.requestAnimationFrame = (callback) => setTimeout(callback);
  const frame = () => new Promise((resolve) => setTimeout(resolve, 1));
  const fire = async (target, event) => {
    target.dispatchEvent(event);
    await frame();
  };
  // The timeline begins behind the names of the threads; all of it is shown at first.
  const gutter = 150;
  const end = Math.max(...data.begins.map((begin, call) => begin + data.durations[call]));
  const xOf = (time) => gutter + time / end * (canvas.clientWidth - gutter);
  const mouse = (type, x, y, more) => {
    const box = canvas.getBoundingClientRect();
    return new MouseEvent(type, {bubbles: true, clientX: box.left + x, clientY: box.top + y, ...more});
  };
  const middleOf = (call) => xOf(data.begins[call] + data.durations[call] / 2);
  const yOfLane = (lane) => 24 + lane * 24 + 7;  // each has one row here

  const colourAt = (x, y) => {
    const scale = canvas.width / canvas.clientWidth;
    const [r, g, b] = canvas.getContext('2d').getImageData(x * scale, y * scale, 1, 1).data;
    return '#' + [r, g, b].map((part) => part.toString(16).padStart(2, '0')).join('');
  };
  const named = (name) =>
      getComputedStyle(document.documentElement).getPropertyValue('--' + name).trim();

  expect(byId('summary').textContent.startsWith(
             '10003 calls, 1 failed, 1 not finished; processes: 2, threads: 3; '),
         'summary: ' + byId('summary').textContent);
  expect(!document.title.includes('error'), 'title: ' + document.title);

  // The calls of the last thread: a long success, a failure, a wait, one that did not finish.
  const [done, failed, wait, unfinished] = [9999, 10000, 10001, 10002];
  const y = yOfLane(2);
  const colours = [[done, 'done'], [failed, 'failed'], [wait, 'over']];
  for (const [call, name] of colours) {
    expect(colourAt(middleOf(call), y) === named(name),
           name + ' is drawn as ' + colourAt(middleOf(call), y));
  }
  for (const edge of [y - 5, y + 5]) {
    expect(!colours.map(([, name]) => named(name)).includes(colourAt(middleOf(wait), edge)),
           'a wait is not thin: ' + colourAt(middleOf(wait), edge));
  }
  expect(colourAt(middleOf(failed), y - 5) === named('failed'), 'a call is thin');
  expect(colourAt(xOf(data.begins[unfinished]) + 1, y) === named('unfinished'),
         'unfinished is drawn as ' + colourAt(xOf(data.begins[unfinished]) + 1, y));

  await fire(canvas, mouse('mousemove', middleOf(failed), y));
  expect(!byId('tip').hidden && byId('tip').textContent.includes('SCARD_W_REMOVED_CARD') &&
             byId('tip').textContent.includes('Remote Reader <0>'),
         'tip: ' + byId('tip').textContent);
  await fire(canvas, mouse('mouseleave', 0, 0));
  expect(byId('tip').hidden, 'the tip stays');

  await fire(canvas, mouse('click', middleOf(failed), y));
  expect(byId('details').textContent.includes('TRANSMIT RV: 0x80100069'),
         'details: ' + byId('details').textContent);
  await fire(canvas, new KeyboardEvent('keydown', {key: 'ArrowLeft'}));
  expect(byId('details').textContent.includes('TRANSMIT RV: 0x00000000'),
         'left: ' + byId('details').textContent);

  byId('failures').checked = true;
  await fire(byId('failures'), new Event('change'));
  expect(byId('matches').textContent === '2 of 10003 calls', 'failures: ' + byId('matches').textContent);
  await fire(byId('next'), new MouseEvent('click'));
  expect(byId('details').textContent.includes('0x80100069'), 'next: ' + byId('details').textContent);
  byId('failures').checked = false;
  byId('search').value = 'message of ONE call';
  await fire(byId('tools'), new Event('submit', {cancelable: true}));
  expect(byId('matches').textContent === '1 of 10003 calls', 'search: ' + byId('matches').textContent);
  byId('search').value = '';
  await fire(byId('tools'), new Event('submit', {cancelable: true}));

  // 10,000 calls share the pixels that there are; close by each has its own.
  const bars = Number(canvas.dataset.bars);
  expect(bars > 100 && bars < 5000, 'bars: ' + bars);
  for (let turn = 0; turn < 40; ++turn) {
    await fire(canvas, new WheelEvent('wheel', {
      deltaY: -1, clientX: canvas.getBoundingClientRect().left + gutter + 5, cancelable: true}));
  }
  expect(Number(canvas.dataset.bars) < bars, 'zoomed in: ' + canvas.dataset.bars);
  await fire(byId('fit'), new MouseEvent('click'));
  expect(Number(canvas.dataset.bars) === bars, 'all again: ' + canvas.dataset.bars);

  expect(byId('totals').tBodies[0].rows.length === 3, 'totals: ' + byId('totals').textContent);
  document.title = mistakes.length ? 'mistakes: ' + mistakes.join('; ').replace(/\n/g, ' ') : 'as it should be';
})().catch((error) => { document.title = 'error: ' + error; });
