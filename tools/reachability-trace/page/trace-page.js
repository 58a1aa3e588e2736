// The page of reachability-trace: a lane per entity over time, to zoom,
// pan, search and click. Everything from the capture is data: it reaches
// the document through textContent and the canvas only, never as markup.
'use strict';

(function () {
  const data = JSON.parse(document.getElementById('trace-data').textContent);

  const LANE = 22;         // px per lane, as --lane in the style
  const BAR = 14;          // px of a lane's bar
  const BAR_TOP = 5;
  const HIT = 6;           // px within which a click picks a change
  const MIN_CYCLE_GAP = 4; // px between cycle lines drawn
  const MIN_VIEW_MS = 5;
  const ABSENT = 0;
  const REACHABLE = 1;
  const UNREACHABLE = 2;
  const UNKNOWN = 3;
  const NONE = -1;
  const INFERRED = 16; // added to a span's reason where its answer is inferred

  const byId = (id) => document.getElementById(id);
  const element = (tag, className, text) => {
    const node = document.createElement(tag);
    if (className) {
      node.className = className;
    }
    if (text !== undefined) {
      node.textContent = text;
    }
    return node;
  };

  // Times are milliseconds since data.origin, on the capture's own time
  // line; they are written as the device wrote them: where its clock went
  // back, the steps are taken out again, and dates read as UTC.
  const pad = (value, width) => String(value).padStart(width, '0');
  function formatTime(ms) {
    let device = data.origin + ms;
    for (const [at, offset] of data.clock.steps) {
      if (ms >= at) {
        device = data.origin + ms - offset;
      }
    }
    if (data.clock.sinceBoot) {
      return '+' + Math.floor(device / 1000) + '.' + pad(((device % 1000) + 1000) % 1000, 3);
    }
    const date = new Date(device);
    const day = pad(date.getUTCMonth() + 1, 2) + '-' + pad(date.getUTCDate(), 2);
    const time = pad(date.getUTCHours(), 2) + ':' + pad(date.getUTCMinutes(), 2) + ':' +
        pad(date.getUTCSeconds(), 2) + '.' + pad(date.getUTCMilliseconds(), 3);
    return (data.clock.year ? pad(date.getUTCFullYear(), 4) + '-' : '') + day + ' ' + time;
  }
  // An answer in words, with why it is unknown or that it is inferred.
  function answerWords(answer, why) {
    const reason = why % INFERRED;
    return data.answers[answer].words +
        (answer === UNKNOWN && reason > 0 ? ' (' + data.reasons[reason][0] + ')' : '') +
        (why >= INFERRED ? ' (inferred)' : '');
  }
  function formatDuration(ms) {
    if (ms < 1000) {
      return ms.toFixed(0) + ' ms';
    }
    if (ms < 120000) {
      return (ms / 1000).toFixed(ms < 10000 ? 2 : 1) + ' s';
    }
    if (ms < 7200000) {
      return (ms / 60000).toFixed(1) + ' min';
    }
    return (ms / 3600000).toFixed(1) + ' h';
  }
  // For a shell: the text in single quotes.
  const shellQuoted = (text) => "'" + text.replace(/'/g, "'\\''") + "'";

  // The lanes of a cache, made once: flat arrays of span starts, answers
  // and causes, and of the marks where listeners were told.
  function lanesOf(cache) {
    if (cache.lanes) {
      return cache.lanes;
    }
    cache.lanes = cache.entities.map((entity, order) => {
      const lane = {
        id: entity.id, lower: entity.id.toLowerCase(), order: order, end: cache.end,
        at: [], answer: [], cause: [], why: [], markAt: [], markReachable: [], markCause: [],
        markEndpoint: [],
      };
      for (let i = 0; i + 3 < entity.a.length; i += 4) {
        lane.at.push(entity.a[i]);
        lane.answer.push(entity.a[i + 1]);
        lane.cause.push(entity.a[i + 2]);
        lane.why.push(entity.a[i + 3]);
      }
      for (let i = 0; i + 3 < entity.m.length; i += 4) {
        lane.markAt.push(entity.m[i]);
        lane.markReachable.push(entity.m[i + 1]);
        lane.markCause.push(entity.m[i + 2]);
        lane.markEndpoint.push(entity.e[entity.m[i + 3]]);
      }
      lane.changes = lane.at.length - 1 + lane.markAt.length;
      return lane;
    });
    return cache.lanes;
  }

  // The index of the last of `times` (sorted) at or before `t`, or -1.
  function lastAtOrBefore(times, t) {
    let low = 0;
    let high = times.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (times[middle] <= t) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    return low - 1;
  }

  const state = {
    cache: null,
    lanes: [],     // shown, in order
    view: {from: 0, to: 1},
    selected: null, // {lane, t}
  };

  // ---- Colours and the unknown hatch ----
  const colours = data.answers.map((answer) => answer.colour);
  function hatch(context) {
    const tile = document.createElement('canvas');
    tile.width = 6;
    tile.height = 6;
    const c = tile.getContext('2d');
    c.fillStyle = '#f4f4f4';
    c.fillRect(0, 0, 6, 6);
    c.strokeStyle = '#8a8a8a';
    c.lineWidth = 1.2;
    c.beginPath();
    c.moveTo(0, 6);
    c.lineTo(6, 0);
    c.moveTo(-1, 1);
    c.lineTo(1, -1);
    c.moveTo(5, 7);
    c.lineTo(7, 5);
    c.stroke();
    return context.createPattern(tile, 'repeat');
  }
  // Unknown is hatched where it spans pixels, and flat grey where a single
  // pixel holds a bit of it, which a hatch could not show.
  const UNKNOWN_FLAT = '#a9a9b8';
  const fillOf = (context, answer) =>
    answer === UNKNOWN ? (context.unknownFill || (context.unknownFill = hatch(context)))
                       : colours[answer];
  const flatFillOf = (answer) => (answer === UNKNOWN ? UNKNOWN_FLAT : colours[answer]);

  // ---- Canvases ----
  function fit(canvas, width, height) {
    const ratio = window.devicePixelRatio || 1;
    if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
      canvas.width = Math.round(width * ratio);
      canvas.height = Math.round(height * ratio);
      canvas.style.width = width + 'px';
      canvas.style.height = height + 'px';
    }
    const context = canvas.getContext('2d');
    context.setTransform(ratio, 0, 0, ratio, 0, 0);
    context.clearRect(0, 0, width, height);
    return context;
  }
  const plotWidth = () => Math.max(50, byId('lanes').clientWidth - byId('plot').offsetLeft);
  const xOf = (t, width) => (t - state.view.from) * width / (state.view.to - state.view.from);
  const tOf = (x, width) => state.view.from + x * (state.view.to - state.view.from) / width;

  // One lane, aggregated per pixel: a pixel shows the answer that covers
  // most of it, with a short unreachable or unknown answer in it kept
  // visible as a stripe at its foot.
  function drawLane(context, lane, y, width) {
    const from = state.view.from;
    const to = state.view.to;
    const scale = width / (to - from);
    const partial = new Map(); // pixel -> coverage per answer
    const cover = (pixel, answer, amount) => {
      let shares = partial.get(pixel);
      if (!shares) {
        shares = [0, 0, 0, 0];
        partial.set(pixel, shares);
      }
      shares[answer] += amount;
    };
    const count = lane.at.length;
    for (let i = Math.max(0, lastAtOrBefore(lane.at, from)); i < count; ++i) {
      if (lane.at[i] > to) {
        break;
      }
      const start = Math.max(lane.at[i], from);
      const end = Math.min(i + 1 < count ? lane.at[i + 1] : lane.end, to);
      if (end <= start) {
        continue;
      }
      const x0 = (start - from) * scale;
      const x1 = (end - from) * scale;
      const p0 = Math.floor(x0);
      const p1 = Math.floor(x1);
      const answer = lane.answer[i];
      if (p0 === p1) {
        cover(p0, answer, x1 - x0);
        continue;
      }
      let run = p0;
      if (x0 > p0) {
        cover(p0, answer, p0 + 1 - x0);
        run = p0 + 1;
      }
      if (p1 > run) {
        context.fillStyle = fillOf(context, answer);
        context.fillRect(run, y + BAR_TOP, p1 - run, BAR);
      }
      if (x1 > p1) {
        cover(p1, answer, x1 - p1);
      }
    }
    partial.forEach((shares, pixel) => {
      let main = 0;
      for (let answer = 1; answer < 4; ++answer) {
        if (shares[answer] > shares[main]) {
          main = answer;
        }
      }
      const total = Math.min(1, shares[0] + shares[1] + shares[2] + shares[3]);
      context.fillStyle = flatFillOf(main);
      context.fillRect(pixel, y + BAR_TOP + BAR * (1 - total), 1, BAR * total);
      for (const minor of [UNREACHABLE, UNKNOWN]) {
        if (minor !== main && shares[minor] > 0) {
          context.fillStyle = flatFillOf(minor);
          context.fillRect(pixel, y + BAR_TOP + BAR / 2, 1, BAR / 2);
        }
      }
    });
    // A tick above the bar where listeners were told, one per pixel; faint
    // where they crowd.
    const firstMark = Math.max(0, lastAtOrBefore(lane.markAt, from));
    const crowded = lastAtOrBefore(lane.markAt, to) - firstMark > width / 8;
    context.fillStyle = crowded ? 'rgba(0, 0, 0, 0.3)' : '#222';
    let last = -1;
    for (let i = firstMark; i < lane.markAt.length; ++i) {
      const t = lane.markAt[i];
      if (t > to) {
        break;
      }
      const x = Math.floor((t - from) * scale);
      if (t >= from && x !== last) {
        context.fillRect(x, y + 1, 1, BAR_TOP + 2);
        last = x;
      }
    }
  }

  function drawCycles(context, width, height) {
    context.strokeStyle = 'rgba(0, 0, 0, 0.18)';
    context.setLineDash([3, 3]);
    context.beginPath();
    let last = -Infinity;
    for (const t of state.cache.cycles) {
      const x = xOf(t, width);
      if (x >= 0 && x <= width && x - last >= MIN_CYCLE_GAP) {
        context.moveTo(Math.round(x) + 0.5, 0);
        context.lineTo(Math.round(x) + 0.5, height);
        last = x;
      }
    }
    context.stroke();
    context.setLineDash([]);
  }

  function drawPlot() {
    const lanes = byId('lanes');
    const plot = byId('plot');
    const width = plotWidth();
    const height = lanes.clientHeight;
    const top = lanes.scrollTop;
    plot.style.top = top + 'px';
    const context = fit(plot, width, height);
    drawCycles(context, width, height);
    const first = Math.floor(top / LANE);
    const last = Math.min(state.lanes.length, Math.ceil((top + height) / LANE));
    for (let row = first; row < last; ++row) {
      drawLane(context, state.lanes[row], row * LANE - top, width);
    }
    if (state.selected) {
      const row = state.lanes.indexOf(state.selected.lane);
      const x = Math.round(xOf(state.selected.t, width)) + 0.5;
      if (row >= 0 && x >= 0 && x <= width) {
        context.strokeStyle = '#c00';
        context.lineWidth = 2;
        context.strokeRect(x - 3, row * LANE - top + 2, 6, LANE - 4);
        context.lineWidth = 1;
      }
    }
    drawLabels(first, last);
  }

  // Labels of the lanes in view only: a thousand lanes cost what forty do.
  function drawLabels(first, last) {
    const rows = byId('rows');
    for (const label of Array.from(rows.querySelectorAll('.label'))) {
      label.remove();
    }
    for (let row = first; row < last; ++row) {
      const lane = state.lanes[row];
      const label = element('div', 'label', lane.id);
      label.title = lane.id;
      label.style.top = row * LANE + 'px';
      label.dataset.row = row;
      if (state.selected && state.selected.lane === lane) {
        label.classList.add('selected');
      }
      rows.appendChild(label);
    }
  }

  // A tick step in ms that gives about one label per 110 px.
  const STEPS = [1, 2, 5, 10, 20, 50, 100, 200, 500, 1e3, 2e3, 5e3, 1e4, 15e3, 3e4, 6e4, 12e4,
                 3e5, 6e5, 9e5, 18e5, 36e5, 72e5, 108e5, 216e5, 432e5, 864e5];
  function drawAxis() {
    const canvas = byId('axis');
    const width = plotWidth();
    const context = fit(canvas, width, 28);
    const span = state.view.to - state.view.from;
    const step = STEPS.find((s) => s * width / span >= 110) || STEPS[STEPS.length - 1];
    context.fillStyle = '#444';
    context.strokeStyle = '#999';
    context.font = '11px system-ui, sans-serif';
    context.beginPath();
    let free = 0; // where the next label may start
    for (let t = Math.ceil(state.view.from / step) * step; t <= state.view.to; t += step) {
      const x = Math.round(xOf(t, width)) + 0.5;
      context.moveTo(x, 20);
      context.lineTo(x, 28);
      const text = formatTime(t);
      const label = step >= 864e5 ? text.slice(0, -13)
                  : step >= 1000 ? text.slice(-12, -4) : text.slice(-12);
      const labelWidth = context.measureText(label).width;
      if (x + 3 >= free && x + 3 + labelWidth <= width) {
        context.fillText(label, x + 3, 14);
        free = x + 3 + labelWidth + 8;
      }
    }
    context.stroke();
    if (state.brush) {
      context.fillStyle = 'rgba(31, 119, 180, 0.25)';
      context.fillRect(Math.min(state.brush.x0, state.brush.x1), 0,
                       Math.abs(state.brush.x1 - state.brush.x0), 28);
    }
  }

  function drawProblems() {
    const canvas = byId('problems');
    const width = plotWidth();
    const context = fit(canvas, width, 28);
    context.fillStyle = '#c62828';
    const pixels = new Set();
    for (const problem of state.cache.problems) {
      for (const t of problem.times) {
        const x = Math.round(xOf(t, width));
        if (x >= 0 && x <= width) {
          pixels.add(x);
        }
      }
    }
    // A triangle each where they stand apart, a tick each where they crowd.
    const crowded = pixels.size > width / 12;
    let last = -Infinity;
    for (const x of Array.from(pixels).sort((a, b) => a - b)) {
      if (crowded) {
        context.fillRect(x, 11, 1, 8);
      } else if (x - last >= 4) {
        context.beginPath();
        context.moveTo(x, 6);
        context.lineTo(x - 5, 22);
        context.lineTo(x + 5, 22);
        context.closePath();
        context.fill();
        last = x;
      }
    }
  }

  let pending = false;
  function redraw() {
    if (pending) {
      return;
    }
    pending = true;
    window.requestAnimationFrame(() => {
      pending = false;
      drawAxis();
      drawProblems();
      drawPlot();
      byId('range').textContent = formatTime(state.view.from) + ' \u2013 ' +
          formatTime(state.view.to) + ' (' + formatDuration(state.view.to - state.view.from) + ')';
    });
  }

  // ---- The view: zoom and pan within the cache's life ----
  function setView(from, to) {
    const start = state.cache.start;
    const end = Math.max(state.cache.end, start + MIN_VIEW_MS);
    let span = Math.min(Math.max(to - from, MIN_VIEW_MS), end - start);
    from = Math.min(Math.max(from, start), end - span);
    state.view = {from: from, to: from + span};
    redraw();
  }
  function zoom(factor, centre) {
    const t = centre === undefined ? (state.view.from + state.view.to) / 2 : centre;
    setView(t - (t - state.view.from) * factor, t + (state.view.to - t) * factor);
  }
  function pan(ms) {
    setView(state.view.from + ms, state.view.to + ms);
  }

  // ---- Lanes shown: the cache's, searched and ordered ----
  function showLanes() {
    const all = lanesOf(state.cache);
    const needle = byId('search').value.trim().toLowerCase();
    const lanes = needle ? all.filter((lane) => lane.lower.includes(needle)) : all.slice();
    const order = byId('order').value;
    if (order === 'changes') {
      lanes.sort((a, b) => b.changes - a.changes || a.order - b.order);
    } else if (order === 'id') {
      lanes.sort((a, b) => (a.id < b.id ? -1 : a.id > b.id ? 1 : 0));
    }
    state.lanes = lanes;
    byId('rows').style.height = lanes.length * LANE + 'px';
    byId('count').textContent = lanes.length + ' of ' + all.length + ' entities';
    redraw();
  }

  function showCache(index) {
    state.cache = data.caches[index];
    state.selected = null;
    byId('note').textContent = [
      state.cache.name, state.cache.note,
      (state.cache.created ? 'created ' : 'already running at ') + formatTime(state.cache.start),
      (state.cache.destroyed ? 'destroyed ' : 'last line at ') + formatTime(state.cache.end),
    ].concat(data.leftOut ? [data.leftOut] : []).concat(data.window ? ['the window from ' +
        (data.window[0] === null ? "the capture's start" : formatTime(data.window[0])) + ' to ' +
        (data.window[1] === null ? 'its end' : formatTime(data.window[1]))] : []).join(' \u00b7 ');
    clearDetails();
    showLanes();
    setView(state.cache.start, state.cache.end);
  }

  // ---- What a click shows ----
  function clearDetails() {
    const details = byId('details');
    for (const node of Array.from(details.querySelectorAll('.answered'))) {
      node.remove();
    }
  }

  function evidenceList(cause) {
    const list = element('ol', 'evidence');
    for (const number of cause[1]) {
      const item = element('li');
      item.appendChild(element('span', 'number', 'line ' + number));
      item.appendChild(element('code', '', data.lines[number]));
      list.appendChild(item);
    }
    return list;
  }

  function swatch(answer) {
    const mark = element('span', 'swatch');
    if (answer === UNKNOWN) {
      mark.style.background = 'repeating-linear-gradient(135deg, #f4f4f4 0 2px, #8a8a8a 2px 3px)';
    } else {
      mark.style.background = colours[answer];
    }
    return mark;
  }

  // Why the lines behind an answer are not on the page.
  function missingLines(section, lane, since) {
    let why;
    if (data.window && data.window[0] !== null && since <= data.window[0]) {
      why = 'It was told before the window of this page.';
    } else if (data.evidenceLostFrom !== null && since >= data.evidenceLostFrom) {
      why = 'The page keeps the lines of changes up to ' + formatTime(data.evidenceLostFrom) +
            ' only; a page of a window (--from, --to) keeps those in it.';
    } else {
      why = 'No line of the capture tells it.';
    }
    section.appendChild(element('p', 'hint', why + ' Ask the tool for it:'));
    section.appendChild(element('code', 'command',
        'reachability-trace --at ' + shellQuoted(formatTime(since)) + ' --entity ' +
        shellQuoted(lane.id) + ' ' + shellQuoted(data.capture)));
  }

  function showAnswerAt(lane, t) {
    clearDetails();
    state.selected = {lane: lane, t: t};
    const section = element('section', 'answered');
    section.appendChild(element('h2', '', lane.id));
    section.appendChild(element('p', 'when', formatTime(t) + ' \u00b7 ' + state.cache.name));
    const span = lastAtOrBefore(lane.at, t);
    if (span < 0 || t > lane.end) {
      section.appendChild(element('p', 'answer', 'The cache was not running then.'));
    } else {
      const answer = lane.answer[span];
      const line = element('p', 'answer');
      line.appendChild(swatch(answer));
      if (answer === UNKNOWN) {
        line.appendChild(document.createTextNode('What isEntityReachable answered is '));
      } else {
        line.appendChild(document.createTextNode('isEntityReachable answered '));
      }
      const why = lane.why[span];
      line.appendChild(element('strong', '', answerWords(answer, why)));
      line.appendChild(document.createTextNode(', since ' + formatTime(lane.at[span])));
      section.appendChild(line);
      if (answer === UNKNOWN && why % INFERRED > 0) {
        section.appendChild(element('p', 'unknown', 'Unknown: ' + data.reasons[why % INFERRED][1] +
            '. The page shows no guess where the lines do not tell.'));
      }
      if (why >= INFERRED) {
        section.appendChild(element('p', 'hint', "Inferred: a check's or the host's record is " +
            'taken to make its endpoint reachable (the log names no driver type).'));
      }
      const cause = lane.cause[span];
      if (cause !== NONE) {
        const words = data.causes[cause][0];
        section.appendChild(element('p', '', words ? 'Because of ' + words + ':' : 'Shown by:'));
        section.appendChild(evidenceList(data.causes[cause]));
      } else if (span > 0 || answer !== ABSENT) {
        missingLines(section, lane, lane.at[span]);
      }
      const told = lastAtOrBefore(lane.markAt, t);
      if (told >= 0) {
        const reachable = lane.markReachable[told] === 1;
        let words = 'Listeners were last told ' + (reachable ? 'reachable' : 'unreachable') +
            ' (' + lane.markEndpoint[told] + ') at ' + formatTime(lane.markAt[told]) + '.';
        if (reachable && answer === UNREACHABLE && lane.markAt[told] > lane.at[span]) {
          words += ' ' + data.notes.unconfirmed;
        } else if (answer === ABSENT && span > 0) {
          words += ' ' + data.notes.removal;
        }
        section.appendChild(element('p', '', words));
        // Lines the answer's cause shows already are not shown twice.
        const markCause = lane.markCause[told];
        const shown = cause !== NONE ? data.causes[cause][1] : [];
        if (markCause !== NONE &&
            data.causes[markCause][1].some((number) => !shown.includes(number))) {
          section.appendChild(evidenceList(data.causes[markCause]));
        }
      }
      if (span + 1 < lane.at.length) {
        section.appendChild(element('p', 'hint', 'Next: ' +
            answerWords(lane.answer[span + 1], lane.why[span + 1]) + ' at ' +
            formatTime(lane.at[span + 1]) +
            '.'));
      }
    }
    byId('details').prepend(section);
    redraw();
  }

  // The change of `lane` nearest to x (within HIT px), or the moment x.
  function pick(lane, x, width) {
    let best = null;
    const consider = (t) => {
      const distance = Math.abs(xOf(t, width) - x);
      if (distance <= HIT && (best === null || distance < best.distance)) {
        best = {t: t, distance: distance};
      }
    };
    const t = tOf(x, width);
    const around = (times, from) => {
      const i = lastAtOrBefore(times, t);
      for (const j of [i - 1, i, i + 1, i + 2]) {
        if (j >= from && j < times.length) {
          consider(times[j]);
        }
      }
    };
    around(lane.at, 1); // the first span starts with the cache, not with a change
    around(lane.markAt, 0);
    return best === null ? t : best.t;
  }

  function problemsNear(x, width) {
    const found = [];
    for (const problem of state.cache.problems) {
      const hits = problem.times.filter((t) => Math.abs(xOf(t, width) - x) <= HIT);
      if (hits.length) {
        found.push({problem: problem, t: hits[0], count: hits.length});
      }
    }
    return found;
  }

  function showProblems(found) {
    clearDetails();
    const section = element('section', 'answered');
    section.appendChild(element('h2', '', 'Problems'));
    for (const item of found) {
      section.appendChild(element('p', '', formatTime(item.t) + ': ' + item.problem.kind +
          ' \u2014 ' + item.problem.words + ' (' + item.count + ' here, ' + item.problem.count +
          ' in all)'));
    }
    byId('details').prepend(section);
  }

  // ---- Input ----
  const tooltip = byId('tooltip');
  function showTooltip(event, text) {
    tooltip.textContent = text;
    tooltip.hidden = false;
    tooltip.style.left = Math.min(event.clientX + 14, window.innerWidth - 300) + 'px';
    tooltip.style.top = event.clientY + 16 + 'px';
  }
  const hideTooltip = () => { tooltip.hidden = true; };

  function laneAt(event) {
    const lanes = byId('lanes');
    const bounds = lanes.getBoundingClientRect();
    const row = Math.floor((event.clientY - bounds.top + lanes.scrollTop) / LANE);
    return row >= 0 && row < state.lanes.length ? state.lanes[row] : null;
  }

  function listen() {
    const plot = byId('plot');
    let drag = null;
    plot.addEventListener('mousedown', (event) => {
      drag = {x: event.clientX, from: state.view.from, to: state.view.to, moved: false};
      event.preventDefault();
    });
    window.addEventListener('mousemove', (event) => {
      if (drag) {
        const dx = event.clientX - drag.x;
        drag.moved = drag.moved || Math.abs(dx) > 3;
        if (drag.moved) {
          const ms = dx * (drag.to - drag.from) / plotWidth();
          setView(drag.from - ms, drag.to - ms);
        }
      }
      if (state.brush) {
        state.brush.x1 = event.clientX - byId('axis').getBoundingClientRect().left;
        redraw();
      }
    });
    window.addEventListener('mouseup', (event) => {
      if (drag && !drag.moved) {
        const lane = laneAt(event);
        const x = event.clientX - plot.getBoundingClientRect().left;
        if (lane) {
          showAnswerAt(lane, pick(lane, x, plotWidth()));
        }
      }
      drag = null;
      if (state.brush) {
        const width = plotWidth();
        const a = tOf(Math.min(state.brush.x0, state.brush.x1), width);
        const b = tOf(Math.max(state.brush.x0, state.brush.x1), width);
        state.brush = null;
        if (b - a > 0 && Math.abs(xOf(b, width) - xOf(a, width)) > 3) {
          setView(a, b);
        } else {
          redraw();
        }
      }
    });
    plot.addEventListener('mousemove', (event) => {
      const lane = laneAt(event);
      if (!lane || drag) {
        hideTooltip();
        return;
      }
      const t = tOf(event.clientX - plot.getBoundingClientRect().left, plotWidth());
      const span = lastAtOrBefore(lane.at, t);
      showTooltip(event, lane.id + '\n' + formatTime(t) + ': ' +
          (span < 0 ? 'not running' : answerWords(lane.answer[span], lane.why[span])));
    });
    plot.addEventListener('mouseleave', hideTooltip);
    byId('axis').addEventListener('mousedown', (event) => {
      const x = event.clientX - byId('axis').getBoundingClientRect().left;
      state.brush = {x0: x, x1: x};
      event.preventDefault();
    });
    const problems = byId('problems');
    problems.addEventListener('mousemove', (event) => {
      const found = problemsNear(event.clientX - problems.getBoundingClientRect().left,
                                 plotWidth());
      if (found.length) {
        showTooltip(event, found.map((item) => item.problem.kind + ': ' + item.problem.words)
                                 .join('\n'));
      } else {
        hideTooltip();
      }
    });
    problems.addEventListener('mouseleave', hideTooltip);
    problems.addEventListener('click', (event) => {
      const found = problemsNear(event.clientX - problems.getBoundingClientRect().left,
                                 plotWidth());
      if (found.length) {
        showProblems(found);
      }
    });
    byId('lanes').addEventListener('wheel', (event) => {
      const x = event.clientX - plot.getBoundingClientRect().left;
      if (event.ctrlKey) {
        zoom(event.deltaY > 0 ? 1.25 : 0.8, tOf(x, plotWidth()));
        event.preventDefault();
      } else if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
        const delta = event.shiftKey ? event.deltaY : event.deltaX;
        pan(delta / plotWidth() * (state.view.to - state.view.from));
        event.preventDefault();
      }
    }, {passive: false});
    byId('lanes').addEventListener('scroll', redraw);
    byId('rows').addEventListener('click', (event) => {
      const row = event.target.dataset ? event.target.dataset.row : undefined;
      if (row !== undefined) {
        const lane = state.lanes[Number(row)];
        showAnswerAt(lane, Math.min(state.view.to, lane.end));
      }
    });
    document.addEventListener('keydown', (event) => {
      if (event.target === byId('search')) {
        return;
      }
      const keys = {
        '+': () => zoom(0.5), '=': () => zoom(0.5), '-': () => zoom(2), '0': () =>
          setView(state.cache.start, state.cache.end),
        'ArrowLeft': () => pan(-(state.view.to - state.view.from) / 4),
        'ArrowRight': () => pan((state.view.to - state.view.from) / 4),
      };
      if (keys[event.key]) {
        keys[event.key]();
        event.preventDefault();
      }
    });
    byId('zoom-in').addEventListener('click', () => zoom(0.5));
    byId('zoom-out').addEventListener('click', () => zoom(2));
    byId('zoom-all').addEventListener('click', () =>
      setView(state.cache.start, state.cache.end));
    byId('search').addEventListener('input', showLanes);
    byId('order').addEventListener('change', showLanes);
    byId('cache').addEventListener('change', (event) => showCache(Number(event.target.value)));
    window.addEventListener('resize', redraw);
  }

  function legend() {
    const keys = byId('legend');
    const key = (draw, words) => {
      const item = element('span', 'key');
      const canvas = document.createElement('canvas');
      canvas.width = 18;
      canvas.height = 12;
      draw(canvas.getContext('2d'));
      item.appendChild(canvas);
      item.appendChild(document.createTextNode(words));
      keys.appendChild(item);
    };
    for (const answer of [REACHABLE, UNREACHABLE, ABSENT, UNKNOWN]) {
      key((c) => {
        c.fillStyle = fillOf(c, answer);
        c.fillRect(0, 0, 18, 12);
      }, data.answers[answer].words);
    }
    key((c) => {
      c.fillStyle = '#222';
      c.fillRect(8, 0, 1, 12);
    }, 'told to listeners');
    key((c) => {
      c.strokeStyle = 'rgba(0, 0, 0, 0.5)';
      c.setLineDash([2, 2]);
      c.beginPath();
      c.moveTo(8.5, 0);
      c.lineTo(8.5, 12);
      c.stroke();
    }, 'periodic cycle');
    key((c) => {
      c.fillStyle = '#c62828';
      c.beginPath();
      c.moveTo(9, 1);
      c.lineTo(4, 11);
      c.lineTo(14, 11);
      c.fill();
    }, 'problem');
  }

  byId('title').textContent = document.title;
  const select = byId('cache');
  data.caches.forEach((cache, index) => {
    const option = element('option', '', cache.name);
    option.value = index;
    select.appendChild(option);
  });
  select.value = data.selected;
  legend();
  listen();
  showCache(data.selected);
})();
