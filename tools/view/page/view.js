// The viewer page: a map that follows the frequency, and a pixel's spectrum.
'use strict';
const token = new URLSearchParams(location.search).get('token') || '';
const api = (path, params) => {
  const q = new URLSearchParams(params || {});
  q.set('token', token);
  return path + '?' + q.toString();
};
let info = null;
let bin = 0;
let selected = null;  // {x, y, spectrum}
let inFlight = null;  // the map request being loaded
let pending = false;  // a newer map is wanted once it ends

const $ = (id) => document.getElementById(id);
const hz = (k) => (info.fps > 0 ? (k * info.fps) / info.frames : k);

function showError(text) { $('status').textContent = text || ''; }

function mapParams() {
  const p = { bin: String(bin) };
  if (!$('auto-gain').checked && Number($('gain').value) > 0) p.gain = $('gain').value;
  if ($('reference').checked) p.reference = '1';
  return p;
}

// One map request at a time: while one loads, only the newest wish is kept.
function requestMap() {
  if (inFlight) { pending = true; return; }
  const controller = new AbortController();
  inFlight = controller;
  fetch(api('/api/map.png', mapParams()), { signal: controller.signal })
    .then(async (r) => {
      if (!r.ok) throw new Error((await r.text()).trim());
      const gain = Number(r.headers.get('X-Frfcam-Gain'));
      const blob = await r.blob();
      const old = $('map').src;
      $('map').src = URL.createObjectURL(blob);
      if (old.startsWith('blob:')) URL.revokeObjectURL(old);
      $('scale-top').textContent = '|X|' + ($('reference').checked ? '/|R|' : '') + ' ' +
        (gain > 0 ? (255 / gain).toPrecision(4) : '?');
      if ($('auto-gain').checked && gain > 0) $('gain').value = gain.toPrecision(6);
      showError('');
    })
    .catch((e) => { if (e.name !== 'AbortError') showError(e.message); })
    .finally(() => {
      inFlight = null;
      if (pending) { pending = false; requestMap(); }
    });
}

function setBin(k) {
  bin = Math.max(0, Math.min(info.bins - 1, Math.round(k)));
  $('slider').value = String(bin);
  $('frequency').value = hz(bin).toPrecision(6);
  $('bin').textContent = 'bin ' + bin;
  requestMap();
  drawSpectrum();
}

function drawSpectrum() {
  const c = $('spectrum');
  const g = c.getContext('2d');
  g.clearRect(0, 0, c.width, c.height);
  if (!selected) return;
  const s = selected.spectrum;
  const mag = s.re.map((re, k) => Math.hypot(re, s.im[k]));
  const phase = s.re.map((re, k) => Math.atan2(s.im[k], re));
  const left = 50, right = c.width - 10, top = 10, magH = 270, phaseTop = 300, phaseH = 100;
  const x = (k) => left + ((right - left) * k) / Math.max(1, mag.length - 1);
  const positive = mag.filter((v) => v > 0);
  const hi = Math.log10(Math.max(...positive, 1e-30));
  const lo = Math.max(Math.log10(Math.min(...positive, 1e-30)), hi - 6);
  const y = (v) => top + magH * (1 - (Math.log10(Math.max(v, 1e-30)) - lo) / Math.max(hi - lo, 1e-9));
  g.strokeStyle = '#888';
  g.strokeRect(left, top, right - left, magH);
  g.strokeRect(left, phaseTop, right - left, phaseH);
  g.strokeStyle = '#048';
  g.beginPath();
  mag.forEach((v, k) => (k ? g.lineTo(x(k), y(v)) : g.moveTo(x(k), y(v))));
  g.stroke();
  g.strokeStyle = '#804';
  g.beginPath();
  phase.forEach((p, k) => {
    const py = phaseTop + phaseH * (0.5 - p / (2 * Math.PI));
    k ? g.lineTo(x(k), py) : g.moveTo(x(k), py);
  });
  g.stroke();
  g.strokeStyle = '#c00';
  g.beginPath();
  g.moveTo(x(bin), top);
  g.lineTo(x(bin), phaseTop + phaseH);
  g.stroke();
  g.fillStyle = '#222';
  g.fillText('|' + ($('reference').checked ? 'X/R' : 'X') + '| (log)', left + 4, top + 12);
  g.fillText('phase', left + 4, phaseTop + 12);
  g.fillText('0 Hz', left, c.height - 4);
  g.fillText(hz(mag.length - 1).toPrecision(5) + ' Hz', right - 60, c.height - 4);
}

function loadSpectrum(px, py) {
  const p = { x: String(px), y: String(py) };
  if ($('reference').checked) p.reference = '1';
  fetch(api('/api/spectrum', p))
    .then(async (r) => {
      if (!r.ok) throw new Error((await r.text()).trim());
      selected = { x: px, y: py, spectrum: await r.json() };
      $('pixel').textContent = 'Pixel ' + px + ', ' + py;
      drawSpectrum();
    })
    .catch((e) => showError(e.message));
}

function start() {
  fetch(api('/api/info'))
    .then(async (r) => {
      if (!r.ok) throw new Error((await r.text()).trim());
      info = await r.json();
      $('about').textContent = info.width + '×' + info.height + ', ' + info.frames + ' frames at ' +
        info.fps + ' fps, ' + info.bins + ' bins';
      $('slider').max = String(info.bins - 1);
      $('reference-box').hidden = !info.reference;
      $('map').width = info.width;
      $('map').height = info.height;
      $('slider').addEventListener('input', () => setBin(Number($('slider').value)));
      const takeFrequency = () => {
        const text = $('frequency').value.trim();
        const f = Number(text);
        if (text !== '' && Number.isFinite(f)) setBin(info.fps > 0 ? (f * info.frames) / info.fps : f);
      };
      $('frequency').addEventListener('change', takeFrequency);
      $('frequency').addEventListener('keydown', (e) => { if (e.key === 'Enter') takeFrequency(); });
      document.addEventListener('keydown', (e) => {
        if (e.target.tagName === 'INPUT' && e.target.type === 'number') return;
        if (e.key === 'ArrowRight' || e.key === 'ArrowUp') { setBin(bin + 1); e.preventDefault(); }
        if (e.key === 'ArrowLeft' || e.key === 'ArrowDown') { setBin(bin - 1); e.preventDefault(); }
      });
      $('auto-gain').addEventListener('change', () => {
        $('gain').disabled = $('auto-gain').checked;
        requestMap();
      });
      $('gain').addEventListener('change', requestMap);
      $('reference').addEventListener('change', () => {
        requestMap();
        if (selected) loadSpectrum(selected.x, selected.y);
      });
      $('map').addEventListener('click', (e) => {
        const rect = $('map').getBoundingClientRect();
        const px = Math.floor(((e.clientX - rect.left) * info.width) / rect.width);
        const py = Math.floor(((e.clientY - rect.top) * info.height) / rect.height);
        loadSpectrum(Math.max(0, Math.min(info.width - 1, px)), Math.max(0, Math.min(info.height - 1, py)));
      });
      setBin(Math.min(info.bins - 1, Math.round(info.bins / 8)));
    })
    .catch((e) => showError(e.message));
}

start();
