// The viewer page: a map that follows the frequency, spectra of a pixel and
// of a region, and the modes with their stabilisation chart.
'use strict';
const token = new URLSearchParams(location.search).get('token') || '';
const api = (path, params) => {
  const q = new URLSearchParams(params || {});
  q.set('token', token);
  return path + '?' + q.toString();
};
let info = null;
let bin = 0;
let zoom = 1;
let selected = null;  // {x, y, spectrum}: the clicked pixel
let mean = null;      // {rectangle, pixels, mean_magnitude}: of the image or a drawn rectangle
let chart = null;     // the stabilisation chart's data
let modes = [];
let dragRect = null;  // the rectangle being drawn
let inFlight = null;  // the map request being loaded
let pending = false;  // a newer map is wanted once it ends

const $ = (id) => document.getElementById(id);
const hz = (k) => (info.fps > 0 ? (k * info.fps) / info.frames : k);
const binOf = (f) => (info.fps > 0 ? (f * info.frames) / info.fps : f);
const referenced = () => $('reference').checked;
const quantity = () => (referenced() ? '|X/R|' : '|X|');

function showError(text) { $('status').textContent = text || ''; }

async function getJson(path, params) {
  const r = await fetch(api(path, params));
  if (!r.ok) throw new Error((await r.text()).trim());
  return r.json();
}

function fmt(v) {
  if (v === 0) return '0';
  const a = Math.abs(v);
  return a >= 1e4 || a < 1e-3 ? v.toExponential(2) : Number(v.toPrecision(3)).toString();
}

// ---- the map ----------------------------------------------------------------

function mapParams() {
  const p = { bin: String(bin) };
  if (!$('auto-gain').checked && Number($('gain').value) > 0) p.gain = $('gain').value;
  if (referenced()) p.reference = '1';
  return p;
}

// The colour scale: grey level = magnitude x gain, white from 255 / gain up.
function drawScale(gain) {
  const top = gain > 0 ? 255 / gain : NaN;
  const ticks = $('scale-ticks');
  ticks.textContent = '';
  for (let i = 0; i <= 4; ++i) {
    const s = document.createElement('span');
    s.style.left = (25 * i) + '%';
    s.textContent = Number.isFinite(top) ? fmt((top * i) / 4) + (i === 4 ? '+' : '') : '';
    ticks.appendChild(s);
  }
  $('scale-label').textContent = quantity() + (referenced() ? ' per reference unit' : ' in counts') +
    ' at ' + hz(bin).toPrecision(5) + ' Hz, gain ' + (gain > 0 ? fmt(gain) : '?') +
    ($('auto-gain').checked ? ' (automatic)' : '');
}

// One map request at a time: while one loads, only the newest wish is kept.
function requestMap() {
  if (inFlight) { pending = true; return; }
  inFlight = new AbortController();
  fetch(api('/api/map.png', mapParams()), { signal: inFlight.signal })
    .then(async (r) => {
      if (!r.ok) throw new Error((await r.text()).trim());
      const gain = Number(r.headers.get('X-Frfcam-Gain'));
      const blob = await r.blob();
      const old = $('map').src;
      $('map').src = URL.createObjectURL(blob);
      if (old.startsWith('blob:')) URL.revokeObjectURL(old);
      if ($('auto-gain').checked && gain > 0) $('gain').value = gain.toPrecision(6);
      drawScale(gain);
      showError('');
    })
    .catch((e) => { if (e.name !== 'AbortError') showError(e.message); })
    .finally(() => {
      inFlight = null;
      if (pending) { pending = false; requestMap(); }
    });
}

function setZoom(z) {
  zoom = Math.max(0.125, Math.min(16, z));
  $('map').style.width = (info.width * zoom) + 'px';
  $('map').style.height = (info.height * zoom) + 'px';
  $('zoom-level').textContent = Math.round(zoom * 100) + ' %';
  placeOverlays();
}

function fitZoom() {
  const frame = $('map-frame');
  const w = Math.max(64, frame.clientWidth - 2), h = Math.max(64, window.innerHeight * 0.6 - 2);
  setZoom(Math.min(w / info.width, h / info.height, 8));
}

function placeOverlays() {
  const m = $('mark');
  m.hidden = !selected;
  if (selected) {
    m.style.left = ((selected.x + 0.5) * zoom) + 'px';
    m.style.top = ((selected.y + 0.5) * zoom) + 'px';
  }
  const r = $('rect');
  const rect = dragRect || (mean && mean.drawn ? mean.rectangle : null);
  r.hidden = !rect;
  if (rect) {
    r.style.left = (rect[0] * zoom) + 'px';
    r.style.top = (rect[1] * zoom) + 'px';
    r.style.width = ((rect[2] - rect[0]) * zoom) + 'px';
    r.style.height = ((rect[3] - rect[1]) * zoom) + 'px';
  }
}

function setBin(k) {
  bin = Math.max(0, Math.min(info.bins - 1, Math.round(k)));
  $('slider').value = String(bin);
  $('frequency').value = Number(hz(bin).toPrecision(6));
  $('bin').textContent = 'bin ' + bin;
  requestMap();
  describePixel();
  drawSpectrum();
  drawChart();
}

// The pixel under a mouse event, inside the image.
function pixelAt(e) {
  const box = $('map').getBoundingClientRect();
  const px = Math.floor(((e.clientX - box.left) * info.width) / box.width);
  const py = Math.floor(((e.clientY - box.top) * info.height) / box.height);
  return [Math.max(0, Math.min(info.width - 1, px)), Math.max(0, Math.min(info.height - 1, py))];
}

// ---- spectra ----------------------------------------------------------------

const spectrumBox = { left: 58, right: 630, top: 12, magH: 280, phaseTop: 318, phaseH: 90 };

function drawSpectrum() {
  const c = $('spectrum');
  const g = c.getContext('2d');
  const b = spectrumBox;
  g.clearRect(0, 0, c.width, c.height);
  g.font = '12px sans-serif';
  const n = info.bins;
  const x = (k) => b.left + ((b.right - b.left) * k) / Math.max(1, n - 1);
  const curves = [];
  if (mean) curves.push(mean.mean_magnitude);
  if (selected) curves.push(selected.spectrum.re.map((re, k) => Math.hypot(re, selected.spectrum.im[k])));
  const all = curves.flat().filter((v) => v > 0 && Number.isFinite(v));
  let hi = Math.log10(all.length ? Math.max(...all) : 1);
  let lo = Math.max(Math.log10(all.length ? Math.min(...all) : 1e-6), hi - 6);
  hi = Math.ceil(hi); lo = Math.floor(lo); if (hi <= lo) hi = lo + 1;
  const y = (v) => b.top + b.magH * (1 - (Math.log10(Math.max(v, 1e-300)) - lo) / (hi - lo));
  g.strokeStyle = '#888';
  g.strokeRect(b.left, b.top, b.right - b.left, b.magH);
  g.strokeRect(b.left, b.phaseTop, b.right - b.left, b.phaseH);
  // decades on the magnitude axis, frequencies below
  g.fillStyle = '#444';
  g.textAlign = 'right';
  for (let d = lo; d <= hi; ++d) g.fillText('1e' + d, b.left - 4, y(Math.pow(10, d)) + 4);
  g.fillText('180°', b.left - 4, b.phaseTop + 10);
  g.fillText('−180°', b.left - 4, b.phaseTop + b.phaseH);
  g.textAlign = 'center';
  const fmax = hz(n - 1);
  const step = niceStep(fmax, 8);
  for (let f = 0; f <= fmax + 1e-9; f += step) {
    g.fillText(fmt(f), x(binOf(f)), b.phaseTop + b.phaseH + 14);
  }
  g.fillText('frequency [Hz]', (b.left + b.right) / 2, b.phaseTop + b.phaseH + 30);
  g.textAlign = 'left';
  const plot = (values, colour) => {
    g.strokeStyle = colour;
    g.beginPath();
    values.forEach((v, k) => (k ? g.lineTo(x(k), y(v)) : g.moveTo(x(k), y(v))));
    g.stroke();
  };
  if (mean) plot(mean.mean_magnitude, '#999');
  if (selected) {
    const s = selected.spectrum;
    plot(curves[curves.length - 1], '#048');
    g.strokeStyle = '#804';
    g.beginPath();
    s.re.forEach((re, k) => {
      const py = b.phaseTop + b.phaseH * (0.5 - Math.atan2(s.im[k], re) / (2 * Math.PI));
      k ? g.lineTo(x(k), py) : g.moveTo(x(k), py);
    });
    g.stroke();
  }
  g.strokeStyle = '#c00';
  g.beginPath();
  g.moveTo(x(bin), b.top);
  g.lineTo(x(bin), b.phaseTop + b.phaseH);
  g.stroke();
  g.fillStyle = '#222';
  let legend = quantity() + ', log scale:';
  g.fillText(legend, b.left + 6, b.top + 14);
  let at = b.left + 12 + g.measureText(legend).width;
  if (mean) {
    const t = 'mean of ' + mean.pixels + ' px' + (mean.drawn ? ' in the rectangle' : ' of the image');
    g.fillStyle = '#999'; g.fillText(t, at, b.top + 14); at += g.measureText(t).width + 10;
  }
  if (selected) { g.fillStyle = '#048'; g.fillText('pixel ' + selected.x + ', ' + selected.y, at, b.top + 14); }
  g.fillStyle = '#804';
  g.fillText(selected ? 'phase of the pixel' : 'phase (click a pixel)', b.left, b.phaseTop - 5);
}

function niceStep(span, count) {
  if (!(span > 0)) return 1;
  const raw = span / count, p = Math.pow(10, Math.floor(Math.log10(raw)));
  const m = raw / p;
  return (m < 1.5 ? 1 : m < 3.5 ? 2 : m < 7.5 ? 5 : 10) * p;
}

function describePixel() {
  if (!selected) return;
  const s = selected.spectrum;
  $('pixel').textContent = 'Pixel ' + selected.x + ', ' + selected.y + ': ' + quantity() + ' ' +
    fmt(Math.hypot(s.re[bin], s.im[bin])) + ', phase ' +
    ((Math.atan2(s.im[bin], s.re[bin]) * 180) / Math.PI).toFixed(1) + '° at ' + hz(bin).toPrecision(5) + ' Hz';
}

function loadSpectrum(px, py) {
  const p = { x: String(px), y: String(py) };
  if (referenced()) p.reference = '1';
  getJson('/api/spectrum', p)
    .then((s) => {
      selected = { x: px, y: py, spectrum: s };
      describePixel();
      placeOverlays();
      drawSpectrum();
    })
    .catch((e) => showError(e.message));
}

function loadMean(rect) {
  const p = rect ? { x0: rect[0], y0: rect[1], x1: rect[2], y1: rect[3] } : {};
  if (referenced()) p.reference = '1';
  getJson('/api/mean_spectrum', p)
    .then((m) => {
      mean = Object.assign(m, { drawn: !!rect });
      $('whole-image').hidden = !rect;
      placeOverlays();
      drawSpectrum();
    })
    .catch((e) => showError(e.message));
}

// ---- modes and the stabilisation chart -----------------------------------------

// One legend with the command line's chart: s filled blue circle, f open green
// circle, d orange plus, o grey dot; selected modes dashed red.
const chartBox = { left: 56, right: 670, top: 34, bottom: 370 };

function chartScales() {
  const fs = [];
  chart.orders.forEach((o) => ['s', 'f', 'd', 'o'].forEach((c) => o[c].forEach((f) => f !== null && fs.push(f))));
  let fmin = chart.line_hz.length ? chart.line_hz[0] : Math.min(...fs, 0);
  let fmax = chart.line_hz.length ? chart.line_hz[chart.line_hz.length - 1] : Math.max(...fs, 1);
  if (!(fmax > fmin)) { fmin = 0; fmax = hz(info.bins - 1); }
  const orders = chart.orders.map((o) => o.order);
  const omin = Math.min(...orders, 0), omax = Math.max(...orders, 1);
  const b = chartBox;
  return {
    fmin, fmax, omin, omax,
    x: (f) => b.left + ((b.right - b.left) * (f - fmin)) / (fmax - fmin),
    f: (px) => fmin + ((px - b.left) * (fmax - fmin)) / (b.right - b.left),
    y: (o) => b.bottom - ((b.bottom - b.top) * (o - omin + 0.5)) / (omax - omin + 1),
  };
}

function drawChart() {
  const c = $('chart');
  if (!chart || !info) return;
  const g = c.getContext('2d');
  const b = chartBox;
  const sc = chartScales();
  g.clearRect(0, 0, c.width, c.height);
  g.font = '12px sans-serif';
  g.strokeStyle = '#888';
  g.strokeRect(b.left, b.top, b.right - b.left, b.bottom - b.top);
  // the summed FRF behind, on a log scale of its own
  const mags = chart.sum_magnitude.filter((v) => v > 0);
  if (mags.length) {
    const hi = Math.log10(Math.max(...mags)), lo = Math.max(Math.log10(Math.min(...mags)), hi - 5);
    const my = (v) => b.bottom - ((b.bottom - b.top) * (Math.log10(Math.max(v, 1e-300)) - lo)) / Math.max(hi - lo, 1e-9);
    g.strokeStyle = '#bbb';
    g.beginPath();
    chart.sum_magnitude.forEach((v, i) => {
      const px = sc.x(chart.line_hz[i]), py = Math.max(b.top, Math.min(b.bottom, my(v)));
      i ? g.lineTo(px, py) : g.moveTo(px, py);
    });
    g.stroke();
  }
  g.setLineDash([5, 4]);
  g.strokeStyle = '#d22';
  chart.selected_hz.forEach((f) => {
    if (f === null) return;
    g.beginPath(); g.moveTo(sc.x(f), b.top); g.lineTo(sc.x(f), b.bottom); g.stroke();
  });
  g.setLineDash([]);
  const symbol = {
    s: (x, y) => { g.fillStyle = '#1f5fbf'; g.beginPath(); g.arc(x, y, 3.5, 0, 2 * Math.PI); g.fill(); },
    f: (x, y) => { g.strokeStyle = '#2a9d3a'; g.beginPath(); g.arc(x, y, 3.5, 0, 2 * Math.PI); g.stroke(); },
    d: (x, y) => { g.strokeStyle = '#e07b00'; g.beginPath(); g.moveTo(x - 4, y); g.lineTo(x + 4, y); g.moveTo(x, y - 4); g.lineTo(x, y + 4); g.stroke(); },
    o: (x, y) => { g.fillStyle = '#999'; g.fillRect(x - 1, y - 1, 2, 2); },
  };
  chart.orders.forEach((o) => ['o', 'd', 'f', 's'].forEach((cls) => o[cls].forEach((f) => {
    if (f !== null && f >= sc.fmin && f <= sc.fmax) symbol[cls](sc.x(f), sc.y(o.order));
  })));
  // the selected frequency
  const fsel = hz(bin);
  if (fsel >= sc.fmin && fsel <= sc.fmax) {
    g.strokeStyle = '#c00';
    g.beginPath(); g.moveTo(sc.x(fsel), b.top); g.lineTo(sc.x(fsel), b.bottom); g.stroke();
  }
  // axes and legend
  g.fillStyle = '#444';
  g.textAlign = 'center';
  const step = niceStep(sc.fmax - sc.fmin, 8);
  for (let f = Math.ceil(sc.fmin / step) * step; f <= sc.fmax + 1e-9; f += step) g.fillText(fmt(f), sc.x(f), b.bottom + 14);
  g.fillText('frequency [Hz]', (b.left + b.right) / 2, b.bottom + 32);
  g.textAlign = 'right';
  const ostep = Math.max(1, Math.round(niceStep(sc.omax - sc.omin, 8)));
  for (let o = Math.ceil(sc.omin / ostep) * ostep; o <= sc.omax; o += ostep) g.fillText(String(o), b.left - 5, sc.y(o) + 4);
  g.save(); g.translate(14, (b.top + b.bottom) / 2); g.rotate(-Math.PI / 2); g.textAlign = 'center';
  g.fillText('model order', 0, 0); g.restore();
  g.textAlign = 'left';
  g.fillStyle = '#222';
  g.fillText('Stabilisation chart' + (mags.length ? ' (grey: sum of |FRF|, log scale)' : ''), b.left, 14);
  let at = b.left;
  [['s', 'stable'], ['f', 'frequency'], ['d', 'damping'], ['o', 'new']].forEach(([cls, label]) => {
    symbol[cls](at + 5, 26);
    g.fillStyle = '#222';
    g.fillText(label, at + 12, 30);
    at += 22 + g.measureText(label).width;
  });
  g.setLineDash([5, 4]); g.strokeStyle = '#d22';
  g.beginPath(); g.moveTo(at, 26); g.lineTo(at + 18, 26); g.stroke(); g.setLineDash([]);
  g.fillText('selected', at + 22, 30);
}

// A click on the chart: the nearest stable pole within reach, else that frequency.
function chartClick(e) {
  const c = $('chart');
  const r = c.getBoundingClientRect();
  const px = ((e.clientX - r.left) * c.width) / r.width, py = ((e.clientY - r.top) * c.height) / r.height;
  const sc = chartScales();
  let best = null, bestD = 10;
  chart.orders.forEach((o) => o.s.forEach((f) => {
    if (f === null) return;
    const d = Math.hypot(sc.x(f) - px, sc.y(o.order) - py);
    if (d < bestD) { bestD = d; best = f; }
  }));
  const f = best !== null ? best : sc.f(px);
  if (!(f >= 0)) return;
  setBin(binOf(f));
  // a pole of a listed mode shows that mode's shape
  const near = modes.find((m) => Math.abs(m.frequency_hz - f) <= Math.max(hz(1), 0.01 * f));
  if (near && near.files.length) showShape(near);
}

function showShape(m, view) {
  document.querySelectorAll('#modes-table tbody tr').forEach((tr, i) => tr.classList.toggle('selected', modes[i] === m));
  const views = [['motion.gif', 'moving'], ['shape.gif', 'animated'], ['disp.png', 'grid'], ['shape.png', 'still']]
    .filter(([f]) => m.files.includes(f));
  $('shape-box').hidden = views.length === 0;
  if (!views.length) return;
  const shown = view && m.files.includes(view) ? view : views[0][0];
  $('mode-shape').src = api('/api/mode/' + m.mode + '/' + shown);
  $('shape-caption').textContent = 'Mode ' + m.mode + ': ' + m.frequency_hz.toFixed(3) + ' Hz, ' +
    (100 * m.damping_ratio).toFixed(3) + ' % damping, ' + m.shape + ' shape.';
  const box = $('shape-views');
  box.textContent = '';
  views.forEach(([f, label]) => {
    const b = document.createElement('button');
    b.textContent = label;
    b.className = f === shown ? 'on' : '';
    b.addEventListener('click', () => showShape(m, f));
    box.appendChild(b);
  });
}

async function loadModes(source) {
  const params = source ? { source } : {};
  const [list, data] = await Promise.all([getJson('/api/modes', params), getJson('/api/chart', params).catch((e) => { showError(e.message); return null; })]);
  modes = list.modes;
  chart = data;
  const body = $('modes-table').tBodies[0];
  body.textContent = '';
  modes.forEach((m) => {
    const tr = document.createElement('tr');
    [m.mode, m.frequency_hz.toFixed(3), (100 * m.damping_ratio).toFixed(3), m.mpc === undefined ? '' : m.mpc.toFixed(3), m.shape || '']
      .forEach((v) => { const td = document.createElement('td'); td.textContent = v; tr.appendChild(td); });
    tr.addEventListener('click', () => { setBin(binOf(m.frequency_hz)); showShape(m); });
    body.appendChild(tr);
  });
  $('shape-box').hidden = true;
  if (modes.length && modes[0].files.length) showShape(modes[0]);
  $('chart').hidden = !chart;
  drawChart();
}

// ---- start ------------------------------------------------------------------

function wire() {
  $('slider').addEventListener('input', () => setBin(Number($('slider').value)));
  const takeFrequency = () => {
    const text = $('frequency').value.trim();
    const f = Number(text);
    if (text !== '' && Number.isFinite(f)) setBin(binOf(f));
  };
  $('frequency').addEventListener('change', takeFrequency);
  $('frequency').addEventListener('keydown', (e) => { if (e.key === 'Enter') takeFrequency(); });
  document.addEventListener('keydown', (e) => {
    if (e.target.tagName === 'INPUT' && e.target.type === 'number') return;
    if (e.target.tagName === 'SELECT') return;
    if (e.key === 'ArrowRight' || e.key === 'ArrowUp') { setBin(bin + 1); e.preventDefault(); }
    if (e.key === 'ArrowLeft' || e.key === 'ArrowDown') { setBin(bin - 1); e.preventDefault(); }
  });
  $('auto-gain').addEventListener('change', () => { $('gain').disabled = $('auto-gain').checked; requestMap(); });
  $('gain').addEventListener('change', requestMap);
  $('reference').addEventListener('change', () => {
    requestMap();
    if (selected) loadSpectrum(selected.x, selected.y);
    loadMean(mean && mean.drawn ? mean.rectangle : null);
  });
  $('zoom-in').addEventListener('click', () => setZoom(zoom * 2));
  $('zoom-out').addEventListener('click', () => setZoom(zoom / 2));
  $('zoom-fit').addEventListener('click', fitZoom);
  $('map-frame').addEventListener('wheel', (e) => {
    if (!e.ctrlKey) return;
    e.preventDefault();
    setZoom(zoom * (e.deltaY < 0 ? 1.25 : 0.8));
  }, { passive: false });
  // a click picks a pixel; a drag draws a rectangle for its mean spectrum
  let down = null;
  $('map').addEventListener('mousedown', (e) => { down = { e, p: pixelAt(e) }; e.preventDefault(); });
  window.addEventListener('mousemove', (e) => {
    if (!down || Math.hypot(e.clientX - down.e.clientX, e.clientY - down.e.clientY) < 4) return;
    const p = pixelAt(e);
    dragRect = [Math.min(down.p[0], p[0]), Math.min(down.p[1], p[1]), Math.max(down.p[0], p[0]) + 1, Math.max(down.p[1], p[1]) + 1];
    placeOverlays();
  });
  window.addEventListener('mouseup', (e) => {
    if (!down) return;
    const moved = Math.hypot(e.clientX - down.e.clientX, e.clientY - down.e.clientY) >= 4;
    const start = down.p;
    down = null;
    dragRect = null;
    if (!moved) return loadSpectrum(start[0], start[1]);
    const p = pixelAt(e);
    loadMean([Math.min(start[0], p[0]), Math.min(start[1], p[1]), Math.max(start[0], p[0]) + 1, Math.max(start[1], p[1]) + 1]);
  });
  $('whole-image').addEventListener('click', () => loadMean(null));
  $('spectrum').addEventListener('click', (e) => {
    const c = $('spectrum'), r = c.getBoundingClientRect();
    const px = ((e.clientX - r.left) * c.width) / r.width, b = spectrumBox;
    if (px >= b.left && px <= b.right) setBin(((px - b.left) * (info.bins - 1)) / (b.right - b.left));
  });
  $('chart').addEventListener('click', (e) => { if (chart) chartClick(e); });
  $('source').addEventListener('change', () => loadModes($('source').value).catch((e) => showError(e.message)));
}

async function start() {
  info = await getJson('/api/info');
  $('about').textContent = info.width + '×' + info.height + ' px, ' + info.frames + ' frames at ' +
    info.fps + ' fps, ' + info.bins + ' bins (' + fmt(hz(1)) + ' Hz apart)';
  $('slider').max = String(info.bins - 1);
  $('reference-box').hidden = !info.reference;
  wire();
  fitZoom();
  setBin(Math.min(info.bins - 1, Math.round(info.bins / 8)));
  loadMean(null);
  if (info.modes || info.record) {
    $('modes-panel').hidden = false;
    $('source').hidden = !(info.modes && info.record);
    await loadModes(info.modes ? 'modes' : 'record');
  }
}

start().catch((e) => showError(e.message));
