// The gallery: a grid of "medium" thumbnails from kovathumb-cgi, lazily
// loaded; a click opens the "large" one. A thumbnail that fails shows a
// placeholder. ?eager=1 loads every thumbnail at once (for tests).
'use strict';

const eager = new URLSearchParams(location.search).has('eager');
const grid = document.getElementById('grid');
const status = document.getElementById('status');
const viewer = document.getElementById('viewer');
const large = document.getElementById('large');
const caption = document.getElementById('caption');
const counts = { total: 0, loaded: 0, failed: 0 };

function thumbUrl(path, size) {
  return 'thumb?' + new URLSearchParams({ path, size, fallback: '1' });
}

function humanSize(bytes) {
  const units = ['B', 'KB', 'MB', 'GB'];
  let i = 0;
  while (bytes >= 1024 && i < units.length - 1) { bytes /= 1024; i++; }
  return (i ? bytes.toFixed(1) : bytes) + ' ' + units[i];
}

function report() {
  const settled = counts.loaded + counts.failed;
  status.textContent = `${counts.total} files, ${counts.loaded} thumbnails shown` +
      (counts.failed ? `, ${counts.failed} unavailable` : '');
  status.dataset.total = counts.total;
  status.dataset.loaded = counts.loaded;
  status.dataset.failed = counts.failed;
  status.dataset.settled = settled === counts.total ? 'yes' : 'no';
}

function tile(file) {
  const figure = document.createElement('figure');
  const frame = document.createElement('div');
  frame.className = 'frame';
  const img = document.createElement('img');
  img.alt = file.path;
  img.loading = eager ? 'eager' : 'lazy';
  img.decoding = 'async';
  img.addEventListener('load', () => { counts.loaded++; report(); });
  img.addEventListener('error', () => {
    figure.classList.add('failed');
    img.src = 'placeholder.svg';
    counts.failed++;
    report();
  }, { once: true });
  img.src = thumbUrl(file.path, 'medium');
  frame.append(img);
  const cap = document.createElement('figcaption');
  const name = document.createElement('span');
  name.className = 'name';
  name.textContent = file.path;
  const meta = document.createElement('span');
  meta.className = 'meta';
  meta.textContent = `${file.type} · ${humanSize(file.size)}`;
  cap.append(name, meta);
  figure.append(frame, cap);
  figure.addEventListener('click', () => open(file));
  return figure;
}

function open(file) {
  large.src = thumbUrl(file.path, 'large');
  large.alt = file.path;
  caption.textContent = `${file.path} — ${file.type}, ${humanSize(file.size)}`;
  viewer.hidden = false;
}

function close() { viewer.hidden = true; large.removeAttribute('src'); }
document.getElementById('close').addEventListener('click', close);
viewer.addEventListener('click', (e) => { if (e.target === viewer) close(); });
document.addEventListener('keydown', (e) => { if (e.key === 'Escape') close(); });

fetch('thumb?list=1')
  .then((r) => { if (!r.ok) throw new Error('listing failed: ' + r.status); return r.json(); })
  .then((data) => {
    counts.total = data.files.length;
    report();
    grid.append(...data.files.map(tile));
  })
  .catch((e) => { status.textContent = e.message; status.dataset.settled = 'error'; });
